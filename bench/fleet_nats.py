"""What many stations that ship at once cost one server of NATS.

Usage: fleet_nats.py [STATIONS]

All of them ship the same journal, each to the stream of its own. First everything that is in it,
as quickly as they can; then they stay connected while it does not grow.
"""

import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests/system"))

from fleet_scale import Cost  # noqa: E402
from harness import isolation, settings  # noqa: E402  (found through the line above)
from harness.nats import SITE, NatsServer  # noqa: E402
from harness.ship import Ship, wait_shipped  # noqa: E402
from journal_writer import JournalWriter  # noqa: E402

STATIONS = 100
RECORDS = 4000
LINES = 25  # of a record, as a console prints them at once
LINE = b"a line of eighty bytes, as a console prints it while its system starts or stops\n"
PATIENCE = 300.0
AT_REST = 20.0  # seconds that are measured


def fill(directory: Path) -> int:
    """A journal; how many records it has."""
    with JournalWriter(directory) as journal:
        console = journal.console("web")
        for _ in range(RECORDS):
            journal.output(console, LINE * LINES)
    return RECORDS + 1


def measure(scratch: Path, count: int) -> None:
    """Print the figures."""
    nats = NatsServer(scratch, limit="8GB").start()
    ships = []
    try:
        for number in range(count):
            place = scratch / f"st{number}"
            place.mkdir()
            ship = Ship(place, [nats.url])
            ship.station, ship.journal = f"st{number}", scratch / "journal"
            ships.append(ship)
        records = fill(scratch / "journal")
        cost, begin = Cost(nats.process.pid), time.monotonic()
        for ship in ships:
            ship.start()
        own = Cost(ships[0].process.pid)
        for ship in ships:
            wait_shipped(nats, records, f"{SITE}+{ship.station}", PATIENCE)
        seconds = time.monotonic() - begin
        lines = RECORDS * LINES * count
        each = 1e6 * own.seconds / (RECORDS * LINES)
        print(f"{count} stations: {lines / seconds:,.0f} lines a second, "
              f"{records * count / seconds:,.0f} messages; the server has {cost.mebibytes:.0f} MiB "
              f"and used {cost.share:.0f} % of a core; a line takes its station {each:.2f} us of "
              "the processor", flush=True)
        cost, own = Cost(nats.process.pid), Cost(ships[0].process.pid)
        time.sleep(AT_REST)
        print(f"  at rest: the server {cost.share:.1f} % of a core, {cost.mebibytes:.0f} MiB; "
              f"each that ships {own.share:.1f} %, {own.mebibytes:.0f} MiB", flush=True)
    finally:
        for ship in ships:
            ship.close()
        nats.close()


def main() -> None:
    mount_point = isolation.MountPoint(settings.root())
    mount_point.hold()
    isolation.adopt_orphans()
    isolation.enter_private_namespaces(settings.root())
    try:
        with tempfile.TemporaryDirectory(dir="/dev/shm") as scratch:
            measure(Path(scratch), int(sys.argv[1]) if len(sys.argv) > 1 else STATIONS)
    finally:
        mount_point.release()


if __name__ == "__main__":
    main()
