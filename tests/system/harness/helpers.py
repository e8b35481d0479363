"""The tests' own password helpers, and the machine's files that logins depend on."""

import contextlib
import os
import shutil
import subprocess
from pathlib import Path

import pytest

from harness import settings
from harness.isolation import parent_of, unmount
from harness.station import Station
from harness.waiting import wait_until

# Keeps what it reads in a file of its own and accepts what a file in "valid" holds.
KEEPING = """#!/bin/sh
kept=$(mktemp {seen}/part.XXXXXXXXXX) || exit 9
cat > "$kept"
mv "$kept" "{seen}/pair.${{kept##*.}}"
for valid in {valid}/*; do
    cmp -s "{seen}/pair.${{kept##*.}}" "$valid" && exit 0
done
exit 1
"""

# Reads the pair, says so, and ends only when something is written to the pipe.
HANGING = """#!/bin/sh
cat > /dev/null
echo $$ > {root}/hanging.part
mv {root}/hanging.part {root}/hanging
read line < {root}/release
exit 1
"""

CRASHING = """#!/bin/sh
cat > /dev/null
kill -SEGV $$
"""


class FakeHelper:
    """A password helper of the test's own, in place of the station's."""

    def __init__(self, station: Station) -> None:
        self.root = station.root
        self.path = station.root / "bin" / "qor_pam_auth"
        self._valid = station.root / "valid"
        self._seen = station.root / "seen"
        for directory in (self.path.parent, self._valid, self._seen):
            directory.mkdir()
        self.replace(KEEPING)

    def replace(self, script: str) -> None:
        """Put another program in its place; a running one is not disturbed."""
        written = self.path.with_suffix(".new")
        written.write_text(script.format(root=self.root, seen=self._seen, valid=self._valid),
                           encoding="ascii")
        written.chmod(0o755)
        written.rename(self.path)

    def accept(self, name: bytes, password: bytes) -> None:
        """Accept this pair from now on."""
        (self._valid / f"{len(os.listdir(self._valid))}").write_bytes(name + b" " + password)

    def pairs(self) -> list[bytes]:
        """What it was sent so far, in order."""
        kept = sorted(self._seen.glob("pair.*"), key=lambda path: path.stat().st_mtime_ns)
        return [path.read_bytes() for path in kept]

    def hang(self) -> None:
        """Hang in every check from now on."""
        os.mkfifo(self.root / "release")
        self.replace(HANGING)

    def wait_hanging(self) -> int:
        """Wait until a check hangs; the id of its process."""
        hanging = self.root / "hanging"
        wait_until(hanging.exists, what="the helper to hang")
        pid = int(hanging.read_text(encoding="ascii"))
        hanging.unlink()
        return pid

    def release(self) -> None:
        """Let the check that hangs end: the pair is not valid."""
        with open(self.root / "release", "w", encoding="ascii") as pipe:
            pipe.write("\n")


# The machine's own files, for one test


@contextlib.contextmanager
def private_copy(path: Path, scratch: Path):
    """Mount a copy over a file or directory, in the test's own mount namespace only."""
    assert not settings.namespaces_forbidden(), "the machine's own files must not be touched"
    copy = scratch / path.name
    if path.is_dir():
        shutil.copytree(path, copy, symlinks=True)
    else:
        shutil.copy2(path, copy)
    subprocess.run(["mount", "--bind", copy, path], check=True)
    try:
        yield copy
    finally:
        unmount(path)


class Groups:
    """A private group database without any "qoruser"."""

    def __init__(self, copy: Path) -> None:
        self.path = copy
        lines = copy.read_text(encoding="utf-8").splitlines(keepends=True)
        self._others = "".join(line for line in lines if not line.startswith("qoruser:"))
        self.write("")

    def write(self, entries: str) -> None:
        """Replace the entries of the test; all others stay."""
        self.path.write_text(self._others + entries, encoding="utf-8")


@pytest.fixture
def groups(station, tmp_path):
    """The group database of this test; taken away before the station's directory is."""
    assert station.process is None
    with private_copy(Path("/etc/group"), tmp_path) as copy:
        yield Groups(copy)


# What is left of a helper


def children_of(pid: int) -> set[int]:
    """The daemon's children, zombies included."""
    return {int(entry) for entry in os.listdir("/proc")
            if entry.isdigit() and parent_of(int(entry)) == pid}
