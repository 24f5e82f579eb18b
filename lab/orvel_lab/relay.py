"""A stretch of wire that keeps what is sent over it: in front of a proxy, to see the bytes that the agent sends."""

from __future__ import annotations

import socket

from .listener import Listener, ReservedPort
from .waiting import DEADLINE, poll_readable

BLOCK = 65536


class Relay:
    """Passes connections on to a port of this machine. Started by `with`."""

    def __init__(self, port: int) -> None:
        self._streams: list[bytearray] = []
        self._target = port
        self._listener = Listener(ReservedPort([socket.AF_INET]), self._serve, "relay")
        self.port = self._listener.address.port

    def __enter__(self) -> Relay:
        self._listener.start()
        return self

    def __exit__(self, *_error: object) -> None:
        self._listener.stop()

    def sent(self, *parts: bytes) -> list[bytes]:
        """What the clients have sent, for each connection in which all of `parts` occur."""
        streams = [bytes(stream) for stream in self._streams]
        return [stream for stream in streams if all(part in stream for part in parts)]

    def _serve(self, client: socket.socket) -> None:
        sent = bytearray()
        self._streams.append(sent)
        try:
            with client, socket.create_connection(("127.0.0.1", self._target), timeout=DEADLINE) as server:
                client.settimeout(DEADLINE)
                self._pass_on(client, server, sent)
        except OSError:
            pass  # one side has gone

    def _pass_on(self, client: socket.socket, server: socket.socket, sent: bytearray) -> None:
        others = {client: server, server: client}
        while others:
            ready = poll_readable([*others, self._listener.stopping])
            if self._listener.stopping in ready:
                return
            for source in ready:
                data = source.recv(BLOCK)
                if source is client:
                    sent += data
                if data:
                    others[source].sendall(data)
                else:
                    others.pop(source).shutdown(socket.SHUT_WR)
