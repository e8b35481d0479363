"""What every step of the demo uses: to wait, to tell, and to fail."""

import time
from collections.abc import Callable
from typing import TypeVar

PATIENCE = 20.0
HOST = "127.0.0.1"
READABLE = {
    b"\xff\xfb\x01": b"[telnet: will echo]",
    b"\xff\xfb\x03": b"[telnet: will suppress go-ahead]",
    b"\x07": b"[bell]",
    b"\r": b"",
}

Found = TypeVar("Found")


class StepFailed(Exception):
    """Something that a step of the tour must see was not seen."""


def wait_until(condition: Callable[[], Found], what: str) -> Found:
    """Ask again and again until the answer is true, and return it."""
    deadline = time.monotonic() + PATIENCE
    while not (answer := condition()):
        if time.monotonic() > deadline:
            raise StepFailed(f"waited {PATIENCE:g} s for {what} in vain")
        time.sleep(0.02)
    return answer


def heading(text: str) -> None:
    print(f"\n=== {text}\n")


def seen(text: str) -> None:
    """Report a fact that has just been checked."""
    print(f"  ok: {text}\n")


def show(who: str, action: str, text: bytes) -> None:
    """Print bytes as a person would see them, with telnet's and other marks made readable."""
    for mark, words in READABLE.items():
        text = text.replace(mark, words)
    for line in text.decode(errors="backslashreplace").splitlines():
        print(f"  {who:>6} {action:5} | {line}".rstrip())
