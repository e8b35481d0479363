"""Lines: the line server over the configuration that the client wrote."""

import contextlib
import os
import pwd
import shutil
import subprocess
from pathlib import Path

from harness import zevctl
from harness.closing import Closing
from harness.helpers import private_copy
from harness.station import Station
from harness.waiting import LIMIT, wait_until

ADDRESS = "127.65.0.1"
RULES = Path(__file__).parents[3] / "packaging/nftables/zevd-lines.nft"


def add_address() -> None:
    """Give the network of the test a second address.

    With 127.0.0.1 alone the C library says that there is no IPv4, and ser2net does not listen.
    """
    subprocess.run(["ip", "address", "add", f"{ADDRESS}/32", "dev", "lo"], check=True)


@contextlib.contextmanager
def users(scratch: Path):
    """The users of the daemon and of the lines, each with a group, in the test's namespace only."""
    with private_copy(Path("/etc/passwd"), scratch) as passwd, \
            private_copy(Path("/etc/group"), scratch) as group:
        for number, name in enumerate(("zevd", "zevd-lines"), 64998):
            with passwd.open("a", encoding="ascii") as entries:
                entries.write(f"{name}:x:{number}:{number}::/:/bin/sh\n")
            with group.open("a", encoding="ascii") as entries:
                entries.write(f"{name}:x:{number}:\n")
        yield


@contextlib.contextmanager
def acting_as(user: str):
    """Sockets that are made in the block are this user's, also after it."""
    os.seteuid(pwd.getpwnam(user).pw_uid)
    try:
        yield
    finally:
        os.seteuid(0)


def load_filter() -> None:
    """Load the packet filter in front of the lines."""
    subprocess.run(["nft", "-f", RULES], check=True)


def listening() -> set[int]:
    """The ports on which lines listen."""
    shown = subprocess.run(["ss", "-Htln", "src", ADDRESS], capture_output=True, check=True,
                           text=True).stdout
    return {int(line.split()[3].rpartition(":")[2]) for line in shown.splitlines()}


class LineServer(Closing):
    """ser2net with a configuration, until the end of the block."""

    def __init__(self, configuration: Path, ports: set[int]) -> None:
        program = shutil.which("ser2net")
        assert program, "ser2net is not installed"
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "--", program, "-n", "-c", configuration],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            wait_until(lambda: ports <= listening(), LIMIT, "the lines")
        except BaseException:
            self.close()
            raise

    def close(self) -> None:
        self.process.kill()
        self.process.wait()


def apply(station: Station, **targets: str) -> Path:
    """Have the client write a configuration with these lines; return that of the line server.

    A target is what stands behind the console's name, as in `exec = "sh"`.
    """
    text = "".join(f'[[console]]\nname = "{name}"\n{target}\n' for name, target in targets.items())
    (station.config / "consoles.toml").write_text(text)
    done = zevctl.run(station, "config", "apply")  # it warns of what the machine does not have
    assert done.returncode == zevctl.OK, done.stderr
    return station.config / "lines.yaml"


def serve(station: Station, **targets: str) -> LineServer:
    """Bring the lines up and wait until the daemon is connected to all of them."""
    position = station.mark()
    configuration = apply(station, **targets)
    server = LineServer(configuration, set(range(10001, 10001 + len(targets))))
    for name in targets:
        zevctl.succeed(station, "reconnect", name)
        station.wait_connected(name, position)
    return server
