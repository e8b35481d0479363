"""What a console has printed and what of it has appeared in its logs, byte by byte.

The ledger knows every byte that the daemon was sent, less what the logs leave out: carriage
returns, NULs and telnet commands. The records of the logs must be these bytes, each once and in
their order. A gap is allowed only where the system says so: in windows that were recorded when
their cause was made, in what was still on its way when a console reset its connection, and, without
a user, in a chunk that begins with a high byte.

A user's view is judged likewise: what was shown and the numbers in the marks, which stand in the
place of what was not, must make up what the console has printed meanwhile.
"""

import contextlib
import re
from collections import deque
from dataclasses import dataclass, field
from typing import Iterator

from journal_book import JournalBook
from stream import LINE, Stream, common_prefix
from windows import Window, Windows, clock

RECORD = 1024  # the longest record
_REMEMBERED = 200  # records and visits

_TAIL = 16384  # more than the replay of a new user and what is on its way to the daemon
_MARK = re.compile(rb"\r\n\[zevd: (\d+) bytes were not shown\]\r\n")
HELD_BACK = 64  # received, and perhaps the beginning of a mark

_TELNET = 255
_DROPPED = b"\r\0"

# The bytes after a telnet command's first; the pieces of a command that two chunks share are
# logged. Consoles print them for nothing else.
TELNET_BYTES = b"\x01\xfb\xfc"


class View:
    """What one user has been shown of a console's output, and how much of it was not."""

    def __init__(self, before: bytes) -> None:
        self.shown = 0
        self.not_shown = 0
        self.gaps = 0
        self._printed = bytearray(before)
        self._place = -1  # in what was printed, up to which it is accounted for
        self._waiting = b""  # received, and not yet compared

    def sent(self, raw: bytes) -> None:
        """The console has printed this."""
        self._printed += raw

    def received(self, data: bytes) -> str:
        """The user has received this. What is wrong with it; nothing when it is as it should be."""
        self._waiting += data
        if self._place < 0 and not self._align():
            too_long = len(self._waiting) > _TAIL
            return f"begins with {self._waiting[:80]!r}, unlike all output" if too_long else ""
        while match := _MARK.search(self._waiting):
            wrong = self._compare(self._waiting[:match.start()])
            if wrong:
                return wrong
            self._waiting = self._waiting[match.end():]
            self.gaps += 1
            self.not_shown += int(match[1])
            self._place += int(match[1])
        ready = self._waiting[:-HELD_BACK]
        self._waiting = self._waiting[len(ready):]
        return self._compare(ready)

    @property
    def printed(self) -> int:
        """How much the console has printed, in the measure of `accounted`."""
        return len(self._printed)

    @property
    def accounted(self) -> int:
        """How much of it the user has been shown or told of, but for the last HELD_BACK bytes."""
        return max(self._place, 0)

    def _align(self) -> bool:
        """Find the place of what was received first, by the number of a line."""
        for number in LINE.finditer(self._waiting):
            found = self._printed.find(number[0])
            if found >= 0:
                self._place = max(0, found - number.start())
                # What was replayed may be older than what is kept here.
                self._waiting = self._waiting[max(0, number.start() - found):]
                return True
        return False

    def _compare(self, content: bytes) -> str:
        if not self._printed.startswith(content, self._place):
            same = common_prefix(content, self._printed, self._place)
            due = bytes(self._printed[self._place + same:self._place + same + 80])
            return (f"shows {content[same:same + 80]!r} for {due!r} after {self.shown + same} "
                    f"bytes and {self.gaps} gaps")
        self._place += len(content)
        self.shown += len(content)
        return ""


@dataclass
class Ledger(Stream):
    """The books of one console."""

    common_cuts: Windows = field(default_factory=Windows)  # of the whole station: lines may be cut
    journal: JournalBook | None = None  # what the journal holds of it
    cuts: Windows = field(default_factory=Windows)  # a line may be cut in two
    watched: Windows = field(default_factory=Windows)  # somebody may be attached

    def __post_init__(self) -> None:
        super().__post_init__()
        self._telnet_left = 0
        self._cut = self._full = False
        self._seen_unwatched: deque[float] = deque(maxlen=_REMEMBERED)
        self._surely_watched: deque[tuple[float, float]] = deque(maxlen=_REMEMBERED)
        self._unwatched: deque[tuple[float, bytes]] = deque()
        self._views: list[View] = []
        self._tail = bytearray()  # of all that was printed, as it was printed

    # What its users see

    @contextlib.contextmanager
    def view(self) -> Iterator[View]:
        """The view of a user who comes now."""
        made = View(bytes(self._tail))
        self._views.append(made)
        try:
            yield made
        finally:
            self._views.remove(made)

    # What the console does

    def sent(self, raw: bytes, when: float) -> None:
        """The daemon has been sent these bytes."""
        self._tail += raw
        del self._tail[:-_TAIL]
        for view in self._views:
            view.sent(raw)
        self.append(self._kept(raw) if self.dirty else raw.translate(None, _DROPPED), when)
        if self.journal is not None:
            self.journal.sent(raw, when)

    def _kept(self, raw: bytes) -> bytes:
        kept = bytearray()
        for byte in raw:
            if byte >= 128 or self._telnet_left:
                self._drop_points.append(self._end + len(kept))
            if self._telnet_left:
                self._telnet_left -= 1
            elif byte == _TELNET:
                self._telnet_left = 2
            elif byte not in _DROPPED:
                kept.append(byte)
        return bytes(kept)

    def connection_ended(self, when: float, lost: int = 0) -> None:
        """The connection is over; up to `lost` bytes of it were still on their way."""
        self._telnet_left = 0
        self.cuts.moment("end of a connection", when)
        for stream in filter(None, (self, self.journal)):
            stream.lost(lost)

    def may_close(self, why: str, when: float) -> list[Window]:
        """From now on the daemon may close the connection and leave output unread."""
        return [stream.windows.open(why, when) for stream in filter(None, (self, self.journal))]

    # What its logs hold

    def record(self, stamp: float, content: bytes) -> None:
        """The next record of the console's own log."""
        self._unwatched.append((stamp, content))
        if self.dirty:
            clean = content.translate(None, TELNET_BYTES)
            self.counts.remains += len(content) - len(clean)
            content = clean
        if content == b"\n" and self._is_added(stamp):
            return
        if self._cut:
            self.fail(f"{self.name}: {content[:80]!r} follows a line that was cut")
        self._full = self._cut = False
        if content:
            self.take(stamp, content)
            self._look_at_end(stamp, content)

    def _is_added(self, stamp: float) -> bool:
        """A line end that no console printed comes after a piece that was cut off its line.

        The piece itself may have found no room on the disk.
        """
        added = self._cut or (not self._stream.startswith(b"\n") and (
            self._full or self.common.touch(stamp, stamp + 1)))
        self._full = self._cut = False
        return added

    def _look_at_end(self, stamp: float, content: bytes) -> None:
        """A record ends with its line, is full, or has been cut where a log was closed."""
        if content.endswith(b"\n"):
            return
        self._full = len(content) == RECORD
        self._cut = not self._full
        if self._cut and not self._may_be_cut(stamp):
            self.fail(f"{self.name}: a line was cut for no reason at {clock(stamp)}: "
                      f"{content[-80:]!r}; cuts: {self.cuts}; station: {self.common_cuts}")

    def _may_be_cut(self, stamp: float) -> bool:
        return self.cuts.touch(stamp, stamp + 1) or self.common_cuts.touch(stamp, stamp + 1)

    def settle(self) -> None:
        """Nothing more will be logged: what was printed and not found must be excused."""
        if self._cut:
            self.fail(f"{self.name}: a line that was cut has no end")
        super().settle()

    # The consolidated log

    def consolidated(self, stamp: float, content: bytes) -> None:
        """The next record of this console in the consolidated log.

        Each must be in the console's own log, too. Those that are missing here were written while
        somebody may have been attached.
        """
        self._seen_unwatched.append(stamp)
        for start, end in self._surely_watched:
            self._must_not_be_watched(stamp, start, end)
        skipped = []
        while self._unwatched:
            own_stamp, own = self._unwatched.popleft()
            if own == content and own_stamp == stamp:
                self.counts.unwatched += 1
                break
            skipped.append((own_stamp, own))
        else:
            self.fail(f"{self.name}: consolidated.log has at {clock(stamp)} {content[:120]!r}, "
                      "which is not in the console's log, or not at this place")
            self._unwatched.extend(skipped)
            return
        for own_stamp, own in skipped:
            self._must_be_watched(own_stamp, own)

    def _must_be_watched(self, stamp: float, content: bytes) -> None:
        if self.watched.touch(stamp, stamp + 1) or self.common.touch(stamp, stamp + 1):
            return
        self.fail(f"{self.name}: consolidated.log lacks the record of {clock(stamp)} "
                  f"{content[:120]!r}; watched: {self.watched}")

    def surely_watched(self, start: float, end: float) -> None:
        """Somebody was attached all the time between these two; what was read of it may be late."""
        self._surely_watched.append((start, end))
        for stamp in self._seen_unwatched:
            self._must_not_be_watched(stamp, start, end)

    def _must_not_be_watched(self, stamp: float, start: float, end: float) -> None:
        if start <= stamp and stamp + 1 <= end:
            self.fail(f"{self.name}: consolidated.log has a record of {clock(stamp)}, but "
                      f"somebody watched from {clock(start)} until {clock(end)}")

    def settle_consolidated(self) -> None:
        """Nothing more will come."""
        while self._unwatched:
            self._must_be_watched(*self._unwatched.popleft())
