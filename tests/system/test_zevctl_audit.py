"""`zevctl audit`: who did what, and when the record has holes, from the journal."""

import re

import pytest

from harness import zevctl
from harness.scenes import box_of
from journal_writer import Field, JournalWriter, Kind, flip

ANN = {Field.USER: "ann", Field.FROM: "10.1.1.1"}
NOON = "2026-11-22 12:00:00"
EVER = ("--since", "2020-01-01")


@pytest.fixture(autouse=True)
def utc(monkeypatch):
    """The client shows times of this zone."""
    monkeypatch.setenv("TZ", "UTC")


@pytest.fixture
def journal(station):
    """An empty journal where the daemon keeps its own."""
    with JournalWriter(station.root / "journal", begin=NOON) as made:
        yield made


def audited(journal: JournalWriter, what: str, result: str = "done", **others: str) -> None:
    """A record of the audit about Ann."""
    more = {Field[name.upper()]: value for name, value in others.items()}
    journal.record(Kind.AUDIT, 0, {Field.WHAT: what, Field.RESULT: result, **ANN, **more})


def acts(*arguments: str) -> list[dict]:
    """What the client tells of all times."""
    ever = () if "--since" in arguments else EVER
    return zevctl.data(None, "audit", *ever, *arguments)


def words(found: list[dict]) -> list[str]:
    """What each act was."""
    return [act["what"] for act in found]


def test_the_table_tells_who_did_what_and_from_where(journal):
    web = journal.console("web")
    journal.record(Kind.STARTED, 0, {Field.VERSION: "0.9", Field.PID: 7})
    journal.record(Kind.AUDIT, 0, {Field.WHAT: "login", Field.RESULT: "refused",
                                   Field.USER: "eve", Field.FROM: "10.9.9.9",
                                   Field.CONSOLE: "web", Field.REASON: "wrong password"})
    journal.record(Kind.MODE, web, {**ANN, Field.PREVIOUS_MODE: "sh", Field.MODE: "ex"})
    journal.record(Kind.STOPPED)
    lines = zevctl.succeed(None, "audit", *EVER).splitlines()
    assert [line.split() for line in lines] == [
        ["TIME", "WHAT", "RESULT", "USER", "FROM", "CONSOLE"],
        ["2026-11-22", "12:00:00.001", "start"],
        ["version", "0.9"],
        ["2026-11-22", "12:00:00.002", "login", "refused", "eve", "10.9.9.9", "web"],
        ["wrong", "password"],
        ["2026-11-22", "12:00:00.003", "mode", "done", "ann", "10.1.1.1", "web"],
        ["sh", "->", "ex"],
        ["2026-11-22", "12:00:00.004", "stop"],
        ["The", "journal", "begins", "at", "2026-11-22", "12:00:00.000."]]
    since = zevctl.succeed(None, "audit", "--since", "2026-11-22T12:00:00Z")
    assert "begins" not in since


def test_details_are_not_cut_on_a_terminal(journal):
    text = "the machine goes down at noon for an hour and comes back with another disk in it"
    journal.record(Kind.MESSAGE, journal.console("web"), {**ANN, Field.TEXT: text})
    with zevctl.Terminal(None, "audit", *EVER, columns=80) as screen:
        shown = screen.expect_end(zevctl.OK).decode().splitlines()
    assert all(len(line) <= 80 for line in shown)
    assert text in " ".join(line.strip() for line in shown if line.startswith("    "))


def test_json_has_every_field(journal):
    web = journal.console("web")
    place = journal.record(Kind.ATTACHED, web, {
        **ANN, Field.GIVEN_USER: "boss", Field.GIVEN_FROM: "10.2.2.2", Field.MODE: "ro"})
    assert acts() == [{
        "time": "2026-11-22T12:00:00.001000000Z", "what": "attach", "result": "accepted",
        "user": "ann", "given_user": "boss", "from": "10.1.1.1", "given_from": "10.2.2.2",
        "console": "web", "mode": "ro", "previous_mode": None, "reason": None, "text": None,
        "begin": None, "end": None, "count": None, "bytes": None, "version": None, "pid": None,
        "position": place}]


def test_what_stands_in_the_journal_twice_is_one_act(journal):
    web = journal.console("web")
    audited(journal, "attach", "accepted", console="web", mode="sh")
    journal.record(Kind.ATTACHED, web, {**ANN, Field.MODE: "sh"})
    journal.record(Kind.MESSAGE, web, {**ANN, Field.TEXT: "going down"})
    audited(journal, "msg", console="web")
    journal.record(Kind.LEFT, web, {**ANN, Field.MODE: "sh"})
    audited(journal, "leave", console="web", mode="sh", reason="the user left")
    found = acts()
    assert words(found) == ["attach", "msg", "leave"]
    assert found[1]["text"] == "going down"
    assert found[2]["reason"] == "the user left"


def test_two_acts_that_look_alike_stay_two(journal):
    web = journal.console("web")
    for _ in range(2):
        audited(journal, "attach", "accepted", console="web", mode="sh")
        journal.record(Kind.ATTACHED, web, {**ANN, Field.MODE: "sh"})
    journal.record(Kind.ATTACHED, web, {**ANN, Field.MODE: "sh"}, at="2026-11-22 13:00:00")
    assert words(acts()) == ["attach"] * 3


def test_a_pause_of_the_record_is_one_row_with_both_ends(journal):
    web = journal.console("web")
    journal.record(Kind.PAUSED, web, ANN, at="2026-11-22 12:10:00")
    journal.record(Kind.NOT_LOGGED, web, {**ANN, Field.BYTES: 512}, at="2026-11-22 12:20:00")
    journal.record(Kind.PAUSED, web, ANN, at="2026-11-22 12:30:00")
    ended, open_ended = acts()
    assert (ended["what"], ended["begin"], ended["end"], ended["bytes"]) == (
        "not-logged", "2026-11-22T12:10:00.000000000Z", "2026-11-22T12:20:00.000000000Z", 512)
    assert (open_ended["begin"], open_ended["end"]) == ("2026-11-22T12:30:00.000000000Z", None)
    table = zevctl.succeed(None, "audit", *EVER)
    assert "from 2026-11-22 12:10:00.000 to 2026-11-22 12:20:00.000" in table
    assert "since 2026-11-22 12:30:00.000" in table


def test_a_pause_ends_when_the_daemon_is_killed(journal):
    journal.record(Kind.PAUSED, journal.console("web"), ANN, at="2026-11-22 12:10:00")
    journal.new_run()
    journal.record(Kind.STARTED, at="2026-11-22 12:20:00")
    pause, _start = acts()
    assert (pause["end"], pause["reason"]) == ("2026-11-22T12:20:00.000000000Z",
                                               "The daemon ended.")


def test_holes_and_steps_of_the_clock_are_told(journal):
    journal.record(Kind.GAP, 0, {Field.COUNT: 5, Field.BYTES: 99, Field.REASON: "full"})
    journal.record(Kind.TORN, 0, {Field.SEGMENT: 1, Field.BYTES: 17})
    journal.record(Kind.CLOCK_STEP, 0, {Field.BEGIN: 0, Field.END: 10**9})
    found = acts()
    assert words(found) == ["gap", "torn", "clock-step"]
    assert (found[0]["count"], found[0]["bytes"], found[0]["reason"]) == (5, 99, "full")
    assert "from 1970-01-01 00:00:00.000 to 1970-01-01 00:00:01.000" in zevctl.succeed(
        None, "audit", *EVER)


def test_names_choose_acts_and_leave_holes_in(journal):
    web, db = journal.console("web-1"), journal.console("db")
    journal.record(Kind.ATTACHED, web, ANN)
    journal.record(Kind.ATTACHED, db, ANN)
    journal.console("www", number=web)
    journal.record(Kind.LEFT, web, ANN)
    audited(journal, "login", "refused", console="nowhere")
    journal.record(Kind.GAP, 0, {Field.COUNT: 1})
    assert words(acts("www")) == ["attach", "leave", "gap"]
    assert words(acts("web_1")) == ["attach", "leave", "gap"]
    other = journal.console("web-1")
    journal.record(Kind.DISABLED, other, ANN)
    assert words(acts("www")) == ["attach", "leave", "gap"]
    assert words(acts("web-1")) == ["gap", "disable"]
    assert words(acts("nowhere")) == ["login", "gap"]
    assert len(acts("*")) == 6


@pytest.mark.parametrize("arguments, expected", [
    (("--user", "bob"), ["disable"]),
    (("--from", "10.1.1.1"), ["login", "enable"]),
    (("--what", "login,disable"), ["login", "disable"]),
    (("--since", "2026-11-22T13:00:00Z"), ["enable"]),
    (("--until", "2026-11-22T12:30:00Z"), ["login"]),
])
def test_options_choose_acts(journal, arguments, expected):
    web = journal.console("web")
    audited(journal, "login", "accepted", console="web")
    journal.record(Kind.DISABLED, web, {Field.USER: "bob", Field.FROM: "10.3.3.3"},
                   at="2026-11-22 12:45:00")
    journal.record(Kind.ENABLED, web, ANN, at="2026-11-22 13:00:00")
    assert words(acts(*arguments)) == expected


def test_output_is_not_part_of_it(journal):
    web = journal.console("web")
    journal.output(web, b"secret\n")
    journal.record(Kind.CONNECTED, web)
    assert acts() == []


def test_without_a_journal_it_says_where_to_look(station):
    directory = station.root / "journal"
    zevctl.refuse(None, zevctl.FAILED,
                  f"there is no journal in {directory}; logins, attaches and commands are also in "
                  'the system\'s log: read it with "journalctl -t zevd" or in /var/log/auth.log, '
                  "and to have a journal from now on, set ZEVD_JOURNAL= in "
                  f"{station.root}/config/qor.conf and reload the daemon", "audit")


def test_texts_from_strangers_are_harmless(journal):
    audited(journal, "login", "refused", reason="\x1b[2J\nroot")
    assert "\x1b" not in zevctl.succeed(None, "audit", *EVER)


def test_damage_is_stepped_over_and_told(journal):
    journal.console("web")
    audited(journal, "login", "refused")
    audited(journal, "force")
    audited(journal, "clear")
    flip(journal.segment(), 64 + 40 + 60)
    done = zevctl.run(None, "audit", *EVER)
    assert done.returncode == zevctl.OK
    assert "clear" in done.stdout
    assert "zevctl: the journal is damaged at " in done.stderr


def test_a_kind_that_does_not_exist_is_refused(journal):
    journal.console("web")
    done = zevctl.run(None, "audit", "--what", "logins")
    assert done.returncode == zevctl.USAGE
    assert "is none of attach, break, clear" in done.stderr


def test_what_is_done_with_a_daemon_is_told_once(station):
    (station.config / "qor.conf").write_text("ZEVD_ARCH_INT=7\nZEVD_JOURNAL=100\n")
    box = box_of(station)
    user = station.attach("box", mode="er")
    zevctl.succeed(station, "msg", "-y", "box", "going down")
    user.expect(b"going down")
    user.close()
    station.wait_log(re.compile("^CleanUpClosedConnections: Closing connection with user "))
    zevctl.succeed(station, "disable", "-y", "box")
    box.expect_closed()
    station.stop()
    found = [act for act in acts() if act["console"] in ("box", None)]
    assert words(found) == ["start", "security", "attach", "not-logged", "msg", "leave", "disable",
                            "stop"]
    _, _, attach, hidden, message, left, disabled, _ = found
    assert (attach["result"], attach["mode"], attach["from"]) == ("accepted", "er", "127.0.0.1")
    assert hidden["begin"] < hidden["end"]
    assert message["text"] == "going down" and message["from"] == "127.0.0.1"
    assert left["mode"] == "er" and disabled["result"] == "done"


def test_kinds_are_completed_also_behind_a_comma(station):
    assert zevctl.succeed(None, "complete", "audit", "--what", "lo") == "login\n"
    assert zevctl.succeed(None, "complete", "audit", "--what", "gap,to") == "gap,torn\n"
