"""Compares the journal with what the consoles printed, and has it verified in the end."""

import re
import subprocess
from pathlib import Path
from typing import Callable

from journal_book import JournalBook
from journal_records import (ATTACHED, BEGIN, BYTES, END, GAP, NOT_LOGGED, OUTPUT, JournalReader,
                             Record, used)
from stream import Counts
from windows import StationWindows, clock

from harness.waiting import stretched

_NAME = re.compile(r"c(\d+)(?:r\d+)?")
_SECOND = 10**9
_NOTED_WITHIN = stretched(1.0)  # the time of a send is taken when it has been made


class JournalWatch:
    """Hands the records of the journal to the books of their consoles."""

    def __init__(self, directory: Path, windows: StationWindows,
                 books: Callable[[], list[JournalBook]], fail: Callable[[str], None]) -> None:
        self._directory = directory
        self._windows = windows
        self._books = books  # of all consoles, in the order of their numbers
        self._fail = fail
        self._reader = JournalReader(directory, self._take, fail)
        self._pauses = 0
        self._gaps = 0
        self._attached = 0

    def catch_up(self) -> None:
        """Read all that is new."""
        self._reader.catch_up()

    def _take(self, record: Record) -> None:
        if record.kind == GAP:
            self._take_gap(record)
        elif record.kind == OUTPUT:
            self._book_of(record).output(record.when, record.payload)
        elif record.kind == NOT_LOGGED:
            self._pauses += 1
            self._book_of(record).not_logged(record.field(BYTES))
        elif record.kind == ATTACHED:
            self._attached += 1

    def _book_of(self, record: Record) -> JournalBook:
        return self._books()[int(_NAME.fullmatch(record.console)[1])]

    def _take_gap(self, record: Record) -> None:
        """Records are lost for a reason only: the disk was full."""
        self._gaps += 1
        begin, end = record.field(BEGIN) / _SECOND, record.field(END) / _SECOND
        if not self._windows.journal_is_full.touch(begin, end):
            self._fail(f"the journal has a gap from {clock(begin)} to {clock(end)}; "
                       f"it was full: {self._windows.journal_is_full}")
        self._windows.journal.open("gap, as the journal says", begin).close(end + _NOTED_WITHIN)
        for book in self._books():
            book.gap()

    def settle(self) -> None:
        """Nothing more will be written of the consoles."""
        if not self._attached:
            self._fail("the journal tells of no user")
        self._reader.close()

    def sum_up(self, counts: Counts) -> None:
        """What was found in the journal."""
        reasons = "; ".join(f"{count} {why}" for why, count in counts.accounted.most_common())
        reader = self._reader
        print(f"soak: journal: {reader.records} records, {reader.bytes} bytes, "
              f"{reader.segments} segments, of which {used(self._directory)} bytes are kept; "
              f"{self._attached} users, {self._pauses} pauses, {self._gaps} gaps")
        print(f"soak: journal: {counts.printed} lines printed, {counts.found} found, "
              f"{counts.accounted.total()} accounted for ({reasons}); "
              f"kept within {counts.worst_lag:.3f} s")


def verify(programs: Path) -> bool:
    """Seal what the daemon has left, and have every byte of the journal checked."""
    good = True
    for command in (["zevkeep"], ["zevctl", "journal", "verify"]):
        done = subprocess.run([programs / command[0], *command[1:]], capture_output=True, text=True,
                              check=False)
        said = (done.stdout + done.stderr).strip()
        print(f"soak: {' '.join(command)}: status {done.returncode}; {said}", flush=True)
        good = good and done.returncode == 0
    return good
