"""Everybody who calls the daemon: users, management tools, and strangers."""

import asyncio
import contextlib
import random
import re
import socket
import struct
import time
from collections import deque
from typing import Callable

from consoles import Console
from ledger import HELD_BACK, View
from windows import LAG, LONG_LAG, Window, clock

from harness.commands import DONE, ERROR, RECORDS
from harness.peers import OFFERS
from harness.waiting import stretched

MODES = ("ro", "sh", "ex", "er")

# What a caller is told while a console is away, or has just been called.
_REFUSED_BY_STATE = (b"004", b"005", b"011", b"012")

_HEADER = struct.Struct("<II")
_RECORD_SIZES = {"console": 264, "who": 98, "mapped_port": 134, "portholder": 64}
_LINE = re.compile(rb"@(\d+)\.(\d+) ")

_PATIENCE = stretched(20.0)

# A user who has left is one of a console's users until the daemon has both locks for removing him;
# it may go without for several random times below a second.
_REMOVED_WITHIN = stretched(5.0)
# An echo on a console to which nothing happens: it takes no longer than this, and from the other
# on it is worth a line of the report. In seconds.
WORST_ECHO = stretched(5.0)
_SLOW = 0.5

# Of those who read too slowly or nothing at all, while the console prints more than there is room
# for on the way to them.
_PACES = (3_000, 20_000, 50_000, 300_000)  # bytes a second
_FLOODS = 20
_FLOOD = 128 << 10
_BETWEEN_FLOODS = 0.1
_SMALL = 16384  # what the kernel keeps for them
_LATE = ("slow", "stall")


class Times:
    """How long something took, in seconds."""

    def __init__(self) -> None:
        self.count = 0
        self.worst = 0.0
        self.recent = 0.0  # the worst since the last report
        self._last: deque[tuple[float, float]] = deque(maxlen=1000)

    def worst_since(self, when: float) -> float:
        """The worst of the last thousand that ended after that."""
        return max((seconds for ended, seconds in self._last if ended >= when), default=0.0)

    def add(self, seconds: float) -> None:
        """One more."""
        self._last.append((time.time(), seconds))
        self.count += 1
        self.worst = max(self.worst, seconds)
        self.recent = max(self.recent, seconds)


async def _call(port: int, buffer: int | None = None) -> socket.socket:
    sock = socket.socket()
    sock.setblocking(False)
    if buffer is not None:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, buffer)
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    await asyncio.get_running_loop().sock_connect(sock, ("127.0.0.1", port))
    return sock


def _close(sock: socket.socket, reset: bool = False) -> None:
    if reset:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()


class Desk:
    """Where callers learn how to call, and where they leave what they have seen."""

    def __init__(self, port: int, cookie: bytes, fail: Callable[[str], None]) -> None:
        self.port = port
        self.cookie = cookie
        self.fail = fail
        self.echoes = Times()
        self.answers = Times()
        self.own_lag = Times()  # how late this program itself is
        self.next_look = 0.0  # when the next measurement of that is due
        self.users = 0
        self.visits = 0
        self.refused = 0
        self.thrown_off = 0
        self.pasters = 0  # of these
        self.views = 0
        self.shown = 0
        self.not_shown = 0
        self.gaps = 0

    async def ask(self, line: str, buffer: int | None = None) -> socket.socket:
        """A connection to the main port that has sent this argument line."""
        sock = await _call(self.port, buffer)
        loop = asyncio.get_running_loop()
        await loop.sock_sendall(sock, b"token " + self.cookie + b" " + line.encode() + b"\n")
        return sock


class Visit:
    """A user's visit to a console, from the call to the end."""

    def __init__(self, desk: Desk, console: Console, mode: str, behaviour: str, duration: float,
                 seed: int) -> None:
        self._desk = desk
        self._console = console
        self._mode = mode
        self._behaviour = behaviour
        self._duration = duration
        self._random = random.Random(seed)
        self._seen = b""
        self._last_line = -1
        self._tokens: dict[bytes, asyncio.Future] = {}
        self._over = asyncio.get_running_loop().create_future()
        self._user = f"u{seed % 10000}"
        self._began = time.time()
        self._view: View | None = None

    async def run(self) -> None:
        """The whole visit."""
        with self._console.ledger.view() as view:
            # What the daemon does not keep for those who come later need not be complete.
            self._view = None if self._console.ledger.dirty else view
            await self._visit()
            self._desk.views += self._view is not None and view.shown > 0
            self._desk.shown += view.shown
            self._desk.not_shown += view.not_shown
            self._desk.gaps += view.gaps

    async def _visit(self) -> None:
        name, began = self._console.ledger.name, self._began
        windows = self._open_windows(began)
        self._desk.visits += 1
        try:
            small = _SMALL if self._behaviour in _LATE else None
            sock = await self._desk.ask(f"{name} mode={self._mode} user={self._user}", small)
            try:
                if await self._is_attached(sock, began):
                    self._desk.users += 1
                    try:
                        await self._stay(sock)
                    finally:
                        self._desk.users -= 1
            finally:
                _close(sock, reset=self._behaviour == "vanish")
        except ConnectionError as error:
            self._complain(f"the call ended with {error}", began)
        finally:
            for window in windows:
                window.close(time.time() + _REMOVED_WITHIN)

    def _open_windows(self, now: float) -> list[Window]:
        ledger = self._console.ledger
        opened = [ledger.watched.open("visit", now),
                  self._console.upsets.open(f"visit of {self._user}", now)]
        if self._mode == "er":
            opened.append(ledger.windows.open("exclusive visit", now))
        return opened

    async def _is_attached(self, sock: socket.socket, began: float) -> bool:
        loop = asyncio.get_running_loop()
        answer = b""
        while OFFERS not in answer:
            try:
                data = await asyncio.wait_for(loop.sock_recv(sock, 4096), _PATIENCE)
            except asyncio.TimeoutError:
                self._complain(f"no answer to a call; there is {answer!r}", began)
                return False
            if not data:
                self._judge_refusal(answer, began)
                return False
            answer += data
        self._feed(answer)
        self._look(answer.partition(OFFERS)[2])
        return True

    def _judge_refusal(self, answer: bytes, began: float) -> None:
        self._desk.refused += 1
        if answer[:3] in _REFUSED_BY_STATE and (
                not self._console.connected or time.time() - self._console.connected_at < LONG_LAG):
            return
        if not self._is_upset(began):
            self._complain(f"refused with {answer!r}", began)

    def _is_upset(self, began: float) -> bool:
        """Something happened to the console, or somebody else was there, since then."""
        own = f"visit of {self._user}"
        return self._console.upsets.touch_other(own, began, time.time())

    def _complain(self, what: str, began: float) -> None:
        if not self._is_upset(began):
            self._desk.fail(f"{self._user} at {self._console.ledger.name} "
                            f"({self._mode}, {self._behaviour}): {what}; "
                            f"upsets: {self._console.upsets}")

    async def _stay(self, sock: socket.socket) -> None:
        attached = time.time()
        tasks = [asyncio.create_task(self._act(sock))]
        if self._behaviour not in _LATE:
            tasks.append(asyncio.create_task(self._read(sock)))
        await asyncio.wait(tasks[:1], timeout=2 * self._duration + 2 * _PATIENCE)
        for task in tasks:
            task.cancel()
        for result in await asyncio.gather(*tasks, return_exceptions=True):
            if isinstance(result, Exception):
                self._desk.fail(f"{self._user}: {result!r}")
        if not self._over.done():
            # This user may have been disconnected just now, which has not been seen yet.
            self._console.ledger.surely_watched(attached, time.time() - LAG)
        if self._over.done():
            self._desk.thrown_off += 1
            if self._behaviour == "paste":
                self._desk.pasters += 1
            else:
                self._complain("thrown off", attached)

    async def _read(self, sock: socket.socket) -> None:
        loop = asyncio.get_running_loop()
        try:
            while data := await loop.sock_recv(sock, 65536):
                self._feed(data)
                self._look(data)
        except ConnectionError:
            pass
        self._over.set_result(None)

    def _look(self, data: bytes) -> None:
        """Compare what is shown with what was printed, until something else happens."""
        if self._view is not None:
            self._judge(self._view.received(data))

    def _judge(self, wrong: str) -> None:
        if wrong:
            self._complain(f"the view {wrong}", self._began)
            self._view = None

    def _feed(self, data: bytes) -> None:
        self._seen += data
        for token in [token for token in self._tokens if token in self._seen]:
            self._tokens.pop(token).set_result(None)
        end = 0
        for match in _LINE.finditer(self._seen):
            end = match.end()
            if int(match[1]) == self._console.number:
                self._see_line(int(match[2]))
        self._seen = self._seen[max(end, len(self._seen) - 64):]

    def _see_line(self, line: int) -> None:
        before, self._last_line = self._last_line, line
        if before < 0 or line == before + 1:
            return
        if self._console.ledger.dirty:
            return  # what is not kept for those who come later need not be complete
        if line > before and any(before <= gap < line for gap in self._console.breaks):
            return
        now = time.time()
        if not self._console.upsets.touch_other(f"visit of {self._user}", now - LAG, now):
            self._desk.fail(f"{self._user} saw line {line} of {self._console.ledger.name} "
                            f"after line {before}; upsets: {self._console.upsets}")

    async def _act(self, sock: socket.socket) -> None:
        if self._behaviour in _LATE:
            await self._be_late(sock)
        elif self._behaviour == "type" and self._mode != "ro":
            await self._type(sock)
        elif self._behaviour == "paste" and self._mode != "ro":
            await self._paste(sock)
        else:
            await self._pass(self._duration)

    async def _pass(self, seconds: float) -> None:
        """Let time go by, until disconnected at the latest."""
        await asyncio.wait({self._over}, timeout=seconds)

    async def _type(self, sock: socket.socket) -> None:
        loop = asyncio.get_running_loop()
        end = time.time() + self._duration
        while time.time() < end and not self._over.done():
            token = b"=%d " % self._random.randrange(10**12)
            answer = self._tokens[token] = loop.create_future()
            asked = time.time()
            try:
                await loop.sock_sendall(sock, b"?" + token[1:-1] + b"\n")
            except ConnectionError:
                await self._pass(1)
                return
            await asyncio.wait({answer, self._over}, timeout=_PATIENCE,
                               return_when=asyncio.FIRST_COMPLETED)
            self._tokens.pop(token, None)
            if answer.done():
                self._time_echo(asked)
            elif not self._over.done():
                self._complain("typed and got no answer", asked)
                return
            await self._pass(self._random.uniform(0.1, 1.0))

    def _time_echo(self, asked: float) -> None:
        """Time an echo; a delay with a known reason is not the daemon's."""
        taken = time.time() - asked
        if self._is_upset(asked):
            return
        self._desk.echoes.add(taken)
        late = max(self._desk.own_lag.worst_since(asked), time.time() - self._desk.next_look)
        told = (f"an echo of {self._console.ledger.name} took {taken:.3f} s; this program was late "
                f"by up to {late:.3f} s")
        if taken - late > WORST_ECHO:
            self._desk.fail(told)
        elif taken > _SLOW:
            print(f"soak: {clock(asked)} {told}", flush=True)

    async def _paste(self, sock: socket.socket) -> None:
        """Type a great deal at a console that reads nothing meanwhile."""
        loop = asyncio.get_running_loop()
        end = time.time() + self._duration
        self._console.hang(True)
        try:
            while time.time() < end and not self._over.done():
                await asyncio.wait_for(loop.sock_sendall(sock, b"pasted " * 2000), self._duration)
                await self._pass(0.05)
        except (ConnectionError, asyncio.TimeoutError):
            pass
        finally:
            self._console.hang(False)

    async def _be_late(self, sock: socket.socket) -> None:
        """Read slowly or nothing while the console floods; then see what the daemon kept."""
        reader = None
        if self._behaviour == "slow":
            reader = asyncio.create_task(self._read_slowly(sock, self._random.choice(_PACES)))
        end = time.time() + self._duration
        for _ in range(_FLOODS):
            self._console.flood(_FLOOD)
            await self._pass(_BETWEEN_FLOODS)
        await self._pass(max(0.0, end - time.time()))
        if reader is not None:
            reader.cancel()
            await asyncio.gather(reader, return_exceptions=True)
        await self._catch_up(sock)

    async def _read_slowly(self, sock: socket.socket, pace: int) -> None:
        loop = asyncio.get_running_loop()
        with contextlib.suppress(ConnectionError):
            while data := await loop.sock_recv(sock, max(1, pace // 10)):
                self._look(data)
                await asyncio.sleep(len(data) / pace)

    async def _catch_up(self, sock: socket.socket) -> None:
        """Read until all is accounted for that has been printed by now."""
        loop = asyncio.get_running_loop()
        asked, due = time.time(), self._view.printed if self._view is not None else 0
        while self._view is None or self._view.accounted < due - HELD_BACK:
            try:
                data = await asyncio.wait_for(loop.sock_recv(sock, 65536), 1)
            except asyncio.TimeoutError:
                if self._view is None:
                    return
                if time.time() > asked + _PATIENCE:
                    self._complain("was not shown all that was printed", self._began)
                    return
                continue
            except ConnectionError:
                data = b""
            if not data:
                self._over.set_result(None)
                return
            self._look(data)


class Tool:
    """A management tool, which sends one command after another."""

    def __init__(self, desk: Desk, name: str) -> None:
        self._desk = desk
        self._name = name
        self._lock = asyncio.Lock()
        self._socket: socket.socket | None = None

    async def open(self) -> "Tool":
        """Ask for the command port."""
        self._socket = await self._desk.ask(f"@@@@ user={self._name}")
        return self

    async def command(self, line: str) -> list[bytes]:
        """Send a command; the records of its answer."""
        async with self._lock:
            begin = time.time()
            loop = asyncio.get_running_loop()
            try:
                await loop.sock_sendall(self._socket, line.encode() + b"\n")
                records = await asyncio.wait_for(self._answer(line), _PATIENCE)
            except (OSError, asyncio.TimeoutError, EOFError) as error:
                self._desk.fail(f"tool {self._name}: {line!r} ended with {error!r}")
                self.close()
                with contextlib.suppress(OSError):
                    await self.open()
                return []
            self._desk.answers.add(time.time() - begin)
            return records

    async def _answer(self, line: str) -> list[bytes]:
        kind, count = _HEADER.unpack(await self._take(_HEADER.size))
        if kind == DONE:
            return []
        if kind == ERROR:
            text = await self._take(count)
            if not 0 < count <= 80 or text[-1:] != b"\0":
                self._desk.fail(f"tool {self._name}: {line!r} was answered with {text!r}")
            return []
        if kind != RECORDS:
            raise EOFError(f"an answer of type {kind}")
        size = _RECORD_SIZES[line.split()[0]]
        raw = await self._take(size * count)
        return [raw[place:place + size] for place in range(0, len(raw), size)]

    async def _take(self, count: int) -> bytes:
        loop = asyncio.get_running_loop()
        data = b""
        while len(data) < count:
            fresh = await loop.sock_recv(self._socket, count - len(data))
            if not fresh:
                raise EOFError("the end of the connection")
            data += fresh
        return data

    def close(self) -> None:
        """Leave."""
        _close(self._socket)


async def deaf_tool(desk: Desk, seconds: float) -> None:
    """A tool that sends commands and reads no answer."""
    loop = asyncio.get_running_loop()
    sock = await desk.ask("@@@@ user=deaf", buffer=4096)
    try:
        await asyncio.wait_for(loop.sock_sendall(sock, b"console\n" * 2000), seconds)
        await asyncio.sleep(seconds)
    except (ConnectionError, asyncio.TimeoutError):
        pass
    finally:
        _close(sock)


async def strangers(desk: Desk, count: int, seconds: float, seed: int) -> None:
    """Many callers that send nothing, or nonsense, or leave half of the connection open."""
    loop = asyncio.get_running_loop()
    rand = random.Random(seed)
    callers = []
    try:
        for number in range(count):
            sock = await _call(desk.port)
            callers.append(sock)
            await _misbehave(loop, sock, number % 4, rand)
        await asyncio.sleep(seconds)
    finally:
        for number, sock in enumerate(callers):
            _close(sock, reset=number % 3 == 0)


async def _misbehave(loop: asyncio.AbstractEventLoop, sock: socket.socket, kind: int,
                     rand: random.Random) -> None:
    try:
        if kind == 1:
            await loop.sock_sendall(sock, rand.randbytes(rand.randint(1, 2000)))
        elif kind == 2:
            sock.shutdown(socket.SHUT_WR)
        elif kind == 3:
            await loop.sock_sendall(sock, b"token " + b"x" * rand.randint(1, 40))
    except OSError:
        pass  # the daemon has closed it


async def log_in(desk: Desk, port: int, seconds: float, reset: bool) -> None:
    """Somebody at a console's own port who gives a name and a password, and then waits."""
    loop = asyncio.get_running_loop()
    sock = await _call(port)
    try:
        for wanted, given in ((b"username: ", b"root\r\0"), (b"password: ", b"secret\r\0")):
            seen = b""
            while wanted not in seen:
                data = await asyncio.wait_for(loop.sock_recv(sock, 4096), _PATIENCE)
                if not data:
                    return
                seen += data
            await loop.sock_sendall(sock, given)
        await asyncio.sleep(seconds)
    except (OSError, asyncio.TimeoutError):
        pass
    finally:
        _close(sock, reset)
