"""A machine on which the packages are installed, with people, a console and its event file."""

import socket
import subprocess
from pathlib import Path

from harness.consoles import FakeConsole
from harness.peers import OFFERS, Peer
from harness.waiting import wait_until

from machines.machine import Machine

ROOT = "/usr/opt/qor"
MAIN_PORT = 6500
OWN_PORT = 6501
PASSWORD = "open sesame"
MEMBER, STRANGER = "alice", "bob"

CONFIG = f"{ROOT}/config/zev.conf"
CURRENT = f"{ROOT}/logs/zev.dated/current"


def line(name: str, port: int, own_port: int, events: str = "disk") -> str:
    """A console's line in zev.conf, with a login at its own port."""
    return f'{name} 127.0.0.1 {port} 0 {own_port} A200 rack1 "Some OS" 1 1 1 1 {events} \n'


class Station:
    """What the tests do with a station."""

    def __init__(self, machine: Machine) -> None:
        self.machine = machine
        self.box: FakeConsole | None = None

    def furnish(self) -> "Station":
        """Two people with a password, of whom one may log in, and a console, which is connected."""
        for name in (MEMBER, STRANGER):
            self.machine.run("useradd", name)
            self.machine.run("chpasswd", given=f"{name}:{PASSWORD}\n")
        self.machine.run("usermod", "--append", "--groups", "qoruser", MEMBER)
        self.machine.path(f"{ROOT}/events/disk").write_text("error 300 0 disk.*error\n")
        with self.machine.network():
            self.box = FakeConsole("box", greeting=b"ready\r\n")
        self.configure(line("box", self.box.port, OWN_PORT))
        self.machine.run("systemctl", "reload", "zevd.service")
        self.box.accept()
        self.wait_log("box", b"ready")
        return self

    def configure(self, text: str) -> None:
        """Write the consoles as an administrator does, who keeps owner and mode."""
        self.machine.run("sh", "-c", f"cat > {CONFIG}", given=text)

    def call(self, port: int) -> Peer:
        """Somebody who has connected to a port."""
        with self.machine.network():
            sock = socket.create_connection(("127.0.0.1", port), timeout=10)
        caller = Peer(f"caller of port {port}")
        caller.adopt(sock)
        return caller

    def log_in(self, name: str = MEMBER, password: str = PASSWORD, console: str = "box") -> Peer:
        """Somebody who has given a name and a password on the main port."""
        caller = self.call(MAIN_PORT)
        caller.send(f"{console} mode=sh\r\n".encode())
        caller.expect(b"username: ")
        caller.send(f"{name}\r\n".encode())
        caller.expect(b"password: ")
        caller.send(f"{password}\r\n".encode())
        return caller

    def talk(self, user: Peer) -> None:
        """The user and the console hear each other."""
        user.send(b"from the user")
        self.box.expect(b"from the user")
        self.box.send(b"from the console\r\n")
        user.expect(b"from the console")

    def attached(self, user: Peer) -> None:
        """The user is let in."""
        user.expect(OFFERS)
        self.talk(user)

    def restart(self) -> None:
        """Restart the daemon, and connect the console again."""
        self.machine.run("systemctl", "restart", "zevd.service")
        self.box.accept()

    def wait_log(self, name: str, text: bytes) -> None:
        """Wait for the console's log to hold the text."""
        log = f"{CURRENT}/{name}.log"
        wait_until(lambda: text in self.read(log), what=f"{text!r} in {log}")

    def read(self, inside: str) -> bytes:
        """A file of the machine, whose links lead where they do there; empty while it is absent."""
        done = subprocess.run(["chroot", self.machine.root, "cat", inside], capture_output=True,
                              check=False)
        return done.stdout

    def current(self) -> str:
        """The name of the present dated directory."""
        return Path(self.machine.output("readlink", CURRENT)).name

    def wait_daemon(self, other_than: int) -> int:
        """Wait for a daemon with another process id that serves users."""
        def serving() -> int:
            daemon = self.machine.daemon()
            active = self.machine.show("zevd.service", "ActiveState") == "active"
            return daemon if active and daemon != other_than else 0

        return wait_until(serving, 20, "another daemon")

    def options(self, text: str) -> None:
        """Give the daemon options from its next start on."""
        self.machine.path("/etc/default/zevd").write_text(f'ZEVD_OPTIONS="{text}"\n')

    def drop_in(self, name: str, text: str) -> None:
        """Change the daemon's unit as an administrator does."""
        directory = self.machine.path("/etc/systemd/system/zevd.service.d")
        directory.mkdir(exist_ok=True)
        (directory / f"{name}.conf").write_text(f"[Service]\n{text}\n")
        self.machine.run("systemctl", "daemon-reload")
