"""The daemon's reports on consoles and itself in JSON, and the command that retries a console."""

import time

# `box` is a fixture.
from harness.access import box, refused
from harness.commands import DONE, Tool
from harness.logs import log_of
from harness.scenes import connected, reload
from harness.station import console_line
from harness.waiting import wait_until

CONSOLE_KEYS = ["console", "state", "since", "last_output", "users"]
USER_KEYS = ["user", "given_user", "from", "given_from", "mode", "since"]
STATS_KEYS = ["started", "console_connections", "console_failures", "console_losses",
              "console_bytes", "console_lines", "log_records", "log_bytes", "log_records_lost",
              "connections",
              "refusals", "logins_accepted", "logins_refused", "users_attached", "users_left",
              "bytes_not_shown", "slow_readers", "tools_attached", "commands", "events_posted",
              "events_dropped",
              "reloads", "refusals_by_number", "cpu_microseconds", "memory_bytes", "journal",
              "journal_records", "journal_bytes", "journal_records_lost",
              "journal_gaps", "journal_end", "last_reload", "last_reload_result"]


def is_recent(moment: int) -> bool:
    """True when this is a time during this test."""
    return 0 <= time.time() - moment < 300


def test_status_shows_who_is_at_a_console_and_since_when(station, box):
    station.attach("box", user="anna", addr="desk", mode="ro")
    station.attach("box", mode="er")
    told, = Tool(station).objects("status BOX")
    assert list(told) == CONSOLE_KEYS
    assert (told["console"], told["state"]) == ("box", "in-use")
    assert is_recent(told["since"]) and is_recent(told["last_output"])
    first, second = told["users"]
    assert list(first) == list(second) == USER_KEYS
    assert is_recent(first.pop("since")) and is_recent(second.pop("since"))
    assert first == {"user": None, "given_user": "anna", "from": "127.0.0.1", "given_from": "desk",
                     "mode": "read-only"}
    assert second == {"user": None, "given_user": None, "from": "127.0.0.1", "given_from": None,
                      "mode": "exclusive-revoke"}


def test_status_hides_nobody(station, box):
    station.attach("box", mode="er", user="VRQ")
    tool = Tool(station)
    assert tool.command("who box").count == 0
    told, = tool.objects("status")
    assert [user["given_user"] for user in told["users"]] == ["VRQ"]


def test_status_lists_connected_consoles_first(station, box):
    station.write_config(console_line("aside", 1, enable=0) + console_line("box", box.port))
    reload(station)
    tool = Tool(station)
    assert [told["console"] for told in tool.objects("status")] == ["box", "aside"]
    assert tool.objects("status nobody") == []
    assert tool.command("console box").count == 1, "the connection is in step"


def test_status_of_consoles_that_are_not_connected(station):
    station.console("dead", listening=False)
    station.console_line("off", 1, enable=0)
    station.start()
    station.wait_log("UpdateConnectionStatus: Connection to dead (127.0.0.1/"
                     f"{station.config_file.read_text().split()[2]}) refused.")
    dead, off = Tool(station).objects("status")
    assert is_recent(dead.pop("since")) and is_recent(off.pop("since"))
    assert dead == {"console": "dead", "state": "refused", "last_output": None, "users": []}
    assert off == {"console": "off", "state": "disabled", "last_output": None, "users": []}


def test_stats_count_what_has_happened(station, box):
    user = station.attach("box")
    refused(station.ask("nobody"), 4)
    user.close()
    position = station.wait_log(
        "RemoveUserFromList: Removed user from console's user list for console box.").end
    box.send(b"\n")
    # Once the logging thread waits for output again, the line has been counted.
    position = station.wait_log("ProcessConsoleOutput: Received ->", after=position).end
    station.wait_log("Entering CheckForConsoleOutput", after=position, thread="main")
    assert len(log_of(station, "box").read_bytes().splitlines()) == 1
    tool = Tool(station)
    tool.command("console")
    told, = tool.objects("stats")
    assert list(told) == STATS_KEYS
    assert is_recent(told["started"])
    expected = {"console_connections": 1, "console_failures": 0, "console_losses": 0,
                "console_bytes": 6, "console_lines": 1, "slow_readers": 0, "log_records_lost": 0,
                "connections": 3, "refusals": 1,
                "users_attached": 1, "users_left": 1, "tools_attached": 1, "commands": 2,
                "reloads": 0, "last_reload": None, "last_reload_result": None}
    assert {key: told[key] for key in expected} == expected
    assert {number: count for number, count in told["refusals_by_number"].items() if count} == {
        "004": 1}
    assert told["cpu_microseconds"] > 0 and told["memory_bytes"] > 1 << 20
    assert told["log_records"] == 2 and told["log_bytes"] > 12


def test_stats_show_the_last_reload(station, box):
    tool = Tool(station)
    reload(station)
    wait_until(lambda: tool.objects("stats")[0]["reloads"] == 1, what="the reload to be counted")
    told, = tool.objects("stats")
    assert is_recent(told["last_reload"]) and told["last_reload_result"] == "done"
    (station.events / "broken").symlink_to("nothing")
    reload(station)
    wait_until(lambda: tool.objects("stats")[0]["reloads"] == 2, what="the reload to be counted")
    assert tool.objects("stats")[0]["last_reload_result"] == "event files failed"


def test_reconnect_tries_a_console_at_once(station):
    dead = station.console("dead", listening=False)
    station.start()
    station.wait_log(f"UpdateConnectionStatus: Connection to dead (127.0.0.1/{dead.port}) refused.")
    dead.listen()
    assert Tool(station).command("reconnect DEAD").type == DONE
    connected(station, dead, "dead")


def test_reconnect_leaves_a_connected_and_a_disabled_console_alone(station, box):
    station.write_config(console_line("box", box.port) + console_line("off", 1, enable=0))
    reload(station)
    user = station.attach("box")
    position = station.mark()
    tool = Tool(station)
    for name in ("box", "off"):
        assert tool.command(f"reconnect {name}").type == DONE
    box.send(b"still here")
    user.expect_exactly(b"still here")
    station.wait_log("Entering ConnectToConsoles", count=3, after=position)
    assert "Attempting to connect" not in station.log_text(position)
