"""The end of a program on a terminal of its own."""

import contextlib

import pexpect

from harness.waiting import wait_until


def close_terminal(child: pexpect.spawn) -> None:
    """Close it as closing the terminal's window would, and end a program that stays.

    pexpect gives up when the program is still there a moment later; a busy machine takes longer.
    """
    with contextlib.suppress(pexpect.ExceptionPexpect):
        child.close(force=True)
    wait_until(lambda: not child.isalive(), what="the program on the terminal to end")
    child.close()
