"""The handling of consoles' output: the replay, hidden text, connections that end, reloads."""

import re
import signal

import pytest

from harness.access import banner, user_monitor_frozen
from harness.peers import OFFERS
from harness.scenes import (DISABLED, box_of, connected, held_still, leave, numbered,
                            print_and_wait, refused, reload, removal, wait_reloaded)
from harness.slow_readers import SMALL, Pace, take_nothing, told
from harness.station import console_line

HIDDEN = [
    b"~NET-E-BUSY Session is already open to the partition/CLI by 1.2.3.4\r\n",
    b"~NET-E-Session is already open to the partition/CLI",
    b'~NET-I-ASK Enter "YES" within 5 seconds to disconnect the existing user\r\n',
    b"~NET-I-TIME Timed out, disconnecting...\r\nmore of the same chunk",
]
SHOWN = [
    b"see ~NET-I-TIME Timed out, disconnecting...\r\n",
    b"\r\n~NET-I-TIME Timed out, disconnecting...\r\n",
    b" ~NET-E-BUSY Session is already open to the partition/CLI\r\n",
    b"~NET-E-BUSY Session is already open to somebody\r\n",
    b"~NET-I-BUSY Session is already open to the partition/CLI\r\n",
    b"~NET-E-TIME Timed out, disconnecting...\r\n",
    b'~NET-E-ASK Enter "YES" within 5 seconds to disconnect the existing user\r\n',
    b"~NET-I-ASK Enter YES within 5 seconds to disconnect the existing user\r\n",
    b"~NET-I-TIME Timed out, disconnecting..\r\n",
    b"~net-i-TIME Timed out, disconnecting...\r\n",
    b"~NET-I-\0Timed out, disconnecting...\r\n",
]


def replayed(station, box) -> bytes:
    """The part of the console's earlier output that a new user gets."""
    user = station.attach("box", mode="ro")
    box.send(b"<mark>")
    shown = user.expect(b"<mark>")
    leave(station, user)
    return shown


# The replay


@pytest.mark.parametrize("options", [[], ["-B", "0"]])
def test_without_a_ring_nothing_is_replayed(station, options):
    box = box_of(station, *options)
    print_and_wait(station, box, b"printed before")
    assert replayed(station, box) == b""


@pytest.mark.parametrize("size", [1, 2, 3, 10, 100, 1024, 1025, 5000])
def test_the_replay_is_one_byte_less_than_the_ring(station, size):
    box = box_of(station, "-B", str(size))
    text = numbered(size * 2 // 40 + 3)
    for start in range(0, len(text), 997):
        print_and_wait(station, box, text[start:start + 997])
    assert replayed(station, box) == text[len(text) - (size - 1):]


@pytest.mark.parametrize("size, printed", [(10, 8), (10, 9), (10, 10), (10, 11), (2, 1), (2, 2)])
def test_the_replay_is_right_at_the_edge_of_the_ring(station, size, printed):
    box = box_of(station, "-B", str(size))
    text = b"abcdefghijklmnop"[:printed]
    print_and_wait(station, box, text)
    assert replayed(station, box) == text[max(0, printed - (size - 1)):]


def test_the_replay_leaves_the_ring_as_it_is(station):
    box = box_of(station, "-B", "8")
    print_and_wait(station, box, b"0123456789")
    for _ in range(3):
        user = station.ask("box")
        user.expect_exactly(OFFERS + b"3456789")
        leave(station, user)
    print_and_wait(station, box, b"ab")
    assert replayed(station, box) == b"56789ab"


def test_every_byte_is_replayed(station):
    box = box_of(station, "-B", "1000")
    text = bytes(range(128)) + bytes(range(255, 127, -1)) + b"\0\xff\r\n"
    print_and_wait(station, box, text)
    assert replayed(station, box) == text


def test_every_console_has_a_ring_of_its_own(station):
    consoles = {name: station.console(name) for name in ("left", "right")}
    station.start("-B", "100")
    for name, console in consoles.items():
        connected(station, console, name)
        print_and_wait(station, console, f"this is {name}".encode())
    for name in consoles:
        station.ask(name).expect_exactly(OFFERS + f"this is {name}".encode())


def test_the_ring_outlives_the_connection(station):
    box = box_of(station, "-B", "100")
    print_and_wait(station, box, b"printed before, ")
    box.close()
    connected(station, box, "box", times=2)
    print_and_wait(station, box, b"printed after")
    assert replayed(station, box) == b"printed before, printed after"


def test_what_attached_users_have_seen_is_replayed_to_others(station):
    box = box_of(station, "-B", "100")
    user = station.attach("box")
    box.send(b"seen")
    user.expect_exactly(b"seen")
    station.ask("box").expect_exactly(OFFERS + b"seen")


# Telnet commands without a user


@pytest.mark.parametrize("chunk", [b"\xff\xfb\x01 and text", b"\x80", b"\xc3\xa9t\xc3\xa9"])
def test_a_chunk_with_a_high_first_byte_is_lost_when_nobody_is_attached(station, chunk):
    box = box_of(station, "-B", "100")
    print_and_wait(station, box, b"before ")
    print_and_wait(station, box, chunk)
    print_and_wait(station, box, b"after")
    assert replayed(station, box) == b"before after"


@pytest.mark.parametrize("mode", ["ro", "sh"])
def test_a_chunk_with_a_high_first_byte_is_kept_when_somebody_is_attached(station, mode):
    box = box_of(station, "-B", "100")
    user = station.attach("box", mode=mode)
    box.send(b"\xff\xfb\x01 and text")
    user.expect_exactly(b"\xff\xfb\x01 and text")
    station.ask("box").expect_exactly(OFFERS + b"\xff\xfb\x01 and text")


@pytest.mark.parametrize("chunk", [b"\x7f", b"text \xff\xfb\x01", b"\0\xff"])
def test_a_high_byte_further_on_loses_nothing(station, chunk):
    box = box_of(station, "-B", "100")
    print_and_wait(station, box, chunk)
    assert replayed(station, box) == chunk


# Notices of management ports


@pytest.mark.parametrize("notice", HIDDEN)
@pytest.mark.parametrize("attached", [False, True])
def test_notices_about_competing_connections_are_hidden(station, notice, attached):
    box = box_of(station, "-B", "1000")
    user = station.attach("box") if attached else None
    print_and_wait(station, box, b"before ")
    print_and_wait(station, box, notice)
    print_and_wait(station, box, b"after")
    if user:
        user.expect_exactly(b"before after")
    assert replayed(station, box) == b"before after"


@pytest.mark.parametrize("text", SHOWN)
def test_what_only_looks_like_a_notice_is_shown(station, text):
    box = box_of(station, "-B", "1000")
    user = station.attach("box")
    print_and_wait(station, box, text)
    user.expect_exactly(text)
    assert replayed(station, box) == text


def test_a_long_notice_is_hidden_too(station):
    box = box_of(station, "-B", "4000")
    user = station.attach("box")
    notice = b"~NET-I-" + b"x" * 980 + b"Timed out, disconnecting..."
    with held_still(station):
        box.send(notice + b"y" * (1024 - len(notice)) + b"z" * 50)
    box.send(b"after")
    # Only the chunk that holds the notice is dropped: output is read 1024 bytes at a time.
    user.expect_exactly(b"z" * 50 + b"after")


# Consoles that go away


def test_last_words_reach_the_users_before_the_end(station):
    box = box_of(station)
    user = station.attach("box")
    with held_still(station):
        box.send(b"going down\r\n" * 500)
        box.close()
    user.expect_exactly(b"going down\r\n" * 500)
    user.expect_closed()
    station.wait_log(re.compile(r"^ProcessConsoleOutput: recv\(\) returned 0 : "))
    station.wait_log("CloseConsoleConnection: Closing connection with console box")


def test_all_users_of_a_closed_console_are_closed_and_no_others(station):
    left, right = station.console("left"), station.console("right")
    station.start()
    connected(station, left, "left")
    connected(station, right, "right")
    gone = [station.attach("left", mode=mode) for mode in ("sh", "ro", "sh")]
    stays = station.attach("right")
    left.close()
    for user in gone:
        user.expect_closed()
    right.send(b"still here")
    stays.expect_exactly(b"still here")


def test_a_disabled_console_says_so_to_its_users_and_is_closed(station):
    box, other = station.console("box"), station.console("other")
    station.start()
    connected(station, box, "box")
    connected(station, other, "other")
    users = [station.attach("box", mode=mode) for mode in ("sh", "ro")]
    stays = station.attach("other")
    station.write_config(console_line("box", box.port, enable=0)
                         + console_line("other", other.port))
    position = station.mark()
    reload(station)
    for user in users:
        user.expect_exactly(b"\a\a\a\a\a\r\n\r\n" + b"*" * 78 + b"\r\n\r\n"
                            b"Console has been disabled.\r\n\r\n" + b"*" * 78 + b"\r\n\r\n")
        user.expect_closed()
    box.expect_closed()
    station.wait_log("AddConsoleToList: Added console box to i_cons_list.", after=position)
    refused(station, "box", DISABLED)
    other.send(b"not disabled")
    stays.expect_exactly(b"not disabled")


def test_a_disabled_console_has_changed_lists_by_the_end_of_the_pass(station):
    box = box_of(station)
    station.write_config(console_line("box", box.port, enable=0))
    position = station.mark()
    reload(station)
    moved = station.wait_log("AddConsoleToList: Added console box to i_cons_list.",
                             after=position, thread="main")
    closed = station.wait_log("CloseConsoleConnection: Closing connection with console box",
                              after=position, thread="main")
    between = station.log_text(closed.end)[:moved.end - closed.end]
    assert between.count("<main>: Entering CheckForConsoleOutput\n") == 1


def test_messages_to_users_are_logged_with_names_and_addresses(station):
    box = box_of(station)
    user = station.attach("box", user="ann", addr="1.2.3.4")
    station.write_config(console_line("box", box.port, enable=0))
    reload(station)
    user.expect_exactly(banner("Console has been disabled."))
    station.wait_log(re.compile("^SendMsgToUsers: The following message was sent to "
                                f'"ann@1.2.3.4": {chr(7) * 5}'), thread="main")


# Users who do not read

SEND_FAILED = 'SendConsoleOutputToUsers: send() from console "box" failed : {}'


def test_a_user_who_takes_nothing_stays_and_the_others_miss_nothing(station):
    box = box_of(station, "-d", "1")
    before = station.attach("box", user="before")
    stalled = take_nothing(station, station.attach("box", user="stalled", buffer=SMALL))
    after = station.attach("box", user="after")
    text = numbered(50000)
    Pace(box, before, after).print(text)
    stalled.read_again()
    assert told(stalled, text)
    box.send(b"and more")
    for user in (before, stalled, after):
        user.expect_exactly(b"and more")


def test_a_failed_send_also_disconnects_the_users_after_it(station):
    """The result of one send is the length of the next, and a length of -1 fails."""
    box = box_of(station)
    stays = station.attach("box", user="stays")
    failed = re.compile("^" + re.escape(SEND_FAILED.format("")) +
                        "(Broken pipe|Connection reset by peer)$")
    users = [station.attach("box", user=f"u{number}") for number in range(3)]
    with user_monitor_frozen(station):  # otherwise it might notice first
        position = station.mark()
        users[0].reset()
        box.send(b"printed")
        stays.expect_exactly(b"printed")
        station.wait_log(failed, after=position)
        station.wait_log(SEND_FAILED.format("Bad address"), count=2, after=position)
    for number, user in enumerate(users):
        station.wait_log(removal(f"u{number}"), after=position)
        assert user.received == OFFERS
    box.send(b"and more")
    stays.expect_exactly(b"and more")
    assert station.log_text(position).count(SEND_FAILED.format("Bad address")) == 2


# Reloads


def test_a_reload_asked_for_during_a_reload_is_done_afterwards(station):
    box = box_of(station)
    many = "".join(console_line(f"c{number}", 1 + number, enable=0) for number in range(1500))
    own = console_line("box", box.port)
    station.write_config(own + many)

    def asked_in_time() -> bool:
        position = station.mark()
        station.signal(signal.SIGHUP)
        station.wait_log("Entering ReloadConfigFile", after=position)
        with held_still(station):
            running = "Entering RefreshMappedPorts" not in station.log_text(position)
            station.signal(signal.SIGHUP)
        wait_reloaded(station, position, count=2)
        return running

    assert any(asked_in_time() for _ in range(5)), "no reload took long enough"
