"""Failed attempts through real proxies: all are alike, then a good one works, and nothing is left over."""

from __future__ import annotations

import re
from collections.abc import Callable
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path

import pytest
from behind_proxy import attempts, descriptors, threads
from orvel_lab import Agent, Reply, wait_until
from orvel_lab.real_proxies import Dante, Microsocks, RealProxy, Squid, Stunnel, Tinyproxy
from real_proxy_site import MakeSite, Site

ATTEMPTS = 10
MEMORY_GROWTH = 1024  # KiB that may come to stay in ten attempts; measured are 50 to 150

# The HTTP client decodes the one for the other, so it gets in with both; the broker link with the second only.
ENCODED, PASSWORD = "p%41ss", "pAss"
ACCOUNT = {"user": "device", "password": PASSWORD}

TIMES = re.compile(r"\w{3},(?: |%20)\d{2}.{3,30}?GMT")
BODY = re.compile(r"(?<=\r\n\r\n).*", re.DOTALL)  # how much of it comes with the header is up to the network


@dataclass(frozen=True)
class Failure:
    """A proxy that lets the device get to the cloud only, and what mends that: a password, or another proxy."""

    make: Callable[..., RealProxy]
    says: str
    better: Callable[[], RealProxy] | None = None


FAILURES = {
    "squid, wrong password": Failure(
        lambda certs: Squid(**ACCOUNT), "WARNING: Could not connect to server with given credentials."
    ),
    "tinyproxy, denied": Failure(
        lambda certs: Tinyproxy(), "HTTP/1.1 403 Access violation", better=lambda: Tinyproxy(port=8889)
    ),
    "stunnel and squid, wrong password": Failure(
        lambda certs: Stunnel(certs.issue(), Squid(**ACCOUNT)), "WARNING: Cannot connect using HTTPS proxy."
    ),
    "danted SOCKS4, denied": Failure(
        lambda certs: Dante("socks4"),
        "WARNING: Could not connect to server using sock4 91.",
        better=lambda: Dante("socks4", port=1082),
    ),
    "danted SOCKS5, denied": Failure(
        lambda certs: Dante("socks5"),
        "WARNING: Connection not allowed by ruleset.",
        better=lambda: Dante("socks5", port=1082),
    ),
    "microsocks, wrong password": Failure(
        lambda certs: Microsocks(**ACCOUNT), "WARNING: Error during autorization : 2."
    ),
}


def memory(agent: Agent) -> int:
    """KiB in use; 0 with a sanitizer, which gives back nothing that was freed (and looks for leaks itself)."""
    if re.search(r"lib[at]san", Path(f"/proc/{agent.pid}/maps").read_text()):
        return 0
    return int(re.search(r"VmRSS:\s+(\d+) kB", Path(f"/proc/{agent.pid}/status").read_text())[1])


def what_the_link_says(agent: Agent) -> list[list[str]]:
    found = attempts(agent, ("proxy", "net_helper", "ssl_routine", "base64"))
    return [[BODY.sub("", TIMES.sub("(time)", text)) for text in attempt] for attempt in found]


def what_the_link_sends(site: Site) -> list[bytes]:
    """The streams for the broker, connection by connection."""
    marks = [b"localhost", site.lab.broker.port.to_bytes(2, "big"), ENCODED.encode()]
    # Those for the cloud hold random bytes further on, which might be like a mark.
    return [stream for stream in site.wire.sent() if any(mark in stream[:20] for mark in marks)]


class TestFailedAttempts:
    @pytest.mark.parametrize("failure", FAILURES.values(), ids=FAILURES.keys())
    def test_the_tenth_is_like_the_first_and_then_a_good_one_works_at_once(
        self, make_site: MakeSite, certs, failure: Failure
    ):
        site = make_site(
            failure.make(certs), broker_denied=failure.better is not None, registered=True, claimed=True,
            settings={"q_qbroker_delay": "0"},
        )
        lab = site.lab
        if failure.better is None:
            lab.settings["q_qcloud_proxy_password"] = ENCODED
        stalls = [Reply(body=lab.cloud.advice, stall=True) for _ in range(2)]
        good = [Reply(body=lab.cloud.advice) for _ in range(ATTEMPTS - 1)]
        lab.cloud.script("advisor", good[0], stalls[0], *good[1:], stalls[1])
        agent = site.start()

        lab.cloud.wait_for_request("advisor", 2)
        before = descriptors(agent), threads(agent), memory(agent)
        sent_first = what_the_link_sends(site)
        stalls[0].release()
        lab.cloud.wait_for_request("advisor", ATTEMPTS + 1)
        wait_until(lambda: descriptors(agent) <= before[0], "no more descriptors than after the first attempt")
        wait_until(lambda: threads(agent) <= before[1], "no more threads")
        assert memory(agent) - before[2] < MEMORY_GROWTH
        assert sent_first and what_the_link_sends(site) == sent_first * ATTEMPTS

        with ExitStack() as stack:
            if failure.better is None:
                lab.change_setting("q_qcloud_proxy_password", PASSWORD)
            else:
                better = stack.enter_context(failure.better())
                lab.change_setting("q_qcloud_proxy_port", str(better.port))
            stalls[1].release()
            assert lab.broker.expect_session().expect_identity().text == "lab-token"
            agent.wait_for_line("Reading packet header.", anywhere=True)
            assert len(lab.cloud.requests("advisor")) == ATTEMPTS + 1
            assert agent.stop() == 0

        said = what_the_link_says(agent)
        assert len(said) == ATTEMPTS + 1
        assert any(failure.says in text for text in said[0])
        assert said[:ATTEMPTS] == [said[0]] * ATTEMPTS
