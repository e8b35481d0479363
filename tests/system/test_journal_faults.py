"""The journal where something goes wrong: kills, torn ends, full disks, clocks that step."""

import itertools
import os
import re
import shutil
import signal
import subprocess
import threading
import time

import pytest

from harness import journals
from harness.access import READY, bring_up, seeded
from harness.clock import ShiftedClock
from harness.commands import Tool
from harness.isolation import mount_tmpfs, unmount
from harness.journals import begin, configure, finish, wait_for, wait_output
from harness.scenes import echo_time, numbered, print_and_wait
from harness.waiting import LIMIT, wait_until
from journal_reader import read_journal, read_segment, segment_files
from journal_writer import Field, JournalWriter, Kind, segment_header

STOPS = "The journal stops until that succeeds."
SECOND = 10**9


def kill(station) -> None:
    """End the daemon at once, and let the test go on without it."""
    os.kill(station.pid, signal.SIGKILL)
    station.expect_exit(-signal.SIGKILL)


def restart(station, *consoles) -> None:
    """Start the daemon once more and wait for its journal."""
    runs = len(journals.now(station).segments) + 1
    bring_up(station, *consoles)
    wait_until(lambda: len(segment_files(journals.directory(station))) == runs,
               what="the next segment")


def stats(station) -> dict:
    """What "stats" says."""
    told, = Tool(station).objects("stats")
    return told


# Kills


def test_what_a_kill_leaves_is_what_the_console_printed(station):
    console = station.console("box")
    configure(station, "ZEVD_JOURNAL=100")
    chance = seeded()
    sent = []
    for _ in range(4):
        bring_up(station, console, options=("-d", "3"))
        position = len(console.received)
        flood = console.flood(numbered(500), 2000)
        wait_until(lambda: journals.exists(station)
                   and b"quick" in journals.now(station).segments[-1].path.read_bytes(),
                   what="output in the new segment")
        time.sleep(chance.random() / 4)  # the moment is what this test is about
        kill(station)
        flood.stop()
        sent.append(position)
    bring_up(station, console)
    wait_for(station, Kind.STARTED, count=5)
    journal = finish(station)
    printed = READY + numbered(500) * 2000
    for segment in journal.segments[:4]:
        # On a busy machine the flood may be too much for the queue: it is whole up to there.
        whole = list(itertools.takewhile(lambda record: record.kind != Kind.GAP, segment.records))
        kept = b"".join(record.payload for record in whole if record.kind == Kind.OUTPUT)
        same = len(os.path.commonprefix((kept, printed)))
        assert kept and same == len(kept), (segment.path, same, kept[same:same + 100])


def test_a_torn_end_is_cut_off_and_told(station):
    console = station.console("box")
    begin(station, console)
    console.send(b"last words")
    wait_output(station, "box", b"last words")
    kill(station)
    path = segment_files(journals.directory(station))[0]
    whole = path.stat().st_size
    os.truncate(path, whole - 3)
    length = 40 + len(b"last words")
    kept = read_segment(path).records
    torn = len(read_segment(path).torn)
    assert torn == length - 3
    restart(station, console)
    station.wait_log(f"Journal: {path} ended within a record: {torn} bytes were cut off.")
    journal = finish(station)
    assert path.stat().st_size == whole - length
    assert len(journal.segments[0].records) == len(kept)
    assert journal.values(Kind.TORN) == [{Field.SEGMENT: 1, Field.BYTES: torn}]


def test_damage_in_the_middle_is_left_to_readers(station):
    console = station.console("box")
    begin(station, console)
    wait_output(station, "box", READY)
    kill(station)
    path = segment_files(journals.directory(station))[0]
    data = bytearray(path.read_bytes())
    data[130] ^= 1
    path.write_bytes(data)
    last = len(read_segment(path).records)
    assert last < 3
    bring_up(station, console)
    wait_until(lambda: len(segment_files(journals.directory(station))) == 2, what="a segment")
    second = segment_files(journals.directory(station))[1]
    wait_until(lambda: read_segment(second).records, what="records")
    assert path.read_bytes() == data
    assert Kind.TORN not in {record.kind for record in read_segment(second).records}


@pytest.mark.parametrize("make", ["version", "station", "foreign", "empty"])
def test_foreign_segments_are_left_alone(station, make):
    directory = journals.directory(station)
    with JournalWriter(directory) as journal:
        journal.console("old")
    path = directory / "00000000000000000007.seg"
    header = {"version": segment_header(journal.station, 7, 1, 1, 1, 1, version=2),
              "station": segment_header(journal.station + 1, 7, 1, 1, 1, 1),
              "foreign": b"a" * 100, "empty": b""}[make]
    path.write_bytes(header + b"tail")
    console = station.console("box")
    begin(station, console)
    station.wait_log(f"Journal: {path} is no segment of this journal and is left alone.")
    wait_until((directory / "00000000000000000008.seg").exists, what="the next segment")
    station.stop()
    assert path.read_bytes() == header + b"tail"
    segment = read_segment(directory / "00000000000000000008.seg")
    assert segment.station == journal.station
    assert segment.first_record == 2, "the number goes on behind the segments of this journal"


def test_an_ordinary_end_loses_nothing(station):
    console = station.console("box")
    begin(station, console)
    text = numbered(20000)
    user = station.attach("box")
    threading.Thread(target=console.send, args=(text,), daemon=True).start()
    user.expect(text[-80:], 3 * LIMIT)
    journal = finish(station)
    assert journal.output("box") == READY + text
    assert journal.records[-1].kind == Kind.STOPPED


# Disks


def begin_on_small_disk(station, mebibytes: int):
    """Start a daemon whose journal has 64 KiB left on a disk of its own; returns its console."""
    directory = journals.directory(station)
    directory.mkdir(mode=0o750)
    mount_tmpfs(directory, size=f"{mebibytes}m", mode="0750")
    console = station.console("box")
    begin(station, console)
    wait_output(station, "box", READY)
    (directory / "filler").write_bytes(b"x" * ((mebibytes << 20) - (64 << 10)))
    return console


@pytest.mark.needs_namespace
def test_a_full_disk_stops_the_journal_and_nothing_else(station):
    directory = journals.directory(station)
    console = begin_on_small_disk(station, 2)
    text = numbered(12 * 1024 * 1024 // 40)
    flood = threading.Thread(target=console.send, args=(text,), daemon=True)
    user = station.attach("box", user="anna")
    flood.start()
    station.wait_log(f"Journal: write failed : No space left on device. {STOPS}")
    assert stats(station)["journal"] == "stopped"
    flood.join()
    user.expect(text[-80:], 3 * LIMIT)
    assert echo_time(user, console, b"k", LIMIT) < LIMIT
    size = segment_files(directory)[0].stat().st_size
    assert size < 2 * 1024 * 1024
    subprocess.run(["mount", "-o", "remount,size=64m", directory], check=True)
    station.wait_log(re.compile(r"^Journal: The journal goes on: \d+ records were lost\.$"))
    gap, *others = wait_for(station, Kind.GAP)
    print_and_wait(station, console, b"after")
    journal = wait_output(station, "box", b"after", 3 * LIMIT)
    told = stats(station)
    assert told["journal"] == "on"
    assert told["journal_records_lost"] == sum(record.values[Field.COUNT]
                                               for record in journal.of(Kind.GAP))
    assert told["journal_gaps"] == len(journal.of(Kind.GAP))
    assert gap.values[Field.REASON] == "No space left on device"
    assert gap.values[Field.BEGIN] <= gap.values[Field.END] <= gap.wall
    station.stop()
    kept = journal.output("box")
    before = b"".join(record.payload for record in journal.of(Kind.OUTPUT, "box")
                      if record.number < gap.number)
    assert (READY + text).startswith(before), "what waited is there to the last byte"
    assert len(before) > 6 * 1024 * 1024
    assert kept.endswith(b"<k>after")
    unmount(directory)


def begin_on_full_disk(station) -> int:
    """Start a daemon whose journal cannot be written any more; the size of its only segment."""
    begin_on_small_disk(station, 1).send(numbered(8000))
    station.wait_log(f"Journal: write failed : No space left on device. {STOPS}")
    return segment_files(journals.directory(station))[0].stat().st_size


def test_what_waited_on_a_full_disk_is_told_when_the_journal_is_switched_on_again(station):
    begin_on_full_disk(station)
    directory = journals.directory(station)
    journals.change(station, "ZEVD_JOURNAL=0")
    wait_until(lambda: stats(station)["journal_records_lost"] > 0, what="the loss in the numbers")
    subprocess.run(["mount", "-o", "remount,size=64m", directory], check=True)
    journals.change(station, "ZEVD_JOURNAL=100")
    wait_for(station, Kind.STARTED, count=2)
    journal = finish(station)
    gap, = journal.of(Kind.GAP)
    again = journal.of(Kind.STARTED)[1]
    assert gap.number < again.number
    assert gap.values[Field.COUNT] > 0
    assert gap.values[Field.REASON] == "No space left on device"
    assert gap.values[Field.BEGIN] <= gap.values[Field.END] <= gap.wall
    unmount(directory)


def test_the_end_tells_what_a_full_disk_has_kept_from_the_journal(station):
    size = begin_on_full_disk(station)
    station.stop()
    assert re.search(r"Journal: The journal ends without \d+ records that were lost\.\n",
                     station.log_text())
    segment, = segment_files(journals.directory(station))
    assert segment.stat().st_size == size
    unmount(journals.directory(station))


def test_a_directory_that_is_removed_is_made_anew(station):
    console = station.console("box")
    begin(station, console)
    wait_output(station, "box", READY)
    before = journals.now(station).station
    shutil.rmtree(journals.directory(station))
    print_and_wait(station, console, b"again")
    wait_output(station, "box", b"again")
    assert journals.now(station).station != before


# Clocks


@pytest.mark.parametrize("step", [5, -5, -4_000_000_000])
def test_a_clock_that_is_set_is_told(station, tmp_path, step):
    clock = ShiftedClock(tmp_path)
    console = station.console("box")
    begin(station, console, env=clock.env)
    wait_output(station, "box", READY)
    clock.shift(step)
    print_and_wait(station, console, b"later")
    journal = wait_output(station, "box", b"later")
    told, = journal.values(Kind.CLOCK_STEP)
    assert abs(told[Field.END] - told[Field.BEGIN] - step * SECOND) < SECOND // 10
    last = journal.of(Kind.OUTPUT, "box")[-1]
    assert abs(last.wall - told[Field.END]) < 60 * SECOND
    assert (last.wall < 0) == (step < -10**9), "a clock before 1970"
    monotonic = [record.monotonic for record in journal.records]
    assert monotonic == sorted(monotonic)
    clock.shift(0)
    print_and_wait(station, console, b"back")
    wait_output(station, "box", b"back")
    assert len(finish(station).of(Kind.CLOCK_STEP)) == 2


# Segments


def test_a_segment_ends_when_it_is_full(station):
    console = station.console("box")
    configure(station, "ZEVD_JOURNAL=100")
    station.start("-d", "0")
    console.accept()
    block = numbered((1 << 20) // 40)

    def print_more() -> list:
        console.flood(block, 4).join(LIMIT)
        return segment_files(journals.directory(station))[1:]

    files = wait_until(print_more, 3 * LIMIT, "a second segment")
    first = segment_files(journals.directory(station))[0]
    assert (64 << 20) - (600 << 10) < first.stat().st_size <= 64 << 20
    data = files[0].read_bytes()[:4096]
    assert data[48:56] == first.read_bytes()[48:56], "the same run"
