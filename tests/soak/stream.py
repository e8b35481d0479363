"""What a console has printed and what of it has been found, byte by byte.

Whatever keeps a console's output must hold these bytes, each once and in their order. A gap is
allowed only where the system says so: in windows that were recorded when their cause was made, in
what was still on its way when a console reset its connection, and, without a user, in a chunk that
begins with a high byte.
"""

import re
from collections import Counter, deque
from dataclasses import dataclass, field
from typing import Callable, Iterator

from windows import Windows, clock

CHUNK = 1024  # how much the daemon reads at once
LINE = re.compile(rb"@\d+\.\d+ ")  # how each line begins, and nothing else
DROPPED_CHUNK = "chunks with a high byte in front"
LOST = "LOST"
_HISTORY = 65536
_DEPTH = 8  # dropped chunks in one piece


@dataclass
class Counts:
    """What has happened to the lines so far."""

    printed: int = 0
    found: int = 0
    accounted: Counter[str] = field(default_factory=Counter)  # by reason
    unwatched: int = 0
    remains: int = 0  # bytes of torn telnet commands
    worst_lag: float = 0.0


@dataclass(frozen=True)
class Sent:
    """One successful send: where it ends in the stream, and when it was made."""

    end: int
    when: float


@dataclass
class Stream:
    """One console's output on its way to what keeps it."""

    name: str
    counts: Counts
    common: Windows  # of the whole station: output may be lost
    fail: Callable[[str], None]
    dirty: bool = False  # prints bytes that are not text
    windows: Windows = field(default_factory=Windows)  # output may be lost

    def __post_init__(self) -> None:
        self.reasons: set[str] = set()  # why lines are missing
        self._stream = bytearray()  # printed and not yet found
        self._base = 0  # where it begins in all that was ever printed
        self._sends: deque[Sent] = deque()
        self._drop_points: deque[int] = deque()
        self._unsure: deque[tuple[int, int]] = deque()
        self._history = bytearray()

    # What the console does

    def append(self, kept: bytes, when: float) -> None:
        """The daemon has been sent bytes, of which these are to be kept."""
        self._stream += kept
        self._sends.append(Sent(self._end, when))
        self.counts.printed += kept.count(b"\n")

    @property
    def _end(self) -> int:
        return self._base + len(self._stream)

    def lost(self, count: int) -> None:
        """The connection is over; up to so many bytes of it were still on their way."""
        if count:
            self._unsure.append((self._end - count, self._end))

    @property
    def outstanding(self) -> int:
        """How many bytes have not been found yet."""
        return len(self._stream)

    # What has been kept of it

    def take(self, stamp: float, content: bytes) -> None:
        """The next piece that has been kept."""
        if self._stream.startswith(content):
            self._advance(len(content), stamp)
            return
        if self.dirty and (pieces := self._fit(content, 0, depth=_DEPTH)) is not None:
            for skipped, taken in pieces:
                self._account(0, skipped, DROPPED_CHUNK)
                self._advance(skipped, None)
                self._advance(taken, stamp)
            return
        found = self._stream.find(content)
        if found >= 0:
            self._skip(found, f"before {content[:60]!r}")
            self._advance(len(content), stamp)
            return
        kind = "twice or late" if content in self._history else "torn or foreign"
        self.fail(f"{self.name}: {kind}: what is kept of {clock(stamp)} is {content[:200]!r}, "
                  f"due is {bytes(self._stream[:200])!r}")

    def _fit(self, content: bytes, start: int, depth: int) -> list[tuple[int, int]] | None:
        """Take the content for output from which chunks with a high byte in front were dropped.

        Pieces of the stream from `start` on, each as what is skipped and what is taken.
        """
        shared = common_prefix(content, self._stream, start)
        if shared == len(content):
            return [(0, shared)]
        if depth == 0:
            return None
        for point in self._points(start, start + shared):
            taken = point - start
            rest = content[taken:]
            for end in self._chunk_ends(point):
                if not self._stream.startswith(rest[:8], end):
                    continue
                more = self._fit(rest, end, depth - 1)
                if more is not None:
                    (skipped, first), *others = more
                    return [(0, taken), (end - point + skipped, first), *others]
        return None

    def _points(self, first: int, last: int) -> Iterator[int]:
        """Where a dropped chunk may begin, the last place first; positions in the stream."""
        for point in reversed(self._drop_points):
            if first <= point - self._base <= last:
                yield point - self._base

    def _chunk_ends(self, point: int) -> Iterator[int]:
        """Where a chunk may end that begins there: after a send, or when it is full."""
        ends = {sent.end - self._base for sent in self._sends}
        for end in range(point, min(point + CHUNK, len(self._stream)) + 1):
            if end in ends or end - point > CHUNK * 3 // 4:
                yield end

    def _advance(self, count: int, stamp: float | None) -> None:
        """The first bytes of the stream are done with; found, if there is a stamp."""
        taken = bytes(self._stream[:count])
        del self._stream[:count]
        self._base += count
        if stamp is not None:
            self.counts.found += taken.count(b"\n")
        self._history += taken
        del self._history[:-_HISTORY]
        sent = None
        while self._sends and self._sends[0].end <= self._base:
            sent = self._sends.popleft()
        if sent is not None and stamp is not None:
            self.counts.worst_lag = max(self.counts.worst_lag, stamp - sent.when)
            if sent.when > stamp + 1.5:
                self.fail(f"{self.name}: kept at {clock(stamp)}, before it was printed at "
                          f"{clock(sent.when)}")
        while self._drop_points and self._drop_points[0] < self._base:
            self._drop_points.popleft()
        while self._unsure and self._unsure[0][1] <= self._base:
            self._unsure.popleft()

    def _account(self, start: int, end: int, reason: str) -> None:
        lines = self._stream.count(b"\n", start, end)
        if lines:
            self.counts.accounted[reason] += lines
            self.reasons.add(reason)

    def _skip(self, count: int, where: str) -> None:
        """The first bytes of the stream were not kept: each of them needs an excuse."""
        start = 0
        for sent in self._sends:
            end = min(sent.end - self._base, count)
            if end <= start:
                continue
            reason = self._excuse(start, end, sent.when)
            self._account(start, end, reason or LOST)
            if not reason:
                piece = bytes(self._stream[start:end])
                self.fail(f"{self.name}: lost {where}: {len(piece)} bytes printed at "
                          f"{clock(sent.when)}: {piece[:120]!r}; windows: {self.windows}; "
                          f"station: {self.common}")
            start = end
        self._advance(count, None)

    def _excuse(self, start: int, end: int, when: float) -> str:
        """Why the piece of one send may be missing; nothing when it must not be."""
        reason = self.windows.reason(when) or self.common.reason(when)
        if reason:
            return reason
        first, last = start + self._base, end + self._base
        if any(begin <= first and last <= close for begin, close in self._unsure):
            return "reset connections"
        if any(point <= first and last <= point + CHUNK for point in self._drop_points):
            return DROPPED_CHUNK
        return ""
    def settle(self) -> None:
        """Nothing more will be found: what was printed must be excused."""
        self._skip(len(self._stream), "at the end")


def common_prefix(content: bytes, stream: bytearray, start: int) -> int:
    """How much of the content is in the stream at that place."""
    low, high = 0, len(content)
    while low < high:
        middle = (low + high + 1) // 2
        if stream.startswith(content[:middle], start):
            low = middle
        else:
            high = middle - 1
    return low
