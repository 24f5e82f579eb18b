"""A stretch of wire in front of a server: it keeps what is sent over it, and disturbs it by a plan."""

from __future__ import annotations

import random
import socket
import threading
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field

from .channel import Channel, ChannelEnded
from .listener import Listener, ReservedPort
from .waiting import DEADLINE, Journal, Wake


@dataclass(frozen=True)
class Disturbance:
    """What befalls the bytes of one direction of a connection, until calm().

    delay      seconds for which each block of bytes waits
    largest    they go on in pieces of 1 to so many bytes, with pauses of up to `gap` seconds; 0: as they come
    then, at   what happens before the byte of that number goes on, once: "reset" of both ends, "half-close" (this
               direction ends; what still comes is swallowed), "stall" (nothing goes on before calm()), "" nothing
    seed       of the pieces
    """

    delay: float = 0
    largest: int = 0
    gap: float = 0
    then: str = ""
    at: int = 0
    seed: int = 0


Ways = tuple[Disturbance, Disturbance]  # from the client, and to the client
Plan = Callable[[int], Ways]  # for the connection of that number
Weather = tuple[Plan, Wake]  # the plan, and what is set when its calm comes


def undisturbed(_number: int) -> Ways:
    return Disturbance(), Disturbance()


@dataclass
class Connection:
    number: int
    port: int  # from which the relay has made its way on: what the server calls its peer
    sent: bytearray = field(default_factory=bytearray)  # by the client
    got: bytearray = field(default_factory=bytearray)  # by the client: what has been passed on to it
    met: list[str] = field(default_factory=list)  # the events, as they happened
    ended_first: str = ""  # "client", "server" (also by a half-close towards the client) or "reset"
    over: bool = False


class Relay:
    """Passes connections on to a port of this machine. Started by `with`."""

    def __init__(self, port: int) -> None:
        self.connections: Journal[Connection] = Journal()
        self._target = port
        self._weather: Weather = undisturbed, Wake()
        self._numbering = threading.Lock()
        self._listener = Listener(ReservedPort([socket.AF_INET]), self._serve, "relay")
        self.port = self._listener.address.port

    def __enter__(self) -> Relay:
        self._listener.start()
        return self

    def __exit__(self, *_error: object) -> None:
        self._listener.stop()

    def disturb(self, plan: Plan) -> None:
        """Connections that are made from now on."""
        self._weather = plan, Wake()

    def calm(self) -> None:
        """Everything goes on undisturbed, also what was stalled."""
        before = self._weather
        self._weather = undisturbed, Wake()
        before[1].set()

    def sent(self, *parts: bytes) -> list[bytes]:
        """What the clients have sent, for each connection in which all of `parts` occur."""
        streams = [bytes(connection.sent) for connection in self.connections.snapshot()]
        return [stream for stream in streams if all(part in stream for part in parts)]

    def wait_over(self) -> Connection:
        """The first connection that is over."""

        def find(connections: Sequence[Connection]) -> Connection | None:
            return next((connection for connection in connections if connection.over), None)

        return self.connections.wait(find, "the end of a connection over the relay")

    def _serve(self, accepted: socket.socket) -> None:
        weather = self._weather
        try:
            onward = socket.create_connection(("127.0.0.1", self._target), timeout=DEADLINE)
        except OSError:
            accepted.close()  # there is no server
            return
        with self._numbering:
            connection = Connection(len(self.connections) + 1, onward.getsockname()[1])
            self.connections.append(connection)
        self._pass_on(connection, weather, *(Channel(end, self._listener.stopping) for end in (accepted, onward)))
        connection.over = True
        self.connections.touch()

    def _pass_on(self, connection: Connection, weather: Weather, client: Channel, server: Channel) -> None:
        """Each direction on a thread of its own, so that what befalls one does not hold up the other."""
        plan, calmed = weather
        up, down = plan(connection.number)
        back = _Direction(connection, "server", (server, client), down, calmed)
        thread = threading.Thread(target=back.run, name="relay-back")
        thread.start()
        _Direction(connection, "client", (client, server), up, calmed).run()
        thread.join()
        for channel in (client, server):
            channel.finish(reset=connection.ended_first == "reset")


class _Direction:
    """Bytes on their way from one end of a connection to the other."""

    def __init__(
        self,
        connection: Connection,
        side: str,
        ends: tuple[Channel, Channel],
        disturbance: Disturbance,
        calmed: Wake,
    ) -> None:
        self._connection = connection
        self._side = side
        self._source, self._target = ends
        self._disturbance = disturbance
        self._calmed = calmed
        self._random = random.Random(disturbance.seed)
        self._passed = 0
        self._event_to_come = disturbance.then
        self._ended = False

    def run(self) -> None:
        """Until the source has ended. What a client sends is kept, also when the server has gone already."""
        try:
            while data := self._read():
                self._wait(self._disturbance.delay)
                while data:
                    data = data[self._pass_on(data) :]
            self._end(self._side)
        except ChannelEnded:
            pass  # the relay stops, or the connection is to be reset

    def _read(self) -> bytes:
        """Nothing when the source has ended, in whatever way."""
        try:
            data = self._source.read()
        except OSError:
            return b""
        if self._side == "client":
            self._connection.sent += data
        return data

    def _pass_on(self, data: bytes) -> int:
        """The first piece; gives its size."""
        size = len(data)
        if not self._calmed.is_set():
            if self._event_to_come and self._passed >= self._disturbance.at:
                self._meet_event()
            if self._disturbance.largest:
                size = min(size, self._random.randint(1, self._disturbance.largest))
            if self._event_to_come:
                size = min(size, self._disturbance.at - self._passed)
        if not self._ended:
            self._write(data[:size])
        self._passed += size
        if size < len(data) and self._disturbance.gap:
            self._wait(self._random.uniform(0, self._disturbance.gap))
        return size

    def _meet_event(self) -> None:
        event, self._event_to_come = self._event_to_come, ""
        self._connection.met.append(event)
        if event == "stall":
            self._source.pause(None, self._calmed)
        elif event == "half-close":
            self._end("server" if self._side == "server" else "")
        else:
            self._connection.ended_first = self._connection.ended_first or "reset"
            self._target.end()
            self._source.end()
            raise ChannelEnded

    def _write(self, data: bytes) -> None:
        try:
            self._target.write(data)
        except OSError:
            self._ended = True  # the other side has gone
            return
        if self._side == "server":
            self._connection.got += data

    def _end(self, ended_by: str) -> None:
        self._connection.ended_first = self._connection.ended_first or ended_by
        if self._ended:
            return
        self._ended = True
        try:
            self._target.half_close()
        except OSError:
            pass  # the other side has gone

    def _wait(self, seconds: float) -> None:
        if seconds and not self._calmed.is_set():
            self._source.pause(seconds, self._calmed)
