"""Event files, matching, and posting events to an event manager, which may fail in any way."""

import contextlib
import os
import re
import socket
import stat
import threading
from datetime import datetime

import pytest

# `collector` and `waker` are fixtures.
from harness.collectors import Collector, collector, rsyslog, socat
from harness.commands import Tool
from harness.debuglog import messages
from harness.logs import (ARCHIVING, all_records, bring_up, consolidated, consolidated_records,
                          log_of, read, records, reload_awake, wait_records, waker)
from harness.scenes import NOT_FOUND, echo_time, print_and_wait, refused, removal
from harness.station import console_line
from harness.waiting import stretched, wait_until

CANNOT_CONNECT = ("ConnectToJix: JixConnCreate() failed : "
                  "Cannot connect to the event manager")
WITHOUT = "ConnectToJix: Continuing without JIX support."
ESTABLISHED = "ConnectToJix: Established connection with JIX daemon."
ESTABLISHED_AGAIN = "ConnectToJix: Re-established connection with JIX daemon."
LOST = "PostJixEvent: JixEventPost() failed : Connection to the event manager lost"
BUSY = "PostJixEvent: JixEventPost() failed : The event manager does not read"

ANY_ERROR = "any 100 0 error\n"


def write_events(station, name: str, text: str) -> None:
    """Write an event file."""
    (station.events / name).write_text(text, encoding="latin-1")


def watched(station, name: str = "box", event_file: str = "set", events: int = 1):
    """A console whose output is matched against an event file."""
    return station.console(name, events=events, event_file=event_file)


def event(name: str, priority: int, message: str) -> dict:
    """A console's event without host and time."""
    return {"name": f"qor.zevd.console.{name}", "priority": priority,
            "vars": {"name": name, "message": message}}


def daemon_event(text: str, priority: int) -> dict:
    """A daemon error's event without host and time."""
    return {"name": f"qor.zevd.daemon.error.{text}", "priority": priority,
            "vars": {"message": text}}


def said_by(found: list[dict]) -> list[dict]:
    """The events found, without host and time."""
    return [{key: value for key, value in entry.items() if key not in ("host", "time")}
            for entry in found]


def broken_link(station, name: str = "broken") -> list[str]:
    """Makes an event file that cannot be opened; returns the two messages that it causes."""
    (station.events / name).symlink_to("nowhere")
    return [f'ParseRegExFile: fopen( "{station.events}/{name}", ...) failed : '
            "No such file or directory\n",
            f"LoadEventFiles: LoadEventFile() failed for file {name}\n"]


def in_order(wanted: list[str], found: list[str]) -> bool:
    """True when all of `wanted` are in `found`, in that order."""
    rest = iter(found)
    return all(text in rest for text in wanted)


# One event


def test_an_event_byte_for_byte(station, collector):
    write_events(station, "set", "disk_err 300 0 disk.*error\n")
    box = watched(station)
    bring_up(station, box, options=("-d", "1"))
    before = datetime.now().astimezone().replace(microsecond=0)
    box.send(b"Disk Error on drive 2\r\n")
    collector.accept().wait_events(1)
    line = collector.received
    shape = (rb'\{"time": "(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d)", "host": "%s", '
             rb'"name": "qor\.zevd\.console\.box", "priority": 300, '
             rb'"vars": \{"name": "box", "message": "Disk Error on drive 2\\u000a"\}\}\n')
    match = re.fullmatch(shape % re.escape(socket.gethostname().encode()), line)
    assert match, line
    assert before <= datetime.fromisoformat(match[1].decode()) <= datetime.now().astimezone()
    station.wait_log(re.compile(r'^WriteBuffer: Matched pattern "disk\.\*error" in string '
                                r'"Disk Error on drive 2$'))
    wait_records(log_of(station, "box"), [b"Disk Error on drive 2\n"])


@pytest.mark.parametrize("text, message", [
    (b'say "error" \\ and / go', 'say "error" \\ and / go'),
    (b"error \x01\x07\x08\t\x1b[31m\x7f", "error \x01\x07\x08\t\x1b[31m\x7f"),
    ("error déjà vu €".encode(), "error déjà vu €"),
    (b"error \xfe \xc3( \xe2\x82 \xed\xa0\x80 \xc0\xaf \xf5",
     "error \ufffd \ufffd( \ufffd\ufffd \ufffd\ufffd\ufffd \ufffd\ufffd \ufffd"),
    (b"error %s %n %d {} ${x} $(x)", "error %s %n %d {} ${x} $(x)"),
    (b"error \0behind a nul", "error behind a nul"),
])
def test_any_text_arrives_as_one_valid_line(station, collector, text, message):
    write_events(station, "set", ANY_ERROR)
    box = watched(station)
    bring_up(station, box, options=("-d", "1"))
    box.send(text + b"\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", 100, message + "\n")]


def test_a_block_without_a_line_end_is_matched(station, collector):
    write_events(station, "set", ANY_ERROR)
    box = watched(station)
    bring_up(station, box, options=("-d", "1"))
    box.send(b"error " + b"\x01" * 1500)
    assert said_by(collector.accept().wait_events(1)) == [
        event("box", 100, "error " + "\x01" * 1018)]


# What matches


@pytest.mark.parametrize("patterns, line, priority", [
    ("disk_err 300 0 disk.*error\n", b"Disk Error on drive 2", 300),
    ("disk_err 300 1 disk.*error\n", b"Disk Error on drive 2", None),
    ("disk_err 300 1 Disk.*Error\n", b"Disk Error on drive 2", 300),
    ("disk_err 300 00 disk.*error\n", b"Disk Error", None),
    ("disk_err 300 0 disk.*error\n", b"Error on disk", None),
    ("a 1 0 error\nb 900 0 disk error\n", b"disk error", 1),
    ("a 1 0 other\nb 900 0 disk error\nc 2 0 error\n", b"disk error", 900),
    ("a 5 0  error\n", b"disk error", 5),     # the pattern begins with a space
    ("a 5 0  error\n", b"error", None),
    ("a 5 0 error$\n", b"error", None),       # the line end comes before the end of the text
    ("a 5 0 error.$\n", b"error", 5),
    ("a 5 0 ^error\n", b"an error", None),
    ("a -5 0 (disk|fan)[0-9]{2}\n", b"fan17", -5),
    ("a high 0 error\n", b"error", 0),
    ("a\t1\t0\terror\nb 7 0 error\n", b"error", 7),
    ("# 3 0 error\n", b"error", 3),           # there are no comments
    ("\n   \n\r\na 4 0 error\r\n", b"error", 4),
    ("a 4 0 (\nb 6 0 error", b"error", 6),
    ("", b"error", None),
])
def test_what_a_pattern_matches(station, collector, patterns, line, priority):
    write_events(station, "set", patterns + "\nlast 12345 1 the end of the test\n")
    box = watched(station)
    bring_up(station, box, options=("-d", "1"))
    box.send(line + b"\nthe end of the test\n")
    expected = [event("box", 12345, "the end of the test\n")]
    if priority is not None:
        expected.insert(0, event("box", priority, line.decode() + "\n"))
    assert said_by(collector.accept().wait_events(len(expected))) == expected


@pytest.mark.parametrize("fields", [
    {"events": 0}, {"events": 2}, {"event_file": '""'}, {"event_file": "Set"},
    {"event_file": "subdirectory"}, {"logging": 0},
])
def test_output_of_other_consoles_is_not_matched(station, collector, fields):
    write_events(station, "set", ANY_ERROR)
    (station.events / "subdirectory").mkdir()
    (station.events / "subdirectory" / "set").write_text(ANY_ERROR)
    silent = station.console("silent", **{"events": 1, "event_file": "set", **fields})
    box = watched(station)
    bring_up(station, box)
    silent.accept()
    print_and_wait(station, silent, b"error unseen\n")
    box.send(b"error seen\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", 100, "error seen\n")]
    missing = "LoadConfigFile: Event file Set not found for console silent\n"
    assert (missing in messages(station.log_text())) == (fields.get("event_file") == "Set")


def test_while_somebody_is_attached_nothing_is_matched(station, collector):
    write_events(station, "set", ANY_ERROR)
    box = watched(station)
    bring_up(station, box)
    station.wait_connected("box")
    for mode in ("ro", "sh", "ex", "er"):
        user = station.attach("box", mode=mode, user=f"user-{mode}")
        box.send(b"error watched\n")
        user.expect(b"error watched\n")
        user.close()
        station.wait_log(removal(f"user-{mode}"))
    box.send(b"error unwatched\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", 100, "error unwatched\n")]


def test_each_console_has_the_set_of_its_name(station, collector):
    write_events(station, "disks", "a 1 0 disk\n")
    write_events(station, "fans", "a 2 0 fan\n")
    write_events(station, "x" * 70, "a 3 0 long\n")
    first, second = watched(station, "first", "disks"), watched(station, "second", "fans")
    third = watched(station, "third", "x" * 64)
    bring_up(station, first, second, third, options=("-d", "1"))
    collector.accept()
    for number, (console, name) in enumerate([(first, "first"), (second, "second"),
                                              (third, "third")], start=1):
        console.send(b"disk fan long\n")
        assert said_by(collector.wait_events(number))[-1] == event(name, number, "disk fan long\n")


# Malformed files


def test_every_malformed_line_is_reported_by_its_number(station, collector):
    write_events(station, "set", "a 1 0 first\nb 2 0\nc\n\nd 4\ne 5 0 \nf 6 0 a(b\ng 7 0 error\n")
    box = watched(station)
    bring_up(station, box, options=("-d", "0"))
    path = station.events / "set"
    assert in_order([
        f"ParseRegExFile: Pattern missing in line 2 of {path}\n",
        f"ParseRegExFile: Priority missing in line 3 of {path}\n",
        f"ParseRegExFile: Case indicator missing in line 5 of {path}\n",
        f"ParseRegExFile: Pattern missing in line 6 of {path}\n",
        "ParseRegExFile: regcomp() failed for pattern a(b : Unmatched ( or \\(\n",
    ], messages(station.log_text()))
    box.send(b"first\nerror\n")
    assert said_by(collector.accept().wait_events(2)) == [event("box", 1, "first\n"),
                                                         event("box", 7, "error\n")]


def test_an_unreadable_entry_stops_the_load_with_an_event(station, collector):
    reported = broken_link(station)
    box = watched(station)
    bring_up(station, box, options=("-d", "0"))
    assert in_order(reported, messages(station.log_text()))
    assert said_by(collector.accept().wait_events(1)) == [
        daemon_event("Warning: bad event file", 500)]


def test_a_missing_directory_is_reported_with_an_event(station, collector):
    station.events.rmdir()
    box = watched(station)
    bring_up(station, box, options=("-d", "0"))
    assert (f"LoadEventFiles: opendir( {station.events} ) failed: No such file or directory\n"
            in messages(station.log_text()))
    assert said_by(collector.accept().wait_events(1)) == [
        daemon_event("events directory not found", 700)]


def test_an_empty_directory_is_not_an_error(station, collector):
    box = watched(station)
    bring_up(station, box, options=("-d", "0"))
    assert "LoadEventFiles" not in station.log_text()
    box.send(b"error\n")
    wait_records(log_of(station, "box"), [b"error\n"])
    assert collector.accept().received == b""


def endless_entries(station) -> None:
    """Add entries that never end or that wait for a writer, before and after the others."""
    for name in ("a-pipe", "z-pipe"):
        os.mkfifo(station.events / name)
    (station.events / "endless").symlink_to("/dev/zero")
    (station.events / "linked-pipe").symlink_to("a-pipe")


def test_pipes_and_devices_among_the_files_are_empty_sets(station, collector):
    endless_entries(station)
    write_events(station, "set", ANY_ERROR)
    box, other = watched(station), watched(station, "other", "a-pipe")
    bring_up(station, box, other, options=("-d", "0"))
    other.send(b"error unmatched\n")
    wait_records(log_of(station, "other"), [b"error unmatched\n"])
    box.send(b"error matched\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", 100, "error matched\n")]
    said = station.log_text()
    assert "LoadEventFile" not in said and "not found for console" not in said


# Reading the files again


def test_pipes_and_devices_that_a_reload_finds_hold_up_nothing(station, collector, waker):
    write_events(station, "set", ANY_ERROR)
    box = watched(station)
    bring_up(station, box, waker)
    endless_entries(station)
    with open(station.events / "a-pipe", "r+b", buffering=0) as writer:
        writer.write(ANY_ERROR.encode())
        position = reload_awake(station, waker)
    assert "LoadEventFile() failed" not in station.log_text(position)
    box.send(b"error matched\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", 100, "error matched\n")]


def test_a_reload_replaces_the_sets(station, collector, waker):
    write_events(station, "old", "a 1 0 error\n")
    box = watched(station, event_file="old")
    bring_up(station, box, waker)
    box.send(b"error one\n")
    collector.accept().wait_events(1)
    (station.events / "old").rename(station.events / "new")
    write_events(station, "new", "a 2 0 fault\n")
    station.write_config(console_line("box", box.port, events=1, event_file="new")
                         + console_line("waker", waker.port, logging=0))
    reload_awake(station, waker)
    box.send(b"error two\nfault three\n")
    assert said_by(collector.wait_events(2)) == [event("box", 1, "error one\n"),
                                                 event("box", 2, "fault three\n")]


def test_a_failed_reload_skips_the_configuration_and_leaves_no_sets(station, collector, waker):
    write_events(station, "set", ANY_ERROR)
    box = watched(station)
    bring_up(station, box, waker)
    box.send(b"error one\n")
    collector.accept().wait_events(1)

    broken = station.events / "broken"
    other = station.console("other", greeting=b"up\n")
    reported = broken_link(station)
    position = reload_awake(station, waker)
    said = messages(station.log_text(position))
    assert in_order([*reported, "ReloadEventFiles: LoadEventFiles() failed.\n",
                     "MonitorConsoleOutput: ReloadEventFiles() failed.\n"], said)
    assert "Entering ReloadConfigFile\n" not in said
    print_and_wait(station, box, b"error unmatched\n")
    assert not other.called()

    broken.unlink()
    reload_awake(station, waker)
    other.accept()
    box.send(b"error two\n")
    assert said_by(collector.wait_events(3)) == [
        event("box", 100, "error one\n"), daemon_event("Warning: bad event file", 500),
        event("box", 100, "error two\n")]


def test_a_reload_without_the_directory_fails(station, collector, waker):
    write_events(station, "set", ANY_ERROR)
    box = watched(station)
    bring_up(station, box, waker)
    (station.events / "set").unlink()
    station.events.rmdir()
    position = reload_awake(station, waker)
    assert in_order(
        [f"LoadEventFiles: opendir( {station.events} ) failed: No such file or directory\n",
         "ReloadEventFiles: LoadEventFiles() failed.\n",
         "MonitorConsoleOutput: ReloadEventFiles() failed.\n"],
        messages(station.log_text(position)))
    assert said_by(collector.accept().wait_events(1)) == [
        daemon_event("events directory not found", 700)]
    print_and_wait(station, box, b"error unmatched\n")
    station.events.mkdir()
    write_events(station, "set", ANY_ERROR)
    reload_awake(station, waker)
    box.send(b"error matched\n")
    assert said_by(collector.wait_events(2))[1:] == [event("box", 100, "error matched\n")]


# Names


def test_a_name_with_dashes_is_changed_for_good(station, collector):
    write_events(station, "set", ANY_ERROR)
    box = watched(station, "sys-a-1")
    bring_up(station, box)
    box.send(b"all is well\nerror\n")
    assert said_by(collector.accept().wait_events(1)) == [event("sys_a_1", 100, "error\n")]
    wait_until(lambda: len(consolidated_records(consolidated(station))) == 2)
    assert consolidated_records(consolidated(station)) == [("sys-a-1", b"all is well\n"),
                                                           ("sys_a_1", b"error\n")]
    refused(station, "sys-a-1", NOT_FOUND)
    user = station.attach("sys_a_1", user="ann")
    tool = Tool(station)
    assert [record[0] for record in tool.command("console").records] == ["sys_a_1"]
    assert [record[0] for record in tool.command("who sys_a_1").records] == ["ann"]
    assert tool.command("who sys-a-1").records == ()
    box.send(b"seen")
    user.expect(b"seen")
    user.close()
    station.wait_log(removal("ann", "sys_a_1"))
    # The log that is open keeps its name.
    print_and_wait(station, box, b" and on\n")
    wait_records(log_of(station, "sys-a-1"), [b"all is well\n", b"error\n", b"seen and on\n"])


def test_the_next_log_has_the_changed_name(station, collector):
    write_events(station, "set", ANY_ERROR)
    box = watched(station, "sys-a-1")
    bring_up(station, box, options=("-d", "1", "-a", "0d"))
    box.send(b"error\n")
    collector.accept().wait_events(1)
    position = station.mark()
    station.wait_log(ARCHIVING, after=position)
    box.send(b"later\n")
    wait_until(lambda: all_records(station, "sys_a_1"), what="the record")
    assert all_records(station, "sys_a_1") == [b"later\n"]


def test_a_reload_gives_a_changed_name_back(station, collector, waker):
    write_events(station, "set", ANY_ERROR)
    box = watched(station, "sys-a-1")
    bring_up(station, box, waker)
    box.send(b"error\n")
    collector.accept().wait_events(1)
    reload_awake(station, waker)
    refused(station, "sys_a_1", NOT_FOUND)
    station.attach("sys-a-1")


def test_without_an_event_manager_a_name_keeps_its_dashes(station):
    write_events(station, "set", ANY_ERROR)
    box = watched(station, "sys-a-1")
    bring_up(station, box)
    station.wait_connected("sys-a-1")
    print_and_wait(station, box, b"error\n")
    wait_until(lambda: read(consolidated(station)), what="the record")
    assert consolidated_records(consolidated(station)) == [("sys-a-1", b"error\n")]
    station.attach("sys-a-1")


# An event manager that fails


def test_a_missing_event_manager_is_reported_once(station):
    write_events(station, "set", ANY_ERROR)
    box = watched(station)
    bring_up(station, box, options=("-d", "1"))
    box.send(b"error 1\nerror 2\nerror 3\n")
    wait_records(log_of(station, "box"), [b"error 1\n", b"error 2\n", b"error 3\n"])
    said = messages(station.log_text())
    about_it = [text for text in said if "Jix" in text]
    assert about_it == [CANNOT_CONNECT + "\n", WITHOUT + "\n"]
    assert len([text for text in said if "Matched pattern" in text]) == 3


def test_a_late_event_manager_gets_the_next_event(station):
    write_events(station, "set", ANY_ERROR)
    box = watched(station)
    bring_up(station, box, options=("-d", "0"))
    box.send(b"error lost\n")
    wait_records(log_of(station, "box"), [b"error lost\n"])
    with Collector(station) as collector:
        box.send(b"error kept\n")
        assert said_by(collector.accept().wait_events(1)) == [event("box", 100, "error kept\n")]
        station.wait_log(ESTABLISHED_AGAIN)
    assert station.log_text().count(WITHOUT) == 1


def test_a_restart_between_two_posts_loses_nothing(station, collector):
    write_events(station, "set", ANY_ERROR)
    box = watched(station)
    bring_up(station, box, options=("-d", "1"))
    box.send(b"error one\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", 100, "error one\n")]
    collector.shut()
    collector.listen()
    box.send(b"error two\nerror three\n")
    assert said_by(collector.accept().wait_events(2)) == [event("box", 100, "error two\n"),
                                                         event("box", 100, "error three\n")]
    said = [text for text in messages(station.log_text()) if "Jix" in text]
    assert said == [ESTABLISHED + "\n"] or said == [ESTABLISHED + "\n"] * 2
    assert ESTABLISHED_AGAIN not in station.log_text()


def test_a_restart_that_loses_events_is_reported(station, collector):
    write_events(station, "set", ANY_ERROR)
    box = watched(station)
    bring_up(station, box, options=("-d", "0"))
    box.send(b"error one\n")
    collector.accept().wait_events(1)
    collector.shut()
    box.send(b"error lost\n")
    wait_records(log_of(station, "box"), [b"error one\n", b"error lost\n"])
    box.send(b"error lost too\n")
    wait_records(log_of(station, "box"), [b"error one\n", b"error lost\n", b"error lost too\n"])
    collector.listen()
    box.send(b"error two\n")
    assert said_by(collector.accept().wait_events(1)) == [event("box", 100, "error two\n")]
    station.wait_log(ESTABLISHED_AGAIN)
    assert [text for text in messages(station.log_text()) if "Jix" in text] == [
        CANNOT_CONNECT + "\n", WITHOUT + "\n", LOST + "\n", ESTABLISHED_AGAIN + "\n"]


def test_an_event_manager_that_stops_reading_stops_nothing(station, collector):
    write_events(station, "set", ANY_ERROR)
    box, other = watched(station), station.console("other")
    bring_up(station, box, other, options=("-d", "1"))
    user = station.attach("other")
    collector.accept().stop_reading()
    lines = [b"error number %05d\n" % number for number in range(20000)]
    flood = box.flood(b"".join(lines), 1)
    station.wait_log(BUSY, limit=30)
    for key in (b"a", b"b", b"c"):
        assert echo_time(user, other, key, limit=5) < stretched(1)
    flood.join(limit=30)
    wait_until(lambda: records(log_of(station, "box"))[-1:] == lines[-1:], 30, "the last line")
    assert records(log_of(station, "box")) == lines
    # Events that could not be posted are lost; all others are whole, and new ones arrive.
    collector.read_again()

    def heard_again() -> bool:
        box.send(b"error at the end\n")
        return b"error at the end" in collector.received

    wait_until(heard_again, 30, "the last event")
    arrived = [entry["vars"]["message"].encode() for entry in collector.events()]
    before = [line for line in arrived if line != b"error at the end\n"]
    assert 100 < len(before) < len(lines)
    assert before == sorted(set(before)) and set(before) <= set(lines)


@contextlib.contextmanager
def read_slowly(collector, pause: float = 0.03):
    """Have the event manager pause after every event; yields the number of events read."""
    count = [0]
    stop = threading.Event()
    lines = collector.socket.makefile("rb", buffering=0)

    def read_events() -> None:
        while not stop.wait(pause) and lines.readline():
            count[0] += 1

    collector.stop_reading()
    reader = threading.Thread(target=read_events, daemon=True)
    reader.start()
    try:
        yield count
    finally:
        stop.set()
        reader.join()
        lines.close()


def test_an_event_manager_that_reads_slowly_does_not_set_the_pace(station, collector):
    write_events(station, "set", ANY_ERROR)
    boxes = [watched(station, f"box{number}") for number in range(4)]
    other = station.console("other")
    bring_up(station, *boxes, other, options=("-d", "1"))
    user = station.attach("other")
    with read_slowly(collector.accept()) as read:
        for box in boxes:
            box.flood(b"".join(b"error number %05d\n" % number for number in range(20000)), 1000)
        station.wait_log(BUSY, limit=30)
        begin = read[0]
        wait_until(lambda: read[0] > begin + 10, what="the event manager to read on")
        for key in (b"a", b"b", b"c", b"d", b"e"):
            assert echo_time(user, other, key, limit=30) < stretched(1)
        assert read[0] > begin + 10


def test_an_event_manager_that_dies_while_events_come_stops_nothing(station, collector):
    write_events(station, "set", ANY_ERROR)
    box = watched(station)
    bring_up(station, box, options=("-d", "0"))
    lines = [b"error number %06d\n" % number for number in range(100_000)]
    flood = box.flood(b"".join(lines), 1)
    lives = []
    for _ in range(20):
        collector.accept()
        wait_until(lambda: len(collector.received) > 2000, what="some events")
        collector.close()
        lives.append(collector.events())
    collector.accept()
    flood.join(limit=30)
    wait_until(lambda: records(log_of(station, "box"))[-1:] == lines[-1:], 30, "the last line")
    assert records(log_of(station, "box")) == lines
    box.send(b"error at the end\n")
    wait_until(lambda: b"error at the end" in collector.received, what="the last event")
    lives.append(collector.events())
    # Events that a manager takes with it are not sent again: none comes twice, all are in order.
    arrived = [entry["vars"]["message"].encode() for events in lives for entry in events]
    assert all(lives) and arrived.pop() == b"error at the end\n"
    assert arrived == sorted(set(arrived)) and set(arrived) <= set(lines)


def test_an_event_manager_that_ends_stops_nothing(station, collector):
    write_events(station, "set", ANY_ERROR)
    box = watched(station)
    bring_up(station, box, options=("-d", "0"))
    collector.accept().stop_reading()
    lines = [b"error number %05d\n" % number for number in range(5000)]
    flood = box.flood(b"".join(lines), 1)
    wait_until(lambda: BUSY in station.log_text() or not flood.running, 30, "the stall")
    collector.shut()
    flood.join(limit=30)
    wait_until(lambda: records(log_of(station, "box"))[-1:] == lines[-1:], 30, "the last line")
    assert records(log_of(station, "box")) == lines


def test_a_file_in_place_of_the_socket_is_left_alone(station):
    run = station.root / "run"
    run.mkdir()
    (run / "jix.sock").write_text("no socket\n")
    write_events(station, "set", ANY_ERROR)
    box = watched(station)
    bring_up(station, box, options=("-d", "0"))
    box.send(b"error\n")
    wait_records(log_of(station, "box"), [b"error\n"])
    assert messages(station.log_text())[:2] == [CANNOT_CONNECT + "\n", WITHOUT + "\n"]
    assert stat.S_ISREG((run / "jix.sock").stat().st_mode)


def test_many_events_arrive_complete_and_in_order(station, collector):
    write_events(station, "set", ANY_ERROR)
    names = [f"c{number}" for number in range(10)]
    consoles = [watched(station, name) for name in names]
    bring_up(station, *consoles, options=("-d", "0"))
    collector.accept()
    for number in range(100):
        for console in consoles:
            console.send(b"error %d\n" % number)
    found = collector.wait_events(1000, limit=30)
    for name in names:
        of_one = [entry["vars"]["message"] for entry in found if entry["vars"]["name"] == name]
        assert of_one == [f"error {number}\n" for number in range(100)]


# Real event managers


@pytest.mark.parametrize("program", [rsyslog, socat])
def test_a_real_collector_receives_the_events(station, tmp_path, program):
    write_events(station, "set", "a 100 0 error\nb 7 0 warning\n")
    box = watched(station, "sys-1")
    texts = ['say "error" \\', "error \x1b[31m déjà vu", "warning # %s"]
    with program(station, tmp_path) as collector:
        bring_up(station, box, options=("-d", "0"))
        for text in texts:
            box.send(text.encode() + b"\n")
        box.send(b"error \xfe\n")
        wait_until(lambda: len(collector.events()) >= 4, what="the events")
        found = collector.events()
        assert said_by(found) == [
            event("sys_1", 100, texts[0] + "\n"), event("sys_1", 100, texts[1] + "\n"),
            event("sys_1", 7, texts[2] + "\n"), event("sys_1", 100, "error \ufffd\n")]
        assert {entry["host"] for entry in found} == {socket.gethostname()}


@pytest.mark.parametrize("program", [rsyslog, socat])
def test_a_real_collector_may_restart(station, tmp_path, program):
    write_events(station, "set", ANY_ERROR)
    box = watched(station)
    with program(station, tmp_path) as collector:
        bring_up(station, box, options=("-d", "0"))
        box.send(b"error one\n")
        wait_until(lambda: len(collector.events()) == 1, what="the first event")
    with program(station, tmp_path) as collector:
        box.send(b"error two\n")
        wait_until(lambda: len(collector.events()) == 2, what="the second event")
        assert said_by(collector.events()) == [event("box", 100, "error one\n"),
                                               event("box", 100, "error two\n")]
