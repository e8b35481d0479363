"""The daemon's calls to its consoles: when it calls, what counts as an answer, what it keeps."""

import fcntl
import re
import socket
import struct

import pytest

from harness.clock import ShiftedClock
from harness.consoles import NEGOTIATION, refusal
from harness.peers import OFFERS, Peer
from harness.scenes import (DISABLED, NOT_ACCESSIBLE, Usage, assert_flat, connected,
                            print_and_wait, refused, reload)
from harness.station import console_line
from harness.waiting import stretched, wait_until

PELLOX = "P100"
HOLDER = "10.20.30.40"
ATTEMPT = "ConnectToConsole: Attempting to connect to {} ({}/{})."
CONNECTED = "UpdateConnectionStatus: Connected to {} (127.0.0.1/{})."
FAILED = "UpdateConnectionStatus: Connection to {} (127.0.0.1/{}) failed."
REFUSED = "UpdateConnectionStatus: Connection to {} (127.0.0.1/{}) refused."


@pytest.fixture
def held_clock(tmp_path):
    """A clock that only the test moves, so that no delay is over before the test has acted."""
    clock = ShiftedClock(tmp_path)
    clock.hold()
    return clock


def attempts(station, name: str, console) -> int:
    """How often the daemon has called the console so far."""
    return station.log_text().count(ATTEMPT.format(name, "127.0.0.1", console.port) + "\n")


def wait_passes(station, name: str, passes: int = 2) -> None:
    """Wait until the daemon has checked the connection in progress this many times.

    It does so every two seconds while nothing happens.
    """
    station.wait_log(re.compile(f'^CheckConnectionStatus: Checking status for "{name}" '),
                     count=passes, after=station.mark())


def give_this_machine(address: str) -> None:
    """Give the loopback device another address."""
    siocsifaddr = 0x8916
    request = struct.pack("16sHH4s8x", b"lo:1", socket.AF_INET, 0, socket.inet_aton(address))
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, siocsifaddr, request)


def timer_of_connection_to(port: int) -> str:
    """The kernel's timer for the connection from this machine to the port."""
    with open("/proc/self/net/tcp", encoding="ascii") as table:
        rows = [row.split() for row in table][1:]
    return next(row[5].partition(":")[0] for row in rows
                if int(row[2].rpartition(":")[2], 16) == port and row[3] == "01")


# Calling


def test_enabled_consoles_are_called_and_disabled_ones_are_not(station):
    disabled = station.console("off", enable=0)
    enabled = station.console("on")
    station.start()
    connected(station, enabled, "on")
    assert not disabled.called() and attempts(station, "off", disabled) == 0
    refused(station, "off", DISABLED)


def test_calls_and_answers_are_logged_with_name_and_address(station):
    box = station.console("box")
    station.start("-d", "1")
    box.accept()
    station.wait_log(ATTEMPT.format("box", "127.0.0.1", box.port), thread="cons_conn")
    station.wait_log(CONNECTED.format("box", box.port), thread="cons_conn")


def test_connections_to_consoles_are_kept_alive(station):
    box = station.console("box")
    station.start()
    connected(station, box, "box")
    keepalive_timer = "02"
    wait_until(lambda: timer_of_connection_to(box.port) == keepalive_timer, what="the timer")


def test_consoles_become_accessible_in_configuration_order(station):
    consoles = [station.console(f"c{number}", listening=number % 2 == 0) for number in range(6)]
    station.start()
    for console in consoles[::2]:
        console.accept()
    position = 0
    for name in ("c0", "c2", "c4"):
        position = station.wait_connected(name, after=position).end


def test_a_console_that_does_not_answer_holds_up_no_other(station):
    dead = station.console("dead")
    dead.hang()
    alive = station.console("alive")
    station.start()
    connected(station, alive, "alive")
    refused(station, "dead", NOT_ACCESSIBLE)
    wait_passes(station, "dead")
    assert attempts(station, "dead", dead) == 1


def test_a_console_that_hangs_up_is_called_again_at_once(station):
    box = station.console("box")
    station.start()
    connected(station, box, "box")
    for number in range(2, 5):
        user = station.attach("box")
        box.close()
        user.expect_closed()
        connected(station, box, "box", times=number)
        assert attempts(station, "box", box) == number


def test_a_console_that_resets_its_connection_is_called_again_at_once(station):
    box = station.console("box")
    station.start()
    connected(station, box, "box")
    user = station.attach("box")
    box.reset()
    user.expect_closed()
    connected(station, box, "box", times=2)


# Failures


@pytest.mark.needs_namespace
def test_an_unreachable_network_is_tried_again_on_every_pass(station):
    station.console_line("far", 2001, address="10.1.2.3")
    box = station.console("box")
    station.start()
    connected(station, box, "box")
    position = station.mark()
    station.wait_log("ConnectToConsole: connect() failed : Network is unreachable", count=50,
                     after=position)
    text = station.log_text(position)
    tried = text.count(ATTEMPT.format("far", "10.1.2.3", 2001))
    passes = text.count(">: Entering ConnectToConsoles\n")
    assert tried >= 50 and abs(tried - passes) <= 1
    refused(station, "far", NOT_ACCESSIBLE)


@pytest.mark.needs_namespace
def test_a_network_that_comes_up_is_used_at_once(station):
    with socket.create_server(("", 0)) as listener, Peer("far") as far:
        station.console_line("far", listener.getsockname()[1], address="10.1.2.3")
        station.start()
        station.wait_log("ConnectToConsole: connect() failed : Network is unreachable", count=20)
        give_this_machine("10.1.2.3")
        listener.settimeout(stretched(5))
        far.adopt(listener.accept()[0])
        station.wait_connected("far")
        user = station.attach("far")
        far.send(b"up")
        user.expect_exactly(b"up")


def test_an_invalid_address_affects_only_its_console(station):
    station.console_line("typo", 2001, address="no.such.address")
    box = station.console("box")
    station.start()
    connected(station, box, "box")
    station.wait_log(ATTEMPT.format("typo", "no.such.address", 2001))
    refused(station, "typo", NOT_ACCESSIBLE)


def test_a_refused_console_is_left_alone_for_a_while(station):
    box = station.console("box", listening=False)
    station.start()
    station.wait_log(REFUSED.format("box", box.port), thread="cons_conn")
    box.listen()
    refused(station, "box", NOT_ACCESSIBLE)
    station.wait_log("Entering ConnectToConsoles", count=2, after=station.mark())
    assert not box.called() and attempts(station, "box", box) == 1


def test_a_refused_console_is_called_again_after_a_minute(station, held_clock):
    box = station.console("box", listening=False)
    station.start(env=held_clock.env)
    station.wait_log(REFUSED.format("box", box.port))
    box.listen()
    held_clock.shift(59)
    station.wait_log("Entering ConnectToConsoles", count=2, after=station.mark())
    assert not box.called() and attempts(station, "box", box) == 1
    held_clock.shift(60)
    box.accept()
    assert attempts(station, "box", box) == 2
    station.wait_log(CONNECTED.format("box", box.port))


@pytest.mark.needs_namespace
def test_a_call_that_is_never_answered_fails(station):
    with open("/proc/sys/net/ipv4/tcp_syn_retries", "w", encoding="ascii") as retries:
        retries.write("1")
    box = station.console("box")
    box.hang()
    station.start()
    station.wait_log(FAILED.format("box", box.port), thread="cons_conn")
    refused(station, "box", NOT_ACCESSIBLE)
    station.wait_log("Entering ConnectToConsoles", count=2, after=station.mark())
    assert attempts(station, "box", box) == 1


# Disabled while it is being called


def test_a_console_disabled_during_a_call_may_come_back_at_once(station):
    box = station.console("box")
    box.hang()
    station.start()
    wait_passes(station, "box")
    descriptors = station.descriptors()
    station.write_config(console_line("box", box.port, enable=0))
    position = station.mark()
    reload(station)
    station.wait_log("UpdateConnectionStatus: Console box was disabled.", thread="cons_conn",
                     after=position)
    refused(station, "box", DISABLED)
    wait_until(lambda: station.descriptors() == descriptors - 1, what="its socket to be closed")
    assert attempts(station, "box", box) == 1
    station.write_config(console_line("box", box.port))
    reload(station)
    station.wait_log(ATTEMPT.format("box", "127.0.0.1", box.port), after=position)
    assert attempts(station, "box", box) == 2


def test_a_console_disabled_after_a_failure_is_called_again_a_minute_after_it(station, held_clock):
    box = station.console("box", listening=False)
    station.start(env=held_clock.env)
    station.wait_log(REFUSED.format("box", box.port))
    for enable in (0, 1):
        station.write_config(console_line("box", box.port, enable=enable))
        reload(station)
    box.listen()
    held_clock.shift(59)
    station.wait_log("Entering ConnectToConsoles", count=2, after=station.mark())
    assert not box.called()
    held_clock.shift(60)
    box.accept()


# Management ports that may refuse


def test_a_silent_pellox_console_is_connected_after_its_grace(station, held_clock):
    px = station.console("px", model=PELLOX)
    # Text at once, so that nobody waits for a negotiation.
    plain = station.console("plain", greeting=b"text")
    station.start(env=held_clock.env)
    px.accept()
    connected(station, plain, "plain")
    for seconds in range(2):
        held_clock.shift(seconds)
        wait_passes(station, "px")
        refused(station, "px", NOT_ACCESSIBLE)
    assert CONNECTED.format("px", px.port) not in station.log_text()
    held_clock.shift(2)
    station.wait_connected("px")
    assert attempts(station, "px", px) == 1
    user = station.attach("px")
    user.send(b"k")
    px.expect_exactly(b"k")


def test_a_pellox_console_with_a_held_session_counts_as_refused(station):
    px = station.console("px", model=PELLOX, greeting=refusal(HOLDER))
    station.start()
    px.accept()
    station.wait_log(REFUSED.format("px", px.port), thread="cons_conn")
    px.expect_closed()
    refused(station, "px", NOT_ACCESSIBLE)
    station.wait_log("Entering ConnectToConsoles", count=2, after=station.mark())
    assert attempts(station, "px", px) == 1
    assert CONNECTED.format("px", px.port) not in station.log_text()


@pytest.mark.parametrize("greeting", [
    refusal(HOLDER),
    b"Welcome\r\n\r\n" + refusal(HOLDER),
    b"\n\n\r\r" + refusal(HOLDER),
    b"Welcome\r" + refusal(HOLDER).rstrip(),
    b"~NET-E-\r\n" + refusal(HOLDER),
    b"~NET-E-Session is already open",
    b"~NET-E-BUSY Session is already open",
    b"~NET-E-BUSY Session is already open to the partition/CLI held by " + b"9" * 200,
    (b"\r\n" * 132) + b"~NET-E-Session is already open, and so on for more than is looked at",
])
def test_refusals_are_recognized(station, held_clock, greeting):
    px = station.console("px", model=PELLOX)
    station.start(env=held_clock.env)
    px.accept()
    wait_passes(station, "px")
    px.send(greeting)
    station.wait_log(REFUSED.format("px", px.port))
    px.expect_closed()


@pytest.mark.parametrize("greeting", [
    b"Session is already open to the partition/CLI\r\n",
    b" ~NET-E-BUSY Session is already open\r\n",
    b"~NET-I-BUSY Session is already open\r\n",
    b"~NET-E-BUSY session is already open\r\n",
    b"~NET-E-BUSY\r\nSession is already open\r\n",
    b"\0" + refusal(HOLDER),
    b"x" * 299 + b"\n" + refusal(HOLDER),
])
def test_other_texts_are_not_refusals(station, held_clock, greeting):
    px = station.console("px", model=PELLOX)
    station.start("-B", "1000", env=held_clock.env)
    px.accept()
    px.send(greeting)
    wait_passes(station, "px")
    held_clock.shift(2)
    station.wait_connected("px")
    wait_until(lambda: "ProcessConsoleOutput: Received ->" in station.log_text(), what="output")
    user = station.attach("px")
    user.expect_exactly(greeting)
    assert REFUSED.format("px", px.port) not in station.log_text()


def test_a_refusal_after_the_grace_is_hidden_and_refuses_nothing(station):
    px = station.console("px", model=PELLOX)
    station.start("-B", "1000")
    connected(station, px, "px")
    print_and_wait(station, px, refusal(HOLDER))
    user = station.attach("px")
    px.send(b"prompt>")
    user.expect_exactly(b"prompt>")


def test_a_pellox_console_that_is_reset_in_its_grace_has_failed(station, held_clock):
    px = station.console("px", model=PELLOX)
    station.start(env=held_clock.env)
    px.accept()
    wait_passes(station, "px")
    px.reset()
    station.wait_log(FAILED.format("px", px.port), thread="cons_conn")
    refused(station, "px", NOT_ACCESSIBLE)
    station.wait_log("Entering ConnectToConsoles", count=2, after=station.mark())
    assert attempts(station, "px", px) == 1


def test_a_pellox_console_that_hangs_up_in_its_grace_is_called_again(station, held_clock):
    px = station.console("px", model=PELLOX)
    station.start(env=held_clock.env)
    px.accept()
    px.close()
    wait_passes(station, "px")
    assert CONNECTED.format("px", px.port) not in station.log_text()
    held_clock.shift(2)
    station.wait_log(CONNECTED.format("px", px.port))
    station.wait_log(re.compile(r"^ProcessConsoleOutput: recv\(\) returned 0 : "))
    px.accept()
    wait_passes(station, "px")
    held_clock.shift(4)
    station.wait_log("AddConsoleToList: Added console px to a_cons_list.", count=2)
    assert attempts(station, "px", px) == 2


# The greeting


@pytest.mark.parametrize("model", ["A200", PELLOX])
def test_a_greeting_is_not_consumed_by_looking_at_it(station, model):
    box = station.console("box", model=model, greeting=b"Welcome!\r\nlogin: ")
    station.start("-B", "1000")
    connected(station, box, "box")
    station.wait_log(re.compile("^ProcessConsoleOutput: Received ->Welcome!"))
    station.attach("box").expect_exactly(b"Welcome!\r\nlogin: ")


@pytest.mark.parametrize("model", ["A200", PELLOX])
def test_the_negotiation_is_kept_for_every_user_and_the_rest_is_output(station, model):
    box = station.console("box", model=model, greeting=NEGOTIATION + b"login: ")
    station.start("-B", "1000")
    connected(station, box, "box")
    station.wait_log("ProcessConsoleOutput: Received ->login: <- (7 bytes)")
    for _ in range(2):
        station.ask("box").expect_exactly(NEGOTIATION + OFFERS + b"login: ")


@pytest.mark.parametrize("sent, kept, output", [
    (b"", b"", b"text"),
    (b"\xff\xf1", b"\xff\xf1", b"text"),                      # a command without option
    (b"\xff\xfb\x03" * 21, b"\xff\xfb\x03" * 21, b"text"),    # 63 bytes
    (b"\xff\xfa\xff\xf0", b"\xff\xfa\xff\xf0", b"text"),
    (b"\xff\xfa\x18\x01\xff\xf0", b"\xff\xfa", b"\x18\x01\xff\xf0text"),
    (b"\xff", b"\xff", b"text"),                              # no command follows: its byte goes on
    (b"\xff\xfb\x00\xff\xfb\x01", b"\xff\xfb", b"text"),      # played as far as a NUL
], ids=str)
def test_negotiation_is_separated_from_output(station, sent, kept, output):
    px = station.console("px", model=PELLOX, greeting=sent + b"text")
    station.start("-B", "1000")
    connected(station, px, "px")
    station.wait_log(re.compile(r"^ProcessConsoleOutput: Received ->.*text<- "))
    station.ask("px").expect_exactly(kept + OFFERS + output)


def test_64_bytes_of_negotiation_are_kept(station):
    sent = b"\xff\xfb\x01" * 30
    px = station.console("px", model=PELLOX, greeting=sent)
    station.start("-B", "1000")
    connected(station, px, "px")
    station.wait_log("DrainTelnetControlSequence: Too many telnet characters. Buffer full",
                     thread="cons_conn")
    rest = sent[64:]
    station.wait_log(re.compile(rf"^ProcessConsoleOutput: Received ->.*<- \({len(rest)} bytes\)$"))
    user = station.ask("px")
    user.expect_exactly(sent[:64] + OFFERS)
    # What did not fit begins with a high byte; without a user such a chunk is dropped.
    assert rest[0] >= 128
    px.send(b"end")
    user.expect_exactly(b"end")


def test_the_negotiation_is_that_of_the_current_connection(station):
    box = station.console("box", greeting=NEGOTIATION)
    station.start()
    connected(station, box, "box")
    user = station.ask("box")
    user.expect_exactly(NEGOTIATION + OFFERS)
    box.greeting = b""
    box.close()
    user.expect_closed()
    connected(station, box, "box", times=2)
    second = station.attach("box")
    assert second.received == OFFERS


# Resource use


def test_a_thousand_lost_connections_leave_nothing_behind(station):
    consoles = {f"c{number}": station.console(f"c{number}") for number in range(50)}
    station.start("-d", "1")

    def connect_all(position: int) -> None:
        for name, console in consoles.items():
            console.accept()
        for name, console in consoles.items():
            station.wait_log(CONNECTED.format(name, console.port), after=position)

    def reset_all() -> int:
        position = station.mark()
        for number, console in enumerate(consoles.values()):
            console.reset() if number % 2 else console.close()
        return position

    connect_all(0)
    for _ in range(5):
        connect_all(reset_all())
    before = Usage.of(station)
    for _ in range(20):
        connect_all(reset_all())
    assert_flat(station, before, memory=160 << 10)
