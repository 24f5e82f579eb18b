#!/usr/bin/python3
"""Years of the agent's life in minutes, on a virtual clock: every delay between two attempts against its setting.

life     A seeded life: days without any event, dropped sessions, a broker or a cloud that refuses, hangs or answers
         nonsense, advice to wait, heartbeats of seconds to weeks and their silence, claims and releases, discovery
         periods, pauses, signals, and a wall clock that jumps by years to and fro. What the agent does next is due at
         one moment that is known beforehand. Descriptors, threads and memory at the end are those of the first day.
wide     The longest times: an advised wait of 68 years, a discovery period and delays of decades, a heartbeat every
         100 days, on an uptime beyond 2^31 seconds.
clock    A device without a clock starts in 1970, when no certificate is valid yet: it tries in its delays, and the
         attempt after the wall clock was set succeeds, at the moment at which it was due anyway.
refused  A serial number that is refused for good: asleep for months, but for the control port.
"""

from __future__ import annotations

import math
import sys
import time
from collections.abc import Callable, Sequence
from dataclasses import replace
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

from support.rounds import Round, Tally, run, sanitizer  # noqa: E402  (found only now)
from support.virtual_clock import SECOND, build_shim  # noqa: E402
from orvel_lab import Reply  # noqa: E402
from orvel_lab.broker import PLANS  # noqa: E402
from yearly.model import Delays, Mode, Unexpected  # noqa: E402
from yearly.world import SERVICE, YEAR, World  # noqa: E402

DAY = 86400
LIVES, LONG_LIVES = 6, 30
SPAN, LONG_SPAN = YEAR // 2, 2 * YEAR  # of a life
CLOCKLESS, LONG_CLOCKLESS = 4, 20
REFUSED_DAYS, LONG_REFUSED_DAYS = 20, 365
QUIET_AT_FIRST, QUIET = DAY // 12, 10 * DAY  # the longest time without any event
GROWTH_KIB = 768  # since the first days; what OpenSSL, libcurl and the heap keep in reserve is there after a year
LATE_GROWTH_KIB = 192  # in the second half
MOST = 2**31 - 1
CHECKED = "checked: "
UPTIMES = (
    0.7,
    60,
    2**31 / 1000 - 3600,  # its milliseconds soon leave 31 bits
    2**32 / 1000 - 3600,
    2**31 - 20 * DAY,  # its seconds soon leave 31 bits
    2**32 - 20 * DAY,
)
Y2038 = 2**31
LATEST_WALL = 270 * YEAR  # the certificates are still valid then
WALLS = (0, Y2038 - 10 * DAY, Y2038 + DAY, 2**32 + DAY, 1_800_000_000)  # seconds since 1970


def log_uniform(this: Round, low: float, high: float) -> float:
    return math.exp(this.between(math.log(low), math.log(high)))


def some_seconds(this: Round, low: float, high: float) -> int:
    return round(log_uniform(this, low, high))


def random_delays(this: Round) -> Delays:
    return Delays(
        register=some_seconds(this, 1, 7200),
        aggressive=some_seconds(this, 1, 600),
        aggressive_time=this.random.choice([0, 1, 120, 1000]),
        claim=some_seconds(this, 1, 7200),
        advisor=some_seconds(this, 1, 7200),
        reconnect=some_seconds(this, 1, 7200),
        claim_check=some_seconds(this, 60, 20 * DAY),
        first_discovery=some_seconds(this, 1, 5 * DAY),
        time_out=some_seconds(this, 5, 100),
    )


def failures(this: Round, most: int) -> list[Reply]:
    """Answers that are failures, of any kind."""
    refusals = [Reply(500), Reply(404, "no"), Reply(200, "<html>")]
    bad = [*refusals, Reply(200, {"a": 1}, cut=10), Reply(200, end="reset", cut=0)]
    return [this.random.choice(bad) for _ in range(this.random.randrange(most + 1))]


class Life:
    """One seeded life. Each step is something that happens to the agent, and then a time in which nothing does."""

    def __init__(self, this: Round) -> None:
        self.this = this
        registered = this.chance(0.6)
        mode = Mode(registered, discovery=this.chance(0.7), forced=this.chance(0.3))
        uptime, wall = this.random.choice(UPTIMES), this.random.choice(WALLS)
        self.tls = this.chance(0.7)
        self.heartbeat = 0
        self.longest: float = QUIET
        self.world = World(
            this,
            random_delays(this),
            mode,
            int((uptime + this.between(0, 1)) * SECOND),
            int((wall + this.between(0, 1)) * SECOND),
            claimed=registered and this.chance(0.5),
            tls=self.tls,
        )
        self.steps = {
            self.nothing: 2,
            self.drop: 4,
            self.broker_outage: 2,
            self.cloud_outage: 2,
            self.bad_answers: 2,
            self.advised_wait: 2,
            self.late_answer: 2,
            self.bad_broker: 2,
            self.new_heartbeat: 3,
            self.silence: 2,
            self.discovery: 4,
            self.claim: 3,
            self.release: 2,
            self.pause: 2,
            self.interrupt: 1,
            self.wall_jump: 3,
        }

    def run(self, span: float) -> None:
        world = self.world
        with world:
            world.script("register", *failures(self.this, 12))
            world.script("claim", *failures(self.this, 4))
            world.begin()
            self.finish_start()
            first = self.first_days()
            middle = first
            while world.age < span:
                if middle is first and world.age > span / 2:
                    middle = self.calm()
                self.step()
            self.check_sizes(first, middle, self.calm())
            world.check_log_stamp()
            report(self.this, world)

    def finish_start(self) -> None:
        delays = self.delays
        while not self.world.model.started:
            self.wait(self.this.between(0.1, 3) * max(delays.register, delays.claim, delays.aggressive))
            if self.this.chance(0.3):
                self.wall_jump()
            if self.this.chance(0.1):
                self.interrupt()

    def first_days(self) -> dict[str, int]:
        """Each kind of step once, so that nothing is new later; gives the sizes then."""
        self.longest = QUIET_AT_FIRST
        for action in self.this.random.sample(list(self.steps), len(self.steps)):
            self.step(action)
        self.longest = QUIET
        return self.calm()

    def step(self, action: Callable[[], None] | None = None) -> None:
        self.world.keep_clear()
        (drawn,) = self.this.random.choices(list(self.steps), list(self.steps.values()))
        (action or drawn)()
        self.this.tally.counts["steps"] += 1
        self.wait(self.bound() * self.this.random.random() ** 2)

    # What happens.

    def nothing(self) -> None:
        self.wait(self.bound())

    def drop(self) -> None:
        self.world.drop()

    def broker_outage(self) -> None:
        self.world.refuse_broker(True)
        self.drop()
        self.wait(self.delays.reconnect * self.this.between(0.5, 12))
        self.world.refuse_broker(False)

    def cloud_outage(self) -> None:
        self.world.refuse_cloud(True)
        self.drop()
        often = 300 * min(self.delays.advisor, self.delays.claim)
        self.wait(min(self.delays.reconnect + self.delays.advisor * self.this.between(0.5, 20), often))
        self.world.refuse_cloud(False)

    def bad_answers(self) -> None:
        for kind in ("advisor", "claim", "discovery"):
            self.world.script(kind, *failures(self.this, 5))
        self.drop()

    def advised_wait(self) -> None:
        period = self.this.random.choice([0, 1, some_seconds(self.this, 1, 40 * DAY), some_seconds(self.this, 1, DAY)])
        self.world.script("advisor", Reply(200, {"_type": "ActionWait", "period": period}))
        self.drop()

    def late_answer(self) -> None:
        world = self.world
        if world.late is not None or world.model.paused:
            return
        world.script_late()
        self.drop()
        self.wait(self.delays.reconnect + self.delays.time_out * self.this.between(0.1, 1.5))
        world.release_late()
        world.lab.cloud.forget_scripts()

    def bad_broker(self) -> None:
        kind = self.this.random.choice([plan for plan in PLANS if self.tls or plan != "stall"])
        self.world.plan_broker(kind)
        self.drop()
        self.wait(self.delays.reconnect * self.this.between(1, 4))
        self.world.forget_plans()

    def new_heartbeat(self) -> None:
        short, long = some_seconds(self.this, 1, 3600), some_seconds(self.this, 1, 40 * DAY)
        self.heartbeat = self.this.random.choice([0, 0, short, long])
        self.world.advise_heartbeat(self.heartbeat)
        self.drop()

    def silence(self) -> None:
        if self.heartbeat == 0:
            return
        self.world.answer_heartbeats(False)
        self.wait(min(self.heartbeat * self.this.between(0.5, 6), 5 * self.longest))
        self.world.answer_heartbeats(True)

    def discovery(self) -> None:
        """One push, or several: the longest of them counts, but the thread looks at that when the first is over."""
        for _ in range(self.this.random.choice([1, 3])):
            self.world.keep_clear()
            short, long = some_seconds(self.this, 1, 3600), some_seconds(self.this, 1, 30 * DAY)
            seconds = self.this.random.choice([0, short, long])
            self.world.model.send_discovery(self.world.now, seconds)
            self.world.command("send_discovery", service=SERVICE, discovery_time=seconds)

    def claim(self) -> None:
        self.world.lab.cloud.claim()
        if self.this.chance(0.7):
            self.tell_of_claim()

    def tell_of_claim(self) -> None:
        self.world.model.claim(self.world.now)
        self.world.command("on_claim", service=SERVICE, claimed=True)

    def release(self) -> None:
        self.world.lab.cloud.release()
        if self.this.chance(0.7):
            self.world.model.release(self.world.now)
            self.world.command("on_release", service=SERVICE, claimed=False)

    def pause(self) -> None:
        self.world.model.pause(self.world.now)
        self.world.command("pause_connections")
        self.wait(self.bound() * self.this.random.random() ** 3)
        self.resume()

    def resume(self) -> None:
        self.world.model.resume(self.world.now)
        self.world.command("resume_connections")

    def interrupt(self) -> None:
        self.world.interrupt()

    def wall_jump(self) -> None:
        """Far away, and mostly back after some time in which the agent sleeps."""
        world = self.world
        if self.this.chance(0.5):
            self.drop()
        before = world.clock.wall
        years = self.this.random.choice([10, -10, self.this.random.choice([1, -1, 30, -30, 60])])
        there = before + years * YEAR * SECOND if self.this.chance(0.9) else (Y2038 - 60) * SECOND
        world.jump_wall(min(max(there, 0), LATEST_WALL * SECOND))
        self.this.tally.counts["wall clock jumps"] += 1
        if self.this.chance(0.2):
            world.check_log_stamp()
        if self.this.chance(0.7):
            self.wait(self.delays.reconnect * self.this.random.random())
            world.jump_wall(before)
            self.this.tally.counts["wall clock jumps"] += 1

    # How long.

    def wait(self, seconds: float) -> None:
        self.world.run(max(seconds, 0.001))
        self.world.keep_clear()

    @property
    def delays(self) -> Delays:
        return self.world.model.delays

    def bound(self) -> float:
        """So long that not too much happens in it."""
        session = self.world.model.session
        return min(30 * self.heartbeat, self.longest) if self.heartbeat and session.running else self.longest

    # What is left.

    def calm(self) -> dict[str, int]:
        """Brings the agent into a plain session, and counts."""
        world = self.world
        world.lab.cloud.forget_scripts()
        self.heartbeat = 0
        world.advise_heartbeat(0)
        world.lab.cloud.claim()
        self.tell_of_claim()
        self.resume()
        for _ in range(3):
            self.wait(1)
            self.interrupt()
        self.drop()
        self.wait(world.model.delays.reconnect + 1)
        model = world.model
        if model.session.connection is None or model.session.connection.heartbeat or model.period.deadline:
            raise Unexpected(f"no plain session: {model.describe()}")
        return world.sizes()

    def check_sizes(self, first: dict[str, int], middle: dict[str, int], last: dict[str, int]) -> None:
        for what in ("descriptors", "threads"):
            if first[what] != last[what]:
                raise Unexpected(f"{what}: {last[what]}, on the first days {first[what]}")
        memory = [sizes["memory"] for sizes in (first, middle, last)]
        self.this.tally.measure("growth", memory[2] - memory[0])
        self.this.tally.measure("late growth", memory[2] - memory[1])
        if memory[2] - memory[0] > GROWTH_KIB or memory[2] - memory[1] > LATE_GROWTH_KIB:
            raise Unexpected(f"memory grew, in KiB: {memory}")


def report(this: Round, world: World) -> None:
    counts = this.tally.counts
    counts["seconds of " + this.name.partition("-")[0]] += int(world.age)
    counts["jumps"] += world.clock.jumps
    counts["timed waits"] += world.clock.timed_waits
    counts["unseen"] += world.model.unseen
    for name, number in world.model.checked.items():
        counts[CHECKED + name] += number


def life(this: Round) -> None:
    Life(this).run(LONG_SPAN if this.long else SPAN)


def wide(this: Round) -> None:
    """No more than four of the longest delays, one after the other: the clock has 63 bits of nanoseconds."""
    longest = Delays(MOST, MOST, MOST, MOST, MOST, MOST, MOST, first_discovery=MOST - 1, time_out=MOST)
    mode = Mode(registered=False, discovery=True, forced=True)
    with World(this, longest, mode, (2**30 + 1) * SECOND, 50 * YEAR * SECOND) as world:
        world.script("register", Reply(500))
        world.script("advisor", Reply(200, {"_type": "ActionWait", "period": MOST}), Reply(500))
        world.begin()
        world.advise_heartbeat(100 * DAY)
        decades(world, 22)
        world.answer_heartbeats(False)
        decades(world, 1)
        report(this, world)
        wanted = {"aggressive register": 1, "advised wait": 1, "discovery period": 1, "advisor": 1, "heartbeat": 50}
        missing = {name for name, number in wanted.items() if world.model.checked[name] < number}
        assert not missing and world.model.checked["missing heartbeat"] > 10, world.model.describe()


def decades(world: World, number: int) -> None:
    for _ in range(number * 10):
        world.run(YEAR)
        world.clock.set_wall(50 * YEAR * SECOND)  # the certificates would not last


def clock(this: Round) -> None:
    aggressive = {"aggressive": some_seconds(this, 5, 600), "aggressive_time": some_seconds(this, 1, 1000)}
    delays = replace(random_delays(this), **aggressive)
    mode = Mode(registered=this.chance(0.5), discovery=False, forced=True)
    wall = this.random.randrange(DAY) * SECOND
    with World(this, delays, mode, 40 * SECOND, wall, authority=this.authority) as world:
        world.begin()
        delay = delays.claim if mode.registered else delays.register
        world.run(delays.aggressive_time + delays.aggressive + 20 * delay)
        failed = sum(world.model.checked.values())
        assert failed >= 20 and not world.model.started, world.model.describe()
        world.keep_clear()
        world.jump_wall(time.time_ns())
        world.run(delay + 1)
        assert world.model.session.connection is not None, world.model.describe()
        report(this, world)


def refused(this: Round) -> None:
    mode = Mode(registered=False, discovery=False, forced=False)
    with World(this, random_delays(this), mode, SECOND, 40 * YEAR * SECOND) as world:
        world.script("register", Reply.wrong_serial_number())
        world.model.wrong_serial = True
        world.begin()
        for _ in range(LONG_REFUSED_DAYS if this.long else REFUSED_DAYS):
            world.run(DAY * this.between(0.9, 1))
            world.interrupt()
            assert world.command("resume_connections") == 0
        report(this, world)


def names(long: bool) -> Sequence[str]:
    lives = [f"life-{number}" for number in range(LONG_LIVES if long else LIVES)]
    clocks = [f"clock-{number}" for number in range(LONG_CLOCKLESS if long else CLOCKLESS)]
    return [*lives, "wide-0", *clocks, "refused-0"]


def summary(tally: Tally) -> str:
    counts, highest = tally.counts, tally.highest
    checked = {name[len(CHECKED) :]: number for name, number in counts.items() if name.startswith(CHECKED)}
    by_number = sorted(checked, key=checked.get, reverse=True)
    each = ", ".join(f"{checked[name]} {name}" for name in by_number)
    return (
        f"{counts['seconds of life'] / YEAR:.1f} years of lives with {counts['steps']} events, "
        f"{counts['seconds of wide'] / YEAR:.0f} years of long delays, "
        f"{counts['seconds of clock'] / DAY:.1f} days without a clock, "
        f"{counts['seconds of refused'] / DAY:.0f} days refused; {counts['jumps']} jumps of the clock, "
        f"{counts['wall clock jumps']} of the wall clock, {sum(checked.values())} moments checked ({each}), "
        f"{counts['unseen']} attempts at an unreachable cloud; "
        f"growth {highest.get('growth', 0):.0f} KiB of {GROWTH_KIB}, "
        f"in the second half {highest.get('late growth', 0):.0f} of {LATE_GROWTH_KIB}"
    )


if __name__ == "__main__":
    if sanitizer():
        sys.exit("years: needs an agent without sanitizers")
    build_shim()
    sys.exit(run("years", __doc__, names, {"life": life, "wide": wide, "clock": clock, "refused": refused}, summary))
