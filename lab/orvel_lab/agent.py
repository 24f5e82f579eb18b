"""The real agent as a child process, with everything that it says on its standard error, line by line."""

from __future__ import annotations

import codecs
import contextlib
import os
import re
import signal
import subprocess
import threading
import time
from collections.abc import Iterator, Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import IO

from .control import Control
from .listener import join
from .waiting import DEADLINE, DeadlinePassed, Journal, Wake, poll_readable, wait_until

SANITIZER_REPORTS = ("ERROR: AddressSanitizer", "runtime error:", "WARNING: ThreadSanitizer", "LeakSanitizer")
DAEMON_OPTIONS = {"-d", "--daemon"}

Pattern = str | re.Pattern[str]


class SanitizerReport(AssertionError):
    """A sanitizer of the build has found a fault."""


def default_binary() -> Path:
    named = os.environ.get("ORVEL_BIN")
    return Path(named) if named else Path(__file__).resolve().parents[2] / "build" / "bin" / "orvel"


@dataclass
class Line:
    """One line of the log; the last one may still grow."""

    text: str
    time: float = field(default_factory=time.time)
    complete: bool = False


class Agent:
    """Started by the constructor. A text to wait for is literal; a compiled expression is searched for."""

    def __init__(
        self,
        arguments: Sequence[str],
        control_port: int,
        pid_file: Path,
        log_file: Path,
        binary: Path | None = None,
        environment: Mapping[str, str] | None = None,
    ) -> None:
        program = binary or default_binary()
        if not program.exists():
            raise FileNotFoundError(f"no agent at {program}: build it, or name it in ORVEL_BIN")
        self.arguments = [str(program), *map(str, arguments)]
        self.control = Control(control_port)
        self.pid_file = pid_file
        self.log_file = log_file
        self.lines: Journal[Line] = Journal()
        self._position = (0, 0)  # line and column behind what the last wait has found
        self._process = subprocess.Popen(
            self.arguments,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            bufsize=0,
            env={**os.environ, **(environment or {})},
        )
        self.pid = self._process.pid
        self._output = bytearray()
        self._over = Wake()
        self._readers = [
            threading.Thread(target=self._read_errors, name="agent-stderr"),
            threading.Thread(target=self._read_output, name="agent-stdout"),
        ]
        for reader in self._readers:
            reader.start()

    # What it says.

    @property
    def log(self) -> str:
        """Everything on standard error so far."""
        return "\n".join(line.text for line in self.lines.snapshot())

    @property
    def output(self) -> str:
        """Everything on standard output; whole once the agent has ended."""
        return self._output.decode(errors="backslashreplace")

    @property
    def log_file_text(self) -> str:
        return self.log_file.read_text(errors="backslashreplace") if self.log_file.exists() else ""

    def wait_for_line(self, pattern: Pattern, deadline: float | None = None, anywhere: bool = False) -> Line:
        """The next line that holds the pattern, behind what the last such wait has found.

        `anywhere` searches the whole log and leaves that position as it is: for lines of different threads, whose
        order is open. Fails at once when the agent ends without having said it.
        """
        start = [(0, 0) if anywhere else self._position]

        def find(lines: Sequence[Line]) -> tuple[Line, tuple[int, int]] | None:
            first, column = start[0]
            for index in range(first, len(lines)):
                end = _match_end(pattern, lines[index], column if index == first else 0)
                if end is not None:
                    return lines[index], (index, end)
            if len(lines) - 1 > first:
                start[0] = (len(lines) - 1, 0)  # the last line may still grow; those before it need no second look
            return None

        try:
            line, position = self.lines.wait(find, f"log line {_shown(pattern)}", deadline)
        except DeadlinePassed as error:
            raise DeadlinePassed(self._with_log(str(error))) from None
        if not anywhere:
            self._position = position
        return line

    def wait_for_count(self, pattern: Pattern, count: int, deadline: float | None = None) -> list[Line]:
        """The lines that hold the pattern, once there are `count` of them; leaves the position as it is."""

        def find(lines: Sequence[Line]) -> list[Line] | None:
            found = [line for line in lines if _match_end(pattern, line, 0) is not None]
            return found if len(found) >= count else None

        try:
            return self.lines.wait(find, f"{count} log lines {_shown(pattern)}", deadline)
        except DeadlinePassed as error:
            raise DeadlinePassed(self._with_log(str(error))) from None

    def wait_for_log_file(self, pattern: Pattern, deadline: float | None = None) -> str:
        """The log file's text, once a line of it holds the pattern: for a daemon, which has no standard error."""

        def text_with_pattern() -> str | None:
            text = self.log_file_text
            lines = (Line(line, complete=True) for line in text.split("\n"))
            return text if any(_match_end(pattern, line, 0) is not None for line in lines) else None

        try:
            return wait_until(text_with_pattern, f"{_shown(pattern)} in the log file", deadline)
        except DeadlinePassed as error:
            raise DeadlinePassed(f"{error}\n--- {self.log_file}:\n{self.log_file_text}\n---") from None

    def count(self, pattern: Pattern) -> int:
        """How many lines hold the pattern so far."""
        return sum(_match_end(pattern, line, 0) is not None for line in self.lines.snapshot())

    def assert_logged(self, *patterns: Pattern) -> None:
        for pattern in patterns:
            assert self.count(pattern), self._with_log(f"not in the log: {_shown(pattern)}")

    def assert_not_logged(self, *patterns: Pattern) -> None:
        for pattern in patterns:
            assert not self.count(pattern), self._with_log(f"in the log: {_shown(pattern)}")

    # How it ends.

    @property
    def running(self) -> bool:
        return self._process.poll() is None

    @property
    def returncode(self) -> int | None:
        """The exit status, negative for a signal; None while it runs."""
        return self._process.poll()

    @property
    def daemon_pid(self) -> int | None:
        """The pid in the pid file; None when the file is absent, or names a process that is not this agent's."""
        text = self.pid_file.read_text().strip() if self.pid_file.exists() else ""
        return int(text) if text.isdigit() and int(text) in self.processes() else None

    def processes(self) -> list[int]:
        """Every running process of this agent (itself, daemon, watchdog): known by pid file and control port.

        Another network may have an agent with the same port, and a test may give two agents the same pid file.
        """
        marks = [f"\0--pid_file\0{self.pid_file}\0".encode(), f"\0--control_port\0{self.control.port}\0".encode()]
        return [pid for pid in _all_pids() if all(mark in _command_line(pid) for mark in marks)]

    def signal(self, number: int) -> None:
        self._process.send_signal(number)

    def wait(self, deadline: float | None = None) -> int:
        """Waits until the started process has ended by itself; gives its exit status and checks the sanitizers."""
        if not self._wait_process(DEADLINE if deadline is None else deadline):
            raise DeadlinePassed(self._with_log("the agent did not end in time"))
        self.check_sanitizers()
        return self._process.returncode

    def stop(self, deadline: float | None = None) -> int:
        """Ends it with SIGTERM (a daemon too); one that does not obey is killed, and that is a failure."""
        seconds = DEADLINE if deadline is None else deadline
        daemon = self.daemon_pid if DAEMON_OPTIONS & set(self.arguments) else None
        if daemon is not None:
            _end_process(daemon, signal.SIGTERM, seconds)
        if self.running:
            self._process.terminate()
        obeyed = self._wait_process(seconds)
        left = self.kill(seconds if "--watchdog" in self.arguments else 1)  # it does not wait for its agent
        self.check_sanitizers()
        assert obeyed, self._with_log("the agent did not end on SIGTERM and was killed")
        assert not left, self._with_log(f"processes {left} were left over and were killed")
        return self._process.returncode

    def kill(self, patience: float = 1) -> list[int]:
        """Kills what still runs of this agent, and gives the pids of processes other than the started one.

        Those have so many seconds to end, or to become a handler's program, by themselves.
        """
        if self.running:
            self._process.kill()
        self._process.wait(DEADLINE)
        with contextlib.suppress(DeadlinePassed):
            wait_until(lambda: not self.processes(), "the end of all its processes", patience)
        left = self.processes()
        for pid in left:
            _end_process(pid, signal.SIGKILL, DEADLINE)
        self._finish_reading()
        return left

    def check_sanitizers(self) -> None:
        said = self.log + self.output
        found = [report for report in SANITIZER_REPORTS if report in said]
        if found:
            raise SanitizerReport(self._with_log(f"the sanitizers report: {', '.join(found)}"))

    def _wait_process(self, seconds: float) -> bool:
        if self.running and not _wait_pid(self.pid, seconds):
            return False
        self._process.wait(DEADLINE)
        if not self.processes():  # a daemon or its watchdog may still have something to say
            self._finish_reading()
        return True

    def _finish_reading(self) -> None:
        self._over.set()
        for reader in self._readers:
            join(reader)

    def _with_log(self, what: str) -> str:
        status = "running" if self.running else f"ended with {self.returncode}"
        return f"{what}\nagent ({status}): {' '.join(self.arguments)}\n--- its log:\n{self.log}\n---"

    # The readers of its pipes. A grandchild may hold a pipe open: they end with the pipe or with the agent.

    def _read_errors(self) -> None:
        decoder = codecs.getincrementaldecoder("utf-8")("backslashreplace")
        growing = Line("")
        for data in self._blocks(self._process.stderr):
            for piece in re.findall(r"[^\n]*\n|[^\n]+", decoder.decode(data)):
                growing = self._extend(growing, piece)
        growing.complete = True
        self.lines.end("the agent has ended or closed its standard error")

    def _read_output(self) -> None:
        for data in self._blocks(self._process.stdout):
            self._output += data

    def _blocks(self, pipe: IO[bytes]) -> Iterator[bytes]:
        os.set_blocking(pipe.fileno(), False)
        with pipe:
            while True:
                over = self._over in poll_readable([pipe, self._over])
                while data := pipe.read(65536):
                    yield data
                if over or data == b"":
                    return

    def _extend(self, growing: Line, piece: str) -> Line:
        """Adds to the line that still grows; gives the line that the next piece belongs to."""
        begun = bool(growing.text)
        growing.text += piece.removesuffix("\n")
        growing.complete = piece.endswith("\n")
        if begun:
            self.lines.touch()
        else:
            self.lines.append(growing)
        return Line("") if growing.complete else growing


def _match_end(pattern: Pattern, line: Line, column: int) -> int | None:
    if isinstance(pattern, str):
        at = line.text.find(pattern, column)
        return None if at < 0 else at + len(pattern)
    found = pattern.search(line.text, column)
    if found is None or (found.end() == len(line.text) and not line.complete):
        return None  # the rest of a line that still grows might change what the expression finds
    return found.end()


def _shown(pattern: Pattern) -> str:
    return repr(pattern if isinstance(pattern, str) else pattern.pattern)


def _all_pids() -> list[int]:
    return [int(name) for name in os.listdir("/proc") if name.isdigit()]


def _command_line(pid: int) -> bytes:
    try:
        return Path(f"/proc/{pid}/cmdline").read_bytes()
    except OSError:
        return b""  # it has ended meanwhile


def _wait_pid(pid: int, seconds: float) -> bool:
    try:
        descriptor = os.pidfd_open(pid)
    except ProcessLookupError:
        return True
    with open(descriptor, "rb", buffering=0) as process:
        return bool(poll_readable([process], seconds))


def _end_process(pid: int, number: int, seconds: float) -> None:
    try:
        os.kill(pid, number)
    except ProcessLookupError:
        return
    _wait_pid(pid, seconds)
