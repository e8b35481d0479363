"""A management tool: sends commands to the command port and parses the answers."""

import json
import struct
import time
from dataclasses import dataclass

from harness.station import Station
from harness.waiting import LIMIT, wait_until

RECORDS, ERROR, DONE = 1, 2, 3

_HEADER = struct.Struct("<II")
_CONSOLE = struct.Struct("<64s64sHH64s64s2s2s")
_USER = struct.Struct("<32s64s2s")
_MAPPED_PORT = struct.Struct("<64s64sHHH")
_HOLDER = struct.Struct("<64s")

_RECORDS_OF = {"console": _CONSOLE, "who": _USER, "mapped_port": _MAPPED_PORT,
               "portholder": _HOLDER}


def _plain(field):
    """A text without the NULs that pad it, a number as it is."""
    return field.rstrip(b"\0").decode() if isinstance(field, bytes) else field


@dataclass(frozen=True)
class Answer:
    """One answer: its header, and whatever followed it."""

    type: int
    count: int
    raw: bytes
    records: tuple = ()

    @property
    def text(self) -> str:
        """The text of an error; its terminator must be there."""
        assert self.type == ERROR and self.raw.endswith(b"\0") and self.count == len(self.raw)
        return self.raw[:-1].decode()


class Tool:
    """One command connection.

    Without `wait`, which needs debug level 3, it may not be served yet. `buffer` limits what the
    kernel keeps for a tool that does not read. `sent` replaces the argument line that is made
    of the names.
    """

    def __init__(self, station: Station, user: str | None = "op", addr: str | None = None,
                 wait: bool = True, buffer: int | None = None, sent: bytes = b"") -> None:
        position = station.mark()
        if sent:
            self.peer = station.caller()
            self.peer.send(sent)
        else:
            self.peer = station.ask("@@@@", user=user, addr=addr, buffer=buffer)
        self._taken = 0
        if wait:
            station.wait_log("AddCommandToList: Added command to cmd_list.", after=position)

    def send(self, line: str | bytes) -> None:
        """Send a command without waiting for its answer."""
        self.peer.send(line if isinstance(line, bytes) else line.encode() + b"\n")

    def _take(self, count: int) -> bytes:
        end = self._taken + count
        wait_until(lambda: len(self.peer.received) >= end, LIMIT,
                   f"{count} bytes of an answer; there are {self.peer.received[self._taken:]!r}")
        start, self._taken = self._taken, end
        return self.peer.received[start:end]

    def read_slowly(self, count: int, piece: int, pause: float) -> bytes:
        """Read this many bytes from a connection that is not read otherwise.

        At most `piece` of them at a time, with a pause before each.
        """
        data = b""
        while len(data) < count:
            time.sleep(pause)
            fresh = self.peer.socket.recv(min(piece, count - len(data)))
            assert fresh, f"the connection has ended after {len(data)} of {count} bytes"
            data += fresh
        return data

    def answer(self, word: str) -> Answer:
        """Take the next answer, which must be to this command word."""
        kind, count = _HEADER.unpack(self._take(_HEADER.size))
        if kind == ERROR:
            return Answer(kind, count, self._take(count))
        if kind == DONE:
            return Answer(kind, count, b"")
        record = _RECORDS_OF[word]
        raw = self._take(record.size * count)
        records = tuple(tuple(_plain(field) for field in fields)
                        for fields in record.iter_unpack(raw))
        return Answer(kind, count, raw, records)

    def objects(self, line: str) -> list[dict]:
        """Send a command that is answered with JSON, and take the objects, one per line."""
        self.send(line)
        kind, count = _HEADER.unpack(self._take(_HEADER.size))
        assert kind == RECORDS
        text = self._take(count).decode()
        assert text == "" or text.endswith("}\n")
        return [json.loads(one) for one in text.splitlines()]

    def command(self, line: str) -> Answer:
        """Send a command and take its answer."""
        self.send(line)
        return self.answer(line.split(maxsplit=1)[0].lower() if line.strip() else "")

    def expect_nothing_more(self) -> None:
        """Nothing that the daemon sent is left to be taken."""
        assert self.peer.received[self._taken:] == b""
