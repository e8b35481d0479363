"""Dated log directories: when a new one is begun, and that nothing is lost or torn just then."""

import os
import random
import re
import shutil
import subprocess
import time
from datetime import datetime
from pathlib import Path

import pytest

from harness.logs import (ARCHIVING, add_waker, age_directory, all_consolidated_records,
                          all_records, bring_up, consolidated, consolidated_records, current,
                          dated, difference, directories, log_of, of_console, read, records,
                          rotate, set_interval, wait_records)
from harness.scenes import numbered, print_and_wait, reload
from harness.station import console_line
from harness.waiting import wait_until


@pytest.fixture
def waker(station):
    """Spares the test the daemon's pauses."""
    return add_waker(station)


@pytest.fixture
def box(station, waker):
    """A console that is connected and whose logs are empty."""
    made = station.console("box")
    bring_up(station, made, waker)
    for name in ("box", "waker"):
        station.wait_connected(name)
    return made


def minute() -> str:
    """How a directory is named that is made now."""
    return datetime.now().strftime("%d-%b-%H:%M")


def output_of(found: list[bytes]) -> bytes:
    """What a console printed, from the records of its logs.

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


# The layout


def test_the_first_log_makes_the_directories(station):
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


def test_a_line_that_has_only_begun_is_cut(station, box, waker):
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
    assert all_consolidated_records(station) == [("box", line) for line in lines]


def test_nothing_is_lost_under_load_however_often_the_directory_changes(station):
    boxes = [station.console(name) for name in ("box", "other")]
    bring_up(station, *boxes, options=("-d", "1", "-a", "0d"))
    printed = numbered(10000)
    position = station.mark()
    for flood in [box.flood(printed, 1) for box in boxes]:
        flood.join(limit=60)
    last = printed.splitlines()[-1]
    expected = printed.replace(b"\r", b"")
    for name in ("box", "other"):
        wait_until(lambda: last in b"".join(all_records(station, name)), 60, "the last line")
        found = all_records(station, name)
        assert output_of(found) == expected, difference(found, expected.splitlines(keepends=True))
    assert station.log_text(position).count(ARCHIVING) > 10
    for name in ("box", "other"):
        found = of_console(all_consolidated_records(station), name)
        assert output_of(found) == expected, difference(found, expected.splitlines(keepends=True))


# The link


def test_a_link_whose_target_is_gone_is_replaced_at_the_start(station):
    dated(station).mkdir()
    current(station).symlink_to(dated(station) / "gone")
    box = station.console("box")
    bring_up(station, box)
    box.send(b"logged\n")
    wait_records(log_of(station, "box"), [b"logged\n"])
    assert not (dated(station) / "gone").exists() and len(directories(station)) == 1


def test_a_target_deleted_under_the_daemon_is_made_again_when_a_log_is_opened(station, box):
    shutil.rmtree(current(station).resolve())
    print_and_wait(station, box, b"lost\n")
    assert not current(station).exists()
    station.write_config(console_line("box", box.port, enable=0))
    reload(station)
    station.write_config(console_line("box", box.port))
    box.greeting = b"kept\n"
    reload(station)
    box.accept()
    wait_records(log_of(station, "box"), [b"kept\n"])


def test_a_link_that_was_removed_costs_a_message(station, box):
    position = station.mark()
    print_and_wait(station, box, b"before\n")
    current(station).unlink()
    set_interval(station, 0)
    station.wait_log("RemoveSymlinkToCurrDir: unlink() failed : No such file or directory",
                     after=position)
    print_and_wait(station, box, b"after\n")
    wait_until(lambda: b"after\n" in read(log_of(station, "box")), what="the record")


# The age


def test_a_restart_does_not_begin_a_new_period(station, box):
    print_and_wait(station, box, b"before\n")
    directory = age_directory(station)
    position = station.mark()
    station.stop()
    station.start("-d", "1")
    box.greeting = b""
    box.accept()
    box.send(b"after\n")
    wait_records(log_of(station, "box"), [b"before\n", b"after\n"])
    assert current(station).resolve() == directory
    assert ARCHIVING not in station.log_text(position)


def borrowed_directory(station, lead: int) -> tuple[Path, float]:
    """Make an old directory of this machine, which cannot be written, the one in use.

    The age of a directory cannot be set. The one that is taken will be a whole number of minutes
    old soon, though at least `lead` seconds from now; returned with the time when it changed.
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
    # The daemon looks once per pass, and a pass without output takes two seconds.
    assert due <= archived <= due + 5
    wait_until(lambda: current(station).resolve() != borrowed, what="the new directory")
    refused = re.escape(f'OpenConsolidatedLogFile: open() failed for "{station.logs}//zev.dated/'
                        'current/consolidated.log" : Read-only file system')
    station.wait_log(re.compile(f"^{refused}$"))
