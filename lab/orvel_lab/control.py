"""A client of the agent's control port: one request per connection, answered once its end has been seen."""

from __future__ import annotations

import json
import socket
import time
from collections.abc import Iterable
from typing import Any

from .packets import cut
from .waiting import DEADLINE, DeadlinePassed

RETRY_SECONDS = 0.05


class Control:
    def __init__(self, port: int) -> None:
        self.port = port
        self.requests: list[tuple[dict[str, Any], int]] = []  # documents and their results
        self.replies: list[bytes] = []  # to these, and to what was no document

    def request(self, document: dict[str, Any], deadline: float | None = None) -> int:
        """Sends a request and gives the result code of the reply."""
        reply = self.exchange(json.dumps(document).encode(), deadline=deadline)
        self.requests.append((document, json.loads(reply)["result"]))
        return self.requests[-1][1]

    def command(self, name: str, deadline: float | None = None, **members: Any) -> int:
        """For instance command("on_claim", service="s", claimed=True)."""
        return self.request({"command": name, **members}, deadline)

    def exchange(
        self, data: bytes, sizes: Iterable[int] = (), rest: int | None = None, deadline: float | None = None
    ) -> bytes:
        """Sends any bytes, in pieces of `sizes` and then of `rest` bytes, and gives the whole reply."""
        seconds = DEADLINE if deadline is None else deadline
        with self.connect(seconds) as connection:
            for piece in cut(data, sizes, rest or max(1, len(data))):
                connection.sendall(piece)
            connection.shutdown(socket.SHUT_WR)
            reply = _read_all(connection)
            self.replies.append(reply)
            return reply

    def connect(self, deadline: float | None = None) -> socket.socket:
        """A connection to the port, as soon as something listens there; the caller closes it."""
        seconds = DEADLINE if deadline is None else deadline
        limit = time.monotonic() + seconds
        while True:
            try:
                connection = socket.create_connection(("127.0.0.1", self.port), timeout=seconds or RETRY_SECONDS)
                connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                connection.settimeout(seconds)
                return connection
            except ConnectionRefusedError:
                if time.monotonic() >= limit:
                    raise DeadlinePassed(f"nothing listens on control port {self.port}") from None
                time.sleep(RETRY_SECONDS)


def _read_all(connection: socket.socket) -> bytes:
    blocks = []
    try:
        while block := connection.recv(4096):
            blocks.append(block)
    except TimeoutError:
        raise DeadlinePassed(f"no end of the reply on the control port; so far {b''.join(blocks)!r}") from None
    return b"".join(blocks)
