"""zevfleet ship while servers, connections and the program itself fail."""

import shutil
import subprocess
import threading

import pytest

from harness.clock import ShiftedClock
from harness.journals import begin, wait_output
from harness.nats import (SITE, STATION, STREAM, Message, NatsServer, assert_each_once,
                          output_of)
from harness.ship import (Ship, cluster, cluster_ship, nats, ship,  # noqa: F401
                          wait_shipped)
from harness.waiting import LIMIT, stretched, wait_until
from journal_writer import JournalWriter

BEGIN = f"{SITE}.{STATION}"


def numbered(first: int, count: int) -> bytes:
    """Lines that are not alike."""
    return b"".join(b"line %08d\r\n" % number for number in range(first, first + count))


def messages(server: NatsServer) -> list[Message]:
    """All that the stream has: each once and in order, and no gap."""
    with server.client() as client:
        found = client.messages()
    assert_each_once(found)
    assert [message.json for message in found if "Zev-Gap" in message.headers] == []
    return found


def wait_all(server: NatsServer, console: str, lines: bytes, limit: float = 6 * LIMIT) -> None:
    """Wait until the stream has all lines, and see that it has nothing else."""
    def last() -> bytes:
        with server.client() as client:
            try:
                state = client.state()
            except AssertionError:
                return b""
            found = client.messages(first=state["last_seq"] - 8) if state["messages"] else []
            return output_of(found, console)
    wait_until(lambda: last().endswith(lines[-15:]), limit, "the last line in the stream")
    assert output_of(messages(server), console) == lines


class Growing:
    """A journal that grows all the time, until it is told to end: quickly at first."""

    def __init__(self, ship: Ship, quick: int = 50000) -> None:
        self.journal = JournalWriter(ship.journal, hold=True)
        self.console = self.journal.console("web")
        self.lines = 0
        self.quick = quick
        self._is_over = threading.Event()
        self._thread = threading.Thread(target=self._write)
        self._thread.start()

    def _write(self) -> None:
        while not self._is_over.wait(0.002 if self.lines < self.quick else 0.05):
            for _ in range(2):
                self.journal.output(self.console, numbered(self.lines, 10))
                self.lines += 10

    def end(self) -> bytes:
        """All that has been written."""
        self._is_over.set()
        self._thread.join()
        self.journal.output(self.console, numbered(self.lines, 1))
        self.journal.close()
        return numbered(0, self.lines + 1)


@pytest.fixture
def growing(ship):
    """That journal."""
    made = Growing(ship)
    yield made
    made.end()


def grown(growing: Growing, lines: int = 1000) -> None:
    """Wait until so many more lines have been written."""
    goal = growing.lines + lines
    wait_until(lambda: growing.lines >= goal, 3 * LIMIT, what="the journal to grow")


def shipped_now(server: NatsServer) -> int:
    """How far the stream has come."""
    with server.client() as client:
        return client.state()["last_seq"]


def test_what_a_console_prints_arrives(station, ship, nats):
    box = station.console("box")
    other = station.console("b.x-2")
    begin(station, box, other)
    ship.start()
    text = bytes(range(255)) * 20 + numbered(0, 1000)
    box.send(text)
    other.send(b"only this\r\n")
    wait_output(station, "box", text[-15:])
    wait_output(station, "b.x-2", b"only this\r\n")
    wait_all(nats, "box", b"ready" + text)
    assert output_of(messages(nats), "b%2Ex-2") == b"readyonly this\r\n"
    station.stop()
    wait_until(lambda: b'"kind":"stopped"' in messages(nats)[-1].data, what="the last record")


def test_it_is_killed_again_and_again(ship, nats, growing):
    for _ in range(6):
        ship.start()
        before = shipped_now_or_none(nats)
        wait_shipped(nats, before + 20)
        grown(growing, 500)
        ship.kill()
    ship.start()
    wait_all(nats, "web", growing.end())


def waiting_bytes(port: int) -> int:
    """What the kernel keeps for whoever listens there."""
    with open("/proc/self/net/tcp", encoding="ascii") as lines:
        rows = [line.split() for line in lines][1:]
    return sum(int(row[4].split(":")[1], 16) for row in rows
               if int(row[1].split(":")[1], 16) == port)


@pytest.mark.parametrize("is_asked_meanwhile", [False, True])
def test_it_is_killed_while_its_messages_are_under_way(ship, nats, is_asked_meanwhile):
    """They come to the server before a new process asks what there is, or meanwhile."""
    with nats.client() as client:
        client.make(STREAM, f"{BEGIN}.>", duplicate_window=100_000_000)
    with JournalWriter(ship.journal, hold=True) as journal:
        web = journal.console("web")
        for turn in range(3):
            ship.output.unlink(missing_ok=True)
            ship.start()
            ship.wait_said("ships to the stream")
            wait_shipped(nats, 1 + turn * 1000)
            with nats.held():
                for number in range(turn * 1000, turn * 1000 + 1000):
                    journal.output(web, numbered(number * 10, 10))
                wait_until(lambda: waiting_bytes(nats.port) > 50000, what="messages under way")
                ship.kill()
                if is_asked_meanwhile:
                    ship.start()
            if is_asked_meanwhile:
                wait_shipped(nats, 1 + turn * 1000 + 500)
                ship.kill()
        ship.start()
        wait_all(nats, "web", numbered(0, 30000))


def shipped_now_or_none(server: NatsServer) -> int:
    """How far the stream has come, if there is one."""
    try:
        return shipped_now(server)
    except AssertionError:
        return 0


def test_it_is_killed_and_its_state_is_lost(ship, nats, growing):
    for _ in range(4):
        ship.start()
        wait_shipped(nats, shipped_now_or_none(nats) + 20)
        ship.kill()
        shutil.rmtree(ship.state)
    ship.start()
    wait_all(nats, "web", growing.end())


def test_the_server_is_killed_again_and_again(ship, nats, growing):
    ship.start()
    for _ in range(4):
        wait_shipped(nats, shipped_now_or_none(nats) + 20)
        nats.kill()
        grown(growing)
        nats.start()
    wait_all(nats, "web", growing.end())


def test_the_server_is_away_for_longer_than_it_remembers(ship, nats, growing):
    with nats.client() as client:
        client.make(STREAM, f"{BEGIN}.>", duplicate_window=100_000_000)
    ship.start()
    for _ in range(3):
        wait_shipped(nats, shipped_now_or_none(nats) + 20)
        nats.kill()
        ship.wait_said("cannot reach NATS")
        grown(growing)
        nats.start()
    wait_all(nats, "web", growing.end())


@pytest.mark.slow
def test_the_server_is_held_until_the_connection_is_given_up(ship, nats, growing):
    with nats.client() as client:
        client.make(STREAM, f"{BEGIN}.>", duplicate_window=100_000_000)
    ship.start()
    wait_shipped(nats, 20)
    with nats.held():
        ship.wait_said("cannot reach NATS: ", limit=4 * LIMIT)
        grown(growing)
    wait_all(nats, "web", growing.end())


@pytest.mark.slow
def test_packets_are_lost_for_longer_than_anybody_waits(ship, nats, growing):
    ship.start()
    wait_shipped(nats, 20)
    subprocess.run(["ip", "link", "set", "lo", "down"], check=True)
    ship.wait_said("cannot reach NATS: ", limit=4 * LIMIT)
    grown(growing)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    wait_all(nats, "web", growing.end())


def test_a_clock_that_is_set_back_delays_nothing(ship, nats, tmp_path):
    clock = ShiftedClock(tmp_path)
    ship.env = clock.env
    with JournalWriter(ship.journal) as journal:
        console = journal.console("web")
        journal.output(console, numbered(0, 1))
        ship.start()
        wait_all(nats, "web", numbered(0, 1))
        # What the library waits for by the library's clock ends by that of the machine.
        clock.shift(86400)
        journal.output(console, numbered(1, 1))
        wait_all(nats, "web", numbered(0, 2))


@pytest.mark.slow
def test_it_ends_when_a_wait_of_the_library_does_not(ship, nats, tmp_path):
    clock = ShiftedClock(tmp_path)
    ship.env = clock.env
    with JournalWriter(ship.journal) as journal:
        journal.output(journal.console("web"), numbered(0, 1))
    ship.start()
    wait_all(nats, "web", numbered(0, 1))
    clock.shift(86400)
    with nats.held():
        assert ship.process.wait(stretched(60)) == 1
    assert ship.text().endswith("zevfleet: a call of the NATS library does not return, as when the "
                                "clock is set back; ends\n")
    ship.process = None


def test_a_held_server_does_not_keep_it_from_ending(ship, nats, growing):
    ship.start()
    wait_shipped(nats, 20)
    with nats.held():
        ship.stop()
    ship.start()
    wait_all(nats, "web", growing.end())


def test_it_waits_for_the_server(ship, nats):
    nats.stop()
    with JournalWriter(ship.journal) as journal:
        journal.output(journal.console("web"), b"here\r\n")
    ship.start()
    ship.wait_said("cannot reach NATS: ")
    nats.start()
    ship.wait_said(f"ships to the stream {STREAM}")
    wait_shipped(nats, 2)
    assert ship.text().count("\n") == 2


def test_a_server_without_streams_is_told_once(ship, nats):
    nats.stop()
    whole = nats.write_settings
    nats.write_settings = lambda: write_without_streams(nats)
    with JournalWriter(ship.journal) as journal:
        journal.console("web")
    nats.start(wait=False)
    ship.start()
    ship.wait_said("NATS does not take the messages: no server keeps streams (JetStream) now")
    nats.kill()
    nats.write_settings = whole
    nats.start()
    wait_shipped(nats, 1)


def write_without_streams(server: NatsServer):
    """Settings of a server that keeps nothing."""
    path = server.directory / "nats.conf"
    path.write_text(f'listen: "127.0.0.1:{server.port}"\n')
    return path


def test_a_full_server_gets_the_rest_later(ship, nats):
    nats.stop()
    nats.limit = "4MB"
    nats.start()
    with nats.client() as client:
        client.make("other", "other")
        for _ in range(20):
            client.request("other", b"x" * 100000)
    with JournalWriter(ship.journal) as journal:
        web = journal.console("web")
        for number in range(1000):
            journal.output(web, numbered(number * 200, 200))
    ship.start()
    ship.wait_said("NATS does not take the messages: ")
    before = shipped_now(nats)
    assert before < 1001
    with nats.client() as client:
        client.api("STREAM.DELETE.other")
    ship.wait_said(f"ships to the stream {STREAM}", limit=2 * LIMIT)
    wait_all(nats, "web", numbered(0, 200000))
    assert len([line for line in ship.text().splitlines() if "does not take" in line]) <= 3


def test_a_full_stream_that_takes_nothing_new(ship, nats):
    """Small messages might still fit where a large one did not: none may overtake it."""
    with nats.client() as client:
        client.make(STREAM, f"{BEGIN}.>", max_bytes=60000, discard="new")
        with JournalWriter(ship.journal) as journal:
            web = journal.console("web")
            for number in range(20):
                journal.output(web, b"x" * 9000 + b"%05d\r\n" % number)
                journal.output(web, b"small %05d\r\n" % number)
        ship.start()
        ship.wait_said("NATS does not take the messages: ")
        assert client.state()["last_seq"] < 41
        config = client.config()
        client.api(f"STREAM.UPDATE.{STREAM}", {**config, "max_bytes": 10_000_000})
        wait_shipped(nats, 41)
    assert_each_once(messages(nats))
    sizes = [len(message.data) for message in messages(nats)][1:]
    assert sizes == [9007, 13] * 20


@pytest.mark.slow
def test_a_cluster_loses_its_leader(cluster, cluster_ship):
    growing = Growing(cluster_ship)
    try:
        cluster_ship.start()
        cluster_ship.wait_said(f"ships to the stream {STREAM}", limit=3 * LIMIT)
        leader = cluster.leader_of()
        wait_shipped(leader, 50)
        leader.kill()
        grown(growing, 3000)
        leader.start(wait=False)
        second = cluster.leader_of()
        wait_shipped(second, shipped_now(second) + 50)
        second.kill()
        grown(growing, 3000)
    finally:
        lines = growing.end()
    wait_all(cluster.leader_of(), "web", lines)


@pytest.mark.slow
def test_a_cluster_without_a_majority_is_waited_for(cluster, cluster_ship):
    growing = Growing(cluster_ship)
    try:
        cluster_ship.start()
        cluster_ship.wait_said(f"ships to the stream {STREAM}", limit=3 * LIMIT)
        wait_shipped(cluster.leader_of(), 50)
        away = cluster.servers[:2]
        for server in away:
            server.kill()
        cluster_ship.wait_said("zevfleet: ", count=2, limit=4 * LIMIT)
        grown(growing, 1000)
        for server in away:
            server.start(wait=False)
    finally:
        lines = growing.end()
    wait_all(cluster.leader_of(), "web", lines)


def test_a_journal_that_is_shipped_by_two_is_refused(ship, nats, growing):
    ship.start()
    wait_shipped(nats, 20)
    done = ship.run("--once")
    assert done.returncode == 1
    assert "another process ships this journal" in done.stderr


def test_once_ends_at_a_setback(ship, nats):
    done = ship.run("--once")
    assert done.returncode == 1 and "there is no journal in" in done.stderr
    with JournalWriter(ship.journal) as journal:
        journal.console("web")
    nats.stop()
    done = ship.run("--once")
    assert done.returncode == 1 and "cannot reach NATS" in done.stderr


def test_it_ships_although_it_cannot_note_how_far(ship, nats):
    (ship.state / ".shipped.new").mkdir(parents=True)
    with JournalWriter(ship.journal, hold=True) as journal:
        web = journal.console("web")
        ship.start()
        ship.wait_said("cannot write ")
        for number in range(5):
            journal.output(web, numbered(number * 10, 10))
            wait_shipped(nats, 2 + number)
    wait_all(nats, "web", numbered(0, 50))
    ship.stop()
    assert ship.text().count("cannot write ") == 1
    assert ship.once() == 0


def test_what_others_send_is_passed(ship, nats):
    with JournalWriter(ship.journal, hold=True) as journal:
        web = journal.console("web")
        ship.start()
        wait_shipped(nats, 1)
        with nats.client() as client:
            client.request(f"{BEGIN}.web.out", b"forged")
            journal.output(web, b"one\r\n")
            wait_shipped(nats, 3)
            client.request(f"{BEGIN}.web.out", b"forged")
            ship.kill()
            ship.shipped.unlink(missing_ok=True)
            journal.output(web, b"two\r\n")
            assert ship.once() == 1
            found = client.messages()
    texts = [message.data for message in found]
    assert texts[1:] == [b"forged", b"one\r\n", b"forged", b"two\r\n"]
