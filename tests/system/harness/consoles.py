"""Consoles for the daemon to call: fakes that a test controls, and real ones."""

import shutil
import socket
import subprocess

from harness.peers import ListeningPeer
from harness.waiting import LIMIT, free_port, wait_listening

# What a terminal server may ask for on connect: its own echo, no go-ahead, the window's size.
NEGOTIATION = b"\xff\xfb\x01\xff\xfb\x03\xff\xfd\x1f"


def refusal(holder: str) -> bytes:
    """The line of a Pellox management port whose session another client holds."""
    return ("~NET-E-BUSY Session is already open to the partition/CLI held by "
            f"{holder}, call again later\r\n").encode()


class FakeConsole(ListeningPeer):
    """A console that does only what the test says. It listens at once unless told not to.

    `greeting` is sent on every connection as soon as it is accepted. `buffer` limits what the
    kernel keeps for a console that does not read.
    """

    def __init__(self, name: str = "console", port: int | None = None, greeting: bytes = b"",
                 listening: bool = True, buffer: int | None = None) -> None:
        super().__init__(name)
        self.port = free_port() if port is None else port
        self.greeting = greeting
        self.buffer = buffer
        self._callers: list[socket.socket] = []
        if listening:
            self.listen()

    def listen(self) -> None:
        """Accept calls from now on."""
        self._listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        if self.buffer is not None:
            self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, self.buffer)
        self._listener.bind(("127.0.0.1", self.port))
        self._listener.listen(16)

    def hang(self) -> None:
        """Leave calls unanswered from now on: the queue of the listening socket is full."""
        self._listener.listen(0)
        while True:
            caller = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
            caller.settimeout(0.3)
            self._callers.append(caller)
            try:
                caller.connect(("127.0.0.1", self.port))
            except TimeoutError:
                return

    def accept(self, limit: float = LIMIT) -> "FakeConsole":
        """Wait for the daemon's call, greet it and go on with that connection."""
        super().accept(limit)
        if self.greeting:
            self.send(self.greeting)
        return self

    def shut(self) -> None:
        super().shut()
        while self._callers:
            self._callers.pop().close()


class ProgramConsole:
    """A console served by a program that listens on a TCP port."""

    def __init__(self, command: list[str], port: int) -> None:
        self.port = port
        self._process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "--", *command],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            wait_listening(port)
        except AssertionError:
            self.shut()
            raise

    def shut(self) -> None:
        """End the program; its connections end with it or with the test."""
        self._process.kill()
        self._process.wait()

    def __enter__(self):
        return self

    def __exit__(self, *_exception) -> None:
        self.shut()


class ShellConsole(ProgramConsole):
    """A shell on a terminal of its own, reached over plain TCP."""

    def __init__(self, port: int | None = None) -> None:
        port = port or free_port()
        listen = f"TCP-LISTEN:{port},bind=127.0.0.1,reuseaddr,fork"
        shell = "EXEC:'/bin/sh -i',pty,stderr,setsid,ctty,sane"
        super().__init__(["socat", listen, shell], port)


class TelnetServerConsole(ProgramConsole):
    """A shell behind a real telnet server, which negotiates options on connect."""

    def __init__(self, port: int | None = None) -> None:
        port = port or free_port()
        server = shutil.which("busybox")
        assert server, "busybox is not installed"
        super().__init__([server, "telnetd", "-F", "-b", f"127.0.0.1:{port}", "-l", "/bin/sh"],
                         port)


class Ser2netConsole(ProgramConsole):
    """A program behind a real terminal server, which asks for binary mode on connect.

    It prints what it reads, byte by byte. In the network of a test the server finds no address as
    long as there is none but 127.0.0.1, so the interface is given one more.
    """

    def __init__(self, port: int | None = None) -> None:
        port = port or free_port()
        server = shutil.which("ser2net", path="/usr/sbin:/sbin:/usr/bin")
        assert server, "ser2net is not installed"
        subprocess.run(["ip", "address", "add", "127.65.0.2/8", "dev", "lo"], check=True)
        line = (f"connection: &line\n  accepter: telnet(rfc2217),tcp,127.0.0.1,{port}\n"
                "  connector: stdio(),/bin/cat\n")
        super().__init__([server, "-n", "-Y", line], port)
