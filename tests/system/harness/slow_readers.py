"""Users who take output too slowly, and what they are told of the output that they were not shown.

What a user's connection has no room for waits in a queue. When that is full, the daemon leaves out
what has waited longest, and a line in its place says how many bytes that were.
"""

import bisect
import re
import socket
import threading
from collections.abc import Iterable
from dataclasses import dataclass

from harness.closing import Closing
from harness.consoles import FakeConsole
from harness.peers import OFFERS, Peer
from harness.station import Station
from harness.vanishing import daemons_socket
from harness.waiting import LIMIT, wait_until

QUEUE = 1 << 20  # the most that waits for one user
QUEUES = 64 << 20  # the most that waits for all users, except ...
UNCOUNTED = 16 << 10  # ... this much of each

# Between two marks, and from where a gap could end to the line end behind which it does.
BETWEEN_MARKS = 4096

# For a user of whom the kernel is to keep little. It takes twice as much at each end.
SMALL = 4096

# How much a console prints before those who read all of it have it.
_AHEAD = 128 << 10

_MARK = re.compile(rb"\r\n\[zevd: (\d+) bytes were not shown\]\r\n")
_COMMAND = re.compile(rb"\xff(?:[\xfb-\xfe].|\xfa.*?\xff\xf0|[^\xfa-\xfe])", re.DOTALL)


def mark(count: int) -> bytes:
    """What stands in the place of so many bytes."""
    return b"\r\n[zevd: %d bytes were not shown]\r\n" % count


@dataclass(frozen=True)
class Gap:
    """Output that was not shown, by its place in all that was printed."""

    start: int
    end: int


def gaps_in(received: bytes, printed: bytes) -> list[Gap]:
    """The gaps of which a user was told, who has received all the rest of what was printed.

    Fails unless what was shown and the numbers of bytes in the marks make up the whole output.
    """
    found: list[Gap] = []
    place = 0
    pieces = _MARK.split(received.removeprefix(OFFERS))
    for shown, count in zip(pieces[::2], [*pieces[1::2], b"0"]):
        assert printed.startswith(shown, place), _difference(shown, printed, place)
        place += len(shown)
        if int(count):
            found.append(Gap(place, place + int(count)))
            place += int(count)
    assert place == len(printed), f"{place} of {len(printed)} bytes are accounted for"
    return found


def _accounts_for(received: bytes, printed: bytes) -> bool:
    if not received.endswith(printed[-16:]):
        return False
    shown = received.removeprefix(OFFERS)
    counts = sum(int(found[1]) - len(found[0]) for found in _MARK.finditer(shown))
    return len(shown) + counts >= len(printed)


def _difference(shown: bytes, printed: bytes, place: int) -> str:
    due = printed[place:place + len(shown)]
    same = next((number for number, (one, other) in enumerate(zip(shown, due)) if one != other),
                len(due))
    return (f"{shown[max(0, same - 50):same + 50]!r} was shown for "
            f"{due[max(0, same - 50):same + 50]!r}, {place + same} bytes from the start")


def told(user: Peer, printed: bytes, limit: float = LIMIT) -> list[Gap]:
    """Wait until the user has been shown or told of all of the output, then as `gaps_in`.

    Marks must be apart, and each gap must end behind a line of the output, which is made of lines.
    """
    wait_until(lambda: _accounts_for(user.received, printed), limit,
               f"{user.name} to have {len(printed)} bytes or marks for them")
    user.expect_exactly(user.unread)
    found = gaps_in(user.received, printed)
    for gap in found:
        assert printed[gap.end - 1:gap.end] == b"\n", f"{user.name}: {gap} ends in a line"
    for before, gap in zip(found, found[1:]):
        assert gap.start - before.end >= BETWEEN_MARKS, f"{user.name}: {gap} follows {before}"
    return found


def tears_no_command(found: Iterable[Gap], printed: bytes) -> None:
    """Every telnet command was shown whole or not at all."""
    spans = [match.span() for match in _COMMAND.finditer(printed)]
    starts = [start for start, _ in spans]
    for edge in (edge for gap in found for edge in (gap.start, gap.end)):
        number = bisect.bisect_left(starts, edge) - 1
        assert number < 0 or spans[number][1] <= edge, f"torn at {edge}: {spans[number]}"


def take_nothing(station: Station, user: Peer) -> Peer:
    """Stop reading. Nearly all output then waits in the queue, if the user's `buffer` is SMALL."""
    user.stop_reading()
    with daemons_socket(station, user) as end:
        end.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, SMALL)
    return user


class Pace(Closing):
    """Keeps a console's printing at the pace of users who read all of it, and miss nothing."""

    def __init__(self, console: FakeConsole, *users: Peer) -> None:
        self.printed = bytearray()  # and seen
        self._users = users
        self._console = console
        self._stopped = False
        self._error: AssertionError | None = None
        self._printer: threading.Thread | None = None

    def print(self, text: bytes) -> None:
        """Have the console print the text, and the users see it."""
        for start in range(0, len(text), _AHEAD):
            piece = text[start:start + _AHEAD]
            self._console.send(piece)
            for user in self._users:
                user.expect_exactly(piece)
            self.printed += piece

    def keep_printing(self, blocks: Iterable[bytes]) -> None:
        """Do so in a thread of its own, until `finish`."""
        self._printer = threading.Thread(target=self._print_all, args=(blocks,), daemon=True)
        self._printer.start()

    def _print_all(self, blocks: Iterable[bytes]) -> None:
        try:
            for block in blocks:
                if self._stopped:
                    return
                self.print(block)
        except AssertionError as error:
            self._error = error

    def finish(self) -> None:
        """Stop after the block that is being printed; fail if a user has missed anything."""
        self.close()
        if self._error:
            raise self._error

    def close(self) -> None:
        """Stop after the block that is being printed."""
        self._stopped = True
        if self._printer is not None:
            self._printer.join()
