"""`orvel-lab up --proxy`: the playground behind a real proxy."""

from __future__ import annotations

import json
import shlex
import signal
import subprocess
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager
from pathlib import Path

import pytest
from orvel_lab.agent import default_binary

COMMAND = Path(__file__).resolve().parents[2] / "lab" / "orvel-lab"
SECONDS = 30

Run = Callable[..., subprocess.CompletedProcess[str]]


@pytest.fixture
def run(own_network: None, tmp_path: Path) -> Run:
    """Runs a command of the lab to its end."""

    def run_command(*arguments: str) -> subprocess.CompletedProcess[str]:
        command = [COMMAND, "--dir", tmp_path / "lab", *arguments]
        return subprocess.run(command, capture_output=True, text=True, timeout=SECONDS, check=False)

    return run_command


@contextmanager
def running(command: list[str | Path], output: Path) -> Iterator[None]:
    with open(output, "wb") as log:
        process = subprocess.Popen(command, stdout=log, stderr=subprocess.STDOUT)
    try:
        yield
    finally:
        process.send_signal(signal.SIGTERM)
        assert process.wait(SECONDS) == 0, output.read_text()


@pytest.mark.parametrize(
    ("kind", "name"), [("http", "squid"), ("https", "stunnel"), ("socks4", "danted"), ("socks5", "danted")]
)
def test_the_agent_connects_through_a_proxy_of_the_kind(run: Run, tmp_path: Path, kind: str, name: str):
    lab = [COMMAND, "--dir", tmp_path / "lab", "up", "--claimed", "--proxy", kind, "--agent", default_binary()]
    with ExitStack() as stack:
        stack.enter_context(running(lab, tmp_path / "timeline"))
        assert run("wait", "up").returncode == 0
        command = shlex.split(json.loads((tmp_path / "lab" / "lab.json").read_text())["agent_command_line"])
        stack.enter_context(running(command, tmp_path / "agent.log"))
        assert run("wait", "connected").returncode == 0, (tmp_path / "agent.log").read_text()

        status = json.loads(run("status", "--json").stdout)
        proxy = status["proxy"]
        assert (proxy["kind"], proxy["name"], proxy["past"]) == (kind, name, 0)
        assert proxy["through"] >= 4  # register, claim, advisor, and the session
        assert status["sessions"][-1]["tls"] is None
        assert f"proxy      {kind}, {name} on port {proxy['port']}: " in run("status").stdout


def test_a_network_with_other_ways_out_is_refused(run: Run):
    subprocess.run(["ip", "link", "add", "other", "type", "veth"], check=True)
    refused = run("up", "--proxy", "http")
    assert refused.returncode == 1
    assert "--proxy needs a network of its own: start the lab under `unshare --net`" in refused.stderr
