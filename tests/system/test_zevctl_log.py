"""`zevctl log`: what the daemon has logged, read from its files, and what it logs later."""

import json
import os
import re
import shutil
import signal
import subprocess
from datetime import datetime, timedelta

import pytest

from harness import zevctl
from harness.collectors import Collector
# `box` and `waker` are fixtures.
from harness.logs import (age_directory, all_records, box, bring_up, consolidated, current, dated,
                          log_of, read, rotate, wait_records, waker)
from harness.scenes import disable_and_enable, numbered, print_and_wait, reload
from harness.station import assert_no_sanitizer_report, console_line
from harness.waiting import LIMIT, stretched, wait_until

STAMP = r"\d\d/\d\d/\d\d_\d\d:\d\d:\d\d"
FORMS = ('write "2026-11-21 08:05" or "2026-11-21 08:05:30", 2026-11-21, today, yesterday, '
         '"yesterday 08:05", 08:05 or 08:05:30 (the last one), 2026-11-21T08:05:30+01:00, or an '
         "age such as 30s, 15m, 1h30m, 3d, 1w")


class Following:
    """`zevctl log --follow`, and what it has shown so far."""

    def __init__(self, *arguments: str) -> None:
        self.process = zevctl.start(None, "log", "--follow", *arguments)
        os.set_blocking(self.process.stdout.fileno(), False)
        self._shown = b""

    def shown(self) -> bytes:
        """Everything that has been printed."""
        self._shown += self.process.stdout.read() or b""
        return self._shown

    def texts(self) -> list[bytes]:
        """The same as records without their times."""
        return re.split(STAMP.encode() + b" ", self.shown())[1:]

    def wait_texts(self, expected: list[bytes], limit: float = LIMIT) -> None:
        """Wait for as many records; they must be equal."""
        wait_until(lambda: len(self.texts()) >= len(expected), limit,
                   f"{len(expected)} records, of which there are {self.texts()[-3:]}")
        assert self.texts() == expected

    def end(self, number: int = signal.SIGTERM) -> str:
        """End it by the signal, see that the status is 0, and return its standard error."""
        self.process.send_signal(number)
        assert self.process.wait(stretched(LIMIT)) == zevctl.OK
        return self.said()

    def said(self) -> str:
        """What the ended client has written to standard error."""
        said = self.process.stderr.read().decode()
        assert_no_sanitizer_report(said)
        return said


@pytest.fixture
def follow():
    """Makes clients that follow, and ends those that still run after the test."""
    made = []

    def start(*arguments: str) -> Following:
        made.append(Following(*arguments))
        return made[-1]

    yield start
    for client in made:
        client.process.kill()
        client.process.wait()
        client.process.stdout.close()
        client.process.stderr.close()


def logged(station, box, *lines: bytes, name: str = "box") -> None:
    """Have the console print the lines, one by one, and wait until they are logged."""
    for line in lines:
        before = read(log_of(station, name)).count(b"\n")
        box.send(line)
        wait_until(lambda: read(log_of(station, name)).count(b"\n") > before,
                   what=f"{line!r} in the log")


def texts(output: str) -> list[str]:
    """The lines without their times; every line must have one."""
    found = [re.fullmatch(f"{STAMP} (.*)", line) for line in output.splitlines()]
    assert None not in found, output
    return [match[1] for match in found]


def write_log(station, name: str, *lines: str, directory: str = "01-Nov-00:00") -> None:
    """Make a log as the daemon does, in a station whose daemon does not run."""
    place = dated(station) / directory
    place.mkdir(parents=True, exist_ok=True)
    with open(place / f"{name}.log", "a", encoding="latin-1", newline="") as log:
        log.writelines(lines)


def show(*arguments: str) -> list[str]:
    """Run `zevctl log` and return the records without their times."""
    return texts(zevctl.succeed(None, "log", *arguments))


THREE = ("26/11/21_08:00:00 one\n", "26/11/21_09:00:00 Two\n", "26/11/21_10:00:00 three\n")


@pytest.fixture
def three(station):
    """A station whose daemon does not run, with a log of three records."""
    write_log(station, "box", *THREE)
    return station


# What is shown


def test_a_log_is_shown_as_it_is(station, box):
    logged(station, box, b"first\r\n", b"\n", b"caf\xc3\xa9 \x1b[31m\tred\n")
    assert zevctl.succeed(None, "log", "box") == read(log_of(station, "box")).decode()


def test_no_daemon_is_needed(three):
    assert zevctl.succeed(None, "log", "box") == "".join(THREE)
    assert zevctl.succeed(None, "log", "box", "--log-dir", str(three.logs)) == "".join(THREE)


def test_every_record_has_a_line_of_its_own(station, box):
    logged(station, box, b"x" * 1024 + b"rest\n")
    print_and_wait(station, box, b"login: ")
    station.write_config(console_line("box", box.port, enable=0))
    reload(station)
    wait_records(log_of(station, "box"), [b"x" * 1024, b"rest\n", b"login: ", b"\n"])
    assert show("box") == ["x" * 1024, "rest", "login: ", ""]


def test_carriage_returns_in_a_log_are_shown(station):
    write_log(station, "box", "26/11/21_08:00:00 one\r", "26/11/21_08:00:00 \n")
    done = subprocess.run([zevctl.PROGRAM, "log", "box"], capture_output=True, check=True)
    assert done.stdout == b"26/11/21_08:00:00 one\r\n26/11/21_08:00:00 \n"


def test_bytes_are_unchanged_in_a_pipe(station):
    odd = bytes(byte for byte in range(256) if byte not in (10, 13))
    write_log(station, "box", "26/11/21_08:00:00 " + odd.decode("latin-1") + "\n")
    done = subprocess.run([zevctl.PROGRAM, "log", "box"], capture_output=True, check=True)
    assert done.stdout == b"26/11/21_08:00:00 " + odd + b"\n"


def test_a_terminal_gets_no_control_characters(station):
    write_log(station, "box", "26/11/21_08:00:00 a\tb \x1b[2J\x07\x9b caf\xc3\xa9\r")
    with zevctl.Terminal(None, "log", "box") as terminal:
        shown = terminal.expect_end(zevctl.OK)
    assert shown == "26/11/21_08:00:00 a b ?[2J?? café\r\n".encode()


def test_a_log_is_shown_as_json(station):
    write_log(station, "box", "26/11/21_08:00:00 say \"\x1b\xff\" \\\n", "26/11/21_08:00:01 \n")
    shown = zevctl.succeed(None, "log", "box", "--json")
    moment = datetime(2026, 11, 21, 8).astimezone()
    assert [json.loads(line) for line in shown.splitlines()] == [
        {"time": moment.isoformat(), "console": "box", "text": 'say "\x1b\ufffd" \\'},
        {"time": (moment + timedelta(seconds=1)).isoformat(), "console": "box", "text": ""}]


def test_the_consolidated_log_is_shown(station, box):
    logged(station, box, b"printed\n")
    wait_until(lambda: b"printed" in read(consolidated(station)), what="the record")
    shown = zevctl.succeed(None, "log", "consolidated", "--grep", "^box printed$")
    assert re.fullmatch(f"{STAMP} box printed\n", shown)
    record, = zevctl.succeed(None, "--json", "log", "consolidated").splitlines()
    assert (json.loads(record)["console"], json.loads(record)["text"]) == ("box", "printed")


# Which files


def test_earlier_directories_come_first(station, box, waker):
    logged(station, box, b"old\n")
    age_directory(station)
    rotate(station, waker)
    logged(station, box, b"new\n")
    assert show("box") == ["old", "new"]


def test_directories_are_ordered_by_what_is_in_them(station):
    write_log(station, "box", "25/12/30_08:00:00 1\n", directory="30-Dec-08:00")
    write_log(station, "box", "26/01/02_08:00:00 2\n", directory="02-Jan-08:00")
    write_log(station, "box", "26/11/21_08:00:00 3\n", directory="21-Nov-08:00")
    assert show("box") == ["1", "2", "3"]


def test_earlier_logs_of_a_renamed_console_are_found_by_name(station, box, waker):
    logged(station, box, b"as box\n")
    age_directory(station)
    rotate(station, waker)
    logged(station, box, b"still box\n")
    station.write_config(console_line("chest", box.port)
                         + console_line("waker", waker.port, logging=0))
    reload(station)
    logged(station, box, b"as chest\n", name="chest")
    assert show("chest") == ["still box", "as chest"]
    assert show("chest", "--also", "box") == ["as box", "still box", "as chest"]
    assert show("--also", "box", "--also", "chest", "CHEST", "-n", "2") == [
        "still box", "as chest"]


def test_the_name_that_an_event_gives_is_found(station):
    (station.events / "set").write_text("any 100 0 error\n")
    box = station.console("sys-a-1", events=1, event_file="set")
    with Collector(station) as collector:
        # The logs are opened again all the time.
        bring_up(station, box, options=("-d", "1", "-a", "0d"))
        logged(station, box, b"before\n", b"error\n", name="sys-a-1")
        collector.accept().wait_events(1)
        logged(station, box, b"after\n", name="sys_a_1")
    for name in ("sys-a-1", "sys_a_1", "SYS-a_1"):
        assert show(name) == ["before", "error", "after"]


def test_case_counts_only_when_it_must(station):
    write_log(station, "box", THREE[0])
    assert show("BOX") == ["one"]
    write_log(station, "BOX", THREE[1])
    assert show("BOX") == ["Two"]
    assert show("box") == ["one"]


def test_a_name_without_a_log_is_refused(three):
    where = f"{three.logs}/zev.dated"
    zevctl.refuse(None, zevctl.NO_SUCH_CONSOLE, f"no log of bx in {where}; ask for a similar "
                  "name: box", "log", "bx")
    unknown = f'in {where}; "ls {where}/current" lists the logs'
    zevctl.refuse(None, zevctl.NO_SUCH_CONSOLE, f"no log of else?[2J {unknown}", "log",
                  "else\x1b[2J")
    zevctl.refuse(None, zevctl.NO_SUCH_CONSOLE, f"no log of else* {unknown}", "log", "else*")
    done = zevctl.run(None, "log", "box", "--also", "former")
    assert (done.returncode, done.stdout) == (zevctl.OK, "".join(THREE))
    assert done.stderr == f"zevctl: no log of former {unknown}\n"


def test_another_host_is_refused(three):
    advice = ('--host: "log" works with the log files of this machine; run it there with "ssh '
              'station zevctl log", or leave out --host and ZEVCTL_HOST')
    zevctl.refuse(None, zevctl.USAGE, advice, "log", "box", "--host", "station")
    done = zevctl.run(None, "log", "box", env={"ZEVCTL_HOST": "station"})
    assert (done.returncode, done.stderr) == (zevctl.USAGE, f"zevctl: {advice}\n")
    assert show("box", "--host", "localhost") == ["one", "Two", "three"]


def test_a_missing_log_directory_is_reported(station):
    shutil.rmtree(station.logs)
    zevctl.refuse(None, zevctl.FAILED, f"cannot read {station.logs}/zev.dated: No such file or "
                  "directory; --log-dir tells where the daemon's logs are, if not there",
                  "log", "box")


# Which records


@pytest.mark.parametrize("arguments, expected", [
    (["-n", "2"], ["Two", "three"]),
    (["--lines", "0"], []),
    (["-n", "99"], ["one", "Two", "three"]),
    (["--since", "2026-11-21 09:00"], ["Two", "three"]),
    (["--since", "2026-11-21 09:00:01"], ["three"]),
    (["--until", "2026-11-21 09:00:00"], ["one", "Two"]),
    (["--until", "2026-11-21"], []),
    (["--since", "2026-11-21", "--until", "2026-11-22", "-n", "1"], ["three"]),
    (["--since", "2026-11-21 08:00", "--until", "2026-11-21 08:00"], ["one"]),
    (["--grep", "^t"], ["three"]),
    (["--grep", "^t", "-i"], ["Two", "three"]),
    (["--grep", "(e|o)$", "--ignore-case", "-n", "1"], ["three"]),
    (["--grep=o", "--until", "2026-11-21 08:30"], ["one"]),
    (["--grep", "o$", "-v"], ["one", "three"]),
    (["--grep", "T", "-i", "--invert-match", "-n", "1"], ["one"]),
    (["--grep", "one", "-C", "1"], ["one", "Two"]),
    (["--grep", "Two", "--context", "5"], ["one", "Two", "three"]),
    (["--grep", "Two", "-C", "1", "--since", "2026-11-21 09:00"], ["Two", "three"]),
    (["--grep", "Two", "-C", "1", "-n", "2"], ["Two", "three"]),
    (["--grep", "Two", "-C", "0"], ["Two"]),
])
def test_records_are_filtered(three, arguments, expected):
    assert show("box", *arguments) == expected


def test_times_follow_the_time_zone(three):
    # The same local time is another moment there.
    assert zevctl.run(None, "log", "box", "--since", "2026-11-21T09:30:00+00:00",
                      env={"TZ": "UTC0"}).stdout == THREE[2]
    assert zevctl.run(None, "log", "box", "--since", "2026-11-21T09:30:00Z",
                      env={"TZ": "FAR+1"}).stdout == "".join(THREE[1:])
    assert zevctl.run(None, "log", "box", "--until", "2026-11-21T06:00:00Z",
                      env={"TZ": "FAR-2"}).stdout == THREE[0]


def test_ages_and_times_of_today_are_understood(station):
    now = datetime.now().replace(microsecond=0)
    lines = [f"{now - timedelta(minutes=age):%y/%m/%d_%H:%M:%S} {age}\n" for age in (90, 30, 5)]
    write_log(station, "box", *lines)
    assert show("box", "--since", "1h") == ["30", "5"]
    assert show("box", "--since", "31m", "--until", "600s") == ["30"]
    assert show("box", "--since", "1h15m") == ["30", "5"]
    # The last such time, even if that was before midnight.
    for age, expected in ((5, ["5"]), (30, ["30", "5"]), (90, ["90", "30", "5"])):
        assert show("box", "--since", f"{now - timedelta(minutes=age):%H:%M:%S}") == expected
    assert show("box", "--since", f"{now + timedelta(minutes=10):%H:%M:%S}") == ["90", "30", "5"]
    assert show("box", "--since", "yesterday") == ["90", "30", "5"]
    assert show("box", "--until", "yesterday") == []


def test_a_search_that_finds_nothing_fails(three):
    done = zevctl.run(None, "log", "box", "--grep", "four")
    assert (done.returncode, done.stdout, done.stderr) == (zevctl.FAILED, "", "")
    assert show("box", "--since", "2026-11-22", "--until", "2026-11-23") == []
    # It is found, though not shown.
    assert show("box", "--grep", "one", "-n", "0") == []


@pytest.mark.parametrize("arguments, message", [
    (["--since", "noon"], f'--since: "noon" is no time; {FORMS}'),
    (["--until", "2026-02-30"], f'--until: "2026-02-30" is no time; {FORMS}'),
    (["--since", "2h", "--until", "3h"], "--since is later than --until; exchange them"),
    (["--grep", "("], "--grep: Unmatched ( or \\(; put \\ before a character that stands for "
     "itself"),
    (["--grep", "a{2,1}"], "--grep: Invalid content of \\{\\}; put \\ before a character that "
     "stands for itself"),
])
def test_options_that_make_no_sense_are_refused(three, arguments, message):
    zevctl.refuse(None, zevctl.USAGE, message, "log", "box", *arguments)


@pytest.mark.parametrize("arguments", [
    [], ["box", "-v"], ["box", "-C", "1"], ["box", "--grep", "o", "-C", "-1"],
    ["box", "-n", "-1"], ["box", "-n", "many"], ["box", "-n", "1000001"],
    ["box", "-i"], ["box", "--follow", "--until", "1h"], ["box", "--also"],
])
def test_command_lines_that_are_not_understood(three, arguments):
    done = zevctl.run(None, "log", *arguments)
    assert (done.returncode, done.stdout) == (zevctl.USAGE, "")
    assert done.stderr


def test_a_reader_that_leaves_is_not_an_error(station):
    write_log(station, "box", *(THREE[0] for _ in range(50000)))
    client = zevctl.start(None, "log", "box")
    assert client.stdout.readline() == THREE[0].encode()
    client.stdout.close()
    assert client.wait(stretched(LIMIT)) == zevctl.OK
    assert client.stderr.read() == b""


def test_a_reader_that_leaves_ends_a_search_without_matches(station):
    line = "26/11/21_08:00:00 " + "x" * 1000 + "\n"
    write_log(station, "box", THREE[0], line * 200000)
    client = zevctl.start(None, "log", "box", "--grep", "one|(x|y)+(z|one)")
    assert client.stdout.readline() == THREE[0].encode()
    client.stdout.close()
    assert client.wait(stretched(LIMIT)) == zevctl.OK
    assert client.stderr.read() == b""


def test_output_that_cannot_be_written(three):
    with open("/dev/full", "wb") as full:
        done = subprocess.run([zevctl.PROGRAM, "log", "box"], stdout=full, stderr=subprocess.PIPE,
                              check=False)
    assert done.returncode == zevctl.FAILED
    assert done.stderr == b"zevctl: the output cannot be written: No space left on device\n"


def test_a_large_log_is_read_in_little_memory_and_from_its_end(station):
    line = "26/11/21_08:00:00 " + "x" * 1000 + "\n"
    write_log(station, "box", line * 200000, THREE[2])
    measure = ["/usr/bin/python3", "-c",
               "import resource, subprocess, sys; subprocess.run(sys.argv[1:], check=True, "
               "stdout=subprocess.DEVNULL); usage = resource.getrusage(resource.RUSAGE_CHILDREN); "
               "print(usage.ru_maxrss, usage.ru_utime + usage.ru_stime)"]
    options = {"whole": [], "tail": ["-n", "1"], "since": ["--since", "2026-11-21 10:00"]}
    used = {}
    for name, arguments in options.items():
        done = subprocess.run([*measure, zevctl.PROGRAM, "log", "box", *arguments],
                              capture_output=True, check=True, text=True)
        used[name] = [float(number) for number in done.stdout.split()]
    assert used["whole"][0] <= used["tail"][0] + 8192
    assert used["tail"][1] < used["whole"][1]
    assert show("box", "-n", "1") == ["three"]


# Following


def test_it_shows_what_is_logged_later(station, box, follow):
    logged(station, box, b"before\n")
    client = follow("box")
    client.wait_texts([b"before\n"])
    logged(station, box, b"after\n")
    client.wait_texts([b"before\n", b"after\n"])
    assert client.end() == ""


def test_it_begins_with_the_last_ten_records(station, box, follow):
    lines = [b"line %d\n" % number for number in range(15)]
    logged(station, box, *lines)
    last_ten, all_of_them, none = follow("box"), follow("box", "-n", "99"), follow("box", "-n", "0")
    last_ten.wait_texts(lines[5:])
    all_of_them.wait_texts(lines)
    searching = follow("box", "--grep", "line 1")
    searching.wait_texts([lines[1], *lines[10:]])
    later = []

    def goes_on() -> bool:
        """True once the client that shows no old records, and so no sign of its start, follows."""
        later.append(b"other %d\n" % len(later))
        logged(station, box, later[-1])
        return bool(none.texts())

    wait_until(goes_on, what="a record that is new to it")
    later += [b"line 15\n", b"other\n", b"line 16\n"]
    logged(station, box, *later[-3:])
    last_ten.wait_texts([*lines[5:], *later])
    searching.wait_texts([lines[1], *lines[10:], b"line 15\n", b"line 16\n"])
    wait_until(lambda: none.texts()[-1:] == [b"line 16\n"], what="the newest record")
    assert none.texts() == later[-len(none.texts()):]


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_signals_end_it(three, follow, number):
    client = follow("box")
    client.wait_texts([b"one\n", b"Two\n", b"three\n"])
    assert client.end(number) == ""


def test_a_reader_that_leaves_ends_it_at_once(three, follow):
    client = follow("box")
    client.wait_texts([b"one\n", b"Two\n", b"three\n"])
    client.process.stdout.close()
    assert client.process.wait(stretched(LIMIT)) == zevctl.OK
    assert client.said() == ""


def test_a_signal_ends_it_while_the_output_takes_nothing(station, follow):
    write_log(station, "box", *(THREE[0] for _ in range(50000)))
    client = follow("box", "-n", "50000")
    wait_until(lambda: client.process.stdout.peek(1), what="output")
    client.process.send_signal(signal.SIGTERM)
    assert client.process.wait(stretched(LIMIT)) == zevctl.OK


def test_it_follows_into_a_new_directory(station, box, waker, follow):
    client = follow("box")
    logged(station, box, b"old\n")
    client.wait_texts([b"old\n"])
    print_and_wait(station, box, b"begun")
    age_directory(station)
    rotate(station, waker)
    print_and_wait(station, box, b" and ended\n")
    logged(station, box, b"new\n")
    client.wait_texts([b"old\n", b"begun\n", b"\n", b" and ended\n", b"new\n"])


def test_no_record_is_lost_or_repeated_when_directories_change(station, follow):
    box = station.console("box")
    bring_up(station, box, options=("-d", "1", "-a", "0d"))
    client = follow("box", "-n", "99999")
    printed = numbered(10000)
    box.flood(printed, 1).join(limit=60)
    last = printed.splitlines()[-1] + b"\n"
    wait_until(lambda: last in b"".join(all_records(station, "box")), 60, "the last line")
    wait_until(lambda: last in client.texts(), 60, "the last line")
    # Here every record is shown on a line of its own.
    expected = [record if record.endswith(b"\n") else record + b"\n"
                for record in all_records(station, "box")]
    assert client.texts() == expected


def test_it_follows_a_console_that_is_renamed(station, box, waker, follow):
    client = follow("box")
    logged(station, box, b"as box\n")
    client.wait_texts([b"as box\n"])
    station.write_config(console_line("chest", box.port)
                         + console_line("waker", waker.port, logging=0))
    reload(station)
    logged(station, box, b"as chest\n", name="chest")
    client.wait_texts([b"as box\n", b"as chest\n"])
    age_directory(station)
    rotate(station, waker)
    logged(station, box, b"newer\n", name="chest")
    client.wait_texts([b"as box\n", b"as chest\n", b"newer\n"])
    assert client.end() == ("zevctl: the log of box is now that of chest; following both names\n")


def test_it_waits_for_a_log_that_is_not_there_yet(station, box, follow):
    other = station.console("other")
    client = follow("other")
    wait_until(lambda: client.process.stderr.peek(1), what="the message")
    reload(station)
    other.accept()
    other.send(b"ready\n")
    client.wait_texts([b"ready\n"])
    directory = f"{station.logs}/zev.dated"
    assert client.end() == (f'zevctl: no log of other in {directory}; "ls {directory}/current" '
                            "lists the logs; waiting for it\n")


def test_it_outlives_its_directory(station, box, follow):
    client = follow("box")
    logged(station, box, b"before\n")
    client.wait_texts([b"before\n"])
    shutil.rmtree(current(station).resolve())
    # The daemon goes on writing to the file, which no longer has a name.
    print_and_wait(station, box, b"meanwhile\n")
    client.wait_texts([b"before\n", b"meanwhile\n"])
    box.greeting = b"after\n"
    disable_and_enable(station, box)
    client.wait_texts([b"before\n", b"meanwhile\n", b"after\n"])
    assert client.end() == ""


def test_it_follows_the_consolidated_log_as_json(station, box, follow):
    client = follow("consolidated", "--json")
    box.send(b"printed\n")
    wait_until(lambda: b"\n" in client.shown(), what="the record")
    record = json.loads(client.shown())
    assert (record["console"], record["text"]) == ("box", "printed")
