"""SOCKS proxies on the way to the broker: what they are asked, and every way in which they can answer."""

from __future__ import annotations

import re

import pytest
from behind_proxy import CREDENTIALS, HOST, Cases, Device
from orvel_lab import Answer
from orvel_lab.packets import plain_message

ADDRESS = b"\x7f\0\0\1"
PORTS = (7, 42, 443, 8080, 54321)
TOO_LONG = "p" * 100  # no part of a host name may be so long: nobody has to be asked

SOCKS4_OPENING = ["DEBUG: Trying to connect to sock4.\n"]
SOCKS4_FAILED = ["WARNING: Cannot connect using SOCK4 proxy.\n"]
SOCKS5_OPENING = ["DEBUG: Trying to connect to sock5.\n"]
SOCKS5_FAILED = ["WARNING: Cannot connect using SOCK5 proxy.\n"]
REGISTERED = "DEBUG: Registered on SOCKS5 server.\n"

GREETING = b"\5\2\0\2"
PASSWORD = b"\1\4user\6secret"


def socks4_request(port: int) -> bytes:
    return b"\4\1" + port.to_bytes(2, "big") + ADDRESS + b"\0"


def socks5_request(port: int) -> bytes:
    return b"\5\1\0\1" + ADDRESS + port.to_bytes(2, "big")


def broken_off(part: bytes, line: str) -> Cases:
    """Every way in which a reply can be missing or end within."""
    return {
        "closes": ([Answer(b"", "close")], [line % 0]),
        "resets": ([Answer(b"", "reset")], [line % 0]),
        "half-closes": ([Answer(b"", "half-close")], [line % 0]),
        "closes after the first byte": ([Answer(part[:1], "close")], [line % 1]),
        "closes before the last byte": ([Answer(part, "close")], [line % len(part)]),
        "half-closes before the last byte": ([Answer(part, "half-close", rest=1)], [line % len(part)]),
    }


def behind(replies: list[bytes], cases: Cases, *lines: str) -> Cases:
    """The same cases as the answer to a later request; its proxy has given these replies before."""
    before = [Answer(reply, "go on") for reply in replies]
    return {name: ([[*before, *script]], [*lines, *own]) for name, (script, own) in cases.items()}


def socks4_refusal(reply: bytes) -> tuple[list[Answer], list[str]]:
    return [Answer(reply)], [f"WARNING: Could not connect to server using sock4 {reply[1]}.\n"]


SOCKS4_REFUSED: Cases = {
    **{f"code {code}": socks4_refusal(b"\0%c" % code + bytes(6)) for code in (0, 4, 89, 91, 92, 93, 255)},
    "HTTP": socks4_refusal(b"HTTP/1.1 400 Bad Request\r\n\r\n"),
}
SOCKS4_BROKEN_OFF = broken_off(b"\0\x5a\0\0\0\0\0", "WARNING: Readed %d bytes in SOCK4 request answer instead of 8.\n")

# Intended: no line end.
HELLO_BROKEN_OFF = broken_off(b"\5", "WARNING: Readed %d bytes in SOCK5 hello request answer instead of 2")
NOT_SOCKS5 = ["WARNING: SOCKS5 is not supported on the other side.\n"]
NO_METHOD = ["WARNING: Autorization method is not present.\n"]
METHODS: Cases = {
    "version 4": ([Answer(b"\4\0")], NOT_SOCKS5),
    "version 0": ([Answer(b"\0\x5a" + bytes(6))], NOT_SOCKS5),
    "version 6, method 255": ([Answer(b"\6\xff")], NOT_SOCKS5),
    "HTTP": ([Answer(b"HTTP/1.1 400 Bad Request\r\n\r\n")], NOT_SOCKS5),
    "method 1": ([Answer(b"\5\1")], ["WARNING: GSSAPI autorization is not supported yet.\n"]),
    **{f"method {method}": ([Answer(b"\5%c" % method)], NO_METHOD) for method in (3, 4, 128, 254, 255)},
}

PASSWORD_BROKEN_OFF = broken_off(
    b"\1", "WARNING: Readed %d bytes in SOCK5 autorization request answer instead of 2.\n"
)
PASSWORD_REFUSED: Cases = {
    f"status {status}": ([Answer(b"\1%c" % status)], [f"WARNING: Error during autorization : {status}.\n"])
    for status in (1, 2, 255)
}

TUNNEL_BROKEN_OFF = broken_off(
    b"\5\0\0\1" + bytes(5), "WARNING: Readed %d bytes in SOCK5 connection request answer instead of 10.\n"
)
REASONS = {
    1: "General SOCKS server failure.",
    2: "Connection not allowed by ruleset.",
    3: "Network unreachable.",
    4: "Host unreachable.",
    5: "Connection refused.",
    6: "TTL expired.",
    7: "Command not supported.",
    8: "Address type not supported.",
    9: "SOCKS Error unassigned.",
    128: "SOCKS Error unassigned.",
    255: "SOCKS Error unassigned.",
}
TUNNEL_REFUSED: Cases = {
    f"code {code}": (
        [Answer(b"\5%c\0\1" % code + bytes(6))],
        [f"WARNING: Access denied answer={code}.\n", f"WARNING: {reason}\n"],
    )
    for code, reason in REASONS.items()
}

SOCKS5_CASES = {
    "hello broken off": HELLO_BROKEN_OFF,
    "method": METHODS,
    "password broken off": behind([b"\5\2"], PASSWORD_BROKEN_OFF),
    "password refused": behind([b"\5\2"], PASSWORD_REFUSED),
    "tunnel broken off": behind([b"\5\0"], TUNNEL_BROKEN_OFF),
    "tunnel refused": behind([b"\5\0"], TUNNEL_REFUSED),
    "tunnel broken off behind a password": behind([b"\5\2", b"\1\0"], TUNNEL_BROKEN_OFF, REGISTERED),
    "tunnel refused behind a password": behind([b"\5\2", b"\1\0"], TUNNEL_REFUSED, REGISTERED),
}


def requests_in(script: list[Answer | list[Answer]], port: int) -> list[bytes]:
    """What a SOCKS5 proxy with this script is asked, each reply but the last one being good."""
    (replies,) = script
    good = replies[:-1] if isinstance(replies, list) else []
    return [GREETING, *(PASSWORD if reply.data == b"\5\2" else socks5_request(port) for reply in good)]


def first_bytes(device: Device, count: int) -> list[bytes]:
    """What the first connections have received until their ends, which are the agent's."""
    connections = device.proxy.connections.snapshot()[:count]
    assert {connection.wait_ended() for connection in connections} == {"client closed"}
    return [connection.received for connection in connections]


class TestSocks4:
    @pytest.mark.parametrize("cases", [SOCKS4_REFUSED, SOCKS4_BROKEN_OFF], ids=["refused", "broken off"])
    def test_a_bad_reply_is_a_failed_attempt(self, make_lab, cases: Cases):
        device = Device(make_lab, "socks4")
        device.play(cases, SOCKS4_OPENING, SOCKS4_FAILED)
        assert set(device.proxy.requests) == {socks4_request(device.lab.broker.port)}

    @pytest.mark.parametrize(
        "reply", [b"\0\x5a" + bytes(6), b"\x5a\x5a\xff\xff\xff\xff\xff\xff"], ids=["usual", "all but the code ignored"]
    )
    def test_code_90_opens_the_tunnel(self, make_lab, reply: bytes):
        device = Device(make_lab, "socks4")
        device.proxy.script(Answer(reply, "go on", rest=1, gap=0.001))
        assert device.attempts_until_connected() == [[*SOCKS4_OPENING, "DEBUG: Connected to SOCKS4 proxy.\n"]]

    def test_a_port_goes_out_in_two_bytes(self, make_lab):
        device = Device(make_lab, "socks4")
        device.is_sent_to_ports(*PORTS)
        device.proxy.script(Answer(b"\0\x5b" + bytes(6)), times=len(PORTS))
        device.attempts_until_connected()
        assert first_bytes(device, len(PORTS)) == [socks4_request(port) for port in PORTS]


class TestSocks5:
    @pytest.mark.parametrize("cases", SOCKS5_CASES.values(), ids=SOCKS5_CASES.keys())
    def test_a_bad_reply_is_a_failed_attempt(self, make_lab, cases: Cases):
        device = Device(make_lab, "socks5")
        device.knows_credentials()
        device.play(cases, SOCKS5_OPENING, SOCKS5_FAILED)
        port = device.lab.broker.port
        wanted = [requests_in(script, port) for script, _ in cases.values()]
        connections = device.proxy.connections.snapshot()
        assert [connection.requests for connection in connections] == [*wanted, [GREETING, socks5_request(port)]]

    @pytest.mark.parametrize("known", [{}, {"username": "user"}, {"password": "secret"}])
    def test_method_2_needs_user_name_and_password(self, make_lab, known: dict[str, str]):
        device = Device(make_lab, "socks5")
        if known:
            device.knows_credentials(**known)
        text = "WARNING: Authentification is required. Username and/or password is not present.\n"
        device.play({"method 2": ([Answer(b"\5\2")], [text])}, SOCKS5_OPENING, SOCKS5_FAILED)
        assert first_bytes(device, 1) == [GREETING]

    @pytest.mark.parametrize("registered", [b"\1\0", b"\5\0"], ids=["usual", "all but the status ignored"])
    @pytest.mark.parametrize(
        "granted", [b"\5\0\0\1" + bytes(6), b"\xff\0" + b"\xff" * 8], ids=["usual", "all but the code ignored"]
    )
    def test_replies_may_come_byte_by_byte(self, make_lab, registered: bytes, granted: bytes):
        device = Device(make_lab, "socks5")
        device.knows_credentials()
        replies = [b"\5\2", registered, granted]
        device.proxy.script([Answer(reply, "go on", rest=1, gap=0.001) for reply in replies])
        assert device.attempts_until_connected() == [[*SOCKS5_OPENING, REGISTERED]]
        assert device.proxy.requests == [GREETING, PASSWORD, socks5_request(device.lab.broker.port)]

    def test_without_authentication_nothing_is_said_of_it(self, make_lab):
        device = Device(make_lab, "socks5")
        assert device.attempts_until_connected() == [SOCKS5_OPENING]
        assert device.proxy.requests == [GREETING, socks5_request(device.lab.broker.port)]

    def test_a_proxy_that_demands_credentials_gets_them(self, make_lab):
        device = Device(make_lab, "socks5", credentials=tuple(CREDENTIALS.values()))
        device.knows_credentials()
        assert device.attempts_until_connected() == [[*SOCKS5_OPENING, REGISTERED]]

    def test_wrong_credentials_are_refused(self, make_lab):
        device = Device(make_lab, "socks5", credentials=("user", "another"))
        device.knows_credentials()
        device.start().wait_for_line("WARNING: Error during autorization : 1.")
        device.proxy.credentials = ("user", "secret")
        device.connect()

    def test_a_port_goes_out_in_two_bytes(self, make_lab):
        device = Device(make_lab, "socks5")
        device.is_sent_to_ports(*PORTS)
        device.proxy.script([Answer(then="go on"), Answer(b"\5\5\0\1" + bytes(6))], times=len(PORTS))
        device.attempts_until_connected()
        assert first_bytes(device, len(PORTS)) == [GREETING + socks5_request(port) for port in PORTS]


GRANTED = {"socks4": [b"\0\x5a" + bytes(6)], "socks5": [b"\5\0", b"\5\0\0\1" + bytes(6)]}


class TestBoth:
    @pytest.mark.parametrize("kind", GRANTED)
    def test_what_follows_the_reply_at_once_comes_from_the_broker(self, make_lab, kind: str):
        device = Device(make_lab, kind)
        sink = device.lab.tcp_handler("meter")
        *before, last = GRANTED[kind]
        message = plain_message("meter", b"early").encode()
        device.proxy.script([Answer(reply, "go on") for reply in (*before, last + message)])
        device.start()
        device.connect()
        assert sink.expect() == b"early"

    @pytest.mark.parametrize("kind", GRANTED)
    def test_a_broker_whose_name_is_unknown_here_is_not_asked_for(self, make_lab, kind: str):
        """SOCKS takes addresses: the name is resolved before anything is sent."""
        device = Device(make_lab, kind, broker_host=TOO_LONG)
        agent = device.start()
        unknown = rf"WARNING: Can't resolve host '{TOO_LONG}'\. h_errno=[1-4] - [^.]+\.$"
        agent.wait_for_line(re.compile(unknown))
        agent.wait_for_line(f"WARNING: Cannot connect using SOCK{kind[-1]} proxy.")
        connection = device.proxy.expect_connection()
        assert connection.wait_ended() == "client closed"
        assert connection.received == b""
        device.lab.cloud.advise_connect(HOST, device.lab.broker.port, b"lab-token")
        device.connect()
