"""What of a console's output is in the journal, and what the journal itself says is not.

The journal holds the bytes as users get them, with carriage returns, NULs and telnet commands. What
arrived while a user had the console to himself is not in it; a record says how many bytes these
were, and they must be exactly the ones that are missing there. The excuses of the logs are none
here: a log that is full or cannot be opened costs the journal nothing.
"""

import time
from dataclasses import dataclass

from stream import CHUNK, LINE, Stream
from windows import clock

NOT_LOGGED = "not logged, as the journal says"
_SHOWN = 120


@dataclass
class JournalBook(Stream):
    """One console's output and its records in the journal."""

    def __post_init__(self) -> None:
        super().__post_init__()
        self._told = 0  # bytes that the journal says it has not, and that have not been met yet
        self._is_behind_gap = False
        self._waiting = b""  # kept behind a gap, until its place is known

    def sent(self, raw: bytes, when: float) -> None:
        """The daemon has been sent these bytes."""
        if self.dirty:
            self._drop_points.extend(
                self._end + place for place, byte in enumerate(raw) if byte >= 128)
        self.append(raw, when)

    def not_logged(self, count: int) -> None:
        """So many bytes were not kept here, as a record says."""
        self._take_waiting()
        self._told += count

    def gap(self) -> None:
        """Records are missing here, perhaps some of this console."""
        self._take_waiting()
        self._is_behind_gap = True

    def output(self, stamp: float, content: bytes) -> None:
        """The next record of the console's output.

        Behind a gap, a piece of a line may be found in more than one place; what has the number of
        a line in it may not.
        """
        self._waiting += content
        if self._is_behind_gap and LINE.search(self._waiting) is None:
            return
        self._take_waiting(stamp)

    def _take_waiting(self, stamp: float | None = None) -> None:
        content, self._waiting = self._waiting, b""
        self._is_behind_gap = False
        if content:
            self._put(time.time() if stamp is None else stamp, content)

    def _put(self, stamp: float, content: bytes) -> None:
        if not self._told or self._starts_at(self._told, content):
            self._leave_out(self._told)
            self.take(stamp, content)
            return
        found = self._stream.find(content, self._told)
        if found < 0:
            self.fail(f"{self.name}: the record of {clock(stamp)} follows {self._told} bytes that "
                      f"are not in the journal, as it says, and holds {content[:_SHOWN]!r}; "
                      f"due is {bytes(self._stream[self._told:self._told + _SHOWN])!r}")
            found = min(self._told, len(self._stream))
        self._leave_out(found)
        self.take(stamp, content)

    def _starts_at(self, place: int, content: bytes) -> bool:
        if self._stream.startswith(content, place):
            return True
        return self.dirty and self._fit(content, place, depth=1) is not None

    def _leave_out(self, count: int) -> None:
        """The first bytes are missing. All but those that the journal tells of need an excuse."""
        unexcused = count - self._excusable(count)
        if unexcused > self._told:
            self.fail(f"{self.name}: {count} bytes are not in the journal: it tells of "
                      f"{self._told}, and {unexcused} have no other reason; they begin with "
                      f"{bytes(self._stream[:_SHOWN])!r}; windows: {self.windows}")
        if self._told > count:
            self.fail(f"{self.name}: the journal says that {self._told} bytes are not in it, and "
                      f"only {count} are missing")
        self._told = 0
        if count:
            self._account(0, count, NOT_LOGGED)
            self._advance(count, None)

    def _excusable(self, count: int) -> int:
        """How many of the first bytes may be missing without a word of the journal."""
        if count == 0:
            return 0
        total = start = 0
        for sent in self._sends:
            end = min(sent.end - self._base, count)
            if end <= start:
                continue
            total += self._excusable_of(start, end, sent.when)
            start = end
        return total

    def _excusable_of(self, start: int, end: int, when: float) -> int:
        """The same for the piece of one send."""
        if self.windows.reason(when) or self.common.reason(when):
            return end - start
        first, last = start + self._base, end + self._base
        spans = [*self._unsure, *((point, point + CHUNK) for point in self._drop_points)]
        return max((min(last, close) - max(first, begin) for begin, close in spans
                    if begin < last and first < close), default=0)

    def settle(self) -> None:
        """Nothing more will come."""
        self._take_waiting()
        if self._told:
            self._leave_out(len(self._stream))
        super().settle()
