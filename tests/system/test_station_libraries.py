"""A station's own libraries in place of those that come with the daemon."""

import subprocess

import pytest

from harness import settings
from harness.access import refused
from harness.peers import OFFERS
from harness.scenes import removal
from harness.waiting import wait_until

VALIDATION = "DoTqAuthValidation"

# Does what the client's line says, which holds the name, the answer and the argument line.
TQAUTH = r"""
#include <sys/socket.h>
#include <cstring>
#include "tqauth.h"

char* authenticate(int sock, char** user) {
  static thread_local char line[8192];
  size_t length = 0;
  while (recv(sock, line + length, 1, 0) == 1 && line[length] != '\n') ++length;
  line[length] = '\0';
  char* rest = line;
  const char* name = strsep(&rest, "|");
  const char* answer = strsep(&rest, "|");
  if (*name != '\0') *user = strdup(name);
  return strcmp(answer, "yes") == 0 ? rest : nullptr;
}
"""

# Accepts an event but not its priority, and records when an event is destroyed.
JIX = r"""
#include <cstdio>
#include <cstdlib>
#include "jix.h"

struct JixConn {};
struct JixEvent {};

JixStatus JixConnCreate(const JixConnOptions*, JixConn** conn) {
  *conn = new JixConn;
  return JixERROR_NONE;
}
JixStatus JixEventCreateVa(JixEvent** event, ...) {
  *event = new JixEvent;
  return JixERROR_NONE;
}
JixStatus JixItemSetVa(JixEvent*, ...) { return 77; }
JixStatus JixVarSet(JixEvent*, const char*, int, const char*) { abort(); }
JixStatus JixEventPost(JixConn*, const JixEvent*) { abort(); }
void JixEventDestroy(JixEvent* event) {
  delete event;
  FILE* file = fopen(DESTROYED, "a");
  fputs("destroyed\n", file);
  fclose(file);
}
void JixConnDestroy(JixConn*) { abort(); }
void JixStatusTextGet(JixStatus status, char* text, size_t size) {
  snprintf(text, size, "%s number %d", "trouble", status);
}
"""


@pytest.fixture
def build(tmp_path):
    """Makes a library of the station's; returns the environment in which it is found."""
    def made(name: str, code: str, *options: str) -> dict[str, str]:
        source = tmp_path / f"{name}.cpp"
        source.write_text(code)
        subprocess.run(["g++", "-shared", "-fPIC", "-I", settings.REPOSITORY / "platform" / name,
                        *options, "-o", tmp_path / f"lib{name}.so", source], check=True)
        return {"LD_LIBRARY_PATH": str(tmp_path)}

    return made


# Authentication


@pytest.fixture
def hall(station, build):
    """A station with its own library for the main port, and one console, "box"."""
    station.box = station.console("box", greeting=b"ready")
    station.start("-S", "1", env=build("tqauth", TQAUTH))
    station.box.accept()
    station.wait_connected("box")
    return station


def attached(station, line: bytes, name: str, mode: str = "shared") -> None:
    """A client with this line is attached under the name."""
    position = station.mark()
    with station.caller() as user:
        user.send(line + b"\n")
        user.expect_exactly(OFFERS)
        station.wait_log(f'ConnectUserToConsole: Connected user "{name}" to console "box" with '
                         f"mode = {mode}.", after=position)
    station.wait_log(removal(name), after=position)


def test_a_name_that_the_library_knows_comes_last(hall):
    attached(hall, b"carl|yes|box user=root mode=ex", "carl", "exclusive")
    hall.wait_log(f'{VALIDATION}: Authentication successful for user "carl".')


def test_without_a_name_the_one_in_the_line_is_used(hall):
    attached(hall, b"|yes|box user=ann mode=ro", "ann", "read-only")
    attached(hall, b"|yes|box", "<unknown>")
    hall.wait_log(f"{VALIDATION}: Authentication successful.", count=2)


@pytest.mark.parametrize("name", [b"", b"carl"])
def test_no_line_is_a_refusal_whatever_the_name(hall, name):
    with hall.caller() as user:
        user.send(name + b"|no|box user=ann\n")
        refused(user, 1)
    hall.wait_log(f"{VALIDATION}: Authentication failed.")
    assert "Connected user" not in hall.log_text()


# The line, " user=" and the name stay below 1024 characters.
@pytest.mark.parametrize("length, shown", [(1014, "n" * 32), (1015, "<unknown>"),
                                           (1100, "<unknown>"), (4000, "<unknown>")])
def test_a_name_is_added_where_it_fits(hall, length, shown):
    name = b"n" * length
    attached(hall, name + b"|yes|box", shown)
    hall.wait_log(f'{VALIDATION}: Authentication successful for user "{name.decode()}".')


def test_a_line_is_cut_to_1023_characters(hall):
    attached(hall, b"|yes|box user=ann".ljust(1021) + b"mode=ex", "ann", "exclusive")
    attached(hall, b"|yes|box user=ann".ljust(1022 + 5) + b" mode=ex", "ann")
    attached(hall, b"carl|yes|box".ljust(3000) + b"mode=ex", "<unknown>")


# Events


def test_an_event_whose_priority_cannot_be_set_is_reported_and_destroyed(station, build):
    destroyed = station.root / "destroyed"
    (station.events / "set").write_text("any 100 0 error\n")
    box = station.console("box", events=1, event_file="set", greeting=b"ready\n")
    station.start("-d", "1", env=build("jix", JIX, f'-DDESTROYED="{destroyed}"'))
    box.accept()
    box.send(b"error 1\nerror 2\n")
    wait_until(lambda: destroyed.exists() and destroyed.read_text() == "destroyed\n" * 2,
               what="both events to be destroyed")
    station.wait_log("ConnectToJix: Established connection with JIX daemon.")
    station.wait_log("PostJixEvent: JixItemSet() failed : trouble number 77", count=2)
    with station.ask("box") as user:
        user.expect(OFFERS)
        box.send(b"and on")
        user.expect(b"and on")
