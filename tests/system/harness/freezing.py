"""Holding one thread of the daemon still, to see what the others do meanwhile."""

import contextlib
import ctypes
import os
import platform
from typing import Iterator

from harness.waiting import wait_until

PTRACE_CONT = 7
PTRACE_DETACH = 17
PTRACE_SEIZE = 0x4206
PTRACE_INTERRUPT = 0x4207
WALL = 0x40000000

# The numbers of select and pselect6.
_SELECT = {"x86_64": (23, 270), "aarch64": (72,)}

_libc = ctypes.CDLL(None, use_errno=True)
_libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
_libc.ptrace.restype = ctypes.c_long


def _ptrace(request: int, thread: int) -> None:
    if _libc.ptrace(request, thread, None, None) != 0:
        code = ctypes.get_errno()
        raise OSError(code, f"ptrace {request:#x}: {os.strerror(code)}")


def _watched(pid: int, descriptor: int) -> set[int]:
    """What is waited for through this descriptor: itself and, if it is a watch, its members."""
    members = {descriptor}
    with open(f"/proc/{pid}/fdinfo/{descriptor}", encoding="ascii") as info:
        for line in info:
            words = line.split()
            if words[0] == "tfd:":
                members.add(int(words[1]))
    return members


def _read_set(pid: int, size: int, address: int) -> list[int]:
    """The descriptors in the set of a select() that was called with this size."""
    words = (size + 63) // 64
    with open(f"/proc/{pid}/mem", "rb", buffering=0) as memory:
        memory.seek(address)
        bits = int.from_bytes(memory.read(8 * words), "little")
    return [descriptor for descriptor in range(size) if bits >> descriptor & 1]


def _waits_for(pid: int, thread: int, descriptor: int) -> bool:
    """True while the thread is in select() and waits for this descriptor among others."""
    try:
        with open(f"/proc/{pid}/task/{thread}/syscall", encoding="ascii") as call:
            words = call.read().split()
        if len(words) < 3 or int(words[0], 0) not in _SELECT[platform.machine()]:
            return False
        asked = _read_set(pid, int(words[1], 16), int(words[2], 16))
        return any(descriptor in _watched(pid, each) for each in asked)
    except (OSError, ValueError, IndexError):
        return False


@contextlib.contextmanager
def frozen(pid: int, descriptor: int) -> Iterator[None]:
    """Stop the thread that waits for this descriptor in select(), where it holds no lock."""
    thread = wait_until(lambda: _freeze(pid, descriptor),
                        what=f"a thread that waits for descriptor {descriptor}")
    try:
        yield
    finally:
        _ptrace(PTRACE_DETACH, thread)


def _freeze(pid: int, descriptor: int) -> int:
    """The thread, stopped while it was waiting; 0 when there is none just now."""
    for entry in os.listdir(f"/proc/{pid}/task"):
        thread = int(entry)
        if not _waits_for(pid, thread, descriptor):
            continue
        _ptrace(PTRACE_SEIZE, thread)
        _ptrace(PTRACE_INTERRUPT, thread)
        os.waitpid(thread, WALL)
        if _waits_for(pid, thread, descriptor):
            return thread
        _ptrace(PTRACE_DETACH, thread)
    return 0
