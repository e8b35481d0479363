"""The filter in front of the lines, as the package loads it, and the lines' own service."""

import socket
import subprocess

import pytest

from machines import packages
from machines.station import ROOT

pytestmark = pytest.mark.needs_machine

LINES = "127.65.0.1"
TABLE = "inet zevd_lines"

CONFIGURATION = """connection: &echo_10001
  accepter: tcp,127.65.0.1,10001
  connector: exec,/bin/cat
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


def test_nobody_but_the_daemon_and_root_reaches_the_lines(installed):
    assert installed.show("zevd-lines-filter.service", "ActiveState") == "active"
    with installed.network():
        line = socket.create_server((LINES, 10001))
    with line:
        assert {user: connects(installed, user, 10001)
                for user in ("zevd", "root", "nobody", "zevd-lines")} == \
            {"zevd": True, "root": True, "nobody": False, "zevd-lines": False}


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
