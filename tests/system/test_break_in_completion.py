"""Console names on a command line: the shells complete them and run no part of them."""

import os

import pexpect
import pytest

from harness import zevctl
from harness.impostors import FakeDaemon, console_record
from harness.terminals import close_terminal
from harness.waiting import LIMIT, stretched

PROMPT = "ready> "

# Each of them would do harm on a command line or on the screen, or become two words.
HARMFUL = [
    b"$(id>trap)", b"x$(id>trap)", b"`id>trap`", b"x;id>trap", b"x&id>trap", b"x|id>trap",
    b"x\nid>trap", b"x\rid>trap", b"x>trap", b"x<trap", b"x id>trap", b"x\tid>trap", b"'x", b'"x',
    b"x\\", b"*", b"x*", b"tra?", b"[t]rap", b"{a,b}", b"~root", b"!!", b"x!y", b"x#", b"#x",
    b"^x^y", b"(x)", b"<file>", b"-x", b"--cookie-file=/x",
    b"\x1b[2J", b"x\x9b2J", b"x\xc2\x9b2J", b"x\x7f",
    "x\u202ey".encode(), "x\u2028y".encode(), b"x\xff",
]
HARMLESS = [b"rack7-db1", b"a_b.c:d@e%f+g,h/i=j", "grün".encode()]


def offered(daemon: FakeDaemon, *words: str) -> list[str]:
    """The lines that the shells' functions get."""
    done = zevctl.run(None, "complete", "--port", str(daemon.port), *words)
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout.splitlines()


@pytest.mark.parametrize("name", HARMFUL)
def test_a_harmful_name_is_not_offered(name):
    with FakeDaemon(console=[console_record(b"before"), console_record(name),
                             console_record(b"behind")]) as daemon:
        assert offered(daemon, "attach", "") == ["before", "behind"]


def test_harmless_names_are_offered():
    with FakeDaemon(console=[console_record(name) for name in HARMLESS]) as daemon:
        assert offered(daemon, "attach", "") == [name.decode() for name in HARMLESS]


def test_a_real_console_with_a_harmful_name_is_not_offered(station):
    for name in ("$(id>trap)", "*", "good"):
        station.console(name, listening=False)
    station.start()
    done = zevctl.run(None, "complete", "--port", str(station.port), "attach", "")
    assert done.stdout == "good\n"


# The shells, with a client that offers anything, even names that zevctl leaves out.

CLIENT = """#!/bin/sh
if [ "$1" = complete ]; then
    [ -z "$OFFERED" ] || printf '%s\\n' "$OFFERED"
else
    printf '%s\\n' "$@" > arguments
fi
"""

SHELLS = {
    "bash": (["--norc", "--noprofile", "-i"],
             ["bind 'set enable-bracketed-paste off'", "bind 'set completion-query-items 0'",
              "bind 'set bell-style none'"]),
    "zsh": (["-f", "-i"], ["unsetopt zle_bracketed_paste prompt_sp beep",
                           "autoload -Uz compinit && compinit -u -D"]),
}


class Shell:
    """A shell on a terminal of its own, in a directory of its own, with the completion loaded."""

    def __init__(self, name: str, place, offered_names: str) -> None:
        self._place = place
        tools = place / "tools"
        tools.mkdir()
        (tools / "zevctl").write_text(CLIENT)
        (tools / "zevctl").chmod(0o755)
        (tools / "completion").write_text(zevctl.succeed(None, "completion", name))
        options, settings = SHELLS[name]
        env = zevctl.environment(PATH=f"{tools}:{os.environ['PATH']}", PS1=PROMPT, TERM="dumb",
                                 HOME=str(tools), ZDOTDIR=str(tools), INPUTRC="/dev/null",
                                 OFFERED=offered_names, LC_ALL="C.UTF-8")
        work = place / "work"
        work.mkdir()
        (work / "trap?").touch()
        self._child = pexpect.spawn(name, options, cwd=work, env=env, timeout=stretched(LIMIT),
                                    dimensions=(60, 200), encoding="utf-8")
        self._child.delaybeforesend = None
        self._child.expect_exact(PROMPT)
        for line in [*settings, "source ../tools/completion"]:
            self.run(line)

    def run(self, line: str) -> None:
        """Run a whole line and wait for the next prompt."""
        self._child.send(line + "\r")
        self._child.expect_exact("\n")
        self._child.expect_exact(PROMPT)

    def complete_and_run(self, line: str) -> list[str]:
        """Type the line and its tabs, and run it; return the client's arguments."""
        self._child.send(line + "\r")
        self._child.send("echo done-$((1 + 1))\r")
        self._child.expect_exact("done-2")
        arguments = self._place / "work" / "arguments"
        return arguments.read_text().splitlines() if arguments.exists() else []

    def files(self) -> list[str]:
        return sorted(path.name for path in (self._place / "work").iterdir())

    def close(self) -> None:
        close_terminal(self._child)


@pytest.fixture
def shell(tmp_path):
    shells = []

    def start(name: str, offered_names: str) -> Shell:
        shells.append(Shell(name, tmp_path, offered_names))
        return shells[-1]

    yield start
    for started in shells:
        started.close()


@pytest.mark.parametrize("name", SHELLS)
@pytest.mark.parametrize("harmful", [
    "$(id>trap)", "`id>trap`", "x;id>trap", "x&&id>trap", "x|id>trap", "x>trap", "x id", "*",
    "tra*", "'x", '"x', "x\\", "~", "!!", "{a,b}", "$HOME", "x#y"])
def test_the_shell_takes_what_it_is_offered_as_text(shell, name, harmful):
    """The only word offered is put on the line, which is then run."""
    started = shell(name, harmful)
    told = started.complete_and_run("zevctl attach \t")
    assert told == ["attach", harmful]
    assert started.files() == ["arguments", "trap?"]


@pytest.mark.parametrize("name", SHELLS)
@pytest.mark.parametrize("names, common", [
    ("x$(id>trap)1\nx$(id>trap)2", ["x$(id>trap)"]), ("t*\nx$(id>trap)\ny;id>trap", [])])
def test_several_names_are_shown_and_not_run(shell, name, names, common):
    """What they have in common is put on the line; nothing is looked up or run."""
    started = shell(name, names)
    tabs = {"bash": "\t\t", "zsh": "\t"}[name]  # another one would choose the first
    assert started.complete_and_run(f"zevctl attach {tabs}") == ["attach", *common]
    assert started.files() == ["arguments", "trap?"]


@pytest.mark.parametrize("name", SHELLS)
def test_the_shell_completes_a_plain_name(shell, name):
    assert shell(name, "rack7-db1").complete_and_run("zevctl attach ra\t") == ["attach",
                                                                              "rack7-db1"]


@pytest.mark.parametrize("name", SHELLS)
def test_without_an_offer_nothing_is_completed(shell, name):
    assert shell(name, "").complete_and_run("zevctl attach ra\t") == ["attach", "ra"]


@pytest.mark.parametrize("name", SHELLS)
def test_completing_does_not_run_what_was_typed(shell, name):
    started = shell(name, "x")
    told = started.complete_and_run("zevctl attach '$(id>trap)' \t")
    assert told == ["attach", "$(id>trap)", "x"]
    assert started.files() == ["arguments", "trap?"]
