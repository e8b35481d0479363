"""Event managers: the far end of the socket to which the daemon posts its events."""

import json
import os
import re
import shlex
import shutil
import socket
import subprocess
from pathlib import Path
from typing import Any

import pytest

from harness import settings
from harness.peers import ListeningPeer
from harness.station import Station
from harness.waiting import LIMIT, stretched, wait_until

Event = dict[str, Any]


def socket_path(station: Station) -> Path:
    """Where the daemon looks for the event manager."""
    return station.root / "run" / "jix.sock"


def parsed(lines: bytes) -> list[Event]:
    """The events of some lines; what follows the last line end is left for later."""
    complete = lines[:lines.rfind(b"\n") + 1]
    return [json.loads(line) for line in complete.decode().splitlines()]


class Collector(ListeningPeer):
    """An event manager that a test controls. It listens at once."""

    def __init__(self, station: Station) -> None:
        super().__init__("event manager")
        self.path = socket_path(station)
        self.listen()

    def listen(self) -> None:
        """Accept connections from now on."""
        self.path.parent.mkdir(exist_ok=True)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(str(self.path))
        self._listener.listen(16)

    def refuse(self) -> None:
        if self._listener is not None:
            self.path.unlink()
        super().refuse()

    def events(self) -> list[Event]:
        """Every event that has arrived on this connection."""
        return parsed(self.received)

    def wait_events(self, count: int, limit: float = LIMIT) -> list[Event]:
        """Wait for this many events on this connection; there must not be more."""
        wait_until(lambda: self.received.count(b"\n") >= count, limit, f"{count} events")
        found = self.events()
        assert len(found) == count, found
        return found


@pytest.fixture
def collector(station):
    """An event manager that listens; the test accepts the daemon's connection."""
    with Collector(station) as made:
        yield made


class CollectorProgram:
    """A real program that receives events and writes them to a file, one per line."""

    def __init__(self, station: Station, command: list[str], file: Path) -> None:
        self.file = file
        self._path = socket_path(station)
        self._path.parent.mkdir(exist_ok=True)
        self._process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "--", *command],
                                         stdin=subprocess.DEVNULL)
        try:
            wait_until(self._takes_connections, what=f"{command[0]} to listen")
        except AssertionError:
            self.end()
            raise

    def _takes_connections(self) -> bool:
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as probe:
            try:
                probe.connect(str(self._path))
            except OSError:
                return False
            return True

    def events(self) -> list[Event]:
        """What the program has written so far."""
        return parsed(self.file.read_bytes()) if self.file.exists() else []

    def end(self) -> None:
        """End the program as its user would."""
        self._process.terminate()
        self._process.wait(stretched(LIMIT))
        self._path.unlink(missing_ok=True)

    def __enter__(self) -> "CollectorProgram":
        return self

    def __exit__(self, *_exception) -> None:
        self.end()


MANUAL = settings.REPOSITORY / "docs" / "operating.md"
RECIPE = settings.REPOSITORY / "packaging" / "recipes" / "rsyslog" / "50-zevd-events.conf"


def _adapted(text: str, station: Station, file: Path) -> str:
    """A text that operators copy, with the paths and the owner of this station."""
    for theirs, ours in {"/usr/opt/qor": str(station.root), "/var/log/zevd-events.log": str(file),
                         'fileOwner="zevd"': 'fileOwner="root"'}.items():
        text = text.replace(theirs, ours)
    return text


def rsyslog(station: Station, directory: Path) -> CollectorProgram:
    """The system log daemon, with nothing but the recipe's configuration."""
    program = shutil.which("rsyslogd", path=f"{os.environ['PATH']}:/usr/sbin")
    assert program, "rsyslog is not installed"
    file = directory / "events.log"
    configuration = directory / "rsyslog.conf"
    configuration.write_text(f'global(workDirectory="{directory}")\n'
                             + _adapted(RECIPE.read_text(encoding="utf-8"), station, file))
    return CollectorProgram(station, [program, "-n", "-iNONE", "-f", str(configuration)], file)


def socat(station: Station, directory: Path) -> CollectorProgram:
    """The smallest collector, with the manual's command."""
    file = directory / "events.log"
    found = re.search(r"\n(socat -u .*?)\n```", MANUAL.read_text(encoding="utf-8"), re.DOTALL)
    assert found, f"{MANUAL} has no command"
    command = _adapted(found[1].replace("\\\n", " "), station, file)
    return CollectorProgram(station, shlex.split(command), file)
