"""A network in which a device reaches cloud and broker through a real proxy alone."""

from __future__ import annotations

import base64
from collections.abc import Callable, Mapping
from contextlib import ExitStack

from behind_proxy import PAST_THE_PROXY
from orvel_lab import Agent, Lab, wait_until
from orvel_lab.network import Firewall
from orvel_lab.real_proxies import RealProxy
from orvel_lab.relay import Relay


class Site:
    """The proxy runs and the lab is up from the start; the agent is started by start().

    settings        of the device, beside those that name the proxy
    broker_denied   the proxy connects to the cloud only
    cloud_nearby    the cloud is reached without the proxy: what counts is the broker link
    """

    def __init__(
        self,
        make_lab: Callable[..., Lab],
        stack: ExitStack,
        proxy: RealProxy,
        settings: Mapping[str, str] | None = None,
        broker_denied: bool = False,
        cloud_nearby: bool = False,
        **options,
    ) -> None:
        self.lab = make_lab(tls=False, **options)
        self.proxy = proxy
        self.cloud_nearby = cloud_nearby
        if broker_denied:
            proxy.allow([self.lab.cloud.port])
        self.wire: Relay = stack.enter_context(Relay(proxy.plain_port))
        proxy.reached_through(self.wire.port)
        stack.enter_context(proxy)
        self.lab.settings.update({**proxy.settings, **(settings or {})})
        guarded = [self.lab.broker.port] if cloud_nearby else [self.lab.broker.port, self.lab.cloud.port]
        self.firewall = Firewall(guarded)

    def start(self, *options: str) -> Agent:
        environment = PAST_THE_PROXY if self.cloud_nearby else {}
        return self.lab.start_agent("--log_debug", *options, environment=environment)

    def proxy_saw(self, *ports: int) -> None:
        """Waits until the proxy's log names these ports; some proxies write at the end of a connection only."""
        for port in ports:
            wait_until(lambda: f"{port}" in self.proxy.log, f"port {port} in the proxy's log")

    # The requests that an HTTP proxy has to get for the broker link.

    def connect_request(self, authorization: str = "") -> bytes:
        """As long as one for a five-digit port: zero bytes stand for the digits that a shorter one lacks."""
        port = str(self.lab.broker.port)
        lines = f"CONNECT localhost:{port} HTTP/1.1\r\nHost: localhost\r\n{authorization}Proxy-Connection: Keep-Alive"
        return f"{lines}\r\n\r\n".encode() + bytes(5 - len(port))

    def connect_request_of(self, user: str, password: str) -> bytes:
        credentials = base64.b64encode(f"{user}:{password}".encode()).decode()
        return self.connect_request(f"Proxy-Authorization: Basic {credentials} \r\n")  # the blank is intended


MakeSite = Callable[..., Site]
