"""The n-th allocation fails, the n-th call of each kind fails, for every n: at start-up, while a
user attaches, while the files are read again, while the logs rotate, and while a line is recorded.

The tables hold the permitted results, letter by letter. Anything else fails the test: an unexpected
message, or a daemon that ends without giving a reason, hangs, leaks a descriptor, or does not do
all of its work afterwards.
"""

import contextlib
import enum
import os
import socket
from collections.abc import Iterator
from dataclasses import dataclass

import pytest

from harness.access import ERRORS, greeting
from harness.collectors import Collector
from harness.failing_calls import ALLOCATION, CODES, FailingCalls, Thread, build_library
from harness.failing_station import Costly, Ended, FailingStation, texts
from harness.farm import Farm
from harness.peers import OFFERS
from harness.scenes import numbered
from harness.slow_readers import SMALL, gaps_in
from harness.station import console_line
from harness.vanishing import daemons_socket
from harness.waiting import free_port, is_listening, wait_until

EXIT_TRACE = "Exiting with code 1 from file "

# Messages without any fault: no event manager runs, and users leave while output is sent to them.
ALWAYS_SAID = (
    "ConnectToJix: JixConnCreate() failed : Cannot connect to the event manager",
    "SendConsoleOutputToUsers: send() from console \"*\" failed : Broken pipe",
    "SendConsoleOutputToUsers: send() from console \"*\" failed : Connection reset by peer",
    "SendConsoleOutputToUsers: send() from console \"*\" failed : Bad address",  # to the next user
    "ProcessUserInput: recv() returned -1 : Connection reset by peer",
)
NO_MEMORY = "Cannot allocate memory"

# A thread that loops makes the same call in every pass: this many passes are tried.
PASSES = 3


class After(enum.Enum):
    """What a message leads to."""

    WORK = "the daemon still does all of its work"
    LOST = "data that was on its way is lost, and nothing else"
    HELP = "something does not work until the files are read again or new logs are begun"
    END = "the daemon ends"


@dataclass(frozen=True)
class Says:
    """A message about a failure. A * stands for anything, {e} for the system's error text."""

    text: str
    after: After = After.WORK
    also: str = ""


def work(*said: str) -> tuple[Says, ...]:
    """Messages after which everything works."""
    return tuple(Says(text) for text in said)


def lost(*said: str) -> tuple[Says, ...]:
    """Messages about data that is lost."""
    return tuple(Says(text, After.LOST) for text in said)


def help_needed(*said: str) -> tuple[Says, ...]:
    """Messages about something that does not work any more."""
    return tuple(Says(text, After.HELP) for text in said)


def end(text: str, also: str = EXIT_TRACE) -> tuple[Says, ...]:
    """The message before the daemon ends."""
    return (Says(text, After.END, also),)


def event(text: str, priority: int = 700) -> str:
    """The debug line of a daemon error event."""
    return (f"PostJixEvent: template=qor.zevd.daemon.error message={text} -=- "
            f"priority={priority}\n")


def no_memory(*functions: str, after: After = After.WORK) -> tuple[Says, ...]:
    """The functions' messages when they get no memory."""
    return tuple(Says(f"{function}: malloc() failed : {NO_MEMORY}", after,
                      event("Out of memory")) for function in functions)


# In place of a message: the failure needs no report.
SILENT = (Says("", After.WORK),)

TERMINATED = event("Terminated.............")

ALREADY_RUNNING = "zevd is already running"
CONFIG = "/config/qor.conf"


# Tables

EVENTS_LOST = help_needed(
    "LoadConfigFile: Event file patterns not found for console *",
    "LoadEventFiles: LoadEventFile() failed for file patterns",
    "LoadEventFiles: opendir( */events ) failed: {e}",
    "ParseRegExFile: fopen( \"*/events/patterns\", ...) failed : {e}",
    "ParseRegExFile: NewRegExNode() failed.", "ParseRegExFile: AddRegExToList() failed.",
    "LoadEventFile: NewEventSetNode() failed.", "LoadEventFile: AddEventSetToList() failed.",
    "ParseRegExFile: regcomp() failed for pattern fresh : Memory exhausted",
    "ParseRegExFile: fgets( \"*/events/patterns\", ...) failed : {e}",
    "ParseRegExFile: fstat( \"*/events/patterns\", ...) failed : {e}",
    "ReloadEventFiles: LoadEventFiles() failed.",
    "MonitorConsoleOutput: ReloadEventFiles() failed.",
)
EVENTS_WITHOUT_MEMORY = EVENTS_LOST + no_memory(
    "NewRegExList", "InitRegExList", "ParseRegExFile", "NewRegExNode", "AddRegExToList",
    "NewEventSetNode", "AddEventSetToList", after=After.HELP)

CONSOLE_LOST = help_needed(
    "LoadConfigFile: fgets() failed : {e}",
    "LoadConfigFile: NewConsoleNode() failed.", "LoadConfigFile: AddConsoleToList() failed.",
    "MoveConsolesToList: AddConsoleToList() failed.",
    "AddConsoleToList: NewConsoleListElem() failed.",
    "ReloadConfigFile: LoadConfigFile() failed.",
    "MonitorConsoleOutput: ReloadConfigFile() failed.",
) + no_memory("NewConsoleNode", "NewConsoleListElem", "AddConsoleToList", "NewConsoleList",
              "InitConsoleList", after=After.HELP)

PORT_LOST = help_needed(
    "ListenOnPort: socket() failed : {e}", "ListenOnPort: bind() failed : {e}",
    "ListenOnPort: listen() failed : {e}", "ListenOnPort: Could not bind to port *",
    "ConfigurePort: Cannot listen on port *.", "ConfigurePort: NewMappedPortNode() failed.",
    "GetPortsToListenOn: Cannot configure main port *.",
    "GetPortsToListenOn: Nobody can connect through port *",
    "GetPortsToListenOn: Cannot configure port for *.",
    "AddMappedPortToList: NewMappedPortListElem() returned NULL",
)
PORT_WITHOUT_MEMORY = PORT_LOST + no_memory(
    "NewMappedPortNode", "NewMappedPortListElem", "AddMappedPortToList", after=After.HELP)

WAITS_WITHOUT_MEMORY = no_memory("WaitForConnectionRequests", "MonitorConsoleOutput",
                                 "MonitorUserInput", "MonitorCommands", "Follow", "WatchMembers")
UNWATCHED = work("Follow: epoll_ctl() failed : {e}",
                 "ConnectToConsole: epoll_ctl() failed : {e}")

LOG_LOST = help_needed(
    "OpenLogFile: open() failed for \"*.log\" : {e}",
    "OpenConsolidatedLogFile: open() failed for \"*/consolidated.log\" : {e}",
    "CreateZevDatedDir: mkdir( *//zev.dated, ...) failed : {e}",
    "CreateZevDatedDir: chown failed : {e}",
    "CreateSymlinkToCurrDir: mkdir( *, ...) failed : {e}",
    "CreateSymlinkToCurrDir: symlink failed : {e}", "CreateSymlinkToCurrDir: chown failed : {e}",
    "WriteLogFile: Log file for * has not been opened.",
)
LOG_NOT_RENAMED = help_needed("UpdateConsole : rename() failed : {e}")
LINK_LEFT = work("RemoveSymlinkToCurrDir: unlink() failed : {e}")
# Logs may rotate before the first console is connected, whose log makes the link.
LINK_MISSING = work("RemoveSymlinkToCurrDir: unlink() failed : No such file or directory")

NEW_LOG_REFUSED = (
    end("OpenLogFile: chown( *.log, ...) failed : {e}",
        event("Terminated: Cannot chown cookie file"))
    + end("OpenLogFile: chmod( *.log, ...) failed : {e}",
          event("Terminated: Cannot chmod cookie file"))
    + work("OpenConsolidatedLogFile: chown( *.log, ...) failed : {e}"))

NO_CONFIG = end("LoadConfigFile: open() failed : {e}")
NO_MODELS = work("LoadModels: fopen( */models, ...) failed : {e}",
                 "LoadModels: fgets( */models, ...) failed : {e}",
                 "LoadModels: No models found in */models!!",
                 f"LoadModels: malloc() failed : {NO_MEMORY}")
NO_INTERVAL = (end("GetZevdArchIntFromConfFile: fopen( \"*/qor.conf\", ...) failed : {e}")
               + end("GetZevdArchIntFromConfFile: write( \"*/qor.conf\", ...) failed : {e}")
               + end("GetZevdArchIntFromConfFile: chown( */qor.conf, ...) failed : {e}")
               + end("GetZevdArchIntFromConfFile: chmod( */qor.conf, ...) failed : {e}")
               + work("Journal: fopen( \"*/qor.conf\", ...) failed : {e}"))


def lock(call: str) -> tuple[Says, ...]:
    """The lock file cannot be used, which is taken as a sign of another instance."""
    return end(f"Lock: {call} failed : {{e}}", ALREADY_RUNNING) + work(
        "GetHostFromLockFile: *() failed : *", "GetHostFromLockFile: fopen( \"*\", ...) failed : *")


def no_thread(name: str, function: str) -> tuple[Says, ...]:
    """One of the long-lived threads cannot be created."""
    return end(f"{function}: pthread_create() failed : Resource temporarily unavailable",
               event(f"Terminated: Couldn't create {name} thread"))


NO_WORKER = (no_thread("cons_conn", "CreateConsoleConnectionsThread")
             + no_thread("user_conn", "CreateUserConnectionsThread")
             + no_thread("user_mon", "CreateUserMonitorThread")
             + no_thread("cmd_mon", "CreateCommandMonitorThread"))

# The console is called a second later, or one caller is refused.
NO_DESCRIPTOR = work("ConnectToConsole: socket() failed: {e}")
NOT_COUNTED = work("ConnectToConsoles: Cannot count the descriptors in use : {e}",
                   "AcceptConnectionRequests: Cannot count the descriptors in use : {e}")

CONNECTION_LOST = help_needed("CheckConnectionStatus: select() failed : {e}",
                              "UpdateConnectionStatus: Connection to * (*) failed.")
CONSOLE_READ_ERROR = lost("ProcessConsoleOutput: recv() returned -1 : {e}")

Row = tuple[Says, ...]
Table = dict[str | tuple[str, Thread], Row]

# Every thread waits for descriptors; a failure of that ends the daemon.
WAITS: Table = {
    ("select", Thread.MAIN): end("CheckForConsoleOutput: select() failed : {e}", TERMINATED),
    ("select", Thread.USER_CONN): end("CheckForConnectionRequests: select() failed : {e}",
                                      TERMINATED),
    ("select", Thread.USER_MON): end("CheckForUserInput: select() failed : {e}", TERMINATED),
    ("select", Thread.CMD_MON): end("CheckForCommand: select() failed : {e}", TERMINATED),
    ("poll", Thread.CONS_CONN): SILENT,
    ("ppoll", Thread.MAIN): SILENT,
    ("sigtimedwait", Thread.MAIN): SILENT,
}


def waits(*threads: Thread) -> Table:
    """The rows of these threads, which wait again in every phase of this kind."""
    return {key: row for key, row in WAITS.items() if key[1] in threads}


START: Table = {
    **WAITS,
    ALLOCATION: (
        SILENT + NO_INTERVAL + NO_CONFIG + NO_MODELS + NO_WORKER + EVENTS_WITHOUT_MEMORY
        + CONSOLE_LOST + PORT_WITHOUT_MEMORY + WAITS_WITHOUT_MEMORY + NOT_COUNTED
        + end(f"GetCommandLineOptions: malloc() failed : {NO_MEMORY}")
        + no_memory("InitUserList", "InitCommandList", "InitEventSetList", "InitMappedPortList")),
    "open": SILENT + EVENTS_LOST,
    "openat": NO_INTERVAL + lock("open( \"*/zev.lock\", ...)") + LOG_LOST,
    "stat": SILENT,
    "lstat": SILENT,
    "fchown": NO_INTERVAL + lock("chown( */zev.lock, ...)") + LOG_LOST + NEW_LOG_REFUSED,
    "fchmod": NO_INTERVAL + NEW_LOG_REFUSED,
    "flock": lock("flock()"),
    "gethostname": lock("gethostname()"),
    "ftruncate": lock("ftruncate()"),
    "write": SILENT + lock("write()"),
    "read": SILENT,
    "mkdirat": LOG_LOST,
    "unlinkat": SILENT,
    "symlinkat": LOG_LOST + LINK_MISSING,
    "readlinkat": SILENT + LOG_LOST,
    "opendir": EVENTS_LOST + NOT_COUNTED,
    "readdir": SILENT + EVENTS_LOST + NOT_COUNTED,
    "closedir": SILENT,
    "fopen": NO_CONFIG + NO_MODELS,
    "fdopen": NO_INTERVAL + EVENTS_LOST,
    "fstat": SILENT + NO_INTERVAL + EVENTS_LOST + LOG_LOST,
    "fgets": EVENTS_LOST + CONSOLE_LOST + NO_MODELS,
    "fclose": SILENT + NO_INTERVAL,
    "fprintf": NO_INTERVAL,
    "fflush": NO_INTERVAL,
    "getrlimit": SILENT,
    "setrlimit": SILENT,
    "epoll_create1": (work("WatchMembers: epoll_create1() failed : {e}",
                           "ConsoleConnectionsThreadStart: epoll_create1() failed : {e}")
                      + end("Initialize: epoll_create1() failed : {e}")),
    "epoll_ctl": SILENT + UNWATCHED,
    "eventfd": end("Initialize: eventfd() failed : {e}"),
    "signalfd": work("OpenSignalDescriptor: signalfd() failed : {e}"),
    "pthread_create": NO_WORKER,
    "regcomp": EVENTS_LOST,
    "socket": SILENT + PORT_LOST + work("OpenAudit: socket() failed : {e}") + NO_DESCRIPTOR,
    "bind": PORT_LOST,
    "listen": PORT_LOST,
    "connect": SILENT + work("ConnectToConsole: connect() failed : {e}"),
    "setsockopt": SILENT,
    "fcntl": SILENT,
    ("select", Thread.CONS_CONN): CONNECTION_LOST,
    "recv": SILENT + CONNECTION_LOST + CONSOLE_READ_ERROR,
    ("ppoll", Thread.CONS_CONN): SILENT,
    "close": SILENT,
}

NO_COOKIE = (
    end("GenerateCookie: fopen() failed : {e}", event("Terminated: Cannot open cookie file"))
    + end("GenerateCookie: fprintf() failed : {e}", event("Terminated: Cannot write cookie file"))
    + end("GenerateCookie: chown( */.cookie, ...) failed : {e}",
          event("Terminated: Cannot chown cookie file"))
    + end("GenerateCookie: chmod( */.cookie, ...) failed : {e}",
          event("Terminated: Cannot chmod cookie file"))
    + end("GenerateCookie: getrandom() failed : {e}", event("Terminated: Cannot draw cookie")))

# The further calls of a start with security, with those that it shares with a plain start.
SECURE_START: Table = {
    call: START.get(call, ()) + NO_COOKIE
    for call in ("openat", "fdopen", "fprintf", "fclose", "fchown", "fchmod", "ftruncate", "stat",
                 "fstat", "getrandom")
}

# The further calls of a start in the background. After daemon() and before zevd.log is open,
# messages go to the null device, so they cannot be read.
DETACHED_START: Table = {
    "daemon": end("RunAsDaemon: daemon() failed : {e}"),
    "flock": (lock("flock()") + end("Unlock: flock() failed : {e}", "Unlock() failed.\n")
              + end("zevd is already running on this machine.")),
    "rename": SILENT,
}

USER_REFUSED = work(
    "AcceptConnectionRequests: pthread_create() failed : Resource temporarily unavailable",
    "ConnectUserToConsole: NewUserNode() failed.", "ConnectUserToConsole: AddUserToList() failed.",
    "AddUserToList: NewUserListElem() returned NULL",
) + no_memory("AcceptConnectionRequests", "NewUserNode", "NewUserListElem", "AddUserToList",
              "IncrementPendingLogins")

ATTACH: Table = {
    **waits(Thread.MAIN, Thread.CONS_CONN, Thread.USER_CONN, Thread.USER_MON),
    ALLOCATION: SILENT + USER_REFUSED + WAITS_WITHOUT_MEMORY + NOT_COUNTED,
    "accept4": work("AcceptConnectionRequests: All descriptors are in use"),
    "pthread_create": USER_REFUSED,
    "setsockopt": SILENT,
    ("ppoll", Thread.SERV_CONN): end("ReadLineWithTimeout: select() failed : {e}", TERMINATED),
    "recv": SILENT + work("ReadLineWithTimeout: recv() returned -1 : {e}",
                          "ProcessUserInput: recv() returned -1 : {e}") + CONSOLE_READ_ERROR,
    "send": SILENT + work("ProcessUserInput: send() to console \"c0\" failed : {e}",
                          "SendConsoleOutputToUsers: send() from console \"c0\" failed : {e}"),
    "epoll_ctl": SILENT + UNWATCHED + work("ConnectUserToConsole: epoll_ctl() failed : {e}"),
    "epoll_wait": SILENT,
    "write": SILENT,
    "read": SILENT,
    "close": SILENT,
}

ATTACH_BY_PORT: Table = {
    ALLOCATION: SILENT + USER_REFUSED + WAITS_WITHOUT_MEMORY + NOT_COUNTED,
    "send": ATTACH["send"],
    "recv": ATTACH["recv"],
    "close": SILENT,
}

RELOAD: Table = {
    **waits(Thread.MAIN, Thread.CONS_CONN),
    ALLOCATION: (SILENT + NO_INTERVAL + NO_CONFIG + EVENTS_WITHOUT_MEMORY + CONSOLE_LOST
                 + PORT_WITHOUT_MEMORY + WAITS_WITHOUT_MEMORY + NOT_COUNTED
                 + no_memory("LookAtHolders")),
    "opendir": EVENTS_LOST,
    "readdir": SILENT + EVENTS_LOST,
    "open": EVENTS_LOST,
    "openat": SILENT + NO_INTERVAL + LOG_LOST,
    "fdopen": NO_INTERVAL + EVENTS_LOST,
    "fstat": SILENT + NO_INTERVAL + EVENTS_LOST + LOG_LOST + LOG_NOT_RENAMED,
    "fgets": EVENTS_LOST + CONSOLE_LOST,
    "regcomp": EVENTS_LOST,
    "epoll_ctl": SILENT + UNWATCHED,
    "fopen": NO_CONFIG,
    "getline": SILENT,
    "fclose": SILENT,
    "closedir": SILENT,
    "stat": SILENT,
    "lstat": SILENT,
    "fstatat": SILENT,
    "readlinkat": SILENT + LOG_LOST,
    "renameat2": LOG_NOT_RENAMED,
    # Thread by thread: which of the two comes first is a race, and the console's failure is
    # reported only once a minute.
    ("socket", Thread.USER_CONN): PORT_LOST,
    ("socket", Thread.CONS_CONN): NO_DESCRIPTOR,
    "bind": PORT_LOST,
    "listen": PORT_LOST,
    # The main thread may still post what was printed before; that failure is reported only once.
    ("connect", Thread.CONS_CONN): work("ConnectToConsole: connect() failed : {e}"),
    "setsockopt": SILENT,
    "fcntl": SILENT,
    "fchown": NEW_LOG_REFUSED,
    "fchmod": NEW_LOG_REFUSED,
    ("select", Thread.CONS_CONN): CONNECTION_LOST,
    ("recv", Thread.CONS_CONN): SILENT + CONNECTION_LOST,
    ("ppoll", Thread.CONS_CONN): SILENT,
    "close": SILENT,
}

ROTATION: Table = {
    "stat": SILENT,
    "lstat": SILENT,
    "unlinkat": SILENT + LINK_LEFT,
    "mkdirat": LOG_LOST,
    "symlinkat": LOG_LOST,
    "readlinkat": SILENT + LOG_LOST,
    "openat": LINK_LEFT + LOG_LOST,
    "fstat": SILENT + LOG_LOST,
    "fchown": LOG_LOST + NEW_LOG_REFUSED,
    "fchmod": NEW_LOG_REFUSED,
    "write": SILENT,
    "close": SILENT,
}

EVENT_LOST = lost("MatchPattern: regexec() failed for pattern fresh : Memory exhausted",
                  "PostJixEvent: JixEventCreateVa() failed : Out of memory",
                  "PostJixEvent: JixVarSet() failed : Out of memory",
                  "PostJixEvent: JixEventPost() failed : *")

LINE: Table = {
    ALLOCATION: EVENT_LOST + no_memory("MatchPattern", after=After.LOST),
    "regexec": EVENT_LOST,
    ("recv", Thread.MAIN): SILENT + CONSOLE_READ_ERROR,
    ("send", Thread.MAIN): SILENT,
    "gethostname": SILENT,
    "write": SILENT,
}

# The queue of a user who is slow. Without memory it is short, and he is told what it has no room
# for.
SLOW_USER: Table = {
    (ALLOCATION, Thread.MAIN): SILENT + no_memory("MatchPattern", after=After.LOST),
    "sendmsg": SILENT,
    ("epoll_wait", Thread.USER_MON): SILENT,
}


# Phases


class Phase:
    """Something that the daemon does again and again, with another failing call each time."""

    table: Table
    names = ("c0", "c1")

    def __init__(self, subject: FailingStation) -> None:
        self.subject = subject
        self.descriptors = 0

    def configuration(self) -> str:
        """The configuration file when the daemon starts."""
        return self.line(0, "c0") + self.line(1, "c1")

    def line(self, number: int, name: str, **fields) -> str:
        """One console's line of the configuration file."""
        farm = self.subject.farm
        return console_line(name, farm.port, address=farm.address(number), events=1,
                            event_file="patterns", **fields)

    def prepare(self) -> None:
        """Start a daemon and see that it works, unless the previous one still runs."""
        subject = self.subject
        if subject.station.running:
            return
        subject.names = list(self.names)
        subject.station.write_config(self.configuration())
        subject.prepare()
        subject.start()
        subject.until(subject.is_up, "the daemon to be up")
        subject.works()
        self.descriptors = subject.station.descriptors()

    def go(self) -> None:
        """Have the daemon do it; wait until it is done."""
        raise NotImplementedError

    def afterwards(self) -> None:
        """See that nothing was left open."""
        self.subject.settle(self.descriptors)

    def close(self) -> None:
        """Close what the phase has opened."""


class StartUp(Phase):
    """From the first instruction until the port listens and the consoles are connected."""

    table = START
    options: tuple[str, ...] = ()

    def prepare(self) -> None:
        self.subject.names = list(self.names)
        self.subject.station.write_config(self.configuration())
        self.subject.prepare()

    def go(self) -> None:
        self.subject.start("-c", str(self.subject.station.config_file), *self.options)
        self.subject.until(self.subject.is_up, "the daemon to be up")

    def afterwards(self) -> None:
        self.subject.kill()


class SecureStartUp(StartUp):
    """The same with security on, which makes a cookie."""

    table = SECURE_START
    options = ("-S", "1")


class DetachedStartUp(StartUp):
    """The same in the background, with the output in a file."""

    table = DETACHED_START

    def go(self) -> None:
        self.subject.start_detached()
        self.subject.until(self.subject.is_up, "the daemon to be up")


class Caller:
    """A user whose connection may end at any time."""

    def __init__(self, sock: socket.socket) -> None:
        self.socket = sock
        self.socket.setblocking(False)
        self.received = b""
        self.ended = False

    def has(self, wanted: bytes) -> bool:
        """True when the bytes have come, or can no longer come."""
        return self.is_over() or wanted in self.received

    def is_over(self) -> bool:
        """Read what has come; true when the daemon has closed the connection."""
        while not self.ended:
            try:
                chunk = self.socket.recv(65536)
            except BlockingIOError:
                break
            except OSError:
                chunk = b""
            self.ended = not chunk
            self.received += chunk
        return self.ended

    def say(self, text: bytes) -> None:
        """Send the text, unless the connection has ended."""
        with contextlib.suppress(OSError):
            self.socket.sendall(text)

    def leave(self) -> None:
        """End the stream towards the daemon."""
        with contextlib.suppress(OSError):
            self.socket.shutdown(socket.SHUT_WR)


class Attach(Phase):
    """A user connects, names a console, types a key, gets the echo and leaves."""

    table = ATTACH
    line_sent = b"c0\n"

    def port(self) -> int:
        """The port that the user calls."""
        return self.subject.station.port

    def go(self) -> None:
        subject = self.subject
        key = subject.fresh()
        caller = Caller(subject.call(self.port()) or socket.socket())
        with contextlib.closing(caller.socket):
            caller.say(self.line_sent)
            subject.until(
                lambda: caller.has(b"-") and caller.ended or "Connected user" in subject.said,
                "the user to be attached or refused")
            caller.say(key + b"\n")
            subject.until(lambda: caller.has(key), "the key to come back")
            if caller.ended:
                self.judge_answer(caller.received, key)
            caller.leave()
            subject.until(caller.is_over, "the connection to be closed")
        subject.until(subject.users_are_gone, "the user to be gone")

    def judge_answer(self, received: bytes, key: bytes) -> None:
        """The daemon has closed the connection, after an echo, a refusal, or no text."""
        words = received.removeprefix(OFFERS).replace(greeting("c0"), b"")
        if OFFERS.startswith(words):  # only a daemon that ends sends part of its offers
            self.subject.confirm(words == b"", "the rest of the offers")
        else:
            assert words in (key + b"\n", ERRORS[13], ERRORS[8])


class AttachByPort(Attach):
    """The same on a console's own port."""

    table = ATTACH_BY_PORT
    line_sent = b"\n"

    def __init__(self, subject: FailingStation) -> None:
        super().__init__(subject)
        self.own_port = free_port()

    def configuration(self) -> str:
        return self.line(0, "c0", mapped_port=self.own_port) + self.line(1, "c1")

    def port(self) -> int:
        return self.own_port


class Reload(Phase):
    """SIGHUP: one console changes its name and port, one is dropped, one is new."""

    table = RELOAD
    names = ("c0", "c1", "dropped")
    new_names = ("renamed", "c1", "new")

    def __init__(self, subject: FailingStation) -> None:
        super().__init__(subject)
        self.old_port, self.new_port = free_port(), free_port()

    def configuration(self) -> str:
        return (self.line(0, "c0", mapped_port=self.old_port) + self.line(1, "c1")
                + self.line(2, "dropped"))

    def new_configuration(self) -> str:
        """The configuration that is read while a call fails."""
        return (self.line(0, "renamed", mapped_port=self.new_port) + self.line(1, "c1")
                + self.line(3, "new"))

    def prepare(self) -> None:
        subject = self.subject
        if subject.station.running and "new" in subject.names:
            subject.mark()
            self.change(self.configuration(), self.names, self.old_port, self.new_port)
        super().prepare()

    def change(self, config: str, names: tuple[str, ...], opened: int, closed: int) -> None:
        """Have the daemon read another configuration."""
        subject = self.subject
        subject.station.write_config(config)
        subject.names = list(names)
        subject.reload()
        subject.nudged(lambda: self.is_made(opened, closed),
                       f"the change to {names}, {opened}, {closed} to be made")

    def is_made(self, opened: int, closed: int) -> bool:
        """True when what was dropped is gone, and what is new is there."""
        subject = self.subject
        return (is_listening(opened) and not is_listening(closed)
                and "is being deleted" in subject.said
                and subject.logged(subject.names[-1], b""))

    def go(self) -> None:
        self.change(self.new_configuration(), self.new_names, self.new_port, self.old_port)


class Rotation(Phase):
    """The log directory expires."""

    table = ROTATION

    def go(self) -> None:
        self.subject.rotate()


class Line(Phase):
    """Consoles print a line that is logged and posted."""

    table = LINE

    def __init__(self, subject: FailingStation) -> None:
        super().__init__(subject)
        self.collector = Collector(subject.station)
        self.earlier = b""  # from connections that the daemon has closed

    def arrived(self, line: bytes) -> bool:
        """True when the event of every console has come."""
        if self.collector.called():
            if self.collector.socket is not None:
                wait_until(lambda: self.collector.closed, what="the end of the former connection")
            self.earlier += self.collector.received
            self.collector.accept()
        text = line.decode().replace("\n", "\\u000a").encode()
        received = self.earlier + self.collector.received
        return received.count(b'"message": "' + text) >= len(self.subject.names)

    def go(self) -> None:
        line = self.subject.print()
        self.subject.until(lambda: self.arrived(line), "the events")

    def close(self) -> None:
        self.collector.shut()


class SlowUser(Phase):
    """A console prints more than there is room for on the way to a user, who then takes it all."""

    table = SLOW_USER
    printed = numbered(10_000)

    def go(self) -> None:
        subject = self.subject
        with contextlib.closing(self.attached()) as user:
            first, last = subject.fresh() + b"\r\n", subject.fresh() + b"\r\n"
            subject.have_printed(first + self.printed + last)
            subject.until(lambda: subject.logged("c0", last.replace(b"\r", b"")), "the last line")
            caller = Caller(user)
            subject.until(lambda: caller.has(last), "the output")
            if not caller.ended:
                gaps_in(caller.received[caller.received.index(first):], first + self.printed + last)
            caller.leave()
            subject.until(caller.is_over, "the connection to be closed")
        subject.until(subject.users_are_gone, "the user to be gone")

    def attached(self) -> socket.socket:
        """A user of whom the kernel keeps little."""
        user = self.subject.attach("c0")
        with daemons_socket(self.subject.station, user) as end:
            end.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, SMALL)
        return user


# Judgement


def matching(row: Row, complaint: str, call: str) -> Says | None:
    """The row's entry for this complaint."""
    error = os.strerror(CODES[call])
    for says in row:
        if says.text and texts([says.text.replace("{e}", error)]).fullmatch(complaint):
            return says
    return None


class Injection:
    """One kind of call in one phase."""

    def __init__(self, phase: Phase, call: str, thread: Thread) -> None:
        self.phase = phase
        self.subject = phase.subject
        self.call = call
        key = call if thread == Thread.ANY else (call, thread)
        self.row = phase.table[key]
        self.thread = thread
        grave = [says.text.replace("{e}", os.strerror(CODES[call])) for says in self.row
                 if says.text and says.after in (After.LOST, After.HELP)]
        self.grave = texts(grave) if grave else None

    def every(self, first: int = 1, step: int = 1, most: int | None = None) -> None:
        """Fail the first call, then the second, and so on until there are no more."""
        nth = first
        while self.fail(nth) and nth != most:
            nth += step
        assert nth > 1, f"{self.call} is not called at all"
        self.phase.close()

    def fail(self, nth: int) -> bool:
        """Fail the n-th call and check the result; false when there was no such call."""
        subject, calls = self.subject, self.subject.calls
        self.phase.prepare()
        subject.mark()
        subject.costly = self.grave
        calls.arm(self.call, nth, self.thread)
        try:
            self.endure()
        except Ended:
            self.judge_end(nth)
        else:
            self.judge_words(nth)
        finally:
            subject.costly = None
            calls.disarm()
        return calls.fired

    def endure(self) -> None:
        """Go through the phase, then see that the daemon works."""
        subject = self.subject
        try:
            self.phase.go()
            if (self.call, self.thread) in WAITS:
                subject.until(lambda: subject.calls.seen > 0, "the thread to wait")
            subject.calls.disarm()
            subject.works()
        except Costly:
            subject.costly = None
            subject.calls.disarm()
            if any(found is not None and found.after == After.HELP for found in self.findings()):
                subject.heal()
            else:
                subject.until(subject.consoles_are_back, "the consoles to be called again")
                # What cannot be sent to one of a console's users costs it the others, too.
                subject.until(subject.users_are_gone, "the users to be gone")
            subject.works()
        subject.costly = None
        self.phase.afterwards()

    def findings(self) -> list[Says | None]:
        """The row's entry for each complaint."""
        return [matching(self.row, complaint, self.call) for complaint in self.complaints()]

    def complaints(self) -> list[str]:
        """The daemon's complaints, except those that come without any fault."""
        usual = texts(ALWAYS_SAID)
        return [said for said in self.subject.complaints if not usual.fullmatch(said)]

    def judge_end(self, nth: int) -> None:
        """The daemon must have ended with status 1 and for a permitted reason."""
        subject = self.subject
        status = subject.station.process.returncode
        where = f"{self.call} {nth} of {self.thread.name}: {self.complaints()}"
        assert status == 1, f"status {status}, {where}"
        self.judge_words(nth)
        last = [says for says in self.findings() if says.after == After.END]
        assert last, f"it ended without a reason, {where}"
        for says in last:
            assert says.also in subject.said, f"{says.also!r} was not said, {where}"
        assert EXIT_TRACE in subject.said, where
        subject.station.process = None

    def judge_words(self, nth: int) -> None:
        """Every complaint must be in the table."""
        where = f"{self.call} {nth} of {self.thread.name}"
        complaints = self.complaints()
        for complaint, says in zip(complaints, self.findings()):
            assert says is not None, f"{complaint!r} is not expected, {where}"
            if says.also and says.after != After.END:
                assert says.also in self.subject.said, f"{says.also!r} was not said, {where}"
            if says.after == After.END:
                assert not self.subject.station.running, f"it goes on after {complaint!r}, {where}"
        if self.subject.calls.fired and not complaints:
            assert any(not says.text for says in self.row), f"nothing was said, {where}"


# Tests


@pytest.fixture(scope="session")
def library(tmp_path_factory):
    """What is loaded into the daemons."""
    return build_library(tmp_path_factory.mktemp("failing-calls"))


@pytest.fixture
def subject(station, library, tmp_path) -> Iterator[FailingStation]:
    """A station whose calls can be made to fail; its daemon is ended in the usual way."""
    with Farm(4) as farm:
        made = FailingStation(station, farm, FailingCalls(library, tmp_path))
        yield made
        made.end()


def calls_of(table: Table) -> list:
    """The rows of a table as parameters, except the allocations, which have their own tests."""
    rows = [key if isinstance(key, tuple) else (key, Thread.ANY) for key in table
            if key != ALLOCATION]
    return [pytest.param(*row, id=f"{row[0]}-{row[1].name.lower()}") for row in rows]


def inject(phase: Phase, call: str, thread: Thread) -> None:
    """Fail every call of this kind, one at a time."""
    Injection(phase, call, thread).every(most=PASSES if (call, thread) in WAITS else None)


PARTS = 4  # the many allocations of a phase are tried in this many tests


@pytest.mark.parametrize("first", range(1, PARTS + 1))
def test_an_allocation_fails_at_start_up(subject, first):
    Injection(StartUp(subject), ALLOCATION, Thread.ANY).every(first, PARTS)


@pytest.mark.parametrize("call, thread", calls_of(START))
def test_a_call_fails_at_start_up(subject, call, thread):
    inject(StartUp(subject), call, thread)


@pytest.mark.parametrize("first", range(1, PARTS + 1))
def test_an_allocation_fails_while_the_files_are_read_again(subject, first):
    Injection(Reload(subject), ALLOCATION, Thread.ANY).every(first, PARTS)


@pytest.mark.parametrize("call, thread", calls_of(SECURE_START))
def test_a_call_fails_at_a_start_with_security(subject, call, thread):
    inject(SecureStartUp(subject), call, thread)


@pytest.mark.parametrize("call, thread", calls_of(DETACHED_START))
def test_a_call_fails_at_a_start_in_the_background(subject, call, thread):
    inject(DetachedStartUp(subject), call, thread)


@pytest.mark.parametrize("phase", [Attach, AttachByPort, Line])
def test_an_allocation_fails(subject, phase):
    Injection(phase(subject), ALLOCATION, Thread.ANY).every()


@pytest.mark.parametrize("call, thread", calls_of(ATTACH))
def test_a_call_fails_while_a_user_attaches(subject, call, thread):
    inject(Attach(subject), call, thread)


@pytest.mark.parametrize("call, thread", calls_of(ATTACH_BY_PORT))
def test_a_call_fails_while_a_user_attaches_by_port(subject, call, thread):
    inject(AttachByPort(subject), call, thread)


@pytest.mark.parametrize("call, thread", calls_of(RELOAD))
def test_a_call_fails_while_the_files_are_read_again(subject, call, thread):
    inject(Reload(subject), call, thread)


@pytest.mark.parametrize("call, thread", calls_of(ROTATION))
def test_a_call_fails_while_the_logs_rotate(subject, call, thread):
    inject(Rotation(subject), call, thread)


@pytest.mark.parametrize("call, thread", calls_of(LINE))
def test_a_call_fails_while_a_line_is_recorded(subject, call, thread):
    inject(Line(subject), call, thread)


@pytest.mark.parametrize("call, thread", calls_of(SLOW_USER))
def test_a_call_fails_while_a_user_is_slow(subject, call, thread):
    inject(SlowUser(subject), call, thread)
