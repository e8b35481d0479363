"""How long the consoles of a station that fails are without one: real daemons, real etcd.

Usage: takeover.py [ROUNDS]

Three servers of etcd, three stations and fifty consoles, each machine in namespaces of its own, as
in the system tests. A station loses all of its processes at once, or its link to the others; its
consoles count as taken over when all of them have another station's connection.
"""

import statistics
import sys
import tempfile
import time
from pathlib import Path
from typing import Callable

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests/system"))

from harness import isolation, settings  # noqa: E402  (found through the line above)
from harness.fleet import Fleet, FleetStation  # noqa: E402
from harness.waiting import wait_until  # noqa: E402

ROUNDS = 5
LEASES = (5, 10)  # seconds
SETTLED = 90.0
PATIENCE = 60.0


def kill(station: FleetStation) -> Callable[[], None]:
    """All of its processes at once, and nobody starts them again."""
    station.end()
    return station.start


def cut(station: FleetStation) -> Callable[[], None]:
    """Nothing reaches the others, while its consoles do reach it."""
    station.machine.cut()
    return station.machine.heal


FAULTS = {"all its processes are killed": kill, "its link to the others is cut": cut}


def settle(fleet: Fleet) -> None:
    """Each console is at its own station."""
    wait_until(lambda: fleet.owners() == fleet.preferred(), SETTLED, "each console at its station")


def measure(fleet: Fleet, station: FleetStation, fail: Callable) -> float:
    """Seconds from the failure until others have all consoles of the station."""
    lost = [name for name, owner in fleet.preferred().items() if owner == station.name]
    begin = time.monotonic()
    undo = fail(station)

    def taken_over() -> bool:
        owners = fleet.owners()
        return all(owners[name] not in (None, station.name) for name in lost)

    wait_until(taken_over, PATIENCE, "others to have the consoles")
    seconds = time.monotonic() - begin
    undo()
    settle(fleet)
    fleet.assert_never_two()
    return seconds


def with_lease(scratch: Path, lease: int, rounds: int) -> None:
    """All faults with one length of the lease."""
    fleet = Fleet(scratch, 3, 50, etcds=3)
    try:
        for station in fleet.stations:
            station.configure([server.url for server in fleet.etcd], {"lease_seconds": lease})
        fleet.start()
        settle(fleet)
        for what, fail in FAULTS.items():
            taken = [measure(fleet, fleet.stations[number % 3], fail) for number in range(rounds)]
            print(f"lease of {lease:2} s, {what}: median {statistics.median(taken):.1f} s, "
                  f"{min(taken):.1f} to {max(taken):.1f} s in {rounds} rounds", flush=True)
    finally:
        fleet.end()


def main() -> None:
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else ROUNDS
    mount_point = isolation.MountPoint(settings.root())
    mount_point.hold()
    isolation.adopt_orphans()
    isolation.enter_private_namespaces(settings.root())
    try:
        for lease in LEASES:
            with tempfile.TemporaryDirectory() as scratch:
                with_lease(Path(scratch), lease, rounds)
    finally:
        mount_point.release()


if __name__ == "__main__":
    main()
