"""A station on which one call at a time fails, and the checks that it still does its work."""

import contextlib
import os
import re
import shutil
import signal
import socket
import subprocess
import time
from collections.abc import Callable, Iterable
from pathlib import Path

from harness.commands import RECORDS
from harness.cookies import cookie, cookie_file
from harness.debuglog import DebugLog
from harness.failing_calls import FailingCalls
from harness.farm import Farm
from harness.isolation import children
from harness.peers import OFFERS
from harness.station import Detached, Station
from harness.waiting import (LIMIT, NotReached, connections_of, free_port, is_listening, stretched,
                             wait_until)

_PAUSE = 0.001
_AGAIN = 0.5
_NUDGE = 0.005
_PERIOD = 8 * 86400  # longer than a log directory is used, and than a console is left alone

PATTERN = "fresh"
WORKERS = 4  # threads besides the main one that live as long as the daemon

# What the daemon says when something went wrong. Everything else that it says is about its work.
_COMPLAINT = re.compile(
    r"^ZEV \S+:<[^>]*>: "
    r"(?!PostJixEvent: template|\w+: recv\(\) returned 0 |ConnectUserToConsole: Console "
    r"|SendErrorToUser: )"
    r"(.*(?:failed|[Cc]annot|Could not|Couldn't|returned NULL|returned -1 |not found|[Mm]issing"
    r"|has not been opened|Running out|All descriptors|Nobody can|No models|Too many|doesn't map"
    r"|Unknown|zevd is already).*)$", re.MULTILINE)

_READ_FAILED = "ProcessConsoleOutput: recv() returned "
_HUNG_UP = re.compile(r"CloseConsoleConnection: Closing connection with console (\S+)$",
                      re.MULTILINE)


class Ended(Exception):
    """The daemon has ended."""


class Costly(Exception):
    """The daemon has said that something does not work any more."""


class FailingStation:
    """Echoing consoles, a daemon, and the call that is to fail."""

    def __init__(self, station: Station, farm: Farm, calls: FailingCalls) -> None:
        self.station = station
        self.farm = farm
        self.calls = calls
        self.names: list[str] = []
        self.costly: re.Pattern[str] | None = None
        self.position = 0
        self._number = 0
        (station.events / "patterns").write_text(f"line 100 1 {PATTERN}\n")

    # The daemon

    def prepare(self) -> None:
        """Make the station as new for the next daemon."""
        self.kill()
        shutil.rmtree(self.station.logs)
        self.station.logs.mkdir()
        for left in (self.station.lock_file, self.station.config / "qor.conf",
                     cookie_file(self.station)):
            left.unlink(missing_ok=True)
        self.station.log = self.station.output
        self.mark()

    def start(self, *options: str) -> None:
        """Start the daemon; it need not come up."""
        self.station.start("-d", "2", *options, wait=False, env=self.calls.env)

    def start_detached(self, *options: str) -> None:
        """Start the daemon in the background; it and its starter may fail early."""
        station = self.station
        station.port, station.level = free_port(), 2
        before = children()
        with open(station.output.path, "ab") as output:
            starter = subprocess.run(
                [station.program, "-S", "0", "-d", "2", "-p", str(station.port), *options],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output, check=False,
                env={**os.environ, **self.calls.env}, timeout=stretched(LIMIT))
        left = children() - before
        station.process = Detached(left.pop()) if left else Detached(0)
        if not station.process.pid:
            station.process.returncode = starter.returncode
        station.log = DebugLog(station.logs / "zevd.log")

    def kill(self) -> None:
        """Kill the daemon."""
        if self.station.running:
            os.kill(self.station.pid, signal.SIGKILL)
            wait_until(lambda: not self.station.running, what="the daemon to be killed")
        self.station.process = None

    def end(self) -> None:
        """End the daemon in the usual way, so that a sanitizer reports leaks."""
        if self.station.running:
            self.station.stop()
        self.station.process = None

    @property
    def said(self) -> str:
        """What the daemon has said since `mark`; all that it said, once it is in the background."""
        station = self.station
        said = station.output.text(self.position)
        return said if station.log is station.output else said + station.log.text()

    def mark(self) -> None:
        """Forget what the daemon has said."""
        self.position = self.station.output.size()

    @property
    def complaints(self) -> list[str]:
        """What it said about failures; equal messages count once."""
        return list(dict.fromkeys(_COMPLAINT.findall(self.said)))

    def until(self, condition: Callable[[], object], what: str, limit: float = LIMIT) -> None:
        """Wait for the condition; raise when the daemon ends or says that it will not come."""
        deadline = time.monotonic() + stretched(limit)
        while not condition():
            if not self.station.running:
                raise Ended(what)
            if self.costly is not None and self.costly.search(self.said):
                raise Costly(what)
            if time.monotonic() > deadline:
                raise NotReached(f"waited in vain for {what}; it said:\n{self.said[-3000:]}")
            time.sleep(_PAUSE)

    def confirm(self, done: bool, what: str) -> None:
        """Fail unless it is done; raise `Ended` or `Costly` where that is the reason."""
        if not done:
            self.until(lambda: False, what, limit=1)

    def said_since(self, position: int, text: str) -> bool:
        """True when the daemon has said this since then."""
        return text in self.station.log_text(position)

    # Its work

    def log_of(self, name: str) -> Path:
        """A log in the directory in use."""
        return self.station.logs / "zev.dated" / "current" / f"{name}.log"

    def logged(self, name: str, text: bytes) -> bool:
        """True when the log in use holds the text."""
        try:
            return text in self.log_of(name).read_bytes()
        except OSError:
            return False

    def is_up(self) -> bool:
        """True when the user port listens, and every console is connected and logged."""
        return is_listening(self.station.port) and all(
            self.logged(name, b" ready\n") for name in self.names)

    def fresh(self) -> bytes:
        """A text that was not used before."""
        self._number += 1
        return b"fresh %d." % self._number

    def call(self, port: int | None = None) -> socket.socket | None:
        """A connection to one of the daemon's ports; None when nobody listens."""
        try:
            return socket.create_connection(("127.0.0.1", port or self.station.port),
                                            stretched(LIMIT))
        except ConnectionError:
            return None

    def token(self) -> bytes:
        """How the argument line begins: with the cookie, when security is on."""
        if not cookie_file(self.station).exists():
            return b""
        return b"token " + cookie(self.station) + b" "

    def attach(self, console: str) -> socket.socket:
        """Attach a user, as soon as the console is available."""
        found: list[socket.socket] = []
        position = self.station.mark()

        def attached() -> bool:
            user = self.call()
            if user is None:
                return False
            if heard(user, OFFERS, self.token() + console.encode() + b"\n"):
                found.append(user)
            else:
                user.close()
            return bool(found)

        self.until(attached, f"{console} to take a user")
        try:
            self.until(lambda: self.said_since(position, "Connected user"),
                       "the user to be on all lists")
        except BaseException:
            found[0].close()
            raise
        return found[0]

    def have_printed(self, text: bytes) -> None:
        """Have the consoles print the text, except one that is just going away."""
        with contextlib.suppress(OSError):
            self.farm.print_everywhere(text)

    def print(self) -> bytes:
        """Have the consoles print until a line of each is in both logs and matched; return it.

        A line that comes while a user or a console is just leaving is not.
        """
        line, again_at = b"", 0.0

        def recorded() -> bool:
            nonlocal line, again_at
            logged = bool(line) and all(self.logged(name, b" " + line) for name in self.names)
            if logged and all(self._unwatched(name, line) for name in self.names):
                return True
            if logged or time.monotonic() > again_at:
                line, again_at = self.fresh() + b"\n", time.monotonic() + _AGAIN
                self.have_printed(line)
            return False

        self.until(recorded, "what the consoles print to be recorded")
        return line

    def _unwatched(self, name: str, line: bytes) -> bool:
        """True when the line was recorded and matched as one that no user saw."""
        matched = f'Matched pattern "{PATTERN}" in string "{line.decode()}'
        return (self.logged("consolidated", f" {name} ".encode() + line)
                and self.said.count(matched) >= len(self.names))

    def works(self) -> None:
        """See that the daemon does all of its work."""
        for name in self.names:
            with self.attach(name) as user:
                key = self.fresh() + b"\n"
                self.confirm(heard(user, key, key), "the key to come back")
        self.print()
        self.command()
        self.until(self.users_are_gone, "the users to be gone")

    def users_are_gone(self) -> bool:
        """True when the daemon has closed every user's connection."""
        return connections_of(self.station.port) == 0

    def command(self) -> None:
        """See that the command port lists every console."""
        position = self.station.mark()
        tool = self.call()
        self.confirm(tool is not None, "somebody to listen on the user port")
        with tool:
            head = RECORDS.to_bytes(4, "little") + len(self.names).to_bytes(4, "little")
            self.confirm(heard(tool, head, self.token() + b"@@@@ user=op\nconsole\n"),
                         "the command to be answered")
        self.until(lambda: self.said_since(position, "Cleaning up closed command connection."),
                   "the tool to be gone")

    def reload(self) -> None:
        """Have the daemon read its files again."""
        position = self.station.mark()
        self.station.signal(signal.SIGHUP)
        self.nudged(lambda: self.station.log_text(position).count(">: ACCESSIBLE CONSOLES:") >= 2,
                    "the files to be read again")

    def rotate(self) -> None:
        """Let the log directory expire."""
        position = self.station.mark()
        self.calls.pass_time(_PERIOD)
        self.nudged(lambda: self.said_since(position, "OpenConsolidatedLogFile: opened "),
                    "the logs to be opened again")

    def nudged(self, condition: Callable[[], object], what: str) -> None:
        """Wait for the condition while the consoles keep the daemon from pausing."""
        again_at = 0.0

        def check() -> bool:
            nonlocal again_at
            if time.monotonic() > again_at:
                again_at = time.monotonic() + _NUDGE
                self.have_printed(b".\n")
            return bool(condition())

        self.until(check, what)

    def heal(self) -> None:
        """Do what an operator would do: have the files read again, and new logs begun.

        Enough time passes for consoles that were left alone after a failure to be called again.
        """
        self.until(lambda: self.station.threads() > WORKERS, "all threads to be there")
        self.reload()
        self.calls.pass_time(_PERIOD)
        for name in self.names:
            self.attach(name).close()
        self.until(self.users_are_gone, "the users to be gone")
        self.rotate()

    def consoles_are_back(self) -> bool:
        """True when every console whose output could not be read has been called again.

        Until then it may take a user, who loses the connection with the console.
        """
        said = self.said
        lost = list(_HUNG_UP.finditer(said))
        return len(lost) >= said.count(_READ_FAILED) and all(
            f"UpdateConnectionStatus: Connected to {found[1]} (" in said[found.end():]
            for found in lost)

    def settle(self, descriptors: int) -> None:
        """Wait until the daemon has no more descriptors open than that."""
        self.until(lambda: self.station.descriptors() <= descriptors,
                   f"{self.station.descriptors()} descriptors to become {descriptors}")


def heard(sock: socket.socket, wanted: bytes, said: bytes = b"") -> bool:
    """Say something and read until the wanted bytes come; false when the connection ends."""
    received = b""
    try:
        sock.sendall(said)
        while wanted not in received:
            chunk = sock.recv(65536)
            if not chunk:
                return False
            received += chunk
    except (ConnectionError, TimeoutError):
        return False
    return True


def texts(patterns: Iterable[str]) -> re.Pattern[str]:
    """What matches one of the texts, in which a * stands for anything."""
    return re.compile("|".join(".*".join(re.escape(part) for part in pattern.split("*"))
                               for pattern in patterns))
