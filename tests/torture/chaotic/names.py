"""Names that can't be looked up: what the agent does meanwhile, how long it takes, and how it comes back."""

from __future__ import annotations

import os
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass

from orvel_lab import Agent, Lab, Session
from support.life import ENVIRONMENT
from support.rounds import Round

from .losses import SKIPPED, greeted
from .name_server import NameServer, in_own_world

BROKER, CLOUD = "broker.example", "cloud.example"
REQUEST_TIMEOUT, CONNECT_TIMEOUT, DELAY = 3, 2, 1
MARGIN = 5  # seconds, for a loaded machine
SLOWEST = ("pause", "pause in a look-up", "pause in a request", "stop", "stop in a look-up", "stop behind a pause")
STOP_SECONDS = 5  # a stop waits for no look-up


@dataclass(frozen=True)
class Resolver:
    """How the C library is told to ask its one server, and when it gives up."""

    timeout: int
    attempts: int

    @property
    def options(self) -> str:
        return f"timeout:{self.timeout} attempts:{self.attempts}"

    def seconds(self, manner: str) -> int:
        """After an odd answer the two kinds of addresses are asked for one after the other."""
        once = self.timeout * self.attempts
        return once if manner in ("silent", "noise") else 2 * once


RESOLVERS = (Resolver(1, 2), Resolver(3, 1), Resolver(5, 2))  # the last one is what the C library does by itself


class Names:
    def __init__(self, this: Round, lab: Lab, server: NameServer, resolver: Resolver) -> None:
        self.this = this
        self.lab = lab
        self.server = server
        self.resolver = resolver

    def start(self) -> Agent:
        self.agent = self.lab.start_agent("--log_debug", environment=ENVIRONMENT)
        return self.agent

    def timed(self, what: str, limit: float, action: Callable[[], object]) -> object:
        begun = time.monotonic()
        result = action()
        seconds = time.monotonic() - begun
        self.this.tally.measure(what, seconds)
        self.this.tally.counts["look-ups"] += what.startswith("look-up")
        assert seconds <= limit, f"{what}: {seconds:.1f} s, at most {limit} s"
        return result

    def command(self, what: str, limit: float, name: str) -> None:
        assert self.timed(what, limit, lambda: self.agent.control.command(name, deadline=limit + MARGIN)) == 0

    def stop(self, what: str, limit: float = STOP_SECONDS) -> None:
        assert self.timed(what, limit, lambda: self.agent.stop(limit + MARGIN)) == 0

    def session(self, limit: float) -> Session:
        session = self.lab.broker.expect_session(limit)
        return greeted(session, self.lab)


def broker_name(names: Names, manner: str) -> None:
    """The broker thread looks the name up."""
    limit = names.resolver.seconds(manner) + MARGIN
    looks_up, gives_up = "qbroker_host=", f"Can't resolve host '{BROKER}'"
    names.server.behave(manner)
    names.start()
    names.agent.wait_for_line(looks_up)
    names.timed("look-up of the broker", limit, lambda: names.agent.wait_for_line(gives_up))
    names.agent.wait_for_line(looks_up)
    names.command("pause in a look-up", limit, "pause_connections")
    names.command("resume", MARGIN, "resume_connections")
    names.agent.wait_for_line(looks_up)
    names.server.behave("good")
    session = names.timed("back", limit + 2 * DELAY, lambda: names.session(30))
    names.server.behave(manner)
    session.reset()
    names.agent.wait_for_line(looks_up)
    names.stop("stop in a look-up")
    names.start()
    names.agent.wait_for_line(looks_up)
    pausing = threading.Thread(target=names.agent.control.command, args=("pause_connections", 2 * limit))
    pausing.start()
    names.agent.wait_for_line("stoping qbroker thread.")
    names.stop("stop behind a pause", limit)
    pausing.join()


def advisor_name(names: Names, manner: str) -> None:
    """libcurl looks the name up, on a thread of its own, for a request of the broker thread.

    Such a request waits for the end of its look-up, also when that takes longer than the request's time-out.
    """
    limit = max(names.resolver.seconds(manner), REQUEST_TIMEOUT) + MARGIN
    names.server.behave(manner)
    names.start()
    names.agent.wait_for_line("advisor_url=")
    names.timed("look-up of the advisor", limit, lambda: names.agent.wait_for_line("failed with code"))
    names.agent.wait_for_line("advisor_url=")
    names.command("pause in a request", limit, "pause_connections")
    names.command("resume", MARGIN, "resume_connections")
    names.agent.wait_for_line("advisor_url=")
    names.stop("stop in a request")
    names.start()
    names.agent.wait_for_line("advisor_url=")
    names.server.behave("good")
    names.timed("back", limit + DELAY, lambda: names.session(30))
    names.stop("stop")


def cloud_name(names: Names, manner: str) -> None:
    """The same for the first request of all, in start-up."""
    limit = max(names.resolver.seconds(manner), REQUEST_TIMEOUT) + MARGIN
    names.server.behave(manner)
    names.start()
    names.agent.wait_for_line("Performing CURL request.")
    names.stop("stop in start-up")
    names.start()
    names.agent.wait_for_line("Performing CURL request.")
    names.timed("look-up of the cloud", limit, lambda: names.agent.wait_for_line("failed with code"))
    names.agent.wait_for_line("Performing CURL request.")
    names.server.behave("good")
    names.timed("back", limit + DELAY, lambda: names.session(30))
    names.stop("stop")


def failing_look_up(this: Round) -> None:
    if os.geteuid() != 0:
        this.tally.counts[SKIPPED] += 1
        return
    _, whose, manner, number = this.name.split("-")
    case = {"broker": broker_name, "advisor": advisor_name, "cloud": cloud_name}[whose]
    resolver = RESOLVERS[int(number) % len(RESOLVERS)]

    def body(server: NameServer) -> None:
        with _lab(this, whose) as lab:
            lab.tcp_handler("meter")
            case(Names(this, lab, server, resolver), manner)

    in_own_world(resolver.options, this.folder, body)


def _lab(this: Round, whose: str) -> Lab:
    settings = {
        "q_http_request_timeout": str(REQUEST_TIMEOUT),
        "q_http_connect_timeout": str(CONNECT_TIMEOUT),
        "q_advisor_delay": str(DELAY),
        "q_claim_delay": str(DELAY),
        "q_qbroker_delay": str(DELAY),
    }
    certificate = this.authority.issue(dns=["localhost", CLOUD])
    host = BROKER if whose == "broker" else "localhost"
    given = {"registered": True, "claimed": True, "tls": False, "broker_host": host, "cloud_certificate": certificate}
    lab = Lab(this.folder / "lab", authority=this.authority, settings=settings, **given)
    for key in {"broker": (), "advisor": ("q_advisor_url",), "cloud": ("q_claimed_url", "q_advisor_url")}[whose]:
        lab.settings[key] = lab.settings[key].replace("127.0.0.1", CLOUD)
    return lab
