"""Very many agents and the four servers that they ask, in steps of a hundredth of a second.

Each agent is a number, and keeps its own delays (agent_delays.py) exactly. Agents that arrive in the same tick are
served in the order in which they were sent on their way. Agents are moved in lists, so that a million of them take
seconds.
"""

from __future__ import annotations

import math
import random
from array import array
from collections import defaultdict
from collections.abc import Mapping, Sequence
from dataclasses import dataclass, field

from agent_delays import (
    AS_ADVISED,
    NO_DELAY,
    REGISTRATION,
    RULES,
    SETTINGS,
    Delays,
    Outcome,
    Step,
    registration_delay,
)

TICKS = 100  # of a second
REQUESTS = (Step.REGISTER, Step.CLAIM, Step.ADVISOR, Step.CONNECT)

Range = tuple[int, int]


@dataclass(frozen=True)
class Service:
    """What the servers behind one address can do."""

    capacity: int  # requests each second, a multiple of TICKS
    queue: float | None = 5  # seconds of work that may wait; what comes on top is refused at once. None: no limit
    time_out: float | None = 60  # seconds after which the agent gives up; the server works on it all the same


@dataclass(frozen=True)
class Outage:
    begin: float  # seconds
    end: float
    steps: tuple[Step, ...]  # whose services refuse everything; with CONNECT all sessions end at its beginning


@dataclass(frozen=True)
class Scenario:
    devices: int
    connected: int  # the first devices, at time 0
    starts: Sequence[float]  # seconds, when each of the others is switched on
    new: int  # the first of those are not registered
    services: Mapping[Step, Service]
    outage: Outage | None = None
    round_trips: tuple[float, float] = (0.1, 0.5)  # seconds from asking to arriving, constant for each device
    delays: Mapping[str, Range] = field(default_factory=dict)  # drawn for each device; others are the agent's defaults
    connects_as_advised: int | None = None  # the advisor lets so many each second connect, others wait for their turn
    longest: int = 4 * 3600  # seconds
    seed: int = 1


@dataclass
class Course:
    """What happened in each second."""

    asked: dict[Step, list[int]] = field(default_factory=lambda: {step: [] for step in REQUESTS})
    refused: dict[Step, list[int]] = field(default_factory=lambda: {step: [] for step in REQUESTS})
    timed_out: dict[Step, list[int]] = field(default_factory=lambda: {step: [] for step in REQUESTS})
    open: list[int] = field(default_factory=list)


def _in_a_tick(rate: int) -> int:
    if rate % TICKS:
        raise ValueError(f"{rate} a second is no multiple of {TICKS}")
    return rate // TICKS


class Server:
    """Works off what it takes in order, at a constant rate."""

    def __init__(self, service: Service) -> None:
        self._rate = _in_a_tick(service.capacity)
        self._queue = None if service.queue is None else round(service.queue * TICKS)
        self._taken = 0  # requests that it could have served up to the one that it took last

    def take(self, now: int, agents: list[int]) -> tuple[list[tuple[int, list[int]]], list[int]]:
        """Those that it takes, with the tick of their answer, and those that it refuses."""
        self._taken = max(self._taken, now * self._rate)
        room = len(agents)
        if self._queue is not None:
            room = min(room, max((now + self._queue + 1) * self._rate - self._taken, 0))
        answers = []
        begin = 0
        while begin < room:
            tick = self._taken // self._rate + 1
            count = min(tick * self._rate - self._taken, room - begin)
            answers.append((tick, agents[begin : begin + count]))
            self._taken += count
            begin += count
        return answers, agents[room:]


class Turns:
    """An advisor that hands out turns to connect, and lets wait until then. Who comes back has its turn."""

    def __init__(self, devices: int, rate: int) -> None:
        self._rate = _in_a_tick(rate)
        self._next = 0  # turns that there could have been up to the last one
        self._given = bytearray(devices)

    def advise(self, now: int, agents: list[int]) -> tuple[list[int], list[tuple[int, int]]]:
        """Those that may connect, and those that have to wait, with the seconds."""
        connect, wait = [], []
        begun = now * self._rate
        for agent in agents:
            if self._given[agent]:
                self._given[agent] = 0
                connect.append(agent)
                continue
            turn = max(self._next, begun)
            self._next = turn + 1
            seconds = -((begun - turn) // (self._rate * TICKS))  # rounded up
            if seconds == 0:  # would mean "for ever"
                connect.append(agent)
            else:
                self._given[agent] = 1
                wait.append((agent, seconds))
        return connect, wait


def draw_delays(scenario: Scenario, numbers: random.Random) -> dict[str, array]:
    """Each setting, for each device, in seconds."""
    columns = {}
    for name in SETTINGS:
        usual = getattr(Delays(), name)
        low, high = scenario.delays.get(name, (usual, usual))
        width = high - low + 1
        columns[name] = array("I", [low]) * scenario.devices
        if width > 1:
            columns[name] = array("I", (low + int(numbers.random() * width) for _ in range(scenario.devices)))
    return columns


def draw_trips(scenario: Scenario, numbers: random.Random) -> array:
    """The round trip of each device, in ticks."""
    low, high = (round(seconds * TICKS) for seconds in scenario.round_trips)
    width = high - low + 1
    return array("I", (low + int(numbers.random() * width) for _ in range(scenario.devices)))


class Herd:
    """All agents of a scenario, drawn from its seed: first their delays, then their round trips."""

    def __init__(self, scenario: Scenario) -> None:
        numbers = random.Random(scenario.seed)
        self.course = Course()
        self._scenario = scenario
        self._servers = {step: Server(scenario.services[step]) for step in REQUESTS}
        self._turns = Turns(scenario.devices, scenario.connects_as_advised) if scenario.connects_as_advised else None
        self._delays = draw_delays(scenario, numbers)
        self._trip = draw_trips(scenario, numbers)
        # Ticks from a failure to the next arrival, for each device.
        self._pauses = {
            name: array("I", (seconds * TICKS + trip for seconds, trip in zip(column, self._trip)))
            for name, column in self._delays.items()
        }
        self._slept = array("I", [0]) * scenario.devices
        self._arrivals: dict[Step, defaultdict[int, list[int]]] = {step: defaultdict(list) for step in REQUESTS}
        self._outcomes: defaultdict[int, list[tuple[Step, Outcome, list[int]]]] = defaultdict(list)
        self._agents = list(range(scenario.devices))  # one object for each number
        self._connected = self._agents[: scenario.connected]
        self._counts: dict[Step, list[int]] = {}

    def run(self) -> Course:
        """Until everybody is connected, but not beyond `longest`."""
        self._switch_on()
        outage = self._scenario.outage
        begin = round(outage.begin * TICKS) if outage else -1
        end = round(outage.end * TICKS) if outage else -1
        for now in range(self._scenario.longest * TICKS):
            if now % TICKS == 0:
                self._begin_second()
            if now == begin and Step.CONNECT in outage.steps:
                ended, self._connected = self._connected, []
                self._go_on(now, Step.SESSION, Outcome.FAILED, ended)
            for step, outcome, agents in self._outcomes.pop(now, ()):
                self._go_on(now, step, outcome, agents)
            for step in REQUESTS:
                if agents := self._arrivals[step].pop(now, None):
                    self._serve(now, step, agents, down=begin <= now < end and step in outage.steps)
            if now % TICKS == TICKS - 1:
                self._end_second()
                if now >= end and len(self._connected) == self._scenario.devices:
                    break
        return self.course

    def _switch_on(self) -> None:
        others = self._agents[self._scenario.connected :]
        for number, (agent, start) in enumerate(zip(others, self._scenario.starts)):
            step = Step.REGISTER if number < self._scenario.new else Step.CLAIM
            self._arrivals[step][round(start * TICKS) + self._trip[agent]].append(agent)

    def _serve(self, now: int, step: Step, agents: list[int], down: bool) -> None:
        counts = self._counts[step]
        counts[0] += len(agents)
        if down:
            answers, refused = [], agents
        else:
            answers, refused = self._servers[step].take(now, agents)
        if refused:
            counts[1] += len(refused)
            self._go_on(now, step, Outcome.FAILED, refused)
        time_out = self._scenario.services[step].time_out
        given_up = math.inf if time_out is None else now + round(time_out * TICKS)
        for tick, answered in answers:
            if tick <= given_up:
                self._outcomes[tick].append((step, Outcome.DONE, answered))
            else:
                counts[2] += len(answered)
                self._outcomes[given_up].append((step, Outcome.FAILED, answered))

    def _go_on(self, now: int, step: Step, outcome: Outcome, agents: list[int]) -> None:
        if (step, outcome) == (Step.ADVISOR, Outcome.DONE) and self._turns:
            agents, waiting = self._turns.advise(now, agents)
            self._wait_as_advised(now, waiting)
        rule = RULES[step, outcome]
        if rule.then == Step.SESSION:
            self._connected += agents
            return
        if rule.delay == REGISTRATION:
            self._delay_registration(now, agents)
            return
        pauses = self._trip if rule.delay == NO_DELAY else self._pauses[rule.delay]
        arrivals = self._arrivals[rule.then]
        for agent in agents:
            arrivals[now + pauses[agent]].append(agent)

    def _delay_registration(self, now: int, agents: list[int]) -> None:
        arrivals = self._arrivals[RULES[Step.REGISTER, Outcome.FAILED].then]
        for agent in agents:
            name = registration_delay(self._slept[agent], self._delays["register_aggressive_time"][agent])
            self._slept[agent] += self._delays[name][agent]
            arrivals[now + self._pauses[name][agent]].append(agent)

    def _wait_as_advised(self, now: int, waiting: list[tuple[int, int]]) -> None:
        rule = RULES[Step.ADVISOR, Outcome.WAIT]
        assert rule.delay == AS_ADVISED
        arrivals = self._arrivals[rule.then]
        for agent, seconds in waiting:
            arrivals[now + seconds * TICKS + self._trip[agent]].append(agent)

    def _begin_second(self) -> None:
        self._counts = {step: [0, 0, 0] for step in REQUESTS}  # asked, refused, timed out

    def _end_second(self) -> None:
        for step, (asked, refused, timed_out) in self._counts.items():
            self.course.asked[step].append(asked)
            self.course.refused[step].append(refused)
            self.course.timed_out[step].append(timed_out)
        self.course.open.append(len(self._connected))
