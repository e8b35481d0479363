"""Attaching users to consoles: which users can share one, and what a new user is sent."""

import threading

import pytest

# `box` is a fixture.
from harness.access import (ERRORS, PRINTED_MODES, attachment, banner, box, bring_up, refused,
                            reload, terminated_by, user_monitor_frozen)
from harness.consoles import NEGOTIATION
from harness.peers import OFFERS, User
from harness.scenes import removal
from harness.waiting import wait_until

def sees(console, *users: User) -> None:
    """What the console prints is the next thing that each of the users gets."""
    console.send(b"[seen]")
    for user in users:
        user.expect_exactly(b"[seen]")


def types(console, *users: User) -> None:
    """What any of the users types reaches the console."""
    for user in users:
        user.send(b"[typed]")
        console.expect_exactly(b"[typed]")


# Consoles that nobody can be attached to


@pytest.mark.parametrize("name", ["other", "BOX", "bo", "boxx"])
def test_an_unknown_name_is_refused(station, box, name):
    refused(station.ask(name), 4)
    station.wait_log(f'ConnectUserToConsole: Console "{name}" not found.', thread="serv_conn")
    station.wait_log("ServiceConnectionRequestThreadStart: Closing connection.")
    station.wait_log("SendErrorToUser: 004 - Console not found.\r", thread="serv_conn")


@pytest.mark.parametrize("mode", [None, "ro", "er"])
def test_an_enabled_console_that_is_not_connected_is_not_accessible(station, mode):
    station.console("down", listening=False)
    station.start()
    refused(station.ask("down", mode), 5)
    station.wait_log('ConnectUserToConsole: Console "down" is inaccessible.')


@pytest.mark.parametrize("mode", [None, "ro", "er"])
def test_a_disabled_console_is_reported_as_disabled(station, mode):
    station.console_line("off", 1, enable=0)
    station.start()
    refused(station.ask("off", mode), 12)
    station.wait_log('ConnectUserToConsole: Console "off" is disabled.')


def test_a_console_that_has_hung_up_is_not_accessible(station, box):
    user = station.attach("box")
    box.shut()
    user.expect_closed()
    station.wait_log("AddConsoleToList: Added console box to i_cons_list.",
                     after=station.wait_log("CloseConsoleConnection: Closing connection with "
                                            "console box").end)
    refused(station.ask("box"), 5)


def test_a_deleted_console_is_refused_while_a_user_still_refers_to_it(station, box):
    witness = station.attach("box")
    with user_monitor_frozen(station):
        reload(station, "")
        station.wait_log("DeleteMarkedConsoles: Disconnecting users from box.")
        for mode in (None, "ro", "er"):
            refused(station.ask("box", mode), 11)
        station.wait_log('ConnectUserToConsole: Console "box" has been deleted.', count=3)
        station.wait_log("DeleteMarkedConsoles: Console box has ref_count=1. Cannot delete yet.")
    station.wait_log("DeleteMarkedConsoles: Console box is being deleted.")
    witness.expect_exactly(banner("Console has been deleted."))
    witness.expect_closed()
    refused(station.ask("box"), 4)


# The four modes


@pytest.mark.parametrize("mode", PRINTED_MODES)
def test_a_mode_is_printed_by_its_name(station, box, mode):
    station.ask("box", mode, user="ann").expect_exactly(OFFERS)
    station.wait_log(attachment("ann", mode), thread="serv_conn")


def test_the_default_mode_is_shared(station, box):
    station.ask("box").expect_exactly(OFFERS)
    station.wait_log(attachment("<unknown>", "sh"))


@pytest.mark.parametrize("first, second", [
    ("ro", "ro"), ("ro", "sh"), ("ro", "ex"), ("ro", "er"),
    ("sh", "ro"), ("sh", "sh"),
    ("ex", "ro"),
    ("er", "ro"),
])
def test_modes_that_can_be_combined(station, box, first, second):
    users = [station.attach("box", first), station.attach("box", second)]
    sees(box, *users)
    types(box, *(user for user, mode in zip(users, (first, second)) if mode != "ro"))


@pytest.mark.parametrize("first, second, error", [
    ("sh", "ex", 7), ("sh", "er", 7),
    ("ex", "sh", 6), ("ex", "ex", 6), ("ex", "er", 6),
])
def test_modes_that_cannot_be_combined(station, box, first, second, error):
    holder = station.attach("box", first)
    late = station.ask("box", second)
    refused(late, error)
    said = {6: 'ConnectUserToConsole: Console "box" is locked exclusively.',
            7: 'ConnectUserToConsole: Cannot grant exclusive access for "box".'}
    station.wait_log(said[error], thread="serv_conn")
    sees(box, holder)
    types(box, holder)


@pytest.mark.parametrize("mode", ["sh", "ex", "er"])
def test_the_next_user_who_can_type_takes_over_a_revocable_console(station, box, mode):
    holder = station.attach("box", "er", user="first")
    successor = station.attach("box", mode, user="second")
    holder.expect_exactly(terminated_by("second"))
    holder.expect_closed()
    station.wait_log(removal("first"), thread="user_mon")
    station.wait_log(attachment("second", mode))
    sees(box, successor)
    types(box, successor)


def test_the_banner_shows_the_address_that_the_successor_gave(station, box):
    holder = station.attach("box", "er")
    station.attach("box", user="ann", addr="10.11.12.13")
    holder.expect_exactly(terminated_by("ann", "10.11.12.13"))
    holder.expect_closed()


def test_a_reader_leaves_the_holder_of_a_revocable_console_alone(station, box):
    holder = station.attach("box", "er")
    reader = station.attach("box", "ro")
    sees(box, holder, reader)
    types(box, holder)


def test_a_chain_of_revocable_holders(station, box):
    holder = station.attach("box", "er", user="user0")
    for number in range(1, 6):
        successor = station.attach("box", "er", user=f"user{number}")
        holder.expect_exactly(terminated_by(f"user{number}"))
        holder.expect_closed()
        holder = successor
    types(box, holder)


def test_readers_do_not_notice_a_revocation(station, box):
    reader = station.attach("box", "ro")
    holder = station.attach("box", "er")
    successor = station.attach("box", "ex", user="next")
    holder.expect_exactly(terminated_by("next"))
    holder.expect_closed()
    sees(box, reader, successor)


def test_an_exclusive_user_after_a_reader_does_not_lock_the_console(station, box):
    reader = station.attach("box", "ro")
    holder = station.attach("box", "ex")
    refused(station.ask("box", "ex"), 7)
    refused(station.ask("box", "er"), 7)
    shared = station.attach("box", "sh")
    sees(box, reader, holder, shared)
    types(box, holder, shared)


def test_the_lock_appears_when_the_reader_at_the_head_leaves(station, box):
    reader = station.attach("box", "ro", user="reader")
    holder = station.attach("box", "ex")
    reader.close()
    station.wait_log(removal("reader"))
    refused(station.ask("box"), 6)
    sees(box, holder)


def test_a_lock_ends_with_its_holder(station, box):
    holder = station.attach("box", "ex", user="holder")
    refused(station.ask("box"), 6)
    holder.close()
    station.wait_log(removal("holder"))
    types(box, station.attach("box", "ex"))


def test_locking_one_console_leaves_the_others_free(station):
    one, two = station.console("one"), station.console("two")
    bring_up(station, one, two)
    station.attach("one", "ex")
    types(two, station.attach("two", "ex"))


def test_a_holder_is_revoked_even_for_a_user_who_is_then_refused(station, box):
    holder = station.attach("box", "er")
    with user_monitor_frozen(station):
        shared = station.ask("box", "sh", user="ann")
        shared.expect_exactly(OFFERS)
        holder.expect_exactly(terminated_by("ann"))
        refused(station.ask("box", "ex", user="ben"), 7)
        holder.expect_exactly(terminated_by("ben"))
        refused(station.ask("box", "er", user="cat"), 7)
        holder.expect_exactly(terminated_by("cat"))
    holder.expect_closed()
    types(box, shared)


def test_only_one_of_many_gets_a_console_exclusively(station, box):
    crowd = [station.caller() for _ in range(20)]
    start = threading.Barrier(len(crowd))

    def ask(caller: User) -> None:
        start.wait()
        caller.send(b"box mode=ex\n")

    threads = [threading.Thread(target=ask, args=[caller]) for caller in crowd]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    wait_until(lambda: all(caller.received in (OFFERS, ERRORS[6]) for caller in crowd),
               what="every answer")
    holders = [caller for caller in crowd if caller.received == OFFERS]
    assert len(holders) == 1
    holders[0].expect_exactly(OFFERS)
    types(box, holders[0])


# What a new user is sent


def test_a_new_user_gets_the_offers_and_nothing_else(station, box):
    user = station.ask("box")
    user.expect_exactly(b"\xff\xfb\x01\xff\xfb\x03")
    sees(box, user)


def test_a_new_user_gets_negotiation_offers_recent_output_and_the_rest(station):
    box = station.console("box", greeting=NEGOTIATION + b"recent")
    bring_up(station, box, options=("-B", "100"))
    station.wait_log("ProcessConsoleOutput: Received ->recent<- (6 bytes)")
    user = station.ask("box")
    user.expect_exactly(NEGOTIATION + OFFERS + b"recent")
    box.send(b" and new")
    user.expect_exactly(b" and new")
    station.ask("box", "ro").expect_exactly(NEGOTIATION + OFFERS + b"recent and new")


def test_the_consoles_negotiation_is_sent_up_to_its_first_nul(station):
    box = station.console("box", greeting=b"\xff\xfb\x01\xff\xfb\x00\xff\xfb\x03end")
    bring_up(station, box)
    station.wait_log("ProcessConsoleOutput: Received ->end<- (3 bytes)")
    user = station.ask("box")
    user.expect_exactly(b"\xff\xfb\x01\xff\xfb" + OFFERS)
    sees(box, user)


def test_without_a_replay_buffer_no_earlier_output_is_sent(station, box):
    box.send(b"long gone")
    station.wait_log("ProcessConsoleOutput: Received ->long gone<- (9 bytes)")
    user = station.ask("box")
    user.expect_exactly(OFFERS)
    sees(box, user)


@pytest.mark.parametrize("size, kept", [(1, b""), (2, b"9"), (10, b"123456789"),
                                        (11, b"0123456789"), (12, b"0123456789")])
def test_the_replay_is_the_last_output_that_fits_the_buffer(station, size, kept):
    box = station.console("box", greeting=b"0123456789")
    bring_up(station, box, options=("-B", str(size)))
    station.wait_log("ProcessConsoleOutput: Received ->0123456789<- (10 bytes)")
    user = station.ask("box")
    user.expect_exactly(OFFERS + kept)
    sees(box, user)


def test_the_replay_wraps_around_the_end_of_the_buffer(station):
    box = station.console("box", greeting=b"abcdef")
    bring_up(station, box, options=("-B", "10"))
    station.wait_log("ProcessConsoleOutput: Received ->abcdef<- (6 bytes)")
    box.send(b"ghijkl\r\n\0m")
    station.wait_log("ProcessConsoleOutput: Received ->ghijkl\r")
    station.ask("box").expect_exactly(OFFERS + b"hijkl\r\n\0m")


def test_a_refused_user_gets_no_console_output(station):
    box = station.console("box", greeting=NEGOTIATION + b"recent")
    bring_up(station, box, options=("-B", "100"))
    station.wait_log("ProcessConsoleOutput: Received ->recent<- (6 bytes)")
    station.attach("box", "ex")
    refused(station.ask("box"), 6)


def test_a_user_with_a_real_telnet_client_can_type_at_once(station, box):
    with station.telnet() as user:
        user.attach("box", "user=ann")
        station.wait_log(attachment("ann", "sh"))
        assert box.expect(b"\xff\xfd\x01\xff\xfd\x03") == b""
        user.type("k")
        box.expect_exactly(b"k")
        box.send(b"seen\r\n")
        user.expect("seen\r\n")
