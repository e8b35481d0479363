"""A station with security on, as fixtures: its two consoles and its two ways in."""

import pytest

from harness.access import bring_up
from harness.door import Door
from harness.hall import Hall
from harness.helpers import FakeHelper
from harness.waiting import free_port, wait_listening


@pytest.fixture
def fortress(station):
    """A station with security on: "box" asks for a login on its own port, "vault" has none."""
    helper = FakeHelper(station)
    helper.accept(b"root", b"secret")
    port = free_port()
    box = station.console("box", mapped_port=port, auth=1)
    station.vault = station.console("vault")
    bring_up(station, box, station.vault, options=("-S", "1"))
    wait_listening(port)
    return station, Door(station, helper, box, port), Hall(station, helper, box)


@pytest.fixture
def door(fortress):
    """The console's own port."""
    return fortress[1].note_rest()


@pytest.fixture
def hall(fortress):
    """The main port."""
    return fortress[2].note_rest()
