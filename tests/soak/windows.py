"""When what was allowed to happen: the spans of time in which the daemon may lose output.

All times are those of the machine's clock in seconds, as the stamps in the logs are.
"""

import math
import time
from dataclasses import dataclass, field

from harness.waiting import stretched

# Between a console's printing and the daemon's reading of it; and the same where two delays of that
# kind add up.
LAG = stretched(5.0)
LONG_LAG = stretched(11.0)

_SHOWN = 8


def clock(when: float) -> str:
    """The time of day, to the millisecond."""
    return time.strftime("%H:%M:%S", time.localtime(when)) + f".{int(when % 1 * 1000):03d}"


@dataclass
class Window:
    """One span. Its end is open until `close`."""

    start: float
    why: str
    end: float = math.inf
    lag: float = LAG

    def close(self, when: float) -> None:
        """It lasted until then; a later end that is already known stays."""
        self.end = when if math.isinf(self.end) else max(self.end, when)

    def covers(self, when: float) -> bool:
        """What was printed at this time may have been read within the span."""
        return self.start - self.lag <= when <= self.end

    def touches(self, start: float, end: float) -> bool:
        """Some of the time between these two is in the span, or shortly after it."""
        return self.start - 1 <= end and start <= self.end + self.lag


class Windows:
    """Spans of one console or of the whole station."""

    def __init__(self) -> None:
        self._all: list[Window] = []

    def open(self, why: str, when: float, lag: float = LAG) -> Window:
        """A span that begins at this time."""
        self._all.append(Window(when, why, lag=lag))
        return self._all[-1]

    def moment(self, why: str, when: float, lag: float = LAG) -> Window:
        """A span that is over at once."""
        window = self.open(why, when, lag)
        window.close(when)
        return window

    def reason(self, when: float) -> str:
        """Why output of this time may be missing; nothing when no span covers it."""
        return next((window.why for window in reversed(self._all) if window.covers(when)), "")

    def touch(self, start: float, end: float) -> bool:
        """True when some span touches the time between these two."""
        return any(window.touches(start, end) for window in reversed(self._all))

    def touch_other(self, own: str, start: float, end: float) -> bool:
        """The same, leaving out the spans of this name."""
        return any(window.why != own and window.touches(start, end) for window in self._all)

    def __str__(self) -> str:
        return ", ".join(f"{window.why} {clock(window.start)}-"
                         f"{'now' if math.isinf(window.end) else clock(window.end)}"
                         for window in self._all[-_SHOWN:]) or "none"


@dataclass
class StationWindows:
    """When the whole station may lose something."""

    output: Windows = field(default_factory=Windows)  # for the logs
    cuts: Windows = field(default_factory=Windows)  # lines of the logs may be cut in two
    journal: Windows = field(default_factory=Windows)  # for the journal, as it says itself
    journal_is_full: Windows = field(default_factory=Windows)  # it may say so
