"""The filter in front of the lines, as the package loads it, and the lines' own service."""

import contextlib
import socket
import subprocess

import pytest

from harness.waiting import wait_until

from machines import packages
from machines.machine import Machine
from machines.station import ROOT

pytestmark = pytest.mark.needs_machine

LINES = "127.65.0.1"
TABLE = "inet zevd_lines"

CONFIGURATION = """connection: &echo_10001
  accepter: tcp,127.65.0.1,10001
  connector: exec,/bin/cat
"""


# Listens as somebody until its input ends.
LISTENER = """import os, socket, sys
os.setuid({user})
with socket.create_server(("{address}", {port})):
    print("listening", flush=True)
    sys.stdin.read()
"""


def connects(machine, user: str, port: int) -> bool:
    """Whether a process of this user in the machine reaches the port of the lines."""
    number = machine.output("id", "-u", user)
    program = (f"import os, socket; os.setuid({number}); "
               f"socket.create_connection(('{LINES}', {port}), timeout=5)")
    done = subprocess.run(["nsenter", f"--target={machine.first}", "--net", "/usr/bin/python3",
                           "-c", program], capture_output=True, text=True, check=False)
    assert done.returncode == 0 or "ConnectionRefusedError" in done.stderr, done.stderr
    return done.returncode == 0


@pytest.fixture(scope="module")
def machine_with_rules():
    """A machine whose packet filter the tests share; its rules are Debian's."""
    machine = Machine().boot()
    try:
        machine.install(*packages.found())
        yield machine
    finally:
        machine.end()


def test_nobody_but_the_daemon_and_root_reaches_the_lines(installed):
    assert installed.show("zevd-lines-filter.service", "ActiveState") == "active"
    with installed.network():
        line = socket.create_server((LINES, 10001))
    with line:
        assert {user: connects(installed, user, 10001)
                for user in ("zevd", "root", "nobody", "zevd-lines")} == \
            {"zevd": True, "root": True, "nobody": False, "zevd-lines": False}


@pytest.mark.parametrize("step", ["start", "reload", "restart", "stop"])
def test_other_rules_leave_the_filter_there(machine_with_rules, step):
    """Debian's rules begin with a flush, and so does stopping them; the lines go on."""
    machine = machine_with_rules
    before = machine.output("nft", "list", "table", *TABLE.split())
    since = machine.show("zevd-lines-filter.service", "ActiveEnterTimestampMonotonic")
    machine.run("systemctl", "stop" if step == "start" else "start", "nftables.service")
    machine.run("nft", "flush", "ruleset")
    machine.run("systemctl", step, "nftables.service")
    assert machine.output("nft", "list", "table", *TABLE.split()) == before
    assert ("table inet filter" in machine.output("nft", "list", "ruleset")) == (step != "stop")
    assert machine.show("zevd-lines-filter.service", "ActiveEnterTimestampMonotonic") == since


def test_purging_takes_the_filter_away(installed):
    installed.run("apt-get", "purge", "--yes", *packages.NAMES)
    assert TABLE not in installed.output("nft", "list", "ruleset")


def test_an_upgrade_loads_the_filter_again(installed, tmp_path):
    installed.run("nft", "add", "rule", *TABLE.split(), "output", "counter", "comment", "old")
    installed.install(*(packages.with_version(package, "9.9", tmp_path)
                        for package in packages.found()))
    assert '"old"' not in installed.output("nft", "list", "table", *TABLE.split())


def test_without_lines_the_service_has_nothing_to_do(installed):
    assert installed.show("zevd-lines.service", "UnitFileState") == "enabled"
    assert installed.show("zevd-lines.service", "ActiveState") == "inactive"
    assert installed.run("systemctl", "--failed", "--quiet").stdout == ""


def test_a_line_runs_as_a_user_who_cannot_read_the_cookie(installed):
    file = f"{ROOT}/config/lines.yaml"
    installed.run("sh", "-c", f"cat > {file} && chown zevd:zevd {file} && chmod 640 {file}",
                  given=CONFIGURATION)
    installed.run("systemctl", "start", "zevd-lines.service")
    installed.run("systemctl", "start", "zevd-lines@10001.service")
    line = installed.show("zevd-lines@10001.service", "MainPID")
    assert installed.output("stat", "--format=%U", f"/proc/{line}") == "zevd-lines"
    refused = installed.run("setpriv", "--reuid=zevd-lines", "--regid=zevd-lines", "--init-groups",
                            "cat", f"{ROOT}/config/.cookie", check=False)
    assert refused.returncode != 0
    assert "Permission denied" in refused.stdout


class Lines:
    """The lines of a machine, as the client applies them."""

    def __init__(self, machine) -> None:
        self.machine = machine

    def apply(self, **programs: str) -> subprocess.CompletedProcess:
        """Have a line for each of these programs."""
        self.machine.run("sh", "-c", f"cat > {ROOT}/config/consoles.toml",
                         given="".join(f'[[console]]\nname = "{name}"\nexec = "{program}"\n'
                                       for name, program in programs.items()))
        return self.machine.run("zevctl", "config", "apply", check=False)

    def process(self, port: int) -> int:
        """The process of the line; 0 while there is none."""
        return int(self.machine.show(f"zevd-lines@{port}.service", "MainPID"))

    def connected(self) -> set[str]:
        """The consoles to which the daemon is connected."""
        rows = [row.split() for row in self.machine.output("zevctl", "list").splitlines()[1:]]
        return {row[0] for row in rows if row[1:2] == ["connected"]}

    def files(self) -> dict[str, str]:
        """The files that the client and the service write."""
        found = self.machine.output("sh", "-c", f"echo {ROOT}/config/lines.yaml "
                                                f"{ROOT}/config/zev.conf /run/zevd-lines/*.yaml")
        return {path: self.machine.output("cat", path) for path in found.split()}


@contextlib.contextmanager
def stranger_at(machine, port: int):
    """A listener of nobody's at a port of the lines."""
    program = LISTENER.format(user=machine.output("id", "-u", "nobody"), address=LINES, port=port)
    with subprocess.Popen(["nsenter", f"--target={machine.first}", "--net", "/usr/bin/python3",
                           "-c", program], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE) as listener:
        assert listener.stdout.readline() == b"listening\n"
        yield
        listener.stdin.close()


def test_an_apply_leaves_the_lines_alone_that_did_not_change(installed):
    lines = Lines(installed)
    applied = lines.apply(one="cat", two="cat")
    assert applied.returncode == 0, applied.stdout
    wait_until(lambda: {"one", "two"} <= lines.connected(), 20, "the consoles to be connected")
    one, two = lines.process(10001), lines.process(10002)
    assert one and two

    applied = lines.apply(one="cat", two="cat -u")
    assert applied.returncode == 0, applied.stdout
    wait_until(lambda: {"one", "two"} <= lines.connected(), 20, "the consoles to be connected")
    assert lines.process(10001) == one
    assert lines.process(10002) not in (0, two)

    before, two = lines.files(), lines.process(10002)
    with stranger_at(installed, 10003):
        applied = lines.apply(one="cat", two="cat -u", three="cat")
    assert applied.returncode != 0
    assert 'the line of "three" does not listen on port 10003' in applied.stdout
    assert lines.files() == before
    assert (lines.process(10001), lines.process(10002)) == (one, two)
    assert lines.connected() == {"one", "two"}
    assert installed.show("zevd-lines@10003.service", "ActiveState") == "inactive"

    applied = lines.apply(two="cat -u")
    assert applied.returncode == 0, applied.stdout
    assert installed.show("zevd-lines@10001.service", "ActiveState") == "inactive"
    assert lines.process(10002) == two


def test_a_start_that_failed_is_tried_again(installed):
    """As when the daemon's user could not be asked while the machine booted."""
    installed.run("sh", "-c", f"mkdir {ROOT}/config/lines.yaml")
    assert installed.run("systemctl", "start", "zevd-lines.service", check=False).returncode != 0
    file = f"{ROOT}/config/lines.yaml"
    installed.run("sh", "-c", f"rmdir {file} && cat > {file} && chown zevd:zevd {file}",
                  given=CONFIGURATION)
    wait_until(lambda: installed.show("zevd-lines@10001.service", "MainPID") != "0", 20,
               "the line")
