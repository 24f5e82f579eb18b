#!/usr/bin/python3
"""Pause, resume, claim and release from four clients at once, while the broker drops sessions and the cloud stalls.

A round is one command from each client at the same time; in some the broker sends the agent such a command, too. Most
begin with a session, the others with what the round before has left. At a random instant the broker drops the session,
or treats the next connection badly; one answer of the cloud may be late, up to the agent's own time-out. No deadlock:
each reply comes within the time-out of HTTP requests and 5 seconds more.

After every so many rounds all is calm: then a resume gives a connected session that delivers messages, and threads,
descriptors and (without sanitizers) the memory in use are what they were: RssAnon, what the process has of its own in
memory, may grow by GROWTH_KIB from the second quarter of the calm moments to the last one. The log is small, so that
its rotation and compression are part of all this from the beginning.
"""

from __future__ import annotations

import contextlib
import json
import sys
import threading
import time
from pathlib import Path
from statistics import mean

sys.path.insert(0, str(Path(__file__).resolve().parent))

from support import processes  # noqa: E402  (found only now)
from support.life import Life  # noqa: E402
from support.rounds import Round, Tally, run, sanitizer  # noqa: E402
from orvel_lab import DeadlinePassed, Reply, wait_until  # noqa: E402
from orvel_lab.broker import PLANS  # noqa: E402
from orvel_lab.channel import ChannelEnded  # noqa: E402

LIVES = 4  # one agent each, with settings of its own
ROUNDS, LONG_ROUNDS = 15, 500  # in each life
CALM_EVERY = {False: 5, True: 25}
REQUEST_TIMEOUT = 3  # seconds: the agent's setting
REPLY_SECONDS = REQUEST_TIMEOUT + 5
GROWTH_KIB = 256
LOG_SIZE = "64K"
SETTLE_SECONDS = 60
SESSION_SECONDS = 1  # that a round waits for one at most: a discovery period's end may have taken it away
SERVICE = "demo"
THREADS = 5 + (sanitizer() == "thread")  # first, orvel_main, control listener, broker session, delivery worker

COMMANDS = {
    "pause": {"command": "pause_connections"},
    "resume": {"command": "resume_connections"},
    "claim": {"command": "on_claim", "service": SERVICE, "claimed": True},
    "release": {"command": "on_release", "service": SERVICE, "claimed": False},
}
PAUSED = -10
RESULTS = {"pause": {0}, "resume": {0}, "claim": {0}, "release": {0, PAUSED}}

VARIANTS = [  # of the lives: TLS to the broker, settings
    (True, {}),
    (False, {"q_use_discovery": "1"}),
    (True, {"q_use_discovery": "1"}),
    (False, {"q_force_connection": "1"}),
]


class StopStart:
    def __init__(self, this: Round) -> None:
        self.this = this
        self.failures: list[str] = []
        self.memory: list[int] = []  # KiB, at each calm moment

    def run(self, number: int, rounds: int, calm_every: int) -> None:
        tls, settings = VARIANTS[number % len(VARIANTS)]
        settings = {**settings, "q_http_request_timeout": str(REQUEST_TIMEOUT), "q_qbroker_delay": "0"}
        options = {"registered": True, "claimed": True, "tls": tls, "authority": self.this.authority}
        with Life(self.this.folder / "lab", settings={**settings, "q_claim_check": "1"}, **options) as self.life:
            self.agent = self.life.start("--service_id", SERVICE, "--discovery_time", "1", "--log_file_size", LOG_SIZE)
            with self.life.hush():
                self._settle()
                self._wait_for_programs()
                self.descriptors = processes.descriptors(self.agent.pid)
            for round_number in range(1, rounds + 1):
                self._round()
                if round_number % calm_every == 0:
                    with self.life.hush():
                        self._calm(f"after round {round_number}")
            self.this.tally.counts["messages"] += self.life.check_delivery(complete=False)
            self.life.calm()
            self._check_memory()
            assert self.agent.stop() == 0

    # One round.

    def _round(self) -> None:
        """From whatever the round before has left, or from a session."""
        lab = self.life.lab
        if self.this.chance(0.6):
            self._command("claim")
            self._command("resume")
            with contextlib.suppress(DeadlinePassed):
                wait_until(self.life.identified, "a session", SESSION_SECONDS)
        late = self._plan_cloud()
        if self.this.chance(0.2):
            lab.broker.plan(self.this.random.choice(PLANS), data=b"\x00garbage")
        (lab.cloud.claim if self.this.chance(0.6) else lab.cloud.release)()
        names = list(COMMANDS)
        self.this.random.shuffle(names)
        if self.this.chance(0.5):
            names = self.this.random.choices(list(COMMANDS), k=len(COMMANDS))
        start = threading.Barrier(len(names) + 1)
        clients = [
            threading.Thread(target=self._client, args=(name, start, self.this.between(0, 0.02))) for name in names
        ]
        for client in clients:
            client.start()
        start.wait()
        self._disturb()
        if late is not None and self.this.chance(0.8):
            late.released.wait(self.this.between(0, 0.4))
            late.release()
        for client in clients:
            client.join()
        if late is not None:
            late.release()
            self.this.tally.counts["late answers"] += late.taken
        lab.cloud.forget_scripts()
        lab.broker.forget_plans()
        self.this.tally.counts["rounds"] += 1
        if self.failures:
            raise AssertionError("\n".join([*self.failures, self.life.situation()]))

    def _plan_cloud(self) -> Reply | None:
        """One bad answer at most: two that are late, one behind the other, would take twice the time-out."""
        cloud = self.life.lab.cloud
        device = cloud.devices[self.life.lab.hardware_id]
        bodies = {
            "advisor": cloud.advice,
            "claim": {"_type": "Device", "deviceId": device.id, "claimed": device.claimed},
            "discovery": {},
        }
        kind = self.this.random.choice(["advisor", "advisor", *bodies])
        if self.this.chance(0.1):
            cloud.script(kind, Reply(500, end=self.this.random.choice(["", "reset"])))
        elif self.this.chance(0.8):  # many of them nobody asks for
            late = Reply(200, bodies[kind], stall=True, stall_at=self.this.random.choice([0, 20]))
            cloud.script(kind, late)
            return late
        return None

    def _client(self, name: str, start: threading.Barrier, delay: float) -> None:
        start.wait()
        time.sleep(delay)
        begun = time.monotonic()
        try:
            result = self.agent.control.request(COMMANDS[name], REPLY_SECONDS)
        except (DeadlinePassed, OSError, ValueError) as error:
            self.failures.append(f"{name}: {error!r}")
            return
        seconds = time.monotonic() - begun
        self.this.tally.measure("reply", seconds)
        self.this.tally.counts[name] += 1
        if result not in RESULTS[name] or seconds > REPLY_SECONDS:
            self.failures.append(f"{name}: result {result} in {seconds:.2f} s")

    def _disturb(self) -> None:
        """The broker drops the session at a random instant, and may send the agent a command itself."""
        time.sleep(self.this.between(0, 0.03))
        session = self.life.identified()
        if session is None:
            return
        with contextlib.suppress(ChannelEnded, OSError, DeadlinePassed):
            if self.this.chance(0.3):
                name = self.this.random.choice(list(COMMANDS))
                session.send_message("agent", json.dumps(COMMANDS[name]).encode())
                self.this.tally.counts["by the broker"] += 1
            if self.this.chance(0.5):
                self.this.random.choice([session.close, session.cut, session.reset])()
                self.this.tally.counts["drops"] += 1

    # What must hold when all is calm.

    def _calm(self, when: str) -> None:
        self._settle()
        self._command("pause")
        session = self.life.identified()
        assert session is None or session.wait_ended(), when
        self._command("resume")
        self.life.probe()
        now = self._settled_descriptors()
        assert len(now) == len(self.descriptors), f"{when}: descriptors {now}, at the start {self.descriptors}"
        assert processes.threads(self.agent.pid) == THREADS, f"{when}: {processes.waits(self.agent.pid)}"
        self._wait_for_programs()
        self.memory.append(processes.resident_kib(self.agent.pid))
        self.this.tally.counts["resumes looked at"] += 1

    def _settle(self) -> None:
        """Waits for the end of what the rounds have begun.

        The end of a discovery period may stop the session once more, and a pause from the broker may still stand
        in the queue: therefore the resume is repeated.
        """
        self.life.lab.cloud.claim()
        limit = time.monotonic() + SETTLE_SECONDS
        while True:
            self._command("claim")
            self._command("resume")
            try:
                self.life.probe(SETTLE_SECONDS / 6)
                wait_until(self._at_rest, "the threads of a plain session", SETTLE_SECONDS / 12)
                return
            except DeadlinePassed as failure:
                if time.monotonic() > limit:
                    raise DeadlinePassed(f"it does not settle: {failure}\n{self.life.situation()}") from None

    def _at_rest(self) -> bool:
        return processes.threads(self.agent.pid) == THREADS and self.life.identified() is not None

    def _settled_descriptors(self) -> dict[int, str]:
        """Once there are as many as at the start: a delivery that is under way has some for a moment."""
        seen = [processes.descriptors(self.agent.pid)]

        def as_before() -> bool:
            seen[0] = processes.descriptors(self.agent.pid)
            return len(seen[0]) == len(self.descriptors)

        with contextlib.suppress(DeadlinePassed):
            wait_until(as_before, "as many descriptors as at the start", 10)
        return seen[0]

    def _wait_for_programs(self) -> None:
        wait_until(lambda: not processes.children(self.agent.pid), "the end of all handler programs, and no zombie")

    def _command(self, name: str) -> None:
        begun = time.monotonic()
        assert self.agent.control.request(COMMANDS[name], REPLY_SECONDS) == 0
        self.this.tally.measure("reply", time.monotonic() - begun)

    def _check_memory(self) -> None:
        """Means, as what is under way in other threads makes single values jump."""
        quarter = len(self.memory) // 4 or 1
        first, last = self.memory[quarter : 2 * quarter] or self.memory[:1], self.memory[-quarter:]
        growth = mean(last) - mean(first)
        self.this.tally.measure("growth in KiB", growth)
        assert sanitizer() or growth <= GROWTH_KIB, f"memory grows, in KiB: {self.memory}"


def life(this: Round) -> None:
    number = int(this.name.partition("-")[2])
    StopStart(this).run(number, LONG_ROUNDS if this.long else ROUNDS, CALM_EVERY[this.long])


def names(_long: bool) -> list[str]:
    return [f"life-{number}" for number in range(LIVES)]


def summary(tally: Tally) -> str:
    counts = tally.counts
    each = ", ".join(f"{counts[name]} {name}" for name in (*COMMANDS, "by the broker"))
    growth = f"{tally.highest['growth in KiB']:.0f} KiB of {GROWTH_KIB}"
    return (
        f"{counts['rounds']} rounds ({each}), {counts['drops']} drops, {counts['late answers']} late answers, "
        f"slowest reply {tally.highest['reply']:.2f} s of {REPLY_SECONDS}, {counts['resumes looked at']} resumes "
        f"looked at, {counts['messages']} messages, growth {'not judged' if sanitizer() else growth}"
    )


if __name__ == "__main__":
    sys.exit(run("stopstart", __doc__, names, {"life": life}, summary))
