"""Fixtures of the package tests, and what becomes of them where no machine can be booted."""

import os
import shutil
import sys
from pathlib import Path

sys.dont_write_bytecode = True
sys.path[:0] = [str(Path(__file__).parent), str(Path(__file__).parents[1] / "system")]

import pytest

from harness import settings

from machines import machine as machines_of_their_own
from machines import packages
from machines.station import Station

_PROGRAMS = ("debootstrap", "mount", "nsenter", "setpriv", "systemd-nspawn")
_state = {"why": ""}


def _why_no_machine() -> str:
    """Why this computer boots no machine; an empty text when it does."""
    if settings.namespaces_forbidden():
        return f"{settings.NO_NAMESPACES}=1 is set"
    if os.geteuid() != 0:
        return "only root may"
    missing = [program for program in _PROGRAMS if shutil.which(program) is None]
    if missing:
        return f"there is no {missing[0]}"
    try:
        machines_of_their_own.keep_mounts_private()
        machines_of_their_own.try_mounts()
    except (OSError, RuntimeError) as error:
        return str(error)
    return ""


def pytest_configure() -> None:
    _state["why"] = _why_no_machine()


def pytest_collection_modifyitems(items) -> None:
    if _state["why"]:
        skip = pytest.mark.skip(reason=f"no machine can be booted here: {_state['why']}")
        for item in items:
            if item.get_closest_marker("needs_machine"):
                item.add_marker(skip)


def pytest_terminal_summary(terminalreporter) -> None:
    if _state["why"]:
        terminalreporter.write_line(
            f"NO MACHINE WAS BOOTED ({_state['why']}): the packages were looked at and their units "
            "verified; nothing was installed.")
    else:
        terminalreporter.write_line("The packages were installed in machines that systemd-nspawn "
                                    "booted, with Debian's systemd as their first process.")


@pytest.fixture
def bare():
    """A booted machine on which nothing of ours is installed."""
    machine = machines_of_their_own.Machine().boot()
    try:
        yield machine
    finally:
        machine.end()


@pytest.fixture
def installed(bare):
    """A machine on which the packages have just been installed."""
    bare.install(*packages.found())
    return bare


@pytest.fixture(scope="module")
def station():
    """A station with people and a console, which the tests of a file share."""
    machine = machines_of_their_own.Machine().boot()
    try:
        machine.install(*packages.found())
        yield Station(machine).furnish()
    finally:
        machine.end()
