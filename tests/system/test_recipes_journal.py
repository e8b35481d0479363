"""The recipe with the system's journal: a real journal receives events, logs and records.

No service manager runs here. What the units say of their input and output is done by the tools that
come with it: systemd-socket-activate accepts connections, systemd-cat leads output to the journal.
"""

import json
import re
import shlex
import subprocess
from pathlib import Path

import pytest

from harness import logs, zevctl
from harness.collectors import socket_path
from harness.helpers import private_copy
from harness.isolation import mount_tmpfs, unmount
# `waker` is a fixture.
from harness.logs import waker
from harness.recipes import Recipe, Running
from harness.system_log import enter_private_devices
from harness.waiting import wait_until

pytestmark = pytest.mark.needs_namespace

RECIPE = Recipe("journal", {"/usr/bin/zevctl": str(zevctl.PROGRAM)})
UNITS = ("zevd-journal-events.socket", "zevd-journal-events@.service", "zevd-journal-logs.service")
RUN = Path("/run")
# The machine's own messages stay out of the test, and the test's out of the machine's journal.
CONFIGURATION = "[Journal]\nStorage=volatile\nReadKMsg=no\nAudit=no\nForwardToWall=no\n"


def unit(name: str) -> dict[str, str]:
    """The last value of every key of a unit."""
    return dict(re.findall(r"^(\w+)=(.*)$", RECIPE.text(name), re.MULTILINE))


def in_the_journal(values: dict[str, str]) -> list[str]:
    """A command that leads the output of the next one to the journal as the unit would."""
    assert (values["StandardOutput"], values["SyslogLevelPrefix"]) == ("journal", "no")
    return ["systemd-cat", "-t", values["SyslogIdentifier"], "-p", values["SyslogLevel"],
            "--level-prefix=false"]


def entries(identifier: str) -> list[dict]:
    """The entries of a program."""
    shown = subprocess.run(["journalctl", "-D", "/run/log/journal", "-t", identifier, "-o", "json",
                            "-q", "--no-pager"], capture_output=True, text=True, check=False).stdout
    return [json.loads(line) for line in shown.splitlines()]


def messages(identifier: str) -> list[str]:
    return [entry["MESSAGE"] for entry in entries(identifier)]


@pytest.fixture
def journal(isolated, tmp_path):
    """A real journal of the test's own, with the system log that the daemon writes to."""
    devices = enter_private_devices()
    mount_tmpfs(RUN)
    (RUN / "systemd" / "journal").mkdir(parents=True)
    (devices / "log").symlink_to("/run/systemd/journal/dev-log")
    with private_copy(Path("/etc/systemd"), tmp_path) as copy:
        (copy / "journald.conf").write_text(CONFIGURATION)
        with Running(["/lib/systemd/systemd-journald"], tmp_path / "journald.out") as started:
            wait_until((RUN / "systemd/journal/stdout").is_socket, what="the journal")
            yield started
    unmount(RUN)
    unmount(devices)


@pytest.fixture
def box(journal, station, waker):
    """A console with a log that has a past."""
    (station.events / "set").write_text("failure 300 0 error\n")
    made = station.console("box", events=1, event_file="set")
    logs.bring_up(station, made, waker)
    for name in ("box", "waker"):
        station.wait_connected(name)
    made.send(b"from before\n")
    logs.wait_records(logs.log_of(station, "box"), [b"from before\n"])
    return made


def test_each_event_is_an_entry(station, box, tmp_path):
    socket, service = unit(UNITS[0]), unit(UNITS[1])
    assert (socket["Accept"], service["StandardInput"]) == ("yes", "socket")
    assert socket["ListenStream"] == str(socket_path(station))
    socket_path(station).parent.mkdir()
    accept = ["systemd-socket-activate", "--accept", "--inetd", "-l", socket["ListenStream"]]
    command = [*in_the_journal(service), *shlex.split(service["ExecStart"])]
    with Running([*accept, *command], tmp_path / "events.out"):
        wait_until(socket_path(station).is_socket, what="the socket")
        box.send(b"disk error one\n<0>disk error \x1b[31mtwo\n")
        wait_until(lambda: len(messages("zevd-events")) >= 2, what="two entries")
        found = [json.loads(message) for message in messages("zevd-events")]
        assert [event["vars"]["message"] for event in found] == [
            "disk error one\n", "<0>disk error \x1b[31mtwo\n"]
        assert {entry["PRIORITY"] for entry in entries("zevd-events")} == {"4"}


def test_what_all_consoles_print_is_followed_across_rotations(station, box, waker, tmp_path):
    service = unit(UNITS[2])
    logs.age_directory(station)
    command = [*in_the_journal(service), *shlex.split(service["ExecStart"])]
    with Running(command, tmp_path / "logs.out") as following:
        def followed() -> bool:
            box.send(b"are you there\n")
            return bool(messages("zevd-console"))

        wait_until(followed, what="the log to be followed")
        box.send(b"one\n<0>two\n")
        logs.rotate(station, waker)
        box.send(b"three\n")

        def said() -> list[str]:
            return [text for text in messages("zevd-console") if "there" not in text]

        wait_until(lambda: len(said()) >= 3, what="three entries")
        assert len(logs.directories(station)) > 1
        stamped = [re.fullmatch(r"box +\S+ (.*)", text) for text in said()]
        assert [found and found[1] for found in stamped] == ["one", "<0>two", "three"]
        assert {entry["PRIORITY"] for entry in entries("zevd-console")} == {"6"}
        assert following.said() == ""


def test_the_daemons_records_are_there_in_any_case(station, box):
    station.attach("box", user="anna").close()

    def records() -> list[dict]:
        return [entry for entry in entries("zevd") if 'given_user="anna"' in entry["MESSAGE"]]

    wait_until(lambda: len(records()) >= 2, what="two records")
    assert {entry["SYSLOG_FACILITY"] for entry in records()} == {"10"}


def test_the_service_manager_takes_the_units(tmp_path):
    for name in UNITS:
        RECIPE.install(name, tmp_path / name)
    paths = [tmp_path / name for name in UNITS if "@" not in name]
    done = subprocess.run(["systemd-analyze", "verify", "--man=no", *paths], check=False,
                          capture_output=True, text=True)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


@pytest.mark.parametrize("name", UNITS[1:])
def test_the_services_may_do_little(name):
    shown = subprocess.run(["systemd-analyze", "security", "--offline=true", "--no-pager",
                            RECIPE.directory / name], check=True, capture_output=True,
                           text=True).stdout
    level = re.search(r"Overall exposure level for \S+ (\d+\.\d)", shown)
    assert level and float(level[1]) <= 2.0, shown
