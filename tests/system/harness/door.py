"""The login dialogue on a console's own port, step by step."""

import socket
from dataclasses import dataclass
from typing import Self

from harness.access import greeting
from harness.consoles import FakeConsole
from harness.helpers import FakeHelper, children_of
from harness.peers import OFFERS, User
from harness.station import Station
from harness.waiting import wait_until

HOST = socket.gethostname()

NAME = b"username: "
PASSWORD = b"password: "
TRY_AGAIN = b"\nInvalid username/password combination. Please try again.\r\n\n"


@dataclass
class Entrance:
    """A station with security on, the password helper and a console."""

    station: Station
    helper: FakeHelper
    box: FakeConsole

    def note_rest(self) -> Self:
        """Note what the daemon uses at rest."""
        self.rest = (self.station.threads(), self.station.descriptors())
        return self

    def quiet(self) -> None:
        """The daemon uses what it used at rest: no thread, descriptor or child is left."""
        wait_until(lambda: (self.station.threads(), self.station.descriptors()) == self.rest
                   and not children_of(self.station.pid), what="the daemon to come to rest")


@dataclass
class Door(Entrance):
    """A console that is reached through a login on its own port."""

    port: int

    def call(self) -> User:
        """A caller who has been welcomed and asked for a name."""
        caller = self.station.caller(self.port)
        caller.expect_exactly(welcome(self.box.name) + NAME)
        return caller

    def admitted(self, user: User) -> None:
        """The user is at the console, and nothing typed before has gone there."""
        user.expect_exactly(OFFERS + greeting(self.box.name))
        user.send(b"!")
        self.box.expect_exactly(b"!")


def welcome(console: str) -> bytes:
    """What a caller is told before the first prompt, with the offers that end it."""
    return (f'\r\nWelcome to zevd running on "{HOST}".\r\n\n'
            f'In order to connect to console "{console}", you must first provide\r\n'
            f'a valid username/password combination on "{HOST}".\r\n\n'
            f'Please enter your username and password on "{HOST}".\r\n\n').encode() + OFFERS


def give_name(user: User, name: bytes) -> None:
    """Type a name and Enter, as a telnet client sends it, and be asked for the password."""
    user.send(name + b"\r\0")
    user.expect_exactly(name + b"\r\n" + PASSWORD)


def give_password(user: User, password: bytes) -> None:
    """Type a password; nothing but the line end is echoed."""
    user.send(password + b"\r\0")
    user.expect_exactly(b"\r\n" + b"\r\n")


def log_in(user: User, name: bytes, password: bytes) -> None:
    """Give a name and a password; the test checks the result."""
    give_name(user, name)
    give_password(user, password)


def fail(user: User, name: bytes = b"root", password: bytes = b"wrong") -> None:
    """Give a pair that is not valid and be asked again."""
    log_in(user, name, password)
    user.expect_exactly(TRY_AGAIN + NAME)
