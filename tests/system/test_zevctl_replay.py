"""`zevctl replay`: a console's screen as it was, on a terminal and for other programs."""

import json
import signal
import subprocess
from pathlib import Path

import pyte
import pytest

from harness import zevctl
from harness.screens import QUESTIONS, Screen
from harness.waiting import LIMIT, stretched, wait_until
from journal_writer import SECOND, Field, JournalWriter, Kind, flip, nanoseconds

BEGIN = nanoseconds("2026-11-22 03:10:00")
SINCE = "2026-11-22T03:10:00Z"
LEFT, RIGHT, FAR_LEFT, HOME, END = "\x1b[D", "\x1b[C", "\x1b[1;2D", "\x1b[H", "\x1b[F"


class Tape:
    """A journal of one console; times are seconds from BEGIN on, as both clocks tell them."""

    def __init__(self, directory: Path, name: str = "web") -> None:
        self.directory = directory
        self.journal = JournalWriter(directory, begin=BEGIN - SECOND)
        self.console = self.journal.console(name, "10.0.0.1", 4001)

    def record(self, kind: Kind, seconds: float, payload=b"") -> None:
        """Write a record of the console."""
        span = round(seconds * SECOND)
        self.journal.record(kind, self.console, payload, at=BEGIN + span, monotonic=span + SECOND)

    def output(self, seconds: float, data: bytes) -> None:
        """The console prints."""
        self.record(Kind.OUTPUT, seconds, data)

    def event(self, seconds: float, pattern: str, line: str) -> None:
        """A pattern has matched a line."""
        self.record(Kind.EVENT, seconds,
                    {Field.PATTERN: pattern, Field.PRIORITY: 1, Field.TEXT: line})

    def attached(self, seconds: float, user: str) -> None:
        """Somebody attaches."""
        self.record(Kind.ATTACHED, seconds,
                    {Field.USER: user, Field.FROM: "10.0.0.9", Field.MODE: "sh"})

    def arguments(self, *more: str) -> list[str]:
        """The command line that replays it, without the program; from BEGIN on if nothing else."""
        since = [] if "--since" in more else ["--since", SINCE]
        return ["replay", "web", "--journal-dir", str(self.directory), *since, *more]


@pytest.fixture
def tape(tmp_path):
    made = Tape(tmp_path / "journal")
    yield made
    made.journal.close()


@pytest.fixture
def play(tape):
    """Replays the tape on a terminal; the function's options are those of the command."""
    screens = []

    def start(*options: str, **terminal) -> Screen:
        screens.append(Screen(str(zevctl.PROGRAM), *tape.arguments(*options), **terminal))
        return screens[-1]

    yield start
    for screen in screens:
        screen.close()


def crash(tape: Tape) -> None:
    """A boot, a crash with an event, a user, and a long silence in front of the next prompt."""
    tape.output(0, b"booting\r\n")
    tape.output(4, b"\x1b[1;31mpanic\x1b[0m: one\r\n")
    tape.event(4.1, "PANIC", "panic: one")
    tape.attached(20, "anna")
    tape.output(25, b"rebooting\r\n")
    tape.output(30, b"panic: two\r\n")
    tape.event(30.1, "PANIC", "panic: two")
    tape.output(7200, b"login: ")


CRASH = ["booting", "panic: one", "rebooting", "panic: two", "login:"]


# ---- On a terminal -------------------------------------------------------------------------------


def test_it_plays_to_the_end_and_shortens_pauses(tape, play):
    crash(tape)
    screen = play("--speed", "100", "--max-idle", "2")
    screen.wait_rows(*CRASH)
    screen.wait_status(" web  2026-11-22 05:10:00  x100  end", "1 hour of silence shortened")


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


def test_a_pattern_that_is_none_is_told(tape, play):
    crash(tape)
    screen = play()
    screen.type("/(\r")
    screen.wait_status("(")
    screen.wait(lambda: not screen.status().startswith("/"))
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
    (Kind.PAUSED, {Field.USER: "ann", Field.REASON: "mode"}, "not logged from here on by ann: mode"),
    (Kind.NOT_LOGGED, {Field.USER: "ann", Field.BYTES: 7}, "not logged by ann, 7 bytes"),
    (Kind.GAP, {Field.COUNT: 3, Field.REASON: "disk full"}, "gap: 3 records"),
    (Kind.ATTACHED, {Field.USER: "bob", Field.MODE: "ex"}, "bob attached (exclusive)"),
]


@pytest.mark.parametrize("kind, payload, text", NOTES, ids=[note[0].name for note in NOTES])
def test_what_is_not_output_is_in_the_status_line(tape, play, kind, payload, text):
    tape.output(0, b"one\r\n")
    tape.record(kind, 0.1, payload)
    screen = play(columns=120)
    screen.wait_status("end", "03:10:00 " + text)


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
    wait_until(lambda: screen.process.poll() is None and zevctl_blocked(screen),
               what="a full terminal")
    screen.process.send_signal(signal.SIGTERM)
    assert screen.process.wait(stretched(LIMIT)) == -signal.SIGTERM


def zevctl_blocked(screen: Screen) -> bool:
    """Whether more than a kernel's buffer of output has been made, of which nobody took any."""
    import fcntl
    import struct
    import termios
    count = struct.unpack("I", fcntl.ioctl(screen.terminal, termios.FIONREAD, b"\0" * 4))[0]
    return count >= 4000


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


HOSTILE = (b"\x1b[6n\x1b[c\x1b[>c\x1b[5n\x1b[18t\x1b[?2026$p\x1bZ\x05\x1b]0;title\a\x1b]52;c;eA==\a"
           b"\x1b]11;?\x1b\\\x1bP$qm\x1b\\\x1b[?1000h\x1b[?2004h\x1b[>4;2m\x1b=\xc2\x9b6n\x1b[8;9;9t"
           b"\xe2\x80\xaelarutan\r\n\x1b[2l\x1b[5ishown\x1b]never ends")


def test_hostile_output_reaches_nobody(tape, play):
    tape.output(0, HOSTILE)
    screen = play()
    screen.wait(lambda: any("shown" in row for row in screen.rows()))
    screen.type("q")
    screen.wait_end()
    assert not QUESTIONS.search(screen.drawn)
    assert b"\x1b]" not in screen.drawn and b"\x1bP" not in screen.drawn
    assert screen.modes() == screen.modes_before


# ---- For other programs --------------------------------------------------------------------------


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
    assert [event[2] for event in cast(exported(tape, "asciicast"))[1][1:]] == ["€ \ufffd", "\ufffd"]


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
