"""Consoles behind the line server: the real daemon, the real client and ser2net between them."""

import contextlib
import os
import subprocess
from pathlib import Path

import pytest

from harness import lines, zevctl
from harness.isolation import mount_tmpfs, unmount
from harness.logs import log_of, read
from harness.waiting import free_port, wait_listening, wait_until

pytestmark = pytest.mark.needs_namespace

NOT_LOADED = "the packet filter inet zevd_lines is not loaded"


@pytest.fixture(autouse=True)
def loopback(isolated):
    """A network in which ser2net can listen."""
    lines.add_address()


@contextlib.contextmanager
def seated(station, name: str):
    """A person with the client at a console."""
    with zevctl.Terminal(station, "attach", name) as person:
        person.expect("Attached to")
        yield person


def test_a_program_is_a_console(station):
    station.start()
    with lines.serve(station, shell="exec = \"sh -c 'PS1=ready; export PS1; exec sh -i'\""):
        with seated(station, "shell") as person:
            person.type("\recho $((6 * 7)) it\\'s; tty\r")
            person.expect("42 it's\r\n")
            person.expect("/dev/pts/")
        wait_until(lambda: b"42 it's\n" in read(log_of(station, "shell")), what="the log")
        assert b"\r" not in read(log_of(station, "shell"))


def test_no_shell_reads_the_arguments_of_a_program(station):
    station.start()
    target = (r"""exec = '''sh -c 'printf "<%s>" "$@"; exec cat' """
              r"""sh "a b" "$HOME" "*{/etc/passwd}" "*(x)" "q\"q" "b\\s" "" é'''""")
    with lines.serve(station, args=target):
        with seated(station, "args") as person:
            person.type("\r")
            wanted = '<a b><$HOME><*{/etc/passwd}><*(x)><q"q><b\\s><><é>'.encode()
            wait_until(lambda: wanted in read(log_of(station, "args")), what="the arguments")


@contextlib.contextmanager
def serial_cable(directory: Path):
    """Two terminals that are wired to each other; the second one's bytes are the test's."""
    near, far = Path("/dev/ttyLINES"), directory / "far"
    with subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "--", "socat",
                           f"pty,raw,echo=0,link={near}", f"pty,raw,echo=0,link={far}"]) as socat:
        try:
            wait_until(lambda: near.exists() and far.exists(), what="the cable")
            descriptor = os.open(far, os.O_RDWR | os.O_NOCTTY)
            try:
                yield descriptor
            finally:
                os.close(descriptor)
        finally:
            socat.kill()
            near.unlink(missing_ok=True)


def read_all(descriptor: int, wanted: bytes) -> None:
    """Wait for exactly these bytes."""
    got = b""
    os.set_blocking(descriptor, False)

    def arrived() -> bool:
        nonlocal got
        with contextlib.suppress(BlockingIOError):
            got += os.read(descriptor, 1000)
        return len(got) >= len(wanted)

    wait_until(arrived, what=f"{wanted!r} at the end of the cable")
    assert got == wanted


def test_a_serial_port_is_a_console(station, tmp_path):
    station.start()
    with serial_cable(tmp_path) as cable, \
            lines.serve(station, port='serial = "/dev/ttyLINES,115200n8"'):
        with seated(station, "port") as person:
            os.write(cable, b"login: ")
            person.expect("login: ")
            person.type("\x03\x1b[Aab\t\x7f\xfe")
            read_all(cable, "\x03\x1b[Aab\t\x7f\xfe".encode())
            os.write(cable, b"two\r\nlines\r\n")
            person.expect("two\r\nlines\r\n")
        wait_until(lambda: b"lines\n" in read(log_of(station, "port")), what="the log")


def may_connect(user: str) -> bool:
    """Whether a user of this machine reaches the first line."""
    done = subprocess.run(["setpriv", f"--reuid={user}", "--clear-groups", "--", "bash", "-c",
                           f"exec 3<>/dev/tcp/{lines.ADDRESS}/10001"], capture_output=True,
                          check=False)
    return done.returncode == 0


def test_nobody_but_the_daemon_and_root_reaches_a_line(station, tmp_path):
    station.start()
    with lines.users(tmp_path):
        with lines.LineServer(lines.apply(station, cat='exec = "cat"'), {10001}):
            assert may_connect("nobody")
            assert NOT_LOADED in zevctl.run(station, "config", "check").stdout
            for _ in range(2):
                lines.load_filter()
            assert not may_connect("nobody")
            assert NOT_LOADED not in zevctl.run(station, "config", "check").stdout
            assert may_connect("root")
            assert may_connect("zevd")
            zevctl.succeed(station, "reconnect", "cat")
            station.wait_connected("cat")


def make_key(path: Path) -> None:
    """Make a key without a passphrase."""
    subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", path], check=True)


@contextlib.contextmanager
def ssh_server(directory: Path, port: int):
    """A server of its own that lets root in with a key, and the lines' directory for it."""
    home = Path("/var/lib/zevd-lines")
    existed = home.exists()
    home.mkdir(exist_ok=True)
    mount_tmpfs(home)
    try:
        (home / ".ssh").mkdir(mode=0o700)
        make_key(home / ".ssh/id_ed25519")
        make_key(directory / "host")
        host_key = (directory / "host.pub").read_text(encoding="ascii")
        (home / ".ssh/known_hosts").write_text(f"[127.0.0.1]:{port} {host_key}", encoding="ascii")
        Path("/run/sshd").mkdir(exist_ok=True)
        with subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", "--", "/usr/sbin/sshd", "-D", "-f", "/dev/null",
                 "-o", f"Port={port}", "-o", "ListenAddress=127.0.0.1", "-o", "UsePAM=no",
                 "-o", f"HostKey={directory}/host", "-o", "StrictModes=no", "-o", "PidFile=none",
                 "-o", "PermitRootLogin=prohibit-password",
                 "-o", f"AuthorizedKeysFile={home}/.ssh/id_ed25519.pub"],
                stderr=subprocess.DEVNULL) as server:
            try:
                wait_listening(port)
                yield
            finally:
                server.kill()
    finally:
        unmount(home)
        if not existed:
            with contextlib.suppress(OSError):
                home.rmdir()


def test_a_session_of_ssh_is_a_console(station, tmp_path):
    port = free_port()
    station.start()
    with ssh_server(tmp_path, port), \
            lines.serve(station, far=f'ssh = "ssh://root@127.0.0.1:{port}"'):
        with seated(station, "far") as person:
            person.type("\recho $((6 * 7)) `tty`\r")
            person.expect("42 /dev/pts/")
        wait_until(lambda: b"42 /dev/pts/" in read(log_of(station, "far")), what="the log")
