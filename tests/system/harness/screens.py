"""A program on a terminal of its own, and the screen that a person would see there."""

import fcntl
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
from typing import Callable

import pyte

from harness import zevctl
from harness.closing import Closing
from harness.station import assert_no_sanitizer_report
from harness.waiting import LIMIT, stretched, wait_until

QUESTIONS = re.compile(rb"\x1b\[[?>=]?[0-9;]*[cnxtu]|\x1b\[\??[0-9;]*\$p|\x1bZ|\x05|\x1b\][^\a]*\?")


def set_size(terminal: int, columns: int, rows: int) -> None:
    """Tell a terminal how large its window is."""
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))


class Screen(Closing):
    """The program, its terminal, and what it has drawn there."""

    def __init__(self, *command: str, columns: int = 80, rows: int = 24, keys: bool = True,
                 env: dict[str, str] | None = None) -> None:
        self.terminal, self._program_end = pty.openpty()
        set_size(self.terminal, columns, rows)
        self.screen = pyte.Screen(columns, rows)
        self._stream = pyte.ByteStream(self.screen)
        self.modes_before = self.modes()
        self.drawn = b""
        self.process = subprocess.Popen(
            command, stdin=self._program_end if keys else subprocess.DEVNULL,
            stdout=self._program_end, stderr=subprocess.PIPE, start_new_session=True,
            preexec_fn=lambda: fcntl.ioctl(1, termios.TIOCSCTTY, 0),
            env=env or zevctl.environment(TZ="UTC"))

    def modes(self) -> tuple:
        """What a program can change of the terminal: the system's modes and the emulation's."""
        return (termios.tcgetattr(self.terminal), frozenset(self.screen.mode),
                self.screen.cursor.attrs, self.screen.margins, self.screen.title)

    def draw(self) -> list[str]:
        """Take what has come; return the rows without the blanks at their ends."""
        while select.select([self.terminal], [], [], 0)[0]:
            try:
                came = os.read(self.terminal, 65536)
            except OSError:
                break
            self.drawn += came
            self._stream.feed(came)
        return [row.rstrip() for row in self.screen.display]

    def status(self) -> str:
        """The last row."""
        return self.draw()[-1]

    def rows(self) -> list[str]:
        """The rows above it, without the empty ones at the end."""
        rows = self.draw()[:-1]
        while rows and not rows[-1]:
            rows.pop()
        return rows

    def wait(self, condition: Callable[[], bool], limit: float = LIMIT) -> None:
        """Wait until the condition is true of what is drawn."""
        try:
            wait_until(condition, limit, "what is drawn")
        except AssertionError as error:
            raise AssertionError("\n".join([str(error), *self.draw()])) from None

    def wait_status(self, *parts: str, limit: float = LIMIT) -> None:
        """Wait until the last row has all these parts."""
        self.wait(lambda: all(part in self.status() for part in parts), limit)

    def wait_rows(self, *rows: str) -> None:
        """Wait until the rows above it are these."""
        self.wait(lambda: self.rows() == list(rows))

    def type(self, keys: str) -> None:
        """Press the keys."""
        os.write(self.terminal, keys.encode())

    def resize(self, columns: int, rows: int) -> None:
        """Change the size of the window."""
        self.draw()
        self.screen.resize(rows, columns)
        set_size(self.terminal, columns, rows)

    def wait_end(self) -> int:
        """Wait until the program ends, taking what it draws; return its status."""
        wait_until(lambda: self.draw() and self.process.poll() is not None, 2 * LIMIT,
                   "the end of the program")
        self.draw()
        return self.process.returncode

    def said(self) -> str:
        """What the ended program has written to standard error."""
        said = self.process.stderr.read().decode()
        assert_no_sanitizer_report(said)
        return said

    def is_full(self) -> bool:
        """Whether there is about as much as a terminal holds that nobody has taken."""
        waiting = fcntl.ioctl(self.terminal, termios.FIONREAD, b"\0" * 4)
        return struct.unpack("I", waiting)[0] >= 4000

    def hang_up(self) -> None:
        """Close the terminal's window."""
        for end in (self._program_end, self.terminal):
            os.close(end)
        self.terminal = -1

    def close(self) -> None:
        """End the program, and take the terminal away."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGKILL)
        self.process.wait(stretched(LIMIT))
        self.process.stderr.close()
        if self.terminal >= 0:
            self.hang_up()
