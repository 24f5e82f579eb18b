"""The lab itself, seen from clients that are not the agent."""

from __future__ import annotations

import http.client
import json
import os
import re
import signal
import socket
import ssl
import stat
import subprocess
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest
from orvel_lab import (
    Agent,
    Authority,
    Cloud,
    Control,
    DeadlinePassed,
    ExecutableSink,
    Lab,
    Packet,
    Reply,
    SanitizerReport,
    Session,
    Type,
    UnixSink,
)
from orvel_lab import settings as settings_file
from orvel_lab.packets import Decoder, cut, heartbeat_response, plain_message

HARDWARE_ID = "ABCDEFGH12345"
SECONDS = 20


def trusting(authority: Authority, **versions) -> ssl.SSLContext:
    context = ssl.create_default_context(cafile=str(authority.path))
    for name, version in versions.items():
        setattr(context, name, version)
    return context


@contextmanager
def connected(lab: Lab, context: ssl.SSLContext | None = None) -> Iterator[socket.socket]:
    """A client of the broker, over TLS when a context is given."""
    plain = socket.create_connection(("127.0.0.1", lab.broker.port), timeout=SECONDS)
    with context.wrap_socket(plain, server_hostname="localhost") if context else plain as client:
        yield client


def receive(client: socket.socket, count: int) -> bytes:
    data = b""
    while len(data) < count:
        block = client.recv(65536)
        assert block, f"the stream ended after {len(data)} of {count} bytes"
        data += block
    return data


def ask(cloud: Cloud, authority: Authority, method: str, target: str, body: object = None, **headers: str):
    """One HTTPS request; gives status, headers and body."""
    client = http.client.HTTPSConnection("127.0.0.1", cloud.port, context=trusting(authority), timeout=SECONDS)
    try:
        client.request(method, target, None if body is None else json.dumps(body), headers)
        response = client.getresponse()
        return response.status, response.headers, response.read()
    finally:
        client.close()


def register(lab: Lab) -> dict[str, str]:
    """Registers as a device does; gives the header that it sends from then on."""
    status, _, body = ask(lab.cloud, lab.authority, "POST", "/register", {"hardwareId": HARDWARE_ID, "model": "M"})
    assert status == 201
    document = json.loads(body)
    return {"Authorization": f"{document['deviceId']}:{document['claimCode']}"}


class TestCloud:
    def test_a_registered_device_gets_an_id_of_the_agreed_letters_and_the_same_one_again(self, lab: Lab):
        first, second = register(lab), register(lab)
        assert first == second
        assert re.fullmatch(r"[A-Z0-9-]+:[A-Z0-9]+", first["Authorization"])
        request = lab.cloud.wait_for_request("register", count=2)
        assert request.json == {"hardwareId": HARDWARE_ID, "model": "M"}
        assert (request.status, request.method, request.path) == (201, "POST", "/register")

    def test_the_claim_status_follows_claim_and_release(self, lab: Lab):
        device = register(lab)
        seen = []
        for change in (lambda: None, lab.cloud.claim, lab.cloud.release):
            change()
            status, _, body = ask(lab.cloud, lab.authority, "GET", "/claimed/v2", **device)
            assert status == 200
            document = json.loads(body)
            assert document["_type"] and document["deviceId"] in device["Authorization"]
            seen.append(document["claimed"])
        assert seen == [False, True, False]

    def test_a_device_registered_after_the_claim_is_claimed(self, lab: Lab):
        lab.cloud.claim()
        _, _, body = ask(lab.cloud, lab.authority, "GET", "/claimed/v2", **register(lab))
        assert json.loads(body)["claimed"] is True

    def test_discovery_takes_the_report_and_keeps_its_query(self, lab: Lab):
        device = register(lab)
        target = "/discovery/v3/?i=X&e=60&s=service"
        status, _, _ = ask(lab.cloud, lab.authority, "POST", target, {"_id": "X"}, **device)
        assert status == 200
        request = lab.cloud.wait_for_request("discovery")
        assert request.query == {"i": "X", "e": "60", "s": "service"}
        assert request.json == {"_id": "X"}

    def test_the_advisor_names_the_broker_and_then_tells_to_wait(self, lab: Lab):
        device = register(lab)
        keepalives = {"agent_keepalive": "60,5,10", "broker_keepalive": "30,4,5"}
        lab.cloud.advise_connect("localhost", lab.broker.port, b"\x00\xff", heartbeat=7, **keepalives)
        status, _, body = ask(lab.cloud, lab.authority, "GET", "/advisor/v2", **device)
        assert status == 200
        assert json.loads(body) == {
            "_type": "ActionConnect",
            "broker": "localhost",
            "token": "AP8=",
            "port": str(lab.broker.port),
            "agentKeepalive": "60,5,10",
            "brokerKeepalive": "30,4,5",
            "agentHeartbeat": "7",
        }
        lab.cloud.advise_wait(12)
        _, _, body = ask(lab.cloud, lab.authority, "GET", "/advisor/v2", **device)
        assert json.loads(body) == {"_type": "ActionWait", "period": 12}

    @pytest.mark.parametrize("target", ["/claimed/v2", "/advisor/v2"])
    @pytest.mark.parametrize("given", [None, "LAB-NOBODY:CODE", "wrong code"])
    def test_a_wrong_authorization_is_refused_with_error_headers(self, lab: Lab, target: str, given: str | None):
        device = register(lab)
        if given == "wrong code":
            given = device["Authorization"] + "X"
        headers = {} if given is None else {"Authorization": given}
        status, answered, _ = ask(lab.cloud, lab.authority, "GET", target, **headers)
        assert status == 401
        assert answered["X-Error-Code"].isdigit() and answered["X-Error-Message"]

    @pytest.mark.parametrize(
        ("method", "target", "status"),
        [("GET", "/register", 405), ("POST", "/claimed/v2", 405), ("GET", "/nowhere", 404), ("GET", "/advisor", 404)],
    )
    def test_what_is_no_endpoint_is_refused(self, lab: Lab, method: str, target: str, status: int):
        assert ask(lab.cloud, lab.authority, method, target)[0] == status
        assert lab.cloud.wait_for_request("other").target == target

    def test_a_registration_without_its_members_is_refused(self, lab: Lab):
        assert ask(lab.cloud, lab.authority, "POST", "/register", ["no object"])[0] == 400

    def test_scripted_replies_come_in_order_and_then_normal_ones(self, lab: Lab):
        lab.cloud.script("register", Reply(500, "<html>"), Reply.wrong_serial_number(), Reply(200, {"a": 1}))
        body = {"hardwareId": HARDWARE_ID, "model": "M"}
        answers = [ask(lab.cloud, lab.authority, "POST", "/register", body) for _ in range(4)]
        assert [status for status, _, _ in answers] == [500, 403, 200, 201]
        assert answers[0][2] == b"<html>"
        assert answers[1][1]["X-Error-Code"] == "1062"
        assert json.loads(answers[2][2]) == {"a": 1}

    def test_a_stalled_reply_comes_when_it_is_released(self, lab: Lab):
        reply = Reply(body=b"late", stall=True)
        lab.cloud.script("claim", reply)
        answers: list[bytes] = []
        client = threading.Thread(target=lambda: answers.append(ask(lab.cloud, lab.authority, "GET", "/claimed/v2")[2]))
        client.start()
        request = lab.cloud.wait_for_request("claim")
        assert request.status is None and not answers
        reply.release()
        client.join(SECONDS)
        assert answers == [b"late"]
        assert request.status == 200

    def test_a_stalled_reply_does_not_keep_the_lab_from_stopping(self, lab: Lab):
        lab.cloud.script("claim", Reply(stall=True))
        failures: list[Exception] = []

        def client_that_is_cut_off() -> None:
            try:
                ask(lab.cloud, lab.authority, "GET", "/claimed/v2")
            except (OSError, http.client.HTTPException) as error:
                failures.append(error)

        client = threading.Thread(target=client_that_is_cut_off)
        client.start()
        lab.cloud.wait_for_request("claim")
        lab.cloud.stop()
        client.join(SECONDS)
        assert failures

    @pytest.mark.parametrize("end", ["", "close", "half-close", "reset"])
    def test_a_reply_that_is_cut_reaches_the_client_short(self, lab: Lab, end: str):
        whole = Reply(body=b"0123456789", end=end).encode()
        lab.cloud.script("claim", Reply(body=b"0123456789", cut=len(whole) - 4, end=end))
        with pytest.raises((http.client.IncompleteRead, ConnectionResetError)):
            ask(lab.cloud, lab.authority, "GET", "/claimed/v2")

    def test_a_raw_reply_goes_out_as_it_is(self, lab: Lab):
        lab.cloud.script("claim", Reply(raw=b"\x00garbage\r\n\r\n", end="close"))
        with pytest.raises(http.client.BadStatusLine):
            ask(lab.cloud, lab.authority, "GET", "/claimed/v2")
        assert lab.cloud.wait_for_request("claim").status is None

    def test_a_given_length_replaces_the_true_one(self, lab: Lab):
        lab.cloud.script("claim", Reply(body=b"short", headers={"Content-Length": "100"}, end="close"))
        with pytest.raises(http.client.IncompleteRead):
            ask(lab.cloud, lab.authority, "GET", "/claimed/v2")

    def test_one_connection_may_carry_several_requests(self, lab: Lab):
        context = trusting(lab.authority)
        client = http.client.HTTPSConnection("127.0.0.1", lab.cloud.port, context=context, timeout=SECONDS)
        for _ in range(3):
            client.request("GET", "/nowhere")
            client.getresponse().read()
        client.close()
        assert len({request.connection for request in lab.cloud.requests("other")}) == 1

    def test_it_can_refuse_and_accept_again_on_the_same_port(self, lab: Lab):
        lab.cloud.refuse()
        with pytest.raises(ConnectionRefusedError):
            ask(lab.cloud, lab.authority, "GET", "/nowhere")
        lab.cloud.accept()
        assert ask(lab.cloud, lab.authority, "GET", "/nowhere")[0] == 404

    def test_an_untrusting_client_is_noted_as_a_failure_of_tls(self, lab: Lab, namesake_certs: Authority):
        with pytest.raises(ssl.SSLCertVerificationError):
            ask(lab.cloud, namesake_certs, "GET", "/claimed/v2")
        [failure] = lab.cloud.tls_failures.wait_for_count(1, "a TLS failure")
        assert "ALERT" in failure

    def test_a_wait_for_a_request_that_does_not_come_fails(self, lab: Lab):
        with pytest.raises(DeadlinePassed, match="register request 1"):
            lab.cloud.wait_for_request("register", deadline=0)


PACKETS = [
    Packet(Type.IDENTITY_TOKEN, (b"token",)),
    Packet(Type.KEEPALIVES, (bytes(11) + b"\x05",)),
    Packet(Type.HEARTBEAT, (b"\0\0\0\0\0\0\0\x01" + b"\xff" * 8,)),
    plain_message("handler", b"payload" * 100, [1, 2, 0, 3]),
    Packet(99, ()),
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

    def test_numbers_are_big_endian(self):
        keepalives = Packet(Type.KEEPALIVES, (bytes([0, 0, 1, 0, 0, 0, 0, 2, 0, 0, 0, 3]),))
        assert keepalives.keepalives == (256, 2, 3)
        heartbeat = Packet(Type.HEARTBEAT, (bytes([0, 0, 0, 0, 0, 0, 0, 9]) + b"\xff" * 8,))
        assert (heartbeat.sequence, heartbeat.sent_at) == (9, -1)

    def test_every_packet_can_be_described(self):
        for packet in PACKETS:
            assert packet.describe()
        assert Packet(Type.KEEPALIVES, (b"x",)).describe() == "keepalives with chunks of [1] bytes"

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


class TestCertificates:
    """Seen by OpenSSL in Python, which (unlike the agent) expands wildcards and ignores the commonName."""

    def outcome(self, make_lab, certificate, authority: Authority) -> str:
        lab = make_lab(broker_certificate=certificate)
        try:
            with connected(lab, trusting(authority)):
                return "connected"
        except ssl.SSLCertVerificationError as error:
            return error.verify_message

    @pytest.mark.parametrize("key", ["ec", "rsa"])
    def test_a_good_one_is_accepted(self, make_lab, certs: Authority, key: str):
        assert self.outcome(make_lab, certs.issue(key=key), certs) == "connected"

    def test_bad_ones_are_refused_for_their_own_reason(self, make_lab, certs: Authority, namesake_certs: Authority):
        cases = [
            (certs.expired(), "certificate has expired"),
            (certs.not_yet_valid(), "certificate is not yet valid"),
            (certs.issue(self_signed=True), "self-signed certificate"),
            (namesake_certs.issue(), "certificate signature failure"),
            (certs.issue(dns=["other.example"]), "Hostname mismatch, certificate is not valid for 'localhost'."),
            (certs.issue(dns=[b"localhost\0.example"]), "Hostname mismatch, certificate is not valid for 'localhost'."),
            (certs.issue(dns=["*.localhost"]), "Hostname mismatch, certificate is not valid for 'localhost'."),
            (certs.issue(dns=["LOCALHOST"]), "connected"),
        ]
        assert [self.outcome(make_lab, issued, certs) for issued, _ in cases] == [expected for _, expected in cases]

    def test_names_are_in_the_certificate_as_given(self, certs: Authority):
        shown = self.shown(certs.issue("common", dns=["a.example", "*.b.example"], ip=["127.0.0.1"]).path)
        assert "CN = common" in shown
        assert "DNS:a.example, DNS:*.b.example, IP Address:127.0.0.1" in shown

    def test_a_name_may_hold_a_nul_byte(self, certs: Authority):
        issued = certs.issue(b"localhost\0.evil", dns=[b"localhost\0.evil", "localhost"])
        encoded = ssl.PEM_cert_to_DER_cert(issued.path.read_text())
        assert encoded.count(b"localhost\0.evil") == 2
        assert "localhost" in self.shown(issued.path)

    def test_without_names_there_is_no_such_extension(self, certs: Authority):
        assert "Subject Alternative Name" not in self.shown(certs.issue(dns=None).path)
        assert "Subject Alternative Name" in self.shown(certs.issue(dns=[], ip=[]).path)

    def test_what_was_issued_is_not_issued_again(self, certs: Authority):
        assert certs.issue().path.read_bytes() == Authority(certs.folder).issue().path.read_bytes()

    def test_the_authority_is_found_in_its_hashed_folder(self, lab: Lab):
        context = ssl.create_default_context(capath=str(lab.authority.hashed_folder()))
        with connected(lab, context):
            assert lab.broker.expect_session().open

    def shown(self, path: Path) -> str:
        command = ["openssl", "x509", "-in", path, "-noout", "-text"]
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def deliver(sink, message: bytes) -> None:
    """What the agent does with a message for this endpoint."""
    host, colon, port = sink.endpoint.partition(":")
    if isinstance(sink, ExecutableSink):
        subprocess.run([sink.endpoint], input=message, check=True, cwd="/")
        return
    with socket.socket(socket.AF_INET if colon else socket.AF_UNIX) as client:
        client.settimeout(SECONDS)
        client.connect((host, int(port)) if colon else sink.endpoint)
        client.sendall(message)


class TestHandlers:
    @pytest.mark.parametrize("kind", ["tcp", "unix", "executable"])
    def test_messages_arrive_byte_for_byte_in_order_and_are_kept(self, lab: Lab, kind: str):
        sink = getattr(lab, f"{kind}_handler")("h")
        assert lab.settings["q_handler_h"] == sink.endpoint
        messages = [b"", bytes(range(256)) * 1000, b"last\n"]
        for message in messages:
            deliver(sink, message)
        assert [sink.expect() for _ in messages] == messages
        kept = sorted(path for path in lab.received("h").iterdir() if not path.name.startswith("."))
        assert [path.name for path in kept] == ["001", "002", "003"]
        assert [path.read_bytes() for path in kept] == messages

    def test_a_socket_in_a_deep_folder_gets_a_short_path(self, make_lab, tmp_path: Path, certs: Authority):
        with Lab(tmp_path / ("deep" * 30), authority=certs) as deep:
            sink = deep.unix_handler("h")
            assert isinstance(sink, UnixSink) and len(sink.endpoint) <= 100
            deliver(sink, b"x")
            assert sink.expect() == b"x"
        assert not os.path.exists(sink.endpoint)

    def test_a_sink_that_holds_reads_once_released(self, lab: Lab):
        sink = lab.tcp_handler("h")
        sink.behaviour = "hold"
        deliver(sink, b"held")
        sink.connections.wait_for_count(1, "a connection")
        assert not sink.messages.snapshot()
        sink.release()
        assert sink.expect() == b"held"

    def test_a_sink_can_close_early_and_refuse(self, lab: Lab):
        sink = lab.tcp_handler("h")
        sink.behaviour = "close"
        with socket.create_connection(("127.0.0.1", sink.port), timeout=SECONDS) as client:
            assert client.recv(1) == b""
        sink.refuse()
        with pytest.raises(ConnectionRefusedError):
            deliver(sink, b"x")
        sink.behaviour = "read"
        sink.accept()
        deliver(sink, b"y")
        assert sink.expect() == b"y"

    def test_documents_are_found_by_their_members(self, lab: Lab):
        for event in (1, 2, 4):
            deliver(lab.event_sink, json.dumps({"event": event, "connected": event == 4}).encode())
        assert lab.event_sink.wait_for_document(connected=True) == {"event": 4, "connected": True}
        assert [document["event"] for document in lab.event_sink.documents] == [1, 2, 4]


class TestSettings:
    def test_what_is_written_is_read_again(self, tmp_path: Path):
        path = tmp_path / "settings"
        settings = {"a": "plain", "b": " blanks = and equals ", "c": "back\\slash \\n\nlines\r", "d": "", "e": "ü"}
        settings_file.write(path, settings)
        assert settings_file.read(path) == settings
        assert stat.S_IMODE(path.stat().st_mode) == 0o600
        assert path.read_text().count("\n") == len(settings)

    def test_comments_and_lines_without_equals_are_skipped_and_the_last_value_counts(self, tmp_path: Path):
        path = tmp_path / "settings"
        path.write_text("# a=1\n\nnothing\n a =1\\t\\x\na=2\n")
        assert settings_file.read(path) == {"a": "2"}
        path.write_text(" a =1\\t\\\n")
        assert settings_file.read(path) == {"a": "1\\t\\"}

    def test_no_file_is_no_settings(self, tmp_path: Path):
        assert settings_file.read(tmp_path / "absent") == {}

    def test_a_registered_and_claimed_lab_has_the_identity_that_the_cloud_knows(self, claimed_lab: Lab):
        claimed_lab.write_settings()
        authorization = f"{claimed_lab.setting('q_agent_id')}:{claimed_lab.setting('q_agent_claim_code')}"
        target = "/claimed/v2"
        status, _, body = ask(claimed_lab.cloud, claimed_lab.authority, "GET", target, Authorization=authorization)
        assert (status, json.loads(body)["claimed"]) == (200, True)
        assert claimed_lab.setting("q_nothing") is None
        claimed_lab.wait_for_setting("q_agent_claimed", "1")
        with pytest.raises(DeadlinePassed, match="setting q_agent_claimed=2"):
            claimed_lab.wait_for_setting("q_agent_claimed", "2", deadline=0)


class TestControl:
    def test_it_sends_a_request_in_pieces_and_reads_the_whole_reply(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            received: list[bytes] = []

            def answer() -> None:
                connection, _ = server.accept()
                with connection:
                    while block := connection.recv(100):
                        received.append(block)
                    connection.sendall(b'{"result":')
                    connection.sendall(b"-10}")

            agent = threading.Thread(target=answer)
            agent.start()
            control = Control(server.getsockname()[1])
            assert control.exchange(b'{"command":"x"}', sizes=[1], rest=2) == b'{"result":-10}'
            agent.join(SECONDS)
            assert b"".join(received) == b'{"command":"x"}'

    def test_nothing_that_listens_is_told_at_the_deadline(self, lab: Lab):
        with pytest.raises(DeadlinePassed, match="nothing listens on control port"):
            Control(lab.reserve_port()).command("pause_connections", deadline=0)


STAND_IN = """#!/bin/sh
# Stands in for the agent: says some lines, then waits for SIGTERM.
echo "standard output $*"
printf 'first: 1\\nsecond ' >&2
echo 'half' >&2
printf 'no line end' >&2
echo 'first: 2' >&2
%s
trap 'echo stopping >&2; exit 7' TERM
sleep 60 &
echo $! > "$0.sleeper"
echo ready >&2
wait
"""


@pytest.fixture
def start_stand_in(lab: Lab, tmp_path: Path) -> Iterator:
    """Starts a program in place of the agent; what the program itself started is ended afterwards."""
    program = tmp_path / "stand-in"

    def start(more: str = "", *options: str) -> Agent:
        program.write_text(STAND_IN % more)
        program.chmod(0o755)
        return lab.start_agent(*options, binary=program)

    yield start
    sleeper = tmp_path / "stand-in.sleeper"
    if sleeper.exists():
        os.kill(int(sleeper.read_text()), signal.SIGKILL)


class TestAgent:
    def test_lines_are_waited_for_in_order_or_anywhere(self, start_stand_in):
        agent = start_stand_in()
        assert agent.wait_for_line("second").text == "second half"
        assert agent.wait_for_line("no line end").time > 0
        assert agent.wait_for_line(re.compile(r"first: (\d)")).text == "no line endfirst: 2"
        assert agent.wait_for_line("first: 1", anywhere=True).text == "first: 1"
        agent.wait_for_line("ready")
        agent.assert_logged("first: 1", re.compile("half$"))
        agent.assert_not_logged("third")
        assert agent.count("first") == len(agent.wait_for_count("first", 2)) == 2
        with pytest.raises(AssertionError, match="(?s)in the log: 'half'.*second half"):
            agent.assert_not_logged("half")
        with pytest.raises(DeadlinePassed, match="(?s)first: 1.*its log:.*second half"):
            agent.wait_for_line("first: 1", deadline=0)

    def test_it_ends_on_sigterm_with_its_exit_status(self, start_stand_in, lab: Lab):
        agent = start_stand_in("", "--more")
        agent.wait_for_line("ready")
        assert agent.running and agent.returncode is None and agent.processes() == [agent.pid]
        assert agent.stop() == 7
        assert not agent.running and agent.log.endswith("stopping")
        assert f"--hardware_id {HARDWARE_ID}" in agent.output and agent.output.endswith("--more\n")
        assert f"--control_port {agent.control.port}" in agent.output
        assert lab.settings_path.exists()

    def test_a_line_that_can_not_come_any_more_fails_the_wait_at_once(self, start_stand_in):
        agent = start_stand_in("exit 3")
        assert agent.wait() == 3
        with pytest.raises(DeadlinePassed, match="will not come any more"):
            agent.wait_for_line("ready")

    def test_its_log_file_is_waited_for(self, start_stand_in, lab: Lab):
        agent = start_stand_in('while [ "$1" != --log_file ]; do shift; done; echo "into the file" > "$2"')
        assert agent.wait_for_log_file(re.compile("into the file$")) == "into the file\n"
        with pytest.raises(DeadlinePassed, match="(?s)elsewhere.*into the file"):
            agent.wait_for_log_file("elsewhere", deadline=0)

    def test_one_that_does_not_obey_is_killed_and_that_is_a_failure(self, start_stand_in):
        agent = start_stand_in("trap '' TERM; echo deaf >&2; exec sleep 60")
        agent.wait_for_line("deaf")
        with pytest.raises(AssertionError, match="did not end on SIGTERM"):
            agent.stop(deadline=0.2)
        assert agent.returncode == -signal.SIGKILL
        agent.stop()

    @pytest.mark.parametrize("report", ["==1==ERROR: AddressSanitizer: x", "a.cpp:1:2: runtime error: x"])
    def test_the_report_of_a_sanitizer_is_a_failure(self, start_stand_in, lab: Lab, report: str):
        agent = start_stand_in(f"echo '{report}' >&2; exit 0")
        with pytest.raises(SanitizerReport, match=re.escape(report)):
            agent.wait()
        lab.agents.clear()

    def test_a_missing_program_is_told(self, lab: Lab, tmp_path: Path):
        with pytest.raises(FileNotFoundError, match="ORVEL_BIN"):
            lab.start_agent(binary=tmp_path / "absent")


class TestLab:
    def test_no_thread_is_left_when_it_has_stopped(self, tmp_path: Path, certs: Authority):
        before = set(threading.enumerate())
        with Lab(tmp_path / "lab", authority=certs) as lab:
            lab.unix_handler("u"), lab.executable_handler("e")
            with connected(lab, trusting(certs)):
                lab.broker.expect_session()
                assert set(threading.enumerate()) > before
        assert set(threading.enumerate()) == before

    def test_two_labs_live_side_by_side(self, make_lab):
        one, other = make_lab(), make_lab()
        assert len({one.cloud.port, one.broker.port, other.cloud.port, other.broker.port}) == 4

    def test_a_reserved_port_refuses(self, lab: Lab):
        with pytest.raises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.1", lab.reserve_port()), timeout=SECONDS)
