"""Consoles of machines: serial-over-LAN by the line server, and a virtual machine's serial port."""

import contextlib
import subprocess
from pathlib import Path

import pytest

from harness import lines, zevctl
from harness.consoles import FakeConsole, ProgramConsole
from harness.logs import log_of, read
from harness.waiting import free_port, wait_until

pytestmark = pytest.mark.needs_namespace

# Echoes what the first serial port receives, one byte at a time, and does nothing else.
ECHO_SECTOR = bytes.fromhex("fa 31c0 8ed8 8ec0 bafd03 ec a801 74f8 baf803 ec ee ebf1")

BMC = """
name "bmc"
set_working_mc 0x20
  startlan 1
    addr 127.0.0.1 {port}
    priv_limit admin
    allowed_auths_admin none md2 md5 straight
    guid a123456789abcdefa123456789abcdef
  endlan
  sol "tcp:127.0.0.1:{serial}" 115200
  user 2 true "adm" "secret" admin 10 none md2 md5 straight
"""
BMC_COMMANDS = """
mc_setbmc 0x20
mc_add 0x20 0 no-device-sdrs 0x23 9 8 0x9f 0x1291 0xf02 persist_sdr
mc_enable 0x20
"""


@contextlib.contextmanager
def management_controller(directory: Path, port: int, serial: int):
    """A simulated controller whose serial port is a connection to the test."""
    (directory / "state").mkdir()
    (directory / "lan.conf").write_text(BMC.format(port=port, serial=serial), encoding="ascii")
    (directory / "commands").write_text(BMC_COMMANDS, encoding="ascii")
    with subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "--", "ipmi_sim", "-n", "-c", directory / "lan.conf",
             "-f", directory / "commands", "-s", directory / "state"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL) as simulator:
        try:
            yield
        finally:
            simulator.kill()


def test_serial_over_lan_is_a_console(station, tmp_path):
    lines.add_address()
    secret = tmp_path / "bmc.secret"
    secret.write_text("secret\n", encoding="ascii")
    secret.chmod(0o600)
    port, serial = free_port(), FakeConsole("serial")
    station.start()
    target = f'ipmi = "adm@127.0.0.1:{port}"\nsecret_file = "{secret}"'
    with management_controller(tmp_path, port, serial.port):
        serial.accept()
        with lines.serve(station, bmc=target), zevctl.Terminal(station, "attach", "bmc") as person:
            person.expect("Attached to")
            person.type("k")
            serial.expect(b"k")
            serial.send(b"login: \r\n")
            person.expect("login: ")
            person.type("\r~b")
            serial.expect(b"\xff\xf3")  # as the simulator tells a break over TCP
            wait_until(lambda: b"login: " in read(log_of(station, "bmc")), what="the log")
        assert "secret" not in station.config_file.read_text(encoding="ascii")
    serial.shut()


def test_the_serial_port_of_a_virtual_machine_is_a_console(station, tmp_path):
    disk = tmp_path / "disk"
    disk.write_bytes(ECHO_SECTOR.ljust(510, b"\0") + b"\x55\xaa")
    port = free_port()
    machine = ["qemu-system-x86_64", "-display", "none", "-monitor", "none", "-nodefaults",
               "-accel", "tcg", "-m", "8", "-boot", "a",
               "-drive", f"file={disk},format=raw,if=floppy",
               "-serial", f"telnet:127.0.0.1:{port},server=on,wait=off"]
    with ProgramConsole(machine, port):
        station.console_line("vm", port)
        station.start()
        station.wait_connected("vm")
        with zevctl.Terminal(station, "attach", "vm") as person:
            person.expect("Attached to")
            person.type("echo\x03\xfe~")
            person.expect("echo\x03\xfe~".encode())
            person.type("\n")
            wait_until(lambda: "echo\x03\xfe~\n".encode() in read(log_of(station, "vm")),
                       what="the log")
