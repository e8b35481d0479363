"""Many viewers of consoles at once, in a process of their own.

As a program: reads a line of JSON, connects, says "ready", and takes what comes. A second line
says how many bytes of output each viewer shall be shown: it waits for them, and then says in JSON
how many there were.
"""

import asyncio
import base64
import json
import os
import ssl
import struct
import subprocess
import sys
from pathlib import Path

AT_ONCE = 50  # that shake hands
BINARY, TEXT, CLOSE = 2, 1, 8


class Viewer:
    """Takes frames and counts the bytes of output in them."""

    def __init__(self, order: dict, console: str) -> None:
        self.order = order
        self.console = console
        self.shown = 0
        self.missed = 0

    async def connect(self, context: ssl.SSLContext | None) -> None:
        """Ask for the stream, and wait until it is live."""
        self.reader, self.writer = await asyncio.open_connection(
            "127.0.0.1", self.order["port"], ssl=context)
        key = base64.b64encode(os.urandom(16)).decode("ascii")
        self.writer.write((
            f"GET /api/consoles/{self.console}/stream HTTP/1.1\r\n"
            f"Host: 127.0.0.1:{self.order['port']}\r\nOrigin: {self.order['origin']}\r\n"
            f"Cookie: {self.order['cookie']}\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            f"Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: {key}\r\n\r\n").encode("ascii"))
        head = await self.reader.readuntil(b"\r\n\r\n")
        assert b" 101 " in head.partition(b"\r\n")[0], head
        while b'"what":"live"' not in await self.take():
            pass

    async def take(self) -> bytes:
        """The payload of the next frame, which is no part of a longer one."""
        first, length = await self.reader.readexactly(2)
        if length >= 126:
            size, form = (2, ">H") if length == 126 else (8, ">Q")
            length = struct.unpack(form, await self.reader.readexactly(size))[0]
        payload = await self.reader.readexactly(length)
        assert first & 0x80 and first & 15 != CLOSE, payload
        if first & 15 == BINARY:
            self.shown += length - 2 - payload[1] - 8
        elif payload.startswith(b'{"what":"missed"'):
            self.missed += json.loads(payload)["bytes"]
        return payload

    async def take_all(self) -> None:
        """Until somebody stops it."""
        while True:
            await self.take()


async def crowd(order: dict) -> None:
    """All viewers, until they have been shown enough."""
    context = ssl.create_default_context(cafile=order["certificate"]) if order["certificate"] \
        else None
    viewers = [Viewer(order, order["consoles"][i % len(order["consoles"])])
               for i in range(order["count"])]
    for begin in range(0, len(viewers), AT_ONCE):
        await asyncio.gather(*(viewer.connect(context)
                               for viewer in viewers[begin:begin + AT_ONCE]))
    print("ready", flush=True)
    tasks = [asyncio.create_task(viewer.take_all()) for viewer in viewers]
    wanted = int(await asyncio.get_running_loop().run_in_executor(None, sys.stdin.readline))
    for _ in range(200):
        if all(viewer.shown + viewer.missed >= wanted for viewer in viewers):
            break
        await asyncio.sleep(0.1)
    failed = [repr(task.exception()) for task in tasks if task.done()]
    print(json.dumps({"shown": [viewer.shown for viewer in viewers],
                      "missed": [viewer.missed for viewer in viewers], "failed": failed[:5]}))
    sys.stdout.flush()
    os._exit(0)


class Crowd:
    """The process, for a test."""

    def __init__(self, web, consoles: list[str], count: int) -> None:
        web.ensure_session()
        self._process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "--", sys.executable, "-B", str(Path(__file__))],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        order = {"port": web.port, "origin": web.origin, "cookie": web.cookie,
                 "certificate": str(web.certificate) if web.tls else None,
                 "consoles": consoles, "count": count}
        self._process.stdin.write(json.dumps(order) + "\n")
        self._process.stdin.flush()
        assert self._process.stdout.readline() == "ready\n"

    def finish(self, wanted: int) -> dict:
        """Wait until each viewer was shown so many bytes; gives how many it was, and end it."""
        shown, _ = self._process.communicate(f"{wanted}\n", timeout=60)
        return json.loads(shown)

    def __enter__(self) -> "Crowd":
        return self

    def __exit__(self, *_) -> None:
        self._process.kill()
        self._process.wait()


if __name__ == "__main__":
    asyncio.run(crowd(json.loads(sys.stdin.readline())))
