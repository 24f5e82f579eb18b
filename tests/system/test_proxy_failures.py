"""Proxies that fail for a while, or say nothing: the tenth failure is like the first, and a stop ends any wait."""

from __future__ import annotations

from dataclasses import dataclass

import pytest
from behind_proxy import Device, attempts, descriptors, threads, wait_for_unused_connection
from orvel_lab import Answer, Lab, wait_until

ATTEMPTS = 10
CHALLENGE = b'HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic realm="x"\r\n\r\n'
GO_ON = Answer(then="go on")
PASSWORD = Answer(b"\5\2", "go on")


@dataclass
class Failure:
    """What the proxy does in each attempt, connection by connection, and the last thing that is said of it."""

    kind: str
    script: list[Answer | list[Answer]]
    says: str


FAILURES = {
    "HTTP, closed": Failure("http", [Answer(b"", "close")], "Cannot get answer."),
    "HTTP, reset": Failure("http", [Answer(b"", "reset")], "Cannot get answer."),
    "HTTP, denied": Failure("http", [Answer(b"HTTP/1.1 403 Forbidden\r\n\r\n")], "Received from proxy server: "),
    "HTTP, Digest": Failure(
        "http", [Answer(CHALLENGE.replace(b"Basic", b"Digest"))], "Could not find appropriate method to "
    ),
    "HTTP, wrong password": Failure("http", [Answer(CHALLENGE)] * 2, "Cannot connect to server using proxy."),
    "HTTPS, no TLS": Failure("https", [Answer(b"", "close", in_clear=True)], "Could not connect to SSL server "),
    "HTTPS, closed": Failure("https", [Answer(b"", "close")], "Cannot get answer."),
    "HTTPS, reset": Failure("https", [Answer(b"", "reset")], "Cannot get answer."),
    "HTTPS, wrong password": Failure("https", [Answer(CHALLENGE)] * 2, "Cannot connect to server using proxy."),
    "HTTPS, no TLS for the password": Failure(
        "https", [Answer(CHALLENGE), Answer(b"", "reset", in_clear=True)], "found basic authentification."
    ),
    "SOCKS4, closed": Failure("socks4", [Answer(b"", "close")], "Readed 0 bytes in SOCK4 request answer"),
    "SOCKS4, denied": Failure("socks4", [Answer(b"\0\x5b" + bytes(6))], "Could not connect to server using sock4 91."),
    "SOCKS5, closed": Failure("socks5", [Answer(b"", "close")], "Readed 0 bytes in SOCK5 hello request answer"),
    "SOCKS5, no method": Failure("socks5", [Answer(b"\5\xff")], "Autorization method is not present."),
    "SOCKS5, wrong password": Failure("socks5", [[PASSWORD, Answer(b"\1\1")]], "Error during autorization : 1."),
    "SOCKS5, denied": Failure(
        "socks5", [[GO_ON, Answer(b"\5\2\0\1" + bytes(6))]], "Connection not allowed by ruleset."
    ),
}
ENDS_WITH = {"http": "HTTP", "https": "HTTPS", "socks4": "SOCK4", "socks5": "SOCK5"}


class TestFailedAttempts:
    @pytest.mark.parametrize("failure", FAILURES.values(), ids=FAILURES.keys())
    def test_the_tenth_is_like_the_first_and_then_a_good_one_works_at_once(self, make_lab, failure: Failure):
        device = Device(make_lab, failure.kind)
        device.knows_credentials()
        early, late = Answer(b"", "close", stall=True), Answer(then="go on", stall=True)
        device.proxy.script(*failure.script, early)
        device.proxy.script(*failure.script, times=ATTEMPTS)
        device.proxy.script(late)
        agent = device.start()

        asked = len(failure.script)
        device.proxy.wait_for_connections(asked + 1)[-1].wait_for_requests(1)
        before = descriptors(agent), threads(agent)
        early.release()
        device.proxy.wait_for_connections(asked * (1 + ATTEMPTS) + 2)[-1].wait_for_requests(1)
        # A delivery may be under way at either moment; a leak would be one for each attempt.
        wait_until(lambda: descriptors(agent) <= before[0], "no more descriptors than after the first attempt")
        wait_until(lambda: threads(agent) <= before[1], "no more threads than after the first attempt")
        late.release()
        device.connect()

        first, _stalled, *others, _connected = attempts(agent, ("proxy", "net_helper", "ssl_routine"))
        assert others == [first] * ATTEMPTS
        assert any(failure.says in line for line in first)
        assert first[-1].endswith(f" {ENDS_WITH[failure.kind]} proxy.\n")
        requests = [connection.requests for connection in device.proxy.connections.snapshot()]
        assert requests[asked + 1 : -1] == requests[:asked] * ATTEMPTS

    def test_one_is_followed_by_the_delay(self, make_lab):
        device = Device(make_lab, "http")
        device.lab.settings["q_qbroker_delay"] = "1"
        device.proxy.script(Answer(b"", "close"))
        agent = device.start()
        agent.wait_for_line("WARNING: Cannot connect using HTTP proxy.")
        agent.wait_for_line("WARNING: Connection to qbroker was closed. Sleeping for 1 secs.")
        device.connect()
        first, second = device.lab.cloud.requests("advisor")
        assert second.time - first.time >= 1


# Each step in which a proxy may say nothing, or not all that it should.
SILENCES: dict[str, dict[str, list[Answer | list[Answer]]]] = {
    "http": {
        "answer": [Answer(b"")],
        "rest of the header": [Answer(b"HTTP/1.1 200 Connection established\r\n")],
        "last byte of the body": [
            Answer(b"HTTP/1.1 200 Connection established\r\nContent-Length: 10\r\n\r\n123456789")
        ],
        "answer to the credentials": [Answer(CHALLENGE), Answer(b"")],
    },
    "https": {
        "TLS": [Answer(b"", in_clear=True)],
        "answer": [Answer(b"")],
        "rest of the header": [Answer(b"HTTP/1.1 200 Connection established\r\n")],
        "TLS for the credentials": [Answer(CHALLENGE), Answer(b"", in_clear=True)],
        "answer to the credentials": [Answer(CHALLENGE), Answer(b"")],
    },
    "socks4": {"reply": [Answer(b"")], "rest of the reply": [Answer(b"\0\x5a\0\0\0\0\0")]},
    "socks5": {
        "method": [Answer(b"")],
        "rest of the method": [Answer(b"\5")],
        "status of the password": [[PASSWORD, Answer(b"")]],
        "reply": [[GO_ON, Answer(b"")]],
        "rest of the reply": [[GO_ON, Answer(b"\5\0\0\1\0\0\0\0\0")]],
    },
}


class TestSilence:
    @pytest.mark.parametrize("kind", SILENCES)
    def test_a_pause_ends_the_wait_at_every_step(self, make_lab, kind: str):
        device = Device(make_lab, kind)
        device.knows_credentials()
        for script in SILENCES[kind].values():
            device.proxy.script(*script)
        agent = device.start()
        for script in SILENCES[kind].values():
            connection = [device.proxy.expect_connection() for _ in script][-1]
            connection.wait_for_silence()
            assert agent.control.command("pause_connections") == 0
            assert connection.wait_ended() == "client closed"
            assert agent.control.command("resume_connections") == 0
        device.connect()

    @pytest.mark.parametrize(("kind", "step"), [(kind, step) for kind in SILENCES for step in SILENCES[kind]])
    def test_a_stop_ends_the_wait_and_the_agent(self, make_lab, kind: str, step: str):
        script = SILENCES[kind][step]
        device = Device(make_lab, kind)
        device.knows_credentials()
        device.proxy.script(*script)
        agent = device.start()
        connection = [device.proxy.expect_connection() for _ in script][-1]
        connection.wait_for_silence()
        assert agent.stop() == 0
        assert connection.wait_ended() == "client closed"
        agent.assert_not_logged("Connected to qbroker.")


class TestType7:
    """Neither the HTTP client nor the broker link knows it; each has its own way with that."""

    def test_the_cloud_is_asked_through_an_http_proxy_and_the_broker_not_at_all(self, make_lab):
        lab: Lab = make_lab()
        lab.cloud.claim()
        proxy = lab.proxy("http")
        lab.settings.update({"q_qcloud_use_proxy": "7", "q_qbroker_delay": "3600"})
        agent = lab.start_agent("--log_debug")
        agent.wait_for_line("Device is registered successfully: ")
        agent.wait_for_line("WARNING: Unrecognized proxy type")
        agent.wait_for_line("Connection to qbroker was closed. Sleeping for 3600 secs.")
        unused = wait_for_unused_connection(proxy)
        to_cloud = [connection for connection in proxy.connections.snapshot() if connection is not unused]
        wish = b"CONNECT 127.0.0.1:%d HTTP/1.1\r\n" % lab.cloud.port
        assert to_cloud
        assert all(connection.received.startswith(wish) for connection in to_cloud)
        assert len(lab.broker.connections) == 0
