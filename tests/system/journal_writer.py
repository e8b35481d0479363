"""Writes journals for tests, without a daemon: any record, at any time, and damage on purpose.

    from journal_writer import Field, JournalWriter, Kind, flip

    with JournalWriter(station.root / "journal") as journal:
        web = journal.console("web", "10.0.0.1", 4001)        # the first run begins by itself
        journal.output(web, b"login: ")                       # a millisecond after the one before
        journal.output(web, b"anna\r\n", at="2026-11-22 03:12:00")
        journal.record(Kind.ATTACHED, web, {Field.USER: "anna", Field.MODE: "sh"})
        journal.new_segment()                                 # definitions are written again
        journal.new_run()                                     # the daemon's next start
        web = journal.console("web", "10.0.0.1", 4001)        # its number in this run
    flip(journal.segment(1), 200)                             # damage: the functions at the end

The directory is made, with its file "id". Times are UTC: `at` is a text, a datetime, or a whole
number of nanoseconds since the epoch (negative before 1970). Without `at` a record comes `step`
nanoseconds after the one before. The monotonic time goes on evenly, whatever the wall clock does,
and starts anew with `new_run(boot=True)`.

Everything that a record or a header holds can be given: `record(..., number=, monotonic=)`,
`segment_header(...)`, `raw(...)`. Nothing is buffered: what has been written can be read at once.
With `hold=True` the segment that is written is locked, as the daemon locks it, until `close()`.
"""

import datetime
import fcntl
import os
import struct
from enum import IntEnum
from pathlib import Path

MAGIC = b"ZEVJRNL\n"
VERSION = 1
SEGMENT_HEADER_SIZE = 64
RECORD_HEADER_SIZE = 40
MOST_PAYLOAD = 64 << 10
BEGIN = "2026-11-22 03:00:00"
MILLISECOND = 1_000_000
SECOND = 1_000_000_000


class Kind(IntEnum):
    """What a record tells."""

    CONSOLE = 1
    CONSOLE_GONE = 2
    OUTPUT = 3
    INPUT = 4
    ATTACHED = 5
    LEFT = 6
    MODE = 7
    CONNECTED = 8
    LOST = 9
    DISABLED = 10
    ENABLED = 11
    MESSAGE = 12
    BREAK = 13
    EVENT = 14
    PAUSED = 15
    NOT_LOGGED = 16
    GAP = 17
    CLOCK_STEP = 18
    STARTED = 19
    STOPPED = 20
    AUDIT = 21
    TORN = 22


class Field(IntEnum):
    """What a field of a payload means."""

    NAME = 1
    ADDRESS = 2
    PORT = 3
    USER = 4
    GIVEN_USER = 5
    FROM = 6
    GIVEN_FROM = 7
    MODE = 8
    REASON = 9
    PATTERN = 10
    PRIORITY = 11
    TEXT = 12
    BEGIN = 13
    END = 14
    COUNT = 15
    BYTES = 16
    WHAT = 17
    RESULT = 18
    SEGMENT = 19
    VERSION = 20
    PID = 21
    CONSOLE = 22
    PREVIOUS_MODE = 23


# ---- Bytes ---------------------------------------------------------------------------------------


def _make_table() -> list[int]:
    table = []
    for byte in range(256):
        for _ in range(8):
            byte = byte >> 1 ^ (0x82F63B78 if byte & 1 else 0)
        table.append(byte)
    return table


_TABLE = _make_table()


def crc32c(data: bytes) -> int:
    """The checksum of headers and records."""
    total = 0xFFFFFFFF
    for byte in data:
        total = total >> 8 ^ _TABLE[(total ^ byte) & 0xFF]
    return total ^ 0xFFFFFFFF


def nanoseconds(time: int | str | datetime.datetime) -> int:
    """A time as records have it. A text or a datetime without a zone is UTC."""
    if isinstance(time, int):
        return time
    if isinstance(time, str):
        time = datetime.datetime.fromisoformat(time)
    if time.tzinfo is None:
        time = time.replace(tzinfo=datetime.timezone.utc)
    since = time - datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
    return (since.days * 86400 + since.seconds) * SECOND + since.microseconds * 1000


def field(tag: int, value: int | str | bytes) -> bytes:
    """One field of a payload: a number, or a text."""
    if isinstance(value, int):
        value = struct.pack("<q", value)
    elif isinstance(value, str):
        value = value.encode()
    return struct.pack("<BH", tag, len(value)) + value


def fields(values: dict | list) -> bytes:
    """A payload of fields: a dictionary, or pairs where a field comes twice."""
    pairs = values.items() if isinstance(values, dict) else values
    return b"".join(field(tag, value) for tag, value in pairs)


def record_bytes(kind: int, console: int, payload: bytes, number: int, wall: int,
                 monotonic: int) -> bytes:
    """A whole record with its checksum."""
    length = struct.pack("<I", RECORD_HEADER_SIZE + len(payload))
    rest = struct.pack("<QqqIB3x", number, wall, monotonic, console, kind) + payload
    return length + struct.pack("<I", crc32c(length + rest)) + rest


def segment_header(station: int, segment: int, wall: int, monotonic: int, run: int,
                   first_record: int, version: int = VERSION) -> bytes:
    """What a segment begins with."""
    rest = struct.pack("<QQqqQQ", station, segment, wall, monotonic, run, first_record)
    return MAGIC + struct.pack("<HHI", version, SEGMENT_HEADER_SIZE, crc32c(rest)) + rest


# ---- The journal ---------------------------------------------------------------------------------


class JournalWriter:
    """A journal that grows record by record, as the daemon would write it."""

    def __init__(self, directory: Path | str, station: int = 0x5A45564400000001,
                 begin: int | str | datetime.datetime = BEGIN, step: int = MILLISECOND,
                 with_started: bool = False, first_segment: int = 1, hold: bool = False) -> None:
        self.directory = Path(directory)
        self.station = station
        self.step = step
        self.wall = nanoseconds(begin)  # of the next record
        self.monotonic = 1000 * SECOND
        self.number = 1
        self.run = 0
        self.current = first_segment - 1  # the number of the segment that is written
        self.with_started = with_started
        self.hold = hold
        self._consoles: dict[int, dict] = {}
        self._stream = None
        self.directory.mkdir(mode=0o750, parents=True, exist_ok=True)
        identity = self.directory / "id"
        identity.write_text(f"{station:016x}\n")
        identity.chmod(0o640)

    def __enter__(self) -> "JournalWriter":
        return self

    def __exit__(self, *_) -> None:
        self.close()

    def close(self) -> None:
        """Let go of the segment; what has been written is complete anyway."""
        if self._stream is not None:
            self._stream.close()
            self._stream = None

    def segment(self, number: int | None = None) -> Path:
        """The file of a segment; of the one that is written, if no number is given."""
        return self.directory / f"{number or self.current:020d}.seg"

    @property
    def position(self) -> str:
        """Where the next record will stand: "STATION:SEGMENT:OFFSET"."""
        return f"{self.station:016x}:{self.current}:{self._stream.tell()}"

    # Segments and runs

    def new_run(self, run: int | None = None, boot: bool = False) -> int:
        """The daemon starts: consoles are numbered anew, from 1 on, and a segment begins."""
        self.run = run if run is not None else self.run + 1
        self._consoles = {}
        if boot:
            self.monotonic = 10 * SECOND
        self.new_segment()
        if self.with_started:
            self.record(Kind.STARTED, 0, {Field.VERSION: "0.1.0", Field.PID: 1000 + self.run})
        return self.run

    def new_segment(self, definitions: bool = True, **header) -> Path:
        """Begin the next segment, with the consoles' definitions. `header` replaces its fields."""
        self._begin_run()
        self.close()
        self.current += 1
        self._stream = open(self.segment(), "xb", buffering=0)
        os.fchmod(self._stream.fileno(), 0o640)
        if self.hold:
            fcntl.flock(self._stream, fcntl.LOCK_EX)
        values = {"station": self.station, "segment": self.current, "wall": self.wall,
                  "monotonic": self.monotonic, "run": self.run, "first_record": self.number}
        self._stream.write(segment_header(**{**values, **header}))
        if definitions:
            for number, values in self._consoles.items():
                self.record(Kind.CONSOLE, number, values)
        return self.segment()

    def _begin_run(self) -> None:
        if self.run == 0:
            self.run = 1

    # Records

    def console(self, name: str, address: str = "127.0.0.1", port: int = 4000,
                number: int | None = None, at=None) -> int:
        """Define a console; with `number`, one that is there gets another name or address."""
        if number is None:
            number = max(self._consoles, default=0) + 1
        values = {Field.NAME: name, Field.ADDRESS: address, Field.PORT: port}
        self.record(Kind.CONSOLE, number, values, at=at)
        self._consoles[number] = values
        return number

    def console_gone(self, number: int, at=None) -> str:
        """Delete a console."""
        name = self._consoles.pop(number)[Field.NAME]
        return self.record(Kind.CONSOLE_GONE, number, {Field.NAME: name}, at=at)

    def output(self, console: int, data: bytes | str, at=None) -> str:
        """What a console printed."""
        return self.record(Kind.OUTPUT, console, data, at=at)

    def record(self, kind: int, console: int = 0, payload: dict | list | bytes | str = b"", at=None,
               number: int | None = None, monotonic: int | None = None) -> str:
        """Write a record; the answer is its position.

        The payload is a dictionary or a list of fields, or the bytes themselves. A running number
        that is given is where the next ones go on.
        """
        if self._stream is None:
            self.new_run()
        if isinstance(payload, str):
            payload = payload.encode()
        elif not isinstance(payload, bytes):
            payload = fields(payload)
        place = self.position
        if at is not None:
            self.wall = nanoseconds(at)
        if number is not None:
            self.number = number
        time = self.monotonic if monotonic is None else monotonic
        self._stream.write(
            record_bytes(kind, console, payload, self.number, self.wall, time))
        self.number += 1
        self.wall += self.step
        self.monotonic += self.step
        return place

    def raw(self, data: bytes) -> None:
        """Write bytes as they are: half a record, or what is none."""
        if self._stream is None:
            self.new_run()
        self._stream.write(data)


# ---- Damage --------------------------------------------------------------------------------------


def flip(path: Path, offset: int, bits: int = 0xFF) -> None:
    """Change one byte of a file; a negative offset counts from its end."""
    data = bytearray(path.read_bytes())
    data[offset] ^= bits
    path.write_bytes(data)


def cut(path: Path, size: int) -> None:
    """Cut a file; a negative size counts from its end."""
    os.truncate(path, size if size >= 0 else path.stat().st_size + size)


def overwrite(path: Path, offset: int, data: bytes) -> None:
    """Put other bytes into a file."""
    with open(path, "r+b") as stream:
        stream.seek(offset)
        stream.write(data)
