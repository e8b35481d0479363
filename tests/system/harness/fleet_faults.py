"""Faults that a fleet must bear, one after the other and several at once, as a seed says.

At no time may a console have two connections; when the faults are over, each must have one.
"""

import random
import signal
import subprocess
import time
from typing import Callable

from harness import settings
from harness.fleet import Fleet, FleetStation
from harness.waiting import stretched, wait_until

Undo = Callable[[], None]
RECOVERY = 60.0  # seconds until everything is as it should be


class FaultyFleet:
    """Does things to a fleet, and undoes them."""

    def __init__(self, fleet: Fleet, seed: int) -> None:
        self.fleet = fleet
        self.chance = random.Random(seed)
        self.done: list[str] = []
        self._kinds = [self._stop_run, self._stop_run_and_daemon, self._kill_one, self._cut_station,
                       self._cut_etcd, self._stop_etcd, self._lose_quorum, self._kill_etcd,
                       self._fill_disk]

    def run(self, seconds: float) -> None:
        """Faults for so long; all of them are undone at the end."""
        end = time.monotonic() + seconds
        undoing: list[tuple[float, Undo]] = []
        while time.monotonic() < end:
            if len(undoing) < 2:
                kind = self.chance.choice(self._kinds)
                undo = kind()
                undoing.append((time.monotonic() + self.chance.uniform(1, 12), undo))
            self._speak(self.chance.uniform(0.3, 2))
            due = [one for one in undoing if one[0] <= time.monotonic()]
            for one in due:
                one[1]()
                undoing.remove(one)
            self.fleet.assert_never_two()
        for _, undo in undoing:
            undo()

    def assert_recovers(self) -> None:
        """Everything comes back, and nothing was ever there twice."""
        def settled() -> bool:
            return self.fleet.owners() == self.fleet.preferred()

        wait_until(settled, RECOVERY, f"each console at its station after {self.done}")
        self.fleet.assert_never_two()

    def _speak(self, seconds: float) -> None:
        """Let the consoles print for a while, so that there is something to lose."""
        until = time.monotonic() + seconds
        while time.monotonic() < until:
            name = self.chance.choice(self.fleet.names)
            self.fleet.rack.say(name, b"a line of output\r\n")
            time.sleep(0.05)

    def _station(self) -> FleetStation:
        return self.chance.choice(self.fleet.stations)

    def _note(self, what: str) -> None:
        self.done.append(what)

    # Each does something and returns what undoes it.

    def _stop_run(self) -> Undo:
        station = self._station()
        self._note(f"{station.name}: run stopped")
        station.run.signal(signal.SIGSTOP)
        # The guard ends one that has a lease; another one waits to be continued.
        return lambda: station.run.signal(signal.SIGCONT)

    def _stop_run_and_daemon(self) -> Undo:
        station = self._station()
        self._note(f"{station.name}: run and daemon stopped")
        station.daemon.signal(signal.SIGSTOP)
        station.run.signal(signal.SIGSTOP)

        def undo() -> None:
            station.daemon.signal(signal.SIGCONT)
            station.run.signal(signal.SIGCONT)
        return undo

    def _kill_one(self) -> Undo:
        station = self._station()
        process = self.chance.choice(station.processes())
        self._note(f"{station.name}: one of its processes killed")
        process.signal(signal.SIGKILL)
        return lambda: None

    def _cut_station(self) -> Undo:
        station = self._station()
        self._note(f"{station.name}: cut off")
        station.machine.cut()
        return station.machine.heal

    def _cut_etcd(self) -> Undo:
        server = self.chance.choice(self.fleet.etcd)
        self._note(f"{server.machine.name}: cut off")
        server.machine.cut()
        return server.machine.heal

    def _stop_etcd(self) -> Undo:
        server = self.fleet.leader() or self.fleet.etcd[0]
        self._note(f"{server.machine.name}: stopped")
        server.signal(signal.SIGSTOP)
        return lambda: server.signal(signal.SIGCONT)

    def _lose_quorum(self) -> Undo:
        servers = self.chance.sample(self.fleet.etcd, 2)
        self._note("no quorum")
        for server in servers:
            server.signal(signal.SIGSTOP)

        def undo() -> None:
            for server in servers:
                server.signal(signal.SIGCONT)
        return undo

    def _kill_etcd(self) -> Undo:
        server = self.chance.choice(self.fleet.etcd)
        self._note(f"{server.machine.name}: killed")
        server.end()
        cluster = [one.machine for one in self.fleet.etcd]
        server.start(cluster)
        return lambda: None

    def _fill_disk(self) -> Undo:
        station = self._station()
        self._note(f"{station.name}: disk full")
        filler = station.inside(settings.root() / "filler")
        subprocess.run(["dd", "if=/dev/zero", f"of={filler}", "bs=1M"], check=False,
                       capture_output=True)
        return lambda: filler.unlink(missing_ok=True)


def run_faults(fleet: Fleet, seed: int, seconds: float) -> list[str]:
    """Start the fleet, let the faults happen and see that it recovers; what was done."""
    fleet.start()
    wait_until(lambda: fleet.owners() == fleet.preferred(), RECOVERY, "the fleet to be at work")
    faulty = FaultyFleet(fleet, seed)
    faulty.run(seconds if seconds > 60 else stretched(seconds))
    faulty.assert_recovers()
    return faulty.done
