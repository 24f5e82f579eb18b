"""The whole lab: cloud, broker, handlers, the agent's settings file, and the agent itself."""

from __future__ import annotations

import os
import shlex
import socket
import ssl
import subprocess
import tempfile
from collections.abc import Mapping, Sequence
from pathlib import Path

from . import cloud as endpoints
from . import settings as settings_file
from .agent import Agent, default_binary
from .broker import Broker
from .certificates import Authority, Certificate
from .cloud import Cloud, Device
from .handlers import ExecutableSink, Sink, TcpSink, UnixSink
from .listener import ReservedPort
from .scripted_proxy import KINDS, ScriptedProxy
from .waiting import Observer, ignore, wait_until

HARDWARE_ID = "ABCDEFGH12345"
TOKEN = b"lab-token"
AGENT_HANDLER = "agent"
EVENT_SINK = "event_sink"
MAX_UNIX_PATH = 100

# Delays in seconds, short, so that what the agent repeats it repeats soon.
SHORT_DELAYS = {
    "q_register_delay": "1",
    "q_register_aggressive_delay": "1",
    "q_register_aggressive_time": "10",
    "q_claim_delay": "1",
    "q_advisor_delay": "1",
    "q_qbroker_delay": "1",
    "q_http_request_timeout": "20",
    "q_http_connect_timeout": "10",
}


class Lab:
    """Started by `with`. What `settings` holds is written to the file when the first agent is started.

    registered, claimed   what the cloud and the settings know of the device beforehand
    tls                   whether the broker link uses TLS
    token                 the advisor's token; None gives none, and the agent identifies itself by its id
    broker_host           the name in the advisor's answer
    broker_port           0 is any free one
    families              of the broker's addresses: socket.AF_INET, socket.AF_INET6, or both
    minimum, maximum      TLS versions of the broker, 1.2 alone unless given
    """

    def __init__(
        self,
        folder: Path | str,
        *,
        registered: bool = False,
        claimed: bool = False,
        tls: bool = True,
        token: bytes | None = TOKEN,
        broker_host: str = "localhost",
        broker_port: int = 0,
        families: Sequence[int] = (socket.AF_INET,),
        minimum: ssl.TLSVersion = ssl.TLSVersion.TLSv1_2,
        maximum: ssl.TLSVersion = ssl.TLSVersion.TLSv1_2,
        authority: Authority | None = None,
        broker_certificate: Certificate | None = None,
        cloud_certificate: Certificate | None = None,
        settings: Mapping[str, str] | None = None,
        hardware_id: str = HARDWARE_ID,
        key_log: Path | None = None,
        observer: Observer = ignore,
    ) -> None:
        self.folder = Path(folder).resolve()
        self.folder.mkdir(parents=True, exist_ok=True)
        self.authority = authority or Authority(self.folder / "certificates")
        self.hardware_id = hardware_id
        self.agents: list[Agent] = []
        self.handlers: dict[str, Sink] = {}
        self.proxies: list[ScriptedProxy] = []
        self._observer = observer
        self._short_folder: tempfile.TemporaryDirectory[str] | None = None
        self._control_ports: list[ReservedPort] = []
        self._key_log = key_log
        self._started = False

        self.cloud = Cloud((cloud_certificate or self.authority.issue()).server_context(key_log=key_log), observer)
        broker_context = None
        if tls:
            certificate = broker_certificate or self.authority.issue()
            broker_context = certificate.server_context(minimum, maximum, key_log=key_log)
        self.broker = Broker(broker_context, families, observer=observer, port=broker_port)
        self.broker_host = broker_host
        self.cloud.advise_connect(broker_host, self.broker.port, token)

        self.settings_path = self.folder / "settings"
        self.settings = self._first_settings(tls)
        self.event_sink = self.tcp_handler(EVENT_SINK)
        if claimed:
            self.cloud.claim()
            self.settings["q_agent_claimed"] = "1"
        if registered:
            self.register()
        self.settings.update(settings or {})

    def __enter__(self) -> Lab:
        self.start()
        return self

    def __exit__(self, _kind: object, error: BaseException | None, _trace: object) -> None:
        try:
            self.stop()
        except Exception as later:
            if error is None:
                raise
            error.add_note(f"and then, while the lab was stopped: {later}")

    def start(self) -> None:
        self._started = True
        for part in (self.cloud, self.broker, *self.handlers.values()):
            part.start()

    def stop(self) -> None:
        """Ends everything; raises what the first agent that did not end well has to say."""
        failures = []
        for agent in self.agents:
            try:
                agent.stop()
            except Exception as failure:  # the others have to be stopped all the same
                failures.append(failure)
        for proxy in self.proxies:
            proxy.stop()
        if self._started:
            for part in (*self.handlers.values(), self.broker, self.cloud):
                part.stop()
        for reserved in self._control_ports:
            reserved.close()
        if self._short_folder is not None:
            self._short_folder.cleanup()
        if failures:
            raise failures[0]

    # Settings.

    def register(self) -> Device:
        """Makes the device known to the cloud and, with id and claim code, to the settings."""
        device = self.cloud.register(self.hardware_id)
        identity = {"q_agent_id": device.id, "q_agent_claim_code": device.claim_code, "q_agent_registered": "1"}
        self.settings.update(identity)
        return device

    def write_settings(self) -> None:
        settings_file.write(self.settings_path, self.settings)

    def setting(self, key: str) -> str | None:
        """What the file holds now; None when it does not hold the key."""
        return settings_file.read(self.settings_path).get(key)

    def wait_for_setting(self, key: str, value: str, deadline: float | None = None) -> None:
        """Waits until the file holds this value."""
        wait_until(lambda: self.setting(key) == value, f"setting {key}={value}", deadline)

    def change_setting(self, key: str, value: str) -> None:
        """Changes the file while the agent uses it, with the settings tool that is built beside the agent."""
        tool = default_binary().with_name("usi")
        subprocess.run([tool, "-c", self.settings_path, "set", key, value], check=True)

    # Handlers: each gets its q_handler_ setting.

    def tcp_handler(self, name: str) -> TcpSink:
        return self._add(TcpSink(name, self.received(name), self._observer))

    def unix_handler(self, name: str) -> UnixSink:
        return self._add(UnixSink(name, self.socket_path(f"{name}.sock"), self.received(name), self._observer))

    def executable_handler(self, name: str) -> ExecutableSink:
        return self._add(ExecutableSink(name, self.folder / f"handler-{name}", self.received(name), self._observer))

    def received(self, handler: str) -> Path:
        """The folder in which a handler's messages are kept, as the files 001, 002..."""
        return self.folder / "received" / handler

    def socket_path(self, name: str) -> Path:
        """A path for a Unix socket: in the lab's folder, or, where that is too long, in a short one."""
        path = self.folder / name
        if len(os.fsencode(path)) <= MAX_UNIX_PATH:
            return path
        if self._short_folder is None:
            self._short_folder = tempfile.TemporaryDirectory(prefix="orvel-lab-")
        return Path(self._short_folder.name) / name

    def _add(self, sink):
        if sink.name in self.handlers:
            raise ValueError(f"handler {sink.name} exists already")
        self.handlers[sink.name] = sink
        self.settings[f"q_handler_{sink.name}"] = sink.endpoint
        if self._started:
            sink.start()
        return sink

    # Proxies.

    def proxy(self, kind: str, **options) -> ScriptedProxy:
        """Starts a scripted proxy ("http", "https", "socks4", "socks5"), the one that the settings name from now on."""
        if kind == "https":
            options.setdefault("context", self.authority.issue().server_context())
        proxy = ScriptedProxy(kind, **options)
        self.proxies.append(proxy)
        proxy.start()
        self.settings["q_qcloud_use_proxy"] = str(KINDS[kind])
        self.settings["q_qcloud_proxy_hostname"] = "127.0.0.1"
        self.settings["q_qcloud_proxy_port"] = str(proxy.port)
        return proxy

    # The agent.

    def agent_arguments(
        self,
        *options: str | Path,
        name: str = "orvel",
        control_port: int = 0,
        ca: bool = True,
        hardware_id: str | None = None,
        settings_path: Path | None = None,
    ) -> list[str]:
        """The command line that fits this lab, without the program; of its own device unless it is another's."""
        trust = ["--ca_file", self.authority.path] if ca else []
        files = ["--pid_file", self.folder / f"{name}.pid", "--watchdog_pid_file", self.folder / f"{name}-watchdog.pid"]
        files += ["--log_file", self.folder / f"{name}.log"]
        identity = ["--hardware_id", hardware_id or self.hardware_id, "-c", settings_path or self.settings_path]
        return [*map(str, [*identity, *trust, "--control_port", control_port, *files, *options])]

    def start_agent(
        self,
        *options: str | Path,
        name: str | None = None,
        ca: bool = True,
        binary: Path | None = None,
        environment: Mapping[str, str] | None = None,
    ) -> Agent:
        """Starts an agent with a control port and files of its own, and `options` behind the usual ones."""
        if not self.settings_path.exists():
            self.write_settings()
        name = name or ("orvel" if not self.agents else f"orvel{len(self.agents) + 1}")
        agent = Agent(
            self.agent_arguments(*options, name=name, control_port=self.reserve_port(), ca=ca),
            self._control_ports[-1].port,
            self.folder / f"{name}.pid",
            self.folder / f"{name}.log",
            binary,
            environment,
        )
        self.agents.append(agent)
        return agent

    def reserve_port(self) -> int:
        """A port on which nothing listens, and which no other program gets while the lab is there."""
        self._control_ports.append(ReservedPort())
        return self._control_ports[-1].port

    def _first_settings(self, tls: bool) -> dict[str, str]:
        return {
            **SHORT_DELAYS,
            "q_register_url": self.cloud.url(endpoints.REGISTER),
            "q_claimed_url": self.cloud.url(endpoints.CLAIM),
            "q_discovery_url": self.cloud.url(endpoints.DISCOVERY),
            "q_advisor_url": self.cloud.url(endpoints.ADVISOR),
            "q_broker_port": str(self.broker.port),
            "q_broker_ssl": "1" if tls else "0",
            "q_agent_handler_name": AGENT_HANDLER,
        }


def command_line(binary: Path | None, arguments: Sequence[str]) -> str:
    return shlex.join([str(binary or default_binary()), *arguments])

