"""The dissector of the broker link, in tshark: on captures written by hand, and on the agent's own traffic."""

from __future__ import annotations

import random
from collections.abc import Callable
from pathlib import Path

import pytest
from orvel_lab import Event, Lab, Packet, Session, Type
from orvel_lab.packets import cut, encode_chunk, heartbeat_response, plain_message
from wire_capture import PORT, captured_loopback, dissect, summaries_of, write_capture

PLAIN = ("-o", f"orvel.tcp_ports:{PORT}")
HEARTBEAT = Packet(Type.HEARTBEAT, (bytes(7) + b"\x05" + b"\xff" * 7 + b"\xfe",))
KEEPALIVES = Packet(Type.KEEPALIVES, (bytes([0, 0, 0, 60, 0, 0, 0, 5, 0xFF, 0xFF, 0xFF, 0xFF]),))


def chunks(*data: bytes) -> bytes:
    return b"".join(map(encode_chunk, data))


# Bytes, their summaries, and what is odd about them.
CASES: list[tuple[bytes, list[str], list[str]]] = [
    (Packet(0, (b"LAB-1",)).encode(), ["identity agent id 'LAB-1'"], []),
    (Packet(1, (b"a\n\0'\xff",)).encode(), ["identity token 'a\\x0a\\x00'\\xff'"], []),
    (plain_message("meter", b"abcdef", [1, 2]).encode(), ["plain message for 'meter', 6 bytes in 3 chunks"], []),
    (plain_message("meter").encode(), ["plain message for 'meter', 0 bytes in 0 chunks"], []),
    (KEEPALIVES.encode(), ["keepalives time 60, probes 5, interval 4294967295"], []),
    (HEARTBEAT.encode(), ["heartbeat 5, clock -2"], []),
    (heartbeat_response(2**64 - 1).encode(), [f"heartbeat response {2**64 - 1}"], []),
    (HEARTBEAT.encode() + KEEPALIVES.encode(), [HEARTBEAT.describe(), KEEPALIVES.describe()], []),
    (Packet(99, (b"ab", b"c")).encode(), ["type 99 with chunks of [2, 1] bytes"], ["Unknown type: read and skipped"]),
    (b"\x01\x01\0\0", ["identity token ''"], ["The identity is empty"]),
    (b"\x01\x02" + chunks(b"a", b"b"), ["identity token 'a'"], ["One chunk was expected"]),
    (
        b"\x02\x01\0\0",
        ["plain message for '', 0 bytes in 0 chunks"],
        ["No handler is named: the message is dropped"],
    ),
    (
        b"\x02\xff" + chunks(b"h", b"abc", b"") + HEARTBEAT.encode(),
        ["plain message for 'h', 3 bytes in 2 chunks", HEARTBEAT.describe()],
        ["An empty chunk ends the packet, though more were announced"],
    ),
    (
        b"\x02\0" + chunks(b"h", *[b"x"] * 255) + HEARTBEAT.encode(),
        ["plain message for 'h', 255 bytes in 255 chunks", HEARTBEAT.describe()],
        ["A chunk count of 0 is read as 256"],
    ),
    (
        Packet(2, (b"h\0i", b"x")).encode(),
        ["plain message for 'h\\x00i', 1 bytes in 1 chunks"],
        ["The handler's name ends at its first NUL byte"],
    ),
    (Packet(10, (b"x" * 11,)).encode(), ["keepalives with chunks of [11] bytes"], ["Wrong length for this type"]),
    (
        Packet(12, (b"x" * 20,)).encode(),
        ["heartbeat response with chunks of [20] bytes"],
        ["Wrong length for this type"],
    ),
    (
        Packet(12, (bytes(16), b"?")).encode(),
        ["heartbeat response with chunks of [16, 1] bytes"],
        ["Wrong length for this type", "One chunk was expected"],
    ),
]


class TestWrittenCaptures:
    def test_every_packet_and_what_is_odd_about_it(self, tmp_path: Path):
        write_capture(tmp_path / "capture", [[stream] for stream, _, _ in CASES])
        frames = dissect(tmp_path / "capture", *PLAIN)
        assert [(frame.summaries, frame.experts) for frame in frames] == [case[1:] for case in CASES]
        assert [frame.info for frame in frames] == ["; ".join(summaries) for _, summaries, _ in CASES]

    def test_a_stream_may_be_cut_anywhere(self, tmp_path: Path):
        packets = [plain_message("meter", b"abcdef", [1, 2]), HEARTBEAT, Packet(99, (b"",)), plain_message("h", b"x")]
        stream = b"".join(packet.encode() for packet in packets)
        cuts = [cut(stream, [at]) for at in range(1, len(stream))] + [cut(stream, [], 1), cut(stream, [], 3)]
        write_capture(tmp_path / "capture", cuts)
        found: dict[str, list[str]] = {}
        for frame in dissect(tmp_path / "capture", *PLAIN):
            found.setdefault(frame.stream, []).extend(frame.summaries)
        expected = [packet.describe() for packet in packets]
        assert found == {str(number): expected for number in range(len(cuts))}

    def test_it_says_what_the_lab_says_of_any_stream(self, tmp_path: Path):
        numbers = random.Random(1)
        packets = [any_packet(numbers) for _ in range(300)]
        stream = b"".join(packet.encode() for packet in packets)
        pieces = cut(stream, [numbers.randrange(1, 3000) for _ in range(len(stream) // 3000)], 20_000)
        write_capture(tmp_path / "capture", [pieces])
        assert summaries_of(dissect(tmp_path / "capture", *PLAIN)) == [packet.describe() for packet in packets]

    def test_a_packet_of_which_the_capture_lacks_the_end_is_marked(self, tmp_path: Path):
        write_capture(tmp_path / "capture", [[plain_message("h", bytes(1000)).encode()]], size_limit=200)
        [frame] = dissect(tmp_path / "capture", *PLAIN)
        assert frame.summaries == [] and "The rest of the packet is not in the capture" in frame.experts

    def test_decode_as_serves_for_the_port(self, tmp_path: Path):
        write_capture(tmp_path / "capture", [[HEARTBEAT.encode()]])
        assert summaries_of(dissect(tmp_path / "capture", "-d", f"tcp.port=={PORT},orvel")) == ["heartbeat 5, clock -2"]
        assert dissect(tmp_path / "capture") == []


def any_packet(numbers: random.Random) -> Packet:
    """Any type; chunks of any length, the fitting ones among them."""
    kind = numbers.choice([*Type, numbers.randrange(256)])
    if numbers.random() < 0.5:
        fitting = {Type.KEEPALIVES: 12, Type.HEARTBEAT: 16, Type.HEARTBEAT_RESPONSE: 16}
        return Packet(kind, (numbers.randbytes(fitting.get(kind, 100)),))
    sizes = [numbers.choice([1, 5, 12, 16, 64, 65, 3000]) for _ in range(numbers.randrange(1, 6))]
    return Packet(kind, tuple(numbers.randbytes(size) for size in sizes))


@pytest.fixture
def traced(own_network: None, make_lab: Callable[..., Lab]) -> Callable[..., tuple[Lab, list[Event]]]:
    """Makes labs of claimed devices, with what their observers are told; all in a network of the test's own."""

    def make(**options) -> tuple[Lab, list[Event]]:
        events: list[Event] = []
        return make_lab(registered=True, claimed=True, observer=events.append, **options), events

    return make


def talk(lab: Lab) -> Session:
    """A session with packets of every kind, large and small, ended by the agent."""
    lab.cloud.advice.update(agentHeartbeat="1", brokerKeepalive="60,5,10")
    sink = lab.tcp_handler("meter")
    agent = lab.start_agent("--log_debug")
    session = lab.broker.expect_session()
    session.expect_identity()
    session.send(plain_message("meter", bytes(200_000), [1, 70_00, 65535]), sizes=[1, 3, 5000])
    assert len(sink.expect()) == 200_000
    session.send(Packet(99, (b"unknown",)))
    session.send_every_byte(plain_message("meter", b"small"))
    assert sink.expect() == b"small"
    session.expect(Type.HEARTBEAT)
    agent.wait_for_line("Received heartbeat response with sequence number 1")
    agent.stop()
    session.wait_ended()
    return session


def packets_in(events: list[Event], direction: str) -> list[str]:
    return [
        packet for event in events if event.details.get("direction") == direction for packet in event.details["packets"]
    ]


class TestTraffic:
    """Each direction by itself: which of two packets that cross came first is open."""

    def check(self, capture: Path, events: list[Event], port: int, *options: str) -> None:
        for direction, side in (("in", "dstport"), ("out", "srcport")):
            expected = packets_in(events, direction)
            frames = dissect(capture, *options, "-Y", f"orvel && tcp.{side} == {port}")
            assert summaries_of(frames) == expected and len(expected) >= 3

    def test_plain_tcp(self, traced, tmp_path: Path):
        lab, events = traced(tls=False)
        with captured_loopback(tmp_path / "capture"):
            talk(lab)
        self.check(tmp_path / "capture", events, lab.broker.port, "-o", f"orvel.tcp_ports:{lab.broker.port}")

    def test_tls_with_the_key_log_of_the_lab(self, traced, tmp_path: Path):
        keys = tmp_path / "keys"
        lab, events = traced(key_log=keys)
        with captured_loopback(tmp_path / "capture"):
            assert talk(lab).tls_version == "TLSv1.2"
        port = ("-o", f"orvel.tls_ports:{lab.broker.port}")
        assert dissect(tmp_path / "capture", *port) == []
        self.check(tmp_path / "capture", events, lab.broker.port, *port, "-o", f"tls.keylog_file:{keys}")
        decoded = ("-d", f"tcp.port=={lab.broker.port},tls", "-d", f"tls.port=={lab.broker.port},orvel")
        self.check(tmp_path / "capture", events, lab.broker.port, *decoded, "-o", f"tls.keylog_file:{keys}")

    def test_a_tunnel_through_an_http_proxy(self, traced, tmp_path: Path):
        lab, events = traced(tls=False)
        proxy = lab.proxy("http")
        with captured_loopback(tmp_path / "capture"):
            talk(lab)
        options = ("-o", f"orvel.tcp_ports:{lab.broker.port}", "-d", f"tcp.port=={proxy.port},http")
        frames = dissect(tmp_path / "capture", *options, "-Y", f"orvel && tcp.dstport == {proxy.port}")
        assert summaries_of(frames) == packets_in(events, "in")
