"""The README's own lines, copied one after the other into a machine on which the packages are."""

import contextlib
import fcntl
import os
import re
import ssl
import struct
import urllib.error
import urllib.request

import pytest

from harness import settings
from harness.consoles import FakeConsole
from harness.waiting import wait_until

pytestmark = pytest.mark.needs_machine

README = settings.REPOSITORY / "README.md"
MACHINES_PORT = 2301  # of the virtual machine, as the README has it

# ioctl_tty(2); Python has no names for them.
_UNLOCK, _GET_NUMBER = 0x40045431, 0x80045430


def steps() -> dict[str, list[str]]:
    """The blocks of lines of each step, by its heading."""
    found = re.findall(r"^### \d+\. (.*)\n((?:(?!^##)[\s\S])*)", README.read_text(), re.MULTILINE)
    return {heading: re.findall(r"^```sh\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)
            for heading, text in found}


class SerialPort:
    """/dev/ttyUSB0 of a machine; what is written to it arrives here."""

    def __init__(self, machine) -> None:
        inside = f"/proc/{machine.first}/root/dev/pts/ptmx"
        self._end = os.open(inside, os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)
        fcntl.ioctl(self._end, _UNLOCK, struct.pack("i", 0))
        number, = struct.unpack("I", fcntl.ioctl(self._end, _GET_NUMBER, b"\0" * 4))
        machine.run("chgrp", "dialout", f"/dev/pts/{number}")
        machine.run("chmod", "660", f"/dev/pts/{number}")
        machine.run("ln", "-s", f"/dev/pts/{number}", "/dev/ttyUSB0")

    def write(self, data: bytes) -> None:
        """Print something."""
        os.write(self._end, data)

    def received(self) -> bytes:
        """What has been typed since the last call."""
        with contextlib.suppress(BlockingIOError):
            return os.read(self._end, 4096)
        return b""

    def close(self) -> None:
        """Take the port away."""
        os.close(self._end)


class Newcomer:
    """Somebody who copies the lines of the README into a shell of root's."""

    def __init__(self, machine) -> None:
        self._machine = machine
        self._steps = steps()
        self.screen = ""

    def follow(self, step: str, block: int = 0) -> str:
        """Copy a block of a step; each of its lines must succeed."""
        done = self._machine.run("bash", "-e", "-c", self._steps[step][block])
        self.screen += done.stdout
        return done.stdout

    def begin(self, step: str, block: int, output):
        """Copy a block that goes on until it is interrupted."""
        return self._machine.begin("bash", "-c", "exec " + self._steps[step][block], output=output)


@pytest.fixture
def serial_port(installed):
    port = SerialPort(installed)
    yield port
    port.close()


@pytest.fixture
def virtual_machine(installed):
    with installed.network(), FakeConsole("vm1", port=MACHINES_PORT) as console:
        yield console


def page() -> str:
    """What a browser on the station gets; nothing while the server starts."""
    link, = re.findall(r"`(https://127\.0\.0\.1:\d+/)`", README.read_text())
    unsigned = ssl.create_default_context()
    unsigned.check_hostname = False
    unsigned.verify_mode = ssl.CERT_NONE
    try:
        with urllib.request.urlopen(link, timeout=20, context=unsigned) as answer:
            return answer.read().decode()
    except urllib.error.URLError as error:
        assert isinstance(error.reason, ConnectionRefusedError), error
        return ""


def test_the_readme_installs_what_script_package_makes():
    install, = steps()["Install"]
    assert install.splitlines()[-1].startswith("apt install ./build/packages/*.deb ")


def test_the_readmes_lines_make_a_station(installed, serial_port, virtual_machine, tmp_path):
    """All steps but the first, which the fixture does."""
    installed.run("useradd", "alice")
    newcomer = Newcomer(installed)
    newcomer.follow("Let people in")
    assert {"qoruser", "zevd"} <= set(installed.output("id", "-nG", "alice").split())
    for step in ("A serial console", "A virtual machine", "A BMC", "A pattern"):
        newcomer.follow(step)
    newcomer.follow("Check and apply")
    virtual_machine.accept()

    def states() -> dict[str, str]:
        rows = installed.output("zevctl", "list").splitlines()
        return {row.split()[0]: row.split()[1] for row in rows[1:] if len(row.split()) > 1}

    wait_until(lambda: states().get("serial1") == "connected" and states()["vm1"] == "connected",
               20, "the consoles to be connected")
    assert "bmc1" in states()

    serial_port.write(b"login: \r\nhello\r\n")
    assert "hello" in newcomer.follow("Attach")
    installed.run("sh", "-c", "echo who am i | zevctl attach serial1")
    typed = b""
    while b"who am i" not in typed:
        typed += wait_until(serial_port.received, what="what was typed")

    assert "hello" in newcomer.follow("Logs and events")
    events = tmp_path / "events"
    watching = newcomer.begin("Logs and events", 1, events)
    try:
        def posted() -> bool:
            serial_port.write(b"disk error\r\n")
            return "disk error" in events.read_text()

        wait_until(posted, what="the event")
    finally:
        watching.terminate()
        watching.wait()
    assert re.search(r"serial1 disk_error: disk error$", events.read_text(), re.MULTILINE)
    serial_port.write(b"an error of another kind\r\n")
    wait_until(lambda: "another kind" in installed.output("zevctl", "log", "serial1"),
               what="the log")
    assert "another kind" in newcomer.follow("Every day")
    assert "changeme" not in installed.output("cat", "/tmp/zevd-report")

    newcomer.follow("In a browser")
    wait_until(lambda: "<title>" in page(), what="the page")
