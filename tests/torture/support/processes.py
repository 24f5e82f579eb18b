"""What /proc says about the agent's processes."""

from __future__ import annotations

import contextlib
import ctypes
import os
import re
import signal
from dataclasses import dataclass
from pathlib import Path

PR_SET_CHILD_SUBREAPER = 36
LISTENING = "0A"


def adopt_orphans() -> None:
    """Processes that lose their parent become this one's children, so that their exit status can be seen."""
    if ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl")


def children(pid: int) -> list[int]:
    """Of all threads; none when the process is gone."""
    found = []
    for task in _entries(f"/proc/{pid}/task"):
        try:
            found += map(int, Path(f"/proc/{pid}/task/{task}/children").read_text().split())
        except OSError:
            continue  # it has ended meanwhile
    return found


def state(pid: int) -> str | None:
    """The state letter of a process, "Z" for one that nobody has reaped yet; None when it is gone."""
    stat = _stat(pid)
    return stat.rpartition(")")[2].split()[0] if stat else None


@dataclass(frozen=True)
class Process:
    """One process for good: numbers come again."""

    pid: int
    started: int  # in the system's ticks since its boot; 0 when it was gone already

    def state(self) -> str | None:
        return state(self.pid) if _start(self.pid) == self.started else None


def process(pid: int) -> Process:
    return Process(pid, _start(pid))


def name(pid: int) -> str | None:
    """The name of its program, of a zombie too; None when it is gone."""
    stat = _stat(pid)
    return stat[stat.index("(") + 1 : stat.rindex(")")] if stat else None


def zombies(pid: int) -> list[int]:
    return [child for child in children(pid) if state(child) == "Z"]


def threads(pid: int) -> int:
    return len(_entries(f"/proc/{pid}/task"))


def descriptors(pid: int) -> dict[int, str]:
    """What each open descriptor is."""
    found = {}
    for number in _entries(f"/proc/{pid}/fd"):
        try:
            found[int(number)] = os.readlink(f"/proc/{pid}/fd/{number}")
        except OSError:
            continue  # closed meanwhile
    return found


def resident_kib(pid: int) -> int:
    """What the process keeps in memory for itself: files that it has mapped do not count."""
    text = Path(f"/proc/{pid}/status").read_text()
    return int(re.search(r"^RssAnon:\s+(\d+) kB", text, re.MULTILINE).group(1))


def waits(pid: int) -> str:
    """Where each thread waits: for the report of a deadlock."""
    lines = []
    for task in _entries(f"/proc/{pid}/task"):
        with contextlib.suppress(OSError):  # it has ended meanwhile
            place, call = (Path(f"/proc/{pid}/task/{task}/{name}").read_text() for name in ("wchan", "syscall"))
            lines.append(f"thread {task}: in {place}, system call {call.strip()}")
    return "\n".join(lines)


def listens(port: int) -> bool:
    """Does anybody listen on that port of 127.0.0.1?"""
    wanted = f"0100007F:{port:04X}"
    with open("/proc/net/tcp", encoding="ascii") as table:
        return any(words[1] == wanted and words[3] == LISTENING for words in map(str.split, table))


def send(pid: int, parent: int, number: int) -> bool:
    """Signals a child of `parent`; False when it is none (any more). Never hits another process of the same number."""
    try:
        process = os.pidfd_open(pid)
    except ProcessLookupError:
        return False
    try:
        if pid not in children(parent):
            return False
        signal.pidfd_send_signal(process, number)
        return True
    except ProcessLookupError:
        return False
    finally:
        os.close(process)


def _start(pid: int) -> int:
    stat = _stat(pid)
    return int(stat.rpartition(")")[2].split()[19]) if stat else 0


def _entries(folder: str) -> list[str]:
    try:
        return os.listdir(folder)
    except OSError:
        return []


def _stat(pid: int) -> str:
    try:
        return Path(f"/proc/{pid}/stat").read_text()
    except OSError:
        return ""
