"""The model of the agent's delays, on which bench/fleet.py rests, against the real agent; and the model of many."""

from __future__ import annotations

import random
import re
import signal
import sys
from collections.abc import Callable, Sequence
from pathlib import Path

import pytest
from orvel_lab import Agent, Lab, Reply, wait_until

sys.path.append(str(Path(__file__).resolve().parents[2] / "bench"))

from agent_delays import SETTINGS, AgentModel, Delays, Outcome, Step  # noqa: E402  (found only now)
from herd import REQUESTS, TICKS, Herd, Outage, Scenario, Server, Service, Turns, draw_delays, draw_trips  # noqa: E402

DONE, FAILED = Outcome.DONE, Outcome.FAILED
Trace = list[Step | int]  # what the agent does, and the seconds that it sleeps in between
Event = tuple[Outcome, int]  # of one step, and the period that the advisor gives


def advised(period: int) -> Event:
    return Outcome.WAIT, period


def ok(count: int = 1) -> list[Event]:
    return [(DONE, 0)] * count


def failed(count: int = 1) -> list[Event]:
    return [(FAILED, 0)] * count


# Each ends with a session that stays.
CONNECTED = ok(2)
WAYS: dict[str, tuple[bool, list[Event]]] = {
    "everything works": (False, ok(2) + CONNECTED),
    "a known device": (True, ok(1) + CONNECTED),
    "everything fails once": (
        False,
        failed(1) + ok() + failed() + ok() + failed() + [advised(1)] + ok() + failed() + ok(2) + failed() + CONNECTED,
    ),
    "registration fails long": (False, failed(5) + ok(2) + CONNECTED),
    "the claim check fails long": (True, failed(3) + ok() + CONNECTED),
    "the advisor fails, then lets wait, then fails": (True, ok() + failed(2) + [advised(2)] + failed() + CONNECTED),
    "each session ends, and connects fail in between": (True, ok() + ok(2) + failed() + ok() + failed() + CONNECTED),
}
SHORT = Delays(register_aggressive=1, register_aggressive_time=2, register=2, claim=2, advisor=1, qbroker=2)

SAID = re.compile(
    r"(register_url=')|(claimed_url=')|(Making advisor request)|(qbroker_host=)|exit sleep_for (\d+) secs$"
)


def follow(delays: Delays, registered: bool, events: Sequence[Event]) -> tuple[list[tuple[Step, Event]], Trace]:
    """What the model makes of these outcomes: each with the step that it ends, and the whole trace."""
    model = AgentModel(delays, registered)
    ends, trace = [], []
    for outcome, period in events:
        ends.append((model.step, (outcome, period)))
        if model.step != Step.SESSION:
            trace.append(model.step)
        if slept := model.go_on(outcome, period):
            trace.append(slept)
    assert model.step == Step.SESSION
    return ends, trace


def script(lab: Lab, ends: Sequence[tuple[Step, Event]]) -> None:
    """Lets cloud and broker behave so that the agent's steps end like this."""
    if ends[0][0] == Step.CLAIM:
        lab.register()
    lab.cloud.claim()
    for (step, (outcome, period)), (_, (following, _)) in zip(ends, [*ends[1:], ends[-1]]):
        if step in (Step.REGISTER, Step.CLAIM) and outcome == FAILED:
            lab.cloud.script(step.value, Reply(500))
        if step == Step.ADVISOR:
            wait = {"_type": "ActionWait", "period": period}
            answers = {DONE: Reply(body=lab.cloud.advice), FAILED: Reply(503), Outcome.WAIT: Reply(body=wait)}
            lab.cloud.script("advisor", answers[outcome])
        if step == Step.CONNECT and outcome == FAILED:
            lab.broker.plan("close")
        if step == Step.CONNECT and outcome == DONE and following == FAILED:
            lab.broker.plan("close-after-identity")


def said(agent: Agent) -> Trace:
    """The trace that the agent's log tells."""
    trace: Trace = []
    for line in agent.log.split("\n"):
        if found := SAID.search(line):
            trace.append(int(found[5]) if found[5] else REQUESTS[found.lastindex - 1])
    return trace


def seen(lab: Lab) -> list[tuple[float, Step]]:
    """What the servers have seen of it, with the time."""
    requests = [(request.time, Step(request.kind)) for request in lab.cloud.requests()]
    connections = [(session.opened_at, Step.CONNECT) for session in lab.broker.connections.snapshot()]
    return sorted([*requests, *connections], key=lambda entry: entry[0])


def start(lab: Lab, delays: Delays, events: Sequence[Event], ends: Sequence[tuple[Step, Event]]) -> Agent:
    script(lab, ends)
    lab.settings |= {key: str(getattr(delays, name)) for name, key in SETTINGS.items()}
    return lab.start_agent("--log_debug")


def stays_connected(agent: Agent, ends: Sequence[tuple[Step, Event]]) -> Callable[[], bool]:
    sessions = sum(end == (Step.CONNECT, (DONE, 0)) for end in ends)
    return lambda: agent.count("Reading packet header.") >= sessions


def wake_until(agent: Agent, condition: Callable[[], bool]) -> None:
    """Ends one sleep after the other, so that delays of minutes can be looked at."""

    def reached() -> bool:
        agent.signal(signal.SIGUSR1)
        return condition()

    wait_until(reached, "the session that stays")


class TestOneAgent:
    @pytest.mark.parametrize("way", WAYS)
    def test_the_agent_goes_the_way_of_the_model_and_keeps_its_delays(self, lab: Lab, way: str):
        registered, events = WAYS[way]
        ends, trace = follow(SHORT, registered, events)
        agent = start(lab, SHORT, events, ends)
        wait_until(stays_connected(agent, ends), "the session that stays")
        assert said(agent) == trace

        arrivals = seen(lab)
        assert [step for _, step in arrivals] == [entry for entry in trace if isinstance(entry, Step)]
        times = iter(arrivals)
        before, _ = next(times)
        for entry, following in zip(trace, trace[1:]):
            if isinstance(following, Step):
                now, _ = next(times)
                slept = entry if isinstance(entry, int) else 0
                assert now - before >= slept - 0.1, f"{following} after {now - before:.2f} s instead of {slept} s"
                before = now

    @pytest.mark.parametrize("seed", [1, 2, 3])
    def test_a_long_way_at_random_with_long_delays_is_the_models_too(self, lab: Lab, seed: int):
        numbers = random.Random(seed)
        delays = Delays(**{name: numbers.randint(1, 1000) for name in SETTINGS})
        events = random_way(numbers, 15)
        ends, trace = follow(delays, False, events)
        agent = start(lab, delays, events, ends)
        agent.wait_for_line("curl_global_init completed.")  # the signals are handled by now
        wake_until(agent, stays_connected(agent, ends))
        assert said(agent) == trace

    def test_the_models_defaults_are_the_agents(self, lab: Lab):
        registered, events = False, failed(8) + ok() + failed() + ok() + failed() + ok() + failed() + CONNECTED
        ends, trace = follow(Delays(), registered, events)
        assert set(trace) >= {20, 60}
        script(lab, ends)
        for key in SETTINGS.values():
            lab.settings.pop(key, None)
        agent = lab.start_agent("--log_debug")
        agent.wait_for_line("curl_global_init completed.")
        wake_until(agent, stays_connected(agent, ends))
        assert said(agent) == trace


def random_way(numbers: random.Random, length: int) -> list[Event]:
    """That many outcomes at random, and then only good ones."""
    model = AgentModel(Delays(), registered=False)
    events: list[Event] = []
    while len(events) < length or model.step != Step.SESSION:
        good = (DONE, 0) if model.step != Step.SESSION else (FAILED, 0)
        choices = [good, (FAILED, 0)]
        if model.step == Step.ADVISOR:
            choices.append(advised(numbers.randint(1, 1000)))
        event = numbers.choice(choices) if len(events) < length else good
        model.go_on(*event)
        events.append(event)
    return events


# Many agents.

PLENTY = {step: Service(1_000_000, time_out=None) for step in REQUESTS}
DRAWN = {name: (3, 40) for name in SETTINGS}


def walk(delays: Delays, trip: int, begin: int, registered: bool, outage: Outage) -> list[tuple[int, Step]]:
    """When one agent's requests arrive (ticks) while the servers only know "down" and "served in one tick"."""
    down = range(round(outage.begin * TICKS), round(outage.end * TICKS))
    model = AgentModel(delays, registered)
    now, arrivals = begin + trip, []
    while model.step != Step.SESSION:
        arrivals.append((now, model.step))
        served = now not in down or model.step not in outage.steps
        slept = model.go_on(DONE if served else FAILED)
        now += served + slept * TICKS + trip
    return arrivals


class TestManyAgents:
    def test_each_goes_its_own_way_when_the_servers_are_no_limit(self):
        devices, new, outage = 300, 200, Outage(10, 200, (Step.REGISTER, Step.CLAIM, Step.ADVISOR))
        starts = [agent % 30 for agent in range(devices)]
        scenario = Scenario(devices, 0, starts, new, PLENTY, outage, delays=DRAWN, seed=7)
        course = Herd(scenario).run()

        numbers = random.Random(scenario.seed)
        columns, trips = draw_delays(scenario, numbers), draw_trips(scenario, numbers)
        asked = {step: [0] * len(course.open) for step in REQUESTS}
        for agent, begin in enumerate(starts):
            delays = Delays(**{name: column[agent] for name, column in columns.items()})
            for tick, step in walk(delays, trips[agent], begin * TICKS, agent >= new, outage):
                asked[step][tick // TICKS] += 1
        assert course.asked == asked
        assert course.open[-1] == devices

    def test_each_is_connected_once_whatever_was_refused(self):
        services = {step: Service(100, queue=2, time_out=5) for step in REQUESTS}
        outage = Outage(0, 30, (Step.CONNECT,))
        course = Herd(Scenario(2_000, 2_000, [], 0, services, outage, delays=DRAWN)).run()
        assert course.open[-1] == 2_000
        connect = Step.CONNECT
        assert sum(course.asked[connect]) - sum(course.refused[connect]) - sum(course.timed_out[connect]) == 2_000
        assert sum(course.refused[connect]) > 0
        assert max(after - before for before, after in zip(course.open, course.open[1:])) <= 100

    def test_the_same_seed_gives_the_same_course(self):
        scenario = Scenario(500, 500, [], 0, PLENTY, Outage(0, 5, REQUESTS), delays=DRAWN, seed=3)
        assert Herd(scenario).run() == Herd(scenario).run()

    def test_a_server_takes_what_its_queue_holds_and_refuses_the_rest(self):
        server = Server(Service(200, queue=0.05))
        answers, refused = server.take(7, list(range(100)))
        assert answers == [(tick, [2 * tick - 16, 2 * tick - 15]) for tick in range(8, 14)]
        assert refused == list(range(12, 100))
        assert server.take(8, [1, 2, 3]) == ([(14, [1, 2])], [3])
        assert server.take(99, [1]) == ([(100, [1])], [])

    def test_who_waits_longer_than_its_time_out_is_served_in_vain(self):
        services = PLENTY | {Step.ADVISOR: Service(100, queue=None, time_out=2)}
        scenario = Scenario(400, 400, [], 0, services, Outage(0, 1, (Step.CONNECT,)), longest=1000, seed=5)
        course = Herd(scenario).run()
        timed_out = sum(course.timed_out[Step.ADVISOR])
        assert timed_out > 0
        assert sum(course.asked[Step.ADVISOR]) == 400 + timed_out

    def test_turns_are_given_at_their_rate_and_no_wait_is_for_ever(self):
        turns = Turns(1_000, 100)
        connect, wait = turns.advise(0, list(range(1_000)))
        assert connect == [0]
        seconds = [period for _, period in wait]
        assert seconds == sorted(seconds) and seconds[0] == 1 and seconds[-1] == 10
        assert max(seconds.count(period) for period in range(1, 11)) == 100
        assert turns.advise(30, [7, 8]) == ([7, 8], [])  # it is their turn by now
