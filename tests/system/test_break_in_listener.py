"""Strangers on the daemon's port: zevctl tells them neither the cookie nor a password, and does not
store everything that they send."""

import contextlib
import os
import socket
import struct
import subprocess
from pathlib import Path

import pexpect
import pytest

from harness import preload, settings, zevctl
from harness.impostors import NAME_PROMPT, STRANGER, FakeDaemon, Impostor
from harness.scenes import connected
from harness.terminals import close_terminal
from harness.waiting import LIMIT, free_port, stretched, wait_until
from harness.zevctl import Terminal

pytestmark = pytest.mark.needs_namespace

COOKIE = "c" * 40
OWNER = 64200  # of the configuration
NOTHING_SENT = "neither cookie nor password was sent"


@pytest.fixture
def port(station) -> int:
    """The port of a daemon that does not run, with its cookie still there."""
    (station.config / ".cookie").write_text(COOKIE + "\n")
    return free_port()


def belongs(address: str, port: int, user: int = STRANGER) -> str:
    """What zevctl says of a listener."""
    return (f"what listens at {address} port {port} belongs to user {user}, not to root or the "
            f"owner of {settings.root()}/config: {NOTHING_SENT}. Is zevd running? For a tunnel of "
            "your own see --tunnel.")


def refused(port: int, message: str, *arguments: str, env: dict[str, str] | None = None) -> None:
    """The client ends with this message and the status for a listener that is not the daemon."""
    done = zevctl.run(None, "--port", str(port), *arguments, "list", env=env)
    assert (done.returncode, done.stderr, done.stdout) == (zevctl.NOT_THE_DAEMON,
                                                           f"zevctl: {message}\n", "")


# The cookie


@pytest.mark.parametrize("address", ["127.0.0.1", "0.0.0.0", "::", "::ffff:127.0.0.1"])
def test_a_stranger_is_not_told_the_cookie(port, tmp_path, address):
    with Impostor(tmp_path, port, address) as stranger:
        refused(port, belongs("127.0.0.1", port))
        assert stranger.told() == b""


@pytest.mark.parametrize("options", ["reuseport", "reuseport more"])
def test_strangers_who_share_the_port_are_not_told_either(port, tmp_path, options):
    (tmp_path / "other").mkdir()
    with Impostor(tmp_path, port, options=options), \
            Impostor(tmp_path / "other", port, options=options):
        refused(port, belongs("127.0.0.1", port))
    for place in (tmp_path, tmp_path / "other"):
        [trace] = place.glob("impostor-*")
        assert b"token" not in trace.read_bytes()


def test_a_cookie_that_was_given_is_not_told_either(port, station, tmp_path):
    with Impostor(tmp_path, port) as stranger:
        refused(port, belongs("127.0.0.1", port), "--cookie-file", str(station.config / ".cookie"))
        assert stranger.told() == b""


def test_roots_listener_is_told_the_cookie(port, tmp_path):
    with Impostor(tmp_path, port, uid=0) as program:
        zevctl.run(None, "--port", str(port), "list")
        assert program.told().startswith(b"token " + COOKIE.encode() + b" @@@@ user=")


def test_the_owner_of_the_configuration_is_told_the_cookie(port, station, tmp_path):
    os.chown(station.config, OWNER, -1)
    with Impostor(tmp_path, port, uid=OWNER) as program:
        zevctl.run(None, "--port", str(port), "list")
        assert program.told().startswith(b"token ")


def test_completion_tells_nothing(port, tmp_path):
    with Impostor(tmp_path, port) as stranger:
        done = zevctl.run(None, "complete", "--port", str(port), "attach", "")
        assert (done.returncode, done.stdout, done.stderr) == (zevctl.OK, "", "")
        assert stranger.told() == b""


def test_a_stranger_who_takes_over_during_a_watch_is_told_nothing(station, tmp_path):
    """A watch continues when the daemon comes back, but not with a stranger in its place."""
    station.console("box", listening=False)
    station.start("-S", "1")
    with Terminal(station, "list", "--watch", columns=400) as screen:
        screen.expect("box")
        station.stop()
        with Impostor(tmp_path, station.port) as stranger:
            screen.expect("zevctl: " + belongs("127.0.0.1", station.port))
            screen.expect_end(zevctl.NOT_THE_DAEMON)
            assert stranger.told() == b""


# A password


@pytest.mark.parametrize("host, address", [
    ("127.0.0.1", "127.0.0.1"), ("127.0.0.2", "0.0.0.0"), ("localhost", "127.0.0.1"),
    ("::1", "::1"), ("0.0.0.0", "127.0.0.1"), ("::ffff:127.0.0.1", "127.0.0.1"),
    ("192.0.2.7", "192.0.2.7"), ("192.0.2.7", "::"), ("2001:db8::7", "2001:db8::7")])
def test_nobody_is_asked_for_a_password_for_a_stranger(station, tmp_path, host, address):
    """This holds for every address of this machine."""
    for own in ("192.0.2.7/32", "2001:db8::7/128"):
        subprocess.run(["ip", "address", "add", own, "dev", "lo", *(["nodad"] * (":" in own))],
                       check=True)
    port = free_port()
    seen = {"localhost": "127.0.0.1", "0.0.0.0": "127.0.0.1",
            "::ffff:127.0.0.1": "127.0.0.1"}.get(host, host)
    with Impostor(tmp_path, port, address) as stranger, \
            Terminal(None, "--host", host, "--port", str(port), "list", columns=400) as person:
        shown = person.expect_end(zevctl.NOT_THE_DAEMON).decode()
        assert shown == f"zevctl: {belongs(seen, port)}\r\n"
        told = stranger.told()
        assert told.startswith(b"@@@@ user=") and told.endswith(b"\n\xff\xf1")


@pytest.fixture
def machine():
    """Another machine: a network at the end of a cable; the words that run a command there."""
    ours = os.stat("/proc/self/ns/net").st_ino
    with subprocess.Popen(["unshare", "--net", "sleep", "infinity"]) as there:
        net = f"/proc/{there.pid}/ns/net"
        wait_until(lambda: os.stat(net).st_ino != ours, what="the network of the other machine")
        inside = ["nsenter", f"--net={net}", "--"]
        for words in (["ip", "link", "add", "near", "type", "veth", "peer", "name", "far", "netns",
                       str(there.pid)],
                      ["ip", "address", "add", "198.51.100.1/24", "dev", "near"],
                      ["ip", "link", "set", "near", "up"],
                      [*inside, "ip", "address", "add", "198.51.100.2/24", "dev", "far"],
                      [*inside, "ip", "link", "set", "far", "up"]):
            subprocess.run(words, check=True)
        yield inside
        there.kill()


def test_a_listener_on_another_machine_is_not_checked(station, tmp_path, machine):
    """Nobody can know from here who owns a listener there."""
    port = free_port()
    with Impostor(tmp_path, port, "198.51.100.2", before=machine), \
            Terminal(None, "--host", "198.51.100.2", "--port", str(port), "list") as person:
        person.expect("User name [root]: ")


def test_without_netlink_other_machines_are_still_told_apart(station, tmp_path, machine, netless):
    port = free_port()
    with Impostor(tmp_path, port, "198.51.100.2", before=machine), \
            Terminal(None, "--host", "198.51.100.2", "--port", str(port), "list",
                     env=hiding(netless, "HIDE_NETLINK")) as person:
        person.expect("User name [root]: ")


def test_a_daemon_without_a_login_is_used_with_a_warning(station, tmp_path):
    """Nothing but what is typed at a console could be stolen."""
    port = free_port()
    answers = struct.pack("<II2sIIII17s", 2, 2, b"x", 1, 0, 2, 17, b"Invalid command.")
    with Impostor(tmp_path, port, greeting=answers) as stranger:
        done = zevctl.run(None, "--port", str(port), "list")
        assert (done.returncode, done.stderr) == (zevctl.OK,
                                                  f"zevctl: {belongs('127.0.0.1', port)}\n")
        assert done.stdout.startswith("NAME ")
        assert stranger.told().startswith(b"@@@@ user=")


# A daemon that sends too much

GARBLED = "zevctl: what answers at this address is no command port of zevd; see --host and --port\n"
GREETING = struct.pack("<II2s", 2, 2, b"x")  # the answer to the probe


@pytest.mark.parametrize("count, status, said", [
    (1_000_000, zevctl.NO_DAEMON, "zevctl: the daemon closed the connection; try again, and see "
     "zevd.log\n"),
    (1_000_001, zevctl.NO_DAEMON, GARBLED), (0xFFFFFFFF, zevctl.NO_DAEMON, GARBLED)])
def test_more_records_than_a_station_can_have_are_refused(count, status, said):
    with FakeDaemon(GREETING + struct.pack("<II", 1, count)) as daemon:
        done = zevctl.run(None, "--port", str(daemon.port), "list")
        assert (done.returncode, done.stderr, done.stdout) == (status, said, "")


def test_a_refusal_without_an_end_is_given_up():
    """The client disconnects long before it has all of it."""
    chunk, chunks = b"0" * 1_000_000, 100
    taken = []
    with socket.create_server(("127.0.0.1", 0)) as listener:
        client = zevctl.start(None, "--port", str(listener.getsockname()[1]), "list")
        caller, _ = listener.accept()
        with caller, contextlib.suppress(ConnectionError):
            while len(taken) < chunks:
                caller.sendall(chunk)
                taken.append(len(chunk))
        _, said = client.communicate(timeout=stretched(LIMIT))
    assert (client.returncode, said.decode()) == (zevctl.NO_DAEMON, GARBLED)
    assert len(taken) < chunks


# A tunnel of one's own


def as_stranger(port: int, *arguments: str) -> pexpect.spawn:
    """The client on a terminal, run as the stranger."""
    words = ["--reuid", str(STRANGER), "--regid", str(STRANGER), "--clear-groups", "--",
             str(zevctl.PROGRAM), "--port", str(port), *arguments, "list"]
    child = pexpect.spawn("setpriv", words, timeout=stretched(LIMIT), env=zevctl.environment(),
                          dimensions=(24, 400))
    child.delaybeforesend = None
    return child


def test_a_tunnel_must_be_named(port, station, tmp_path):
    (station.config / ".cookie").unlink()
    with Impostor(tmp_path, port) as tunnel:
        child = as_stranger(port)
        child.expect_exact(belongs("127.0.0.1", port))
        child.expect(pexpect.EOF)
        close_terminal(child)
        assert child.exitstatus == zevctl.NOT_THE_DAEMON
        assert b"password" not in tunnel.told()


def test_a_tunnel_is_told_the_password_and_no_cookie(port, station, tmp_path):
    (station.config / ".cookie").chmod(0o644)
    with Impostor(tmp_path, port, greeting=NAME_PROMPT + b"\xff\xfb\x01password: ") as tunnel:
        child = as_stranger(port, "--tunnel")
        child.expect_exact("User name [unknown]: ")
        child.send("ann\r")
        child.expect_exact("Password: ")
        child.send("opensesame\r")
        wait_until(lambda: b"opensesame\n" in tunnel.said(), what="the password")
        close_terminal(child)
        assert tunnel.told().startswith(b"@@@@ user=unknown\n\xff\xf1ann\nopensesame\n")


def test_anothers_tunnel_is_not_told_the_password(port, station, tmp_path):
    (station.config / ".cookie").unlink()
    with Impostor(tmp_path, port, uid=OWNER) as tunnel:
        child = as_stranger(port, "--tunnel")
        child.expect_exact(belongs("127.0.0.1", port, OWNER))
        child.expect(pexpect.EOF)
        close_terminal(child)
        assert child.exitstatus == zevctl.NOT_THE_DAEMON
        assert tunnel.told().startswith(b"@@@@ user=")


def test_a_tunnel_and_a_cookie_exclude_each_other(station):
    done = zevctl.run(None, "--tunnel", "--cookie-file", "x", "list")
    assert (done.returncode, done.stdout) == (zevctl.USAGE, "")


@pytest.fixture(scope="session")
def netless(tmp_path_factory) -> Path:
    """A library that keeps zevctl from learning who listens, and holds it still as it connects."""
    return preload.build("netless", tmp_path_factory.mktemp("netless"))


def hiding(library: Path, *what: str) -> dict[str, str]:
    """The environment that hides this from zevctl."""
    return preload.environment(library, **dict.fromkeys(what, "1"))


# On another address of the daemon's port


@pytest.mark.parametrize("address", ["::", "::1"])
@pytest.mark.parametrize("hidden", [(), ("HIDE_NETLINK",)])
def test_a_stranger_on_another_address_of_the_port_does_no_harm(station, tmp_path, netless, address,
                                                                hidden):
    box = station.console("box")
    station.start("-S", "1")
    connected(station, box, "box")
    with Impostor(tmp_path, station.port, address, options="v6only"):
        done = zevctl.run(station, "list", env=hiding(netless, *hidden))
        assert (done.returncode, done.stderr) == (zevctl.OK, "")
        assert "box" in done.stdout


# What the system tells


@pytest.mark.parametrize("address", ["127.0.0.1", "0.0.0.0", "::"])
def test_without_socket_diagnostics_the_tables_are_used(port, tmp_path, netless, address):
    with Impostor(tmp_path, port, address) as stranger:
        refused(port, belongs("127.0.0.1", port), env=hiding(netless, "HIDE_NETLINK"))
        assert stranger.told() == b""


def test_without_either_nothing_is_sent(port, tmp_path, netless):
    with Impostor(tmp_path, port, uid=0) as program:
        refused(port, f"the system does not tell who listens at 127.0.0.1 port {port}: "
                f"{NOTHING_SENT}. If this is a sandbox, run zevctl outside of it.",
                env=hiding(netless, "HIDE_NETLINK", "HIDE_PROC"))
        assert program.told() == b""


def test_without_the_tables_socket_diagnostics_are_used(port, tmp_path, netless):
    with Impostor(tmp_path, port) as stranger:
        refused(port, belongs("127.0.0.1", port), env=hiding(netless, "HIDE_PROC"))
        assert stranger.told() == b""


# Between the two checks


class Gate:
    """The client, held between its first check and the connection."""

    def __init__(self, port: int, library: Path, place: Path, *hidden: str) -> None:
        self._place = place
        place.mkdir()
        env = zevctl.environment(**hiding(library, *hidden), GATE=str(place))
        self._client = subprocess.Popen([zevctl.PROGRAM, "--port", str(port), "list"], env=env,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        wait_until((place / "reached").exists, what="the client to connect")

    def open(self) -> tuple[int, str]:
        """Let it run to its end; return its status and what it says."""
        (self._place / "open").touch()
        _, said = self._client.communicate(timeout=stretched(LIMIT))
        return self._client.returncode, said.decode()


def test_a_stranger_who_slips_in_between_is_told_nothing(port, tmp_path, netless):
    with socket.create_server(("127.0.0.1", port)):
        gate = Gate(port, netless, tmp_path / "gate")
    with Impostor(tmp_path, port) as stranger:
        said = (zevctl.NOT_THE_DAEMON, f"zevctl: {belongs('127.0.0.1', port)}\n")
        assert gate.open() == said
        assert stranger.told() == b""


@pytest.mark.parametrize("first", [None, 0, STRANGER])
def test_a_listener_that_has_changed_is_told_nothing(port, tmp_path, netless, first):
    """Not even root's listener is: the connection may have gone to the one before it."""
    (tmp_path / "other").mkdir()
    before = Impostor(tmp_path / "other", port, uid=first) if first is not None else None
    gate = Gate(port, netless, tmp_path / "gate")
    if before:
        before.close()
    with Impostor(tmp_path, port, uid=0) as program:
        status, said = gate.open()
        assert (status, said) == (zevctl.NO_DAEMON,
                                  f"zevctl: what listens at 127.0.0.1 port {port} changed during "
                                  f"the connecting: {NOTHING_SENT}. Try again.\n")
        assert program.told() == b""


def test_nothing_is_sent_to_a_connection_without_a_listener(port, tmp_path):
    """The machine may redirect the port, or the connection may have met itself."""
    with socket.create_server(("127.0.0.1", 0)) as elsewhere:
        subprocess.run(["sysctl", "-qw", f"net.ipv4.ip_local_port_range={port} {port}"], check=True)
        elsewhere.close()
        refused(port, f"something answers at 127.0.0.1 port {port}, but no listener can be seen "
                f"there: {NOTHING_SENT}. Use the address at which zevd listens; see --host and "
                "--port.")


# At the other end of the connection

# Binds to the daemon's port before the daemon listens there, and later connects to the port from
# which the client will come. Until then a listener with a full queue is there, which neither
# answers nor refuses. It prints a line for each step, and then what it was told.
MEETING = """
import os, socket, sys
port, client, other = map(int, sys.argv[1:])
def bound(address, to):
    made = socket.socket()
    made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    made.bind((address, to))
    return made
meeting = bound("127.0.0.1", port)
os.write(1, b"bound\\n")
sys.stdin.readline()
full = bound("127.0.0.1", client)
full.listen(0)
filler = bound("127.0.0.2", other)
filler.connect(("127.0.0.1", client))
meeting.setblocking(False)
meeting.connect_ex(("127.0.0.1", client))
full.close()
os.write(1, b"connecting\\n")
meeting.settimeout(60)
try:
    told = meeting.recv(4096)
    os.write(1, b"met\\n" + told)
except OSError:
    os.write(1, b"missed\\n")
"""


def meet(port: int, netless: Path, place: Path, *hidden: str) -> tuple[bytes, tuple[int, str]]:
    """Have a stranger's socket and the client's connect to each other, though root listens; return
    what the stranger prints, and how the client ends."""
    client = free_port()
    words = ["setpriv", "--pdeathsig", "KILL", f"--reuid={STRANGER}", f"--regid={STRANGER}",
             "--clear-groups", "--", "/usr/bin/python3", "-c", MEETING, str(port), str(client),
             str(free_port())]
    with subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as stranger:
        assert stranger.stdout.readline() == b"bound\n"
        subprocess.run(["sysctl", "-qw", f"net.ipv4.ip_local_port_range={client} {client}"],
                       check=True)
        with socket.create_server(("127.0.0.1", port)):
            gate = Gate(port, netless, place, *hidden)
            stranger.stdin.write(b"\n")
            stranger.stdin.flush()
            assert stranger.stdout.readline() == b"connecting\n"
            ended = gate.open()
            told, _ = stranger.communicate(timeout=stretched(LIMIT))
    return told, ended


@pytest.mark.parametrize("hidden", [(), ("HIDE_NETLINK",)])
def test_a_stranger_who_meets_the_connection_half_way(port, tmp_path, netless, hidden):
    """The stranger has no listener, and one second until TCP repeats what was dropped."""
    for attempt in range(10):
        told, ended = meet(port, netless, tmp_path / f"gate{attempt}", *hidden)
        if told != b"missed\n":
            break
    assert told == b"met\n"
    assert ended == (zevctl.NOT_THE_DAEMON,
                     f"zevctl: what answers at 127.0.0.1 port {port} belongs to user {STRANGER}, "
                     f"not to root or the owner of {settings.root()}/config, though what listens "
                     f"there is right: {NOTHING_SENT}. As root, "
                     '"ss -tanpe" shows the program.\n')


@pytest.mark.parametrize("hidden", [(), ("HIDE_NETLINK",)])
@pytest.mark.parametrize("address", ["127.0.0.1", "::"])
def test_a_busy_daemon_is_told_the_cookie_before_it_accepts(port, tmp_path, netless, address,
                                                            hidden):
    """A busy daemon is not taken for a stranger."""
    family = socket.AF_INET6 if address == "::" else socket.AF_INET
    with socket.create_server((address, port), family=family,
                              dualstack_ipv6=address == "::") as listener:
        gate = Gate(port, netless, tmp_path / "gate", *hidden)
        (tmp_path / "gate" / "open").touch()
        wait_until(lambda: waiting(port), what="the cookie")
        caller, _ = listener.accept()
        with caller:
            assert caller.recv(4096).startswith(b"token " + COOKIE.encode())
        gate.open()


def waiting(port: int) -> bool:
    """True when bytes wait in a connection that nobody has accepted."""
    shown = subprocess.run(["ss", "-Htn", "state", "established", f"sport = :{port}"], check=True,
                           capture_output=True, text=True).stdout
    return any(int(line.split()[0]) > 0 for line in shown.splitlines())
