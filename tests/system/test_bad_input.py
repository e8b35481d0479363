"""Bad input: it is answered with the stated text or a close, and nobody else loses anything."""

import contextlib
import os
import random
import re
import signal
import socket
from dataclasses import dataclass

import pytest

from harness.access import ERRORS, bring_up, greeting, reload, seeded
from harness.consoles import NEGOTIATION, FakeConsole
from harness.peers import OFFERS, User
from harness.scenes import attach_when_accessible, removal
from harness.slow_readers import SMALL, gaps_in, take_nothing
from harness.station import Station, console_line
from harness.waiting import free_port, stretched, wait_listening, wait_until

RESET = b"\1\0\0\0\0\0\0\0"

ROUNDS = 1000

# Half a kilobyte per round, well above the allocator's noise. A sanitizer keeps a record of every
# thread that has ever run.
GROWTH = ROUNDS * 512
GROWTH_UNDER_SANITIZER = ROUNDS * 8192

# Freed memory that a sanitizer build keeps would look like growth.
FRUGAL = "quarantine_size_mb=1 thread_local_quarantine_size_kb=16"

TELNET_COMMANDS = (b"\xff", b"\xff\xff", b"\xff\xf4", b"\xff\xfd\x06", b"\xff\xfb\x01",
                   b"\xff\xfd\x03", b"\xff\xfb", b"\xff\xfa\x18\x01",
                   b"\xff\xfa\x1f\0\x50\0\x18\xff\xf0", b"\xff\xf0", b"\xff\xf1", b"\xff\0")


@dataclass
class Healthy:
    """A console that is not attacked, and its user, who must not notice anything."""

    console: FakeConsole
    user: User
    keys: int = 0

    def undisturbed(self) -> None:
        """A key goes to the console and its echo comes back, once, well within a second."""
        self.keys += 1
        key = b"<%d>" % self.keys
        self.user.send(key)
        self.console.expect_exactly(key, limit=1)
        self.console.send(key)
        self.user.expect_exactly(key, limit=1)


@pytest.fixture
def healthy(station):
    """Starts the daemon with a healthy console in addition to those already configured."""
    def start(*options: str, others: tuple[FakeConsole, ...] = ()) -> Healthy:
        console = station.console("healthy")
        level = options[options.index("-d") + 1] if "-d" in options else "3"
        if int(level) >= 3:
            bring_up(station, console, *others, options=options)
        else:
            station.start(*options, env=_frugal())
            for each in (console, *others):
                each.accept()
        user = attach_when_accessible(station, "healthy")
        console.send(b"[here]")
        user.expect(b"[here]")
        return Healthy(console, user)

    return start


def _frugal() -> dict[str, str]:
    return {"ASAN_OPTIONS": f"{os.environ.get('ASAN_OPTIONS', '')} {FRUGAL}".strip()}


def say(port: int, data: bytes) -> bytes:
    """Call the port, send just the data, and return everything that is answered until the close."""
    with socket.create_connection(("127.0.0.1", port), stretched(10)) as caller:
        with contextlib.suppress(ConnectionError):
            caller.sendall(data)
        with contextlib.suppress(OSError):
            caller.shutdown(socket.SHUT_WR)
        return read_to_end(caller)


def read_to_end(caller: socket.socket) -> bytes:
    """All that arrives, up to the end of the stream or a reset."""
    answer = b""
    with contextlib.suppress(ConnectionError):
        while piece := caller.recv(65536):
            answer += piece
    return answer


def vanish(port: int, data: bytes, way: str) -> None:
    """Call the port, send the data and be gone."""
    with socket.create_connection(("127.0.0.1", port), stretched(10)) as caller:
        caller.sendall(data)
        if way == "reset":
            caller.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)


# Bytes without meaning


def test_random_bytes_on_the_main_port_get_a_text_or_a_close(station, healthy):
    numbers = seeded()
    well = healthy()
    answers = set()
    for _ in range(150):
        data = numbers.randbytes(numbers.choice([1, 2, 3, 10, 100, 1023, 1024, 1025, 5000]))
        answers.add(say(station.port, data))
        well.undisturbed()
    assert answers <= {b"", ERRORS[2], ERRORS[4], ERRORS[9]}
    assert ERRORS[4] in answers and ERRORS[2] in answers


def test_random_bytes_on_a_mapped_port_are_a_line_and_then_keys(station, healthy):
    numbers = seeded()
    port = free_port()
    box = station.console("box", mapped_port=port)
    well = healthy(others=(box,))
    wait_listening(port)
    for _ in range(50):
        data = numbers.randbytes(numbers.choice([1, 10, 1023, 1024, 3000]))
        line_end = data.find(b"\n", 0, 1023) + 1 or min(len(data), 1023)
        assert say(port, data) == OFFERS + greeting("box")
        box.expect_exactly(data[line_end:])
        well.undisturbed()


def test_random_options_and_separators_are_refused(station, healthy):
    numbers = seeded()
    well = healthy()
    words = [b"mode=", b"mode=ro", b"mode=er", b"user=", b"addr=", b"token", b"nobody", b"@@@",
             b"%s%n%d", b"=", b"\"", b"\0", b"a" * 70, b"user=" + b"%n" * 30]
    separators = [b" ", b"\t", b"\r", b"  ", b"\n"]
    answers = set()
    for _ in range(150):
        line = b"nobody" + b"".join(numbers.choice(separators) + numbers.choice(words)
                                    for _ in range(numbers.randrange(8)))
        answers.add(say(station.port, line + b"\n"))
    assert answers == {ERRORS[2], ERRORS[4]}
    well.undisturbed()


@pytest.mark.parametrize("name", [b"%s%s%s%n", b"../../etc/passwd", b"\x1b[2J", b"\"", b"\xff\xfe",
                                  b"healthy\x00", b"a" * 1000])
def test_special_characters_in_a_name_are_plain_text(station, healthy, name):
    well = healthy()
    answer = say(station.port, name + b" mode=ro\n")
    assert answer == (OFFERS if name == b"healthy\0" else ERRORS[4])
    well.undisturbed()


def test_a_line_of_100000_bytes_is_refused(station, healthy):
    well = healthy()
    for line in (b"x" * 100000, b" " * 100000, b"\0" * 100000, b"nobody " + b"user=a " * 15000,
                 b"x" * 100000 + b"\n", b"\n" * 100000):
        answer = say(station.port, line)
        assert answer in (ERRORS[4], ERRORS[9], ERRORS[2], b""), answer
        well.undisturbed()


def test_the_rest_of_a_line_of_100000_bytes_is_keys(station, healthy):
    box = station.console("box")
    well = healthy(others=(box,))
    line = b"box".ljust(1023) + bytes(range(256)) * 390
    user = station.caller()
    user.flood(line, 1)
    user.expect_exactly(OFFERS)
    box.expect_exactly(line[1023:])
    well.undisturbed()


def test_a_configured_name_may_have_odd_bytes(station, healthy):
    odd = b"\x01\x7f%n\xe4"
    box = station.console(odd.decode("latin-1"), greeting=NEGOTIATION + b"\n")
    healthy()
    box.accept()
    station.wait_log(re.compile("AddConsoleToList: Added console \x01.* to a_cons_list"))
    user = station.caller()
    user.send(odd + b"\n")
    user.expect(OFFERS)


@pytest.mark.parametrize("command", TELNET_COMMANDS)
def test_telnet_commands_around_the_line_are_part_of_it(station, healthy, command):
    """They are bytes like any others: the line is taken as it is, and no client is left hanging."""
    well = healthy()
    assert say(station.port, command + b"healthy\n") in (ERRORS[4], ERRORS[2])
    assert say(station.port, b"healthy " + command + b"\n") in (ERRORS[2], OFFERS)
    assert say(station.port, command) in (ERRORS[4], ERRORS[9])
    well.undisturbed()


@pytest.mark.parametrize("command", TELNET_COMMANDS)
def test_telnet_commands_from_users_go_to_the_console(healthy, command):
    well = healthy()
    well.user.send(command + b"k" + command)
    well.console.expect_exactly(command + b"k" + command)
    well.undisturbed()


@pytest.mark.parametrize("command", TELNET_COMMANDS)
def test_telnet_commands_from_consoles_go_to_the_users(healthy, command):
    well = healthy()
    well.console.send(command)
    well.user.expect_exactly(command)
    well.console.send(b"k" + command)
    well.user.expect_exactly(b"k" + command)
    well.undisturbed()


@pytest.mark.parametrize("command", TELNET_COMMANDS)
def test_a_console_that_begins_with_odd_telnet_commands_is_connected(station, healthy, command):
    odd = station.console("odd", greeting=command)
    well = healthy()
    odd.accept()
    station.wait_connected("odd")
    user = station.ask("odd")
    user.expect(OFFERS)
    odd.send(b"readable")
    user.expect(b"readable")
    well.undisturbed()


# Connections that vanish


@pytest.mark.parametrize("way", ["close", "reset"])
def test_connections_may_vanish_at_any_point_of_the_handshake(station, healthy, way):
    port = free_port()
    box = station.console("box", mapped_port=port)
    well = healthy(others=(box,))
    wait_listening(port)
    before = (station.descriptors(), station.threads())
    line = b"box mode=sh user=ann addr=1.2.3.4\r\nkeys"
    for length in range(len(line) + 1):
        vanish(station.port, line[:length], way)
        vanish(port, line[:length], way)
        well.undisturbed()
    settled(station, [station.port, port], before)
    user = station.attach("box")
    box.send(b"again")
    user.expect_exactly(b"again")


def test_connections_may_vanish_during_a_flood_of_output(station, healthy):
    box = station.console("box", greeting=b"x" * 4000)
    well = healthy("-B", "5000")
    box.accept()
    station.wait_connected("box")
    for way in ("close", "reset") * 10:
        vanish(station.port, b"box\n", way)
        well.undisturbed()
    box.flood(b"y" * 1024, 20)
    for way in ("close", "reset") * 10:
        vanish(station.port, b"box\n", way)
        well.undisturbed()


# A thousand rounds


class Round:
    """One caller's bad manners, chosen at random."""

    def __init__(self, ports: list[int], numbers: random.Random) -> None:
        self.ports = ports
        self.numbers = numbers

    def play(self) -> None:
        """Call one of the ports and misbehave."""
        port = self.numbers.choice(self.ports)
        data = self.numbers.choice([
            b"", b"\n", b"box", b"box mode=", b"box mode=ro\n", b"box\nkeys", b"nobody\n",
            b"token\n", b"x" * 3000, self.numbers.randbytes(40)])
        way = self.numbers.choice(["close", "reset", "listen"])
        if way == "listen" and data:
            say(port, data)
        else:
            vanish(port, data, way)


def settled(station: Station, ports: list[int], at_most: tuple[int, int]) -> None:
    """Wait until the daemon has no more descriptors and threads than it began with.

    Once a last call of each port is answered, all calls before it have been accepted.
    """
    for port in ports:
        say(port, b"\n")
    wait_until(lambda: station.descriptors() <= at_most[0] and station.threads() <= at_most[1],
               limit=20, what=f"no more than {at_most} descriptors and threads; there are "
               f"{station.descriptors()} and {station.threads()}")


def growth_limit(station: Station) -> int:
    """How much more memory the daemon may have after the rounds."""
    program = station.program.read_bytes()
    sanitized = b"__tsan_init" in program or b"__asan_init" in program
    return GROWTH_UNDER_SANITIZER if sanitized else GROWTH


def test_a_thousand_rounds_of_bad_manners_leave_nothing_behind(station, healthy):
    port = free_port()
    box = station.console("box", mapped_port=port)
    well = healthy("-d", "0", "-B", "200", others=(box,))
    attach_when_accessible(station, "box").close()
    wait_listening(port)
    well.undisturbed()
    before = (station.descriptors(), station.threads())
    ports = [station.port, port]
    bad = Round(ports, seeded())
    for _ in range(300):
        bad.play()
    settled(station, ports, before)
    memory = station.rss()
    for number in range(ROUNDS):
        bad.play()
        if number % 100 == 0:
            well.undisturbed()
    settled(station, ports, before)
    assert station.rss() - memory < growth_limit(station), (memory, station.rss())
    well.undisturbed()


# Configuration


def wait_reloaded(station: Station, well: Healthy, after: int) -> None:
    """Wait until the reload is done; keys of the healthy user keep the daemon awake."""
    well.undisturbed()
    station.wait_log("Entering MergeConsoleLists", after=after)
    well.undisturbed()


def test_a_configuration_line_may_be_cut_anywhere(station, healthy):
    """The file ends in the middle of a line, as if the daemon read it while it was written."""
    well = healthy()
    kept = station.config_file.read_text(encoding="latin-1")
    damaged = console_line("torn", free_port(), mapped_port=free_port(), enable=0)
    for length in range(len(damaged)):
        station.write_config(kept + damaged[:length])
        position = station.mark()
        station.signal(signal.SIGHUP)
        wait_reloaded(station, well, position)
    reload(station, kept, waker=well.console)
    well.user.expect_exactly(b".")
    well.undisturbed()


@pytest.mark.needs_namespace
def test_a_configuration_line_may_have_lost_its_beginning(station, healthy):
    """The rest may name any address, so this needs a network of the test's own."""
    well = healthy("-d", "3")
    kept = station.config_file.read_text(encoding="latin-1")
    damaged = console_line("torn", free_port(), mapped_port=0, event_file="ev")
    for start in range(0, len(damaged), 2):
        station.write_config(kept + damaged[start:])
        position = station.mark()
        station.signal(signal.SIGHUP)
        wait_reloaded(station, well, position)


def test_configurations_may_be_random_bytes(station, healthy):
    numbers = seeded()
    well = healthy()
    kept = station.config_file.read_bytes()
    for _ in range(40):
        noise = numbers.randbytes(numbers.randrange(1, 20000)).replace(b" ", b"\t")
        station.config_file.write_bytes(kept + noise)
        position = station.mark()
        station.signal(signal.SIGHUP)
        wait_reloaded(station, well, position)


# Consoles


def test_a_console_may_reset_every_connection(station, healthy):
    box = station.console("box")
    well = healthy()
    box.accept()
    box.reset()
    for _ in range(30):
        if box.called():
            box.accept()
            box.reset()
        well.undisturbed()


def test_a_console_may_hang_up_on_its_users(station, healthy):
    box = station.console("box")
    well = healthy(others=(box,))
    for way in ("close", "reset") * 4:
        users = [station.attach("box", mode) for mode in ("ro", "sh", "sh")]
        position = station.mark()
        getattr(box, way)()
        for user in users:
            user.expect_closed()
        box.accept()
        station.wait_log("ProcessConsoleOutput: Received ->ready<- (5 bytes)", after=position)
        well.undisturbed()


def test_consoles_that_never_answer_disturb_nobody(station, healthy):
    consoles = [station.console(f"dead{number}") for number in range(5)]
    for console in consoles:
        console.hang()
    well = healthy()
    for _ in range(10):
        well.undisturbed()
        assert say(station.port, b"dead1\n") == ERRORS[5]


def test_a_console_that_floods_does_not_disturb_others(station, healthy):
    box = station.console("box")
    well = healthy("-d", "3", others=(box,))
    users = [station.attach("box") for _ in range(2)]
    flood = box.flood(bytes(range(256)) * 64, 100)
    for _ in range(20):
        well.undisturbed()
    flood.join(limit=30)
    box.send(b"the end")
    for user in users:
        user.expect(b"the end", limit=30)
        assert user.received == OFFERS + bytes(range(256)) * 6400 + b"the end"


def test_a_flood_that_nobody_watches_disturbs_nobody(station, healthy):
    box = station.console("box")
    well = healthy("-B", "100", others=(box,))
    flood = box.flood(b"0123456789" * 1000, 200)
    for _ in range(20):
        well.undisturbed()
    flood.join(limit=30)


def test_a_user_who_reads_nothing_does_not_stop_the_console(station, healthy):
    box = station.console("box")
    well = healthy("-d", "1", others=(box,))
    stalled = take_nothing(station, attach_when_accessible(station, "box", buffer=SMALL))
    flood = box.flood(b"z" * 16384, 200)
    for _ in range(20):
        well.undisturbed()
    flood.join(limit=30)
    late = station.attach("box")
    late.send(b"k")
    box.expect_exactly(b"k")
    box.send(b"<end>")
    stalled.read_again()
    stalled.expect(b"<end>")
    assert gaps_in(stalled.received, b"z" * 16384 * 200 + b"<end>")
    well.undisturbed()


def test_a_paste_that_the_console_does_not_read_disturbs_nobody(station, healthy):
    box = station.console("box", buffer=4096)
    well = healthy("-d", "1", others=(box,))
    typist = attach_when_accessible(station, "box")
    box.stop_reading()
    typist.flood(b"z" * 65536, 100)
    for _ in range(20):
        well.undisturbed()
    station.wait_log(removal("<unknown>"))
    well.undisturbed()


def test_nuls_and_odd_chunks_pass_as_they_are(healthy):
    well = healthy("-B", "64")
    for data in (b"\0", b"\0" * 1024, b"a\0b", b"~NET-E-\0Session is already open to the "
                 b"partition/CLI", b"%s%n\0\xff", b"\xff" * 1024):
        well.console.send(data)
        well.user.expect_exactly(data)
        well.user.send(data)
        well.console.expect_exactly(data)
    well.undisturbed()
