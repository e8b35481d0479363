"""The three signals: one ends the daemon, one makes it read its files again, one is ignored."""

import itertools
import os
import re
import signal

import pytest

from harness.access import user_monitor_frozen
from harness.collectors import Collector
from harness.logs import ARCHIVING
from harness.scenes import (NO_LEAK_CHECK, connected, held_still, numbered, reload, removal,
                            wait_reloaded)
from harness.waiting import wait_until

TERMINATED = re.compile(r">: Received SIGTERM\.\n"
                        r"ZEV \S+:<main>: Exiting with code 1 from file zev_signal\.\w+ line \d+\n"
                        r"(ZEV .*\n)*\Z")


def blocked(station) -> dict[str, set[int]]:
    """The signals that each thread blocks, the main thread under the name "main"."""
    found = {}
    for task in os.listdir(f"/proc/{station.pid}/task"):
        with open(f"/proc/{station.pid}/task/{task}/status", encoding="ascii") as status:
            mask = next(int(line.split()[1], 16) for line in status if line.startswith("SigBlk:"))
        name = "main" if int(task) == station.pid else task
        found[name] = {number for number in range(1, 65) if mask >> (number - 1) & 1}
    return found


# Which thread gets them


def test_only_the_main_thread_takes_sigterm_and_none_takes_the_others(station):
    box = station.console("box")
    station.start()
    connected(station, box, "box")
    station.attach("box")
    station.caller()
    station.wait_log(re.compile("^ServiceConnectionRequestThreadStart: Servicing"), count=2)
    masks = blocked(station)
    assert len(masks) >= 5
    for thread, mask in masks.items():
        assert {signal.SIGHUP, signal.SIGPIPE} <= mask
        assert (signal.SIGTERM in mask) == (thread != "main")


# SIGTERM


@pytest.mark.parametrize("detached", [False, True])
def test_sigterm_ends_the_daemon_with_status_1_and_a_message(station, detached):
    station.start("-d", "1", detached=detached)
    # A new thread may still take the signal in place of the main thread, which blocks it too while
    # it writes a message.
    wait_until(lambda: [thread for thread, mask in blocked(station).items()
                        if thread != "main" and signal.SIGTERM in mask][3:],
               what="the four other threads to block it")
    station.signal(signal.SIGTERM)
    station.expect_exit(1)
    assert TERMINATED.search(station.log_text())


def test_sigterm_closes_every_connection(station):
    box = station.console("box")
    station.start()
    connected(station, box, "box")
    user = station.attach("box")
    station.stop()
    user.expect_closed()
    box.expect_closed()


@pytest.mark.parametrize("attempt", range(8))
def test_sigterm_ends_the_daemon_under_load(station, attempt):
    """The signal may interrupt the main thread anywhere, even within a debug line."""
    box = station.console("box")
    station.start()
    connected(station, box, "box")
    user = station.attach("box")
    printing, typing = box.flood(numbered(1000), 1000), user.flood(numbered(1000), 1000)
    wait_until(lambda: len(user.received) > 40000 * (attempt + 1), what="the flood")
    os.kill(station.pid, signal.SIGTERM)
    station.expect_exit(1, limit=5)
    printing.join()
    typing.join()


def test_sigterm_during_a_reload_ends_the_daemon(station):
    """There are so many consoles that the reload still runs when the signal comes."""
    ports = itertools.count(1025)
    for number in range(1500):
        station.console_line(f"c{number}", next(ports), enable=0)

    def cut_short() -> bool:
        station.start("-d", "3", env=NO_LEAK_CHECK)
        position = station.mark()
        station.signal(signal.SIGHUP)
        station.wait_log("Entering ReloadConfigFile", after=position)
        os.kill(station.pid, signal.SIGTERM)
        station.expect_exit(1, limit=5)
        said = station.log_text(position)
        assert ">: Received SIGTERM.\n" in said
        return ">: Entering RefreshMappedPorts\n" not in said

    assert any([cut_short() for _ in range(5)]), "no reload was still running"


def test_sigterm_during_a_stalled_post_ends_the_daemon(station):
    """The event manager accepts no connection, so posts fill the socket's buffer and then wait."""
    (station.events / "all").write_text("all 100 1 .\n")
    box = station.console("box", events=1, event_file="all")
    with Collector(station):
        station.start("-d", "1")
        connected(station, box, "box")
        box.flood(b"x" * 1000 + b"\n", 100000)
        station.wait_log(re.compile("^PostJixEvent: .* failed"))
        os.kill(station.pid, signal.SIGTERM)
        station.expect_exit(1, limit=5)
        assert ">: Received SIGTERM.\n" in station.log_text()


def test_sigterm_during_rotations_ends_the_daemon(station):
    box = station.console("box")
    station.start("-a", "0m")
    connected(station, box, "box")
    printing = box.flood(numbered(1000), 1000)
    station.wait_log(ARCHIVING, count=3)
    os.kill(station.pid, signal.SIGTERM)
    station.expect_exit(1, limit=5)
    printing.join()
    assert ">: Received SIGTERM.\n" in station.log_text()


# SIGHUP


@pytest.mark.parametrize("count", [1, 3, 20])
def test_hangups_in_quick_succession_are_one_reload(station, count):
    station.start()
    position = station.mark()
    with held_still(station):
        for _ in range(count):
            station.signal(signal.SIGHUP)
    wait_reloaded(station, position)
    # The next one is a separate reload: after two before it, there would be three now.
    station.signal(signal.SIGHUP)
    wait_reloaded(station, position, count=2)
    assert station.log_text(position).count(">: Entering ReloadConfigFile\n") == 2


def test_hangups_one_after_the_other_are_one_reload_each(station):
    station.start()
    position = station.mark()
    for _ in range(3):
        reload(station)
    assert station.log_text(position).count(">: Entering ReloadConfigFile\n") == 3


def test_the_main_thread_reloads(station):
    station.start()
    position = station.mark()
    reload(station)
    station.wait_log("Entering ReloadConfigFile", after=position, thread="main")


# SIGPIPE


def test_sigpipe_from_outside_is_ignored(station):
    box = station.console("box")
    station.start()
    connected(station, box, "box")
    user = station.attach("box")
    station.signal(signal.SIGPIPE)
    box.send(b"still here")
    user.expect_exactly(b"still here")


def test_writing_to_a_user_who_has_gone_does_not_end_the_daemon(station):
    box = station.console("box")
    station.start()
    connected(station, box, "box")
    stays = station.attach("box")
    failed = re.compile('^SendConsoleOutputToUsers: send\\(\\) from console "box" failed : '
                        "(Broken pipe|Connection reset by peer)$")

    user = station.attach("box", user="ann")
    with user_monitor_frozen(station):  # otherwise it might notice first
        position = station.mark()
        user.reset()
        box.send(b"printed")
        stays.expect_exactly(b"printed")
        station.wait_log(failed, after=position)
    station.wait_log(removal("ann"), after=position)
    box.send(b"still here")
    stays.expect_exactly(b"still here")
