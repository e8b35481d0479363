"""What the daemon does when descriptors or threads run out: strangers are refused, nothing ends."""

import os

import pytest

from harness.access import refused
from harness.peers import User
from harness.scenes import box_of, serves, wait_serving_nobody, wrapped
from harness.waiting import wait_until

NO_ROOM = 13
SEEN_COMING = "AcceptConnectionRequests: Running out of descriptors: "


def call_until_refused(station, most: int) -> list[User]:
    """Make callers that send nothing until one is refused; return those that were let in."""
    let_in = []
    for _ in range(most):
        caller = station.caller()
        wait_until(lambda caller=caller: caller.received
                   or station.threads() > len(let_in) + station.rest, what="an answer or a thread")
        if caller.received:
            refused(caller, NO_ROOM)
            return let_in
        let_in.append(caller)
    raise AssertionError(f"{most} callers were let in")


def start_limited(station, limit: str) -> None:
    """Start the daemon under a limit of bash's ulimit, with one console."""
    wrapped(station, f"ulimit {limit}")
    station.box = box_of(station, "-d", "1")
    station.rest = wait_serving_nobody(station)


@pytest.fixture
def cramped(station):
    """A daemon that may open 120 descriptors, with one console."""
    start_limited(station, "-n 120")
    return station


def test_strangers_are_refused_before_descriptors_run_out(cramped):
    user = cramped.attach("box")
    let_in = call_until_refused(cramped, 120)
    assert len(let_in) > 20
    assert SEEN_COMING in cramped.log_text()
    for _ in range(300):
        with cramped.caller() as caller:
            refused(caller, NO_ROOM)
    assert len(os.listdir(f"/proc/{cramped.pid}/fd")) < 110
    serves(user, cramped.box)


def test_a_console_is_connected_again_while_strangers_crowd(cramped):
    call_until_refused(cramped, 120)
    cramped.box.close()
    cramped.box.accept()
    cramped.box.send(b"back\n")
    log = cramped.logs / "zev.dated/current/box.log"
    wait_until(lambda: b"back\n" in log.read_bytes(), what="the console's log to go on")


def test_others_are_let_in_when_strangers_leave(cramped):
    let_in = call_until_refused(cramped, 120)
    for caller in let_in:
        caller.close()
    wait_until(lambda: cramped.threads() == cramped.rest, what="the strangers to be gone")
    serves(cramped.attach("box"), cramped.box)


def test_when_threads_run_out_strangers_are_refused(station):
    """Each thread needs eight megabytes of address space for its stack."""
    start_limited(station, "-v 500000")
    user = station.attach("box")
    let_in = call_until_refused(station, 200)
    assert len(let_in) > 5
    assert "AcceptConnectionRequests: pthread_create() failed : " in station.log_text()
    serves(user, station.box)
    for caller in let_in:
        caller.close()
    wait_until(lambda: station.threads() == station.rest, what="the strangers to be gone")
    serves(station.attach("box"), station.box)
