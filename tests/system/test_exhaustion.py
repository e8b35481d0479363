"""What the daemon does when descriptors or threads run out: strangers are refused, nothing ends."""

import os

import pytest

from harness.peers import User
from harness.scenes import connected
from harness.waiting import wait_until

NO_ROOM = b"013 - Out of memory.\r\n"
SEEN_COMING = "AcceptConnectionRequests: Running out of descriptors: "


def limited(station, limit: str) -> None:
    """Have the daemon start under a resource limit of bash's ulimit."""
    wrapper = station.root / "limited"
    wrapper.write_text(f'#!/bin/bash\nulimit {limit}\nexec {station.program} "$@"\n')
    wrapper.chmod(0o755)
    station.program = wrapper


def call_until_refused(station, most: int) -> list[User]:
    """Strangers who say nothing, until one is refused; those who were let in."""
    let_in = []
    for _ in range(most):
        caller = station.caller()
        wait_until(lambda caller=caller: caller.received
                   or station.threads() > len(let_in) + station.rest, what="an answer or a thread")
        if caller.received:
            caller.expect_exactly(NO_ROOM)
            caller.expect_closed()
            return let_in
        let_in.append(caller)
    raise AssertionError(f"{most} callers were let in")


def serves(user, console) -> None:
    """The user and the console hear each other."""
    user.send(b"typed")
    console.expect_exactly(b"typed")
    console.send(b"printed")
    user.expect_exactly(b"printed")


@pytest.fixture
def cramped(station):
    """A daemon that may open 120 descriptors, with one console."""
    box = station.console("box")
    limited(station, "-n 120")
    station.start("-d", "1")
    connected(station, box, "box")
    station.rest = station.threads()
    station.box = box
    return station


def test_strangers_are_refused_before_descriptors_run_out(cramped):
    user = cramped.attach("box")
    let_in = call_until_refused(cramped, 120)
    assert len(let_in) > 20
    assert SEEN_COMING in cramped.log_text()
    for _ in range(300):
        with cramped.caller() as caller:
            caller.expect_exactly(NO_ROOM)
            caller.expect_closed()
    assert len(os.listdir(f"/proc/{cramped.pid}/fd")) < 110
    serves(user, cramped.box)


def test_a_console_is_connected_again_while_strangers_crowd(cramped):
    call_until_refused(cramped, 120)
    cramped.box.close()
    cramped.box.accept()
    cramped.box.send(b"back\n")
    log = cramped.logs / "zev.dated/current/box.log"
    wait_until(lambda: b"back\n" in log.read_bytes(), what="the console's log to go on")


def test_when_strangers_leave_others_are_let_in(cramped):
    let_in = call_until_refused(cramped, 120)
    for caller in let_in:
        caller.close()
    wait_until(lambda: cramped.threads() == cramped.rest, what="the strangers to be gone")
    serves(cramped.attach("box"), cramped.box)


def test_when_threads_run_out_strangers_are_refused(station):
    """Each thread wants eight megabytes of address space for its stack."""
    box = station.console("box")
    limited(station, "-v 500000")
    station.start("-d", "1")
    connected(station, box, "box")
    station.rest = station.threads()
    user = station.attach("box")
    let_in = call_until_refused(station, 200)
    assert len(let_in) > 5
    assert "AcceptConnectionRequests: pthread_create() failed : " in station.log_text()
    serves(user, box)
    for caller in let_in:
        caller.close()
    wait_until(lambda: station.threads() == station.rest, what="the strangers to be gone")
    serves(station.attach("box"), box)
