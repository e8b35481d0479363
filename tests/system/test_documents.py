"""The documents against the programs: what they list."""

import re

from harness import settings
from harness.access import bring_up
from harness.commands import Tool
from harness.scenes import leave

README = settings.REPOSITORY / "README.md"
PROTOCOL = settings.REPOSITORY / "docs/protocol.md"
DAEMON = settings.REPOSITORY / "zevd"


def first_cells(text: str) -> list[str]:
    """What stands between back-quotes at the start of a table's rows."""
    return re.findall(r"^\| `([^`]*)`", text, re.MULTILINE)


def between(text: str, start: str, end: str) -> str:
    """The part of a text from one mark to the next."""
    found = re.search(f"{re.escape(start)}(.*?){re.escape(end)}", text, re.DOTALL)
    assert found, f"nothing between {start!r} and {end!r}"
    return found[1]


# README


def test_the_readme_tells_every_refusal():
    source = (DAEMON / "user.cpp").read_text()
    texts = re.findall(r'^    "(\d{3} - .*)\\r\\n",$', source, re.MULTILINE)
    assert len(texts) == 16
    refusals = between(README.read_text(), "## When you are refused", "\n## ")
    assert first_cells(refusals) == texts


def test_the_readme_tells_every_mode():
    source = (DAEMON / "user.cpp").read_text()
    modes = re.findall(r'\{k\w+, "(\w\w)", "', source)
    assert len(modes) == 4
    attach = between(README.read_text(), "### 8. Attach", "\n### ")
    assert sorted(first_cells(attach)) == sorted(modes)


# The command port


def test_the_protocol_lists_every_command():
    source = (DAEMON / "cmd_mon.cpp").read_text()
    commands = re.findall(r'^    \{"(\w+)", k\w+Command, CommandArgument::', source, re.MULTILINE)
    assert len(commands) == 12
    table = between(PROTOCOL.read_text(), "## Commands", "\n### ")
    assert sorted(cell.split()[0] for cell in first_cells(table)) == sorted(commands)


def test_the_protocol_tells_of_every_command_which_consoles_of_a_name_it_takes():
    """All commands but those without a console."""
    text = PROTOCOL.read_text()
    commands = {cell.split()[0] for cell in first_cells(between(text, "## Commands", "\n### "))}
    rows = re.findall(r"^\|([^|]*)\|", between(text, "### Names that differ", "\n### "),
                      re.MULTILINE)
    told = re.findall(r"`(\w+)`", " ".join(rows))
    assert sorted(told) == sorted(commands - {"stats"})


def test_the_protocol_tells_the_size_of_every_record():
    source = (DAEMON / "command_wire.h").read_text()
    sizes = {int(size) for size in re.findall(r"k\w+PacketSize = (\d+);", source)}
    told = re.findall(r"^[\w-]+ record, (\d+) bytes", PROTOCOL.read_text(), re.MULTILINE)
    assert len(told) == 4 and set(map(int, told)) == sizes


def test_the_protocol_tells_every_key_of_the_json_answers(station):
    box = station.console("box")
    bring_up(station, box)
    station.attach("box")
    tool = Tool(station)
    console, = tool.objects("status")
    stats, = tool.objects("stats")
    text = PROTOCOL.read_text()
    tables = re.findall(r"^\| key[^|]*\| meaning \|\n((?:\|.*\n)+)", text, re.MULTILINE)
    told = [re.findall(r"`(\w+)`", " ".join(re.findall(r"^\|([^|]*)\|", table, re.MULTILINE)))
            for table in tables]
    assert told == [list(console), list(console["users"][0]), list(stats)]


def test_the_protocol_tells_the_truth_of_names_that_differ_in_case(station):
    """As it says of "who" and "portholder": they end at the first connected one without users."""
    boxes = {name: station.console(name) for name in ("box", "Box", "BOX")}
    bring_up(station, *boxes.values())
    order = re.findall(r"AddConsoleToList: Added console (\w+) to a_cons_list\.",
                       station.log_text())
    assert sorted(order) == sorted(boxes)
    tool = Tool(station)
    own = "127.0.0.1"

    def told(command: str) -> list[str]:
        return [record[0] for record in tool.command(f"{command} box").records]

    def attach(place: int):
        return station.attach(order[place], user=f"u{place}", addr=f"a{place}")

    assert (told("who"), told("portholder")) == ([], [own])
    first = attach(0)
    attach(2)
    assert (told("who"), told("portholder")) == (["u0"], ["a0", own])
    attach(1)
    assert (told("who"), told("portholder")) == (["u0", "u1", "u2"], ["a0", "a1", "a2"])
    leave(station, first)
    assert (told("who"), told("portholder")) == ([], [own])
