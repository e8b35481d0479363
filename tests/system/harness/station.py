"""A station: the daemon, the files that it runs on, and everything that is connected to it."""

import os
import re
import signal
import subprocess
from pathlib import Path

from harness import settings
from harness.consoles import FakeConsole
from harness.debuglog import DebugLog, Found, Wanted
from harness.isolation import children
from harness.peers import OFFERS, Peer, User
from harness.telnet import TelnetUser
from harness.waiting import LIMIT, free_port, is_listening, stretched, wait_until

NO_EVENT_FILE = '""'

_SANITIZER_REPORT = re.compile(
    r"(?:ERROR|WARNING): (?:Address|Leak|Thread|Memory)Sanitizer|: runtime error: ")


def console_line(name: str, port: int, address: str = "127.0.0.1", mgmt_port: int = 23,
                 mapped_port: int = 0, model: str = "A200", platform: str = "sys1",
                 os_type: str = "Unix 5.1", logging: int = 1, events: int = 0, enable: int = 1,
                 auth: int = 0, event_file: str = NO_EVENT_FILE) -> str:
    """One console's line of zev.conf; the blank at its end keeps the newline off the last field."""
    return (f'{name} {address} {port} {mgmt_port} {mapped_port} {model} {platform} "{os_type}" '
            f"{logging} {events} {enable} {auth} {event_file} \n")


def assert_no_sanitizer_report(output: str) -> None:
    """A sanitizer build says what it found in the daemon's output."""
    report = _SANITIZER_REPORT.search(output)
    assert report is None, output[report.start():report.start() + 8000]


class Detached:
    """A daemon that left the process that started it. Its end is seen as that of a child."""

    def __init__(self, pid: int) -> None:
        self.pid = pid
        self.returncode: int | None = None

    def poll(self) -> int | None:
        """The exit status, or nothing while it runs."""
        if self.returncode is None:
            ended, status = os.waitpid(self.pid, os.WNOHANG)
            if ended:
                self.returncode = os.waitstatus_to_exitcode(status)
        return self.returncode


class Station:
    """What a test is about. Everything made through it is closed when the test ends."""

    def __init__(self, scratch: Path) -> None:
        self.root = settings.root()
        self.config = self.root / "config"
        self.events = self.root / "events"
        self.logs = self.root / "logs"
        for directory in (self.config, self.events, self.logs):
            directory.mkdir()
        self.config.chmod(0o750)
        self.config_file = self.config / "zev.conf"
        self.models_file = self.config / "models"
        self.lock_file = self.config / "zev.lock"
        self.write_config("")
        self.write_models("A|A200", "PX|P100")

        self.program = settings.daemon()
        self.passed: list[int] = []  # descriptors that a daemon in the foreground inherits
        self.port = 0
        self.level = 0
        self.process: subprocess.Popen | Detached | None = None
        self.output = DebugLog(scratch / "zevd.out")
        self.log = self.output
        self._ended_as_expected = False
        self._connected: list[Peer | TelnetUser] = []

    # Files

    def write_config(self, text: str) -> None:
        """Replace the console configuration file."""
        self.config_file.write_text(text, encoding="latin-1")

    def write_models(self, *lines: str) -> None:
        """Replace the models file."""
        self.models_file.write_text("".join(f"{line}\n" for line in lines), encoding="latin-1")

    def console_line(self, name: str, port: int, **fields) -> None:
        """Append a console to the configuration file; `fields` as in `console_line`."""
        with open(self.config_file, "a", encoding="latin-1") as config:
            config.write(console_line(name, port, **fields))

    def console(self, name: str, greeting: bytes = b"", listening: bool = True,
                buffer: int | None = None, **fields) -> FakeConsole:
        """A fake console, with its line in the configuration file."""
        console = FakeConsole(name, greeting=greeting, listening=listening, buffer=buffer)
        self._connected.append(console)
        self.console_line(name, console.port, **fields)
        return console

    # The daemon

    def start(self, *options: str, detached: bool = False, wait: bool = True,
              env: dict[str, str] | None = None) -> "Station":
        """Start the daemon: in the foreground, security off, level 3, on a free port.

        `options` come after those and so win over them. Returns when the user port listens,
        or at once without `wait`.
        """
        words = ["-S", "0", "-d", "3", "-p", str(free_port()), *options]
        if not detached:
            words = ["-f", *words]
        self.port = int(_last_argument(words, "-p")) % 65536
        self.level = int(_last_argument(words, "-d"))
        self._ended_as_expected = False
        if detached:
            self._start_detached(words, env)
        else:
            self._start_in_foreground(words, env)
        if wait:
            wait_until(self._is_up, what=f"zevd to listen on port {self.port}")
        return self

    def _start_in_foreground(self, words: list[str], env: dict[str, str] | None) -> None:
        self.log = self.output
        with open(self.output.path, "ab") as output:
            self.process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", "--", str(self.program), *words],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output, env=_environment(env),
                pass_fds=self.passed)

    def _start_detached(self, words: list[str], env: dict[str, str] | None) -> None:
        before = children()
        with open(self.output.path, "ab") as output:
            starter = subprocess.run([self.program, *words], stdin=subprocess.DEVNULL,
                                     stdout=output, stderr=output, env=_environment(env),
                                     timeout=stretched(LIMIT), check=False)
        assert starter.returncode == 0, self.output.tail()
        left = children() - before
        assert len(left) == 1, f"one daemon should be left, not {left}: {self.output.tail()}"
        self.process = Detached(left.pop())
        log_dir = _last_argument(words, "-l") or self.logs
        self.log = DebugLog(Path(log_dir) / "zevd.log")

    def _is_up(self) -> bool:
        status = self.process.poll()
        assert status is None, f"zevd ended with status {status}:\n{self.log.tail()}"
        return is_listening(self.port)

    def run(self, *options: str, argv0: str | None = None,
            env: dict[str, str] | None = None) -> subprocess.CompletedProcess[str]:
        """Run the program until it ends by itself; never through a shell."""
        done = subprocess.run([argv0 or str(self.program), *options], executable=self.program,
                              stdin=subprocess.DEVNULL, capture_output=True,
                              encoding="latin-1", env=_environment(env),
                              timeout=stretched(LIMIT), check=False)
        assert_no_sanitizer_report(done.stdout + done.stderr)
        return done

    @property
    def pid(self) -> int:
        """The daemon's process id."""
        return self.process.pid

    @property
    def running(self) -> bool:
        """True while the daemon has not ended."""
        return self.process is not None and self.process.poll() is None

    def signal(self, number: int) -> None:
        """Send the daemon a signal."""
        assert self.running, f"zevd has ended:\n{self.log.tail()}"
        os.kill(self.pid, number)

    def expect_exit(self, status: int, limit: float = LIMIT) -> None:
        """Wait for the daemon to end by itself, with this status."""
        wait_until(lambda: not self.running, limit, "zevd to end")
        self._ended_as_expected = True
        assert self.process.returncode == status, self.log.tail()

    def stop(self) -> None:
        """End the daemon with SIGTERM, which leads to status 1 and a line that says so."""
        position = self.log.size()
        self.signal(signal.SIGTERM)
        self.expect_exit(1)
        if self.level >= -1:
            assert ">: Received SIGTERM.\n" in self.log.text(position), self.log.tail()

    # What it says

    def wait_log(self, wanted: Wanted, count: int = 1, after: int = 0, thread: str | None = None,
                 limit: float = LIMIT) -> Found:
        """Wait for a debug line; see `DebugLog.wait`."""
        return self.log.wait(wanted, count, after, thread, limit)

    def log_text(self, after: int = 0) -> str:
        """The daemon's output since the position."""
        return self.log.text(after)

    def mark(self) -> int:
        """The current end of the daemon's output: a position for `after`."""
        return self.log.size()

    def wait_connected(self, name: str, after: int = 0) -> Found:
        """Wait until users can be attached to the console; needs debug level 3."""
        assert self.level >= 3, "only level 3 tells when a console has become accessible"
        return self.wait_log(f"AddConsoleToList: Added console {name} to a_cons_list.",
                             after=after)

    # Its users

    def attach(self, console: str, mode: str | None = None, user: str | None = None,
               addr: str | None = None, buffer: int | None = None) -> User:
        """A user on a plain socket, attached to the console when this returns."""
        position = self.mark()
        caller = self.ask(console, mode, user, addr, buffer)
        caller.expect(OFFERS)
        self._wait_attached(console, position)
        return caller

    def ask(self, console: str, mode: str | None = None, user: str | None = None,
            addr: str | None = None, buffer: int | None = None) -> User:
        """A user who has sent the argument line; the test checks the answer."""
        return self._keep(User.attach(self.port, console, mode, user, addr, buffer))

    def mapped(self, port: int, line: bytes = b"\n") -> User:
        """A user who calls a console's own port and has sent the line that is read there."""
        return self._keep(User.mapped(port, line))

    def caller(self, port: int | None = None) -> User:
        """A connection to the main port, or another one, that has said nothing yet."""
        return self._keep(User.connect(port or self.port))

    def telnet(self, port: int | None = None) -> TelnetUser:
        """A user with a real telnet client."""
        user = TelnetUser(port or self.port)
        self._connected.append(user)
        return user

    def _keep(self, user: User) -> User:
        self._connected.append(user)
        return user

    def _wait_attached(self, console: str, position: int) -> None:
        if self.level >= 1:
            self.wait_log(re.compile(r"^ConnectUserToConsole: Connected user \".*\" to console "
                                     rf"\"{re.escape(console)}\" with mode = "), after=position)

    # What it uses

    def descriptors(self) -> int:
        """How many descriptors the daemon has open."""
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def threads(self) -> int:
        """How many threads the daemon has."""
        return self._status("Threads")

    def rss(self) -> int:
        """The daemon's resident memory in bytes."""
        return self._status("VmRSS") * 1024

    def _status(self, key: str) -> int:
        with open(f"/proc/{self.pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith(f"{key}:"))

    # The end of a test

    def last_lines(self) -> str:
        """What the daemon said last, for the report of a failure."""
        return self.log.tail()

    def close(self) -> None:
        """End everything, and see that the daemon lived until now and found no fault in itself."""
        try:
            if self.process is not None and not self._ended_as_expected:
                status = self.process.poll()
                assert status is None, f"zevd had ended with status {status} before the test did"
                self.stop()
            for log in (self.output, self.log):
                assert_no_sanitizer_report(log.text())
        finally:
            if self.running:
                os.kill(self.pid, signal.SIGKILL)
                wait_until(lambda: not self.running, what="zevd to be killed")
            for peer in self._connected:
                peer.shut() if isinstance(peer, FakeConsole) else peer.close()


def _last_argument(words: list[str], option: str) -> str:
    """The argument of the last occurrence of the option; empty when it is not given."""
    positions = [index for index, word in enumerate(words) if word == option]
    return words[positions[-1] + 1] if positions else ""


def _environment(env: dict[str, str] | None) -> dict[str, str]:
    return {**os.environ, **(env or {})}
