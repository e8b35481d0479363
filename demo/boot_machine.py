"""A machine for the demo: it boots when its console is first connected, then prints for ever.

Usage: boot_machine.py PORT

The console is a TCP port on the loopback address. What the console's peer sends is read and
thrown away, as by a machine at which nobody has logged in.
"""

import itertools
import select
import socket
import sys
import time

BOOT_LINES = (
    "Firmware 4.2: memory test 16384 MB ok",
    "Firmware 4.2: booting from disk 0",
    "[  0.00] kernel starting on 8 processors",
    "[  0.21] network interface 0 is up",
    "[  0.48] file systems are clean",
    "[  0.90] server1 is up",
)
BOOT_PAUSE = 0.1
STATUS_PAUSE = 1.0


class ConsoleClosed(Exception):
    """The peer has closed the console connection."""


def pause(console: socket.socket, seconds: float) -> None:
    """Let the time pass, throwing away what is typed meanwhile."""
    until = time.monotonic() + seconds
    while (left := until - time.monotonic()) > 0:
        readable, _, _ = select.select([console], [], [], left)
        if readable and not console.recv(4096):
            raise ConsoleClosed


def say(console: socket.socket, line: str, seconds: float) -> None:
    """Print one line on the console, then wait."""
    console.sendall(line.encode() + b"\r\n")
    pause(console, seconds)


def run(listener: socket.socket) -> None:
    """Serve one console connection after the other; the machine keeps counting in between."""
    reports = itertools.count(1)
    lines = iter(BOOT_LINES)
    while True:
        console, _ = listener.accept()
        with console:
            try:
                for line in lines:
                    say(console, line, BOOT_PAUSE)
                for report in reports:
                    say(console, f"status report {report}: 3 fans turning, {40 + report % 3} C",
                        STATUS_PAUSE)
            except (ConsoleClosed, ConnectionError):
                continue


def main() -> None:
    with socket.create_server(("127.0.0.1", int(sys.argv[1]))) as listener:
        run(listener)


if __name__ == "__main__":
    main()
