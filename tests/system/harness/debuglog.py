"""The daemon's own output: parsing its debug lines, and waiting for one of them."""

import re
from dataclasses import dataclass
from pathlib import Path

from harness.waiting import LIMIT, wait_until

STAMP = r"\d\d/\d\d/\d\d_\d\d:\d\d:\d\d"

_HEADER = re.compile(
    rf"^ZEV ({STAMP}):(?:<([^>\n]*)>: | Last message repeated (\d+) times\n)", re.MULTILINE)
_LINE = re.compile(
    rf"^ZEV ({STAMP}):(?:<([^>\n]*)>: (.*)| Last message repeated (\d+) times)$", re.MULTILINE)

Wanted = str | re.Pattern[str]


@dataclass(frozen=True)
class Record:
    """One message, with all its lines; or, with `repeats` above 0, the count of a collapsed run."""

    stamp: str
    thread: str
    message: str
    repeats: int = 0


@dataclass(frozen=True)
class Found:
    """A line that was waited for, and the position in the output that follows it."""

    stamp: str
    thread: str
    message: str
    end: int


def parse(text: str) -> list[Record]:
    """Every debug message of the text. Other output is part of the message before it."""
    headers = list(_HEADER.finditer(text))
    ends = [header.start() for header in headers[1:]] + [len(text)]
    return [Record(header[1], header[2] or "", text[header.end():end], int(header[3] or 0))
            for header, end in zip(headers, ends)]


def messages(text: str) -> list[str]:
    """The messages alone, without the counts of collapsed runs."""
    return [record.message for record in parse(text) if not record.repeats]


def _matches(wanted: Wanted, message: str) -> bool:
    return message == wanted if isinstance(wanted, str) else bool(wanted.search(message))


class DebugLog:
    """A file that the daemon is writing. Bytes are read as Latin-1, so that none is lost."""

    def __init__(self, path: Path) -> None:
        self.path = path

    def size(self) -> int:
        """How much has been written so far: a position for `after`."""
        return self.path.stat().st_size if self.path.exists() else 0

    def text(self, after: int = 0) -> str:
        """What has been written since the position."""
        if not self.path.exists():
            return ""
        with open(self.path, "rb") as log:
            log.seek(after)
            return log.read().decode("latin-1")

    def tail(self, lines: int = 40) -> str:
        """The last lines, for the report of a failure."""
        return "\n".join(self.text(max(0, self.size() - 16384)).splitlines()[-lines:])

    def wait(self, wanted: Wanted, count: int = 1, after: int = 0, thread: str | None = None,
             limit: float = LIMIT) -> Found:
        """Wait until `count` messages have matched since `after`; return the last of them.

        A text must be the whole message, a pattern is searched in it. Only the first line of a
        message is looked at. Repeats that the daemon collapsed count, too.
        """
        search = _Search(self, wanted, count, after, thread)
        by_whom = f" of <{thread}>" if thread else ""
        shown = wanted if isinstance(wanted, str) else wanted.pattern
        return wait_until(search.advance, limit, f"{count} debug line(s){by_whom} {shown!r}")


class _Search:
    """One walk through a growing log; every byte is looked at once."""

    def __init__(self, log: DebugLog, wanted: Wanted, count: int, after: int,
                 thread: str | None) -> None:
        self.log = log
        self.wanted = wanted
        self.missing = count
        self.position = after
        self.thread = thread
        self._match: re.Match[str] | None = None

    def advance(self) -> Found | None:
        """Look at the lines completed since the last call, up to the one that makes the count."""
        text = self.log.text(self.position)
        complete = text[:text.rfind("\n") + 1]
        for line in _LINE.finditer(complete):
            self._look_at(line)
            if self.missing <= 0 and self._match:
                stamp, thread, message, _ = self._match.groups()
                return Found(stamp, thread, message, self.position + line.end() + 1)
        self.position += len(complete)
        return None

    def _look_at(self, line: re.Match[str]) -> None:
        _, thread, message, repeats = line.groups()
        if repeats:
            self.missing -= int(repeats) if self._match else 0
            return
        matched = self.thread in (None, thread) and _matches(self.wanted, message)
        self._match = line if matched else None
        self.missing -= matched
