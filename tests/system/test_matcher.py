"""Event sets with patterns that are too hard for the system's matcher, and their effects."""

import math
import os
import re
import resource
import signal
import time
from pathlib import Path

import pytest

# `collector` and `waker` are fixtures.
from harness.collectors import collector
from harness.consoles import FakeConsole
from harness.debuglog import messages
from harness.helpers import children_of
from harness.logs import bring_up, log_of, reload_awake, wait_records, waker
from harness.peers import User
from harness.scenes import NOT_FOUND, attach_when_accessible, echo_time, refused
from harness.station import Station, console_line
from harness.waiting import LIMIT, stretched, wait_until

ENDLESS = r"(a*)*\1b"  # takes minutes for a line of 1 KB
DEEP = r"(x|)(\1\1|t1)+"  # uses up the stack on any line
LONG_LINE = b"a" * 1000 + b"\n"
MOMENT = 0.002  # of work, in seconds: more than the worker needs to take a line
BOMB = "((a{1,255}){1,255}){1,255}"


def write_events(station: Station, *lines: str, name: str = "set") -> None:
    """Write an event file."""
    (station.events / name).write_text("".join(f"{line}\n" for line in lines), encoding="latin-1")


def watched(station: Station, name: str = "box", event_file: str = "set"):
    """A console whose output is matched against an event file."""
    return station.console(name, events=1, event_file=event_file)


def said_by(found: list[dict]) -> list[tuple]:
    """The name, priority and line of each event."""
    return [(entry["name"], entry["priority"], entry["vars"]["message"]) for entry in found]


def event(name: str, priority: int, line: str) -> tuple:
    """A console's event as `said_by` gives it."""
    return (f"qor.zevd.console.{name}", priority, line)


def matcher_of(station: Station) -> int:
    """The matcher's process id, once there is one."""
    wait_until(lambda: len(children_of(station.pid)) == 1, what="the matcher")
    return children_of(station.pid).pop()


def worker_of(matcher: int) -> int:
    """The process that compiles and matches."""
    wait_until(lambda: len(children_of(matcher)) == 1, what="the worker")
    return children_of(matcher).pop()


def gone(pid: int) -> bool:
    """No process has this id, not even one that has ended."""
    return not Path(f"/proc/{pid}").exists()


def left_out(pattern: str, what: str) -> str:
    """The message about a pattern that was too hard for the matcher."""
    return f'Matcher: Pattern "{pattern}" {what} and is left out until the next reload.'


TOO_LONG = "took too long on a line"


def matching(station: Station, *patterns: str, name: str = "box",
             beside: tuple[FakeConsole, ...] = (), level: int = 0) -> FakeConsole:
    """Bring up a console whose output is matched against these patterns, and the other ones."""
    write_events(station, *patterns)
    box = watched(station, name)
    bring_up(station, box, *beside, options=("-d", str(level)))
    return box


def matching_beside_a_user(station: Station, *patterns: str, level: int = 0
                           ) -> tuple[FakeConsole, FakeConsole, User]:
    """The same with another console, which is not matched, and its user."""
    other = station.console("other", logging=0)
    box = matching(station, *patterns, level=level)
    other.accept()
    return box, other, attach_when_accessible(station, "other")


# What works


def test_a_pattern_that_refers_back_makes_its_event(station, collector):
    box = matching(station, r"twice 42 1 (ab+)\1", "plain 7 0 error", level=1)
    box.send(b"no ab abb\nan abbabb here\r\nAn ERROR\n")
    assert said_by(collector.accept().wait_events(2)) == [
        event("box", 42, "an abbabb here\n"), event("box", 7, "An ERROR\n")]
    station.wait_log(re.compile(r'^WriteBuffer: Matched pattern "\(ab\+\)\\1" in string '
                                '"an abbabb here$'))
    wait_records(log_of(station, "box"), [b"no ab abb\n", b"an abbabb here\n", b"An ERROR\n"])


@pytest.mark.parametrize("patterns, priority", [
    ([r"a 1 0 (x)\1", "b 2 0 error"], 2),
    (["b 2 0 error", r"a 1 0 (r)\1"], 2),
    ([r"a 1 0 (r)\1", "b 2 0 error"], 1),
    ([r"a 1 0 (R)\1", "b 2 0 error"], 1),
    ([r"a 1 1 (R)\1", "b 2 0 error"], 2),
    ([r"a 1 00 (R)\1", "b 2 no error", "c 3 0 error"], 2),
    (["b 2 0 err(", r"a 1 0 (r)\1"], 1),
    ([r"c 5 0 (x)\1", "b 2 0 err(", "a 1 0 error"], 1),
])
def test_the_first_pattern_in_file_order_decides(station, collector, patterns, priority):
    box = matching(station, *patterns, level=1)
    box.send(b"an error\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", priority, "an error\n")]


def test_an_invalid_expression_is_reported_with_its_reason(station):
    matching(station, r"a 1 0 (r)\1", "b 2 0 err(", r"c 3 0 (x)\2")
    station.wait_log("ParseRegExFile: regcomp() failed for pattern err( : Unmatched ( or \\(")
    station.wait_log("ParseRegExFile: regcomp() failed for pattern (x)\\2 : "
                     "Invalid back reference")


def test_an_answer_does_not_wait_for_the_next_output(station, collector):
    """The daemon waits for up to two seconds at a time; so twenty answers would take long."""
    box = matching(station, r"a 1 0 (r)\1", level=1)
    box.send(b"error\n")
    collector.accept().wait_events(1)
    begun = time.monotonic()
    for number in range(2, 22):
        box.send(b"error %d\n" % number)
        collector.wait_events(number)
    assert time.monotonic() - begun < stretched(8)


def test_other_sets_are_matched_in_the_daemon_itself(station, collector):
    write_events(station, r"a 1 0 (r)\1", name="hard")
    write_events(station, "b 2 0 error", name="plain")
    box, other = watched(station, event_file="hard"), watched(station, "other", "plain")
    bring_up(station, box, other, options=("-d", "1"))
    os.kill(matcher_of(station), signal.SIGSTOP)
    box.send(b"error one\n")
    wait_records(log_of(station, "box"), [b"error one\n"])
    other.send(b"error two\n")
    assert said_by(collector.accept().wait_events(1)) == [event("other", 2, "error two\n")]
    os.kill(matcher_of(station), signal.SIGCONT)
    assert said_by(collector.wait_events(2))[1:] == [event("box", 1, "error one\n")]


def test_a_station_without_such_patterns_has_no_matcher(station):
    matching(station, r"a 1 0 ([0-9]{1,3}\.){3}[0-9]{1,3}", "b 2 0 [\\1]", r"c 3 0 \\1", level=3)
    assert children_of(station.pid) == set()


def test_watched_output_is_not_matched(station, collector):
    box = matching(station, r"a 1 0 (r)\1", level=3)
    station.wait_connected("box")
    user = station.attach("box")
    box.send(b"error watched\n")
    user.expect(b"error watched\n")
    position = station.mark()
    user.close()
    station.wait_log(re.compile("^CleanUpClosedConnections: Closing connection with user"),
                     after=position)
    box.send(b"error unwatched\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", 1, "error unwatched\n")]


def test_a_name_with_dashes_is_changed_by_its_event(station, collector):
    box = matching(station, r"a 1 0 (r)\1", name="sys-a-1", level=3)
    box.send(b"error\n")
    found = collector.accept().wait_events(1)
    assert said_by(found) == [event("sys_a_1", 1, "error\n")]
    assert found[0]["vars"]["name"] == "sys_a_1"
    refused(station, "sys-a-1", NOT_FOUND)
    station.attach("sys_a_1")


def test_an_event_outlives_its_console(station, collector, waker):
    """The console is gone when the answer comes; the event still has its name."""
    box = matching(station, r"a 1 0 (r)\1", name="sys-a-1", beside=(waker,), level=3)
    matcher = matcher_of(station)
    os.kill(matcher, signal.SIGSTOP)
    box.send(b"error\n")
    wait_records(log_of(station, "sys-a-1"), [b"error\n"])
    station.write_config(console_line("waker", waker.port, logging=0))
    reload_awake(station, waker)
    box.expect_closed()
    os.kill(matcher, signal.SIGCONT)
    assert said_by(collector.accept().wait_events(1)) == [event("sys_a_1", 1, "error\n")]


# Patterns that are too hard


def test_an_endless_pattern_is_left_out_after_one_line(station, collector):
    """Meanwhile other users' keys are echoed, and then the set's other patterns match."""
    box, other, user = matching_beside_a_user(
        station, f"a 1 0 {ENDLESS}", r"b 2 0 (er)\1", "c 3 0 error", level=1)
    box.send(LONG_LINE + b"an error\nan erer\n")
    slowest = max(echo_time(user, other, b"k", limit=LIMIT) for _ in range(50))
    station.wait_log(left_out(ENDLESS, TOO_LONG))
    assert said_by(collector.accept().wait_events(2)) == [event("box", 3, "an error\n"),
                                                         event("box", 2, "an erer\n")]
    assert slowest < stretched(1)
    box.send(LONG_LINE + b"error again\n")
    assert said_by(collector.wait_events(3))[2:] == [event("box", 3, "error again\n")]
    assert station.log_text().count(ENDLESS) == 1


def test_a_pattern_that_exhausts_the_stack_is_left_out_alone(station, collector):
    box = matching(station, f"a 1 0 {DEEP}", "c 3 0 error")
    box.send(b"error one\nerror two\n")
    station.wait_log(left_out(DEEP, "could not be matched with a line (signal 11)"))
    assert said_by(collector.accept().wait_events(2)) == [event("box", 3, "error one\n"),
                                                         event("box", 3, "error two\n")]


def test_a_reload_gives_a_pattern_that_was_left_out_another_chance(station, collector, waker):
    box = matching(station, f"a 1 0 {ENDLESS}", "c 3 0 error", beside=(waker,), level=3)
    for _ in range(2):
        position = station.mark()
        box.send(LONG_LINE)
        station.wait_log(left_out(ENDLESS, TOO_LONG), after=position)
        reload_awake(station, waker)
    box.send(b"aab\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", 1, "aab\n")]


def test_patterns_that_cannot_be_compiled_are_left_out_alone(station, collector):
    box = matching(station, f"a 1 0 {BOMB}", r"b 2 0 (r)\1", f"c 3 0 x{BOMB}")
    for pattern in (BOMB, f"x{BOMB}"):
        station.wait_log(re.compile(
            f"^(ParseRegExFile: regcomp\\(\\) failed for pattern {re.escape(pattern)} : "
            f"Memory exhausted|{re.escape(left_out(pattern, 'takes too long to compile'))})"),
            limit=30)
    box.send(b"error\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", 2, "error\n")]


def test_a_pattern_is_left_out_by_the_next_matcher_too(station, collector):
    box = matching(station, f"a 1 0 {ENDLESS}", "c 3 0 error")
    box.send(LONG_LINE)
    station.wait_log(left_out(ENDLESS, TOO_LONG))
    os.kill(matcher_of(station), signal.SIGKILL)
    station.wait_log("Matcher: The matcher has ended (signal 9) and is started again.")
    box.send(LONG_LINE + b"error\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", 3, "error\n")]
    assert station.log_text().count(ENDLESS) == 1


# Too many lines


def test_lines_beyond_the_queue_are_counted(station, collector):
    box = matching(station, r"a 1 0 (last)\1")
    matcher = matcher_of(station)
    os.kill(matcher, signal.SIGSTOP)
    line = b"x" * 999 + b"\n"
    for _ in range(20):
        box.send(line * 100)
    box.send(b"the end of it\n")
    wait_until(lambda: log_of(station, "box").read_bytes().endswith(b"the end of it\n"))
    lines = 2001
    os.kill(matcher, signal.SIGCONT)
    counted = re.compile(r"^Matcher: (\d+) lines were not matched: too many were waiting\.$")
    wait_until(lambda: "too many were waiting" in station.log_text(), what="the count")
    box.send(b"lastlast\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", 1, "lastlast\n")]
    lost = sum(int(found[1]) for found in map(counted.match, messages(station.log_text()))
               if found)
    assert lines - (1 << 20) / 1000 <= lost <= lines - (1 << 20) / 1200
    assert station.log_text().count("too many were waiting") <= 3


def test_the_station_goes_on_while_nobody_matches(station):
    """Megabytes of output for a stopped matcher do not affect users and logs."""
    box, other, user = matching_beside_a_user(station, r"a 1 0 (r)\1")
    matcher = matcher_of(station)
    os.kill(matcher, signal.SIGSTOP)
    for _ in range(30):
        box.send(b"error " * 10000 + b"\n")
        assert echo_time(user, other, b"k", limit=LIMIT) < stretched(2)
    os.kill(matcher, signal.SIGKILL)


# The process


def test_a_matcher_that_was_killed_is_replaced(station, collector):
    box = matching(station, r"a 1 0 (r)\1")
    before = matcher_of(station)
    os.kill(before, signal.SIGKILL)
    station.wait_log("Matcher: The matcher has ended (signal 9) and is started again.")
    wait_until(lambda: children_of(station.pid) - {before}, what="the next matcher")
    box.send(b"error\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", 1, "error\n")]
    assert gone(before)


def test_waiting_lines_outlive_the_matcher(station, collector):
    """All lines but the one in work, which may have ended the matcher."""
    box = matching(station, r"a 1 0 (r)\1")
    lines = [b"error %d\n" % number for number in range(4)]
    box.send(lines[0])
    collector.accept().wait_events(1)
    matcher = matcher_of(station)
    os.kill(matcher, signal.SIGSTOP)
    box.send(b"".join(lines[1:]))
    wait_records(log_of(station, "box"), lines)
    os.kill(matcher, signal.SIGKILL)
    assert said_by(collector.wait_events(3))[1:] == [event("box", 1, "error 2\n"),
                                                    event("box", 1, "error 3\n")]


def test_a_worker_that_was_killed_is_replaced_without_a_word(station, collector):
    box = matching(station, r"a 1 0 (r)\1")
    box.send(b"error 1\n")
    events = collector.accept()
    events.wait_events(1)  # one that ends while it compiles the pattern leaves that out
    matcher = matcher_of(station)
    worker = worker_of(matcher)
    os.kill(worker, signal.SIGKILL)
    wait_until(lambda: gone(worker), what="the worker to be waited for")
    box.send(b"error 2\n")
    assert said_by(events.wait_events(2)) == [event("box", 1, "error 1\n"),
                                              event("box", 1, "error 2\n")]
    assert matcher_of(station) == matcher
    assert "Matcher:" not in station.log_text()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
def test_nothing_of_it_outlives_the_daemon(station, number):
    box = matching(station, f"a 1 0 {ENDLESS}")
    matcher = matcher_of(station)
    worker = worker_of(matcher)
    begun = _worked(worker)
    box.send(LONG_LINE)
    wait_until(lambda: _worked(worker) > begun + MOMENT, what="the worker to be at the line")
    if number == signal.SIGTERM:
        station.stop()
    else:
        station.signal(number)
        station.expect_exit(-number)
    # Processes without a parent become children of the test, which does not wait for them here.
    wait_until(lambda: all(gone(pid) or _is_zombie(pid) for pid in (matcher, worker)),
               what="the matcher to end")


def _worked(pid: int) -> float:
    """Seconds on a processor, for ever once it has gone; proc(5) has them in nanoseconds."""
    try:
        return int(Path(f"/proc/{pid}/schedstat").read_text(encoding="ascii").split()[0]) / 1e9
    except (FileNotFoundError, ProcessLookupError):
        return math.inf


def _is_zombie(pid: int) -> bool:
    try:
        return Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rpartition(")")[2][1] == "Z"
    except (FileNotFoundError, ProcessLookupError):
        return True


def test_it_ends_when_no_set_needs_it_any_more(station, waker):
    matching(station, r"a 1 0 (r)\1", beside=(waker,), level=3)
    for name in ("box", "waker"):
        station.wait_connected(name)
    matcher = matcher_of(station)
    held = station.descriptors()
    write_events(station, "a 1 0 error")
    position = reload_awake(station, waker)
    wait_until(lambda: gone(matcher), what="the matcher to end")
    wait_until(lambda: station.descriptors() == held - 1, what="its socket to be closed")
    assert "Matcher: The matcher has ended" not in station.log_text(position)


def test_it_starts_when_a_reload_brings_a_set_that_needs_it(station, collector, waker):
    box = matching(station, "a 1 0 error", beside=(waker,), level=3)
    assert children_of(station.pid) == set()
    write_events(station, r"a 2 0 (r)\1")
    reload_awake(station, waker)
    box.send(b"error\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", 2, "error\n")]


def test_it_has_nothing_but_its_socket(station):
    """No console, no log, no cookie; no blocked signal, no capability, no environment."""
    matching(station, r"a 1 0 (r)\1")
    matcher = matcher_of(station)
    worker = worker_of(matcher)
    wait_until(lambda: _descriptors(matcher) == [0, 1, 2, 3, 4],
               what="the matcher to close the worker's end of their socket")
    assert os.readlink(f"/proc/{matcher}/fd/0") == "/dev/null"
    assert all(os.readlink(f"/proc/{matcher}/fd/{number}").startswith("socket:")
               for number in (3, 4))
    wait_until(lambda: len(_descriptors(worker)) == 4,
               what="the worker to close what is the matcher's")
    for pid in (matcher, worker):
        status = Path(f"/proc/{pid}/status").read_text(encoding="ascii")
        assert status.startswith("Name:\tzevd-matcher\n")
        assert re.search(r"^SigBlk:\t0+$", status, re.MULTILINE)
        assert re.search(r"^CapEff:\t0+$", status, re.MULTILINE)
        assert re.search(r"^CapPrm:\t0+$", status, re.MULTILINE)
        assert re.search(r"^NoNewPrivs:\t1$", status, re.MULTILINE)
        assert os.getpriority(os.PRIO_PROCESS, pid) > os.getpriority(os.PRIO_PROCESS, station.pid)
        environment = Path(f"/proc/{pid}/environ").read_bytes()
        assert environment.replace(b"\0", b"") == b"" or environment.startswith(b"LD_LIBRARY_PATH=")
    limits = Path(f"/proc/{worker}/limits").read_text(encoding="ascii")
    assert re.search(r"^Max core file size +0 +0 ", limits, re.MULTILINE)


def _descriptors(pid: int) -> list[int]:
    return sorted(int(number) for number in os.listdir(f"/proc/{pid}/fd"))


def test_a_hangup_sent_to_every_process_does_not_end_it(station, collector, waker):
    box = matching(station, r"a 1 0 (r)\1", beside=(waker,), level=3)
    matcher = matcher_of(station)
    worker = worker_of(matcher)
    for pid in (matcher, worker):
        os.kill(pid, signal.SIGHUP)
    reload_awake(station, waker)
    box.send(b"error\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", 1, "error\n")]
    assert matcher_of(station) == matcher


def test_a_matcher_that_cannot_start_is_reported_once_and_tried_again(station, collector):
    """There is no descriptor for its socket; consoles, logs and other sets work on."""
    write_events(station, r"a 1 0 (r)\1")
    write_events(station, "b 2 0 error", name="plain")
    box, other = watched(station), watched(station, "other", "plain")
    bring_up(station, box, other, options=("-d", "0"))
    other.send(b"error first\n")
    collector.accept().wait_events(1)
    limits = resource.prlimit(station.pid, resource.RLIMIT_NOFILE)
    used = set(_descriptors(station.pid))
    first_free = next(number for number in range(len(used) + 1) if number not in used)
    resource.prlimit(station.pid, resource.RLIMIT_NOFILE, (first_free, limits[1]))
    os.kill(matcher_of(station), signal.SIGKILL)
    station.wait_log("Matcher: The matcher cannot be started : Too many open files")
    box.send(b"error two\n")
    wait_records(log_of(station, "box"), [b"error two\n"])
    other.send(b"error three\n")
    collector.wait_events(2)
    position = station.mark()
    resource.prlimit(station.pid, resource.RLIMIT_NOFILE, limits)
    assert said_by(collector.wait_events(3)) == [
        event("other", 2, "error first\n"), event("other", 2, "error three\n"),
        event("box", 1, "error two\n")]
    assert "cannot be started" not in station.log_text(position)


@pytest.mark.parametrize("name", ["zevd-matcher", "./zevd-matcher", "/usr/sbin/zevd-matcher"])
def test_its_name_alone_does_not_start_it(station, name):
    """Without the daemon's socket the program is the ordinary daemon."""
    assert station.run("-V", argv0=name).stdout.startswith("QOR version ")
    station.start()
    assert "already running" in station.run(argv0=name).stderr
