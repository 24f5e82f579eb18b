"""A claimed device behind a scripted proxy, which only its broker link uses, and what that link logs."""

from __future__ import annotations

import os
import re
from collections.abc import Callable, Sequence

from orvel_lab import Agent, Answer, Lab, ProxyConnection, Reply, ScriptedProxy, Session
from orvel_lab.lab import TOKEN

HOST = "localhost"
PAST_THE_PROXY = {"NO_PROXY": "127.0.0.1"}  # the HTTP client's own way to the cloud

SOURCES = (
    "args|base64|config|config_usi|control_listener|control_listener_command|daemon|discovery|heartbeat_message|"
    "http_helper|json_helper|logic|message_sender|mt_queue|net_helper|orvel|plain_message|proxy|qbroker_connection|"
    "ssl_routine|watchdog"
)
MESSAGE = re.compile(rf"({SOURCES}): \d+: *(DEBUG|INFO|WARNING|ERROR): ")  # some messages end without a line end
OPENING, CLOSING = "INFO: qbroker_host=", "DEBUG: keep_connection="

CREDENTIALS = {"username": "user", "password": "secret"}

# What the proxy does, connection by connection, in one attempt, and what the link says of it.
Cases = dict[str, tuple[list[Answer | list[Answer]], list[str]]]


def messages(log: str) -> list[tuple[str, str]]:
    """The sources of all messages, and their texts behind the level's label."""
    parts = MESSAGE.split(log)[1:]
    return [(source, f"{label}: {text}") for source, label, text in zip(parts[::3], parts[1::3], parts[2::3])]


def attempts(agent: Agent, sources: tuple[str, ...] = ("proxy", "net_helper")) -> list[list[str]]:
    """What these have said of each attempt to connect that is over or has succeeded; without the number of reads."""
    found: list[list[str]] = []
    open_one: list[str] | None = None
    for source, text in messages(agent.log + "\n"):
        if text.startswith(OPENING):
            open_one = []
        if open_one is not None and source in sources and not text.startswith("DEBUG: readed "):
            open_one.append(text)
        if open_one is not None and text.startswith((CLOSING, "DEBUG: Connected to qbroker.")):
            found.append(open_one)
            open_one = None
    return found


def descriptors(agent: Agent) -> int:
    return len(os.listdir(f"/proc/{agent.pid}/fd"))


def threads(agent: Agent) -> int:
    return len(os.listdir(f"/proc/{agent.pid}/task"))


def wait_for_unused_connection(proxy: ScriptedProxy) -> ProxyConnection:
    """The first one on which the client has sent nothing until its end."""

    def find(connections: Sequence[ProxyConnection]) -> ProxyConnection | None:
        return next((one for one in connections if one.ended_by == "client closed" and not one.received), None)

    return proxy.connections.wait(find, "a connection that was not used")


class Device:
    """Tries again at once whatever fails: a script of failures is played in the life of one agent."""

    agent: Agent

    def __init__(self, make_lab: Callable[..., Lab], kind: str, broker_host: str = HOST, **proxy_options) -> None:
        self.lab = make_lab(registered=True, claimed=True, tls=False, broker_host=broker_host)
        self.lab.cloud.context = None
        for key, value in self.lab.settings.items():
            self.lab.settings[key] = value.replace("https://", "http://")
        self.lab.settings["q_qbroker_delay"] = "0"
        self.proxy: ScriptedProxy = self.lab.proxy(kind, **proxy_options)

    def knows_credentials(self, **credentials: str) -> None:
        for key, value in (credentials or CREDENTIALS).items():
            self.lab.settings[f"q_qcloud_proxy_{key}"] = value

    def is_sent_to_ports(self, *ports: int) -> None:
        """By its next questions for the broker's address, one after the other."""
        advice = {**self.lab.cloud.advice}
        replies = []
        for port in ports:
            self.lab.cloud.advise_connect(HOST, port, TOKEN)
            replies.append(Reply(body={**self.lab.cloud.advice}))
        self.lab.cloud.advice = advice
        self.lab.cloud.script("advisor", *replies)

    def start(self) -> Agent:
        self.agent = self.lab.start_agent("--log_debug", environment=PAST_THE_PROXY)
        return self.agent

    def connect(self) -> Session:
        """Waits for the session behind all that the proxy's script makes fail."""
        session = self.lab.broker.expect_session()
        assert session.expect_identity().text == TOKEN.decode()
        self.agent.wait_for_line("Reading packet header.", anywhere=True)
        return session

    def attempts_until_connected(self) -> list[list[str]]:
        self.start()
        self.connect()
        return attempts(self.agent)

    def play(self, cases: Cases, opening: list[str], failure: list[str]) -> None:
        """Each case is one attempt that fails, with its own lines between those of all; then one succeeds."""
        for script, _ in cases.values():
            self.proxy.script(*script)
        *failed, _succeeded = self.attempts_until_connected()
        assert len(failed) == len(cases)
        assert dict(zip(cases, failed)) == {
            name: [*opening, *lines, *failure] for name, (_, lines) in cases.items()
        }
