"""The daemon, the journal's keeper and the client on a disk that is too small for them."""

import base64
import os
import random
import re
import subprocess
from pathlib import Path

import pytest

from harness import settings, zevctl
from harness.commands import Tool
from harness.isolation import mount_tmpfs
from harness.waiting import wait_until

pytestmark = pytest.mark.needs_namespace

MEBIBYTE = 1 << 20
ROOM = 24 * MEBIBYTE
FIRST = 13 * MEBIBYTE  # what the first run prints; compressed, it takes three quarters of that
QUEUE = 8 * MEBIBYTE  # what the daemon keeps while it cannot write
SECOND = ROOM + 2 * QUEUE
READY = b"ready\r\n"
LAST = b"once more\r\n"
KEY = 60  # bytes that occur once in what is printed
LIMIT = 30.0
GAP = re.compile(r"gap: (\d+) records? \((\d+) bytes?\) could not be kept from \S+ \S+ to \S+ \S+: "
                 "No space left on device")


def lines(count: int, seed: int) -> bytes:
    """So many bytes of lines that hardly become smaller when they are compressed."""
    text = base64.encodebytes(random.Random(seed).randbytes(count)).replace(b"\n", b"\r\n")
    return text[:count - 2] + b"\r\n"


def keep() -> None:
    """Let the keeper do its work once."""
    done = subprocess.run([settings.build_directory() / "bin/zevkeep"], capture_output=True,
                          text=True, check=False)
    assert (done.returncode, done.stderr) == (0, ""), done


def state(station) -> dict:
    """What the daemon says of its counters."""
    told, = Tool(station, wait=False).objects("stats")
    return told


def raw() -> bytes:
    """All that the journal has of the console."""
    return subprocess.run([zevctl.PROGRAM, "history", "box", "--raw"], capture_output=True,
                          check=True).stdout


def wait_raw(place: Path, end: bytes) -> bytes:
    """The same as soon as it ends with this."""
    def found() -> bytes:
        has = raw() if any(place.glob("*.seg")) else b""
        return has if has.endswith(end) else b""

    return wait_until(found, LIMIT, f"{end!r} at the end of the journal")


def segments(directory: Path) -> list[str]:
    """The files of the journal's segments."""
    return sorted(path.name.lstrip("0") for path in directory.glob("0*"))


@pytest.fixture
def directory(station):
    """The journal's directory, a small disk of its own."""
    place = station.root / "journal"
    place.mkdir()
    mount_tmpfs(place, size=str(ROOM), mode="0750")
    (station.config / "qor.conf").write_text("ZEVD_JOURNAL=16\n")
    return place


def bring_up(station, box, directory: Path) -> None:
    """Start the daemon, and wait until what the console prints gets into the journal."""
    box.greeting = READY
    station.start("-d", "1")
    box.accept()
    wait_raw(directory, READY)


def holes(kept: bytes, printed: bytes) -> list[int]:
    """How many bytes are missing in each place; all others must be there, in their order."""
    found, place = [], 0
    while kept:
        start = printed.find(kept[:KEY], place)
        assert start >= 0, (kept[:KEY], place)
        if start > place:
            found.append(start - place)
        same = len(os.path.commonprefix((kept, printed[start:])))
        kept, place = kept[same:], start + same
    assert place == len(printed)
    return found


def test_a_full_disk_is_cleared_by_the_keeper_and_what_was_lost_is_told(station, directory):
    box = station.console("box")
    bring_up(station, box, directory)
    first = lines(FIRST, 1)
    box.flood(first, 1).join()
    wait_raw(directory, first[-100:])
    station.stop()
    keep()
    assert segments(directory) == ["1.idx", "1.seg"]

    bring_up(station, box, directory)
    keep()
    assert segments(directory) == ["1.idx", "1.seg.zst", "2.seg"]
    second = lines(SECOND, 2)
    box.flood(second, 1).join()
    wait_until(lambda: state(station)["journal"] == "stopped", LIMIT, "a journal that is full")
    wait_until(lambda: state(station)["journal_records_lost"], LIMIT, "records that are lost")
    keep()
    assert segments(directory) == ["2.seg"]
    wait_until(lambda: state(station)["journal"] == "on", LIMIT, "a journal that goes on")
    box.send(LAST)
    kept = wait_raw(directory, LAST)
    missing = holes(kept, READY + second + LAST)
    assert sum(missing) > QUEUE
    counters = state(station)
    station.stop()
    keep()

    shown = zevctl.succeed(None, "history", "box", "--users", "--no-output")
    gaps = [(int(records), int(size)) for records, size in GAP.findall(shown)]
    assert len(missing) <= len(gaps) == counters["journal_gaps"]
    assert sum(records for records, _ in gaps) == counters["journal_records_lost"]
    assert sum(size for _, size in gaps) >= sum(missing)
    assert "once more" in zevctl.succeed(None, "history", "box", "--last", "5")
    zevctl.succeed(None, "journal", "verify")
