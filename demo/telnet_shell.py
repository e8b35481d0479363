"""A shell on a pseudo-terminal behind a telnet byte stream on standard input and output.

Real consoles speak telnet: a user's telnet client answers option offers, and these answers reach
the console like anything else that is typed. A bare terminal would take them for keystrokes, so
this end of the demo's shell console removes them, as a terminal server does.

The shell belongs to an unprivileged user, because whoever reaches the console types into it.
"""

import os
import pty
import pwd
import select

IAC, DONT, WILL, SB, SE = 255, 254, 251, 250, 240
CR = 13
CHUNK = 4096


class KeystrokeFilter:
    """Leaves what a person typed: no telnet commands, and a plain CR for each line end."""

    def __init__(self) -> None:
        self._step = self._data

    def feed(self, chunk: bytes) -> bytes:
        """Return the keystrokes in a chunk; a sequence may go on in the next one."""
        keys = bytearray()
        for byte in chunk:
            self._step = self._step(byte, keys)
        return bytes(keys)

    def _data(self, byte: int, keys: bytearray):
        if byte == IAC:
            return self._command
        keys.append(byte)
        return self._after_cr if byte == CR else self._data

    def _after_cr(self, byte: int, keys: bytearray):
        """Telnet sends CR LF or CR NUL where a keyboard sends CR alone."""
        return self._data if byte in b"\n\0" else self._data(byte, keys)

    def _command(self, byte: int, keys: bytearray):
        if byte == IAC:
            keys.append(byte)
            return self._data
        if byte == SB:
            return self._subnegotiation
        return self._option if WILL <= byte <= DONT else self._data

    def _option(self, _byte: int, _keys: bytearray):
        return self._data

    def _subnegotiation(self, byte: int, _keys: bytearray):
        return self._subnegotiation_end if byte == IAC else self._subnegotiation

    def _subnegotiation_end(self, byte: int, _keys: bytearray):
        return self._data if byte == SE else self._subnegotiation


def write_all(descriptor: int, chunk: bytes) -> None:
    """Write the whole chunk, however little the descriptor takes at a time."""
    while chunk:
        chunk = chunk[os.write(descriptor, chunk):]


def relay(terminal: int) -> None:
    """Copy both ways until the peer closes or the shell ends."""
    keystrokes = KeystrokeFilter()
    while True:
        readable, _, _ = select.select([0, terminal], [], [])
        if 0 in readable:
            typed = os.read(0, CHUNK)
            if not typed:
                return
            write_all(terminal, keystrokes.feed(typed))
        if terminal in readable:
            try:
                printed = os.read(terminal, CHUNK)
            except OSError:
                return
            write_all(1, printed.replace(bytes([IAC]), bytes([IAC, IAC])))


def become_nobody() -> None:
    """Give up root's rights, where there are any to give up."""
    if os.geteuid() == 0:
        nobody = pwd.getpwnam("nobody")
        os.setgroups([])
        os.setgid(nobody.pw_gid)
        os.setuid(nobody.pw_uid)


def run_shell() -> None:
    """Become an interactive shell that starts where its user may read."""
    become_nobody()
    os.chdir("/")
    os.execve("/bin/sh", ["sh", "-i"], {"PATH": "/usr/bin:/bin", "PS1": "shell $ "})


def main() -> None:
    child, terminal = pty.fork()
    if child == 0:
        run_shell()
    relay(terminal)


if __name__ == "__main__":
    main()
