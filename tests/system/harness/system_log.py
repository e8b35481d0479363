"""The system log, as the daemon finds it at /dev/log: a socket that the test reads."""

import contextlib
import os
import re
import socket
import stat
import subprocess
import tempfile
import threading
from pathlib import Path

import pytest

from harness import settings
from harness.isolation import mount_tmpfs, unmount
from harness.waiting import LIMIT, wait_until

KEYS = ("what", "result", "user", "given_user", "from", "given_from", "console", "mode", "reason")

_HEAD = re.compile(r"<(\d+)>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d zevd\[(\d+)\]: ")
_PAIR = re.compile(r' ?[a-z_]+="(?:[^"\\]|\\x[0-9A-F]{2})*"')


class SystemLog:
    """Everything that was written to the log, entry by entry."""

    def __init__(self, path: Path) -> None:
        self.path = path
        self._socket: socket.socket | None = None
        self._taken: list[bytes] = []
        self.listen()

    def listen(self) -> None:
        """Take entries from now on."""
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(str(self.path))
        self.path.chmod(0o666)  # as the real one: not only root has something to say
        self._socket.setblocking(False)

    def close(self) -> None:
        """Close the socket, like a logger that is not running."""
        self._socket.close()
        self.path.unlink()

    def raw(self) -> list[bytes]:
        """Every entry so far as it was written."""
        with contextlib.suppress(BlockingIOError):
            while True:
                self._taken.append(self._socket.recv(65536))
        return list(self._taken)

    def entries(self, what: str | None = None) -> list[dict[str, str]]:
        """The entries so far, without keys whose values are empty."""
        parsed = [parse(entry) for entry in self.raw()]
        return [entry for entry in parsed if what in (None, entry["what"])]

    def wait(self, what: str, count: int = 1, limit: float = LIMIT) -> list[dict[str, str]]:
        """Wait until there are this many entries of this kind."""
        wait_until(lambda: len(self.entries(what)) >= count, limit,
                   f"{count} entries of {what!r} in {self.raw()}")
        return self.entries(what)


class SharedSystemLog(SystemLog):
    """The log when other programs write to it as well; the entries are the daemon's alone.

    It is read all the time, as those programs would wait for a log that nobody reads.
    """

    def __init__(self, path: Path) -> None:
        super().__init__(path)
        self._reader = threading.Thread(target=self._read)
        self._reader.start()

    def _read(self) -> None:
        self._socket.setblocking(True)
        while entry := self._socket.recv(65536):
            self._taken.append(entry)

    def close(self) -> None:
        self._socket.shutdown(socket.SHUT_RD)
        self._reader.join()
        super().close()

    def raw(self) -> list[bytes]:
        return [entry for entry in self._taken if re.search(rb" zevd\[\d+\]: ", entry)]


def parse(entry: bytes) -> dict[str, str]:
    """One entry, parsed; every part of it must be valid."""
    text = entry.decode("ascii")
    head = _HEAD.match(text)
    assert head, text
    assert int(head[1]) >> 3 == 10, "not written to authpriv"
    values = {}
    rest = text[head.end():]
    while rest:
        pair = _PAIR.match(rest)
        assert pair, rest
        key, _, value = pair[0].strip().partition("=")
        values[key] = value[1:-1]
        rest = rest[pair.end():]
    if values["what"] != "audit":
        assert tuple(values) == KEYS, text
    return {key: value for key, value in values.items() if value}


def _fill(copy: Path, devices: Path) -> None:
    for device in devices.iterdir():
        mode = device.lstat().st_mode
        here = copy / device.name
        if stat.S_ISLNK(mode) and device.name != "log":
            here.symlink_to(os.readlink(device))
        elif stat.S_ISDIR(mode):
            here.mkdir()
            subprocess.run(["mount", "--rbind", device, here], check=True)
        elif device.name == "ptmx":
            here.symlink_to("pts/ptmx")  # finds its terminals beside itself, so not when mounted
        elif stat.S_ISCHR(mode):
            here.touch()
            subprocess.run(["mount", "--bind", device, here], check=True)


def enter_private_devices() -> Path:
    """Give the test's namespace a /dev with everything that is in the machine's except its log.

    Nothing of the copy stays where a clean-up by name could reach the machine's own devices.
    """
    assert not settings.namespaces_forbidden(), "the machine's own log must not be touched"
    copy = Path(tempfile.mkdtemp(prefix="zevd-tests-dev."))
    devices = Path("/dev")
    mount_tmpfs(copy)
    try:
        _fill(copy, devices)
        subprocess.run(["mount", "--rbind", copy, devices], check=True)
    finally:
        unmount(copy)
        copy.rmdir()
    return devices


@pytest.fixture
def system_log(isolated):
    """The system log of this test."""
    devices = enter_private_devices()
    yield SystemLog(devices / "log")
    unmount(devices)  # the next test's namespace begins as a copy of this one


@pytest.fixture
def shared_system_log(isolated):
    """The same for a test whose other programs write to it, too."""
    devices = enter_private_devices()
    log = SharedSystemLog(devices / "log")
    yield log
    log.close()
    unmount(devices)
