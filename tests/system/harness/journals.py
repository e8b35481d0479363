"""The journal of a station under test: switching it on, and waiting for what is in it."""

from pathlib import Path

from harness.access import bring_up, reload
from harness.consoles import FakeConsole
from harness.station import Station
from harness.waiting import LIMIT, wait_until
from journal_reader import Journal, Record, read_journal, segment_files
from journal_writer import Field, Kind


def directory(station: Station) -> Path:
    """Where the journal is."""
    return station.root / "journal"


def configure(station: Station, *lines: str) -> None:
    """Replace the suite's configuration file."""
    text = "".join(f"{line}\n" for line in ("ZEVD_ARCH_INT=7", *lines))
    (station.config / "qor.conf").write_text(text)


def begin(station: Station, *consoles: FakeConsole, lines: tuple[str, ...] = ("ZEVD_JOURNAL=100",),
          **options) -> None:
    """Start the daemon with a journal, and wait until the consoles are connected."""
    configure(station, *lines)
    bring_up(station, *consoles, **options)


def change(station: Station, *lines: str) -> None:
    """Have the daemon read other settings."""
    configure(station, *lines)
    reload(station)


def exists(station: Station) -> bool:
    """True when there is a segment."""
    return (directory(station) / "id").exists() and bool(segment_files(directory(station)))


def now(station: Station) -> Journal:
    """The journal as it is, while the daemon writes it."""
    return read_journal(directory(station), strict=False)


def wait_for(station: Station, kind: Kind, console: str | None = None, count: int = 1,
             limit: float = LIMIT, **values) -> list[Record]:
    """Wait until so many records of the kind, with these fields, are there."""
    wanted = {Field[name.upper()]: value for name, value in values.items()}

    def found() -> list[Record]:
        if not exists(station):
            return []
        records = [record for record in now(station).of(kind, console)
                   if wanted.items() <= record.values.items()]
        return records if len(records) >= count else []

    return wait_until(found, limit, f"{count} records {kind.name} {console} {wanted}")


def wait_output(station: Station, console: str, text: bytes, limit: float = LIMIT) -> Journal:
    """Wait until the console's output ends with this text, and give the journal."""
    def found() -> Journal | None:
        if not exists(station):
            return None
        journal = now(station)
        return journal if journal.output(console).endswith(text) else None

    return wait_until(found, limit, f"{text!r} of {console} in the journal")


def finish(station: Station) -> Journal:
    """Stop the daemon and read all that it has written."""
    station.stop()
    return read_journal(directory(station))
