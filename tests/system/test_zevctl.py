"""The client's commands: what they print, what they do, and how they end."""

import json
import os
import pwd
import re
import signal
import struct
import subprocess
import time

import pytest

from harness import zevctl
from harness.access import banner
from harness.collectors import collector
from harness.consoles import refusal
from harness.impostors import FakeDaemon, console_record
from harness.scenes import connected
from harness.waiting import LIMIT, free_port, stretched, wait_until
from harness.zevctl import Terminal

OPERATOR = pwd.getpwuid(os.getuid()).pw_name


@pytest.fixture
def rack(station):
    """Four consoles: two that are connected, one that is not, one that is disabled."""
    boxes = {name: station.console(name, platform=f"p-{name}") for name in ("web1", "web2")}
    station.console("db1", listening=False)
    station.console("off", enable=0)
    station.start()
    for name, console in boxes.items():
        connected(station, console, name)
    station.boxes = boxes
    return station


def rows(text: str) -> list[list[str]]:
    """The words of a table's lines, the heading first."""
    return [line.split() for line in text.splitlines()]


HEADING = ["NAME", "STATE", "SINCE", "OUTPUT", "USERS", "MODE", "ADDRESS", "PORT", "MODEL",
           "PLATFORM"]


# list


def test_list_shows_every_console(rack):
    rack.attach("web1", mode="ex")
    ports = {name: console.port for name, console in rack.boxes.items()}
    heading, *found, summary = rows(zevctl.succeed(rack, "list"))
    assert heading == HEADING
    assert [row[:2] for row in found] == [
        ["db1", "refused"], ["off", "disabled"], ["web1", "in-use"], ["web2", "connected"]]
    assert found[2][4:] == ["1", "exclusive", "127.0.0.1", str(ports["web1"]), "A200", "p-web1"]
    assert found[3][3:] == ["-", "0", "none", "127.0.0.1", str(ports["web2"]), "A200", "p-web2"]
    assert re.fullmatch("[0-9]{2}:[0-9]{2}:[0-9]{2}", found[2][2])
    assert " ".join(summary) == "4 consoles: 1 refused, 1 disabled, 1 in-use, 1 connected"


def test_list_tells_since_when_and_the_last_output(rack):
    before = int(time.time())
    rack.boxes["web2"].send(b"hello\n")
    wait_until(lambda: zevctl.data(rack, "list", "web2")[0]["last_output"], what="the output")
    web2, = zevctl.data(rack, "list", "web2")
    assert web2["since"] <= before <= web2["last_output"] <= time.time()
    shown = rows(zevctl.succeed(rack, "list", "web2"))[1]
    assert shown[2:4] == [time.strftime("%H:%M:%S", time.localtime(web2[key]))
                          for key in ("since", "last_output")]


def test_list_takes_several_states_in_one_word(rack):
    names = zevctl.succeed(rack, "list", "-q", "--state", "down,disabled")
    assert names.splitlines() == ["db1", "off"]
    assert zevctl.succeed(rack, "list", "-q", "--state", "up").splitlines() == ["web1", "web2"]
    shown = zevctl.succeed(rack, "list", "--state", "down").splitlines()
    assert len(shown) == 3 and shown[2] == (
        "1 shown of 4 consoles: 1 refused, 1 disabled, 2 connected")
    assert zevctl.data(rack, "list", "-q", "--state", "down") == ["db1"]


def test_list_sorts_numbers_as_numbers(station):
    for name in ("n10", "n9", "N1"):
        station.console(name, enable=0)
    station.start()
    assert zevctl.succeed(station, "list", "-q").splitlines() == ["N1", "n9", "n10"]


def test_list_as_json(rack):
    rack.attach("web1", mode="ro")
    rack.attach("web1")
    found = {entry["name"]: entry for entry in zevctl.data(rack, "list")}
    since = found["web1"].pop("since")
    assert 0 <= time.time() - since < 3600
    assert found["web1"] == {
        "last_output": None,
        "name": "web1", "state": "in-use", "users": 2, "mode": "shared", "address": "127.0.0.1",
        "port": rack.boxes["web1"].port, "management_port": 23, "model": "A200",
        "platform": "p-web1"}
    assert found["off"]["state"] == "disabled" and found["off"]["users"] == 0


@pytest.mark.parametrize("patterns, names", [
    (["web1"], ["web1"]),
    (["WEB1"], ["web1"]),
    (["web*"], ["web1", "web2"]),
    (["*1"], ["web1", "db1"]),
    (["web[2-9]", "o?f"], ["web2", "off"]),
    (["web1", "w*"], ["web1", "web2"]),
    (["D"], ["db1"]),
])
def test_list_takes_patterns(rack, patterns, names):
    assert {entry["name"] for entry in zevctl.data(rack, "list", *patterns)} == set(names)


@pytest.mark.parametrize("states, names", [
    (["connected"], {"web1", "web2"}),
    (["disabled"], {"off"}),
    (["refused", "disabled"], {"db1", "off"}),
    (["in-use"], set()),
])
def test_list_takes_states(rack, states, names):
    words = [word for state in states for word in ("--state", state)]
    assert {entry["name"] for entry in zevctl.data(rack, "list", *words)} == names


def test_an_unknown_name_is_reported(rack):
    zevctl.refuse(rack, zevctl.NO_SUCH_CONSOLE,
                  'no console is named "nowhere*"; "zevctl list" shows the names',
                  "list", "web1", "nowhere*")


def test_a_mistyped_name_is_met_with_the_nearest(rack):
    zevctl.refuse(rack, zevctl.NO_SUCH_CONSOLE, 'no console is named "wbe1"; did you mean web1? '
                  '"zevctl list" shows the names', "clear", "wbe1")
    zevctl.refuse(rack, zevctl.NO_SUCH_CONSOLE, '"we" may mean web1, web2; type more of the name',
                  "list", "we")


def test_what_acts_wants_the_whole_name(rack):
    zevctl.refuse(rack, zevctl.NO_SUCH_CONSOLE, 'no console is named "of"; did you mean off? '
                  '"zevctl list" shows the names', "enable", "of")
    assert zevctl.succeed(rack, "enable", "OFF").startswith("off: enabled")


def test_a_station_without_consoles_has_an_empty_list(station):
    station.start()
    assert zevctl.data(station, "list") == []
    assert rows(zevctl.succeed(station, "list")) == [HEADING, ["no", "consoles"]]


def on_terminal(station, columns: int) -> list[str]:
    """The lines of the list on a terminal of that width, without colours."""
    with Terminal(station, "list", columns=columns, env={"NO_COLOR": "1"}) as screen:
        return screen.expect_end(zevctl.OK).decode().splitlines()


def test_a_table_fits_the_terminal(station):
    station.console("x" * 40, enable=0, platform="y" * 60)
    station.start()
    heading, row, _ = on_terminal(station, 100)
    assert len(row) <= 100 and row.split()[:2] == ["x" * 40, "disabled"] and "~" in row
    heading, row, _ = on_terminal(station, 50)
    assert heading.split() == ["NAME", "STATE"] and row.split() == ["x" * 40, "disabled"]


@pytest.mark.parametrize("env, coloured", [({}, True), ({"NO_COLOR": "1"}, False)])
def test_colours_are_for_terminals(rack, env, coloured):
    with Terminal(rack, "list", columns=120, env=env) as screen:
        assert (b"\x1b[32m" in screen.expect_end(zevctl.OK)) == coloured
    assert "\x1b" not in zevctl.succeed(rack, "list")


def test_watching_shows_what_changes(rack):
    with Terminal(rack, "list", "--watch", "web1", columns=120) as screen:
        screen.expect("connected")
        user = rack.attach("web1")
        screen.expect("in-use")
        user.close()
        screen.expect("connected")
        screen.type("\x03")


def test_watching_leaves_the_screen_as_it_was(rack):
    with Terminal(rack, "list", "--watch", "web*", columns=120) as screen:
        screen.expect("\x1b[?1049h")
        shown = screen.expect("web2").decode()
        assert re.search("[0-9]{2}:[0-9]{2}:[0-9]{2}  2 consoles: 2 connected", shown)
        screen.type("\x03")
        screen.expect("\x1b[?1049l")


def test_watching_shows_no_more_than_the_screen_has(station):
    for number in range(30):
        station.console(f"n{number}", enable=0)
    station.start()
    with Terminal(station, "list", "--watch", columns=120) as screen:
        assert b"n20" in screen.expect("... and 9 more")
        screen.child.setwinsize(40, 120)
        screen.expect("n29")
        screen.type("\x03")


def test_a_closed_pipe_ends_a_watch_at_once(rack):
    with zevctl.start(rack, "list", "--watch", "-q") as watch:
        assert watch.stdout.readline() == b"db1\n"
        watch.stdout.close()
        assert watch.wait(timeout=stretched(LIMIT)) == zevctl.OK
        assert watch.stderr.read() == b""


def test_a_pipe_is_told_what_changes_but_not_that_a_console_prints(rack):
    with zevctl.start(rack, "--json", "list", "--watch", "web1") as watch:
        assert json.loads(watch.stdout.readline())[0]["state"] == "connected"
        position = rack.mark()
        rack.boxes["web1"].send(b"hello\n")
        wait_until(lambda: rack.log_text(position).count('Received command "status') >= 2,
                   what="two looks")
        rack.attach("web1")
        assert json.loads(watch.stdout.readline())[0]["state"] == "in-use"
        watch.terminate()


def test_watching_waits_for_a_daemon_that_is_restarted(rack):
    with Terminal(rack, "list", "--watch", "web1", columns=120) as screen:
        screen.expect("connected")
        rack.stop()
        screen.expect("zevctl: ")
        rack.start("-p", str(rack.port))
        connected(rack, rack.boxes["web1"], "web1", times=2)
        screen.expect("connected")
        screen.type("\x03")


# who, ports, holder


def test_who_shows_names_modes_and_addresses(rack):
    rack.attach("web1", user="ann", addr="10.1.2.3")
    rack.attach("web1", user="bob", mode="ro")
    rack.attach("web2", user="eve", mode="er")
    assert zevctl.data(rack, "who", "web*") == [
        {"console": "web1", "user": "ann", "mode": "shared", "address": "10.1.2.3"},
        {"console": "web1", "user": "bob", "mode": "read-only", "address": "127.0.0.1"},
        {"console": "web2", "user": "eve", "mode": "exclusive-revoke", "address": "127.0.0.1"}]
    assert rows(zevctl.succeed(rack, "who", "web2")) == [
        ["CONSOLE", "USER", "MODE", "ADDRESS"],
        ["web2", "eve", "exclusive-revoke", "127.0.0.1"]]
    assert zevctl.data(rack, "who") == zevctl.data(rack, "who", "*")


def commands(text: str) -> list[str]:
    """The commands that the daemon says it has received."""
    return re.findall(r'Received command "([^"\n]*)\n?" from ', text)


def test_who_asks_only_about_consoles_that_may_have_somebody(station):
    """A refused console may have a holder, but of a model without holders one is asked about."""
    up = [station.console(name) for name in ("web1", "web2")]
    held = [station.console(name, model="P100", greeting=refusal("10.9.8.7"))
            for name in ("px1", "px2")]
    for name in ("db1", "db2"):
        station.console(name, listening=False)
    station.console("off", enable=0)
    station.start()
    for console in up:
        connected(station, console, console.name)
    for console in held:
        console.accept()
    wait_until(lambda: [entry["state"] for entry in zevctl.data(station, "list", "px*", "db*")]
               == 4 * ["refused"], what="four consoles to be refused")
    station.attach("web1", user="ann")
    position = station.mark()
    found = zevctl.data(station, "who")
    assert sorted((entry["console"], entry["user"]) for entry in found) == [
        ("px1", "Unknown"), ("px2", "Unknown"), ("web1", "ann")]
    _, *sent = commands(station.log_text(position))  # the first is the client's probe
    db = "db1" if "who db1" in sent else "db2"
    assert sent[:2] == ["console", "who web1"]
    assert sorted(sent[2:]) == sorted(
        [f"who {db}", f"console {db}", f"who {db}", "who px1", "who px2"])


ONE, TWO = (console_record(name, state=b"3") for name in (b"one", b"two"))
HOLDER = struct.pack("<32s64s2s", b"Unknown", b"10.9.8.7", b"5")


@pytest.mark.parametrize("now, asked_next, shown", [
    ([ONE], "who one", []),
    ([console_record(b"one", state=b"4")], "who two", ["two"]),
    ([console_record(b"one", state=b"3", model=b"P100")], "who two", ["two"]),
    ([], "who two", ["two"]),
])
def test_a_console_that_is_tried_again_does_not_tell_whether_its_model_has_holders(
        now, asked_next, shown):
    answers = {"console": [ONE, TWO], "console one": now, "who one": [], "who two": [HOLDER]}
    with FakeDaemon(**answers) as daemon:
        found = zevctl.data(daemon, "who")
        assert [entry["console"] for entry in found] == shown
        assert daemon.commands == ["console", "who one", "console one", asked_next]


@pytest.mark.parametrize("states, asked", [
    ((b"0", b"1"), True), ((b"1", b"0"), True), ((b"0", b"3"), True), ((b"3", b"3"), True),
    ((b"0", b"5"), False)])
def test_names_that_differ_in_case_are_asked_about_once(states, asked):
    records = [console_record(name, state=state) for name, state in zip((b"Box", b"BOX"), states)]
    with FakeDaemon(console=records, who=[HOLDER]) as daemon:
        found = zevctl.data(daemon, "who")
        assert [entry["console"] for entry in found] == (["Box"] if asked else [])
        assert daemon.commands == ["console", *(["who Box"] if asked else [])]


def test_who_shows_the_holder_of_a_management_port(station):
    px = station.console("px", model="P100", greeting=refusal("10.9.8.7"))
    station.start()
    px.accept()
    wait_until(lambda: zevctl.data(station, "who", "px"), what="the refusal to be known")
    assert zevctl.data(station, "who", "px") == [
        {"console": "px", "user": "Unknown", "mode": "management-port", "address": "10.9.8.7"}]
    assert zevctl.data(station, "holder", "px") == [{"console": "px", "holder": "10.9.8.7"}]


def test_ports_shows_the_port_plan(station):
    mapped = free_port()
    station.console("one", listening=False, mapped_port=mapped, auth=1)
    station.console("two", listening=False)
    station.start()
    one, two = zevctl.data(station, "ports", "one", "two")
    assert (one["name"], one["user_port"], one["login"]) == ("one", mapped, True)
    assert (two["name"], two["user_port"], two["login"]) == ("two", 0, False)
    assert ["one", str(mapped), "yes"] in [row[:3] for row in
                                           rows(zevctl.succeed(station, "ports"))]
    assert ["two", "-", "no"] in [row[:3] for row in rows(zevctl.succeed(station, "ports"))]


def test_holder_reports_consoles_without_one(rack):
    done = zevctl.run(rack, "--json", "holder", "web1", "db1")
    assert done.returncode == zevctl.FAILED
    assert done.stderr == ("zevctl: db1: Not a Pellox console. Only the management port of such a "
                           "console names its holder.\n")
    assert done.stdout == '[{"console":"web1","holder":"127.0.0.1"}]\n'


# clear, disable, enable, force


def test_clear_disconnects_the_users(rack):
    user = rack.attach("web1", user="ann")
    assert zevctl.succeed(rack, "--user", "op", "clear", "web1") == (
        "web1: 1 user was disconnected: ann\n")
    user.expect(banner("Your session has been terminated by op@127.0.0.1"))
    user.expect_closed()
    assert not rack.boxes["web1"].closed


def test_clear_of_nobody_says_so(rack):
    assert zevctl.succeed(rack, "clear", "-y", "web1", "db1") == (
        "web1: nobody was attached\ndb1: nobody was attached: it is refused\n")


def test_the_login_name_is_the_operators_name(rack):
    user = rack.attach("web1")
    zevctl.succeed(rack, "clear", "web1")
    user.expect(banner(f"Your session has been terminated by {OPERATOR}@127.0.0.1"))


def test_disable_and_enable(rack):
    rack.attach("web1", user="ann")
    rack.attach("web1", user="bob")
    assert zevctl.succeed(rack, "disable", "web1", "--yes") == (
        "web1: disabled, until it is enabled or the daemon reloads or restarts; "
        "2 users were disconnected: ann, bob\n")
    rack.boxes["web1"].expect_closed()
    wait_until(lambda: zevctl.data(rack, "list", "web1")[0]["state"] == "disabled",
               what="the console to be closed")
    assert zevctl.succeed(rack, "disable", "web1") == "web1: was disabled already\n"
    assert zevctl.succeed(rack, "enable", "web1") == (
        "web1: enabled; the daemon connects to it at once\n")
    rack.boxes["web1"].accept()
    wait_until(lambda: zevctl.data(rack, "list", "web1")[0]["state"] == "connected",
               what="the console to be connected again")
    assert zevctl.succeed(rack, "enable", "web1") == (
        "web1: was enabled already: it is connected\n")


def test_force_says_when_it_takes_effect(station):
    station.console("px", model="P100", listening=False)
    station.start()
    assert zevctl.succeed(station, "force", "px") == (
        "px: its management port will be taken over at the next refusal\n")


@pytest.mark.parametrize("name, status, reason", [
    ("web1", zevctl.FAILED, 'it is connected, and there is nothing to take over; "zevctl clear" '
     "disconnects its users"),
    ("db1", zevctl.FAILED, "only the management port of a Pellox console can be taken over; "
     '"zevctl reconnect" tries at once to connect'),
    ("off", zevctl.NOT_ACCESSIBLE, 'it is disabled; "zevctl enable" it first'),
])
def test_what_cannot_be_forced_is_reported(rack, name, status, reason):
    position = rack.mark()
    zevctl.refuse(rack, status, f"{name}: not forced: {reason}", "force", name)
    assert f"force {name}" not in commands(rack.log_text(position))


def test_reconnect_says_which_consoles_are_tried(rack):
    done = zevctl.run(rack, "reconnect", "*", "--yes")
    assert done.stdout == (
        "web1: is connected already\nweb2: is connected already\n"
        'db1: the daemon is trying to connect; "zevctl list" shows the result\n')
    assert (done.returncode, done.stderr) == (
        zevctl.NOT_ACCESSIBLE, 'zevctl: off: not tried: it is disabled; "zevctl enable" it first\n')
    assert not rack.boxes["web1"].closed


def test_without_a_terminal_nothing_is_done_to_several_consoles(rack):
    user = rack.attach("web1")
    zevctl.refuse(rack, zevctl.DECLINED, "there is no terminal to ask on about 2 consoles (web1, "
                  "web2), and nothing was done; --yes acts without asking", "clear", "web1", "web2")
    zevctl.refuse(rack, zevctl.DECLINED, "there is no terminal to ask on about web1, and nothing "
                  "was done; --yes acts without asking", "clear", "w*1", "--json")
    user.send(b"still here")
    rack.boxes["web1"].expect_exactly(b"still here")


def test_acting_on_several_consoles_needs_a_confirmation(rack):
    users = [rack.attach("web1"), rack.attach("web2")]
    with Terminal(rack, "clear", "web*", columns=120) as screen:
        screen.expect("Disconnect the users of 2 consoles (web1, web2)? [y/N] ")
        screen.type("n\r")
        assert b"zevctl: nothing was done" in screen.expect_end(zevctl.DECLINED)
    users[0].send(b"still here")
    rack.boxes["web1"].expect_exactly(b"still here")
    with Terminal(rack, "clear", "web*", columns=120) as screen:
        screen.expect("[y/N] ")
        screen.type("y\r")
        who = "1 user was disconnected: somebody from 127.0.0.1\r\n"
        screen.expect(f"web1: {who}web2: {who}")
        screen.expect_end(zevctl.OK)
    for user in users:
        user.expect(banner(f"Your session has been terminated by {OPERATOR}@127.0.0.1"))
        user.expect_closed()


@pytest.mark.parametrize("words", [["clear", "--yes", "web*"], ["clear", "web1"]])
def test_no_question_where_none_is_needed(rack, words):
    with Terminal(rack, *words, columns=120) as screen:
        assert b"?" not in screen.expect_end(zevctl.OK)


def test_results_as_json(rack):
    assert zevctl.data(rack, "clear", "-y", "web*") == [
        {"console": "web1", "done": True, "text": "nobody was attached"},
        {"console": "web2", "done": True, "text": "nobody was attached"}]


# msg


def test_a_message_reaches_the_users(rack):
    user = rack.attach("web1")
    assert zevctl.succeed(rack, "--user", "op", "msg", "web1", "reboot", "at  five") == (
        "web1: told\n")
    user.expect(banner("Message from op@127.0.0.1: \n\n\rreboot at  five\n"))


def test_a_message_to_a_console_that_is_not_connected(rack):
    rack.attach("web1")
    done = zevctl.run(rack, "msg", "--yes", "*", "hello")
    assert done.returncode == zevctl.NOT_ACCESSIBLE
    assert done.stdout == "web1: told\nweb2: nobody is attached\n"
    reason = 'it is not connected and has no users; "zevctl list" shows its state'
    assert sorted(done.stderr.splitlines()) == [f"zevctl: db1: {reason}", f"zevctl: off: {reason}"]


def test_a_message_of_two_lines_is_refused(rack):
    zevctl.refuse(rack, zevctl.USAGE, "the text must be one line; leave out the line ends",
                  "msg", "web1", "a\nclear web2")


def test_a_message_that_is_too_long_is_refused(rack):
    zevctl.refuse(rack, zevctl.USAGE, "the command is too long: at most 1022 characters; "
                  "shorten it", "msg", "web1", "x" * 1100)


# Names that the daemon changes


@pytest.fixture
def renamed(station, collector):
    """A console whose name the daemon has changed at its first event."""
    (station.events / "boom").write_text("boom 500 0 BOOM\n")
    box = station.console("rack-1-a", events=1, event_file="boom")
    station.start()
    collector.accept()
    connected(station, box, "rack-1-a")
    box.send(b"BOOM\n")
    wait_until(lambda: zevctl.data(station, "list", "-q") == ["rack_1_a"], what="the new name")
    return station


@pytest.mark.parametrize("words, done", [
    (["list", "-q", "rack-1-a"], "rack_1_a\n"),
    (["list", "-q", "RACK-1"], "rack_1_a\n"),
    (["clear", "rack-1-a"], "rack_1_a: nobody was attached\n"),
    (["msg", "Rack-1-A", "hello"], "rack_1_a: nobody is attached\n"),
    (["reconnect", "rack_1-a"], "rack_1_a: is connected already\n"),
    (["clear", "-y", "rack-?-*"], "rack_1_a: nobody was attached\n"),
    (["complete", "who", "rack-1"], "rack-1_a\n"),
    (["complete", "who", "rack_"], "rack_1_a\n"),
])
def test_a_console_is_found_under_both_names(renamed, words, done):
    if words[0] == "complete":
        assert complete(renamed, *words[1:]) == done.split()
    else:
        assert zevctl.succeed(renamed, *words) == done


# The connection


def test_a_missing_daemon_is_reported(station):
    port = free_port()
    zevctl.refuse(None, zevctl.NO_DAEMON, f"no daemon answers at 127.0.0.1 port {port}: "
                  "Connection refused. Is zevd running? See --host and --port.",
                  "--port", str(port), "list")


def test_an_unknown_host_is_reported():
    done = zevctl.run(None, "--host", "no.such.host.invalid", "list")
    assert done.returncode == zevctl.NO_DAEMON
    assert done.stderr.startswith('zevctl: the host "no.such.host.invalid" is not known: ')


def test_host_and_port_may_come_from_the_environment(rack):
    env = {"ZEVCTL_HOST": "localhost", "ZEVCTL_PORT": str(rack.port)}
    done = zevctl.run(None, "list", "web1", env=env)
    assert done.returncode == zevctl.OK and "web1" in done.stdout


def test_something_that_is_not_the_daemon_is_reported(fake_console):
    other = fake_console("other", greeting=b"SSH-2.0-Other\r\n")
    client = zevctl.start(None, "--port", str(other.port), "list")
    other.accept()
    _, said = client.communicate(timeout=stretched(LIMIT))
    assert (client.returncode, said) == (
        zevctl.NO_DAEMON, b"zevctl: what answers at this address is no command port of zevd; see "
        b"--host and --port\n")


@pytest.mark.parametrize("words", [
    [], ["lst"], ["list", "--nonsense"], ["list", "--state", "tired"], ["clear"], ["msg", "a"],
    ["--port", "0", "list"], ["--port", "x", "list"], ["--user", "two words", "list"],
])
def test_invalid_command_lines_are_refused(words):
    done = zevctl.run(None, *words)
    assert done.returncode == zevctl.USAGE
    assert done.stdout == "" and re.fullmatch(
        'zevctl: .*"zevctl( [a-z]+)? --help" shows what there is\n', done.stderr)


@pytest.mark.parametrize("words, answer", [
    (["lst"], 'there is no command "lst"; did you mean list?'),
    (["recon", "box"], 'there is no command "recon"; did you mean reconnect?'),
    (["frobnicate"], 'there is no command "frobnicate";'),
    (["list", "--wach"], "there is no option --wach; did you mean --watch?"),
    (["--hots=box", "list"], "there is no option --hots; did you mean --host?"),
    (["list", "--state", "conected"], '--state: no state is called "conected"; use connected;'),
])
def test_the_nearest_word_is_named(words, answer):
    done = zevctl.run(None, *words)
    assert done.stderr.startswith(f"zevctl: {answer} ")


def test_help_and_version():
    assert zevctl.succeed(None, "--version") == "zevctl 0.1.0\n"
    assert "Usage: zevctl" in zevctl.succeed(None, "--help")
    assert "PATTERN" in zevctl.succeed(None, "list", "--help")


def test_output_that_cannot_be_written_is_an_error(rack):
    with open("/dev/full", "wb") as full:
        done = zevctl.start(rack, "list", stdout=full)
        assert done.wait() == zevctl.FAILED
        assert done.stderr.read() == (
            b"zevctl: the output cannot be written; look at what reads it\n")


@pytest.mark.parametrize("closed", ["<&-", ">&-", "2>&-", "<&- >&- 2>&-"])
def test_without_standard_streams_nothing_is_mixed_up(rack, closed):
    user = rack.attach("web1")
    line = f'exec "$@" {closed}'
    status = subprocess.run(["bash", "-c", line, "bash", zevctl.PROGRAM, "--port", str(rack.port),
                             "clear", "web1"], check=False, capture_output=True).returncode
    assert status in (zevctl.OK, zevctl.FAILED)
    user.expect(banner(f"Your session has been terminated by {OPERATOR}@127.0.0.1"))


# Permission


@pytest.fixture
def locked(station):
    """A station with security on and a connected console."""
    box = station.console("box")
    station.start("-S", "1")
    connected(station, box, "box")
    return station


def test_the_cookie_file_is_enough_on_the_station(locked):
    assert [entry["name"] for entry in zevctl.data(locked, "list")] == ["box"]


def test_without_cookie_and_terminal_nobody_gets_in(locked):
    zevctl.refuse(locked, zevctl.NOT_ADMITTED, "the daemon asks for a name and a password, and "
                  "there is no terminal to ask you on; where the cookie file is readable, no login "
                  "is needed", "--host", "127.0.0.2", "list")


def test_a_given_cookie_file_must_be_usable(locked):
    missing = str(locked.config / "nothing")
    zevctl.refuse(locked, zevctl.NOT_ADMITTED, f"the cookie in {missing} cannot be used: the file "
                  "must be readable and the daemon on 127.0.0.1", "--cookie-file", missing, "list")


def test_the_cookie_of_another_daemon_is_refused(locked):
    other = locked.config / "other"
    other.write_text("A" * 16 + "\n")
    zevctl.refuse(locked, zevctl.NOT_ADMITTED, f"refused: the cookie in {other} is not that of "
                  "the daemon at this address; leave --cookie-file out, or see --host and --port",
                  "--cookie-file", str(other), "list")


def test_signals_end_a_watch(rack):
    watch = zevctl.start(rack, "list", "--watch")
    with watch:
        assert b"NAME" in watch.stdout.readline()
        watch.send_signal(signal.SIGTERM)
        assert watch.wait() == -signal.SIGTERM


# Completion


def complete(station, *words: str) -> list[str]:
    """The completions of the last word."""
    done = zevctl.run(None, "complete", *words,
                      env={"ZEVCTL_PORT": str(station.port)} if station else None)
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout.split()


def test_console_names_are_completed(rack):
    assert complete(rack, "attach", "w") == ["web1", "web2"]
    assert complete(rack, "attach", "W") == ["Web1", "Web2"]
    assert complete(rack, "attach", "web1", "") == []
    assert complete(rack, "clear", "web1", "o") == ["off"]
    assert complete(rack, "log", "web1", "o") == ["off"]
    assert set(complete(rack, "--json", "list", "")) == {"web1", "web2", "db1", "off"}
    assert complete(None, "--host", "127.0.0.1", "--port", str(rack.port), "who", "d") == ["db1"]
    assert complete(None, f"--port={rack.port}", "who", "d") == ["db1"]


def test_commands_and_options_are_completed(rack):
    assert {"list", "attach", "log", "events", "completion"} <= set(complete(rack, ""))
    assert complete(rack, "comp") == ["completion"]
    assert complete(rack, "list", "--sta") == ["--state"]
    assert complete(rack, "list", "--state", "dis") == ["disabled"]
    assert complete(rack, "list", "--state", "down,ref") == ["down,refused"]
    assert complete(rack, "LI") == []
    assert complete(rack, "attach", "x", "--mode", "") == ["ro", "sh", "ex", "er"]
    assert complete(rack, "completion", "z") == ["zsh"]
    assert complete(rack, "--cookie-file", "x") == ["<file>"]


def test_completion_without_a_daemon_or_a_login_is_empty(locked):
    assert complete(None, "--port", str(free_port()), "who", "") == []
    assert complete(None, "--host", "127.0.0.2", "--port", str(locked.port), "who", "") == []


@pytest.mark.parametrize("line, shown", [
    ("zevctl clear we", ["web1", "web2"]),
    ("zevctl comp", ["completion"]),
    ("zevctl --port={port} who d", ["db1"]),
])
def test_bash_completes(rack, line, shown):
    """As bash calls the function: words are split at "=", too."""
    line = line.format(port=rack.port)
    script = (f"source <({zevctl.PROGRAM} completion bash); COMP_LINE='{line}'; "
              "COMP_POINT=${#COMP_LINE}; _zevctl; printf '%s\\n' \"${COMPREPLY[@]}\"")
    assert shell(rack, "bash", "-c", script) == shown


def test_zsh_completes(rack):
    """The function itself, with a compadd that prints the words instead of offering them."""
    script = (f"compdef() {{ }}; source <({zevctl.PROGRAM} completion zsh); "
              "compadd() { print -l -- ${(P)2} }; words=(zevctl clear we); CURRENT=3; _zevctl")
    assert shell(rack, "zsh", "-f", "-c", script) == ["web1", "web2"]


def shell(station, *command: str) -> list[str]:
    """The lines that a shell's command prints, with the client in its path."""
    path = f"{zevctl.PROGRAM.parent}:{os.environ['PATH']}"
    env = zevctl.environment(PATH=path, ZEVCTL_PORT=str(station.port))
    return subprocess.run(command, env=env, capture_output=True, check=True,
                                 text=True).stdout.splitlines()
