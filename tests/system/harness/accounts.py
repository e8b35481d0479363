"""Accounts of the test's own in a private user database, for the real password helper."""

import contextlib
import ctypes
import os
import shutil
import subprocess
from pathlib import Path

import pytest

from harness import settings
from harness.helpers import private_copy
from harness.waiting import LIMIT, stretched

HELPER = settings.build_directory() / "bin" / "qor_pam_auth"
SERVICE = settings.REPOSITORY / "packaging" / "pam.d" / "qor"

UID = 64000
BLANKS = b"two  words and a blank "

# A service file by which {script} sees what PAM is told, and everybody is accepted.
REPORTING = """auth required pam_exec.so quiet {script}
account required pam_permit.so
"""


def hashed(password: bytes) -> str:
    """The password as it is stored in the shadow file."""
    crypt = ctypes.CDLL("libcrypt.so.1").crypt
    crypt.restype = ctypes.c_char_p
    return crypt(password, b"$6$rounds=1000$pepper$").decode()


class Accounts:
    """The private user database."""

    def __init__(self, passwd: Path, shadow: Path) -> None:
        self._passwd = passwd
        self._shadow = shadow
        self._count = 0

    def add(self, name: str, password: str, changed: str = "19000", rest: str = "0:99999:7:::"
            ) -> int:
        """Add an account; `password` is what the shadow file is to hold. Returns its number."""
        uid = UID + self._count
        self._count += 1
        with open(self._passwd, "a", encoding="utf-8") as passwd:
            passwd.write(f"{name}:x:{uid}:{UID}::/nonexistent:/bin/sh\n")
        with open(self._shadow, "a", encoding="utf-8") as shadow:
            shadow.write(f"{name}:{password}:{changed}:{rest}\n")
        return uid

    def set_root(self, password: str) -> None:
        """Set root's password."""
        lines = self._shadow.read_text(encoding="utf-8").splitlines()
        self._shadow.write_text("".join(
            f"root:{password}:19000:0:99999:7:::\n" if line.startswith("root:") else f"{line}\n"
            for line in lines), encoding="utf-8")


@pytest.fixture
def accounts(station, tmp_path):
    """A private user database, and the service installed for it."""
    with contextlib.ExitStack() as copies:
        passwd, shadow, services = (
            copies.enter_context(private_copy(Path(path), tmp_path))
            for path in ("/etc/passwd", "/etc/shadow", "/etc/pam.d"))
        shutil.copy2(SERVICE, services / "qor")
        made = Accounts(passwd, shadow)
        made.add("alice", hashed(BLANKS))
        yield made


def begin(pair: bytes, *before: str, **variables: str) -> subprocess.Popen:
    """Start a check of this input; `before` are words before the command."""
    process = subprocess.Popen([*before, HELPER], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, env={**os.environ, **variables})
    with contextlib.suppress(BrokenPipeError):
        process.stdin.write(pair)
        process.stdin.close()
    process.stdin = None
    return process


def ended(process: subprocess.Popen) -> int:
    """The exit status of a check, which must have printed nothing."""
    output, errors = process.communicate(timeout=stretched(2 * LIMIT))
    assert (output, errors) == (b"", b"")
    return process.returncode
