"""`zevctl replay` on a terminal: a console's screen as it was."""

import signal
from pathlib import Path

import pytest

from harness import zevctl
from harness.screens import QUESTIONS, Screen
# `tape` and `play` are fixtures.
from harness.tapes import CRASH, HOSTILE, crash, play, tape
from harness.waiting import LIMIT, stretched, wait_until
from journal_writer import SECOND, Field, Kind, flip

LEFT, RIGHT, FAR_LEFT, HOME, END = "\x1b[D", "\x1b[C", "\x1b[1;2D", "\x1b[H", "\x1b[F"


def test_it_plays_to_the_end_and_shortens_pauses(tape, play):
    crash(tape)
    screen = play("--speed", "100", "--max-idle", "2")
    screen.wait_rows(*CRASH)
    screen.wait_status(" web  2026-11-22 05:10:00  x100  end",
                       "1 hour 59 minutes of silence shortened")


def test_colours_and_the_cursor_are_those_of_the_console(tape, play):
    tape.output(0, b"\x1b[2J\x1b[5;10H\x1b[1;32mgreen\x1b[0m")
    screen = play()
    screen.wait_status("end")
    letter = screen.screen.buffer[4][9]
    assert (letter.data, letter.fg, letter.bold) == ("g", "green", True)
    assert (screen.screen.cursor.y, screen.screen.cursor.x) == (4, 14)


def test_space_pauses_and_goes_on(tape, play):
    tape.output(0, b"one\r\n")
    tape.output(1, b"two\r\n")
    screen = play("--speed", "0.0625")
    screen.wait_rows("one")
    screen.type(" ")
    screen.wait_status("paused")
    for _ in range(12):
        screen.type("+")
    screen.wait_status("x256  paused")
    assert screen.rows() == ["one"]
    screen.type(" ")
    screen.wait_rows("one", "two")


def test_seeking_shows_the_screen_as_it_was(tape, play):
    for second in range(100):
        tape.output(second, b"\x1b[H\x1b[2Jsecond %d\r\n" % second)
    screen = play("--speed", "1")
    screen.type(" ")
    screen.wait_status("paused")
    screen.type(RIGHT)
    screen.wait_rows("second 10")
    screen.type(RIGHT + RIGHT)
    screen.wait_rows("second 30")
    screen.type(LEFT)
    screen.wait_rows("second 20")
    screen.wait_status("03:10:2", "paused")
    screen.type(">")
    screen.wait_rows("second 80")
    screen.type(FAR_LEFT)
    screen.wait_rows("second 20")
    screen.type("<")
    screen.wait_rows()
    screen.type(END)
    screen.wait_rows("second 99")
    screen.wait_status("end")
    screen.type(HOME + ".")
    screen.wait_rows("second 0")


def test_seeking_goes_over_a_shortened_pause_in_one_step(tape, play):
    crash(tape)
    screen = play("--max-idle", "5")
    screen.type(END)
    screen.wait_status("05:10:00", "end")
    screen.type(" " + LEFT)
    screen.wait_rows("booting", "panic: one", "rebooting")
    screen.wait_status("03:10:2")


def test_a_dot_plays_the_next_output(tape, play):
    crash(tape)
    screen = play()
    screen.type(" " + HOME)
    screen.wait_status("paused")
    for count in range(1, 6):
        screen.type(".")
        screen.wait_rows(*CRASH[:count])
    screen.wait_status("end")


def test_n_goes_from_match_to_match(tape, play):
    crash(tape)
    screen = play()
    screen.type(" " + HOME + "/^pa+nic: (one|two)")
    screen.wait_status("/^pa+nic: (one|two)")
    screen.type("\r")
    screen.wait_rows(*CRASH[:2])
    screen.wait_status("paused")
    screen.type("n")
    screen.wait_rows(*CRASH[:4])
    screen.type("n")
    screen.wait_status("no later match")
    screen.type("N")
    screen.wait_rows(*CRASH[:2])
    screen.type("N")
    screen.wait_status("no earlier match")
    screen.type("/logi\x7fin\r")
    screen.wait_rows(*CRASH)


def test_a_match_is_found_in_lines_that_many_records_made(tape, play):
    for index, byte in enumerate(b"alpha\r\nomega\r\n" * 3):
        tape.output(index / 10, bytes([byte]))
    screen = play()
    screen.type(" " + HOME + "/^omega$\r")
    screen.wait_rows("alpha", "omega")
    screen.type("n")
    screen.wait_rows("alpha", "omega", "alpha", "omega")
    screen.type("N")
    screen.wait_rows("alpha", "omega")


def test_a_match_in_the_middle_of_a_large_record_is_on_the_screen(tape, play):
    lines = [b"line %d\r\n" % number for number in range(1000)]
    tape.output(0, b"".join(lines))
    screen = play()
    screen.wait_status("end")
    screen.type("/^line 500$\r")
    screen.wait_status("no later match")
    screen.type("N")
    screen.wait(lambda: screen.rows()[-1:] == ["line 500"])
    screen.type("N")
    screen.wait_status("no earlier match")
    screen.type(".")
    screen.wait(lambda: screen.rows()[-1:] == ["line 999"])


def test_earlier_matches_are_found_far_back(tape, play):
    tape.output(0, b"needle\r\n")
    for index in range(60):
        tape.output(1 + index / 100, b"0123456789abcdef\r\n" * 1000)
    screen = play("--speed", "100")
    screen.wait_status("end")
    screen.type("/needle\rN")
    screen.wait_rows("needle")


def test_a_match_is_found_before_it_is_typed_over(tape, play):
    tape.output(0, b"one\r\n")
    tape.output(1, b"panic: x\r          \rpanic: y\x1b[1G\x1b[Kok\r\n")
    screen = play()
    screen.type(" " + HOME + "/^panic\r")
    screen.wait_rows("one", "panic: x")
    screen.type("n")
    screen.wait_rows("one", "panic: y")
    screen.type("n")
    screen.wait_status("no later match")
    screen.type("N")
    screen.wait_rows("one", "panic: x")


def test_earlier_matches_are_found_in_a_line_without_end(tape, play):
    progress = b"".join(b"%6d of many blocks\r" % number for number in range(2000))
    for index in range(30):
        tape.output(index / 100, progress)
        if index in (4, 14):
            tape.output(index / 100, b"needle %d              \r" % index)
    screen = play("--speed", "100")
    screen.wait_status("end")
    screen.type("/needle\rN")
    screen.wait_rows("needle 14")
    screen.type("N")
    screen.wait_rows("needle 4")
    screen.type("N")
    screen.wait_status("no earlier match")
    screen.type("n")
    screen.wait_rows("needle 14")


def test_a_pattern_that_is_none_is_told(tape, play):
    crash(tape)
    screen = play(columns=120)
    screen.type("/(\r")
    screen.wait_status("pattern: Unmatched (", "; put \\ before a character that stands for itself")
    screen.type("n")
    screen.wait_status("/")
    screen.type("\x03")
    screen.wait_status("x1")


def test_e_goes_from_event_to_event(tape, play):
    crash(tape)
    screen = play(columns=120)
    screen.type("e")
    screen.wait_status("paused", "03:10:04 event: pattern PANIC, priority 1: panic: one")
    screen.type("e")
    screen.wait_status("03:10:30 event: pattern PANIC, priority 1: panic: two")
    screen.wait_rows(*CRASH[:4])
    screen.type("e")
    screen.wait_status("no later event")
    screen.type("E")
    screen.wait_status("panic: one")
    screen.type("E")
    screen.wait_status("no earlier event")


NOTES = [
    (Kind.CONNECTED, b"", "connected"),
    (Kind.LOST, {Field.REASON: "reset"}, "the connection was lost: reset"),
    (Kind.PAUSED, {Field.USER: "ann", Field.REASON: "mode"},
     "not logged from here on by ann: mode"),
    (Kind.NOT_LOGGED, {Field.USER: "ann", Field.BYTES: 7}, "not logged by ann, 7 bytes"),
    (Kind.GAP, {Field.COUNT: 3, Field.REASON: "disk full"}, "gap: 3 records"),
    (Kind.CLOCK_STEP, {Field.BEGIN: 0, Field.END: 5 * SECOND}, "the clock was set forward by 5 s"),
    (Kind.STARTED, {Field.VERSION: "0.1.0", Field.PID: 7}, "the daemon started (version 0.1.0"),
    (Kind.STOPPED, b"", "the daemon stopped"),
    (Kind.TORN, {Field.SEGMENT: 3, Field.BYTES: 1}, "the end of segment 3 was torn"),
    (Kind.ATTACHED, {Field.USER: "bob", Field.MODE: "ex"}, "bob attached (exclusive)"),
]


@pytest.mark.parametrize("kind, payload, text", NOTES, ids=[note[0].name for note in NOTES])
def test_what_is_not_output_is_in_the_status_line(tape, play, kind, payload, text):
    tape.output(0, b"one\r\n")
    tape.record(kind, 0.1, payload)
    screen = play(columns=120)
    screen.wait_status("end", "03:10:00 " + text)


def test_what_users_did_elsewhere_is_not_told(tape, play):
    tape.output(0, b"one\r\n")
    tape.record(Kind.CONNECTED, 0.1)
    tape.record(Kind.AUDIT, 0.2, {Field.WHAT: "clear", Field.USER: "ann", Field.CONSOLE: "db"})
    screen = play(columns=120)
    screen.wait_status("end", "03:10:00 connected")


def test_the_end_is_behind_what_happened_to_the_station(tape, play):
    tape.output(0, b"one\r\n")
    tape.record(Kind.STOPPED, 60)
    screen = play("--max-idle", "0", columns=120)
    screen.type(END)
    screen.wait_rows("one")
    screen.wait_status("03:11:00", "end", "the daemon stopped")
    screen.type(LEFT)
    screen.wait_status("03:10:50")


def test_the_screen_before_the_start_is_there(tape, play):
    tape.output(0, b"\x1b[2J\x1b[Hmenu\r\n")
    tape.output(10, b"choice 1\r\n")
    screen = play("--since", "2026-11-22T03:10:05Z")
    screen.wait_rows("menu", "choice 1")
    screen.type(HOME + " ")
    screen.wait_rows("menu")


def test_a_window_of_another_size_is_drawn_anew(tape, play):
    crash(tape)
    screen = play("--speed", "1000")
    screen.wait_rows(*CRASH)
    screen.resize(40, 4)
    screen.wait_rows("rebooting", "panic: two", "login:")
    screen.resize(100, 30)
    screen.wait_rows(*CRASH)


def test_help_comes_and_goes(tape, play):
    crash(tape)
    screen = play("--speed", "1000")
    screen.wait_rows(*CRASH)
    screen.type("?")
    screen.wait(lambda: any("twice as fast" in row for row in screen.rows()))
    screen.type("x")
    screen.wait_rows(*CRASH)


# ---- Its end -------------------------------------------------------------------------------------


def quits(screen: Screen) -> int:
    screen.type("q")
    return 0


def interrupts(screen: Screen) -> int:
    screen.type("\x03")
    return 0


def signals(number: signal.Signals):
    def send(screen: Screen) -> int:
        screen.process.send_signal(number)
        return -number
    return send


ENDS = {"q": quits, "ctrl-c": interrupts,
        **{number.name: signals(number)
           for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT)}}


@pytest.mark.parametrize("end", ENDS.values(), ids=ENDS.keys())
def test_the_terminal_is_as_it_was(tape, play, end):
    tape.output(0, b"\x1b[?1049h\x1b[?25l\x1b[?2004h\x1b[?1000h\x1b[1;31m\x1b[2;5rscreen\x1b]0;t\a")
    tape.output(3600, b"\r\nlater")
    screen = play("--max-idle", "0")
    screen.wait(lambda: "screen" in "".join(screen.rows()))
    assert screen.modes() != screen.modes_before
    status = end(screen)
    assert screen.wait_end() == status
    assert screen.modes() == screen.modes_before
    assert screen.drawn.endswith(b"\x1b[?1049l")
    assert screen.said() == ""


def test_without_keys_it_ends_at_the_end(tape, play):
    crash(tape)
    screen = play("--speed", "1000", keys=False)
    assert screen.wait_end() == 0
    assert screen.modes() == screen.modes_before
    assert b"login: " in screen.drawn


def test_it_ends_when_the_terminal_goes(tape, play):
    crash(tape)
    screen = play()
    screen.wait_status("web")
    screen.hang_up()
    assert screen.process.wait(stretched(LIMIT)) in (0, -signal.SIGHUP)


def test_a_terminal_that_takes_nothing_does_not_keep_it(tape, play):
    for index in range(2000):
        tape.output(index / 1000, b"\x1b[2J" + bytes([65 + index % 26]) * 1800)
    screen = play()
    wait_until(lambda: screen.process.poll() is None and screen.is_full(),
               what="a full terminal")
    screen.process.send_signal(signal.SIGTERM)
    assert screen.process.wait(stretched(LIMIT)) == -signal.SIGTERM


def test_stopping_and_going_on(tape, play):
    crash(tape)
    screen = play("--speed", "1000")
    screen.wait_rows(*CRASH)
    screen.type("\x1a")
    wait_until(lambda: "T (stopped)" in
               Path(f"/proc/{screen.process.pid}/status").read_text(), what="the stop")
    screen.draw()
    assert screen.modes() == screen.modes_before
    screen.process.send_signal(signal.SIGCONT)
    screen.wait(lambda: screen.modes()[0] != screen.modes_before[0])
    screen.wait_rows(*CRASH)
    screen.type("q")
    assert screen.wait_end() == 0
    assert screen.modes() == screen.modes_before


def test_what_was_removed_meanwhile_is_told(tape, play):
    tape.output(0, b"one\r\n")
    tape.journal.new_segment()
    tape.output(1, b"two\r\n")
    screen = play("--speed", "100", columns=120)
    screen.wait_rows("one", "two")
    tape.journal.segment(1).unlink()
    screen.type(HOME)
    screen.wait_status("the journal is damaged here")


def test_what_is_damaged_is_told(tape, play):
    tape.output(0, b"one\r\n")
    end = tape.journal.segment().stat().st_size
    tape.output(1, b"two\r\n")
    tape.output(2, b"three\r\n")
    flip(tape.journal.segment(), end + 41)
    screen = play("--speed", "100", columns=120)
    screen.wait_rows("one", "three")
    screen.wait_status("end", "the journal is damaged here")
    done = zevctl.run(None, *tape.arguments("--export", "text"))
    assert (done.returncode, done.stdout) == (zevctl.OK, "one\nthree\n")
    assert done.stderr.startswith("zevctl: the journal is damaged here: ")


def test_hostile_output_reaches_nobody(tape, play):
    tape.output(0, HOSTILE)
    screen = play()
    screen.wait(lambda: any("shown" in row for row in screen.rows()))
    screen.type("q")
    screen.wait_end()
    assert not QUESTIONS.search(screen.drawn)
    assert b"\x1b]" not in screen.drawn and b"\x1bP" not in screen.drawn
    assert screen.modes() == screen.modes_before
