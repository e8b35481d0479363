"""`zevctl history` and `zevctl attach --history`: the past, from the journal and the logs."""

import contextlib
import json
import os
import re
import signal
import time

import pytest

from harness import zevctl
# `box` is a fixture.
from harness.access import box
from harness.scenes import box_of, numbered, print_and_wait
from harness.seats import greeted, leave
from harness.waiting import LIMIT, stretched, wait_until
from journal_writer import SECOND, Field, JournalWriter, Kind, flip, nanoseconds

UTC = {"TZ": "UTC"}
NO_JOURNAL = ("there is no journal in {}; the daemon writes one when ZEVD_JOURNAL= in qor.conf "
              "says so; --journal-dir names another directory")


def history(*arguments: str, status: int = zevctl.OK, said: str = "") -> list[str]:
    """What the client shows; the status, and what it says beside, must be as given."""
    done = zevctl.run(None, "history", *arguments, env=UTC)
    assert (done.returncode, done.stderr) == (status, said and f"zevctl: {said}\n")
    return done.stdout.splitlines()


def texts(*arguments: str, **expected) -> list[str]:
    """The same from the mark on: without the times."""
    return [line[24:] for line in history(*arguments, **expected)]


def objects(*arguments: str) -> list[dict]:
    """The same as JSON."""
    return [json.loads(line) for line in history("--json", *arguments)]


@pytest.fixture
def journal(station):
    """A journal in the station's place, of one minute that begins at 03:00."""
    with JournalWriter(station.root / "journal") as writer:
        yield writer


@pytest.fixture
def night(journal):
    """Two consoles of a night, and the station itself."""
    web = journal.console("web", "10.0.0.1", 4001)
    db1 = journal.console("db1", "10.0.0.2", 4002)
    journal.record(Kind.CONNECTED, web, at="2026-11-22 03:10:00")
    journal.output(web, b"log", at="2026-11-22 03:11:59.999")
    journal.output(db1, b"checkpoint\r\n", at="2026-11-22 03:12:00")
    journal.record(Kind.ATTACHED, web, {Field.USER: "ann", Field.FROM: "10.0.0.5",
                                        Field.MODE: "sh"}, at="2026-11-22 03:12:01")
    journal.output(web, b"in: root\r\n\x1b[31mpanic\x1b[0m: no\tinit\r\n", at="2026-11-22 03:12:05")
    journal.record(Kind.LOST, web, {Field.REASON: "Connection reset by peer"},
                   at="2026-11-22 03:12:06.007")
    return journal


# What is shown


def test_lines_are_put_together_and_marked(night):
    assert history("web", "--since", "2026-11-22 03:00") == [
        "2026-11-22 03:10:00.000 * connected",
        "2026-11-22 03:12:05.000 | login: root",
        "2026-11-22 03:12:05.000 | ?[31mpanic?[0m: no init",
        "2026-11-22 03:12:06.007 * the connection was lost: Connection reset by peer"]


def test_several_consoles_are_merged_by_time(night):
    assert history("web", "db*", "--since", "2026-11-22 03:12", "--until", "2026-11-22 03:12:05") \
        == ["2026-11-22 03:12:00.000 db1 | checkpoint",
            "2026-11-22 03:12:05.000 web | login: root",
            "2026-11-22 03:12:05.000 web | ?[31mpanic?[0m: no init"]


def test_who_did_what_is_shown_where_it_is_asked_for(night):
    night.record(Kind.MESSAGE, 1, {Field.USER: "bob", Field.TEXT: "hands\x1b off"})
    night.record(Kind.BREAK, 1, {Field.USER: "ann"})
    night.record(Kind.INPUT, 1, {Field.USER: "ann", Field.BYTES: 5})
    night.record(Kind.MODE, 1, {Field.USER: "ann", Field.PREVIOUS_MODE: "sh", Field.MODE: "ex"})
    night.record(Kind.LEFT, 1, {Field.USER: "ann", Field.FROM: "10.0.0.5"})
    assert texts("web", "--users", "--no-output", "--since", "2026-11-22 03:12") == [
        "* ann@10.0.0.5 attached (shared)",
        "* the connection was lost: Connection reset by peer",
        "* message by bob: hands? off", "* a break was sent by ann", "* ann typed 5 bytes",
        "* ann changed the mode from shared to exclusive", "* ann@10.0.0.5 left"]


def test_what_only_the_audit_tells_is_among_what_users_did(night):
    ann = {Field.USER: "ann", Field.FROM: "10.0.0.5"}
    for what, console, result in (("clear", "web", "done"), ("force", "db1", "done"),
                                  ("attach", "web", "accepted"), ("disable", "web", "done"),
                                  ("login", "web", "refused"), ("login", "", "accepted")):
        night.record(Kind.AUDIT, 0, {Field.WHAT: what, Field.CONSOLE: console,
                                     Field.RESULT: result, **ann})
    assert texts("web", "--users", "--no-output", "--since", "2026-11-22 03:12:06") == [
        "* the connection was lost: Connection reset by peer",
        "* ann@10.0.0.5: clear web, done", "* ann@10.0.0.5: login web, refused"]
    assert texts("web", "db1", "--users", "--no-output", "--grep", "force") == [
        "db1 * ann@10.0.0.5: force db1, done"]


def test_nobody_takes_silence_for_calm(journal):
    web = journal.console("web")
    begin = nanoseconds("2026-11-22 03:10:00")
    journal.record(Kind.STARTED, 0, {Field.VERSION: "1.0", Field.PID: 7})
    journal.record(Kind.PAUSED, web, {Field.USER: "ann", Field.REASON: "mode er"})
    journal.record(Kind.NOT_LOGGED, web, {Field.BEGIN: begin, Field.END: begin + 90 * SECOND,
                                          Field.BYTES: 1, Field.USER: "ann"})
    journal.record(Kind.GAP, 0, {Field.COUNT: 1, Field.BYTES: 20, Field.REASON: "the disk is full"})
    journal.record(Kind.CLOCK_STEP, 0, {Field.BEGIN: begin, Field.END: begin - 7200 * SECOND})
    journal.record(Kind.TORN, 0, {Field.SEGMENT: 3, Field.BYTES: 12})
    journal.record(Kind.DISABLED, web, {Field.USER: "bob"})
    journal.record(Kind.STOPPED)
    assert texts("web") == [
        "* the daemon started (version 1.0, process 7)",
        "* not logged from here on by ann: mode er",
        "* not logged from 2026-11-22 03:10:00.000 to 2026-11-22 03:11:30.000 by ann, 1 byte",
        "* gap: 1 record (20 bytes) could not be kept: the disk is full",
        "* the clock was set back by 2 hours, from 2026-11-22 03:10:00.000 to 2026-11-22 "
        "01:10:00.000",
        "* the end of segment 3 was torn, and what is torn was cut off: 12 bytes",
        "* disabled by bob", "* the daemon stopped"]


def test_a_console_cannot_pretend_what_did_not_happen(journal):
    web = journal.console("web")
    journal.output(web, b"* the daemon stopped\n\x1b]0;title\x07\xc2\x9b5n\xe2\x80\xae\n")
    assert texts("web") == ["| * the daemon stopped", "| ?]0;title??5n?"]


def test_a_line_in_the_making_is_shown_as_such(journal):
    web = journal.console("web")
    db1 = journal.console("db1")
    journal.output(web, b"login: ")
    journal.output(db1, b"ready\n")
    assert texts("*", "--since", "2026-11-22") == ["db1 | ready", "web : login: "]
    assert texts("*", "--last", "1") == ["db1 | ready"]
    assert texts("*") == ["web : login: ", "db1 | ready"]


def test_a_line_that_began_before_is_shown_whole(night):
    assert texts("web", "--since", "2026-11-22 03:12:05", "--grep", "root") == ["| login: root"]


def test_output_that_was_interrupted_is_not_joined(journal):
    web = journal.console("web")
    journal.output(web, b"going do")
    journal.record(Kind.LOST, web, {Field.REASON: "x"})
    journal.output(web, b"BIOS\n")
    assert texts("web") == [": going do", "* the connection was lost: x", "| BIOS"]


# How much


def lines(journal, console: int, count: int) -> None:
    """Numbered lines in a record each."""
    for number in range(count):
        journal.output(console, b"line %d\r\n" % number)


def test_the_last_lines_are_shown_and_200_by_default(journal):
    web = journal.console("web")
    other = journal.console("other")
    lines(journal, web, 300)
    journal.new_segment()
    lines(journal, other, 2000)
    assert texts("web", "--last", "2") == ["| line 298", "| line 299"]
    assert texts("web") == [f"| line {number}" for number in range(100, 300)]
    assert texts("web", "-n", "0") == []
    assert len(texts("web", "--since", "2026-11-22")) == 300
    assert texts("*", "-n", "3") == [f"other | line {number}" for number in (1997, 1998, 1999)]


def test_the_last_matches_are_looked_for_from_the_end(journal):
    web = journal.console("web")
    lines(journal, web, 3000)
    assert texts("web", "--grep", "line .5$", "-n", "2") == ["| line 85", "| line 95"]
    assert texts("web", "--grep", "LINE 1.?$", "-i", "-n", "2", "-C", "1") == [
        "| line 19", "| line 20"]
    assert texts("web", "--grep", "0", "-v", "-n", "1") == ["| line 2999"]


def test_a_search_shows_context_and_tells_when_it_finds_nothing(night):
    since = ("--since", "2026-11-22")
    assert texts("web", *since, "--grep", "panic", "-C", "1") == [
        "| login: root", "| ?[31mpanic?[0m: no init",
        "* the connection was lost: Connection reset by peer"]
    assert history("*", "--grep", "panics", status=zevctl.FAILED) == []
    assert texts("*", *since, "--grep", "connection.*reset") == [
        "web * the connection was lost: Connection reset by peer"]
    found = [(line["match"], line["text"]) for line in objects("web", "--grep", "login", "-C", "1")]
    assert found == [(False, "connected"), (True, "login: root"),
                     (False, "\x1b[31mpanic\x1b[0m: no\tinit")]


def test_a_search_tells_where_something_may_have_been(journal):
    web = journal.console("web")
    journal.output(web, b"one\n")
    journal.record(Kind.GAP, 0, {Field.COUNT: 5})
    journal.record(Kind.PAUSED, web, {})
    said = ("something is missing in the record in 2 places of what was searched; without --grep "
            "they are shown")
    assert texts("web", "--grep", "one", said=said) == ["| one"]


# For programs


def test_json_has_everything(night):
    found = objects("web", "--users")
    assert found[1] == {
        "time": "2026-11-22T03:12:01.000000000Z", "console": "web", "kind": "attached",
        "text": "ann@10.0.0.5 attached (shared)", "source": "journal",
        "position": found[1]["position"], "user": "ann", "from": "10.0.0.5", "mode": "sh"}
    assert found[2] == {
        "time": "2026-11-22T03:12:05.000000000Z", "console": "web", "kind": "output",
        "text": "login: root", "complete": True, "source": "journal",
        "position": found[2]["position"]}
    assert re.fullmatch(r"[0-9a-f]{16}:1:\d+", found[2]["position"])


def test_raw_gives_the_bytes(night):
    night.output(1, bytes(range(256)))
    done = zevctl.start(None, "history", "web", "--raw")
    shown, said = done.communicate(timeout=stretched(LIMIT))
    assert (done.returncode, said) == (zevctl.OK, b"")
    assert shown == b"login: root\r\n\x1b[31mpanic\x1b[0m: no\tinit\r\n" + bytes(range(256))


def test_raw_is_for_one_console_and_not_for_a_terminal(night):
    zevctl.refuse(None, zevctl.USAGE, "--raw is for one console; name one of web or db1",
                  "history", "*", "--raw")
    with zevctl.Terminal(None, "history", "web", "--raw") as person:
        person.expect("zevctl: --raw would let the console command your terminal; send it to a "
                      "file or a pipe\r\n")
        person.expect_end(zevctl.USAGE)


# Names


def test_an_earlier_name_finds_the_console_and_is_told(journal):
    web = journal.console("web-old", "10.0.0.1", 4001)
    journal.output(web, b"one\n")
    journal.console("web", "10.0.0.1", 4001, number=web)
    journal.output(web, b"two\n")
    assert texts("web") == ["| one", "| two"]
    assert texts("WEB_OLD", said="web was called web-old before") == ["| one", "| two"]


def test_a_name_that_another_console_has_now_means_that_one(journal):
    first = journal.console("web")
    journal.output(first, b"of the first\n")
    journal.console("db1", number=first)
    second = journal.console("web")
    journal.output(second, b"of the second\n")
    assert texts("web", said="db1 was called web, too, before another console got that name") == [
        "| of the second"]
    assert texts("db1") == ["| of the first"]


def test_a_mistyped_name_is_told_with_the_nearest(night):
    zevctl.refuse(None, zevctl.NO_SUCH_CONSOLE, 'no console is named "wbe"; did you mean web? '
                  '"zevctl list" shows the names', "history", "wbe")


# Without a journal, and damage


def test_without_journal_and_logs_it_says_what_to_do(station):
    dated = station.root / "logs/zev.dated"
    zevctl.refuse(None, zevctl.FAILED, f"there is no journal, and cannot read {dated}: No such "
                  "file or directory; --log-dir tells where the daemon's logs are, if not there",
                  "history", "web")
    zevctl.refuse(None, zevctl.FAILED, f"there is no journal in {station.root}/journal; only a "
                  'journal has the bytes as they came; "zevctl log" shows the logs',
                  "history", "web", "--raw")


def test_a_damaged_record_is_told_and_the_rest_shown(journal):
    web = journal.console("web")
    journal.output(web, b"one\n")
    place = journal.output(web, b"two\n")
    journal.output(web, b"three\n")
    journal.new_segment()
    flip(journal.segment(1), int(place.split(":")[2]) + 41)
    shown = texts("web")
    assert [shown[0], shown[-1]] == ["| one", "| three"]
    assert re.fullmatch(rf"\* damaged: the journal cannot be read at {place} \(.*\); \"zevctl "
                        r"journal verify\" tells more", shown[1]), shown


def test_a_journal_of_somebody_elses_making_is_refused(station):
    (station.root / "elsewhere").mkdir()
    (station.root / "journal").symlink_to(station.root / "elsewhere")
    done = zevctl.run(None, "history", "web")
    assert done.returncode == zevctl.FAILED
    assert done.stderr.startswith(f"zevctl: the journal in {station.root}/journal cannot be read: ")
    assert done.stderr.endswith("; name the daemon's own journal with --journal-dir\n")


# The logs


def write_log(station, name: str, *records: tuple[str, bytes]) -> None:
    """A log with these records, of times of the night that the journal is of."""
    directory = station.root / "logs/zev.dated/221126_000000"
    directory.mkdir(parents=True, exist_ok=True)
    current = directory.parent / "current"
    if not current.is_symlink():
        current.symlink_to(directory.name)
    (directory / f"{name}.log").write_bytes(
        b"".join(f"26/11/22_{moment} ".encode() + line for moment, line in records))


def sources(*arguments: str) -> list[tuple[str, str]]:
    """Where each line comes from, and its text."""
    return [(line["source"], line["text"]) for line in objects(*arguments)]


def test_without_a_journal_the_logs_are_shown(station):
    write_log(station, "web", ("03:00:00", b"one\r"), ("03:00:00", b"\n"), ("03:00:01", b"\x1b\n"))
    assert history("web") == ["2026-11-22 03:00:00     | one", "2026-11-22 03:00:01     | ?"]
    assert objects("web", "-n", "1") == [
        {"time": "2026-11-22T03:00:01.000000000Z", "console": "web", "kind": "output",
         "text": "\x1b", "complete": True, "source": "log", "position": None}]
    assert texts("web", "--since", "2026-11-22", "--grep", "one") == ["| one"]


def test_what_logs_cannot_have_is_not_looked_for_there(station, journal):
    journal.record(Kind.CONNECTED, journal.console("web"), {})
    directory = station.root / "logs/zev.dated/221126_000000"
    directory.mkdir(parents=True)
    (directory / "web.log.zst").write_bytes(b"this is no archive")
    said = ("the compressed log of web is damaged at byte 0 of the file, and what can be read is "
            "shown; restore the file from a copy to have all of it")
    assert texts("web", said=said) == texts("web", "--no-output") == ["* connected"]


def test_the_logs_go_before_the_journal_without_a_line_twice_or_lost(station, journal):
    journal.wall = nanoseconds("2026-11-22 03:00:05.3")
    web = journal.console("web")
    for moment, line in (("03:00:05.4", b"same\n"), ("03:00:05.9", b"next\r\n"),
                         ("03:00:06.2", b"then\n"), ("03:30:00", b"late\n")):
        journal.output(web, line, at=f"2026-11-22 {moment}")
    write_log(station, "web", ("03:00:04", b"first\n"), ("03:00:05", b"same\n"),
              ("03:00:05", b"same\n"), ("03:00:05", b"next\n"), ("03:00:06", b"then\n"),
              ("03:30:00", b"late\n"))
    expected = [("log", "first"), ("log", "same"), ("journal", "same"), ("journal", "next"),
                ("journal", "then"), ("journal", "late")]
    assert sources("web", "--since", "2026-11-22") == expected
    assert sources("web") == expected
    assert sources("web", "-n", "5") == expected[1:]
    assert sources("web", "-n", "2") == expected[-2:]
    assert sources("web", "--until", "2026-11-22 03:00:04") == expected[:1]
    assert sources("web", "--since", "2026-11-22 03:00:06") == expected[-2:]


def test_a_line_in_whose_middle_the_journal_begins_is_whole(station, journal):
    journal.wall = nanoseconds("2026-11-22 03:00:05.3")
    web = journal.console("web")
    journal.output(web, b"root\nmore\n")
    journal.output(web, b"late\n", at="2026-11-22 03:10:00")
    write_log(station, "web", ("03:00:05", b"login: root\n"), ("03:00:05", b"more\n"))
    assert sources("web") == [("journal", "login: root"), ("journal", "more"),
                              ("journal", "late")]


def test_a_time_in_which_the_journal_was_off_comes_from_the_logs(station, journal):
    web = journal.console("web")
    journal.output(web, b"on\n", at="2026-11-22 03:00:10")
    journal.record(Kind.STOPPED)
    journal.wall = nanoseconds("2026-11-22 04:00:00")
    journal.new_run()
    web = journal.console("web")
    journal.output(web, b"again\n", at="2026-11-22 04:00:01")
    write_log(station, "web", ("03:00:10", b"on\n"), ("03:00:10", b"off\n"),
              ("03:30:00", b"still off\n"), ("04:00:01", b"again\n"), ("05:00:00", b"off again\n"))
    output = [pair for pair in sources("web") if "daemon" not in pair[1]]
    assert output == [("journal", "on"), ("log", "off"), ("log", "still off"),
                      ("journal", "again"), ("log", "off again")]


def test_the_logs_of_earlier_names_belong_to_the_console(station, journal):
    web = journal.console("web-old")
    journal.console("web", number=web)
    write_log(station, "web-old", ("02:00:00", b"early\n"))
    write_log(station, "other", ("02:00:00", b"of another\n"))
    assert texts("web", "-n", "9")[0] == "| early"
    assert texts("other") == ["| of another"]


def test_a_name_that_is_anothers_now_does_not_show_that_ones_logs(station, journal):
    first = journal.console("web")
    journal.console("db1", number=first)
    journal.console("web")
    write_log(station, "web", ("02:00:00", b"of the other\n"))
    write_log(station, "db1", ("02:00:00", b"its own\n"))
    assert [text for source, text in sources("db1") if source == "log"] == ["its own"]
    assert [text for source, text in sources("*") if source == "log"] == [
        "of the other", "its own"]


def test_a_log_belongs_to_the_console_that_has_its_name_now(station, journal):
    journal.wall = nanoseconds("2026-11-22 03:00:05.3")
    first = journal.console("web")
    journal.console("db1", number=first)
    journal.output(journal.console("web"), b"same\n", at="2026-11-22 03:00:05.4")
    journal.output(first, b"its own\n")
    write_log(station, "web", ("03:00:05", b"same\n"))
    assert [pair for pair in sources("*") if pair[1] == "same"] == [("journal", "same")]


# Following


def test_follow_goes_on_with_what_happens(journal):
    web = journal.console("web")
    lines(journal, web, 12)
    journal.output(web, b"begun ")
    client = zevctl.start(None, "history", "-f", "web")
    shown = b""

    def saw(text: bytes) -> bool:
        nonlocal shown
        shown += client.stdout.read() or b""
        return text in shown

    os.set_blocking(client.stdout.fileno(), False)
    try:
        wait_until(lambda: saw(b"line 11\n"), LIMIT, "the last lines")
        assert b"line 2\n" in shown and b"line 1\n" not in shown
        journal.output(web, b"and ended\n")
        journal.new_segment()
        journal.record(Kind.LOST, web, {Field.REASON: "x"})
        wait_until(lambda: saw(b"was lost: x\n"), LIMIT, "what is new")
        assert b" | begun and ended\n" in shown
        client.send_signal(signal.SIGTERM)
        assert client.wait(stretched(LIMIT)) == zevctl.OK
    finally:
        client.kill()
        client.communicate()


# Attaching


def note_attached(journal, console: int, user: str) -> None:
    """Write that the user is attached, as the daemon does a moment later."""
    journal.record(Kind.ATTACHED, console, {Field.GIVEN_USER: user, Field.MODE: "sh"},
                   at=time.time_ns())


def printed_before(journal, console: int, *pieces: bytes) -> None:
    """Write that the console has just printed this."""
    for piece in pieces:
        journal.output(console, piece, at=time.time_ns())


@contextlib.contextmanager
def attaching(station, journal, console: int, *arguments: str):
    """A person who attaches to box with a history; the journal notes it."""
    position = station.mark()
    with zevctl.Terminal(station, "--user", "eve", "attach", "box", *arguments) as person:
        station.wait_log(re.compile("AddUserToList: Doing FD_SET"), after=position)
        note_attached(journal, console, "eve")
        yield person


def test_attach_shows_what_came_before(station, journal):
    box = box_of(station)
    web = journal.console("box")
    printed_before(journal, web, b"one\r\ntwo\r\n", b"\x1b[2Jthree\r\nlog", b"in: ")
    with attaching(station, journal, web, "--history", "3") as person:
        assert greeted(person.child) == (
            b"zevctl: What was printed before, up to here:\r\ntwo\r\n?[2Jthree\r\nlogin: \r\n")
        box.send(b"root\r\n")
        person.expect(b"root\r\n")
        leave(person)


@pytest.mark.parametrize("ring,first", [(64, b"zevctl: What was printed before, up to here:\r\n"),
                                        (4096, b"")])
def test_what_the_daemon_sends_again_does_not_come_twice(station, journal, ring, first):
    box = box_of(station, "-B", str(ring))
    web = journal.console("box")
    printed = numbered(20) + b"login: "
    print_and_wait(station, box, printed)
    printed_before(journal, web, printed)
    with attaching(station, journal, web, "--history", "30") as person:
        assert greeted(person.child) == first + printed + b"\r\n"
        leave(person)


def test_what_comes_while_somebody_attaches_comes_once(station, journal):
    box = box_of(station)
    web = journal.console("box")
    printed_before(journal, web, b"again\r\n")
    with attaching(station, journal, web, "--history", "30") as person:
        printed_before(journal, web, b"again\r\n")
        box.send(b"again\r\n")
        shown = greeted(person.child)
        assert shown == b"zevctl: What was printed before, up to here:\r\nagain\r\nagain\r\n"
        leave(person)


def test_attach_goes_on_without_a_journal(box, station):
    with zevctl.Terminal(station, "attach", "box", "--history", "5") as person:
        person.expect("zevctl: " + NO_JOURNAL.format(f"{station.root}/journal") +
                      "; the session goes on without a history\r\n")
        greeted(person.child)
        leave(person)


def test_attach_tells_when_the_journal_stands_still(box, station, journal):
    printed_before(journal, journal.console("box"), b"old\r\n")
    with zevctl.Terminal(station, "attach", "box", "--history", "5") as person:
        person.expect("zevctl: the journal has not noted this session, so lines may be missing, or "
                      "come twice, where it begins; look at it with \"zevctl history\"\r\n")
        person.expect("up to here:\r\nold\r\n")
        greeted(person.child)
        leave(person)


def test_a_journal_of_a_moment_may_end_in_the_next_second(station):
    with JournalWriter(station.root / "journal", begin="2026-11-22 03:00:00.800") as journal:
        web = journal.console("web", at="2026-11-22 03:00:00.800")
        journal.output(web, b"on\n", at="2026-11-22 03:00:00.900")
        journal.record(Kind.STOPPED, at="2026-11-22 03:00:01.050")
    write_log(station, "web", ("03:00:00", b"off\n"), ("03:00:00", b"on\n"),
              ("03:00:01", b"off again\n"))
    assert sources("web") == [
        ("log", "off"), ("journal", "on"), ("journal", "the daemon stopped"), ("log", "off again")]
