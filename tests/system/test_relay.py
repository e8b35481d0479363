"""The main job: consoles' output reaches their users, and users' input reaches their consoles."""

import re
import statistics

import pytest

from harness.consoles import NEGOTIATION
from harness.peers import OFFERS, User
from harness.scenes import (Usage, assert_flat, attach_when_accessible, box_of, connected,
                            echo_time, held_still, leave, numbered, print_and_wait, reload)
from harness.waiting import free_port, stretched, wait_listening, wait_until

EVERY_BYTE = bytes(range(256))
KEYS = [b"%d!" % number for number in range(100, 150)]


# Both directions


@pytest.mark.parametrize("mode", [None, "sh", "ex", "er"])
def test_a_user_sees_the_console_and_types_at_it(station, mode):
    box = box_of(station)
    user = station.attach("box", mode=mode)
    box.send(b"login: ")
    user.expect_exactly(b"login: ")
    user.send(b"root\r\n")
    box.expect_exactly(b"root\r\n")


def test_a_read_only_user_sees_the_console(station):
    box = box_of(station)
    user = station.attach("box", mode="ro")
    box.send(b"login: ")
    user.expect_exactly(b"login: ")


def test_every_byte_passes_both_ways_as_it_is(station):
    box = box_of(station)
    user = station.attach("box")
    for text in (EVERY_BYTE, EVERY_BYTE[::-1], b"\xff\xff\r\0\n\0", b"\r\n\r\r\n\n", b"\0"):
        box.send(text)
        user.expect_exactly(text)
        user.send(text)
        box.expect_exactly(text)


def test_every_user_of_a_console_sees_its_output_and_no_other_does(station):
    left, right = station.console("left"), station.console("right")
    station.start()
    connected(station, left, "left")
    connected(station, right, "right")
    lefts = [station.attach("left", mode=mode) for mode in ("ro", "sh", "sh", "ro")]
    rights = [station.attach("right") for _ in range(2)]
    left.send(b"on the left")
    for user in lefts:
        user.expect_exactly(b"on the left")
    right.send(b"on the right")
    for user in rights:
        user.expect_exactly(b"on the right")
    lefts[1].send(b"<")
    rights[1].send(b">")
    left.expect_exactly(b"<")
    right.expect_exactly(b">")


def test_a_mapped_port_leads_to_its_console(station):
    port = free_port()
    box = box_of(station, "-B", "100", mapped_port=port, greeting=NEGOTIATION)
    print_and_wait(station, box, b"printed before")
    wait_listening(port)
    user = station.mapped(port)
    user.expect_exactly(NEGOTIATION + OFFERS + b"printed before"
                        + b'Connected to console "box" in shared mode.\r\n\n')
    box.send(b"printed after")
    user.expect_exactly(b"printed after")
    user.send(b"typed")
    box.expect_exactly(b"typed")


def test_what_follows_the_argument_line_is_typed_at_the_console(station):
    box = box_of(station)
    user = station.caller()
    user.send(b"box mode=ex\nls\r")
    box.expect_exactly(b"ls\r")
    user.expect_exactly(OFFERS)


def test_a_user_who_stops_sending_is_removed(station):
    box = box_of(station)
    user = station.attach("box", mode="ex")
    user.send(b"last words")
    user.finish_sending()
    user.expect_closed()
    box.expect_exactly(b"last words")
    station.attach("box", mode="ex")


# Attaching during output


def test_a_new_user_gets_negotiation_offers_and_output_in_order(station):
    box = box_of(station, "-B", "100", greeting=NEGOTIATION)
    print_and_wait(station, box, b"printed before")
    user = station.ask("box")
    user.expect(b"before")
    box.send(b", printed after")
    user.expect(b"after")
    assert user.received == NEGOTIATION + OFFERS + b"printed before, printed after"


def test_a_user_who_attaches_to_a_printing_console_misses_and_repeats_nothing(station):
    ring = 4096
    box = station.console("box")
    station.start("-d", "1", "-B", str(ring))
    box.accept()
    watcher = attach_when_accessible(station, "box")
    text = numbered(60000)
    flood = box.flood(text, 1)
    watcher.expect(b"\n")
    users = [station.ask("box", mode="ro") for _ in range(10)]
    flood.join(30)
    for user in users:
        user.expect(OFFERS)
    rest = numbered(2 * ring // 40, start=60000)
    box.send(rest)
    text += rest
    for user in users:
        user.expect(text[-40:], limit=30)
        before, offers, seen = user.received.partition(OFFERS)
        assert (before, offers) == (b"", OFFERS)
        assert text.endswith(seen) and len(seen) >= ring - 1


# Volume


@pytest.mark.parametrize("level", ["1", "3"])
def test_thirty_thousand_lines_arrive_complete_and_in_order(station, level):
    box = station.console("box")
    station.start("-d", level)
    box.accept()
    users = [attach_when_accessible(station, "box", mode=mode) for mode in ("ro", "sh")]
    text = numbered(30000)
    box.send(text)
    for user in users:
        user.expect_exactly(text, limit=30)


def test_a_long_paste_arrives_complete_and_in_order(station):
    box = station.console("box")
    station.start("-d", "1")
    box.accept()
    user = attach_when_accessible(station, "box")
    text = numbered(50000)
    user.send(text)
    box.expect_exactly(text, limit=30)


def test_both_directions_work_at_once(station):
    box = station.console("box")
    station.start("-d", "1")
    box.accept()
    user = attach_when_accessible(station, "box")
    down, up = numbered(25000), numbered(25000, start=50000)
    printing = box.flood(down, 1)
    typing = user.flood(up, 1)
    user.expect_exactly(down, limit=30)
    box.expect_exactly(up, limit=30)
    printing.join()
    typing.join()


def test_a_hundred_consoles_may_have_two_users_each(station):
    names = [f"c{number}" for number in range(100)]
    consoles = {name: station.console(name) for name in names}
    station.start("-d", "1")
    for console in consoles.values():
        console.accept()
    users = {name: [attach_when_accessible(station, name, mode=mode) for mode in ("sh", "ro")]
             for name in names}
    for name, console in consoles.items():
        console.send(f"this is {name}\r\n".encode())
        users[name][0].send(f"typed at {name}\r".encode())
    for name, console in consoles.items():
        for user in users[name]:
            user.expect_exactly(f"this is {name}\r\n".encode())
        console.expect_exactly(f"typed at {name}\r".encode())
    text = numbered(200)
    for console in consoles.values():
        console.send(text)
    for both in users.values():
        for user in both:
            user.expect_exactly(text, limit=30)


def test_a_console_may_have_sixty_users(station):
    box = box_of(station, "-d", "1")
    users = [station.ask("box", user=f"u{number}") for number in range(60)]
    for user in users:
        user.expect_exactly(OFFERS)
    text = numbered(100)
    box.send(text)
    for number, user in enumerate(users):
        user.expect_exactly(text)
        user.send(b"<%d>" % number)
        box.expect_exactly(b"<%d>" % number)


# Order


def test_simultaneous_input_arrives_in_the_order_of_attaching(station):
    box = box_of(station)
    users = [station.attach("box", user=f"u{number}") for number in range(5)]
    with held_still(station):
        for number in (3, 0, 4, 2, 1):
            users[number].send(b"<%d>" % number)
    box.expect_exactly(b"<0><1><2><3><4>")


def typing_of(number: int, count: int) -> bytes:
    """A user's input: a count in three base-64 digits, from an alphabet that no other user has."""
    return bytes(64 * number + digit for value in range(count)
                 for digit in (value >> 12, value >> 6 & 63, value & 63))


def test_the_input_of_one_user_stays_in_order_among_others(station):
    box = box_of(station, "-d", "1")
    typed = [typing_of(number, 20000) for number in range(4)]
    users = [station.attach("box") for _ in typed]
    floods = [user.flood(text, 1) for user, text in zip(users, typed)]
    wait_until(lambda: len(box.received) == sum(map(len, typed)), what="all that was typed")
    for flood in floods:
        flood.join()
    arrived = box.received
    for number, text in enumerate(typed):
        alphabet = bytes(range(64 * number, 64 * number + 64))
        assert arrived.translate(None, bytes(set(EVERY_BYTE) - set(alphabet))) == text


# Time


def test_an_echo_takes_milliseconds(station):
    box = box_of(station, "-d", "1")
    user = station.attach("box")
    times = [echo_time(user, box, key, limit=5) for key in KEYS]
    assert max(times) < stretched(1)
    assert statistics.median(times) < stretched(0.05)


def test_a_new_user_does_not_wait_for_the_monitor_to_look_again(station):
    box = box_of(station, "-d", "1")
    for key in KEYS[:10]:
        user = station.attach("box")
        assert echo_time(user, box, key, limit=5) < stretched(1)
        leave(station, user)


def test_a_new_console_does_not_wait_for_the_monitor_to_look_again(station):
    old = station.console("old")
    station.start()
    connected(station, old, "old")
    for name in ("new", "newer"):
        # The monitor waits again as soon as it has read the configuration.
        new = station.console(name)
        reload(station)
        connected(station, new, name)
        text = f"this is {name}"
        new.send(text.encode())
        station.wait_log(f"ProcessConsoleOutput: Received ->{text}<- ({len(text)} bytes)", limit=1)


def test_users_of_a_closed_console_do_not_wait_for_the_monitor_to_look_again(station):
    box, other = station.console("box"), station.console("other")
    station.start()
    connected(station, box, "box")
    connected(station, other, "other")
    for number in range(2, 7):
        user = station.attach("box")
        box.close()
        user.expect_closed(limit=1)
        connected(station, box, "box", times=number)


# Resource use


def type_and_close(user: User) -> None:
    """Leave before the input can have been read."""
    user.send(b"typed")
    user.close()


def finish(user: User) -> None:
    """Leave by ending the stream, as a pipe into a network tool does."""
    user.finish_sending()
    user.expect_closed()
    user.close()


def test_a_thousand_users_leave_nothing_behind(station):
    box = station.console("box")
    station.start("-d", "1", "-B", "1000")
    box.accept()
    attach_when_accessible(station, "box", user="first")
    left = re.compile(r'^CleanUpClosedConnections: Closing connection with user "u\d+"on console ')
    ways = [User.close, User.reset, type_and_close, finish]

    def come_and_go() -> None:
        position = station.mark()
        users = [station.ask("box", user=f"u{number}") for number in range(20)]
        for user in users:
            user.expect(OFFERS)
        for number, user in enumerate(users):
            ways[number % len(ways)](user)
        station.wait_log(left, count=len(users), after=position)

    for _ in range(10):
        come_and_go()
    before = Usage.of(station)
    for _ in range(50):
        come_and_go()
    assert_flat(station, before, memory=160 << 10)
