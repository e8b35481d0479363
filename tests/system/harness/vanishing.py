"""Peers that vanish: they close nothing and say nothing, and whatever is sent to them is lost."""

import array
import contextlib
import ctypes
import fcntl
import os
import platform
import socket
import struct
import termios
from pathlib import Path

from harness import preload
from harness.peers import Peer
from harness.station import Station

_SO_ATTACH_FILTER = 26
_SO_DETACH_FILTER = 27
_SYS_PIDFD_GETFD = {"x86_64": 438, "aarch64": 438}

_libc = ctypes.CDLL(None, use_errno=True)


def vanish(peer: Peer) -> None:
    """From now on nothing arrives at the peer, not even in its kernel, which answers nothing."""
    drop_all = ctypes.create_string_buffer(struct.pack("=HBBI", 0x06, 0, 0, 0))  # "return 0 bytes"
    program = struct.pack("@HP", 1, ctypes.addressof(drop_all))
    peer.socket.setsockopt(socket.SOL_SOCKET, _SO_ATTACH_FILTER, program)


def reappear(peer: Peer) -> None:
    """What is sent to the peer arrives again, as soon as the sender's kernel tries once more."""
    peer.socket.setsockopt(socket.SOL_SOCKET, _SO_DETACH_FILTER, 0)


def daemons_socket(station: Station, peer: Peer | socket.socket) -> socket.socket:
    """The daemon's end of the peer's connection, to be asked and changed; the caller closes it."""
    sock = peer.socket if isinstance(peer, Peer) else peer
    inode = _inode(sock.getpeername()[1], sock.getsockname()[1])
    directory = Path(f"/proc/{station.pid}/fd")
    for entry in directory.iterdir():
        with contextlib.suppress(FileNotFoundError):  # the daemon has just closed that one
            if os.readlink(entry) == f"socket:[{inode}]":
                return socket.socket(fileno=_copy_descriptor(station.pid, int(entry.name)))
    raise AssertionError(f"the daemon has no end of the connection of {sock}")


def _inode(local_port: int, remote_port: int) -> int:
    with open("/proc/self/net/tcp", encoding="ascii") as table:
        for row in [line.split() for line in table][1:]:
            ports = [int(address.rpartition(":")[2], 16) for address in row[1:3]]
            if ports == [local_port, remote_port]:
                return int(row[9])
    raise AssertionError(f"no connection from port {remote_port} to port {local_port}")


def _copy_descriptor(pid: int, descriptor: int) -> int:
    process = os.pidfd_open(pid)
    try:
        copy = _libc.syscall(_SYS_PIDFD_GETFD[platform.machine()], process, descriptor, 0)
    finally:
        os.close(process)
    if copy < 0:
        code = ctypes.get_errno()
        raise OSError(code, f"pidfd_getfd: {os.strerror(code)}")
    return copy


def hurry(sock: socket.socket) -> None:
    """Have the kernel ask the peer of this socket every second, and give up after two."""
    for option in (socket.TCP_KEEPIDLE, socket.TCP_KEEPINTVL, socket.TCP_KEEPCNT):
        sock.setsockopt(socket.IPPROTO_TCP, option, 1)


def waiting(sock: socket.socket) -> int:
    """How many bytes were sent on the socket and are not acknowledged."""
    count = array.array("i", [0])
    fcntl.ioctl(sock, termios.TIOCOUTQ, count)
    return count[0]


class Silence:
    """Adds minutes to the silence of peers, as the daemons that are started with `env` see it."""

    def __init__(self, scratch: Path) -> None:
        self._library = preload.build("silent_peers", scratch)
        self._settings = scratch / "silent_peers.settings"
        self._settings.write_bytes(struct.pack("=9I", *[0] * 9))

    @property
    def env(self) -> dict[str, str]:
        """What has to be in the daemon's environment."""
        return preload.environment(self._library, SILENT_PEERS=str(self._settings))

    def add(self, seconds: int, *peers: Peer) -> None:
        """Make these peers silent for this much longer, and no others."""
        ports = [peer.socket.getsockname()[1] for peer in peers]
        with open(self._settings, "r+b", buffering=0) as file:
            file.write(struct.pack("=9I", seconds * 1000, *ports, *[0] * (8 - len(ports))))
