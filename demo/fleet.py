"""The demo of a fleet: two stations, a user who is attached, and a station that dies.

Everything runs in namespaces of its own. The consoles and stations are those of the system tests;
nsenter takes the place of ssh.
"""

import sys
import tempfile
import time
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPOSITORY / "tests/system"))

from harness import isolation, settings
from harness.fleet import TAKE_OVER, Fleet
from harness.operators import Operator, Seat, reach
from harness.waiting import NotReached, wait_until
from steps import heading

START = 40.0


def show(words: str, output: str) -> None:
    """A command and what it said."""
    print(f"$ {words}\n{output}", flush=True)


def tour(fleet: Fleet, scratch: Path) -> None:
    """What happens."""
    heading("Two stations, four consoles, and etcd, which says who has what")
    fleet.start()
    wait_until(lambda: fleet.owners() == fleet.preferred(), START, "each console at its station")
    here, there = fleet.stations
    wait_until(lambda: here.mapped() == fleet.preferred(), what="the map")
    show("zevfleet status", here.fleet("status").stdout)
    operator = Operator(fleet, here, str(reach(fleet, scratch)))
    show("zevctl --fleet list", operator.succeed("list"))

    heading("At st1, somebody attaches to box02, which st2 has")
    seat = Seat(operator, "attach", "box02")
    wait_until(lambda: there.users("box02") == 1, what="the user to be attached")
    fleet.rack.say("box02", b"box02 login: ")
    seat.wait(b"box02 login: ")
    print("attached; the console says: box02 login:")

    heading("st2 dies")
    begun = time.monotonic()
    there.end()
    seat.wait(b"[zevctl: box02 is at station st1 now]", TAKE_OVER + 5)
    wait_until(lambda: here.users("box02") == 1, what="the user to be attached again")
    print(f"[zevctl: box02 is at station st1 now]   after {time.monotonic() - begun:.1f} seconds")
    seat.type(b"root\r")
    wait_until(lambda: b"root" in fleet.rack["box02"].typed, what="the keys at the console")
    print("the user types on, and the console has the keys")
    seat.end()
    fleet.wait_owned(["st1"], TAKE_OVER)
    wait_until(lambda: set(here.mapped().values()) == {"st1"}, what="the map")
    show("zevfleet status", here.fleet("status", check=False).stdout)
    fleet.assert_never_two()
    print("No console has had two connections at any time.")


def main() -> int:
    """Make room, take the tour, and leave nothing behind."""
    mount_point = isolation.MountPoint(settings.root())
    mount_point.hold()
    isolation.adopt_orphans()
    try:
        isolation.enter_private_namespaces(settings.root())
        with tempfile.TemporaryDirectory() as scratch:
            fleet = Fleet(Path(scratch), 2, 4)
            try:
                tour(fleet, Path(scratch))
            finally:
                fleet.end()
    except (OSError, NotReached, AssertionError) as error:
        print(f"demo: {error}", file=sys.stderr)
        return 1
    finally:
        mount_point.release()
    return 0


if __name__ == "__main__":
    sys.exit(main())
