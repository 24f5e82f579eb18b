"""The lab as a program of its own: `orvel-lab up`, and what the other commands ask of it."""

from __future__ import annotations

import fcntl
import json
import os
import shlex
import shutil
import signal
import socket
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import asdict, dataclass, field
from datetime import datetime
from pathlib import Path
from typing import IO, Any

from .agent import default_binary
from .channel import Channel, ChannelEnded
from .commands import Commands, Refusal, newest_session, session_document
from .console import Console
from .faults import pending
from .fleet import Fleet
from .lab import AGENT_HANDLER, HARDWARE_ID, TOKEN, Lab
from .listener import Listener, UnixPath
from .network import Firewall, is_private, set_up_loopback
from .real_proxies import RealProxy, open_proxy
from .roster import Roster
from .waiting import Event, Journal, Wake, poll_readable

LAB_FILE = "lab.json"
LOCK_FILE = "lab.lock"
HANDLER_KEY = "q_handler_"  # of a setting, before the handler's name


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
    console: int | None = None  # the port of the web console, 0 for any; None: there is no console
    agents: int = 0  # how many the lab itself runs
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
        self._console: Console | None = None

    def run(self) -> None:
        """Until SIGINT, SIGTERM or SIGHUP."""
        signalled, waking = socket.socketpair()
        waking.setblocking(False)
        signal.set_wakeup_fd(waking.fileno())  # any thread may get the signal; a handler waits for the main one to wake
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, lambda _number, _frame: self._stop.set())
        folder = self.options.folder
        if self.options.proxy is not None:
            prepare_network()
        with OwnFolder(folder), self._make_lab() as self.lab, self._make_proxy(self.lab):
            self._prepare()
            try:
                self._start()
                poll_readable([self._stop, signalled])
            finally:
                (folder / LAB_FILE).unlink(missing_ok=True)
                self._events.end("the lab stops")
                self._fleet.stop()
                for part in self._parts:
                    part.stop()

    def _prepare(self) -> None:
        lab, options = self.lab, self.options
        for add, name in ((lab.tcp_handler, "tcp"), (lab.unix_handler, "unix"), (lab.executable_handler, "exec")):
            add(name)
        lab.settings.update(options.settings)
        lab.write_settings()
        lab.cloud.own_tokens = True
        self._advise()
        self._fleet = Fleet(lab, options.agent)
        self._commands = Commands(lab, self._fleet, self._events, self._tell, self._status)
        self._listener = Listener(UnixPath(str(lab.socket_path("lab.sock"))), self._serve, "commands")
        self._parts: list[Listener | Console] = [self._listener]
        if options.console is not None:
            self._console = Console(options.console, Roster(lab, self._fleet), self._commands, self._console_document)
            self._parts.append(self._console)

    def _start(self) -> None:
        for part in self._parts:
            part.start()
        self._publish()
        self._fleet.start(self.options.agents)

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

    def _advise(self) -> None:
        options, lab = self.options, self.lab
        token = TOKEN if options.token else None
        keepalives = options.agent_keepalive, options.broker_keepalive
        lab.cloud.advise_connect(lab.broker_host, lab.broker.port, token, *keepalives, options.heartbeat)

    def _publish(self) -> None:
        """Writes lab.json, which says that the lab is up, and shows how to start the agent."""
        document = {"socket": self._listener.address.path, **self._constants()}
        incoming = self.options.folder / f"{LAB_FILE}.new"
        incoming.write_text(json.dumps(document, indent=2) + "\n")
        os.replace(incoming, self.options.folder / LAB_FILE)
        print(f"The lab is up in {self.lab.folder}. Start the agent with\n")
        print(f"  {document['agent_command_line']}\n")
        if self._console is not None:
            print(f"open {self._console.url} in a browser,\n")
        print("and see `orvel-lab --help` for what can be done to it. Ctrl-C ends the lab.\n", flush=True)

    def _tell(self, event: Event) -> None:
        self._events.append(event)
        if self._console is not None:
            self._console.observe(event)
        try:
            with self._print_lock:
                print(timeline_entry(asdict(event)), flush=True)
        except OSError:
            self._stop.set()  # whoever read the time line has left

    # What the lab is.

    def _constants(self) -> dict[str, Any]:
        lab = self.lab
        arguments = lab.agent_arguments("--log_debug", control_port=self._fleet.by_hand.port)
        command = [str(self.options.agent), *arguments]
        return {
            "pid": os.getpid(),
            "folder": str(lab.folder),
            "settings": str(lab.settings_path),
            "ca_file": str(lab.authority.path),
            "control_port": self._fleet.by_hand.port,
            "hardware_id": lab.hardware_id,
            "pid_file": str(lab.folder / "orvel.pid"),
            "log_file": str(lab.folder / "orvel.log"),
            "agent_command": command,
            "agent_command_line": shlex.join(command),
            "cloud": {"port": lab.cloud.port},
            "console": self._console.url if self._console else None,
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
            "connected": newest_session(lab) is not None,
            "proxy": self._proxy_status(),
            "sessions": [session_document(session) for session in lab.broker.sessions],
            "received": {name: len(sink.messages) for name, sink in lab.handlers.items()},
        }

    def _console_document(self) -> dict[str, Any]:
        """What the console's page shows of the lab itself."""
        lab = self.lab
        return {
            "folder": str(lab.folder),
            "agent_command_line": self._constants()["agent_command_line"],
            "handlers": [key.removeprefix(HANDLER_KEY) for key in lab.settings if key.startswith(HANDLER_KEY)],
            "agent_handler": AGENT_HANDLER,
            "advice": lab.cloud.advice,
            "faults": pending(lab),
        }

    def _proxy_status(self) -> dict[str, Any] | None:
        if self._proxy is None:
            return None
        proxy = self._proxy
        counts = {"through": self._firewall.through, "past": self._firewall.past}
        return {"kind": proxy.kind, "name": proxy.name, "port": proxy.port, "log": proxy.log, **counts}

    # The other commands.

    def _serve(self, accepted: socket.socket) -> None:
        channel = Channel(accepted, self._listener.stopping)
        try:
            blocks = []
            while block := channel.read():
                blocks.append(block)
            request = json.loads(b"".join(blocks))
            for document in self._commands.answers(request):
                channel.write(json.dumps(document).encode() + b"\n")
        except (ChannelEnded, OSError, ValueError):
            pass  # the lab stops, or the command was broken off
        finally:
            channel.finish()


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
