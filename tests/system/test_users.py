"""Attached users: their records as the debug lines show them, and the path of their input."""

import re

import pytest

# `box` is a fixture.
from harness.access import banner, box, bring_up, greeting, reload
from harness.peers import OFFERS
from harness.scenes import removal
from harness.station import console_line
from harness.waiting import free_port, wait_until

FD_SET = re.compile(r"AddUserToList: Doing FD_SET\( (\d+), \.\.\.\) for user on user_list\.\n")

# The last message about a user of the console "box", whose connection is closed by then.
REMOVED = "RemoveUserFromList: Removed user from console's user list for console box."


def wait_for_set(station, highest: int, after: int) -> None:
    """Wait until the daemon waits for users with this as the highest descriptor."""
    station.wait_log(re.compile(r"^CheckForUserInput: Calling select\( "
                                rf"{highest} \+ 1, fdset, 0, 0, \(2,0\)\)$"),
                     after=after, thread="user_mon")


# Records and lists


def test_a_user_is_put_on_two_lists(station, box):
    position = station.mark()
    station.attach("box", user="ann")
    for line in ("Entering NewUserNode",
                 "AddUserToList: Added user to console's user list for console box.",
                 re.compile(r"^AddUserToList: Doing FD_SET\( \d+, \.\.\.\) for user on "
                            r"console's user list\.$"),
                 "AddUserToList: Added user to user_list for console box.",
                 re.compile(r"^AddUserToList: Doing FD_SET\( \d+, \.\.\.\) for user on "
                            r"user_list\.$")):
        position = station.wait_log(line, after=position, thread="serv_conn").end


def test_a_user_who_leaves_is_removed_from_both_once(station, box):
    user = station.attach("box", user="ann")
    position = station.mark()
    user.close()
    for line in (re.compile(r"^ProcessUserInput: recv\(\) returned 0 : "),
                 removal("ann"),
                 "RemoveUserFromList: Removed user from user_list for console box.",
                 REMOVED):
        position = station.wait_log(line, after=position, thread="user_mon").end
    wait_for_set(station, -1, position)
    assert station.log_text().count(removal("ann")) == 1


def test_the_highest_descriptor_is_always_that_of_a_user_who_is_there(station, box):
    start = station.mark()
    wait_for_set(station, -1, 0)
    users = [station.attach("box", user=f"user{number}") for number in range(4)]
    descriptors = [int(number) for number in FD_SET.findall(station.log_text(start))]
    assert len(descriptors) == 4
    there = dict(zip(descriptors, users))
    wait_for_set(station, max(there), start)
    for descriptor in (max(descriptors), min(descriptors)):
        position = station.mark()
        there.pop(descriptor).close()
        station.wait_log(re.compile("^CleanUpClosedConnections: Closing connection"),
                         after=position)
        wait_for_set(station, max(there), position)
    for user in there.values():
        user.close()
    position = station.wait_log(re.compile("^CleanUpClosedConnections: Closing connection"),
                                count=2, after=position).end
    wait_for_set(station, -1, position)


def test_the_descriptor_of_a_user_who_left_is_closed(station, box):
    station.attach("box", user="first").close()
    station.wait_log(REMOVED)
    before = station.descriptors()
    for number in range(5):
        station.attach("box", user=f"user{number}").close()
        station.wait_log(removal(f"user{number}"))
    wait_until(lambda: station.descriptors() == before, what="the descriptors to be closed")


def test_a_console_that_users_have_left_can_be_deleted(station):
    box = station.console("box")
    bring_up(station, box)
    users = [station.attach("box", user=f"user{number}") for number in range(3)]
    for number, user in enumerate(users):
        user.close()
        station.wait_log(removal(f"user{number}"))
    position = station.mark()
    reload(station, "", waker=box)
    station.wait_log("DeleteMarkedConsoles: Console box is being deleted.", after=position)
    assert "has ref_count=" not in station.log_text()
    box.expect_closed()


def test_every_user_of_a_deleted_console_is_told_and_removed(station):
    box = station.console("box")
    bring_up(station, box)
    users = [station.attach("box", mode, user=f"user{number}")
             for number, mode in enumerate(["ro", "sh", "sh"])]
    reload(station, "")
    for number, user in enumerate(users):
        user.expect_exactly(banner("Console has been deleted."))
        user.expect_closed()
        station.wait_log(removal(f"user{number}"))
    station.wait_log("DeleteMarkedConsoles: Console box is being deleted.")


def test_every_user_of_a_disabled_console_is_told_and_removed(station, box):
    users = [station.attach("box", mode, user=f"user{number}")
             for number, mode in enumerate(["ro", "sh"])]
    reload(station, console_line("box", box.port, enable=0))
    for number, user in enumerate(users):
        user.expect_exactly(banner("Console has been disabled."))
        user.expect_closed()
        station.wait_log(removal(f"user{number}"))
    box.expect_closed()


def test_users_of_a_console_that_hangs_up_get_no_message(station, box):
    users = [station.attach("box", user=f"user{number}") for number in range(3)]
    box.close()
    for user in users:
        user.expect_closed()
    station.wait_log(re.compile("^CleanUpClosedConnections: Closing connection with user"),
                     count=3, thread="user_mon")
    wait_for_set(station, -1, 0)


@pytest.mark.parametrize("leave", ["close", "reset", "finish_sending"])
def test_a_user_who_leaves_does_not_affect_the_others(station, box, leave):
    users = [station.attach("box", user=f"user{number}") for number in range(3)]
    getattr(users[1], leave)()
    station.wait_log(removal("user1"))
    box.send(b"for the two who stay")
    for user in (users[0], users[2]):
        user.expect_exactly(b"for the two who stay")
        user.send(b"answer")
        box.expect_exactly(b"answer")


def test_users_stay_when_their_console_gets_another_name(station, box):
    user = station.attach("box", user="ann")
    reload(station, console_line("renamed", box.port), waker=box)
    user.expect_exactly(b".")
    user.send(b"still typing")
    box.expect_exactly(b"still typing")
    user.close()
    station.wait_log(removal("ann", "renamed"))
    station.attach("renamed")


# Input


def test_typed_bytes_arrive_as_they_are(station, box):
    user = station.attach("box")
    every_byte = bytes(range(256)) + b"\xff\xff\xff\xf4\r\0\r\n\n" + bytes(range(255, -1, -1))
    user.send(every_byte)
    box.expect_exactly(every_byte)


def test_a_long_paste_arrives_whole_and_in_order(station, box):
    user = station.attach("box")
    paste = b"".join(b"%07d\n" % number for number in range(100000))
    user.flood(paste, 1)
    box.expect_exactly(paste, limit=30)


def test_a_paste_is_taken_in_pieces_of_8192_bytes(station, box):
    user = station.attach("box")
    paste = bytes(8192 * 3 + 1)
    user.send(paste)
    box.expect_exactly(paste)
    taken = re.compile(r"ProcessUserInput: Received -><- \((\d+) bytes\)\n")
    sizes = wait_until(lambda: all_of(len(paste), taken.findall(station.log_text())),
                       what=f"debug lines about {len(paste)} bytes")
    assert max(sizes) == 8192


def all_of(total: int, sizes: list[str]) -> list[int]:
    """The sizes, once they make up the total."""
    numbers = [int(size) for size in sizes]
    return numbers if sum(numbers) == total else []


def test_the_input_of_a_reader_is_discarded(station, box):
    reader = station.attach("box", "ro")
    writer = station.attach("box")
    reader.send(b"unheard")
    station.wait_log("ProcessUserInput: Received ->unheard<- (7 bytes)", thread="user_mon")
    writer.send(b"heard")
    box.expect_exactly(b"heard")
    box.send(b"the reader is still there")
    reader.expect_exactly(b"the reader is still there")


@pytest.mark.parametrize("mode", ["sh", "ex", "er"])
def test_every_other_mode_can_type(station, box, mode):
    user = station.attach("box", mode)
    user.send(b"typed")
    box.expect_exactly(b"typed")


def test_users_who_share_a_console_type_in_the_order_of_their_keys(station, box):
    users = [station.attach("box") for _ in range(3)]
    for number in range(30):
        users[number % 3].send(b"%d," % number)
        box.expect_exactly(b"%d," % number)


def test_keys_go_only_to_the_users_own_console(station):
    one, two = station.console("one"), station.console("two")
    bring_up(station, one, two)
    first, second = station.attach("one"), station.attach("two")
    first.send(b"to one")
    second.send(b"to two")
    one.expect_exactly(b"to one")
    two.expect_exactly(b"to two")
    one.send(b"from one")
    two.send(b"from two")
    first.expect_exactly(b"from one")
    second.expect_exactly(b"from two")


def test_the_first_key_of_a_new_user_does_not_wait(station, box):
    for number in range(5):
        position = station.mark()
        user = station.ask("box", user=f"user{number}")
        user.expect_exactly(OFFERS)
        user.send(b"k")
        box.expect_exactly(b"k", limit=1)
        user.close()
        station.wait_log(removal(f"user{number}"), after=position)


def test_only_the_user_who_types_at_a_stalled_console_is_dropped(station):
    box = station.console("box", buffer=4096)
    other = station.console("other")
    bring_up(station, box, other)
    typist, watcher = station.attach("box", user="typist"), station.attach("box", user="watcher")
    bystander = station.attach("other")
    box.stop_reading()
    typist.flood(bytes(8192), 4096)
    station.wait_log('ProcessUserInput: send() to console "box" failed : '
                     "Resource temporarily unavailable", thread="user_mon")
    station.wait_log(removal("typist"))
    box.send(b"still printing")
    watcher.expect_exactly(b"still printing")
    bystander.send(b"k")
    other.expect_exactly(b"k")


# Mapped ports


def test_users_of_both_kinds_of_port_can_share_a_console(station):
    port = free_port()
    box = station.console("box", mapped_port=port)
    bring_up(station, box)
    mapped = station.mapped(port)
    mapped.expect_exactly(OFFERS + greeting("box"))
    user = station.attach("box")
    box.send(b"to both")
    for each in (mapped, user):
        each.expect_exactly(b"to both")
        each.send(b"key")
        box.expect_exactly(b"key")


def test_the_trace_shows_input_from_both_sides(station, box):
    user = station.attach("box")
    user.send(b"from the user")
    station.wait_log("ProcessUserInput: Received ->from the user<- (13 bytes)",
                     thread="user_mon")
    box.send(b"from the console")
    station.wait_log("ProcessConsoleOutput: Received ->from the console<- (16 bytes)")
