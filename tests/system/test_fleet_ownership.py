"""Many stations as one: who has which console, and that never two have the same."""

import re
import signal
import time
from collections.abc import Callable

import pytest

from harness.fleet import CLIENT_PORT, LASTING, LEASE, PREFIX, TAKE_OVER, Fleet, FleetStation
from harness.waiting import stretched, wait_until

pytestmark = pytest.mark.needs_namespace

START = 30.0  # seconds until a whole fleet is at work


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


def settle(fleet: Fleet) -> Fleet:
    """Wait until each console is at the station that it prefers, and everybody knows it."""
    wait_until(lambda: fleet.owners() == fleet.preferred(), START, "each at its first station")
    for station in fleet.stations:
        wait_until(lambda one=station: one.mapped() == fleet.preferred(), what="the same map")
    return fleet


def others(fleet: Fleet, station: FleetStation) -> list[str]:
    """The names of all stations but one."""
    return [one.name for one in fleet.stations if one is not station]


def wait_taken_over(fleet: Fleet, station: FleetStation) -> float:
    """Wait until the others have everything; the seconds that it took."""
    begun = time.monotonic()
    fleet.wait_owned(others(fleet, station))
    return time.monotonic() - begun


def assert_once_within(seconds: float, attempt: Callable[[], float], between: Callable[[], object],
                       what: str) -> None:
    """What depends on nobody but the processor: a machine that is busy gets three attempts."""
    took = [attempt()]
    while took[-1] >= stretched(seconds):
        assert len(took) < 3, f"{what} took {took} seconds"
        between()
        took.append(attempt())


# Who gets what


def test_every_console_goes_to_its_station(make):
    fleet = settle(make(2, 6).start())
    for station in fleet.stations:
        wait_until(lambda one=station: len(one.consoles()) == 3, what="three consoles")
        assert {one["alive"] for one in station.map()["stations"]} == {True}
        assert station.map()["problem"] == ""


def test_what_a_station_has_of_its_own_stays_as_it_is(make):
    fleet = make(1, 1)
    station = fleet.stations[0]
    fleet.start_etcd()
    fleet.apply()
    (station.config / "consoles.toml").write_text(
        '[defaults]\nlog = false\n[[console]]\nname = "own"\ntcp = "127.0.0.1:9"\n',
        encoding="ascii")
    station.start()
    fleet.wait_owned(["st1"])
    wait_until(lambda: sorted(station.consoles()) == ["box01", "own"], what="both consoles")
    conf = (station.config / "zev.conf").read_text(encoding="ascii")
    flags = {line.split()[0]: line.split()[8] for line in conf.splitlines()[1:]}
    assert flags == {"box01": "1", "own": "0"}  # the defaults are for the station's own


def test_a_console_goes_only_where_it_may(make):
    fleet = make(2, 2)
    fleet.start_etcd()
    fleet.apply(fleet.file({"box01": ["st1"], "box02": ["st1", "st2"]}))
    for station in fleet.stations:
        station.start()
    fleet.wait_owned(["st1"])
    fleet.stations[0].end()
    wait_until(lambda: fleet.owners() == {"box01": None, "box02": "st2"}, START,
               "one to move and one to stay without a station")
    wait_until(lambda: fleet.stations[1].mapped() == {"box01": "", "box02": "st2"},
               what="the map to say so")


# Taking over


def test_the_others_take_over_from_a_dead_station(make):
    fleet = settle(make(3, 6).start())
    dead = fleet.stations[0]

    def die() -> float:
        dead.end()
        return wait_taken_over(fleet, dead)

    def come_back() -> None:
        dead.start()
        settle(fleet)

    assert_once_within(TAKE_OVER, die, come_back, "the takeover")
    kept = {name: owner for name, owner in fleet.preferred().items() if owner != dead.name}
    assert kept.items() <= fleet.owners().items()


def test_a_stopped_run_costs_the_station_its_consoles_in_time(make):
    fleet = settle(make(2, 4).start())
    stopped = fleet.stations[0]
    stopped.run.signal(signal.SIGSTOP)
    wait_taken_over(fleet, stopped)
    wait_until(lambda: "(zevfleet run) was killed" in stopped.guard.text(), what="the guard's word")
    wait_until(lambda: "(zevd) was killed" in stopped.guard.text(), what="the daemon's end")
    settle(fleet)  # it was started again, and has come back


def test_a_stopped_daemon_is_ended_too(make):
    fleet = settle(make(2, 4).start())
    stopped = fleet.stations[0]
    pid = stopped.daemon.pid
    stopped.daemon.signal(signal.SIGSTOP)
    stopped.run.signal(signal.SIGSTOP)
    wait_taken_over(fleet, stopped)
    assert stopped.daemon.pid != pid


def test_a_station_without_its_uplink_lets_go(make):
    fleet = settle(make(2, 4).start())
    cut = fleet.stations[0]
    cut.machine.cut()
    wait_until(lambda: cut.name not in fleet.owners().values(), what="the station to let go")
    wait_taken_over(fleet, cut)
    wait_until(lambda: cut.consoles() == {} and cut.zevctl("list", "-q").returncode == 0,
               what="a daemon without the fleet's consoles")
    wait_until(lambda: not cut.map()["connected"] and cut.map()["problem"],
               what="a map that is old")
    cut.machine.heal()
    settle(fleet)


def test_no_quorum_no_consoles(make):
    fleet = settle(make(2, 4, etcds=3).start())
    for server in fleet.etcd[:2]:
        server.signal(signal.SIGSTOP)
    wait_until(lambda: set(fleet.owners().values()) == {None}, LEASE + 1, "all to let go")
    for server in fleet.etcd[:2]:
        server.signal(signal.SIGCONT)
    settle(fleet)


def test_a_leader_that_stops_costs_nobody_anything(make):
    fleet = settle(make(2, 4, etcds=3, lease=LASTING).start())
    before = {name: list(fleet.rack[name].owners) for name in fleet.names}
    leader = fleet.leader()
    leader.signal(signal.SIGSTOP)
    wait_until(lambda: fleet.leader(without=leader) is not None, what="another leader")
    beats = fleet.beats()
    wait_until(lambda: all(now > beats[name] + 2 for name, now in fleet.beats().items()),
               2 * LASTING, "renewals at the new leader")
    assert {name: fleet.rack[name].owners for name in fleet.names} == before
    leader.signal(signal.SIGCONT)


def test_a_machine_that_stood_still_lets_go_as_it_wakes(make):
    fleet = settle(make(2, 4).start())
    still = fleet.stations[0]
    before = fleet.rack.connected(still.machine.rack_address)

    def stand_still() -> float:
        still.freeze()
        wait_until(lambda: fleet.stations[1].mapped() == dict.fromkeys(fleet.names, "st2"), START,
                   "the other to have claimed everything")
        assert fleet.rack.connected(still.machine.rack_address) == before
        still.thaw()
        begun = time.monotonic()
        wait_until(lambda: not fleet.rack.connected(still.machine.rack_address),
                   what="the guard to have acted")
        return time.monotonic() - begun

    assert_once_within(1, stand_still, lambda: settle(fleet), "to let go")
    # While it stood still, it had its connections and the other had them too: that only the
    # terminal server can prevent.
    assert {name for _, name, _ in fleet.rack.doubles} == {
        name for name, owner in fleet.preferred().items() if owner == still.name}
    fleet.rack.doubles.clear()
    settle(fleet)


# Parts of a station


def test_a_run_that_is_killed_goes_on_with_its_lease(make):
    fleet = settle(make(2, 4, lease=2 * LEASE).start())
    before = {name: list(fleet.rack[name].owners) for name in fleet.names}
    daemons = [station.daemon.pid for station in fleet.stations]
    for station in fleet.stations:
        for _ in range(3):
            beat = fleet.beats()[station.name]
            station.run.signal(signal.SIGKILL)
            wait_until(lambda one=station, old=beat: fleet.beats().get(one.name, 0) > old + 1,
                       what="more renewals")
    assert {name: fleet.rack[name].owners for name in fleet.names} == before
    assert [station.daemon.pid for station in fleet.stations] == daemons


def test_what_a_killed_run_asked_of_etcd_comes_too_late(make):
    fleet = settle(make(2, 4, lease=LASTING).start())
    killed = fleet.stations[0]
    connections = {name: list(fleet.rack[name].owners) for name in fleet.names}

    def revisions() -> dict[str, int]:
        claims, values = fleet.listing("claims"), fleet.keys("claims")
        return {address: claim["mod_revision"] for address, claim in claims.items()
                if values[address]["station"] == killed.name}

    before = revisions()
    assert len(before) == 2
    killed.run.signal(signal.SIGKILL)
    wait_until(lambda: not before.items() & revisions().items(), what="claims written anew")
    for address, revision in before.items():  # as a run gives a claim up
        key = f"{PREFIX}claims/{address}"
        done = fleet.etcdctl("txn", given=f'mod("{key}") = "{revision}"\n\ndel {key}\n\n\n')
        assert done.stdout.split()[0] == "FAILURE"
    settle(fleet)
    assert {name: fleet.rack[name].owners for name in fleet.names} == connections


def test_a_daemon_that_is_killed_has_its_consoles_again(make):
    fleet = settle(make(2, 4).start())
    fleet.stations[0].daemon.signal(signal.SIGKILL)
    wait_until(lambda: None in fleet.owners().values(), what="the connections to end")
    settle(fleet)
    assert {owner for name in fleet.names for owner in fleet.rack[name].owners[-2:]} <= {
        station.machine.rack_address for station in fleet.stations}


def test_without_its_daemon_a_station_has_nothing(make):
    fleet = settle(make(2, 4).start())
    bare = fleet.stations[0]
    bare.daemon.end()
    fleet.wait_owned(others(fleet, bare), limit=10 + TAKE_OVER)
    wait_until(lambda: bare.map()["problem"] == "the daemon does not run", what="the reason")
    bare.start_daemon()
    settle(fleet)


def test_without_its_guard_a_station_has_nothing(make):
    fleet = settle(make(2, 4, lease=LASTING).start())
    bare = fleet.stations[0]
    pid = bare.daemon.pid
    bare.guard.end()
    wait_taken_over(fleet, bare)
    assert bare.daemon.pid == pid  # it let go in good order
    wait_until(lambda: bare.map()["problem"] == '"zevfleet guard" does not run', what="the reason")
    bare.guard = bare.keep("guard")
    settle(fleet)


def hold_up_news(station: FleetStation) -> None:
    """Etcd is asked and answers, but of changes it tells the station nothing more."""
    def traffic() -> dict[str, tuple[int, int]]:
        lines = station.machine.run(["ss", "-tinHO", "dport", "=", str(CLIENT_PORT)],
                                    capture_output=True, text=True).stdout.splitlines()
        return {line.split()[3].rpartition(":")[2]: tuple(
                    int(re.search(rf" {field}:(\d+)", line)[1])
                    for field in ("bytes_sent", "bytes_received")) for line in lines}

    before = traffic()

    def told() -> set[str]:
        return {port for port, (sent, received) in traffic().items()
                if port in before and sent == before[port][0] and received > before[port][1]}

    silent = wait_until(told, what="news of etcd")
    station.machine.run(["nft", "-f", "-"], text=True, input=(
        "table ip late { chain input { type filter hook input priority 0;"
        f" tcp sport {CLIENT_PORT} tcp dport != {{ {', '.join(before.keys() - silent)} }} drop;"
        " }; }"))


def test_claims_that_were_given_up_are_not_used_before_etcd_has_said_so(make):
    fleet = settle(make(2, 4).start())
    late = fleet.stations[0]
    before = {name: len(fleet.rack[name].owners)
              for name, owner in fleet.preferred().items() if owner == late.name}
    hold_up_news(late)
    late.guard.end()
    wait_until(lambda: late.consoles() == {}, what="the station to have let go")
    late.guard = late.keep("guard")
    other = fleet.stations[1].machine.rack_address
    wait_until(lambda: all(other in fleet.rack[name].owners[count:]
                           for name, count in before.items()),
               START, "the other to have had its consoles")
    wait_until(lambda: late.map()["problem"].startswith(
        "etcd does not tell this station what changes"), what="the reason")
    late.machine.run(["nft", "delete", "table", "ip", "late"])
    settle(fleet)


def test_a_station_that_is_stopped_leaves_in_good_order(make):
    fleet = settle(make(2, 4, lease=LASTING).start())
    leaving = fleet.stations[0]
    pid = leaving.daemon.pid
    leaving.run.stop()
    claims = fleet.keys("claims").values()
    assert {claim["station"] for claim in claims} <= {"st2"}, "it did not leave it to the lease"
    fleet.wait_owned(["st2"])
    assert leaving.daemon.pid == pid
    assert leaving.consoles() == {}
    assert "this station leaves the fleet" in leaving.run.text()


def test_a_guard_that_is_stopped_leaves_nothing_behind(make):
    fleet = settle(make(2, 4, lease=2 * LEASE).start())
    left = fleet.stations[0]
    pid = left.daemon.pid
    left.run.end()
    left.guard.stop()
    assert "the guard ends, and this station has consoles of the fleet: process " \
        f"{pid} (zevd) was killed" in left.guard.text()
    fleet.wait_owned(["st2"], limit=START)
    assert left.consoles() == {}


# Going back


def test_consoles_go_back_once_nobody_is_attached(make):
    fleet = settle(make(2, 2, lease=2 * LEASE).start())
    away, there = fleet.stations
    away.end()
    fleet.wait_owned(["st2"])
    user = there.attach("box01")
    wait_until(lambda: there.users("box01") == 1, what="a user")
    away.start()
    wait_until(lambda: fleet.keys("stations").get("st1", {}).get("ready"), START,
               "the station to be back")
    time_back = fleet.beats()["st1"]
    wait_until(lambda: fleet.beats()["st1"] > time_back + 3, what="time to pass")
    assert fleet.owners()["box01"] == "st2"
    user.leave()
    settle(fleet)


def test_a_console_that_is_sent_goes_whoever_is_attached(make):
    fleet = settle(make(2, 2, lease=LASTING).start())
    user = fleet.stations[0].attach("box01")
    wait_until(lambda: fleet.stations[0].users("box01") == 1, what="a user")
    told = fleet.stations[1].fleet("move", "box01", "st2")
    assert told.stdout == "box01 goes to st2\n"
    wait_until(lambda: fleet.owners()["box01"] == "st2", START, "the console to move")
    user.wait_end()
    # From now on it prefers its new station, but is no longer sent there.
    wait_until(lambda: fleet.record("box01")["stations"] == ["st2", "st1"]
               and not fleet.record("box01")["told"], what="the record")


@pytest.mark.parametrize("words, status, text", [
    (["nobox", "st2"], 5, 'zevfleet: there is no console "nobox" in the fleet\n'),
    (["box01", "st9"], 1, 'zevfleet: there is no station "st9" in the fleet now\n'),
])
def test_what_cannot_be_sent_stays(make, words, status, text):
    fleet = settle(make(1, 1).start())
    done = fleet.stations[0].fleet("move", *words, check=False)
    assert (done.returncode, done.stderr) == (status, text)


# Another fleet file


def test_a_new_file_counts_at_once(make):
    fleet = settle(make(2, 4).start())
    text = fleet.file()
    first = fleet.rack["box01"].port
    second = fleet.rack["box02"].port
    # box02 is taken out; box01 gets its address, and what it had is nobody's.
    text = text[:text.index('[[console]]\nname = "box02"')] + text[
        text.index('[[console]]\nname = "box03"'):]
    text = text.replace(f":{first}", f":{second}")
    done = fleet.apply(text)
    assert done.stdout == ("~ box01: st1 *\n- box02\n"
                           '3 consoles in the fleet "hall", 2 changed\n')
    wait_until(lambda: fleet.owners() == {"box01": None, "box02": "st1", "box03": "st1",
                                          "box04": "st2"}, START, "the new connections")
    assert fleet.apply(text).stdout == '3 consoles in the fleet "hall", 0 changed\n'
