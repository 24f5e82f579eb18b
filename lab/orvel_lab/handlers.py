"""The receiving ends of the agent's deliveries: over TCP, over a Unix socket, and by starting an executable."""

from __future__ import annotations

import json
import os
import shlex
import socket
import threading
from collections.abc import Callable, Sequence
from pathlib import Path
from typing import Any

from .channel import Channel, ChannelEnded
from .listener import Listener, Listening, ReservedPort, UnixPath, join
from .waiting import Event, Journal, Observer, Wake, ignore, poll_readable


class Sink:
    """What the three kinds have in common: the messages that have arrived, in their order.

    With a folder each message is also kept there, as the file 001, 002...
    """

    endpoint = ""  # the value of the setting q_handler_<name>

    def __init__(self, name: str, folder: Path | None = None, observer: Observer = ignore) -> None:
        self.name = name
        self.folder = folder
        self.messages: Journal[bytes] = Journal()
        self._observer = observer
        self._returned = 0
        if folder is not None:
            folder.mkdir(parents=True, exist_ok=True)

    def expect(self, deadline: float | None = None) -> bytes:
        """The next message that no earlier call has returned."""
        messages = self.wait_for_count(self._returned + 1, deadline)
        self._returned += 1
        return messages[self._returned - 1]

    def wait_for_count(self, count: int, deadline: float | None = None) -> list[bytes]:
        return self.messages.wait_for_count(count, f"handler {self.name}: message {count}", deadline)

    def wait_for(self, wanted: Callable[[bytes], bool], what: str, deadline: float | None = None) -> bytes:
        """The first message at all that is wanted."""

        def find(messages: Sequence[bytes]) -> bytes | None:
            return next((message for message in messages if wanted(message)), None)

        return self.messages.wait(find, f"handler {self.name}: {what}", deadline)

    def wait_for_document(self, deadline: float | None = None, **members: Any) -> dict[str, Any]:
        """The first JSON message with these members, such as event=4, connected=True."""

        def fits(message: bytes) -> bool:
            document = json.loads(message)
            return all(document.get(key) == value for key, value in members.items())

        return json.loads(self.wait_for(fits, f"a document with {members}", deadline))

    @property
    def documents(self) -> list[dict[str, Any]]:
        return [json.loads(message) for message in self.messages.snapshot()]

    def _record(self, message: bytes) -> None:
        details: dict[str, Any] = {"handler": self.name, "size": len(message)}
        if self.folder is not None:
            path = self.folder / f"{len(self.messages) + 1:03d}"
            incoming = path.with_name(".incoming")
            incoming.write_bytes(message)
            os.replace(incoming, path)
            details["file"] = str(path)
        self._note(message, details)

    def _note(self, message: bytes, details: dict[str, Any]) -> None:
        shown = message[:60].decode(errors="backslashreplace")
        details["message"] = message[:4096].decode(errors="backslashreplace")
        self.messages.append(message)
        self._observer(Event("handler", f"{self.name}: {len(message)} bytes {shown!r}", details))


class SocketSink(Listening, Sink):
    """One connection is one message. Connections are served one after another, so the order of messages is sure.

    `behaviour` is "read", "close" (before reading) or "hold" (never reads, until release() or stop()).
    """

    def __init__(self, name: str, address: ReservedPort | UnixPath, folder: Path | None, observer: Observer) -> None:
        super().__init__(name, folder, observer)
        self.behaviour = "read"
        self.connections: Journal[str] = Journal()  # the behaviour that each one met
        self._released = Wake()
        self.listener = Listener(address, self._serve, f"handler-{name}", serial=True)

    def release(self) -> None:
        self.behaviour = "read"
        self._released.set()

    def _serve(self, accepted: socket.socket) -> None:
        channel = Channel(accepted, self.listener.stopping)
        self.connections.append(self.behaviour)
        try:
            if self.behaviour == "close":
                return
            if self.behaviour == "hold":
                channel.pause(None, self._released)
            blocks = []
            while block := channel.read():
                blocks.append(block)
            self._record(b"".join(blocks))
        except (ChannelEnded, OSError):
            pass  # the lab stops, or the agent gave this message up
        finally:
            channel.finish()


class TcpSink(SocketSink):
    def __init__(self, name: str, folder: Path | None = None, observer: Observer = ignore) -> None:
        address = ReservedPort([socket.AF_INET])
        super().__init__(name, address, folder, observer)
        self.port = address.port
        self.endpoint = f"127.0.0.1:{self.port}"


class UnixSink(SocketSink):
    """The path must be short: the system allows 108 bytes."""

    def __init__(self, name: str, path: Path, folder: Path | None = None, observer: Observer = ignore) -> None:
        super().__init__(name, UnixPath(str(path)), folder, observer)
        self.endpoint = str(path)


PROGRAM = """#!/bin/sh
# Keeps what arrives on standard input as the next numbered file, then tells the lab its name.
cd {folder} || exit 1
incoming=$(mktemp .incoming.XXXXXX) || exit 1
cat > "$incoming"
number=1
while name=$(printf %03d $number); ! ln "$incoming" "$name" 2> /dev/null; do
  number=$((number + 1))
  [ -e "$name" ] || exit 1
done
rm "$incoming"
echo "$name" 1<> .arrived
"""


class ExecutableSink(Sink):
    """A program that keeps its standard input in files."""

    def __init__(self, name: str, program: Path, folder: Path, observer: Observer = ignore) -> None:
        super().__init__(name, folder, observer)
        program.write_text(PROGRAM.format(folder=shlex.quote(str(folder.resolve()))))
        program.chmod(0o755)
        self.endpoint = str(program.resolve())
        self._stopping = Wake()
        self._thread = threading.Thread(target=self._follow, name=f"handler-{name}")

    def start(self) -> None:
        fifo = self.folder / ".arrived"
        if not fifo.exists():
            os.mkfifo(fifo)
        self._arrivals = open(os.open(fifo, os.O_RDWR | os.O_NONBLOCK), "rb", buffering=0)
        self._thread.start()

    def stop(self) -> None:
        self._stopping.set()
        join(self._thread)
        self._arrivals.close()

    def _follow(self) -> None:
        pending = b""
        while self._stopping not in poll_readable([self._arrivals, self._stopping]):
            pending += self._arrivals.read(4096) or b""
            *names, pending = pending.split(b"\n")
            for name in names:
                path = self.folder / name.decode()
                self._note(path.read_bytes(), {"handler": self.name, "file": str(path)})
