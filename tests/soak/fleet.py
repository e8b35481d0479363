"""A fleet to which everything happens: three servers of etcd and of NATS, three stations,
fifty consoles.

    script/soak --fleet [MINUTES [SEED]]
"""

import secrets
import sys
import tempfile
from pathlib import Path

from harness import isolation, settings
from harness.fleet import Fleet
from harness.fleet_faults import run_faults

MINUTES = 10.0


def main() -> None:
    minutes = float(sys.argv[1]) if len(sys.argv) > 1 else MINUTES
    seed = int(sys.argv[2]) if len(sys.argv) > 2 else secrets.randbelow(1 << 31)
    print(f"seed {seed}, {minutes:g} minutes", flush=True)
    mount_point = isolation.MountPoint(settings.root())
    mount_point.hold()
    isolation.adopt_orphans()
    isolation.enter_private_namespaces(settings.root())
    with tempfile.TemporaryDirectory() as scratch:
        fleet = Fleet(Path(scratch), 3, 50, etcds=3, ships=True)
        try:
            done = run_faults(fleet, seed, minutes * 60)
        finally:
            fleet.end()
            mount_point.release()
    print(f"{len(done)} faults, never two connections to a console, nothing lost")


if __name__ == "__main__":
    main()
