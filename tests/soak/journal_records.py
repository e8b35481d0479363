"""Follows the journal of a running daemon, record by record, as its format describes it.

It shares no code with the journal's library. Checksums are left to `zevctl journal verify`.
"""

import contextlib
import os
import struct
from dataclasses import dataclass
from pathlib import Path
from typing import BinaryIO, Callable

CONSOLE, OUTPUT, ATTACHED, NOT_LOGGED, GAP = 1, 3, 5, 16, 17
NAME, USER, BEGIN, END, COUNT, BYTES = 1, 4, 13, 14, 15, 16
_NUMBERS = (BEGIN, END, COUNT, BYTES)

_MAGIC = b"ZEVJRNL\n"
_SEGMENT_HEADER = struct.Struct("<8s H H I Q Q q q Q Q")
_RECORD_HEADER = struct.Struct("<I I Q q q I B 3x")
_FIELD_HEADER = struct.Struct("<B H")
_SECOND = 10**9


@dataclass(frozen=True)
class Record:
    """One record; `console` is the name that its console has by now, if it is one's."""

    kind: int
    when: float
    console: str
    payload: bytes

    def field(self, tag: int) -> int | str:
        """A field of the payload; an empty text when it has none of this kind."""
        place = 0
        while place < len(self.payload):
            found, size = _FIELD_HEADER.unpack_from(self.payload, place)
            place += _FIELD_HEADER.size
            if found == tag:
                value = self.payload[place:place + size]
                return int.from_bytes(value, "little", signed=True) if tag in _NUMBERS \
                    else value.decode()
            place += size
        return ""


class JournalReader:
    """Reads what is new and hands each record on."""

    def __init__(self, directory: Path, hand: Callable[[Record], None],
                 fail: Callable[[str], None]) -> None:
        self._directory = directory
        self._hand = hand
        self._fail = fail
        self._segment = 0
        self._file: BinaryIO | None = None
        self._rest = b""
        self._run = 0
        self._next = 0  # the running number that is due
        self._names: dict[int, str] = {}  # of the consoles of this run
        self.records = 0
        self.bytes = 0

    @property
    def segments(self) -> int:
        """How many have been read or begun."""
        return self._segment

    def catch_up(self) -> None:
        """Read all that is new."""
        while True:
            has_next = self._is_there(self._segment + 1)  # nothing comes behind what is read now
            if self._file is not None:
                self._read()
            if not has_next:
                return
            if self._rest:
                self._fail(f"segment {self._segment} of the journal ends within a record")
            self._open(self._segment + 1)

    def _is_there(self, segment: int) -> bool:
        """A segment that is just begun is none before its header is written."""
        with contextlib.suppress(FileNotFoundError):
            return self._path(segment).stat().st_size >= _SEGMENT_HEADER.size
        return False

    def _path(self, segment: int) -> Path:
        return self._directory / f"{segment:020d}.seg"

    def _open(self, segment: int) -> None:
        if self._file is not None:
            self._file.close()
        self._file = open(self._path(segment), "rb")
        header = _SEGMENT_HEADER.unpack(self._file.read(_SEGMENT_HEADER.size))
        magic, _version, _size, _checksum, _station, number, _wall, _monotonic, run, first = header
        if magic != _MAGIC or number != segment:
            self._fail(f"{self._path(segment)} is no segment, or another one")
        if self._next and first != self._next:
            self._fail(f"segment {segment} begins with record {first}, due is {self._next}")
        if run != self._run:
            self._names.clear()
        self._segment, self._run, self._next, self._rest = segment, run, first, b""

    def _read(self) -> None:
        data = self._rest + self._file.read()
        self.bytes += len(data) - len(self._rest)
        place = 0
        while len(data) - place >= _RECORD_HEADER.size:
            length, _, number, wall, _, console, kind = _RECORD_HEADER.unpack_from(data, place)
            if len(data) - place < length:
                break
            if number != self._next:
                self._fail(f"record {number} stands where {self._next} is due")
            self._next = number + 1
            self._take(kind, wall, console, data[place + _RECORD_HEADER.size:place + length])
            place += length
        self._rest = data[place:]

    def _take(self, kind: int, wall: int, console: int, payload: bytes) -> None:
        self.records += 1
        record = Record(kind, wall / _SECOND, self._names.get(console, ""), payload)
        if kind == CONSOLE:
            self._names[console] = record.field(NAME)
        elif console and not record.console:
            self._fail(f"a record of console {console}, whose name is not known")
        else:
            self._hand(record)

    def close(self) -> None:
        """Nothing more is to be read."""
        if self._file is not None:
            self._file.close()


def used(directory: Path) -> int:
    """The bytes of the journal's segments, sealed ones included."""
    return sum(entry.stat().st_size for entry in os.scandir(directory)
               if entry.name.endswith((".seg", ".zst")))
