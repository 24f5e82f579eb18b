"""What comes from the broker: packets of every shape, in pieces of every size."""

from __future__ import annotations

import random
from collections.abc import Callable

import pytest
from orvel_lab import Agent, Lab, Packet, Session, TcpSink, Type
from orvel_lab.packets import encode_chunk, heartbeat_response, plain_message

MAX_CHUNK = 65535
NO_HANDLER = "WARNING: received message from qbroker without handler id"


class Link:
    """A session, and a handler at the other end of the agent."""

    def __init__(self, lab: Lab) -> None:
        self.lab = lab
        self.sink: TcpSink = lab.tcp_handler("h")
        self.agent: Agent = lab.start_agent("--log_debug")
        self.session: Session = lab.broker.expect_session()
        self.session.wait_for_bytes(1)
        self.agent.wait_for_line("Reading packet header.")

    def still_works(self) -> None:
        """The next thing that arrives is a message that is sent now: nothing came before it, nothing is left over."""
        self.session.send_message("h", b"still here")
        assert self.sink.expect() == b"still here"


@pytest.fixture
def link(claimed_lab: Lab) -> Link:
    return Link(claimed_lab)


@pytest.fixture(params=["tls", "tcp"])
def each_link(request: pytest.FixtureRequest, make_lab: Callable[..., Lab]) -> Link:
    return Link(make_lab(registered=True, claimed=True, tls=request.param == "tls"))


def chunks(*data: bytes) -> bytes:
    return b"".join(map(encode_chunk, data))


class TestSplits:
    def test_single_bytes_give_the_same_as_one_piece(self, each_link: Link):
        first, second = plain_message("h", b"first", [2]), plain_message("h", b"2")
        stream = [first, heartbeat_response(5), Packet(99, (b"?", b"")), second]
        each_link.session.send_every_byte(b"".join(packet.encode() for packet in stream))
        assert [each_link.sink.expect() for _ in range(2)] == [b"first", b"2"]
        each_link.agent.wait_for_line("Received heartbeat response with sequence number 5, latest sent was 0.")

    def test_every_split_position_gives_the_same(self, link: Link):
        def stream(number: int) -> bytes:
            message = plain_message("h", b"%02d-payload" % number, [3])
            return Packet(99, (b"ab",)).encode() + heartbeat_response(number).encode() + message.encode()

        positions = range(1, len(stream(0)))
        for position in positions:
            link.session.send(stream(position), sizes=[position])
        assert [link.sink.expect() for _ in positions] == [b"%02d-payload" % position for position in positions]
        link.agent.wait_for_count("Received heartbeat response", len(positions))

    def test_packets_that_arrive_together_are_all_handled(self, each_link: Link):
        each_link.session.send(b"".join(plain_message("h", b"%d" % number).encode() for number in range(300)))
        assert [each_link.sink.expect() for _ in range(300)] == [b"%d" % number for number in range(300)]

    @pytest.mark.parametrize("rest", [4095, 4096, 4097, 16384])
    def test_a_payload_larger_than_one_read_is_whole(self, each_link: Link, rest: int):
        payload = random.Random(rest).randbytes(100_000)
        each_link.session.send(plain_message("h", payload), rest=rest)
        assert each_link.sink.expect() == payload

    def test_nothing_is_left_behind_when_the_agent_looks_at_other_things_meanwhile(self, each_link: Link):
        """It does so each 64 KiB, when TLS may hold bytes that the socket no longer shows."""
        for size in range(61_000, 85_000, 500):
            payload = random.Random(size).randbytes(size)
            each_link.session.send(plain_message("h", payload))
            assert each_link.sink.expect() == payload


class TestChunks:
    def test_payload_chunks_are_joined(self, link: Link):
        link.session.send(plain_message("h", b"abcdefgh", [3]))
        assert link.sink.expect() == b"abcdefgh"

    def test_the_longest_chunks(self, link: Link):
        payload = random.Random(1).randbytes(2 * MAX_CHUNK)
        link.session.send(plain_message("h", payload, [MAX_CHUNK, MAX_CHUNK]))
        assert link.sink.expect() == payload

    def test_the_longest_handler_name_has_no_handler(self, link: Link):
        link.session.send(Packet(Type.PLAIN_MESSAGE, (b"n" * MAX_CHUNK, b"payload")))
        link.still_works()

    def test_255_chunks(self, link: Link):
        link.session.send(Packet(Type.PLAIN_MESSAGE, (b"h", *[b"%03d" % number for number in range(254)])))
        assert link.sink.expect() == b"".join(b"%03d" % number for number in range(254))

    def test_one_chunk_is_a_message_without_payload(self, link: Link):
        link.session.send(b"\x02\x01" + chunks(b"nobody"))
        link.agent.wait_for_line("handler_desc='q_handler_nobody'")
        link.still_works()

    def test_a_count_of_0_is_followed_by_256_chunks(self, link: Link):
        link.session.send(b"\x02\x00" + chunks(b"h", *[b"x"] * 254))
        link.session.send(chunks(b"y"))
        assert link.sink.expect() == b"x" * 254 + b"y"
        link.still_works()

    def test_a_count_of_0_and_an_empty_chunk_is_a_whole_packet(self, link: Link):
        link.session.send(b"\x02\x00\x00\x00")
        link.agent.wait_for_line(NO_HANDLER)
        link.still_works()

    @pytest.mark.parametrize("count", [0, 1, 2, 255])
    def test_an_empty_first_chunk_completes_a_message_without_handler(self, link: Link, count: int):
        link.session.send(bytes([2, count, 0, 0]))
        link.agent.wait_for_line(NO_HANDLER)
        link.still_works()

    def test_an_empty_chunk_completes_the_message_whatever_chunks_are_left(self, link: Link):
        link.session.send(b"\x02\xff" + chunks(b"h", b"abc", b""))
        assert link.sink.expect() == b"abc"
        link.still_works()

    def test_a_handler_name_ends_at_its_first_nul(self, link: Link):
        link.session.send(Packet(Type.PLAIN_MESSAGE, (b"h\0other", b"payload")))
        assert link.sink.expect() == b"payload"


class TestTypes:
    def test_other_types_are_skipped(self, link: Link):
        known = (Type.PLAIN_MESSAGE, Type.HEARTBEAT_RESPONSE)
        others = [Packet(number, (b"h", b"data")) for number in range(256) if number not in known]
        link.session.send(b"".join(packet.encode() for packet in others))
        link.still_works()
        link.agent.assert_not_logged(NO_HANDLER, "heartbeat")

    def test_each_chunk_of_a_heartbeat_response_counts(self, link: Link):
        first, second = heartbeat_response(1).chunks[0], heartbeat_response(2).chunks[0]
        link.session.send(Packet(Type.HEARTBEAT_RESPONSE, (first, b"?", second)))
        link.agent.wait_for_line("Received heartbeat response with sequence number 1, latest sent was 0.")
        link.agent.wait_for_line("Expected 16, but received 1.")
        link.agent.wait_for_line("Received heartbeat response with sequence number 2, latest sent was 0.")

    def test_the_second_half_of_a_heartbeat_response_is_not_used(self, link: Link):
        link.session.send(heartbeat_response(3, unused=b"\xff" * 8))
        link.agent.wait_for_line("Received heartbeat response with sequence number 3, latest sent was 0.")


class TestStreams:
    def test_a_packet_cut_off_by_the_end_of_the_connection_is_forgotten(self, link: Link):
        link.session.send(plain_message("h", b"never whole").encode()[:-1])
        link.session.close()
        link.session = link.lab.broker.expect_session()
        link.still_works()

    @pytest.mark.parametrize("seed", range(4))
    def test_garbage_harms_nobody(self, link: Link, seed: int):
        link.session.send(random.Random(seed).randbytes(200_000), rest=5000)
        link.session.close()
        link.session = link.lab.broker.expect_session()
        link.still_works()

    def test_messages_arrive_in_their_order(self, link: Link):
        numbers = random.Random(2)
        payloads = [numbers.randbytes(numbers.randrange(1, 3000)) for _ in range(200)]
        for payload in payloads:
            link.session.send(plain_message("h", payload, [numbers.randrange(len(payload) + 1) or 1]))
        assert [link.sink.expect() for _ in payloads] == payloads
