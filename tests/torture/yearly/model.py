"""What the agent may do at which moment: every delay of its life, told beforehand.

The driver tells the model what it does to the agent; the lab's events are held against what is due. Each thread of the
agent that makes requests is an actor with at most one request that is due. A request may come later than that only
while another one is under way, or requests are paused: then it comes when that ends. Times are nanoseconds of the
agent's monotonic clock.
"""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass
from typing import Any

from support.virtual_clock import SECOND

SLACK = SECOND // 10  # far below any delay; a stop asks every 10 ms whether the session has ended


class Unexpected(AssertionError):
    """The agent did what it should not, or not what it should."""


@dataclass(frozen=True)
class Delays:
    """Seconds, from the settings and the command line."""

    register: int
    aggressive: int
    aggressive_time: int
    claim: int
    advisor: int
    reconnect: int
    claim_check: int
    first_discovery: int
    time_out: int


@dataclass(frozen=True)
class Mode:
    registered: bool
    discovery: bool
    forced: bool


class Actor:
    """`due` is when its next request is due, `kind` which one, `why` the name of the delay before it."""

    def __init__(self, model: Model) -> None:
        self.model = model
        self.due: int | None = None
        self.kind = ""
        self.why = ""

    def expect(self, kind: str, at: int, why: str) -> None:
        self.kind, self.due, self.why = kind, at, why

    def wake(self, now: int) -> None:
        """The sleep that it is in ends."""
        if self.due is not None and now < self.due:
            self.due, self.why = now, "woken"

    def answered(self, now: int, reply: dict[str, Any]) -> None:
        raise NotImplementedError

    def failed(self, now: int) -> None:
        raise NotImplementedError


class StartUp(Actor):
    """Registers, waits for a claim status, and decides what runs."""

    slept = 0

    def begin(self, now: int) -> None:
        self.expect("claim" if self.model.mode.registered else "register", now, "at once")

    def failed(self, now: int) -> None:
        delays = self.model.delays
        if self.kind == "claim":
            self.expect("claim", now + delays.claim * SECOND, "claim")
            return
        if self.model.wrong_serial:
            return  # asleep for ever
        aggressive = self.slept < delays.aggressive_time
        delay = delays.aggressive if aggressive else delays.register
        self.slept += delay
        self.expect("register", now + delay * SECOND, "aggressive register" if aggressive else "register")

    def answered(self, now: int, reply: dict[str, Any]) -> None:
        if self.kind == "register":
            self.expect("claim", now, "at once")
            return
        model = self.model
        model.claimed = reply["claimed"]
        if model.mode.forced or model.mode.discovery or model.claimed:
            model.session.start(now)
        if model.mode.discovery and not model.claimed:
            model.push.begin(now, model.delays.first_discovery)
        model.started = True


class Push(Actor):
    """A discovery request, and the period that it opens."""

    seconds = 0

    def begin(self, now: int, seconds: int) -> None:
        self.seconds = seconds
        self.expect("discovery", now, "at once")

    def failed(self, now: int) -> None:
        pass  # a period that is open stays as it is

    def answered(self, now: int, reply: dict[str, Any]) -> None:
        self.model.period.open(now, self.seconds)


class Period(Actor):
    """The discovery period. Its deadline is in whole seconds of uptime; 0: there is none."""

    deadline = 0

    def open(self, now: int, seconds: int) -> None:
        was_open = self.deadline != 0
        self.deadline = max(self.deadline, now // SECOND + seconds)
        if was_open:
            return  # its thread sleeps on, up to the former deadline
        self._sleep(now)
        self.model.session.start(now)

    def failed(self, now: int) -> None:
        self.expect("claim", now + self.model.delays.claim * SECOND, "claim")

    def answered(self, now: int, reply: dict[str, Any]) -> None:
        self.model.claimed = reply["claimed"]
        if not self.model.claimed and now // SECOND < self.deadline:
            self._sleep(now)
            return
        self.deadline = 0
        if not self.model.claimed and not self.model.mode.forced:
            self.model.session.stop(now)

    def _sleep(self, now: int) -> None:
        self.expect("claim", now + (self.deadline - now // SECOND) * SECOND, "discovery period")


@dataclass
class Connection:
    number: int
    since: int  # the moment of the last heartbeat, or of its beginning
    heartbeat: int  # nanoseconds; 0: none
    answered: bool = True  # the last heartbeat

    def due(self) -> int | None:
        return self.since + self.heartbeat if self.heartbeat else None


class Session(Actor):
    """The broker session's thread."""

    running = False
    forever = False  # the advisor said: wait, and gave no time
    connecting: int | None = None
    connection: Connection | None = None
    closing: tuple[int, int] | None = None  # a connection that the agent must close now, and when
    heartbeat = 0

    def start(self, now: int) -> None:
        if not self.running:
            self.running = True
            self.expect("advisor", now, "at once")

    def stop(self, now: int) -> None:
        if not self.running:
            return
        if self.connection is not None:
            self.closing = self.connection.number, now
        self.running = self.forever = False
        self.due = self.connecting = self.connection = None
        self.model.wake_sleepers(now)

    def failed(self, now: int) -> None:
        self.expect("advisor", now + self.model.delays.advisor * SECOND, "advisor")

    def answered(self, now: int, reply: dict[str, Any]) -> None:
        if reply["_type"] == "ActionWait":
            self.forever = reply["period"] < 1
            if not self.forever:
                self.expect("advisor", now + reply["period"] * SECOND, "advised wait")
            return
        if "agentHeartbeat" in reply:
            self.heartbeat = int(reply["agentHeartbeat"]) * SECOND
        self.connecting = now
        if self.model.broker_refuses:
            self.lose(now)

    def lose(self, now: int) -> None:
        self.connecting = self.connection = None
        self.expect("advisor", now + self.model.delays.reconnect * SECOND, "reconnect")

    def opened(self, now: int, number: int) -> None:
        if self.connecting is None:
            raise Unexpected("a connection that nobody asked for")
        if not self.model.broker_stalls:
            self.model.check_time("connect", self.connecting, now)
        self.connecting = None
        self.connection = Connection(number, now, self.heartbeat)

    def beat(self, now: int, number: int) -> None:
        connection = self.connection
        if connection is None or connection.number != number or not connection.answered:
            raise Unexpected(f"a heartbeat in {connection}")
        self.model.check_time("heartbeat", connection.due(), now)
        connection.since = now
        connection.answered = self.model.broker_answers

    def ended(self, now: int, number: int, by: str) -> None:
        if self.closing is not None and self.closing[0] == number:
            self.model.check_time("close", self.closing[1], now)
            self.closing = None
        elif self.connection is not None and self.connection.number == number:
            if by.startswith("lab"):
                self.lose(now)
            else:
                self.give_up(now)
                self.closing = None
        elif self.connecting is not None:
            self.lose(now)

    def misses_heartbeat(self, now: int) -> bool:
        connection = self.connection
        return connection is not None and not connection.answered and abs(connection.due() - now) <= SLACK

    def give_up(self, now: int) -> None:
        """The agent closes by itself, which only a missing heartbeat makes it do, and asks again at once."""
        if not self.misses_heartbeat(now):
            raise Unexpected(f"the agent closes {self.connection}")
        self.model.checked["missing heartbeat"] += 1
        self.closing = self.connection.number, now
        self.connection = None
        self.expect("advisor", now, "missing heartbeat")

    def check(self, now: int) -> None:
        if self.closing is not None and self.closing[1] + SLACK < now:
            raise Unexpected(f"connection {self.closing[0]} is not closed")
        if self.connecting is not None and self.connecting + SLACK < now and not self.model.broker_stalls:
            raise Unexpected(f"no connection since {self.connecting}")
        due = self.connection.due() if self.connection is not None else None
        if due is not None and due + SLACK < now:
            raise Unexpected(f"no heartbeat, or no end without one, in {self.connection}")


class Model:
    def __init__(self, delays: Delays, mode: Mode, claimed: bool) -> None:
        self.delays = delays
        self.mode = mode
        self.claimed = claimed
        self.started = False  # start-up is over
        self.checked: Counter[str] = Counter()
        self.unseen = 0  # attempts that reach nobody: checked only by when the next one that does comes
        self.broker_refuses = self.broker_stalls = False
        self.broker_answers = True  # heartbeats
        self.unreachable_since: int | None = None
        self.wrong_serial = False  # the cloud refuses the device for good
        self.paused = False
        self.start_up, self.push, self.period = StartUp(self), Push(self), Period(self)
        self.session = Session(self)
        self.actors: list[Actor] = [self.start_up, self.push, self.period, self.session]
        self._held: list[list[int | None]] = []  # when requests had to wait: begin and end
        self._late: tuple[Actor, int] | None = None  # the request under way, and its time-out

    # What the driver does.

    def interrupt(self, now: int) -> None:
        self.wake_sleepers(now)
        if self.session.forever:
            self.session.forever = False
            self.session.expect("advisor", now, "woken")

    def wake_sleepers(self, now: int) -> None:
        for actor in self.actors:
            actor.wake(now)

    def pause(self, now: int) -> None:
        self.session.stop(now)
        if not self.paused:
            self.paused = True
            self._held.append([now, None])

    def resume(self, now: int) -> None:
        if self.paused:
            self.paused = False
            self._release(now)
        self.wake_sleepers(now)
        if self.mode.forced or self.claimed or now // SECOND < self.period.deadline:
            self.session.start(now)

    def claim(self, now: int) -> None:
        self.session.start(now)
        self.claimed = True

    def release(self, now: int) -> None:
        if self.mode.discovery:
            if self.paused:
                return
            self.push.begin(now, self.delays.claim_check)
            self.session.start(now)
        elif not self.mode.forced:
            self.session.stop(now)
        self.claimed = False

    def send_discovery(self, now: int, seconds: int) -> None:
        if self.mode.discovery and not self.paused:
            self.push.begin(now, seconds or self.delays.claim_check)

    def cloud_refuses(self, now: int) -> None:
        self.unreachable_since = now

    def cloud_accepts(self, now: int) -> None:
        self.pass_time(now)
        self.unreachable_since = None

    # What the lab sees.

    def request(self, kind: str, now: int) -> Actor:
        """A request has arrived."""
        self.pass_time(now)
        if kind == "advisor" and self.session.misses_heartbeat(now):
            self.session.give_up(now)  # the lab may see the end of the connection later
        actor = next((actor for actor in self.actors if actor.due is not None and actor.kind == kind), None)
        if actor is None or not self._may_come(actor.due, now):
            raise Unexpected(f"{kind} request at {now}; due: {self.describe()}")
        self.checked[actor.why] += 1
        actor.due = None
        return actor

    def late_request(self, kind: str, now: int) -> None:
        """A request that is not answered yet."""
        self._late = self.request(kind, now), now + self.delays.time_out * SECOND
        self._held.append([now, None])

    def late_answer(self, now: int, reply: dict[str, Any] | None) -> None:
        self.pass_time(now)
        if self._late is not None:
            actor, _ = self._late
            self._late = None
            self._release(now)
            self._answer(actor, now, reply)

    def exchange(self, kind: str, now: int, reply: dict[str, Any] | None) -> None:
        """A request and its answer, None for one that is a failure."""
        self._answer(self.request(kind, now), now, reply)

    # Time.

    @property
    def late_until(self) -> int | None:
        return self._late[1] if self._late is not None else None

    def near_due(self, now: int) -> bool:
        """Would it be open what comes first, something that is due or something that the driver does now?"""
        moments = [actor.due for actor in self.actors] + [self.late_until]
        if self.session.connection is not None:
            moments.append(self.session.connection.due())
        return any(moment is not None and abs(moment - now) < 4 * SLACK for moment in moments)

    def check_time(self, what: str, expected: int | None, now: int) -> None:
        if expected is None or abs(expected - now) > SLACK:
            raise Unexpected(f"{what} at {now}, due at {expected}")
        self.checked[what] += 1

    def check(self, now: int) -> None:
        """Nothing that was due by now is missing."""
        self.pass_time(now)
        for actor in self.actors:
            moment = self._free(actor.due)
            if moment is not None and moment + SLACK < now:
                raise Unexpected(f"{actor.kind} request is missing at {now}: {self.describe()}")
        self.session.check(now)

    def pass_time(self, now: int) -> None:
        """Lets fail, in their order, the requests of which the lab sees nothing."""
        while (failure := self._next_unseen(now)) is not None:
            moment, actor = failure
            if self._late is not None and actor is self._late[0]:
                self._late = None
                self._release(moment)
                self.checked["time-out"] += 1
            else:
                self.unseen += 1
            actor.due = None
            actor.failed(moment)

    def describe(self) -> str:
        dues = [f"{actor.kind} {actor.due} ({actor.why})" for actor in self.actors if actor.due is not None]
        session = {name: value for name, value in vars(self.session).items() if name != "model"}
        return f"{', '.join(dues) or 'nothing'}; held {self._held[-3:]}; session {session}"

    def _next_unseen(self, now: int) -> tuple[int, Actor] | None:
        failures = []
        if self._late is not None and self._late[1] <= now:
            failures.append((self._late[1], self._late[0]))
        if self.unreachable_since is not None:
            for actor in self.actors:
                moment = self._free(actor.due)
                if moment is not None and moment <= now:
                    failures.append((moment, actor))
        return min(failures, key=lambda failure: failure[0], default=None)

    def _answer(self, actor: Actor, now: int, reply: dict[str, Any] | None) -> None:
        if reply is None:
            actor.failed(now)
        else:
            actor.answered(now, reply)

    def _release(self, now: int) -> None:
        for interval in self._held:
            if interval[1] is None:
                interval[1] = now

    def _free(self, due: int | None) -> int | None:
        """When a request that is due then can be made; None when that is open."""
        moments = self._chances(due)
        return moments[-1] if moments else None

    def _chances(self, due: int | None) -> list[int | None]:
        moments = [due]
        while moments[-1] is not None:
            moment = moments[-1]
            over = [end for begin, end in self._held if begin <= moment + SLACK and (end is None or end > moment)]
            if not over:
                break
            moments.append(None if None in over else max(over))
        return moments

    def _may_come(self, due: int, now: int) -> bool:
        return any(moment is not None and abs(moment - now) <= SLACK for moment in self._chances(due))
