"""A journal of one console to be replayed, and a terminal on which it is."""

from pathlib import Path

import pytest

from harness import zevctl
from harness.screens import Screen
from journal_writer import SECOND, Field, JournalWriter, Kind, nanoseconds

BEGIN = nanoseconds("2026-11-22 03:10:00")
SINCE = "2026-11-22T03:10:00Z"

HOSTILE = (b"\x1b[6n\x1b[c\x1b[>c\x1b[5n\x1b[18t\x1b[?2026$p\x1bZ\x05\x1b]0;title\a\x1b]52;c;eA==\a"
           b"\x1b]11;?\x1b\\\x1bP$qm\x1b\\\x1b[?1000h\x1b[?2004h\x1b[>4;2m\x1b="
           b"\xc2\x9b6n\x1b[8;9;9t\xe2\x80\xaelarutan\r\n\x1b[2l\x1b[5ishown\x1b]never ends")


# Records of these kinds belong to the station, not to a console.
OF_THE_STATION = {Kind.GAP, Kind.CLOCK_STEP, Kind.STARTED, Kind.STOPPED, Kind.AUDIT, Kind.TORN}


class Tape:
    """A journal of one console; times are seconds from BEGIN on, as both clocks tell them."""

    def __init__(self, directory: Path, name: str = "web") -> None:
        self.directory = directory
        self.journal = JournalWriter(directory, begin=BEGIN - SECOND)
        self.console = self.journal.console(name, "10.0.0.1", 4001)

    def record(self, kind: Kind, seconds: float, payload=b"") -> None:
        """Write a record of the console, or of the station where the kind wants that."""
        span = round(seconds * SECOND)
        console = 0 if kind in OF_THE_STATION else self.console
        self.journal.record(kind, console, payload, at=BEGIN + span, monotonic=span + SECOND)

    def output(self, seconds: float, data: bytes) -> None:
        """The console prints."""
        self.record(Kind.OUTPUT, seconds, data)

    def event(self, seconds: float, pattern: str, line: str) -> None:
        """A pattern has matched a line."""
        self.record(Kind.EVENT, seconds,
                    {Field.PATTERN: pattern, Field.PRIORITY: 1, Field.TEXT: line})

    def attached(self, seconds: float, user: str) -> None:
        """Somebody attaches."""
        self.record(Kind.ATTACHED, seconds,
                    {Field.USER: user, Field.FROM: "10.0.0.9", Field.MODE: "sh"})

    def arguments(self, *more: str) -> list[str]:
        """The command line that replays it, without the program; from BEGIN on if nothing else."""
        since = [] if "--since" in more else ["--since", SINCE]
        return ["replay", "web", "--journal-dir", str(self.directory), *since, *more]


@pytest.fixture
def tape(tmp_path):
    made = Tape(tmp_path / "journal")
    yield made
    made.journal.close()


@pytest.fixture
def play(tape):
    """Replays the tape on a terminal; the function's options are those of the command."""
    screens = []

    def start(*options: str, **terminal) -> Screen:
        screens.append(Screen(str(zevctl.PROGRAM), *tape.arguments(*options), **terminal))
        return screens[-1]

    yield start
    for screen in screens:
        screen.close()


def crash(tape: Tape) -> None:
    """A boot, a crash with an event, a user, and a long silence in front of the next prompt."""
    tape.output(0, b"booting\r\n")
    tape.output(4, b"\x1b[1;31mpanic\x1b[0m: one\r\n")
    tape.event(4.1, "PANIC", "panic: one")
    tape.attached(20, "anna")
    tape.output(25, b"rebooting\r\n")
    tape.output(30, b"panic: two\r\n")
    tape.event(30.1, "PANIC", "panic: two")
    tape.output(7200, b"login: ")


CRASH = ["booting", "panic: one", "rebooting", "panic: two", "login:"]
