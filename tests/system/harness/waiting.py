"""Waiting for conditions, always with a limit; and ports that nobody else uses."""

import itertools
import random
import socket
import time
from typing import Callable, Iterator, TypeVar

from harness import settings

Result = TypeVar("Result")

LIMIT = 10.0
PAUSE = 0.01

# Below the range from which the kernel takes the local ports of outgoing connections, so that a
# port found free stays free until the daemon binds it.
PORTS = range(20000, 32000)

# The states of a TCP socket in the kernel's tables are those of <netinet/tcp.h>.
_ESTABLISHED, _CLOSE_WAIT, _LISTEN = 1, 8, 10

_candidates = itertools.cycle(random.sample(PORTS, len(PORTS)))


class NotReached(AssertionError):
    """A condition that a test waited for did not come about in time."""


def stretched(limit: float) -> float:
    """The limit in seconds after the run's patience."""
    return limit * settings.patience()


def wait_until(condition: Callable[[], Result], limit: float = LIMIT,
               what: str = "the condition") -> Result:
    """Wait for `condition()` to be true and return its value; fail after `limit` seconds."""
    deadline = time.monotonic() + stretched(limit)
    while not (value := condition()):
        if time.monotonic() > deadline:
            raise NotReached(f"waited {stretched(limit):g} s in vain for {what}")
        time.sleep(PAUSE)
    return value


def free_port() -> int:
    """A TCP port that can be bound on every address and was not handed out lately."""
    for port in itertools.islice(_candidates, len(PORTS)):
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as probe:
            try:
                probe.bind(("", port))
            except OSError:
                continue
            return port
    raise AssertionError(f"no free port between {PORTS.start} and {PORTS.stop}")


def _sockets() -> Iterator[tuple[int, int]]:
    """The local port and the state of every TCP socket of this network."""
    for table in ("/proc/self/net/tcp", "/proc/self/net/tcp6"):
        try:
            with open(table, encoding="ascii") as lines:
                rows = [line.split() for line in lines][1:]
        except FileNotFoundError:
            continue
        for row in rows:
            yield int(row[1].rpartition(":")[2], 16), int(row[3], 16)


def is_listening(port: int) -> bool:
    """True when some socket of this network listens on the port; connects to nothing."""
    return (port, _LISTEN) in _sockets()


def connections_of(port: int) -> int:
    """How many connections to the port its listener has not closed, accepted or not."""
    return sum(local == port and state in (_ESTABLISHED, _CLOSE_WAIT)
               for local, state in _sockets())


def wait_listening(port: int, limit: float = LIMIT) -> None:
    """Wait until something listens on the port."""
    wait_until(lambda: is_listening(port), limit, f"a listener on port {port}")
