"""The recipe with SSH: a console and nothing else, for people who are known by their keys."""

import contextlib
import os
import re
import shutil
import subprocess
from pathlib import Path

import pexpect
import pytest

from harness import zevctl
from harness.access import bring_up
from harness.helpers import private_copy
from harness.isolation import mount_tmpfs, unmount
from harness.recipes import MAIN_PORT, Recipe, Running
from harness.system_log import shared_system_log
from harness.terminals import close_terminal
from harness.waiting import LIMIT, free_port, stretched, wait_listening, wait_until

pytestmark = pytest.mark.needs_namespace

ACCOUNT = "zevd-console"
ACCOUNT_ID, GROUP_ID = 64300, 64301
HIDDEN = (Path("/run"), Path("/usr/local/sbin"))  # the machine's own, where the recipe writes
USAGE = "zevd: type the name of a console"


class Server:
    """A real SSH server with Debian's configuration and the recipe's, and the keys of people."""

    def __init__(self, station, box, scratch: Path) -> None:
        self.station = station
        self.box = box
        self.scratch = scratch
        self.recipe = Recipe("ssh", {"/usr/bin/zevctl": str(zevctl.PROGRAM)})
        self.recipe.follow("The station")
        self.recipe.install("ssh-console", Path("/usr/local/sbin/zevd-ssh-console"))
        self.port = free_port()

    def run(self) -> Running:
        options = {"Port": self.port, "ListenAddress": "127.0.0.1", "PidFile": "none",
                   "HostKey": self.key("host")}
        words = [word for pair in options.items() for word in ("-o", f"{pair[0]}={pair[1]}")]
        started = Running([shutil.which("sshd", path="/usr/sbin"), "-D", "-e", *words],
                          self.scratch / "sshd.out")
        wait_listening(self.port)
        return started

    def key(self, name: str) -> Path:
        """Somebody's key, made at the first use."""
        path = self.scratch / f"{name}.key"
        if not path.exists():
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "anything",
                            "-f", path], check=True)
        return path

    def admit(self, name: str, options: str = "", comment: str | None = None) -> None:
        """Add a person's key as the recipe says."""
        public = self.key(name).with_suffix(".key.pub").read_text().split()[:2]
        with open("/etc/ssh/zevd-console.keys", "a", encoding="ascii") as keys:
            keys.write(" ".join([*([options] if options else []), *public,
                                 name if comment is None else comment]) + "\n")

    def words(self, name: str, *options: str) -> list[str]:
        """The command line of a person's ssh, without what is asked for."""
        own = [f"-oIdentityFile={self.key(name)}", "-oIdentitiesOnly=yes", "-oBatchMode=yes",
               "-oStrictHostKeyChecking=no", "-oUserKnownHostsFile=/dev/null", "-oLogLevel=ERROR"]
        return ["-F", "none", "-p", str(self.port), *own, *options, f"{ACCOUNT}@127.0.0.1"]

    def ask(self, name: str, *request: str, options: tuple[str, ...] = ()):
        """Ask for something without a terminal."""
        return subprocess.run(["ssh", *self.words(name, *options), "--", *request], text=True,
                              capture_output=True, stdin=subprocess.DEVNULL, check=False,
                              timeout=stretched(LIMIT))

    def sit_down(self, name: str, *request: str) -> pexpect.spawn:
        """Ask for something on a terminal."""
        child = pexpect.spawn("ssh", [*self.words(name, "-t"), "--", *request],
                              timeout=stretched(LIMIT), dimensions=(24, 200))
        child.delaybeforesend = None
        return child


def add_account(station) -> None:
    """The group that may read the cookie, and the account of the recipe's first line."""
    with open("/etc/group", "a", encoding="ascii") as file:
        file.write(f"zevd:x:{GROUP_ID}:\n")
    os.chown(station.root, -1, GROUP_ID)
    os.chown(station.config, -1, GROUP_ID)
    line = next(line for line in Recipe("ssh").lines("The station").splitlines()
                if line.startswith("useradd"))
    subprocess.run(["bash", "-c", f"{line} --uid {ACCOUNT_ID}"], check=True, capture_output=True)


@pytest.fixture
def server(shared_system_log, station, tmp_path):
    """A station that follows the recipe; alice and bob may come."""
    for directory in HIDDEN:
        mount_tmpfs(directory)
    Path("/run/sshd").mkdir()
    with private_copy(Path("/etc"), tmp_path):
        add_account(station)
        box = station.console("box")
        bring_up(station, box, options=("-S", "1", "-p", str(MAIN_PORT)))
        made = Server(station, box, tmp_path)
        made.admit("alice")
        made.admit("bob", 'from="127.0.0.0/8",environment="X=a b"')
        with made.run() as made.sshd:
            yield made
    for directory in HIDDEN:
        unmount(directory)


def at_the_box(log, what: str, count: int) -> list[dict[str, str]]:
    """What the daemon tells of people at the console; clients ask the command port as well."""
    def entries() -> list[dict[str, str]]:
        return [entry for entry in log.entries(what) if entry["console"] == "box"]
    wait_until(lambda: len(entries()) >= count, what=f"{count} entries of {what!r} at the box")
    return entries()


def test_two_people_are_known_by_their_keys(server, shared_system_log):
    alice = server.sit_down("alice", "box")
    alice.expect_exact("Attached to box")
    bob = server.sit_down("bob", "box", "ro")
    bob.expect_exact("Attached to box")
    seen = {(entry["given_user"], entry["given_from"], entry["mode"])
            for entry in at_the_box(shared_system_log, "attach", 2)}
    assert seen == {("alice", "127.0.0.1", "sh"), ("bob", "127.0.0.1", "ro")}
    listed = server.ask("alice", "who").stdout
    assert re.search(r"box +alice +shared +127\.0\.0\.1\n", listed), listed
    assert re.search(r"box +bob +read-only +127\.0\.0\.1\n", listed), listed
    alice.send("hello")
    server.box.expect(b"hello")
    server.box.send(b"good morning\r\n")
    for person in (alice, bob):
        person.expect_exact("good morning")
    alice.send("\r~~.")
    alice.expect_exact("Left box.")
    close_terminal(bob)
    left = at_the_box(shared_system_log, "leave", 2)
    assert {entry["given_user"] for entry in left} == {"alice", "bob"}


def test_the_address_is_that_of_the_person(server, shared_system_log):
    words = server.words("alice", "-t", "-b", "127.0.1.9")
    person = pexpect.spawn("ssh", [*words, "box"], timeout=stretched(LIMIT))
    (entry,) = at_the_box(shared_system_log, "attach", 1)
    assert (entry["given_user"], entry["given_from"]) == ("alice", "127.0.1.9")
    close_terminal(person)


def test_the_list_needs_no_terminal(server):
    done = server.ask("bob", "list")
    assert (done.returncode, done.stderr) == (zevctl.OK, "")
    assert re.search(r"^box +connected", done.stdout, re.MULTILINE), done.stdout


def clients() -> list[int]:
    """The zevctl processes of this test's own network."""
    own = os.readlink("/proc/thread-self/ns/net")
    found = []
    for path in Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):  # it has ended
            if os.readlink(path / "ns/net") == own and (path / "comm").read_text() == "zevctl\n":
                found.append(int(path.name))
    return found


HOSTILE = (
    "box; touch {mark}", "$(touch {mark})", "`touch {mark}`", "box & touch {mark}", "box|sh",
    "box\ntouch {mark}", "box\nlist", "'box' ro", '"box"', "box > {mark}", "sh -c id", "*", "b?x",
    "~", "../box", "--host=evil", "-h", "list --host evil", "list --cookie-file /etc/shadow",
    "box mode=er", "box user=root", "box xx", "box sh sh", "@@@@ $IFS", "list;id", "@@@@ -",
    "scp -t /tmp", "/usr/lib/openssh/sftp-server", "bash -i", "x" * 101, "\\", "b\x1box")


def test_what_is_asked_for_is_never_run(server, shared_system_log):
    mark = server.scratch.parent / "marked"
    shared = server.scratch / "connection"
    master = ["ssh", "-M", "-N", "-S", str(shared), *server.words("alice")]
    with Running(master, server.scratch / "master.out"):
        wait_until(shared.exists, what="the connection that the requests share")
        for request in HOSTILE:
            done = server.ask("alice", request.format(mark=mark), options=("-S", str(shared)))
            assert (done.returncode, done.stdout) == (2, ""), request
            assert done.stderr.startswith(USAGE), (request, done.stderr)
    assert not mark.exists()
    assert not server.ask("alice").stdout
    assert shared_system_log.entries() == []


def test_a_console_needs_a_terminal_and_a_file_transfer_is_none(server, shared_system_log):
    for request in ("box", "box ro", "internal-sftp"):
        done = server.ask("alice", request)
        assert (done.returncode, done.stdout) == (2, ""), request
        assert done.stderr == "zevd: a console needs a terminal: ssh -t\n"
    transfer = server.ask("alice", "sftp", options=("-s",))  # has no error output
    assert (transfer.returncode, transfer.stdout) == (2, "")
    assert shared_system_log.entries() == []


def test_nothing_is_forwarded(server):
    """A port of the station, a socket, a port of the person's, standard input, an agent, X11."""
    direct = server.ask("alice", options=("-W", f"127.0.0.1:{MAIN_PORT}"))
    assert (direct.returncode, direct.stderr) == (255, "stdio forwarding failed\n")
    server.sshd.wait_said("refused local port forward")
    port = free_port()
    remote = server.ask("alice", "list", options=("-oExitOnForwardFailure=yes", "-R",
                                                  f"{port}:127.0.0.1:{MAIN_PORT}"))
    assert remote.returncode == 255 and "remote port forwarding failed" in remote.stderr, remote
    person = server.sit_down("alice", "box")
    person.expect_exact("Attached to box")
    (client,) = clients()
    environment = Path(f"/proc/{client}/environ").read_bytes().split(b"\0")
    names = {entry.partition(b"=")[0] for entry in environment}
    assert not names & {b"SSH_AUTH_SOCK", b"DISPLAY", b"X"}
    assert Path(f"/proc/{client}").stat().st_uid == ACCOUNT_ID
    close_terminal(person)


def test_a_key_without_a_plain_name_gets_nothing(server, shared_system_log):
    server.admit("carol", comment="")
    server.admit("dave", comment="dave;id")
    server.admit("erin", comment="x" * 33)
    for name in ("carol", "dave", "erin"):
        done = server.ask(name, "list")
        assert (done.returncode, done.stdout) == (2, "")
        assert done.stderr.startswith("zevd: no name stands behind your key"), done.stderr
    stranger = server.ask("mallory", "list")
    assert stranger.returncode == 255 and "Permission denied" in stranger.stderr
    assert shared_system_log.entries() == []


def test_variables_of_the_client_lead_nowhere_else(server):
    """Even where the server takes them."""
    dropin = Path("/etc/ssh/sshd_config.d/zevd-console.conf")
    dropin.write_text(dropin.read_text() + "    AcceptEnv *\n")
    server.sshd.close()
    with server.run():
        port = "-oSetEnv=ZEVCTL_PORT=1 SSH_CONNECTION=evil SSH_USER_AUTH=/dev/null"
        done = server.ask("alice", "list", options=(port,))
        assert (done.returncode, done.stderr) == (zevctl.OK, "")
        assert "box" in done.stdout


def test_without_the_servers_word_on_the_key_nobody_gets_in(server):
    dropin = Path("/etc/ssh/sshd_config.d/zevd-console.conf")
    dropin.write_text(dropin.read_text().replace("ExposeAuthInfo yes", "ExposeAuthInfo no"))
    server.sshd.close()
    with server.run():
        done = server.ask("alice", "list", options=("-oSendEnv=SSH_USER_AUTH",))
        assert (done.returncode, done.stdout) == (2, "")
        assert "needs ExposeAuthInfo yes" in done.stderr
