"""Runs the daemon for an hour among consoles that print, users who come and go, and faults.

At the end every line that a console printed must be in its logs, once and in order, and every byte
in the journal, or accounted for, and the journal must be whole to its last seal. The daemon must
have lived all the time, must use as much memory and as many descriptors as before, and no console
may have stayed away. The seed, which is printed first, decides what happens when.

Usage: run.py [--seed N] [--minutes M] [--consoles N] [--build DIR]
"""

import argparse
import asyncio
import os
import random
import re
import resource
import shutil
import signal
import sys
import tempfile
import time
from pathlib import Path
from typing import Coroutine

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "system"))

from consoles import Console  # noqa: E402  (the harness is found through the line above)
from faults import (FULL_DISK, JOURNAL_ROOM, LOG_ROOM, NO_LOG, Collector,  # noqa: E402
                    World, journal_of)
from journal_book import JournalBook  # noqa: E402
from journal_watch import JournalWatch, verify  # noqa: E402
from ledger import Ledger  # noqa: E402
from log_reader import LogReader  # noqa: E402
from plan import Step, plan  # noqa: E402
from stream import Counts  # noqa: E402
from users import Desk, Tool, Visit  # noqa: E402
from windows import StationWindows  # noqa: E402

from harness import isolation, settings  # noqa: E402
from harness.collectors import socket_path  # noqa: E402
from harness.scenes import is_sanitized  # noqa: E402
from harness.station import Station  # noqa: E402
from harness.waiting import NotReached, is_listening, stretched  # noqa: E402

DEFAULT_MINUTES = 60.0
DEFAULT_CONSOLES = 500

# What the daemon may have gained between the end of the warm-up and the end of the run.
MEMORY_GROWTH = 4 << 20

_WARM_UP_PART = 0.15
_WARM_UP_AT_MOST = 300.0
_JOURNAL_FILLS_FOR = 3.0
_REPORTS_EVERY = 60.0
_READS_LOGS_EVERY = 3.0
_KEEPS_JOURNAL_EVERY = 60.0
_UP_WITHIN = 90.0
_LOGGED_WITHIN = 30.0
_SHOWN = 60  # complaints

# What this program times cannot be more exact than it is itself; in seconds.
_BETWEEN_LOOKS = 0.02
_MUCH_WORK = 0.25

_COMPLAINT = re.compile(r'(?:write\(\) failed for console "|Log file for )c(\d+)')


class Soak:
    """One run."""

    def __init__(self, station: Station, seed: int, seconds: float, count: int) -> None:
        self._station = station
        self._seed = seed
        self._seconds = seconds
        self._complaints: list[str] = []
        self._counts = Counts()
        self._journal_counts = Counts()
        self._windows = StationWindows()
        self._begin = time.time()
        self._books: list[JournalBook] = []
        self._consoles = [self._console(number) for number in range(count)]
        self._reader = LogReader(
            station.logs,
            lambda number, when, text: self._consoles[number].ledger.record(when, text),
            lambda number, when, text: self._consoles[number].ledger.consolidated(when, text))
        self._journal = JournalWatch(journal_of(station), self._windows, lambda: self._books,
                                     self.fail)
        self._reading = asyncio.Lock()
        self._steps_file = open(station.output.path.with_name("steps"), "w", encoding="ascii")
        self._steps_done: dict[str, int] = {}
        self._warm_rss = 0

    def _console(self, number: int) -> Console:
        name, dirty = f"c{number}", number % 10 == 7
        book = JournalBook(name, self._journal_counts, self._windows.journal, self.fail, dirty)
        self._books.append(book)
        ledger = Ledger(name, self._counts, self._windows.output, self.fail, dirty,
                        common_cuts=self._windows.cuts, journal=book)
        return Console(number, ledger, self._seed, self.fail)


    def fail(self, what: str) -> None:
        """Something is wrong; the run goes on, unless the daemon has ended."""
        process = self._station.process
        if process is not None and process.poll() is not None:
            what = f"the daemon has ended with status {process.returncode}"
            if what in self._complaints:
                return
        self._complaints.append(what)
        if len(self._complaints) <= _SHOWN:
            print(f"soak: {self._clock()} FAILURE: {what}", flush=True)

    def _clock(self) -> str:
        passed = int(time.time() - self._begin)
        return f"{passed // 60:3d}:{passed % 60:02d}"

    async def run(self) -> bool:
        """The whole run; true when nothing was wrong, and false at once when the daemon ends."""
        living = asyncio.create_task(self._live())
        watching = asyncio.create_task(self._wait_for_end())
        await asyncio.wait({living, watching}, return_when=asyncio.FIRST_COMPLETED)
        if not living.done():
            print(self._station.last_lines())
            self.fail("the daemon has ended")
            return False
        await living
        return not self._complaints

    async def _wait_for_end(self) -> None:
        while self._station.process is None or self._station.running:
            await asyncio.sleep(0.2)

    async def _live(self) -> None:
        self._collector = Collector(socket_path(self._station))
        await self._collector.listen()
        await self._start()
        print(f"soak: {self._clock()} all {len(self._consoles)} consoles are connected; "
              f"{self._idle[0]} descriptors, {self._idle[1]} threads", flush=True)
        self._begin = time.time()
        background = [asyncio.create_task(self._work(work)) for work in (
            self._report(), self._read_logs(), self._warm_up(), self._measure_own_lag(),
            self._keep_journal(), *map(self._use_tool, range(3)))]
        await self._follow_plan()
        await self._come_to_rest()
        for task in background:
            task.cancel()
        await asyncio.gather(*background, return_exceptions=True)
        for tool in self._tools:
            tool.close()
        await self._close_the_books()
        await self._look_at_usage()
        self._sum_up()
        for console in self._consoles:
            console.shut()
        await self._collector.die()

    async def _work(self, work: Coroutine[None, None, None]) -> None:
        """Do something in addition to the plan; if it ends in an error, report that at once."""
        try:
            await work
        except Exception as error:
            self.fail(f"{error!r}")

    # The beginning

    async def _start(self) -> None:
        station = self._station
        # The tools of the world are there before the daemon, its port and cookie are not.
        self._desk = Desk(0, b"", self.fail)
        self._tools = [Tool(self._desk, f"tool{number}") for number in range(4)]
        self._world = World(station, self._desk, self._consoles, self._tools[0], self._collector,
                            self._windows)
        self._world.write_files()
        self._world.set_interval(7)
        self._world.set_helper()
        station.start("-S", "1", "-d", "0", "-B", "256", wait=False)
        while not is_listening(station.port):
            await asyncio.sleep(0.05)
        self._desk.port = station.port
        self._desk.cookie = (station.config / ".cookie").read_bytes().strip()
        await self._wait_connected()
        await asyncio.sleep(1)  # so that those who have just called are served
        self._idle = self._uses()
        for tool in self._tools:
            await tool.open()

    async def _wait_connected(self) -> None:
        end = time.time() + stretched(_UP_WITHIN)
        while not all(console.connected for console in self._consoles):
            if time.time() > end:
                away = [console.ledger.name for console in self._consoles if not console.connected]
                self.fail(f"not connected within {_UP_WITHIN} s: {away}")
                return
            await asyncio.sleep(0.1)

    def _uses(self) -> tuple[int, int]:
        return self._station.descriptors(), self._station.threads()

    # Meanwhile

    async def _follow_plan(self) -> None:
        going_on = set()
        for step in plan(self._seed, self._seconds, len(self._consoles)):
            await asyncio.sleep(max(0.0, self._begin + step.at - time.time()))
            going_on.add(asyncio.create_task(self._take(step)))
            going_on = {task for task in going_on if not task.done()}
        if going_on:
            await asyncio.wait(going_on)

    async def _take(self, step: Step) -> None:
        print(f"{time.time():.3f} {step}", file=self._steps_file, flush=True)
        self._steps_done[step.kind] = self._steps_done.get(step.kind, 0) + 1
        try:
            if step.kind == "visit":
                await Visit(self._desk, self._consoles[step.console], **step.words,
                            duration=step.duration, seed=step.seed).run()
            else:
                await self._world.run(step.kind, step.console, step.duration, step.seed)
        except Exception as error:  # whatever it was, the run reports it and goes on
            self.fail(f"{step}: {error!r}")

    async def _use_tool(self, number: int) -> None:
        tool = self._tools[number + 1]
        rand = random.Random(f"{self._seed}/tool{number}")
        while True:
            await asyncio.sleep(rand.uniform(0.2, 1.5))
            name = rand.choice(self._consoles).ledger.name
            records = await tool.command(rand.choice(
                ("console", f"console {name}", f"who {name}", "mapped_port", f"portholder {name}",
                 "nonsense", "who", f"mapped_port {name}", "who nobody", "\t")))
            if len(records) > len(self._consoles) + 1:
                self.fail(f"an answer has {len(records)} records")

    async def _read_logs(self) -> None:
        while True:
            await asyncio.sleep(_READS_LOGS_EVERY)
            async with self._reading:
                await self._reader.catch_up()
                self._journal.catch_up()

    async def _keep_journal(self) -> None:
        while True:
            await asyncio.sleep(_KEEPS_JOURNAL_EVERY)
            await self._world.keep_journal()

    async def _warm_up(self) -> None:
        length = min(_WARM_UP_AT_MOST, _WARM_UP_PART * self._seconds)
        await asyncio.sleep(length / 2)
        # What the daemon keeps while it cannot write has been in memory once, like all the rest.
        await self._world.run("full_journal", 0, _JOURNAL_FILLS_FOR, self._seed)
        await asyncio.sleep(length / 2)
        self._warm_rss = self._station.rss()

    async def _measure_own_lag(self) -> None:
        """How late this program itself is: what it times cannot be more exact."""
        while True:
            self._desk.next_look = time.time() + _BETWEEN_LOOKS
            worked = time.process_time()
            await asyncio.sleep(_BETWEEN_LOOKS)
            self._desk.own_lag.add(time.time() - self._desk.next_look)
            worked = time.process_time() - worked
            if worked > _MUCH_WORK:
                print(f"soak: {self._clock()} this program was busy for {worked:.3f} s", flush=True)

    async def _report(self) -> None:
        print("soak:   time  printed    found accounted users visits  rss/KiB   fds "
              "worst echo  answer own lag", flush=True)
        while True:
            await asyncio.sleep(min(_REPORTS_EVERY, self._seconds / 4))
            self._print_report()

    def _print_report(self) -> None:
        desk, counts = self._desk, self._counts
        print(f"soak: {self._clock()} {counts.printed:8d} {counts.found:8d} "
              f"{counts.accounted.total():9d} {desk.users:5d} {desk.visits:6d} "
              f"{self._station.rss() >> 10:8d} {self._station.descriptors():5d} "
              f"{desk.echoes.recent:9.3f}s "
              f"{desk.answers.recent:6.3f}s {self._desk.own_lag.recent:6.3f}s", flush=True)
        for times in (desk.echoes, desk.answers, desk.own_lag):
            times.recent = 0.0

    # The end

    async def _come_to_rest(self) -> None:
        await self._world.put_right()
        end = time.time() + stretched(_UP_WITHIN)
        while time.time() < end and not all(console.connected for console in self._consoles):
            await self._world.call_back()
            await asyncio.sleep(1)
        await self._wait_connected()
        for console in self._consoles:
            console.silence()

    async def _close_the_books(self) -> None:
        """Let every console print a last line, wait for all that was printed, and settle."""
        await asyncio.sleep(2)
        for console in self._consoles:
            console.say("last")
        end = time.time() + stretched(_LOGGED_WITHIN)
        while True:
            await self._reader.catch_up()
            self._journal.catch_up()
            if not any(console.ledger.outstanding or console.ledger.journal.outstanding
                       for console in self._consoles):
                break
            if time.time() > end:
                break
            await asyncio.sleep(0.5)
        await self._reader.catch_up(final=True)
        for console in self._consoles:
            console.ledger.settle()
            console.ledger.settle_consolidated()
            console.ledger.journal.settle()
        self._journal.settle()
        self._look_for_messages()

    def _look_for_messages(self) -> None:
        """Lines that found no room, or no log, are to be seen in the daemon's output."""
        told = {int(number) for number in _COMPLAINT.findall(self._station.log_text())}
        for console in self._consoles:
            reasons = {FULL_DISK, NO_LOG} & console.ledger.reasons
            if reasons and console.number not in told:
                self.fail(f"{console.ledger.name} lost lines to {reasons}, and the daemon "
                          "did not say so")

    async def _look_at_usage(self) -> None:
        """Threads and descriptors are those of the beginning, when no tool was there either."""
        end = time.time() + stretched(_LOGGED_WITHIN)
        while self._uses() != self._idle and time.time() < end:
            await asyncio.sleep(0.2)
        if self._uses() != self._idle:
            self.fail(f"{self._uses()} descriptors and threads instead of {self._idle}")
        grown = self._station.rss() - self._warm_rss
        print(f"soak: memory {self._station.rss() >> 10} KiB, {grown >> 10} KiB more than at the "
              f"end of the warm-up; {MEMORY_GROWTH >> 10} KiB are allowed")
        if grown > MEMORY_GROWTH and not is_sanitized(self._station.pid):
            self.fail(f"the daemon has grown by {grown} bytes")

    def _sum_up(self) -> None:
        counts, desk = self._counts, self._desk
        steps = ", ".join(f"{kind} {count}" for kind, count in sorted(self._steps_done.items()))
        print(f"soak: steps: {steps}")
        reasons = "; ".join(f"{count} {why}" for why, count in counts.accounted.most_common())
        print(f"soak: {counts.printed} lines printed, {counts.found} found, "
              f"{counts.accounted.total()} accounted for ({reasons})")
        self._journal.sum_up(self._journal_counts)
        print(f"soak: {counts.unwatched} records in the consolidated log; "
              f"{self._collector.events} events; output was read within {counts.worst_lag:.1f} s; "
              f"{counts.remains} bytes of torn telnet commands")
        print(f"soak: {desk.visits} visits, {desk.refused} refused, {desk.thrown_off} ended by the "
              f"daemon, {desk.pasters} of them typed at a console that stood still")
        print(f"soak: {desk.views} views are right to the byte; {desk.shown} bytes were shown, "
              f"{desk.not_shown} were not, in {desk.gaps} gaps")
        print(f"soak: {desk.echoes.count} echoes, the worst {desk.echoes.worst:.3f} s; "
              f"{desk.answers.count} commands, the slowest {desk.answers.worst:.3f} s; this "
              f"program was late by up to {self._desk.own_lag.worst:.3f} s")
        for books in (counts, self._journal_counts):
            if books.printed != books.found + books.accounted.total():
                self.fail("the counts do not agree")


def run_inside(arguments: argparse.Namespace, scratch: Path) -> int:
    """The run, in namespaces of its own."""
    isolation.enter_private_namespaces(settings.STANDARD_ROOT)
    isolation.set_mtu(1500)  # so that the kernel keeps no megabytes for users who read slowly
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
    station = Station(scratch)
    isolation.mount_tmpfs(station.logs, size=str(LOG_ROOM))
    journal_of(station).mkdir()
    isolation.mount_tmpfs(journal_of(station), size=str(JOURNAL_ROOM), mode="0750")

    async def soak() -> bool:
        return await Soak(station, arguments.seed, arguments.minutes * 60,
                          arguments.consoles).run()

    try:
        good = asyncio.run(soak())
        station.close()
        good = verify(station.program.parent) and good
    except (AssertionError, NotReached) as error:
        print(f"soak: FAILURE: {error}")
        good = False
    print(f"soak: seed {arguments.seed}: {'passed' if good else 'FAILED'}", flush=True)
    return 0 if good else 1


def run(arguments: argparse.Namespace) -> int:
    """Run in a child, so that this process still sees the machine's own mounts."""
    scratch = Path(tempfile.mkdtemp(prefix="zevd-soak."))
    child = os.fork()
    if child == 0:
        status = 1
        try:
            isolation.end_with_parent()
            signal.signal(signal.SIGINT, signal.default_int_handler)
            status = run_inside(arguments, scratch)
        except BaseException as error:  # this child must never go on as its parent
            print(f"soak: FAILURE: {error!r}", flush=True)
        finally:
            isolation.end_children(spared=set())
            os._exit(status)
    status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
    if status == 0:
        shutil.rmtree(scratch)
    else:
        print(f"soak: the daemon's output, and the times of the steps, are in {scratch}")
    return status


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(2**32))
    parser.add_argument("--minutes", type=float, default=DEFAULT_MINUTES)
    parser.add_argument("--consoles", type=int, default=DEFAULT_CONSOLES)
    parser.add_argument("--build", type=Path, help="the directory that holds bin/zevd")
    arguments = parser.parse_args()
    if arguments.build is not None:
        os.environ[settings.BUILD] = str(arguments.build.resolve())
    print(f"soak: seed {arguments.seed}, {arguments.minutes:g} minutes, "
          f"{arguments.consoles} consoles, {settings.daemon()}", flush=True)
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the child ends by it, and this one then too
    mount_point = isolation.MountPoint(settings.STANDARD_ROOT)
    mount_point.hold()
    try:
        return run(arguments)
    finally:
        mount_point.release()


if __name__ == "__main__":
    sys.exit(main())
