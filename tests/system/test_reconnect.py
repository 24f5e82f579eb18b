"""Coming back: failed attempts without end, addresses of every kind, names that nobody knows, and proxies."""

from __future__ import annotations

import re
import shlex
import socket
import subprocess
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

import pytest
from behind_proxy import PAST_THE_PROXY, descriptors
from orvel_lab import Agent, Answer, Lab, Reply, wait_until
from orvel_lab.agent import default_binary
from orvel_lab.lab import TOKEN

ATTEMPTS = 10
BROKER_LINK = re.compile(r"^(qbroker_connection|proxy|ssl_routine|net_helper): \d+: ")
REFUSED = "errno=111 - Connection refused."
HTTP, UNKNOWN = "1", "7"


@pytest.fixture
def known(make_lab: Callable[..., Lab]) -> Callable[..., Lab]:
    """Labs whose device is registered and claimed."""
    return lambda **options: make_lab(registered=True, claimed=True, **options)


def what_the_link_says(agent: Agent) -> list[list[str]]:
    """The broker link's lines, attempt by attempt."""
    lines = [line.text for line in agent.lines.snapshot() if BROKER_LINK.match(line.text)]
    starts = [number for number, line in enumerate(lines) if "Making advisor request" in line]
    return [lines[start:end] for start, end in zip(starts, [*starts[1:], len(lines)])]


@dataclass
class Failure:
    """What is wrong with the broker at first, how it is mended, and what the agent has to say to it."""

    begin: Callable[[Lab], None]
    end: Callable[[Lab], None]
    says: str


def ask_in_the_clear(lab: Lab) -> None:
    """The cloud without TLS: so many requests take less time, and the broker link is all that counts."""
    lab.cloud.context = None
    for key, value in lab.settings.items():
        lab.settings[key] = value.replace("https://", "http://")


def plan(kind: str, **options) -> Callable[[Lab], None]:
    return lambda lab: lab.broker.plan(kind, times=ATTEMPTS, **options)


def refuse(lab: Lab) -> None:
    lab.broker.refuse()


def accept(lab: Lab) -> None:
    lab.broker.accept()


def distrust(lab: Lab) -> None:
    lab.broker.context = lab.authority.issue(self_signed=True).server_context()


def trust(lab: Lab) -> None:
    lab.broker.context = lab.authority.issue().server_context()


def nothing(_lab: Lab) -> None:
    pass


FAILURES = {
    "refused": Failure(refuse, accept, f"Can't connect to server, {REFUSED}"),
    "TLS refused": Failure(distrust, trust, "certificate verify failed"),
    "closed at the first bytes": Failure(plan("close"), nothing, "Could not connect to SSL server"),
    "garbage": Failure(plan("garbage", data=b"HTTP/1.1 400 Bad Request\r\n\r\n"), nothing, "wrong version number"),
    "closed after the identity": Failure(plan("close-after-identity"), nothing, "Other end disconnected."),
    "reset after the identity": Failure(plan("reset-after-identity"), nothing, "SSL_ERROR_SYSCALL"),
}


class TestFailedAttempts:
    @pytest.mark.parametrize("failure", FAILURES.values(), ids=FAILURES.keys())
    def test_the_tenth_is_like_the_first_and_then_a_good_one_works_at_once(self, known, failure: Failure):
        lab = known()
        ask_in_the_clear(lab)
        lab.settings["q_qbroker_delay"] = "0"
        stalls = [Reply(body=lab.cloud.advice, stall=True) for _ in range(2)]
        good = [Reply(body=lab.cloud.advice) for _ in range(ATTEMPTS - 1)]
        lab.cloud.script("advisor", good[0], stalls[0], *good[1:], stalls[1])
        failure.begin(lab)
        agent = lab.start_agent("--log_debug")

        lab.cloud.wait_for_request("advisor", 2)
        before = descriptors(agent)
        stalls[0].release()
        lab.cloud.wait_for_request("advisor", ATTEMPTS + 1)
        # A delivery may be under way at either moment; a leak would be one for each attempt.
        wait_until(lambda: descriptors(agent) <= before, "no more descriptors than after the first attempt")
        failure.end(lab)
        stalls[1].release()
        lab.broker.expect_session().expect_identity()
        agent.wait_for_line("Reading packet header.", anywhere=True)
        assert len(lab.cloud.requests("advisor")) == ATTEMPTS + 1

        attempts = what_the_link_says(agent)
        assert any(failure.says in line for line in attempts[1])
        # The first attempt's lines are mixed with those of the start.
        assert attempts[2:ATTEMPTS] == [attempts[1]] * (ATTEMPTS - 2)
        assert set(attempts[1]) <= set(attempts[0])

    def test_each_is_followed_by_the_delay(self, known):
        lab = known()
        lab.broker.refuse()
        agent = lab.start_agent("--log_debug")
        for count in (2, 3):
            agent.wait_for_line("WARNING: Connection to qbroker was closed. Sleeping for 1 secs.")
            later = lab.cloud.wait_for_request("advisor", count)
            assert later.time - lab.cloud.requests("advisor")[count - 2].time >= 1

    def test_a_failed_one_changes_no_state(self, known):
        lab = known()
        lab.settings["q_qbroker_delay"] = "0"
        lab.broker.refuse()
        agent = lab.start_agent("--log_debug")
        agent.wait_for_count("keep_connection=1, success=1.", 2)
        agent.assert_not_logged("ERROR: connected")
        assert [document["event"] for document in lab.event_sink.documents] == [0]

    def test_a_broker_that_was_silent_until_the_stop_does_not_disturb_the_next_session(self, known):
        lab = known()
        lab.broker.plan("stall")
        agent = lab.start_agent("--log_debug")
        session = lab.broker.expect_connection()
        assert agent.control.command("pause_connections") == 0
        session.release()
        assert session.wait_ended() != ""
        assert agent.control.command("resume_connections") == 0
        lab.broker.expect_session().expect_identity()


class TestAddresses:
    def test_a_refused_connection_names_the_broker_and_the_reason(self, known):
        lab = known()
        lab.broker.refuse()
        agent = lab.start_agent("--log_debug")
        agent.wait_for_line(f"WARNING: Can't connect to server, {REFUSED}")
        agent.wait_for_line(f"WARNING: Can't connect to 'localhost':{lab.broker.port}, {REFUSED}")
        agent.wait_for_line("keep_connection=1, success=1.")

    @pytest.mark.parametrize("tls", [True, False], ids=["tls", "tcp"])
    def test_a_broker_on_ipv6_only(self, known, tls: bool):
        lab = known(families=[socket.AF_INET6], broker_host="::1", tls=tls)
        lab.start_agent()
        session = lab.broker.expect_session()
        assert session.expect_identity().text == TOKEN.decode()
        assert session.peer[0] == "::1"

    @pytest.mark.breaks("advisor-reply")
    def test_a_host_of_more_than_255_characters_is_cut(self, known):
        lab = known()
        lab.cloud.advice["broker"] = "h" * 300
        agent = lab.start_agent("--log_debug")
        agent.wait_for_line(f"qbroker_host={'h' * 255}, qbroker_port=")
        agent.wait_for_line(re.compile(f"WARNING: Can't resolve host 'h{{255}}'\\. getaddrinfo returned -\\d+ - "))

    @pytest.mark.breaks("advisor-reply")
    @pytest.mark.parametrize("port", ["-1", "123456", "x"])
    def test_a_port_of_no_use_is_a_failed_attempt(self, known, port: str):
        """Text that is no number reads as 0, and the stored port counts."""
        lab = known()
        lab.settings["q_broker_port"] = str(lab.reserve_port())
        lab.cloud.advise_connect("localhost", port, TOKEN)
        agent = lab.start_agent("--log_debug")
        expected = {"-1": "-1", "123456": "123456", "x": lab.settings["q_broker_port"]}
        agent.wait_for_line(f"qbroker_host=localhost, qbroker_port={expected[port]}, using ssl=1")
        agent.wait_for_line("keep_connection=1, success=1.")

    @pytest.mark.breaks("advisor-reply")
    def test_a_broker_that_nobody_can_name(self, known):
        lab = known(broker_host="")
        agent = lab.start_agent("--log_debug")
        agent.wait_for_line("WARNING: Can't resolve host ''. getaddrinfo returned -2 - Name or service not known.")
        agent.wait_for_line("Connection to qbroker was closed. Sleeping for 1 secs.")


PRIVATE_FILES = """#!/bin/sh
# Runs the agent with host names and name servers of its own.
{mounts}
exec {agent} "$@"
"""


@dataclass
class PrivateNames:
    """Starts agents that see other /etc/hosts and /etc/resolv.conf than the rest of the machine."""

    folder: Path

    def start_agent(self, lab: Lab, hosts: str, resolv_conf: str | None) -> Agent:
        files = {"/etc/hosts": hosts, "/etc/resolv.conf": resolv_conf, "/etc/nsswitch.conf": "hosts: files dns\n"}
        mounts = []
        for target, text in files.items():
            if not Path(target).exists():
                pytest.skip(f"this machine has no {target} to put another one over")
            source = self.folder / Path(target).name
            if text is not None:
                source.write_text(text)
                mounts.append(f"mount --bind {shlex.quote(str(source))} {target} || exit 99")
        inner = self.folder / "with-private-files"
        inner.write_text(PRIVATE_FILES.format(mounts="\n".join(mounts), agent=shlex.quote(str(default_binary()))))
        outer = self.folder / "with-private-mounts"
        outer.write_text(f'#!/bin/sh\nexec unshare -m sh {shlex.quote(str(inner))} "$@"\n')
        outer.chmod(0o755)
        return lab.start_agent("--log_debug", binary=outer)


@pytest.fixture
def private_names(tmp_path: Path) -> PrivateNames:
    if subprocess.run(["unshare", "-m", "true"], capture_output=True, check=False).returncode != 0:
        pytest.skip("a mount namespace of one's own needs root")
    folder = tmp_path / "names"
    folder.mkdir()
    return PrivateNames(folder)


class TestNames:
    """With names that only the agent under test sees."""

    name = "broker.orvel-lab.example"

    def lab(self, known, families: list[int]) -> Lab:
        lab = known(families=families, broker_host=self.name)
        lab.broker.context = lab.authority.issue(common_name=self.name, dns=[self.name]).server_context()
        return lab

    def test_a_name_that_lists_ipv6_first_is_reached_over_ipv4(self, known, private_names: PrivateNames):
        lab = self.lab(known, [socket.AF_INET, socket.AF_INET6])
        private_names.start_agent(lab, f"::1 {self.name}\n127.0.0.1 {self.name}\n", None)
        session = lab.broker.expect_session()
        assert session.peer[0] == "127.0.0.1"
        session.expect_identity()

    def test_a_name_with_ipv6_only_is_reached_over_ipv6(self, known, private_names: PrivateNames):
        lab = self.lab(known, [socket.AF_INET, socket.AF_INET6])
        private_names.start_agent(lab, f"::1 {self.name}\n", None)
        assert lab.broker.expect_session().peer[0] == "::1"

    def test_the_ipv4_address_is_the_only_one_that_is_tried(self, known, private_names: PrivateNames):
        lab = self.lab(known, [socket.AF_INET6])
        agent = private_names.start_agent(lab, f"::1 {self.name}\n127.0.0.1 {self.name}\n", None)
        agent.wait_for_line(f"WARNING: Can't connect to '{self.name}':{lab.broker.port}, {REFUSED}")
        agent.wait_for_line("Sleeping for 1 secs.")
        assert len(lab.broker.connections) == 0

    def test_a_name_that_nobody_knows_is_followed_by_the_resolvers_view(self, known, private_names: PrivateNames):
        lab = self.lab(known, [socket.AF_INET])
        servers = "# no server listens here\nnameserver 127.0.0.2\nnameserver 127.0.0.3\noptions attempts:1 timeout:1\n"
        agent = private_names.start_agent(lab, "127.0.0.1 localhost\n", servers)
        failure = rf"WARNING: Can't resolve host '{self.name}'\. getaddrinfo returned -\d+ - .+\.$"
        agent.wait_for_line(re.compile(failure))
        agent.wait_for_line("DEBUG: system has 2 DNS servers")
        agent.wait_for_line("DEBUG: system has following DNS 127.0.0.2")
        agent.wait_for_line("DEBUG: system has following DNS 127.0.0.3")
        for line in servers.splitlines():
            agent.wait_for_line(f"DEBUG: resolv conf file has following values: '{line}")  # with its line end
            agent.wait_for_line("'")
        agent.wait_for_line("keep_connection=1, success=1.")
        agent.wait_for_line("Connection to qbroker was closed. Sleeping for 1 secs.")


class TestProxies:
    """Of the broker link alone: the cloud is asked past them."""

    def start(self, lab: Lab, **proxy: str) -> Agent:
        lab.settings.update({f"q_qcloud_{key}": value for key, value in proxy.items()})
        return lab.start_agent("--log_debug", environment=PAST_THE_PROXY)

    def wait_for_failure(self, agent: Agent, text: str) -> None:
        agent.wait_for_line(text)
        agent.wait_for_line("keep_connection=1, success=1.")
        agent.assert_not_logged("Connected to qbroker.")

    @pytest.mark.parametrize(
        ("kind", "text"),
        [
            ("http", "WARNING: Cannot connect using HTTP proxy."),
            ("https", "WARNING: Cannot connect using HTTPS proxy."),
            ("socks4", "WARNING: Cannot connect using SOCK4 proxy."),
            ("socks5", "WARNING: Cannot connect using SOCK5 proxy."),
        ],
    )
    def test_each_kind_is_connected_to_and_fails_with_its_text(self, known, kind: str, text: str):
        lab = known(tls=False)
        proxy = lab.proxy(kind)
        proxy.script(Answer(b"", "close"), times=ATTEMPTS)
        agent = self.start(lab)
        assert proxy.expect_connection().wait_ended() == "lab closed"
        self.wait_for_failure(agent, text)
        assert len(lab.broker.connections) == 0

    def test_the_text_for_an_unknown_kind_has_no_line_end(self, known):
        lab = known(tls=False)
        agent = self.start(lab, use_proxy=UNKNOWN, proxy_hostname="127.0.0.1", proxy_port=str(lab.broker.port))
        agent.wait_for_line(re.compile(r"Unrecognized proxy typeqbroker_connection: \d+:   DEBUG: keep_connection=1"))

    def test_an_https_proxy_gets_tls_under_the_brokers_name(self, known):
        lab = known(tls=False)
        proxy = lab.proxy("https")
        self.start(lab)
        lab.broker.expect_session().expect_identity()
        assert proxy.expect_connection().tls_version == "TLSv1.2"

    def test_an_https_proxy_that_does_not_name_the_broker_is_refused(self, known, certs):
        lab = known()
        lab.proxy("https", context=certs.issue(common_name="127.0.0.1", dns=["127.0.0.1"]).server_context())
        agent = self.start(lab)
        agent.wait_for_line("Hostname validation failed.")
        self.wait_for_failure(agent, "WARNING: Cannot create ssl connection to HTTPS proxy.")

    def test_a_proxy_that_refuses_has_its_own_text(self, known):
        lab = known()
        agent = self.start(lab, use_proxy=HTTP, proxy_hostname="127.0.0.1", proxy_port=str(lab.reserve_port()))
        agent.wait_for_line(f"WARNING: Can't connect to server, {REFUSED}")
        self.wait_for_failure(agent, f"WARNING: Can't connect to proxy server, {REFUSED}")

    @pytest.mark.parametrize("port", [None, "0", "65536", "131072", "none"])
    def test_a_port_of_0_in_its_low_16_bits_is_none(self, known, port: str | None):
        lab = known()
        options = {} if port is None else {"proxy_port": port}
        agent = self.start(lab, use_proxy=HTTP, proxy_hostname="127.0.0.1", **options)
        self.wait_for_failure(agent, re.compile("WARNING: Could not found proxy port. $"))

    def test_only_the_low_16_bits_of_a_port_count(self, known):
        lab = known()
        agent = self.start(lab, use_proxy=HTTP, proxy_hostname="127.0.0.1", proxy_port=str(lab.reserve_port() + 65536))
        self.wait_for_failure(agent, f"WARNING: Can't connect to proxy server, {REFUSED}")

    def test_without_a_host_there_is_no_connection(self, known):
        lab = known()
        agent = self.start(lab, use_proxy=HTTP, proxy_port="1")
        self.wait_for_failure(agent, "WARNING: Could not find proxy server address.")

    def test_a_host_that_can_not_be_resolved_is_named(self, known):
        lab = known()
        agent = self.start(lab, use_proxy=HTTP, proxy_hostname="p" * 100, proxy_port="1")
        agent.wait_for_line(re.compile(r"WARNING: Can't resolve host 'p{100}'\. getaddrinfo returned -\d+ - "))
