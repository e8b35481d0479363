"""Processes that the demo starts and ends: each by its id, on every way out.

A child dies with the demo even if the demo is killed outright, and what a child leaves behind
becomes a child of the demo, so that nothing is left running.
"""

import ctypes
import signal
import subprocess

from place import isolation

PR_SET_PDEATHSIG = 1
PATIENCE = 5.0

_libc = ctypes.CDLL(None, use_errno=True)


def _die_with_parent() -> None:
    """Run in a child before its program: ask for SIGTERM when the demo ends."""
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGTERM)


def _end(child: subprocess.Popen) -> None:
    """Ask one child to end, and insist if it does not."""
    child.terminate()
    try:
        child.wait(PATIENCE)
    except subprocess.TimeoutExpired:
        child.kill()
        child.wait()


class Processes:
    """The processes of one demo."""

    def __init__(self) -> None:
        self._children: list[subprocess.Popen] = []
        isolation.adopt_orphans()

    def start(self, *command: str, **options) -> subprocess.Popen:
        """Start a program in a session of its own, out of reach of the terminal's Ctrl-C."""
        child = subprocess.Popen(command, stdin=subprocess.DEVNULL, start_new_session=True,
                                 preexec_fn=_die_with_parent, **options)
        self._children.append(child)
        return child

    def end_all(self) -> None:
        """End everything, the latest first, and what was left behind."""
        for child in reversed(self._children):
            _end(child)
        isolation.end_children(spared=set())
