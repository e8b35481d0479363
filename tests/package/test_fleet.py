"""zevfleet from its package, under systemd, with its own user: it takes consoles and gives back."""

import json
import shutil
import socket
import subprocess

import pytest

from harness.consoles import FakeConsole
from harness.waiting import wait_until

from machines import packages
from machines.station import ROOT

pytestmark = pytest.mark.needs_machine

UNITS = ("zevfleet.service", "zevfleet-guard.service")
SHIP = "zevfleet-ship.service"
SETTINGS = f"{ROOT}/config/zevfleet.toml"
MAP = "/run/zevfleet/fleet.json"
CLIENT_PORT = 2379
LEASE = 5
VERSION = "9.9.9"


@pytest.fixture(scope="module")
def etcd(station, tmp_path_factory):
    """A server in the machine's network."""
    scratch = tmp_path_factory.mktemp("etcd")
    url = f"http://127.0.0.1:{CLIENT_PORT}"
    peer = "http://127.0.0.1:2380"
    with station.machine.network(), open(scratch / "log", "wb") as log:
        process = subprocess.Popen(
            ["etcd", "--data-dir", scratch / "data", "--listen-client-urls", url,
             "--advertise-client-urls", url, "--listen-peer-urls", peer,
             "--initial-advertise-peer-urls", peer, "--initial-cluster", f"default={peer}"],
            stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def listens() -> bool:
        with station.machine.network(), socket.socket() as attempt:
            return attempt.connect_ex(("127.0.0.1", CLIENT_PORT)) == 0

    wait_until(listens, what="etcd to listen")
    yield url
    process.kill()
    process.wait()


@pytest.fixture(scope="module")
def shared(station):
    """A console that the fleet has."""
    with station.machine.network():
        console = FakeConsole("shared", greeting=b"ready\r\n")
    yield console
    console.shut()


def fleet_map(machine) -> dict:
    """The map that the station publishes; nothing before the first."""
    text = machine.run("cat", MAP, check=False).stdout
    return json.loads(text) if text.startswith("{") else {}


def owner(machine) -> str:
    """Who has the console, as the map says."""
    consoles = fleet_map(machine).get("consoles")
    return consoles[0]["station"] if consoles else ""


def test_nothing_runs_until_it_is_started(station):
    for unit in (*UNITS, SHIP):
        assert station.machine.show(unit, "ActiveState") == "inactive"
    assert station.machine.show("zevfleet.service", "UnitFileState") == "disabled"
    # The daemon has started with what runs before it, without any settings.
    assert station.machine.daemon() > 0
    assert "zevfleet prepare" in station.machine.show("zevd.service", "ExecStartPreEx")


def test_a_station_takes_a_console_of_the_fleet(station, etcd, shared):
    machine = station.machine
    machine.path(SETTINGS).write_text(
        f'site = "hall"\nstation = "st1"\naddress = "127.0.0.1"\n'
        f'[etcd]\nendpoints = ["{etcd}"]\nlease_seconds = {LEASE}\n', encoding="ascii")
    machine.path("/root/fleet.toml").write_text(
        f'fleet = "hall"\n[[console]]\nname = "shared"\ntcp = "127.0.0.1:{shared.port}"\n',
        encoding="ascii")
    # The station's consoles come from consoles.toml, too.
    machine.run("sh", "-c", f"zevctl config import --output {ROOT}/config/consoles.toml")
    machine.run("zevctl", "config", "apply", "--force", "-y")
    machine.run("zevfleet", "apply", "/root/fleet.toml")
    daemon = machine.daemon()
    machine.run("systemctl", "enable", "--now", "zevfleet.service")
    shared.accept()
    wait_until(lambda: owner(machine) == "st1", what="the map")
    assert machine.daemon() == daemon
    assert machine.output("zevfleet", "status").splitlines()[1].split()[:3] == [
        "st1", "ready", "1"]


def test_both_run_as_their_own_user(station):
    machine = station.machine
    uid = machine.output("id", "-u", "zevfleet")
    for unit in UNITS:
        pid = machine.show(unit, "MainPID")
        lines = machine.output("cat", f"/proc/{pid}/status").splitlines()
        status = dict(line.partition(":")[::2] for line in lines)
        assert status["Uid"].split() == [uid] * 4, unit
    files = machine.output("stat", "--format=%U:%G %a", f"{ROOT}/config/zev.conf",
                           f"{ROOT}/config/consoles.d/zevfleet.toml", "/run/zevfleet/lease", MAP)
    assert files.splitlines() == ["zevd:zevd 640", "zevd:zevd 640", "zevfleet:zevd 644",
                                  "zevfleet:zevd 644"]


def test_a_stopped_run_costs_the_daemon_its_life_and_the_console(station, shared):
    machine = station.machine
    daemon = machine.daemon()
    machine.run("systemctl", "kill", "--signal=STOP", "zevfleet.service")
    wait_until(lambda: machine.daemon() not in (0, daemon), 2 * LEASE, "another daemon")
    journal = machine.output("journalctl", "--unit=zevfleet-guard.service", "--output=cat")
    assert "(zevfleet run) was killed" in journal
    assert "(zevd) was killed, as other stations may take its consoles over" in journal
    # Both have been started again, and the console is taken by a new lease.
    shared.accept()
    wait_until(lambda: owner(machine) == "st1", 4 * LEASE, "the map")


def test_the_journal_is_shipped_by_its_own_user(station, tmp_path):
    machine = station.machine
    with machine.network(), open(tmp_path / "nats.log", "wb") as log:
        server = subprocess.Popen(["nats-server", "-js", "-sd", tmp_path / "streams",
                                   "-a", "127.0.0.1"], stdin=subprocess.DEVNULL, stdout=log,
                                  stderr=log)
    try:
        machine.run("sh", "-c", f"echo ZEVD_JOURNAL=64 >> {ROOT}/config/qor.conf; "
                    f"printf '[nats]\nurls = [\"nats://127.0.0.1:4222\"]\n' >> {SETTINGS}")
        machine.run("systemctl", "reload", "zevd.service")
        machine.run("systemctl", "start", SHIP)
        wait_until(lambda: machine.run("test", "-s", "/var/lib/zevfleet/shipped",
                                       check=False).returncode == 0, 20, "something to be shipped")
        assert machine.output("stat", "--format=%U", "/var/lib/zevfleet/shipped") == "zevfleet"
        machine.run("systemctl", "stop", SHIP)
        assert machine.show(SHIP, "Result") == "success"
    finally:
        server.kill()
        server.wait()


def test_an_upgrade_moves_nothing(station, tmp_path):
    machine = station.machine
    daemon = machine.daemon()
    pids = [machine.show(unit, "MainPID") for unit in UNITS]
    newer = packages.with_version(
        next(path for path in packages.found() if path.name.startswith("zevfleet_")), VERSION,
        tmp_path)
    shutil.copy(newer, machine.path("/root"))
    machine.run("dpkg", "--force-depends", "--install", f"/root/{newer.name}")
    wait_until(lambda: "0" not in (now := [machine.show(unit, "MainPID") for unit in UNITS])
               and not set(now) & set(pids), what="new processes")
    # The old map is still there: the new program has done its first round when it has written one.
    seen = fleet_map(machine)["as_of"]
    wait_until(lambda: fleet_map(machine)["as_of"] > seen, what="a new map")
    assert owner(machine) == "st1"
    assert machine.daemon() == daemon


def test_a_station_that_is_stopped_leaves_in_good_order(station):
    machine = station.machine
    daemon = machine.daemon()
    machine.run("systemctl", "stop", "zevfleet.service", "zevfleet-guard.service")
    assert machine.daemon() == daemon
    assert "shared" not in machine.output("zevctl", "list")
    assert "shared" not in machine.path(f"{ROOT}/config/zev.conf").read_text()


def test_purging_leaves_the_station(station):
    machine = station.machine
    daemon = machine.daemon()
    machine.run("apt-get", "purge", "--yes", "zevfleet")
    assert machine.daemon() == daemon
    for path in ("/var/lib/zevfleet", "/run/zevfleet"):
        assert not machine.path(path).exists()
    machine.run("systemctl", "restart", "zevd.service")
    assert machine.daemon() not in (0, daemon)
