"""A broker that sends faster than the agent can take: nothing else may wait for the end of that."""

from __future__ import annotations

import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest
from orvel_lab import Agent, Lab, Session, Type, wait_until
from orvel_lab.packets import plain_message
from orvel_lab.waiting import DEADLINE

BLOCK = plain_message("n", b"x").encode() * 500_000  # short ones: they cost the agent most for their bytes
MUCH = 30_000  # bytes that wait to be read: far more than one read takes, and less than any receive buffer


@pytest.fixture(params=["tls", "tcp"])
def lab(request: pytest.FixtureRequest, make_lab: Callable[..., Lab]) -> Lab:
    return make_lab(registered=True, claimed=True, tls=request.param == "tls")


def unread(agent: Agent, session: Session) -> int:
    """How many bytes of the session the system keeps for the agent."""
    port = f":{session.peer[1]:04X}"
    lines = Path(f"/proc/{agent.pid}/net/tcp").read_text().splitlines()[1:]
    queues = [fields[4] for fields in map(str.split, lines) if fields[1].endswith(port)]
    return max((int(queue.partition(":")[2], 16) for queue in queues), default=0)


@contextmanager
def flooded(agent: Agent, session: Session) -> Iterator[None]:
    """From the moment at which the agent is behind to the end of the session."""
    flood = threading.Thread(target=session.flood, args=(BLOCK,))
    flood.start()
    try:
        wait_until(lambda: unread(agent, session) > MUCH, "a flood")
        yield
    finally:
        session.cut()
        flood.join(DEADLINE)


def start(lab: Lab, *options: str) -> tuple[Agent, Session]:
    """With a silent log: that of a flood would be one, too."""
    agent = lab.start_agent(*options)
    session = lab.broker.expect_session()
    session.expect_identity()
    lab.event_sink.wait_for_document(event=4, connected=True)
    return agent, session


def test_a_heartbeat_gets_out_and_a_missing_answer_ends_the_session(lab: Lab):
    lab.broker.answer_heartbeats = False
    agent, session = start(lab, "--agent_heartbeat", "1")
    with flooded(agent, session):
        assert session.expect(Type.HEARTBEAT).sequence == 1
        assert session.wait_ended().startswith("agent ")
    assert lab.broker.expect_session().expect(Type.HEARTBEAT).sequence == 2


@pytest.mark.parametrize(
    "document",
    [{"command": "pause_connections"}, {"command": "on_release", "service": "s", "claimed": False}],
    ids=["pause", "release"],
)
def test_a_request_ends_the_session(lab: Lab, document: dict):
    agent, session = start(lab)
    with flooded(agent, session):
        assert agent.control.request(document) == 0
        assert session.wait_ended().startswith("agent ")


def test_sigterm_ends_the_process(lab: Lab):
    agent, session = start(lab)
    with flooded(agent, session):
        assert agent.stop() == 0
        assert session.wait_ended().startswith("agent ")
