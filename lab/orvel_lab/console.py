"""The lab's web console: what happens, kept in a ring and told to pages, and the commands that pages give."""

from __future__ import annotations

import json
import re
import secrets
import threading
from collections import deque
from collections.abc import Callable, Iterator
from dataclasses import asdict
from typing import Any

from .commands import Commands
from .console_server import ConsoleServer
from .roster import Roster
from .waiting import Event

KEPT_EVENTS = 1000
REST_SECONDS = 0.1  # between two looks at what has changed: many changes at once are one message
ALIVE_SECONDS = 10.0  # a page that hears nothing for much longer takes the lab for gone
RETRY_MILLISECONDS = 1000  # after which a page that has lost the lab tries again

# What a page may ask for. The rest waits, or speaks to whatever has taken the agent's port.
ALLOWED = {"send", "claim", "release", "advise-connect", "advise-wait", "drop", "fault", "calm"}


class Ring:
    """The last so many documents, numbered from 1 on."""

    def __init__(self, size: int = KEPT_EVENTS) -> None:
        self._kept: deque[tuple[int, dict[str, Any]]] = deque(maxlen=size)
        self._count = 0
        self._ended = False
        self._changed = threading.Condition()

    def append(self, document: dict[str, Any]) -> None:
        with self._changed:
            self._count += 1
            self._kept.append((self._count, document))
            self._changed.notify_all()

    def end(self) -> None:
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def after(self, number: int) -> list[tuple[int, dict[str, Any]]]:
        with self._changed:
            return [entry for entry in self._kept if entry[0] > number]

    def wait_after(self, number: int, seconds: float) -> bool:
        """Waits so long for something new; False when nothing will come any more."""
        with self._changed:
            self._changed.wait_for(lambda: self._ended or self._count > number, seconds)
            return not self._ended

    def rest(self, seconds: float) -> bool:
        """The same, but it goes on when it has ended only."""
        with self._changed:
            return not self._changed.wait_for(lambda: self._ended, seconds)


class Console:
    """Listens on a loopback port of its own (0) or on a given one from start() to stop()."""

    def __init__(
        self, port: int, roster: Roster, commands: Commands, lab_document: Callable[[], dict[str, Any]]
    ) -> None:
        self._roster = roster
        self._commands = commands
        self._lab_document = lab_document
        self._run = secrets.token_hex(4)  # another run of the lab counts its events from 1 on, too
        self._ring = Ring()
        self._server = ConsoleServer(port, self._news, self._command)
        self.port = self._server.port
        self.url = f"http://127.0.0.1:{self.port}/"

    def start(self) -> None:
        self._server.start()

    def stop(self) -> None:
        self._ring.end()
        self._server.stop()

    def observe(self, event: Event) -> None:
        device = self._roster.observe(event)
        self._ring.append({**asdict(event), "device": device})

    def _command(self, request: dict[str, Any]) -> dict[str, Any]:
        name = str(request.get("do"))
        return self._commands.answer(request) if name in ALLOWED else {"error": f"no command '{name}' here"}

    def _news(self, last_id: str) -> Iterator[bytes]:
        """The lab, its devices and what has happened behind `last_id`; then all changes, until the lab stops.

        Devices are told at each turn, be they none, so that a page knows that the lab is there.
        """
        at = self._number_of(last_id)
        lab: dict[str, Any] = {}
        known: dict[str, dict[str, Any]] = {}
        yield f"retry: {RETRY_MILLISECONDS}\n\n".encode()
        while True:
            happened = self._ring.after(at)  # before the look at the devices: what happens from now on wakes again
            lab_before, lab = lab, {"run": self._run, **self._lab_document()}
            if lab != lab_before:
                yield part("lab", lab)
            changed = [row for row in self._roster.rows() if known.get(row["hardware_id"]) != row]
            known |= {row["hardware_id"]: row for row in changed}
            yield part("devices", changed)
            for number, document in happened:
                if 0 < at < number - 1:
                    yield part("gap", number - at - 1)
                at = number
                yield part("event", document, f"{self._run}-{number}")
            if not self._ring.rest(REST_SECONDS) or not self._ring.wait_after(at, ALIVE_SECONDS):
                return

    def _number_of(self, last_id: str) -> int:
        """0 for what is no id of this run."""
        found = re.fullmatch(r"(\w+)-([0-9]{1,15})", last_id)
        return int(found[2]) if found and found[1] == self._run else 0


def part(kind: str, document: Any, last_id: str = "") -> bytes:
    """One part of the event stream; a page that comes back names the last id that it has seen."""
    head = f"id: {last_id}\n" if last_id else ""
    return f"{head}event: {kind}\ndata: {json.dumps(document)}\n\n".encode()
