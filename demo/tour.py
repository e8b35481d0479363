"""What the demo's users do and see. Every step counts only if the bytes really arrived."""

import contextlib
import re
import socket
import subprocess
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import pexpect

from browser import Page
from steps import HOST, PATIENCE, StepFailed, heading, seen, show, wait_until

TELNET_OFFERS = b"\xff\xfb\x01\xff\xfb\x03"
STAMP = r"\d\d/\d\d/\d\d_\d\d:\d\d:\d\d"


@dataclass(frozen=True)
class Console:
    """A console of the demo: where the daemon reaches it and where its users do."""

    name: str
    port: int
    mapped_port: int
    what: str


class User:
    """A person at a terminal: a connection to one of the daemon's ports."""

    def __init__(self, name: str, port: int) -> None:
        print(f"  {name} connects to port {port}")
        self.name = name
        self._received = bytearray()
        self._seen = 0
        self._socket = socket.create_connection((HOST, port), PATIENCE)

    def __enter__(self) -> "User":
        return self

    def __exit__(self, *_: object) -> None:
        self._socket.close()
        print(f"  {self.name} is gone")

    def type(self, line: str) -> None:
        """Type a line and press Enter."""
        show(self.name, "types", line.encode() or b"(just Enter)")
        self._socket.sendall(line.encode() + b"\r\n")

    def expect(self, wanted: bytes) -> bytes:
        """Wait until the wanted bytes arrive; return everything new up to their end."""
        while (at := self._received.find(wanted, self._seen)) < 0:
            if not self._read(f"{wanted!r}"):
                raise StepFailed(f"{self.name} was disconnected before seeing {wanted!r}")
        fresh = bytes(self._received[self._seen:at + len(wanted)])
        self._seen = at + len(wanted)
        show(self.name, "sees", fresh)
        return fresh

    def expect_refusal(self, text: bytes) -> None:
        """Wait for the end of the connection; nothing but the text may have come before it."""
        while self._read(f"{text!r} and the end of the connection"):
            pass
        show(self.name, "sees", bytes(self._received))
        if self._received != text:
            raise StepFailed(f"{self.name} saw {bytes(self._received)!r} and not {text!r}")

    def _read(self, awaited: str) -> bool:
        """Take what has arrived; False at the end of the connection."""
        try:
            chunk = self._socket.recv(4096)
        except TimeoutError:
            raise StepFailed(f"{self.name} waited {PATIENCE:g} s for {awaited} in vain; "
                             f"unread: {bytes(self._received[self._seen:])!r}") from None
        self._received += chunk
        return bool(chunk)


class DaemonOutput:
    """What the daemon reports about itself."""

    def __init__(self, path: Path) -> None:
        self._path = path

    def text(self) -> str:
        return self._path.read_text(errors="replace")

    def expect(self, wanted: str) -> None:
        """Wait until the daemon has reported the wanted text, and show its line."""
        line = wait_until(lambda: re.search(f".*{re.escape(wanted)}.*", self.text()),
                          f"the daemon's report {wanted!r}")
        print(f"  zevd reports | {line.group()}")


class Client:
    """The operators' client, as somebody at the station uses it."""

    def __init__(self, program: Path, main_port: int) -> None:
        self._command = [str(program), "--port", str(main_port)]

    def run(self, *words: str) -> str:
        """Run a command to its end, show what it prints, and return it."""
        print(f"  $ zevctl {' '.join(words)}")
        done = subprocess.run([*self._command, *words], capture_output=True, text=True,
                              timeout=PATIENCE, check=False)
        show("zevctl", "says", done.stdout.encode() + done.stderr.encode())
        if done.returncode != 0:
            raise StepFailed(f"zevctl ended with status {done.returncode}")
        return done.stdout

    def attach(self, console: str, command: str, answer: str) -> None:
        """Sit down at a terminal, attach, type a command, see the answer, and leave."""
        print(f"  $ zevctl attach {console}")
        with self._on_terminal("attach", console) as terminal:
            terminal.expect_exact(f"Attached to {console}")
            terminal.send(command + "\r")
            terminal.expect_exact(answer)
            shown = terminal.before + terminal.after
            terminal.send("\r~.")
        show("screen", "", b"Attached to " + console.encode() + shown)

    def replay(self, console: str, text: str, *options: str) -> None:
        """Watch at a terminal what happened at a console, as far as the text, and leave."""
        print(f"  $ zevctl replay {' '.join(options)} {console}")
        with self._on_terminal("replay", *options, console) as terminal:
            terminal.expect_exact(text)
            terminal.send("q")
        print(f"  screen       | ... {text} ...")

    @contextlib.contextmanager
    def _on_terminal(self, *words: str) -> Iterator[pexpect.spawn]:
        """The client at a terminal; it must end in good order behind the block."""
        with pexpect.spawn(self._command[0], [*self._command[1:], *words], timeout=PATIENCE,
                           dimensions=(24, 100)) as terminal:
            try:
                yield terminal
                terminal.expect(pexpect.EOF)
            except pexpect.ExceptionPexpect as error:
                raise StepFailed(f"zevctl {words[0]}: {error}") from None
        if terminal.wait() != 0:
            raise StepFailed(f"zevctl {words[0]} did not end as it should")


@dataclass(frozen=True)
class Files:
    """What the daemon, and whoever receives its events, write."""

    logs: Path
    events: Path
    cookie: Path


class Tour:
    """The steps, in order; the first one that fails ends the tour."""

    def __init__(self, main_port: int, consoles: tuple[Console, Console, Console],
                 output: DaemonOutput, files: Files, client: Client, page: Page) -> None:
        self._main_port = main_port
        self._shell, self._machine, self._refuser = consoles
        self._output = output
        self._files = files
        self._client = client
        self._page = page

    def run(self) -> None:
        self._daemon_is_up()
        self._keep_strangers_out()
        self._type_at_the_shell()
        self._see_what_was_missed()
        self._be_refused()
        self._lock_a_console()
        self._look_at_the_logs()
        self._use_the_client()
        self._see_it_again()
        self._open_the_page()
        print("The tour is over: every step was seen to work.")

    def _daemon_is_up(self) -> None:
        heading("The daemon listens, and connects to its consoles")
        for port in (self._main_port, self._shell.mapped_port, self._machine.mapped_port,
                     self._refuser.mapped_port):
            self._output.expect(f"bind() to port {port} succeeded")
        for console, outcome in ((self._shell, "Connected to {}."),
                                 (self._machine, "Connected to {}."),
                                 (self._refuser, "Connection to {} refused.")):
            self._output.expect(outcome.format(f"{console.name} ({HOST}/{console.port})"))
        seen("two consoles are connected; the third refuses, and is tried again every minute")

    def _with_cookie(self, line: str) -> str:
        """The first line of somebody who can read the daemon's cookie."""
        return f"token {self._files.cookie.read_text().strip()} {line}"

    def _keep_strangers_out(self) -> None:
        heading("Nobody gets in who cannot prove a right")
        print("  Whoever can read the daemon's cookie file may attach from this machine; others\n"
              "  are asked for a name and a password.\n")
        with User("mallory", self._main_port) as mallory:
            mallory.type(f"token NotTheCookie0000 {self._shell.name}")
            mallory.expect_refusal(b"001 - Authentication failed.\r\n")
        with User("mallory", self._main_port) as mallory:
            mallory.type(self._shell.name)
            mallory.expect(b"username: ")
        seen("mallory did not get in")

    def _type_at_the_shell(self) -> None:
        heading("A user attaches through the main port and types at a console")
        print("  On the main port the first line names the console.\n")
        with User("alice", self._main_port) as alice:
            alice.type(self._with_cookie(f"{self._shell.name} user=alice"))
            alice.expect(TELNET_OFFERS)
            alice.expect(b"shell $ ")
            alice.type('echo "6 times 7 is $((6 * 7))"')
            alice.expect(b"6 times 7 is 42\r\n")
        self._output.expect(f'Closing connection with user "alice"on console "{self._shell.name}"')
        seen("what alice typed reached the shell, and its answer came back")

    def _see_what_was_missed(self) -> None:
        heading("A user attaches through a console's own port and sees what was missed")
        print("  carol watches the machine boot. bob comes when that is over: the daemon replays\n"
              "  the console's last output to him (option -B), and then he sees what comes next.\n"
              "  The port tells which console is meant; this one asks nobody for a password.\n")
        with User("carol", self._main_port) as carol:
            carol.type(self._with_cookie(f"{self._machine.name} mode=ro user=carol"))
            carol.expect(b"server1 is up\r\n")
            self._attach_late()
        seen("bob saw the boot that he had missed, and the machine's next report")

    def _attach_late(self) -> None:
        with User("bob", self._machine.mapped_port) as bob:
            bob.expect(TELNET_OFFERS)
            replay = bob.expect(f'Connected to console "{self._machine.name}" '
                                "in shared mode.\r\n\n".encode())
            if b"booting from disk 0\r\n" not in replay:
                raise StepFailed("the machine's boot was not replayed to bob")
            if b"status report" not in bob.expect(b" C\r\n"):
                raise StepFailed("the machine's next report did not reach bob")

    def _be_refused(self) -> None:
        heading("A console that cannot be had: a numbered refusal")
        with User("dave", self._main_port) as dave:
            dave.type(self._with_cookie(self._refuser.name))
            dave.expect_refusal(b"005 - Console is not accessible.\r\n")
        seen("dave was told why, and disconnected")

    def _lock_a_console(self) -> None:
        heading("One user takes a console exclusively; others may only watch")
        with User("erin", self._main_port) as erin:
            erin.type(self._with_cookie(f"{self._shell.name} mode=ex user=erin"))
            erin.expect(TELNET_OFFERS)
            with User("frank", self._main_port) as frank:
                frank.type(self._with_cookie(f"{self._shell.name} mode=sh user=frank"))
                frank.expect_refusal(b"006 - Console is locked exclusively.\r\n")
            with User("grace", self._main_port) as grace:
                grace.type(self._with_cookie(f"{self._shell.name} mode=ro user=grace"))
                grace.expect(TELNET_OFFERS)
                erin.type('echo "the disk is $((40 + 2))% full"')
                grace.expect(b"the disk is 42% full\r\n")
        seen("frank was refused, and grace saw what erin did")

    def _look_at_the_logs(self) -> None:
        heading("Everything was logged, and what matches a pattern is an event")
        name = self._machine.name
        current = self._files.logs / "zev.dated/current"
        for file, wanted in ((current / f"{name}.log", rf"{STAMP} .*{name} is up\n"),
                             (current / "consolidated.log", rf"{STAMP} {name} status report .*\n"),
                             (self._files.events, rf".* 300 {name} fans: .*\n")):
            line = wait_until(lambda file=file, wanted=wanted: find_line(file, wanted),
                              f"a line {wanted!r} in {file}")
            print(f"  {file.name:>16} | {line}", end="")
        print()
        seen(f"the log of {name}, the log of all consoles that nobody watches, and an event")

    def _use_the_client(self) -> None:
        heading("The operators' client")
        shell = self._shell.name
        listed = self._client.run("list")
        if not re.search(rf"^{shell} +connected ", listed, re.MULTILINE):
            raise StepFailed(f"{shell} is not listed as connected")
        self._client.attach(shell, 'echo "7 times 8 is $((7 * 8))"', "7 times 8 is 56\r\n")
        logged = self._client.run("log", "-n", "3", "--grep", "7 times 8 is 56", shell)
        if "7 times 8 is 56" not in logged:
            raise StepFailed("what was printed is not in the log")
        seen("list, attach and log work")

    def _see_it_again(self) -> None:
        heading("What happened is found and seen again")
        shell, machine = self._shell.name, self._machine.name
        print("  The daemon keeps a journal: each byte with its time, and who did what.\n")
        found = self._client.run("history", "--grep", "the disk is|attached", "--users", shell)
        if not re.search(r"^\S+ \S+ \| the disk is 42% full", found, re.MULTILINE):
            raise StepFailed("what erin had the shell print is not in the journal")
        if not re.search(r"\berin@\S+ attached \(exclusive\)", found):
            raise StepFailed("the journal does not tell that erin attached")
        shown = self._client.run("replay", "--export", "text", shell)
        for answer in ("6 times 7 is 42", "the disk is 42% full", "7 times 8 is 56"):
            if answer not in shown:
                raise StepFailed(f"{answer!r} is not in the replay of {shell}")
        self._client.replay(machine, f"{machine} is up", "--speed", "50", "--max-idle", "0.5")
        seen(f"the journal has the whole tour, and the boot of {machine} was played once more")

    def _open_the_page(self) -> None:
        heading("The station in a browser")
        self._page.start()
        if "<title>" not in self._page.html():
            raise StepFailed("the page is not served")
        self._page.log_in()
        states = self._page.consoles()
        if states.get(self._shell.name) != "connected" or len(states) != 3:
            raise StepFailed(f"the page shows {states}")
        seen(f"{self._page.link} is served, somebody logged in, and sees three consoles")


def find_line(file: Path, pattern: str) -> str:
    """The first line of the file that has the pattern; nothing while there is none."""
    text = file.read_text(errors="replace") if file.exists() else ""
    found = re.search(f"^{pattern}", text, re.MULTILINE)
    return found.group() if found else ""
