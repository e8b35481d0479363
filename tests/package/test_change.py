"""Upgrading, removing and purging the packages."""

import pytest

from machines import packages
from machines.station import CONFIG, CURRENT, ROOT, Station

pytestmark = pytest.mark.needs_machine

KEPT = (CONFIG, f"{ROOT}/config/qor.conf", f"{ROOT}/config/models", f"{ROOT}/events/disk",
        "/etc/default/zevd", "/etc/pam.d/qor", f"{ROOT}/logs/old/note")


@pytest.fixture
def lived_in(installed):
    """A station with people, a console, logs, and files that have been changed."""
    station = Station(installed).furnish()
    installed.path(f"{ROOT}/logs/old").mkdir()
    for path in KEPT:
        installed.run("sh", "-c", f"echo '# ours' >> {path}")
    return station


def starts(station) -> int:
    """How many times the daemon has been started."""
    return station.machine.journal("-u", "zevd.service").count("Started zevd.service")


def purge(machine) -> str:
    """Purge what a station has installed; what was said."""
    return machine.output("apt-get", "purge", "--yes", *packages.NAMES)


def test_an_upgrade_keeps_files_and_restarts_once(lived_in, tmp_path):
    machine = lived_in.machine
    before = {path: lived_in.read(path) for path in KEPT}
    log = lived_in.read(f"{CURRENT}/box.log")
    listening_since = machine.show("zevd.socket", "ActiveEnterTimestampMonotonic")
    daemon = machine.daemon()
    count = starts(lived_in)
    newer = [packages.with_version(package, "9.9", tmp_path) for package in packages.found()]
    machine.install(*newer)
    assert machine.output("dpkg-query", "-f", "${Version}", "-W", "zevd") == "9.9"
    assert {path: lived_in.read(path) for path in KEPT} == before
    assert machine.daemon() != daemon
    assert starts(lived_in) == count + 1
    assert machine.show("zevd.socket", "ActiveEnterTimestampMonotonic") == listening_since
    lived_in.box.accept()
    with lived_in.log_in() as user:
        lived_in.attached(user)
    lived_in.wait_log("box", b"from the console")
    assert lived_in.read(f"{CURRENT}/box.log").startswith(log)


def test_what_was_removed_stays_away_after_an_upgrade_and_a_boot(installed, tmp_path):
    installed.run("rm", f"{ROOT}/config/models")
    installed.install(*(packages.with_version(package, "9.9", tmp_path)
                        for package in packages.found()))
    installed.run("systemd-tmpfiles", "--boot", "--create")
    assert not installed.path(f"{ROOT}/config/models").exists()


def test_a_daemon_that_was_disabled_is_not_started_by_an_upgrade(installed, tmp_path):
    installed.run("systemctl", "disable", "--now", "zevd.service")
    installed.install(*(packages.with_version(package, "9.9", tmp_path)
                        for package in packages.found()))
    assert installed.daemon() == 0
    assert installed.show("zevd.service", "UnitFileState") == "disabled"


def test_removal_keeps_configuration_and_logs(lived_in):
    machine = lived_in.machine
    before = {path: lived_in.read(path) for path in KEPT}
    log = lived_in.read(f"{CURRENT}/box.log")
    said = machine.output("apt-get", "remove", "--yes", *packages.NAMES)
    assert f"configuration, events and logs stay in {ROOT}" in said
    assert {path: lived_in.read(path) for path in KEPT} == before
    assert log in lived_in.read(f"{CURRENT}/box.log")
    assert machine.run("pgrep", "-x", "zevd", check=False).returncode == 1
    assert not machine.path("/usr/bin/zevd").exists()
    machine.install(*packages.found())
    assert {path: lived_in.read(path) for path in KEPT} == before
    lived_in.box.accept()


def test_purging_removes_everything_and_says_so(lived_in):
    machine = lived_in.machine
    said = purge(machine)
    for directory in ("config", "events", "logs", "run"):
        assert f"zevd: removing {ROOT}/{directory}\n" in said
    assert not machine.path("/usr/opt").exists()
    assert not machine.path("/etc/pam.d/qor").exists()
    assert machine.run("systemctl", "--failed", "--quiet").stdout == ""
    assert "zevd" not in machine.output("ls", "-R", "/etc/systemd")


def test_purging_keeps_what_is_not_ours(lived_in):
    machine = lived_in.machine
    machine.run("sh", "-c", f"""
        set -e
        echo OTHER=kept >> {ROOT}/config/qor.conf
        mkdir /srv/logs {ROOT}/share
        echo kept > /srv/logs/note
        systemctl stop zevd.service
        rm -r {ROOT}/logs
        ln -s /srv/logs {ROOT}/logs
        ln -s /etc/passwd {ROOT}/events/planted""")
    said = purge(machine)
    assert f"zevd: removing the link {ROOT}/logs; what it leads to stays." in said
    assert f"zevd: {ROOT}/config/qor.conf has settings of other programs, and stays." in said
    assert machine.output("ls", ROOT).split() == ["config", "share"]
    assert machine.output("ls", "-A", f"{ROOT}/config") == "qor.conf"
    assert lived_in.read("/srv/logs/note") == b"kept\n"
    assert lived_in.read("/etc/passwd").startswith(b"root:")


def test_a_port_that_is_taken_is_told_and_consoles_are_logged(bare):
    bare.path("/etc/systemd/system/taken.socket").write_text(
        "[Socket]\nListenStream=0.0.0.0:6500\nService=systemd-initctl.service\n")
    bare.run("systemctl", "start", "taken.socket")
    said = bare.install(*packages.found())
    assert "zevd: zevd.socket is not running. To see why, run: journalctl -u zevd.socket" in said
    assert "Address already in use" in bare.journal("-u", "zevd.socket")
    assert bare.show("zevd.service", "ActiveState") == "active"
    bare.run("systemctl", "stop", "taken.socket")
    bare.run("systemctl", "stop", "zevd.service")
    bare.run("systemctl", "start", "zevd.service")
    assert bare.show("zevd.socket", "ActiveState") == "active"
    bare.run("zevctl", "list")


def test_a_daemon_that_does_not_start_is_told(bare):
    bare.run("sh", "-c", f"mkdir -p {ROOT} && touch {ROOT}/logs")
    said = bare.install(*packages.found())
    assert "zevd: zevd.service is not running. To see why, run: journalctl -u zevd.service" in said
    assert f"zevd-check: There is no {ROOT}/logs." in bare.journal("-u", "zevd.service")
    assert bare.output("dpkg-query", "-f", "${Status}", "-W", "zevd") == "install ok installed"
