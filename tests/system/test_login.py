"""The login dialogue on a console's own port, with a fake password helper."""

import os
import signal
import threading
import time

import pytest

from harness.access import ERRORS, bring_up, greeting, refused
from harness.cookies import local_user
from harness.door import (NAME, PASSWORD, TRY_AGAIN, Door, fail, give_name, give_password, log_in,
                          welcome)
from harness.fortress import open_door
# `groups` is a fixture.
from harness.helpers import CRASHING, KEEPING, FakeHelper, groups
from harness.memory import in_memory
from harness.peers import OFFERS, User
from harness.scenes import echo_time
from harness.waiting import free_port, stretched, wait_listening, wait_until

SERVE = "ServiceConnectionRequestThreadStart"

# Set-up


@pytest.fixture
def door(station):
    """A station with security on; root's password is "secret"."""
    return open_door(station)


@pytest.fixture
def member(groups, door):
    """A port where alice may log in, as a member of the group; bob has only a password."""
    groups.write("qoruser:x:64000:carol,alice\n")
    door.helper.accept(b"alice", b"two  words ")
    door.helper.accept(b"bob", b"builder")
    return door


# Who is admitted


def test_root_is_admitted_without_any_group(door):
    user = door.call()
    position = door.station.mark()
    log_in(user, b"root", b"secret")
    door.admitted(user)
    assert door.helper.pairs() == [b"root secret"]
    door.station.wait_log(f"{SERVE}: Authenticated 127.0.0.1/{door.port}", after=position)
    door.station.wait_log('ConnectUserToConsole: Connected user "root" to console "box" with '
                          "mode = shared.", after=position)
    assert "Entering IsInQORUserGroup" not in door.station.log_text(position)


def test_the_check_is_announced_before_the_welcome(door):
    position = door.station.mark()
    door.call()
    found = door.station.wait_log(f"{SERVE}: Performing security check.", after=position)
    door.station.wait_log("Entering PromptForUserNameAndPasswd", after=found.end)


@pytest.mark.needs_namespace
def test_a_member_is_admitted_with_the_password_as_typed(member):
    user = member.call()
    log_in(user, b"alice", b"two  words ")
    member.admitted(user)
    assert member.helper.pairs() == [b"alice two  words "]


@pytest.mark.needs_namespace
def test_the_right_password_of_a_non_member_ends_the_connection(member):
    user = member.call()
    log_in(user, b"bob", b"builder")
    refused(user, 14)
    member.station.wait_log(
        'PromptForUserNameAndPasswd: User "bob" is not in the qoruser group.')
    member.station.wait_log(f"{SERVE}: Closing connection with 127.0.0.1.")
    assert member.helper.pairs() == [b"bob builder"]


@pytest.mark.needs_namespace
def test_all_entries_of_the_group_are_searched(groups, door):
    groups.write("qoruser:x:64000:carol\nothers:x:64001:bob\nqoruser:x:64002:\n"
                 "qoruser:x:64003:dave,alice\n")
    for name in (b"alice", b"bob"):
        door.helper.accept(name, b"pw")
    user = door.call()
    log_in(user, b"alice", b"pw")
    door.admitted(user)
    other = door.call()
    log_in(other, b"bob", b"pw")
    refused(other, 14)


@pytest.mark.needs_namespace
@pytest.mark.parametrize("members", ["ali,alicea,Alice", "", "carol"])
def test_only_the_exact_name_is_a_member(groups, door, members):
    groups.write(f"qoruser:x:64000:{members}\nqoruser2:x:64001:alice\nQoruser:x:64002:alice\n")
    door.helper.accept(b"alice", b"pw")
    user = door.call()
    log_in(user, b"alice", b"pw")
    refused(user, 14)


@pytest.mark.needs_namespace
def test_a_changing_group_database_does_not_change_who_is_admitted(groups, door):
    """One line keeps changing its name and members; the right one is the last."""
    groups.write("otherss:x:64000:mallory\n"
                 + "".join(f"filler{number}:x:{number}:m{number}\n"
                           for number in range(65000, 69000))
                 + "qoruser:x:64001:alice\n")
    position = groups.path.read_bytes().index(b"otherss:")
    stop = threading.Event()

    def rewrite() -> None:
        with open(groups.path, "r+b", buffering=0) as database:
            while not stop.is_set():
                for line in (b"qoruser:x:64000:mallory\n", b"otherss:x:64000:mallory\n"):
                    os.pwrite(database.fileno(), line, position)

    writer = threading.Thread(target=rewrite)
    door.helper.accept(b"alice", b"pw")
    door.helper.accept(b"bob", b"pw")
    writer.start()
    try:
        for _ in range(5):
            with door.call() as user:
                log_in(user, b"alice", b"pw")
                user.expect_exactly(OFFERS + greeting("box"))
            with door.call() as other:
                log_in(other, b"bob", b"pw")
                refused(other, 14)
    finally:
        stop.set()
        writer.join()


@pytest.mark.needs_namespace
def test_a_group_database_truncated_during_a_login_does_no_harm(groups, door):
    entry = "qoruser:x:64001:alice\n"
    filler = "".join(f"filler{number}:x:{number}:\n" for number in range(65000, 67000))
    stop = threading.Event()

    def rewrite() -> None:
        while not stop.is_set():
            groups.write(filler + entry)
            groups.write("qoruser:x:6400")

    writer = threading.Thread(target=rewrite)
    door.helper.accept(b"alice", b"pw")
    writer.start()
    try:
        for _ in range(5):
            with door.call() as user:
                log_in(user, b"alice", b"pw")
                # Whether she is listed at that moment is left to chance.
                wait_until(lambda: user.unread in (ERRORS[14], OFFERS + greeting("box")),
                           what="an answer")
    finally:
        stop.set()
        writer.join()
    groups.write(entry)
    user = door.call()
    log_in(user, b"alice", b"pw")
    user.expect_exactly(OFFERS + greeting("box"))


def test_a_console_that_asks_for_no_login_admits_everybody(station):
    FakeHelper(station)
    port = free_port()
    box = station.console("box", mapped_port=port, auth=0)
    bring_up(station, box, options=("-S", "1"))
    wait_listening(port)
    user = station.caller(port)
    user.expect_exactly(OFFERS + greeting("box"))
    user.send(b"x")
    box.expect_exactly(b"x")


# What is refused before the prompt


def test_a_console_held_exclusively_is_refused_before_the_welcome(door):
    local_user(door.station, b"box mode=ex").expect(OFFERS)
    refused(door.station.caller(door.port), 6)
    door.station.wait_log(f'{SERVE}: Console "box" is locked exclusively.')


def test_only_the_first_user_counts_for_that_check(door):
    local_user(door.station, b"box mode=ro").expect(OFFERS)
    local_user(door.station, b"box mode=ex").expect(OFFERS)
    user = door.call()
    log_in(user, b"root", b"secret")
    door.admitted(user)


def test_a_console_that_is_taken_during_the_dialogue_is_refused_after_it(door):
    user = door.call()
    give_name(user, b"root")
    local_user(door.station, b"box mode=ex").expect(OFFERS)
    give_password(user, b"secret")
    refused(user, 6)


def test_a_console_that_is_gone_is_refused_before_the_welcome(door):
    position = door.station.mark()
    door.box.refuse()
    door.box.close()
    door.station.wait_log("AddConsoleToList: Added console box to i_cons_list.", after=position)
    refused(door.station.caller(door.port), 5)
    door.station.wait_log(f'{SERVE}: Console "box" is inaccessible.', after=position)


# Four attempts


def test_the_fourth_failure_ends_the_connection(door):
    user = door.call()
    for number in range(3):
        fail(user, b"root", b"wrong%d" % number)
    log_in(user, b"root", b"wrong3")
    user.expect_exactly(b"\r\n")
    refused(user, 1)
    assert door.helper.pairs() == [b"root wrong%d" % number for number in range(4)]
    door.station.wait_log(
        'PromptForUserNameAndPasswd: Login failed (username="root", console="box")', count=4)
    door.station.wait_log(f"{SERVE}: Closing connection with 127.0.0.1.")
    door.quiet()


def test_the_fourth_attempt_may_succeed(door):
    user = door.call()
    for _ in range(3):
        fail(user)
    log_in(user, b"root", b"secret")
    door.admitted(user)


@pytest.mark.parametrize("typed, shown", [
    (b"\r\0", b"\r\n"), (b"\n", b"\n"), (b"\r\n", b"\r\r"), (b"\x03", b"\r\n"),
    (b"abc\x03", b"abc\r\n"), (b"a\b\r\0", b"a\b \b\r\n")])
def test_an_empty_name_does_not_count_as_an_attempt(door, typed, shown):
    user = door.call()
    for _ in range(5):
        user.send(typed)
        user.expect_exactly(shown + NAME)
    for _ in range(3):
        fail(user)
    log_in(user, b"root", b"secret")
    door.admitted(user)


# Typing


def test_what_is_typed_can_be_edited(door):
    user = door.call()
    user.send(b"\b\x7frx\boot")
    user.expect_exactly(b"rx\b \boot")
    user.send(b"\r\0")
    user.expect_exactly(b"\r\n" + PASSWORD)
    user.send(b"\bsex\x7fcrey\bt")
    user.expect_exactly(b"\b \b\b \b")
    user.send(b"\r\0")
    user.expect_exactly(b"\r\n\r\n")
    door.admitted(user)
    assert door.helper.pairs() == [b"root secret"]


def test_a_line_feed_ends_a_line_too(door):
    user = door.call()
    user.send(b"root\n")
    user.expect_exactly(b"root\n" + PASSWORD)
    user.send(b"secret\n")
    user.expect_exactly(b"\n\r\n")
    door.admitted(user)


def test_carriage_return_and_line_feed_show_the_first_byte_of_a_name(door):
    user = door.call()
    user.send(b"root\r\n")
    user.expect_exactly(b"root\rr" + PASSWORD)
    user.send(b"secret\r\n")
    user.expect_exactly(b"\r\r\n")
    door.admitted(user)


def test_telnet_commands_before_the_name_are_not_part_of_it(door):
    user = door.call()
    user.send(b"\xff\xfd\x01\xff\xfd\x03")
    give_name(user, b"root")
    give_password(user, b"secret")
    door.admitted(user)


def test_telnet_commands_and_the_name_may_come_at_once(door):
    user = door.call()
    user.send(b"\xff\xfd\x01\xff\xfd\x03root\r\0")
    user.expect_exactly(b"root\r\n" + PASSWORD)


def test_a_telnet_command_in_place_of_a_password_is_a_failed_attempt(door):
    user = door.call()
    give_name(user, b"root")
    user.send(b"\xff\xfd\x01")
    user.expect_exactly(b"\r\n" + TRY_AGAIN + NAME)
    assert door.helper.pairs() == [b"root \xff\xfd\x01"]


def test_a_telnet_command_inside_a_name_is_part_of_it(door):
    user = door.call()
    fail(user, b"ro\xff\xf1ot", b"secret")
    assert door.helper.pairs() == [b"ro\xff\xf1ot secret"]


@pytest.mark.parametrize("typed, shown, kept", [
    (b"\r\0", b"\r\n", b"\r"), (b"\n", b"\n", b"\n"), (b"\r\n", b"\r", b"\r\n"),
    (b"\x03", b"\r\n", b""), (b"secret\x03", b"\r\n", b"")])
def test_an_empty_password_is_passed_on_as_typed(door, typed, shown, kept):
    user = door.call()
    give_name(user, b"root")
    user.send(typed)
    user.expect_exactly(shown + b"\r\n" + TRY_AGAIN + NAME)
    assert door.helper.pairs() == [b"root " + kept]


def test_long_answers_are_cut(door):
    user = door.call()
    fail(user, b"n" * 8000, b"p" * 8000)
    assert door.helper.pairs() == [b"n" * 256 + b" " + b"p" * 256]


def test_an_answer_that_fills_the_buffer_ends_there(door):
    user = door.call()
    user.send(b"n" * 8191 + b"p\r\0")
    user.expect_exactly(b"n" * 8191 + PASSWORD + b"\r\n\r\n" + TRY_AGAIN + NAME)
    assert door.helper.pairs() == [b"n" * 256 + b" p"]


def test_a_nul_ends_what_is_kept(door):
    user = door.call()
    give_name(user, b"ro\0ot")
    user.send(b"se\0cret\r\0")
    user.expect_exactly(b"\r\n\r\n" + TRY_AGAIN + NAME)
    assert door.helper.pairs() == [b"ro se"]


@pytest.mark.parametrize("evil", [
    b"$(touch {});`touch {}`|touch {}", b"'; touch {}; '", b'"; touch {} #', b"\\$IFS&&touch {}",
    b"> {}", b"%s%n%x"])
def test_no_shell_ever_sees_what_is_typed(door, evil):
    marker = door.station.root / "touched"
    evil = evil.replace(b"{}", os.fsencode(marker))
    name = evil.replace(b" ", b"${IFS}")  # a name with a blank is not passed to the helper
    user = door.call()
    fail(user, name, evil)
    assert door.helper.pairs() == [name + b" " + evil]
    assert not marker.exists()


def test_everything_may_be_typed_ahead(door):
    user = door.call()
    user.send(b"root\r\0wrong\r\0root\r\0secret\r\0!")
    user.expect_exactly(b"root\r\n" + PASSWORD + b"\r\n\r\n" + TRY_AGAIN + NAME
                        + b"root\r\n" + PASSWORD + b"\r\n\r\n" + OFFERS + greeting("box"))
    door.box.expect_exactly(b"!")


# Callers who go away


DROPS = {
    "at the welcome": (b"", b""),
    "in the name": (b"ro", b"ro"),
    "in a telnet command": (b"\xff\xfd", b""),
    "at the password": (b"root\r\0", b"root\r\n" + PASSWORD),
    "in the password": (b"root\r\0sec", b"root\r\n" + PASSWORD),
    "at the second name": (b"root\r\0wrong\r\0", TRY_AGAIN + NAME),
}


@pytest.mark.parametrize("typed, shown", DROPS.values(), ids=DROPS.keys())
def test_a_caller_who_goes_away_leaves_nothing(door, typed, shown):
    for leave in (User.close, User.reset, User.finish_sending):
        user = door.call()
        user.send(typed)
        user.expect(shown)
        leave(user)
    door.quiet()


def test_a_caller_who_goes_away_during_the_check_leaves_nothing(door):
    door.helper.hang()
    user = door.call()
    give_name(user, b"root")
    user.send(b"secret\r\0")
    door.helper.wait_hanging()
    user.reset()
    door.helper.release()
    door.quiet()


# Helpers that fail


@pytest.mark.parametrize("script", [CRASHING, "#!/nowhere\n", "#!/bin/sh\nexit 255\n",
                                    "#!/bin/sh\nexec 0<&-\nexit 1\n"],
                         ids=["crashes", "cannot be run", "says no", "reads nothing"])
def test_a_helper_that_fails_is_a_failed_try(door, script):
    door.helper.replace(script)
    user = door.call()
    fail(user, b"root", b"secret")
    door.helper.replace(KEEPING)
    log_in(user, b"root", b"secret")
    door.admitted(user)


def test_a_missing_helper_is_a_failed_attempt(door):
    door.helper.path.unlink()
    user = door.call()
    for _ in range(3):
        fail(user, b"root", b"secret")
    log_in(user, b"root", b"secret")
    user.expect_exactly(b"\r\n")
    refused(user, 1)
    door.quiet()


def test_a_helper_that_hangs_delays_nobody_else(door):
    with local_user(door.station, b"box") as neighbour:
        neighbour.expect(OFFERS)
        door.helper.hang()
        user = door.call()
        give_name(user, b"root")
        user.send(b"secret\r\0")
        door.helper.wait_hanging()
        assert echo_time(neighbour, door.box, b"k", limit=2) < stretched(1)
        door.helper.replace(KEEPING)
        other = door.call()
        fail(other, b"alice", b"wrong")
        other.close()
        door.helper.release()
        user.expect_exactly(b"\r\n\r\n" + TRY_AGAIN + NAME)
        user.close()
    door.quiet()


def test_the_daemon_ends_at_once_while_a_helper_hangs(door):
    door.helper.hang()
    user = door.call()
    give_name(user, b"root")
    user.send(b"secret\r\0")
    door.helper.wait_hanging()
    begin = time.monotonic()
    door.station.stop()
    assert time.monotonic() - begin < stretched(1)
    user.expect(b"\r\n\r\n")
    user.expect_closed()
    door.helper.release()


def test_a_starter_that_ignores_sigchld_does_not_hide_the_helpers_status(station):
    """The daemon inherits the disposition, with which a child's status would be lost."""
    helper = FakeHelper(station)
    helper.accept(b"root", b"secret")
    port = free_port()
    box = station.console("box", mapped_port=port, auth=1)
    former = signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    try:
        station.start("-S", "1")
    finally:
        signal.signal(signal.SIGCHLD, former)
    box.accept()
    station.wait_connected("box")
    wait_listening(port)
    door = Door(station, helper, box, port).note_rest()
    user = door.call()
    fail(user)
    log_in(user, b"root", b"secret")
    door.admitted(user)
    with station.caller() as other:
        other.send(b"box\nroot\nsecret\n")
        other.expect(OFFERS)
    user.close()
    door.quiet()


LISTING = """#!/bin/sh
cat > /dev/null
ls -l /proc/self/fd > {root}/listed
tr '\\0' '\\n' < /proc/$$/cmdline > {root}/arguments
exit 1
"""


def test_the_helper_inherits_no_connection_and_gets_no_argument(door):
    door.helper.replace(LISTING)
    user = door.call()
    fail(user, b"root", b"secret")
    listed = (door.station.root / "listed").read_text(encoding="utf-8")
    opened = dict(line.split(" -> ") for line in listed.splitlines() if " -> " in line)
    numbers = {int(key.split()[-1]): target for key, target in opened.items()}
    # Standard output is the list itself; one more descriptor is the directory being listed.
    assert numbers.pop(0).startswith("pipe:")
    assert numbers.pop(1) == str(door.station.root / "listed")
    assert numbers.pop(2) == str(door.station.output.path)
    assert [target for target in numbers.values() if not target.startswith("/proc/")] == []
    arguments = (door.station.root / "arguments").read_text(encoding="utf-8")
    assert arguments.split() == ["/bin/sh", str(door.helper.path)]


# Many at once


def test_fifty_people_can_log_in_at_once(station):
    helper = FakeHelper(station)
    helper.accept(b"root", b"secret")
    ports = [free_port() for _ in range(10)]
    boxes = [station.console(f"box{index}", mapped_port=port, auth=1)
             for index, port in enumerate(ports)]
    bring_up(station, *boxes, options=("-S", "1"))
    for port in ports:
        wait_listening(port)
    threads = station.threads()
    neighbour = local_user(station, b"box0")
    neighbour.expect(OFFERS)
    wait_until(lambda: station.threads() == threads, what="the local tool's thread to end")
    door = Door(station, helper, boxes[0], ports[0]).note_rest()

    callers = []
    for box, port in zip(boxes, ports):
        for _ in range(5):
            callers.append((box, station.caller(port)))
    for index, (box, caller) in enumerate(callers):
        caller.expect_exactly(welcome(box.name) + NAME)
        give_name(caller, b"root" if index % 2 else b"name%d" % index)
    assert station.threads() == door.rest[0] + 50
    for index, (_, caller) in enumerate(callers):
        caller.send(b"secret\r\0" if index % 2 else b"wrong\r\0")
    assert echo_time(neighbour, boxes[0], b"k", limit=3) < stretched(1)
    for index, (box, caller) in enumerate(callers):
        caller.expect_exactly(b"\r\n\r\n", limit=30)
        caller.expect_exactly(OFFERS + greeting(box.name) if index % 2 else TRY_AGAIN + NAME,
                              limit=30)
    assert sorted(helper.pairs()) == sorted([b"root secret"] * 25 + [
        b"name%d wrong" % index for index in range(0, 50, 2)])
    for _, caller in callers:
        caller.close()
    door.quiet()


# What is left of a password


def test_no_password_is_in_the_output_or_in_memory(door):
    user = door.call()
    fail(user, b"root", b"Zq1-wrong-kPw")
    fail(user, b"nobody", b"Zq2-wrong-kPw")
    log_in(user, b"root", b"secret")
    door.admitted(user)
    with door.call() as other:
        other.send(b"root\r\0Zq3-ahead-kPw\r\0root\r\0")
        other.expect(TRY_AGAIN + NAME + b"root\r\n" + PASSWORD)
        other.send(b"Zq4-dropped-kPw")
    wait_until(lambda: door.station.threads() == door.rest[0], what="the dialogues to end")
    assert "Login failed" in door.station.log_text()
    for part in (b"Zq1", b"Zq2", b"Zq3", b"Zq4", b"kPw", b"secret"):
        assert part.decode() not in door.station.log_text()
    assert not [part for part in (b"Zq1-wrong", b"Zq2-wrong", b"Zq3-ahead", b"Zq4-dropped")
                if in_memory(door.station.pid, part)]
    assert in_memory(door.station.pid, b"Welcome to zevd"), "the search finds what is there"
