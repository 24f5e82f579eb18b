"""Processes that are measured: how they are started, and what /proc says about them."""

from __future__ import annotations

import os
import re
import time
from collections.abc import Sequence
from pathlib import Path

DEADLINE = 120.0
QUIET = 1.0  # seconds without work after which a process counts as idle


def settle_disk() -> None:
    """For before memory is measured: of a program that was built just now even the code counts as dirty."""
    os.sync()


def spawn(command: Sequence[str]) -> int:
    """Starts it without the system's list of authorities, which agent and floor would both read for each connection.

    Where there is one, reading it takes half of a start and a third of the memory, and the rest would not be seen.
    """
    environment = {**os.environ, "SSL_CERT_FILE": os.devnull}
    null = [(os.POSIX_SPAWN_OPEN, descriptor, os.devnull, os.O_RDWR, 0) for descriptor in range(3)]
    return os.posix_spawn(command[0], command, environment, file_actions=null)


def quiet(pids: Sequence[int]) -> None:
    """Waits until no thread of these processes has run for a while."""
    limit = time.monotonic() + DEADLINE
    seen = -1
    while (now := sum(map(wakeups, pids))) != seen:
        if time.monotonic() > limit:
            raise TimeoutError(f"{len(pids)} processes do not come to rest")
        seen = now
        time.sleep(QUIET)


def wakeups(pid: int) -> int:
    """How often the threads of a process have left the processor, by themselves or not."""
    statuses = (task / "status" for task in Path(f"/proc/{pid}/task").iterdir())
    return sum(int(n) for status in statuses for n in re.findall(r"ctxt_switches:\s*(\d+)", status.read_text()))


def memory(pid: int) -> dict[str, int]:
    """The sums over all mappings of a process in KiB, by the names of /proc."""
    text = Path(f"/proc/{pid}/smaps_rollup").read_text()
    return {name: int(kib) for name, kib in re.findall(r"^(\w+):\s+(\d+) kB$", text, re.MULTILINE)}
