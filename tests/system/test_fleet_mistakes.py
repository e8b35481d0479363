"""Many stations as one: what is wrong is named, and the station goes on alone."""

import json
import signal
import time

import pytest

from harness import settings
from harness.clock import ShiftedClock
from harness.failing_calls import FailingCalls, build_library
from harness.fleet import LASTING, LEASE, PREFIX, TAKE_OVER, Fleet, FleetStation
from harness.waiting import wait_until

pytestmark = pytest.mark.needs_namespace

START = 30.0
CONFIG = f"{settings.root()}/config"


@pytest.fixture
def make(tmp_path, isolated):
    """Makes a fleet; nothing of it is left afterwards, and no console has had two connections."""
    made = []

    def build(*numbers: int, **options) -> Fleet:
        made.append(Fleet(tmp_path, *numbers, **options))
        return made[-1]

    yield build
    for fleet in made:
        fleet.end()
    for fleet in made:
        fleet.assert_never_two()


def give_own_console(fleet: Fleet, station: FleetStation, name: str) -> None:
    """Take a console out of the fleet's, and make it one of the station's own."""
    (station.config / "consoles.toml").write_text(
        f'[[console]]\nname = "own"\ntcp = "{fleet.rack.address(name)}"\n', encoding="ascii")
    station.zevctl("config", "apply", "-y")


def wait_problem(station: FleetStation, text: str) -> None:
    """Wait until the map and the messages name the problem."""
    wait_until(lambda: station.map().get("problem") == text, START, f"{text!r} in the map")
    wait_until(lambda: f"zevfleet: {text}\n" in station.run.text(), what=f"{text!r} to be told")


# The fleet is not there, or another one


def test_without_etcd_a_station_goes_on_alone(make):
    fleet = make(1, 2)
    station = fleet.stations[0]
    give_own_console(fleet, station, "box02")
    station.start()
    wait_until(lambda: fleet.owners() == {"box01": None, "box02": "st1"}, START, "its own console")
    wait_until(lambda: station.map().get("problem", "").startswith(fleet.etcd[0].url),
               what="the reason")
    assert station.map()["connected"] is False


def test_a_fleet_has_to_be_made_first(make):
    fleet = make(1, 1)
    fleet.start_etcd()
    fleet.stations[0].start()
    wait_problem(fleet.stations[0],
                 'there is no fleet "hall" in etcd; make it with "zevfleet apply"')
    fleet.apply()
    fleet.wait_owned()


def test_two_fleets_of_one_name_are_told_apart(make):
    fleet = make(2, 2).start()
    fleet.wait_owned()
    station = fleet.stations[0]
    station.run.stop()
    value = json.loads(fleet.value("fleet"))
    fleet.put("fleet", json.dumps(value | {"id": "another"}))
    station.run = station.keep("run")
    wait_problem(station, 'the fleet "hall" in etcd is not the one that this station was in: two '
                          "fleets have this name. If the other one is meant, remove "
                          "/var/lib/zevfleet/fleet")
    assert "st1" not in fleet.owners().values()


def test_two_stations_of_one_name_are_told_apart(make):
    fleet = make(2, 2, lease=LASTING)
    first, second = fleet.stations
    second.configure([fleet.etcd[0].url], {"lease_seconds": LASTING}, station="st1")
    fleet.start_etcd()
    fleet.apply()
    first.start()
    fleet.wait_owned()
    second.start()
    wait_problem(second, f'another station ({first.machine.address}) is called "st1"; give each '
                         "its own name")
    assert set(fleet.owners().values()) == {"st1"}


def test_a_newer_fleet_is_left_alone(make):
    fleet = make(1, 1)
    fleet.start_etcd()
    fleet.put("fleet", '{"format": 2, "id": "of the future"}')
    fleet.stations[0].start()
    wait_problem(fleet.stations[0], 'the fleet "hall" is of a newer version (format 2); bring '
                                    "zevfleet up to date")
    done = fleet.apply(check=False)
    assert (done.returncode, done.stderr) == (
        1, "zevfleet: the key /zevfleet/hall/fleet of etcd was not written by zevfleet, or by a "
           "newer one; nothing was changed\n")


@pytest.mark.parametrize("key, value, consoles", [
    ("consoles/stranger", "not JSON", {"box01": "st1"}),
    ("consoles/stranger", '{"line": "other 127.0.0.1 9 0 0 - - \\"-\\" 1 1 1 1 \\"\\"", '
                          '"stations": [], "others": true, "told": false}', {"box01": "st1"}),
    ("stations/stranger", "[]", {"box01": "st1"}),
    ("what/is/this", "1", {"box01": "st1"}),
    # Whoever has written it may have the console.
    ("claims/ADDRESS", "mine", {"box01": None}),
])
def test_keys_of_others_do_not_count(make, key, value, consoles):
    fleet = make(1, 1)
    fleet.start_etcd()
    fleet.apply()
    key = key.replace("ADDRESS", fleet.rack.address("box01"))
    fleet.put(key, value)
    station = fleet.stations[0]
    station.start()
    wait_problem(station, f'the key "{PREFIX}{key}" of etcd was not written by zevfleet, or by a '
                          "newer one; it does not count")
    wait_until(lambda: fleet.owners() == consoles, START, "what is right to count")
    fleet.etcdctl("del", PREFIX + key)
    wait_until(lambda: station.map()["problem"] == "", what="the problem to be over")
    fleet.wait_owned()


def test_a_station_whose_clock_is_wrong_does_not_take_part(make, tmp_path):
    fleet = make(1, 1)
    fleet.start_etcd()
    fleet.apply()
    station = fleet.stations[0]
    clock = ShiftedClock(tmp_path)
    clock.shift(-7200)
    station.start(env=clock.env)
    wait_until(lambda: "behind that of etcd; set it" in station.map().get("problem", ""),
               what="the reason")
    seconds = int(station.map()["problem"].split()[4])
    assert 7190 < seconds < 7260
    assert fleet.owners() == {"box01": None}
    clock.shift(0)
    fleet.wait_owned()


# Files


def test_a_bad_fleet_file_changes_nothing(make):
    fleet = make(1, 1).start()
    fleet.wait_owned()
    text = fleet.file().replace('"st1"', '"st1", "st1"')
    done = fleet.apply(text, check=False)
    path = fleet.scratch / "fleet.toml"
    assert done.returncode == 1
    assert done.stderr == (f'{path}:9:20: error: the station "st1" is named twice; name it once\n'
                           "zevfleet: the fleet was not changed; mend what is named above\n")
    assert fleet.record("box01")["stations"] == ["st1"]


def test_the_file_of_another_fleet_changes_nothing(make):
    fleet = make(1, 1)
    fleet.start_etcd()
    done = fleet.apply(fleet.file().replace('fleet = "hall"', 'fleet = "mill"'), check=False)
    assert done.returncode == 1
    assert done.stderr == (
        f'{fleet.scratch / "fleet.toml"}: error: the file is about the fleet "mill", but this '
        'station is in "hall"; correct one of them\n'
        "zevfleet: the fleet was not changed; mend what is named above\n")
    assert fleet.keys("consoles") == {}


def test_a_station_with_a_broken_configuration_leaves_consoles_to_others(make):
    fleet = make(2, 2)
    fleet.start_etcd()
    fleet.apply(fleet.file({name: ["st1", "*"] for name in fleet.names}))
    broken = fleet.stations[0]
    (broken.config / "consoles.toml").write_text('[[console]]\nname = "x"\n', encoding="ascii")
    for station in fleet.stations:
        station.start()
    fleet.wait_owned(["st2"])
    wait_problem(broken, f'{CONFIG}/consoles.toml:1:1: error: the console "x" does not say how it '
                         "is reached; give it one of tcp, serial, exec, ssh and ipmi")
    (broken.config / "consoles.toml").write_text("", encoding="ascii")
    fleet.wait_owned(["st1"])


def test_a_reload_that_fails_leaves_consoles_to_others(make, tmp_path):
    fleet = make(2, 2)
    fleet.start_etcd()
    fleet.apply(fleet.file({name: ["st1", "*"] for name in fleet.names}))
    failing = fleet.stations[0]
    calls = FailingCalls(build_library(tmp_path), tmp_path)
    failing.start_daemon(calls.env)
    wait_until(failing.answers, what="a daemon")
    calls.arm("opendir", 1, lasting=True)
    failing.guard, failing.run = failing.keep("guard"), failing.keep("run")
    fleet.stations[1].start()
    fleet.wait_owned(["st2"])
    wait_until(lambda: 'reload ended with "event files failed"' in failing.run.text(),
               what="the reason")
    for name in fleet.names:
        assert name not in (failing.config / "zev.conf").read_text(encoding="ascii")
    calls.disarm()
    fleet.wait_owned(["st1"])


# Before the daemon starts


def stale_station(fleet: Fleet) -> FleetStation:
    """A station that was switched off with a console of the fleet in its files."""
    station = fleet.stations[0]
    fleet.wait_owned()
    station.end()
    assert "box01 " in (station.config / "zev.conf").read_text(encoding="ascii")
    return station


def test_a_daemon_starts_without_consoles_whose_lease_is_over(make):
    fleet = make(1, 2)
    fleet.start_etcd()
    fleet.apply(fleet.file().split('[[console]]\nname = "box02"')[0])
    station = fleet.stations[0]
    give_own_console(fleet, station, "box02")
    station.start()
    station = stale_station(fleet)
    assert (station.config / "zev.conf").read_text(encoding="ascii").count("\n") == 3
    # As after a start of the machine: what is in memory only is gone.
    station.machine.run(["umount", "/run"])
    station.machine.run(["mount", "-t", "tmpfs", "tmpfs", "/run"])
    station.fleet("prepare")
    conf = (station.config / "zev.conf").read_text(encoding="ascii")
    assert [line.split()[0] for line in conf.splitlines()[1:]] == ["own"]
    assert "box01" not in (station.config / "consoles.d/zevfleet.toml").read_text(encoding="ascii")
    assert station.zevctl("config", "diff").stdout == "no console comes, goes or changes\n"


def test_lines_that_were_edited_by_hand_stay_as_they_are(make):
    fleet = make(1, 1).start()
    station = stale_station(fleet)
    conf = station.config / "zev.conf"
    edited = "# mine\nhalf a line\nown 127.0.0.1 9 0 0 - -  \"two blanks\" 1 1 1 1 \"\" \n"
    conf.write_text(conf.read_text(encoding="ascii") + edited, encoding="ascii")
    mark = conf.read_text(encoding="ascii").splitlines(keepends=True)[0]
    wait_until(lambda: fleet.keys("claims") == {}, 2 * LEASE, "the lease to end")
    station.fleet("prepare")
    assert conf.read_text(encoding="ascii") == mark + edited


def test_a_daemon_keeps_consoles_whose_lease_is_good(make):
    fleet = make(1, 1, lease=LASTING).start()
    fleet.wait_owned()
    station = fleet.stations[0]
    before = (station.config / "zev.conf").read_text(encoding="ascii")
    station.fleet("prepare")
    assert (station.config / "zev.conf").read_text(encoding="ascii") == before
    assert "box01 " in before
    assert fleet.owners() == {"box01": "st1"}


def test_a_run_that_was_stopped_in_the_middle_does_not_write_afterwards(make):
    """What the guard and the preparation rely on: a process of the old lease is gone."""
    fleet = make(1, 1, lease=2 * LEASE).start()
    fleet.wait_owned()
    station = fleet.stations[0]
    station.guard.end()
    station.run.signal(signal.SIGSTOP)
    pid = station.run.pid
    deadline = time.monotonic() + 2 * LEASE
    wait_until(lambda: time.monotonic() > deadline, 2 * LEASE + 1, "the lease to be over")
    station.fleet("prepare")
    wait_until(lambda: station.run.pid != pid, what="the stopped process to be ended")
    assert (station.config / "zev.conf").read_text(encoding="ascii").count("box01 ") == 0


# Settings


@pytest.mark.parametrize("text, mistakes", [
    ("", [': error: no "endpoints"; set it in [etcd], to share consoles, or "urls" in [nats], to '
          "ship the journal",
          ': error: no "site"; set it to the name of the fleet',
          ": error: no \"station\"; set it to this station's name in the fleet"]),
    ('site = "a b"\n', [':1:8: error: bad "site"; write a word of letters, digits, "-" and "_", in '
                        "quotes"]),
    ('colour = 1\n', [':1:1: error: unknown key "colour"; zevfleet(8) lists the keys']),
    ('[etcd]\nlease_seconds = 4\n', [
        ':2:17: error: bad "lease_seconds"; write a number from 5 to 3600']),
    ('[etcd]\nendpoints = ["etcd:2379"]\n', [
        ':2:13: error: bad "endpoints"; write addresses in brackets, such as '
        '["https://HOST:PORT"]']),
    ('site = "a"\nstation = "b"\n[etcd]\nendpoints = ["http://c"]\ncertificate = "/x"\n', [
        ': error: [etcd] has half of a certificate; set both "certificate" and "key", or '
        "neither"]),
])
def test_mistakes_in_the_settings_are_named(make, text, mistakes):
    station = make(1, 1).stations[0]
    (station.config / "zevfleet.toml").write_text(text, encoding="ascii")
    done = station.fleet("check", check=False)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.splitlines() == [f"{CONFIG}/zevfleet.toml{mistake}" for mistake in mistakes]


def test_the_deadline_is_kept_in_memory(make, tmp_path):
    fleet = make(1, 1)
    station = fleet.stations[0]
    station.configure([fleet.etcd[0].url], run_directory=str(tmp_path))
    for command in ("run", "prepare"):
        done = station.fleet(command, check=False)
        assert (done.returncode, done.stderr) == (
            1, f'zevfleet: {tmp_path} is not in memory (tmpfs); name a "run_directory" that is, '
               "such as /run/zevfleet\n")


def test_there_is_one_run_and_one_guard(make):
    fleet = make(1, 1, lease=LASTING).start()
    fleet.wait_owned()  # both are at work
    station = fleet.stations[0]
    for command in ("run", "guard"):
        done = station.fleet(command, check=False)
        assert done.returncode == 1
        assert done.stderr == f'zevfleet: another "zevfleet {command}" is at work already\n'
