"""Reads a journal as the daemon has written it: every byte is accounted for.

    journal = read_journal(station.root / "journal")
    journal.of(Kind.OUTPUT, "box")                  # records, in their order
    journal.output("box")                           # all that it printed

`read_journal` checks everything that the format promises: headers and checksums, running numbers
without a hole, names at the start of every segment, no byte between two records. `strict=False`
takes a last segment whose end is torn, as it is before the daemon starts again.
"""

import struct
from dataclasses import dataclass, field
from pathlib import Path

from journal_writer import (MAGIC, MOST_PAYLOAD, RECORD_HEADER_SIZE, SEGMENT_HEADER_SIZE, VERSION,
                            Field, Kind, crc32c)

NUMBERS = {Field.PORT, Field.PRIORITY, Field.BEGIN, Field.END, Field.COUNT, Field.BYTES,
           Field.SEGMENT, Field.PID}


@dataclass
class Record:
    """A record with its place; `values` are the fields of all kinds but output."""

    segment: int
    offset: int
    number: int
    wall: int
    monotonic: int
    console: int
    kind: Kind
    payload: bytes
    name: str = ""
    values: dict = field(default_factory=dict)

    def __repr__(self) -> str:
        what = self.values or self.payload[:60]
        return f"<{self.segment}:{self.offset} #{self.number} {self.kind.name} {self.name} {what}>"


@dataclass
class Segment:
    """A segment's header and records."""

    path: Path
    station: int
    number: int
    wall: int
    monotonic: int
    run: int
    first_record: int
    records: list[Record]
    torn: bytes  # what stands behind the last whole record


def fields_of(payload: bytes) -> dict:
    """A payload's fields, numbers as such and texts as str (one character for each byte)."""
    values = {}
    at = 0
    while at < len(payload):
        tag, length = struct.unpack_from("<BH", payload, at)
        value = payload[at + 3:at + 3 + length]
        assert len(value) == length, payload
        values[Field(tag)] = struct.unpack("<q", value)[0] if tag in NUMBERS \
            else value.decode("latin-1")
        at += 3 + length
    return values


def _record(data: bytes, at: int, segment: int) -> tuple[Record, int] | None:
    if at + RECORD_HEADER_SIZE > len(data):
        return None
    length, checksum = struct.unpack_from("<II", data, at)
    if not RECORD_HEADER_SIZE <= length <= min(RECORD_HEADER_SIZE + MOST_PAYLOAD, len(data) - at):
        return None
    if crc32c(data[at:at + 4] + data[at + 8:at + length]) != checksum:
        return None
    number, wall, monotonic, console, kind = struct.unpack_from("<QqqIB", data, at + 8)
    assert data[at + 37:at + 40] == bytes(3)
    payload = data[at + RECORD_HEADER_SIZE:at + length]
    record = Record(segment, at, number, wall, monotonic, console, Kind(kind), payload)
    if record.kind != Kind.OUTPUT:
        record.values = fields_of(payload)
    return record, at + length


def read_segment(path: Path) -> Segment:
    """One segment, as far as it is sound."""
    data = path.read_bytes()
    assert data[:8] == MAGIC, (path, data[:8])
    version, size, checksum = struct.unpack_from("<HHI", data, 8)
    assert (version, size) == (VERSION, SEGMENT_HEADER_SIZE)
    assert checksum == crc32c(data[16:SEGMENT_HEADER_SIZE])
    header = struct.unpack_from("<QQqqQQ", data, 16)
    records, at = [], SEGMENT_HEADER_SIZE
    while (found := _record(data, at, header[1])) is not None:
        records.append(found[0])
        at = found[1]
    return Segment(path, *header, records, data[at:])


def segment_files(directory: Path) -> list[Path]:
    """The segments' files, the oldest first."""
    return sorted(directory.glob("*.seg"))


class Journal:
    """All segments of a journal."""

    def __init__(self, directory: Path, strict: bool = True) -> None:
        text = (directory / "id").read_text()
        assert len(text) == 17 and text[16] == "\n", text
        self.station = int(text, 16)
        self.segments = [read_segment(path) for path in segment_files(directory)]
        self._check(strict)
        self._name()

    @property
    def records(self) -> list[Record]:
        """Every record, the oldest first."""
        return [record for segment in self.segments for record in segment.records]

    def of(self, kind: Kind, console: str | None = None) -> list[Record]:
        """The records of a kind, of one console or of all."""
        return [record for record in self.records
                if record.kind == kind and console in (None, record.name)]

    def values(self, kind: Kind, console: str | None = None) -> list[dict]:
        """The fields of the records of a kind."""
        return [record.values for record in self.of(kind, console)]

    def output(self, console: str) -> bytes:
        """All that a console printed, as far as it was kept."""
        return b"".join(record.payload for record in self.of(Kind.OUTPUT, console))

    def kinds(self, console: str) -> list[Kind]:
        """What happened to a console, in order, without the names that segments begin with."""
        return [record.kind for record in self.records if record.name == console
                and (record.kind != Kind.CONSOLE or not self._is_repeated(record))]

    def _check(self, strict: bool) -> None:
        number = None
        for position, segment in enumerate(self.segments):
            assert segment.station == self.station
            assert segment.path.name == f"{segment.number:020d}.seg"
            assert segment.number == self.segments[0].number + position
            for record in segment.records:
                expected = segment.first_record if number is None else number
                assert record.number == expected, record
                number = record.number + 1
            if not segment.records:
                assert number is None or segment.first_record == number
            if strict or position < len(self.segments) - 1:
                assert segment.torn == b"", (segment.path, segment.torn[:80])

    # Within a run a console is known by its number.
    def _name(self) -> None:
        names: dict[tuple[int, int], str] = {}
        for segment in self.segments:
            for record in segment.records:
                key = segment.run, record.console
                if record.kind == Kind.CONSOLE:
                    names[key] = record.values[Field.NAME]
                record.name = names[key] if record.console else ""

    def _is_repeated(self, record: Record) -> bool:
        segment = next(one for one in self.segments if one.number == record.segment)
        before = [one for one in self.records
                  if one.console == record.console and one.number < record.number
                  and one.kind == Kind.CONSOLE]
        return bool(before) and before[-1].values == record.values \
            and all(one.kind in (Kind.CONSOLE, Kind.TORN) for one in segment.records
                    if one.number < record.number)


def read_journal(directory: Path, strict: bool = True) -> Journal:
    """Read a journal, which may be written meanwhile if `strict` is off."""
    return Journal(directory, strict)
