"""The ports on which users are served, and the logins that are pending on each of them."""

import contextlib
import re
import signal
import socket

import pytest

from harness.access import (ERRORS, READY, banner, bring_up, greeting, pending, refused, reload,
                            servicing)
from harness.debuglog import messages
from harness.peers import OFFERS
from harness.station import console_line
from harness.waiting import free_port, is_listening, wait_listening, wait_until

WARNING = "IncrementPendingLogins: Too many pending logins (4)\n"
MAX_PENDING = 5


@pytest.fixture
def occupied():
    """Occupies ports, as another program on the machine would, until the test ends."""
    with contextlib.ExitStack() as sockets:
        def occupy(port: int) -> socket.socket:
            holder = sockets.enter_context(socket.socket(socket.AF_INET, socket.SOCK_STREAM))
            holder.bind(("", port))
            holder.listen(1)
            return holder

        yield occupy


@pytest.fixture
def mapped(station):
    """A station whose console "box" has its own port open, without users."""
    port = free_port()
    box = station.console("box", mapped_port=port)
    ticker = station.console("ticker")
    bring_up(station, box, ticker)
    wait_listening(port)
    station.box, station.ticker, station.mapped_port = box, ticker, port
    return station


def remap(station, port: int) -> None:
    """Give the console of `mapped` another port, or none with 0."""
    reload(station, console_line("box", station.box.port, mapped_port=port)
           + console_line("ticker", station.ticker.port), waker=station.ticker)


def attached(user, console: str = "box") -> None:
    """The user of a mapped port is attached."""
    user.expect_exactly(OFFERS + greeting(console))


def not_listening(port: int) -> None:
    """Wait until the port has been closed."""
    wait_until(lambda: not is_listening(port), what=f"port {port} to close")


# Opening


def test_the_main_port_opens_first_and_then_those_of_the_consoles(station):
    ports = [free_port() for _ in range(4)]
    station.write_config("".join(
        console_line(f"c{index}", 1, enable=0, mapped_port=port)
        for index, port in enumerate([ports[2], 0, ports[0], ports[3], ports[1]])))
    station.start()
    station.wait_log(f"ListenOnPort: bind() to port {ports[1]} succeeded")
    bound = re.findall(r"ListenOnPort: bind\(\) to port (\d+) succeeded", station.log_text())
    assert [int(port) for port in bound] == [station.port, ports[2], ports[0], ports[3], ports[1]]


def test_opening_a_port_is_logged_at_every_debug_level(station):
    station.start("-d", "0")
    assert f"ListenOnPort: bind() to port {station.port} succeeded\n" in messages(
        station.log_text())


def test_all_interfaces_are_listened_on(station):
    station.start()
    with open("/proc/self/net/tcp", encoding="ascii") as table:
        rows = [line.split() for line in table][1:]
    assert f"00000000:{station.port:04X}" in [row[1] for row in rows if row[3] == "0A"]


def test_without_its_main_port_it_serves_the_mapped_ports_and_tries_again(station, occupied):
    port = free_port()
    main_port = free_port()
    box = station.console("box", greeting=READY, mapped_port=port)
    holder = occupied(main_port)
    station.start("-p", str(main_port), wait=False)
    box.accept()
    station.wait_connected("box")
    found = station.wait_log("ListenOnPort: bind() failed : Address already in use")
    for expected in (f"ListenOnPort: Could not bind to port {main_port}",
                     f"ConfigurePort: Cannot listen on port {main_port}.",
                     f"GetPortsToListenOn: Cannot configure main port {main_port}.",
                     f"GetPortsToListenOn: Nobody can connect through port {main_port}. Another "
                     "program may be listening there; the port is tried again at each reload."):
        found = station.wait_log(expected, after=found.end)
    wait_listening(port)
    station.mapped(port).expect(greeting("box"))

    position = station.mark()
    reload(station)
    station.wait_log(f"GetPortsToListenOn: Cannot configure main port {main_port}.",
                     after=position)
    assert f"bind() to port {main_port} succeeded" not in station.log_text()

    holder.close()
    reload(station)
    station.wait_log(f"ListenOnPort: bind() to port {main_port} succeeded")
    user = station.attach("box")
    box.send(b"here")
    user.expect(b"here")


def test_an_operator_is_told_that_the_main_port_is_taken(station, occupied):
    main_port = free_port()
    occupied(main_port)
    station.start("-d", "0", "-p", str(main_port), wait=False)
    station.wait_log(f"GetPortsToListenOn: Nobody can connect through port {main_port}. Another "
                     "program may be listening there; the port is tried again at each reload.")


def test_a_mapped_port_that_is_busy_is_skipped_and_tried_again(station, occupied):
    busy, free = free_port(), free_port()
    holder = occupied(busy)
    first = station.console("first", mapped_port=busy)
    second = station.console("second", mapped_port=free)
    bring_up(station, first, second)
    station.wait_log(f"ListenOnPort: Could not bind to port {busy}")
    station.wait_log(f"ConfigurePort: Cannot listen on port {busy}.")
    station.wait_log("GetPortsToListenOn: Cannot configure port for first.")
    attached(station.mapped(free), "second")
    station.wait_log("ServiceConnectionRequestThreadStart: Exiting thread.")

    before = station.descriptors()
    for _ in range(2):
        position = station.mark()
        reload(station)
        station.wait_log("GetPortsToListenOn: Cannot configure port for first.", after=position)
    assert station.descriptors() == before

    holder.close()
    reload(station)
    attached(station.mapped(busy), "first")


def test_a_new_mapped_port_of_a_console_opens_at_the_refresh(station):
    box = station.console("box")
    bring_up(station, box)
    port = free_port()
    reload(station, console_line("box", box.port, mapped_port=port))
    station.wait_log(f"ListenOnPort: bind() to port {port} succeeded")
    attached(station.mapped(port))


def test_a_new_console_brings_its_port_at_the_refresh(station):
    station.start()
    port = free_port()
    late = station.console("late", greeting=READY, mapped_port=port)
    reload(station)
    assert is_listening(port)
    late.accept()
    station.wait_connected("late")
    attached(station.mapped(port), "late")


def test_one_port_may_be_named_by_two_consoles(station):
    port = free_port()
    first = station.console("first", mapped_port=port)
    second = station.console("second", mapped_port=port)
    bring_up(station, first, second)
    wait_listening(port)
    reload(station)
    assert station.log_text().count(f"ListenOnPort: bind() to port {port} succeeded\n") == 1
    listed = re.findall(r"AddConsoleToList: Added console (\w+) to a_cons_list\.",
                        station.log_text())
    attached(station.mapped(port), listed[0])


def test_a_shared_port_leads_to_the_inaccessible_console(station):
    port = free_port()
    up = station.console("up", mapped_port=port)
    station.console_line("down", 1, mapped_port=port, enable=0)
    bring_up(station, up)
    refused(station.mapped(port), 5)
    reload(station, console_line("up", up.port, mapped_port=port))
    attached(station.mapped(port), "up")


def test_a_port_that_passes_to_another_console_stays_open(station):
    port = free_port()
    first = station.console("first", mapped_port=port)
    second = station.console("second")
    bring_up(station, first, second)
    wait_listening(port)
    waiting, = pending(station, port, 1)
    reload(station, console_line("first", first.port)
           + console_line("second", second.port, mapped_port=port))
    attached(station.mapped(port), "second")
    waiting.send(b"\n")
    waiting.expect_exactly(OFFERS)
    assert f"Port {port} is no longer mapped to console" not in station.log_text()
    assert station.log_text().count(f"ListenOnPort: bind() to port {port} succeeded\n") == 1


def test_a_console_whose_port_is_the_main_port_gets_no_listener_of_its_own(station):
    port = free_port()
    box = station.console("box", mapped_port=port)
    bring_up(station, box, options=("-p", str(port)))
    reload(station)
    assert station.log_text().count(f"ListenOnPort: bind() to port {port} succeeded\n") == 1
    nameless = station.caller()
    nameless.send(b"\n")
    refused(nameless, 9)
    station.attach("box")


# Waiting and accepting


def test_only_the_first_wait_lasts_two_seconds(station):
    station.start()
    waits = re.compile(r"CheckForConnectionRequests: Calling select\( \d+ \+ 1, fdset, 0, 0, "
                       r"\((\d+),(\d+)\)\)\n")
    first = station.wait_log(re.compile(r"^CheckForConnectionRequests: .*,\(2,0\)\)$|"
                                        r"^CheckForConnectionRequests: .* \(2,0\)\)$"))
    assert first.thread == "user_conn"
    zero = station.wait_log(re.compile(r"^CheckForConnectionRequests: .* \(0,0\)\)$"))
    station.wait_log(re.compile(r"^CheckForConnectionRequests: .* \(0,0\)\)$"), count=20,
                     after=zero.end)
    left = [int(seconds) * 1000000 + int(micro)
            for seconds, micro in waits.findall(station.log_text())]
    assert left[0] == 2000000
    assert left == sorted(left, reverse=True)
    assert left.count(0) > 20


def test_a_wait_lasts_for_the_time_that_the_last_one_left(station):
    station.start()
    station.caller()
    found = station.wait_log(servicing(station.port))
    after = station.wait_log(re.compile(r"^CheckForConnectionRequests: Calling select"),
                             after=found.end, thread="user_conn")
    assert re.search(r"\((1,\d+|0,\d+)\)\)$", after.message), after.message


def test_the_address_of_a_caller_is_logged(station):
    station.start("-d", "2")
    station.caller()
    station.wait_log('AcceptConnectionRequests: Connection request from IP address "127.0.0.1".',
                     thread="user_conn")
    station.wait_log(servicing(station.port), thread="serv_conn")


# Pending logins


def test_the_sixth_pending_login_of_a_mapped_port_is_refused(mapped):
    callers = pending(mapped, mapped.mapped_port, MAX_PENDING)
    sixth = mapped.caller(mapped.mapped_port)
    refused(sixth, 16)
    mapped.wait_log("AcceptConnectionRequests: Reached max_pending_logins (5)",
                    thread="user_conn")
    assert mapped.log_text().count(servicing(mapped.mapped_port)) == MAX_PENDING
    for caller in reversed(callers):
        caller.send(b"\n")
        attached(caller)


def test_a_login_that_is_over_makes_room_for_another(mapped):
    callers = pending(mapped, mapped.mapped_port, MAX_PENDING)
    position = mapped.mark()
    callers[2].close()
    mapped.wait_log("ServiceConnectionRequestThreadStart: Exiting thread.", after=position)
    next_one, = pending(mapped, mapped.mapped_port, 1)
    refused(mapped.caller(mapped.mapped_port), 16)
    next_one.send(b"\n")
    attached(next_one)


def test_attached_users_do_not_count_as_pending(mapped):
    for _ in range(MAX_PENDING + 2):
        attached(mapped.mapped(mapped.mapped_port))
    pending(mapped, mapped.mapped_port, MAX_PENDING)
    refused(mapped.caller(mapped.mapped_port), 16)


def test_pending_logins_of_other_ports_do_not_count(mapped):
    pending(mapped, mapped.port, MAX_PENDING + 1)
    late, = pending(mapped, mapped.mapped_port, 1)
    late.send(b"\n")
    attached(late)


def test_the_main_port_refuses_nobody(mapped):
    callers = pending(mapped, mapped.port, 23)
    for caller in reversed(callers):
        caller.send(b"box\n")
        caller.expect_exactly(OFFERS)
    assert ERRORS[16] not in b"".join(caller.received for caller in callers)
    mapped.box.send(b"to all of you")
    for caller in callers:
        caller.expect_exactly(b"to all of you")


@pytest.mark.parametrize("port", ["mapped_port", "port"])
def test_the_fifth_pending_login_is_warned_of_and_counted(mapped, port):
    number = getattr(mapped, port)
    callers = pending(mapped, number, MAX_PENDING)
    mapped.wait_log(WARNING.rstrip(), thread="serv_conn")
    said = messages(mapped.log_text())
    assert said.count(WARNING) == 1
    served = [index for index, text in enumerate(said) if text == servicing(number) + "\n"]
    assert said.index(WARNING) > served[MAX_PENDING - 1]
    for caller in callers:
        caller.close()
    mapped.wait_log("ServiceConnectionRequestThreadStart: Exiting thread.", count=MAX_PENDING)


# Dropping


def test_a_port_that_is_no_longer_mapped_closes(mapped):
    port = mapped.mapped_port
    remap(mapped, 0)
    found = mapped.wait_log(f"CleanUpStalePorts: Port {port} is no longer mapped to console",
                            thread="user_conn")
    mapped.wait_log(f"CleanUpStalePorts: Closing connection for mapped port {port}",
                    after=found.end, thread="user_conn")
    not_listening(port)
    assert is_listening(mapped.port)


@pytest.mark.parametrize("with_user", [False, True])
def test_the_port_of_a_console_that_is_dropped_closes_every_time(station, with_user):
    port = free_port()
    box = station.console("box", greeting=READY, mapped_port=port)
    present = station.config_file.read_text(encoding="ascii")
    station.start("-d", "0")  # at level 3 the ports are looked at all the time
    for _ in range(20):
        box.accept()
        wait_listening(port)
        user = station.mapped(port) if with_user else None
        if user is not None:
            user.expect(greeting("box"))
        station.write_config("")
        station.signal(signal.SIGHUP)
        not_listening(port)
        if user is not None:
            user.expect(banner("Console has been deleted."))
            user.expect_closed()
        box.expect_closed()
        station.write_config(present)
        station.signal(signal.SIGHUP)


def test_a_dropped_port_ends_its_pending_logins_and_nothing_else(mapped):
    main_pending, = pending(mapped, mapped.port, 1)
    threads = mapped.threads()
    callers = pending(mapped, mapped.mapped_port, MAX_PENDING)
    users = [callers.pop(3), callers.pop(1)]
    for user in users:
        user.send(b"\n")
        attached(user)
    remap(mapped, 0)
    for caller in callers:
        caller.expect_closed()
    wait_until(lambda: mapped.threads() == threads, what="the cancelled threads to end")

    main_pending.send(b"box\n")
    main_pending.expect_exactly(OFFERS)
    mapped.box.send(b"still here")
    for user in [*users, main_pending]:
        user.expect_exactly(b"still here")
        user.send(b"!")
        mapped.box.expect_exactly(b"!")


def test_descriptors_of_a_dropped_port_and_its_logins_are_closed(mapped):
    remap(mapped, 0)
    not_listening(mapped.mapped_port)
    before = mapped.descriptors()
    for _ in range(2):
        remap(mapped, mapped.mapped_port)
        pending(mapped, mapped.mapped_port, MAX_PENDING)
        remap(mapped, 0)
        not_listening(mapped.mapped_port)
        wait_until(lambda: mapped.descriptors() == before,
                   what=f"{before} descriptors to be left")


def test_a_port_that_comes_back_counts_from_the_beginning(mapped):
    pending(mapped, mapped.mapped_port, MAX_PENDING)
    remap(mapped, 0)
    not_listening(mapped.mapped_port)
    remap(mapped, mapped.mapped_port)
    callers = pending(mapped, mapped.mapped_port, MAX_PENDING)
    refused(mapped.caller(mapped.mapped_port), 16)
    callers[0].send(b"\n")
    attached(callers[0])


def test_another_port_number_for_a_console_replaces_the_old_one(mapped):
    user = mapped.mapped(mapped.mapped_port)
    attached(user)
    other = free_port()
    remap(mapped, other)
    not_listening(mapped.mapped_port)
    attached(mapped.mapped(other))
    mapped.box.send(b"go on")
    user.expect_exactly(b"go on")


def test_the_main_port_stays_open_without_any_console(mapped):
    reload(mapped, "")
    reload(mapped, "")
    assert is_listening(mapped.port)
    user = mapped.ask("box")
    refused(user, 4)
