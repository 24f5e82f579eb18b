"""The example handlers: compiled as their head comments say, and run with a folder that their messages go to."""

from __future__ import annotations

import functools
import os
import shlex
import signal
import socket
import subprocess
import tempfile
from pathlib import Path

from orvel_lab import DEADLINE, wait_until

EXAMPLES = Path(__file__).resolve().parents[2] / "examples" / "handlers"
SUFFIXES = {"shell": "sh", "python": "py", "c": "c", "cpp": "cpp"}
STRICT = ["-Wshadow", "-Wconversion", "-Werror"]
LISTENING = "0A"  # of the states in /proc/net/tcp


class Example:
    """One of them; started by start(), if it is one that listens."""

    def __init__(self, folder: Path, language: str, kind: str) -> None:
        self.language = language
        self.kind = kind
        self.folder = folder / f"{language}-{kind}"
        self.folder.mkdir()
        self._sockets = tempfile.TemporaryDirectory(prefix="orvel-example-")  # a path that is short enough
        self.socket = Path(self._sockets.name) / "socket"
        self.process: subprocess.Popen[str] | None = None
        self.port = 0
        source = EXAMPLES / language / f"{kind}.{SUFFIXES[language]}"
        self.program = compiled(source, folder) if language in ("c", "cpp") else source

    @property
    def endpoint(self) -> str:
        return {"tcp": f"127.0.0.1:{self.port}", "unix": str(self.socket), "executable": str(self.program)}[self.kind]

    def start(self) -> None:
        """Returns when it listens. On TCP it has any free port."""
        self.start_unwatched()
        wait_until(self._listens, f"{self.program} listens")

    def start_unwatched(self) -> None:
        where = "0" if self.kind == "tcp" else self.socket
        environment = {**os.environ, "PYTHONDONTWRITEBYTECODE": "1"}
        self.process = subprocess.Popen([self.program, str(where), self.folder], env=environment)

    def stop(self, number: int = signal.SIGTERM) -> int:
        """Its exit status, as a shell gives it."""
        assert self.process is not None
        self.process.send_signal(number)
        return self.wait_ended()

    def wait_ended(self) -> int:
        assert self.process is not None
        status = self.process.wait(DEADLINE)
        return 128 - status if status < 0 else status

    def close(self) -> None:
        if self.process is not None and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self._sockets.cleanup()

    def connect(self) -> socket.socket:
        client = socket.socket(socket.AF_INET if self.kind == "tcp" else socket.AF_UNIX)
        client.settimeout(DEADLINE)
        client.connect(("127.0.0.1", self.port) if self.kind == "tcp" else str(self.socket))
        return client

    def send(self, message: bytes) -> None:
        with self.connect() as client:
            client.sendall(message)

    def kept(self) -> list[bytes]:
        """The whole messages, sorted by the names of their files."""
        return [path.read_bytes() for path in sorted(self.folder.glob("[!.]*"))]

    def wait_kept(self, *messages: bytes, in_order: bool = False) -> None:
        """It keeps these messages, and nothing else."""

        def arranged(kept: list[bytes]) -> list[bytes]:
            return kept if in_order else sorted(kept)

        wait_until(lambda: len(self.kept()) >= len(messages), f"{len(messages)} messages in {self.folder}")
        assert arranged(self.kept()) == arranged(list(messages))
        wait_until(lambda: not self.parts(), f"no parts of messages in {self.folder}")

    def parts(self) -> list[Path]:
        """The files whose messages are not whole."""
        return list(self.folder.glob(".*"))

    def _listens(self) -> bool:
        assert self.process is not None and self.process.poll() is None, f"{self.program} has ended"
        if self.kind == "unix":
            rows = [line.split() for line in Path("/proc/net/unix").read_text().splitlines()]
            return any(row[-1] == str(self.socket) and row[3] == "00010000" for row in rows)
        rows = [line.split() for line in Path("/proc/net/tcp").read_text().splitlines()]
        sockets = open_sockets(self.process.pid)
        ports = [int(row[1].partition(":")[2], 16) for row in rows if row[3] == LISTENING and row[9] in sockets]
        self.port = ports[0] if ports else 0
        return bool(ports)


@functools.cache
def compiled(source: Path, folder: Path) -> Path:
    """With the command of its head comment, and stricter."""
    prefix = {".c": "gcc ", ".cpp": "g++ "}[source.suffix]
    commands = [line.strip("/* ") for line in source.read_text().splitlines() if line.strip("/* ").startswith(prefix)]
    assert len(commands) == 1, source
    command = shlex.split(commands[0])
    program = folder / f"{source.parent.name}-{source.stem}-program"
    command[command.index("-o") + 1] = str(program)
    subprocess.run([*command, *STRICT], cwd=EXAMPLES, check=True)
    return program


def open_sockets(pid: int) -> set[str]:
    """The inodes of a process's sockets."""

    def target(entry: Path) -> str:
        try:
            return os.readlink(entry)
        except OSError:
            return ""  # closed meanwhile

    targets = map(target, Path(f"/proc/{pid}/fd").iterdir())
    return {name.removeprefix("socket:[").removesuffix("]") for name in targets if name.startswith("socket:[")}


def children(pid: int) -> list[str]:
    """The children of a process, those included that have ended and that nobody has waited for."""
    lists = Path(f"/proc/{pid}/task").glob("*/children")
    return [child for listed in lists for child in listed.read_text().split()]
