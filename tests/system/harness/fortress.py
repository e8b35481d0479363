"""A station with security on, as fixtures: its two consoles and its two ways in."""

import pytest

from harness.access import bring_up
from harness.consoles import FakeConsole
from harness.door import Door
from harness.hall import Hall
from harness.helpers import FakeHelper
from harness.station import Station
from harness.waiting import free_port, wait_listening


def open_door(station: Station, *others: FakeConsole) -> Door:
    """Start a station with security on: "box" asks for a login on its own port.

    Root's password is "secret".
    """
    helper = FakeHelper(station)
    helper.accept(b"root", b"secret")
    port = free_port()
    box = station.console("box", mapped_port=port, auth=1)
    bring_up(station, box, *others, options=("-S", "1"))
    wait_listening(port)
    return Door(station, helper, box, port).note_rest()


@pytest.fixture
def fortress(station):
    """A station with security on: "box" asks for a login on its own port, "vault" has none."""
    station.vault = station.console("vault")
    opened = open_door(station, station.vault)
    return station, opened, Hall(station, opened.helper, opened.box)


@pytest.fixture
def door(fortress):
    """The console's own port."""
    return fortress[1]


@pytest.fixture
def hall(fortress):
    """The main port."""
    return fortress[2].note_rest()
