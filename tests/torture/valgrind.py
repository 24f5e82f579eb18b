#!/usr/bin/python3
"""scripts/demo.sh, and a life with more in it, under valgrind.

memcheck  no error, nothing definitely lost, and at the end no open descriptor but those that belong to a running agent
helgrind  no race, no misused lock, no locks in two orders, apart from what helgrind.supp gives reasons for

The life: a refused and a successful registration, the claim, messages to each kind of handler, pause and resume, a
control request in a message, a reconnect, a state report, SIGTERM; in the long run behind proxies, too. The programs
that the agent starts are not looked at, and helgrind itself keeps silent about races whose innermost function is one of
the C library's.
"""

from __future__ import annotations

import os
import re
import shlex
import signal
import subprocess
import sys
from collections import Counter
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
os.environ.setdefault("ORVEL_LAB_DEADLINE", "240")  # under valgrind everything takes some fifty times longer

from support.builds import FOLDER, build  # noqa: E402  (found only now)
from support.life import Life  # noqa: E402
from support.rounds import PROJECT, Round, Tally, run  # noqa: E402
from orvel_lab import DEADLINE, Reply  # noqa: E402

SUPPRESSIONS = Path(__file__).with_name("helgrind.supp")
FOUND = 99  # exit status when valgrind has something to say
PATIENCE = DEADLINE
GAP = 0.5  # seconds between messages
OPTIONS = {
    # The C library's clean-up for leak checkers frees what the resolver still needs for threads that run on.
    "memcheck": ["--leak-check=full", "--errors-for-leak-kinds=definite", "--track-fds=yes", "--run-libc-freeres=no"],
    "helgrind": [f"--suppressions={SUPPRESSIONS}"],
}
WRAPPER = """#!/bin/sh
exec valgrind --tool={tool} {options} --num-callers=30 --error-exitcode={found} --child-silent-after-fork=yes \\
  --fair-sched=try --log-file={report} {agent} "$@"
"""
SHORT = ["helgrind-direct-0", "memcheck-demo-0", "memcheck-direct-0"]
LONG_WAYS = ["demo", "direct", "http", "socks5"] * 5

# Who has opened what an agent has open; a pipe has two ends. The life's session has been paused, the demo's is there,
# and its last state report may be on its way.
OPENERS = Counter({"open_signal_pipe()": 2, "open_control_pipe()": 2})
OPENERS_IN_SESSION = OPENERS + Counter({"open_command_pipe()": 2, "open_broker_connection(": 1})
DELIVERY = Counter({"connect_and_send(": 1})
OPEN_DESCRIPTOR = re.compile(r"^==\d+== Open (.*)\n((?:==\d+==    .*\n)+)", re.MULTILINE)
SUMMARY = re.compile(r"ERROR SUMMARY: 0 errors from 0 contexts \(suppressed: (\d+) from (\d+)\)")


def under_valgrind(this: Round) -> None:
    tool, way, _ = this.name.split("-")
    report = this.folder / "report"
    os.environ["ORVEL_BIN"] = str(_wrapper(this.folder, tool, report))
    if way == "demo":
        _show_demo(report)
    else:
        _live(this, way, report)
    text = report.read_text()
    assert SUMMARY.search(text), text
    if tool == "memcheck":
        _check_descriptors(text, OPENERS_IN_SESSION if way == "demo" else OPENERS)
    this.tally.counts[f"{'demos' if way == 'demo' else 'lives'} under {tool}"] += 1


def _wrapper(folder: Path, tool: str, report: Path) -> Path:
    path = folder / "wrapper"
    words = {"report": report, "agent": FOLDER / "debug" / "bin" / "orvel", "found": FOUND, "tool": tool}
    path.write_text(WRAPPER.format(options=shlex.join(OPTIONS[tool]), **words))
    path.chmod(0o755)
    return path


def _show_demo(report: Path) -> None:
    """It looks at the agent's exit status itself."""
    shown = subprocess.run([PROJECT / "scripts" / "demo.sh"], capture_output=True, text=True, check=False)
    assert shown.returncode == 0, f"{shown.stdout}{shown.stderr}\n{report.read_text()}"


def _live(this: Round, way: str, report: Path) -> None:
    settings = dict.fromkeys(("q_http_request_timeout", "q_http_connect_timeout"), f"{PATIENCE:.0f}")
    options = {"tls": way == "direct", "authority": this.authority, "settings": settings}
    with Life(this.folder / "lab", GAP, **options) as life:
        if way != "direct":
            life.lab.proxy(way)
        agent = life.start("--service_id", "demo")
        _lead(life)
        status = agent.stop(PATIENCE)
        assert status == 0, f"status {status}\n{report.read_text()}"
    this.tally.counts["messages"] += life.check_delivery(complete=False)


def _lead(life: Life) -> None:
    lab, agent = life.lab, life.agent
    lab.cloud.script("register", Reply(500))
    # Only now: an answer of the cloud that was on its way would undo what the local program reports.
    agent.wait_for_line("Connection to qCloud won't be established.", PATIENCE, anywhere=True)
    lab.cloud.claim()
    assert agent.control.command("on_claim", PATIENCE, service="demo", claimed=True) == 0
    session = life.probe(PATIENCE)
    _pause(life)
    session.wait_ended(PATIENCE)
    _resume(life)
    session = life.probe(PATIENCE)
    agent.signal(signal.SIGUSR2)
    session.send_message("agent", b'{"command": "pause_connections"}')
    session.wait_ended(PATIENCE)
    _resume(life)
    life.probe(PATIENCE).cut()
    session = life.probe(PATIENCE)
    life.calm()
    _pause(life)
    session.wait_ended(PATIENCE)


def _pause(life: Life) -> None:
    assert life.agent.control.command("pause_connections", PATIENCE) == 0


def _resume(life: Life) -> None:
    assert life.agent.control.command("resume_connections", PATIENCE) == 0


def _check_descriptors(text: str, expected: Counter[str]) -> None:
    """Those that it has inherited, and what belongs to a running agent."""
    own = [(what, stack) for what, stack in OPEN_DESCRIPTOR.findall(text) if "<inherited from parent>" not in stack]
    known = [*expected, *DELIVERY]
    openers = Counter(next((name for name in known if name in stack), what + stack) for what, stack in own)
    assert openers - DELIVERY == expected, f"open at the end: {openers}\n{text}"


def names(long: bool) -> list[str]:
    if not long:
        return SHORT
    return [f"{tool}-{way}-{number}" for number, way in enumerate(LONG_WAYS) for tool in reversed(OPTIONS)]


def summary(tally: Tally) -> str:
    counts = ", ".join(f"{count} {name}" for name, count in sorted(tally.counts.items()))
    return f"{counts}; no error, no definite leak, no race"


if __name__ == "__main__":
    build("Debug")
    bodies = dict.fromkeys(OPTIONS, under_valgrind)
    sys.exit(run("valgrind", __doc__, names, bodies, summary, workers=2))
