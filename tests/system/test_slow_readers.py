"""Users who read slowly: nobody is disconnected, each is told exactly what was not shown.

What was shown and the numbers in the marks are put together again and compared with what the
console printed, byte for byte.
"""

import signal

import pytest

from harness.access import LOOPBACK, banner, bring_up, terminated_by, user_monitor_frozen
from harness.commands import DONE, Tool
from harness.failing_calls import ALLOCATION, FailingCalls, Thread, build_library
from harness.isolation import set_mtu
from harness.logs import log_of, records
from harness.peers import OFFERS, User
from harness.scenes import (box_of, connected, held_still, is_sanitized, numbered, removal,
                            wait_reloaded)
from harness.slow_readers import (QUEUE, QUEUES, SMALL, UNCOUNTED, Pace, gaps_in, take_nothing,
                                  tears_no_command, told)
from harness.station import Station, console_line
from harness.vanishing import daemons_socket, reappear, vanish
from harness.waiting import LIMIT, wait_until

LINES = 500_000  # 20 MB
PACES = (3_000, 20_000, 50_000, 300_000)  # bytes a second

# More than there is room for on the way to a user.
MUCH = numbered(50_000)

# What the allocator may need on top of the queues.
OVERHEAD = 8 << 20
PAGE = 4096


@pytest.fixture
def ethernet():
    """Packets are as small as on an Ethernet, and so is what the kernel keeps for each user."""
    set_mtu(1500)


@pytest.fixture
def box(station):
    """A console, connected."""
    return box_of(station, "-d", "1")


def stalled_user(station: Station, console: str = "box", name: str = "stalled",
                 mode: str = "sh") -> User:
    """A user who takes nothing."""
    user = station.attach(console, mode=mode, user=name, buffer=SMALL)
    take_nothing(station, user)
    return user


def watcher_of(station: Station, console: str = "box") -> User:
    """A user who reads everything."""
    return station.attach(console, mode="ro", user="watcher")


def has_end(station: Station, user: User) -> bool:
    """True while the daemon has not closed the user's connection."""
    try:
        daemons_socket(station, user).close()
    except (AssertionError, OSError):  # the latter when it is closed at this moment
        return False
    return True


def holds_all(station: Station, name: str, printed: bytes) -> None:
    """The console's log holds every line that was printed, and nothing else."""
    lines = printed.replace(b"\r", b"").splitlines(keepends=True)
    log, stamp = log_of(station, name), len("26/01/02_03:04:05 ")
    size = sum(map(len, lines)) + stamp * len(lines)
    wait_until(lambda: log.stat().st_size >= size, 3 * LIMIT, "all lines to be logged")
    assert records(log) == lines


# Every pace


@pytest.mark.needs_namespace
def test_users_of_every_pace_are_told_what_they_missed(station, ethernet, box):
    """One of them pauses, and one is behind a line that breaks while the console prints."""
    watcher = watcher_of(station)
    slow = [station.attach("box", user=f"u{pace}", buffer=16384) for pace in PACES]
    for user, pace in zip(slow, PACES):
        user.read_slowly(pace)
    pausing, cut_off = (station.attach("box", user=name) for name in ("pausing", "cut-off"))
    text = numbered(LINES)
    quarter = len(text) // 4
    with Pace(box, watcher) as pace:
        pace.print(text[:quarter])
        pausing.stop_reading()
        vanish(cut_off)
        pace.print(text[quarter:-quarter])
        reappear(cut_off)
        pausing.read_again()
        pace.print(text[-quarter:])
    for user in slow:
        user.read_again()
    for user in (*slow, pausing, cut_off):
        assert told(user, text, 3 * LIMIT), f"{user.name} cannot have been shown all of it"
    holds_all(station, "box", text)
    assert "Closing connection with user \"u" not in station.log_text()


@pytest.mark.needs_namespace
@pytest.mark.parametrize("paces", [(0,), PACES], ids=["nothing", "slowly"])
def test_a_hundred_users_read_too_slowly(station, ethernet, box, paces):
    """They cost the daemon no more memory than all queues may take."""
    watcher = watcher_of(station)
    before = station.rss()
    users = [stalled_user(station, name=f"u{number}") for number in range(100)]
    for number, user in enumerate(users):
        if pace := paces[number % len(paces)]:
            user.read_slowly(pace)
    text = numbered(LINES)
    with Pace(box, watcher) as pace:
        pace.print(text)
    grown = station.rss() - before
    for user in users:
        user.read_again()
    waited, most = 0, QUEUES + len(users) * UNCOUNTED
    for user in users:
        *_, last = told(user, text, 6 * LIMIT)
        waited += len(text) - last.end
    # What the kernel has taken behind a last mark waits in no queue any more: a page for each user.
    assert QUEUES // 2 < waited <= most + len(users) * PAGE
    assert is_sanitized(station.pid) or grown < most + OVERHEAD
    holds_all(station, "box", text)
    box.send(b"for everybody")
    for user in (watcher, *users):
        user.expect_exactly(b"for everybody")


def test_no_telnet_command_is_torn(station, box):
    commands = (b"\xff\xfb\x01", b"\xff\xfd\x0a", b"\xff\xf1", b"\xff\xff",
                b"\xff\xfa\x18" + b"a long name\n" * 8 + b"\xff\xf0")
    text = b"".join(b"%08d:%b and %b\r\n" % (number, commands[number % 5], commands[number % 4])
                    for number in range(80_000))
    watcher = watcher_of(station)
    users = [stalled_user(station, name=f"u{number}") for number in range(6)]
    for number, user in enumerate(users[1:]):
        user.read_slowly(30_011 * 2 ** number)
    Pace(box, watcher).print(text)
    for user in users:
        user.read_again()
        found = told(user, text)
        assert found or user is not users[0]  # a quick one may have kept up
        tears_no_command(found, text)


# The replay


@pytest.mark.needs_namespace
def test_a_slow_user_is_replayed_the_whole_ring(station, ethernet):
    box = box_of(station, "-d", "1", "-B", str(QUEUE))
    Pace(box, watcher_of(station)).print(MUCH)
    slow = station.ask("box", user="slow", buffer=SMALL)
    slow.read_slowly(1_000_000)
    slow.expect_exactly(OFFERS + MUCH[1 - QUEUE:])
    box.send(b"and more")
    slow.expect_exactly(b"and more")


def test_users_come_and_go_with_full_queues_and_the_others_go_on(station):
    box = box_of(station, "-d", "1", "-B", str(QUEUE))
    watcher, stalled = watcher_of(station), stalled_user(station)
    with Pace(box, watcher) as pace:
        pace.keep_printing(numbered(1000, 1000 * block) for block in range(100_000))
        wait_until(lambda: len(pace.printed) > 2 * QUEUE, what="a ring that is full")
        for number in range(50):
            user = stalled_user(station, name=f"u{number}")
            user.reset() if number % 2 else user.close()
            station.wait_log(removal(f"u{number}"))
        pace.finish()
        stalled.read_again()
        assert told(stalled, bytes(pace.printed))
    assert removal("watcher") not in station.log_text()


# Faults


def test_a_daemon_that_was_stopped_goes_on_with_its_queues(station, box):
    watcher, users = watcher_of(station), [stalled_user(station, name=f"u{n}") for n in range(10)]
    Pace(box, watcher).print(MUCH)
    with held_still(station):
        for user in users[::2]:
            user.read_again()
        box.send(b"printed meanwhile\r\n")
    watcher.expect_exactly(b"printed meanwhile\r\n")
    for user in users:
        user.read_again()
        assert told(user, MUCH + b"printed meanwhile\r\n")


def test_a_reset_with_a_full_queue_costs_nobody_else_anything(station, box):
    users = [stalled_user(station, name=f"u{number}") for number in range(100)]
    watcher = watcher_of(station)
    Pace(box, watcher).print(MUCH)
    gone = users.pop(50)
    gone.reset()
    station.wait_log(removal("u50"))
    box.send(b"and more\r\n")
    watcher.expect_exactly(b"and more\r\n")
    for user in users:
        user.read_again()
        assert told(user, MUCH + b"and more\r\n")


def test_a_failed_send_closes_those_behind_once_they_have_what_waits_for_them(station):
    """The result of one send is the length of the next, whether or not that one has a queue."""
    box = box_of(station)
    watcher, gone = watcher_of(station), station.attach("box", user="gone")
    behind = stalled_user(station, name="behind")
    Pace(box, watcher, gone).print(MUCH)
    with user_monitor_frozen(station):  # otherwise it might notice first
        gone.reset()
        box.send(b"not for everybody")
        watcher.expect_exactly(b"not for everybody")
        station.wait_log('SendConsoleOutputToUsers: send() from console "box" failed : Bad address')
        behind.read_again()
    assert told(behind, MUCH)
    behind.expect_closed()
    box.send(b"and more")
    watcher.expect_exactly(b"and more")


@pytest.fixture
def calls(tmp_path):
    """Lets the daemon's calls fail."""
    return FailingCalls(build_library(tmp_path), tmp_path)


def test_a_queue_without_memory_is_short_and_everybody_else_unaffected(station, calls):
    box = station.console("box")
    station.start("-d", "1", env=calls.env)
    connected(station, box, "box")
    watcher, stalled = watcher_of(station), stalled_user(station)
    calls.arm(ALLOCATION, 1, Thread.MAIN, lasting=True)
    Pace(box, watcher).print(MUCH)
    calls.disarm()
    assert calls.fired
    more = numbered(10_000, start=50_000)
    Pace(box, watcher).print(more)
    stalled.read_again()
    stalled.expect(more[-40:])
    *_, last = gaps_in(stalled.received, MUCH + more)
    # No memory, no queue: only what the kernel may have had room for at the end. Then all of it.
    assert last.end >= len(MUCH) - 4 * SMALL
    box.send(b"and more")
    for user in (watcher, stalled):
        user.expect_exactly(b"and more")
    holds_all(station, "box", MUCH + more)


def test_a_console_that_is_renamed_keeps_the_queues(station, box):
    watcher, stalled = watcher_of(station), stalled_user(station)
    Pace(box, watcher).print(MUCH)
    position = station.mark()
    station.write_config(console_line("other", box.port))
    station.signal(signal.SIGHUP)
    wait_reloaded(station, position)
    box.send(b"by another name\r\n")
    watcher.expect_exactly(b"by another name\r\n")
    stalled.read_again()
    assert told(stalled, MUCH + b"by another name\r\n")


@pytest.mark.parametrize("enable, message", [(None, "Console has been deleted."),
                                             (0, "Console has been disabled.")])
def test_users_of_a_console_that_goes_away_get_what_waits_for_them(station, box, enable, message):
    watcher, reading = watcher_of(station), stalled_user(station, name="reading")
    deaf = stalled_user(station, name="deaf")
    Pace(box, watcher).print(MUCH)
    station.write_config("" if enable is None else console_line("box", box.port, enable=enable))
    station.signal(signal.SIGHUP)
    watcher.expect_exactly(banner(message))
    reading.read_again()
    assert told(reading, MUCH + banner(message))
    for user in (watcher, reading):
        user.expect_closed()
    wait_until(lambda: not has_end(station, deaf), what="the last connection to be closed")


def test_a_message_comes_in_its_place(station, box):
    watcher, stalled = watcher_of(station), stalled_user(station)
    pace = Pace(box, watcher)
    pace.print(MUCH)
    assert Tool(station, user="op", wait=False).command("msg box back at noon").type == DONE
    message = banner(f"Message from op@{LOOPBACK}: \n\n\rback at noon\n")
    watcher.expect_exactly(message)
    more = numbered(2500)
    pace.print(more)
    stalled.read_again()
    gaps = told(stalled, MUCH + message + more)
    assert gaps and gaps[-1].end < len(MUCH)


def test_the_banner_of_a_take_over_comes_behind_what_waits(station, box):
    watcher, holder = watcher_of(station), stalled_user(station, mode="er")
    Pace(box, watcher).print(MUCH)
    taker = station.attach("box", user="taker")
    holder.read_again()
    assert told(holder, MUCH + terminated_by("taker"))
    holder.expect_closed()
    taker.send(b"typed")
    box.expect_exactly(b"typed")


def test_the_place_of_a_user_who_is_cleared_is_free_at_once(station, box):
    watcher = watcher_of(station)
    holder = stalled_user(station, mode="ex")
    Pace(box, watcher).print(MUCH)
    assert Tool(station, user="op", wait=False).command("clear box").type == DONE
    successor = station.attach("box", mode="ex", user="successor")
    successor.send(b"typed")
    box.expect_exactly(b"typed")
    wait_until(lambda: not has_end(station, holder), 2, "the connection to be closed unread")
    box.send(b"printed")
    successor.expect_exactly(b"printed")


def test_a_user_who_is_cleared_and_reads_gets_all_that_waits(station, box):
    watcher, holder = watcher_of(station), stalled_user(station)
    Pace(box, watcher).print(MUCH)
    assert Tool(station, user="op", wait=False).command("clear box").type == DONE
    holder.read_again()
    assert told(holder, MUCH + banner(f"Your session has been terminated by op@{LOOPBACK}"))
    holder.expect_closed()


def test_sigterm_ends_a_daemon_with_full_queues_at_once(station, box):
    for number in range(10):
        stalled_user(station, name=f"u{number}")
    Pace(box, watcher_of(station)).print(MUCH)
    station.signal(signal.SIGTERM)
    station.expect_exit(1, limit=1)
