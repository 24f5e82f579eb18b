"""A device's life under torture: a lab, its agent, and messages that flow to all three kinds of handlers."""

from __future__ import annotations

import contextlib
import os
import shlex
import ssl
import sys
import threading
import time
from collections.abc import Callable, Iterator, Sequence
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[3] / "lab"))

from orvel_lab import Agent, DeadlinePassed, Lab, Session, wait_until  # noqa: E402  (found only now)
from orvel_lab.channel import ChannelEnded  # noqa: E402
from support import processes  # noqa: E402

HANDLERS = ("meter", "local", "program")  # over TCP, over a Unix socket, a program that is started
PROBE_SECONDS = 60  # generous: a sanitizer's build on a loaded machine

ENVIRONMENT = {
    # An ended discovery thread is joined by the next push. When none comes, the thread sanitizer would call it a leak.
    "TSAN_OPTIONS": os.environ.get("TSAN_OPTIONS", "") + " report_thread_leaks=0",
    # One heap for all threads: what each one's own heap keeps in reserve would look like growth.
    "MALLOC_ARENA_MAX": "1",
}


# For a handler's next message: bytes without a line end that make it longer, and the sizes of its first chunks.
Variety = Callable[[str], tuple[bytes, Sequence[int]]]


def plain_variety(_handler: str) -> tuple[bytes, Sequence[int]]:
    return b"", ()


class Program:
    """A handler program that adds each message, a line, to one file: much cheaper than keeping files of them."""

    def __init__(self, folder: Path) -> None:
        self.path = folder / "handler-program"
        self._file = folder / "received-by-program"
        self._file.touch()
        self.path.write_text(f"#!/bin/sh\nexec cat >> {shlex.quote(str(self._file))}\n")
        self.path.chmod(0o755)

    def received(self) -> list[bytes]:
        return self._file.read_bytes().splitlines(keepends=True)


class Life:
    """Used by `with`. Messages flow from start() to calm(), into every session whose agent has identified itself."""

    def __init__(self, folder: Path, gap: float = 0.02, **options) -> None:
        self.lab = Lab(folder, **options)
        self._sinks = {"meter": self.lab.tcp_handler("meter"), "local": self.lab.unix_handler("local")}
        for sink in (*self._sinks.values(), self.lab.event_sink):
            sink.folder = None  # in memory only
        self._program = Program(self.lab.folder)
        self.lab.settings["q_handler_program"] = str(self._program.path)
        self.sent: dict[str, list[bytes]] = {handler: [] for handler in HANDLERS}
        self.fed: list[Session] = []  # the sessions that got messages
        self.streams: dict[int, list[tuple[str, bytes]]] = {}  # by session: handlers and messages, in their order
        self.vary: Variety = plain_variety
        self._sending = threading.Lock()  # what is noted as sent is in the order of the stream
        self._gap = gap
        self._calm = threading.Event()
        self._hushed = threading.Event()
        self._feeder = threading.Thread(target=self._feed, name="feeder")

    def __enter__(self) -> Life:
        self.lab.start()
        return self

    def __exit__(self, *failure: object) -> None:
        self.calm()
        self.lab.__exit__(*failure)

    def start(self, *options: str) -> Agent:
        self.agent = self.lab.start_agent("--log_debug", *options, environment=ENVIRONMENT)
        self._feeder.start()
        return self.agent

    def calm(self) -> None:
        """No more messages by themselves."""
        self._calm.set()
        if self._feeder.is_alive():
            self._feeder.join()

    @contextlib.contextmanager
    def hush(self) -> Iterator[None]:
        """No messages by themselves for a while; one that is under way may still arrive."""
        self._hushed.set()
        try:
            yield
        finally:
            self._hushed.clear()

    def received(self, handler: str) -> list[bytes]:
        return self._program.received() if handler == "program" else self._sinks[handler].messages.snapshot()

    def identified(self) -> Session | None:
        """The newest session, if it is open and its agent has said who it is."""
        session = self.lab.broker.current
        return session if session is not None and len(session.packets) > 0 else None

    def probe(self, deadline: float = PROBE_SECONDS) -> Session:
        """Waits until a message goes through to each kind of handler; gives the session that it took."""
        try:
            return self._probe(time.monotonic() + deadline)
        except DeadlinePassed as failure:
            raise DeadlinePassed(f"{failure}\n{self.situation()}") from None

    def situation(self) -> str:
        """For the report of a failure."""
        sessions = [f"{session.number}: {session.ended_by or 'open'}" for session in self.lab.broker.sessions[-5:]]
        pids = [self.agent.pid, *processes.children(self.agent.pid)]
        waits = "\n".join(f"process {pid}:\n{processes.waits(pid)}" for pid in pids)
        return f"sessions {sessions}\n{waits}\n--- the agent's log:\n{self.agent.log[-8000:]}\n---"

    def check_delivery(self, complete: bool, cut: int = 0) -> int:
        """Nothing was delivered twice, changed or, by the two streams, in another order; `complete`: nor lost.

        As many as `cut` deliveries to each handler may have ended with the agent, before their first byte. Gives the
        number of messages that have arrived.
        """
        total = 0
        for handler in HANDLERS:
            if complete:
                wait_until(lambda name=handler: len(self.received(name)) >= len(self.sent[name]), f"all to {handler}")
            received = self.received(handler)
            empty = received.count(b"")
            assert empty <= cut, f"{empty} empty messages to {handler}, {cut} agents ended"
            whole = [message for message in received if message]
            places = {message: place for place, message in enumerate(self.sent[handler])}
            unknown = [message for message in whole if message not in places]
            assert not unknown, f"{handler} got what was never sent: {unknown[:5]}"
            assert len(set(whole)) == len(whole), f"{handler} got a message twice"
            if handler != "program":  # started programs overtake each other
                order = [places[message] for message in whole]
                assert order == sorted(order), f"{handler} got its messages in another order: {order}"
            if complete:
                assert len(whole) == len(self.sent[handler])
            total += len(whole)
        return total

    def _probe(self, limit: float) -> Session:
        while True:
            session = wait_until(self.identified, "a session", max(0.1, limit - time.monotonic()))
            with contextlib.suppress(ChannelEnded, OSError):
                marks = {handler: self._send(session, handler) for handler in HANDLERS}
                if self._wait_arrived(marks, session, limit):
                    return session

    def _wait_arrived(self, marks: dict[str, bytes], session: Session, limit: float) -> bool:
        def arrived() -> bool:
            return all(mark in self.received(handler)[-200:] for handler, mark in marks.items())

        wait_until(lambda: arrived() or not session.open, "arrival", max(0.1, limit - time.monotonic()))
        return arrived()

    def _send(self, session: Session, handler: str) -> bytes:
        with self._sending:
            filler, chunk_sizes = self.vary(handler)
            name = handler.encode()
            message = b"%s %d in session %d%s\n" % (name, len(self.sent[handler]), session.number, filler)
            self.sent[handler].append(message)
            self.streams.setdefault(session.number, []).append((handler, message))
            if session not in self.fed:
                self.fed.append(session)
            session.send_message(handler, message, chunk_sizes)
            return message

    def _feed(self) -> None:
        while not self._calm.wait(self._gap):
            session = self.identified()
            if session is None or self._hushed.is_set():
                continue
            with contextlib.suppress(ChannelEnded, OSError, ssl.SSLError):
                for handler in HANDLERS:
                    self._send(session, handler)
