"""Devices for bench_service, which plays the cloud, the broker and the handlers: the agent's, or its floor's."""

from __future__ import annotations

import os
import signal
import subprocess
import time
from collections.abc import Sequence

from orvel_lab import settings
from orvel_lab.certificates import Authority
from orvel_lab.listener import ReservedPort
from orvel_lab.waiting import poll_readable

from row import Site

from ._processes import spawn

DEADLINE = 120.0


class Service:
    """bench_service, used by `with`."""

    def __init__(self, site: Site) -> None:
        self.authority = Authority(site.folder / "certificates")
        certificate = self.authority.issue()
        self._process = subprocess.Popen(
            [site.build / "bin" / "bench_service", certificate.path, certificate.key],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            bufsize=0,
        )
        try:
            self.cloud, self.broker, self.sink, self.reports = map(int, self._next("ports").split())
        except Exception:
            self.__exit__()
            raise

    def __enter__(self) -> Service:
        return self

    def __exit__(self, *_error: object) -> None:
        self._process.kill()
        self._process.communicate()

    def identity(self) -> int:
        """When the next identity came, in nanoseconds of the monotonic clock."""
        return int(self._next("identity"))

    def send(self, count: int, size: int, burst: int) -> None:
        """Sends messages to the newest device's handler "sink", so many at once, and waits until it has them."""
        self._process.stdin.write(f"send {count} {size} {burst}\n".encode())
        self._next("received")

    def _next(self, word: str) -> str:
        if not poll_readable([self._process.stdout], DEADLINE):
            raise TimeoutError(f"bench_service does not say {word!r}")
        said, _, rest = self._process.stdout.readline().decode().strip().partition(" ")
        if said != word:
            raise RuntimeError(f"bench_service says {said!r}, not {word!r}")
        return rest


class Device:
    """Files and command lines of one device. Its broker is the service's; it is claimed."""

    def __init__(self, site: Site, service: Service, name: str) -> None:
        self.folder = site.folder / name
        self.folder.mkdir(exist_ok=True)
        self.settings = self.folder / "settings"
        self._service = service
        self._bin = site.build / "bin"
        self._control_port = ReservedPort()
        self._hardware_id = "BENCH" + "0" * 8

    def close(self) -> None:
        self._control_port.close()

    def prepare(self, registered: bool = True) -> None:
        """Files as a power cut leaves them: settings say connected, with an old pid; or as they leave the factory."""
        for left in ("pid", "log"):  # they are in memory, on a device
            (self.folder / left).unlink(missing_ok=True)
        cloud = f"https://127.0.0.1:{self._service.cloud}"
        urls = {f"q_{kind}_url": f"{cloud}/{kind}" for kind in ("register", "claimed", "discovery", "advisor")}
        handlers = {
            "q_handler_sink": f"127.0.0.1:{self._service.sink}",
            "q_handler_event_sink": f"127.0.0.1:{self._service.reports}",
        }
        lived = {
            "q_agent_id": "BENCH-1",
            "q_agent_claim_code": "12345678",
            "q_agent_registered": "1",
            "q_agent_claimed": "1",
            "q_agent_connected": "1",
            "q_agent_pid": "1",
            "q_version": "release-3.5.9_bq917rkvn_2725daa_usi",
            "q_agent_build": "Components: Toolchain:mips-linux Platform:amd64/ubuntu:22.04 ",
        }
        settings.write(self.settings, {**urls, **handlers, **(lived if registered else {})})

    @property
    def agent(self) -> list[str]:
        pid_files = ["--pid_file", f"{self.folder}/pid", "--watchdog_pid_file", f"{self.folder}/watchdog-pid"]
        trust = ["--ca_file", str(self._service.authority.path), "--log_file", f"{self.folder}/log"]
        identity = ["--hardware_id", self._hardware_id, "-c", str(self.settings)]
        return [f"{self._bin}/orvel", *identity, *trust, *pid_files, "--control_port", str(self._control_port.port)]

    @property
    def floor(self) -> list[str]:
        authority = str(self._service.authority.path)
        return [f"{self._bin}/floor_bare_agent", str(self.settings), authority, self._hardware_id]


class Life:
    """A process from its start to its end by SIGKILL, used by `with`. Entered, it has sent its identity."""

    def __init__(self, service: Service, command: Sequence[str]) -> None:
        self._service = service
        self._command = command

    def __enter__(self) -> Life:
        begun = time.monotonic_ns()
        self.pid = spawn(self._command)
        try:
            self.milliseconds = (self._service.identity() - begun) / 1e6  # from exec to the identity
        except Exception:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_error: object) -> None:
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
