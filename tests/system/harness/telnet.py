"""A user in front of a real telnet client."""

import re

import pexpect

from harness.closing import Closing
from harness.terminals import close_terminal
from harness.waiting import LIMIT, stretched

CLIENT = "/usr/bin/telnet"


class TelnetUser(Closing):
    """The telnet client on a terminal of its own, as a person would use it.

    What is typed goes through the client's line mode or character mode, whichever the daemon
    has asked for.
    """

    def __init__(self, port: int, address: str = "127.0.0.1") -> None:
        self.terminal = pexpect.spawn(CLIENT, [address, str(port)], timeout=stretched(LIMIT),
                                      echo=True, dimensions=(24, 80))
        self.expect("Escape character is '^]'.\r\n")

    def type(self, text: str) -> None:
        """Press the keys, one after the other; Enter is a carriage return."""
        self.terminal.send(text.encode())

    def attach(self, console: str, *options: str) -> None:
        """Type the argument line of the main port."""
        self.type(" ".join([console, *options]) + "\r")

    def expect(self, text: str | re.Pattern[bytes], limit: float = LIMIT) -> bytes:
        """Wait until the screen shows the text; return what came before it."""
        if isinstance(text, str):
            self.terminal.expect_exact(text.encode(), timeout=stretched(limit))
        else:
            self.terminal.expect([text], timeout=stretched(limit))
        return self.terminal.before

    def expect_closed(self, limit: float = LIMIT) -> None:
        """Wait until the client says that the daemon has closed the connection, and ends."""
        self.expect("Connection closed by foreign host.", limit)
        self.terminal.expect(pexpect.EOF, timeout=stretched(limit))

    def close(self) -> None:
        """Leave, as closing the terminal's window would."""
        close_terminal(self.terminal)
