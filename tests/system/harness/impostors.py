"""What listens where zevctl looks for the daemon: a program of any user's that records what it is
told, and a daemon that answers as a test wants."""

import contextlib
import socket
import struct
import subprocess
import threading
from collections.abc import Sequence
from pathlib import Path

from harness.closing import Closing
from harness.waiting import wait_until

STRANGER = 64123  # a user and a group that no station has

# Takes its address, port, options and greeting from the command line; what it receives goes to
# standard output, after a line that says that it listens.
_PROGRAM = """
import os, socket, sys
address, port, options, greeting = sys.argv[1:]
family = socket.AF_INET6 if ":" in address else socket.AF_INET
listener = socket.socket(family)
listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
if "reuseport" in options:
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
if family == socket.AF_INET6:
    listener.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, "v6only" in options)
listener.bind((address, int(port)))
listener.listen()
os.write(1, b"listening\\n")
while True:
    caller, _ = listener.accept()
    try:
        caller.sendall(bytes.fromhex(greeting))
        while data := caller.recv(4096):
            os.write(1, data)
    except ConnectionError:
        pass  # it left without reading the greeting
    os.write(1, b"<end>")
"""

NAME_PROMPT = b"username: "


class Impostor(Closing):
    """A program that listens on a port in a user's name.

    `before` are the words of a command in front of its own, such as one that enters a namespace.
    """

    def __init__(self, scratch: Path, port: int, address: str = "127.0.0.1", uid: int = STRANGER,
                 options: str = "", greeting: bytes = NAME_PROMPT, before: Sequence[str] = ()
                 ) -> None:
        self._trace = scratch / f"impostor-{uid}-{address.replace(':', '_')}"
        with open(self._trace, "wb") as trace:
            self._process = subprocess.Popen(
                [*before, "setpriv", "--pdeathsig", "KILL", f"--reuid={uid}", f"--regid={uid}",
                 "--clear-groups", "--", "/usr/bin/python3", "-c", _PROGRAM, address, str(port),
                 options, greeting.hex()], stdin=subprocess.DEVNULL, stdout=trace)
        wait_until(self._listens, what="the impostor to listen")

    def _listens(self) -> bool:
        assert self._process.poll() is None, "the impostor cannot listen"
        return self._trace.read_bytes().startswith(b"listening\n")

    def said(self) -> bytes:
        """What it has been told so far, and where connections ended."""
        return self._trace.read_bytes().removeprefix(b"listening\n")

    def told(self) -> bytes:
        """All that it was told by clients that have left; there must have been one."""
        wait_until(lambda: self.said().endswith(b"<end>"), what="the end of a connection")
        return self.said().replace(b"<end>", b"")

    def close(self) -> None:
        self._process.kill()
        self._process.wait()


def console_record(name: bytes, address: bytes = b"127.0.0.1", state: bytes = b"0",
                   model: bytes = b"A200") -> bytes:
    """A console as the command port describes it."""
    return struct.pack("<64s64sHH64s64s2s2s", name, address, 1, 2, model, b"sys1", state, b"0")


class FakeDaemon(Closing):
    """A command port, of this process, that answers with what a test gives it.

    `answers` has the records, the text of an error, or lines of JSON as a text, for each command or
    else for its first word; "status" is unknown to it unless told, and every other command is done.
    `opening` is sent in place of the first answer. `commands` are those that have come.
    """

    def __init__(self, opening: bytes = b"", **answers: list[bytes] | bytes | str) -> None:
        self._opening = opening
        self._answers = {"status": b"Invalid command.", **answers}
        self.commands: list[str] = []
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self) -> None:
        with contextlib.suppress(OSError):
            while True:
                caller, _ = self._listener.accept()
                with caller, contextlib.suppress(ConnectionError), caller.makefile("rb") as lines:
                    self._converse(caller, lines)

    def _converse(self, caller: socket.socket, lines) -> None:
        lines.readline()
        if self._opening:
            caller.sendall(self._opening)
            return
        caller.sendall(self._error(b"Unrecognized command"))
        lines.read(2)  # the probe, which has no line end
        while line := lines.readline():
            command = line.decode("latin-1").strip()
            self.commands.append(command)
            caller.sendall(self._answer(command))

    def _answer(self, command: str) -> bytes:
        answer = self._answers.get(command, self._answers.get(command.split()[0]))
        if answer is None:
            return struct.pack("<II", 3, 0)
        if isinstance(answer, bytes):
            return self._error(answer)
        if isinstance(answer, str):
            return struct.pack("<II", 1, len(answer.encode())) + answer.encode()
        return struct.pack("<II", 1, len(answer)) + b"".join(answer)

    @staticmethod
    def _error(text: bytes) -> bytes:
        return struct.pack("<II", 2, len(text) + 1) + text + b"\0"

    def close(self) -> None:
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._thread.join()
