"""Accepting connections: one thread per listener, one per connection, all joined on stop."""

from __future__ import annotations

import os
import socket
import threading
from collections.abc import Callable, Sequence

from .waiting import DEADLINE, Wake, poll_readable

Serve = Callable[[socket.socket], None]

LOOPBACK = {socket.AF_INET: "127.0.0.1", socket.AF_INET6: "::1"}
FREE_PORT_ATTEMPTS = 50


class ReservedPort:
    """A port that is nobody else's: bound, not listening, so that a connection to it is refused. 0 is any free one.

    SO_REUSEPORT lets listeners of the same user that ask for it (the agent's control port does) bind it as well.
    """

    def __init__(self, families: Sequence[int] = (socket.AF_INET,), port: int = 0) -> None:
        self.families = tuple(families)
        for attempt in range(FREE_PORT_ATTEMPTS):
            self._sockets: list[socket.socket] = []
            try:
                self.port = port
                for family in self.families:
                    self._sockets.append(bound_socket(family, self.port))
                    self.port = self._sockets[0].getsockname()[1]
                return
            except OSError:
                # The port was free in one family and taken in the other.
                self.close()
                if attempt == FREE_PORT_ATTEMPTS - 1:
                    raise

    def listening_sockets(self) -> list[socket.socket]:
        """New listening sockets on the port, one per family."""
        sockets = [bound_socket(family, self.port) for family in self.families]
        for listening in sockets:
            listening.listen(128)
        return sockets

    def close(self) -> None:
        for reserved in self._sockets:
            reserved.close()


class UnixPath:
    """The same for a Unix stream socket: the path is only there while something listens."""

    def __init__(self, path: str) -> None:
        self.path = path

    def listening_sockets(self) -> list[socket.socket]:
        if os.path.exists(self.path):
            os.unlink(self.path)
        listening = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        listening.bind(self.path)
        listening.listen(128)
        return [listening]

    def close(self) -> None:
        if os.path.exists(self.path):
            os.unlink(self.path)


def bound_socket(family: int, port: int) -> socket.socket:
    bound = socket.socket(family, socket.SOCK_STREAM)
    try:
        if family == socket.AF_INET6:
            bound.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
        bound.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        bound.bind((LOOPBACK[family], port))
    except OSError:
        bound.close()
        raise
    return bound


class Listener:
    """Calls `serve` with each accepted socket, which it owns from then on.

    In series (`serial`), the next connection is accepted when the one before has been served. `serve` has to watch
    `stopping` wherever it waits; stop() sets it and joins all threads.
    """

    def __init__(self, address: ReservedPort | UnixPath, serve: Serve, name: str, serial: bool = False) -> None:
        self.address = address
        self.stopping = Wake()
        self._serve = serve
        self._name = name
        self._serial = serial
        self._lock = threading.Lock()
        self._connections: list[threading.Thread] = []
        self._acceptor: threading.Thread | None = None
        self._pause = Wake()

    def start(self) -> None:
        """Starts listening; also again after refuse()."""
        sockets = self.address.listening_sockets()
        self._pause = Wake()
        self._acceptor = threading.Thread(target=self._accept, args=(sockets, self._pause), name=f"{self._name}-accept")
        self._acceptor.start()

    def refuse(self) -> None:
        """Stops listening: new connections are refused; those that are open go on."""
        if self._acceptor is None:
            return
        self._pause.set()
        join(self._acceptor)
        self._acceptor = None

    def stop(self) -> None:
        self.stopping.set()
        self.refuse()
        with self._lock:
            connections = list(self._connections)
        for thread in connections:
            join(thread)
        self.address.close()

    def _accept(self, sockets: list[socket.socket], pause: Wake) -> None:
        try:
            while True:
                ready = poll_readable([pause, self.stopping, *sockets])
                if pause in ready or self.stopping in ready:
                    return
                for listening in ready:
                    self._hand_over(listening)
        finally:
            for listening in sockets:
                listening.close()

    def _hand_over(self, listening: socket.socket) -> None:
        try:
            accepted, _ = listening.accept()
        except OSError:
            return  # the peer left before it was accepted
        if self._serial:
            self._serve(accepted)
            return
        thread = threading.Thread(target=self._serve, args=(accepted,), name=f"{self._name}-connection")
        with self._lock:
            self._connections = [other for other in self._connections if other.is_alive()]
            self._connections.append(thread)
            thread.start()


class Listening:
    """What the lab's servers have in common: each listens with its `listener` from start() to stop()."""

    listener: Listener

    def start(self) -> None:
        self.listener.start()

    def stop(self) -> None:
        self.listener.stop()

    def refuse(self) -> None:
        """From now on connections are refused (nothing listens any more) until accept() is called."""
        self.listener.refuse()

    def accept(self) -> None:
        self.listener.start()


def join(thread: threading.Thread) -> None:
    thread.join(DEADLINE)
    if thread.is_alive():
        raise RuntimeError(f"thread {thread.name} does not end")
