"""The argument line of the main port, and what mapped ports read and say instead."""

import re
import socket
import time

import pytest

# `box` is a fixture.
from harness.access import (LOOPBACK, attachment, box, bring_up, greeting, pending, refused,
                            servicing, terminated_by)
from harness.peers import OFFERS
from harness.scenes import removal
from harness.waiting import free_port, stretched, wait_listening

ARGUMENT_WAIT = 10
LINE_ROOM = 1023


@pytest.fixture
def mapped_box(station):
    """Brings up a console "box" with a port of its own; returns the console and the port."""
    def bring_up_mapped(*options: str, **fields):
        port = free_port()
        console = station.console("box", mapped_port=port, **fields)
        bring_up(station, console, options=options)
        wait_listening(port)
        return console, port

    return bring_up_mapped


def say(station, line: bytes):
    """A caller of the main port that has sent the bytes."""
    caller = station.caller()
    caller.send(line)
    return caller


# Lines that are understood


@pytest.mark.parametrize("line, user, address, mode", [
    (b"box\n", "<unknown>", LOOPBACK, "sh"),
    (b"box\r\n", "<unknown>", LOOPBACK, "sh"),
    (b"box", "<unknown>", LOOPBACK, "sh"),
    (b"  \t box \t \r\n", "<unknown>", LOOPBACK, "sh"),
    (b"\r\rbox\r\r\n", "<unknown>", LOOPBACK, "sh"),
    (b"box\tmode=ro\ruser=ann  addr=here\n", "ann", "here", "ro"),
    (b"box mode=ro\n", "<unknown>", LOOPBACK, "ro"),
    (b"box mode=sh\n", "<unknown>", LOOPBACK, "sh"),
    (b"box mode=ex\n", "<unknown>", LOOPBACK, "ex"),
    (b"box mode=er\n", "<unknown>", LOOPBACK, "er"),
    (b"box addr=1.2.3.4 user=ann mode=ex\n", "ann", "1.2.3.4", "ex"),
    (b"box user=\n", "", LOOPBACK, "sh"),
    (b"box addr=\n", "<unknown>", LOOPBACK, "sh"),
    (b"box user=a=b@c addr=mode=ex\n", "a=b@c", "mode=ex", "sh"),
    (b"box mode=ex mode=ro mode=sh\n", "<unknown>", LOOPBACK, "sh"),
    (b"box user=ann user=ben addr=1 addr=2\n", "ben", "2", "sh"),
    (b"box addr=1 addr=\n", "<unknown>", LOOPBACK, "sh"),
    (b"token abc box\n", "<unknown>", LOOPBACK, "sh"),
    (b"token abc box mode=ex user=ann\n", "ann", LOOPBACK, "ex"),
    (b"token mode=ro box\n", "<unknown>", LOOPBACK, "sh"),
    (b"box user=\xc3\xa4\xff\n", "\xc3\xa4\xff", LOOPBACK, "sh"),
    (b"box mode=ro\0 mode=sh\n", "<unknown>", LOOPBACK, "ro"),
    (b"box user=" + b"u" * 40 + b" mode=ro\n", "u" * 32, LOOPBACK, "ro"),
    (b"box user=" + b"u" * 32 + b"\n", "u" * 32, LOOPBACK, "sh"),
    (b"box addr=" + b"a" * 70 + b" mode=ro\n", "<unknown>", "a" * 64, "ro"),
    (b"box addr=" + b"a" * 64 + b"\n", "<unknown>", "a" * 64, "sh"),
])
def test_a_line_is_understood(station, box, line, user, address, mode):
    holder = station.attach("box", "er")
    say(station, line).expect_exactly(OFFERS)
    station.wait_log(attachment(user, mode), thread="serv_conn")
    if mode == "ro":
        station.attach("box", user=user or None)
        holder.expect(b"Your session has been terminated by ")
    else:
        holder.expect_exactly(terminated_by_bytes(user, address))


def terminated_by_bytes(user: str, address: str) -> bytes:
    """The banner for a user whose name has other characters than letters."""
    return terminated_by("NAME", address).replace(b"NAME", user.encode("latin-1"))


@pytest.mark.parametrize("name", ["n" * 64, "n" * 65, "n" * 200])
def test_a_long_console_name_is_cut(station, name):
    console = station.console("n" * 64)
    bring_up(station, console)
    user = say(station, name.encode() + b" mode=ro\n")
    user.expect_exactly(OFFERS)
    station.wait_log(attachment(mode="ro", console="n" * 64))


def test_a_name_one_letter_short_of_the_limit_is_another_name(station):
    console = station.console("n" * 64)
    bring_up(station, console)
    refused(say(station, b"n" * 63 + b"\n"), 4)


def test_a_console_named_token_is_reached_with_a_cookie(station):
    console = station.console("token")
    bring_up(station, console)
    refused(say(station, b"token\n"), 9)
    say(station, b"token abc token\n").expect_exactly(OFFERS)


@pytest.mark.parametrize("name", [b"Token", b"token=abc", b"tokens"])
def test_only_the_word_token_is_a_prefix(station, name):
    station.start()
    refused(say(station, name + b" abc\n"), 2)
    station.wait_log('ParseConsoleArgs: Invalid argument "abc".', thread="serv_conn")


def test_the_line_is_shown_as_it_was_received(station, box):
    say(station, b"box  mode=ro").expect_exactly(OFFERS)
    station.wait_log("ServiceConnectionRequestThreadStart: Received arguments: box  mode=ro",
                     thread="serv_conn")


# Lines that are refused


@pytest.mark.parametrize("line, said", [
    (b"\n", "No console arguments found."),
    (b"\r\n", "No console arguments found."),
    (b"   \t  \r\n", "No console arguments found."),
    (b"    ", "No console arguments found."),
    (b"\0box\n", "No console arguments found."),
    (b"token\n", "Cookie not specified."),
    (b"token  \r\n", "Cookie not specified."),
    (b"token abc\n", "Console name not specified."),
    (b"token abc \t\n", "Console name not specified."),
    (b"token\0 abc box\n", "Cookie not specified."),
])
def test_a_line_that_says_too_little(station, line, said):
    station.start()
    refused(say(station, line), 9)
    found = station.wait_log(f"ParseConsoleArgs: {said}", thread="serv_conn")
    station.wait_log(
        f"ServiceConnectionRequestThreadStart: Closing connection with {LOOPBACK}.",
        after=found.end)


@pytest.mark.parametrize("line, said", [
    (b"box mode=EX\n", 'Unrecognized mode "EX".'),
    (b"box mode=\n", 'Unrecognized mode "".'),
    (b"box mode=exx\n", 'Unrecognized mode "exx".'),
    (b"box mode=e\n", 'Unrecognized mode "e".'),
    (b"box mode=3\n", 'Unrecognized mode "3".'),
    (b"box mode=ro mode=rw user=ann\n", 'Unrecognized mode "rw".'),
    (b"box mode= ro\n", 'Unrecognized mode "".'),
    (b"box mode\n", 'Invalid argument "mode".'),
    (b"box Mode=ro\n", 'Invalid argument "Mode=ro".'),
    (b"box user\n", 'Invalid argument "user".'),
    (b"box USER=ann\n", 'Invalid argument "USER=ann".'),
    (b"box =ro\n", 'Invalid argument "=ro".'),
    (b"box user = ann\n", 'Invalid argument "user".'),
    (b"box user=ann lee\n", 'Invalid argument "lee".'),
    (b"box xmode=ro\n", 'Invalid argument "xmode=ro".'),
    (b"token abc box ro\n", 'Invalid argument "ro".'),
])
def test_a_line_that_says_something_unknown(station, box, line, said):
    refused(say(station, line), 2)
    station.wait_log(f"ParseConsoleArgs: {said}", thread="serv_conn")


def test_an_invalid_line_revokes_nobody(station, box):
    holder = station.attach("box", "er")
    refused(say(station, b"box mode=ex mode=EX\n"), 2)
    box.send(b"undisturbed")
    holder.expect_exactly(b"undisturbed")


# Lines in pieces, and bytes after a line


def test_a_line_that_arrives_in_part_is_taken_as_it_is(station):
    console = station.console("ab")
    bring_up(station, console)
    user = say(station, b"ab")
    user.expect_exactly(OFFERS)
    user.send(b"c\r\n")
    console.expect_exactly(b"c\r\n")


def test_what_follows_the_line_goes_to_the_console(station, box):
    say(station, b"box\nfirst keys\0\xff\r\n").expect_exactly(OFFERS)
    box.expect_exactly(b"first keys\0\xff\r\n")


def test_a_line_ends_at_its_first_line_feed(station, box):
    refused(say(station, b"\nbox\n"), 9)


@pytest.mark.parametrize("length", [LINE_ROOM - 1, LINE_ROOM, LINE_ROOM + 1, LINE_ROOM + 300])
def test_a_line_has_room_for_1023_bytes(station, box, length):
    line = b"box".ljust(length - 1) + b"\n"
    say(station, line + b"keys").expect_exactly(OFFERS)
    box.expect_exactly(line[LINE_ROOM:] + b"keys")


def test_a_word_that_does_not_fit_is_cut(station, box):
    line = b"box user=ann".ljust(LINE_ROOM - 3) + b"mode=ex\n"
    refused(say(station, line), 2)
    station.wait_log('ParseConsoleArgs: Invalid argument "mod".')


# Connections that send nothing


def test_a_caller_who_is_silent_for_ten_seconds_is_told_and_disconnected(station, mapped_box):
    _, port = mapped_box()
    start = time.monotonic()
    silent = [station.caller(), station.caller(port)]
    for caller in silent:
        refused_in = ARGUMENT_WAIT * 1.3 + 2
        caller.expect_exactly(b"003 - Timed out.\r\n", limit=refused_in)
        caller.expect_closed()
    assert ARGUMENT_WAIT - 0.1 <= time.monotonic() - start <= stretched(refused_in)
    station.wait_log(
        f"ServiceConnectionRequestThreadStart: Closing connection with {LOOPBACK}.", count=2)


@pytest.mark.parametrize("end", ["finish_sending", "close", "reset"])
def test_a_connection_that_ends_without_a_line_gets_no_answer(station, box, end):
    caller = station.caller()
    getattr(caller, end)()
    if end == "finish_sending":
        caller.expect_closed()
    found = station.wait_log(re.compile(r"^ReadLineWithTimeout: recv\(\) returned (0|-1) : "),
                             thread="serv_conn")
    for line in (f"ServiceConnectionRequestThreadStart: Closing connection with {LOOPBACK}.",
                 "ServiceConnectionRequestThreadStart: Exiting thread."):
        found = station.wait_log(line, after=found.end, thread="serv_conn")
    assert "SendErrorToUser: " not in station.log_text()


def test_a_half_closed_connection_is_attached_and_then_removed(station, box):
    user = say(station, b"box user=ann\n")
    user.finish_sending()
    user.expect_exactly(OFFERS)
    user.expect_closed()
    station.wait_log(removal("ann"), thread="user_mon")


def test_each_caller_gets_the_text_of_its_own_refusal(station, box):
    callers = [station.caller() for _ in range(24)]
    lines = {2: b"box mode=EX\n", 4: b"nobody\n", 9: b"\n"}
    for index, caller in enumerate(callers):
        caller.send(lines[list(lines)[index % 3]])
    for index, caller in enumerate(callers):
        refused(caller, list(lines)[index % 3])


def test_a_service_thread_frees_its_name(station, box):
    for _ in range(60):
        refused(say(station, b"nobody\n"), 4)
    station.wait_log("ServiceConnectionRequestThreadStart: Exiting thread.", count=60,
                     thread="serv_conn")
    assert "<unknown>:" not in station.log_text()


# Mapped ports without security


def test_a_line_on_a_mapped_port_is_read_and_ignored(station, mapped_box):
    box, port = mapped_box()
    for line in (b"\n", b"nonsense mode=EX user=ann\n", b"token\n", b"other mode=ex addr=1\n"):
        position = station.mark()
        station.mapped(port, line).expect_exactly(OFFERS + greeting("box"))
        station.wait_log(attachment(), after=position)
    station.mapped(port, b"line\nkeys").expect_exactly(OFFERS + greeting("box"))
    box.expect_exactly(b"keys")
    assert "Received arguments" not in station.log_text()


def test_a_user_of_a_mapped_port_has_the_address_of_the_connection(station, mapped_box):
    _, port = mapped_box()
    holder = station.attach("box", "er")
    station.mapped(port, b"x user=ann addr=1.2.3.4\n")
    holder.expect_exactly(terminated_by("<unknown>"))


def test_nothing_is_sent_on_a_mapped_port_before_the_line(station, mapped_box):
    box, port = mapped_box()
    caller, = pending(station, port, 1)
    box.send(b"not for a caller who is not attached")
    station.wait_log("ProcessConsoleOutput: Received ->not for a caller who is not attached<- "
                     "(36 bytes)")
    caller.send(b"\n")
    caller.expect_exactly(OFFERS + greeting("box"))


def test_the_greeting_follows_the_replay(station, mapped_box):
    box, port = mapped_box("-B", "100", greeting=b"\xff\xfb\x00recent")
    station.wait_log("ProcessConsoleOutput: Received ->recent<- (6 bytes)")
    user = station.mapped(port)
    user.expect_exactly(b"\xff\xfb" + OFFERS + b"recent" + greeting("box"))
    box.send(b"new")
    user.expect_exactly(b"new")


def test_the_main_port_sends_no_greeting(station, mapped_box):
    box, _ = mapped_box()
    user = station.ask("box")
    user.expect_exactly(OFFERS)
    station.wait_log(attachment())
    box.send(b"first")
    user.expect_exactly(b"first")


@pytest.mark.parametrize("security", ["0", "1"])
def test_an_inaccessible_console_is_refused_on_its_port(station, security):
    port = free_port()
    station.console("down", listening=False, mapped_port=port)
    station.start("-S", security)
    wait_listening(port)
    refused(station.mapped(port), 5)
    station.wait_log('ServiceConnectionRequestThreadStart: Console "down" is inaccessible.',
                     thread="serv_conn")


@pytest.mark.parametrize("security", ["0", "1"])
def test_a_disabled_console_is_inaccessible_on_its_port(station, security):
    port = free_port()
    station.console_line("off", 1, enable=0, mapped_port=port)
    station.start("-S", security)
    wait_listening(port)
    refused(station.mapped(port), 5)


def test_a_locked_console_is_refused_on_its_port(station, mapped_box):
    _, port = mapped_box()
    station.attach("box", "ex")
    refused(station.caller(port), 6)
    station.wait_log('ServiceConnectionRequestThreadStart: Console "box" is locked exclusively.',
                     thread="serv_conn")


def test_a_console_locked_behind_a_reader_is_not_refused_on_its_port(station, mapped_box):
    _, port = mapped_box()
    station.attach("box", "ro")
    station.attach("box", "ex")
    station.mapped(port).expect_exactly(OFFERS + greeting("box"))


# With security


def cookie(station) -> bytes:
    """The cookie that the daemon has written for the station's tools."""
    return (station.config / ".cookie").read_bytes().strip()


def login_dialogue(console: str) -> bytes:
    """What a port that asks for a login sends at first."""
    host = socket.gethostname()
    return (f'\r\nWelcome to zevd running on "{host}".\r\n\n'
            f'In order to connect to console "{console}", you must first provide\r\n'
            f'a valid username/password combination on "{host}".\r\n\n'
            f'Please enter your username and password on "{host}".\r\n\n'
            ).encode() + OFFERS + b"username: "


def test_with_security_a_line_alone_attaches_nobody(station, mapped_box):
    mapped_box("-S", "1")
    caller = say(station, b"box\n")
    caller.expect(b"username: ")
    caller.close()
    found = station.wait_log("ServiceConnectionRequestThreadStart: Performing security check.")
    station.wait_log(f"ServiceConnectionRequestThreadStart: Closing connection with {LOOPBACK}.",
                     after=found.end)
    assert "Connected user " not in station.log_text()


def test_with_security_the_cookie_opens_the_main_port(station, mapped_box):
    box, _ = mapped_box("-S", "1")
    user = say(station, b"token " + cookie(station) + b" box user=ann mode=ex\n")
    user.expect_exactly(OFFERS)
    station.wait_log(attachment("ann", "ex"))
    user.send(b"keys")
    box.expect_exactly(b"keys")


@pytest.mark.parametrize("made, error", [
    (lambda right: b"token " + right + b"\n", 9),
    (lambda right: b"token " + right + b" nobody\n", 4),
    (lambda right: b"token " + right + b" box mode=EX\n", 2),
    (lambda right: b"token " + right[:-1] + b" box\n", 1),
    (lambda right: b"token x" + right[1:] + b" box\n", 1),
])
def test_with_security_a_wrong_cookie_or_line_is_refused(station, mapped_box, made, error):
    mapped_box("-S", "1")
    right = cookie(station)
    assert re.fullmatch(b"[A-Za-z0-9]{16}", right)
    refused(say(station, made(right)), error)


def test_with_security_a_port_that_asks_for_a_login_shows_nothing_before_it(station, mapped_box):
    box, port = mapped_box("-S", "1", auth=1)
    caller = station.caller(port)
    caller.expect_exactly(login_dialogue("box"))
    caller.send(b"secret\n")
    box.send(b"for users only")
    station.wait_log("ProcessConsoleOutput: Received ->for users only<- (14 bytes)")
    caller.expect(b"password: ")
    assert b"for users only" not in caller.received
    caller.close()
    tool = say(station, b"token " + cookie(station) + b" box\n")
    tool.expect_exactly(OFFERS)
    tool.send(b"first key")
    box.expect_exactly(b"first key")


@pytest.mark.parametrize("auth", [0, 2, -1])
def test_with_security_a_port_that_asks_for_no_login_attaches_at_once(station, mapped_box, auth):
    box, port = mapped_box("-S", "1", auth=auth)
    user = station.caller(port)
    user.expect_exactly(OFFERS + greeting("box"))
    station.wait_log(attachment())
    user.send(b"first line\n")
    box.expect_exactly(b"first line\n")
    found = station.wait_log(servicing(port))
    station.wait_log("ServiceConnectionRequestThreadStart: Performing security check.",
                     after=found.end)


@pytest.mark.parametrize("auth", [0, 1])
def test_with_security_a_locked_console_is_refused_before_any_login(station, mapped_box, auth):
    _, port = mapped_box("-S", "1", auth=auth)
    say(station, b"token " + cookie(station) + b" box mode=ex\n").expect_exactly(OFFERS)
    refused(station.caller(port), 6)


def test_with_security_an_inaccessible_console_is_refused_before_any_login(station):
    port = free_port()
    station.console("down", listening=False, mapped_port=port, auth=1)
    station.start("-S", "1")
    wait_listening(port)
    refused(station.caller(port), 5)
