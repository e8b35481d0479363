"""The soak's ledger: which logs it accepts for what was printed, and which it does not."""

import asyncio
import os
import sys
from pathlib import Path

import pytest

from harness.settings import REPOSITORY

sys.path.insert(0, str(REPOSITORY / "tests" / "soak"))

# The directory is found through the line above.
from journal_book import JournalBook  # noqa: E402
from ledger import HELD_BACK, RECORD, Ledger, View  # noqa: E402
from log_reader import LogFile, LogReader  # noqa: E402
from plan import plan  # noqa: E402
from stream import CHUNK, Counts  # noqa: E402
from windows import Windows  # noqa: E402

LINES = [b"@7.%d some words\n" % number for number in range(6)]

# Seconds between the lines, so that no window reaches the next one.
APART = 100.0


class Books:
    """A ledger in which the lines have been printed, and what it complains of."""

    def __init__(self, dirty: bool = False, lines: list[bytes] | None = None) -> None:
        self.complaints: list[str] = []
        self.counts = Counts()
        self.station = Windows()
        self.station_cuts = Windows()
        self.ledger = Ledger("c7", self.counts, self.station, self.complaints.append, dirty,
                             common_cuts=self.station_cuts)
        for number, line in enumerate(LINES if lines is None else lines):
            self.ledger.sent(line, self.at(number))

    @staticmethod
    def at(number: int) -> float:
        """When a line is printed."""
        return 1e9 + number * APART

    def log(self, *records: tuple[int, bytes]) -> "Books":
        """The console's log holds these and nothing else; each with its line's number."""
        for number, record in records:
            self.ledger.record(self.at(number), record)
        self.ledger.settle()
        return self

    def all_but(self, *missing: int) -> "Books":
        """The log holds all lines except these."""
        return self.log(*((number, line) for number, line in enumerate(LINES)
                          if number not in missing))

    def good(self) -> None:
        """Nothing was wrong."""
        assert self.complaints == []
        assert self.counts.printed == self.counts.found + self.counts.accounted.total()

    def wrong(self, *words: str) -> None:
        """These were the complaints, in order; each holds its word."""
        assert len(self.complaints) == len(words), self.complaints
        for complaint, word in zip(self.complaints, words):
            assert word in complaint


def test_every_line_once_and_in_order_is_good():
    books = Books().all_but()
    books.good()
    assert (books.counts.printed, books.counts.found) == (6, 6)


def test_a_missing_line_is_a_complaint():
    Books().all_but(3).wrong("lost before b'@7.4 ")


def test_a_missing_last_line_is_a_complaint():
    Books().all_but(5).wrong("lost at the end")


def test_two_gaps_are_two_complaints():
    Books().all_but(1, 3).wrong("lost before b'@7.2 ", "lost before b'@7.4 ")


def test_a_line_that_is_there_twice_is_a_complaint():
    records = list(enumerate(LINES))
    Books().log(*records[:3], records[2], *records[3:]).wrong("twice or late")


def test_lines_in_the_wrong_order_are_a_complaint():
    records = list(enumerate(LINES))
    records[2:4] = records[3], records[2]
    Books().log(*records).wrong("lost before b'@7.3 ", "twice or late")


def test_a_torn_line_is_a_complaint():
    records = [(number, line if number != 2 else line[:5] + b"\n")
               for number, line in enumerate(LINES)]
    Books().log(*records).wrong("torn or foreign", "lost before b'@7.3 ")


def test_a_line_of_another_console_is_a_complaint():
    records = list(enumerate(LINES))
    records.insert(2, (2, b"@8.2 some words\n"))
    Books().log(*records).wrong("torn or foreign")


def test_a_line_logged_before_it_was_printed_is_a_complaint():
    books = Books()
    books.ledger.record(books.at(0) - 10, LINES[0])
    books.wrong("before it was printed")


@pytest.mark.parametrize("whose", ["console", "station"])
def test_a_window_excuses_what_was_printed_in_it_and_no_more(whose):
    def books(first: int, last: int) -> Books:
        made = Books()
        windows = made.ledger.windows if whose == "console" else made.station
        windows.open("trouble", made.at(first) - 1).close(made.at(last) + 1)
        return made

    books(2, 3).all_but(2, 3).good()
    books(2, 3).all_but(2, 3, 4).wrong("lost")
    books(2, 2).all_but(3).wrong("lost")
    excused = books(2, 3).all_but(2, 3)
    assert (excused.counts.found, excused.counts.accounted) == (4, {"trouble": 2})


def test_a_window_that_is_still_open_excuses_too():
    books = Books()
    books.ledger.windows.open("trouble", books.at(3) - 1)
    books.all_but(3, 4, 5).good()


def test_a_reset_excuses_what_it_took_with_it():
    for lost, count in ((1, len(LINES[5])), (2, len(LINES[4] + LINES[5]))):
        books = Books()
        books.ledger.connection_ended(books.at(5), count)
        books.all_but(*range(6 - lost, 6)).good()
    books = Books()
    books.ledger.connection_ended(books.at(5), len(LINES[5]))
    books.all_but(4, 5).wrong("lost at the end")


def test_carriage_returns_and_nuls_are_not_logged():
    Books(lines=[b"@7.1 a\0b\r\n", b"@7.2 c\r\n"]).log((0, b"@7.1 ab\n"), (1, b"@7.2 c\n")).good()


# Lines that are cut


def test_a_line_cut_without_a_rotation_is_a_complaint():
    records = [(0, LINES[0][:9]), (0, b"\n"), (0, LINES[0][9:]), *list(enumerate(LINES))[1:]]
    Books().log(*records).wrong("cut for no reason")
    books = Books()
    books.station_cuts.open("rotation", books.at(0)).close(books.at(0) + 1)
    books.log(*records).good()


def test_a_line_that_was_cut_must_be_ended():
    books = Books()
    books.station_cuts.open("rotation", books.at(0)).close(books.at(0) + 1)
    books.log((0, LINES[0][:9]), (0, LINES[0][9:]), *list(enumerate(LINES))[1:])
    books.wrong("follows a line that was cut")


def test_a_line_may_be_cut_at_the_end_of_a_connection():
    books = Books(lines=[b"@7.0 begun"])
    books.ledger.connection_ended(books.at(0))
    books.ledger.sent(LINES[1], books.at(1))
    books.log((0, b"@7.0 begun"), (0, b"\n"), (1, LINES[1])).good()


def test_a_long_line_is_several_records():
    line = b"@7.0 " + b"x" * 2500 + b"\n"
    pieces = [line[start:start + RECORD] for start in range(0, len(line), RECORD)]
    Books(lines=[line]).log(*((0, piece) for piece in pieces)).good()
    Books(lines=[line]).log((0, pieces[0]), (0, pieces[2])).wrong("lost before")


# Bytes that are not text


def test_a_chunk_that_begins_with_a_high_byte_may_be_dropped():
    lines = [b"@7.0 before\n", b"\xff\xfb\x01@7.1 dropped\n", b"@7.2 behind\n"]
    kept = [(0, lines[0]), (2, lines[2])]
    Books(dirty=True, lines=lines).log(*kept).good()
    Books(dirty=True, lines=lines).log(kept[0], (1, b"@7.1 dropped\n"), kept[1]).good()
    Books(dirty=True, lines=lines).log(kept[1]).wrong("lost before")
    clean = [line.removeprefix(b"\xff\xfb\x01") for line in lines]
    Books(dirty=True, lines=clean).log(*kept).wrong("lost before")


def test_a_chunk_may_be_dropped_from_the_middle_of_lines():
    first, rest = b"@7.0 one two", b"\x80\x81 three\n@7.1 four"
    lines = [first, rest, b" five\n"]
    Books(dirty=True, lines=lines).log((2, b"@7.0 one two five\n")).good()
    Books(dirty=True, lines=lines).log((2, b"@7.0 one five\n")).wrong("torn", "lost at the end")


def test_no_more_than_a_chunk_is_dropped():
    for length, good in ((CHUNK, True), (CHUNK + 100, False)):
        lines = [b"@7.0 a\n", b"\x80" + b"x" * (length - 2) + b"\n", b"@7.2 b\n"]
        books = Books(dirty=True, lines=lines).log((0, lines[0]), (2, lines[2]))
        assert (books.complaints == []) == good, length


def test_a_telnet_command_is_not_logged():
    line = b"@7.0 one\xff\xfb\x01 two\n"
    Books(dirty=True, lines=[line]).log((0, b"@7.0 one two\n")).good()
    torn = Books(dirty=True, lines=[line]).log((0, b"@7.0 one\xfb\x01 two\n"))
    torn.good()
    assert torn.counts.remains == 2


# The consolidated log


def consolidated(books: Books, *missing: int) -> Books:
    """The consolidated log has all lines except these."""
    for number, line in enumerate(LINES):
        if number not in missing:
            books.ledger.consolidated(books.at(number), line)
    books.ledger.settle_consolidated()
    return books


def test_the_consolidated_log_has_every_record_that_nobody_watched():
    consolidated(Books().all_but()).good()
    consolidated(Books().all_but(), 3).wrong("consolidated.log lacks")
    consolidated(Books().all_but(), 5).wrong("consolidated.log lacks")
    books = Books()
    books.ledger.watched.open("visit", books.at(3) - 1).close(books.at(3) + 1)
    consolidated(books.all_but(), 3).good()


def test_the_consolidated_log_has_nothing_that_was_surely_watched():
    books = Books()
    books.ledger.watched.open("visit", books.at(3) - 5).close(books.at(3) + 5)
    consolidated(books.all_but()).good()
    books.ledger.surely_watched(books.at(3) - 2, books.at(3) + 2)
    books.wrong("but somebody watched")


def test_the_consolidated_log_has_nothing_that_the_consoles_own_lacks():
    books = Books()
    books.ledger.record(books.at(0), LINES[0])
    books.ledger.consolidated(books.at(1), LINES[1])
    books.wrong("which is not in the console's log")


# The journal


class JournalBooks:
    """What the journal holds of a console, after the lines have been printed."""

    def __init__(self, dirty: bool = False, lines: list[bytes] | None = None) -> None:
        self.complaints: list[str] = []
        self.counts = Counts()
        self.gaps = Windows()
        self.book = JournalBook("c7", self.counts, self.gaps, self.complaints.append, dirty)
        for number, line in enumerate(LINES if lines is None else lines):
            self.book.sent(line, Books.at(number))

    def hold(self, *records: bytes | int) -> list[str]:
        """The records are these, a number for bytes that the journal says it has not."""
        for record in records:
            if isinstance(record, int):
                self.book.not_logged(record)
            else:
                self.book.output(Books.at(len(LINES)), record)
        self.book.settle()
        if not self.complaints:
            assert self.counts.printed == self.counts.found + self.counts.accounted.total()
        return self.complaints


def wrong(complaints: list[str], word: str) -> bool:
    """There is one complaint, or more of the same, and the first holds the word."""
    return bool(complaints) and word in complaints[0]


def test_the_journal_holds_every_byte_in_records_of_any_size():
    printed = b"".join(LINES)
    for size in (1, 7, len(printed)):
        pieces = [printed[place:place + size] for place in range(0, len(printed), size)]
        assert JournalBooks().hold(*pieces) == []
    raw = [b"@7.1 a\0b\r\n", b"\xff\xfb\x01@7.2 c\r\n"]
    assert JournalBooks(lines=raw).hold(b"".join(raw)) == []
    assert wrong(JournalBooks(lines=raw).hold(b"@7.1 ab\n", raw[1]), "torn or foreign")


def test_the_journal_lacks_what_it_says_it_lacks_and_no_byte_more_or_less():
    pause = len(LINES[2] + LINES[3])
    assert JournalBooks().hold(*LINES[:2], pause, *LINES[4:]) == []
    assert JournalBooks().hold(*LINES[:2], pause - 7, 7, *LINES[4:]) == []
    assert JournalBooks().hold(*LINES[:4], len(LINES[4] + LINES[5])) == []
    assert wrong(JournalBooks().hold(*LINES[:2], pause - 1, *LINES[4:]), "it tells of")
    assert wrong(JournalBooks().hold(*LINES[:2], pause + 1, *LINES[4:]), "as it says, and holds")
    assert wrong(JournalBooks().hold(*LINES, 1), "only 0 are missing")
    assert wrong(JournalBooks().hold(*LINES[:2], *LINES[4:]), "lost before")
    assert wrong(JournalBooks().hold(*LINES[:5]), "lost at the end")


def test_what_the_logs_may_lack_is_no_excuse_for_the_journal():
    books = Books()
    books.ledger.journal = JournalBook("c7", Counts(), Windows(), books.complaints.append)
    for number, line in enumerate(LINES):
        books.ledger.journal.sent(line, books.at(number))
    books.ledger.windows.open("exclusive visit", 0)
    books.station.open("full disk", 0)
    books.all_but(3).good()
    for line in LINES[:3] + LINES[4:]:
        books.ledger.journal.output(books.at(5), line)
    assert wrong(books.complaints, "lost before b'@7.4 ")


def test_where_a_connection_may_end_the_journal_may_lack_what_was_not_read():
    books = JournalBooks()
    (window,) = [window for window in Books().ledger.may_close("disabled", 0)]
    books.book.windows.open("disabled", Books.at(3) - 1).close(Books.at(3) + 1)
    assert window.why == "disabled"
    assert books.hold(*LINES[:3], *LINES[4:]) == []
    books = JournalBooks()
    books.book.lost(len(LINES[5]))
    assert books.hold(*LINES[:3], len(LINES[3]), LINES[4]) == []
    books = JournalBooks()
    books.book.lost(len(LINES[5]))
    assert books.hold(*LINES[:4], len(LINES[4])) == []
    books = JournalBooks()
    books.book.lost(len(LINES[5]))
    assert wrong(books.hold(*LINES[:4], len(LINES[4]) - 1), "it tells of")


def test_a_gap_of_the_journal_excuses_its_time_alone():
    books = JournalBooks()
    books.gaps.open("gap", Books.at(3) - 1).close(Books.at(3) + 1)
    assert books.hold(*LINES[:3], *LINES[4:]) == []
    books = JournalBooks()
    books.gaps.open("gap", Books.at(3) - 1).close(Books.at(3) + 1)
    assert wrong(books.hold(*LINES[:3], *LINES[5:]), "lost before")


def test_a_piece_of_a_line_behind_a_gap_is_found_where_it_belongs():
    books = JournalBooks(lines=[*LINES[:4], LINES[4][:8], LINES[4][8:], b"@7.5 more\n"])
    books.gaps.open("gap", Books.at(1) - 1).close(Books.at(4) + 1)
    books.book.output(Books.at(0), LINES[0])
    books.book.gap()
    assert LINES[4][8:] in LINES[1]
    assert books.hold(LINES[4][8:], b"@7.5 more\n") == []


def test_a_chunk_that_nobody_watched_may_be_missing_whole():
    lines = [b"@7.0 before\n", b"\xff\xfb\x01@7.1 dropped\n", b"@7.2 behind\n"]
    assert JournalBooks(dirty=True, lines=lines).hold(lines[0], lines[2]) == []
    assert JournalBooks(dirty=True, lines=lines).hold(*lines) == []
    assert wrong(JournalBooks(dirty=True, lines=lines).hold(lines[1]), "lost before")


# What users see


PRINTED = b"".join(b"@7.%d some words\r\n" % number for number in range(1000))


def seen(*pieces: bytes) -> tuple[str, View]:
    """The view of a user who has received these, and the first thing that was wrong with it."""
    view = View(PRINTED[:600])
    view.sent(PRINTED[600:])
    return next(filter(None, map(view.received, pieces)), ""), view


def not_shown(count: int) -> bytes:
    """The daemon's mark for output that was left out."""
    return b"\r\n[zevd: %d bytes were not shown]\r\n" % count


def test_a_view_is_what_was_printed_from_somewhere_on():
    for start in (0, 3, 500):
        wrong, view = seen(PRINTED[start:])
        assert (wrong, view.accounted) == ("", view.printed - HELD_BACK)
        assert (view.shown, view.not_shown) == (len(PRINTED) - start - HELD_BACK, 0)


def test_a_view_may_come_in_pieces_of_any_size():
    shown = PRINTED[100:1000] + not_shown(2000) + PRINTED[3000:9000] + not_shown(7) + PRINTED[9007:]
    for size in (1, 7, 100, 4096):
        wrong, view = seen(*(shown[place:place + size] for place in range(0, len(shown), size)))
        assert (wrong, view.not_shown, view.gaps) == ("", 2007, 2), size
        assert view.accounted == view.printed - HELD_BACK


@pytest.mark.parametrize("shown", [
    PRINTED[:1000] + PRINTED[1001:], PRINTED[:1000] + not_shown(50) + PRINTED[1051:],
    PRINTED[:1000] + not_shown(50) + PRINTED[1049:], PRINTED[:1000] + b"?" + PRINTED[1001:],
    PRINTED[:1000] + not_shown(50)[:-1] + PRINTED[1050:], PRINTED[:1000] + PRINTED[500:],
    PRINTED + PRINTED[-100:], PRINTED[:1000] + not_shown(len(PRINTED)) + PRINTED])
def test_a_view_that_lacks_or_adds_something_is_wrong(shown):
    assert seen(shown)[0].startswith("shows ")


def test_a_view_of_another_console_is_wrong():
    assert "unlike all output" in seen(PRINTED.replace(b"@7.", b"@8."))[0]


def test_a_view_is_nowhere_before_a_line_begins_in_it():
    wrong, view = seen(b" some words\r")
    assert (wrong, view.accounted) == ("", 0)
    assert view.received(b"\n" + PRINTED[:200].partition(b"\n")[2]) == ""
    assert view.accounted == 200 - HELD_BACK


def test_a_view_may_begin_before_what_is_remembered():
    view = View(PRINTED[100:600])
    assert view.received(PRINTED[:600]) == ""
    assert (view.shown, view.accounted) == (500 - HELD_BACK, 500 - HELD_BACK)


def test_a_view_is_of_what_is_printed_shortly_before_a_user_comes_and_after_that():
    books = Books()
    with books.ledger.view() as view:
        books.ledger.sent(b"@7.6 printed later\n" * 10, books.at(6))
    books.ledger.sent(b"@7.7 too late\n", books.at(7))
    assert view.printed == len(b"".join(LINES)) + len(b"@7.6 printed later\n" * 10)
    assert view.received(LINES[5] + b"@7.6 printed later\n" * 10) == ""


# The plan


def test_the_seed_determines_the_plan():
    first = plan(5, 600, 500)
    assert first == plan(5, 600, 500) and first != plan(6, 600, 500)
    assert [step.at for step in first] == sorted(step.at for step in first)
    assert first[-1].at < 540 and {step.console for step in first} <= set(range(500))


def test_every_kind_of_step_is_in_the_plan_of_ten_minutes():
    kinds = {step.kind for step in plan(5, 600, 500)}
    assert {"visit", "reset", "hang", "refuse", "rotate", "full_disk", "hup_storm", "drop",
            "rename", "helper_hangs", "deaf_tool", "strangers", "collector_stalls"} <= kinds


# The logs


class Logs:
    """A log directory, and the records that a reader has found in it."""

    def __init__(self, place: Path) -> None:
        self.dated = place / "zev.dated"
        self.own: list[tuple[int, bytes]] = []
        self.everybodys: list[tuple[int, bytes]] = []
        self._reader = LogReader(
            place, lambda number, _when, text: self.own.append((number, text)),
            lambda number, _when, text: self.everybodys.append((number, text)))

    def write(self, directory: str, name: str, *records: str) -> None:
        """The daemon writes to a log."""
        path = self.dated / directory
        path.mkdir(parents=True, exist_ok=True)
        with open(path / name, "a", encoding="ascii") as log:
            log.write("".join(f"26/01/02_03:04:05 {record}" for record in records))

    def read(self, final: bool = False) -> list[tuple[int, bytes]]:
        """The records found in the consoles' own logs so far."""
        asyncio.run(self._reader.catch_up(final))
        return self.own


@pytest.fixture
def logs(tmp_path):
    return Logs(tmp_path)


def test_records_are_read_as_they_come(logs):
    logs.write("one", "c1.log", "a\n")
    logs.write("one", "c2.log", "b\n", "beg")
    assert logs.read() == [(1, b"a\n"), (2, b"b\n")]
    logs.write("one", "c2.log", "\n", "c\n")
    assert logs.read()[2:] == [(2, b"beg"), (2, b"\n"), (2, b"c\n")]


def test_a_record_without_an_end_is_read_when_nothing_can_follow(logs):
    logs.write("one", "c1.log", "a\n", "beg")
    assert logs.read() == [(1, b"a\n")]
    logs.write("two", "c1.log", "b\n")
    assert logs.read()[1:] == [(1, b"beg"), (1, b"b\n")]
    logs.write("two", "c1.log", "end")
    assert logs.read()[3:] == []
    assert logs.read(final=True)[3:] == [(1, b"end")]


def test_logs_are_followed_through_names_and_places(logs):
    logs.write("one", "c1.log", "a\n")
    assert logs.read() == [(1, b"a\n")]
    (logs.dated / "one" / "c1.log").rename(logs.dated / "one" / "c1r1.log")
    logs.write("one", "c1r1.log", "b\n")
    logs.dated.rename(logs.dated.with_name("zev.dated.moved1"))
    logs.write("one", "c1r1.log", "c\n")
    assert logs.read()[1:] == [(1, b"b\n"), (1, b"c\n")]


def test_a_piece_that_is_taken_back_is_not_a_record(logs):
    logs.write("one", "c1.log", "a\n")
    path = logs.dated / "one" / "c1.log"
    whole = path.stat().st_size
    for piece in ("26/01/0", "26/01/02_03:04:05 some"):
        with open(path, "a", encoding="ascii") as log:
            log.write(piece)
        assert logs.read() in ([], [(1, b"a\n")])
        os.truncate(path, whole)
        assert logs.read() == [(1, b"a\n")]
    logs.write("one", "c1.log", "b\n")
    assert logs.read() == [(1, b"a\n"), (1, b"b\n")]


def test_the_consolidated_log_waits_for_a_log_that_was_just_renamed(logs, monkeypatch):
    logs.write("one", "c1.log", "a\n")
    logs.write("one", "consolidated.log", "c1 a\n")
    with monkeypatch.context() as patched:
        patched.setattr(LogFile, "read", _renamed_just_now)
        assert logs.read() == []
    assert logs.everybodys == []
    assert logs.read() == [(1, b"a\n")]
    assert logs.everybodys == [(1, b"a\n")]


def _renamed_just_now(log: LogFile, _size: int) -> None:
    if not log.path.endswith("consolidated.log"):
        raise FileNotFoundError(log.path)


def test_the_consolidated_log_names_the_console(logs):
    logs.write("one", "consolidated.log", "c1 a\n", "c22r3 b\n")
    logs.read()
    assert logs.everybodys == [(1, b"a\n"), (22, b"b\n")]


def test_a_line_without_a_stamp_is_an_error(logs):
    (logs.dated / "one").mkdir(parents=True)
    (logs.dated / "one" / "c1.log").write_text("torn\n")
    with pytest.raises(ValueError, match="no stamp"):
        logs.read()
