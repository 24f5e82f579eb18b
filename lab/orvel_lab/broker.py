"""The message broker: accepts the agent's connection, keeps what it sends, and sends whatever a test asks for."""

from __future__ import annotations

import collections
import contextlib
import socket
import ssl
import threading
import time
from collections.abc import Callable, Iterable, Sequence
from dataclasses import dataclass
from typing import TypeVar

from .channel import Channel, ChannelEnded
from .listener import Listener, Listening, ReservedPort
from .packets import Decoder, Packet, Type, cut, heartbeat_response, plain_message
from .waiting import DEADLINE, DeadlinePassed, Event, Journal, Observer, Wake, ignore

Found = TypeVar("Found")

IDENTITIES = (Type.IDENTITY_AGENT_ID, Type.IDENTITY_TOKEN)
FLOOD_GAP = 0.001  # seconds in which others may write; the buffers on the way hold more than that


@dataclass(frozen=True)
class Plan:
    """How a coming connection is treated, in place of plain good service.

    reset, close     at the first bytes from the agent, before TLS (earlier, its connect itself might fail)
    stall            accepted, then silence (also no TLS) until session.release() lets it go on, or for `seconds`
    garbage          `data` goes out in the clear before TLS; then the connection is closed
    close-after-identity, reset-after-identity
    """

    kind: str
    data: bytes = b""
    seconds: float | None = None


PLANS = ("reset", "close", "stall", "garbage", "close-after-identity", "reset-after-identity")
SLOW_PIECES = 10


class Session:
    """One accepted connection. Its methods may be called from any thread."""

    def __init__(self, broker: Broker, number: int, accepted: socket.socket, plan: Plan | None) -> None:
        self.number = number
        self.peer = accepted.getpeername()
        self.opened_at = time.time()
        self.established = False  # accepted, and TLS is up where it is in use
        self.ended_by = ""  # who ended it and how, once it has ended
        self.ended_at: float | None = None
        self.identity: Packet | None = None
        self.heartbeat: Packet | None = None  # the last one
        self.heartbeat_at: float | None = None
        self.slowness = 0.0  # seconds that each packet to the agent takes, where its pieces are not said
        self.packets: Journal[Packet] = Journal()
        self._broker = broker
        self._plan = plan
        self._channel = Channel(accepted, broker.listener.stopping, broker.context)
        self._released = Wake()
        self._raw = bytearray()
        self._sent = Decoder()
        self._turn = threading.Lock()  # one packet at a time, also where it goes out in pieces
        self._consumed: set[int] = set()
        self._ending = ""
        self._ended = threading.Event()
        self._thread = threading.current_thread()

    # What the agent has sent.

    @property
    def raw(self) -> bytes:
        """Every byte received, decrypted."""
        return bytes(self._raw)

    @property
    def byte_count(self) -> int:
        return len(self._raw)

    @property
    def tls_version(self) -> str | None:
        """For instance "TLSv1.2"; None without TLS."""
        return self._channel.tls.version() if self._channel.tls else None

    @property
    def cipher(self) -> str | None:
        cipher = self._channel.tls.cipher() if self._channel.tls else None
        return cipher[0] if cipher else None

    @property
    def open(self) -> bool:
        return self.established and not self._ended.is_set()

    def expect(self, *types: int, deadline: float | None = None) -> Packet:
        """The next packet of one of these types that no earlier call has returned; of any type without arguments."""

        def next_one(packets: Sequence[Packet]) -> Packet | None:
            for index, packet in enumerate(packets):
                if index not in self._consumed and (not types or packet.type in types):
                    self._consumed.add(index)
                    return packet
            return None

        names = " or ".join(Packet(kind, ()).name for kind in types) or "any packet"
        return self.packets.wait(next_one, f"session {self.number}: {names}", deadline)

    def expect_identity(self, deadline: float | None = None) -> Packet:
        return self.expect(*IDENTITIES, deadline=deadline)

    def wait_for_bytes(self, count: int, deadline: float | None = None) -> bytes:
        """The raw bytes, once there are that many."""

        def enough(_packets: Sequence[Packet]) -> bytes | None:
            return self.raw if self.byte_count >= count else None

        return self.packets.wait(enough, f"session {self.number}: {count} bytes", deadline)

    def wait_established(self, deadline: float | None = None) -> Session:
        """Waits until the connection is up (TLS included); fails at once when it ends before."""

        def find(_connections: Sequence[Session]) -> Session | None:
            if not self.established and self._ended.is_set():
                raise DeadlinePassed(f"session {self.number} has ended before it was up: {self.ended_by}")
            return self if self.established else None

        return self._broker.connections.wait(find, f"session {self.number} up", deadline)

    def wait_ended(self, deadline: float | None = None) -> str:
        """Waits for the end of the connection, from either side; gives `ended_by`."""
        if not self._ended.wait(DEADLINE if deadline is None else deadline):
            raise DeadlinePassed(f"session {self.number} did not end in time")
        return self.ended_by

    # What the agent gets.

    def send(self, data: bytes | Packet, sizes: Iterable[int] = (), rest: int | None = None, gap: float = 0) -> None:
        """Sends a packet or any bytes: whole, or in pieces of `sizes` bytes and then of `rest` bytes each.

        With TLS each piece is a record of its own, so that the agent surely reads them one by one; in a plain stream
        pieces may join on their way. `gap` is a pause between pieces, in seconds.
        """
        encoded = data.encode() if isinstance(data, Packet) else data
        described = data.describe() if isinstance(data, Packet) else f"{len(encoded)} raw bytes"
        if self.slowness and not rest:
            rest, gap = -(-len(encoded) // SLOW_PIECES), self.slowness / SLOW_PIECES
        with self._turn:
            packets = [packet.describe() for packet in self._sent.feed(encoded)]
            shown = encoded[:64].hex(" ")
            self._tell(f"sends {described}", direction="out", packets=packets, bytes=shown, size=len(encoded))
            for index, piece in enumerate(cut(encoded, sizes, rest or max(1, len(encoded)))):
                if index and gap:
                    self._channel.pause(gap)
                self._channel.write(piece)

    def send_every_byte(self, data: bytes | Packet) -> None:
        self.send(data, rest=1)

    def drip(self, data: bytes | Packet, seconds: float = 1.0) -> None:
        """One byte each `seconds`."""
        self.send(data, rest=1, gap=seconds)

    def flood(self, data: bytes) -> None:
        """Sends that again and again, as fast as the agent takes it, until the connection ends. Nobody is told."""
        with contextlib.suppress(ChannelEnded, OSError):
            while True:
                self._channel.write(data)
                self._channel.pause(FLOOD_GAP)

    def send_message(
        self, handler: str | bytes, payload: bytes = b"", chunk_sizes: Sequence[int] | None = None
    ) -> None:
        self.send(plain_message(handler, payload, chunk_sizes))

    def send_heartbeat_response(self, sequence: int) -> None:
        self.send(heartbeat_response(sequence))

    # How it ends.

    def release(self) -> None:
        """Lets a connection go on that was planned to stall."""
        self._released.set()

    def half_close(self, farewell: bool = True) -> None:
        """Ends the sending side and goes on reading; without `farewell` TLS's own close message is left out."""
        self._tell("half-closes")
        self._channel.half_close(farewell)

    def close(self) -> None:
        """An orderly end, with TLS's close message."""
        self._end("lab closed")

    def cut(self) -> None:
        """Ends the TCP stream without TLS's close message."""
        self._end("lab cut")

    def reset(self) -> None:
        """Ends with a TCP reset."""
        self._end("lab reset")

    def _end(self, how: str) -> None:
        self._ending = self._ending or how
        self._channel.end()
        if threading.current_thread() is not self._thread:
            self.wait_ended()

    # The life of the connection, on its own thread.

    def run(self) -> None:
        try:
            self._follow_plan()
            self._channel.handshake()
            self.established = True
            self._broker.connections.touch()
            ciphered = f"{self.tls_version} {self.cipher}" if self.tls_version else "plain TCP"
            self._tell(f"opened from {self.peer[0]} port {self.peer[1]}, {ciphered}")
            self._read()
            self.ended_by = "agent closed"
        except ChannelEnded:
            self.ended_by = self._ending or "lab stopped"
        except ssl.SSLError as error:
            self.ended_by = f"TLS failed: {error.reason or error}"
        except TimeoutError as error:
            self.ended_by = f"timed out: {error}"
        except ConnectionAbortedError as error:
            self.ended_by = f"agent closed: {error}"
        except OSError as error:
            self.ended_by = f"agent reset: {error.strerror}"
        finally:
            self._finish()

    def _follow_plan(self) -> None:
        kind = self._plan.kind if self._plan else ""
        if kind in ("reset", "close"):
            self._channel.read()
            self._ending = f"lab {'reset' if kind == 'reset' else 'cut'}"
            raise ChannelEnded
        if kind == "stall":
            self._channel.pause(self._plan.seconds, self._released)
        if kind == "garbage":
            self._channel.write_unprotected(self._plan.data)
            self._ending = "lab cut"
            raise ChannelEnded

    def _read(self) -> None:
        decoder = Decoder()
        while data := self._channel.read():
            self._raw += data
            for packet in decoder.feed(data):
                self.packets.append(packet)
                self._learn(packet)
                self._tell_received(packet.describe(), packet.raw)
                self._behave(packet)
            self.packets.touch()
            self._broker.connections.touch()

    def _tell_received(self, described: str, raw: bytes) -> None:
        shown = raw[:64].hex(" ")
        self._tell(described, direction="in", packets=[described], bytes=shown, size=len(raw))

    def _learn(self, packet: Packet) -> None:
        if packet.type in IDENTITIES:
            self.identity = self.identity or packet
        if is_heartbeat(packet):
            self.heartbeat, self.heartbeat_at = packet, time.time()

    def _behave(self, packet: Packet) -> None:
        if packet.type in IDENTITIES and self._plan and self._plan.kind.endswith("-after-identity"):
            self._ending = "lab closed" if self._plan.kind.startswith("close") else "lab reset"
            raise ChannelEnded
        if is_heartbeat(packet) and self._broker.answer_heartbeats:
            self.send_heartbeat_response(packet.sequence)

    def _finish(self) -> None:
        if self.ended_by == "lab closed":
            self._farewell()
        self._channel.finish(reset=self.ended_by == "lab reset")
        self.ended_at = time.time()
        self._ended.set()
        self.packets.end(f"session {self.number} has ended: {self.ended_by}")
        self._broker.connections.touch()
        self._tell(f"ended: {self.ended_by}")

    def _farewell(self) -> None:
        try:
            self._channel.half_close()
        except (ChannelEnded, OSError):
            pass  # the peer was quicker, or its buffer is full

    def _tell(self, what: str, **details: object) -> None:
        known = {"session": self.number, "identity": self.identity.text if self.identity else None}
        self._broker.observer(Event("broker", f"session {self.number}: {what}", {**known, **details}))


def is_heartbeat(packet: Packet) -> bool:
    return packet.type == Type.HEARTBEAT and [len(chunk) for chunk in packet.chunks] == [16]


class Broker(Listening):
    """Listens on a loopback port of its own (0) or on a given one from start() to stop()."""

    def __init__(
        self,
        context: ssl.SSLContext | None = None,
        families: Sequence[int] = (socket.AF_INET,),
        answer_heartbeats: bool = True,
        observer: Observer = ignore,
        port: int = 0,
    ) -> None:
        self.context = context  # TLS of the connections accepted from now on; None is plain TCP
        self.answer_heartbeats = answer_heartbeats
        self.observer = observer
        self.connections: Journal[Session] = Journal()
        self.listener = Listener(ReservedPort(families, port), self._serve, "broker")
        self.port = self.listener.address.port
        self._plans: collections.deque[Plan] = collections.deque()
        self._returned: set[int] = set()
        self._lock = threading.Lock()

    def plan(self, kind: str, times: int = 1, data: bytes = b"", seconds: float | None = None) -> None:
        """Treats the next `times` connections (after those planned before) as Plan describes."""
        if kind not in PLANS:
            raise ValueError(f"no such plan: {kind}; there are {', '.join(PLANS)}")
        with self._lock:
            self._plans.extend([Plan(kind, data, seconds)] * times)

    @property
    def planned_count(self) -> int:
        """How many connections are still to meet a plan."""
        with self._lock:
            return len(self._plans)

    def forget_plans(self) -> None:
        """Treats coming connections well again; those that were planned to stall go on."""
        with self._lock:
            self._plans.clear()
        for session in self.connections.snapshot():
            session.release()

    def expect_session(self, deadline: float | None = None) -> Session:
        """The next connection that came up (TLS included) and that no earlier call has returned."""
        return self._next(lambda session: session.established, "a session", deadline)

    def expect_connection(self, deadline: float | None = None) -> Session:
        """The next accepted connection that no earlier call has returned, whatever became of it."""
        return self._next(lambda session: True, "a connection", deadline)

    @property
    def sessions(self) -> list[Session]:
        """All connections that came up, ended ones included."""
        return [session for session in self.connections.snapshot() if session.established]

    @property
    def current(self) -> Session | None:
        """The newest session, if it is still open."""
        return next((session for session in reversed(self.sessions) if session.open), None)

    def _next(self, wanted: Callable[[Session], bool], what: str, deadline: float | None) -> Session:
        def find(connections: Sequence[Session]) -> Session | None:
            for session in connections:
                if session.number not in self._returned and wanted(session):
                    self._returned.add(session.number)
                    return session
            return None

        return self.connections.wait(find, f"broker: {what}", deadline)

    def _serve(self, accepted: socket.socket) -> None:
        try:
            with self._lock:
                plan = self._plans.popleft() if self._plans else None
                session = Session(self, len(self.connections) + 1, accepted, plan)
                self.connections.append(session)
        except OSError:
            accepted.close()  # it left before it could be looked at
            return
        session.run()
