"""The daemon as a service: says that it is ready and alive, and takes its port over."""

import re
import signal
import socket
import subprocess
import time

import pytest

from harness.access import refused
# `accounts`, `manager`, `unprivileged` and `zevd_user` are fixtures.
from harness.accounts import accounts
from harness.freezing import frozen
from harness.managed import manager, unprivileged, zevd_user
from harness.waiting import free_port, is_listening, wait_until

pytestmark = pytest.mark.needs_namespace

CLOSED = ("ChoosePassedSocket: Closed descriptor {}, which was passed to the daemon: it does not "
          "listen on port {} of IPv4, or another one does.")


def serving(port: int) -> str:
    """What is told once the main port listens."""
    return f"READY=1\nSTATUS=Serving users on port {port}."


def start(station, manager, *options: str, port: int | None = None):
    """Start the daemon as the manager does."""
    words = options if port is None else (*options, "-p", str(port))
    station.passed = manager.passed
    return station.start(*words, env=manager.environment, wait=False)


def listening(port: int, family: socket.AddressFamily = socket.AF_INET) -> socket.socket:
    """A socket that listens on this port for whoever has it."""
    made = socket.socket(family, socket.SOCK_STREAM)
    made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    made.bind(("0.0.0.0" if family == socket.AF_INET else "::", port))
    made.listen(64)
    return made


def test_readiness_is_told_when_the_main_port_listens(unprivileged, manager):
    start(unprivileged, manager)
    wait_until(manager.messages, what="the daemon to be ready")
    assert is_listening(unprivileged.port)
    manager.wait(serving(unprivileged.port))
    unprivileged.signal(signal.SIGHUP)
    manager.wait(serving(unprivileged.port), count=2)
    assert set(manager.messages()) == {serving(unprivileged.port)}, "nobody asked for more"


def test_a_daemon_without_its_main_port_is_ready_and_says_so(unprivileged, manager):
    port = free_port()
    with listening(port):
        start(unprivileged, manager, port=port)
        manager.wait(f"READY=1\nSTATUS=Nobody can connect through port {port}; it is in use.")
    unprivileged.signal(signal.SIGHUP)
    manager.wait(serving(port))
    assert manager.messages()[-1] == serving(port)


@pytest.mark.parametrize("manager", ["path"], indirect=True)
def test_the_daemon_takes_its_main_port_over_and_leaves_it(unprivileged, manager):
    """Whoever calls while there is no daemon waits for the next one."""
    port = free_port()
    with listening(port) as kept:
        manager.hand_over(kept)
        box = unprivileged.console("box")
        start(unprivileged, manager, port=port)
        box.accept()
        unprivileged.wait_log(f"ListenOnPort: bind() to port {port} succeeded")
        unprivileged.wait_connected("box")
        user = unprivileged.attach("box")
        user.send(b"k")
        box.expect_exactly(b"k")
        unprivileged.stop()
        with pytest.raises(OSError, match="Address already in use"):
            listening(port)
        waiting = unprivileged.ask("box")
        box.refuse()
        start(unprivileged, manager, port=port)
        refused(waiting, 5)


@pytest.mark.parametrize("manager", ["path"], indirect=True)
def test_sockets_that_nobody_needs_are_closed(unprivileged, manager):
    port = free_port()
    with listening(port) as wanted, listening(free_port()) as other, \
            listening(port + 1, socket.AF_INET6) as newer, socket.socket() as deaf:
        for given in (other, newer, deaf, wanted, wanted):
            manager.hand_over(given)
        start(unprivileged, manager, port=port)
        for descriptor in (3, 4, 5, 7):
            unprivileged.wait_log(CLOSED.format(descriptor, port))
        unprivileged.wait_log(f"ListenOnPort: bind() to port {port} succeeded")
        assert CLOSED.format(6, port) not in unprivileged.log_text()


@pytest.mark.parametrize("manager", ["path"], indirect=True)
def test_sockets_for_another_process_are_left_alone(unprivileged, manager):
    manager.environment["LISTEN_FDS"] = "3"
    unprivileged.program.write_text(
        unprivileged.program.read_text(encoding="ascii").replace("LISTEN_PID=$$", "LISTEN_PID=1"),
        encoding="ascii")
    start(unprivileged, manager)
    manager.wait(serving(unprivileged.port))
    assert "ChoosePassedSocket: Closed" not in unprivileged.log_text()


@pytest.mark.parametrize("manager", ["path"], indirect=True)
def test_the_watchdog_is_fed_only_while_every_thread_makes_passes(unprivileged, manager):
    """A thread counts as stuck after ten seconds; then nothing is told, until it goes on."""
    manager.expect_life(2)
    box = unprivileged.console("box")
    start(unprivileged, manager, "-d", "3")
    box.accept()
    unprivileged.wait_connected("box")
    manager.wait("WATCHDOG=1", count=3)
    added = re.compile(r"AddUserToList: Doing FD_SET\( (\d+), \.\.\.\) for user on user_list\.")
    unprivileged.attach("box")
    unprivileged.wait_log(added)
    with frozen(unprivileged.pid, int(added.findall(unprivileged.log_text())[-1])):
        fed = len(manager.messages())
        began = time.monotonic()
        wait_until(lambda: manager.silence() > 3, 30, "no sign of life any more")
        assert time.monotonic() - began > 8, "a thread that is late is not stuck at once"
        told = manager.messages()
        assert set(told[fed:]) == {"WATCHDOG=1"}
    manager.wait("WATCHDOG=1", count=told.count("WATCHDOG=1") + 2)


@pytest.mark.parametrize("manager", ["path"], indirect=True)
def test_nobody_inherits_what_the_manager_said(unprivileged, manager):
    """The matcher is the daemon's child; it would find the variables in its environment."""
    (unprivileged.events / "hard").write_text('again 300 0 (a)\\1\n', encoding="ascii")
    unprivileged.console("box", events=1, event_file="hard")
    manager.expect_life(60)
    start(unprivileged, manager)
    manager.wait(serving(unprivileged.port))
    children = subprocess.run(["pgrep", "-P", str(unprivileged.pid)], capture_output=True,
                              text=True, check=True).stdout.split()
    for child in children:
        with open(f"/proc/{child}/environ", encoding="utf-8") as environment:
            found = environment.read()
        assert not re.search("NOTIFY_SOCKET|WATCHDOG|LISTEN_", found)
