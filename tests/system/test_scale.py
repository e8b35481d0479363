"""Many at once: thousands of consoles and users, racks without power, and nothing left behind."""

import signal
from contextlib import ExitStack

import pytest

from harness import zevctl
from harness.commands import Tool
from harness.consoles import FakeConsole
from harness.farm import Crowd, Farm, hanging_port, most_consoles, receive
from harness.peers import OFFERS
from harness.scenes import Usage, assert_flat, attach_when_accessible, connected
from harness.station import console_line
from harness.waiting import free_port, wait_until

CONSOLES = 10000
USERS = 2000
USERS_ON_ONE = 1100
VISITS = 5000
DOWN = 2000


def states(tool: Tool) -> list[str]:
    """The state of every console."""
    return [record[6] for record in tool.command("console").records]


def write_farm(station, farm: Farm, extra: str = "") -> None:
    """Configure the farm's consoles, each with a mapped port."""
    lines = farm.lines().splitlines(True)
    first = 1025
    mapped = [line.replace(f" {farm.port} 23 0 ", f" {farm.port} 23 {first + number} ")
              for number, line in enumerate(lines)]
    assert mapped[0] != lines[0]
    station.write_config("".join(mapped) + extra)


@pytest.mark.slow
@pytest.mark.needs_namespace
def test_thousands_of_consoles_may_have_a_port_and_a_log_each(station):
    count = most_consoles(CONSOLES)
    with Farm(count) as farm:
        write_farm(station, farm)
        station.start("-d", "0", "-p", "60000")
        tool = Tool(station, wait=False)
        wait_until(lambda: states(tool).count("0") == count, 60, f"{count} consoles")
        farm.print_everywhere(b"one line\n")
        logs = station.logs / "zev.dated/current"
        last = logs / f"{farm.names[-1]}.log"
        wait_until(lambda: b"one line\n" in last.read_bytes(), what="the last console's log")
        wait_until(lambda: sum(b" one line\n" in (logs / f"{name}.log").read_bytes()
                               for name in farm.names) == count, 30, "the line in every log")
        user = attach_when_accessible(station, farm.names[count // 2])
        user.send(b"typed")
        user.expect(b"typed")
        user.close()
        # With one more console, no connection is lost.
        more = station.console("more")
        write_farm(station, farm, console_line("more", more.port))
        station.signal(signal.SIGHUP)
        wait_until(lambda: len(states(tool)) == count + 1, 60, "the reload")
        more.accept()
        assert farm.connected == farm.accepted == count
        assert len(zevctl.data(station, "list", "c1*")) == sum(
            name.startswith("c1") for name in farm.names)


@pytest.mark.slow
def test_two_thousand_users_may_be_attached_at_once(station):
    box, other = station.console("box"), station.console("other")
    station.start("-d", "1")
    for name, console in (("box", box), ("other", other)):
        connected(station, console, name)
    before = Usage.of(station)
    with Crowd(station) as crowd:
        for number in range(USERS):
            crowd.come("box" if number < USERS_ON_ONE else "other", mode="ro")
        for user in crowd.sockets:
            receive(user, OFFERS)
        box.send(b"to very many")
        for user in crowd.sockets[:USERS_ON_ONE]:
            assert receive(user, b"to very many") == b"to very many"
        assert len(zevctl.data(station, "who", "box")) == USERS_ON_ONE
        assert len(zevctl.data(station, "who", "other")) == USERS - USERS_ON_ONE
    assert_flat(station, before, memory=8 << 20)


@pytest.mark.slow
def test_thousands_of_visits_leave_nothing_behind(station):
    box = station.console("box")
    station.start("-d", "1")
    connected(station, box, "box")
    before = None
    for _ in range(VISITS // 50):
        with Crowd(station) as crowd:
            for _ in range(50):
                crowd.come("box")
            for user in crowd.sockets:
                receive(user, OFFERS)
        if before is None:
            wait_until(lambda: zevctl.data(station, "who") == [], what="the first to be gone")
            before = Usage.of(station)
    assert_flat(station, before, memory=4 << 20)


@pytest.mark.slow
def test_racks_without_power_disturb_nobody(station):
    """Thousands of connects that hang or are refused; the healthy consoles do not notice."""
    hanging, kept = hanging_port()
    refusing = free_port()
    healthy: list[FakeConsole] = []
    with ExitStack() as undo:
        for sock in kept:
            undo.callback(sock.close)
        lines = [console_line(f"{kind}{number}", port, address=Farm.address(number))
                 for kind, port in (("hang", hanging), ("refuse", refusing))
                 for number in range(DOWN)]
        station.write_config("".join(lines))
        for number in range(10):
            healthy.append(station.console(f"up{number}"))
        station.start("-d", "0")
        for console in healthy:
            console.accept()
        tool = Tool(station, wait=False)

        def settled() -> bool:
            found = states(tool)
            return (found.count("0"), found.count("3"), found.count("4")) == (10, DOWN, DOWN)

        wait_until(settled, 30, "ten connected, the others refused and connecting")
        for number, console in enumerate(healthy):
            user = attach_when_accessible(station, f"up{number}")
            user.send(b"typed")
            console.expect(b"typed")
            user.close()
        station.signal(signal.SIGHUP)
        wait_until(lambda: states(tool).count("0") == 10, what="the consoles after a reload")
        assert not any(console.called() for console in healthy)
