"""The console configuration file: how lines are split into fields, and errors in them."""

import re

import pytest

from harness.debuglog import messages
from harness.station import console_line
from harness.waiting import free_port

FULL = 'c1 127.0.0.1 2001 23 0 A200 sys1 "Some OS" 1 0 0 1 "" '

SHOWN = ("name", "addr", "cons_port", "mgmt_port", "mapped_port", "logging", "events", "enable",
         "auth", "deleted")


@pytest.fixture
def load(station):
    """Starts the daemon with a configuration; returns its complaints and the consoles it keeps."""
    def load_text(text: str) -> tuple[list[str], list[dict[str, str]]]:
        station.write_config(text)
        station.start("-d", "1")
        station.wait_log("ACCESSIBLE CONSOLES:")
        said = messages(station.log_text())
        complaints = [message for message in said if message.startswith("LoadConfigFile: ")]
        return complaints, printed_consoles(said)

    return load_text


def printed_consoles(said: list[str]) -> list[dict[str, str]]:
    """The consoles in the daemon's printed list of inaccessible ones."""
    start = said.index("INACCESSIBLE CONSOLES:\n") + 1
    lines = said[start:said.index("ACCESSIBLE CONSOLES:\n")]
    size = len(SHOWN) + 1
    assert len(lines) % size == 0, lines
    consoles = []
    for block in (lines[index:index + size] for index in range(0, len(lines), size)):
        assert block[-1] == "\n"
        fields = dict(line[:-1].split(" = ", 1) for line in block[:-1])
        assert tuple(fields) == SHOWN
        consoles.append(fields)
    return consoles


def names(consoles: list[dict[str, str]]) -> list[str]:
    """The consoles' names, in order."""
    return [console["name"] for console in consoles]


def missing(field: str, line: int = 1) -> list[str]:
    """The only message about a line that lacks this field."""
    return [f"LoadConfigFile: Missing {field} at line {line}\n"]


# Well-formed lines


def test_every_field_is_kept(load):
    complaints, consoles = load(
        'c1 10.1.2.3 2001 23 0 M100 sys1 "Some OS 5.1" 1 2 0 3 "" \n')
    assert complaints == []
    assert consoles == [{"name": "c1", "addr": "10.1.2.3", "cons_port": "2001",
                         "mgmt_port": "23", "mapped_port": "0", "logging": "1", "events": "2",
                         "enable": "0", "auth": "3", "deleted": "0"}]


def test_the_mapped_port_is_kept_and_listened_on(station, load):
    port = free_port()
    complaints, consoles = load(FULL.replace("23 0", f"23 {port}"))
    assert complaints == []
    assert consoles[0]["mapped_port"] == str(port)
    station.wait_log(f"ListenOnPort: bind() to port {port} succeeded")


def test_consoles_come_in_the_order_of_their_lines(load):
    wanted = [f"c{number}" for number in (3, 1, 2)]
    _, consoles = load("".join(console_line(name, 1, enable=0) for name in wanted))
    assert names(consoles) == wanted


def test_the_command_line_may_name_the_configuration_file(station):
    other = station.root / "other.conf"
    other.write_text(console_line("elsewhere", 1, enable=0))
    station.console_line("here", 1, enable=0)
    station.start("-d", "1", "-c", str(other))
    station.wait_log("ACCESSIBLE CONSOLES:")
    assert names(printed_consoles(messages(station.log_text()))) == ["elsewhere"]


def test_runs_of_blanks_count_as_one(load):
    complaints, consoles = load('  c1   127.0.0.1  2001 23  0 A200 sys1 "OS"   1  0  0   1  ""  \n')
    assert complaints == []
    assert [consoles[0][key] for key in ("name", "addr", "cons_port", "logging", "auth")] == [
        "c1", "127.0.0.1", "2001", "1", "1"]


def test_what_follows_the_last_field_is_ignored(load):
    complaints, consoles = load(FULL + 'more " of it # and more\n')
    assert complaints == [] and names(consoles) == ["c1"]


@pytest.mark.parametrize("port, kept", [
    ("65535", "65535"), ("65536", "0"), ("65537", "1"), ("-1", "65535"), ("port", "0"),
    ("12ab", "12"), ("+7", "7"), ("007", "7"), ("0x10", "0"),
])
def test_ports_are_read_as_numbers_and_cut_to_16_bits(load, port, kept):
    complaints, consoles = load(FULL.replace("2001 23 0", f"{port} {port} 0"))
    assert complaints == []
    assert (consoles[0]["cons_port"], consoles[0]["mgmt_port"]) == (kept, kept)


def test_a_mapped_port_above_16_bits_is_cut(load):
    port = free_port()
    _, consoles = load(FULL.replace("23 0", f"23 {65536 + port}"))
    assert consoles[0]["mapped_port"] == str(port)


def test_flags_are_numbers_of_any_size_and_words_count_as_0(load):
    complaints, consoles = load(FULL.replace('"Some OS" 1 0 0 1', '"Some OS" yes -1 0x1 999999'))
    assert complaints == []
    assert [consoles[0][flag] for flag in ("logging", "events", "enable", "auth")] == [
        "0", "-1", "0", "999999"]


@pytest.mark.parametrize("length, kept", [(63, 63), (64, 64), (65, 64), (2000, 64)])
def test_names_and_addresses_are_cut_to_64_characters(load, length, kept):
    complaints, consoles = load(
        f'{"n" * length} {"4" * length} 1 1 0 {"m" * length} {"p" * length} "OS" 0 0 0 0 "" \n')
    assert complaints == []
    assert (consoles[0]["name"], consoles[0]["addr"]) == ("n" * kept, "4" * kept)


# Comments and blank lines


@pytest.mark.parametrize("text", [
    "", "\n", "\n\n\n", "   \n", " ", "# comment\n", "   # comment\n", "#\n", "#",
    f"#{FULL}\n", "##########\n\n  #\n      \n",
])
def test_comments_and_blank_lines_are_skipped(load, text):
    assert load(text) == ([], [])


def test_comments_and_blank_lines_count_as_lines(load):
    complaints, consoles = load("# one\n\n   \n" + FULL + "\nonly-a-name \n#\nlast\n")
    assert complaints == (missing("console port", 5) + missing("IP address", 7))
    assert names(consoles) == ["c1"]


def test_a_number_sign_elsewhere_is_an_ordinary_character(load):
    complaints, consoles = load(FULL.replace("c1", "c1#x") + "\n")
    assert complaints == [] and names(consoles) == ["c1#x"]


def test_a_tab_is_an_ordinary_character(load):
    complaints, consoles = load(FULL.replace("c1", "c1\tx") + "\n\t# x\n")
    assert complaints == missing("console port", 2)
    assert names(consoles) == ["c1\tx"]


def test_a_carriage_return_is_an_ordinary_character(load):
    complaints, consoles = load("\r\n" + FULL + "\r\n")
    assert complaints == missing("IP address", 1) and names(consoles) == ["c1"]


# Missing fields


FIELDS = ["c1", "127.0.0.1", "2001", "23", "0", "A200", "sys1", '"OS"', "1", "0", "0", "1", '""']

MESSAGES = ["IP address", "console port", "management port", "user port", "model number",
            "platform name", "OS type", "logging flag", "events flag", "enable flag",
            "authentication flag", "event file name"]


@pytest.mark.parametrize("count", range(1, 13))
def test_the_first_missing_field_is_named(load, count):
    text = "# comment\n" + " ".join(FIELDS[:count])
    if count == 8:
        text = text[:-1]  # the newline would follow the closing quote and be the next field
    complaints, consoles = load(text + "\n" + FULL.replace("c1", "c2") + "\n")
    assert complaints == missing(MESSAGES[count - 1], 2)
    assert names(consoles) == ["c2"]


@pytest.mark.parametrize("count", range(1, 12))
def test_the_newline_after_a_blank_is_a_field(load, count):
    """A line that ends in a blank lacks one field less: the newline counts as one."""
    complaints, consoles = load(" ".join(FIELDS[:count]) + " \n")
    assert complaints == missing(MESSAGES[count])
    assert consoles == []


def test_a_last_line_without_newline_is_read(load):
    assert load(" ".join(FIELDS[:12])) == (missing("event file name"), [])


def test_a_last_line_without_newline_may_be_complete(load):
    complaints, consoles = load(" ".join(FIELDS))
    assert complaints == [] and names(consoles) == ["c1"]


def test_a_line_cut_anywhere_is_one_console_or_one_complaint(load):
    lines = [FULL[:length] for length in range(1, len(FULL) + 1)]
    complaints, consoles = load("".join(f"{line}\n" for line in lines))
    complained = [int(re.search(r"at line (\d+)\n$", text)[1]) for text in complaints
                  if "Missing" in text]
    assert complained == sorted(set(complained))
    assert len(complained) + len(consoles) == len(lines)
    assert complained == list(range(1, len(complained) + 1))


# The quoted field


def test_an_operating_system_without_quotes_swallows_the_rest(load):
    assert load("c1 127.0.0.1 2001 23 0 A200 sys1 OSNAME 1 1 1 0 ev \n") == (
        missing("logging flag"), [])


def test_quotes_later_in_the_line_end_an_unquoted_operating_system(load):
    assert load('c1 127.0.0.1 2001 23 0 A200 sys1 OSNAME 1 1 1 0 "" \n') == (
        missing("enable flag"), [])


def test_an_empty_operating_system_swallows_the_flags(load):
    assert load('c1 127.0.0.1 2001 23 0 A200 sys1 "" 1 1 1 0 ev \n') == (
        missing("logging flag"), [])


def test_two_blanks_before_the_quote_shift_the_fields(load):
    complaints, consoles = load('c1 127.0.0.1 2001 23 0 A200 sys1  "Some OS" 4 3 0 2 ev \n')
    assert complaints == ["LoadConfigFile: Event file 0 not found for console c1\n"]
    assert [consoles[0][flag] for flag in ("logging", "events", "enable", "auth")] == [
        "0", "0", "4", "3"]


def test_the_flag_may_follow_the_closing_quote_directly(load):
    complaints, consoles = load(FULL.replace('"Some OS" 1', '"Some OS"1'))
    assert complaints == [] and consoles[0]["logging"] == "1"


# Event files


def test_an_unknown_event_file_is_reported_and_the_console_kept(load):
    complaints, consoles = load(FULL.replace('""', "nosuchfile"))
    assert complaints == ["LoadConfigFile: Event file nosuchfile not found for console c1\n"]
    assert names(consoles) == ["c1"]


@pytest.mark.parametrize("event_file", ["ev", '""'])
def test_an_event_file_at_the_end_of_its_line_carries_the_newline(load, event_file):
    complaints, consoles = load(FULL.replace('""', event_file).rstrip() + "\n")
    assert complaints == [f"LoadConfigFile: Event file {event_file}\n not found for console c1\n"]
    assert names(consoles) == ["c1"]


# Long lines


def test_a_line_of_9000_characters_is_read_as_two(load):
    complaints, consoles = load("#" * 9000 + "\n" + "x" * 9000 + "\n" + FULL + "\n")
    # The second piece of the first line is a comment; that of the second is a name.
    assert complaints == missing("IP address", 3) + missing("IP address", 4)
    assert names(consoles) == ["c1"]


def test_the_buffer_cuts_a_line_after_8191_characters(load):
    blanks = " " * (8191 - len(FULL) - 1)
    complaints, consoles = load(f"{blanks}{FULL}x\n{blanks}{FULL}xy\n")
    # The rest of each line, at least its newline, counts as a line.
    assert complaints == missing("IP address", 4)
    assert names(consoles) == ["c1", "c1"]


def test_a_comment_may_be_cut_into_a_console(load):
    complaints, consoles = load("#" * 8191 + FULL + "\n")
    assert complaints == [] and names(consoles) == ["c1"]


# Duplicates


def test_two_lines_with_one_name_make_two_consoles_and_the_first_is_found(station):
    station.console_line("twin", 1, enable=0)
    station.console_line("twin", 2, enable=1)
    station.start("-d", "1")
    station.wait_log("ACCESSIBLE CONSOLES:")
    assert names(printed_consoles(messages(station.log_text()))) == ["twin", "twin"]
    user = station.ask("twin")
    user.expect_exactly(b"012 - Console is disabled.\r\n")
    user.expect_closed()


def test_two_lines_with_one_address_make_two_consoles(load):
    _, consoles = load(FULL + "\n" + FULL.replace("c1", "c2") + "\n")
    assert names(consoles) == ["c1", "c2"]


# Foreign bytes


def test_any_bytes_are_tolerated(load):
    every_byte = "".join(chr(byte) for byte in range(1, 256) if chr(byte) not in "\n ")
    lines = [every_byte, f"{every_byte} {every_byte}", f"a {every_byte} {every_byte} b", FULL]
    complaints, consoles = load("".join(f"{line}\n" for line in lines))
    assert complaints == (missing("IP address", 1) + missing("console port", 2)
                          + missing("user port", 3))
    assert names(consoles) == ["c1"]


def test_a_nul_byte_affects_only_its_line(load):
    _, consoles = load("c0 127.0.0.1 \0 more\n" + FULL + "\n")
    assert names(consoles) == ["c1"]


def test_format_specifiers_in_a_field_are_plain_text(load):
    complaints, consoles = load(FULL.replace("c1", "%s%n%d").replace('""', "%s%n"))
    assert complaints == ["LoadConfigFile: Event file %s%n not found for console %s%n%d\n"]
    assert names(consoles) == ["%s%n%d"]
