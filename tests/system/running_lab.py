"""The command `orvel-lab up` as a child process, and the commands for it."""

from __future__ import annotations

import http.client
import json
import signal
import socket
import ssl
import subprocess
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from orvel_lab import Packet, Type
from orvel_lab.agent import SANITIZER_REPORTS

COMMAND = Path(__file__).resolve().parents[2] / "lab" / "orvel-lab"
SECONDS = 30
IDENTITY = Packet(Type.IDENTITY_TOKEN, (b"lab-token",))


class Running:
    """A lab that is up, and the commands for it."""

    def __init__(self, folder: Path, *options: str) -> None:
        self.folder = folder
        command = [COMMAND, "--dir", folder, "up", *options]
        self._printed = folder.with_name(f"{folder.name}.printed")  # a pipe that nobody reads would hold it up
        with self._printed.open("w") as printed:
            self.process = subprocess.Popen(command, stdout=printed, stderr=subprocess.STDOUT)
        self.run("wait", "up", "--deadline", str(SECONDS))
        self.document = json.loads((folder / "lab.json").read_text())

    def run(self, *arguments: str, status: int = 0) -> str:
        """Runs a command, checks its exit status, gives its output (its error text when it is to fail)."""
        done = run("--dir", str(self.folder), *arguments)
        assert done.returncode == status, done.stdout + done.stderr
        return done.stderr if status else done.stdout

    def status(self) -> dict:
        return json.loads(self.run("status", "--json"))

    def stop(self, number: int = signal.SIGTERM) -> str:
        """Ends the lab; gives what it has printed."""
        self.process.send_signal(number)
        self.process.wait(SECONDS)
        return self._printed.read_text()

    def register(self, hardware_id: str, model: str = "M") -> None:
        """As a device does, but under any name."""
        body = json.dumps({"hardwareId": hardware_id, "model": model}).encode()
        port = self.document["cloud"]["port"]
        client = http.client.HTTPSConnection("127.0.0.1", port, context=self._trust(), timeout=SECONDS)
        client.request("POST", "/register", body)
        assert client.getresponse().status == 201
        client.close()

    def sanitizer_reports(self) -> list[str]:
        """What the agents that it runs have said and should not have to."""
        outputs = [path.read_text(errors="replace") for path in self.folder.glob("devices/*/output")]
        return [output for output in outputs if any(report in output for report in SANITIZER_REPORTS)]

    @contextmanager
    def agent(self) -> Iterator[socket.socket]:
        """What an agent does at the broker, up to its identity."""
        plain = socket.create_connection(("127.0.0.1", self.document["broker"]["port"]), timeout=SECONDS)
        with self._trust().wrap_socket(plain, server_hostname="localhost") as client:
            client.sendall(IDENTITY.encode())
            self.run("wait", "connected")
            yield client

    def _trust(self) -> ssl.SSLContext:
        return ssl.create_default_context(cafile=self.document["ca_file"])


def run(*arguments: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run([COMMAND, *arguments], capture_output=True, text=True, timeout=SECONDS, check=False)
