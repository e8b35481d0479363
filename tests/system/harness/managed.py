"""What the system's service manager is to the daemon: its user, its sockets, its messages."""

import contextlib
import fcntl
import os
import shutil
import socket
import subprocess
import threading
import time
from pathlib import Path

import pytest

from harness import settings
from harness.accounts import HELPER, UID, Accounts
from harness.isolation import mount_tmpfs, unmount
from harness.station import Station
from harness.waiting import LIMIT, wait_until

PASSWORD_SOCKET = Path("/run/zevd/password.sock")

# Descriptors that are to be passed are first put where they are in nobody's way.
_HIGH = 100

# Starts the daemon as its unit does: as a user without any right, in the place of this process.
_START = """#!/bin/bash
export LISTEN_PID=$$ WATCHDOG_PID=$$
next=3
for passed in $PASSED; do
    eval "exec $next<&$passed $passed<&-"
    next=$((next + 1))
done
exec setpriv --reuid={uid} --regid={gid} --clear-groups --inh-caps=-all --bounding-set=-all \\
    --no-new-privs --pdeathsig KILL {program} "$@"
"""


# The words before a command that is to run as root without any capability.
WITHOUT_CAPABILITIES = ["setpriv", "--bounding-set=-all", "--inh-caps=-all", "--no-new-privs"]


def as_user(uid: int) -> list[str]:
    """The words before a command that is to run as this user, without any right."""
    return ["setpriv", f"--reuid={uid}", f"--regid={UID}", "--clear-groups", "--inh-caps=-all"]


class Manager:
    """The service manager's end of the notification socket, and what it hands to the daemon."""

    def __init__(self, address: str) -> None:
        self.environment = {"NOTIFY_SOCKET": address}
        self.passed: list[int] = []
        self._taken: list[str] = []
        self._heard = time.monotonic()
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(address.replace("@", "\0", 1))
        self._socket.setblocking(False)
        if address.startswith("/"):
            os.chmod(address, 0o777)

    def expect_life(self, seconds: float) -> None:
        """Want a sign of life in each period of this length."""
        self.environment["WATCHDOG_USEC"] = str(int(seconds * 1000000))

    def hand_over(self, given: socket.socket) -> None:
        """Pass this socket to the daemon."""
        self.passed.append(fcntl.fcntl(given.fileno(), fcntl.F_DUPFD, _HIGH))
        self.environment["PASSED"] = " ".join(map(str, self.passed))
        self.environment["LISTEN_FDS"] = str(len(self.passed))

    def messages(self) -> list[str]:
        """Everything that the daemon has told so far."""
        with contextlib.suppress(BlockingIOError):
            while True:
                self._taken.append(self._socket.recv(4096).decode())
                self._heard = time.monotonic()
        return list(self._taken)

    def silence(self) -> float:
        """The seconds since the daemon told anything, for whoever asks all the time."""
        self.messages()
        return time.monotonic() - self._heard

    def wait(self, message: str, count: int = 1, limit: float = LIMIT) -> None:
        """Wait until the daemon has told this so often."""
        wait_until(lambda: self.messages().count(message) >= count, limit,
                   f"{message!r}, {count} times, in {self.messages()}")

    def close(self) -> None:
        """Hand over nothing any more."""
        self._socket.close()
        for descriptor in self.passed:
            os.close(descriptor)


class PasswordService:
    """The password service as its socket unit makes it: one instance a caller, and not too many."""

    def __init__(self, uid: int, most: int = 8) -> None:
        self.most = most
        self.turned_away = 0
        self._running: list[subprocess.Popen] = []
        PASSWORD_SOCKET.parent.mkdir(exist_ok=True)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(str(PASSWORD_SOCKET))
        os.chown(PASSWORD_SOCKET, uid, UID)
        PASSWORD_SOCKET.chmod(0o600)
        self._listener.listen(128)
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self) -> None:
        with contextlib.suppress(OSError):
            while True:
                caller, _ = self._listener.accept()
                with caller:
                    self._start(caller)

    def _start(self, caller: socket.socket) -> None:
        self._running = [instance for instance in self._running if instance.poll() is None]
        if len(self._running) >= self.most:
            self.turned_away += 1
            return
        self._running.append(subprocess.Popen(
            [*WITHOUT_CAPABILITIES, HELPER, "--service"], stdin=caller,
            stdout=subprocess.DEVNULL))

    def close(self) -> None:
        """Serve nobody any more."""
        self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        self._listener.close()
        PASSWORD_SOCKET.unlink()
        for instance in self._running:
            instance.wait(LIMIT)


@pytest.fixture
def run_directory(isolated):
    """A /run of the test's own."""
    mount_tmpfs(Path("/run"))
    yield
    unmount(Path("/run"))


@pytest.fixture
def zevd_user(accounts: Accounts) -> int:
    """The user of the daemon and of the password service's callers."""
    return accounts.add("zevd", "*")


@pytest.fixture
def password_service(zevd_user, run_directory):
    """The password service."""
    service = PasswordService(zevd_user)
    yield service
    service.close()


@pytest.fixture
def unprivileged(station: Station, zevd_user: int) -> Station:
    """A station whose daemon runs as its own user, without any right, and owns what it writes."""
    station.uid = zevd_user
    os.chown(station.root, 0, UID)
    for directory in (station.config, station.logs):
        os.chown(directory, zevd_user, UID)
    programs, libraries = station.root / "bin", station.root / "lib"
    programs.mkdir()
    shutil.copytree(settings.build_directory() / "lib", libraries, symlinks=True)
    for program in (settings.daemon(), HELPER):
        shutil.copy2(program, programs)
    start = programs / "start"
    start.write_text(_START.format(uid=zevd_user, gid=UID, program=programs / "zevd"),
                     encoding="ascii")
    start.chmod(0o755)
    station.program = start
    return station


@pytest.fixture(params=["path", "abstract"])
def manager(request, station, tmp_path):
    """A service manager, by either kind of its address."""
    # The directory is the test's own and closed to others, so the path is in the station's root.
    address = str(station.root / "notify") if request.param == "path" else f"@{tmp_path}"[:100]
    made = Manager(address)
    station.manager = made
    yield made
    made.close()
