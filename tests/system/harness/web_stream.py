"""The stream of a console, as a page sees it."""

import contextlib
import json
import socket
import struct
import threading

import websocket

from harness.waiting import LIMIT, NotReached, stretched, wait_until
from harness.web import Web

LIVE, PAST, ATTACHED = 1, 2, 3


class Stream:
    """A page at a console. A thread takes what comes."""

    def __init__(self, web: Web, console: str, query: str = "", **options) -> None:
        self.output = b""
        self.attached_output = b""
        self.position = ""
        self.texts: list[dict] = []
        self.closed = False
        self._socket = web.websocket(f"/api/consoles/{console}/stream{query}", **options)
        self._socket.settimeout(None)
        self._thread = threading.Thread(target=self._take, daemon=True)
        self._thread.start()

    def _take(self) -> None:
        with contextlib.suppress(OSError, websocket.WebSocketException):
            while True:
                opcode, data = self._socket.recv_data()
                if opcode == websocket.ABNF.OPCODE_BINARY:
                    self._take_output(data)
                elif opcode == websocket.ABNF.OPCODE_TEXT:
                    self.texts.append(json.loads(data))
                else:
                    break
        self.closed = True

    def _take_output(self, frame: bytes) -> None:
        kind, length = frame[0], frame[1]
        text = frame[2 + length + struct.calcsize("<q"):]
        assert kind in (LIVE, PAST, ATTACHED) and text
        self.output += text
        if kind == ATTACHED:
            self.attached_output += text
        else:
            self.position = frame[2:2 + length].decode("ascii")

    def of(self, what: str) -> list[dict]:
        """The text frames of this kind so far."""
        return [text for text in list(self.texts) if text["what"] == what]

    def wait(self, what: str, count: int = 1) -> dict:
        """Wait for so many frames of this kind; gives the last of them."""
        try:
            wait_until(lambda: len(self.of(what)) >= count, LIMIT, f"{what!r}")
        except NotReached as error:
            raise NotReached(f"{error}; the last are {self.texts[-5:]}") from None
        return self.of(what)[count - 1]

    def expect(self, text: bytes) -> None:
        """Wait until the console has shown this."""
        try:
            wait_until(lambda: text in self.output, LIMIT, f"{text!r}")
        except NotReached as error:
            raise NotReached(f"{error}; the end is {self.output[-200:]!r}") from None

    def send(self, text: bytes) -> None:
        """Type this."""
        self._socket.send_binary(text)

    def ask(self, what: str, **members) -> None:
        """Send an object."""
        self._socket.send(json.dumps({"what": what, **members}))

    def attach(self, mode: int = 2, take: bool = False) -> dict:
        """Attach, and wait until that is done."""
        count = len(self.of("attached")) + 1
        self.ask("attach", mode=mode, take=take)
        return self.wait("attached", count)

    def cut(self) -> None:
        """Break the line, without a word to the server."""
        with contextlib.suppress(OSError):
            # That of the TLS socket would have the thread take encrypted bytes for plain ones.
            socket.socket.shutdown(self._socket.sock, socket.SHUT_RDWR)
        self._thread.join(stretched(LIMIT))

    def __enter__(self) -> "Stream":
        return self

    def __exit__(self, *_) -> None:
        self.cut()
