"""A mount and network namespace for every test, with an empty tmpfs as the daemon's root."""

import ctypes
import errno
import fcntl
import os
import shutil
import signal
import socket
import struct
import tempfile
import threading
from pathlib import Path

CLONE_NEWNS = 0x00020000
CLONE_NEWNET = 0x40000000
MS_NOSUID = 2
MS_NODEV = 4
MS_BIND = 0x1000
MS_REC = 0x4000
MS_PRIVATE = 1 << 18
MNT_DETACH = 2
PR_SET_PDEATHSIG = 1
PR_SET_CHILD_SUBREAPER = 36
SIOCSIFFLAGS = 0x8914
SIOCSIFMTU = 0x8922
IFF_UP = 1

_libc = ctypes.CDLL(None, use_errno=True)


def _checked(result: int, what: str) -> None:
    if result != 0:
        code = ctypes.get_errno()
        raise OSError(code, f"{what}: {os.strerror(code)}")


def mount_tmpfs(path: Path, size: str = "512m", mode: str = "0755") -> None:
    """Mount an empty tmpfs of at most `size` on the path."""
    options = f"mode={mode},size={size}".encode()
    _checked(_libc.mount(b"tmpfs", os.fsencode(path), b"tmpfs", MS_NOSUID | MS_NODEV, options),
             f"mount tmpfs on {path}")


def unmount(path: Path) -> None:
    """Take the topmost mount off the path, even while something still uses it."""
    _checked(_libc.umount2(os.fsencode(path), MNT_DETACH), f"umount {path}")


def _raise_loopback() -> None:
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, SIOCSIFFLAGS, struct.pack("16sH14x", b"lo", IFF_UP))


def set_mtu(size: int) -> None:
    """Let a packet on the private network take so many bytes, as on another kind of link."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, SIOCSIFMTU, struct.pack("16si20x", b"lo", size))


def _hide_system_log() -> None:
    """Keep what daemons under test do out of the machine's own log."""
    log = os.path.realpath("/dev/log")
    if os.path.exists(log) and not os.path.samefile(log, "/dev/null"):
        _checked(_libc.mount(b"/dev/null", os.fsencode(log), None, MS_BIND, None), f"hide {log}")


def enter_private_namespaces(root: Path) -> None:
    """Move the calling thread into new namespaces and give it an empty root directory.

    Everything that it starts from then on (threads, daemons, consoles) lives there too. The
    previous test's namespaces vanish with the last process that was in them.
    """
    assert threading.current_thread() is threading.main_thread(), "daemons need the main thread"
    _checked(_libc.unshare(CLONE_NEWNS | CLONE_NEWNET), "unshare")
    _checked(_libc.mount(None, b"/", None, MS_REC | MS_PRIVATE, None), "make mounts private")
    if os.path.ismount(root):
        unmount(root)
    mount_tmpfs(root)
    _hide_system_log()
    _raise_loopback()


def why_no_namespaces(root: Path) -> str:
    """Try, in a child process, what every test needs; an empty text when it works."""
    reading, writing = os.pipe()
    child = os.fork()
    if child == 0:
        reason = ""
        try:
            enter_private_namespaces(root)
        except OSError as error:
            reason = str(error)
        finally:
            os.write(writing, reason.encode())
            os._exit(0)
    os.close(writing)
    with os.fdopen(reading, encoding="utf-8") as answer:
        reason = answer.read()
    os.waitpid(child, 0)
    return reason


def lock_out_others(path: Path) -> int | None:
    """Lock the file for as long as this process lives; nothing when another one has it."""
    path.parent.mkdir(parents=True, exist_ok=True)
    lock = os.open(path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC)
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        os.close(lock)
        return None
    return lock


def empty_directory(path: Path) -> None:
    """Make the directory, or remove all that is in it."""
    path.mkdir(parents=True, exist_ok=True)
    for entry in path.iterdir():
        if entry.is_dir() and not entry.is_symlink():
            shutil.rmtree(entry)
        else:
            entry.unlink()


class MountPoint:
    """The directory that tests mount on: made when missing, removed after the last run.

    Several runs may overlap. Each holds a shared lock on a file that lists the directories that
    were made; the one that finds itself alone at its end removes them.
    """

    def __init__(self, path: Path) -> None:
        self.path = path
        self.record = Path(tempfile.gettempdir()) / "zevd-tests.mount-point"
        self._lock = -1

    def hold(self) -> None:
        """Make sure that the directory exists until `release`."""
        while not self._try_lock():
            pass
        for directory in [*reversed(self.path.parents), self.path]:
            try:
                directory.mkdir()
            except FileExistsError:
                continue
            os.write(self._lock, os.fsencode(directory) + b"\n")

    def _try_lock(self) -> bool:
        """Lock the record; False when the last run before removed it in the meantime."""
        self._lock = os.open(self.record, os.O_RDWR | os.O_CREAT | os.O_APPEND | os.O_CLOEXEC)
        fcntl.flock(self._lock, fcntl.LOCK_SH)
        try:
            if self.record.stat().st_ino == os.fstat(self._lock).st_ino:
                return True
        except FileNotFoundError:
            pass
        os.close(self._lock)
        return False

    def release(self) -> None:
        """Remove what was made, unless another run still needs it."""
        if self._lock < 0:
            return
        try:
            fcntl.flock(self._lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            pass
        else:
            self._remove_made()
        os.close(self._lock)
        self._lock = -1

    def _remove_made(self) -> None:
        made_directories = self.record.read_text(encoding="utf-8").splitlines()
        if made_directories and os.path.ismount(self.path):
            unmount(self.path)
        for made in reversed(made_directories):
            try:
                os.rmdir(made)
            except OSError as error:
                if error.errno not in (errno.ENOTEMPTY, errno.ENOENT):
                    raise
        self.record.unlink()


def adopt_orphans() -> None:
    """Become the parent of every descendant whose parent ends, such as a detached daemon."""
    _checked(_libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0), "prctl")


def end_with_parent() -> None:
    """Be killed when the process ends that started this one."""
    _checked(_libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0), "prctl")


def children() -> set[int]:
    """The ids of this process's children, zombies included."""
    found = set()
    for entry in os.listdir("/proc"):
        if entry.isdigit() and parent_of(int(entry)) == os.getpid():
            found.add(int(entry))
    return found


def parent_of(pid: int) -> int:
    """The parent's process id; 0 when there is no such process."""
    try:
        with open(f"/proc/{pid}/stat", encoding="latin-1") as stat:
            return int(stat.read().rpartition(")")[2].split()[1])
    except (FileNotFoundError, ProcessLookupError):
        return 0


def end_children(spared: set[int]) -> None:
    """Kill and collect the children that a test left behind, and those they leave in turn."""
    while left := children() - spared:
        for pid in left:
            try:
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)
            except (ProcessLookupError, ChildProcessError):
                continue
