"""The console's HTTP side: one page and its parts, an event stream, and commands; for this machine alone."""

from __future__ import annotations

import json
import socket
from collections.abc import Callable, Iterator
from http.server import BaseHTTPRequestHandler
from pathlib import Path
from typing import Any

from .listener import Listener
from .waiting import poll_readable

PAGE = Path(__file__).resolve().parent / "console_page"
TYPES = {
    ".html": "text/html; charset=utf-8",
    ".css": "text/css; charset=utf-8",
    ".js": "text/javascript; charset=utf-8",
    ".svg": "image/svg+xml",
}
HEADERS = {
    "Content-Security-Policy": "default-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'",
    "Cross-Origin-Resource-Policy": "same-origin",
    "X-Content-Type-Options": "nosniff",
    "Referrer-Policy": "no-referrer",
    "Cache-Control": "no-store",
}
COMMAND_HEADER = "X-Orvel-Lab"  # no page of another origin may send it without our leave, which nobody gets
LONGEST_COMMAND = 8 * 1024 * 1024
IDLE_SECONDS = 10.0

News = Callable[[str], Iterator[bytes]]
Command = Callable[[dict[str, Any]], dict[str, Any]]


class OwnPort:
    """A port of 127.0.0.1 that is shared with nobody; listens from the beginning."""

    def __init__(self, port: int) -> None:
        self._socket = socket.create_server(("127.0.0.1", port), backlog=128)
        self.port = self._socket.getsockname()[1]

    def listening_sockets(self) -> list[socket.socket]:
        return [self._socket]

    def close(self) -> None:
        self._socket.close()


class ConsoleServer:
    """One request for each connection, so that none is left open for the lab's end to wait for."""

    def __init__(self, port: int, news: News, command: Command) -> None:
        address = OwnPort(port)
        self.port = address.port
        self.hosts = {f"127.0.0.1:{self.port}", f"localhost:{self.port}"}
        self.news = news
        self.command = command
        self._files = {f"/{path.name}": path for path in PAGE.iterdir() if path.suffix in TYPES}
        self._files["/"] = PAGE / "index.html"
        self._listener = Listener(address, self._serve, "console")

    def start(self) -> None:
        self._listener.start()

    def stop(self) -> None:
        self._listener.stop()

    def file(self, path: str) -> Path | None:
        return self._files.get(path)

    def _serve(self, accepted: socket.socket) -> None:
        with accepted:
            if accepted not in poll_readable([accepted, self._listener.stopping], IDLE_SECONDS):
                return  # a browser opens connections in advance
            accepted.settimeout(IDLE_SECONDS)
            try:
                Conversation(accepted, self)
            except OSError:
                pass  # the browser has left


class Conversation(BaseHTTPRequestHandler):
    """One request and its answer."""

    server: ConsoleServer

    def __init__(self, accepted: socket.socket, server: ConsoleServer) -> None:
        super().__init__(accepted, accepted.getpeername(), server)

    def do_GET(self) -> None:
        path, _, _query = self.path.partition("?")
        if not self._is_ours():
            return
        if path == "/news":
            self._stream()
        elif file := self.server.file(path):
            self._answer(200, file.read_bytes(), TYPES[file.suffix])
        else:
            self._refuse(404, "no such page")

    def do_POST(self) -> None:
        if not self._is_ours():
            return
        length = self.headers.get("Content-Length", "")
        if self.path != "/command":
            self._refuse(404, "no such page")
        elif self.headers.get(COMMAND_HEADER) != "console":
            self._refuse(403, f"a command needs the header {COMMAND_HEADER}")
        elif not length.isdigit() or int(length) > LONGEST_COMMAND:
            self._refuse(413, "the command is too long")
        else:
            self._carry_out(self.rfile.read(int(length)))

    def _carry_out(self, body: bytes) -> None:
        try:
            request = json.loads(body)
            if not isinstance(request, dict):
                raise ValueError("no object")
        except ValueError as error:
            self._refuse(400, f"the command is not understood: {error}")
            return
        self._answer(200, json.dumps(self.server.command(request)).encode())  # also what could not be done

    def _is_ours(self) -> bool:
        """Neither a foreign name that leads to this machine, nor a page of another origin, gets anything."""
        host, origin = self.headers.get("Host", ""), self.headers.get("Origin")
        if host not in self.server.hosts:
            self._refuse(403, "the lab answers to the names of this machine only")
        elif origin not in (None, f"http://{host}"):
            self._refuse(403, "the lab answers to its own page only")
        else:
            return True
        return False

    def _stream(self) -> None:
        self.send_response(200)
        self._end_head("text/event-stream")
        for part in self.server.news(self.headers.get("Last-Event-ID", "")):
            self.wfile.write(part)

    def _answer(self, status: int, body: bytes, kind: str = "application/json") -> None:
        self.send_response(status)
        self.send_header("Content-Length", str(len(body)))
        self._end_head(kind)
        self.wfile.write(body)

    def _refuse(self, status: int, why: str) -> None:
        self._answer(status, json.dumps({"error": why}).encode())

    def _end_head(self, kind: str) -> None:
        self.send_header("Content-Type", kind)
        for name, value in HEADERS.items():
            self.send_header(name, value)
        self.end_headers()

    def version_string(self) -> str:
        return "orvel-lab"

    def log_message(self, *_arguments: object) -> None:
        """The lab's time line is for the devices."""
