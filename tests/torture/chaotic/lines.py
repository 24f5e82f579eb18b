"""Lives over disturbed lines: relays by a seeded plan before broker, cloud or proxy; then calm, and a close look."""

from __future__ import annotations

import contextlib
import random
import re
import time
from collections.abc import Callable, Sequence

from orvel_lab import DeadlinePassed, wait_until
from orvel_lab.cloud import BASE_PATHS
from orvel_lab.packets import Decoder, Type
from orvel_lab.relay import Connection, Disturbance, Plan, Relay, Ways
from support import processes
from support.life import HANDLERS, Life
from support.records import APPLICATION_DATA, whole_records
from support.rounds import Round, sanitizer

EVENT_CHANCES = ("reset",) * 4 + ("half-close",) * 4 + ("stall",)
EVENTFUL_BROKER, EVENTFUL_CLOUD, EVENTFUL_PROXY = 0.9, 0.3, 0.6  # shares of the connections
KINDS = ("tcp", "tls", "http", "socks5", "socks4")
PROXIES = ("http", "socks4", "socks5")
STORMS, LONG_STORMS = 3, 12  # in one life
REQUEST_TIMEOUT, CONNECT_TIMEOUT = 3, 2
REPLY_SECONDS = REQUEST_TIMEOUT + 5
MARGIN = 8  # seconds, for a loaded machine
STOP_SECONDS = 8
SETTLE_SECONDS = 20
THREADS = 5 + (sanitizer() == "thread")  # first, orvel_main, control listener, broker session, delivery worker

# Behind a proxy's greeting the tunnel begins: by kind, where.
GREETINGS: dict[str, Callable[[bytes], int]] = {
    "tcp": lambda stream: 0,
    "http": lambda stream: stream.find(b"\r\n\r\n") + 4,
    "socks4": lambda stream: 8,
    "socks5": lambda stream: 2 + 10 + (2 if stream[1:2] == b"\x02" else 0),  # when it asked for the password
}

TLS_HANDSHAKE = b"\x16"
SESSION_OF = re.compile(rb"^\w+ \d+ in session (\d+)")

Message = tuple[str, bytes]  # handler, and what it gets


def weather(seed: str, eventful: float) -> Plan:
    """For each connection another one. That share of them meets an event, in one of its directions: often in the
    handshakes and around the identity, otherwise among the messages. The agent itself sends little.
    """

    def plan(number: int) -> Ways:
        chance = random.Random(f"{seed} {number}")
        then = chance.choice(EVENT_CHANCES) if chance.random() < eventful else ""
        if chance.random() < 0.3:
            return _way(chance, then, int(10 ** chance.uniform(0, 2.6))), _way(chance)
        at = int(10 ** chance.uniform(0, 3.2)) if chance.random() < 0.5 else chance.randrange(200, 4_000)
        return _way(chance), _way(chance, then, at)

    return plan


def _way(chance: random.Random, then: str = "", at: int = 0) -> Disturbance:
    largest = chance.choice([0, 0, 1, 3, 20, 300, 1500])
    gap = chance.choice([0, 0, 0.0005, 0.002]) if largest != 1 else chance.choice([0, 0.0005])
    delay = chance.choice([0, 0, 0.01, 0.1])
    return Disturbance(delay, largest, gap, then, at, chance.randrange(1 << 30))


class DisturbedLife:
    def __init__(self, this: Round, kind: str) -> None:
        self.this = this
        self.kind = kind
        self.delays = {key: this.random.choice([0, 0, 0, 1]) for key in ("q_advisor_delay", "q_qbroker_delay")}
        self.heartbeat = this.random.choice([0, 0, 1])
        self.fillers = random.Random(this.random.random())  # drawn from on the feeder's thread
        self.interrupted: set[int] = set()  # the broker's connections that may have been ended by a pause
        self.relays: list[Relay] = []

    @property
    def calm_limit(self) -> float:
        """What may be under way when the calm comes: a request to its time-out, then either delay."""
        return REQUEST_TIMEOUT + sum(self.delays.values()) + MARGIN

    def run(self, storms: int) -> None:
        timeouts = {"q_http_request_timeout": str(REQUEST_TIMEOUT), "q_http_connect_timeout": str(CONNECT_TIMEOUT)}
        settings = {**timeouts, **{key: str(delay) for key, delay in self.delays.items()}}
        options = {"registered": True, "claimed": True, "tls": self.kind == "tls", "settings": settings}
        folder, authority = self.this.folder / "lab", self.this.authority
        with contextlib.ExitStack() as stack, Life(folder, gap=0.03, authority=authority, **options) as self.life:
            self.life.vary = self._variety
            self._lay_lines(stack)
            self.agent = self.life.start("--agent_heartbeat", str(self.heartbeat))
            self.life.probe()
            with self.life.hush():
                self.descriptors = self._settled_descriptors()
            for number in range(storms):
                self._storm(f"{self.this.name} {number} {self.this.random.random()}")
                self._calm(number)
            self._end()

    # The lines.

    def _lay_lines(self, stack: contextlib.ExitStack) -> None:
        """All of the agent's ways lead over relays: behind a proxy both, over the one before it."""
        lab = self.life.lab
        if self.kind in PROXIES:
            credentials = ("user", "secret") if self.kind != "socks4" and self.this.chance(0.5) else None
            proxy = lab.proxy(self.kind, credentials=credentials)
            if credentials:
                lab.settings.update({"q_qcloud_proxy_username": "user", "q_qcloud_proxy_password": "secret"})
            self.broker_line = self._line(stack, proxy.port)
            lab.settings["q_qcloud_proxy_port"] = str(self.broker_line.port)
            return
        self.broker_line, cloud_line = (self._line(stack, port) for port in (lab.broker.port, lab.cloud.port))
        lab.cloud.advise_connect(lab.broker_host, self.broker_line.port, b"lab-token")
        keys = {"q_register_url": "register", "q_claimed_url": "claim", "q_advisor_url": "advisor"}
        for key, endpoint in keys.items():
            lab.settings[key] = f"https://127.0.0.1:{cloud_line.port}{BASE_PATHS[endpoint]}"

    def _line(self, stack: contextlib.ExitStack, port: int) -> Relay:
        self.relays.append(stack.enter_context(Relay(port)))
        return self.relays[-1]

    def _variety(self, handler: str) -> tuple[bytes, Sequence[int]]:
        """Most messages are short. A program's fit a pipe at once, so that programs do not mix theirs."""
        longest = 3_000 if handler == "program" else 12_000
        size = int(10 ** self.fillers.uniform(0, 2 if self.fillers.random() < 0.8 else 5))
        sizes = self.fillers.choice([(), (1,), (3, 1, 200), (1,) * 20])
        return b"." * min(size, longest), sizes

    # A storm, and the calm after it.

    def _storm(self, seed: str) -> None:
        for number, relay in enumerate(self.relays):
            relay.disturb(weather(f"{seed} {number}", self._eventful(relay)))
        session = self.life.identified()
        if session is not None:
            self.this.random.choice([session.close, session.cut, session.reset])()
        time.sleep(self.this.between(0.5, 2.5))
        if self.this.chance(0.3):
            self._pause()
        time.sleep(self.this.between(0.5, 2.5))
        self.this.tally.counts["storms"] += 1

    def _eventful(self, relay: Relay) -> float:
        if self.kind in PROXIES:
            return EVENTFUL_PROXY
        return EVENTFUL_BROKER if relay is self.broker_line else EVENTFUL_CLOUD

    def _pause(self) -> None:
        """Each reply within a request's time-out and 5 seconds more, whatever the line does."""
        connections = self.life.lab.broker.connections
        before = connections.snapshot()
        open_before = {session.number for session in before if not session.ended_by}
        self._command("pause_connections")
        after = connections.snapshot()
        self.interrupted |= open_before | {session.number for session in after[len(before) :]}
        self._command("resume_connections")
        self.this.tally.counts["pauses"] += 1

    def _command(self, name: str) -> None:
        begun = time.monotonic()
        assert self.agent.control.command(name, deadline=REPLY_SECONDS) == 0
        self.this.tally.measure("pause", time.monotonic() - begun)

    def _calm(self, number: int) -> None:
        for relay in self.relays:
            relay.calm()
        begun = time.monotonic()
        self.life.probe(self.calm_limit)
        seconds = time.monotonic() - begun
        self.this.tally.measure("calm", seconds)
        with self.life.hush():
            try:
                wait_until(self._as_before, "threads and descriptors as before", SETTLE_SECONDS)
            except DeadlinePassed as failure:
                now = processes.descriptors(self.agent.pid)
                report = f"{failure}: {now}, at first {self.descriptors}\n{self.life.situation()}"
                raise AssertionError(f"calm {number}: {report}") from None

    def _as_before(self) -> bool:
        """Deliveries under way have a descriptor, and started programs, for a moment."""
        pid = self.agent.pid
        as_many = len(processes.descriptors(pid)) == len(self.descriptors)
        return as_many and processes.threads(pid) == THREADS and not processes.children(pid)

    def _settled_descriptors(self) -> dict[int, str]:
        """As they are when nothing goes on: the same ones for a while."""
        looks: list[dict[int, str]] = []

        def settled() -> bool:
            looks.append(processes.descriptors(self.agent.pid))
            quiet = not processes.children(self.agent.pid) and processes.threads(self.agent.pid) == THREADS
            return quiet and len(looks) >= 10 and all(look == looks[-1] for look in looks[-10:])

        wait_until(settled, "settled descriptors")
        return looks[-1]

    # The end, and what has arrived.

    def _end(self) -> None:
        self.life.calm()
        self.life.probe(self.calm_limit)
        wait_until(lambda: not processes.children(self.agent.pid), "the end of all handler programs")
        self.this.tally.counts["messages"] += self.life.check_delivery(complete=False)
        arrivals = self._arrivals()
        assert arrivals, f"no session was found on the line\n{self._lines()}"
        for session, arrived, whole in arrivals:
            try:
                self._check_session(session, arrived, whole)
            except AssertionError as failure:
                raise AssertionError(f"{failure}\n{self._lines()}\n{self.life.situation()}") from None
        begun = time.monotonic()
        assert self.agent.stop(STOP_SECONDS) == 0
        self.this.tally.measure("stop", time.monotonic() - begun)
        for relay in self.relays:
            for connection in relay.connections.snapshot():
                self.this.tally.counts["connections"] += 1
                self.this.tally.counts.update(connection.met)

    def _arrivals(self) -> list[tuple[int, int, bool]]:
        """For each session: how many of its messages have reached the agent whole, and whether it surely took them."""
        found = []
        for connection in self._all_lines():
            number, arrived = (self._in_tls if self.kind == "tls" else self._in_clear)(connection)
            if number:
                found.append((number, arrived, self._surely_taken(connection, number)))
        return found

    def _lines(self) -> str:
        """For the report of a failure: what became of each connection."""
        shown = "connection {0.number}: met {0.met}, ended first by {0.ended_first!r}"
        return "\n".join(map(shown.format, self._all_lines()))

    def _all_lines(self) -> list[Connection]:
        return self.broker_line.connections.snapshot()

    def _surely_taken(self, connection: Connection, number: int) -> bool:
        """Not after a reset, which overtakes what the kernel still holds, nor when the agent itself has ended it."""
        return connection.ended_first in ("server", "") and number not in self.interrupted

    def _in_clear(self, connection: Connection) -> tuple[int, int]:
        stream = bytes(connection.got)
        tunnel = stream[GREETINGS[self.kind](stream) :]
        if tunnel[:1] == TLS_HANDSHAKE:  # the cloud's: requests take the same way
            return 0, 0
        packets = [packet for packet in Decoder().feed(tunnel) if packet.type == Type.PLAIN_MESSAGE]
        numbers = {int(SESSION_OF.match(packet.payload).group(1)) for packet in packets}
        if not packets:
            return 0, 0
        number = numbers.pop()
        assert not numbers, "messages of several sessions over one connection"
        sent = [(packet.text, packet.payload) for packet in packets]
        assert sent == self.life.streams[number][: len(sent)], "the relay has changed something"
        return number, len(sent)

    def _in_tls(self, connection: Connection) -> tuple[int, int]:
        """A message is a record; heartbeats' answers are others, so that their number is the highest possible one."""
        fitting = [session for session in self.life.fed if session.peer[1] == connection.port]
        if len(fitting) != 1:
            return 0, 0
        return fitting[0].number, whole_records(connection.got)[APPLICATION_DATA]

    def _check_session(self, number: int, arrived: int, whole: bool) -> None:
        """The first messages of the stream were delivered: as many as were whole, where nothing has cut in."""
        sent = self.life.streams[number]

        def delivered() -> list[bool]:
            got = {handler: set(self.life.received(handler)) for handler in HANDLERS}
            return [message in got[handler] for handler, message in sent]

        if whole:
            wait_until(lambda: sum(delivered()) >= min(arrived, len(sent)), f"{arrived} messages of session {number}")
        seen = delivered()
        count = sum(seen)
        assert all(seen[:count]), f"session {number}: a gap in what was delivered: {seen}"
        assert count <= arrived, f"session {number}: {count} messages delivered, {arrived} arrived"
        self.this.tally.counts["sessions"] += 1
        self.this.tally.counts["complete"] += whole
        self.this.tally.counts["cut off"] += len(sent) - min(arrived, len(sent))


def disturbed_line(this: Round) -> None:
    _, kind, _ = this.name.split("-")
    DisturbedLife(this, kind).run(LONG_STORMS if this.long else STORMS)
