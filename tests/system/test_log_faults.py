"""Logging under faults: a full disk, files that vanish or are replaced, and binary output."""

import contextlib
import os
import random
import re
import shutil
import signal
import subprocess
from datetime import datetime, timedelta

import pytest

from harness.access import seeded
from harness.clock import ShiftedClock
from harness.commands import Tool
from harness.logs import (ARCHIVING, add_waker, age_directory, bring_up, consolidated,
                          consolidated_records, current, dated, log_of, of_console, read, records,
                          set_interval, wait_awake, wait_records)
from harness.scenes import (disable_and_enable, echo_time, numbered, print_and_wait, removal,
                            wait_reloaded)
from harness.station import console_line
from harness.waiting import wait_until

NO_ROOM = 'WriteBuffer: write() failed for console "box" : No space left on device'


# A full disk


@pytest.fixture
def small_disk(station):
    """The log directory is a small file system of its own, which vanishes with the root."""
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=256k,nr_inodes=200,mode=0770", "tmpfs",
                    station.logs], check=True)
    return station.logs


def fill(directory) -> None:
    """Use all the space that is left."""
    with open(directory / "filler", "wb", buffering=0) as filler:
        try:
            while filler.write(b"x" * 4096):
                pass
        except OSError:
            return


def fill_inodes(directory) -> None:
    """Use all the inodes that are left."""
    try:
        for number in range(1000):
            (directory / f"spare{number}").touch()
    except OSError:
        return
    raise AssertionError("the disk is larger than it should be")


def free(directory) -> None:
    """Free the space again."""
    (directory / "filler").unlink()


@pytest.mark.needs_namespace
def test_a_full_disk_loses_only_the_records_written_meanwhile(station, small_disk):
    box, other = station.console("box"), station.console("other", logging=0)
    bring_up(station, box, options=("-d", "1"))
    other.accept()
    box.send(b"before\n")
    wait_records(log_of(station, "box"), [b"before\n"])
    fill(small_disk)
    # There is still room in the log's last page.
    lines = numbered(400).replace(b"\r", b"").splitlines(keepends=True)
    box.send(b"".join(lines))
    station.wait_log(NO_ROOM)
    user = station.attach("box")
    assert echo_time(user, box, b"k", limit=5) < 5
    assert echo_time(station.attach("other"), other, b"k", limit=5) < 5
    box.send(b"\n")
    free(small_disk)
    box.send(b"after\n")
    user.expect(b"after\n")
    wait_until(lambda: records(log_of(station, "box"))[-1:] == [b"after\n"], what="the record")
    # Every record is whole, and those that are there are in order.
    kept = records(log_of(station, "box"))
    assert kept[0] == b"before\n"
    written = kept[1:-1]
    while written and written[-1] in (b"<k>\n", b"\n"):
        written.pop()
    assert len(written) < len(lines) and written == lines[:len(written)]


@pytest.mark.needs_namespace
def test_a_full_disk_tears_no_consolidated_record(station, small_disk):
    boxes = [station.console("box"), station.console("other")]
    bring_up(station, *boxes, options=("-d", "0"))
    fill(small_disk)
    lines = numbered(300).replace(b"\r", b"").splitlines(keepends=True)
    for box in boxes:
        box.send(b"".join(lines))
    station.wait_log(re.compile("write\\(\\) failed for .* : No space left on device"))
    free(small_disk)
    wait_until(lambda: _logged_again(station, boxes[0]), what="a record after the full disk")
    for name, line in consolidated_records(consolidated(station)):
        assert name in ("box", "other") and (line in lines or line == b"after\n"), (name, line)
    for box in boxes:
        assert all(line in lines or line == b"after\n"
                   for line in records(log_of(station, box.name)))


@pytest.mark.needs_namespace
def test_a_disk_that_fills_up_in_floods_tears_no_record(station, small_disk):
    """A turn brings hundreds of records, which are written together as long as there is room."""
    box = station.console("box")
    bring_up(station, box, options=("-d", "0"))
    rand, printed, marks = seeded(), [], []
    tool = Tool(station, wait=False)
    for turn in range(5):
        resize(small_disk, used(small_disk) + rand.randrange(1 << 16, 1 << 18))
        lost = lost_records(tool)
        lines = numbered(100_000, start=100_000 * turn).replace(b"\r", b"")
        flood = box.flood(lines, 1)
        wait_until(lambda: lost_records(tool) > lost, what="the end of the room")
        resize(small_disk, 128 << 20)
        flood.join()
        marks.append(b"turn %d\n" % turn)
        box.send(marks[-1])
        for name in ("box", "consolidated"):
            wait_until(lambda: read(log_of(station, name)).endswith(marks[-1]), what="the mark")
        printed += [*lines.splitlines(keepends=True), marks[-1]]
    places = {line: place for place, line in enumerate(printed)}
    for found in (records(log_of(station, "box")),
                  of_console(consolidated_records(consolidated(station)), "box")):
        # Each is whole and in order, and what was printed with room on the disk is there.
        order = [places[line] for line in found]
        assert order == sorted(set(order)) and len(order) < len(printed)
        assert found[0] == printed[0] and set(marks) <= set(found)


def lost_records(tool) -> int:
    """How many records could not be written so far."""
    stats, = tool.objects("stats")
    return stats["log_records_lost"]


def used(directory) -> int:
    """How many bytes of the file system are in use."""
    found = os.statvfs(directory)
    return (found.f_blocks - found.f_bfree) * found.f_frsize


def resize(directory, size: int) -> None:
    """Give the file system another size."""
    subprocess.run(["mount", "-o", f"remount,size={size}", directory], check=True)


def _logged_again(station, box) -> bool:
    box.send(b"after\n")
    return ("box", b"after\n") in consolidated_records(consolidated(station))


@pytest.mark.needs_namespace
def test_a_full_disk_does_not_stop_a_detached_daemon(station, small_disk):
    box = station.console("box")
    station.start("-d", "1", detached=True)
    box.accept()
    box.send(b"up\n")
    wait_until(lambda: read(consolidated(station)), what="the first record")
    fill(small_disk)
    for _ in range(200):
        user = station.ask("nowhere")
        user.expect(b"004 - Console not found.\r\n")
        user.close()
    box.send(b"lost or kept\n")
    user = station.ask("box")
    user.expect(b"\xff\xfb\x01\xff\xfb\x03")
    user.send(b"typed")
    box.expect(b"typed")
    assert station.running
    free(small_disk)
    user.close()
    wait_until(lambda: _printed_and_logged(station, box), what="a record after the full disk")
    position = station.mark()
    station.ask("nowhere").expect(b"004 - Console not found.\r\n")
    wait_until(lambda: station.mark() > position, what="the daemon to say more")


def _printed_and_logged(station, box) -> bool:
    box.send(b"after\n")
    return b" after\n" in read(log_of(station, "box"))


@pytest.mark.needs_namespace
def test_a_disk_without_room_for_a_new_directory_only_stops_the_logs(station, small_disk):
    box, waker = station.console("box"), add_waker(station)
    bring_up(station, box, waker)
    for name in ("box", "waker"):
        station.wait_connected(name)
    box.send(b"before\n")
    wait_records(log_of(station, "box"), [b"before\n"])
    old = age_directory(station)
    fill_inodes(small_disk)
    position = station.mark()
    set_interval(station, 0)
    wait_awake(station, waker, ARCHIVING, after=position)
    # The old link's inode may suffice for the directory, and then none is left for the link.
    station.wait_log(re.compile(
        rf"^CreateSymlinkToCurrDir: (mkdir\( {station.logs}//zev\.dated/\S+, \.\.\.\)|symlink) "
        "failed : No space left on device$"), after=position)
    box.send(b"lost\n")
    station.wait_log("WriteLogFile: Log file for box has not been opened.", after=position)
    for spare in small_disk.glob("spare*"):
        spare.unlink()
    wait_until(lambda: waker.send(b".") or log_of(station, "box").exists(), what="the new log")
    print_and_wait(station, box, b"kept\n")
    wait_until(lambda: b"kept\n" in read(log_of(station, "box")), what="the record")
    assert records(old / "box.log") == [b"before\n"]


# Directories that vanish


@pytest.mark.parametrize("gone", ["zev.dated", "zev.dated/current/box.log", "."])
def test_log_files_removed_under_the_daemon_come_back_with_the_next_open(station, gone):
    box = station.console("box")
    bring_up(station, box)
    station.wait_connected("box")
    doomed = (station.logs / gone).resolve()
    shutil.rmtree(doomed) if doomed.is_dir() else doomed.unlink()
    user = station.attach("box", user="ann")
    box.send(b"served\n")
    user.expect(b"served\n")
    user.close()
    station.logs.mkdir(exist_ok=True)
    box.greeting = b"back\n"
    disable_and_enable(station, box)
    wait_records(log_of(station, "box"), [b"back\n"])


def test_a_log_directory_that_is_gone_only_stops_the_logs(station):
    box, waker = station.console("box"), add_waker(station)
    bring_up(station, box, waker)
    for name in ("box", "waker"):
        station.wait_connected(name)
    position = station.mark()
    shutil.rmtree(station.logs)
    set_interval(station, 0)
    wait_awake(station, waker, "RemoveSymlinkToCurrDir: unlink() failed : "
                               "No such file or directory", after=position)
    station.wait_log(re.compile(
        rf"^CreateSymlinkToCurrDir: mkdir\( {station.logs}//zev\.dated/\S+, \.\.\.\) failed : "
        "No such file or directory$"), after=position)
    station.wait_log(f"CreateZevDatedDir: mkdir( {station.logs}//zev.dated, ...) failed : "
                     "No such file or directory", after=position)
    box.send(b"lost\n")
    station.wait_log("WriteLogFile: Log file for box has not been opened.", after=position)
    user = station.attach("box", user="ann")
    box.send(b"served\n")
    user.expect(b"served\n")
    user.close()
    station.wait_log(removal("ann"))
    # The interval is still over: the next pass makes what is missing.
    station.logs.mkdir()
    wait_until(lambda: waker.send(b".") or log_of(station, "box").exists(), what="the log")
    print_and_wait(station, box, b"kept\n")
    wait_until(lambda: b"kept\n" in read(log_of(station, "box")), what="the record")


# A clock that is set back


def stamps(path) -> list[datetime]:
    """When the records of a log were written, by the daemon's clock."""
    return [datetime.strptime(stamp.decode(), "%y/%m/%d_%H:%M:%S")
            for stamp in re.findall(rb"^(\S{17}) ", read(path), re.MULTILINE)]


def test_a_clock_that_jumps_back_an_hour_only_delays_the_next_directory(station, tmp_path):
    clock = ShiftedClock(tmp_path)
    box, waker = station.console("box", greeting=b"ready\n"), add_waker(station)
    station.start("-a", "60m", env={**clock.env, "TZ": "UTC0"})
    for console in (box, waker):
        console.accept()
        station.wait_connected(console.name)
    wait_records(log_of(station, "box"), [b"ready\n"])
    directory = current(station).resolve()
    user = station.attach("box", user="ann")
    clock.shift(-3600)
    position = station.mark()

    # Users stay connected, and others can attach.
    assert echo_time(user, box, b"k", limit=5) < 5
    late = station.attach("box", mode="ro", user="late")
    box.send(b"\nwatched\n")
    for caller in (user, late):
        caller.expect(b"watched\n")
        caller.close()
        station.wait_log(removal(caller.name), after=position)
    box.send(b"alone\n")
    lines = [b"ready\n", b"<k>\n", b"watched\n", b"alone\n"]
    wait_records(log_of(station, "box"), lines)
    wait_until(lambda: len(consolidated_records(consolidated(station))) == 2, what="the record")
    assert consolidated_records(consolidated(station)) == [("box", lines[0]), ("box", lines[3])]
    before, *after = stamps(log_of(station, "box"))
    assert len(after) == 3 and after == sorted(after)
    assert before - timedelta(hours=1) <= after[0] < after[-1] + timedelta(seconds=1) < before
    assert not box.closed and not box.called()

    # A lost console is called again at once.
    box.close()
    box.accept()
    wait_records(log_of(station, "box"), [*lines, b"ready\n"])

    # The directory's age is that of its clock: the next one is begun an hour late.
    clock.shift(3000)
    wait_awake(station, waker, "Entering LogDirExpired", after=station.mark(), count=2)
    assert ARCHIVING not in station.log_text() and current(station).resolve() == directory
    clock.shift(3601)
    wait_awake(station, waker, ARCHIVING, after=position)
    wait_until(lambda: current(station).resolve() != directory, what="the new directory")
    assert records(directory / "box.log") == [*lines, b"ready\n"]


# Binary output


def test_a_megabyte_without_a_line_end_is_logged_in_blocks(station):
    box = station.console("box")
    bring_up(station, box, options=("-d", "0"))
    before = station.rss()
    box.flood(b"x" * 65536, 16).join(limit=60)
    blocks = [b"x" * 1024] * 1023
    wait_records(log_of(station, "box"), blocks, limit=60)
    assert station.rss() - before < 4 << 20
    box.close()
    expected = [*blocks, b"x" * 1024, b"\n"]
    wait_records(log_of(station, "box"), expected, limit=60)
    wait_until(lambda: len(consolidated_records(consolidated(station))) >= len(expected))
    assert of_console(consolidated_records(consolidated(station)), "box") == expected


@pytest.mark.parametrize("suppress", ["0", "1"])
def test_binary_output_is_logged(station, suppress):
    seed = random.randrange(2**32)
    print(f"seed {seed}")
    # No 255: at the end of a chunk it would remove bytes, depending on where chunks end.
    printed = bytes(random.Random(seed).choices(range(255), k=200_000))
    box = station.console("box")
    bring_up(station, box, options=("-d", "1", "-s", suppress))
    user = station.attach("box")  # without a user, chunks that begin with a high byte are dropped
    for path in (log_of(station, "box"), consolidated(station)):
        os.truncate(path, 0)
    dropped = b"\0\r" if suppress == "1" else b"\0"
    box.flood(printed + b"\n", 1).join(limit=60)
    expected = printed.translate(None, dropped) + b"\n"
    wait_until(lambda: len(user.received) > len(printed), 60, "the user to see it all")
    wait_until(lambda: sum(map(len, records(log_of(station, "box")))) >= len(expected), 60,
               "the log to hold it all")
    assert b"".join(records(log_of(station, "box"))) == expected
    ends = rb"[^\n\r]{1,1024}[\n\r]?|[\n\r]" if suppress == "0" else rb"[^\n]{1,1024}\n?|\n"
    assert all(re.fullmatch(ends, record) for record in records(log_of(station, "box")))
    assert read(consolidated(station)) == b""


# Files that are replaced while they are read


def test_a_configuration_may_be_replaced_while_it_is_read(station):
    box, other = station.console("box"), station.console("other")
    bring_up(station, box, other, options=("-d", "1"))
    user = station.attach("box")
    versions = [[console_line("box", box.port), console_line("other", other.port)],
                [console_line("other", other.port), console_line("box", box.port, events=1)]]
    padding = "# a comment that takes a while to read\n" * 5000
    spare = station.config / "zev.conf.new"
    position = station.mark()
    lines = []
    for number in range(200):
        spare.write_text(padding.join(["", *versions[number % 2], ""]))
        spare.rename(station.config_file)
        station.signal(signal.SIGHUP)
        lines.append(b"line %d\n" % number)
        box.send(lines[-1])
        user.expect_exactly(lines[-1])
    position = station.mark()
    station.signal(signal.SIGHUP)
    wait_reloaded(station, position)
    wait_records(log_of(station, "box"), lines)
    said = station.log_text()
    assert "Missing" not in said and "is being deleted" not in said
    assert not box.called() and not other.called()


def test_a_configuration_may_be_rewritten_while_it_is_read(station):
    """A reload may read half a file or an empty one: consoles go and come, the daemon stays."""
    box = station.console("box")
    bring_up(station, box, options=("-d", "1"))
    whole = "# more\n" * 2000 + console_line("box", box.port)
    for number in range(100):
        with open(station.config_file, "w", encoding="ascii", buffering=1) as config:
            config.write(whole[:-number - 1])
            station.signal(signal.SIGHUP)
            config.write(whole[-number - 1:])
    wait_until(lambda: station.log_text().count("ACCESSIBLE CONSOLES:") > 2, what="a reload")
    position = station.mark()
    station.signal(signal.SIGHUP)
    wait_reloaded(station, position)

    def served() -> bool:
        """True once the console, which a reload of half a file may still cut off, is logged."""
        if box.called():
            box.accept()
        with contextlib.suppress(OSError):
            box.send(b"at the end\n")
        return b"at the end\n" in read(log_of(station, "box"))

    wait_until(served, what="the record")


def test_event_files_may_come_and_go_while_they_are_read(station):
    box = station.console("box", events=1, event_file="set")
    (station.events / "set").write_text("a 1 0 never matches\n")
    bring_up(station, box, options=("-d", "1"))
    lines = []
    for number in range(100):
        spare = station.events / f"spare{number % 3}"
        spare.write_text("a 1 0 x\n" * (number % 50) + "a 1 0 (\nb\n")
        station.signal(signal.SIGHUP)
        spare.rename(station.events / "other") if number % 2 else spare.unlink()
        lines.append(b"line %d\n" % number)
        box.send(lines[-1])
    wait_records(log_of(station, "box"), lines)
    assert not box.called()


# A log of another user's


def test_a_directory_in_place_of_a_log_is_reported(station):
    directory = dated(station) / "old"
    (directory / "box.log").mkdir(parents=True)
    current(station).symlink_to(directory)
    box, other = station.console("box", greeting=b"up\n"), station.console("other")
    station.start("-d", "1")
    box.accept()
    other.greeting = b"ready\n"
    other.accept()
    station.wait_log(f'OpenLogFile: open() failed for "{station.logs}//zev.dated/current/box.log"'
                     " : Is a directory")
    station.wait_log("WriteLogFile: Log file for box has not been opened.")
    wait_records(log_of(station, "other"), [b"ready\n"])
    assert of_console(consolidated_records(consolidated(station)), "box") == []
