"""`zevctl events`: the events that the daemon posts, and anything else sent to its socket."""

import json
import os
import re
import resource
import signal
import socket
import stat
from contextlib import ExitStack

import pytest

from harness import zevctl
from harness.closing import Closing
from harness.collectors import Collector, socket_path
from harness.logs import bring_up
from harness.station import assert_no_sanitizer_report
from harness.waiting import LIMIT, stretched, wait_until

TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d"


class Receiver:
    """`zevctl events`, waiting at its socket, and what it has printed."""

    def __init__(self, station, *arguments: str, path=None, **options) -> None:
        self.path = path or socket_path(station)
        self.process = zevctl.start(None, "events", *arguments, **options)
        ready = f"Waiting for events on {self.path}.\n"
        self._said = b""
        for pipe in (self.process.stdout, self.process.stderr):
            os.set_blocking(pipe.fileno(), False)
        wait_until(lambda: ready in self.said(), what="the receiver to wait")
        assert self.said() == ready
        self._ready = ready
        self._shown = b""

    def said(self) -> str:
        """Everything on standard error."""
        self._said += self.process.stderr.read() or b""
        return self._said.decode()

    def warnings(self) -> list[str]:
        """The lines on standard error after the first."""
        return self.said().removeprefix(self._ready).splitlines()

    def lines(self) -> list[str]:
        """What has been printed, in whole lines."""
        self._shown += self.process.stdout.read() or b""
        return self._shown[:self._shown.rfind(b"\n") + 1].decode().splitlines()

    def wait_lines(self, count: int, limit: float = LIMIT) -> list[str]:
        """Wait for this many lines; there must not be more."""
        wait_until(lambda: len(self.lines()) >= count, limit, f"{count} lines")
        assert len(self.lines()) == count, self.lines()
        return self.lines()

    def ended(self) -> int:
        """Wait for the end; return the exit status."""
        status = self.process.wait(stretched(LIMIT))
        assert_no_sanitizer_report(self.said())
        return status

    def end(self, number: int = signal.SIGTERM) -> None:
        """End it by the signal; it must end well and leave no socket."""
        self.process.send_signal(number)
        assert self.ended() == zevctl.OK
        assert not self.path.exists()


@pytest.fixture
def receive(station):
    """Makes receivers, and ends those that still run after the test."""
    with ExitStack() as ends:

        def start(*arguments: str, **options) -> Receiver:
            made = Receiver(station, *arguments, **options)
            ends.enter_context(made.process)
            ends.callback(made.process.kill)
            return made

        yield start


class Poster(Closing):
    """A program that sends lines to the socket."""

    def __init__(self, path) -> None:
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(stretched(LIMIT))
        self.socket.connect(str(path))

    def send(self, *lines: bytes) -> "Poster":
        """Send the lines as they are."""
        self.socket.sendall(b"".join(lines))
        return self

    def close(self) -> None:
        """End the connection."""
        self.socket.close()


def event(number: int, priority: int = 100) -> bytes:
    """A line as the daemon sends it, as short as possible."""
    return b'{"time": "t", "name": "n", "priority": %d, "vars": {"message": "%d"}}\n' % (priority,
                                                                                         number)


@pytest.fixture
def box(station):
    """A console whose output is matched, and a daemon that has called it."""
    (station.events / "set").write_text("any 300 0 error\nless 200 0 warning\n")
    made = station.console("box", events=1, event_file="set")
    bring_up(station, made, options=("-d", "1"))
    return made


# What is printed


def test_an_event_is_shown(station, box, receive):
    receiver = receive()
    box.send(b"Disk \x1b[1msda\tERROR\r\n")
    line, = receiver.wait_lines(1)
    assert re.fullmatch(TIME + r" 300 box any: Disk \?\[1msda ERROR", line)
    assert receiver.warnings() == []


def test_an_event_is_shown_as_json(station, box, receive):
    receiver = receive("--json")
    box.send(b"Disk \xfe\x1b ERROR\n")
    line, = receiver.wait_lines(1)
    shape = (r'\{"time":"' + TIME + r'","host":"' + re.escape(socket.gethostname())
             + r'","name":"qor\.zevd\.console\.box","priority":300,"vars":\{"name":"box",'
             r'"message":"Disk \ufffd\\u001b ERROR\\n"\},"console":"box","pattern":"any"\}')
    assert re.fullmatch(shape, line), line


def test_an_error_of_the_daemon_is_shown(station, receive):
    receiver = receive("--priority", "700")
    station.events.rmdir()
    station.start()
    line, = receiver.wait_lines(1)
    assert re.fullmatch(TIME + r" 700 - qor\.zevd\.daemon\.error\.events directory not found: "
                        "events directory not found", line)


def test_events_can_be_selected_by_priority(station, box, receive):
    receiver = receive("--priority", "300")
    box.send(b"warning 1\nerror 2\n")
    line, = receiver.wait_lines(1)
    assert line.endswith(" 300 box any: error 2")
    with Poster(receiver.path) as poster:
        poster.send(b'{"name": "none"}\n', b'{"name": "text", "priority": "400"}\n', event(3, 299),
                    event(4, 300))
        assert receiver.wait_lines(2)[1] == "t 300 -   n: 4"


def test_every_event_is_shown_at_once(station, box, receive):
    receiver = receive()
    for number in range(1, 6):
        box.send(b"error %d\n" % number)
        assert receiver.wait_lines(number)[-1].endswith(f"error {number}")


def test_it_may_come_and_go_under_the_daemon(station, box, receive):
    first = receive()
    box.send(b"error 1\n")
    first.wait_lines(1)
    first.end()
    second = receive()
    box.send(b"error 2\n")
    line, = second.wait_lines(1)
    assert line.endswith("error 2")


# Other input


def test_many_connections_can_be_open_at_once(station, receive):
    receiver = receive()
    with ExitStack() as ends:
        posters = [ends.enter_context(Poster(receiver.path)) for _ in range(300)]
        for number, poster in enumerate(posters):
            poster.send(event(number))
        found = receiver.wait_lines(300)
    assert sorted(found) == sorted(f"t 100 - n: {number}" for number in range(300))


def test_connections_beyond_the_limit_wait(station, receive):
    def few_descriptors() -> None:
        resource.setrlimit(resource.RLIMIT_NOFILE, (16, 16))

    receiver = receive(preexec_fn=few_descriptors)
    with ExitStack() as ends:
        posters = [ends.enter_context(Poster(receiver.path)) for _ in range(40)]
        for number, poster in enumerate(posters):
            poster.send(event(number))
        wait_until(receiver.lines, what="the first events")
        assert len(receiver.lines()) < 40
        for poster in posters:
            poster.close()
        assert sorted(receiver.wait_lines(40)) == sorted(f"t 100 - n: {n}" for n in range(40))


def test_a_line_that_is_not_an_event_is_reported_and_skipped(station, receive):
    receiver = receive()
    with Poster(receiver.path) as poster:
        poster.send(event(1), b"\x1b[2J no " + b"x" * 100 + b"\n", b"[1]\n", b"\n",
                    b'{"a": ' * 1000 + b"\n", event(2))
        assert receiver.wait_lines(2) == ["t 100 - n: 1", "t 100 - n: 2"]
    wait_until(lambda: len(receiver.warnings()) >= 4, what="the messages")
    assert receiver.warnings() == [
        f'zevctl: this is no event and is left out: "{shown}"; see what else writes to the socket'
        for shown in ("?[2J no " + "x" * 52, "[1]", "", '{"a": ' * 10)]


def test_a_line_without_an_end_is_bounded(station, receive):
    receiver = receive()
    with Poster(receiver.path) as poster, Poster(receiver.path) as other:
        poster.send(b"x" * 20_000_000)
        other.send(event(1))
        assert receiver.wait_lines(1) == ["t 100 - n: 1"]
        poster.send(b"\n", event(2))
        receiver.wait_lines(2)
    wait_until(receiver.warnings, what="the message")
    assert receiver.warnings() == [
        "zevctl: a line of more than 65536 bytes came in and was dropped; the daemon sends no such "
        "lines, so see what else writes to the socket"]
    with open(f"/proc/{receiver.process.pid}/status", encoding="ascii") as status:
        peak = next(int(line.split()[1]) for line in status if line.startswith("VmHWM:"))
    with open(f"/proc/{receiver.process.pid}/maps", encoding="latin-1") as maps:
        sanitized = "libasan" in maps.read()
    assert sanitized or peak < 16384, f"{peak} kB"


def test_a_line_may_come_in_pieces_or_without_an_end(station, receive):
    receiver = receive()
    with Poster(receiver.path) as poster:
        for byte in event(1):
            poster.send(bytes([byte]))
        poster.send(event(2).rstrip(b"\n"))
    assert receiver.wait_lines(2) == ["t 100 - n: 1", "t 100 - n: 2"]


def test_a_slow_reader_delays_nobody(station, receive):
    receiver = receive()
    count = 30_000
    padding = b"x" * 1000
    with Poster(receiver.path) as poster:
        # Far more than the pipe and the receiver hold; this would block if it were not read.
        poster.send(*(event(number).replace(b'"n"', b'"n%s"' % padding) for number in range(count)))
        # After the last event, to see that all have been read.
        poster.send(b"end\n")
        end = ('zevctl: this is no event and is left out: "end"; see what else writes to the '
               "socket")
        wait_until(lambda: receiver.warnings() == [end], 60, "everything to be taken")
        wait_until(lambda: receiver.lines() and len(receiver.warnings()) == 2, 60, "the rest")
    missing = re.fullmatch(r"zevctl: (\d+) events are missing here: the output was not read in "
                           "time; write it to a file, or take fewer with --priority",
                           receiver.warnings()[1])
    assert missing and int(missing[1]) > 0
    shown = receiver.wait_lines(count - int(missing[1]))
    assert shown == [f"t 100 - n{padding.decode()}: {number}" for number in range(len(shown))]
    with Poster(receiver.path) as poster:
        poster.send(event(count))
        assert receiver.wait_lines(len(shown) + 1)[-1] == f"t 100 - n: {count}"


# The socket


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_signals_end_it(station, receive, number):
    receiver = receive()
    assert stat.S_IMODE(receiver.path.stat().st_mode) == 0o660
    receiver.end(number)
    assert receiver.warnings() == []


def test_a_signal_ends_it_while_the_output_is_stalled(station, receive):
    receiver = receive()
    with Poster(receiver.path) as poster:
        poster.send(*(event(number) for number in range(20_000)))
        receiver.end()


def test_a_reader_that_goes_ends_it(station, receive):
    receiver = receive()
    receiver.process.stdout.close()
    assert receiver.ended() == zevctl.OK
    assert receiver.warnings() == [] and not receiver.path.exists()


def test_a_stale_socket_is_replaced(station, receive):
    first = receive()
    first.process.kill()
    first.process.wait()
    assert first.path.is_socket()
    second = receive()
    with Poster(second.path) as poster:
        poster.send(event(1))
        second.wait_lines(1)


def test_a_socket_that_is_in_use_is_left_alone(station):
    with Collector(station) as collector:
        zevctl.refuse(None, zevctl.FAILED, f"somebody receives the events of {collector.path} "
                      "already; end that program, or give another path with --socket", "events")
        assert collector.path.is_socket()


def test_a_file_that_is_not_a_socket_is_left_alone(station, tmp_path):
    file = tmp_path / "file"
    file.write_text("kept")
    zevctl.refuse(None, zevctl.FAILED, f"{file} is there already and is no socket; remove it, or "
                  "give another path with --socket", "events", "--socket", str(file))
    assert file.read_text() == "kept"


def test_the_socket_of_a_successor_is_left_alone(station, receive):
    receiver = receive()
    receiver.path.unlink()
    with Collector(station) as successor:
        receiver.process.send_signal(signal.SIGTERM)
        assert receiver.ended() == zevctl.OK
        assert successor.path.is_socket()


def test_another_socket_can_be_chosen(station, receive, tmp_path):
    path = tmp_path / "made" / "socket"
    receiver = receive("--socket", str(path), "--json", path=path)
    with Poster(path) as poster:
        poster.send(event(1))
        assert json.loads(receiver.wait_lines(1)[0]) == json.loads(event(1))
    receiver.end()


@pytest.mark.parametrize("arguments", [["--priority"], ["--priority", "high"], ["extra"]])
def test_invalid_command_lines_are_refused(arguments):
    done = zevctl.run(None, "events", *arguments)
    assert (done.returncode, done.stdout) == (zevctl.USAGE, "")
    assert done.stderr


def test_another_host_is_refused():
    zevctl.refuse(None, zevctl.USAGE, '--host: "events" works with the event socket of this '
                  'machine; run it there with "ssh far zevctl events", or leave out --host and '
                  "ZEVCTL_HOST", "events", "--host", "far")
