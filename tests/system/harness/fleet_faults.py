"""Faults that a fleet must bear, one after the other and several at once, as a seed says.

At no time may a console have two connections; when the faults are over, each must have one, and
the streams must have what is in the journals: all of it, and nothing twice.
"""

import contextlib
import random
import signal
import subprocess
import time
from typing import Callable

from harness import settings
from harness.clock import ShiftedClock
from harness.fleet import SITE, Fleet, FleetStation
from harness.nats import Message, NatsError, NatsServer, assert_each_once
from harness.realm import Machine
from harness.waiting import stretched, wait_until
from journal_reader import read_journal
from journal_writer import Kind

Undo = Callable[[], None]
RECOVERY = 60.0  # seconds until everything is as it should be


class FaultyFleet:
    """Does things to a fleet that ships, and undoes them; `clocks` are those of its stations."""

    def __init__(self, fleet: Fleet, seed: int, clocks: list[ShiftedClock]) -> None:
        self.fleet = fleet
        self.clocks = dict(zip(fleet.stations, clocks))
        self.chance = random.Random(seed)
        self.done: list[str] = []
        self._kinds = [self._stop_run, self._stop_run_and_daemon, self._kill_one, self._cut_station,
                       self._cut_server, self._stop_etcd, self._lose_quorum, self._kill_etcd,
                       self._fill_disk, self._step_clock, self._stop_nats, self._kill_nats,
                       self._wipe_stream]

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
        for station in self.fleet.stations:
            shipped = wait_until(lambda one=station: all_shipped(self.fleet, one), RECOVERY,
                                 f"the journal of {station.name} in its stream, {self.done}")
            assert_as_in_journal(shipped, station)

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

    def _cut(self, machine: Machine) -> Undo:
        way = self.chance.choice(("from", "to", "both"))
        self._note(f"{machine.name}: cut off ({way})")
        if way == "both":
            machine.cut()
        else:
            machine.cut_one_way(way)
        return machine.heal

    def _cut_station(self) -> Undo:
        return self._cut(self._station().machine)

    def _cut_server(self) -> Undo:
        return self._cut(self.chance.choice(self.fleet.etcd).machine)

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


    def _step_clock(self) -> Undo:
        station = self._station()
        seconds = self.chance.choice((-1, 1)) * self.chance.choice((1, 60, 3600, 86400))
        self._note(f"{station.name}: clock set by {seconds} s")
        self.clocks[station].shift(seconds)
        return lambda: self.clocks[station].shift(0)

    def _nats(self) -> NatsServer:
        return self.chance.choice(self.fleet.nats.servers)

    def _stop_nats(self) -> Undo:
        server = self._nats()
        self._note(f"{server.name}: stopped")
        server.process.send_signal(signal.SIGSTOP)
        return lambda: server.process.send_signal(signal.SIGCONT)

    def _kill_nats(self) -> Undo:
        server = self._nats()
        self._note(f"{server.name}: killed")
        server.kill()
        server.start(wait=False)
        return lambda: None

    def _wipe_stream(self) -> Undo:
        stream = f"{SITE}+{self._station().name}"
        self._note(f"{stream}: wiped")
        # It may be that nobody can, with what else happens.
        with contextlib.suppress(OSError, NatsError), self._nats().client() as client:
            client.api(f"STREAM.DELETE.{stream}")
        return lambda: None


def all_shipped(fleet: Fleet, station: FleetStation) -> list[Message] | None:
    """What the station's stream has, once that reaches up to the end of the journal."""
    stream = f"{SITE}+{station.name}"
    last = journal_of(station)[-1].number
    with contextlib.suppress(OSError, NatsError):
        with fleet.nats.leader_of(stream).client() as client:
            end = client.state(stream)["last_seq"]
            if [one.record for one in client.messages(stream, first=end)] == [last]:
                return client.messages(stream)
    return None


def journal_of(station: FleetStation) -> list:
    """The records of its journal."""
    return read_journal(station.inside(settings.root() / "journal"), strict=False).records


def assert_as_in_journal(shipped: list[Message], station: FleetStation) -> None:
    """The stream has every record once, in order, and each output as it was; no gap is marked."""
    assert_each_once(shipped)
    assert [one for one in shipped if "Zev-Gap" in one.headers] == []
    records = [one for one in journal_of(station) if one.number <= shipped[-1].record]
    assert [one.record for one in shipped] == [one.number for one in records]
    outputs = [one.data for one in shipped if one.subject.endswith(".out")]
    assert outputs == [one.payload for one in records if one.kind == Kind.OUTPUT]


def run_faults(fleet: Fleet, seed: int, seconds: float) -> list[str]:
    """Start the fleet, let the faults happen and see that it recovers; what was done."""
    clocks = []
    for station in fleet.stations:
        place = fleet.scratch / f"{station.name}.clock"
        place.mkdir()
        clocks.append(ShiftedClock(place))
    fleet.start([clock.env for clock in clocks])
    wait_until(lambda: fleet.owners() == fleet.preferred(), RECOVERY, "the fleet to be at work")
    faulty = FaultyFleet(fleet, seed, clocks)
    faulty.run(seconds if seconds > 60 else stretched(seconds))
    faulty.assert_recovers()
    return faulty.done
