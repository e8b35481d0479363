"""Consoles and users by the thousand, served by one thread.

A console of the farm is an address of 127.0.0.0/8 on one port, so that all of them need one
listener. It echoes what it is sent.
"""

import contextlib
import resource
import select
import socket
import threading
import time

from harness.closing import Closing
from harness.station import Station, console_line
from harness.waiting import LIMIT, free_port, wait_until

_PER_NETWORK = 250

# Descriptors of a console in the daemon: its connection, its log, its mapped port.
_DAEMON_DESCRIPTORS = 3
_SPARE = 1500

_LINES_AT_ONCE = 10
_BETWEEN_LINES = 0.01


def most_consoles(wanted: int) -> int:
    """As many consoles as the descriptor limit of this machine allows, at most `wanted`."""
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    return min(wanted, (hard - _SPARE) // _DAEMON_DESCRIPTORS)


def raise_own_limit() -> None:
    """Let this process open as many descriptors as the machine allows."""
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


class Farm(Closing):
    """Consoles that echo."""

    def __init__(self, count: int) -> None:
        raise_own_limit()
        self.names = [f"c{number}" for number in range(count)]
        self._listener = socket.socket()
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.port = free_port()
        self._listener.bind(("", self.port))
        self._listener.listen(4096)
        self._listener.setblocking(False)
        self._sockets: dict[int, socket.socket] = {}
        self._by_address: dict[str, socket.socket] = {}
        self._stopped = False
        self.accepted = 0
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    @staticmethod
    def address(number: int) -> str:
        """Where the console with this number is reached."""
        rest, last = divmod(number, _PER_NETWORK)
        return f"127.{1 + rest // _PER_NETWORK}.{rest % _PER_NETWORK}.{1 + last}"

    def lines(self, **fields) -> str:
        """The consoles' lines of the configuration file."""
        return "".join(console_line(name, self.port, address=self.address(number), **fields)
                       for number, name in enumerate(self.names))

    @property
    def connected(self) -> int:
        """How many consoles the daemon is connected to."""
        return len(self._sockets)

    def print_everywhere(self, text: bytes) -> None:
        """Have every console that is connected print the text."""
        for sock in list(self._by_address.values()):
            sock.sendall(text)

    def _serve(self) -> None:
        poll = select.epoll()
        poll.register(self._listener, select.EPOLLIN)
        while not self._stopped:
            for descriptor, _ in poll.poll(0.1):
                if descriptor == self._listener.fileno():
                    self._accept(poll)
                else:
                    self._echo(poll, descriptor)
        poll.close()

    def _accept(self, poll: select.epoll) -> None:
        while True:
            try:
                sock, _ = self._listener.accept()
            except BlockingIOError:
                return
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            # Text at once spares the daemon the wait for a telnet negotiation. Nobody else prints
            # before it.
            with contextlib.suppress(ConnectionError):
                sock.send(b"ready\r\n")
            self._sockets[sock.fileno()] = sock
            self._by_address[sock.getsockname()[0]] = sock
            poll.register(sock, select.EPOLLIN)
            self.accepted += 1

    def _echo(self, poll: select.epoll, descriptor: int) -> None:
        sock = self._sockets[descriptor]
        with contextlib.suppress(ConnectionError):
            chunk = sock.recv(65536)
            if chunk:
                sock.sendall(chunk)
                return
        poll.unregister(descriptor)
        del self._sockets[descriptor]
        address = sock.getsockname()[0]
        if self._by_address.get(address) is sock:
            del self._by_address[address]
        sock.close()

    def close(self) -> None:
        """End every console."""
        self._stopped = True
        self._thread.join()
        for sock in [self._listener, *self._sockets.values()]:
            sock.close()


class PrintingFarm(Farm):
    """Consoles that print numbered lines all the time, a thousand per second or as they are read.

    A line that a console has begun on a connection that then ended is not printed again.
    """

    def __init__(self, count: int) -> None:
        super().__init__(count)
        self._printed = dict.fromkeys(map(self.address, range(count)), 0)
        self._printing = threading.Event()
        self._printer = threading.Thread(target=self._print, daemon=True)
        self._printer.start()

    @staticmethod
    def line(number: int) -> bytes:
        """A line as the logs have it."""
        return b"%08d the quick brown fox jumps ove\n" % number

    def printed(self, console: int) -> int:
        """How many lines this console has begun so far."""
        return self._printed[self.address(console)]

    def go_on(self) -> None:
        """Print from now on."""
        self._printing.set()

    def pause(self) -> None:
        """Print no more; lines that have been begun are finished."""
        self._printing.clear()

    def _print(self) -> None:
        while not self._stopped:
            if not self._printing.wait(0.1):
                continue
            for address, sock in list(self._by_address.items()):
                self._print_some(address, sock)
            time.sleep(_BETWEEN_LINES)

    def _print_some(self, address: str, sock: socket.socket) -> None:
        first = self._printed[address]
        self._printed[address] += _LINES_AT_ONCE
        try:
            sock.sendall(b"".join(map(self.line, range(first, first + _LINES_AT_ONCE))))
        except OSError:
            pass  # the daemon has gone

    def close(self) -> None:
        """End every console."""
        self._stopped = True
        self._printer.join()
        super().close()


class Crowd:
    """Users who have named the console that they want."""

    def __init__(self, station: Station) -> None:
        raise_own_limit()
        self._station = station
        self.sockets: list[socket.socket] = []

    def come(self, console: str, mode: str = "sh") -> socket.socket:
        """One more user; the test has to wait for the attachment."""
        sock = socket.create_connection(("127.0.0.1", self._station.port), LIMIT)
        sock.sendall(f"{console} mode={mode}\n".encode())
        self.sockets.append(sock)
        return sock

    def leave(self) -> None:
        """All of them close their connections."""
        for sock in self.sockets:
            sock.close()
        self.sockets.clear()

    def __enter__(self) -> "Crowd":
        return self

    def __exit__(self, *_exception) -> None:
        self.leave()


def receive(sock: socket.socket, wanted: bytes) -> bytes:
    """Read until the wanted bytes have come; return all that came."""
    received = b""
    while wanted not in received:
        chunk = sock.recv(65536)
        assert chunk, f"closed after {received[-200:]!r}"
        received += chunk
    return received


def hanging_port() -> tuple[int, list[socket.socket]]:
    """A port on which every further connect hangs, with the sockets that keep it so."""
    listener = socket.socket()
    listener.bind(("", free_port()))
    listener.listen(0)
    port = listener.getsockname()[1]
    kept = [listener]
    for _ in range(4):
        caller = socket.socket()
        caller.setblocking(False)
        caller.connect_ex(("127.0.0.1", port))
        kept.append(caller)
    wait_until(lambda: _hangs(port, kept), what="the port to hang")
    return port, kept


def _hangs(port: int, kept: list[socket.socket]) -> bool:
    caller = socket.socket()
    kept.append(caller)
    caller.settimeout(0.3)
    try:
        caller.connect(("127.0.0.1", port))
    except TimeoutError:
        return True
    return False
