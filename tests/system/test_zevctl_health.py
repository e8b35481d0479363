"""`zevctl health`: what is wrong with consoles and their record, for people and for monitors."""

import json
import os
import subprocess
import time

import pytest

from harness import zevctl
from harness.consoles import FakeConsole
from harness.impostors import NAME_PROMPT, FakeDaemon
from harness.logs import bring_up, log_of, wait_records
from harness.station import Station, console_line
from harness.waiting import free_port, wait_until
from journal_writer import SECOND, Field, JournalWriter, Kind

FINE, WARNING, CRITICAL, UNKNOWN = range(4)  # as monitors count
MINUTE, HOUR, DAY = 60 * SECOND, 3600 * SECOND, 86400 * SECOND


@pytest.fixture
def journal(station):
    """An empty journal where the daemon keeps its own."""
    with JournalWriter(station.root / "journal") as made:
        yield made


def health(station: Station | None, status: int, *arguments: str) -> dict:
    """What the client tells with this exit status."""
    done = zevctl.run(station, "--json", "health", *arguments)
    assert done.returncode == status, done.stdout + done.stderr
    assert done.stderr == ""
    return json.loads(done.stdout)


def problems(found: dict) -> set[tuple]:
    """The kinds of problems, each with its console."""
    return {(problem["problem"], problem["console"]) for problem in found["problems"]}


def station_of(station: Station, *names: str, **fields) -> list[FakeConsole]:
    """Start a station of these consoles, with something in each one's log."""
    made = [station.console(name, **fields) for name in names]
    bring_up(station, *made, options=("-d", "0"))
    for console in made:
        console.send(b"hello\r\n")
        wait_records(log_of(station, console.name), [b"hello\n"])
    return made


# With the running daemon


def test_a_station_without_problems_is_fine(station):
    station_of(station, "web", "db")
    found = health(station, FINE)
    assert (found["level"], found["states_from"], found["consoles"]) == ("ok", "daemon", 2)
    assert found["problems"] == []
    first = zevctl.succeed(station, "health").splitlines()[0]
    assert first == "OK: 2 consoles, 0 critical, 0 warnings"


def test_consoles_that_are_down_or_disabled_are_named(station):
    station.console_line("dark", free_port())
    station.console_line("off", free_port(), enable=0)
    station_of(station, "web")
    station_down = ("down", "dark")
    wait_until(lambda: station_down in problems(json.loads(zevctl.run(
        station, "--json", "health").stdout)), what="the console to be down")
    found = health(station, CRITICAL)
    assert problems(found) == {station_down, ("disabled", "off")}
    assert found["problems"][0]["level"] == "critical"
    assert problems(health(station, WARNING, "off", "web")) == {("disabled", "off")}
    done = zevctl.run(station, "health")
    summary, headings, dark, what, advice, *_ = done.stdout.splitlines()
    assert summary == "CRITICAL: 3 consoles, 1 critical, 1 warning"
    assert headings.split() == ["CONSOLE", "PROBLEM", "SINCE"]
    assert dark.split()[:2] == ["dark", "down"]
    assert what == "    it is refused"
    assert advice == '    see whether its port answers; "zevctl reconnect dark" tries at once'


def test_a_console_whose_flag_says_so_has_no_log(station):
    box, dumb = station.console("box"), station.console("dumb", logging=0)
    bring_up(station, box, options=("-d", "0"))
    dumb.accept()
    wait_until(lambda: problems(json.loads(zevctl.run(station, "--json", "health").stdout)) == {
        ("no-log", "dumb")}, what="both to be connected")
    health(station, WARNING)


def test_a_log_that_is_gone_is_critical(station):
    station_of(station, "web")
    log_of(station, "web").unlink()
    assert problems(health(station, CRITICAL)) == {("no-log", "web")}


def test_a_console_that_is_held_with_revoke_is_not_recorded(station):
    station_of(station, "web")
    user = station.attach("web", mode="er")
    found = health(station, WARNING)
    assert problems(found) == {("not-recorded", "web")}
    user.close()
    wait_until(lambda: zevctl.run(station, "health").returncode == FINE, what="the user to leave")


def test_silence_counts_from_the_last_output(station):
    station_of(station, "web")
    health(station, FINE, "--silent", "1h")
    wait_until(lambda: zevctl.run(station, "health", "--silent", "1s").returncode == WARNING,
               what="two silent seconds")
    assert problems(health(station, WARNING, "--silent", "1s")) == {("silent", "web")}


def switch_journal_on(station: Station) -> None:
    """Have the daemon that is started next keep a journal."""
    (station.config / "qor.conf").write_text("ZEVD_ARCH_INT=7\nZEVD_JOURNAL=100\n")


@pytest.mark.needs_namespace
def test_a_journal_that_cannot_be_written_is_critical(station):
    directory = station.root / "journal"
    directory.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=128k,mode=0750", "tmpfs", directory],
                   check=True)
    switch_journal_on(station)
    web, = station_of(station, "web")
    wait_until(lambda: any(directory.glob("*.seg")), what="the journal")
    for _ in range(200):
        web.send(b"x" * 999 + b"\n")
    wait_until(lambda: ("journal", None) in problems(json.loads(
        zevctl.run(station, "--json", "health").stdout)), what="the journal to stop")
    assert "journal" in zevctl.run(station, "health").stdout
    health(station, CRITICAL)


def test_a_station_with_a_journal_is_fine_and_a_flood_is_told(station):
    switch_journal_on(station)
    web, _ = station_of(station, "web", "db")
    wait_until(lambda: any((station.root / "journal").glob("*.seg")), what="the journal")
    found = health(station, FINE)
    assert (found["journal"], found["problems"], found["notes"]) == (True, [], [])
    for _ in range(30):
        web.send(b"x" * 999 + b"\n")
    wait_until(lambda: zevctl.run(station, "health", "--flood", "30000").returncode == WARNING,
               what="the flood in the journal")
    assert problems(health(station, WARNING, "--flood", "30000")) == {("flooding", "web")}


# From the journal, without a daemon


def regular(journal: JournalWriter, name: str, pause: int, end: int, count: int = 50) -> None:
    """A console that printed a line each so often, the last time at `end`."""
    console = journal.console(name, at=end - count * pause)
    journal.record(Kind.CONNECTED, console)
    for number in range(count):
        journal.output(console, b"tick\n", at=end - (count - 1 - number) * pause)


def test_states_come_from_the_journal_when_no_daemon_answers(journal):
    now = time.time_ns()
    web, db, old = (journal.console(name, at=now - HOUR) for name in ("web", "db", "old"))
    journal.record(Kind.CONNECTED, web)
    journal.record(Kind.CONNECTED, db)
    journal.record(Kind.LOST, db, {Field.REASON: "reset"})
    journal.record(Kind.CONNECTED, old)
    journal.console_gone(old)
    found = health(None, CRITICAL, "--log-dir", "/nowhere")
    assert found["states_from"] == "journal" and found["consoles"] == 2
    assert problems(found) == {("daemon", None), ("down", "db")}


def test_a_start_of_the_daemon_ends_what_was_before(journal):
    now = time.time_ns()
    for name in ("web", "db"):
        console = journal.console(name, at=now - HOUR)
        journal.record(Kind.CONNECTED, console)
        journal.record(Kind.PAUSED, console, {Field.USER: "ann"})
    journal.new_run()
    journal.record(Kind.STARTED)
    web, off, plain, _db = (journal.console(name) for name in ("web", "off", "plain", "db"))
    for console in (web, off, plain):
        journal.record(Kind.CONNECTED, console)
    journal.record(Kind.PAUSED, plain, {Field.REASON: "The console's logging flag is not 1."})
    journal.record(Kind.DISABLED, off, {Field.USER: "ann"})
    journal.record(Kind.LOST, off, {Field.REASON: "The console was disabled."})
    assert problems(health(None, CRITICAL)) == {
        ("daemon", None), ("down", "db"), ("disabled", "off"), ("no-log", "plain")}


def test_silence_longer_than_usual_is_told(journal):
    now = time.time_ns()
    regular(journal, "quick", 10 * SECOND, now - 2 * HOUR)
    regular(journal, "slow", 30 * MINUTE, now - 2 * HOUR)
    regular(journal, "once", HOUR, now - 3 * HOUR, count=1)
    regular(journal, "fresh", 10 * SECOND, now - 30 * MINUTE)
    regular(journal, "end", 10 * SECOND, now)
    found = health(None, CRITICAL)
    assert problems(found) == {("daemon", None), ("silent", "quick")}
    silent = found["problems"][1]
    assert "its pauses are usually 10 seconds" in silent["what"]
    assert {name for kind, name in problems(health(None, CRITICAL, "--silent", "1h"))
            if kind == "silent"} == {"quick", "slow", "once"}


def test_a_flood_is_told(journal):
    now = time.time_ns()
    calm, loud, past = (journal.console(name, at=now - HOUR) for name in ("calm", "loud", "past"))
    for _ in range(20):
        journal.output(past, b"x" * 60000, at=now - 10 * MINUTE)
    for _ in range(20):
        journal.output(loud, b"x" * 60000, at=now - MINUTE)
    journal.output(calm, b"x" * 60000)
    kinds = {problem for problem in problems(health(None, CRITICAL)) if problem[0] == "flooding"}
    assert kinds == {("flooding", "loud")}
    assert ("flooding", "calm") in problems(health(None, CRITICAL, "--flood", "60000"))


def test_gaps_of_the_last_day_are_told(journal):
    now = time.time_ns()
    web = journal.console("web", at=now - 3 * DAY)
    journal.record(Kind.GAP, 0, {Field.COUNT: 1000}, at=now - 2 * DAY)
    journal.record(Kind.GAP, 0, {Field.COUNT: 4}, at=now - HOUR)
    journal.record(Kind.GAP, 0, {Field.COUNT: 3}, at=now - HOUR)
    journal.output(web, b"still here\n", at=now - MINUTE)
    gaps = {problem["console"]: problem["what"] for problem in health(None, CRITICAL)["problems"]
            if problem["problem"] == "gap"}
    assert gaps == {None: "7 records are missing in the journal"}


def test_a_pause_that_has_not_ended_is_told(journal):
    now = time.time_ns()
    web, db = journal.console("web", at=now - HOUR), journal.console("db")
    for console in (web, db):
        journal.record(Kind.PAUSED, console, {Field.USER: "ann"})
    journal.record(Kind.NOT_LOGGED, db, {Field.USER: "ann"})
    found = health(None, CRITICAL)
    assert ("not-recorded", "web") in problems(found) and ("not-recorded", "db") not in problems(
        found)


# What cannot be known


@pytest.mark.parametrize("names", [(), ("web",)])
def test_without_daemon_and_journal_it_is_critical(station, names):
    found = health(None, CRITICAL, *names)
    assert problems(found) == {("daemon", None)}
    assert (found["states_from"], found["consoles"], found["journal"]) == (None, None, False)
    assert found["notes"][1].startswith("the daemon was not asked, and nothing is known of the ")
    done = zevctl.run(None, "health", *names)
    assert done.stdout.startswith("CRITICAL: 1 critical, 0 warnings\n")


def refused_entry() -> FakeDaemon:
    """A daemon that asks for a name, which nobody gives."""
    return FakeDaemon(opening=NAME_PROMPT)


def test_where_nothing_can_be_known_monitors_are_told_why(station):
    with refused_entry() as daemon:
        done = zevctl.run(None, "--port", str(daemon.port), "health")
        assert (done.returncode, done.stderr) == (UNKNOWN, "")
        assert done.stdout.startswith("UNKNOWN: ")
        assert done.stdout.endswith(" There is no journal to look at instead, either.\n")
        found = health(None, UNKNOWN, "--port", str(daemon.port))
    assert (found["level"], found["states_from"], found["problems"]) == ("unknown", None, [])
    assert found["notes"] == [done.stdout.removeprefix("UNKNOWN: ").rstrip()]


def test_a_console_that_does_not_exist_is_unknown(station):
    station_of(station, "web")
    done = zevctl.run(station, "health", "nobody")
    assert done.returncode == UNKNOWN and done.stdout.startswith("UNKNOWN: no console is named")


def spoil(station: Station) -> None:
    """Leave something in the journal's place that is none."""
    (station.root / "journal").write_text("no journal\n")


def test_a_journal_that_cannot_be_read_leaves_what_the_daemon_tells(station):
    station_of(station, "web")
    spoil(station)
    found = health(station, FINE)
    assert (found["states_from"], found["journal"]) == ("daemon", False)
    assert found["notes"][0].startswith("the journal was not looked at: the journal in ")


def test_a_journal_that_cannot_be_read_does_not_hide_that_there_is_no_daemon(station):
    spoil(station)
    assert problems(health(None, CRITICAL)) == {("daemon", None)}


def test_a_journal_that_cannot_be_read_and_is_stopped_is_critical(station):
    spoil(station)
    with FakeDaemon(status=status_of("web", time.time()), stats='{"journal": "stopped"}\n'
                    ) as daemon:
        found = health(None, CRITICAL, "--port", str(daemon.port))
    assert problems(found) == {("journal", None)}


def test_a_journal_that_cannot_be_read_is_told_where_nothing_is_known(station):
    spoil(station)
    with refused_entry() as daemon:
        note, = health(None, UNKNOWN, "--port", str(daemon.port))["notes"]
    assert "The journal cannot be looked at instead: the journal in " in note


def status_of(name: str, last_output: float) -> str:
    """What a daemon tells of a console that is connected."""
    return json.dumps({"console": name, "state": "connected", "since": int(last_output) - 60,
                       "last_output": int(last_output), "users": []}) + "\n"


def test_an_older_daemon_that_only_tells_states_is_believed(station):
    with FakeDaemon(status=status_of("web", time.time()), stats=b"Invalid command.") as daemon:
        found = health(None, FINE, "--port", str(daemon.port))
    assert (found["states_from"], found["consoles"]) == ("daemon", 1)
    assert found["notes"][0].startswith("the daemon does not tell whether it keeps a journal: ")


# What the record lacks


def test_a_journal_that_the_daemon_refuses_is_critical(station):
    spoil(station)
    switch_journal_on(station)
    station_of(station, "web")
    wait_until(lambda: ("journal", None) in problems(json.loads(
        zevctl.run(station, "--json", "health").stdout)), what="the journal to be refused")
    problem, = health(station, CRITICAL)["problems"]
    assert problem["what"] == "the daemon does not keep the journal that it is to keep"
    assert "reload" in problem["do"]


def logging(station: Station, *names: str) -> None:
    """A configuration with these consoles, which have logs."""
    station.write_config(*(console_line(name, 1) for name in names))


def test_a_journal_that_stays_behind_is_critical(station, journal):
    now = time.time()
    end = int(now - 600) * SECOND
    journal.output(journal.console("web", at=end - SECOND), b"late\n", at=end)
    logging(station, "web")
    with FakeDaemon(status=status_of("web", now - 570), stats='{"journal": "on"}\n') as daemon:
        health(None, FINE, "--port", str(daemon.port))
    with FakeDaemon(status=status_of("web", now), stats='{"journal": "on"}\n') as daemon:
        problem, = health(None, CRITICAL, "--port", str(daemon.port))["problems"]
    assert (problem["problem"], problem["console"]) == ("journal", None)
    assert problem["what"] == "consoles print, and the journal is not written"


def test_a_log_that_stays_behind_is_critical(station, journal):
    station_of(station, "web")
    now = time.time_ns()
    console = journal.console("web", at=now - HOUR)
    journal.output(console, b"logged\n", at=now - 10 * MINUTE)
    os.utime(log_of(station, "web"), ns=(now - 10 * MINUTE, now - 10 * MINUTE))
    health(station, FINE)
    journal.output(console, b"not logged\n", at=now - 5 * MINUTE)
    problem, = health(station, CRITICAL)["problems"]
    assert (problem["problem"], problem["console"]) == ("no-log", "web")
    assert problem["what"] == "it prints and its log is not written"


def test_advice_is_not_cut_on_a_terminal(station):
    name = "a-console-of-a-long-name-in-the-third-rack-of-the-second-room"
    station.console_line(name, 1, enable=0)
    station.start("-d", "0")
    with zevctl.Terminal(station, "health", columns=80) as screen:
        shown = screen.expect_end(WARNING).decode().splitlines()
    assert shown[0] == "WARNING: 1 console, 0 critical, 1 warning"
    below = " ".join(line.strip() for line in shown if line.startswith("    "))
    assert below == (f'it is disabled, and nothing is recorded "zevctl enable {name}" has it '
                     "watched again")


def test_another_machines_files_are_not_looked_at(station):
    spoil(station)
    found = health(None, CRITICAL, "--host", "localhost.invalid")
    assert problems(found) == {("daemon", None)}
    assert found["notes"][0] == ("the journal and the logs are on the other machine, and are not "
                                 "looked at")


@pytest.mark.parametrize("age", ["115741d", "999999999w"])
def test_a_silence_of_ages_is_no_short_one(station, journal, age):
    regular(journal, "web", 10 * SECOND, time.time_ns() - HOUR)
    with FakeDaemon(status=status_of("web", time.time() - 3600), stats='{"journal": "off"}\n'
                    ) as daemon:
        health(None, FINE, "--port", str(daemon.port), "--silent", age)
        health(None, WARNING, "--port", str(daemon.port), "--silent", "59m")


@pytest.mark.parametrize("text", ["08:05", "1", "h", "-1h", "0s"])
def test_a_silence_that_is_no_time_is_refused(station, text):
    done = zevctl.run(None, "health", f"--silent={text}")
    assert done.returncode == zevctl.USAGE
    assert "must be a time such as 90s, 30m, 1h30m or 2d" in done.stderr
