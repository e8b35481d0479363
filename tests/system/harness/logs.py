"""The log files of a station: bringing consoles up with empty logs, and the records in them."""

import os
import re
import signal
from pathlib import Path

import pytest

from harness.consoles import FakeConsole
from harness.debuglog import STAMP
from harness.station import Station
from harness.waiting import LIMIT, wait_until

ARCHIVING = "ArchiveLogDir: Archiving log directory"

# Ends the daemon's wait for a telnet negotiation, which would cost every test a second.
_GREETING = b"ready\r\n"

_STAMP = STAMP.encode()


def dated(station: Station) -> Path:
    """The directory that holds the dated directories."""
    return station.logs / "zev.dated"


def current(station: Station) -> Path:
    """The link to the dated directory in use."""
    return dated(station) / "current"


def log_of(station: Station, name: str) -> Path:
    """A console's log in the directory in use."""
    return current(station) / f"{name}.log"


def consolidated(station: Station) -> Path:
    """The log of output that nobody watched."""
    return log_of(station, "consolidated")


def read(path: Path) -> bytes:
    """What the file holds; nothing when it is missing, as it may be while directories change."""
    try:
        return path.read_bytes()
    except FileNotFoundError:
        return b""


def records(path: Path) -> list[bytes]:
    """The lines of a console's log without their stamps; anything else in it fails."""
    before, *found = re.split(_STAMP + b" ", read(path))
    assert before == b"", f"{path} begins with {before[:100]!r}"
    return found


def consolidated_records(path: Path) -> list[tuple[str, bytes]]:
    """Console and line of every record of a consolidated log."""
    before, *found = re.split(_STAMP + rb" (\S+) ", read(path))
    assert before == b"", f"{path} begins with {before[:100]!r}"
    return [(name.decode(), line) for name, line in zip(found[::2], found[1::2])]


def directories(station: Station) -> list[Path]:
    """The dated directories, the oldest first."""
    found = [path for path in dated(station).iterdir() if path.name != "current"]
    return sorted(found, key=lambda path: path.stat().st_ctime_ns)


def all_records(station: Station, name: str) -> list[bytes]:
    """The lines of a console's logs in all directories."""
    return [line for directory in directories(station)
            for line in records(directory / f"{name}.log")]


def all_consolidated_records(station: Station) -> list[tuple[str, bytes]]:
    """The records of the consolidated logs in all directories."""
    return [record for directory in directories(station)
            for record in consolidated_records(directory / "consolidated.log")]


def of_console(found: list[tuple[str, bytes]], name: str) -> list[bytes]:
    """One console's lines among the records of a consolidated log."""
    return [line for console, line in found if console == name]


def wait_records(path: Path, expected: list[bytes], limit: float = LIMIT) -> None:
    """Wait until a console's log holds as many records as expected; they must be equal."""
    wait_until(lambda: len(records(path)) >= len(expected), limit,
               f"{len(expected)} records in {path}")
    found = records(path)
    assert found == expected, difference(found, expected)


def difference(found: list[bytes], expected: list[bytes]) -> str:
    """Where two lists of records differ."""
    for number, (have, want) in enumerate(zip(found, expected)):
        if have != want:
            return f"record {number} of {len(found)} is {have!r} and not {want!r}"
    return f"{len(found)} records in place of {len(expected)}"


def bring_up(station: Station, *consoles: FakeConsole, options: tuple[str, ...] = ()) -> None:
    """Start the daemon; wait until the consoles are connected, and empty their logs.

    All but a waker must be logged. Needs no debug level.
    """
    for console in consoles:
        console.greeting = _GREETING
    station.start(*options)
    for console in consoles:
        console.accept()
    empty_logs(station, *(console.name for console in consoles if console.name != "waker"))


def empty_logs(station: Station, *names: str) -> None:
    """Wait until each of the consoles has been greeted in both logs, and empty these."""
    def greeted() -> bool:
        return dated(station).exists() and {
            console for console, _ in all_consolidated_records(station)} >= set(names)

    wait_until(greeted, what=f"the greetings of {names}")
    for directory in directories(station):
        for log in directory.iterdir():
            os.truncate(log, 0)


def add_waker(station: Station) -> FakeConsole:
    """A console that is not logged, to be brought up with the others.

    The daemon looks for signals and for expired directories when its wait for console output is
    over: after two seconds, or as soon as this one prints.
    """
    return station.console("waker", greeting=_GREETING, logging=0)


@pytest.fixture
def waker(station):
    """A console that spares the test the daemon's pauses."""
    return add_waker(station)


@pytest.fixture
def box(station, waker):
    """A console that is connected, like the waker, and whose logs are empty."""
    made = station.console("box")
    bring_up(station, made, waker)
    for name in ("box", "waker"):
        station.wait_connected(name)
    return made


def wait_awake(station: Station, waker: FakeConsole, wanted: str, after: int,
               count: int = 1) -> int:
    """Wait for a message as `wait_log` does, without the pauses of an idle daemon."""
    def said() -> bool:
        waker.send(b".")
        return station.log_text(after).count(f">: {wanted}\n") >= count

    wait_until(said, what=f"{count} message(s) {wanted!r}")
    return station.wait_log(wanted, count=count, after=after).end


def reload_awake(station: Station, waker: FakeConsole) -> int:
    """Have the files read again; return the position before that. Needs debug level 3."""
    position = station.mark()
    station.signal(signal.SIGHUP)
    wait_awake(station, waker, "Entering GetZevdArchIntFromConfFile", after=position)
    return position


def set_interval(station: Station, days: int) -> None:
    """Have the daemon use another archive interval."""
    (station.config / "qor.conf").write_text(f"ZEVD_ARCH_INT={days}\n")
    station.signal(signal.SIGHUP)


def rotate(station: Station, waker: FakeConsole) -> None:
    """Let the directory in use expire, maybe several times. Needs debug level 3."""
    position = station.mark()
    set_interval(station, 0)
    position = wait_awake(station, waker, ARCHIVING, after=position)
    set_interval(station, 7)
    position = wait_awake(station, waker, "Entering GetZevdArchIntFromConfFile", after=position)
    # That pass has ended: the next one does not archive.
    wait_awake(station, waker, "Entering LogDirExpired", after=position, count=2)


def age_directory(station: Station, name: str = "01-Jan-00:00") -> Path:
    """Give the directory in use an old name, so that the next rotation makes another one."""
    old = dated(station) / name
    current(station).resolve().rename(old)
    current(station).unlink()
    current(station).symlink_to(old)
    return old
