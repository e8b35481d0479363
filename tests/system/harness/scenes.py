"""Steps that several test files share: a reload, a stopped daemon, numbered output, its usage."""

import contextlib
import os
import re
import signal
import time
from dataclasses import dataclass

import pytest

from harness.access import ERRORS
from harness.consoles import FakeConsole
from harness.peers import OFFERS, Peer, User
from harness.settings import sanitizer_options
from harness.station import Station, console_line
from harness.waiting import LIMIT, NotReached, wait_until

NOT_FOUND, NOT_ACCESSIBLE, DISABLED = (ERRORS[number] for number in (4, 5, 12))

THREADS = 5  # that live as long as the daemon

# For a daemon that is told to end while its main thread makes records: a sanitizer's look for leaks
# would wait forever for a lock that the interrupted allocation holds.
NO_LEAK_CHECK = sanitizer_options("detect_leaks=0")


# Consoles and users


def connected(station: Station, console: FakeConsole, name: str, times: int = 1) -> FakeConsole:
    """Take the daemon's call and wait until users can be attached, for the n-th time."""
    console.accept()
    if station.level >= 3:
        station.wait_log(f"AddConsoleToList: Added console {name} to a_cons_list.", count=times)
    else:
        visit(station, name)
    return console


def box_of(station: Station, *options: str, **fields) -> FakeConsole:
    """Start a station of one console, "box", and have it connected."""
    made = station.console("box", **fields)
    station.start(*options)
    return connected(station, made, "box")


@pytest.fixture
def box(station):
    """The console of a station that has just this one."""
    return box_of(station)


def disable_and_enable(station: Station, box: FakeConsole) -> None:
    """Close the only console's connection and its log, and have both opened again."""
    for enable in (0, 1):
        station.write_config(console_line(box.name, box.port, enable=enable))
        reload(station)
    box.accept()


def visit(station: Station, console: str) -> None:
    """Attach as soon as the console is connected, and leave; needs debug level 1."""
    position = station.mark()
    attach_when_accessible(station, console, mode="ro", user="visitor").close()
    station.wait_log(removal("visitor", console), after=position)


def attach_when_accessible(station: Station, console: str, **options) -> User:
    """Ask for the console until it is connected, for debug levels that do not tell when it is.

    A console that changes lists between the look at the one and the look at the other is not found.
    """
    def attached() -> User | None:
        user = station.ask(console, **options)
        try:
            user.expect(OFFERS)
        except NotReached:
            if user.received not in (NOT_ACCESSIBLE, NOT_FOUND):
                raise
            user.close()
            return None
        return user

    return wait_until(attached, what=f"{console} to be accessible")


def removal(user: str, console: str = "box") -> str:
    """The debug line of a user's removal; there is no blank before "on"."""
    return (f'CleanUpClosedConnections: Closing connection with user "{user}"on console '
            f'"{console}"')


def serves(user: Peer, console: Peer) -> None:
    """The user and the console hear each other."""
    user.send(b"typed")
    console.expect_exactly(b"typed")
    console.send(b"printed")
    user.expect_exactly(b"printed")


def leave(station: Station, user: User) -> None:
    """Have the user leave and the daemon remove the record; needs debug level 1.

    Until then what the console prints meets a connection that is closed, and a failed send costs
    the console's next user the connection.
    """
    position = station.mark()
    user.close()
    station.wait_log(re.compile("^CleanUpClosedConnections: Closing connection with user "),
                     after=position)


def refused(station: Station, console: str, text: bytes) -> None:
    """Ask for the console and be refused with this text and nothing else."""
    user = station.ask(console)
    user.expect_exactly(text)
    user.expect_closed()


def print_and_wait(station: Station, console: FakeConsole, text: bytes) -> None:
    """Let the console print one chunk, and wait until the daemon has read it as one."""
    position = station.mark()
    console.send(text)
    shown = text.decode("latin-1").partition("\0")[0]
    wait_until(lambda: f"ProcessConsoleOutput: Received ->{shown}" in station.log_text(position),
               what=f"the daemon to read {text!r}")


def echo_time(user: Peer, console: Peer, key: bytes, limit: float) -> float:
    """How long a key takes to the console, and the console's answer back to the user."""
    start = time.monotonic()
    user.send(key)
    console.expect(key, limit)
    answer = b"<" + key + b">"
    console.send(answer)
    user.expect(answer, limit)
    return time.monotonic() - start


def numbered(count: int, start: int = 0) -> bytes:
    """Lines of 40 bytes that hold their position."""
    return b"".join(b"%08d the quick brown fox jumps ove\r\n" % number
                    for number in range(start, start + count))


# The daemon


def reload(station: Station) -> None:
    """Make the daemon read its files again, and wait until it has."""
    position = station.mark()
    station.signal(signal.SIGHUP)
    wait_reloaded(station, position)


def wait_reloaded(station: Station, position: int, count: int = 1) -> None:
    """Wait until the new configuration is in force. It is printed before and after the merge."""
    if station.level >= 3:
        station.wait_log("Entering RefreshMappedPorts", count=count, after=position)
    else:
        station.wait_log("ACCESSIBLE CONSOLES:", count=2 * count, after=position)


def wrapped(station: Station, commands: str) -> None:
    """Have a shell run these commands and then become the daemon."""
    wrapper = station.root / "wrapper"
    wrapper.write_text(f'#!/bin/bash\n{commands}\nexec {station.program} "$@"\n')
    wrapper.chmod(0o755)
    station.program = wrapper


@contextlib.contextmanager
def held_still(station: Station):
    """Stop every thread of the daemon, so that it finds all that happens meanwhile at once."""
    station.signal(signal.SIGSTOP)
    try:
        wait_until(lambda: _states(station.pid) == {"T"}, what="every thread to stop")
        yield
    finally:
        os.kill(station.pid, signal.SIGCONT)


def _states(pid: int) -> set[str]:
    found = set()
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/stat", encoding="latin-1") as stat:
                found.add(stat.read().rpartition(")")[2].split()[0])
        except (FileNotFoundError, ProcessLookupError):
            continue  # the thread has ended
    return found


@dataclass(frozen=True)
class Usage:
    """What a daemon holds at one moment."""

    descriptors: int
    threads: int
    rss: int

    @classmethod
    def of(cls, station: Station) -> "Usage":
        """What it holds now."""
        return cls(station.descriptors(), station.threads(), station.rss())


def assert_flat(station: Station, before: Usage, memory: int) -> None:
    """Wait until the daemon holds no more than before; its memory may have grown a little.

    The memory of a sanitizer build says nothing: such a build keeps what was freed, and finds
    leaks by itself.
    """
    def settled() -> bool:
        now = Usage.of(station)
        return now.descriptors <= before.descriptors and now.threads <= before.threads

    try:
        wait_until(settled, LIMIT)
    except NotReached:
        raise AssertionError(f"{Usage.of(station)} instead of {before}") from None
    grown = station.rss() - before.rss
    assert is_sanitized(station.pid) or grown <= memory, f"{grown} bytes more than {before}"


def wait_serving_nobody(station: Station) -> int:
    """Wait until only the threads that live as long as the daemon are left; return their number."""
    # ThreadSanitizer has one of its own.
    rest = THREADS + ("libtsan" in _mapped(station.pid))
    wait_until(lambda: station.threads() == rest, what=f"{rest} threads")
    return rest


def is_sanitized(pid: int) -> bool:
    """True when the program was built with a sanitizer."""
    mapped = _mapped(pid)
    return "libasan" in mapped or "libtsan" in mapped


def _mapped(pid: int) -> str:
    """What the process has mapped into its memory."""
    with open(f"/proc/{pid}/maps", encoding="latin-1") as maps:
        return maps.read()
