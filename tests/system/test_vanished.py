"""Peers that vanish without a word are noticed; silent ones that are still there are left alone."""

import contextlib
import socket

import pytest

from harness.access import bring_up, greeting, refused
from harness.commands import Tool
from harness.door import NAME, log_in, welcome
from harness.fortress import open_door
from harness.helpers import FakeHelper
from harness.scenes import connected, numbered, removal
from harness.slow_readers import SMALL, Pace, take_nothing
from harness.vanishing import Silence, daemons_socket, hurry, vanish, waiting
from harness.waiting import free_port, wait_listening, wait_until

FIVE_MINUTES = 300
GONE = 'LookForVanishedUsers: User "{}" on console "{}" has vanished.'
TOOL_GONE = 'CloseVanishedTools: Tool of "{}" at "127.0.0.1" has vanished.'
MAX_PENDING = 5

# The kernel may be slow to acknowledge, and the daemon checks every ten seconds.
LOOK_LIMIT = 20


@pytest.fixture
def ends(station):
    """Opens the daemon's end of a peer's connection, and closes all of them after the test."""
    with contextlib.ExitStack() as opened:
        yield lambda peer: opened.enter_context(daemons_socket(station, peer))


@pytest.fixture
def silence(tmp_path):
    """Peers that have been silent for as long as a test says."""
    return Silence(tmp_path)


def quiet(end: socket.socket) -> socket.socket:
    """Wait until everything sent has been acknowledged, so that the kernel sends probes."""
    wait_until(lambda: waiting(end) == 0, what="the peer to have everything")
    return end


def is_asked(end: socket.socket) -> None:
    """The kernel probes this peer when it is silent, and does not close it for a full window."""
    assert end.getsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE) == 1
    settings = {option: end.getsockopt(socket.IPPROTO_TCP, option)
                for option in (socket.TCP_KEEPIDLE, socket.TCP_KEEPINTVL, socket.TCP_KEEPCNT,
                               socket.TCP_USER_TIMEOUT)}
    assert settings == {socket.TCP_KEEPIDLE: 60, socket.TCP_KEEPINTVL: 10, socket.TCP_KEEPCNT: 6,
                        socket.TCP_USER_TIMEOUT: 0}


@pytest.fixture
def door(station):
    """A console whose port wants a login, which root can make."""
    return open_door(station)


# The kernel probes


def test_every_peer_is_probed(station, ends):
    port = free_port()
    box = station.console("box", mapped_port=port)
    bring_up(station, box)
    wait_listening(port)
    user = station.mapped(port)
    user.expect(greeting("box"))
    for peer in (station.attach("box"), user, Tool(station).peer):
        is_asked(ends(peer))


def test_a_caller_is_probed_from_the_start(door, ends):
    silent = door.station.caller()
    door.station.wait_log(
        'AcceptConnectionRequests: Connection request from IP address "127.0.0.1".')
    is_asked(ends(silent))
    is_asked(ends(door.call()))


def test_a_user_who_vanishes_does_not_keep_a_console(station, ends):
    box = station.console("box")
    bring_up(station, box)
    holder = station.attach("box", mode="ex", user="holder")
    refused(station.ask("box", mode="ex"), 6)
    hurry(quiet(ends(holder)))
    vanish(holder)
    station.wait_log(removal("holder"))
    station.attach("box", mode="ex").send(b"mine")
    box.expect_exactly(b"mine")


def test_a_login_that_vanishes_frees_its_place(door, ends):
    station = door.station
    callers = [door.call() for _ in range(MAX_PENDING)]
    refused(station.caller(door.port), 16)
    gone, *others = callers
    position = station.mark()
    hurry(quiet(ends(gone)))
    vanish(gone)
    station.wait_log("ServiceConnectionRequestThreadStart: Exiting thread.", after=position)
    log_in(door.call(), b"root", b"secret")
    assert not any(caller.closed for caller in others)


def test_a_silent_user_who_is_there_stays(station, ends):
    box = station.console("box")
    bring_up(station, box)
    there, gone = (station.attach("box", user=name) for name in ("there", "gone"))
    for user in (there, gone):
        hurry(quiet(ends(user)))
    vanish(gone)
    station.wait_log(removal("gone"))
    box.send(b"still here?")
    there.expect_exactly(b"still here?")
    there.send(b"yes")
    box.expect_exactly(b"yes")


# Data waits to be sent, and the kernel does not probe


def test_a_login_that_acknowledges_nothing_frees_its_place(station, ends, silence):
    helper = FakeHelper(station)
    helper.hang()
    port = free_port()
    box = station.console("box", mapped_port=port, auth=1)
    bring_up(station, box, options=("-S", "1"), env=silence.env)
    wait_listening(port)
    rest = station.threads()
    caller = station.caller(port)
    caller.expect_exactly(welcome("box") + NAME)
    log_in(caller, b"root", b"guess")
    helper.wait_hanging()
    end = ends(caller)
    vanish(caller)
    helper.release()
    wait_until(lambda: waiting(end) > 0, what="another prompt")
    silence.add(FIVE_MINUTES, caller)
    wait_until(lambda: station.threads() == rest, LOOK_LIMIT, "the login to end")


def test_a_user_who_acknowledges_nothing_is_closed(station, ends, silence):
    box = station.console("box")
    station.start("-d", "1", env=silence.env)
    connected(station, box, "box")
    gone = station.attach("box", user="gone")
    idle = station.attach("box", user="idle")
    slow = station.attach("box", user="slow", buffer=4096)
    quiet(ends(gone))
    slow.stop_reading()
    vanish(gone)
    text = b"x" * 16384  # more than the slow one reads, and little enough to be buffered
    box.send(text)
    idle.expect_exactly(text)
    quiet(ends(idle))
    assert waiting(ends(gone)) > 0 and waiting(ends(slow)) > 0
    silence.add(FIVE_MINUTES, gone, idle)
    station.wait_log(GONE.format("gone", "box"), limit=LOOK_LIMIT)
    station.wait_log(removal("gone"))

    assert waiting(ends(slow)) > 0
    slow.read_again()
    slow.expect_exactly(text)
    box.send(b"!")
    for user in (idle, slow):
        user.expect_exactly(b"!")
    assert station.log_text().count("has vanished.") == 1


def test_a_user_who_vanishes_with_a_full_queue_is_closed(station, ends, silence):
    box = station.console("box")
    station.start("-d", "1", env=silence.env)
    connected(station, box, "box")
    watcher = station.attach("box", user="watcher")
    gone = station.attach("box", user="gone", buffer=SMALL)
    take_nothing(station, gone)
    quiet(ends(gone))
    before = station.descriptors()
    vanish(gone)
    Pace(box, watcher).print(numbered(50_000))
    silence.add(FIVE_MINUTES, gone)
    station.wait_log(GONE.format("gone", "box"), limit=LOOK_LIMIT)
    station.wait_log(removal("gone"))
    wait_until(lambda: station.descriptors() < before, what="the connection to be closed")
    Pace(box, watcher).print(b"and more")
    assert station.log_text().count("has vanished.") == 1


def test_a_tool_that_acknowledges_nothing_is_closed(station, ends, silence):
    station.start(env=silence.env)
    gone, idle, slow = (Tool(station, user=name) for name in ("gone", "idle", "slow"))
    for tool in (gone, slow):
        quiet(ends(tool.peer))
        vanish(tool.peer)
        tool.send("console")
        wait_until(lambda: waiting(ends(tool.peer)) > 0, what="an answer that waits")
    silence.add(FIVE_MINUTES, gone.peer, idle.peer)
    found = station.wait_log(TOOL_GONE.format("gone"), limit=LOOK_LIMIT)
    station.wait_log("CleanUpClosedConnections: Cleaning up closed command connection.",
                     after=found.end)
    assert idle.command("console").count == 0
    assert station.log_text().count("has vanished.") == 1


def test_a_user_who_is_silent_for_four_minutes_stays(station, ends, silence):
    box = station.console("box")
    station.start(env=silence.env)
    connected(station, box, "box")
    user = station.attach("box")
    quiet(ends(user))
    vanish(user)
    box.send(b"lost")
    wait_until(lambda: waiting(ends(user)) > 0, what="output that waits")
    silence.add(FIVE_MINUTES - 60, user)
    position = station.mark()
    station.wait_log("Entering LookForVanishedUsers", after=position, limit=LOOK_LIMIT)
    station.wait_log("Entering CheckForUserInput", count=2, after=position, thread="user_mon")
    assert "has vanished." not in station.log_text()
    assert removal("<unknown>") not in station.log_text()
