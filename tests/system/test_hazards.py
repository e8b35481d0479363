"""Traps of the design: cancelled logins, the end of the process, many and inherited descriptors."""

import contextlib
import os
import re
import resource
import select
import signal
import socket
import threading
import time
from pathlib import Path

import pytest

from harness.access import READY, bring_up, pending, reload, seeded
from harness.consoles import FakeConsole
from harness.debuglog import messages
from harness.peers import OFFERS, User
from harness.scenes import NO_LEAK_CHECK, attach_when_accessible
from harness.station import Station, console_line
from harness.waiting import free_port, is_listening, stretched, wait_listening, wait_until

O_CLOEXEC = 0o2000000

STORM_ROUNDS = 40
SUDDEN_ENDS = 30
CROWD = 1100


# Ports that are dropped while logins are pending on them


class Storm:
    """Threads of callers that connect to a port, send or stay silent, leave and come again."""

    WAYS = ("silent", "line", "half a line", "line and leave", "leave", "reset")

    def __init__(self, port: int, callers: int) -> None:
        self.port = port
        self._over = threading.Event()
        self._threads = [threading.Thread(target=self._call, args=[number], daemon=True)
                         for number in range(callers)]
        for thread in self._threads:
            thread.start()

    def _call(self, number: int) -> None:
        while not self._over.is_set():
            try:
                with socket.create_connection(("127.0.0.1", self.port), stretched(5)) as caller:
                    self._behave(caller, self.WAYS[number % len(self.WAYS)])
            except OSError:
                continue
            number += 1

    def _behave(self, caller: socket.socket, way: str) -> None:
        caller.settimeout(stretched(0.2))
        if "line" in way:
            caller.sendall(b"x" if "half" in way else b"x\n")
        if way == "reset":
            caller.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        if "leave" not in way and way != "reset":
            with contextlib.suppress(TimeoutError):
                while caller.recv(4096):
                    pass

    def end(self) -> None:
        """End the callers."""
        self._over.set()
        for thread in self._threads:
            thread.join(stretched(20))
            assert not thread.is_alive()


class Echo:
    """A console that echoes what is typed, and two users of it who see each other's keys."""

    def __init__(self, station: Station, console: FakeConsole) -> None:
        self.console = console
        self.users = [station.attach(console.name), station.attach(console.name)]

    def works(self) -> None:
        """One of the users types; both see it at once, and only once."""
        self.users[0].send(b"key")
        self.console.expect_exactly(b"key", limit=5)
        self.console.send(b"key")
        for user in self.users:
            user.expect_exactly(b"key", limit=5)


def configuration(main_box: FakeConsole, box: FakeConsole, port: int) -> str:
    """The configuration with both consoles, the second with this port."""
    return (console_line("main", main_box.port)
            + console_line("box", box.port, mapped_port=port))


@pytest.fixture
def two_boxes(station):
    """Brings up the consoles "main" and "box"; returns them and the port of "box"."""
    port = free_port()
    main_box, box = station.console("main"), station.console("box", mapped_port=port)

    def start(*options: str) -> tuple[FakeConsole, FakeConsole, int]:
        bring_up(station, main_box, box, options=options)
        wait_listening(port)
        return main_box, box, port

    return start


def test_a_storm_of_reloads_may_drop_and_reopen_a_port(station, two_boxes):
    main_box, box, port = two_boxes()
    echo = Echo(station, main_box)
    before = (station.descriptors(), station.threads())
    storm = Storm(port, 8)
    for number in range(STORM_ROUNDS):
        station.write_config(configuration(main_box, box, port if number % 2 else 0))
        station.signal(signal.SIGHUP)
        echo.works()
        newcomer = station.attach("main", "ro", user=f"newcomer{number}")
        main_box.send(b"[tick]")
        for user in (newcomer, *echo.users):
            user.expect_exactly(b"[tick]")
        newcomer.close()
        station.wait_log(re.compile(rf'Closing connection with user "newcomer{number}"on'))
    storm.end()
    reload(station, configuration(main_box, box, 0), waker=box)
    wait_until(lambda: not is_listening(port), what="the port to close")
    said = station.log_text()
    assert said.count("CleanUpStalePorts: Closing connection for mapped port") > STORM_ROUNDS // 8
    assert "Entering ServiceConnectionRequestThreadCleanUp\n" in said
    wait_until(lambda: station.descriptors() < before[0] and station.threads() <= before[1],
               limit=15, what=f"less than {before[0]} descriptors and {before[1]} threads")
    echo.works()


def test_logins_at_every_stage_end_with_their_port(station, two_boxes):
    main_box, box, port = two_boxes()
    echo = Echo(station, main_box)
    for _ in range(5):
        silent, leaving = pending(station, port, 2)
        leaving.close()
        attached = station.mapped(port)
        attached.expect(b"in shared mode.\r\n\n")
        in_between = station.caller(port)
        refused_or_closed = [station.caller(port) for _ in range(4)]
        station.write_config(configuration(main_box, box, 0))
        station.signal(signal.SIGHUP)
        main_box.send(b".")
        with contextlib.suppress(OSError):
            in_between.send(b"\n")
        silent.expect_closed()
        wait_until(lambda: not is_listening(port), what="the port to close")
        for caller in refused_or_closed:
            wait_until(lambda: caller.closed, what="every caller to be answered")
        for user in echo.users:
            user.expect_exactly(b".")
        echo.works()
        attached.send(b"typed")
        box.expect_exactly(b"typed")
        reload(station, configuration(main_box, box, port), waker=box)
        attached.close()
        in_between.close()


def test_a_cancelled_login_never_closes_the_descriptor_of_a_stranger(station, two_boxes):
    """The number may be used again as soon as it is closed, so it must not be closed twice."""
    main_box, box, port = two_boxes()
    for number in range(1, 7):
        callers = pending(station, port, 5)
        reload(station, configuration(main_box, box, 0), waker=box)
        for caller in callers:
            caller.expect_closed()
        strangers = [station.ask("main") for _ in range(5)]
        for stranger in strangers:
            stranger.expect_exactly(OFFERS)
        reload(station, configuration(main_box, box, port), waker=box)
        main_box.send(b"[seen]")
        for stranger in strangers:
            stranger.expect_exactly(b"[seen]")
            stranger.close()
        station.wait_log(re.compile("^CleanUpClosedConnections: Closing"), count=5 * number)


def slow_helper(station) -> tuple[Path, Path]:
    """Installs a password helper that waits, then accepts anybody; returns its two state files."""
    directory = station.root / "bin"
    directory.mkdir()
    asked, may_answer = directory / "asked", directory / "may answer"
    helper = directory / "qor_pam_auth"
    helper.write_text(f"""#!/bin/sh
cat > '{asked}'
while [ ! -e '{may_answer}' ]; do sleep 0.02; done
""")
    helper.chmod(0o755)
    return asked, may_answer


def test_login_dialogues_at_every_stage_end_with_their_port(station):
    port = free_port()
    box = station.console("box", mapped_port=port, auth=1)
    bring_up(station, box, options=("-S", "1"))
    asked, may_answer = slow_helper(station)
    before = (station.descriptors() - 1, station.threads())
    silent, half_a_name, at_password, half_a_password, checked = [
        station.caller(port) for _ in range(5)]
    for caller in (silent, half_a_name, at_password, half_a_password, checked):
        caller.expect(b"username: ")
    half_a_name.send(b"ro")
    half_a_name.expect_exactly(b"ro")
    for caller in (at_password, half_a_password, checked):
        caller.send(b"root\r")
        caller.expect(b"password: ")
    half_a_password.send(b"sec\x7f")
    half_a_password.expect(b"\b \b")
    checked.send(b"secret\r")
    wait_until(lambda: asked.exists() and asked.read_text() == "root secret", what="the helper")
    reload(station, console_line("box", box.port), waker=box)
    for caller in (silent, half_a_name, at_password, half_a_password):
        caller.expect_closed()
    may_answer.touch()
    wait_until(lambda: checked.closed or b"in shared mode" in checked.received,
               what="the last caller to be attached or closed")
    checked.close()
    wait_until(lambda: station.descriptors() <= before[0] and station.threads() <= before[1],
               what=f"no more than {before} descriptors and threads")


def test_a_dropped_port_does_not_wait_for_its_logins(station, two_boxes):
    main_box, box, port = two_boxes()
    pending(station, port, 5)
    start = time.monotonic()
    reload(station, configuration(main_box, box, 0), waker=box)
    wait_until(lambda: not is_listening(port), what="the port to close")
    assert time.monotonic() - start < stretched(5)


# SIGTERM


def load(station: Station, box: FakeConsole, port: int) -> list[User]:
    """Start users at every stage, keys, output and a reload, all at the same time."""
    users = [attach_when_accessible(station, "box")]
    users += [station.ask("box", mode) for mode in ("ro", "sh", "sh")]
    users += [station.mapped(port), station.caller(port), station.caller()]
    box.flood(b"console output\r\n" * 64, 64)
    users[0].flood(b"keys\r\n" * 64, 64)
    station.write_config(console_line("box", box.port))
    station.signal(signal.SIGHUP)
    return users


@pytest.mark.parametrize("level", ["0", "3"])
def test_sigterm_under_load_always_ends_it_at_once(station, level):
    moments = seeded()
    for _ in range(SUDDEN_ENDS // 2):
        port = free_port()
        station.write_config("")
        box = station.console("box", greeting=READY, mapped_port=port)
        position = station.mark()
        station.start("-d", level, env=NO_LEAK_CHECK)
        box.accept()
        wait_listening(port)
        users = load(station, box, port)
        moment = time.monotonic() + moments.uniform(0, 0.15)
        while time.monotonic() < moment:
            users[2].send(b"k")
        station.stop()
        said = messages(station.log_text(position))
        assert said.count("Received SIGTERM.\n") == 1
        traces = [text for text in said[said.index("Received SIGTERM.\n"):]
                  if re.fullmatch(r"Exiting with code 1 from file \S+ line \d+\n", text)]
        assert len(traces) == (1 if level == "3" else 0)
        for user in users:
            user.close()
        box.shut()


@pytest.mark.parametrize("count", [2, 20])
def test_more_than_one_sigterm_ends_it_once(station, count):
    box = station.console("box")
    bring_up(station, box)
    box.flood(b"console output\r\n" * 64, 64)
    for _ in range(count):
        os.kill(station.pid, signal.SIGTERM)
    station.expect_exit(1)
    assert "Received SIGTERM.\n" in messages(station.log_text())


# Descriptors


@pytest.fixture
def many_descriptors():
    """Raises this process's limit for a crowd, after the daemon was started with the usual one."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (1024, hard))
    yield lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


class Crowd:
    """Users on plain sockets, read by one poll loop."""

    def __init__(self, port: int, line: bytes, count: int) -> None:
        self.sockets = []
        for _ in range(count):
            caller = socket.create_connection(("127.0.0.1", port), stretched(10))
            caller.sendall(line)
            self.sockets.append(caller)

    def expect_exactly(self, data: bytes) -> None:
        """The data is the next thing that each of them gets."""
        got = {caller.fileno(): b"" for caller in self.sockets}
        by_descriptor = {caller.fileno(): caller for caller in self.sockets}
        waiting = select.poll()
        for descriptor in got:
            waiting.register(descriptor, select.POLLIN)
        deadline = time.monotonic() + stretched(20)
        while any(text != data for text in got.values()):
            assert time.monotonic() < deadline, set(got.values())
            for descriptor, _ in waiting.poll(100):
                piece = by_descriptor[descriptor].recv(len(data) - len(got[descriptor]))
                assert piece, "one of the crowd was closed"
                got[descriptor] += piece
                assert data.startswith(got[descriptor]), got[descriptor]
                if got[descriptor] == data:
                    waiting.unregister(descriptor)

    def close(self) -> None:
        """All of them leave."""
        for caller in self.sockets:
            caller.close()


def highest_descriptor(station) -> int:
    """The highest descriptor that the daemon has open."""
    return max(int(name) for name in os.listdir(f"/proc/{station.pid}/fd"))


def test_a_console_may_have_more_than_a_thousand_users(station, many_descriptors):
    box = station.console("box")
    station.start("-d", "1")
    many_descriptors()
    box.accept()
    attach_when_accessible(station, "box").close()
    station.wait_log(re.compile("^CleanUpClosedConnections: Closing connection with user"))
    before = station.descriptors()
    crowd = Crowd(station.port, b"box\n", CROWD)
    crowd.expect_exactly(OFFERS)
    station.wait_log(re.compile("^ConnectUserToConsole: Connected user "), count=CROWD + 1)
    assert highest_descriptor(station) > 1024
    box.send(b"to everybody")
    crowd.expect_exactly(b"to everybody")
    for caller in (crowd.sockets[0], crowd.sockets[-1]):
        caller.sendall(b"from one of them")
        box.expect_exactly(b"from one of them")
    silent = Crowd(station.port, b"", 40)
    for caller in reversed(silent.sockets):
        caller.sendall(b"box\n")
    silent.expect_exactly(OFFERS)
    silent.close()
    late = station.attach("box")
    late.send(b"late")
    box.expect_exactly(b"late")
    crowd.close()
    wait_until(lambda: station.descriptors() <= before + 1, limit=30,
               what="the crowd's descriptors to be closed")
    late.send(b"alone")
    box.expect_exactly(b"alone")


def test_every_descriptor_is_closed_on_exec(station, two_boxes):
    main_box, _, port = two_boxes()
    users = [station.attach("main"), station.mapped(port)]
    users[1].expect(b"in shared mode.\r\n\n")
    pending(station, port, 1)
    pending(station, station.port, 1)
    assert main_box.socket and station.descriptors() >= 3 + 1 + 2 + 2 + 2 + 2 + 2
    open_to_children = {}
    for name in os.listdir(f"/proc/{station.pid}/fd"):
        with open(f"/proc/{station.pid}/fdinfo/{name}", encoding="ascii") as info:
            flags = next(int(line.split()[1], 8) for line in info if line.startswith("flags:"))
        if not flags & O_CLOEXEC:
            open_to_children[int(name)] = os.readlink(f"/proc/{station.pid}/fd/{name}")
    assert set(open_to_children) == {0, 1, 2}, open_to_children
