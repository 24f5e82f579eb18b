"""Faults on demand: slowness, garbage and resets, in a session, at the next connections, or in the cloud's answers."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import replace

from .broker import Session
from .cloud import Reply, Scripted
from .lab import Lab

GARBAGE = bytes(range(255, 191, -1))
KINDS = ("slow", "garbage", "reset")


def disturb_session(session: Session, kind: str, seconds: float) -> str:
    """At once, in a session that is open; gives what has been done, in words."""
    if kind == "slow":
        session.slowness = seconds
        return f"each packet of session {session.number} takes {seconds:g} s from now on"
    if kind == "garbage":
        session.send(GARBAGE)
        return f"{len(GARBAGE)} bytes of garbage went out in session {session.number}"
    session.reset()
    return f"session {session.number} was reset"


def disturb_connections(lab: Lab, kind: str, seconds: float, times: int) -> str:
    """The next connections to the broker, of any device: whose they are shows only later."""
    plan = {"slow": "stall"}.get(kind, kind)
    lab.broker.plan(plan, times, data=GARBAGE, seconds=seconds)
    met = f"a silence of {seconds:g} s" if kind == "slow" else kind
    return f"the next {counted(times, 'connection')} to the broker, of any device, will meet {met}"


def disturb_answers(lab: Lab, endpoint: str, kind: str, seconds: float, times: int, hardware_id: str | None) -> str:
    """The cloud's next answers at an endpoint, to one device or to any."""
    spoilt: dict[str, Callable[[], Scripted]] = {
        "slow": lambda: lambda answer: replace(answer, delay=seconds),
        "garbage": lambda: Reply(raw=GARBAGE, end="close"),
        "reset": lambda: Reply(cut=0, end="reset"),
    }
    lab.cloud.script(endpoint, *(spoilt[kind]() for _ in range(times)), hardware_id=hardware_id)
    whose = f"the next {counted(times, 'answer')} of '{endpoint}' to {hardware_id or 'any device'}"
    return f"{whose} will be {'a reset' if kind == 'reset' else kind}"


def calm(lab: Lab) -> None:
    """Takes back everything that is still to come, and the slowness of sessions."""
    lab.cloud.forget_scripts()
    lab.broker.forget_plans()
    for session in lab.broker.sessions:
        session.slowness = 0


def pending(lab: Lab) -> int:
    """How many faults are still to come, slow sessions included."""
    slow = sum(session.open and session.slowness > 0 for session in lab.broker.sessions)
    return lab.cloud.scripted_count + lab.broker.planned_count + slow


def counted(number: int, what: str) -> str:
    return what if number == 1 else f"{number} {what}s"
