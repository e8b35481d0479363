"""zevctl --fleet: the consoles of all stations from any of them."""

import json
import signal
import stat
import subprocess

import pytest

from harness.fleet import LEASE, TAKE_OVER, Fleet
from harness.operators import BIN, Operator, Seat, reach
from harness.waiting import wait_until

pytestmark = pytest.mark.needs_namespace

@pytest.fixture
def fleet(tmp_path, isolated):
    """Two stations with a journal, at work."""
    made = Fleet(tmp_path, 2, 4)
    for station in made.stations:
        (station.config / "qor.conf").write_text("ZEVD_JOURNAL=64\n", encoding="ascii")
    made.start()
    try:
        wait_until(lambda: made.owners() == made.preferred(), 30, "each at its first station")
        for station in made.stations:
            wait_until(lambda one=station: one.mapped() == made.preferred(), what="the same map")
        yield made
    finally:
        made.end()
    made.assert_never_two()


@pytest.fixture
def operator(fleet, tmp_path):
    """Somebody at the first station."""
    return Operator(fleet, fleet.stations[0], str(reach(fleet, tmp_path)))


def test_the_list_has_the_consoles_of_all_stations(fleet, operator):
    listed = json.loads(operator.succeed("--json", "list"))
    assert {one["name"]: one["station"] for one in listed} == fleet.preferred()
    assert {one["state"] for one in listed} == {"connected"}
    table = operator.succeed("list", "box01", "box02").splitlines()
    assert table[0].split()[:3] == ["STATION", "NAME", "STATE"]
    assert [line.split()[:3] for line in table[1:]] == [["st1", "box01", "connected"],
                                                        ["st2", "box02", "connected"]]


def test_any_station_gives_the_same_answer(fleet, operator, tmp_path):
    there = Operator(fleet, fleet.stations[1], str(tmp_path / "reach"))
    mine, theirs = (json.loads(one.succeed("--json", "list")) for one in (operator, there))
    assert [(one["station"], one["name"]) for one in mine] == [
        (one["station"], one["name"]) for one in theirs]


def test_what_cannot_be_reached_is_named_and_shown(fleet, operator, tmp_path):
    address = fleet.stations[1].machine.address
    (tmp_path / f"cut-{address}").touch()
    done = operator.run("--json", "list")
    assert done.returncode == 3
    assert done.stderr == (f"zevctl: station st2 is missing here (no answer from {address}); it "
                           "has 2 consoles of the fleet\n")
    assert {one["name"]: one["state"] for one in json.loads(done.stdout)} == {
        "box01": "connected", "box03": "connected", "box02": "unknown", "box04": "unknown"}


def test_a_console_without_a_station_is_shown(fleet, operator):
    fleet.stations[1].run.stop()
    fleet.apply(fleet.file({"box02": ["st2"], "box04": ["st2"]}))
    wait_until(lambda: fleet.stations[0].mapped()["box02"] == "", what="a console of nobody's")
    done = operator.run("--json", "list", "box02")
    assert json.loads(done.stdout) == [{"station": "", "name": "box02", "state": "no station"}]
    done = operator.run("log", "box02")
    assert (done.returncode, done.stderr) == (
        6, 'zevctl: no station has the console "box02" now\n')


def test_a_log_is_read_where_the_console_is(fleet, operator):
    fleet.rack.say("box02", b"far away\r\n")
    wait_until(lambda: "far away" in operator.run("log", "box02").stdout, what="the line")


def wait_journal(operator: Operator, name: str, text: str) -> None:
    """Wait until the journal has a line; the log has it first, but only with its second."""
    wait_until(lambda: '"source":"journal"' in operator.run(
        "--json", "history", "--grep", text, name).stdout, what="the line")


def journal_lines(operator: Operator, *words: str) -> list[dict]:
    """What the journals say."""
    lines = operator.succeed("--json", "history", *words).splitlines()
    return [one for one in map(json.loads, lines) if one["source"] == "journal"]


def test_a_search_asks_all_stations_and_is_in_order_of_time(fleet, operator):
    for name in ("box02", "box01", "box04"):
        fleet.rack.say(name, f"needle in {name}\r\n".encode())
        wait_journal(operator, name, "needle")
    told = journal_lines(operator, "--grep", "needle", "box*")
    assert [(one["station"], one["console"]) for one in told] == [
        ("st2", "box02"), ("st1", "box01"), ("st2", "box04")]
    shown = operator.succeed("history", "--grep", "needle", "box02").splitlines()[-1]
    assert shown.split(" ", 1)[0] == told[0]["time"]
    assert shown.split(" ", 1)[1] == "st2 box02 login: needle in box02"
    nothing = operator.run("history", "--grep", "thimble", "box*")
    assert (nothing.returncode, nothing.stdout, nothing.stderr) == (1, "", "")


def test_the_history_of_a_console_that_moved_is_whole(fleet, operator):
    fleet.rack.say("box01", b"before\r\n")
    wait_journal(operator, "box01", "before")
    fleet.stations[0].fleet("move", "box01", "st2")
    wait_until(lambda: fleet.owners()["box01"] == "st2", 30.0, "the console to move")
    fleet.rack.say("box01", b"afterwards\r\n")
    wait_journal(operator, "box01", "afterwards")
    told = [one["station"] for one in journal_lines(operator, "box01")
            if one["text"].endswith(("before", "afterwards"))]
    assert told == ["st1", "st2"]


def test_who_is_attached_anywhere(fleet, operator):
    user = fleet.stations[1].attach("box02")
    wait_until(lambda: [one["station"] for one in json.loads(
        operator.run("--json", "who").stdout)] == ["st2"], what="the user")
    user.leave()


def test_acts_go_to_the_stations_that_have_the_consoles(fleet, operator):
    assert operator.run("disable", "box01", "box02").returncode == 10  # nobody said yes
    assert operator.run("disable", "-y", "box01", "box02").returncode == 0
    states = {one["name"]: one["state"] for one in json.loads(operator.succeed("--json", "list"))}
    assert states == {"box01": "disabled", "box02": "disabled", "box03": "connected",
                      "box04": "connected"}
    assert operator.run("enable", "-y", "box*").returncode == 0
    wait_until(lambda: {one["state"] for one in json.loads(
        operator.run("--json", "list").stdout)} == {"connected"}, what="all to be connected")


@pytest.mark.parametrize("words, status, text", [
    (["config", "check"], 2, '"config" is for one station; run it there, without --fleet'),
    (["attach", "nobox"], 5, 'the fleet has no console "nobox"; "zevctl --fleet list" shows those '
                             "that it has"),
    (["list", "nobox"], 5, "no station has such a console"),
    (["disable", "-y", "nobox"], 5, 'the fleet has no console "nobox"; "zevctl --fleet list" shows '
                                    "those that it has"),
    (["--fleet-map", "/nowhere", "list"], 3,
     'there is no map of the fleet (/nowhere); "zevfleet run" writes it on each station of a '
     "fleet"),
])
def test_mistakes_are_named(fleet, operator, words, status, text):
    done = operator.run(*words)
    assert (done.returncode, done.stdout.replace("[]\n", ""), done.stderr) == (
        status, "", f"zevctl: {text}\n")


def test_an_old_map_says_so(fleet, operator):
    for server in fleet.etcd:
        server.signal(signal.SIGSTOP)
    wait_until(lambda: not fleet.stations[0].map()["connected"], 2 * LEASE, "a map that is old")
    assert operator.run("list").stderr.startswith("zevctl: the map of the fleet is of ")
    for server in fleet.etcd:
        server.signal(signal.SIGCONT)


def test_an_attachment_follows_its_console(fleet, operator):
    seat = Seat(operator, "attach", "box02")
    wait_until(lambda: fleet.stations[1].users("box02") == 1, what="a user")
    seat.type(b"typed there\r")
    wait_until(lambda: b"typed there" in fleet.rack["box02"].typed, what="the keys")
    fleet.stations[1].end()
    seat.wait(b"[zevctl: box02 is at station st1 now]", 3 * TAKE_OVER)
    wait_until(lambda: fleet.stations[0].users("box02") == 1, what="the user again")
    seat.type(b"typed here\r")
    wait_until(lambda: b"typed here" in fleet.rack["box02"].typed, what="the keys")
    fleet.rack.say("box02", b"and answered\r\n")
    seat.wait(b"and answered")
    seat.type(b"\r~.")
    wait_until(lambda: seat.process.poll() is not None, what="the end")
    assert seat.process.returncode == 0
    seat.end()


def test_ssh_itself_leads_to_the_owner(fleet, tmp_path):
    far = fleet.stations[1]
    key, host_key = tmp_path / "key", tmp_path / "host_key"
    for path in (key, host_key):
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", path], check=True)
    keys = tmp_path / "authorized_keys"
    keys.write_bytes(key.with_suffix(".pub").read_bytes())
    keys.chmod(stat.S_IRUSR)
    config = tmp_path / "sshd_config"
    config.write_text(f"Port 22\nHostKey {host_key}\nAuthorizedKeysFile {keys}\nStrictModes no\n"
                      f"PermitRootLogin yes\nUsePAM no\nPidFile none\n"
                      f"SetEnv PATH={BIN}:/usr/bin:/bin\n", encoding="ascii")
    far.machine.run(["mkdir", "-p", "/run/sshd"])
    with open(tmp_path / "sshd.log", "wb") as log:
        server = far.machine.popen(["/usr/sbin/sshd", "-D", "-e", "-f", config], stderr=log)
    try:
        shell = (f"ssh -i {key} -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null "
                 "-o LogLevel=ERROR -F none")
        operator = Operator(fleet, fleet.stations[0], shell)
        wait_until(lambda: operator.run("--json", "list").returncode == 0, what="an answer by ssh")
        fleet.rack.say("box02", b"it's \"quoted\" $HOME\r\n")
        wait_until(lambda: operator.run("history", "--grep", "it's \"quoted\" .HOME",
                                        "box02").stdout != "", what="the line")
        seat = Seat(operator, "attach", "box02")
        wait_until(lambda: far.users("box02") == 1, what="a user")
        seat.type(b"by ssh\r")
        wait_until(lambda: b"by ssh" in fleet.rack["box02"].typed, what="the keys")
        seat.end()
    finally:
        server.kill()
        server.wait()
