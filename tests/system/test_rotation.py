"""Dated log directories: when a new one is begun, and that nothing is lost or torn then."""

import os
import random
import re
import shutil
import signal
import subprocess
import time
from datetime import datetime
from pathlib import Path

import pytest

from harness.clock import ShiftedClock
# `box` and `waker` are fixtures.
from harness.logs import (ARCHIVING, add_waker, age_directory, all_consolidated_records,
                          all_records, box, bring_up, consolidated, consolidated_records, current,
                          dated, difference, directories, log_of, of_console, read, records,
                          rotate, set_interval, wait_awake, wait_records, waker)
from harness.scenes import disable_and_enable, numbered, print_and_wait, reload
from harness.station import console_line
from harness.waiting import wait_until


def minute() -> str:
    """The name of a directory that is made now."""
    return datetime.now().strftime("%d-%b-%H:%M")


def output_of(found: list[bytes]) -> bytes:
    """A console's output, from the records of its logs.

    A line that was cut by a rotation is a record without a line end, and an empty one after it.
    """
    printed, cut = [], False
    for record in found:
        if cut:
            assert record == b"\n", f"{record!r} follows a line that was cut"
        else:
            printed.append(record)
        cut = not record.endswith(b"\n")
    assert not cut
    return b"".join(printed)


def end_of_output(station, *boxes, after: bytes) -> bytes:
    """Wait for the logs to hold all that was printed, and return it.

    Once they hold most of it the rotations are stopped, so that the last line is a whole record.
    """
    def amount(box) -> int:
        return sum(len(record) for record in all_records(station, box.name))

    expected = after.replace(b"\r", b"")
    for box in boxes:
        wait_until(lambda: amount(box) > 0.9 * len(expected), 60, f"the output of {box.name}")
    (station.config / "qor.conf").write_text("ZEVD_ARCH_INT=7\n")
    reload(station)
    for box in boxes:
        box.send(b"end\n")
        wait_until(lambda: all_records(station, box.name)[-1:] == [b"end\n"], 60, "the end")
        wait_until(lambda: of_console(all_consolidated_records(station), box.name)[-1:] == [
            b"end\n"], 60, "the end in the consolidated log")
    return expected + b"end\n"


# The layout


def test_the_first_log_creates_the_directories(station):
    before = minute()
    station.start()
    wait_until(consolidated(station).exists, what="the consolidated log")
    made, = directories(station)
    assert made.name in {before, minute()}
    assert os.readlink(current(station)) == f"{station.logs}//zev.dated/{made.name}"
    assert sorted(path.name for path in current(station).iterdir()) == ["consolidated.log"]


def test_without_its_log_directory_it_runs_but_logs_nothing(station):
    shutil.rmtree(station.logs)
    box = station.console("box", greeting=b"up\n")
    station.start()
    box.accept()
    station.wait_log(f"CreateZevDatedDir: mkdir( {station.logs}//zev.dated, ...) failed : "
                     "No such file or directory", count=2)
    station.wait_log("WriteLogFile: Log file for box has not been opened.")
    user = station.attach("box")
    box.send(b"served all the same")
    user.expect(b"served all the same")


# Rotation


def test_a_rotation_begins_a_new_directory_and_leaves_the_old_one(station, box, waker):
    print_and_wait(station, box, b"old\n")
    old = age_directory(station)
    before = minute()
    rotate(station, waker)
    print_and_wait(station, box, b"new\n")
    wait_records(log_of(station, "box"), [b"new\n"])
    assert current(station).resolve().name in {before, minute()}
    assert records(old / "box.log") == [b"old\n"]
    assert consolidated_records(old / "consolidated.log") == [("box", b"old\n")]
    wait_until(lambda: read(consolidated(station)), what="the consolidated record")
    assert consolidated_records(consolidated(station)) == [("box", b"new\n")]


def test_rotations_within_a_minute_use_one_directory(station, box, waker):
    before = datetime.now().replace(second=0, microsecond=0)
    expected = []
    for number in range(3):
        line = b"line %d\n" % number
        print_and_wait(station, box, line)
        expected.append(line)
        rotate(station, waker)
    minutes = {datetime.fromtimestamp(before.timestamp() + 60 * passed).strftime("%d-%b-%H:%M")
               for passed in range(int((datetime.now() - before).total_seconds()) // 60 + 1)}
    assert {made.name for made in directories(station)} <= minutes
    assert all_records(station, "box") == expected


def test_an_unfinished_line_is_cut(station, box, waker):
    print_and_wait(station, box, b"done\nbegun")
    wait_records(log_of(station, "box"), [b"done\n"])
    old = age_directory(station)
    rotate(station, waker)
    print_and_wait(station, box, b" and ended\n")
    wait_records(log_of(station, "box"), [b" and ended\n"])
    assert records(old / "box.log") == [b"done\n", b"begun", b"\n"]
    assert of_console(consolidated_records(old / "consolidated.log"), "box") == [
        b"done\n", b"begun", b"\n"]


def test_users_do_not_notice(station, box, waker):
    user = station.attach("box")
    box.send(b"before ")
    user.expect(b"before ")
    rotate(station, waker)
    box.send(b"after\n")
    user.expect_exactly(b"after\n")
    user.send(b"typed")
    box.expect(b"typed")


def test_consoles_that_are_not_connected_have_no_log_in_the_new_directory(station, box, waker):
    off = station.console("off", enable=0)
    reload(station)
    age_directory(station)
    rotate(station, waker)
    assert sorted(path.name for path in current(station).iterdir()) == [
        "box.log", "consolidated.log", "waker.log"]
    station.write_config(console_line("off", off.port))
    off.greeting = b"up\n"
    reload(station)
    off.accept()
    wait_records(log_of(station, "off"), [b"up\n"])


def test_every_line_is_whole_however_often_the_directory_changes(station):
    box = station.console("box")
    bring_up(station, box, options=("-d", "1", "-a", "0d"))
    lines = [b"line %d of many\n" % number for number in range(200)]
    for number, line in enumerate(lines, start=1):
        position = station.mark()
        box.send(line)
        station.wait_log(ARCHIVING, after=position)
        wait_until(lambda: len(all_records(station, "box")) >= number, what=f"line {number}")
    assert all_records(station, "box") == lines
    wait_until(lambda: len(all_consolidated_records(station)) >= len(lines), what="the records")
    assert all_consolidated_records(station) == [("box", line) for line in lines]


def test_nothing_is_lost_under_load_however_often_the_directory_changes(station):
    boxes = [station.console(name) for name in ("box", "other")]
    bring_up(station, *boxes, options=("-d", "1", "-a", "0d"))
    printed = numbered(200_000)  # many passes, and in each many records that are written together
    position = station.mark()
    for flood in [box.flood(printed, 1) for box in boxes]:
        flood.join(limit=60)
    expected = end_of_output(station, *boxes, after=printed)
    assert station.log_text(position).count(ARCHIVING) > 10
    for name in ("box", "other"):
        for found in (all_records(station, name),
                      of_console(all_consolidated_records(station), name)):
            assert output_of(found) == expected, difference(
                found, expected.splitlines(keepends=True))


def test_consoles_that_connect_during_a_change_get_their_log(station):
    waker = add_waker(station)
    # Only a few at a time, so that a change of directories takes no longer than opening a log.
    groups = [[station.console("unnamed", greeting=b"up\n") for _ in range(10)] for _ in range(2)]
    station.write_config(console_line("waker", waker.port, logging=0))
    station.start("-d", "1", "-a", "0d")
    waker.accept()
    waker.flood(b"." * 1024, 1_000_000)
    for turn in range(100):
        coming, going = groups[turn % 2], groups[1 - turn % 2]
        names = {f"turn{turn}-{number}": box for number, box in enumerate(coming)}
        station.write_config(console_line("waker", waker.port, logging=0) + "".join(
            console_line(name, box.port) for name, box in names.items()))
        station.signal(signal.SIGHUP)
        for box in coming:
            box.accept()
        for name in names:
            wait_until(lambda: all_records(station, name) == [b"up\n"], what=f"the log of {name}")
        wait_until(lambda: turn == 0 or all(box.closed for box in going),
                   what="the consoles before to be given up")
    said = station.log_text()
    assert said.count(ARCHIVING) > 200
    assert "has not been opened" not in said and "failed : No such" not in said


def test_nothing_is_lost_while_directories_and_names_change_under_load(station):
    (station.config / "qor.conf").write_text("ZEVD_ARCH_INT=0\n")
    box, other = station.console("box"), station.console("other")
    bring_up(station, box, other, options=("-d", "1"))
    begin = station.mark()
    names = [f"other{turn}" for turn in range(1, 151)]
    for turn, name in enumerate(names):
        flood = box.flood(numbered(500, start=500 * turn), 1)
        station.write_config(console_line("box", box.port) + console_line(name, other.port))
        reload(station)
        other.send(b"this is %s\n" % name.encode())
        flood.join()
    expected = end_of_output(station, box, after=numbered(500 * len(names)))
    assert not box.called() and not other.called()
    assert station.log_text(begin).count(ARCHIVING) > len(names)
    for found in (all_records(station, "box"),
                  of_console(all_consolidated_records(station), "box")):
        assert output_of(found) == expected, difference(found, expected.splitlines(keepends=True))
    # A log follows its console's name as long as its directory is in use.
    wait_until(lambda: sorted(
        record for name in ["other", *names] for record in all_records(station, name)) == sorted(
            b"this is %s\n" % name.encode() for name in names), what="the other console's lines")


# The link


def test_a_link_whose_target_is_gone_is_replaced_at_the_start(station):
    dated(station).mkdir()
    current(station).symlink_to(dated(station) / "gone")
    box = station.console("box")
    bring_up(station, box)
    box.send(b"logged\n")
    wait_records(log_of(station, "box"), [b"logged\n"])
    assert not (dated(station) / "gone").exists() and len(directories(station)) == 1


def test_a_deleted_target_is_created_again_when_a_log_is_opened(station, box):
    shutil.rmtree(current(station).resolve())
    print_and_wait(station, box, b"lost\n")
    assert not current(station).exists()
    box.greeting = b"kept\n"
    disable_and_enable(station, box)
    wait_records(log_of(station, "box"), [b"kept\n"])


def test_a_missing_link_is_reported(station, box):
    position = station.mark()
    print_and_wait(station, box, b"before\n")
    current(station).unlink()
    set_interval(station, 0)
    station.wait_log("RemoveSymlinkToCurrDir: unlink() failed : No such file or directory",
                     after=position)
    print_and_wait(station, box, b"after\n")
    wait_until(lambda: b"after\n" in read(log_of(station, "box")), what="the record")


# The age


def wait_looked(station, waker) -> None:
    """Wait until the daemon has checked the directory's age against the current time."""
    wait_awake(station, waker, "Entering LogDirExpired", after=station.mark(), count=2)


def test_a_restart_does_not_begin_a_new_period(station, waker, tmp_path):
    clock = ShiftedClock(tmp_path)
    station.start("-a", "60m", env=clock.env)
    waker.accept()
    directory = age_directory(station)
    station.stop()
    clock.shift(50 * 60)
    position = station.mark()
    station.start("-a", "60m", env=clock.env)
    waker.accept()
    wait_looked(station, waker)
    assert ARCHIVING not in station.log_text(position)
    assert current(station).resolve() == directory
    clock.shift(61 * 60)
    wait_awake(station, waker, ARCHIVING, after=position)
    wait_until(lambda: len(directories(station)) == 2, what="the new directory")


def borrowed_directory(station, lead: int) -> tuple[Path, float]:
    """Make an old directory of this machine, read-only, the one in use; return it and its time.

    The age of a directory cannot be set. The chosen one will soon be a whole number of minutes
    old, though not before `lead` seconds from now.
    """
    now = time.time()
    changes = {path: os.stat(path).st_ctime for path in _old_directories(now)}
    chosen = min(changes, key=lambda path: (int(changes[path]) - now - lead) % 60)
    place = dated(station) / "borrowed"
    place.mkdir(parents=True)
    subprocess.run(["mount", "--bind", chosen, place], check=True)
    subprocess.run(["mount", "-o", "remount,bind,ro", place], check=True)
    current(station).symlink_to(place)
    return place, changes[chosen]


def _old_directories(now: float) -> list[str]:
    roots = ["/usr/share", "/usr/lib", "/etc", "/usr/share/doc"]
    found = [entry.path for root in roots for entry in os.scandir(root)
             if entry.is_dir(follow_symlinks=False)]
    old = [path for path in found if now - os.stat(path).st_ctime > 120]
    assert old, "this machine has no directory that is two minutes old"
    return random.sample(old, min(len(old), 2000))


@pytest.mark.needs_namespace
def test_a_directory_that_has_expired_is_archived_at_the_start(station):
    borrowed, changed = borrowed_directory(station, lead=0)
    minutes = int(time.time() - changed) // 60 - 1
    station.start("-a", f"{minutes}m", "-d", "1")
    station.wait_log(ARCHIVING)
    wait_until(consolidated(station).exists, what="the consolidated log")
    assert current(station).resolve() != borrowed
    assert station.log_text().count(ARCHIVING) == 1


@pytest.mark.needs_namespace
def test_a_directory_expires_by_the_second(station):
    borrowed, changed = borrowed_directory(station, lead=4)
    minutes = int(time.time() + 4 - changed) // 60 + 1
    due = int(changed) + 60 * minutes
    while due - 60 >= time.time() + 4:
        minutes, due = minutes - 1, due - 60
    assert time.time() < due - 1
    station.start("-a", f"{minutes}m", "-d", "1")
    found = station.wait_log(ARCHIVING, limit=75)
    archived = time.mktime(time.strptime(found.stamp, "%y/%m/%d_%H:%M:%S"))
    # The daemon checks once per pass, and a pass without output takes two seconds.
    assert due <= archived <= due + 5
    wait_until(lambda: current(station).resolve() != borrowed, what="the new directory")
    refused = re.escape(f'OpenConsolidatedLogFile: open() failed for "{station.logs}//zev.dated/'
                        'current/consolidated.log" : Read-only file system')
    station.wait_log(re.compile(f"^{refused}$"))
