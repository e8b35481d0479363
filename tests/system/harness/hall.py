"""The login of the main port, step by step."""

from dataclasses import dataclass

from harness.consoles import FakeConsole
from harness.door import NAME, PASSWORD
from harness.helpers import FakeHelper, children_of
from harness.peers import User
from harness.station import Station
from harness.waiting import wait_until

HIDE = b"\xff\xfb\x01"
SHOW = b"\xff\xfc\x01"

# What may be sent in all, in one line, and how often a pair may be given.
BYTES = 8192
LINE = 1023
TRIES = 3


@dataclass
class Hall:
    """A station with security on and one console, "box"."""

    station: Station
    helper: FakeHelper
    box: FakeConsole

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

    def quiet(self) -> None:
        """The daemon is as it was before anybody called: no thread, descriptor or child."""
        wait_until(lambda: (self.station.threads(), self.station.descriptors()) == self.rest
                   and not children_of(self.station.pid), what="the daemon to come to rest")

    def note_rest(self) -> "Hall":
        """Take what the daemon uses now for what it uses at rest."""
        self.rest = (self.station.threads(), self.station.descriptors())
        return self


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
