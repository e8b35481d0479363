"""Attempts to get in, or to overload the station, through its logins."""

import socket

import pytest

from harness.access import LOOPBACK, banner, bring_up, greeting, refused, reload
from harness.commands import Tool
from harness.cookies import cookie
from harness.door import (NAME, PASSWORD, TRY_AGAIN, fail, give_name, give_password, log_in,
                          welcome)
# `door`, `fortress` and `hall` are fixtures.
from harness.fortress import door, fortress, hall
from harness.hall import give
# `groups` is a fixture.
from harness.helpers import children_of, groups
from harness.isolation import parent_of
from harness.peers import OFFERS, User
from harness.scenes import held_still
from harness.station import console_line
from harness.waiting import LIMIT, stretched, wait_until

# Records how many instances of it run, and ends when the test opens the gate.
COUNTING = """#!/bin/sh
cat > /dev/null
: > {root}/running.$$
ls {root}/running.* | wc -l >> {root}/peaks
while [ ! -e {root}/gate ]; do sleep .05; done
rm {root}/running.$$
exit 1
"""

# Accepts any name and password, once the gate is open.
ACCEPTING_LATE = """#!/bin/sh
cat > /dev/null
echo $$ > {root}/asked
while [ ! -e {root}/gate ]; do sleep .05; done
exit 0
"""

INHERITED = """#!/bin/bash
cat > /dev/null
tr '\\0' '\\n' < /proc/$$/environ > {root}/environment
list= # looked at by the shell itself, which has no pipe open meanwhile; 255 is its script
for ((n = 0; n < 255; n++)); do [[ ! -e /proc/$$/fd/$n ]] || list+=$n$'\\n'; done
printf %s "$list" > {root}/descriptors
: > {root}/told
exit 1
"""


def from_address(address: str, port: int) -> User:
    """A caller from another address of this machine."""
    user = User(f"user from {address}")
    user.adopt(socket.create_connection((LOOPBACK, port), stretched(LIMIT),
                                        source_address=(address, 0)))
    return user


# A port that is dropped


def test_a_login_at_the_helper_ends_with_its_port(door):
    """A right password is being checked when the port is dropped."""
    station = door.station
    door.helper.replace(ACCEPTING_LATE)
    user = door.call()
    give_name(user, b"root")
    user.send(b"secret\r\0")
    asked = station.root / "asked"
    wait_until(asked.exists, what="the helper to be asked")
    pid = int(asked.read_text(encoding="ascii"))
    reload(station, console_line("box", door.box.port)
           + console_line("vault", station.vault.port), waker=door.box)
    user.expect(b"\r\n\r\n")
    user.expect_closed()
    wait_until(lambda: parent_of(pid) == 0, what="the helper to be ended")
    (station.root / "gate").touch()
    assert "Connected user" not in station.log_text()
    wait_until(lambda: station.threads() == door.rest[0], what="the login to end")


def test_a_login_that_was_accepted_just_before_stays_outside_too(door):
    """This holds for every stage of a login: first the console is disabled, then its port goes."""
    station = door.station
    door.helper.replace(ACCEPTING_LATE)
    callers = [door.call() for _ in range(4)]
    for caller in callers:
        give_name(caller, b"root")
        caller.send(b"secret\r\0")
    wait_until((station.root / "asked").exists, what="the helper to be asked")
    reload(station, console_line("box", door.box.port)
           + console_line("vault", station.vault.port), waker=door.box)
    (station.root / "gate").touch()
    for caller in callers:
        caller.expect(b"\r\n\r\n")
        caller.expect_closed()
    assert "Connected user" not in station.log_text()


# The number of helpers


def test_sixty_wrong_logins_start_eight_helpers(hall):
    station = hall.station
    hall.helper.replace(COUNTING)
    callers = [hall.call() for _ in range(60)]
    for number, caller in enumerate(callers):
        caller.send(b"root%d\r\nguess\r\n" % number)
    wait_until(lambda: len(list(station.root.glob("running.*"))) == 8, what="eight helpers")
    assert len(children_of(station.pid)) == 8

    def counted() -> list[int]:
        peaks = station.root / "peaks"
        return [int(line) for line in peaks.read_text("ascii").split()] if peaks.exists() else []
    wait_until(lambda: len(counted()) == 8, what="each of them to have counted")
    (station.root / "gate").touch()
    wait_until(lambda: all(caller.received.count(NAME) == 2 for caller in callers),
               3 * LIMIT, "sixty answers")
    peaks = counted()
    # One helper was asked for each of the sixty guesses, and none admits.
    assert len(peaks) == 60
    assert max(peaks) == 8


def test_logins_on_the_main_port_do_not_block_a_consoles_own(fortress):
    station, door, hall = fortress
    hall.helper.replace(COUNTING)
    callers = [hall.call() for _ in range(10)]
    for number, caller in enumerate(callers):
        caller.send(b"root%d\r\nguess\r\n" % number)
    wait_until(lambda: len(list(station.root.glob("running.*"))) == 8, what="eight helpers")
    user = door.call()
    give_name(user, b"root")
    user.send(b"secret\r\0")
    wait_until(lambda: len(list(station.root.glob("running.*"))) == 9, what="a ninth")
    (station.root / "gate").touch()
    user.expect(TRY_AGAIN)


@pytest.mark.slow
def test_a_helper_that_does_not_answer_is_ended_and_counts_as_a_refusal(door):
    door.helper.hang()
    user = door.call()
    give_name(user, b"root")
    user.send(b"secret\r\0")
    pid = door.helper.wait_hanging()
    user.expect_exactly(b"\r\n\r\n" + TRY_AGAIN + NAME, limit=45)
    assert parent_of(pid) == 0
    door.helper.replace("#!/bin/sh\ncat > /dev/null\n")
    log_in(user, b"root", b"secret")
    door.admitted(user)


def test_hanging_up_does_not_make_guessing_faster(door):
    """The same name from the same address waits, on any connection."""
    helper = door.helper
    for number in range(3):
        user = door.call()
        give_name(user, b"root")
        user.send(b"guess%d\r\0" % number)
        wait_until(lambda seen=number: len(helper.pairs()) == seen + 1, what="the guess")
        user.close()
    times = sorted(path.stat().st_mtime for path in (door.station.root / "seen").glob("pair.*"))
    pauses = [later - earlier for earlier, later in zip(times, times[1:])]
    assert min(pauses) > 1.9, pauses


def test_a_refusal_delays_no_other_name_and_no_other_address(door):
    user = door.call()
    fail(user, b"root", b"guess")
    other = door.call()
    fail(other, b"alice", b"guess")
    elsewhere = from_address("127.0.0.7", door.port)
    elsewhere.expect_exactly(welcome("box") + NAME)
    log_in(elsewhere, b"root", b"secret")
    elsewhere.expect_exactly(OFFERS + greeting("box"))
    times = [path.stat().st_mtime for path in (door.station.root / "seen").glob("pair.*")]
    assert max(times) - min(times) < 1.9


def test_a_helper_inherits_three_descriptors_and_two_variables(fortress):
    station, door, hall = fortress
    door.helper.replace(INHERITED)
    told = station.root / "told"
    user = from_address("127.0.0.7", door.port)
    user.expect_exactly(welcome("box") + NAME)
    log_in(user, b"root", b"guess")
    wait_until(told.exists, what="the helper")
    told.unlink()
    for address in ("127.0.0.7", "127.0.0.8"):
        if address == "127.0.0.8":
            caller = from_address(address, station.port)
            caller.send(b"box\r\n")
            caller.expect_exactly(NAME)
            give(caller, b"root", b"guess")
            wait_until(told.exists, what="the helper of the main port")
        assert (station.root / "environment").read_text("ascii") == (
            f"PATH=/usr/sbin:/usr/bin:/sbin:/bin\nQOR_RHOST={address}\n")
        assert (station.root / "descriptors").read_text("ascii") == "0\n1\n2\n"


@pytest.mark.needs_namespace
def test_a_blank_in_the_name_neither_avoids_the_pause_nor_tells_of_a_password(groups, door):
    """The helper would take the rest of the name as the start of root's password."""
    groups.write("qoruser:x:64000:alice\n")
    door.helper.accept(b"root", b"correct horse")
    user = door.call()
    fail(user, b"root correct", b"horse")
    log_in(user, b"root", b"correct horse")
    door.admitted(user)
    assert door.helper.pairs() == [b"root correct horse"]


def test_a_connection_that_is_reset_does_not_avoid_the_pause(hall):
    """Without an address the caller's guesses could not be counted."""
    for number in range(10):
        caller = hall.call()
        caller.send(b"root\r\nguess%d\r\n" % number)
        caller.expect(b"\r\n")
        caller.reset()
    user = hall.call()
    give(user, b"root", b"secret")
    user.expect_exactly(OFFERS)
    guesses = [pair for pair in hall.helper.pairs() if b"guess" in pair]
    assert len(guesses) <= 1, guesses


def test_callers_who_hung_up_do_not_keep_others_waiting(door):
    """Their guesses were waiting for their turn; the name's owner waits for one check at most."""
    station = door.station
    door.helper.replace(ACCEPTING_LATE.replace("exit 0", "exit 1"))
    first = door.call()
    give_name(first, b"root")
    first.send(b"guess\r\0")
    asked = station.root / "asked"
    wait_until(asked.exists, what="the helper to be asked")
    for number in range(12):
        caller = door.call()
        give_name(caller, b"root")
        caller.send(b"guess%d\r\0" % number)
        caller.expect_exactly(b"\r\n\r\n")
        caller.close()
        wait_until(lambda: station.threads() == door.rest[0] + 1, what="the place to be free")
    asked.unlink()
    (station.root / "gate").touch()
    first.expect_exactly(b"\r\n\r\n" + TRY_AGAIN + NAME)
    door.helper.replace(ACCEPTING_LATE)
    owner = door.call()
    log_in(owner, b"root", b"secret")
    door.admitted(owner)


# What looks the same


@pytest.mark.needs_namespace
def test_the_right_password_of_a_stranger_to_the_group_looks_like_a_wrong_one(groups, hall):
    groups.write("qoruser:x:64000:alice\n")
    hall.helper.accept(b"bob", b"builder")
    right, wrong = hall.call(), hall.call()
    for last in (False, False, True):
        for user, name, password in ((right, b"bob", b"builder"), (wrong, b"carol", b"builder")):
            give(user, name, password)
            if last:
                refused(user, 1)
            else:
                user.expect_exactly(NAME)
    assert right.received == wrong.received
    assert all(b"builder" not in pair for pair in hall.helper.pairs())


# What is shown


def test_no_byte_of_a_password_is_shown_whatever_ends_its_line(door):
    for end, shown in ((b"\r\n", b"\r"), (b"\r\0", b"\r\n"), (b"\n", b"\n"), (b"\r", b"\r\n")):
        user = door.call()
        give_name(user, b"nobody" + str(end).encode("ascii", "replace")[2:3])
        user.send(b"secret" + end)
        user.expect_exactly(shown + b"\r\n" + TRY_AGAIN + NAME)
        user.close()


def test_a_name_of_control_characters_is_shown_as_marks(station):
    box = station.console("box")
    bring_up(station, box)
    first = station.caller()
    first.send(b"box mode=er user=\x1b]0;x\x07 addr=\x9b2J\n")
    first.expect_exactly(OFFERS)
    second = station.caller()
    second.send(b"box user=\x1b[2J\xc2\x9bm addr=\x1b[7m\n")
    first.expect_exactly(
        banner("Your session has been terminated by ?[2J?m@?[7m"))
    second.expect_exactly(OFFERS)
    tool = Tool(station)
    wait_until(lambda: len(tool.command("who box").records) == 1, what="the first one to be gone")
    (record,) = tool.command("who box").records
    assert record[:2] == ("?[2J?m", "?[7m")


def test_a_message_of_control_characters_is_shown_as_marks(station):
    box = station.console("box")
    bring_up(station, box)
    user = station.attach("box")
    tool = Tool(station, sent=b"@@@@ user=o\x1bp addr=1\n")
    tool.command("who box")
    tool.send(b"msg box \x1b[2Ja\tb\x9b\xc2\x85\x07 \xc3\xa9\r\n")
    user.expect_exactly(banner("Message from o?p@1: \n\n\r?[2Ja\tb??? é\r\n"))


def test_a_failed_name_of_control_characters_is_logged_as_marks(door):
    user = door.call()
    user.send(b"\x1b[2Jroot\r\0")
    user.expect(PASSWORD)
    give_password(user, b"guess")
    user.expect_exactly(TRY_AGAIN + NAME)
    door.station.wait_log(
        'PromptForUserNameAndPasswd: Login failed (username="?[2Jroot", console="box")')
    assert door.helper.pairs() == [b"\x1b[2Jroot guess"]


# A daemon that was stopped


def test_a_daemon_that_was_stopped_and_continued_refuses_nobody(fortress):
    station, door, _ = fortress
    position = station.mark()
    user = station.caller()
    station.wait_log("Entering IsTokenAuthentication", after=position)
    at_the_door = door.call()
    with held_still(station):
        pass
    user.send(b"token " + cookie(station) + b" box\n")
    user.expect_exactly(OFFERS)
    log_in(at_the_door, b"root", b"secret")
    at_the_door.expect_exactly(OFFERS + greeting("box"))
