"""The cookie file, and how the main port distinguishes local tools from everybody else."""

import os
import re
import stat
import subprocess
import time

import pytest

from harness import settings
from harness.access import ERRORS, bring_up, refused
from harness.collectors import Collector
from harness.cookies import cookie, cookie_file, other_than, tell
from harness.peers import OFFERS, User
from harness.scenes import echo_time
from harness.waiting import LIMIT, free_port, stretched, wait_until

PROMPT = b"username: "
WAIT = 15  # seconds that a client may be silent
GROUP = 4242
ALPHABET = re.compile(rb"[A-Za-z0-9]{16}")

SUCCESS = "DoCookieValidation: Authentication successful."
FAILURE = "DoCookieValidation: Authentication failed."


@pytest.fixture
def secured(station):
    """A station with security on and one console, "box"."""
    station.box = station.console("box")
    bring_up(station, station.box, options=("-S", "1"))
    return station


@pytest.fixture
def suite_group(station):
    """Gives the suite's directory a group of its own."""
    former = station.root.stat().st_gid
    os.chown(station.root, -1, GROUP)
    yield GROUP
    os.chown(station.root, -1, former)


def admitted(station, user: User, key: bytes = b"k") -> None:
    """The user is at the console."""
    user.expect_exactly(OFFERS)
    user.send(key)
    station.box.expect_exactly(key)


# The file


def test_a_new_file_holds_one_line_for_owner_and_group_of_the_suite(station, suite_group):
    station.start("-S", "1")
    status = cookie_file(station).stat()
    assert stat.S_IMODE(status.st_mode) == 0o660
    assert (status.st_uid, status.st_gid) == (os.geteuid(), suite_group)
    content = cookie_file(station).read_bytes()
    assert content.endswith(b"\n")
    assert ALPHABET.fullmatch(content[:-1])


@pytest.mark.parametrize("mode", [0o600, 0o604, 0o777])
def test_an_existing_file_keeps_owner_group_and_mode(station, suite_group, mode):
    assert suite_group != 2
    path = cookie_file(station)
    path.write_bytes(b"a former and much longer content\nof two lines\n")
    os.chown(path, 1, 2)
    path.chmod(mode)
    station.start("-S", "1")
    status = path.stat()
    assert stat.S_IMODE(status.st_mode) == mode
    assert (status.st_uid, status.st_gid) == (1, 2)
    assert re.fullmatch(rb"[A-Za-z0-9]{16}\n", path.read_bytes())


@pytest.mark.parametrize("mode, said", [(0o604, 1), (0o640, 0), (0o662, 0)])
def test_an_existing_file_that_others_may_read_is_reported(station, mode, said):
    path = cookie_file(station)
    path.touch()
    path.chmod(mode)
    station.start("-S", "1", "-d", "0")
    assert station.log_text().count(f'GenerateCookie: "{path}" is readable by others (mode 0604), '
                                    "who then need no login.\n") == said


# Tries every cookie of a generator that is seeded with the microseconds of the current time.
GUESSER = """
#include <stdlib.h>
#include <string.h>
int main(int count, char **words) {
  const char *alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  for (unsigned seed = 0; seed < 1000000; ++seed) {
    char guess[17] = {0};
    srandom(seed);
    for (int i = 0; i < 16; ++i) guess[i] = alphabet[random() % 62];
    if (count == 2 && strcmp(guess, words[1]) == 0) return 1;
  }
  return 0;
}
"""


def test_the_cookie_cannot_be_guessed_from_the_files_time(station, tmp_path):
    """With such a generator the file's time would show which cookie it is."""
    guesser = tmp_path / "guesser"
    subprocess.run(["cc", "-O2", "-x", "c", "-", "-o", guesser], input=GUESSER, text=True,
                   check=True)
    station.start("-S", "1")
    assert subprocess.run([guesser, cookie(station)], check=False).returncode == 0


def test_without_security_there_is_no_cookie(station):
    station.start("-S", "0")
    assert not cookie_file(station).exists()


def test_every_start_makes_a_cookie_of_its_own(secured):
    former = cookie(secured)
    secured.stop()
    secured.box.close()
    bring_up(secured, secured.box, options=("-S", "1"))
    assert cookie(secured) != former
    refused(tell(secured, b"token " + former + b" box\n"), 1)
    admitted(secured, tell(secured, b"token " + cookie(secured) + b" box\n"))


def died(station, text: str, event: str, prefix: list[str] | None = None) -> None:
    """The daemon cannot write its cookie: it says this text, posts this event, ends with 1."""
    words = [*(prefix or []), str(settings.daemon()), "-f", "-S", "1", "-d", "2",
             "-p", str(free_port())]
    done = subprocess.run(words, stdin=subprocess.DEVNULL, capture_output=True,
                          encoding="latin-1", timeout=stretched(LIMIT), check=False,
                          env=os.environ)
    assert done.returncode == 1, done.stdout
    lines = [line.partition(">: ")[2] for line in done.stdout.splitlines()]
    assert text in lines, done.stdout
    announced = next(line for line in lines[lines.index(text):] if "PostJixEvent" in line)
    assert "qor.zevd.daemon.error" in announced and event in announced
    assert re.fullmatch(r"Exiting with code 1 from file cookie\.cpp line \d+", lines[-1])
    assert not station.lock_file.exists() or not _locked(station)


def _locked(station) -> bool:
    return subprocess.run(["flock", "-n", station.lock_file, "true"], check=False).returncode != 0


def test_a_file_that_cannot_be_opened_ends_the_daemon(station):
    cookie_file(station).mkdir()
    died(station, "GenerateCookie: fopen() failed : Is a directory",
         "Terminated: Cannot open cookie file")


def test_an_end_for_want_of_a_cookie_is_posted_as_an_event(station):
    cookie_file(station).mkdir()
    text = "Terminated: Cannot open cookie file"
    with Collector(station) as collector:
        died(station, "GenerateCookie: fopen() failed : Is a directory", text)
        found, = collector.accept().wait_events(1)
        assert found["name"] == f"qor.zevd.daemon.error.{text}"
        assert (found["priority"], found["vars"]) == (700, {"message": text})
        collector.expect(b"}}\n")
        collector.expect_closed()


def test_a_file_that_cannot_be_written_ends_the_daemon(station):
    """No file may be longer than 16 bytes: the cookie needs 17, the other files fewer."""
    station.lock_file.touch()
    died(station, "GenerateCookie: fprintf() failed : File too large",
         "Terminated: Cannot write cookie file",
         ["bash", "-c", 'trap "" XFSZ; exec prlimit --fsize=16 "$@"', "bash"])


@pytest.mark.usefixtures("suite_group")
def test_a_file_that_cannot_be_given_to_the_group_ends_the_daemon(station):
    path = cookie_file(station)
    for other in (station.config / "qor.conf", station.lock_file):
        other.touch()  # existing files keep their group; only the cookie file is new
    died(station, f"GenerateCookie: chown( {path}, ...) failed : Operation not permitted",
         "Terminated: Cannot chown cookie file",
         ["setpriv", "--bounding-set=-chown", "--inh-caps=-chown", "--"])
    assert path.read_bytes() == b"", "no cookie for a group that was not checked"


# Who is admitted


def test_the_cookie_admits(secured):
    position = secured.mark()
    admitted(secured, tell(secured, b"token " + cookie(secured) + b" box\n"))
    shown = cookie(secured).decode()
    found = secured.wait_log(SUCCESS, after=position)
    secured.wait_log(f"DoCookieValidation: user_cookie({shown}) == generated_cookie({shown})",
                     after=found.end)


def test_the_options_after_the_cookie_are_used(secured):
    position = secured.mark()
    user = tell(secured, b"token " + cookie(secured) + b" box mode=ex user=ann addr=10.1.2.3\n")
    user.expect_exactly(OFFERS)
    secured.wait_log('ConnectUserToConsole: Connected user "ann" to console "box" with mode = '
                     "exclusive.", after=position)


@pytest.mark.parametrize("line", [b"token\t%s\tbox\r\n", b" \t token \r %s   box \n",
                                  b"token %s box", b"token %s box\0garbage\n"])
def test_any_white_space_separates(secured, line):
    admitted(secured, tell(secured, line % cookie(secured)))


def test_a_wrong_cookie_is_refused(secured):
    position = secured.mark()
    right = cookie(secured)
    wrong = other_than(right)
    refused(tell(secured, b"token " + wrong + b" box\n"), 1)
    found = secured.wait_log(FAILURE, after=position)
    secured.wait_log(f"DoCookieValidation: user_cookie({wrong.decode()}) != "
                     f"generated_cookie({right.decode()})", after=found.end)
    secured.wait_log("ServiceConnectionRequestThreadStart: Closing connection with 127.0.0.1.",
                     after=position)


@pytest.mark.parametrize("more", [b"x", b"x" * 900])
def test_only_the_first_sixteen_characters_are_compared(secured, more):
    right = cookie(secured)
    admitted(secured, tell(secured, b"token " + right + more + b" box\n"))
    refused(tell(secured, b"token " + other_than(right) + more + b" box\n"), 1)


def test_fifteen_of_the_sixteen_characters_are_not_enough(secured):
    refused(tell(secured, b"token " + cookie(secured)[:15] + b" box\n"), 1)


@pytest.mark.parametrize("line", [b"token %s\n", b"token %s", b"token %s \t \r\n",
                                  b"token\n%s\nbox\n"])
def test_a_right_cookie_without_a_console_is_insufficient(secured, line):
    position = secured.mark()
    refused(tell(secured, line % cookie(secured)), 9)
    secured.wait_log(SUCCESS, after=position)


@pytest.mark.parametrize("line", [b"token", b"token\n", b" \ttoken \r\n", b"\n", b"  \t\r\n", b"\0",
                                  b"token\0", b"\0token"])
def test_a_line_without_what_it_needs_is_closed_without_a_word(secured, line):
    position = secured.mark()
    user = tell(secured, line)
    user.expect_closed()
    secured.wait_log("DoAuthentication: Error reading authentication data.", after=position)
    assert SUCCESS not in secured.log_text(position)


@pytest.mark.parametrize("line", [b"box\n", b"Token %s box\n", b"tokens %s box\n", b"toke",
                                  b"box token %s\n", b"\x01token %s box\n"])
def test_everything_else_is_left_to_the_library(secured, line):
    user = tell(secured, line.replace(b"%s", cookie(secured)))
    secured.wait_log("Entering DoTqAuthValidation")
    user.send(b"\n")
    user.expect_exactly(PROMPT)
    assert FAILURE not in secured.log_text()


@pytest.mark.parametrize("address", ["127.0.0.2", "127.1.0.1", "127.255.255.254"])
def test_a_token_line_from_any_other_address_is_left_to_the_library(secured, address):
    for value in (cookie(secured), other_than(cookie(secured))):
        position = secured.mark()
        user = tell(secured, b"token " + value + b" box addr=127.0.0.1\n", address)
        user.expect_exactly(PROMPT)
        secured.wait_log("Entering DoTqAuthValidation", after=position)
        assert "Entering DoCookieValidation" not in secured.log_text(position)
        user.close()


def test_the_cookie_leads_to_the_command_port(secured):
    user = tell(secured, b"token " + cookie(secured) + b" @@@@ user=tool\n")
    secured.wait_log("Entering MonitorSocketForCommands")
    user.send(b"nonsense\n")
    user.expect(b"Invalid command.")


# Silence


@pytest.mark.parametrize("leave", [User.finish_sending, User.reset])
def test_a_caller_who_leaves_at_once_gets_a_read_error(secured, leave):
    threads = secured.threads()
    position = secured.mark()
    user = secured.caller()
    leave(user)
    found = secured.wait_log("DoAuthentication: Error reading authentication data.",
                             after=position)
    secured.wait_log("SendErrorToUser: 008 - Read error.\r", after=found.end)
    if leave is User.finish_sending:
        refused(user, 8)
    secured.wait_log("ServiceConnectionRequestThreadStart: Exiting thread.", after=found.end)
    wait_until(lambda: secured.threads() <= threads, what="the thread to end")


@pytest.mark.slow
def test_a_caller_who_says_nothing_is_refused_after_fifteen_seconds(secured):
    neighbour = tell(secured, b"token " + cookie(secured) + b" box\n")
    admitted(secured, neighbour)
    silent = secured.caller()
    begin = time.monotonic()
    slow = secured.caller()
    assert echo_time(neighbour, secured.box, b"e", limit=1) < stretched(1)
    secured.wait_log("Entering IsTokenAuthentication", count=3)
    silent.expect_exactly(ERRORS[3], limit=WAIT + LIMIT)
    assert WAIT - 0.1 <= time.monotonic() - begin < WAIT + stretched(2)
    silent.expect_closed()
    refused(slow, 3)
    secured.wait_log("DoAuthentication: Timed out waiting for input.")
    # The limit was the login's: a user who is attached may be silent for as long as they like.
    assert echo_time(neighbour, secured.box, b"f", limit=1) < stretched(1)
