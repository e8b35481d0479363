"""What the tests of user access share: texts, bringing consoles up, reloading, holding a thread."""

import contextlib
import os
import random
import re
import signal
from concurrent.futures import ThreadPoolExecutor
from typing import Iterator

import pytest

from harness.consoles import FakeConsole
from harness.debuglog import Found
from harness.freezing import frozen
from harness.peers import Peer, User
from harness.station import Station

SEED = "ZEVD_TEST_SEED"

# What a console prints on connect when the test does not care. It ends the daemon's wait for a
# telnet negotiation, which would cost every test a second.
READY = b"ready"

LOOPBACK = "127.0.0.1"

_TEXTS = (
    "Authentication failed.",
    "Invalid argument.",
    "Timed out.",
    "Console not found.",
    "Console is not accessible.",
    "Console is locked exclusively.",
    "Cannot grant exclusive access. Console in use.",
    "Read error.",
    "Insufficient data.",
    "Connection failed.",
    "Console has been deleted.",
    "Console is disabled.",
    "Out of memory.",
    "Not an authorized user.",
    "Port number not mapped to a console.",
    "Too many pending client connections.",
)

# What a refused user is sent, by number.
ERRORS = {number: f"{number:03d} - {text}\r\n".encode()
          for number, text in enumerate(_TEXTS, start=1)}

# The modes of the argument line, as the daemon prints them.
PRINTED_MODES = {"ro": "read-only", "sh": "shared", "ex": "exclusive", "er": "??"}


def refused(user: User, number: int) -> None:
    """The user gets this error and nothing else, and the connection is closed."""
    user.expect_exactly(ERRORS[number])
    user.expect_closed()


def banner(message: str) -> bytes:
    """The frame of the daemon's messages to its users."""
    rule = "*" * 78
    return f"\a\a\a\a\a\r\n\r\n{rule}\r\n\r\n{message}\r\n\r\n{rule}\r\n\r\n".encode()


def terminated_by(user: str, address: str = LOOPBACK) -> bytes:
    """What the holder of a revocable console is told when somebody takes it over."""
    return banner(f"Your session has been terminated by {user}@{address}")


def greeting(console: str) -> bytes:
    """What a user of a mapped port is told once attached."""
    return f'Connected to console "{console}" in shared mode.\r\n\n'.encode()


def attachment(user: str = "<unknown>", mode: str = "sh", console: str = "box") -> str:
    """The debug line of a successful attachment."""
    return (f'ConnectUserToConsole: Connected user "{user}" to console "{console}" '
            f"with mode = {PRINTED_MODES[mode]}.")


def bring_up(station: Station, *consoles: FakeConsole, options: tuple[str, ...] = (),
             env: dict[str, str] | None = None) -> Station:
    """Start the daemon; wait for its ports, and for every console's connection and greeting."""
    for console in consoles:
        console.greeting = console.greeting or READY
    position = station.output.size()  # the daemon may have run before
    with ThreadPoolExecutor() as answering:
        # At once: the daemon gives a console's negotiation no more than a second.
        calls = [answering.submit(console.accept) for console in consoles]
        station.start(*options, env=env)
        for call in calls:
            call.result()
    station.wait_log("Entering CheckForConnectionRequests", after=position)
    for console in consoles:
        station.wait_connected(console.name, after=position)
    plain = [console for console in consoles if console.greeting == READY]
    if plain:
        station.wait_log("ProcessConsoleOutput: Received ->ready<- (5 bytes)", count=len(plain),
                         after=position)
    return station


@pytest.fixture
def box(station):
    """A console named "box", connected; it has printed READY."""
    console = station.console("box")
    bring_up(station, console)
    return console


def reload(station: Station, config: str | None = None, waker: Peer | None = None) -> Found:
    """Have the daemon read its configuration again, from `config` or from the file as it is.

    Returns when the daemon has matched its ports with it and waits for console output again. Needs
    debug level 3. The daemon looks for the signal when its wait for output is over: after two
    seconds, or as soon as `waker`, a console, prints something.
    """
    if config is not None:
        station.write_config(config)
    position = station.mark()
    station.signal(signal.SIGHUP)
    if waker is not None:
        waker.send(b".")
    # The last file that a reload opens.
    found = station.wait_log("Entering GetZevdArchIntFromConfFile", after=position, thread="main")
    station.wait_log("Entering CheckForConsoleOutput", after=found.end, thread="main")
    found = station.wait_log("Entering GetPortsToListenOn", after=position, thread="user_conn")
    return station.wait_log("Entering CheckForConnectionRequests", after=found.end,
                            thread="user_conn")


def servicing(port: int) -> str:
    """The debug line of a thread that has begun with a connection to the port."""
    return ("ServiceConnectionRequestThreadStart: Servicing request coming from "
            f'"{LOOPBACK}" on port {port}')


def pending(station: Station, port: int, count: int) -> list[User]:
    """Callers of the port who send nothing, all of them counted by the daemon."""
    callers = []
    for _ in range(count):
        position = station.mark()
        callers.append(station.caller(port))
        found = station.wait_log(servicing(port), after=position)
        station.wait_log(re.compile("^Entering (ReadLineWithTimeout|Peek)$"), after=found.end)
    return callers


@contextlib.contextmanager
def user_monitor_frozen(station: Station) -> Iterator[None]:
    """Keep the daemon from removing any user, and from relaying keys, for as long as this lasts.

    At least one user must be attached, or just being attached. Needs debug level 3.
    """
    joined = re.compile(r"AddUserToList: Doing FD_SET\( (\d+), \.\.\.\) for user on user_list\.")
    station.wait_log(joined)
    added = joined.findall(station.log_text())
    with frozen(station.pid, int(added[-1])):
        yield


def seeded() -> random.Random:
    """Random numbers whose seed is printed, and so shown when the test fails."""
    seed = int(os.environ.get(SEED) or random.SystemRandom().randrange(2**32))
    print(f"{SEED}={seed}")
    return random.Random(seed)
