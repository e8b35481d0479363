"""The login of the main port: users without a cookie, through the authentication library."""

import re
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from harness.access import ERRORS, bring_up, refused
from harness.cookies import cookie, local_user, tell
from harness.door import NAME, PASSWORD
from harness.hall import BYTES, HIDE, LINE, SHOW, TRIES, Hall, fail, fail_every_try, give
# `groups` is a fixture.
from harness.helpers import CRASHING, FakeHelper, children_of, groups
from harness.memory import in_memory
from harness.peers import OFFERS, User
from harness.scenes import echo_time
from harness.waiting import LIMIT, stretched, wait_until


@pytest.fixture
def hall(station):
    """A main port where root may log in with the password "secret"."""
    helper = FakeHelper(station)
    helper.accept(b"root", b"secret")
    box = station.console("box")
    bring_up(station, box, options=("-S", "1"))
    return Hall(station, helper, box).note_rest()


@pytest.fixture
def club(groups, hall):
    """A main port where alice may log in, as a member of the group; bob has only a password."""
    groups.write("qoruser:x:64000:carol,alice\n")
    hall.helper.accept(b"alice", b"two  words ")
    hall.helper.accept(b"bob", b"builder")
    return hall


# A person with a telnet client


@pytest.mark.needs_namespace
def test_a_person_logs_in_with_a_telnet_client(club):
    position = club.station.mark()
    with club.station.telnet() as person:
        person.type("box mode=ex\r")
        person.expect("username: ")
        person.type("alice\r")
        person.expect("password: ")
        person.type("two  words \r")
        club.connected("alice", "exclusive", position)
        club.station.wait_log('DoTqAuthValidation: Authentication successful for user "alice".')
        club.box.send(b"welcome to the machine")
        shown = person.expect("welcome to the machine")
        assert b"words" not in shown
    assert club.helper.pairs() == [b"alice two  words "]


def test_a_person_who_fails_three_times_is_told(hall):
    with hall.station.telnet() as person:
        person.type("box\r")
        for number in range(TRIES):
            person.expect("username: ")
            person.type("root\r")
            person.expect("password: ")
            person.type(f"guess{number}\r")
        shown = person.expect("001 - Authentication failed.\r\n")
        assert b"guess" not in shown
        person.expect_closed()
    assert hall.helper.pairs() == [b"root guess%d" % number for number in range(TRIES)]


# Who is admitted


def test_the_exchange_byte_by_byte(hall):
    position = hall.station.mark()
    user = hall.call()
    fail(user)
    give(user, b"root", b"secret")
    user.expect_exactly(OFFERS)
    hall.connected("root", after=position)
    assert hall.helper.pairs() == [b"root wrong", b"root secret"]


@pytest.mark.parametrize("end", [b"\r\n", b"\r\0", b"\n", b"\r"])
def test_nothing_of_the_login_reaches_the_console(hall, end):
    user = hall.call()
    give(user, b"root", b"secret", end)
    user.expect_exactly(OFFERS)
    user.send(b"k")
    hall.box.expect_exactly(b"k")


def test_everything_may_be_typed_ahead(hall):
    user = hall.station.caller()
    user.send(b"box\nroot\nsecret\n!")
    user.expect_exactly(NAME + HIDE + PASSWORD + SHOW + b"\r\n" + OFFERS)
    hall.box.expect_exactly(b"!")


@pytest.mark.needs_namespace
def test_a_name_in_the_line_does_not_count(club):
    position = club.station.mark()
    user = club.call(b"box user=root mode=ro user=carol")
    give(user, b"alice", b"two  words ")
    user.expect_exactly(OFFERS)
    club.connected("alice", "read-only", position)


@pytest.mark.needs_namespace
def test_the_right_password_of_a_non_member_is_not_enough(club):
    fail_every_try(club.call(), b"bob", b"builder")
    club.station.wait_log("DoTqAuthValidation: Authentication failed.")
    club.station.wait_log(
        "ServiceConnectionRequestThreadStart: Closing connection with 127.0.0.1.")


@pytest.mark.needs_namespace
def test_all_entries_of_the_group_are_searched(groups, hall):
    groups.write("qoruser:x:64000:carol\nothers:x:64001:bob\nqoruser:x:64002:\n"
                 "qoruser:x:64003:dave,alice\n")
    for name in (b"carol", b"alice", b"bob"):
        hall.helper.accept(name, b"pw")
    for name in ("carol", "alice"):
        with hall.call() as user:
            give(user, name.encode(), b"pw")
            user.expect_exactly(OFFERS)
            hall.connected(name)
    other = hall.call()
    fail(other, b"bob", b"pw")


@pytest.mark.needs_namespace
def test_without_the_group_only_root_is_admitted(groups, hall):
    groups.write("")
    hall.helper.accept(b"alice", b"pw")
    fail(hall.call(), b"alice", b"pw")


def test_three_failures_end_the_connection(hall):
    fail_every_try(hall.call())
    hall.quiet()


@pytest.mark.parametrize("line, number", [(b"box mode=EX", 2), (b"box colour=red", 2),
                                          (b"nobox", 4)])
def test_the_line_is_judged_after_the_login(hall, line, number):
    user = hall.call(line)
    give(user, b"root", b"secret")
    refused(user, number)


def test_a_token_line_from_elsewhere_is_an_argument_line_after_a_login(hall):
    """The prefix is skipped, and its cookie is not looked at."""
    user = tell(hall.station, b"token 0123456789abcdef box\n", "127.0.0.2")
    user.expect_exactly(NAME)
    give(user, b"root", b"secret")
    user.expect_exactly(OFFERS)
    hall.connected("root")


def test_a_person_may_ask_for_the_command_port(hall):
    user = hall.call(b"@@@@")
    give(user, b"root", b"secret")
    hall.station.wait_log("Entering MonitorSocketForCommands")
    user.send(b"nonsense\n")
    user.expect(b"Invalid command.")


# Typing


def test_what_is_typed_can_be_edited(hall):
    user = hall.call(b"\bbi\x7fox")
    give(user, b"\x7frx\boot", b"sex\x7fcrey\bt")
    user.expect_exactly(OFFERS)
    assert hall.helper.pairs() == [b"root secret"]


def test_telnet_commands_are_not_part_of_what_is_typed(hall):
    user = hall.call(b"\xff\xfd\x01b\xff\xf1ox\xff\xfa\x1f\0\x50\0\x18\xff\xf0")
    give(user, b"ro\xff\xfd\x03ot", b"\xff\xfe\x01sec\xff\xf4ret")
    user.expect_exactly(OFFERS)
    assert hall.helper.pairs() == [b"root secret"]


def test_a_doubled_255_is_data(hall):
    user = hall.call()
    fail(user, b"root", b"p\xff\xffw")
    assert hall.helper.pairs() == [b"root p\xffw"]


@pytest.mark.parametrize("evil", [b"$(touch {})", b"`touch {}`", b"'; touch {}; '", b"%s%n%x"])
def test_no_shell_ever_sees_what_is_typed(hall, evil):
    marker = hall.station.root / "touched"
    evil = evil.replace(b"{}", str(marker).encode())
    user = hall.call()
    name = evil.replace(b" ", b"${IFS}")  # a name with a blank is not passed to the helper
    fail(user, b"root", evil)
    fail(user, name, evil)
    first, second = hall.helper.pairs()
    assert (first, second[:-32]) == (b"root " + evil, name + b" ")
    assert not marker.exists()


# Limits


def test_the_longest_answers_are_accepted(hall):
    user = hall.call(b"box " + b" " * (LINE - 30) + b"mode=ro")
    fail(user, b"root", b"p" * LINE)
    fail(user, b"n" * LINE, b"p" * LINE)
    first, second = hall.helper.pairs()
    assert (first, second[:-32]) == (b"root " + b"p" * LINE, b"n" * LINE + b" ")


@pytest.mark.parametrize("sent", [b"x" * (LINE + 1) + b"\n", b"box\0\n",
                                  b"box\nro\0ot\n", b"box\n" + b"r" * 8000 + b"\n",
                                  b"box\nroot\n" + b"p" * 8000 + b"\n",
                                  b"box\nroot\nsec\0ret\n"])
def test_a_line_that_is_too_long_or_holds_a_nul_is_refused(hall, sent):
    user = hall.station.caller()
    user.send(sent)
    user.expect(b"001 - Authentication failed.\r\n")
    user.expect_closed()
    assert hall.helper.pairs() == []
    hall.quiet()


@pytest.mark.parametrize("filling", [b"\b", b"\xff\xf1", b"\xff\xfa\x1f", b"\xff\xfd\x01"])
def test_too_much_input_without_an_answer_is_refused(hall, filling):
    user = hall.station.caller()
    user.send(filling * (BYTES // len(filling) + 1))
    user.expect(b"001 - Authentication failed.\r\n")


def test_an_empty_name_is_a_failed_attempt_without_a_check(hall):
    fail_every_try(hall.call(), b"", b"secret")
    assert hall.helper.pairs() == []


# Callers who go away

DROPS = {
    "in the line": (b"bo", b""),
    "at the name": (b"box\n", NAME),
    "in the name": (b"box\nro", NAME),
    "at the password": (b"box\nroot\n", HIDE + PASSWORD),
    "in the password": (b"box\nroot\nsec", HIDE + PASSWORD),
    "at the second name": (b"box\nroot\nwrong\n", SHOW + b"\r\n" + NAME),
    "in a telnet command": (b"box\n\xff", NAME),
    "in a subnegotiation": (b"box\n\xff\xfa\x1f", NAME),
}


@pytest.mark.parametrize("typed, shown", DROPS.values(), ids=DROPS.keys())
def test_a_caller_who_goes_away_leaves_nothing(hall, typed, shown):
    for leave in (User.close, User.reset):
        user = hall.station.caller()
        user.send(typed)
        user.expect(shown)
        leave(user)
    user = hall.station.caller()
    user.send(typed)
    user.expect(shown)
    user.finish_sending()
    refused(user, 1)
    user.close()
    hall.quiet()


# Helpers that fail


@pytest.mark.parametrize("script", [CRASHING, "#!/nowhere\n", "#!/bin/sh\nexit 255\n",
                                    "#!/bin/sh\nexec 0<&-\nexit 1\n", None],
                         ids=["crashes", "cannot be run", "says no", "reads nothing", "missing"])
def test_a_helper_that_fails_is_a_failed_attempt(hall, script):
    if script is None:
        hall.helper.path.unlink()
    else:
        hall.helper.replace(script)
    fail_every_try(hall.call(), b"root", b"secret")
    hall.quiet()


@pytest.mark.slow
def test_a_helper_that_hangs_is_ended_and_delays_nobody_else(hall):
    with local_user(hall.station, b"box") as neighbour:
        neighbour.expect(OFFERS)
        hall.helper.hang()
        user = hall.call()
        begin = time.monotonic()
        give(user, b"root", b"secret")
        process = hall.helper.wait_hanging()
        assert process in children_of(hall.station.pid)
        assert echo_time(neighbour, hall.box, b"k", limit=2) < stretched(1)
        user.expect_exactly(NAME, limit=30 + LIMIT)
        assert time.monotonic() - begin >= 29.9
        assert children_of(hall.station.pid) == set()
        user.close()
    hall.quiet()


def test_the_daemon_ends_at_once_while_a_helper_hangs(hall):
    hall.helper.hang()
    user = hall.call()
    give(user, b"root", b"secret")
    hall.helper.wait_hanging()
    begin = time.monotonic()
    hall.station.stop()
    assert time.monotonic() - begin < stretched(1)
    user.expect_closed()
    hall.helper.release()


# Many at once


def test_fifty_people_can_log_in_at_once(hall):
    neighbour = local_user(hall.station, b"box")
    neighbour.expect(OFFERS)
    wait_until(lambda: hall.station.threads() == hall.rest[0], what="the tool's thread to end")
    hall.note_rest()
    with ThreadPoolExecutor(10) as pool:
        callers = list(pool.map(lambda _: hall.call(), range(50)))
    for index, caller in enumerate(callers):
        caller.send(b"root\r\n" if index % 2 else b"name%d\r\n" % index)
        caller.expect_exactly(HIDE + PASSWORD)
    assert hall.station.threads() == hall.rest[0] + 50
    for index, caller in enumerate(callers):
        caller.send(b"secret\r\n" if index % 2 else b"wrong\r\n")
    assert echo_time(neighbour, hall.box, b"\1", limit=3) < stretched(1)
    for index, caller in enumerate(callers):
        caller.expect_exactly(SHOW + b"\r\n" + (OFFERS if index % 2 else NAME), limit=30)
    names = sorted(pair.split()[0] for pair in hall.helper.pairs())
    assert names == sorted([b"root"] * 25 + [b"name%d" % index for index in range(0, 50, 2)])
    assert hall.helper.pairs().count(b"root secret") == 25
    for caller in callers:
        caller.close()
    hall.quiet()


# What is left of a password


def test_no_password_is_in_the_output_or_in_memory(hall):
    user = hall.call()
    fail(user, b"root", b"Zq1-wrong-kPw")
    give(user, b"root", b"secret")
    user.expect_exactly(OFFERS)
    for sent in (b"box\nroot\nZq2-typed-kPw\n", b"box\nroot\nZq3-dropped-kPw"):
        with hall.station.caller() as other:
            other.send(sent)
            other.expect(PASSWORD)
    # One in place of the name, one in place of the first line, one that is left half typed.
    for sent in (b"box\nZq4-name-kPw\npw\n", b"Zq5-line-kPw\n", b"box\nZq6-half-a-name-kPw"):
        with hall.station.caller() as other:
            other.send(sent)
            other.expect(NAME)
            other.finish_sending()
            other.expect(ERRORS[1])
    with hall.station.caller() as other:
        other.send(b"box\nroot\n" + (b"Zq7-long-kPw" * 100)[:LINE + 1])
        other.expect(ERRORS[1])
    wait_until(lambda: hall.station.threads() == hall.rest[0], what="the exchanges to end")
    assert re.search("Zq|kPw|secret", hall.station.log_text()) is None
    assert not [part for part in (b"Zq1-wrong", b"Zq2-typed", b"Zq3-dropped", b"Zq4-name",
                                  b"Zq5-line", b"Zq6-half", b"Zq7-long")
                if in_memory(hall.station.pid, part)]
    assert in_memory(hall.station.pid, cookie(hall.station)), "the search finds what is there"
