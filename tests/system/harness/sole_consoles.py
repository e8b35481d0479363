"""Consoles that take one connection each, as a terminal server's ports do, and that know when they
have had two at once."""

import selectors
import socket
import threading
import time

from harness.realm import HERE, RACK

BANNER = b"login: "


class SoleConsole:
    """One of them. Its connections are looked after by the rack's thread."""

    def __init__(self, name: str) -> None:
        self.name = name
        self.listener = socket.create_server((f"{RACK}.{HERE}", 0))
        self.listener.setblocking(False)
        self.port = self.listener.getsockname()[1]
        self.connections: dict[socket.socket, str] = {}
        self.owners: list[str] = []  # addresses, as they came
        self.typed = bytearray()

    @property
    def owner(self) -> str | None:
        """The address of the connection, if there is one."""
        return next(iter(self.connections.values()), None)


class SoleRack:
    """Many of them. What they print is sent to whoever is connected."""

    def __init__(self, names: list[str]) -> None:
        self.consoles = {name: SoleConsole(name) for name in names}
        self.doubles: list[tuple[float, str, list[str]]] = []  # when, console, addresses
        self._lock = threading.Lock()
        self._selector = selectors.DefaultSelector()
        self._ending = False
        for console in self.consoles.values():
            self._selector.register(console.listener, selectors.EVENT_READ, console)
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def __getitem__(self, name: str) -> SoleConsole:
        return self.consoles[name]

    def _serve(self) -> None:
        while not self._ending:
            ready = self._selector.select(0.1)
            with self._lock:
                # Ends first: one that has gone and one that has come are not there together.
                for key, _ in ready:
                    if key.fileobj is not key.data.listener:
                        self._receive(key.data, key.fileobj)
                for key, _ in ready:
                    if key.fileobj is key.data.listener:
                        self._accept(key.data)

    def _accept(self, console: SoleConsole) -> None:
        try:
            connection, (address, _) = console.listener.accept()
        except BlockingIOError:
            return
        # Others may have ended since the list of what is ready was made.
        for other in list(console.connections):
            self._receive(console, other)
        connection.setblocking(False)
        console.connections[connection] = address
        console.owners.append(address)
        if len(console.connections) > 1:
            self.doubles.append((time.monotonic(), console.name,
                                 list(console.connections.values())))
        self._selector.register(connection, selectors.EVENT_READ, console)
        connection.send(BANNER)

    def _receive(self, console: SoleConsole, connection: socket.socket) -> None:
        try:
            data = connection.recv(4096)
        except BlockingIOError:
            return
        except OSError:
            data = b""
        if data:
            console.typed += data
            return
        self._selector.unregister(connection)
        del console.connections[connection]
        connection.close()

    def address(self, name: str) -> str:
        """Where a console is reached."""
        return f"{RACK}.{HERE}:{self.consoles[name].port}"

    def say(self, name: str, text: bytes) -> int:
        """Print at a console; how many connections have been sent it."""
        with self._lock:
            sent = 0
            for connection in list(self.consoles[name].connections):
                try:
                    connection.send(text)
                    sent += 1
                except OSError:
                    pass
            return sent

    def owners(self) -> dict[str, str | None]:
        """Who is connected to each, by address."""
        with self._lock:
            return {name: console.owner for name, console in self.consoles.items()}

    def connected(self, address: str) -> set[str]:
        """The consoles to which the address is connected."""
        with self._lock:
            return {name for name, console in self.consoles.items()
                    if address in console.connections.values()}

    def end(self) -> None:
        """Close everything."""
        self._ending = True
        self._thread.join()
        for console in self.consoles.values():
            for connection in console.connections:
                connection.close()
            console.listener.close()
        self._selector.close()
