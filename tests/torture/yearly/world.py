"""The agent on a virtual clock, and the lab around it: what is done to it, and what the model hears of that."""

from __future__ import annotations

import contextlib
import json
import re
import signal
import threading
import time
from collections import deque
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

from support import processes
from support.rounds import Round
from support.virtual_clock import SECOND, VirtualClock
from orvel_lab import Authority, Event, Lab, Reply
from yearly.model import Delays, Mode, Model, Unexpected

YEAR = 365 * 86400
VALID_FROM, VALID_UNTIL = -25_000, 110_000  # days from now: certificates of more than three centuries
SERVICE = "demo"
LATE = "X-Late"
SESSION = re.compile(r"session (\d+): (opened|ended|heartbeat)(?:: | )(.*)")
LAST_EVENTS = 60

ENVIRONMENT = {"MALLOC_ARENA_MAX": "1", "TZ": "UTC"}


@dataclass(frozen=True)
class Seen:
    """One thing that happened: when, by the agent's wall clock too."""

    now: int
    wall: int
    event: Event


class LateReply(Reply):
    """Tells its world when the request has come; the answer waits for release()."""

    def __init__(self, body: Any, arrived: Callable[[], None]) -> None:
        super().__init__(200, body, {LATE: "1"}, stall=True)
        self.arrived = arrived

    def encode(self) -> bytes:
        self.arrived()
        return super().encode()


class World:
    """Used by `with`. Moments are nanoseconds of the agent's monotonic clock."""

    def __init__(
        self,
        this: Round,
        delays: Delays,
        mode: Mode,
        start: int,
        wall: int,
        claimed: bool = False,
        tls: bool = True,
        authority: Authority | None = None,
    ) -> None:
        self.this = this
        self.last: deque[str] = deque(maxlen=LAST_EVENTS)
        self._seen: deque[Seen] = deque()
        self.clock = VirtualClock(this.folder, start, wall)
        self.model = Model(delays, mode, claimed)
        self.start_moment = start
        certificate = authority.issue() if authority else None
        if authority is None:
            authority = Authority(this.folder / "authority", valid_from=VALID_FROM, valid_until=VALID_UNTIL)
            certificate = authority.issue(valid_from=VALID_FROM, valid_until=VALID_UNTIL)
        self.lab = Lab(
            this.folder / "lab",
            registered=mode.registered,
            claimed=claimed,
            tls=tls,
            authority=authority,
            broker_certificate=certificate if tls else None,
            cloud_certificate=certificate,
            settings=_settings(delays, mode),
            observer=self._note,
        )
        self.lab.event_sink.folder = None
        self.late: LateReply | None = None

    def __enter__(self) -> World:
        self.lab.start()
        return self

    def __exit__(self, kind: type | None, error: BaseException | None, _trace: object) -> None:
        if error is not None:
            error.add_note("\n".join([*self.last, f"due: {self.model.describe()}", self._log()]))
        self.clock.part()
        if self.late is not None:
            self.late.release()
        self.lab.broker.forget_plans()
        with contextlib.suppress(Exception) if error is not None else contextlib.nullcontext():
            self.lab.__exit__(None, None, None)
        self.clock.__exit__()

    def begin(self, *options: str) -> None:
        discovery = ["--service_id", SERVICE, "--discovery_time", str(self.model.delays.first_discovery)]
        log = ["--log_debug", "--disable_console", "--log_file_size", "64K", "--log_file_cnt", "2"]
        environment = {**ENVIRONMENT, **self.clock.environment}
        self.agent = self.lab.start_agent(*log, *discovery, *options, environment=environment)
        self.clock.meet()
        self.model.start_up.begin(self.clock.now)
        self.rest()

    @property
    def now(self) -> int:
        return self.clock.now

    @property
    def age(self) -> float:
        """Seconds of virtual time since the start."""
        return (self.now - self.start_moment) / SECOND

    # Time.

    def rest(self) -> None:
        """Lets happen what is due now, and checks it."""
        self.run(0)

    def run(self, seconds: float) -> None:
        """Lets that much time pass, and checks what happened."""
        self.clock.run_until(self.now + int(seconds * SECOND))
        while self._seen:
            self._tell_model(self._seen.popleft())
        self.model.check(self.now)

    def keep_clear(self) -> None:
        """Goes on to a moment at which nothing is about to be due."""
        while self.model.near_due(self.now):
            self.run(self.this.between(0.5, 1.5))

    # What is done to the agent.

    def say(self, what: str) -> None:
        self.last.append(f"{self.now:>24,} *** {what}")

    def drop(self) -> None:
        """The broker ends the session, if there is one."""
        session = self.lab.broker.current
        if session is None:
            return
        how = self.this.random.choice(["close", "cut", "reset"])
        self.say(f"session: {how}")
        getattr(session, how)()
        self.rest()

    def refuse_broker(self, refuses: bool) -> None:
        self.say(f"broker refuses: {refuses}")
        (self.lab.broker.refuse if refuses else self.lab.broker.accept)()
        self.model.broker_refuses = refuses

    def refuse_cloud(self, refuses: bool) -> None:
        self.say(f"cloud refuses: {refuses}")
        if refuses:
            self.lab.cloud.refuse()
            self.model.cloud_refuses(self.now)
        else:
            self.model.cloud_accepts(self.now)
            self.lab.cloud.accept()

    def plan_broker(self, kind: str) -> None:
        self.say(f"broker plan: {kind}")
        self.lab.broker.plan(kind, data=b"\x00garbage")
        self.model.broker_stalls = kind == "stall"

    def forget_plans(self) -> None:
        self.say("broker keeps to no plan")
        self.lab.broker.forget_plans()
        self.rest()
        self.model.broker_stalls = False

    def answer_heartbeats(self, answers: bool) -> None:
        self.say(f"heartbeats are answered: {answers}")
        self.lab.broker.answer_heartbeats = self.model.broker_answers = answers

    def advise_heartbeat(self, seconds: int) -> None:
        self.say(f"heartbeat: {seconds}")
        self.lab.cloud.advise_connect(self.lab.broker_host, self.lab.broker.port, b"lab-token", heartbeat=seconds)

    def script(self, kind: str, *replies: Reply) -> None:
        self.say(f"{len(replies)} scripted replies to {kind}")
        self.lab.cloud.script(kind, *replies)

    def script_late(self) -> None:
        """The next answer of the advisor comes when release_late() is called."""
        arrived = Event("cloud", "late", {"kind": "advisor"})
        self.late = LateReply(self.lab.cloud.advice, lambda: self._note(arrived))
        self.script("advisor", self.late)

    def release_late(self) -> None:
        self.say("the late answer")
        self.late.release()
        self.late = None
        self.rest()

    def interrupt(self) -> None:
        self.say("SIGUSR1")
        self.model.interrupt(self.now)
        self.agent.signal(signal.SIGUSR1)
        self.rest()

    def command(self, name: str, **members: Any) -> int:
        """A request at the control port. The clock may run on by a second, for what waits for that."""
        self.say(f"{name} {members or ''}")
        results: list[int] = []
        client = threading.Thread(target=lambda: results.append(self.agent.control.command(name, **members)))
        client.start()
        self.run(1)
        client.join(5)
        if not results:
            raise Unexpected(f"no reply to {name}")
        return results[0]

    def jump_wall(self, wall: int) -> None:
        self.say(f"wall clock: {wall // SECOND}")
        self.clock.set_wall(wall)

    # Counting.

    def sizes(self) -> dict[str, int]:
        pid = self.agent.pid
        return {
            # The shim has one event descriptor for each thread that has polled; the agent has none.
            "descriptors": sum("eventfd" not in what for what in processes.descriptors(pid).values()),
            "threads": processes.threads(pid),
            "memory": processes.resident_kib(pid),
        }

    def check_log_stamp(self) -> None:
        """The log's stamps are the wall clock's, whatever the year."""
        self.say("SIGUSR2")
        wall = self.clock.wall
        self.agent.signal(signal.SIGUSR2)
        self.rest()
        stamp = time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(wall // SECOND))
        last = self.agent.log_file_text.splitlines()[-1]
        if not last.startswith(stamp):
            raise Unexpected(f"the log's stamp is not {stamp}: {last}")
        self.model.checked["log stamp"] += 1

    # What the lab tells, on its threads; the clock stands still meanwhile.

    def _note(self, event: Event) -> None:
        self._seen.append(Seen(self.clock.now, self.clock.wall, event))

    def _tell_model(self, seen: Seen) -> None:
        self.last.append(f"{seen.now:>24,} {seen.event.source}: {seen.event.summary[:60]}")
        if seen.event.source == "cloud":
            self._tell_cloud(seen)
        elif seen.event.source == "broker":
            self._tell_broker(seen)

    def _tell_cloud(self, seen: Seen) -> None:
        details = seen.event.details
        if seen.event.summary.startswith("TLS failed"):
            self.model.exchange("claim" if self.model.mode.registered else "register", seen.now, None)
        elif seen.event.summary == "late":
            self.model.late_request(details["kind"], seen.now)
        elif "answer" in details:
            reply = _reply(details["kind"], details["answer"])
            if f"{LATE}:" in details["answer"]:
                self.model.late_answer(seen.now, reply)
            else:
                self.model.exchange(details["kind"], seen.now, reply)

    def _tell_broker(self, seen: Seen) -> None:
        found = SESSION.match(seen.event.summary)
        if found is None or seen.event.details.get("direction") == "out":
            return
        number, what, rest = int(found[1]), found[2], found[3]
        if what == "opened":
            self.model.session.opened(seen.now, number)
        elif what == "ended":
            self.model.session.ended(seen.now, number, rest)
        elif clock := re.match(r"\d+, clock (-?\d+)", rest):
            self.model.session.beat(seen.now, number)
            if int(clock[1]) != seen.wall // SECOND:
                raise Unexpected(f"a heartbeat's clock is {clock[1]}, not {seen.wall // SECOND}")

    def _log(self) -> str:
        return self.agent.log_file_text[-1500:] if self.lab.agents else ""


def _settings(delays: Delays, mode: Mode) -> dict[str, str]:
    values = {
        "q_register_delay": delays.register,
        "q_register_aggressive_delay": delays.aggressive,
        "q_register_aggressive_time": delays.aggressive_time,
        "q_claim_delay": delays.claim,
        "q_advisor_delay": delays.advisor,
        "q_qbroker_delay": delays.reconnect,
        "q_claim_check": delays.claim_check,
        "q_http_request_timeout": delays.time_out,
        "q_http_connect_timeout": 5 * delays.time_out,
        "q_use_discovery": int(mode.discovery),
        "q_force_connection": int(mode.forced),
    }
    return {key: str(value) for key, value in values.items()}


def _reply(kind: str, answer: str) -> dict[str, Any] | None:
    """The document of an answer that is no failure."""
    head, _, body = answer.partition("\r\n\r\n")
    status = head.split(" ")[1:2]
    if status != ["201" if kind == "register" else "200"]:
        return None
    if kind == "discovery":
        return {} if f"Content-Length: {len(body)}\r\n" in head + "\r\n" else None  # whatever it says
    try:
        return json.loads(body)
    except ValueError:
        return None
