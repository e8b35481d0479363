"""`zevctl log` with many consoles: which are meant, and how their records are put together."""

import json
import os
import re

import pytest

from harness import zevctl
# `box` and `waker` are fixtures.
from harness.logs import box, dated, waker
from harness.scenes import reload
from harness.waiting import wait_until

DAY = "26/11/21_"


def write_log(station, name: str, *records: str, directory: str = "01-Nov-00:00") -> None:
    """Make a log of records such as "08:00:01 text", in a station whose daemon does not run."""
    place = dated(station) / directory
    place.mkdir(parents=True, exist_ok=True)
    with open(place / f"{name}.log", "a", encoding="utf-8", newline="") as log:
        log.writelines(f"{DAY}{record}\n" for record in records)


def show(*arguments: str) -> list[str]:
    """Run `zevctl log` and return its lines, without the day."""
    return [line.replace(DAY, "") for line in zevctl.succeed(None, "log", *arguments).splitlines()]


@pytest.fixture
def rack(station):
    """Three consoles, one of which was renamed, with records of the same seconds."""
    write_log(station, "rack-1", "08:00:01 a", "08:00:03 panic", "08:00:03 c")
    write_log(station, "rack_1", "08:00:05 d", "08:00:09 e", directory="02-Nov-00:00")
    write_log(station, "rack-22", "08:00:02 A", "08:00:03 B", "08:00:04 C", "08:00:09 D")
    write_log(station, "lab", "08:00:03 other")
    write_log(station, "consolidated", "08:00:03 lab other")
    return station


ALL_OF_RACK = ["rack-1  08:00:01 a", "rack-22 08:00:02 A", "rack-1  08:00:03 panic",
               "rack-1  08:00:03 c", "rack-22 08:00:03 B", "rack-22 08:00:04 C",
               "rack_1  08:00:05 d", "rack-22 08:00:09 D", "rack_1  08:00:09 e"]


def test_the_logs_of_a_pattern_are_merged(rack):
    assert show("rack-*") == show("RACK_*") == ALL_OF_RACK
    assert show("*", "--since", "2026-11-21 08:00:09") == ALL_OF_RACK[-2:]
    assert show("rack-2*") == ["rack-22 08:00:02 A", "rack-22 08:00:03 B", "rack-22 08:00:04 C",
                               "rack-22 08:00:09 D"]


def test_several_names_are_merged(rack):
    assert show("rack-1", "lab", "--until", "2026-11-21 08:00:03") == [
        "rack-1 08:00:01 a", "rack-1 08:00:03 panic", "rack-1 08:00:03 c", "lab    08:00:03 other"]
    assert show("rack-22", "rack-1") == ALL_OF_RACK


def test_one_console_has_no_name_in_front(rack):
    assert show("rack-1")[:2] == ["08:00:01 a", "08:00:03 panic"]
    assert show("la") == ["08:00:03 other"]
    assert show("lab", "consolidated") == ["lab          08:00:03 other",
                                           "consolidated 08:00:03 lab other"]


def test_the_start_of_several_names_is_refused(rack):
    zevctl.refuse(None, zevctl.NO_SUCH_CONSOLE, "several logs begin with ra: rack-1, rack-22; "
                  'write more of the name, or "ra*" for all of them', "log", "ra")


def test_the_last_records_are_those_of_all(rack):
    assert show("rack*", "-n", "3") == ALL_OF_RACK[-3:]
    assert show("rack*", "-n", "8") == ALL_OF_RACK[-8:]


def test_context_is_that_of_the_same_console(rack):
    assert show("rack*", "--grep", "panic|C$", "-C", "1") == [
        "rack-1  08:00:01 a", "rack-1  08:00:03 panic", "rack-1  08:00:03 c", "--",
        "rack-22 08:00:03 B", "rack-22 08:00:04 C", "rack-22 08:00:09 D"]
    found = [json.loads(line) for line in zevctl.succeed(
        None, "log", "rack*", "--grep", "panic", "-C", "1", "--json").splitlines()]
    assert [(record["console"], record["text"], record["match"]) for record in found] == [
        ("rack-1", "a", False), ("rack-1", "panic", True), ("rack-1", "c", False)]


def test_gaps_are_marked_and_context_does_not_repeat(station):
    write_log(station, "box", *(f"08:00:{second:02} {second}" for second in range(20)))
    assert show("box", "--grep", "^(3|5|12|13)$", "-C", "2") == [
        *(f"08:00:{second:02} {second}" for second in range(1, 8)), "--",
        *(f"08:00:{second:02} {second}" for second in range(10, 16))]


def test_many_logs_are_read_in_little_memory(station):
    for number in range(500):
        write_log(station, f"box{number:03}", *(f"08:{minute:02}:00 " + "x" * 500
                                                for minute in range(60)))
    measure = ["/usr/bin/python3", "-c",
               "import resource, subprocess, sys; subprocess.run(sys.argv[1:], check=True, "
               "stdout=subprocess.DEVNULL); "
               "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)"]
    run = zevctl.subprocess.run([*measure, zevctl.PROGRAM, "log", "box*"], capture_output=True,
                                check=True, text=True)
    assert int(run.stdout) < 80000
    shown = show("box*")
    assert len(shown) == 30000
    assert shown[499:501] == ["box499 08:00:00 " + "x" * 500, "box000 08:01:00 " + "x" * 500]


def test_a_pattern_follows_consoles_that_come_later(station, box, waker):
    client = zevctl.start(None, "log", "--follow", "[bn]*", "--json")
    os.set_blocking(client.stdout.fileno(), False)
    shown = b""

    def texts() -> list[tuple[str, str]]:
        nonlocal shown
        shown += client.stdout.read() or b""
        found = [json.loads(line) for line in shown.splitlines() if line.endswith(b"}")]
        return [(record["console"], record["text"]) for record in found]

    try:
        box.send(b"first\n")
        wait_until(lambda: texts() == [("box", "first")], what="the record")
        new = station.console("new")
        reload(station)
        new.accept()
        new.send(b"second\n")
        wait_until(lambda: texts()[1:] == [("new", "second")], what="the new console's record")
    finally:
        client.kill()
        client.communicate()


def test_a_terminal_gets_names_without_control_characters(station):
    write_log(station, "bad\x1b[2Jname", "08:00:00 text")
    with zevctl.Terminal(None, "log", "bad*") as terminal:
        shown = terminal.expect_end(zevctl.OK)
    assert re.sub(rb"\r\n$", b"", shown) == b"bad?[2Jname 26/11/21_08:00:00 text"
