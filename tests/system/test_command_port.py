"""The command port: connections, the command language and the answers byte by byte."""

import re
import struct
import time
from concurrent.futures import Future, ThreadPoolExecutor

import pytest

# `box` is a fixture.
from harness.access import LOOPBACK, banner, box, bring_up, refused, reload
from harness.commands import DONE, ERROR, RECORDS, Tool
from harness.consoles import refusal
from harness.logs import log_of, read
from harness.scenes import attach_when_accessible, held_still
from harness.station import Station, console_line
from harness.waiting import free_port, stretched, wait_listening, wait_until

PELLOX = "PX|M100"

CLEANED_UP = "CleanUpClosedConnections: Cleaning up closed command connection."
SEND_FAILED = "SendCommandResponse: send() failed : "

MANY = 10000
ALL_RECORDS = 8 + MANY * 264

# Other tools and new connections must be served in this time while one tool stalls.
AT_ONCE = 0.8


@pytest.fixture
def many(station) -> Station:
    """A station of ten thousand consoles, none of them enabled."""
    station.write_config("".join(console_line(f"console{number}", 1, enable=0)
                                 for number in range(MANY)))
    station.start("-d", "2", wait=False)
    wait_listening(station.port, 60)
    return station


def status_of(tool: Tool, name: str) -> tuple[str, str]:
    """The state and mode of one console as a tool sees them."""
    (record,) = tool.command(f"console {name}").records
    return record[6], record[7]


# Connections


def test_only_the_reserved_name_leads_to_the_command_port(station, box):
    refused(station.ask("@@@"), 4)
    assert Tool(station).command("console").count == 1


def test_a_tool_is_not_greeted(station, box):
    tool = Tool(station)
    tool.command("enable box")
    tool.expect_nothing_more()


def test_two_tools_are_served_in_turn(station, box):
    first, second = Tool(station), Tool(station)
    for _ in range(3):
        assert first.command("who box").type == RECORDS
        assert second.command("enable box").type == DONE


def test_lines_ready_at_once_are_served_in_the_order_of_connecting(station, box):
    first, second = Tool(station, user="first"), Tool(station, user="second")
    position = station.mark()
    with held_still(station):
        second.send("who box")
        first.send("enable box")
    second.answer("who")
    assert re.findall(r'ProcessCommand: Received command "(.*)\n" from "(.*)" at',
                      station.log_text(position)) == [("enable box", "first"),
                                                      ("who box", "second")]


def test_a_tool_that_leaves_is_removed_and_the_other_served(station, box):
    first, second = Tool(station), Tool(station)
    before = station.descriptors()
    first.peer.close()
    station.wait_log("ProcessCommand: ReadLine() returned -1")
    station.wait_log(CLEANED_UP)
    wait_until(lambda: station.descriptors() == before - 1, what="the socket to be closed")
    assert second.command("console box").count == 1


def test_a_tool_that_finishes_sending_gets_its_answer(station, box):
    tool = Tool(station)
    tool.send("console box")
    tool.peer.finish_sending()
    assert tool.answer("console").count == 1
    wait_until(lambda: tool.peer.closed, what="the end")
    tool.expect_nothing_more()


def test_a_command_may_be_sent_with_the_argument_line(station, box):
    tool = Tool(station, sent=b"@@@@ user=op\nconsole\n")
    assert tool.answer("console").count == 1
    assert tool.command("who box").count == 0


def test_a_tool_is_served_after_a_reload(station, box):
    tool = Tool(station)
    reload(station, waker=box)
    assert tool.command("console").count == 1


def test_an_idle_daemon_looks_for_tools_every_two_seconds(station):
    station.start()
    found = station.wait_log("Entering CheckForCommand", after=station.mark())
    start = time.monotonic()
    station.wait_log("Entering CheckForCommand", count=2, after=found.end)
    assert 3.9 < time.monotonic() - start < stretched(5)


def test_commands_sent_together_are_answered_in_order(station, box):
    tool = Tool(station)
    tool.send(b"enable box\nwho box\nnonsense\nconsole box\n")
    assert tool.answer("enable").type == DONE
    assert tool.answer("who").type == RECORDS
    assert tool.answer("nonsense").text == "Invalid command."
    assert tool.answer("console").count == 1


def test_what_a_tool_sends_is_logged_with_its_name(station, box):
    tool = Tool(station, user="ann", addr="10.9.8.7")
    tool.command("enable box")
    received = 'ProcessCommand: Received command "enable box\n" from "ann" at "10.9.8.7".\n'
    wait_until(lambda: received in station.log_text(), what="the command in the log")
    station.wait_log('SendCommandResponse: Sending response "3" to "ann" at "10.9.8.7".')


def test_a_tool_that_vanishes_in_a_long_answer_disturbs_no_other(many):
    leaver, other = (Tool(many, wait=False) for _ in range(2))
    leaver.peer.stop_reading()
    leaver.send("console")
    many.wait_log(re.compile('^SendCommandResponse: Sending response "1"'))
    assert other.command("console console1").count == 1
    leaver.peer.reset()
    many.wait_log(re.compile(f"^{re.escape(SEND_FAILED)}(Connection reset by peer|Broken pipe)$"))
    many.wait_log(CLEANED_UP)
    assert other.command("console console1").count == 1


def time_of_an_answer(tool: Tool) -> float:
    """How long the tool waits for an answer that needs nothing but the command port."""
    start = time.monotonic()
    assert tool.command("nonsense").text == "Invalid command."
    return time.monotonic() - start


def longest_wait(tool: Tool, meanwhile: Future) -> float:
    """Ask again and again while something goes on; return the longest time to an answer."""
    times = []
    while not meanwhile.done():
        times.append(time_of_an_answer(tool))
    assert len(times) > 10
    return max(times)


def ask_for_all(station: Station, tool: Tool) -> None:
    """Have the daemon begin to answer a tool that does not read."""
    tool.peer.stop_reading()
    tool.send("console")
    station.wait_log(re.compile('^SendCommandResponse: Sending response "1"'))


def test_a_tool_that_never_reads_a_long_answer_is_dropped(many):
    deaf, other = (Tool(many, wait=False) for _ in range(2))
    ask_for_all(many, deaf)
    with ThreadPoolExecutor() as pool:
        start = time.monotonic()
        dropped = pool.submit(many.wait_log, f"{SEND_FAILED}Connection timed out", limit=30)
        assert longest_wait(other, dropped) < stretched(AT_ONCE)
        dropped.result()
    assert time.monotonic() - start > 4.5
    deaf.peer.read_again()
    wait_until(lambda: deaf.peer.closed, what="the end")
    assert struct.unpack("<II", deaf.peer.received[:8]) == (RECORDS, MANY)
    assert len(deaf.peer.received) < ALL_RECORDS
    answer = other.command("console")
    assert [record[0] for record in answer.records] == [f"console{n}" for n in range(MANY)]


def test_a_tool_that_reads_slowly_gets_everything_and_delays_nobody(many):
    slow = Tool(many, wait=False, buffer=4096)
    other = Tool(many, wait=False)
    ask_for_all(many, slow)
    slow.send("nonsense")
    with ThreadPoolExecutor() as pool:
        start = time.monotonic()
        reading = pool.submit(slow.read_slowly, ALL_RECORDS + 8 + 17, 16384, 0.01)
        assert time_of_an_answer(Tool(many, wait=False)) < stretched(AT_ONCE)  # a new one, too
        assert longest_wait(other, reading) < stretched(AT_ONCE)
        received = reading.result()
    assert time.monotonic() - start > 1
    everything = other.command("console")
    assert received == (struct.pack("<II", RECORDS, MANY) + everything.raw
                        + struct.pack("<II", ERROR, 17) + b"Invalid command.\0")


# The language


@pytest.mark.parametrize("line, text", [
    ("", "No command specified."),
    ("   ", "No command specified."),
    ("reboot box", "Invalid command."),
    ("who\tbox", "Invalid command."),
    ("who", "No console specified."),
    ("msg", "No console specified."),
    ("clear", "No console specified."),
    ("disable", "No console specified."),
    ("enable", "No console specified."),
    ("force", "No console specified."),
    ("portholder", "No console specified."),
    ("reconnect", "No console specified."),
    ("clear nobody", 'Unrecognized console "nobody".'),
    ("disable nobody", 'Unrecognized console "nobody".'),
    ("enable nobody", 'Unrecognized console "nobody".'),
    ("msg nobody hello", 'Unrecognized console "nobody".'),
    ("force nobody", 'Unrecognized console "nobody".'),
    ("reconnect nobody", 'Unrecognized console "nobody".'),
    ("portholder nobody", 'Unrecognized console "nobody".'),
])
def test_a_bad_command_gets_its_error(station, box, line, text):
    answer = Tool(station).command(line)
    assert answer.text == text
    assert answer.count == len(text) + 1


def test_a_message_needs_a_separator_after_the_name(station, box):
    tool = Tool(station)
    tool.send(b"msg box")
    assert tool.answer("msg").text == "No message specified."


def test_an_error_text_is_cut_to_79_characters(station, box):
    name = "n" * 100
    answer = Tool(station).command(f"clear {name}")
    assert answer.text == f'Unrecognized console "{name}".'[:79]
    assert answer.count == 80


def test_case_and_extra_words_are_ignored(station, box):
    tool = Tool(station)
    assert tool.command("CONSOLE BOX and more").count == 1
    assert tool.command("Enable boX now").type == DONE


def test_a_line_ends_in_carriage_return_and_line_feed(station, box):
    assert Tool(station).command("console box\r").count == 1


def test_the_rest_of_a_long_line_is_the_next_command(station, box):
    tool = Tool(station)
    tool.send(b"x" * 1023 + b"console box\n")
    assert tool.answer("").text == "Invalid command."
    assert tool.answer("console").count == 1


def test_a_line_of_1023_bytes_is_one_command(station, box):
    tool = Tool(station)
    line = b"console box ".ljust(1022, b"x") + b"\n"
    assert len(line) == 1023
    tool.send(line)
    assert tool.answer("console").count == 1
    assert tool.command("who box").count == 0


def test_a_line_in_two_pieces_is_two_commands(station, box):
    tool = Tool(station)
    for piece in (b"cons", b"ole box\n"):
        tool.send(piece)
        assert tool.answer("").text == "Invalid command."
    assert tool.command("console box").count == 1


def test_bytes_that_are_not_text_do_no_harm(station, box):
    tool = Tool(station)
    for line, text in ((b"\0console\n", "No command specified."),
                       (b"\xff\xff\xff\n", "Invalid command."),
                       (b"console\xff box\n", "Invalid command.")):
        tool.send(line)
        assert tool.answer("").text == text
    tool.send(b"console box\0\xff\n")
    assert tool.answer("console").count == 1
    tool.send(b"clear \xff\n")
    assert tool.answer("clear").raw == b'Unrecognized console "\xff".\0'
    assert tool.command("console box").count == 1


def test_a_done_header_keeps_the_count_of_the_answer_before(station):
    for number in range(5):
        station.console(f"c{number}", listening=False)
    station.start()
    tool = Tool(station)
    assert tool.command("console").count == 5
    assert tool.command("enable c1").count == 5


# Queries


def test_a_console_record_byte_for_byte(station):
    box = station.console("box", mgmt_port=515, model="A200", platform="rack-1")
    bring_up(station, box)
    answer = Tool(station).command("console")
    assert (answer.type, answer.count) == (RECORDS, 1)
    assert answer.raw == (
        b"box".ljust(64, b"\0") + LOOPBACK.encode().ljust(64, b"\0")
        + struct.pack("<HH", box.port, 515)
        + b"A200".ljust(64, b"\0") + b"rack-1".ljust(64, b"\0") + b"0\0" + b"0\0")


def test_without_consoles_there_are_no_records(station):
    station.start()
    tool = Tool(station)
    assert (tool.command("console").type, tool.command("console").count) == (RECORDS, 0)
    assert tool.command("mapped_port").count == 0
    tool.expect_nothing_more()


def test_an_unknown_name_gives_no_records(station, box):
    tool = Tool(station)
    for command in ("console nobody", "who nobody", "mapped_port nobody"):
        answer = tool.command(command)
        assert (answer.type, answer.count) == (RECORDS, 0)


def test_each_state_has_its_code(station):
    up = station.console("up")
    station.console("off", enable=0, listening=False)
    station.console("dead", listening=False)
    bring_up(station, up)
    station.wait_log(re.compile("Connection to dead .* refused"))
    tool = Tool(station)
    assert [record[0] for record in tool.command("console").records] == ["up", "off", "dead"]
    assert status_of(tool, "up") == ("0", "0")
    assert status_of(tool, "off") == ("5", "0")
    assert status_of(tool, "dead") == ("3", "0")
    station.attach("up")
    assert status_of(tool, "up") == ("1", "2")


def test_states_before_a_connection_have_their_codes(station):
    hanging = station.console("hanging")
    hanging.hang()
    station.console_line("nowhere", 23, address="255.255.255.255")
    station.start()
    station.wait_log(re.compile("ConnectToConsole: connect.. failed : "))
    station.wait_log(re.compile('CheckConnectionStatus: Checking status for "hanging"'), count=2)
    tool = Tool(station)
    assert status_of(tool, "nowhere") == ("2", "0")
    assert status_of(tool, "hanging") == ("4", "0")


@pytest.mark.parametrize("modes, code", [
    (["ro"], "1"), (["ro", "sh"], "2"), (["sh"], "2"), (["ex"], "3"), (["er"], "4"),
    (["ro", "ex"], "3"), (["ex", "ro"], "3"), (["ro", "ro"], "1"),
])
def test_the_first_user_who_can_type_decides_the_mode(station, box, modes, code):
    for mode in modes:
        station.attach("box", mode)
    assert status_of(Tool(station), "box") == ("1", code)


def test_a_hidden_user_is_not_seen(station, box):
    station.attach("box", "er", user="vrq")
    tool = Tool(station)
    assert status_of(tool, "box") == ("0", "0")
    assert tool.command("who box").count == 0


@pytest.mark.parametrize("mode, code", [("ro", "1"), ("sh", "2")])
def test_a_hidden_user_in_another_mode_is_counted_in_the_state(station, box, mode, code):
    station.attach("box", mode, user="VRQ")
    tool = Tool(station)
    assert status_of(tool, "box") == ("1", code)
    assert tool.command("who box").count == 0


def test_a_hidden_user_does_not_hide_another(station, box):
    station.attach("box", "ro", user="ann")
    station.attach("box", "er", user="VRQ")
    tool = Tool(station)
    assert status_of(tool, "box") == ("1", "1")
    assert tool.command("who box").records == (("ann", LOOPBACK, "1"),)


def test_users_are_listed_in_the_order_of_arrival(station, box):
    station.attach("box", "ro", user="ann")
    station.attach("box", user="u" * 32, addr="a" * 64)
    answer = Tool(station).command("who box")
    assert answer.records == (("ann", LOOPBACK, "1"), ("u" * 32, "a" * 64, "2"))
    assert len(answer.raw) == 2 * 98


def test_mapped_ports_of_connected_consoles_come_first(station):
    station.console("dead", listening=False, mapped_port=0, auth=1)
    port = free_port()
    up = station.console("up", mapped_port=port, auth=65537)
    bring_up(station, up)
    first, second = Tool(station).command("mapped_port").records
    assert first == ("up", LOOPBACK, up.port, port, 1)
    assert (second[0], second[3], second[4]) == ("dead", 0, 1)


# Control


def test_clear_tells_the_users_and_keeps_the_console(station, box):
    users = [station.attach("box", mode) for mode in ("ro", "sh")]
    tool = Tool(station, user="op")
    assert tool.command("clear BOX").type == DONE
    for user in users:
        user.expect_exactly(banner(f"Your session has been terminated by op@{LOOPBACK}"))
        user.expect_closed()
    assert status_of(tool, "box") == ("0", "0")
    later = station.attach("box")
    box.send(b"still here\n")
    later.expect(b"still here\n")
    wait_until(lambda: b" readystill here\n" in read(log_of(station, "box")),
               what="the log to go on")
    assert not box.closed


def test_clear_of_a_console_that_is_not_connected_changes_nothing(station):
    station.console("dead", listening=False)
    station.start()
    station.wait_log(re.compile("Connection to dead .* refused"))
    tool = Tool(station)
    assert tool.command("clear dead").type == DONE
    assert status_of(tool, "dead") == ("3", "0")


def test_disable_then_enable_a_connected_console(station, box):
    user = station.attach("box")
    tool = Tool(station)
    assert tool.command("disable box").type == DONE
    user.expect_exactly(banner(f"Console has been disabled by op@{LOOPBACK}"))
    user.expect_closed()
    box.expect_closed()
    wait_until(lambda: status_of(tool, "box") == ("5", "0"), what="the console to be disabled")
    refused(station.ask("box"), 12)
    assert tool.command("enable box").type == DONE
    box.accept()
    attach_when_accessible(station, "box")


def test_enable_of_an_unconnected_console_leaves_its_state(station):
    station.console("dead", listening=False)
    station.start()
    station.wait_log(re.compile("Connection to dead .* refused"))
    tool = Tool(station)
    assert tool.command("enable dead").type == DONE
    assert status_of(tool, "dead") == ("3", "0")
    assert tool.command("disable dead").type == DONE
    assert status_of(tool, "dead") == ("5", "0")
    assert tool.command("enable dead").type == DONE
    assert status_of(tool, "dead") == ("2", "0")  # until the next attempt, in a minute


def test_a_message_is_passed_on_as_it_is(station, box):
    user = station.attach("box")
    assert Tool(station).command("msg box back  at\tnoon ").type == DONE
    user.expect_exactly(banner(f"Message from op@{LOOPBACK}: \n\n\rback  at\tnoon \n"))


def test_an_empty_message_is_sent(station, box):
    user = station.attach("box")
    assert Tool(station).command("msg box").type == DONE
    user.expect_exactly(banner(f"Message from op@{LOOPBACK}: \n\n\r"))


def test_a_message_to_everybody_reaches_every_console(station):
    consoles = [station.console(f"c{number}") for number in range(2)]
    bring_up(station, *consoles)
    users = [station.attach(f"c{number}") for number in range(2)]
    assert Tool(station).command("msg - down at six").type == DONE
    for user in users:
        user.expect_exactly(banner(f"Message from op@{LOOPBACK}: \n\n\rdown at six\n"))


def test_a_message_to_everybody_may_reach_nobody(station):
    station.start()
    assert Tool(station).command("msg - hello").type == DONE


def test_a_message_to_a_console_that_is_not_connected_is_refused(station):
    station.console("dead", listening=False)
    station.start()
    assert Tool(station).command("msg dead hello").text == 'Unrecognized console "dead".'


# Management ports


@pytest.fixture
def held(station):
    """A Pellox console that has refused the daemon, because another client holds its session."""
    station.write_models(PELLOX)
    console = station.console("px", greeting=refusal("10.1.1.1"), model="M100")
    station.start()
    console.accept()
    station.wait_log(re.compile("Connection to px .* refused"))
    return console


def test_the_holder_of_a_refused_port(station, held):
    tool = Tool(station)
    assert tool.command("portholder px").records == (("10.1.1.1",),)
    assert tool.command("who px").records == (("Unknown", "10.1.1.1", "5"),)
    assert status_of(tool, "px") == ("3", "0")


def test_force_takes_the_session_over_at_once(station, held):
    tool = Tool(station)
    assert tool.command("force PX").type == DONE
    held.accept()
    held.expect(b"YES\n")
    station.wait_log("CheckConnectionStatus: Forcing connection for px")
    attach_when_accessible(station, "px")


def test_force_of_a_connected_console_changes_nothing(station, box):
    user = station.attach("box")
    tool = Tool(station)
    assert tool.command("force box").type == DONE
    assert status_of(tool, "box") == ("1", "2")
    box.send(b"still here")
    user.expect_exactly(b"still here")
    assert not box.called()


def test_force_of_an_unconnected_console_tries_it_at_once(station):
    console = station.console("dead", listening=False)
    station.start()
    station.wait_log(re.compile("Connection to dead .* refused"))
    console.listen()
    assert Tool(station).command("force dead").type == DONE
    console.accept()


def test_unknown_holders_are_reported(station):
    station.write_models(PELLOX)
    station.console("plain", model="A200", listening=False)
    station.console("px", model="M100", listening=False)
    station.start()
    tool = Tool(station)
    assert tool.command("portholder plain").text == "Not a Pellox console."
    assert (tool.command("portholder px").text
            == "Unable to connect to remote host, possibly bad port number.")


def test_the_holder_of_a_connected_console(station, box):
    tool = Tool(station)
    assert tool.command("portholder box").records == ((LOOPBACK,),)
    station.attach("box", addr="10.2.2.2")
    station.attach("box", addr="10.3.3.3")
    assert tool.command("portholder box").records == (("10.2.2.2",),)


def test_every_answer_type_is_one_of_three(station, box):
    tool = Tool(station)
    assert {tool.command(line).type
            for line in ("console", "nonsense", "enable box")} == {RECORDS, ERROR, DONE}
