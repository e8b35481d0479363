"""A person at a terminal who is attached to a console: sitting down, and leaving."""

import contextlib
import re

from harness.waiting import LIMIT, stretched
from harness.zevctl import OK, Terminal

ATTACHED = ("zevctl: Attached to box (shared). Type ~. at the start of a line to leave, ~? for "
            "help.\r\n")
LEFT = "zevctl: Left box.\r\n"


def greeted(child, greeting: str = ATTACHED) -> bytes:
    """Wait for the greeting; return what the screen showed before it.

    How old the console's last output is stands in it where the daemon tells that.
    """
    attached, guide = greeting.split(").")
    child.expect_exact(attached + ")", timeout=stretched(LIMIT))
    before = child.before
    child.expect_exact(guide, timeout=stretched(LIMIT))
    assert re.fullmatch(rb"(, which last printed something (just now|\d+ \w+ ago))?\.",
                        child.before), child.before
    return before


@contextlib.contextmanager
def seated(station, *arguments: str, console: str = "box", greeting: str = ATTACHED):
    """A user at a terminal, attached to the console."""
    with Terminal(station, "attach", console, *arguments) as person:
        greeted(person.child, greeting)
        yield person


def leave(person: Terminal) -> None:
    """Leave by the escape, from the middle of a line."""
    person.type("\r~.")
    person.expect(LEFT)
    person.expect_end(OK)
