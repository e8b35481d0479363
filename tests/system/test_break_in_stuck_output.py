"""Output that nobody reads: the daemon drops it, says how much it was, and never stops for it."""

import contextlib
import os
import pty
import re
import select
import signal

import pytest

from harness.debuglog import STAMP, messages
from harness.scenes import THREADS, attach_when_accessible, wrapped
from harness.waiting import wait_until

UNSEEN = -2  # the level of a station whose output the harness does not read
SOON = 2.0   # seconds within which SIGTERM must end it

LOST = re.compile(rf"^ZEV {STAMP}: (\d+) messages were lost\n", re.MULTILINE)
HEAD = re.compile(rf"ZEV {STAMP}:")

CTRL_Q, CTRL_S = b"\x11", b"\x13"


class Reader:
    """The reader of the daemon's output, who may stop reading."""

    def __init__(self, descriptor: int, path: os.PathLike | str) -> None:
        self.path = path
        self._taken = bytearray()
        self._descriptor = descriptor
        os.set_blocking(descriptor, False)

    def take(self) -> bool:
        """Read what is there now, up to a limit; true once anything has ever come."""
        with contextlib.suppress(BlockingIOError):
            for _ in range(16):
                self._taken += os.read(self._descriptor, 65536)
        return bool(self._taken)

    @property
    def taken(self) -> int:
        """How many bytes were taken so far: a position for `text`."""
        return len(self._taken)

    def text(self, after: int = 0) -> str:
        """What was taken since the position, with the line ends of a file."""
        return self._taken[after:].decode("latin-1").replace("\r\n", "\n")

    def type(self, key: bytes) -> None:
        """Press a key on the terminal."""
        os.write(self._descriptor, key)

    def leave(self) -> None:
        """Close the pipe while the daemon writes."""
        nowhere = os.open(os.devnull, os.O_RDONLY | os.O_CLOEXEC)
        os.dup2(nowhere, self._descriptor, inheritable=False)
        os.close(nowhere)

    def close(self) -> None:
        """Close the descriptor at the end of the test."""
        os.close(self._descriptor)


@pytest.fixture
def pipe(station):
    """A pipe that the daemon writes its output to."""
    path = station.root / "pipe"
    os.mkfifo(path)
    reader = Reader(os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC), path)
    wrapped(station, f"exec > {path}")
    yield reader
    reader.close()


@pytest.fixture
def terminal(station):
    """A terminal that the daemon writes its output to, as a shell leaves it."""
    master, slave = pty.openpty()
    reader = Reader(master, os.ttyname(slave))
    wrapped(station, f"exec > {reader.path}")
    reader.writable = lambda: bool(select.select([], [slave], [], 0)[1])
    yield reader
    reader.close()
    os.close(slave)


def start(station, level: int) -> None:
    """Start the daemon; the harness must not wait for its output."""
    station.start("-d", str(level))
    station.level = UNSEEN
    wait_until(lambda: station.threads() >= THREADS, what="all threads to be there")


def fill(reader: Reader) -> None:
    """Leave no room in the pipe."""
    writer = os.open(reader.path, os.O_WRONLY | os.O_NONBLOCK | os.O_CLOEXEC)
    with contextlib.suppress(BlockingIOError):
        while True:
            os.write(writer, b"x" * 4095 + b"\n")
    os.close(writer)


def works(station, box) -> None:
    """A console is connected and logged, and its user hears what it prints and is heard by it."""
    box.accept()
    user = attach_when_accessible(station, "box")
    user.send(b"typed")
    box.expect(b"typed")
    box.send(b"printed\n")
    user.expect(b"printed\n")
    log = station.logs / "zev.dated/current/box.log"
    wait_until(lambda: b"printed\n" in log.read_bytes(), what="the line to be logged")


def ends_soon(station) -> None:
    """SIGTERM ends it at once, even if its last messages are lost."""
    station.signal(signal.SIGTERM)
    station.expect_exit(1, limit=SOON)


def refusals(station, count: int) -> None:
    """Have callers ask, one after another, for a console that does not exist."""
    threads = station.threads()
    for _ in range(count):
        with station.ask("nowhere") as caller:
            caller.expect(b"004 - Console not found.\r\n")
        wait_until(lambda: station.threads() <= threads, what="the caller's thread to end")


def test_a_pipe_that_nobody_reads_stops_nothing(station, pipe):
    box = station.console("box")
    fill(pipe)
    start(station, 3)
    works(station, box)
    ends_soon(station)
    pipe.take()
    assert "ZEV " not in pipe.text()


def test_the_exact_number_of_lost_messages_is_reported(station, pipe):
    start(station, 1)
    wait_until(pipe.take, what="the first words")
    position = pipe.taken
    refusals(station, 1)
    pipe.take()
    said = messages(pipe.text(position))
    assert said[-1] == "ServiceConnectionRequestThreadStart: Exiting thread.\n"
    fill(pipe)
    refusals(station, 20)

    pipe.take()
    position = pipe.taken
    refusals(station, 1)
    pipe.take()
    after = pipe.text(position)
    assert int(LOST.match(after)[1]) == 20 * len(said)
    assert len(LOST.findall(after)) == 1
    assert messages(after[LOST.match(after).end():]) == said


def test_a_stopped_terminal_stops_nothing_and_resumes_with_whole_lines(station, terminal):
    box = station.console("box")
    terminal.type(CTRL_S)
    wait_until(lambda: not terminal.writable(), what="the terminal to stop")
    start(station, 3)
    works(station, box)
    assert not terminal.take()

    terminal.type(CTRL_Q)
    wait_until(lambda: terminal.take() and LOST.search(terminal.text()), what="the loss to be told")
    whole_lines(terminal.text())
    ends_soon(station)


def test_a_terminal_that_stops_in_mid_output_stops_nothing(station, terminal):
    """At level 3 some output is always on its way to the terminal."""
    box = station.console("box")
    start(station, 3)
    for _ in range(5):
        wait_until(lambda: not terminal.writable(), what="the terminal to be full")
        position = terminal.taken
        wait_until(lambda at=position: terminal.take() and terminal.taken > at + 30000,
                   what="output to go on")
    works(station, box)
    wait_until(lambda: not terminal.writable(), what="the terminal to be full")
    refusals(station, 1)
    wait_until(lambda: terminal.take() and LOST.search(terminal.text()), what="the loss to be told")
    whole_lines(terminal.text())
    ends_soon(station)


def whole_lines(text: str) -> None:
    """No line was torn: where a message begins, the one before has ended."""
    for head in HEAD.finditer(text):
        assert head.start() == 0 or text[head.start() - 1] == "\n", text[:head.end()][-400:]


def test_a_reader_who_goes_away_stops_nothing(station, pipe):
    box = station.console("box")
    start(station, 3)
    wait_until(pipe.take, what="the first words")
    pipe.leave()
    works(station, box)
    ends_soon(station)


def test_a_reader_who_has_gone_before_the_start_stops_nothing(station):
    path = station.root / "pipe"
    os.mkfifo(path)
    wrapped(station, f"exec 3<>{path} 4>{path} 3<&-\nexec >&4 4>&-")
    box = station.console("box")
    start(station, 3)
    works(station, box)
    ends_soon(station)
