"""An agent with its broker session, and what can be seen of it from outside."""

from __future__ import annotations

import ctypes
import os
import re
import socket
from contextlib import ExitStack
from pathlib import Path

import pytest
from orvel_lab import Agent, Lab, Session, wait_until
from orvel_lab.agent import default_binary

AN_HOUR = "3600"
PIDFD_GETFD = 438
IDLE_SECONDS = 2.5


def connect(lab: Lab, *options: str) -> tuple[Agent, Session]:
    """An agent with its whole log, and its session, once it waits for what the broker sends.

    The broker has read the identity: closing with unread bytes would be a reset.
    """
    agent = lab.start_agent("--log_debug", *options)
    session = lab.broker.expect_session()
    session.wait_for_bytes(1)
    agent.wait_for_line("Reading packet header.")
    return agent, session


def descriptor_of(agent: Agent, session: Session) -> int:
    """The agent's descriptor of the connection, found by the port of its own end."""
    # Others may use the same port for other destinations.
    lines = [line.split() for line in Path(f"/proc/{agent.pid}/net/tcp").read_text().splitlines()[1:]]
    links = {f"socket:[{line[9]}]" for line in lines if line[1].endswith(f":{session.peer[1]:04X}")}
    for descriptor in Path(f"/proc/{agent.pid}/fd").iterdir():
        try:
            if os.readlink(descriptor) in links:
                return int(descriptor.name)
        except FileNotFoundError:
            continue  # another thread's, closed meanwhile
    raise AssertionError(f"no descriptor of {agent.pid} is the connection from port {session.peer[1]}")


def agents_socket(agent: Agent, session: Session) -> socket.socket:
    """A copy of the agent's own end of the connection, to look at its options."""
    pidfd = os.pidfd_open(agent.pid)
    try:
        copy = ctypes.CDLL(None, use_errno=True).syscall(PIDFD_GETFD, pidfd, descriptor_of(agent, session), 0)
    finally:
        os.close(pidfd)
    if copy < 0:
        pytest.skip(f"this system does not hand descriptors over: {os.strerror(ctypes.get_errno())}")
    return socket.socket(fileno=copy)


def sleeps(agent: Agent) -> dict[str, str]:
    """What each thread is doing, and how often it has gone to sleep so far; a wake-up makes one more."""
    lines = r"^(?:State|voluntary_ctxt_switches):\s*(\w+)"
    tasks = Path(f"/proc/{agent.pid}/task").iterdir()
    return {task.name: " ".join(re.findall(lines, (task / "status").read_text(), re.MULTILINE)) for task in tasks}


def wait_at_rest(agent: Agent) -> dict[str, str]:
    """Waits until every thread sleeps and stays asleep; gives what sleeps() says then."""
    seen = [sleeps(agent)]

    def is_at_rest() -> bool:
        seen.append(sleeps(agent))
        return seen[-1] == seen[-2] and all(thread.startswith("S ") for thread in seen[-1].values())

    wait_until(is_at_rest, "all threads at rest")
    return seen[-1]


def fill_backlog(stack: ExitStack, port: int) -> None:
    """Connects until the listener takes no more; the connections live as long as the stack."""
    for _ in range(4):
        client = stack.enter_context(socket.socket())
        client.setblocking(False)
        client.connect_ex(("127.0.0.1", port))


def sanitized() -> bool:
    """Does the agent run under a sanitizer? Some of these have threads of their own that wake up."""
    program = default_binary().read_bytes()
    return b"__asan_init" in program or b"__tsan_init" in program


def seconds_between_requests(lab: Lab, count: int) -> float:
    """From the advisor request before the `count`-th to the `count`-th."""
    second = lab.cloud.wait_for_request("advisor", count)
    return second.time - lab.cloud.requests("advisor")[count - 2].time
