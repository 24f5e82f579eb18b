"""The lab's broker and its packets, seen from a client that is not the agent."""

from __future__ import annotations

import socket
import ssl
import threading
from pathlib import Path

import pytest
from lab_clients import SECONDS, connected, receive, trusting
from orvel_lab import DeadlinePassed, Lab, Packet, Session, Type
from orvel_lab.packets import Decoder, cut, heartbeat_response, plain_message

PACKETS = [
    Packet(Type.IDENTITY_TOKEN, (b"token",)),
    Packet(Type.KEEPALIVES, (bytes(11) + b"\x05",)),
    Packet(Type.HEARTBEAT, (b"\0\0\0\0\0\0\0\x01" + b"\xff" * 8,)),
    plain_message("handler", b"payload" * 100, [1, 2, 3]),
    Packet(98, (b"",)),
    Packet(97, (b"x" * 65535,)),
    Packet(96, (b"y",) * 255),
]


class TestPackets:
    def test_the_bytes_of_a_packet(self):
        assert Packet(1, (b"ab",)).encode() == b"\x01\x01\x00\x02ab"
        assert plain_message("h", b"abc", [1]).encode() == b"\x02\x03\x00\x01h\x00\x01a\x00\x02bc"
        assert heartbeat_response(258).encode() == b"\x0c\x01\x00\x10" + bytes(6) + b"\x01\x02" + bytes(8)

    def test_what_is_encoded_is_decoded_again(self):
        decoder = Decoder()
        assert list(decoder.feed(b"".join(packet.encode() for packet in PACKETS))) == PACKETS
        assert decoder.pending == b""

    @pytest.mark.parametrize("rest", [1, 2, 3, 7, 1000])
    def test_the_pieces_in_which_a_stream_arrives_do_not_matter(self, rest: int):
        decoder = Decoder()
        pieces = cut(b"".join(packet.encode() for packet in PACKETS), [], rest)
        assert [packet for piece in pieces for packet in decoder.feed(piece)] == PACKETS

    def test_a_packet_that_is_not_complete_is_pending(self):
        decoder = Decoder()
        assert list(decoder.feed(b"\x01\x01\x00\x05abc")) == []
        assert decoder.pending == b"\x01\x01\x00\x05abc"

    def test_an_empty_chunk_ends_a_packet_and_a_count_of_0_is_256(self):
        early = b"\x02\xff\x00\x01h\x00\x00"
        endless = b"\x02\x00" + b"\x00\x01x" * 256
        packets = list(Decoder().feed(early + endless + early))
        assert packets == [Packet(2, (b"h", b"")), Packet(2, (b"x",) * 256), Packet(2, (b"h", b""))]
        assert [packet.raw for packet in packets] == [early, endless, early]

    def test_numbers_are_big_endian(self):
        keepalives = Packet(Type.KEEPALIVES, (bytes([0, 0, 1, 0, 0, 0, 0, 2, 0, 0, 0, 3]),))
        assert keepalives.keepalives == (256, 2, 3)
        heartbeat = Packet(Type.HEARTBEAT, (bytes([0, 0, 0, 0, 0, 0, 0, 9]) + b"\xff" * 8,))
        assert (heartbeat.sequence, heartbeat.sent_at) == (9, -1)

    def test_every_packet_can_be_described(self):
        for packet in PACKETS:
            assert packet.describe()
        assert Packet(Type.KEEPALIVES, (b"x",)).describe() == "keepalives with chunks of [1] bytes"
        assert Packet(Type.IDENTITY_TOKEN, (b"\n\xff~",)).describe() == r"identity token '\x0a\xff~'"
        assert Packet(Type.PLAIN_MESSAGE, (b"n" * 65,)).describe() == (
            f"plain message for '{'n' * 64}...', 0 bytes in 0 chunks"
        )

    def test_a_packet_too_large_for_the_format_is_refused(self):
        with pytest.raises(ValueError, match="65535"):
            Packet(2, (bytes(65536),)).encode()
        with pytest.raises(ValueError, match="255"):
            Packet(2, (b"x",) * 256).encode()


@pytest.fixture(params=["tls", "tcp"])
def wire(request: pytest.FixtureRequest, make_lab) -> tuple[Lab, ssl.SSLContext | None]:
    """A lab and the client context for its broker link."""
    lab = make_lab(tls=request.param == "tls")
    return lab, trusting(lab.authority) if request.param == "tls" else None


class TestBroker:
    def test_it_keeps_the_packets_of_a_session(self, wire):
        lab, context = wire
        with connected(lab, context) as client:
            client.sendall(b"\x01\x01\x00\x05tok")
            session = lab.broker.expect_session()
            client.sendall(b"en" + PACKETS[1].encode())
            assert session.expect_identity() == PACKETS[0]
            assert session.expect(Type.KEEPALIVES).keepalives == (0, 0, 5)
            assert session.wait_for_bytes(25) == session.raw == PACKETS[0].encode() + PACKETS[1].encode()
            assert session.open and lab.broker.current is session
            assert bool(session.tls_version) == bool(session.cipher) == bool(context)
        assert session.wait_ended() == "agent closed"
        assert lab.broker.current is None

    def test_a_packet_that_can_not_come_any_more_fails_the_wait_at_once(self, wire):
        lab, context = wire
        with connected(lab, context):
            session = lab.broker.expect_session()
        with pytest.raises(DeadlinePassed, match="will not come any more"):
            session.expect(Type.HEARTBEAT)

    def test_it_sends_messages_whole_and_in_pieces(self, wire):
        lab, context = wire
        packet = plain_message("handler", bytes(range(256)) * 400, [1, 70])
        encoded = packet.encode()
        with connected(lab, context) as client:
            session = lab.broker.expect_session()
            session.send(packet)
            assert receive(client, len(encoded)) == encoded
            session.send(packet, sizes=[1, 0, 5, 1000])
            assert receive(client, len(encoded)) == encoded
            session.send_every_byte(encoded[:300])
            assert receive(client, 300) == encoded[:300]
            session.drip(b"abc", seconds=0.01)
            assert receive(client, 3) == b"abc"

    def test_with_tls_each_piece_is_read_by_itself(self, lab: Lab):
        with connected(lab, trusting(lab.authority)) as client:
            session = lab.broker.expect_session()
            session.send(b"abcdef", sizes=[1, 3])
            assert [client.recv(100) for _ in range(3)] == [b"a", b"bcd", b"ef"]

    def test_heartbeats_are_answered_unless_told_otherwise(self, wire):
        lab, context = wire
        with connected(lab, context) as client:
            client.sendall(PACKETS[2].encode())
            assert receive(client, 20) == heartbeat_response(1).encode()
            lab.broker.answer_heartbeats = False
            client.sendall(PACKETS[2].encode())
            session = lab.broker.expect_session()
            assert [session.expect(Type.HEARTBEAT).sequence for _ in range(2)] == [1, 1]
            session.send(b"next")
            assert receive(client, 4) == b"next"

    def test_half_close_ends_one_direction_only(self, wire):
        lab, context = wire
        with connected(lab, context) as client:
            session = lab.broker.expect_session()
            session.send(b"last")
            session.half_close()
            assert receive(client, 4) == b"last"
            assert client.recv(1) == b""
            client.sendall(PACKETS[0].encode())
            assert session.expect_identity() == PACKETS[0]
        assert session.wait_ended() == "agent closed"

    @pytest.mark.parametrize(("way", "ended_by"), [("close", "lab closed"), ("cut", "lab cut")])
    def test_it_ends_a_session_in_order(self, wire, way: str, ended_by: str):
        lab, context = wire
        with connected(lab, context) as client:
            session = lab.broker.expect_session()
            getattr(session, way)()
            assert session.wait_ended() == ended_by
            assert client.recv(1) == b""

    def test_a_cut_leaves_the_close_message_of_tls_out(self, lab: Lab):
        for way, farewell in (("close", True), ("cut", False)):
            plain = socket.create_connection(("127.0.0.1", lab.broker.port), timeout=SECONDS)
            context = trusting(lab.authority)
            context.options &= ~ssl.OP_IGNORE_UNEXPECTED_EOF
            with context.wrap_socket(plain, server_hostname="localhost", suppress_ragged_eofs=False) as client:
                getattr(lab.broker.expect_session(), way)()
                if farewell:
                    assert client.recv(1) == b""
                else:
                    with pytest.raises(ssl.SSLError, match="UNEXPECTED_EOF_WHILE_READING"):
                        client.recv(1)

    def test_a_reset_is_a_reset(self, make_lab):
        lab = make_lab(tls=False)
        with connected(lab) as client:
            session = lab.broker.expect_session()
            session.reset()
            assert session.ended_by == "lab reset"
            with pytest.raises(ConnectionResetError):
                client.recv(1)

    def test_planned_connections_are_reset_or_closed_and_the_next_one_is_served(self, make_lab):
        lab = make_lab(tls=False)
        lab.broker.plan("reset", times=2)
        lab.broker.plan("close")
        for _ in range(2):
            with connected(lab) as client:
                client.sendall(b"x")
                with pytest.raises(ConnectionResetError):
                    client.recv(1)
        with connected(lab) as client:
            client.sendall(b"x")
            assert client.recv(1) == b""
        with connected(lab):
            assert lab.broker.expect_session().number == 4
        endings = [lab.broker.expect_connection().wait_ended() for _ in range(3)]
        assert endings == ["lab reset", "lab reset", "lab cut"]

    def test_a_planned_stall_lasts_until_it_is_released(self, lab: Lab):
        lab.broker.plan("stall")
        released: list[Session] = []

        def release() -> None:
            session = lab.broker.expect_connection()
            assert not session.established
            session.release()
            released.append(session)

        releaser = threading.Thread(target=release)
        releaser.start()
        with connected(lab, trusting(lab.authority)):
            releaser.join(SECONDS)
            assert released[0].wait_established().open
            assert lab.broker.sessions == released
        lab.broker.plan("reset")
        with pytest.raises(OSError), connected(lab, trusting(lab.authority)):
            pass
        with pytest.raises(DeadlinePassed, match="ended before it was up: lab reset"):
            lab.broker.expect_connection().wait_established()

    def test_plans_can_be_forgotten_stalls_too(self, lab: Lab):
        lab.broker.plan("stall")
        lab.broker.plan("reset")

        def forget() -> None:
            lab.broker.connections.wait_for_count(1, "the stalled connection")
            lab.broker.forget_plans()

        forgetter = threading.Thread(target=forget)
        forgetter.start()
        for _ in range(2):
            with connected(lab, trusting(lab.authority)):
                assert lab.broker.expect_session().open
        forgetter.join(SECONDS)

    def test_planned_garbage_comes_before_tls(self, lab: Lab):
        lab.broker.plan("garbage", data=b"HTTP/1.1 400 Bad Request\r\n\r\n")
        with pytest.raises(ssl.SSLError, match="WRONG_VERSION_NUMBER"), connected(lab, trusting(lab.authority)):
            pass

    def test_a_session_can_end_right_after_the_identity(self, wire):
        lab, context = wire
        lab.broker.plan("close-after-identity")
        with connected(lab, context) as client:
            client.sendall(PACKETS[0].encode())
            assert client.recv(1) == b""
        session = lab.broker.expect_session()
        assert session.expect_identity() == PACKETS[0]
        assert session.wait_ended() == "lab closed"

    def test_an_unknown_plan_is_refused(self, lab: Lab):
        with pytest.raises(ValueError, match="no such plan: sing"):
            lab.broker.plan("sing")

    def test_it_can_refuse_and_accept_again_on_the_same_port(self, wire):
        lab, context = wire
        with connected(lab, context):
            session = lab.broker.expect_session()
            lab.broker.refuse()
            with pytest.raises(ConnectionRefusedError):
                socket.create_connection(("127.0.0.1", lab.broker.port), timeout=SECONDS)
            assert session.open
        lab.broker.accept()
        with connected(lab, context):
            assert lab.broker.expect_session().open

    @pytest.mark.parametrize("families", [[socket.AF_INET6], [socket.AF_INET, socket.AF_INET6]])
    def test_it_listens_on_the_addresses_that_it_is_given(self, make_lab, families: list[int]):
        lab = make_lab(tls=False, families=families)
        with socket.create_connection(("::1", lab.broker.port), timeout=SECONDS):
            assert lab.broker.expect_session().peer[0] == "::1"
        if socket.AF_INET in families:
            with connected(lab):
                assert lab.broker.expect_session().peer[0] == "127.0.0.1"
        else:
            with pytest.raises(ConnectionRefusedError):
                socket.create_connection(("127.0.0.1", lab.broker.port), timeout=SECONDS)

    @pytest.mark.filterwarnings("ignore::DeprecationWarning")
    @pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_1, ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3])
    def test_its_tls_versions_can_be_bounded(self, make_lab, version: ssl.TLSVersion):
        lab = make_lab(minimum=version, maximum=version)
        context = trusting(lab.authority, minimum_version=ssl.TLSVersion.TLSv1_1)
        context.set_ciphers("ALL:@SECLEVEL=0")
        with connected(lab, context) as client:
            assert client.version() == lab.broker.expect_session().tls_version == version.name.replace("_", ".")
        other = ssl.TLSVersion.TLSv1_2 if version != ssl.TLSVersion.TLSv1_2 else ssl.TLSVersion.TLSv1_3
        context = trusting(lab.authority, minimum_version=other, maximum_version=other)
        with pytest.raises(ssl.SSLError), connected(lab, context):
            pass
        assert lab.broker.expect_connection().wait_ended().startswith("TLS failed: ")

    def test_keys_of_tls_are_logged_when_asked_for(self, make_lab, tmp_path: Path):
        lab = make_lab(key_log=tmp_path / "keys", maximum=ssl.TLSVersion.TLSv1_2)
        with connected(lab, trusting(lab.authority)):
            lab.broker.expect_session()
        assert "CLIENT_RANDOM " in (tmp_path / "keys").read_text()
