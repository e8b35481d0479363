"""Attempts to reach a console, or to use another user's name, without permission."""

import os
import socket
import stat

import pytest

from harness.access import ERRORS, LOOPBACK, greeting, refused, reload
from harness.cookies import cookie, cookie_file, other_than, tell
from harness.door import NAME, PASSWORD, TRY_AGAIN, fail, give_name, give_password, log_in
# `door`, `fortress` and `hall` are fixtures.
from harness.fortress import door, fortress, hall
from harness.hall import LINE, fail_every_try, give
# `groups` is a fixture.
from harness.helpers import groups
from harness.peers import OFFERS
from harness.station import console_line
from harness.waiting import wait_until


def unmoved(station) -> None:
    """Nobody has been attached to anything, and nobody has come to the command port."""
    said = station.log_text()
    assert "Connected user" not in said
    assert "Entering MonitorSocketForCommands" not in said


# The cookie


@pytest.mark.parametrize("change", [
    lambda right: b"*", lambda right: b"%s", lambda right: b"%n%n%n%n", lambda right: b"?" * 16,
    lambda right: right[:15], lambda right: right[1:], lambda right: right[:8] + b"\0" + right[8:],
    lambda right: right.swapcase(), lambda right: b"x" + right, lambda right: b'"' + right + b'"',
    lambda right: b"\xff\xf1" + right, lambda right: other_than(right) + right,
    lambda right: other_than(right) + b" " + right, lambda right: b"token " + right,
    lambda right: right[:15] + b"\b" + right[15:]])
def test_nothing_like_the_cookie_admits(fortress, change):
    station, _, _ = fortress
    user = tell(station, b"token " + change(cookie(station)) + b" box user=root\n")
    refused(user, 1)
    unmoved(station)


def test_a_cookie_that_comes_in_pieces_is_judged_by_the_first(fortress):
    """The line is checked just once, so nothing can be changed between two checks."""
    station, _, _ = fortress
    user = tell(station, b"token " + cookie(station)[:10])
    refused(user, 1)
    unmoved(station)


@pytest.mark.parametrize("address", ["127.0.0.2", "127.0.1.1"])
@pytest.mark.parametrize("claim", [b"", b" addr=127.0.0.1", b" addr=127.0.0.1 user=root"])
def test_the_cookie_is_worth_nothing_from_elsewhere(fortress, address, claim):
    station, _, _ = fortress
    user = tell(station, b"token " + cookie(station) + b" box" + claim + b"\n", address)
    user.expect_exactly(NAME)
    for _ in range(2):
        give(user, b"root", cookie(station))
        user.expect_exactly(NAME)
    give(user, b"token", cookie(station))
    refused(user, 1)
    unmoved(station)


def test_a_token_line_comes_too_late_once_the_library_has_begun(hall):
    user = hall.call(b"vault")
    right = b"token " + cookie(hall.station) + b" vault"
    fail_every_try(user, right, right)
    unmoved(hall.station)


def test_a_token_line_is_a_name_on_a_consoles_own_port(door):
    user = door.call()
    fail(user, b"token " + cookie(door.station) + b" box", b"token")
    unmoved(door.station)


def test_the_cookie_is_not_for_others_even_with_an_open_mask(station):
    """Others can never read the new file, whatever umask the daemon is started with."""
    former = os.umask(0)
    try:
        station.start("-S", "1")
    finally:
        os.umask(former)
    assert stat.S_IMODE(cookie_file(station).stat().st_mode) & stat.S_IRWXO == 0


# Name and password


@pytest.mark.needs_namespace
@pytest.mark.parametrize("name, password", [
    (b"root x", b"y"), (b"root ", b"secret"), (b" root", b"secret"), (b"root\t", b"secret"),
    (b"ROOT", b"secret"), (b"root\x01", b"secret"), (b"root:0:0", b"secret"), (b"0", b"secret"),
    (b"root" * 64, b"secret"), (b"root\xff\xff", b"secret"), (b"roo", b"tsecret")])
def test_a_name_that_is_nearly_roots_is_not_admitted(groups, door, name, password):
    """Even a helper that takes the first word as the name does not let it pass as root."""
    door.helper.accept(name[:256], password)
    user = door.call()
    log_in(user, name, password)
    if len(name.split()) == 1 and name == name.strip():
        refused(user, 14)
    else:  # it is not even passed to the helper
        user.expect_exactly(TRY_AGAIN + NAME)
    unmoved(door.station)


@pytest.mark.needs_namespace
@pytest.mark.parametrize("name", [b"root x", b"root ", b" root", b"root\t", b"ROOT", b"root\x01",
                                  b"root" * 64, b"alice x", b"alice ", b"ali", b"alice,carol",
                                  b"qoruser", b"x", b"64000", b"*", b"alice mode=ex user=root"])
def test_a_name_that_is_nearly_a_members_is_not_admitted(groups, hall, name):
    groups.write("qoruser:x:64000:carol,alice\n")
    hall.helper.accept(name, b"pw")
    user = hall.call()
    give(user, name, b"pw")
    user.expect_exactly(NAME)
    unmoved(hall.station)


@pytest.mark.needs_namespace
@pytest.mark.parametrize("entry", ["qoruser:x:64000:,,\n", "qoruser:x:64000\n", "qoruser:\n",
                                   "qoruser:x:alice:64000\n", "#qoruser:x:64000:alice\n",
                                   "qoruser :x:64000:alice\n", "+qoruser:x:64000:alice\n",
                                   "qoruser:x:64000:" + "m," * 50000 + "alice2\n"])
def test_a_broken_group_entry_admits_nobody(groups, door, hall, entry):
    groups.write(entry)
    door.helper.accept(b"alice", b"pw")
    user = door.call()
    log_in(user, b"alice", b"pw")
    refused(user, 14)
    other = hall.call()
    give(other, b"alice", b"pw")
    other.expect_exactly(NAME)
    unmoved(hall.station)


@pytest.mark.parametrize("typed", [
    b"root\r\0\r\0", b"root\r\0\x03", b"root\r\0secre\r\0", b"root\r\0\0secret\r\0",
    b"root\r\0secret \r\0", b"root\r\0 secret\r\0", b"root\r\0secret\xff\xf1\r\0",
    b"root\r\0\xff\xf1secret\r\0", b"root secret\r\0\x03", b"root\r\0xsecret\b\b\b\b\b\b\r\0",
    b"\b\xffroot\r\0secret\r\0root\r\0\r\0"])
def test_nothing_like_the_password_admits(door, typed):
    user = door.call()
    user.send(typed)
    user.expect(TRY_AGAIN + NAME)
    user.close()
    door.quiet()
    unmoved(door.station)


def test_the_end_of_the_connection_does_not_complete_an_answer(door):
    """The pair is checked only once both lines have ended."""
    for typed, shown in ((b"root\r\0secret", PASSWORD), (b"root", b"root")):
        user = door.call()
        user.send(typed)
        user.expect(shown)
        user.finish_sending()
        user.expect_closed()
    door.quiet()
    assert door.helper.pairs() == []
    unmoved(door.station)


def test_what_one_caller_typed_is_of_no_use_to_the_next(door):
    """Nothing of an earlier login is left where a later one could send it to the helper."""
    first = door.call()
    log_in(first, b"root", b"secret")
    door.admitted(first)
    second = door.call()
    for typed, kept in ((b"\x03", b""), (b"\0\r\0", b""), (b"\b\b\b\r\0", b"\r")):
        give_name(second, b"root")
        second.send(typed)
        second.expect(TRY_AGAIN + NAME)
        assert door.helper.pairs()[-1] == b"root " + kept


@pytest.mark.parametrize("script", ["#!/bin/sh\nkill -KILL $$\n", "#!/bin/sh\nkill -ABRT $$\n",
                                    "#!/bin/sh\nexit 128\n", "not a program\n", None])
def test_a_helper_that_does_not_say_yes_admits_nobody(door, hall, script):
    if script is None:
        door.helper.path.unlink()
        door.helper.path.mkdir()
    else:
        door.helper.replace(script)
    user = door.call()
    fail(user, b"root", b"secret")
    other = hall.call()
    give(other, b"root", b"secret")
    other.expect_exactly(NAME)
    unmoved(door.station)


# Getting past the dialogue


def test_nothing_passes_between_caller_and_console_before_the_login(door):
    user = door.call()
    door.box.send(b"launch codes\r\n")
    door.station.wait_log("ProcessConsoleOutput: Received ->launch codes\r")
    user.send(b"reboot\r\0")
    user.expect_exactly(b"reboot\r\n" + PASSWORD)
    door.box.send(b"more codes\r\n")
    door.station.wait_log("ProcessConsoleOutput: Received ->more codes\r")
    user.send(b"now\r\0")
    user.expect_exactly(b"\r\n\r\n" + TRY_AGAIN + NAME)
    log_in(user, b"root", b"secret")
    door.admitted(user)
    assert b"codes" not in user.received


def test_nothing_passes_on_the_main_port_before_the_login(hall):
    user = hall.call()
    hall.box.send(b"launch codes\r\n")
    hall.station.wait_log("ProcessConsoleOutput: Received ->launch codes\r")
    give(user, b"reboot", b"now")
    user.expect_exactly(NAME)
    give(user, b"root", b"secret", b"\n")
    user.expect_exactly(OFFERS)
    user.send(b"k")
    hall.box.expect_exactly(b"k")
    assert b"codes" not in user.received


def test_a_login_keeps_its_console_when_its_port_changes_hands(door):
    """A user who logs in for one console is not attached to another that took over its port."""
    user = door.call()
    give_name(user, b"root")
    reload(door.station, console_line("box", door.box.port, auth=1)
           + console_line("vault", door.station.vault.port, mapped_port=door.port, auth=1),
           waker=door.box)
    give_password(user, b"secret")
    door.admitted(user)


def test_a_console_that_begins_to_ask_for_a_login_asks_the_next_caller(door):
    station = door.station
    reload(station, console_line("box", door.box.port, mapped_port=door.port, auth=0)
           + console_line("vault", station.vault.port), waker=door.box)
    user = station.caller(door.port)
    user.expect_exactly(OFFERS + greeting("box"))
    reload(station, console_line("box", door.box.port, mapped_port=door.port, auth=1)
           + console_line("vault", station.vault.port), waker=door.box)
    door.call()


def test_a_line_on_a_consoles_own_port_is_not_an_argument_line(door):
    user = door.station.caller(door.port)
    user.send(b"vault mode=ex user=root\n")
    user.expect(b"vault mode=ex user=root\n" + PASSWORD)
    unmoved(door.station)


def test_commands_need_a_login(hall):
    for line in (b"@@@@\n", b"@@@@ user=root\n", b"token x @@@@\n", b"@@@@ addr=127.0.0.1\n"):
        user = hall.station.caller()
        user.send(line)
        wait_until(lambda seen=user: seen.unread in (NAME, ERRORS[1]), what="an answer")
        user.send(b"console\0config\0")
        user.close()
    hall.quiet()
    unmoved(hall.station)


# Another user's name


@pytest.mark.needs_namespace
@pytest.mark.parametrize("line", [
    b"box user=root", b"box user=root user=", b"box user=root\x0b", b"box\tuser=root\t"])
def test_the_name_that_was_proved_is_the_one_that_counts(groups, hall, line):
    groups.write("qoruser:x:64000:alice\n")
    hall.helper.accept(b"alice", b"pw")
    user = hall.call(line)
    give(user, b"alice", b"pw")
    user.expect_exactly(OFFERS)
    hall.connected("alice")


@pytest.mark.needs_namespace
@pytest.mark.parametrize("length", [LINE - 11, LINE - 10, LINE - 9, LINE])
def test_a_line_of_any_length_does_not_hide_the_name_that_was_proved(groups, hall, length):
    """A line that leaves no room for the name is refused; any other is given the name."""
    groups.write("qoruser:x:64000:alice\n")
    hall.helper.accept(b"alice", b"pw")
    user = hall.station.caller()
    user.send(b"box user=root".ljust(length) + b"\n")
    user.send(b"alice\npw\n")
    wait_until(lambda: user.received.endswith(OFFERS) or user.received.count(NAME) == 2,
               what="an answer")
    assert 'Connected user "root"' not in hall.station.log_text()


def test_a_name_in_the_line_does_not_replace_a_login(hall):
    fail_every_try(hall.call(b"box user=root"), b"alice", b"pw")
    unmoved(hall.station)


# Keeping others out


def test_filling_the_logins_of_one_port_leaves_the_others_free(door, hall):
    silent = [door.call() for _ in range(5)]
    refused(door.station.caller(door.port), 16)
    user = hall.call(b"box")
    give(user, b"root", b"secret")
    user.expect_exactly(OFFERS)
    silent[0].close()
    wait_until(lambda: door.station.threads() == door.rest[0] + 4, what="the login to end")
    log_in(door.call(), b"root", b"secret")


def test_a_hundred_silent_callers_of_the_main_port_delay_nobody(hall):
    silent = [hall.station.caller() for _ in range(100)]
    user = hall.call()
    give(user, b"root", b"secret")
    user.expect_exactly(OFFERS)
    for caller in silent:
        caller.reset()
    user.close()
    hall.quiet()


def test_a_caller_who_reads_nothing_during_a_login_delays_nobody(door):
    deaf = [socket.create_connection((LOOPBACK, door.port)) for _ in range(3)]
    try:
        for caller in deaf:
            caller.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
            caller.setblocking(False)
            for _ in range(100):
                try:
                    caller.send(b"n" * 8000)
                except BlockingIOError:
                    break
        user = door.call()
        log_in(user, b"root", b"secret")
        door.admitted(user)
        user.close()
    finally:
        for caller in deaf:
            caller.close()
    door.quiet()
