"""`zevctl replay --export`: what a console printed, for other programs; and what cannot be."""

import json
import subprocess

import pytest

from harness import zevctl
from harness.screens import QUESTIONS, Screen
# `tape` and `play` are fixtures.
from harness.tapes import BEGIN, CRASH, HOSTILE, Tape, crash, play, tape
from harness.waiting import LIMIT, stretched
from journal_writer import SECOND, Field, Kind


def exported(tape: Tape, form: str, *more: str) -> str:
    return zevctl.succeed(None, *tape.arguments("--export", form, *more))


def cast(text: str) -> tuple[dict, list]:
    header, *events = [json.loads(line) for line in text.splitlines()]
    return header, events


def test_an_asciicast_has_times_texts_and_markers(tape):
    crash(tape)
    header, events = cast(exported(tape, "asciicast", "--size", "132x43"))
    assert header == {"version": 2, "width": 132, "height": 43, "timestamp": BEGIN // SECOND,
                      "title": header["title"]}
    assert header["title"].startswith("web, 2026-11-2")
    assert events[1:] == [
        [0, "o", "booting\r\n"],
        [4, "o", "\x1b[1;31mpanic\x1b[0m: one\r\n"],
        [4.1, "m", "event: pattern PANIC, priority 1: panic: one"],
        [20, "m", "anna@10.0.0.9 attached (shared)"],
        [25, "o", "rebooting\r\n"],
        [30, "o", "panic: two\r\n"],
        [30.1, "m", "event: pattern PANIC, priority 1: panic: two"],
        [7200, "o", "login: "]]


def test_a_character_that_records_cut_is_joined(tape):
    tape.output(0, b"\xe2\x82")
    tape.output(1, b"\xac \xfe\xc3")
    texts = [event[2] for event in cast(exported(tape, "asciicast"))[1][1:]]
    assert texts == ["€ \ufffd", "\ufffd"]


def test_what_happened_to_the_station_is_marked(tape):
    tape.output(0, b"one\r\n")
    tape.record(Kind.GAP, 1, {Field.COUNT: 1, Field.REASON: "disk full"})
    tape.record(Kind.STOPPED, 2)
    tape.record(Kind.AUDIT, 3, {Field.WHAT: "clear", Field.USER: "ann", Field.CONSOLE: "db"})
    tape.record(Kind.STARTED, 4, {Field.VERSION: "0.1.0", Field.PID: 7})
    assert cast(exported(tape, "asciicast"))[1][1:] == [
        [0, "o", "one\r\n"],
        [1, "m", "gap: 1 record could not be kept: disk full"],
        [2, "m", "the daemon stopped"],
        [4, "m", "the daemon started (version 0.1.0, process 7)"]]


MIDDLE = ("--since", "2026-11-22T03:10:05Z")  # where two() cuts


def two(tape: Tape, before: bytes, after: bytes) -> None:
    """Output that an export beginning in the MIDDLE cuts in two."""
    tape.output(0, before)
    tape.output(10, after)


@pytest.mark.parametrize("before, after, shown", [
    (b"\xe2\x82", b"\xac\r\n", "\u20ac\r\n"),
    (b"\x1b[1;3", b"1mred", "\x1b[1;31mred"),
    (b"\x1b]0;ti", b"tle\aplain", "plain"),
    (b"\xff\xfa\x18", b"A\xff\xf0plain", "plain"),
], ids=["character", "sequence", "title", "telnet"])
def test_what_the_start_cuts_is_joined(tape, before, after, shown):
    two(tape, b"one\r\n" + before, after)
    header, (picture, event) = cast(exported(tape, "asciicast", *MIDDLE))
    assert header["timestamp"] == BEGIN // SECOND + 10
    assert picture[:2] == [0, "o"] and "one" in picture[2] and event == [0, "o", shown]


def test_text_has_the_line_whole_that_the_start_cuts(tape):
    two(tape, b"one\r\n10 \xe2\x82", b"\xac\r\nlast\r\n")
    assert exported(tape, "text", *MIDDLE) == "10 \u20ac\nlast\n"


def test_a_wish_for_short_pauses_is_in_the_header(tape):
    crash(tape)
    assert cast(exported(tape, "asciicast", "--max-idle", "1.5"))[0]["idle_time_limit"] == 1.5


def test_asciinema_plays_what_replay_shows(tape, play, tmp_path):
    tape.output(0, b"hidden\r\n\x1b[2J\x1b[3;4H\x1b[1;34mblue\x1b[0m\r\n\xe2\x82")
    tape.output(1, b"\xac and \xe6\x97\xa5\xe6\x9c\xac\r\n")
    tape.output(2, b"\x1b[5;20r\x1b[20;1Hone\r\ntwo\r\nthree" + HOSTILE)
    screen = play("--speed", "100", rows=25)
    screen.wait_status("end")
    file = tmp_path / "web.cast"
    assert exported(tape, "asciicast", "--max-idle", "0.1", "-o", str(file)) == ""
    with Screen("/usr/bin/asciinema", "play", "-s", "100", str(file), rows=24) as other:
        assert other.wait_end() == 0
        assert not QUESTIONS.search(other.drawn)
        mine, theirs = screen.screen, other.screen
        for row in range(24):
            assert [mine.buffer[row][column] for column in range(80)] == \
                [theirs.buffer[row][column] for column in range(80)], row
        assert "blue" in other.draw()[2] and "日本" in other.draw()[3]


def letters(screen: Screen) -> list[list[tuple[str, str]]]:
    """What stands in each row, with its colours, without the blanks."""
    rows = ([screen.screen.buffer[row][column] for column in range(80)] for row in range(24))
    return [[(cell.data, cell.fg) for cell in row if cell.data != " "] for row in rows]


def test_asciinema_goes_on_where_the_screen_was(tape, play, tmp_path):
    two(tape, b"shell$ \x1b[?1049h\x1b[2J\x1b[20;1Hbelow\x1b[5;8r\x1b[5;1H\x1b[34mfirst\x1b[8;3H",
        b"one\r\ntwo\r\nthree")
    file = tmp_path / "web.cast"
    assert exported(tape, "asciicast", "-o", str(file), *MIDDLE) == ""
    screen = play("--speed", "100", *MIDDLE, rows=25)
    screen.wait_status("end")
    with Screen("/usr/bin/asciinema", "play", str(file), rows=24) as other:
        assert other.wait_end() == 0
        assert other.rows()[7].endswith("three") and other.rows()[19] == "below"
        assert letters(other) == letters(screen)
        assert {color for letter, color in letters(other)[7]} == {"blue"}


def test_text_is_what_a_person_reads(tape):
    tape.output(0, b"\x1b[1;31mpanic\x1b[0m: \xe2\x82")
    tape.output(1, b"\xac\r\n10%\r100%\r\n" + HOSTILE.replace(b"shown", b"") + b"\r\nlogin: ")
    assert exported(tape, "text").splitlines()[:2] == ["panic: €", "100%"]
    assert "\x1b" not in exported(tape, "text")
    assert exported(tape, "text").splitlines()[-1] == "login: "


def test_a_file_is_new_and_ones_own(tape, tmp_path):
    crash(tape)
    file = tmp_path / "out"
    exported(tape, "text", "-o", str(file))
    assert file.read_text().splitlines() == [*CRASH[:-1], "login: "]
    assert file.stat().st_mode & 0o777 == 0o600
    zevctl.refuse(None, zevctl.FAILED, f"{file} cannot be made: File exists; name another file "
                  "with --output", *tape.arguments("--export", "text", "-o", str(file)))


def test_a_full_disk_is_told(tape):
    crash(tape)
    with open("/dev/full", "wb") as full:
        done = subprocess.run([zevctl.PROGRAM, *tape.arguments("--export", "text")], stdout=full,
                              stderr=subprocess.PIPE, check=False, env=zevctl.environment())
    assert done.returncode == zevctl.FAILED
    assert done.stderr.startswith(b"zevctl: ") and b"No space left" in done.stderr


def test_a_reader_that_goes_is_no_error(tape):
    for index in range(200):
        tape.output(index, b"0123456789abcde\r\n" * 400)
    process = zevctl.start(None, *tape.arguments("--export", "asciicast"))
    assert process.stdout.read(100)
    process.stdout.close()
    assert process.wait(stretched(LIMIT)) == 0
    assert process.stderr.read() == b""
    process.stderr.close()


# ---- What cannot be ------------------------------------------------------------------------------


def test_without_a_terminal_the_exports_are_named(tape):
    crash(tape)
    zevctl.refuse(None, zevctl.USAGE, "a replay needs a terminal on standard output; for a file "
                  "or a program, use --export asciicast or --export text", *tape.arguments())


def test_nothing_of_that_time(tape):
    crash(tape)
    message = zevctl.run(None, *tape.arguments("--export", "text", "--since",
                                               "2026-11-23T00:00:00Z", "--until",
                                               "2026-11-23T01:00:00Z"))
    assert message.returncode == zevctl.FAILED
    assert "the journal has nothing of web from" in message.stderr
    assert message.stderr.endswith("; give an earlier --since\n")


def test_what_happened_to_the_station_alone_is_nothing(tape):
    crash(tape)
    tape.record(Kind.STARTED, 86400 + 60, {Field.VERSION: "0.1.0", Field.PID: 7})
    tape.journal.new_segment()  # the console is defined anew
    done = zevctl.run(None, *tape.arguments("--export", "text", "--since", "2026-11-23T03:00:00Z",
                                            "--until", "2026-11-23T04:00:00Z"))
    assert done.returncode == zevctl.FAILED
    assert "the journal has nothing of web from" in done.stderr


@pytest.mark.parametrize("form, option, part", [
    ("text", ["--speed", "2"], "--speed: an export is not played; leave the option out, or use"),
    ("asciicast", ["--speed", "1"], "--speed: an export is not played"),
    ("text", ["--max-idle", "5"], "--max-idle: plain text has no pauses; leave the option out"),
    ("text", ["--size", "80x24"], "--size: plain text has no terminal; leave the option out"),
])
def test_options_that_an_export_cannot_heed_are_refused(tape, form, option, part):
    crash(tape)
    done = zevctl.run(None, *tape.arguments("--export", form, *option))
    assert (done.returncode, done.stdout) == (zevctl.USAGE, "")
    assert done.stderr.startswith("zevctl: " + part), done.stderr


@pytest.mark.parametrize("arguments, part", [
    (["--since", "now-ish"], '--since: "now-ish" is no time'),
    (["--since", "2026-11-22", "--until", "2026-11-21"], "--since is later than --until"),
    (["--speed", "0"], "--speed"),
    (["--size", "80"], "--size"),
    (["--size", "80x24x2"], "--size"),
    (["--export", "gif"], "--export"),
])
def test_mistakes_are_told(tape, arguments, part):
    crash(tape)
    line = ["replay", "web", "--journal-dir", str(tape.directory), "--export", "text", *arguments]
    done = zevctl.run(None, *line)
    assert done.returncode == zevctl.USAGE and part in done.stderr, done.stderr


def test_no_journal_and_no_console(tape, tmp_path):
    crash(tape)
    done = zevctl.run(None, "replay", "web", "--export", "text", "--journal-dir",
                      str(tmp_path / "none"))
    assert done.returncode == zevctl.FAILED and "there is no journal in" in done.stderr
    done = zevctl.run(None, "replay", "db", "--export", "text", "--journal-dir",
                      str(tape.directory))
    assert done.returncode == zevctl.NO_SUCH_CONSOLE and "db" in done.stderr
