"""Strangers who use up the daemon's descriptors are refused, and nothing else happens."""

import contextlib
import resource
import socket

import pytest

from harness.access import bring_up, refused
from harness.cookies import cookie, tell
from harness.door import NAME
from harness.hall import give
from harness.helpers import CRASHING, FakeHelper
from harness.logs import log_of
from harness.peers import OFFERS, User
from harness.scenes import attach_when_accessible, connected, wait_serving_nobody, wrapped
from harness.waiting import LIMIT, free_port, stretched, wait_until

NO_ROOM = 13
RUNNING_OUT = "AcceptConnectionRequests: Running out of descriptors: "
STATION_PLACES = 16


@pytest.fixture
def strangers(station):
    """Makes connections from another address; they are closed at the end."""
    with contextlib.ExitStack() as callers:
        def call(port: int | None = None) -> User:
            caller = User("stranger")
            caller.adopt(socket.create_connection(("127.0.0.1", port or station.port),
                                                  stretched(LIMIT), ("127.0.0.2", 0)))
            return callers.enter_context(caller)

        yield call


def limited(station, count: int) -> None:
    """Have the daemon start with at most this many descriptors."""
    wrapped(station, f"ulimit -n {count}")


def limit_now(station, count: int | None = None) -> None:
    """Lower the running daemon's descriptor limit to this number; None restores it."""
    _, most = resource.prlimit(station.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(station.pid, resource.RLIMIT_NOFILE, (most if count is None else count, most))


def let_in(call, station, most: int) -> list[User]:
    """Make callers that send nothing until one is refused; return those before it."""
    rest = station.threads()
    callers: list[User] = []
    for _ in range(most):
        caller = call()
        wait_until(lambda caller=caller: caller.received
                   or station.threads() > rest + len(callers), what="an answer or a thread")
        if caller.received:
            refused(caller, NO_ROOM)
            return callers
        callers.append(caller)
    raise AssertionError(f"{most} callers were let in")


def logged(station, name: str, text: bytes) -> None:
    """Wait until the console's log has the text."""
    wait_until(lambda: text in log_of(station, name).read_bytes(), what=f"{text!r} to be logged")


def serves(user: User, console) -> None:
    """The user and the console hear each other."""
    user.send(b"typed")
    console.expect(b"typed")
    console.send(b"printed\n")
    user.expect(b"printed\n")


# Callers


@pytest.mark.parametrize("limit", [64, 96, 128])
def test_waiting_logins_and_strangers_together_end_nothing(station, strangers, limit):
    helper = FakeHelper(station)
    helper.hang()
    box = station.console("box")
    limited(station, limit)
    bring_up(station, box, options=("-S", "1"))

    asked = 0
    for _ in range(limit):
        caller = strangers()
        caller.send(b"box\r\n")
        wait_until(lambda caller=caller: caller.received or caller.closed, what="an answer")
        if caller.received.startswith(NAME):
            caller.expect_exactly(NAME)
            give(caller, b"root", b"guess%d" % asked)
            asked += 1
    assert asked > 0
    for _ in range(200):
        with strangers() as caller:
            wait_until(lambda caller=caller: caller.received or caller.closed, what="an answer")
    assert station.running

    operator = tell(station, b"token " + cookie(station) + b" box\n")
    operator.expect(OFFERS)
    serves(operator, box)
    logged(station, "box", b"printed\n")
    box.close()
    box.accept()
    box.send(b"back\n")
    logged(station, "box", b"back\n")
    helper.replace(CRASHING)
    helper.release()


def test_the_last_sixteen_places_are_for_the_station_itself(station, strangers):
    port = free_port()
    box = station.console("box", mapped_port=port)
    limited(station, 120)
    station.start("-d", "1")
    connected(station, box, "box")
    wait_serving_nobody(station)
    assert len(let_in(strangers, station, 120)) > 20
    assert RUNNING_OUT in station.log_text()
    refused(station.caller(port), NO_ROOM)
    assert len(let_in(station.caller, station, 120)) == STATION_PLACES
    for _ in range(300):
        with strangers() as caller:
            refused(caller, NO_ROOM)
    assert station.log_text().count(RUNNING_OUT) == 1


def test_consoles_that_are_not_connected_take_no_place(station, strangers):
    closed = free_port()
    for number in range(600):
        station.console_line(f"dead{number}", closed)
    limited(station, 1024)
    station.start("-d", "1")
    station.wait_log(f"UpdateConnectionStatus: Connection to dead599 (127.0.0.1/{closed}) refused.")
    caller = strangers()
    caller.send(b"dead0\n")
    caller.expect(b"005 - Console is not accessible.\r\n")
    assert RUNNING_OUT not in station.log_text()


# The end


def test_without_any_descriptor_callers_are_refused_and_nothing_ends(station, strangers):
    box = station.console("box")
    station.start("-d", "1")
    connected(station, box, "box")
    user = station.attach("box")
    limit_now(station, station.descriptors())
    for call in (strangers, station.caller):
        for _ in range(100):
            with call() as caller:
                refused(caller, NO_ROOM)
    serves(user, box)
    assert station.log_text().count("AcceptConnectionRequests: All descriptors are in use\n") == 1
    limit_now(station)
    serves(station.attach("box"), box)


def test_a_console_waits_for_a_descriptor(station):
    box = station.console("box")
    station.start("-d", "1")
    connected(station, box, "box")
    limit_now(station, 3)
    box.close()
    station.wait_log("ConnectToConsole: socket() failed: Too many open files")
    limit_now(station)
    box.accept()
    user = attach_when_accessible(station, "box")
    serves(user, box)
    logged(station, "box", b"printed\n")
