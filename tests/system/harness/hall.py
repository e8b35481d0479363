"""The login of the main port, step by step."""

from harness.access import refused
from harness.door import NAME, PASSWORD, Entrance
from harness.peers import User

HIDE = b"\xff\xfb\x01"
SHOW = b"\xff\xfc\x01"

# The limits: bytes in all, bytes in one line, and tries.
BYTES = 8192
LINE = 1023
TRIES = 3


class Hall(Entrance):
    """The main port of a station whose console is "box"."""

    def call(self, line: bytes = b"box") -> User:
        """A caller who has sent the argument line and is asked for a name."""
        caller = self.station.caller()
        caller.send(line + b"\r\n")
        caller.expect_exactly(NAME)
        return caller

    def connected(self, user: str, mode: str = "shared", after: int = 0) -> None:
        """The daemon says that this user is at the console."""
        self.station.wait_log(f'ConnectUserToConsole: Connected user "{user}" to console "box" '
                              f"with mode = {mode}.", after=after)


def give(user: User, name: bytes, password: bytes, end: bytes = b"\r\n") -> None:
    """Give a pair; the library echoes nothing."""
    user.send(name + end)
    user.expect_exactly(HIDE + PASSWORD)
    user.send(password + end)
    user.expect_exactly(SHOW + b"\r\n")


def fail(user: User, name: bytes = b"root", password: bytes = b"wrong") -> None:
    """Give a pair that is not valid and be asked again."""
    give(user, name, password)
    user.expect_exactly(NAME)


def fail_every_try(user: User, name: bytes = b"root", password: bytes = b"wrong") -> None:
    """Give a pair that is not valid until the connection is closed."""
    for _ in range(TRIES - 1):
        fail(user, name, password)
    give(user, name, password)
    refused(user, 1)
