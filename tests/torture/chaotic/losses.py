"""Packets that get lost in a network of one's own: connections that are dead without having been closed.

Whoever waits on such a connection has to notice it: the session by TCP keepalive or heartbeat, handshakes by the
kernel's own keepalive, a request to the cloud by its time-out. A time is configured for each; it may take NOTICE_FACTOR
times as long and LATE seconds more, and not less than EARLY times as long.
"""

from __future__ import annotations

import os
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager

from orvel_lab import Agent, Answer, Lab, Reply, Session, wait_until
from orvel_lab.network import lost_packets, private_network, tune_tcp
from support.life import ENVIRONMENT
from support.rounds import Round

NOTICE_FACTOR, LATE, EARLY = 1.5, 2, 0.3
PAST_THE_PROXY = {"NO_PROXY": "127.0.0.1"}  # the HTTP client's own way to the cloud
STOP_SECONDS = 8
LATENESS = "lateness"
SKIPPED = "rounds skipped, as they need root"
HEARTBEAT = 1
REQUEST_TIMEOUT, CONNECT_TIMEOUT, ADVISOR_DELAY, BROKER_DELAY = 3, 2, 1, 1
SYN_RETRIES = 1
SYN_SECONDS = 3  # in which the kernel gives up a connect: 1 s for the first packet and 2 s for the one repeated

# The kernel's values, for connections that are not a session yet; the agent only switches keepalives on for them.
KERNEL_KEEPALIVE = {"tcp_keepalive_time": 1, "tcp_keepalive_probes": 2, "tcp_keepalive_intvl": 1}
KERNEL_SECONDS = 1 + 2 * 1
RETRANSMISSIONS = 2
# On a path as short as this one; the kernel looks at the clock when it would repeat once more.
RETRANSMISSION_SECONDS = 0.2 * (2 ** (RETRANSMISSIONS + 2) - 1)

KEEPALIVES = [(1, 2, 1), (2, 1, 1), (1, 3, 1), (1, 1, 3), (3, 2, 1)]  # time, probes, interval


def greeted(session: Session, lab: Lab) -> Session:
    """The session, once the agent has identified itself and a message has got through."""
    session.expect_identity()
    message = b"in session %d" % session.number
    session.send_message("meter", message)
    assert lab.handlers["meter"].expect() == message
    return session


class Loss:
    """One agent that loses its packets again and again, each time with a look at the clock."""

    def __init__(self, this: Round, lab: Lab) -> None:
        self.this = this
        self.lab = lab

    def start(self, *options: str, environment: dict[str, str] | None = None) -> Agent:
        self.agent = self.lab.start_agent("--log_debug", *options, environment={**ENVIRONMENT, **(environment or {})})
        return self.agent

    def session(self, beyond: int = 0, seconds: float | None = None) -> Session:
        """The next one beyond a number, with a message that has got through."""
        session = self.lab.broker.expect_session(seconds)
        while session.number <= beyond:
            session = self.lab.broker.expect_session(seconds)
        return greeted(session, self.lab)

    def wait_noticed(self, what: str, line: str, configured: float) -> None:
        """The line comes when it should, from now on."""
        begun = time.monotonic()
        self.agent.wait_for_line(line, NOTICE_FACTOR * configured + LATE)
        seconds = time.monotonic() - begun
        assert seconds >= EARLY * configured, f"{what}: after {seconds:.1f} s already, configured: {configured:.1f} s"
        self.this.tally.measure(f"{LATENESS}: {what}", seconds / configured)
        self.this.tally.counts["losses"] += 1

    def wait_back(self, delay: float, beyond: int = 0) -> Session:
        """Connected again, once packets flow: a connect that has lost its first packet repeats it after SYN_SECONDS."""
        return self.session(beyond, NOTICE_FACTOR * (delay + SYN_SECONDS + CONNECT_TIMEOUT) + LATE)

    def end(self) -> None:
        begun = time.monotonic()
        assert self.agent.stop(STOP_SECONDS) == 0
        self.this.tally.measure("stop", time.monotonic() - begun)


ESTABLISHED, CLOSE_WAIT = "01", "08"


@contextmanager
def silence(port: int) -> Iterator[None]:
    """All packets to and from a server are lost, once it has acknowledged what it was sent.

    As long as something is unacknowledged the kernel repeats that, and sends no keepalives.
    """
    wait_until(lambda: all(sent == 0 for _, remote, sent, _ in streams() if remote == port), "acknowledgement")
    with lost_packets(f"tcp dport {port}", f"tcp sport {port}"):
        yield


def streams() -> list[tuple[int, int, int, int]]:
    """Local and remote port of each TCP connection of this network, bytes not acknowledged, and bytes not read."""
    with open("/proc/thread-self/net/tcp", encoding="ascii") as table:
        rows = [row for row in map(str.split, table) if row[3] in (ESTABLISHED, CLOSE_WAIT)]
    ports = [tuple(int(address.split(":")[1], 16) for address in row[1:3]) for row in rows]
    queues = [tuple(int(size, 16) for size in row[4].split(":")) for row in rows]
    return [(*pair, *sizes) for pair, sizes in zip(ports, queues)]


ENDED = "keep_connection=1, success="


def session_by_keepalive(loss: Loss, number: int) -> None:
    time_, probes, interval = KEEPALIVES[number % len(KEEPALIVES)]
    loss.start("--agent_keepalive", f"{time_},{probes},{interval}")
    loss.session()
    loss.agent.wait_for_line("keepalives values are set")
    with silence(loss.lab.broker.port):
        loss.wait_noticed("by keepalive", ENDED, time_ + probes * interval)
    loss.wait_back(BROKER_DELAY)


def session_by_heartbeat(loss: Loss, _number: int) -> None:
    """The heartbeat after the first unanswered one comes two periods after the loss at most."""
    loss.start("--agent_heartbeat", str(HEARTBEAT))
    loss.session()
    loss.agent.wait_for_line("heartbeat OK!")
    with silence(loss.lab.broker.port):
        loss.wait_noticed("by heartbeat", "latest heartbeat is not received!", 2 * HEARTBEAT)
        loss.agent.wait_for_line(ENDED)
    loss.wait_back(0)


def session_unacknowledged(loss: Loss, _number: int) -> None:
    """What nobody acknowledges is repeated by the kernel, which sends no keepalives meanwhile."""
    tune_tcp(tcp_retries2=RETRANSMISSIONS)
    loss.start("--agent_keepalive", "1,1,1")
    session = loss.session()
    loss.agent.wait_for_line("keepalives values are set")
    with lost_packets(f"tcp sport {loss.lab.broker.port} tcp flags & syn == 0"):
        session.reset()  # lost: the agent connects again at the latest when its keepalives are not answered
        loss.agent.wait_for_line("Connected to qbroker.")
        loss.wait_noticed("by retransmission", ENDED, RETRANSMISSION_SECONDS)
        lost_too = len(loss.lab.broker.connections)
    loss.wait_back(BROKER_DELAY, beyond=lost_too)


def connect(loss: Loss, _number: int) -> None:
    tune_tcp(tcp_syn_retries=SYN_RETRIES)
    with silence(loss.lab.broker.port):
        loss.start()
        loss.agent.wait_for_line("qbroker_host=")
        loss.wait_noticed("connect", "Can't connect to 'localhost'", SYN_SECONDS)
    loss.wait_back(BROKER_DELAY)


def tls_handshake(loss: Loss, _number: int) -> None:
    loss.lab.broker.plan("stall")
    loss.start()
    port = loss.lab.broker.port
    wait_until(lambda: any(local == port and unread for local, _, _, unread in streams()), "the agent's greeting")
    with silence(port):
        loss.wait_noticed("TLS handshake", "Could not connect to SSL server", KERNEL_SECONDS)
    loss.lab.broker.forget_plans()
    loss.wait_back(BROKER_DELAY)


def proxy_handshake(loss: Loss, number: int) -> None:
    kind = ("http", "socks5", "socks4")[number % 3]
    proxy = loss.lab.proxy(kind)
    stalled = Answer(stall=True)
    proxy.script(stalled)
    loss.start(environment=PAST_THE_PROXY)
    proxy.expect_connection().wait_for_requests(1)
    with silence(proxy.port):
        loss.wait_noticed(f"{kind} proxy's handshake", "Cannot connect using", KERNEL_SECONDS)
    stalled.release()
    loss.wait_back(BROKER_DELAY)


def cloud_request(loss: Loss, _number: int) -> None:
    stalled = Reply(stall=True)
    loss.lab.cloud.script("advisor", stalled)
    loss.start()
    loss.lab.cloud.wait_for_request("advisor")
    with silence(loss.lab.cloud.port):
        loss.wait_noticed("cloud request", "failed with code 28", REQUEST_TIMEOUT)
    stalled.release()
    loss.wait_back(ADVISOR_DELAY)


def cloud_connect(loss: Loss, _number: int) -> None:
    """With a time-out for the whole request that is much longer."""
    with silence(loss.lab.cloud.port):
        loss.start()
        loss.agent.wait_for_line("Performing CURL request.")
        loss.wait_noticed("connect to the cloud", "failed with code 28", CONNECT_TIMEOUT)
    loss.wait_back(ADVISOR_DELAY)


def stop_while_lost(loss: Loss, _number: int) -> None:
    """Commands get through while the broker thread is in a connect, and in a handshake, that nobody answers."""
    loss.lab.broker.plan("stall")
    loss.start()
    loss.lab.broker.expect_connection()
    with silence(loss.lab.broker.port):
        for line in ("Making advisor request", "qbroker_host="):
            begun = time.monotonic()
            assert loss.agent.control.command("pause_connections", deadline=STOP_SECONDS) == 0
            loss.this.tally.measure("pause", time.monotonic() - begun)
            assert loss.agent.control.command("resume_connections", deadline=STOP_SECONDS) == 0
            loss.agent.wait_for_line(line)
        begun = time.monotonic()
        assert loss.agent.stop(STOP_SECONDS) == 0
        loss.this.tally.measure("stop", time.monotonic() - begun)


Case = Callable[[Loss, int], None]

CASES: dict[str, tuple[Case, dict]] = {
    "keepalive": (session_by_keepalive, {}),
    "keepalive_plain": (session_by_keepalive, {"tls": False}),
    "heartbeat": (session_by_heartbeat, {}),
    "heartbeat_plain": (session_by_heartbeat, {"tls": False}),
    "unacknowledged": (session_unacknowledged, {"tls": False}),
    "connect": (connect, {}),
    "tls": (tls_handshake, {}),
    "proxy": (proxy_handshake, {"tls": False}),
    "cloud": (cloud_request, {}),
    "cloud_connect": (cloud_connect, {"settings": {"q_http_request_timeout": "20"}}),
    "stop": (stop_while_lost, {}),
}


def lost(this: Round) -> None:
    if os.geteuid() != 0:
        this.tally.counts[SKIPPED] += 1
        return
    _, name, number = this.name.split("-")
    case, options = CASES[name]
    settings = {
        "q_http_request_timeout": str(REQUEST_TIMEOUT),
        "q_http_connect_timeout": str(CONNECT_TIMEOUT),
        "q_advisor_delay": str(ADVISOR_DELAY),
        "q_claim_delay": str(ADVISOR_DELAY),
        "q_qbroker_delay": str(BROKER_DELAY),
        **options.get("settings", {}),
    }
    given = {"registered": True, "claimed": True, "authority": this.authority, **options, "settings": settings}
    with private_network():
        tune_tcp(**KERNEL_KEEPALIVE)
        with Lab(this.folder / "lab", **given) as lab:
            lab.tcp_handler("meter")
            loss = Loss(this, lab)
            case(loss, int(number))
            loss.end()
