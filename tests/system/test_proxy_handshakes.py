"""HTTP and HTTPS proxies on the way to the broker: what they are asked, and every way in which they can answer."""

from __future__ import annotations

import base64

import pytest
from behind_proxy import CREDENTIALS, HOST, Cases, Device, attempts, wait_for_unused_connection
from orvel_lab import Answer
from orvel_lab.lab import TOKEN
from orvel_lab.packets import plain_message

MEBIBYTE = 1024 * 1024
BASIC_TOKEN = base64.b64encode(b"user:secret")

CONNECTED = b"HTTP/1.1 200 Connection established\r\n"
AUTHENTICATE = b"HTTP/1.1 407 Proxy Authentication Required\r\n"
BASIC = b'Proxy-Authenticate: Basic realm="x"\r\n'
DIGEST = b'Proxy-Authenticate: Digest realm="x", nonce="y"\r\n'
END = b"\r\n"

HEADER_END = "DEBUG: Found header end"  # intended: no line end
LENGTH = "DEBUG: Found content lenght."
CLOSED = "WARNING: Connection closed. \n"
RESET = "WARNING: Read, errno=104 - Connection reset by peer.\n"
NO_ANSWER = "WARNING: Cannot get answer.\n"
REQUIRED, FOUND = "INFO: Autentification required.\n", "INFO: found basic authentification.\n"
NO_METHOD = "WARNING: Could not find appropriate method to authentificate on proxy.\n"
NOT_WITH_PROXY = "WARNING: Cannot connect to server using proxy.\n"
FAILED = "WARNING: Cannot connect using HTTP proxy.\n"


def request_to(port: int) -> bytes:
    text = b"CONNECT localhost:%d HTTP/1.1\r\nHost: localhost\r\nProxy-Connection: Keep-Alive\r\n\r\n" % port
    return text.ljust(2 * len(HOST) + 65, b"\0")


def request_with_credentials_to(port: int) -> bytes:
    head = b"CONNECT localhost:%d HTTP/1.1\r\nHost: localhost\r\n" % port
    text = head + b"Proxy-Authorization: Basic " + BASIC_TOKEN + b" \r\nProxy-Connection: Keep-Alive\r\n\r\n"
    return text.ljust(2 * len(HOST) + len(BASIC_TOKEN) + 95, b"\0")


def sent(request: bytes) -> str:
    return "DEBUG: Sending request : " + request.decode()


def asked(device: Device) -> list[str]:
    return ["DEBUG: Connecting to http proxy. \n", sent(request_to(device.lab.broker.port))]


def received(answer: bytes) -> list[str]:
    return [HEADER_END, f"DEBUG: Received from proxy server: {answer.decode()}\n"]


def with_length(name: bytes, length: int, body: bytes, status: bytes = CONNECTED) -> bytes:
    return status + name + b": %d\r\n\r\n" % length + body


def refusing(*head: bytes) -> tuple[list[Answer], list[str]]:
    answer = b"".join(head) + END
    return [Answer(answer)], received(answer)


def challenging(*head: bytes, then: str) -> tuple[list[Answer], list[str]]:
    script, lines = refusing(AUTHENTICATE, *head)
    return script, [*lines, REQUIRED, then]


# The plain request and its answers.

BROKEN_OFF: Cases = {
    "closes at once": ([Answer(b"", "close")], [CLOSED, NO_ANSWER]),
    "resets at once": ([Answer(b"", "reset")], [RESET, NO_ANSWER]),
    "half-closes": ([Answer(b"", "half-close")], [CLOSED, NO_ANSWER]),
    "closes within the header": ([Answer(CONNECTED, "close")], [CLOSED, NO_ANSWER]),
    "resets within the header": ([Answer(CONNECTED + b"\r", "reset")], [RESET, NO_ANSWER]),
    "9 bytes of 10": (
        [Answer(with_length(b"Content-Length", 10, b"123456789"), "close")],
        [HEADER_END, LENGTH, CLOSED, NO_ANSWER],
    ),
    "9 bytes of 10 in capitals": (
        [Answer(with_length(b"CONTENT-LENGTH", 10, b"123456789"), "close")],
        [HEADER_END, LENGTH, CLOSED, NO_ANSWER],
    ),
    "2 MiB without a header's end": ([Answer(CONNECTED + b"x" * (2 * MEBIBYTE))], [NO_ANSWER]),
    "2 MiB of an announced body": (
        [Answer(with_length(b"Content-Length", 2 * MEBIBYTE, b"x" * (2 * MEBIBYTE)))],
        [HEADER_END, LENGTH, NO_ANSWER],
    ),
}

REFUSALS: Cases = {
    "403": refusing(b"HTTP/1.1 403 Forbidden\r\n"),
    "502": refusing(b"HTTP/1.1 502 Bad Gateway\r\nVia: x\r\n"),
    "200 in other words": refusing(b"HTTP/1.1 200 OK\r\n"),
    "these words in other case": refusing(b"HTTP/1.1 200 connection established\r\n"),
    "another number with these words": refusing(b"HTTP/1.1 201 Connection established\r\n"),
    "407 in other words": refusing(b"HTTP/1.1 407 Authenticate\r\n", BASIC),
    "no HTTP": refusing(b"garbage\r\n"),
    "nothing but the end": refusing(END),
}

CHALLENGES: Cases = {
    "Digest only": challenging(DIGEST, then=NO_METHOD),
    "Basic on a line of its own behind Digest": challenging(DIGEST, BASIC, then=NO_METHOD),
    "Basic in small letters": challenging(b"Proxy-Authenticate: basic\r\n", then=NO_METHOD),
    "no method": challenging(b"Proxy-Authenticate:\r\n", b"X: Basic\r\n", then=NO_METHOD),
    "no header": challenging(then="WARNING: Cannot find proxy auth method.\n"),
    "Basic before the header": challenging(
        b"X: Basic\r\nWWW-Authenticate: Basic\r\n", then="WARNING: Cannot find proxy auth method.\n"
    ),
    "the header in small letters": challenging(
        b"proxy-authenticate: Basic\r\n", then="WARNING: Cannot find proxy auth method.\n"
    ),
}

# Answers with which the tunnel is open, and whether they have a length that counts.
GOOD: dict[str, tuple[bytes, bool]] = {
    "without a length": (CONNECTED + END, False),
    "an empty body": (with_length(b"Content-Length", 0, b""), True),
    "a body": (with_length(b"Content-Length", 10, b"0123456789"), True),
    "a body in capitals": (with_length(b"CONTENT-LENGTH", 10, b"0123456789"), True),
    "no blank before the length": (CONNECTED + b"Content-Length:3\r\n\r\nabc", True),
    "a length in another spelling": (CONNECTED + b"Content-length: 10\r\n\r\n", False),
    "a length in small letters": (CONNECTED + b"content-length: 10\r\n\r\n", False),
    "more than announced": (with_length(b"Content-Length", 3, b"0123456789"), True),
    "HTTP/1.0": (b"HTTP/1.0 200 Connection established\r\nVia: x\r\n\r\n", False),
    "the words in the body": (b"HTTP/1.1 403 No\r\nContent-Length: 26\r\n\r\n200 Connection established", True),
    "exactly 1 MiB": ((CONNECTED + b"X: ").ljust(MEBIBYTE - 4, b"x") + b"\r\n\r\n", False),
}


class TestAnswers:
    @pytest.mark.parametrize("cases", [BROKEN_OFF, REFUSALS, CHALLENGES], ids=["broken off", "refused", "challenged"])
    def test_a_bad_answer_is_a_failed_attempt(self, make_lab, cases: Cases):
        device = Device(make_lab, "http")
        device.knows_credentials()
        device.play(cases, asked(device), [FAILED])
        assert set(device.proxy.requests) == {request_to(device.lab.broker.port)}
        assert len(device.proxy.requests) == len(device.proxy.connections) == len(cases) + 1

    @pytest.mark.parametrize(("answer", "counted"), GOOD.values(), ids=GOOD.keys())
    def test_a_good_answer_opens_the_tunnel(self, make_lab, answer: bytes, counted: bool):
        device = Device(make_lab, "http")
        device.proxy.script(Answer(answer, "go on"))
        header_end, text = received(answer)
        lines = [header_end, *[LENGTH][: int(counted)], text, "DEBUG: Connected to server.\n"]
        assert device.attempts_until_connected() == [[*asked(device), *lines]]

    def test_one_byte_more_than_1_mib_is_no_answer(self, make_lab):
        device = Device(make_lab, "http")
        device.proxy.script(Answer((CONNECTED + b"X: ").ljust(MEBIBYTE - 3, b"x") + b"\r\n\r\n"))
        failed, _ = device.attempts_until_connected()
        assert failed[-2:] == [NO_ANSWER, FAILED]
        assert not [line for line in failed if line.startswith("DEBUG: Received")]

    def test_it_may_come_byte_by_byte(self, make_lab):
        device = Device(make_lab, "http")
        answer, _ = GOOD["a body"]
        device.proxy.script(Answer(answer, "go on", rest=1, gap=0.001))
        assert device.attempts_until_connected()[0][-1] == "DEBUG: Connected to server.\n"

    @pytest.mark.parametrize("name", ["without a length", "a body", "a body in capitals"])
    def test_it_is_complete_with_its_last_byte(self, make_lab, name: str):
        """Over TLS each byte is read alone."""
        answer, _ = GOOD[name]
        device = Device(make_lab, "https")
        device.proxy.script(Answer(answer, "go on", rest=1))
        device.attempts_until_connected()
        assert device.agent.count("DEBUG: readed 1 bytes from http answer.") == len(answer)

    def test_what_comes_with_it_is_not_taken_for_packets(self, make_lab):
        device = Device(make_lab, "http")
        sink = device.lab.tcp_handler("meter")
        device.proxy.script(Answer(CONNECTED + END + plain_message("meter", b"early").encode()[:-1], "go on"))
        device.start()
        device.connect().send_message("meter", b"hello")
        assert sink.expect() == b"hello"
        assert len(sink.messages) == 1


class TestRequests:
    PORTS = (7, 42, 443, 8080, 54321)
    UNKNOWN = "only.the.proxy.knows.invalid"

    def test_behind_a_port_of_less_than_five_digits_there_are_zero_bytes(self, make_lab):
        device = Device(make_lab, "http")
        device.is_sent_to_ports(*self.PORTS)
        device.proxy.script(Answer(b"HTTP/1.1 403 Forbidden\r\n\r\n"), times=len(self.PORTS))
        device.attempts_until_connected()
        connections = device.proxy.connections.snapshot()[: len(self.PORTS)]
        assert [connection.wait_ended() for connection in connections] == ["client closed"] * len(self.PORTS)
        assert [connection.received for connection in connections] == [request_to(port) for port in self.PORTS]
        assert [len(request_to(port).rstrip(b"\0")) for port in self.PORTS] == [79, 80, 81, 82, 83]

    def test_with_credentials_too(self, make_lab):
        device = Device(make_lab, "http")
        device.knows_credentials()
        device.is_sent_to_ports(*self.PORTS)
        challenge = Answer(AUTHENTICATE + BASIC + END)
        device.proxy.script(challenge, Answer(b"HTTP/1.1 403 Forbidden\r\n\r\n"), times=len(self.PORTS))
        device.attempts_until_connected()
        connections = device.proxy.connections.snapshot()[: 2 * len(self.PORTS)]
        assert {connection.wait_ended() for connection in connections} == {"client closed"}
        assert [connection.received for connection in connections[::2]] == [request_to(port) for port in self.PORTS]
        with_credentials = [request_with_credentials_to(port) for port in self.PORTS]
        assert [connection.received for connection in connections[1::2]] == with_credentials
        assert with_credentials[-1].endswith(b"\r\n\r\n")

    def test_these_bytes_go_into_the_tunnel_before_the_identity(self, make_lab):
        device = Device(make_lab, "http")
        device.is_sent_to_ports(443)
        device.proxy.target = ("127.0.0.1", device.lab.broker.port)
        device.start()
        session = device.lab.broker.expect_session()
        identity = b"\1\1\0%c%b" % (len(TOKEN), TOKEN)
        assert session.wait_for_bytes(2 + len(identity)) == bytes(2) + identity

    def test_the_brokers_name_is_resolved_by_the_proxy(self, make_lab):
        device = Device(make_lab, "http", broker_host=self.UNKNOWN)
        device.proxy.target = ("127.0.0.1", device.lab.broker.port)
        device.start()
        device.connect()
        head = "CONNECT {0}:{1} HTTP/1.1\r\nHost: {0}\r\n".format(self.UNKNOWN, device.lab.broker.port)
        assert device.proxy.requests[0].startswith(head.encode())


# The second request, behind a 407 with Basic.


def after_challenge(answer: Answer, *lines: str) -> tuple[list[Answer], list[str]]:
    script, first = challenging(BASIC, then=FOUND)
    return [*script, answer], [*first, *lines]


def answered(answer: bytes) -> list[str]:
    return [HEADER_END, f"DEBUG: Received after autorization: {answer.decode()}.\n"]


class TestCredentials:
    def cases(self, device: Device) -> Cases:
        again = sent(request_with_credentials_to(device.lab.broker.port))
        challenge = AUTHENTICATE + BASIC + END
        forbidden = b"HTTP/1.1 403 Forbidden\r\n\r\n"
        other = b"HTTP/1.1 407 Again\r\n\r\n"
        not_these = "WARNING: Could not connect to server with given credentials.\n"
        return {
            "407 twice": after_challenge(Answer(challenge), again, *answered(challenge), not_these, NOT_WITH_PROXY),
            "407 in other words": after_challenge(Answer(other), again, *answered(other), NOT_WITH_PROXY),
            "403": after_challenge(Answer(forbidden), again, *answered(forbidden), NOT_WITH_PROXY),
            "closes": after_challenge(Answer(b"", "close"), again, CLOSED, NO_ANSWER, NOT_WITH_PROXY),
            "resets": after_challenge(Answer(b"", "reset"), again, RESET, NO_ANSWER, NOT_WITH_PROXY),
        }

    def test_they_are_tried_once(self, make_lab):
        device = Device(make_lab, "http")
        device.knows_credentials()
        cases = self.cases(device)
        device.play(cases, asked(device), [FAILED])
        port = device.lab.broker.port
        assert device.proxy.requests[:-1] == [request_to(port), request_with_credentials_to(port)] * len(cases)

    @pytest.mark.parametrize("kind", ["http", "https"])
    @pytest.mark.parametrize(
        "methods",
        [BASIC, b"Proxy-Authenticate: Digest, Basic\r\n", BASIC + DIGEST],
        ids=["Basic alone", "behind Digest on its line", "on a line before Digest"],
    )
    def test_they_open_the_tunnel_on_a_new_connection(self, make_lab, kind: str, methods: bytes):
        device = Device(make_lab, kind, credentials=tuple(CREDENTIALS.values()))
        device.knows_credentials()
        device.proxy.script(Answer(AUTHENTICATE + methods + END))
        device.start()
        device.connect()
        port = device.lab.broker.port
        first, second = device.proxy.connections.snapshot()
        assert first.wait_ended() == "client closed"
        assert first.received == request_to(port)
        assert second.requests == [request_with_credentials_to(port)]
        tls_version = "TLSv1.2" if kind == "https" else None
        assert (first.tls_version, second.tls_version, second.tls_resumed or False) == (tls_version, tls_version, False)
        (lines,) = attempts(device.agent)
        assert lines[-1] == "INFO: Connected to server.\n"
        assert lines[-2].startswith("DEBUG: Received after autorization: HTTP/1.1 200")

    @pytest.mark.parametrize("known", [{}, {"username": "user"}, {"password": "secret"}])
    def test_without_them_the_new_connection_is_not_used(self, make_lab, known: dict[str, str]):
        device = Device(make_lab, "http")
        if known:
            device.knows_credentials(**known)
        device.play({"407": challenging(BASIC, then=FOUND)}, asked(device), [FAILED])
        wait_for_unused_connection(device.proxy)
        assert len(device.proxy.requests) == 2

    def test_a_proxy_that_refuses_the_new_connection(self, make_lab):
        device = Device(make_lab, "http")
        device.knows_credentials()
        (challenge,), lines = challenging(BASIC, then=FOUND)
        stalled = Answer(challenge.data, stall=True)
        device.proxy.script(stalled)
        agent = device.start()
        device.proxy.expect_connection().wait_for_requests(1)
        device.proxy.refuse()
        stalled.release()
        agent.wait_for_line("cannot open socket for auth to proxy.")
        device.proxy.accept()
        device.connect()
        refused = "WARNING: Can't connect to server, errno=111 - Connection refused.\n"
        no_socket = "WARNING: cannot open socket for auth to proxy."  # intended: no line end
        assert attempts(agent)[0] == [*asked(device), *lines, refused, no_socket, FAILED]


class TestTls:
    FAILED = "WARNING: Cannot connect using HTTPS proxy.\n"
    NO_TLS = "WARNING: Cannot create ssl connection to HTTPS proxy.\n"

    def test_a_proxy_that_breaks_tls_off_is_a_failed_attempt(self, make_lab):
        cases: Cases = {
            "closes": ([Answer(b"", "close", in_clear=True)], []),
            "resets": ([Answer(b"", "reset", in_clear=True)], []),
            "speaks HTTP": ([Answer(b"HTTP/1.1 400 Bad Request\r\n\r\n", "close", in_clear=True)], []),
        }
        device = Device(make_lab, "https")
        device.play(cases, [], [self.NO_TLS])
        assert device.agent.count("WARNING: Could not connect to SSL server ") == len(cases)

    def test_bad_answers_over_tls_are_failed_attempts(self, make_lab):
        cases: Cases = {
            "closes": ([Answer(b"", "close")], [CLOSED, NO_ANSWER]),
            "cuts the stream": ([Answer(b"", "cut")], [CLOSED, NO_ANSWER]),
            "resets": ([Answer(b"", "reset")], [RESET, NO_ANSWER]),
            "closes within the header": ([Answer(CONNECTED, "close")], [CLOSED, NO_ANSWER]),
            **REFUSALS,
            **CHALLENGES,
        }
        device = Device(make_lab, "https")
        device.play(cases, asked(device), [self.FAILED])
        assert set(device.proxy.requests) == {request_to(device.lab.broker.port)}

    def test_every_bad_second_answer_too(self, make_lab):
        device = Device(make_lab, "https")
        device.knows_credentials()
        device.play(TestCredentials().cases(device), asked(device), [self.FAILED])
        assert {connection.tls_version for connection in device.proxy.connections.snapshot()} == {"TLSv1.2"}
        assert not any(connection.tls_resumed for connection in device.proxy.connections.snapshot())

    def test_tls_that_fails_on_the_new_connection_is_a_failed_attempt(self, make_lab):
        device = Device(make_lab, "https")
        device.knows_credentials()
        (challenge,), lines = challenging(BASIC, then=FOUND)
        cases: Cases = {"closes": ([challenge, Answer(b"", "close", in_clear=True)], lines)}
        device.play(cases, asked(device), [self.FAILED])

    def test_the_name_is_checked_on_the_first_connection(self, make_lab, certs):
        unnamed = certs.issue(common_name="x", dns=["proxy.example"]).server_context()
        device = Device(make_lab, "https", context=unnamed)
        agent = device.start()
        agent.wait_for_line("WARNING: Hostname validation failed.")
        agent.wait_for_line(self.NO_TLS.strip())
        device.proxy.context = certs.issue().server_context()
        device.connect()
        assert attempts(agent)[0] == [self.NO_TLS]

    def test_the_name_is_checked_on_the_new_connection_too(self, make_lab, certs):
        device = Device(make_lab, "https")
        device.knows_credentials()
        (challenge,), lines = challenging(BASIC, then=FOUND)
        stalled = Answer(challenge.data, stall=True)
        device.proxy.script(stalled)
        agent = device.start()
        device.proxy.expect_connection().wait_for_requests(1)
        good, device.proxy.context = device.proxy.context, certs.issue(dns=["proxy.example"]).server_context()
        stalled.release()
        agent.wait_for_line("WARNING: Hostname validation failed.")
        device.proxy.context = good
        device.connect()
        assert attempts(agent)[0] == [*asked(device), *lines, self.FAILED]
        unnamed = device.proxy.connections.snapshot()[1]
        assert unnamed.wait_ended() != ""
        assert unnamed.received == b""
