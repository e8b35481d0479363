"""The demo: three consoles, the daemon, a tour of what its users see, then yours to try.

Usage: demo.py [--once]

With --once it ends after the tour, with status 0 only if every step was seen to work.
"""

import contextlib
import random
import signal
import socket
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

import place
from browser import NAME, Page
from processes import Processes
from steps import HOST, StepFailed, heading, seen, wait_until
from tour import Client, Console, DaemonOutput, Files, Tour

DEMO = Path(__file__).resolve().parent
REPLAY_BYTES = 4096
EXIT_AFTER_SIGTERM = 1
PATTERNS = "fans 300 1 fans turning\n"
SETTINGS = "ZEVD_JOURNAL=16\n"
UNPRIVILEGED_PORTS_BELOW_EPHEMERAL = range(20000, 32000)


class Interrupted(Exception):
    """Somebody wants the demo to end."""


def interrupt(number: int, _frame: object) -> None:
    raise Interrupted(signal.Signals(number).name)


def heed_signals() -> None:
    """End the demo in order, but let it outlive its terminal under nohup.

    What the demo starts then hears SIGHUP all the same: a handler is not inherited.
    """
    under_nohup = signal.getsignal(signal.SIGHUP) == signal.SIG_IGN
    signal.signal(signal.SIGINT, interrupt)
    signal.signal(signal.SIGTERM, interrupt)
    signal.signal(signal.SIGHUP, (lambda *_: None) if under_nohup else interrupt)


def free_ports(count: int) -> list[int]:
    """Different ports on which nobody listens; the system gives none of these to a client."""
    with contextlib.ExitStack() as held:
        ports = []
        for port in random.sample(UNPRIVILEGED_PORTS_BELOW_EPHEMERAL, 200):
            probe = held.enter_context(socket.socket())
            with contextlib.suppress(OSError):
                probe.bind(("", port))
                ports.append(port)
            if len(ports) == count:
                return ports
    raise StepFailed("no free ports")


@contextlib.contextmanager
def refusing_port() -> Iterator[int]:
    """A port that is taken and yet refuses every connection: bound, but not listening."""
    with socket.socket() as taken:
        taken.bind((HOST, 0))
        yield taken.getsockname()[1]


def config_line(console: Console) -> str:
    """One line of zev.conf; the blank at its end belongs to it, or the last field is misread."""
    return (f"{console.name} {HOST} {console.port} 0 {console.mapped_port} A200 demo "
            f'"Demo OS 1" 1 1 1 0 reports \n')


def write_files(root: Path, consoles: tuple[Console, ...]) -> None:
    """Give the daemon the files of a small station."""
    for directory in ("config", "events", "logs"):
        (root / directory).mkdir()
    (root / "config").chmod(0o750)
    (root / "config/models").write_text("A|A200\n")
    (root / "config/qor.conf").write_text(SETTINGS)
    (root / "events/reports").write_text(PATTERNS)
    text = "".join(config_line(console) for console in consoles)
    (root / "config/zev.conf").write_text(text)
    print(f"  {root}/config/zev.conf describes them, one line each:\n")
    print("".join(f"    {line}\n" for line in text.splitlines()))
    print(f"  {root}/events/reports has a pattern: lines that match are posted as events\n")
    print(f"    {PATTERNS}")
    print(f"  {root}/config/qor.conf asks for a journal of so many MiB at most\n")
    print(f"    {SETTINGS}")


def start_consoles(processes: Processes, shell: Console, machine: Console) -> None:
    """Start the two consoles that are programs; the third is a port that refuses."""
    processes.start("socat", f"TCP-LISTEN:{shell.port},bind={HOST},reuseaddr,fork",
                    "EXEC:/usr/bin/python3 telnet_shell.py", cwd=DEMO)
    processes.start("/usr/bin/python3", "boot_machine.py", str(machine.port), cwd=DEMO)
    for console in (shell, machine):
        wait_for_listener(console.port)


def wait_for_listener(port: int) -> None:
    """Wait until the kernel shows a listener on the port, without connecting to it."""
    listening = f":{port:04X} 00000000:0000 0A"
    wait_until(lambda: listening in Path("/proc/net/tcp").read_text(), f"a listener on {port}")


def start_daemon(processes: Processes, chosen: place.Place, main_port: int,
                 output: Path) -> subprocess.Popen:
    options = ["-f", "-d", "1", "-B", str(REPLAY_BYTES), "-p", str(main_port)]
    print(f"  $ zevd {' '.join(options)}")
    print(f"""
  -f     stay in the foreground
  -d 1   report what happens
  -p     the main port for users
  -B     replay up to {REPLAY_BYTES - 1} bytes of a console's output to whoever attaches
""")
    with output.open("wb") as sink:
        return processes.start(str(chosen.daemon), *options, stdout=sink,
                               stderr=subprocess.STDOUT, cwd=chosen.root)


def start_collector(processes: Processes, chosen: place.Place, output: Path) -> None:
    """Have the client receive the events; they go to a file."""
    print("  $ zevctl events")
    with output.open("wb") as sink:
        processes.start(str(chosen.client), "events", stdout=sink, stderr=subprocess.DEVNULL)
    wait_until((chosen.root / "run/jix.sock").exists, "the events' socket")


def show_how_to_attach(main_port: int, consoles: tuple[Console, ...], chosen: place.Place,
                       daemon: subprocess.Popen, page: Page) -> None:
    shell, machine, refuser = consoles
    heading("Now you: from another terminal of this machine, in the directory of the clone")
    seen_root = chosen.root_for_others(daemon.pid)
    program = chosen.client.relative_to(place.REPOSITORY)
    client = f"{program} --port {main_port} --cookie-file {seen_root}/config/.cookie"
    print(f"""  With the operators' client; ~. at the start of a line leaves a console:

    {client} list
    {client} attach {shell.name}
    {client} attach --mode ro {machine.name}
    {client} msg {shell.name} hello
    {program} log -f --log-dir {seen_root}/logs {machine.name}
    {program} replay --journal-dir {seen_root}/journal {machine.name}

  With a telnet client, through a console's own port:

    telnet localhost {shell.mapped_port}      ({shell.name})
    telnet localhost {machine.mapped_port}      ({machine.name})
    telnet localhost {refuser.mapped_port}      ({refuser.name}: you will be refused)

  To leave telnet, press Ctrl-] and type quit.

  The consoles' own ports ask nobody for a password here. While the demo runs, whoever reaches
  them over the network can attach and type as well; the shell runs with the rights of the user
  nobody.

  With a browser on this machine:

    {page.link}      name {NAME}, password {page.password} (both are the demo's own)

  The demo goes on until you press Ctrl-C here.""")


def end_daemon(daemon: subprocess.Popen, main_port: int) -> None:
    """End the daemon as a station does, and see that it is gone."""
    daemon.terminate()
    status = daemon.wait(10)
    if status != EXIT_AFTER_SIGTERM:
        raise StepFailed(f"the daemon ended with status {status} and not {EXIT_AFTER_SIGTERM}")
    with contextlib.suppress(ConnectionRefusedError):
        socket.create_connection((HOST, main_port)).close()
        raise StepFailed(f"port {main_port} is still served")
    seen("the daemon ended on SIGTERM, and its port with it")


def keep_running(daemon: subprocess.Popen, main_port: int, consoles: tuple[Console, ...],
                 chosen: place.Place, page: Page) -> None:
    """Leave everything running until somebody ends the demo."""
    show_how_to_attach(main_port, consoles, chosen, daemon, page)
    try:
        status = daemon.wait()
    except Interrupted as reason:
        heading(f"{reason}: the demo ends")
        return
    raise StepFailed(f"the daemon ended by itself, with status {status}")


def run(chosen: place.Place, once: bool, processes: Processes, refused: int) -> None:
    """Start everything, take the tour, and end the daemon."""
    main_port, web_port, *ports = free_ports(7)
    consoles = (
        Console("shell", ports[0], ports[1], "a shell on a terminal, behind a telnet port"),
        Console("server1", ports[2], ports[3], "a machine that boots, then prints for ever"),
        Console("server2", refused, ports[4], "a port that refuses connections"),
    )
    heading("Three consoles")
    for console in consoles:
        print(f"  {console.name:8} {HOST}:{console.port:<6} {console.what}")
    print(f"\n  The daemon's files are in {chosen.why}.\n")
    write_files(chosen.root, consoles)
    start_consoles(processes, *consoles[:2])
    files = Files(chosen.root / "logs", chosen.root / "logs/events", chosen.root / "config/.cookie")
    start_collector(processes, chosen, files.events)
    output = DaemonOutput(chosen.root / "logs/zevd.log")
    page = Page(processes, chosen, main_port, web_port)
    daemon = start_daemon(processes, chosen, main_port, chosen.root / "logs/zevd.log")
    try:
        Tour(main_port, consoles, output, files, Client(chosen.client, main_port), page).run()
        if not once:
            keep_running(daemon, main_port, consoles, chosen, page)
        end_daemon(daemon, main_port)
    except StepFailed:
        print("\nThe daemon's last words:\n", *output.text().splitlines()[-20:], sep="\n")
        raise


def build(chosen: place.Place) -> None:
    command = [place.REPOSITORY / "script/build", "--products", chosen.preset]
    if subprocess.run(command, check=False).returncode:
        sys.exit("demo: the build failed")


def main(once: bool) -> int:
    sys.stdout.reconfigure(line_buffering=True)
    heed_signals()
    chosen = place.choose()
    build(chosen)
    processes = Processes()
    with place.open_place(chosen), refusing_port() as refused:
        try:
            run(chosen, once, processes, refused)
        finally:
            for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
                signal.signal(number, signal.SIG_IGN)
            processes.end_all()
    print("Everything the demo started has ended.")
    return 0


if __name__ == "__main__":
    if sys.argv[1:] not in ([], ["--once"]):
        sys.exit(__doc__)
    try:
        sys.exit(main(once=len(sys.argv) > 1))
    except (Interrupted, StepFailed) as reason:
        sys.exit(f"demo: {reason}")
