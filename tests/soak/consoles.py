"""The consoles of the soak: each prints numbered lines and answers what users ask of it.

All of them live in one event loop. A line begins with "@NUMBER.LINE " and ends with a line feed. A
user who sends "?TOKEN" and a line feed is answered by a line that has "=TOKEN " in it.
"""

import asyncio
import fcntl
import math
import random
import re
import socket
import string
import struct
import termios
import time
from typing import Callable

from ledger import Ledger
from windows import LONG_LAG, Windows

PORT = 7001
_PER_NETWORK = 250

LINES_PER_SECOND = 2.0
_LONG_LINE = 2900
_MOST_UNSENT = 16384

_QUESTION = re.compile(rb"\?(\d+)\n")
_TEXT = "".join(random.Random(1).choices(string.ascii_letters + string.digits + " .,()", k=8192))
_TELNET_COMMANDS = (b"\xff\xfb\x01", b"\xff\xfc\x01")
_NEGOTIATION = b"\xff\xfb\x01\xff\xfc\x01"


def address(number: int) -> str:
    """Where the console is reached."""
    rest, last = divmod(number, _PER_NETWORK)
    return f"127.{1 + rest // _PER_NETWORK}.{rest % _PER_NETWORK}.{1 + last}"


class Console:
    """One console. It listens from the start."""

    def __init__(self, number: int, ledger: Ledger, seed: int, fail: Callable[[str], None]) -> None:
        self.number = number
        self.ledger = ledger
        self.upsets = Windows()  # spans in which its users may be thrown off
        self.closings = Windows()  # spans in which the daemon may hang up
        self.breaks: list[int] = []  # lines after which some were not printed
        self.connected_at = 0.0
        self._fail = fail
        self._random = random.Random(f"{seed}/{number}")
        self._loop = asyncio.get_running_loop()
        self._listener: socket.socket | None = None
        self._blockers: list[socket.socket] = []
        self._socket: socket.socket | None = None
        self._leaving = False
        self._hung = False
        self._blind_since = math.inf  # the time of the last look at the connection, after a hang
        self._line = 0
        self._input = b""
        self._unsent = b""
        self._rest = b""  # of a line that has been begun
        self._silent = False
        self.listen()
        self._schedule()

    # Its connection

    @property
    def connected(self) -> bool:
        """The daemon has called."""
        return self._socket is not None and not self._leaving

    def listen(self) -> None:
        """Accept calls from now on."""
        self.refuse()
        self._open(16)
        self._loop.add_reader(self._listener, self._accept)

    def _open(self, backlog: int) -> None:
        self._listener = socket.socket()
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._listener.bind((address(self.number), PORT))
        self._listener.listen(backlog)
        self._listener.setblocking(False)

    def refuse(self) -> None:
        """Refuse calls from now on."""
        for blocker in self._blockers:
            blocker.close()
        self._blockers.clear()
        if self._listener is not None:
            self._loop.remove_reader(self._listener)
            self._listener.close()
            self._listener = None

    def leave_unanswered(self) -> None:
        """Leave calls unanswered from now on: the queue of the listening socket is full."""
        self.refuse()
        self._open(0)
        for _ in range(4):
            blocker = socket.socket()
            blocker.setblocking(False)
            blocker.connect_ex((address(self.number), PORT))
            self._blockers.append(blocker)

    def _accept(self) -> None:
        try:
            sock, _ = self._listener.accept()
        except BlockingIOError:
            return
        if self._socket is not None:
            self._read()  # the end of the connection before
        if self._socket is not None:
            self._end()
        sock.setblocking(False)
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._socket = sock
        self._leaving = self._hung = False
        self.connected_at = time.time()
        self.breaks.append(self._line)
        self._loop.add_reader(sock, self._read)
        # Text at once spares the daemon the wait for a telnet negotiation.
        self._emit((_NEGOTIATION if self.ledger.dirty else b"") + self._compose("hello"))

    def hang_up(self) -> None:
        """Close the connection in the normal way: the daemon gets all that was sent."""
        if not self.connected:
            return
        self._finish_line()
        self._unsent = b""
        self._leave("hangs up")
        self._socket.shutdown(socket.SHUT_WR)
        leaving = self._socket
        self._loop.call_later(5, lambda: self._end() if self._socket is leaving else None)

    def reset(self) -> None:
        """Close the connection so that what is on its way is lost."""
        if not self.connected:
            return
        self._leave("resets its connection")
        lost = struct.unpack("i", fcntl.ioctl(self._socket, termios.TIOCOUTQ, bytes(4)))[0]
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self._end(lost)

    def _leave(self, why: str) -> None:
        self._leaving = True
        self.upsets.moment(why, time.time())
        self.closings.moment(why, time.time(), LONG_LAG)

    def hang(self, hung: bool) -> None:
        """Neither print nor read, like a machine that has stopped; or go on."""
        if self._socket is None or hung == self._hung:
            return
        self._finish_line()
        self._hung = hung
        if hung:
            self._blind_since = time.time()
            self._loop.remove_reader(self._socket)
        else:
            self._loop.add_reader(self._socket, self._read)
            self._read()

    def _read(self) -> None:
        try:
            data = self._socket.recv(65536)
        except BlockingIOError:
            self._blind_since = math.inf
            return
        except OSError:
            data = b""
        if not data:
            self._ended_by_daemon()
            return
        self._input = (self._input + data)[-4096:]
        while match := _QUESTION.search(self._input):
            self._input = self._input[match.end():]
            self._finish_line()
            self._emit(self._compose("=" + match[1].decode()))

    def _ended_by_daemon(self) -> None:
        now = time.time()
        if not self.closings.touch(min(self._blind_since, now - 1), now):
            self._fail(f"{self.ledger.name}: the daemon closed the connection; "
                       f"it might have in: {self.closings}")
        self.upsets.moment("is closed", now)
        self._end()

    def _end(self, lost: int = 0) -> None:
        self._loop.remove_reader(self._socket)
        self._loop.remove_writer(self._socket)
        self._socket.close()
        self._socket = None
        self._hung = False
        self._blind_since = math.inf
        self._input = self._unsent = self._rest = b""
        self.ledger.connection_ended(time.time(), lost)

    def shut(self) -> None:
        """End for good."""
        self.silence()
        self.refuse()
        if self._socket is not None:
            self._end()

    # What it prints

    def _schedule(self) -> None:
        self._timer = self._loop.call_later(
            self._random.expovariate(LINES_PER_SECOND), self._print)

    def _print(self) -> None:
        self._schedule()
        if self.connected and not self._hung and not self._rest:
            self._print_something()

    def silence(self) -> None:
        """Print nothing more by itself."""
        self._silent = True
        self._timer.cancel()
        if self.connected and not self._hung:
            self._finish_line()

    def say(self, word: str) -> None:
        """Print a line with this word in it."""
        if self.connected and not self._hung:
            self._finish_line()
            self._emit(self._compose(word))

    def burst(self, count: int = 30) -> None:
        """Print many lines at once."""
        if self.connected and not self._hung:
            self._finish_line()
            self._emit(b"".join(self._compose("burst") for _ in range(count)))

    def flood(self, amount: int) -> None:
        """Print about so many bytes, in long lines, unless the daemon is behind with reading."""
        if self.connected and not self._hung and not self._unsent:
            self._finish_line()
            self._emit(b"".join(self._compose("flood", _LONG_LINE)
                                for _ in range(amount // _LONG_LINE)))

    def _print_something(self) -> None:
        chance = self._random.random()
        if chance < 0.02:
            self.burst(self._random.randint(5, 60))
            return
        if chance < 0.03 and not self.ledger.dirty:
            self._emit(self._compose("long", self._random.choice((1100, 1500, 2100, 3000))))
            return
        line = self._compose("line")
        if chance < 0.08:
            self._begin(line)
            return
        if chance < 0.20:
            line = line[:-1] + b"\r\n"
        elif chance < 0.23:
            line = self._inserted(line, b"\0" * self._random.randint(1, 5))
        elif self.ledger.dirty and chance < 0.40:
            line = self._inserted(line, self._high_bytes())
        elif self.ledger.dirty and chance < 0.50:
            line = self._inserted(line, self._random.choice(_TELNET_COMMANDS))
        elif self.ledger.dirty and chance < 0.55:
            line = self._random.choice(_TELNET_COMMANDS) + line
        self._emit(line)

    def _compose(self, word: str, length: int | None = None) -> bytes:
        self._line += 1
        if length is None:
            length = int(self._random.expovariate(1 / 40)) % 400
        start = self._random.randrange(len(_TEXT) - 3000)
        return f"@{self.number}.{self._line} {word} {_TEXT[start:start + length]};\n".encode()

    def _inserted(self, line: bytes, extra: bytes) -> bytes:
        """The line with something in it, after its number."""
        place = self._random.randrange(line.index(b" ") + 1, len(line))
        return line[:place] + extra + line[place:]

    def _high_bytes(self) -> bytes:
        return bytes(self._random.choices(range(128, 251), k=self._random.randint(1, 20)))

    def _begin(self, line: bytes) -> None:
        """Print the first part now and the rest a little later."""
        place = self._random.randrange(line.index(b" ") + 1, len(line))
        self._rest = line[place:]
        self._emit(line[:place])
        sock = self._socket
        self._loop.call_later(self._random.uniform(0.01, 1.5),
                              lambda: self._finish_line() if self._socket is sock else None)

    def _finish_line(self) -> None:
        rest, self._rest = self._rest, b""
        if rest:
            self._emit(rest)

    def _emit(self, data: bytes) -> None:
        if len(self._unsent) > _MOST_UNSENT:
            self.breaks.append(self._line)  # nobody reads; never printed
            return
        self._unsent += data
        self._send()

    def _send(self) -> None:
        try:
            count = self._socket.send(self._unsent)
        except BlockingIOError:
            count = 0
        except OSError:
            return  # the end of the connection will be read
        if count:
            self.ledger.sent(self._unsent[:count], time.time())
            self._unsent = self._unsent[count:]
        if self._unsent:
            self._loop.add_writer(self._socket, self._send)
        else:
            self._loop.remove_writer(self._socket)
