"""The manual pages against the programs: every option and command, and clean sources."""

import re
import subprocess

import pytest

from harness import settings, zevctl

ZEVCTL_PAGE = settings.REPOSITORY / "zevctl/zevctl.1"
ZEVD_PAGE = settings.REPOSITORY / "zevd/zevd.8"


def page(path) -> str:
    """The page as it is read, without the marks for bold and underlined text."""
    shown = subprocess.run(["mandoc", "-T", "ascii", path], capture_output=True, text=True,
                           check=True).stdout
    return re.sub(".\b", "", shown)


def options_of(help_text: str) -> set[str]:
    """The long options in a help text of the client."""
    return set(re.findall(r"(?:^  |,)(--[a-z-]+)", help_text, re.MULTILINE))


@pytest.mark.parametrize("path", [ZEVCTL_PAGE, ZEVD_PAGE])
def test_the_source_is_clean(path):
    done = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", path], capture_output=True,
                          text=True, check=False)
    assert (done.returncode, done.stdout) == (0, "")


def test_the_clients_page_names_every_command_and_option():
    text = page(ZEVCTL_PAGE)
    whole = zevctl.succeed(None, "--help")
    commands = re.findall(r"^  ([a-z]+) ", whole.partition("Subcommands:")[2], re.MULTILINE)
    assert len(commands) >= 13
    wanted = options_of(whole).union(*(options_of(zevctl.succeed(None, command, "--help"))
                                       for command in commands))
    assert {word for word in {*commands, *wanted} if not re.search(
        rf"(?<![\w-]){word}(?![\w-])", text)} == set()


def test_the_clients_page_names_no_option_that_is_not_there():
    commands = re.findall(r"^  ([a-z]+) ",
                          zevctl.succeed(None, "--help").partition("Subcommands:")[2],
                          re.MULTILINE)
    known = options_of(zevctl.succeed(None, "--help")).union(
        *(options_of(zevctl.succeed(None, command, "--help")) for command in commands))
    assert set(re.findall(r"(?<![\w-])--[a-z-]+", page(ZEVCTL_PAGE))) <= known


def test_the_daemons_page_names_every_option(station):
    usage = station.run("-h").stdout
    wanted = set(re.findall(r"^   (-[a-zA-Z]) ", usage, re.MULTILINE))
    assert len(wanted) == 12
    shown = set(re.findall(r"^     (-[a-zA-Z])\b", page(ZEVD_PAGE), re.MULTILINE))
    assert shown == wanted
