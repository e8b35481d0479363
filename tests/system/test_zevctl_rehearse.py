"""`zevctl rehearse`: event files tried out on the past, with the daemon's verdicts."""

import json
import os
import random
import time
from pathlib import Path

import pytest

from harness import zevctl
from harness.collectors import collector
from harness.logs import bring_up, waker
from harness.station import Station
from harness.waiting import LIMIT, stretched, wait_until
from journal_writer import Field, JournalWriter, Kind

EVER = ("--since", "2020-01-01")
ENDLESS = r"(a*)*\1b"  # takes minutes for a line of 1 KB
SEED = int(os.environ.get("ZEVD_TEST_SEED", "20261122"))


@pytest.fixture
def journal(station):
    """An empty journal where the daemon keeps its own."""
    with JournalWriter(station.root / "journal") as made:
        yield made


def write_events(station: Station, *lines: str) -> Path:
    """The event file "set" of the station."""
    path = station.events / "set"
    path.write_text("".join(f"{line}\n" for line in lines), encoding="latin-1")
    return path


def rehearsed(*arguments: str) -> dict:
    """What the client finds out about the file "set"."""
    return zevctl.data(None, "rehearse", "set", *EVER, *arguments)


def by_name(found: dict) -> dict[str, dict]:
    """The patterns of an answer by their names."""
    return {pattern["name"]: pattern for pattern in found["patterns"]}


def examples(pattern: dict) -> list[str]:
    """The lines that are shown of a pattern."""
    return [example["line"] for example in pattern["examples"]]


# What it tells


def test_it_tells_what_matches_what_wins_and_what_never_matched(station, journal):
    web = journal.console("web")
    journal.output(web, b"an ERROR on disk\r\nnothing else\r\ndisk full\r\n")
    write_events(station, "any 300 0 error", "disk 200 1 disk", "never 100 0 zebra")
    found = rehearsed("--show", "5")
    patterns = by_name(found)
    assert (found["lines"], found["matched"]) == (3, 2)
    assert [(name, row["matched"], row["wins"], row["events"]) for name, row in patterns.items()
            ] == [("any", 1, 1, 1), ("disk", 2, 1, 1), ("never", 0, 0, 0)]
    assert examples(patterns["disk"]) == ["an ERROR on disk\n", "disk full\n"]
    assert [example["wins"] for example in patterns["disk"]["examples"]] == [False, True]
    assert patterns["any"]["tried"] == 1 and 0 < patterns["any"]["mean_us"] < 1e6


def test_the_table_names_what_to_look_at(station, journal):
    journal.output(journal.console("web"), b"an error\nabab\n")
    write_events(station, "any 300 0 error", "late 200 0 an error", "never 100 0 zebra",
                 r"twice 50 1 (ab)\1", "bad 1 1 (((")
    lines = zevctl.succeed(None, "rehearse", "set", *EVER).splitlines()
    head, *rows = [line.split() for line in lines[:6]]
    assert head == ["PATTERN", "PRIORITY", "MATCHED", "WINS", "EVENTS", "US/LINE", "WORST",
                    "REMARK"]
    assert [[*row[:5], " ".join(row[7:])] for row in rows] == [
        ["any", "300", "1", "1", "1", ""],
        ["late", "200", "1", "0", "0", "never wins"],
        ["never", "100", "0", "0", "0", "never matched"],
        ["twice", "50", "1", "1", "1", "costly: needs a process of its own"],
        ["bad", "1", "0", "0", "0", "left out: does not compile: Unmatched ( or \\("]]
    assert lines[6] == "Lines: 2, matched: 2; a process of its own has to match the whole file."
    assert lines[7].startswith("The journal begins at ")


def test_lines_that_somebody_watched_make_no_events(station, journal):
    web, db = journal.console("web"), journal.console("db")
    journal.record(Kind.ATTACHED, web, {Field.USER: "ann"})
    for console in (web, db):
        journal.output(console, b"error 1\n")
    journal.record(Kind.LEFT, web, {Field.USER: "ann"})
    journal.output(web, b"error 2\n")
    journal.record(Kind.ATTACHED, web, {Field.USER: "ann"})
    journal.new_run()
    journal.record(Kind.STARTED)
    journal.output(journal.console("web"), b"error 3\n")
    write_events(station, "any 300 0 error")
    found = rehearsed("--show", "9")
    shown = by_name(found)["any"]
    assert (found["attended"], shown["wins"], shown["events"]) == (1, 4, 3)
    assert [example["console"] for example in shown["examples"] if example["attended"]] == ["web"]


def test_who_attached_before_the_range_is_known(station, journal):
    web = journal.console("web")
    journal.record(Kind.ATTACHED, web, {Field.USER: "ann"}, at="2026-11-22 03:10:00")
    journal.output(web, b"error\n", at="2026-11-22 03:20:00")
    write_events(station, "any 300 0 error")
    found = zevctl.data(None, "rehearse", "set", "--since", "2026-11-22T03:15:00Z")
    assert (found["lines"], found["attended"]) == (1, 1)


def test_consoles_and_times_can_be_chosen(station, journal):
    for name in ("web-1", "web-2", "db"):
        journal.output(journal.console(name), b"error\n")
    journal.output(1, b"error\n", at="2026-11-22 05:00:00")
    write_events(station, "any 300 0 error")
    assert rehearsed()["lines"] == 4
    assert rehearsed("web*")["lines"] == 3
    assert rehearsed("db")["lines"] == 1
    assert rehearsed("--until", "2026-11-22T04:00:00Z")["lines"] == 3


def test_the_last_lines_of_each_pattern_are_shown(station, journal):
    web = journal.console("web")
    for number in range(9):
        journal.output(web, f"error {number}\r\n".encode())
    write_events(station, "any 300 0 error")
    assert examples(by_name(rehearsed("--show", "2"))["any"]) == ["error 7\n", "error 8\n"]
    table = zevctl.succeed(None, "rehearse", "set", *EVER, "--show", "1")
    assert table.splitlines()[-2:] == ["any:", table.splitlines()[-1]]
    assert table.endswith(" web error 8\n")


# Lines


def test_lines_are_put_together_as_the_daemon_logs_them(station, journal):
    web, db = journal.console("web"), journal.console("db")
    journal.output(web, b"er")
    journal.output(db, b"error of db\n")
    journal.output(web, b"ror\0 of\xff\xfd\x01 web\r\n" + b"x" * 1500 + b"\nlast")
    journal.record(Kind.LOST, web, {Field.REASON: "reset"})
    write_events(station, "all 1 0 .*")
    assert examples(by_name(rehearsed("--show", "9"))["all"]) == [
        "error of db\n", "error of web\n", "x" * 1024, "x" * 476 + "\n", "last", "\n"]


def test_lines_do_not_go_on_across_holes(station, journal):
    web = journal.console("web")
    for kind, console in ((Kind.GAP, 0), (Kind.PAUSED, web), (Kind.NOT_LOGGED, web)):
        journal.output(web, b"before ")
        journal.record(kind, console)
        journal.output(web, b"after\n")
    write_events(station, "all 1 0 .*")
    assert examples(by_name(rehearsed("--show", "9"))["all"]) == ["after\n"] * 3


def test_carriage_returns_can_be_line_ends(station, journal):
    journal.output(journal.console("web"), b"one\rtwo\r\n")
    write_events(station, "all 1 0 .*")
    assert examples(by_name(rehearsed("--show", "9"))["all"]) == ["onetwo\n"]
    assert examples(by_name(rehearsed("--show", "9", "--carriage-returns"))["all"]) == [
        "one\r", "two\r", "\n"]


# Patterns and files


def test_a_pattern_that_takes_minutes_does_not_hold_it_up(station, journal):
    web = journal.console("web")
    for _ in range(20):
        journal.output(web, b"a" * 1000 + b"\n")
    journal.output(web, b"an error\n")
    write_events(station, f"endless 1 1 {ENDLESS}", "any 300 0 error")
    begin = time.monotonic()
    found = by_name(rehearsed())
    assert time.monotonic() - begin < stretched(LIMIT)
    assert found["endless"]["left_out"] == "took too long on a line"
    assert found["endless"]["worst_us"] > 50_000
    assert found["any"]["wins"] == 1


def test_a_file_of_ones_own_is_taken_by_its_path(station, journal, tmp_path):
    journal.output(journal.console("web"), b"error\n")
    file = tmp_path / "mine"
    file.write_text("any 300 0 error\n")
    assert zevctl.data(None, "rehearse", str(file), *EVER)["matched"] == 1


def test_lines_that_the_daemon_leaves_out_are_named(station, journal):
    journal.output(journal.console("web"), b"error\n")
    write_events(station, "any 300 0 error", "half 300")
    done = zevctl.run(None, "rehearse", "set", *EVER, "--json")
    assert json.loads(done.stdout)["incomplete_lines"] == [2]
    assert done.stderr == ("zevctl: line 2 of the event file lacks a part, and the daemon leaves "
                           "it out; a line has four parts: name, priority, case indicator, "
                           "pattern\n")


@pytest.mark.parametrize("name, why", [("missing", "there is no such file"),
                                       ("folder", "it is no plain file")])
def test_a_file_that_is_none_is_refused(station, journal, name, why):
    (station.events / "folder").mkdir()
    zevctl.refuse(None, zevctl.FAILED,
                  f'the event file {name} cannot be read: {why}; "ls {station.events}" lists those '
                  "of the station", "rehearse", name)


def test_without_a_journal_it_says_how_to_have_one(station):
    write_events(station, "any 300 0 error")
    done = zevctl.run(None, "rehearse", "set")
    assert (done.returncode, done.stdout) == (zevctl.FAILED, "")
    assert done.stderr.startswith(f"zevctl: there is no journal in {station.root}/journal; ")
    assert "ZEVD_JOURNAL=" in done.stderr


def test_the_file_is_completed_and_then_names(station):
    station.console("web")
    station.start()
    assert zevctl.succeed(None, "complete", "rehearse", "") == "<file>\n"
    port = ("--port", str(station.port))
    assert zevctl.succeed(None, "complete", *port, "rehearse", "set", "") == "web\n"


# The same verdicts as the daemon's


class Author:
    """Random patterns and lines that have something to do with each other."""

    WORDS = ("error", "Fan", "LINK", "disk sda1", "port 1", "ab", "is down", "0x1f", "CPU#2")
    ATOMS = (".", "[a-f]", "[^a-z ]", "[[:digit:]]", "(ab|Fan)", "a", "r", "(d|is)", r"\w", " ")
    REPEATS = ("", "", "", "", "+", "+", "?", "{2}", "{1,3}", "*")
    TIES = ("", "", "", "^", r"\<", r"\b")

    def __init__(self, seed: int, foreign: str = "") -> None:
        self.dice = random.Random(seed)
        self.letters = (*self.WORDS, *"abcdef0123  :-\t", *foreign)

    def _part(self) -> str:
        if self.dice.random() < 0.4:
            return self.dice.choice(self.WORDS)
        return self.dice.choice(self.ATOMS) + self.dice.choice(self.REPEATS)

    def pattern(self, place: int, hard: bool) -> str:
        """A line of an event file; its priority is its place."""
        text = self.dice.choice(self.TIES) + "".join(
            self._part() for _ in range(self.dice.randint(2, 6)))
        if self.dice.random() < 0.2:
            text += "|" + self._part() + self._part()
        if hard:
            text = rf"(a|b|[0-9])\1|{text}"
        if self.dice.random() < 0.1:
            text += "("
        return f"p{place} {place} {self.dice.choice('01')} {text}"

    def line(self, number: int) -> bytes:
        """A line that no other one is equal to."""
        parts = [self.dice.choice(self.letters) for _ in range(self.dice.randint(0, 9))]
        end = self.dice.choice(("\n", "\n", "\r\n", "\0\r\n"))
        long = "z" * 1100 if self.dice.random() < 0.02 else ""
        return f"{number} {''.join(parts)}{long}{end}".encode()


def printed_to_both(journal: JournalWriter, box, output: bytes, dice: random.Random) -> None:
    """Let the console print to the daemon, and write down the same in pieces of any size."""
    number = journal.console("box")
    box.send(output)
    output = box.greeting + output
    while output:
        size = dice.randint(1, 3000)
        journal.output(number, output[:size])
        output = output[size:]


def verdicts_of(found: dict) -> list[tuple[str, int]]:
    """Each line that would make an event, with the priority of the pattern that wins."""
    verdicts = [(example["line"], pattern["priority"]) for pattern in found["patterns"]
                for example in pattern["examples"] if example["wins"]]
    assert len(verdicts) > 20
    return verdicts


def write_random_events(station: Station, author: Author, hard: bool) -> None:
    """An event file with patterns of all kinds, some that match, and one for the last line."""
    patterns = [author.pattern(place, hard and place % 4 == 1) for place in range(8)]
    write_events(station, "last 99 1 ^END OF IT", *patterns, "fan 20 0 fan.*[0-9]",
                 "error 21 1 error|LINK.?is")


def random_output(author: Author, count: int = 300) -> bytes:
    """Lines of which some match. The last one is not near a foreign letter.

    The daemon drops a chunk that begins with a byte of 128 and more while nobody is attached, and
    nobody but the daemon knows where a chunk begins.
    """
    return (b"".join(author.line(number) for number in range(count)) + b"-\n" * 600
            + b"END OF IT\n")


def assert_posted(manager, verdicts: list[tuple[str, int]]) -> None:
    """The daemon has posted just these events."""
    posted = manager.wait_events(len(verdicts), limit=2 * LIMIT)
    assert posted[-1]["vars"]["message"] == "END OF IT\n"
    assert sorted((event["vars"]["message"], event["priority"]) for event in posted) == sorted(
        verdicts)


@pytest.mark.parametrize("hard", [False, True], ids=["easy", "hard"])
@pytest.mark.parametrize("seed", [SEED, SEED + 1, SEED + 2])
def test_every_verdict_is_the_daemons(station, collector, waker, tmp_path, hard, seed):
    print("seed", seed)
    author = Author(seed)
    write_random_events(station, author, hard)
    box = station.console("box", events=1, event_file="set")
    bring_up(station, box, options=("-d", "0"))
    manager = collector.accept()
    with JournalWriter(tmp_path / "journal") as journal:
        printed_to_both(journal, box, random_output(author), author.dice)
    found = rehearsed("--journal-dir", str(tmp_path / "journal"), "--show", "1000000")
    assert_posted(manager, verdicts_of(found))


@pytest.mark.parametrize("hard", [False, True], ids=["easy", "hard"])
def test_the_daemons_own_journal_gives_its_verdicts(station, collector, waker, hard):
    print("seed", SEED)
    author = Author(SEED, foreign="\xe9\u20ac\u20ac")
    write_random_events(station, author, hard)
    (station.config / "qor.conf").write_text("ZEVD_ARCH_INT=7\nZEVD_JOURNAL=100\n")
    box = station.console("box", events=1, event_file="set")
    bring_up(station, box, options=("-d", "0"))
    manager = collector.accept()
    box.send(random_output(author))

    def last_line_found() -> dict | None:
        found = rehearsed("box", "--show", "1000000")
        return found if by_name(found)["last"]["wins"] == 1 else None

    found = wait_until(last_line_found, what="the output in the journal")
    assert_posted(manager, verdicts_of(found))
