"""The daemon under load, killed at random moments; without room on the disk; its clock set back."""

import os
import re
import signal
import subprocess
from pathlib import Path

import pytest

from harness.access import seeded
from harness.clock import ShiftedClock
from harness.debuglog import STAMP
from harness.farm import PrintingFarm
from harness.logs import (consolidated, consolidated_records, current, directories, log_of, read,
                          records)
from harness.scenes import attach_when_accessible, connected, echo_time, numbered
from harness.station import console_line
from harness.waiting import LIMIT, wait_until

CONSOLES = 40
LIVES = 6

FLOOD = 500_000  # lines, as a rule more than are read before the kill

# A console's greeting, as it is logged.
GREETING = b"ready\n"

# A kill may end a write only between two pages of a file.
PAGE = os.sysconf("SC_PAGE_SIZE")

_RECORD = re.compile(STAMP.encode() + rb" (?:(c\d+) )?([^\n]*\n)")


@pytest.fixture
def farm():
    with PrintingFarm(CONSOLES) as made:
        yield made


@pytest.fixture
def quiet(station, farm):
    """A console that users type at, in addition to those that print."""
    box = station.console("quiet", logging=0)
    station.write_config(farm.lines() + console_line("quiet", box.port, logging=0))
    return box


def sizes(station) -> dict[Path, int]:
    """The lengths of the logs."""
    return {path: path.stat().st_size for path in current(station).iterdir()}


def wait_logged(station, farm, amount: int) -> None:
    """Wait until every console's log has grown, and all of them by `amount` bytes together."""
    before = sizes(station)

    def grown() -> bool:
        now = sizes(station)
        gains = [now.get(path, 0) - before.get(path, 0)
                 for path in (log_of(station, name) for name in farm.names)]
        return all(gain > 0 for gain in gains) and sum(gains) >= amount

    wait_until(grown, 2 * LIMIT, "the consoles' lines in their logs")


def users_are_served(station, quiet) -> None:
    """One user sees what is printed, and another types."""
    watcher = attach_when_accessible(station, "c0", mode="ro", user="watcher")
    watcher.expect(b" the quick brown fox jumps ove\n")
    watcher.close()
    user = attach_when_accessible(station, "quiet")
    assert echo_time(user, quiet, b"key", limit=5) < 5
    user.close()


def numbers_of(lines: list[bytes]) -> list[int]:
    """The numbers of the lines; each must be whole."""
    numbers = [int(line[:8]) for line in lines]
    assert lines == list(map(PrintingFarm.line, numbers))
    return numbers


def lines_of_life(path: Path, start: int, end: int) -> list[bytes]:
    """The lines that one daemon wrote to a log; only the last record may be cut short."""
    with open(path, "rb") as log:
        log.seek(start)
        written = log.read(end - start)
    found, place = [], 0
    while match := _RECORD.match(written, place):
        found.append(match[2])
        place = match.end()
    torn = written[place:]
    assert not torn or (b"\n" not in torn and end % PAGE == 0), f"{path} at {start + place}: {torn}"
    return found


def check_lives(name: str, path: Path, ends: list[int]) -> None:
    """Within a daemon's life no line is missing; the next daemon's lines come later."""
    last = -1
    for start, end in zip([0, *ends], ends):
        greeting, *lines = lines_of_life(path, start, end)
        assert greeting == GREETING, f"{name} begins with {greeting!r}"
        numbers = numbers_of(lines)
        assert numbers == list(range(numbers[0], numbers[0] + len(numbers))), name
        assert numbers[0] > last, name
        last = numbers[-1]


def test_a_kill_at_a_random_moment_tears_at_most_one_record(station, farm, quiet):
    rand = seeded()
    farm.go_on()
    ends: dict[Path, list[int]] = {}
    for life in range(LIVES):
        station.start("-d", "1")
        connected(station, quiet, "quiet")
        wait_logged(station, farm, rand.randrange(1 << 20))
        users_are_served(station, quiet)
        wait_logged(station, farm, rand.randrange(1 << 16))
        station.signal(signal.SIGKILL)
        station.expect_exit(-signal.SIGKILL)
        for path, size in sizes(station).items():
            ends.setdefault(path, []).append(size)
        assert station.lock_file.exists() and len(ends) == CONSOLES + 2, life
    assert len(directories(station)) == 1
    for name in farm.names:
        check_lives(name, log_of(station, name), ends[log_of(station, name)])
    for start, end in zip([0, *ends[consolidated(station)]], ends[consolidated(station)]):
        assert lines_of_life(consolidated(station), start, end)


def test_a_kill_in_a_flood_tears_at_most_one_record(station):
    """A turn brings hundreds of records, which are written together."""
    rand = seeded()
    box = station.console("c0")
    own, everybodys = log_of(station, "c0"), consolidated(station)
    ends: dict[Path, list[int]] = {own: [0], everybodys: [0]}
    in_the_middle = 0
    for life in range(2 * LIVES):
        station.start("-d", "1")
        printed = numbered(FLOOD, start=life * FLOOD)
        flood = box.accept().flood(printed, 1)
        due = ends[own][-1] + rand.randrange(1 << 22)
        wait_until(lambda: own.exists() and own.stat().st_size > due, what="the log to grow")
        station.signal(signal.SIGKILL)
        station.expect_exit(-signal.SIGKILL)
        flood.stop()
        in_the_middle += flood.sent < len(printed)
        for path, found in ends.items():
            found.append(path.stat().st_size)
            numbers = numbers_of(lines_of_life(path, *found[-2:]))
            assert numbers == list(range(life * FLOOD, life * FLOOD + len(numbers))), path
    assert in_the_middle, "every flood was over before the kill"


@pytest.mark.needs_namespace
def test_a_full_disk_under_load_loses_whole_records_only(station, farm, quiet):
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=2m,mode=0770", "tmpfs", station.logs],
                   check=True)
    station.start("-d", "0")
    connected_quietly(station, farm, quiet)
    farm.go_on()
    position = station.mark()
    for name in farm.names:
        station.wait_log(f'WriteBuffer: write() failed for console "{name}" : '
                         "No space left on device", after=position, limit=2 * LIMIT)
    users_are_served(station, quiet)
    # Make room, as if old logs were moved away.
    subprocess.run(["mount", "-o", "remount,size=64m", station.logs], check=True)
    before = {name: log_of(station, name).stat().st_size for name in farm.names}
    wait_logged(station, farm, 1 << 16)
    farm.pause()
    for name in farm.names:
        assert log_of(station, name).stat().st_size > before[name]
        check_in_order(station, log_of(station, name))
    assert farm.accepted == farm.connected == CONSOLES and not quiet.called()


def connected_quietly(station, farm, quiet) -> None:
    """Wait until every console's greeting is logged, at a level that does not report it."""
    quiet.accept()
    attach_when_accessible(station, "quiet").close()
    wait_until(lambda: all(GREETING in read(log_of(station, name)) for name in farm.names),
               what="the greetings")


def check_in_order(station, path: Path) -> None:
    """Every record is whole and each console's lines are in order; some may be missing."""
    if path == consolidated(station):
        found = {}
        for name, line in consolidated_records(path):
            found.setdefault(name, []).append(line)
    else:
        found = {path.stem: records(path)}
    for name, lines in found.items():
        numbers = numbers_of([line for line in lines if line != GREETING])
        assert numbers == sorted(set(numbers)), name


def test_a_clock_set_back_under_load_loses_nothing(station, farm, quiet, tmp_path):
    clock = ShiftedClock(tmp_path)
    station.start("-d", "0", "-a", "60m", env=clock.env)
    connected_quietly(station, farm, quiet)
    farm.go_on()
    for seconds in (-3600, 0, -86400, -1):
        wait_logged(station, farm, 1 << 16)
        clock.shift(seconds)
    wait_logged(station, farm, 1 << 16)
    users_are_served(station, quiet)
    farm.pause()
    for number, name in enumerate(farm.names):
        expected = list(map(PrintingFarm.line, range(farm.printed(number))))
        wait_until(lambda: len(records(log_of(station, name))) > len(expected), 2 * LIMIT,
                   f"all that {name} has printed")
        assert records(log_of(station, name)) == [GREETING, *expected]
    assert len(directories(station)) == 1
    assert farm.accepted == farm.connected == CONSOLES and not quiet.called()
