"""The operators' client, run in the test's own place: to its end, or on a terminal."""

import json
import os
import subprocess

import pexpect

from harness import settings
from harness.closing import Closing
from harness.station import Station, assert_no_sanitizer_report
from harness.terminals import close_terminal
from harness.waiting import LIMIT, stretched

PROGRAM = settings.build_directory() / "bin" / "zevctl"

# The exit statuses of the manual page.
OK, FAILED, USAGE, NO_DAEMON, NOT_ADMITTED, NO_SUCH_CONSOLE, NOT_ACCESSIBLE, IN_USE, REFUSED, \
    SESSION_ENDED, DECLINED, NOT_THE_DAEMON, DAMAGED = range(13)


def environment(**changes: str) -> dict[str, str]:
    """The test's environment, without what would affect the client, and with the changes."""
    kept = {name: value for name, value in os.environ.items()
            if not name.startswith("ZEVCTL_") and name not in ("NO_COLOR", "SUDO_USER")}
    return {**kept, "TERM": "xterm", **changes}


def words(station: Station | None, arguments: tuple[str, ...]) -> list[str]:
    """The client's command line; the station's port goes in front of the arguments."""
    port = ["--port", str(station.port)] if station is not None else []
    return [*port, *arguments]


def run(station: Station | None, *arguments: str, stdin: bytes = b"",
        env: dict[str, str] | None = None) -> subprocess.CompletedProcess[str]:
    """Run the client to its end, with pipes and no terminal."""
    done = subprocess.run([PROGRAM, *words(station, arguments)], input=stdin, capture_output=True,
                          env=environment(**(env or {})), timeout=stretched(2 * LIMIT),
                          start_new_session=True, check=False)
    result = subprocess.CompletedProcess(done.args, done.returncode, done.stdout.decode(),
                                         done.stderr.decode())
    assert_no_sanitizer_report(result.stderr)
    return result


def succeed(station: Station | None, *arguments: str) -> str:
    """Run the client, see that it ends with status 0 and says nothing, and return its output."""
    done = run(station, *arguments)
    assert (done.returncode, done.stderr) == (OK, "")
    return done.stdout


def data(station: Station | None, *arguments: str):
    """Run the client with --json and return what it printed."""
    return json.loads(succeed(station, "--json", *arguments))


def refuse(station: Station | None, status: int, message: str, *arguments: str) -> None:
    """Run the client and see it end with this status and message, and without output."""
    done = run(station, *arguments)
    assert (done.returncode, done.stderr, done.stdout) == (status, f"zevctl: {message}\n", "")


def start(station: Station | None, *arguments: str, **options) -> subprocess.Popen:
    """Start the client with pipes, for what does not end by itself; the test ends it."""
    pipes = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
    return subprocess.Popen([PROGRAM, *words(station, arguments)], env=environment(),
                            start_new_session=True, **(pipes | options))


class Terminal(Closing):
    """The client on a terminal of its own, as a person would use it."""

    def __init__(self, station: Station | None, *arguments: str, columns: int = 80,
                 env: dict[str, str] | None = None) -> None:
        self.child = pexpect.spawn(str(PROGRAM), words(station, arguments),
                                   timeout=stretched(LIMIT), env=environment(**(env or {})),
                                   dimensions=(24, columns))
        self.child.delaybeforesend = None

    def type(self, keys: str | bytes) -> None:
        """Press the keys; Enter is a carriage return."""
        self.child.send(keys)

    def expect(self, text: str | bytes, limit: float = LIMIT) -> bytes:
        """Wait until the screen shows the text; return what came before it."""
        wanted = text.encode() if isinstance(text, str) else text
        self.child.expect_exact(wanted, timeout=stretched(limit))
        return self.child.before

    def expect_end(self, status: int, limit: float = LIMIT) -> bytes:
        """Wait until the client ends with this status; return what it still showed."""
        self.child.expect(pexpect.EOF, timeout=stretched(limit))
        rest = self.child.before
        self.child.wait()
        assert self.child.exitstatus == status, (self.child.exitstatus, self.child.signalstatus,
                                                 rest)
        return rest

    def close(self) -> None:
        """Leave, as closing the terminal's window would."""
        close_terminal(self.child)
