"""A stretch of wire in front of a port of this machine: keeps what clients send, and finds TLS's records in it."""

from __future__ import annotations

import socket
from collections import Counter
from collections.abc import Sequence
from dataclasses import dataclass, field

from orvel_lab import Journal
from orvel_lab.listener import Listener, ReservedPort
from orvel_lab.waiting import DEADLINE, poll_readable

BLOCK = 65536

# Content types (RFC 5246).
CHANGE_CIPHER_SPEC, ALERT, HANDSHAKE, APPLICATION_DATA = 20, 21, 22, 23


@dataclass
class Connection:
    port: int  # from which the tap has made its way on: what the server calls its peer
    sent: bytearray = field(default_factory=bytearray)  # by the client
    over: bool = False


class Tap:
    """Started by `with`."""

    def __init__(self, target: int) -> None:
        self.connections: Journal[Connection] = Journal()
        self._target = target
        self._listener = Listener(ReservedPort([socket.AF_INET]), self._serve, "tap")
        self.port = self._listener.address.port

    def __enter__(self) -> Tap:
        self._listener.start()
        return self

    def __exit__(self, *_error: object) -> None:
        self._listener.stop()

    def wait_over(self) -> Connection:
        """The first connection that is over."""

        def find(connections: Sequence[Connection]) -> Connection | None:
            return next((connection for connection in connections if connection.over), None)

        return self.connections.wait(find, "the end of a connection over the tap")

    def _serve(self, client: socket.socket) -> None:
        with client, socket.create_connection(("127.0.0.1", self._target), timeout=DEADLINE) as server:
            client.settimeout(DEADLINE)
            connection = Connection(server.getsockname()[1])
            self.connections.append(connection)
            self._pass_on(client, server, connection.sent)
        connection.over = True
        self.connections.touch()

    def _pass_on(self, client: socket.socket, server: socket.socket, sent: bytearray) -> None:
        """Until both sides have ended. What the client sends is kept, also when the server has gone already."""
        others = {client: server, server: client}
        while others:
            ready = poll_readable([*others, self._listener.stopping])
            if self._listener.stopping in ready:
                return
            for source in ready:
                data = _receive(source)
                if source is client:
                    sent += data
                _hand_on(others[source], data)
                if not data:
                    del others[source]


def _receive(source: socket.socket) -> bytes:
    """Nothing when it has ended, in whatever way."""
    try:
        return source.recv(BLOCK)
    except OSError:
        return b""


def _hand_on(target: socket.socket, data: bytes) -> None:
    try:
        if data:
            target.sendall(data)
        else:
            target.shutdown(socket.SHUT_WR)
    except OSError:
        pass  # the other side has gone


def records(stream: bytes | bytearray) -> Counter[int]:
    """How many records of each content type a TLS client has sent; a failure when it has sent anything else."""
    found: Counter[int] = Counter()
    at = 0
    while at < len(stream):
        kind, version, size = stream[at], stream[at + 1], int.from_bytes(stream[at + 3 : at + 5], "big")
        whole = len(stream) - at >= 5 + size and size > 0
        if not whole or kind not in (CHANGE_CIPHER_SPEC, ALERT, HANDSHAKE, APPLICATION_DATA) or version != 3:
            raise AssertionError(f"not a TLS record at byte {at}: {stream[at : at + 80].hex(' ')}")
        found[kind] += 1
        at += 5 + size
    return found
