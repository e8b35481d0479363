"""Which checks have passed, kept in files, so that what has not changed is not checked again.

A check goes by a digest of everything that decides its outcome: whatever changes gives it another
name, and nothing that is kept can be out of date. Only a file that holds its own name counts; a
damaged one is as good as none. Failures are not kept.
"""

import contextlib
import hashlib
import os
from pathlib import Path

AT_MOST = 1000  # those of a few branches


def digest(*parts: bytes) -> str:
    """One name for all of the parts; where one ends and the next begins counts too."""
    whole = hashlib.sha256()
    for part in parts:
        whole.update(b"%d\n" % len(part) + part)
    return whole.hexdigest()


class KeptPasses:
    """The checks that are known to pass."""

    def __init__(self, directory: Path) -> None:
        self._directory = directory
        directory.mkdir(parents=True, exist_ok=True)

    def has(self, name: str) -> bool:
        file = self._directory / name
        try:
            if file.read_bytes() != name.encode():
                return False
            os.utime(file)  # it is in use
            return True
        except OSError:
            return False

    def add(self, name: str) -> None:
        (self._directory / name).write_text(name)

    def forget_oldest(self) -> None:
        """Leave only those that were used last."""
        with contextlib.suppress(FileNotFoundError):  # another run is at it
            files = sorted(self._directory.iterdir(), key=lambda file: file.stat().st_mtime_ns)
            for file in files[:-AT_MOST]:
                file.unlink()
