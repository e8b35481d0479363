"""The bare Debian that every machine starts from, made once and kept below build/."""

import fcntl
import hashlib
import os
import shutil
import subprocess
import uuid
from pathlib import Path

from machines import packages

SUITE = "bookworm"
PLACE = packages.BUILD / "package-tests"

# What a minimal Debian with systemd has, and what the tests use in a machine.
_ALWAYS = {"dbus", "init-system-helpers", "libpam-modules", "login", "passwd", "procps",
           "systemd", "systemd-sysv"}


def root() -> Path:
    """The root directory, with all that the packages under test need from Debian.

    Installing them then needs no network.
    """
    included = sorted(_ALWAYS | packages.wanted())
    key = hashlib.sha256(" ".join([SUITE, *included]).encode()).hexdigest()[:16]
    base = PLACE / f"base-{key}"
    PLACE.mkdir(parents=True, exist_ok=True)
    with open(PLACE / "lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not base.is_dir():
            _make(base, included)
    return base


def _mirror() -> list[str]:
    """Where apt gets Debian from; nothing, for debootstrap's own choice, when it does not say."""
    shown = subprocess.run(["apt-get", "indextargets", "--format", "$(SITE)", "Origin: Debian",
                            f"Release: {SUITE}", "Component: main", "Created-By: Packages"],
                           capture_output=True, text=True, check=False)
    return shown.stdout.splitlines()[:1]


def _make(base: Path, included: list[str]) -> None:
    for old in PLACE.glob("base-*"):
        shutil.rmtree(old)
    cache = PLACE / "archives"
    cache.mkdir(exist_ok=True)
    unfinished = PLACE / f"base-unfinished-{os.getpid()}"
    done = subprocess.run(["debootstrap", "--variant=minbase", f"--cache-dir={cache}",
                           f"--include={','.join(included)}", SUITE, unfinished,
                           *_mirror()],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    assert done.returncode == 0, f"debootstrap failed:\n{done.stdout[-3000:]}"
    for archive in (unfinished / "var/cache/apt/archives").glob("*.deb"):
        archive.unlink()
    (unfinished / "etc/machine-id").write_text(f"{uuid.uuid4().hex}\n")
    # There is no network to wait for, as a service that comes along with a package asks it to.
    (unfinished / "etc/systemd/system/systemd-networkd-wait-online.service").symlink_to("/dev/null")
    unfinished.rename(base)
