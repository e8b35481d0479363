"""Searching the memory of a process."""

from typing import BinaryIO, Iterator

PIECE = 1 << 20

# A larger mapping is the shadow of a sanitizer, which holds no copy of anything.
LARGEST = 1 << 30

_UNREADABLE = ("[vvar]", "[vsyscall]", "[vdso]")


def in_memory(pid: int, wanted: bytes) -> bool:
    """True when the text is anywhere in what the process may read."""
    with open(f"/proc/{pid}/mem", "rb", buffering=0) as memory:
        return any(_holds(memory, start, end, wanted) for start, end in _mappings(pid))


def copies(pid: int, wanted: bytes) -> int:
    """How many times the text is in what a small process may read."""
    with open(f"/proc/{pid}/mem", "rb", buffering=0) as memory:
        return sum(_piece(memory, start, end - start).count(wanted)
                   for start, end in _mappings(pid))


def _mappings(pid: int) -> Iterator[tuple[int, int]]:
    with open(f"/proc/{pid}/maps", encoding="latin-1") as maps:
        for line in maps:
            words = line.split()
            start, end = (int(word, 16) for word in words[0].split("-"))
            if words[1][0] == "r" and words[-1] not in _UNREADABLE and end - start <= LARGEST:
                yield start, end


def _holds(memory: BinaryIO, start: int, end: int, wanted: bytes) -> bool:
    """Read the mapping in pieces that overlap, so that none is too large."""
    for position in range(start, end, PIECE):
        if wanted in _piece(memory, position, min(PIECE + len(wanted) - 1, end - position)):
            return True
    return False


def _piece(memory: BinaryIO, position: int, size: int) -> bytes:
    """The bytes there; none where they were unmapped meanwhile, or past the end of the file."""
    try:
        memory.seek(position)
        return memory.read(size)
    except OSError:
        return b""
