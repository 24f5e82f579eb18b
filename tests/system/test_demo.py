"""scripts/demo.sh, as somebody runs it who wants to play on."""

from __future__ import annotations

import os
import re
import shutil
import signal
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from orvel_lab import wait_until
from orvel_lab.agent import default_binary
from orvel_lab.waiting import DEADLINE

DEMO = Path(__file__).resolve().parents[2] / "scripts" / "demo.sh"


class Kept:
    """What a demo with --keep has printed, up to the end of the pipe, and what it has left."""

    def __init__(self, demo: subprocess.Popen[str]) -> None:
        self.output, _ = demo.communicate(timeout=6 * DEADLINE)
        assert demo.returncode == 0, self.output
        self.agent, self.lab = map(int, re.search(r"^stop: kill (\d+) (\d+)$", self.output, re.MULTILINE).groups())
        self.logs = [Path(name) for name in re.findall(r"/\S+/(?:agent\.log|timeline)\b", self.output)]

    def stop(self) -> None:
        for pid in (self.agent, self.lab):
            os.kill(pid, signal.SIGTERM)
        wait_until(lambda: not any(map(runs, (self.agent, self.lab))), "the end of lab and agent")


def runs(pid: int) -> bool:
    """An ended process that nobody has collected runs no more."""
    try:
        return Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] != "Z"
    except FileNotFoundError:
        return False


@pytest.fixture
def demo() -> Iterator[subprocess.Popen[str]]:
    environment = {**os.environ, "ORVEL_BIN": str(default_binary().resolve())}
    demo = subprocess.Popen(
        [DEMO, "--keep"],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        env=environment,
        text=True,
        start_new_session=True,
    )
    yield demo
    try:
        os.killpg(demo.pid, signal.SIGKILL)  # what a demo that failed has left
    except ProcessLookupError:
        pass
    demo.wait(DEADLINE)


def test_what_it_keeps_running_writes_to_files_and_holds_no_pipe(demo: subprocess.Popen[str]):
    kept = Kept(demo)
    assert runs(kept.agent) and runs(kept.lab)
    assert [log.name for log in kept.logs] == ["agent.log", "timeline"]
    assert all(log.read_text() for log in kept.logs)
    kept.stop()
    shutil.rmtree(kept.logs[0].parent)
