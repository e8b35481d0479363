"""The cookie of local tools, and those who present it."""

import socket
from pathlib import Path

from harness.peers import User
from harness.station import Station
from harness.waiting import LIMIT, stretched


def cookie_file(station: Station) -> Path:
    """The file that local tools read."""
    return station.config / ".cookie"


def cookie(station: Station) -> bytes:
    """The cookie as a local tool reads it."""
    return cookie_file(station).read_bytes().removesuffix(b"\n")


def tell(station: Station, line: bytes, address: str | None = None) -> User:
    """A caller of the main port, from this address, who has sent the line."""
    if address is None:
        user = station.caller()
    else:
        user = User(f"user from {address}")
        user.adopt(socket.create_connection(("127.0.0.1", station.port), stretched(LIMIT),
                                            source_address=(address, 0)))
    user.send(line)
    return user


def local_user(station: Station, line: bytes) -> User:
    """A local tool that has read the cookie and sent its line to the main port."""
    return tell(station, b"token " + cookie(station) + b" " + line + b"\n")


def other_than(text: bytes) -> bytes:
    """A text of the same length and alphabet that differs in its last character."""
    return text[:-1] + (b"a" if text[-1:] != b"a" else b"b")
