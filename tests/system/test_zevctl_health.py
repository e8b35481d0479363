"""`zevctl health`: what is wrong with consoles and their record, for people and for monitors."""

import json
import subprocess
import time

import pytest

from harness import zevctl
from harness.consoles import FakeConsole
from harness.logs import bring_up, log_of, wait_records
from harness.station import Station
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
    assert done.stdout.startswith("CRITICAL: 3 consoles, 1 critical, 1 warnings\nCONSOLE ")
    assert '"zevctl reconnect dark"' in done.stdout


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
    journal.record(Kind.GAP, web, {Field.COUNT: 2}, at=now - MINUTE)
    gaps = {problem["console"]: problem["what"] for problem in health(None, CRITICAL)["problems"]
            if problem["problem"] == "gap"}
    assert gaps == {None: "7 records are missing in the journal",
                    "web": "2 records are missing in its journal"}


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


def test_without_daemon_and_journal_nothing_is_known(station):
    done = zevctl.run(None, "--port", str(free_port()), "health")
    assert (done.returncode, done.stdout) == (UNKNOWN, "")
    assert done.stderr.endswith("There is no journal to look at instead, either.\n")


def test_a_console_that_does_not_exist_is_unknown(station):
    station_of(station, "web")
    done = zevctl.run(station, "health", "nobody")
    assert done.returncode == UNKNOWN and "nobody" in done.stderr


def test_another_machines_files_are_not_looked_at(station):
    done = zevctl.run(None, "--host", "localhost.invalid", "health")
    assert done.returncode == UNKNOWN


@pytest.mark.parametrize("text", ["08:05", "1", "h", "-1h", "0s"])
def test_a_silence_that_is_no_time_is_refused(station, text):
    done = zevctl.run(None, "health", f"--silent={text}")
    assert done.returncode == zevctl.USAGE
    assert "must be a time such as 90s, 30m, 1h30m or 2d" in done.stderr
