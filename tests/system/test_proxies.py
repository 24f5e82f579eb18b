"""A device that gets out through a real proxy alone: its whole life, and what proxies refuse."""

from __future__ import annotations

import os
import re
import socket

import pytest
from orvel_lab import Agent
from orvel_lab.network import PROXY_ADDRESS, Firewall
from orvel_lab.real_proxies import Dante, Microsocks, Squid, Stunnel, Tinyproxy
from real_proxy_site import MakeSite, Site

ACCOUNT = {"user": "device", "password": "secret"}
IDENTITY = b"\x01\x01\x00\x09lab-token"
AGAIN = "WARNING: Connection to qbroker was closed. Sleeping for 1 secs."

PROXIES = {
    "squid": lambda certs: Squid(),
    "squid with Basic": lambda certs: Squid(**ACCOUNT),
    "tinyproxy": lambda certs: Tinyproxy(),
    "stunnel and squid": lambda certs: Stunnel(certs.issue(), Squid()),
    "stunnel and squid with Basic": lambda certs: Stunnel(certs.issue(), Squid(**ACCOUNT)),
    "stunnel and tinyproxy": lambda certs: Stunnel(certs.issue(), Tinyproxy(port=3128)),
    "danted SOCKS4": lambda certs: Dante("socks4"),
    "danted SOCKS5": lambda certs: Dante("socks5"),
    "microsocks": lambda certs: Microsocks(**ACCOUNT),
}


def every_proxy(*names: str):
    chosen = {name: make for name, make in PROXIES.items() if not names or name in names}
    return pytest.mark.parametrize("make_proxy", chosen.values(), ids=chosen.keys())


def connected(site: Site, agent: Agent):
    """The broker's side of a link that is up."""
    session = site.lab.broker.expect_session()
    assert session.expect_identity().text == "lab-token"
    agent.wait_for_line("Reading packet header.", anywhere=True)
    return session


class TestLife:
    @every_proxy()
    def test_from_registration_to_a_clean_stop(self, make_site: MakeSite, certs, make_proxy):
        site = make_site(make_proxy(certs), settings={"q_use_discovery": "1"})
        lab = site.lab
        assert lab.cloud.port >= 10000 and lab.broker.port >= 10000
        meter = lab.tcp_handler("meter")
        agent = site.start("--service_id", "demo", "--discovery_time", "100000")

        first = connected(site, agent)
        for kind in ("register", "claim", "discovery", "advisor"):
            lab.cloud.wait_for_request(kind)
        lab.cloud.claim()
        assert agent.control.command("on_claim", service="demo", claimed=True) == 0
        for payload in (b"hello", os.urandom(70_000)):
            first.send_message("meter", payload)
            assert meter.expect() == payload

        assert agent.control.command("pause_connections") == 0
        assert first.wait_ended() == "agent closed"
        assert agent.control.command("resume_connections") == 0
        connected(site, agent).close()
        agent.wait_for_line("Other end disconnected.")
        third = connected(site, agent)
        third.send_message("meter", b"after the drop")
        assert meter.expect() == b"after the drop"

        assert agent.stop() == 0
        assert third.wait_ended() == "agent closed"
        assert {session.peer[0] for session in lab.broker.sessions} == {PROXY_ADDRESS}
        assert all(session.raw.startswith(IDENTITY) for session in lab.broker.sessions)
        site.proxy_saw(lab.cloud.port, lab.broker.port)
        assert site.firewall.past == 0


    @every_proxy("squid with Basic", "tinyproxy", "stunnel and squid", "danted SOCKS4", "microsocks")
    def test_a_proxy_that_is_started_anew(self, make_site: MakeSite, certs, make_proxy):
        site = make_site(make_proxy(certs), registered=True, claimed=True)
        agent = site.start()
        session = connected(site, agent)
        site.proxy.stop()
        session.wait_ended()
        agent.wait_for_line("Other end disconnected.")
        agent.wait_for_line("Making advisor request for qbroker address.")
        agent.wait_for_line("failed with code ")
        site.proxy.start()
        connected(site, agent)


class TestFirewall:
    """The rule that keeps every other test here honest."""

    def test_a_cloud_that_is_asked_without_the_proxy_is_out_of_reach(self, own_network, make_lab):
        lab = make_lab(tls=False)
        firewall = Firewall([lab.cloud.port, lab.broker.port])
        lab.start_agent("--log_debug").wait_for_line("failed with error code 7: '")
        assert firewall.past > 0 and firewall.through == 0
        assert not lab.cloud.requests()

    def test_a_broker_link_without_the_proxy_is_out_of_reach(self, own_network, make_lab):
        lab = make_lab(tls=False, registered=True, claimed=True)
        firewall = Firewall([lab.broker.port])
        agent = lab.start_agent("--log_debug")
        agent.wait_for_line(f"Can't connect to 'localhost':{lab.broker.port}, errno=111 - Connection refused.")
        assert firewall.past > 0 and firewall.through == 0
        assert len(lab.broker.connections) == 0


class TestBasicAuthentication:
    @every_proxy("squid with Basic", "stunnel and squid with Basic")
    def test_it_is_asked_for_and_given_on_a_new_connection(self, make_site: MakeSite, certs, make_proxy):
        site = make_site(make_proxy(certs), registered=True, claimed=True)
        agent = site.start()
        connected(site, agent)
        first, second = site.wire.sent(b"CONNECT localhost:")
        assert first == site.connect_request()
        assert second == site.connect_request_of(**ACCOUNT) + IDENTITY
        agent.wait_for_line("Connecting to http proxy. ")
        agent.wait_for_line("Received from proxy server: HTTP/1.1 407 Proxy Authentication Required")
        agent.wait_for_line("INFO: Autentification required.")
        agent.wait_for_line("INFO: found basic authentification.")
        agent.wait_for_line("Received after autorization: HTTP/1.1 200 Connection established")
        agent.wait_for_line("INFO: Connected to server.")

    def test_tinyproxy_takes_the_blank_behind_the_credentials_for_a_part_of_them(self, make_site: MakeSite):
        """So a device that has to authenticate there registers, but gets no broker link."""
        site = make_site(Tinyproxy(**ACCOUNT))
        site.lab.cloud.claim()
        agent = site.start()
        agent.wait_for_line("INFO: found basic authentification.")
        agent.wait_for_line("Received after autorization: HTTP/1.0 401 Unauthorized")
        agent.wait_for_line("WARNING: Cannot connect to server using proxy.")
        agent.wait_for_line("WARNING: Cannot connect using HTTP proxy.")
        site.lab.cloud.wait_for_request("advisor")

        request = site.connect_request_of(**ACCOUNT)
        assert site.wire.sent(b"CONNECT localhost:", b"Authorization: Basic")[0] == request
        assert answer_to(site.proxy.port, request).startswith(b"HTTP/1.0 401 Unauthorized")
        without_blank = request.replace(b" \r\nProxy-Connection", b"\r\nProxy-Connection")
        assert answer_to(site.proxy.port, without_blank).startswith(b"HTTP/1.0 200 Connection established")


def answer_to(port: int, request: bytes) -> bytes:
    with socket.create_connection(("127.0.0.1", port)) as proxy:
        proxy.sendall(request)
        return proxy.recv(4096)


class TestHttpsProxy:
    def test_a_certificate_with_the_brokers_name_alone_is_enough(self, make_site: MakeSite, certs):
        certificate = certs.issue("broker", dns=["localhost"], ip=[])
        site = make_site(Stunnel(certificate, Squid()), registered=True, claimed=True)
        connected(site, site.start())

    def test_the_cloud_is_asked_through_the_devices_own_port_3128_in_the_clear(self, make_site: MakeSite, certs):
        site = make_site(Stunnel(certs.issue(), Squid(port=3128)))
        site.start().wait_for_line("Device is registered successfully: id='")
        site.proxy_saw(site.lab.cloud.port)
        assert not site.wire.sent(b"CONNECT 127.0.0.1:")  # what stunnel has passed on to squid

    @pytest.mark.parametrize(
        ("certificate", "says"),
        [
            ({"dns": ["proxy.example"], "common_name": "localhost"}, "WARNING: Hostname validation failed."),
            ({"dns": ["127.0.0.1"]}, "WARNING: Hostname validation failed."),
            ({"self_signed": True}, "WARNING: Could not connect to SSL server 1."),
        ],
        ids=["other name", "the proxy's own address", "untrusted"],
    )
    def test_any_other_certificate_is_refused_before_a_word(self, make_site: MakeSite, certs, certificate, says: str):
        site = make_site(Stunnel(certs.issue(**certificate), Squid()), registered=True, claimed=True)
        agent = site.start()
        for _ in range(2):
            agent.wait_for_line(says)
            agent.wait_for_line("WARNING: Cannot create ssl connection to HTTPS proxy.")
            agent.wait_for_line(AGAIN)
        assert not site.wire.sent(b"CONNECT")
        assert len(site.lab.broker.connections) == 0


NO_HTTP = "WARNING: Cannot connect using HTTP proxy."
NO_HTTPS = "WARNING: Cannot connect using HTTPS proxy."
NO_SOCKS4 = ["WARNING: Could not connect to server using sock4 91.", "WARNING: Cannot connect using SOCK4 proxy."]
NO_SOCKS5 = "WARNING: Cannot connect using SOCK5 proxy."
REFUSED_BY_BROKER = ["WARNING: Access denied answer=5.", "WARNING: Connection refused.", NO_SOCKS5]

DENIED = {
    "squid": ["Received from proxy server: HTTP/1.1 403 Forbidden", NO_HTTP],
    "squid with Basic": ["Received after autorization: HTTP/1.1 403 Forbidden", NO_HTTP],
    "tinyproxy": ["Received from proxy server: HTTP/1.1 403 Access violation", NO_HTTP],
    "stunnel and squid": ["Received from proxy server: HTTP/1.1 403 Forbidden", NO_HTTPS],
    "danted SOCKS4": NO_SOCKS4,
    "danted SOCKS5": [
        "WARNING: Access denied answer=2.", "WARNING: Connection not allowed by ruleset.", NO_SOCKS5
    ],
}
UNREACHABLE = {
    "squid": ["Received from proxy server: HTTP/1.1 503 Service Unavailable", NO_HTTP],
    "tinyproxy": ["Received from proxy server: HTTP/1.1 500 Unable to connect", NO_HTTP],
    "stunnel and squid": ["Received from proxy server: HTTP/1.1 503 Service Unavailable", NO_HTTPS],
    "danted SOCKS4": NO_SOCKS4,
    "danted SOCKS5": REFUSED_BY_BROKER,
    "microsocks": REFUSED_BY_BROKER,
}


class TestTargets:
    def is_told_twice(self, site: Site, says: list[str]) -> None:
        """The failure is logged, and again after the delay; the broker hears nothing of it."""
        agent = site.start()
        for _ in range(2):
            for text in says:
                agent.wait_for_line(text)
            agent.wait_for_line("keep_connection=1, success=1.")
            agent.wait_for_line(AGAIN)
        agent.assert_not_logged("Connected to qbroker.")
        assert len(site.lab.broker.connections) == 0

    @pytest.mark.parametrize("name", DENIED)
    def test_one_that_the_proxy_denies(self, make_site: MakeSite, certs, name: str):
        site = make_site(PROXIES[name](certs), broker_denied=True, registered=True, claimed=True)
        self.is_told_twice(site, DENIED[name])

    @pytest.mark.parametrize("name", UNREACHABLE)
    def test_one_that_the_proxy_can_not_reach(self, make_site: MakeSite, certs, name: str):
        site = make_site(PROXIES[name](certs), registered=True, claimed=True)
        site.lab.broker.refuse()
        self.is_told_twice(site, UNREACHABLE[name])

    @pytest.mark.parametrize("make_proxy", [Squid, Tinyproxy, lambda: Dante("socks4"), lambda: Dante("socks5")])
    def test_a_denied_cloud_is_a_failed_request(self, make_site: MakeSite, make_proxy):
        proxy = make_proxy()
        site = make_site(proxy, broker_denied=True)
        proxy.stop()
        proxy.allow([site.lab.broker.port])
        proxy.start()
        agent = site.start()
        code = 97 if proxy.kind.startswith("socks") else 56
        agent.wait_for_line(re.compile(f"curl_easy_perform\\(url='https://.+'\\) failed with error code {code}: '"))
        agent.wait_for_line("Failed to register device.")
        assert not site.lab.cloud.requests()


class TestShortBrokerPort:
    """A request has the length of one for a five-digit port. What is too long for it goes through the tunnel."""

    @pytest.mark.parametrize("port", [9, 80, 443, 8443])
    @every_proxy("squid", "squid with Basic", "tinyproxy", "stunnel and squid", "stunnel and tinyproxy")
    def test_every_http_proxy_hands_the_zero_bytes_on(self, make_site: MakeSite, certs, make_proxy, port: int):
        proxy = make_proxy(certs)
        site = make_site(proxy, registered=True, claimed=True, broker_port=port)
        agent = site.start()
        zeros = bytes(5 - len(str(port)))
        session = site.lab.broker.expect_session()
        assert session.wait_for_bytes(len(zeros + IDENTITY)) == zeros + IDENTITY
        agent.wait_for_line("Reading packet header.", anywhere=True)

        *asked, tunnel = site.wire.sent(b"CONNECT localhost:")
        request = site.connect_request() if proxy.user is None else site.connect_request_of(**ACCOUNT)
        assert request.endswith(b"\r\n\r\n" + zeros)
        assert tunnel == request + IDENTITY
        assert asked == ([] if proxy.user is None else [site.connect_request()])

    @pytest.mark.parametrize("port", [9, 80, 443, 8443])
    @every_proxy("danted SOCKS4", "danted SOCKS5", "microsocks")
    def test_no_socks_proxy_gets_any(self, make_site: MakeSite, certs, make_proxy, port: int):
        site = make_site(make_proxy(certs), registered=True, claimed=True, broker_port=port)
        session = connected(site, site.start())
        assert session.raw == IDENTITY
