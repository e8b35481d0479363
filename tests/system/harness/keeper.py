"""zevkeep, run on a journal that a test has written."""

import os
import subprocess
from pathlib import Path

from harness import settings
from harness.station import assert_no_sanitizer_report
from harness.waiting import LIMIT, stretched

PROGRAM = settings.build_directory() / "bin" / "zevkeep"


def keep(*arguments: str, status: int = 0, **options) -> subprocess.CompletedProcess[str]:
    """Make a pass and see that it ends with the status."""
    done = subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, check=False,
                          timeout=stretched(2 * LIMIT), **options)
    assert_no_sanitizer_report(done.stderr)
    assert done.returncode == status, done
    return done


def names(directory: Path) -> list[str]:
    """The journal's files, with short numbers: "3.seg"."""
    return sorted(name.lstrip("0") for name in os.listdir(directory))


def unpacked(path: Path) -> bytes:
    """What the zstd program makes of a compressed segment."""
    return subprocess.run(["zstd", "-dc", path], capture_output=True, check=True).stdout
