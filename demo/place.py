"""Where the demo's daemon keeps its files: a place of its own that is gone afterwards.

The daemon's root directory is fixed when it is built. Where the machine allows it, the demo hides
that directory behind an empty file system that only the demo's own processes see. Elsewhere, as
in a plain container, it uses a second build of the daemon whose root lies in the build tree.
"""

import contextlib
import ctypes
import os
import shutil
import sys
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(REPOSITORY / "tests/system"))

from harness import isolation, settings  # noqa: E402  (found through the line above)

FALLBACK = REPOSITORY / "build/fallback"
FALLBACK_ROOT = FALLBACK / "root"

_libc = ctypes.CDLL(None, use_errno=True)


@dataclass(frozen=True)
class Place:
    """A root directory and the build of the daemon that uses it."""

    root: Path
    preset: str
    daemon: Path
    why: str

    @property
    def client(self) -> Path:
        """The operators' client of the same build."""
        return self.daemon.with_name("zevctl")

    @property
    def web(self) -> Path:
        """The program that serves the station to browsers."""
        return self.daemon.with_name("zevweb")

    @property
    def page(self) -> Path:
        """The files of the page that it serves."""
        return self.daemon.parent.parent / "share/zevweb"

    def root_for_others(self, daemon_pid: int) -> Path:
        """The root directory as a path that leads there from outside the demo too."""
        if self.preset == "fallback":
            return self.root
        return Path(f"/proc/{daemon_pid}/root{self.root}")


def refusal() -> str:
    """Why this machine gives nobody a private mount; an empty text when it does."""
    if settings.namespaces_forbidden():
        return f"{settings.NO_NAMESPACES}=1 is set"
    mount_point = isolation.MountPoint(settings.STANDARD_ROOT)
    try:
        mount_point.hold()
        return isolation.why_no_namespaces(settings.STANDARD_ROOT)
    except OSError as error:
        return str(error)
    finally:
        mount_point.release()


def choose() -> Place:
    """Find out which place this machine allows."""
    why_not = refusal()
    if not why_not:
        return Place(settings.STANDARD_ROOT, "release", REPOSITORY / "build/bin/zevd",
                     f"{settings.STANDARD_ROOT}, as an empty file system that only the demo sees")
    return Place(FALLBACK_ROOT, "fallback", FALLBACK / "bin/zevd",
                 f"{FALLBACK_ROOT}, with a build of the daemon made for it\n"
                 f"  ({why_not})")


def open_place(place: Place) -> contextlib.AbstractContextManager[None]:
    """Make the place's root an empty directory, and leave everything as it was found."""
    return _behind_a_mount() if place.preset == "release" else _in_the_build_tree()


@contextlib.contextmanager
def _behind_a_mount() -> Iterator[None]:
    mount_point = isolation.MountPoint(settings.STANDARD_ROOT)
    with contextlib.ExitStack() as undo:
        mount_point.hold()
        undo.callback(mount_point.release)
        _leave_shared_mounts()
        isolation.mount_tmpfs(settings.STANDARD_ROOT)
        undo.callback(isolation.unmount, settings.STANDARD_ROOT)
        yield


def _leave_shared_mounts() -> None:
    """Give this process a mount table of its own; the network stays the machine's."""
    everything = isolation.MS_REC | isolation.MS_PRIVATE
    if _libc.unshare(isolation.CLONE_NEWNS) or _libc.mount(None, b"/", None, everything, None):
        raise OSError(ctypes.get_errno(), "private mounts")


@contextlib.contextmanager
def _in_the_build_tree() -> Iterator[None]:
    """The fallback root serves one daemon at a time; what an earlier one left is of no use."""
    if isolation.lock_out_others(FALLBACK / "tests.lock") is None:
        raise SystemExit(f"demo: a test or another demo is using {FALLBACK_ROOT}")
    isolation.empty_directory(FALLBACK_ROOT)
    try:
        yield
    finally:
        shutil.rmtree(FALLBACK_ROOT)
