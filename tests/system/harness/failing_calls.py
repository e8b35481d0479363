"""A daemon whose n-th call of one kind fails: memory runs out, the system refuses."""

import enum
import errno
import mmap
import struct
from pathlib import Path

from harness import preload

_NUMBER = struct.Struct("=q")
_FIELDS = ("armed", "nth", "error", "thread", "seen", "fired", "ahead", "lasting")
_NAME_AT = len(_FIELDS) * _NUMBER.size
_NAME_SIZE = 32

ALLOCATION = "allocation"

# The C library's regcomp() leaks a few bytes when it runs out of memory.
_LOST_BY_THE_LIBRARY = "leak:re_compile_internal\n"

# The error of a call that fails; each is one that the real call can return.
CODES = {
    ALLOCATION: errno.ENOMEM, "socket": errno.EMFILE, "bind": errno.EADDRINUSE,
    "listen": errno.EADDRINUSE, "accept4": errno.EMFILE, "connect": errno.ENETUNREACH,
    "setsockopt": errno.ENOBUFS, "recv": errno.ENOMEM, "send": errno.ENOBUFS,
    "sendmsg": errno.ENOBUFS, "select": errno.ENOMEM, "poll": errno.ENOMEM, "ppoll": errno.ENOMEM,
    "epoll_create1": errno.EMFILE, "epoll_ctl": errno.ENOSPC, "epoll_wait": errno.EINTR,
    "eventfd": errno.EMFILE, "read": errno.EIO, "write": errno.ENOSPC, "writev": errno.ENOSPC,
    "lseek": errno.EIO, "dup2": errno.EMFILE, "close": errno.EIO, "fcntl": errno.EMFILE,
    "open": errno.EMFILE, "openat": errno.EMFILE, "opendir": errno.EMFILE, "readdir": errno.EIO,
    "closedir": errno.EIO, "mkdirat": errno.ENOSPC, "rename": errno.EIO, "renameat2": errno.EIO,
    "unlinkat": errno.EIO, "symlinkat": errno.ENOSPC, "readlinkat": errno.EIO, "stat": errno.EIO,
    "lstat": errno.EIO, "fstat": errno.EIO, "fstatat": errno.EIO, "fchown": errno.EPERM,
    "fchmod": errno.EPERM, "getrandom": errno.ENOSYS,
    "ftruncate": errno.EIO, "flock": errno.ENOLCK, "mkostemp": errno.EMFILE,
    "fopen": errno.EMFILE, "fdopen": errno.ENOMEM, "fclose": errno.EIO, "fgets": errno.EIO,
    "getline": errno.EIO, "fwrite": errno.ENOSPC, "fprintf": errno.ENOSPC,
    "fflush": errno.ENOSPC, "getrlimit": errno.EPERM, "setrlimit": errno.EPERM,
    "gethostname": errno.EPERM, "daemon": errno.EAGAIN, "sigtimedwait": errno.EINTR,
    "signalfd": errno.EMFILE,
    "regcomp": errno.ENOMEM, "regexec": errno.ENOMEM, "pthread_create": errno.EAGAIN,
}


class Thread(enum.IntEnum):
    """Whose calls are counted."""

    ANY = -1
    MAIN = 0
    CONS_CONN = 1
    USER_CONN = 2
    USER_MON = 3
    CMD_MON = 4
    SERV_CONN = 5


def build_library(directory: Path) -> Path:
    """Build what is loaded into the daemon; once is enough for all tests of a process."""
    return preload.build("failing_calls", directory, "-fexceptions")


class FailingCalls:
    """The calls of the daemons that are started with `env`; all succeed until one is to fail."""

    def __init__(self, library: Path, scratch: Path) -> None:
        self._library = library
        self._suppressions = scratch / "failing_calls.suppressions"
        self._suppressions.write_text(_LOST_BY_THE_LIBRARY)
        self._path = scratch / "failing_calls.control"
        self._path.write_bytes(bytes(_NAME_AT + _NAME_SIZE))
        with open(self._path, "r+b") as file:
            self._control = mmap.mmap(file.fileno(), 0)

    @property
    def env(self) -> dict[str, str]:
        """What has to be in the daemon's environment."""
        return preload.environment(
            self._library, "allocator_may_return_null=1", "fast_unwind_on_malloc=0",
            FAILING_CALLS=str(self._path), LSAN_OPTIONS=f"suppressions={self._suppressions}")

    def _get(self, field: str) -> int:
        return _NUMBER.unpack_from(self._control, _FIELDS.index(field) * _NUMBER.size)[0]

    def _set(self, field: str, value: int) -> None:
        _NUMBER.pack_into(self._control, _FIELDS.index(field) * _NUMBER.size, value)

    def arm(self, name: str, nth: int, thread: Thread = Thread.ANY, lasting: bool = False) -> None:
        """Count the calls of this kind from now on, and let the n-th fail; 0 lets none fail.

        With `lasting`, all fail from the n-th on.
        """
        self.disarm()
        self._control[_NAME_AT:_NAME_AT + _NAME_SIZE] = name.encode().ljust(_NAME_SIZE, b"\0")
        for field, value in (("nth", nth), ("error", CODES[name]), ("thread", thread),
                             ("lasting", lasting), ("seen", 0), ("fired", 0), ("armed", 1)):
            self._set(field, value)

    def disarm(self) -> None:
        """Let everything succeed again, uncounted; `seen` and `fired` keep what they say."""
        self._set("armed", 0)

    @property
    def seen(self) -> int:
        """How many calls have been counted since `arm`."""
        return self._get("seen")

    @property
    def fired(self) -> bool:
        """True when a call has failed since `arm`."""
        return bool(self._get("fired"))

    def pass_time(self, seconds: int) -> None:
        """Set the daemon's clock forward, and the times of the files that it looks at later."""
        self._set("ahead", self._get("ahead") + seconds)
