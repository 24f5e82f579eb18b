"""The lab's relay: what goes over it, what it keeps, and each way in which it disturbs a connection."""

from __future__ import annotations

import socket
import threading
from collections.abc import Iterator
from contextlib import contextmanager

import pytest
from orvel_lab import DEADLINE, DeadlinePassed, wait_until
from orvel_lab.relay import Disturbance, Relay

CALM = Disturbance()
DATA = bytes(range(256)) * 40
SHORT = 0.2  # seconds in which something must not happen


class Server:
    """The connections that it accepts are served by the test itself."""

    def __init__(self) -> None:
        self._listening = socket.create_server(("127.0.0.1", 0))
        self._listening.settimeout(DEADLINE)
        self.port = self._listening.getsockname()[1]

    def accept(self) -> socket.socket:
        accepted, self.peer = self._listening.accept()
        accepted.settimeout(DEADLINE)
        return accepted

    def close(self) -> None:
        self._listening.close()


@pytest.fixture
def server() -> Iterator[Server]:
    server = Server()
    yield server
    server.close()


@contextmanager
def connection(server: Server, relay: Relay) -> Iterator[tuple[socket.socket, socket.socket]]:
    known = len(relay.connections)
    with socket.create_connection(("127.0.0.1", relay.port), DEADLINE) as client, server.accept() as accepted:
        relay.connections.wait_for_count(known + 1, "the relay's own note of the connection")
        yield client, accepted


def disturbed(relay: Relay, up: Disturbance = CALM, down: Disturbance = CALM) -> None:
    relay.disturb(lambda _number: (up, down))


def send(sender: socket.socket, data: bytes) -> threading.Thread:
    """On a thread of its own: neither end has room for everything."""
    thread = threading.Thread(target=sender.sendall, args=(data,))
    thread.start()
    return thread


def read(reader: socket.socket, size: int) -> bytes:
    data = b""
    while len(data) < size and (block := reader.recv(size - len(data))):
        data += block
    return data


def read_blocks(reader: socket.socket, size: int) -> list[bytes]:
    blocks: list[bytes] = []
    while sum(map(len, blocks)) < size:
        blocks.append(reader.recv(65536))
    return blocks


def assert_silent(reader: socket.socket) -> None:
    reader.settimeout(SHORT)
    with pytest.raises(TimeoutError):
        reader.recv(1)
    reader.settimeout(DEADLINE)


def test_both_directions_go_on_and_what_the_client_sends_is_kept(server: Server):
    with Relay(server.port) as relay, connection(server, relay) as (client, accepted):
        sending = send(client, DATA)
        assert read(accepted, len(DATA)) == DATA
        sending.join()
        accepted.sendall(b"answer")
        assert read(client, 6) == b"answer"
        assert relay.sent(DATA[:100]) == [DATA]
        assert relay.sent(b"never sent") == []
        kept = relay.connections.snapshot()[0]
        assert kept.port == server.peer[1]
        wait_until(lambda: kept.got == b"answer", "the answer among what the client got")


def test_each_end_closes_its_own_direction(server: Server):
    with Relay(server.port) as relay, connection(server, relay) as (client, accepted):
        client.sendall(b"last")
        client.shutdown(socket.SHUT_WR)
        assert read(accepted, 5) == b"last"
        accepted.sendall(b"more")
        accepted.shutdown(socket.SHUT_WR)
        assert read(client, 5) == b"more"
        assert relay.wait_over().ended_first == "client"


def test_what_a_client_sends_is_kept_after_the_server_has_gone(server: Server):
    with Relay(server.port) as relay, connection(server, relay) as (client, accepted):
        accepted.close()
        assert client.recv(1) == b""
        client.sendall(b"alert")
        client.sendall(b"and more")
        client.close()
        ended = relay.wait_over()
        assert ended.sent == b"alertand more"
        assert ended.ended_first == "server"


def test_a_connection_to_a_server_that_is_not_there_ends(server: Server):
    server.close()
    with Relay(server.port) as relay, socket.create_connection(("127.0.0.1", relay.port), DEADLINE) as client:
        assert client.recv(1) == b""


def test_small_pieces_arrive_as_one_stream(server: Server):
    with Relay(server.port) as relay:
        disturbed(relay, up=Disturbance(largest=3), down=Disturbance(largest=700, gap=0.001))
        with connection(server, relay) as (client, accepted):
            for sender, reader in ((client, accepted), (accepted, client)):
                sending = send(sender, DATA)
                blocks = read_blocks(reader, len(DATA))
                sending.join()
                assert b"".join(blocks) == DATA
                assert len(blocks) > 1


@pytest.mark.parametrize("event", ["stall", "delay"])
def test_a_stalled_or_late_stream_goes_on_in_the_calm(server: Server, event: str):
    up = Disturbance(then="stall", at=10) if event == "stall" else Disturbance(delay=10 * DEADLINE)
    first = 10 if event == "stall" else 0
    with Relay(server.port) as relay:
        disturbed(relay, up=up)
        with connection(server, relay) as (client, accepted):
            client.sendall(DATA[:100])
            assert read(accepted, first) == DATA[:first]
            assert_silent(accepted)
            accepted.sendall(b"the other way is free")
            assert read(client, 21) == b"the other way is free"
            relay.calm()
            assert read(accepted, 100 - first) == DATA[first:100]


@pytest.mark.parametrize("direction", ["up", "down"])
def test_a_reset_comes_at_its_byte_and_hits_both_ends(server: Server, direction: str):
    with Relay(server.port) as relay:
        disturbed(relay, **{direction: Disturbance(then="reset", at=10)})
        with connection(server, relay) as (client, accepted):
            sender, reader = (client, accepted) if direction == "up" else (accepted, client)
            sender.sendall(DATA[:10])
            assert read(reader, 10) == DATA[:10]
            sender.sendall(b"x")
            for end in (sender, reader):
                with pytest.raises(ConnectionResetError):
                    end.recv(1)
            ended = relay.wait_over()
            assert (ended.ended_first, ended.met) == ("reset", ["reset"])


@pytest.mark.parametrize("direction", ["up", "down"])
def test_a_half_close_ends_one_direction_at_its_byte(server: Server, direction: str):
    with Relay(server.port) as relay:
        disturbed(relay, **{direction: Disturbance(then="half-close", at=10)})
        with connection(server, relay) as (client, accepted):
            sender, reader = (client, accepted) if direction == "up" else (accepted, client)
            sender.sendall(DATA[:100])
            assert read(reader, 100) == DATA[:10]
            reader.sendall(b"still here")
            assert read(sender, 10) == b"still here"


def test_the_plan_tells_connections_apart_and_leaves_earlier_ones_alone(server: Server):
    with Relay(server.port) as relay, connection(server, relay) as (early, early_accepted):
        numbers: list[int] = []

        def plan(number: int) -> tuple[Disturbance, Disturbance]:
            numbers.append(number)
            return (Disturbance(then="half-close") if number == 2 else CALM), CALM

        relay.disturb(plan)
        with connection(server, relay) as (client, accepted):
            client.sendall(b"x")
            assert accepted.recv(1) == b""
        with connection(server, relay) as (client, accepted):
            client.sendall(b"x")
            assert accepted.recv(1) == b"x"
        early.sendall(b"y")
        assert early_accepted.recv(1) == b"y"
        assert numbers == [2, 3]


def test_a_stalled_connection_does_not_hold_up_the_end_of_the_relay(server: Server):
    with Relay(server.port) as relay:
        disturbed(relay, up=Disturbance(then="stall"), down=Disturbance(then="stall"))
        with connection(server, relay) as (client, accepted):
            client.sendall(b"x")
            accepted.sendall(b"x")
            wait_until(lambda: len(relay.connections.snapshot()[0].met) == 2, "both directions stalled")
            with pytest.raises(DeadlinePassed):
                relay.connections.wait(lambda found: found[0].over or None, "no end", SHORT)
