"""Follows the logs of a running daemon through all their directories.

A console's records are taken in the order in which they were written: the daemon only ever goes on
to a newer directory. Directories may be moved, and logs renamed, while they are followed; each is
known by its inode.
"""

import asyncio
import contextlib
import os
import re
import shutil
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Iterator

CONSOLIDATED = "consolidated.log"

_STAMP = rb"(\d\d/\d\d/\d\d_\d\d:\d\d:\d\d)"
_OWN = re.compile(_STAMP + b" ")
_ALL = re.compile(_STAMP + rb" (c\d+[a-z0-9]*) ")
_NAME = re.compile(r"c(\d+)(?:r(\d+))?\.log")

# Directories older than the one in use that may still be written to, and those that are kept.
_FOLLOWED = 3
_KEPT = 8

_BETWEEN_PAUSES = 10  # consoles


@dataclass
class LogFile:
    """One log, and how far its records have been handed on.

    What follows them is read again each time: on a full disk a piece of a record may be seen
    before the daemon takes it back.
    """

    directory: int
    generation: int
    path: str
    pattern: re.Pattern[bytes]
    handed: int = 0
    rest: bytes = b""

    def read(self, size: int) -> None:
        """Take in what was written up to this size."""
        self.rest = b""
        if size <= self.handed:
            return
        with open(self.path, "rb") as file:
            file.seek(self.handed)
            self.rest = file.read(size - self.handed)

    def records(self, ended: bool) -> Iterator[tuple[re.Match[bytes], bytes]]:
        """The complete records that have been read: what precedes each, and its bytes.

        The last one is complete when it has a line end, or when nothing can follow it.
        """
        heads = list(self.pattern.finditer(self.rest))
        if not heads and not ended and b"\n" not in self.rest:
            return
        if self.rest and (not heads or heads[0].start() != 0):
            raise ValueError(f"{self.path} has no stamp before {self.rest[:100]!r}")
        ends = [head.start() for head in heads[1:]] + [len(self.rest)]
        done = 0
        for head, end in zip(heads, ends):
            content = self.rest[head.end():end]
            if end == len(self.rest) and not ended and not content.endswith(b"\n"):
                break
            done = end
            yield head, content
        self.handed += done


class LogReader:
    """Reads what is new and hands each record on."""

    def __init__(self, log_dir: Path, own: Callable[[int, float, bytes], None],
                 consolidated: Callable[[int, float, bytes], None]) -> None:
        self._log_dir = log_dir
        self._hand_own = own
        self._hand_consolidated = consolidated
        self._directories: dict[int, int] = {}  # inode to place in the order
        self._paths: dict[int, str] = {}  # place in the order to path
        self._files: dict[int, LogFile] = {}
        self._seconds: tuple[bytes, float] = (b"", 0.0)

    async def catch_up(self, final: bool = False) -> None:
        """Read all that is new. `final`: nothing will be written any more."""
        self._find_directories()
        found = self._find_files()
        # What is in the consolidated log by now is in the others when these are read afterwards.
        everybodys = found.pop(-1, [])
        sizes = self._sizes(everybodys)
        with contextlib.suppress(FileNotFoundError):  # moved or renamed just now; next time
            for number, console in enumerate(sorted(found)):
                if number % _BETWEEN_PAUSES == 0:
                    await asyncio.sleep(0)
                self._read_console(console, found[console], final)
            self._read_everybodys(everybodys, sizes, final)
        self._tidy()

    def _find_directories(self) -> None:
        entries = [entry for place in sorted(self._log_dir.glob("zev.dated*"))
                   if place.is_dir() for entry in os.scandir(place)
                   if entry.is_dir(follow_symlinks=False)]
        for entry in sorted(entries, key=lambda entry: entry.stat().st_ctime_ns):
            place = self._directories.setdefault(entry.inode(), len(self._directories))
            self._paths[place] = entry.path

    def _find_files(self) -> dict[int, list[LogFile]]:
        """The logs in the newest directories by console, in the order of writing; -1 is all's."""
        found: dict[int, list[LogFile]] = {}
        for place in sorted(self._paths)[-_FOLLOWED - 1:]:
            for entry in os.scandir(self._paths[place]):
                console, generation = _console_of(entry.name)
                file = self._files.setdefault(entry.inode(), LogFile(
                    place, generation, entry.path, _ALL if console < 0 else _OWN))
                file.path, file.generation = entry.path, generation
                found.setdefault(console, []).append(file)
        for files in found.values():
            files.sort(key=lambda file: (file.directory, file.generation))
        return found

    @staticmethod
    def _sizes(files: list[LogFile]) -> list[int]:
        """How large they are: the newest is looked at first, so that none is read ahead of those
        before it."""
        return [os.stat(file.path).st_size for file in reversed(files)][::-1]

    def _read_console(self, console: int, files: list[LogFile], final: bool) -> None:
        sizes = self._sizes(files)
        for file, size, is_last in _with_last(files, sizes):
            file.read(size)
            for head, content in file.records(ended=final or not is_last):
                self._hand_own(console, self._time(head[1]), content)

    def _read_everybodys(self, files: list[LogFile], sizes: list[int], final: bool) -> None:
        for file, size, is_last in _with_last(files, sizes):
            file.read(size)
            for head, content in file.records(ended=final or not is_last):
                console, _ = _console_of(head[2].decode() + ".log")
                self._hand_consolidated(console, self._time(head[1]), content)

    def _time(self, stamp: bytes) -> float:
        if self._seconds[0] != stamp:
            parsed = time.strptime(stamp.decode(), "%y/%m/%d_%H:%M:%S")
            self._seconds = (stamp, time.mktime(parsed))
        return self._seconds[1]

    def _tidy(self) -> None:
        """Remove what has been read long ago, as the keepers of old logs do."""
        for place in sorted(self._paths)[:-_KEPT]:
            shutil.rmtree(self._paths.pop(place))
            self._files = {inode: file for inode, file in self._files.items()
                           if file.directory != place}


def _console_of(name: str) -> tuple[int, int]:
    """The console's number and how often it had been renamed; -1 for the consolidated log."""
    if name == CONSOLIDATED:
        return -1, 0
    match = _NAME.fullmatch(name)
    if match is None:
        raise ValueError(f"there is a log {name}")
    return int(match[1]), int(match[2] or 0)


def _with_last(files: list[LogFile], sizes: list[int]) -> Iterator[tuple[LogFile, int, bool]]:
    """Each file with its size, and whether none after it has anything in it."""
    for number, (file, size) in enumerate(zip(files, sizes)):
        yield file, size, not any(sizes[number + 1:])
