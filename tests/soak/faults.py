"""The faults of the station and its consoles: a coroutine for every kind of step but a visit."""

import asyncio
import os
import random
import signal
import subprocess
import time
from pathlib import Path

from consoles import PORT, Console, address
from users import Desk, Tool, deaf_tool, log_in, strangers
from windows import StationWindows, Window

from harness.station import Station, console_line
from harness.waiting import stretched

LOG_ROOM = 4 << 30  # bytes
JOURNAL_ROOM = 4 << 30
JOURNAL_LIMIT = 512  # MiB; whatever is older is removed by its keeper

_LEFT = 65536  # bytes, on a disk that is about to be full
_JOURNAL_QUEUE = 8 << 20  # what the daemon keeps until there is room in the journal
_FLOODING = 20  # consoles that print more than that meanwhile

# Why lines of the whole station may be missing.
FULL_DISK = "full disk"
NO_LOG = "no log can be opened"
FULL_JOURNAL = "full journal"

_EVENT_FILE = "lines"
_PATTERNS = "a 100 1 @[0-9]*[05] burst\nb 200 0 (HELLO|LAST) \nc 300 1 =[0-9]+7 \n"
_BAD_LINES = ("nonsense\n", "a b\n", '"" "" ""\n', "x 1.2.3 y z\n", "# \xff\xfe\n",
              "y" * 9000 + "\n", 'short 127.0.0.1 1 2 3 A200 sys1 "Unix 5.1" 1 1\n')

# Enough for the daemon to look at its signals, its consoles and the age of its logs; the soak goes
# on with what comes after it. The lag of the windows is longer.
_SETTLED = stretched(1.0)

_ROTATES_WITHIN = stretched(15.0)

# Consoles whose own ports ask for a login; the daemon takes five callers at a time there.
DOORS = 5

_HELPERS = {"": "cat > /dev/null\nexit 1\n",
            "hangs": "cat > /dev/null\nsleep {seconds}\nexit 1\n",
            "crashes": "cat > /dev/null\nkill -SEGV $$\n"}


class Collector:
    """An event manager that reads whatever comes, and can stop doing so."""

    def __init__(self, path: Path) -> None:
        self.path = path
        self.events = 0
        self._server: asyncio.AbstractServer | None = None
        self._going_on = asyncio.Event()
        self._going_on.set()
        self._writers: set[asyncio.StreamWriter] = set()

    async def listen(self) -> None:
        """Accept connections from now on."""
        self.path.parent.mkdir(exist_ok=True)
        self._server = await asyncio.start_unix_server(self._serve, self.path)

    async def _serve(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        self._writers.add(writer)
        try:
            while await self._going_on.wait() and (data := await reader.read(65536)):
                self.events += data.count(b"\n")
        except ConnectionError:
            pass
        finally:
            self._writers.discard(writer)
            writer.close()

    async def stall(self, seconds: float) -> None:
        """Read nothing for a while."""
        self._going_on.clear()
        await asyncio.sleep(seconds)
        self._going_on.set()

    async def die(self) -> None:
        """End: no connection, no socket."""
        self._server.close()
        for writer in list(self._writers):
            writer.close()
        self.path.unlink(missing_ok=True)


class World:
    """The station and what is around it, as the steps change them."""

    def __init__(self, station: Station, desk: Desk, consoles: list[Console], tool: Tool,
                 collector: Collector, windows: StationWindows) -> None:
        self._station = station
        self._desk = desk
        self._consoles = consoles
        self._tool = tool
        self._collector = collector
        self._common = windows.output
        self._cuts = windows.cuts
        self._journal_is_full = windows.journal_is_full
        self._dropped: set[int] = set()
        self._disabled: set[int] = set()
        self._generation: dict[int, int] = {}
        self._extra = ""
        self._turn = asyncio.Lock()  # files and logs: one change at a time
        self._moved = 0

    # The station's files

    def write_files(self) -> None:
        """The configuration as it should be now."""
        lines = [self._line(console) for console in self._consoles
                 if console.number not in self._dropped]
        self._replace(self._station.config_file, "".join(lines) + self._extra)
        self._replace(self._station.events / _EVENT_FILE, _PATTERNS)

    def _replace(self, path: Path, text: str) -> None:
        written = self._station.root / "written"
        written.write_text(text, encoding="latin-1")
        written.rename(path)

    def _line(self, console: Console) -> str:
        number = console.number
        door = number < DOORS
        return console_line(console.ledger.name, PORT, address=address(number),
                            mapped_port=door_port(number) if door else 0, auth=int(door),
                            enable=int(number not in self._disabled), events=int(number % 4 == 0),
                            event_file=_EVENT_FILE)

    def set_interval(self, days: int) -> None:
        """Set how long logs are kept in one directory, from the next reload on."""
        self._replace(self._station.config / "qor.conf",
                      f"# shared\nZEVD_ARCH_INT={days}\nZEVD_JOURNAL={JOURNAL_LIMIT}\n")

    def set_helper(self, kind: str = "", seconds: float = 0) -> None:
        """Set the program that checks passwords from now on."""
        path = self._station.root / "bin" / "qor_pam_auth"
        path.parent.mkdir(exist_ok=True)
        written = path.with_suffix(".new")
        written.write_text("#!/bin/sh\n" + _HELPERS[kind].format(seconds=seconds),
                           encoding="ascii")
        written.chmod(0o755)
        written.rename(path)

    def _hup(self) -> None:
        self._station.signal(signal.SIGHUP)

    async def _reload(self) -> None:
        self.write_files()
        self._hup()
        await asyncio.sleep(_SETTLED)

    def _may_close(self, console: Console, why: str) -> list[Window]:
        """From now on the daemon may hang up on the console, with output unread."""
        now = time.time()
        return [*console.ledger.may_close(why, now), console.closings.open(why, now),
                console.upsets.open(why, now)]

    async def run(self, kind: str, number: int, duration: float, seed: int) -> None:
        """Let one step happen."""
        console = self._consoles[number]
        if hasattr(self, f"_console_{kind}"):
            await getattr(self, f"_console_{kind}")(console, duration)
        else:
            await getattr(self, f"_station_{kind}")(console, duration, seed)

    # Consoles

    async def _console_hang_up(self, console: Console, _duration: float) -> None:
        console.hang_up()

    async def _console_reset(self, console: Console, _duration: float) -> None:
        console.reset()

    async def _console_refuse(self, console: Console, duration: float) -> None:
        console.hang_up()
        console.refuse()
        await asyncio.sleep(duration)
        console.listen()
        await self._tool.command(f"force {console.ledger.name}")

    async def _console_unanswered(self, console: Console, duration: float) -> None:
        console.hang_up()
        console.leave_unanswered()
        await asyncio.sleep(duration)
        console.listen()

    async def _console_hang(self, console: Console, duration: float) -> None:
        window = console.upsets.open("hangs", time.time())
        console.hang(True)
        await asyncio.sleep(duration)
        console.hang(False)
        window.close(time.time())

    async def _console_burst(self, console: Console, _duration: float) -> None:
        console.burst(200)

    async def _console_disable(self, console: Console, duration: float) -> None:
        windows = self._may_close(console, "disabled")
        await self._tool.command(f"disable {console.ledger.name}")
        await asyncio.sleep(duration)
        await self._tool.command(f"enable {console.ledger.name}")
        await asyncio.sleep(_SETTLED)
        for window in windows:
            window.close(time.time())

    async def _console_clear(self, console: Console, _duration: float) -> None:
        console.upsets.moment("cleared", time.time())
        await self._tool.command(f"clear {console.ledger.name}")

    async def _console_message(self, console: Console, _duration: float) -> None:
        console.upsets.moment("message", time.time())
        await self._tool.command(f"msg {console.ledger.name} to whom it may concern")

    # The configuration

    async def _station_reload(self, _console: Console, _duration: float, _seed: int) -> None:
        async with self._turn:
            await self._reload()

    async def _station_hup_storm(self, _console: Console, _duration: float, seed: int) -> None:
        rand = random.Random(seed)
        async with self._turn:
            for _ in range(rand.randint(5, 30)):
                self._hup()
                await asyncio.sleep(rand.uniform(0, 0.1))

    async def _station_bad_lines(self, _console: Console, _duration: float, seed: int) -> None:
        async with self._turn:
            self._extra = "".join(random.Random(seed).choices(_BAD_LINES, k=20))
            await self._reload()
            self._extra = ""

    async def _station_event_files(self, _console: Console, _duration: float, seed: int) -> None:
        async with self._turn:
            spare = self._station.events / "spare"
            spare.write_text("a 1 0 (\n" * (seed % 50) + "b 1 0 [a-z\nc 1 0 x\n", encoding="ascii")
            await self._reload()
            spare.unlink()
            await self._reload()

    async def _station_drop(self, console: Console, duration: float, _seed: int) -> None:
        await self._without(self._dropped, console, "dropped", duration)

    async def _station_configure_disabled(self, console: Console, duration: float,
                                          _seed: int) -> None:
        await self._without(self._disabled, console, "configured as disabled", duration)

    async def _without(self, which: set[int], console: Console, why: str,
                       duration: float) -> None:
        windows = self._may_close(console, why)
        async with self._turn:
            which.add(console.number)
            await self._reload()
        await asyncio.sleep(duration)
        async with self._turn:
            which.discard(console.number)
            await self._reload()
        for window in windows:
            window.close(time.time())

    async def _station_rename(self, console: Console, _duration: float, _seed: int) -> None:
        async with self._turn:
            number = console.number
            window = console.upsets.open("renamed", time.time())
            self._generation[number] = self._generation.get(number, 0) + 1
            console.ledger.name = f"c{number}r{self._generation[number]}"
            await self._reload()
            window.close(time.time())

    # The logs

    async def _rotate(self, seconds: float) -> None:
        """Let every directory be too old for a while. The daemon then goes on to new ones."""
        window = self._cuts.open("rotation", time.time())
        self.set_interval(0)
        self._hup()
        await self._see_rotations()
        await asyncio.sleep(seconds)
        self.set_interval(7)
        self._hup()
        await asyncio.sleep(_SETTLED)
        window.close(time.time())

    async def _see_rotations(self) -> None:
        """Wait for the link to change several times: the opening of a log may make it, too."""
        link = self._station.logs / "zev.dated" / "current"
        seen = {_changed(link)}
        end = time.time() + _ROTATES_WITHIN
        while len(seen) < 4:
            if time.time() > end:
                self._desk.fail("the logs are not rotated")
                return
            await asyncio.sleep(0.02)
            seen.add(_changed(link))

    async def _station_rotate(self, _console: Console, duration: float, _seed: int) -> None:
        async with self._turn:
            await self._rotate(duration)

    async def _station_full_disk(self, _console: Console, duration: float, seed: int) -> None:
        async with self._turn:
            window = self._common.open(FULL_DISK, time.time())
            _resize(self._station.logs, _used(self._station.logs) + _LEFT)
            for console in random.Random(seed).choices(self._consoles, k=50):
                console.burst(100)
            await asyncio.sleep(duration)
            _resize(self._station.logs, LOG_ROOM)
            await asyncio.sleep(_SETTLED)
            window.close(time.time())

    async def _station_full_journal(self, _console: Console, duration: float, seed: int) -> None:
        """The journal says what it has lost; the logs lose nothing."""
        async with self._turn:
            window = self._journal_is_full.open(FULL_JOURNAL, time.time())
            journal = journal_of(self._station)
            _resize(journal, _used(journal) + _LEFT)
            flooding = min(_FLOODING, len(self._consoles))
            for console in random.Random(seed).sample(self._consoles, k=flooding):
                console.flood(_JOURNAL_QUEUE // flooding * 2)
            await asyncio.sleep(duration)
            _resize(journal, JOURNAL_ROOM)
            await asyncio.sleep(_SETTLED)
            window.close(time.time())

    async def _station_vanished_logs(self, _console: Console, duration: float, _seed: int) -> None:
        """Nothing is lost: logs that are open are written to wherever they are."""
        async with self._turn:
            self._move_logs()
            await asyncio.sleep(duration)
            await self._rotate(0)

    def _move_logs(self) -> None:
        place = self._station.logs / "zev.dated"
        self._moved += 1
        place.rename(place.with_name(f"zev.dated.moved{self._moved}"))

    async def _station_unwritable_logs(self, _console: Console, duration: float,
                                       _seed: int) -> None:
        """No log can be opened; when that is over, the daemon does so with the next directory."""
        async with self._turn:
            window = self._common.open(NO_LOG, time.time())
            self._move_logs()
            obstacle = self._station.logs / "zev.dated"
            obstacle.touch()
            await asyncio.sleep(duration)
            obstacle.unlink()
            await self._rotate(0)
            window.close(time.time())

    async def keep_journal(self) -> None:
        """Have the journal's keeper do what it does every few minutes."""
        async with self._turn:
            keeper = await asyncio.create_subprocess_exec(
                self._station.program.with_name("zevkeep"), stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT)
            said, _ = await keeper.communicate()
        if keeper.returncode != 0:
            self._desk.fail(f"zevkeep ended with status {keeper.returncode}: {said!r}")

    # Others

    async def _station_collector_stalls(self, _console: Console, duration: float,
                                        _seed: int) -> None:
        await self._collector.stall(duration)

    async def _station_collector_dies(self, _console: Console, duration: float,
                                      _seed: int) -> None:
        async with self._turn:
            await self._collector.die()
            await asyncio.sleep(duration)
            await self._collector.listen()

    async def _station_helper_hangs(self, _console: Console, duration: float, seed: int) -> None:
        await self._with_helper("hangs", duration, seed)

    async def _station_helper_crashes(self, _console: Console, duration: float, seed: int) -> None:
        await self._with_helper("crashes", duration, seed)

    async def _with_helper(self, kind: str, duration: float, seed: int) -> None:
        self.set_helper(kind, duration)
        doors = min(DOORS, len(self._consoles))
        await asyncio.gather(*(
            log_in(self._desk, door_port((seed + number) % doors), duration, number % 2 == 0)
            for number in range(seed % 8 + 1)), return_exceptions=True)
        self.set_helper()

    async def _station_deaf_tool(self, _console: Console, duration: float, _seed: int) -> None:
        await deaf_tool(self._desk, duration)

    async def _station_strangers(self, _console: Console, duration: float, seed: int) -> None:
        await strangers(self._desk, 20 + seed % 80, duration, seed)

    async def _station_message_to_all(self, _console: Console, _duration: float,
                                      _seed: int) -> None:
        for console in self._consoles:
            console.upsets.moment("message", time.time())
        await self._tool.command("msg - the machine goes down for a while")

    # The end

    async def put_right(self) -> None:
        """Everything is as at the start, whatever the steps have left; names excepted."""
        async with self._turn:
            self._dropped.clear()
            self._disabled.clear()
            self.set_helper()
            for console in self._consoles:
                console.hang(False)
            await self._reload()

    async def call_back(self) -> None:
        """Have the daemon call at once every console that it is not connected to."""
        for console in self._consoles:
            if not console.connected:
                await self._tool.command(f"enable {console.ledger.name}")
                await self._tool.command(f"force {console.ledger.name}")


def journal_of(station: Station) -> Path:
    """Where the daemon keeps its journal."""
    return station.root / "journal"


def door_port(number: int) -> int:
    """The port of a console's own."""
    return 20001 + number


def _changed(link: Path) -> int:
    try:
        return os.lstat(link).st_ctime_ns
    except FileNotFoundError:
        return 0


def _used(directory: Path) -> int:
    found = os.statvfs(directory)
    return (found.f_blocks - found.f_bfree) * found.f_frsize


def _resize(directory: Path, size: int) -> None:
    """Give the file system another size, so that it is full or has room again."""
    subprocess.run(["mount", "-o", f"remount,size={size}", directory], check=True)
