"""Many agents on this machine, served by one lab."""

from __future__ import annotations

import os
import resource
import signal
import tempfile
import time
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

from orvel_lab import Lab, settings
from orvel_lab.broker import Session
from orvel_lab.waiting import wait_until

from row import Site

from ._processes import memory, quiet, settle_disk, spawn

DEADLINE = 300.0
DESCRIPTORS_EACH = 32  # the lab's, generously


@dataclass(frozen=True)
class Cost:
    """What one agent of the crowd costs."""

    milliseconds: float  # the time until all have sent their identity, divided by their number
    proportional: float  # KiB; what several share counts for each in part
    private: float  # KiB, dirty

    def __str__(self) -> str:
        return f"{self.milliseconds:.1f} ms, PSS {self.proportional:.0f} KiB, private dirty {self.private:.0f} KiB"


def crowd(site: Site, count: int) -> Cost:
    """Starts `count` new devices at once, each with files and a control port of its own."""
    _allow_descriptors(count * DESCRIPTORS_EACH)
    settle_disk()
    pids = []
    with (
        tempfile.TemporaryDirectory(prefix="crowd-", dir=site.folder) as folder,
        Lab(Path(folder), claimed=True, settings=_patient()) as lab,
    ):
        try:
            commands = [_command(site, lab, number) for number in range(count)]
            begun = time.monotonic()
            for command in commands:
                pids.append(spawn(command))
            wait_until(lambda: _identified(lab.broker.sessions) >= count, f"{count} identities", DEADLINE)
            seconds = time.monotonic() - begun
            quiet(pids)
            sizes = [memory(pid) for pid in pids]
        finally:
            for pid in pids:
                os.kill(pid, signal.SIGKILL)
            for pid in pids:
                os.waitpid(pid, 0)
    cost = Cost(1e3 * seconds / count, _mean(sizes, "Pss"), _mean(sizes, "Private_Dirty"))
    print(f"          each of {count} agents: {cost}", flush=True)
    return cost


def _patient() -> dict[str, str]:
    """So that nobody gives up and asks again while so many ask at once."""
    return {"q_http_request_timeout": "120", "q_http_connect_timeout": "120"}


def _command(site: Site, lab: Lab, number: int) -> list[str]:
    name = f"agent-{number}"
    stored = lab.folder / f"{name}.settings"
    settings.write(stored, lab.settings)
    own = ["--hardware_id", f"CROWD{number:08}", "-c", stored, "--log_silent", "--disable_log_file"]
    arguments = lab.agent_arguments(*own, name=name, control_port=lab.reserve_port())
    return [str(site.build / "bin" / "orvel"), *arguments]


def _identified(sessions: Sequence[Session]) -> int:
    return sum(session.byte_count > 0 for session in sessions)


def _mean(sizes: list[dict[str, int]], kind: str) -> float:
    return sum(size[kind] for size in sizes) / len(sizes)


def _allow_descriptors(count: int) -> None:
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    wanted = count + 1024
    if soft != resource.RLIM_INFINITY and soft < wanted:
        allowed = wanted if hard == resource.RLIM_INFINITY else min(wanted, hard)
        resource.setrlimit(resource.RLIMIT_NOFILE, (allowed, hard))
