"""The far end of one of the daemon's connections: a console that it called, or a user."""

import math
import os
import select
import socket
import struct
import threading
import time
from typing import Self

from harness.closing import Closing
from harness.waiting import LIMIT, NotReached, stretched

_PIECE = 65536
_PIECES = 10  # in a second, for a peer who reads slowly

# Sent to every user who is attached: the daemon offers to echo and to suppress go-ahead.
OFFERS = b"\xff\xfb\x01\xff\xfb\x03"


class Flood:
    """A block of data sent over and over by a thread of its own.

    `rate`: bytes a second at most.
    """

    def __init__(self, sock: socket.socket, block: bytes, times: int,
                 rate: float = math.inf) -> None:
        self.sent = 0
        self._pause = len(block) / rate
        self._stopped = False
        self._socket = sock
        self._block = block
        self._times = times
        self._thread = threading.Thread(target=self._send_all, daemon=True)
        self._thread.start()

    def _send_all(self) -> None:
        try:
            for _ in range(self._times):
                if self._stopped:
                    return
                self._send_block()
                if self._pause:
                    time.sleep(self._pause)
        except OSError:
            return  # the connection has gone

    def _send_block(self) -> None:
        writable = select.poll()
        writable.register(self._socket, select.POLLOUT)
        rest = memoryview(self._block)
        while rest and not self._stopped:
            if not writable.poll(100):
                continue
            try:
                count = self._socket.send(rest, socket.MSG_DONTWAIT)
            except BlockingIOError:
                continue
            self.sent += count
            rest = rest[count:]

    def stop(self) -> None:
        """Send nothing more."""
        self._stopped = True
        self._thread.join()

    @property
    def running(self) -> bool:
        """False once everything is sent or the connection has gone."""
        return self._thread.is_alive()

    def join(self, limit: float = LIMIT) -> None:
        """Wait until it has ended."""
        self._thread.join(stretched(limit))
        if self.running:
            raise NotReached(f"the flood stands still after {self.sent} bytes")


class Peer(Closing):
    """One connection. A thread of its own keeps whatever arrives, so that nothing is missed.

    `expect` walks through what has arrived: each call goes on where the last one ended.
    """

    def __init__(self, name: str) -> None:
        self.name = name
        self.socket: socket.socket | None = None
        self.was_reset = False
        self._received = bytearray()
        self._position = 0
        self._ended = False
        self._reading = True
        self._rate = 0  # bytes a second; 0 for as many as there are
        self._closing = False
        self._changed = threading.Condition()
        self._wake = -1
        self._reader: threading.Thread | None = None
        self._floods: list[Flood] = []

    def adopt(self, sock: socket.socket) -> None:
        """Go on with this connection; what the previous one brought is forgotten."""
        self._disconnect()
        sock.settimeout(stretched(LIMIT))
        if sock.family == socket.AF_INET:  # what was sent has arrived, whatever came before it
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.socket = sock
        self.was_reset = False
        self._received = bytearray()
        self._position = 0
        self._ended = self._closing = False
        self._reading = True
        self._rate = 0
        self._wake = os.eventfd(0, os.EFD_NONBLOCK | os.EFD_CLOEXEC)
        self._reader = threading.Thread(target=self._keep_reading, daemon=True)
        self._reader.start()

    def _keep_reading(self) -> None:
        woken, poll = select.poll(), select.poll()
        for waiting in (woken, poll):
            waiting.register(self._wake, select.POLLIN)
        watched = False
        while not self._closing and not self._ended:
            wanted = self._reading
            if wanted and not watched:
                poll.register(self.socket, select.POLLIN)
            elif watched and not wanted:
                poll.unregister(self.socket)
            watched = wanted
            ready = [descriptor for descriptor, _ in poll.poll()]
            if self._wake in ready:
                os.eventfd_read(self._wake)
            elif ready:
                self._take_piece(woken)

    def _take_piece(self, woken: select.poll) -> None:
        """Take what there is; for a peer who reads slowly, no more than is due before the next."""
        rate = self._rate
        count = self._take(rate // _PIECES if rate else _PIECE)
        if rate:
            woken.poll(1000 * count / rate)

    def _take(self, most: int) -> int:
        try:
            data = self.socket.recv(most)
        except OSError:
            self.was_reset = True
            data = b""
        with self._changed:
            self._received += data
            self._ended = not data
            self._changed.notify_all()
        return len(data)

    # Sending

    def send(self, data: bytes) -> None:
        """Send all of it; fails when the other end takes nothing for too long."""
        self.socket.sendall(data)

    def flood(self, block: bytes, times: int, rate: float = math.inf) -> Flood:
        """Send the block `times` times in the background, at whatever pace it is taken, but at
        `rate` bytes a second at most."""
        self._floods.append(Flood(self.socket, block, times, rate))
        return self._floods[-1]

    def stop_reading(self) -> None:
        """Read nothing more from the connection, as a stalled program would."""
        self._set_reading(False)

    def read_slowly(self, rate: int) -> None:
        """Read only so many bytes a second from now on."""
        self._rate = rate
        self._set_reading(True)

    def read_again(self) -> None:
        """Undo `stop_reading` and `read_slowly`."""
        self._rate = 0
        self._set_reading(True)

    def _set_reading(self, reading: bool) -> None:
        self._reading = reading
        os.eventfd_write(self._wake, 1)

    def finish_sending(self) -> None:
        """End the stream towards the daemon but go on reading."""
        self.socket.shutdown(socket.SHUT_WR)

    def close(self) -> None:
        """Close the connection in the normal way."""
        self._disconnect()

    def reset(self) -> None:
        """Close the connection so that the other end gets a reset."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self._disconnect()

    def _disconnect(self) -> None:
        if self.socket is None:
            return
        while self._floods:
            self._floods.pop().stop()
        self._closing = True
        os.eventfd_write(self._wake, 1)
        self._reader.join()
        os.close(self._wake)
        self.socket.close()
        self.socket = None

    # Receiving

    @property
    def received(self) -> bytes:
        """Everything that has arrived on this connection."""
        with self._changed:
            return bytes(self._received)

    @property
    def unread(self) -> bytes:
        """What has arrived but was not yet expected."""
        with self._changed:
            return bytes(self._received[self._position:])

    def expect(self, data: bytes, limit: float = LIMIT) -> bytes:
        """Wait for the data; return what came before it and go on after it."""
        with self._changed:
            self._wait(lambda: self._received.find(data, self._position) >= 0, limit,
                       f"{_short(data)}")
            start = self._received.find(data, self._position)
            before = bytes(self._received[self._position:start])
            self._position = start + len(data)
            return before

    def expect_exactly(self, data: bytes, limit: float = LIMIT) -> None:
        """Wait for the data, which must be the very next that arrives.

        What follows is not checked: to see that nothing else came, let something known follow.
        """
        seen = 0

        def arrived() -> bool:
            nonlocal seen
            end = self._position + len(data)
            fresh = bytes(self._received[self._position + seen:end])
            if not data.startswith(fresh, seen):
                start = bytes(self._received[self._position:end])
                raise AssertionError(f"{self.name} expected {_short(data)}, got {_short(start)}")
            seen += len(fresh)
            return seen == len(data)

        with self._changed:
            self._wait(arrived, limit, f"exactly {_short(data)}")
            self._position += len(data)

    def expect_closed(self, limit: float = LIMIT) -> None:
        """Wait for the other end to close; nothing unexpected may have arrived before that."""
        with self._changed:
            self._wait(lambda: self._ended, limit, "the end of the connection")
        if self.unread:
            raise AssertionError(f"{self.name} got {_short(self.unread)} before the end")

    @property
    def closed(self) -> bool:
        """True when the other end has closed or reset the connection."""
        return self._ended

    def _wait(self, reached, limit: float, what: str) -> None:
        """Wait, with the lock held, for something that only more input can bring about."""
        self._changed.wait_for(lambda: reached() or self._ended, stretched(limit))
        if not reached():
            end = " and the connection has ended" if self._ended else ""
            unread = _short(bytes(self._received[self._position:]))
            raise NotReached(f"{self.name} waited in vain for {what}; unread is {unread}{end}")


def _short(data: bytes) -> str:
    """The data as it is shown in a failure."""
    shown = bytes(data)
    if len(shown) <= 400:
        return repr(shown)
    return f"{shown[:200]!r} ... {shown[-200:]!r} ({len(shown)} bytes)"


class ListeningPeer(Peer):
    """A peer that the daemon connects to. `listen` is left to each kind, and sets `_listener`."""

    def __init__(self, name: str) -> None:
        super().__init__(name)
        self._listener: socket.socket | None = None

    def accept(self, limit: float = LIMIT) -> Self:
        """Wait for the daemon to connect and go on with that connection."""
        self._listener.settimeout(stretched(limit))
        sock, _ = self._listener.accept()
        self.adopt(sock)
        return self

    def take(self, limit: float = LIMIT) -> socket.socket:
        """Wait for a connection and leave it to the test, beside the one in use."""
        self._listener.settimeout(stretched(limit))
        sock, _ = self._listener.accept()
        sock.settimeout(stretched(limit))
        return sock

    def called(self) -> bool:
        """True when a connection waits to be accepted."""
        waiting = select.poll()
        waiting.register(self._listener, select.POLLIN)
        return bool(waiting.poll(0))

    def refuse(self) -> None:
        """Refuse connections from now on; one that was accepted is kept."""
        if self._listener is not None:
            self._listener.close()
            self._listener = None

    def shut(self) -> None:
        """Close the connection and listen no more."""
        self.close()
        self.refuse()

    def __exit__(self, *_exception) -> None:
        self.shut()


class User(Peer):
    """A user's program on a plain socket."""

    @classmethod
    def connect(cls, port: int, name: str = "user", buffer: int | None = None) -> "User":
        """Connect to one of the daemon's ports and say nothing.

        `buffer` limits what the kernel keeps for a user who does not read.
        """
        user = cls(name)
        sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if buffer is not None:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, buffer)
        sock.settimeout(stretched(LIMIT))
        try:
            sock.connect(("127.0.0.1", port))
        except OSError:
            sock.close()
            raise
        user.adopt(sock)
        return user

    @classmethod
    def attach(cls, port: int, console: str, mode: str | None = None, user: str | None = None,
               addr: str | None = None, buffer: int | None = None) -> "User":
        """Connect to the main port and send the argument line."""
        options = {"mode": mode, "user": user, "addr": addr}
        words = [console] + [f"{key}={value}" for key, value in options.items()
                             if value is not None]
        caller = cls.connect(port, user or f"user of {console}", buffer)
        caller.send(" ".join(words).encode() + b"\n")
        return caller

    @classmethod
    def mapped(cls, port: int, line: bytes = b"\n") -> "User":
        """Connect to a console's own port and send the line that the daemon reads there."""
        caller = cls.connect(port, f"user of port {port}")
        caller.send(line)
        return caller
