"""The recipe with rsyslog: events in a file; events, logs and records on another machine."""

import contextlib
import json
import re
import shutil
import socket
import stat
import subprocess
from pathlib import Path

import pytest

from harness import logs
from harness.collectors import socket_path
from harness.consoles import FakeConsole
from harness.helpers import private_copy
from harness.isolation import mount_tmpfs, unmount
# `waker` is a fixture.
from harness.logs import waker
from harness.recipes import Recipe, Running
from harness.system_log import enter_private_devices
from harness.waiting import wait_until

pytestmark = pytest.mark.needs_namespace

FORWARDED = re.compile(r"<(\d+)>1 \d{4}-\d\d-\d\dT[\d:.]+\S* \S+ (\S+) (\S+) - - (.*)")
STAMP = re.compile(r"^\S+ ")
PROBE = "are you there"
KERNEL_LOG = 'module(load="imklog")'  # it would take the machine's own messages
EVENTS = Path("/var/log/zevd-events.log")
HIDDEN = (Path("/var/log"), Path("/var/spool/rsyslog"))


class Other:
    """The machine to which everything is sent; rsyslog may have several connections to it."""

    def __init__(self) -> None:
        self._streams: dict[socket.socket, bytes] = {}
        self._listener: socket.socket | None = None
        self.listen()

    def listen(self) -> None:
        self._listener = socket.create_server(("127.0.0.1", 514))
        self._listener.setblocking(False)

    def shut(self) -> None:
        """Be away; what has arrived is kept."""
        self._take()
        for end in (*self._streams, self._listener):
            end.close()

    def _take(self) -> None:
        with contextlib.suppress(BlockingIOError):
            while True:
                connection, _ = self._listener.accept()
                connection.setblocking(False)
                self._streams[connection] = b""
        for connection in self._streams:
            with contextlib.suppress(BlockingIOError):
                while chunk := connection.recv(65536):
                    self._streams[connection] += chunk

    def messages(self, program: str) -> list[tuple[int, str, str]]:
        """Of one program: priority, process id and text of each complete message."""
        self._take()
        lines = [line for stream in self._streams.values()
                 for line in stream[:stream.rfind(b"\n") + 1].decode().splitlines()]
        parsed = [FORWARDED.fullmatch(line) for line in lines]
        assert None not in parsed, lines
        return [(int(found[1]), found[3], found[4]) for found in parsed if found[2] == program]

    def lines(self, console: str) -> list[str]:
        """The lines of a console, without the times and without those of `wait_following`."""
        return [STAMP.sub("", text) for _, name, text in self.messages("zevd-console")
                if name == console and not text.endswith(PROBE)]


class Machine:
    """A machine with Debian's own configuration of rsyslog and the recipe's."""

    def __init__(self, station, scratch: Path) -> None:
        self.station = station
        self.scratch = scratch
        self.other = Other()
        main = Path("/etc/rsyslog.conf")
        text = main.read_text()
        assert KERNEL_LOG in text
        main.write_text(text.replace(KERNEL_LOG, f"#{KERNEL_LOG}"))
        Path("/etc/hosts").write_text("127.0.0.1 localhost loghost.example.net\n")
        subprocess.run(["useradd", "--system", "--uid", "64310", "zevd"], check=True,
                       capture_output=True)
        (station.root / "run").mkdir()
        self.recipe = Recipe("rsyslog")
        self.recipe.follow("Events in a file")
        self.recipe.follow("To another machine")

    def run(self) -> Running:
        program = shutil.which("rsyslogd", path="/usr/sbin")
        started = Running([program, "-n", "-i", str(self.scratch / "rsyslogd.pid")],
                          self.scratch / "rsyslogd.out")
        wait_until(socket_path(self.station).exists, what="the socket for events")
        return started

    def wait_following(self, box: FakeConsole) -> None:
        """Wait until what the console prints arrives at the other machine.

        rsyslog begins with a log where the log ends when it first looks at it; nothing tells when.
        """
        def heard() -> bool:
            box.send(f"{PROBE}\n".encode())
            return bool(self.other.messages("zevd-console"))

        wait_until(heard, what="rsyslog to follow the log")


@pytest.fixture
def machine(station, tmp_path):
    """A machine of the test's own, /dev/log included; rsyslog does not run yet."""
    devices = enter_private_devices()
    for directory in HIDDEN:
        mount_tmpfs(directory)
    with private_copy(Path("/etc"), tmp_path):
        made = Machine(station, tmp_path)
        yield made
        made.other.shut()
    for directory in (*HIDDEN, devices):
        unmount(directory)


@pytest.fixture
def box(machine, waker):
    """A console with a log that has a past."""
    station = machine.station
    (station.events / "set").write_text("failure 300 0 error\n")
    made = station.console("box", events=1, event_file="set")
    logs.bring_up(station, made, waker)
    for name in ("box", "waker"):
        station.wait_connected(name)
    made.send(b"from before\n")
    logs.wait_records(logs.log_of(station, "box"), [b"from before\n"])
    return made


def test_events_are_kept_and_sent_on(machine, box):
    with machine.run():
        door = socket_path(machine.station).stat()
        assert (door.st_uid, stat.S_IMODE(door.st_mode)) == (64310, 0o600)
        box.send(b"disk error \x1b[31m\n")
        wait_until(EVENTS.exists, what="the file with events")
        wait_until(lambda: EVENTS.read_text().endswith("\n"), what="the event")
        (line,) = EVENTS.read_text().splitlines()
        event = json.loads(line)
        assert (event["name"], event["priority"]) == ("qor.zevd.console.box", 300)
        assert stat.S_IMODE(EVENTS.stat().st_mode) == 0o640
        wait_until(lambda: machine.other.messages("zevd-events"), what="the event, sent on")
        assert machine.other.messages("zevd-events") == [(132, "-", line)]


def test_what_consoles_print_is_sent_on_across_rotations(machine, box, waker):
    """All of it, once, in order, and nothing from before."""
    station = machine.station
    lines = [f"line {number}" for number in range(60)]

    def say(some: list[str]) -> None:
        for line in some:
            box.send(f"{line}\r\n".encode())

    logs.age_directory(station)
    with machine.run() as rsyslog:
        machine.wait_following(box)
        say(lines[:20])
        wait_until(lambda: len(machine.other.lines("box")) >= 20, what="lines before the rotation")
        say(lines[20:30])
        logs.rotate(station, waker)
        say(lines[30:])
        box.send(b"the end \x1b[31m\n")
        wait_until(lambda: "the end" in machine.other.lines("box")[-1], what="the last line")
        assert len(logs.directories(station)) > 1
        found = machine.other.lines("box")
        assert found == [*lines, "the end #027[31m"]
        assert {name for _, name, _ in machine.other.messages("zevd-console")} == {"box"}
        assert {priority for priority, _, _ in machine.other.messages("zevd-console")} == {134}
        assert rsyslog.said() == ""


def test_what_cannot_be_sent_waits(machine, box):
    """While the other machine is away, and over a restart of rsyslog."""
    with machine.run():
        machine.wait_following(box)
        box.send(b"before\n")
        wait_until(lambda: machine.other.lines("box") == ["before"], what="all lines")
    machine.other.shut()
    with machine.run() as rsyslog:
        box.send(b"unheard\n")
        rsyslog.wait_said("cannot connect to loghost.example.net:514")
    machine.other = Other()
    with machine.run():
        box.send(b"heard\n")
        wait_until(lambda: len(machine.other.lines("box")) >= 2, what="both lines")
        assert set(machine.other.lines("box")) == {"unheard", "heard"}


def test_the_daemons_records_are_sent_on(machine, box):
    with machine.run():
        wait_until(Path("/dev/log").exists, what="the system log")
        machine.station.attach("box", user="anna").close()

        def records() -> list[tuple[int, str, str]]:
            return [record for record in machine.other.messages("zevd") if "anna" in record[2]]

        wait_until(lambda: len(records()) >= 2, what="the records")
        for (priority, process, text), what in zip(records(), ("attach", "leave"), strict=True):
            assert (priority >> 3, process) == (10, str(machine.station.pid))
            assert text.strip().startswith(f'what="{what}" result=')
