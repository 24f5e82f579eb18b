"""The lab as a program of its own: `orvel-lab up`, and what the other commands ask of it."""

from __future__ import annotations

import base64
import fcntl
import json
import math
import os
import shlex
import shutil
import signal
import socket
import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import asdict, dataclass, field
from datetime import datetime
from pathlib import Path
from typing import IO, Any

from .agent import default_binary
from .broker import IDENTITIES, Session
from .channel import Channel, ChannelEnded
from .control import Control
from .handlers import Sink
from .lab import HARDWARE_ID, TOKEN, Lab
from .listener import Listener, UnixPath
from .network import Firewall, is_private, set_up_loopback
from .real_proxies import RealProxy, open_proxy
from .waiting import DeadlinePassed, Event, Journal, Wake

LAB_FILE = "lab.json"
LOCK_FILE = "lab.lock"


class Refusal(Exception):
    """A command can't be carried out; the text says why."""


@dataclass
class Options:
    """What `up` is told."""

    folder: Path
    tls: bool = True  # without a proxy
    proxy: str | None = None
    claimed: bool = False
    token: bool = True
    heartbeat: int | None = None
    agent_keepalive: str | None = None
    broker_keepalive: str | None = None
    hardware_id: str = HARDWARE_ID
    key_log: Path | None = None
    agent: Path = field(default_factory=default_binary)
    settings: dict[str, str] = field(default_factory=dict)


class Playground:
    """Runs in the foreground: shows a time line, serves the other commands on a Unix socket."""

    def __init__(self, options: Options) -> None:
        self.options = options
        self._events: Journal[Event] = Journal()
        self._stop = Wake()
        self._print_lock = threading.Lock()
        self._proxy: RealProxy | None = None

    def run(self) -> None:
        """Until SIGINT, SIGTERM or SIGHUP."""
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, lambda _number, _frame: self._stop.set())
        folder = self.options.folder
        if self.options.proxy is not None:
            prepare_network()
        with OwnFolder(folder), self._make_lab() as lab, self._make_proxy(lab):
            self.lab = lab
            for add, name in ((lab.tcp_handler, "tcp"), (lab.unix_handler, "unix"), (lab.executable_handler, "exec")):
                add(name)
            lab.settings.update(self.options.settings)
            lab.write_settings()
            self._advise_connect({})
            self._control = Control(lab.reserve_port())
            address = UnixPath(str(lab.socket_path("lab.sock")))
            self._listener = Listener(address, self._serve, "commands")
            self._listener.start()
            try:
                self._publish(address.path)
                self._stop.wait()
            finally:
                (folder / LAB_FILE).unlink(missing_ok=True)
                self._events.end("the lab stops")
                self._listener.stop()

    def _make_lab(self) -> Lab:
        options = self.options
        return Lab(
            options.folder,
            tls=self._tls,
            claimed=options.claimed,
            hardware_id=options.hardware_id,
            key_log=options.key_log,
            observer=self._tell,
        )

    @property
    def _tls(self) -> bool:
        """Through a proxy the agent speaks the plain broker protocol."""
        return self.options.tls and self.options.proxy is None

    @contextmanager
    def _make_proxy(self, lab: Lab) -> Iterator[None]:
        """Everything but the proxy is kept away from cloud and broker."""
        if self.options.proxy is None:
            yield
            return
        with open_proxy(self.options.proxy, lab.authority.issue()) as self._proxy:
            lab.settings.update(self._proxy.settings)
            self._firewall = Firewall([lab.cloud.port, lab.broker.port])
            yield

    def _publish(self, socket_path: str) -> None:
        """Writes lab.json, which says that the lab is up, and shows how to start the agent."""
        document = {"socket": socket_path, **self._constants()}
        incoming = self.options.folder / f"{LAB_FILE}.new"
        incoming.write_text(json.dumps(document, indent=2) + "\n")
        os.replace(incoming, self.options.folder / LAB_FILE)
        print(f"The lab is up in {self.lab.folder}. Start the agent with\n")
        print(f"  {document['agent_command_line']}\n")
        print("and see `orvel-lab --help` for what can be done to it. Ctrl-C ends the lab.\n", flush=True)

    def _tell(self, event: Event) -> None:
        self._events.append(event)
        try:
            with self._print_lock:
                print(timeline_entry(asdict(event)), flush=True)
        except OSError:
            self._stop.set()  # whoever read the time line has left

    # What the lab is.

    def _constants(self) -> dict[str, Any]:
        lab = self.lab
        arguments = lab.agent_arguments("--log_debug", control_port=self._control.port)
        command = [str(self.options.agent), *arguments]
        return {
            "pid": os.getpid(),
            "folder": str(lab.folder),
            "settings": str(lab.settings_path),
            "ca_file": str(lab.authority.path),
            "control_port": self._control.port,
            "hardware_id": lab.hardware_id,
            "pid_file": str(lab.folder / "orvel.pid"),
            "log_file": str(lab.folder / "orvel.log"),
            "agent_command": command,
            "agent_command_line": shlex.join(command),
            "cloud": {"port": lab.cloud.port},
            "broker": {"host": lab.broker_host, "port": lab.broker.port, "tls": self._tls},
            "handlers": {
                name: {"endpoint": sink.endpoint, "folder": str(lab.received(name))}
                for name, sink in lab.handlers.items()
            },
        }

    def _status(self) -> dict[str, Any]:
        lab = self.lab
        kinds = sorted({request.kind for request in lab.cloud.requests()})
        return {
            **self._constants(),
            "devices": [asdict(device) for device in lab.cloud.devices.values()],
            "advice": lab.cloud.advice,
            "requests": {kind: len(lab.cloud.requests(kind)) for kind in kinds},
            "connected": self._connected() is not None,
            "proxy": self._proxy_status(),
            "sessions": [session_document(session) for session in lab.broker.sessions],
            "received": {name: len(sink.messages) for name, sink in lab.handlers.items()},
        }

    def _proxy_status(self) -> dict[str, Any] | None:
        if self._proxy is None:
            return None
        proxy = self._proxy
        counts = {"through": self._firewall.through, "past": self._firewall.past}
        return {"kind": proxy.kind, "name": proxy.name, "port": proxy.port, "log": proxy.log, **counts}

    def _connected(self) -> Session | None:
        """The open session whose identity has been received."""
        session = self.lab.broker.current
        return session if session is not None and identity_of(session) is not None else None

    # The other commands.

    def _serve(self, accepted: socket.socket) -> None:
        channel = Channel(accepted, self._listener.stopping)
        try:
            blocks = []
            while block := channel.read():
                blocks.append(block)
            request = json.loads(b"".join(blocks))
            for document in self._answers(request):
                channel.write(json.dumps(document).encode() + b"\n")
        except (ChannelEnded, OSError, ValueError):
            pass  # the lab stops, or the command was broken off
        finally:
            channel.finish()

    def _answers(self, request: dict[str, Any]) -> Iterator[dict[str, Any]]:
        if request["do"] == "trace":
            yield from self._trace(request["recorded"])
            return
        commands: dict[str, Callable[[dict[str, Any]], dict[str, Any]]] = {
            "send": self._send,
            "claim": self._claim,
            "release": self._release,
            "advise-connect": self._advise_connect,
            "advise-wait": self._advise_wait,
            "drop": self._drop,
            "control": self._send_control,
            "status": lambda _request: self._status(),
            "wait": self._wait,
        }
        try:
            yield commands[request["do"]](request)
        except (Refusal, DeadlinePassed, ValueError, OSError) as error:
            yield {"error": str(error)}

    def _trace(self, recorded: bool) -> Iterator[dict[str, Any]]:
        if recorded:
            yield from (asdict(event) for event in self._events.snapshot())
            return
        index = len(self._events)
        yield asdict(Event("lab", "trace begins"))
        while True:
            try:
                news = self._events.wait(lambda events: list(events[index:]) or None, "an event", math.inf)
            except DeadlinePassed:
                return
            index += len(news)
            yield from (asdict(event) for event in news)

    def _send(self, request: dict[str, Any]) -> dict[str, Any]:
        session = self._session()
        payload = base64.b64decode(request["payload"])
        session.send_message(request["handler"], payload, request["chunks"])
        return {"done": f"{len(payload)} bytes for '{request['handler']}' went out in session {session.number}"}

    def _claim(self, _request: dict[str, Any]) -> dict[str, Any]:
        self.lab.cloud.claim()
        return {"done": "the cloud says now that the device is claimed"}

    def _release(self, _request: dict[str, Any]) -> dict[str, Any]:
        self.lab.cloud.release()
        return {"done": "the cloud says now that the device is not claimed"}

    def _advise_connect(self, _request: dict[str, Any]) -> dict[str, Any]:
        options, lab = self.options, self.lab
        lab.cloud.advise_connect(
            lab.broker_host,
            lab.broker.port,
            TOKEN if options.token else None,
            options.agent_keepalive,
            options.broker_keepalive,
            options.heartbeat,
        )
        return {"done": f"the advisor sends agents to {lab.broker_host} port {lab.broker.port}"}

    def _advise_wait(self, request: dict[str, Any]) -> dict[str, Any]:
        self.lab.cloud.advise_wait(request["seconds"])
        return {"done": f"the advisor tells agents to wait {request['seconds']} s"}

    def _drop(self, request: dict[str, Any]) -> dict[str, Any]:
        session = self._session()
        if request["reset"]:
            session.reset()
        else:
            session.close()
        return {"done": f"session {session.number}: {session.ended_by}"}

    def _send_control(self, request: dict[str, Any]) -> dict[str, Any]:
        reply = self._control.exchange(request["document"].encode()).decode(errors="replace")
        self._tell(Event("control", f"{request['document']} -> {reply}"))
        return {"done": reply}

    def _wait(self, request: dict[str, Any]) -> dict[str, Any]:
        condition, count = request["condition"], request["count"]
        holds: dict[str, Callable[[], bool]] = {
            "up": lambda: True,
            "registered": lambda: bool(self.lab.cloud.devices),
            "connected": lambda: self._connected() is not None and len(self.lab.broker.sessions) >= count,
            "disconnected": lambda: self.lab.broker.current is None,
            "received": lambda: len(self._sink(request["handler"]).messages) >= count,
        }
        check = holds[condition]
        self._events.wait(lambda _events: True if check() else None, condition, request["deadline"])
        return {"done": condition}

    def _session(self) -> Session:
        session = self._connected()
        if session is None:
            raise Refusal("no agent is connected to the broker")
        return session

    def _sink(self, name: str) -> Sink:
        if name not in self.lab.handlers:
            raise Refusal(f"no handler {name}; there are {', '.join(self.lab.handlers)}")
        return self.lab.handlers[name]


def identity_of(session: Session) -> str | None:
    return next((packet.describe() for packet in session.packets.snapshot() if packet.type in IDENTITIES), None)


def session_document(session: Session) -> dict[str, Any]:
    return {
        "number": session.number,
        "open": session.open,
        "tls": session.tls_version,
        "cipher": session.cipher,
        "identity": identity_of(session),
        "packets": len(session.packets),
        "bytes": session.byte_count,
        "ended_by": session.ended_by,
    }


def moment_of(event: dict[str, Any]) -> str:
    return datetime.fromtimestamp(event["time"]).strftime("%H:%M:%S.%f")[:-3]


def timeline_entry(event: dict[str, Any]) -> str:
    return f"{moment_of(event)} {event['source']:8} {event['summary']}"


def prepare_network() -> None:
    if not is_private():
        raise Refusal("--proxy needs a network of its own: start the lab under `unshare --net`")
    set_up_loopback()


class OwnFolder:
    """The lab's folder, emptied, and locked against a second lab as long as this one runs."""

    def __init__(self, folder: Path) -> None:
        self._folder = folder
        self._lock: IO[str] | None = None

    def __enter__(self) -> None:
        lock_path = self._folder / LOCK_FILE
        if self._folder.exists() and any(self._folder.iterdir()) and not lock_path.exists():
            raise Refusal(f"{self._folder} is not empty, and no lab has made it")
        self._folder.mkdir(parents=True, exist_ok=True)
        self._lock = open(lock_path, "w")
        try:
            fcntl.flock(self._lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            raise Refusal(f"a lab is up in {self._folder} already") from None
        for entry in self._folder.iterdir():
            if entry.is_dir() and not entry.is_symlink():
                shutil.rmtree(entry)
            elif entry != lock_path:
                entry.unlink()

    def __exit__(self, *_error: object) -> None:
        self._lock.close()
