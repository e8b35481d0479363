"""Operators of a fleet, and what leads them from station to station in place of ssh."""

import os
import pty
import subprocess
from pathlib import Path

from harness import settings
from harness.fleet import Fleet, FleetStation
from harness.waiting import wait_until

BIN = settings.build_directory() / "bin"


def reach(fleet: Fleet, scratch: Path) -> Path:
    """What the tests use in place of ssh: it runs the command in the other station's namespaces."""
    script = scratch / "reach"
    cases = "".join(f"{one.machine.address}) pid={one.machine.pid} ;;\n" for one in fleet.stations)
    script.write_text(
        "#!/bin/sh\n"
        'while :; do case $1 in -o) shift 2 ;; -t) shift ;; *) break ;; esac; done\n'
        f'case $1 in\n{cases}*) echo "no route to $1" >&2; exit 255 ;;\nesac\n'
        f'[ ! -e "{scratch}/cut-$1" ] || {{ echo "no answer from $1" >&2; exit 255; }}\n'
        f'PATH="{BIN}:$PATH" exec nsenter --target $pid --mount --net sh -c "$2"\n',
        encoding="ascii")
    script.chmod(0o755)
    return script


class Operator:
    """Somebody at a station."""

    def __init__(self, fleet: Fleet, station: FleetStation, shell: str) -> None:
        self.fleet, self.station, self._shell = fleet, station, shell

    def line(self, *words: str) -> list:
        """The command line."""
        return [BIN / "zevctl", "--fleet", "--ssh", self._shell, *words]

    def run(self, *words: str) -> subprocess.CompletedProcess:
        """Run it to its end."""
        return self.station.machine.run(self.line(*words), check=False, text=True,
                                        capture_output=True, stdin=subprocess.DEVNULL)

    def succeed(self, *words: str) -> str:
        """What it prints when all goes well."""
        done = self.run(*words)
        assert (done.returncode, done.stderr) == (0, ""), done
        return done.stdout


class Seat:
    """An operator's terminal."""

    def __init__(self, operator: Operator, *words: str) -> None:
        self._terminal, far_end = pty.openpty()
        self.process = operator.station.machine.popen(
            operator.line(*words), stdin=far_end, stdout=far_end, stderr=far_end,
            start_new_session=True)
        os.close(far_end)
        os.set_blocking(self._terminal, False)
        self.seen = b""

    def shows(self, text: bytes) -> bool:
        """Whether the text has come."""
        try:
            self.seen += os.read(self._terminal, 65536)
        except (BlockingIOError, OSError):
            pass
        return text in self.seen

    def wait(self, text: bytes, limit: float = 10.0) -> None:
        """Wait for the text."""
        wait_until(lambda: self.shows(text), limit, f"{text!r} in {self.seen[-400:]!r}")

    def type(self, keys: bytes) -> None:
        """Press keys."""
        os.write(self._terminal, keys)

    def end(self) -> None:
        """Go away."""
        self.process.kill()
        self.process.wait()
        os.close(self._terminal)
