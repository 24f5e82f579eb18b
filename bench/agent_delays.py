"""The agent's way from its start to the broker session: what it does next, and how long it sleeps before.

Plain data, for models of many agents. tests/system/test_fleet.py holds it against the real one.
"""

from __future__ import annotations

from dataclasses import dataclass
from enum import Enum


class Step(Enum):
    REGISTER = "register"
    CLAIM = "claim"
    ADVISOR = "advisor"
    CONNECT = "connect"  # to the broker, TLS included
    SESSION = "session"


class Outcome(Enum):
    DONE = "done"  # of the advisor's step: it named a broker
    FAILED = "failed"  # refused, no answer in time, an answer of no use; of a session: the other side has ended it
    WAIT = "wait"  # the advisor's answer, with a period


@dataclass(frozen=True)
class Delays:
    """Seconds, and what they are when the settings do not say."""

    register_aggressive: int = 20
    register_aggressive_time: int = 120
    register: int = 60
    claim: int = 60
    advisor: int = 60
    qbroker: int = 60


SETTINGS = {
    "register_aggressive": "q_register_aggressive_delay",
    "register_aggressive_time": "q_register_aggressive_time",
    "register": "q_register_delay",
    "claim": "q_claim_delay",
    "advisor": "q_advisor_delay",
    "qbroker": "q_qbroker_delay",
}

# Delays that are no member of Delays.
NO_DELAY, AS_ADVISED, REGISTRATION = "none", "as advised", "registration"


@dataclass(frozen=True)
class Rule:
    delay: str  # a member of Delays, or one of the three above
    then: Step


RULES = {
    (Step.REGISTER, Outcome.DONE): Rule(NO_DELAY, Step.CLAIM),
    (Step.REGISTER, Outcome.FAILED): Rule(REGISTRATION, Step.REGISTER),
    (Step.CLAIM, Outcome.DONE): Rule(NO_DELAY, Step.ADVISOR),
    (Step.CLAIM, Outcome.FAILED): Rule("claim", Step.CLAIM),
    (Step.ADVISOR, Outcome.DONE): Rule(NO_DELAY, Step.CONNECT),
    (Step.ADVISOR, Outcome.WAIT): Rule(AS_ADVISED, Step.ADVISOR),
    (Step.ADVISOR, Outcome.FAILED): Rule("advisor", Step.ADVISOR),
    (Step.CONNECT, Outcome.DONE): Rule(NO_DELAY, Step.SESSION),
    (Step.CONNECT, Outcome.FAILED): Rule("qbroker", Step.ADVISOR),
    (Step.SESSION, Outcome.FAILED): Rule("qbroker", Step.ADVISOR),
}


def registration_delay(slept: int, aggressive_time: int) -> str:
    """Which of its two delays follows a failed registration, by the sum of those before."""
    return "register_aggressive" if slept < aggressive_time else "register"


class AgentModel:
    """One claimed device, from its start on."""

    def __init__(self, delays: Delays, registered: bool) -> None:
        self.step = Step.CLAIM if registered else Step.REGISTER
        self._delays = delays
        self._slept = 0  # between registrations

    def go_on(self, outcome: Outcome, period: int = 0) -> int:
        """Ends the step with this outcome; gives the seconds that pass before the next. `period`: as advised."""
        rule = RULES[self.step, outcome]
        self.step = rule.then
        if rule.delay == NO_DELAY:
            return 0
        if rule.delay == AS_ADVISED:
            return period
        if rule.delay != REGISTRATION:
            return getattr(self._delays, rule.delay)
        delay = getattr(self._delays, registration_delay(self._slept, self._delays.register_aggressive_time))
        self._slept += delay
        return delay
