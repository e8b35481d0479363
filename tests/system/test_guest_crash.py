"""A machine whose kernel panics: what its console printed is found and seen again afterwards."""

import gzip
import json
import re
import socket
import subprocess
from pathlib import Path

import pytest

from harness import zevctl
from harness.closing import Closing
from harness.consoles import ProgramConsole
from harness.scenes import leave
from harness.waiting import free_port, stretched, wait_until

pytestmark = pytest.mark.needs_namespace

KERNEL = Path(__file__).resolve().parents[2] / "build/guest/vmlinuz"
PANIC = "Kernel panic - not syncing: sysrq triggered crash"
UP = b"guest is up\r\n"
BOOTS_WITHIN = 60.0

# Standard input is a second serial line, which leads to the test and not to the daemon. It is open
# before the guest says that it is up: what comes earlier would be lost. From then on the kernel of
# a guest that has too little of a busy processor would complain of its clocks at any time, even in
# the middle of a line; a panic is printed in spite of the level.
INIT = """#!/bin/busybox sh
/bin/busybox mount -t proc proc /proc
/bin/busybox mount -t devtmpfs dev /dev
exec </dev/ttyS1 >/dev/ttyS0 2>&1
echo 1 > /proc/sys/kernel/printk
echo "guest is up"
while read -r word; do
    [ "$word" != crash ] || echo c > /proc/sysrq-trigger
    echo "guest hears $word"
done
"""


def initial_file_system(directory: Path) -> Path:
    """The guest's only files: its init and the program that runs it."""
    root = directory / "root"
    for name in ("bin", "dev", "proc"):
        (root / name).mkdir(parents=True)
    (root / "bin/busybox").write_bytes(Path("/bin/busybox").read_bytes())
    (root / "init").write_text(INIT, encoding="ascii")
    for program in ("bin/busybox", "init"):
        (root / program).chmod(0o755)
    names = "\n".join(sorted(str(path.relative_to(root)) for path in root.rglob("*")))
    archive = subprocess.run(["busybox", "cpio", "-o", "-H", "newc"], input=names.encode(),
                             cwd=root, capture_output=True, check=True).stdout
    image = directory / "initrd.gz"
    image.write_bytes(gzip.compress(archive, 1))
    return image


class Guest(Closing):
    """A Linux machine whose serial console is a TCP port. It boots when somebody calls there.

    Its kernel does not check that the timer interrupts: on a busy processor it would find that it
    does not, and panic.
    """

    def __init__(self, directory: Path) -> None:
        self.port = free_port()
        self._control_port = free_port()
        self._printed = directory / "printed"
        self._control: socket.socket | None = None
        self._machine = ProgramConsole(self._command(directory), self.port)

    def _command(self, directory: Path) -> list[str]:
        line = "socket,host=127.0.0.1,server=on"
        return ["qemu-system-x86_64", "-display", "none", "-monitor", "none", "-nodefaults",
                "-net", "none", "-accel", "tcg", "-m", "128", "-no-reboot",
                "-kernel", str(KERNEL), "-initrd", str(initial_file_system(directory)),
                "-append", "console=ttyS0 panic=-1 loglevel=7 no_timer_check",
                "-chardev", f"{line},id=control,port={self._control_port},wait=off",
                "-chardev", f"{line},id=console,port={self.port},wait=on,logfile={self._printed}",
                "-serial", "chardev:console", "-serial", "chardev:control"]

    def tell(self, word: str) -> None:
        """Have the guest read this word on its other line."""
        if self._control is None:
            self._control = socket.create_connection(("127.0.0.1", self._control_port))
        self._control.sendall(word.encode() + b"\n")

    @property
    def printed(self) -> bytes:
        """All that its console has printed, as the machine itself recorded it."""
        return self._printed.read_bytes()

    def wait_up(self) -> None:
        """Wait until it has booted."""
        wait_until(lambda: self._printed.exists() and UP in self.printed, BOOTS_WITHIN,
                   "the guest's boot")

    def close(self) -> None:
        if self._control is not None:
            self._control.close()
        self._machine.shut()


@pytest.fixture
def guest(station, tmp_path):
    """The guest, up, the console "guest" of a station with a journal."""
    assert KERNEL.exists(), "script/bootstrap fetches the guest's kernel"
    with Guest(tmp_path) as machine:
        (station.config / "qor.conf").write_text("ZEVD_JOURNAL=64\n")
        station.console_line("guest", machine.port)
        station.start()
        station.wait_connected("guest")
        machine.wait_up()
        yield machine


def crash(station, guest) -> None:
    """Have the guest's kernel panic, and wait until the journal tells of the machine's end."""
    guest.tell("crash")
    wait_until(lambda: "the connection was lost" in history("--last", "5").stdout, BOOTS_WITHIN,
               "the end of the guest's connection in the journal")
    assert PANIC.encode() in guest.printed


def history(*arguments: str) -> subprocess.CompletedProcess[str]:
    """What happened at the guest's console."""
    return zevctl.run(None, "history", "guest", *arguments)


def raw_history() -> bytes:
    """The bytes of the guest's console, as the journal has them."""
    done = subprocess.run([zevctl.PROGRAM, "history", "guest", "--raw"], capture_output=True,
                          timeout=stretched(BOOTS_WITHIN), check=True)
    return done.stdout


def replay(form: str) -> str:
    """The guest's whole history in a form for other programs."""
    return zevctl.succeed(None, "replay", "guest", "--export", form)


def assert_found_and_seen_again(guest) -> None:
    """The history has the panic with its registers, and the replay all from the first byte on."""
    assert raw_history() == guest.printed
    found = history("--grep", "Kernel panic", "--context", "60")
    assert found.returncode == zevctl.OK
    registers = (r"RIP: 0033:0x[0-9a-f]+", r"RSP: 002b:[0-9a-f]+", r"R13: [0-9a-f]{16} R14:")
    for part in (PANIC, *registers):
        assert re.search(part, found.stdout), (part, found.stdout)
    lines = [line for line in guest.printed.decode().replace("\r", "").split("\n") if line]
    assert "Linux version" in lines[0] and len(lines) > 200
    shown = [line for line in replay("text").splitlines() if line]
    assert [line.rstrip() for line in shown] == [line.rstrip() for line in lines]
    header, *events = map(json.loads, replay("asciicast").splitlines())
    assert header["version"] == 2
    drawn = "".join(text for _, kind, text in events if kind == "o").encode()
    assert drawn.endswith(guest.printed)  # behind what brings a terminal into order


def test_a_panic_is_found_and_replayed(station, guest):
    user = station.attach("guest")
    crash(station, guest)
    user.expect(PANIC.encode())
    assert_found_and_seen_again(guest)


def test_a_panic_that_nobody_watches_is_found_and_replayed(station, guest):
    leave(station, station.attach("guest", user="ann"))
    crash(station, guest)
    assert_found_and_seen_again(guest)
    shown = history("--users").stdout
    assert shown.index("ann@127.0.0.1 left") < shown.index(PANIC)


def test_the_journal_tells_who_kept_a_panic_to_himself(station, guest):
    wait_until(lambda: UP in raw_history(), BOOTS_WITHIN, "the boot in the journal")
    holder = station.attach("guest", user="ann", mode="er")
    crash(station, guest)
    holder.expect(PANIC.encode())
    logged = raw_history()
    assert UP in logged and guest.printed.startswith(logged)
    found = history("--grep", "Kernel panic")
    assert found.returncode == zevctl.FAILED and PANIC not in found.stdout
    hidden = len(guest.printed) - len(logged)
    told = re.search(r"not logged from .* to .* by (\S+), (\d+) bytes", history().stdout)
    assert told is not None and told.groups() == ("ann", str(hidden)), history().stdout
