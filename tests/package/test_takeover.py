"""A station that a daemon started by root has left, after the packages are installed."""

import shutil

import pytest

from harness import settings
from harness.consoles import FakeConsole
from harness.waiting import wait_until

from machines import packages
from machines.station import CONFIG, CURRENT, OWN_PORT, ROOT, line

pytestmark = pytest.mark.needs_machine

SECRETS = ("/srv/secret", "/srv/other")


class RootsStation:
    """A station on which root runs a daemon that was copied there by hand."""

    def __init__(self, machine) -> None:
        self.machine = machine
        for part in ("bin", "lib"):
            shutil.copytree(settings.REPOSITORY / "build" / part, machine.path(f"/opt/old/{part}"))
        machine.run("mkdir", "-p", f"{ROOT}/config", f"{ROOT}/events", f"{ROOT}/logs")
        with machine.network():
            self.box = FakeConsole("box", greeting=b"in the old days\r\n")
        machine.run("sh", "-c", f"cat > {CONFIG}", given=line("box", self.box.port, OWN_PORT, '""'))
        machine.run("sh", "-c", f"cat > {ROOT}/config/qor.conf",
                    given="ZEVD_ARCH_INT=7\nZEVD_JOURNAL=16\n")
        machine.run("/opt/old/bin/zevd", "-a", "2w")
        self.box.accept()
        self.wait_log("in the old days")

    def log(self) -> str:
        """The console's log."""
        return self.machine.run("cat", f"{CURRENT}/box.log", check=False).stdout

    def wait_log(self, text: str) -> None:
        """Wait for the console's log to hold the text."""
        wait_until(lambda: text in self.log(), what=f"{text!r} in the log")

    def end(self) -> None:
        """End the daemon that root runs."""
        self.machine.run("pkill", "-TERM", "-x", "zevd")
        wait_until(lambda: self.machine.run("pgrep", "-x", "zevd", check=False).returncode,
                   what="the end of root's daemon")

    def goes_on(self) -> None:
        """The daemon of the packages goes on with what was left, under its new owner."""
        self.box.accept()
        wait_until(lambda: self.log().count("in the old days") == 2, what="the log to go on")
        find = (f"find {ROOT}/config {ROOT}/logs {ROOT}/journal ! -type l ! -user zevd "
                "-o ! -type l ! -group zevd")
        assert self.machine.output("sh", "-c", find) == ""
        assert self.machine.output("cat", f"{ROOT}/config/qor.conf") == (
            "ZEVD_ARCH_INT=14\nZEVD_JOURNAL=16")
        shown = self.machine.output("zevctl", "history", "box", "--since", "1h")
        assert shown.count("* the daemon started") == 2


def owner(machine, path: str) -> str:
    """Owner and group of a file itself."""
    return machine.output("stat", "--format=%U:%G", path)


@pytest.fixture
def old(bare):
    return RootsStation(bare)


def test_the_daemon_goes_on_with_what_roots_has_left(old):
    old.end()
    said = old.machine.install(*packages.found())
    assert "zevd-takeover: gave " in said
    assert old.machine.show("zevd.service", "ActiveState") == "active"
    old.goes_on()


def test_links_and_second_names_are_not_followed(old):
    old.end()
    machine = old.machine
    machine.run("sh", "-c", f"""
        set -e
        echo secret | tee {' '.join(SECRETS)}
        mkdir /srv/directory
        touch /srv/directory/file
        ln -s {SECRETS[0]} {ROOT}/logs/zev.dated/planted.log
        ln -s /srv/directory {ROOT}/logs/zev.dated/planted
        ln {SECRETS[1]} {ROOT}/logs/linked.log
        mkdir {ROOT}/logs/mounted
        mount -t tmpfs -o mode=755 none {ROOT}/logs/mounted
        mkfifo {ROOT}/logs/pipe
        cp /bin/true {ROOT}/logs/program
        chmod 4755 {ROOT}/logs/program""")
    said = machine.install(*packages.found())
    for path in (*SECRETS, "/srv/directory", "/srv/directory/file", f"{ROOT}/logs/linked.log",
                 f"{ROOT}/logs/mounted", f"{ROOT}/logs/pipe", f"{ROOT}/logs/program"):
        assert owner(machine, path) == "root:root", path
    assert f"{ROOT}/logs/linked.log: left alone: the file has other names" in said
    assert f"{ROOT}/logs/pipe: left alone: neither a file nor a directory" in said
    assert f"{ROOT}/logs/program: left alone: the file runs as its owner or group" in said
    assert f"{ROOT}/logs/mounted: left alone: something else is mounted there" in said
    assert "zevd-takeover: left 4 alone." in said
    assert machine.show("zevd.service", "ActiveState") == "active"


def test_logs_on_another_disk_are_taken_over(old):
    old.end()
    machine = old.machine
    machine.run("sh", "-c", f"mv {ROOT}/logs /srv/logs && ln -s /srv/logs {ROOT}/logs")
    machine.install(*packages.found())
    assert owner(machine, f"{CURRENT}/box.log") == "zevd:zevd"
    old.goes_on()


def test_a_daemon_that_still_runs_is_named_with_what_to_do(old):
    machine = old.machine
    said = machine.install(*packages.found())
    told = "then run: /usr/libexec/zevd/zevd-takeover && systemctl start zevd"
    assert told in said
    assert owner(machine, f"{CURRENT}/box.log") == "root:root"
    old.end()
    machine.run("sh", "-c", told.partition(": ")[2])
    old.goes_on()


def test_what_root_makes_later_is_left_alone(installed, tmp_path):
    """Only the first installation takes over: later, a file of root's is meant."""
    installed.run("touch", f"{ROOT}/config/roots")
    installed.install(*(packages.with_version(package, "9.9", tmp_path)
                        for package in packages.found()))
    assert owner(installed, f"{ROOT}/config/roots") == "root:root"
