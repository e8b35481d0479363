"""One booted machine: an overlay over the bare Debian, with systemd as its first process."""

import contextlib
import ctypes
import itertools
import os
import signal
import subprocess
from collections.abc import Iterator
from pathlib import Path

from harness.waiting import wait_until

from machines import base

_libc = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNS, _CLONE_NEWNET = 0x00020000, 0x40000000
_MS_REC, _MS_PRIVATE = 0x4000, 0x40000

_ENVIRONMENT = ["env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8",
                "DEBIAN_FRONTEND=noninteractive", "HOME=/root"]
_numbers = itertools.count(1)


def _checked(result: int) -> None:
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error))


def keep_mounts_private() -> None:
    """What this process mounts from now on is gone when it and its machines are."""
    _checked(_libc.unshare(_CLONE_NEWNS))
    _checked(_libc.mount(b"none", b"/", None, _MS_REC | _MS_PRIVATE, None))


def _mount(kind: str, target: Path, options: str = "") -> None:
    target.mkdir(parents=True, exist_ok=True)
    command = ["mount", "-t", kind, kind, target]
    subprocess.run(command + (["-o", options] if options else []), check=True)


def try_mounts() -> None:
    """Raises RuntimeError where this computer does not mount what a machine consists of."""
    place = base.PLACE / "attempt"
    overlay = f"lowerdir={place}/lower,upperdir={place}/changes,workdir={place}/work"
    place.mkdir(parents=True, exist_ok=True)
    for kind, options in (("cgroup2", []), ("tmpfs", []), ("overlay", ["-o", overlay])):
        for part in ("lower", "changes", "work") if kind == "overlay" else ():
            (place / part).mkdir()
        done = subprocess.run(["mount", "-t", kind, *options, kind, place], capture_output=True,
                              text=True, check=False)
        if done.returncode != 0:
            raise RuntimeError(done.stderr.strip())
        if kind == "cgroup2":
            subprocess.run(["umount", place], check=True)
    subprocess.run(["umount", "--lazy", place, place], check=True)


def _control_groups() -> Path:
    """The control groups of the machines, each of which has one of its own."""
    groups = base.PLACE / "control-groups"
    if not os.path.ismount(groups):
        _mount("cgroup2", groups)
    return groups


class Machine:
    """A machine in a private network, with nothing installed yet."""

    def __init__(self) -> None:
        self.name = f"zevd-{os.getpid()}-{next(_numbers)}"
        place = base.PLACE / "machines" / self.name
        _mount("tmpfs", place)
        for part in ("changes", "work"):
            (place / part).mkdir()
        self.root = place / "root"
        _mount("overlay", self.root, f"lowerdir={base.root()},upperdir={place}/changes,"
                                     f"workdir={place}/work")
        self._place = place
        self._group = _control_groups() / self.name
        self._console = place / "console"
        self._container: subprocess.Popen | None = None
        self.first = 0  # the process id of its first process

    # Life

    def boot(self) -> "Machine":
        """Start it, and wait until it is up."""
        self._group.mkdir()
        command = ["systemd-nspawn", "--quiet", f"--directory={self.root}",
                   f"--machine={self.name}",
                   "--register=no", "--keep-unit", "--private-network", "--console=pipe",
                   "--link-journal=no", "--resolv-conf=off", "--timezone=off", "--boot"]
        with open(self._console, "wb") as console:
            self._container = subprocess.Popen(
                # It ends with this process, whatever ends that.
                ["setpriv", "--pdeathsig=KILL", "sh", "-c",
                 'echo $$ > "$1/cgroup.procs" && shift && exec "$@"', "sh", self._group, *command],
                stdin=subprocess.DEVNULL, stdout=console, stderr=subprocess.STDOUT,
                env={**os.environ, "SYSTEMD_NSPAWN_UNIFIED_HIERARCHY": "1"})
        self.first = wait_until(self._first_process, 20, "the machine's first process")
        wait_until(self._is_up, 60, f"the machine to boot; {self._console}")
        return self

    def _first_process(self) -> int:
        assert self._container.poll() is None, self._console.read_text(errors="replace")
        children = Path(f"/proc/{self._container.pid}/task/{self._container.pid}/children")
        for child in map(int, children.read_text().split()):
            with contextlib.suppress(FileNotFoundError):  # it has ended meanwhile
                if Path(f"/proc/{child}/comm").read_text() == "systemd\n":
                    return child
        return 0

    def _is_up(self) -> bool:
        state = self.run("systemctl", "is-system-running", check=False).stdout.strip()
        return state in ("running", "degraded")

    def end(self) -> None:
        """Kill it; what it wrote is gone."""
        if self._container is not None:
            if self.first:
                os.kill(self.first, signal.SIGKILL)
            else:
                self._container.kill()
            self._container.wait()
            self._remove_group()
        for mounted in (self.root, self._place):
            subprocess.run(["umount", "--lazy", mounted], check=True)
        self._place.rmdir()

    def _remove_group(self) -> None:
        for group, _, _ in os.walk(self._group, topdown=False):
            with contextlib.suppress(OSError):  # its last process may still be going
                wait_until(lambda group=group: not Path(group, "cgroup.procs").read_text(),
                           what="the machine's processes to end")
                os.rmdir(group)

    # What happens in it

    def _inside(self, *command: str | Path) -> list[str | Path]:
        if not self.first:  # as in an image that is being made
            mounted = 'mount -t proc proc "$0/proc" && exec chroot "$0" "$@"'
            return ["unshare", "--mount", "sh", "-c", mounted, self.root, *_ENVIRONMENT, *command]
        return ["nsenter", f"--target={self.first}", "--all", "--", *_ENVIRONMENT, *command]

    def run(self, *command: str | Path, check: bool = True,
            given: str | None = None) -> subprocess.CompletedProcess:
        """Run a command as root; its output, standard error included."""
        done = subprocess.run(self._inside(*command), input=given,
                              stdin=None if given is not None else subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              errors="replace", timeout=120, check=False)
        if check:
            assert done.returncode == 0, f"{command} ended with {done.returncode}:\n{done.stdout}"
        return done

    def output(self, *command: str) -> str:
        """What a command that succeeds says, without the last line end."""
        return self.run(*command).stdout.rstrip("\n")

    def begin(self, *command: str, output: Path) -> subprocess.Popen:
        """Start a command; it goes on until it ends or the machine does."""
        with open(output, "wb") as file:
            return subprocess.Popen(self._inside(*command), stdin=subprocess.DEVNULL, stdout=file,
                                    stderr=subprocess.STDOUT)

    def path(self, inside: str) -> Path:
        """A path in the machine, as seen from outside."""
        return self.root / inside.lstrip("/")

    @contextlib.contextmanager
    def network(self) -> Iterator[None]:
        """Sockets that this thread makes here are in the machine's network, and stay there."""
        with open("/proc/thread-self/ns/net", "rb") as ours, \
                open(f"/proc/{self.first}/ns/net", "rb") as its:
            _checked(_libc.setns(its.fileno(), _CLONE_NEWNET))
            try:
                yield
            finally:
                _checked(_libc.setns(ours.fileno(), _CLONE_NEWNET))

    # Packages and services

    def install(self, *packages: Path, check: bool = True) -> str:
        """Install these packages, which the machine is given, with apt and without a network."""
        inside = []
        for package in packages:
            self.path("/root").joinpath(package.name).write_bytes(package.read_bytes())
            inside.append(f"/root/{package.name}")
        done = self.run("apt-get", "install", "--yes", *inside, check=check)
        return done.stdout

    def show(self, unit: str, name: str) -> str:
        """A property of a unit."""
        return self.output("systemctl", "show", f"--property={name}", "--value", unit)

    def daemon(self) -> int:
        """The daemon's process id, in the machine; 0 while it does not run."""
        return int(self.show("zevd.service", "MainPID"))

    def journal(self, *options: str) -> str:
        """The machine's journal."""
        return self.output("journalctl", "--no-pager", "--output=cat", *options)
