"""Starts the load generator in namespaces of its own, where it may use every port and address.

Usage: run.py PROGRAM [ARGUMENT...]
"""

import os
import signal
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests/system"))

from harness import isolation, settings  # noqa: E402  (found through the line above)

ROOM_FOR_LOGS = "6g"
QUEUES = ("/proc/sys/net/core/somaxconn", "/proc/sys/net/ipv4/tcp_max_syn_backlog")


def lengthen_queues() -> None:
    """Let thousands of calls wait for one listener: it is the daemon that is to be measured."""
    for queue in QUEUES:
        try:
            Path(queue).write_text("65535", encoding="ascii")
        except OSError as error:
            print(f"bench: {error}", file=sys.stderr)


def run_inside(command: list[str]) -> None:
    """Become the program, in namespaces of its own."""
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    isolation.enter_private_namespaces(settings.STANDARD_ROOT)
    isolation.mount_tmpfs(settings.STANDARD_ROOT, size=ROOM_FOR_LOGS)
    lengthen_queues()
    os.execv(command[0], command)


def run(command: list[str]) -> int:
    """Run the program in a child, so that this process still sees the machine's own mounts."""
    child = os.fork()
    if child == 0:
        try:
            run_inside(command)
        except OSError as error:
            print(f"bench: {error}", file=sys.stderr)
        finally:
            os._exit(1)
    return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])


def main() -> int:
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the program ends by it, and this one then too
    mount_point = isolation.MountPoint(settings.STANDARD_ROOT)
    mount_point.hold()
    try:
        return run(sys.argv[1:])
    finally:
        mount_point.release()


if __name__ == "__main__":
    sys.exit(main())
