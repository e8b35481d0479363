"""What users type, how they leave, and what is freed when they leave."""

import re

import pytest

from harness.access import banner
from harness.peers import OFFERS, User
# `box` is a fixture.
from harness.scenes import (DISABLED, NOT_FOUND, box, connected, held_still, refused, reload,
                            removal)
from harness.station import console_line
from harness.waiting import wait_until

GONE = "DeleteMarkedConsoles: Console {} is being deleted."


def remove_all_consoles(station) -> int:
    """Take every console out of the configuration; return the position before that."""
    station.write_config("")
    position = station.mark()
    reload(station)
    return position


# Typing


def test_what_a_read_only_user_types_never_reaches_the_console(station, box):
    reader = station.attach("box", mode="ro")
    writer = station.attach("box")
    for number in range(5):
        unheard = f"unheard {number}"
        reader.send(unheard.encode())
        station.wait_log(f"ProcessUserInput: Received ->{unheard}<- ({len(unheard)} bytes)",
                         thread="user_mon")
        writer.send(b"%d" % number)
    box.expect_exactly(b"01234")
    assert box.received == b"01234" and not reader.closed


@pytest.mark.parametrize("typed", [
    b"\xff\xfd\x01\xff\xfd\x03", b"\r\0", b"\r\n", b"\x03\x08\x7f\x1b[A", b"\0", b"~NET-E-",
    b"\xff\xfa\x1f\x00\x50\x00\x18\xff\xf0",
])
def test_input_is_passed_on_unexamined(station, box, typed):
    user = station.attach("box")
    user.send(typed)
    user.send(b"|")
    box.expect_exactly(typed + b"|")
    assert user.received == OFFERS


def test_a_backlog_of_input_is_taken_in_turns(station):
    box = station.console("box")
    station.start("-d", "1")
    connected(station, box, "box")
    first, second = station.attach("box", user="first"), station.attach("box", user="second")
    second.send(b"|")  # ends a pass that began when only the first was attached
    box.expect_exactly(b"|")
    with held_still(station):
        first.send(b"1" * 20000)
        second.send(b"2" * 20000)
    wait_until(lambda: len(box.received) == 40001, what="all that was typed")
    assert [(run[0], len(run)) for run in re.findall(rb"1+|2+", box.received)] == [
        (digit, length) for length in (8192, 8192, 3616) for digit in b"12"]


# Leaving


def test_a_user_who_hangs_up_is_removed_at_once(station, box):
    user = station.attach("box", user="ann")
    position = station.mark()
    user.close()
    read = station.wait_log(re.compile(r"^ProcessUserInput: recv\(\) returned 0 : "),
                            after=position, thread="user_mon")
    left = station.wait_log(removal("ann"), after=position, thread="user_mon")
    between = station.log_text(read.end)[:left.end - read.end]
    assert "Entering CheckForUserInput" not in between


def test_the_console_stays_when_its_users_leave(station, box):
    for way in (User.close, User.reset, User.finish_sending):
        user = station.attach("box", user="ann")
        position = station.mark()
        way(user)
        station.wait_log(removal("ann"), after=position)
    user = station.attach("box")
    user.send(b"typed")
    box.expect_exactly(b"typed")
    assert not box.closed and not box.called()


def test_an_exclusive_user_who_leaves_frees_the_console(station, box):
    for _ in range(3):
        position = station.mark()
        holder = station.attach("box", mode="ex", user="ann")
        refused(station, "box", b"006 - Console is locked exclusively.\r\n")
        holder.close()
        station.wait_log(removal("ann"), after=position)


# What a console waits for before it goes


def test_a_console_that_nobody_uses_is_deleted(station, box):
    position = remove_all_consoles(station)
    station.wait_log(GONE.format("box"), after=position, thread="main")
    box.expect_closed()
    refused(station, "box", NOT_FOUND)


def test_users_who_have_left_do_not_keep_their_console(station, box):
    position = station.mark()
    users = [station.attach("box", user=f"u{number}") for number in range(4)]
    for number, way in enumerate((User.close, User.reset, User.finish_sending)):
        way(users[number])
        station.wait_log(removal(f"u{number}"), after=position)
    position = remove_all_consoles(station)
    users[3].expect_exactly(banner("Console has been deleted."))
    users[3].expect_closed()
    station.wait_log(removal("u3"), after=position)
    station.wait_log(GONE.format("box"), after=position)
    box.expect_closed()


def test_the_users_of_a_deleted_console_leave_before_it_does(station, box):
    users = [station.attach("box", user=f"u{number}", mode="ro") for number in range(3)]
    position = remove_all_consoles(station)
    station.wait_log("DeleteMarkedConsoles: Disconnecting users from box.", after=position)
    for user in users:
        user.expect_exactly(banner("Console has been deleted."))
        user.expect_closed()
    gone = station.wait_log(GONE.format("box"), after=position)
    before = station.log_text(position)[:gone.end - position]
    assert all(removal(f"u{number}") in before for number in range(3))


def test_the_users_of_a_closed_console_do_not_keep_it(station, box):
    users = [station.attach("box", user=f"u{number}") for number in range(3)]
    box.refuse()
    box.close()
    for user in users:
        user.expect_closed()
    station.wait_log(re.compile("^UpdateConnectionStatus: Connection to box .* refused"))
    position = remove_all_consoles(station)
    station.wait_log(GONE.format("box"), after=position, thread="cons_conn")
    refused(station, "box", NOT_FOUND)


def test_the_users_of_a_disabled_console_are_removed_and_do_not_keep_it(station, box):
    users = [station.attach("box", user=f"u{number}") for number in range(3)]
    station.write_config(console_line("box", box.port, enable=0))
    position = station.mark()
    reload(station)
    for number, user in enumerate(users):
        user.expect_exactly(banner("Console has been disabled."))
        user.expect_closed()
        station.wait_log(removal(f"u{number}"), after=position, thread="user_mon")
    station.wait_log("AddConsoleToList: Added console box to i_cons_list.", after=position)
    refused(station, "box", DISABLED)
    position = remove_all_consoles(station)
    station.wait_log(GONE.format("box"), after=position, thread="cons_conn")


def test_the_users_of_a_revoked_console_do_not_keep_it(station, box):
    holder = station.attach("box", mode="er", user="ann")
    taker = station.attach("box", mode="ex", user="bob", addr="1.2.3.4")
    holder.expect_exactly(banner("Your session has been terminated by bob@1.2.3.4"))
    holder.expect_closed()
    position = remove_all_consoles(station)
    taker.expect_exactly(banner("Console has been deleted."))
    station.wait_log(GONE.format("box"), after=position)


# Typing at a console that has gone


@pytest.mark.parametrize("way", [User.close, User.reset])
def test_typing_at_a_console_that_has_gone_ends_only_that_connection(station, way):
    box, other = station.console("box"), station.console("other")
    station.start()
    connected(station, box, "box")
    connected(station, other, "other")
    stays = station.attach("other")
    for times in range(2, 7):
        user = station.attach("box")
        with held_still(station):
            way(box)
            user.send(b"too late")
        user.expect_closed()
        connected(station, box, "box", times)
    stays.send(b"in time")
    other.expect_exactly(b"in time")


def test_a_failed_send_to_the_console_drops_the_one_who_typed(station):
    """Either thread may see the reset first, so this is repeated until the sending one does."""
    box = station.console("box")
    station.start()
    connected(station, box, "box")
    failed = re.compile('^ProcessUserInput: send\\(\\) to console "box" failed : '
                        "(Broken pipe|Connection reset by peer)$")

    def typed_into_nothing(times: int) -> bool:
        users = [station.attach("box", user=f"u{number}") for number in range(20)]
        position = station.mark()
        with held_still(station):
            box.reset()
            for user in users:
                user.send(b"too late")
        for number, user in enumerate(users):
            user.expect_closed()
            station.wait_log(removal(f"u{number}"), after=position)
        connected(station, box, "box", times)
        return any(failed.search(line.partition(">: ")[2])
                   for line in station.log_text(position).splitlines())

    assert any(typed_into_nothing(times) for times in range(2, 12)), "the sends came too late"
