#!/usr/bin/python3
"""An hour of accelerated life (in short: 40 seconds), in which nothing may grow.

Messages flow to all three kinds of handlers. Beside them, twice a second, something happens: the broker drops the
session or treats the next connection badly, the cloud refuses or stalls, local programs pause, resume, claim, release,
announce or talk nonsense, settings change, state is reported, sleeps are ended, and big messages come. The claim is
checked each second, and the log is so small that it rotates all the time.

Each second memory (what the process has of its own in it), descriptors, threads and zombies are counted. From the tenth
minute (in short: second) on the line that is fitted to each course by least squares may rise by BOUNDS in all. The
picture of it is docs/soak.svg in the long run, otherwise soak.svg in the build folder, where the numbers are too.
"""

from __future__ import annotations

import contextlib
import resource
import signal
import sys
import threading
import time
from collections.abc import Callable
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

from support import processes  # noqa: E402  (found only now)
from support.builds import FOLDER  # noqa: E402
from support.life import Life  # noqa: E402
from support.plot import Course, Line, draw, fit  # noqa: E402
from support.rounds import PROJECT, Round, Tally, run, sanitizer  # noqa: E402
from orvel_lab import Reply, Session  # noqa: E402
from orvel_lab.broker import PLANS  # noqa: E402
from orvel_lab.channel import ChannelEnded  # noqa: E402

SECONDS, LONG_SECONDS = 40, 3600
SETTLED, LONG_SETTLED = 10, 600
PERIOD = 1.0  # between two samples
GAP = 0.05  # between two messages to the same handler
ACTION_GAP = 0.5
LOG_SIZE, LOG_COUNT = "64K", "3"
SERVICE = "demo"
BIG = 300_000  # bytes
DESCRIPTORS = 65536  # the lab keeps some for each session that there has been

# How much each may rise along the fitted line: in the short run, whose few samples say little, and in the long one. The
# least that can be lost there, 32 bytes in each delivery, would be 5 MiB in an hour; 128 bytes in each session 300 KiB.
BOUNDS = {
    "memory, KiB": (512, 192),
    "descriptors": (4, 0.5),
    "threads": (2, 0.25),
    "zombies": (1, 0.1),
}


class Sampler:
    """Counts once each period on a thread of its own; used by `with`."""

    def __init__(self, pid: int, log_file: Path) -> None:
        self.times: list[float] = []
        self.values: dict[str, list[float]] = {name: [] for name in BOUNDS}
        self.rotations = 0
        self._pid = pid
        self._log_file = log_file
        self._log_seen = 0
        self._over = threading.Event()
        self._begun = time.monotonic()
        self._thread = threading.Thread(target=self._follow, name="sampler")

    def __enter__(self) -> Sampler:
        self._thread.start()
        return self

    def __exit__(self, *_error: object) -> None:
        self._over.set()
        self._thread.join()

    @property
    def seconds(self) -> float:
        return time.monotonic() - self._begun

    def write(self, path: Path) -> None:
        rows = zip(self.times, *self.values.values())
        lines = ["seconds;" + ";".join(self.values), *(";".join(f"{value:g}" for value in row) for row in rows)]
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text("\n".join(lines) + "\n")

    def _follow(self) -> None:
        while not self._over.wait(max(0.0, len(self.times) * PERIOD - self.seconds)):
            with contextlib.suppress(OSError):  # the agent has ended: the other thread sees that
                self._sample()

    def _sample(self) -> None:
        counts = [
            processes.resident_kib(self._pid),
            len(processes.descriptors(self._pid)),
            processes.threads(self._pid),
            len(processes.zombies(self._pid)),
        ]
        self.times.append(self.seconds)
        for name, count in zip(BOUNDS, counts):
            self.values[name].append(count)
        with contextlib.suppress(FileNotFoundError):  # just being rotated
            number = self._log_file.stat().st_ino
            self.rotations += number != self._log_seen
            self._log_seen = number


class Soak:
    def __init__(self, this: Round) -> None:
        self.this = this
        self.actions: dict[str, Callable[[], None]] = {
            "drops": self._drop,
            "bad welcomes": self._welcome_badly,
            "bad answers": self._answer_badly,
            "pauses": self._pause,
            "claims": self._claim,
            "announcements": self._announce,
            "nonsense requests": self._talk_nonsense,
            "state reports": lambda: self.agent.signal(signal.SIGUSR2),
            "ended sleeps": lambda: self.agent.signal(signal.SIGUSR1),
            "settings": self._change_setting,
            "big messages": self._send_big,
        }

    def run(self, seconds: float, settled: float) -> None:
        settings = {"q_use_discovery": "1", "q_claim_check": "1", "q_qbroker_delay": "0", "q_http_request_timeout": "3"}
        options = {"registered": True, "claimed": True, "authority": self.this.authority, "settings": settings}
        with Life(self.this.folder / "lab", GAP, **options) as self.life:
            self.lab = self.life.lab
            self._add_handlers()
            small_log = ["--log_file_size", LOG_SIZE, "--log_file_cnt", LOG_COUNT, "--disable_console"]
            self.agent = self.life.start(*small_log, "--service_id", SERVICE, "--discovery_time", "1")
            self.life.probe()
            with Sampler(self.agent.pid, self.agent.log_file) as sampler:
                while sampler.seconds < seconds:
                    self._act()
            self._settle()
            self.life.probe()
            self.life.calm()
            self.this.tally.counts["messages"] += self.life.check_delivery(complete=False)
            self.this.tally.counts["sessions"] += len(self.lab.broker.sessions)
            self.this.tally.counts["rotations"] += sampler.rotations
            self.this.tally.counts["requests to the cloud"] += len(self.lab.cloud.requests())
            assert self.agent.stop() == 0
        self._judge(sampler, settled)

    def _add_handlers(self) -> None:
        """`big` reads all and keeps nothing; `other` leads somewhere else each time."""
        program = self.lab.folder / "handler-big"
        program.write_text("#!/bin/sh\nexec cat > /dev/null\n")
        program.chmod(0o755)
        self.lab.settings["q_handler_big"] = str(program)
        closed = self.lab.reserve_port()
        self.endpoints = [str(program), f"127.0.0.1:{closed}", "/nonexistent/program", "/etc/passwd", "no endpoint"]

    # What happens.

    def _act(self) -> None:
        assert self.agent.running, f"it has ended with {self.agent.returncode}\n{self.agent.log_file_text[-8000:]}"
        begun = time.monotonic()
        name = self.this.random.choice(list(self.actions))
        with contextlib.suppress(ChannelEnded, OSError):  # a session that has ended meanwhile
            self.actions[name]()
            self.this.tally.counts[name] += 1
        time.sleep(max(0.0, begun + ACTION_GAP - time.monotonic()))
        self._settle()

    def _settle(self) -> None:
        """Behaves well again."""
        self.lab.broker.forget_plans()
        self.lab.cloud.forget_scripts()

    def _session(self) -> Session:
        session = self.life.identified()
        if session is None:
            raise ChannelEnded
        return session

    def _drop(self) -> None:
        session = self._session()
        self.this.random.choice([session.close, session.cut, session.reset])()

    def _welcome_badly(self) -> None:
        self.lab.broker.plan(self.this.random.choice(PLANS), data=b"\x00garbage")
        self._drop()

    def _answer_badly(self) -> None:
        """As it takes a new session to ask for anything but the claim, the session goes, too."""
        kind = self.this.random.choice(["advisor", "claim", "discovery"])
        bad = [Reply(500), Reply(200, "nonsense"), Reply(200, end="reset"), Reply(200, cut=10), Reply(500, delay=0.3)]
        self.lab.cloud.script(kind, self.this.random.choice(bad))
        self._drop()

    def _pause(self) -> None:
        self._command("pause_connections")
        time.sleep(self.this.between(0, 0.2))
        self._command("resume_connections")

    def _claim(self) -> None:
        self.lab.cloud.release()
        self._command("on_release", service=SERVICE, claimed=False)
        self.lab.cloud.claim()
        self._command("on_claim", service=SERVICE, claimed=True)

    def _announce(self) -> None:
        self._command("send_discovery", service=SERVICE, discovery_time=1)

    def _command(self, name: str, **members) -> None:
        self.agent.control.command(name, **members)

    def _talk_nonsense(self) -> None:
        nonsense = [b"", b"{", b"[]", b'{"command": "unknown"}', b"\x00" * 1000, b'{"command": ' + b"x" * 10_000]
        self.agent.control.exchange(self.this.random.choice(nonsense))
        self._session().send_message("agent", self.this.random.choice(nonsense))

    def _change_setting(self) -> None:
        self.lab.change_setting("q_handler_other", self.this.random.choice(self.endpoints))
        self._session().send_message("other", b"to whom it may concern")

    def _send_big(self) -> None:
        self._session().send_message("big", self.this.random.randbytes(BIG))

    # What must hold.

    def _judge(self, sampler: Sampler, settled: float) -> None:
        first = next(index for index, seconds in enumerate(sampler.times) if seconds >= settled)
        begin, end = sampler.times[first], sampler.times[-1]
        fits = {name: fit(sampler.times[first:], values[first:]) for name, values in sampler.values.items()}
        rises = {name: line.slope * (end - begin) for name, line in fits.items()}
        sampler.write(FOLDER / "soak.csv")
        _draw(FOLDER / "soak.svg", sampler, settled, fits)
        for name, rise in rises.items():
            self.this.tally.measure(name, rise)
        judged = {name: rise for name, rise in rises.items() if not (sanitizer() and name.startswith("memory"))}
        grown = {name: f"{rise:.2f} of {_bound(name, self.this.long)}" for name, rise in judged.items()
                 if rise > _bound(name, self.this.long)}
        assert not grown, f"it grows: {grown}; see {FOLDER / 'soak.csv'}"
        if self.this.long:
            _draw(PROJECT / "docs" / "soak.svg", sampler, settled, fits)
        self.this.tally.counts["samples"] += len(sampler.times)


def _bound(name: str, long: bool) -> float:
    return BOUNDS[name][long]


def _draw(path: Path, sampler: Sampler, settled: float, fits: dict[str, Line]) -> None:
    courses = [
        Course(f"{name}: {fits[name].slope * 3600:+.2f} an hour", values, fits[name])
        for name, values in sampler.values.items()
    ]
    title = f"{sampler.times[-1] / 60:.0f} minutes of accelerated life"
    draw(path, title, sampler.times, settled, courses)


def life(this: Round) -> None:
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(DESCRIPTORS, most) if most >= 0 else DESCRIPTORS, most))
    Soak(this).run(*((LONG_SECONDS, LONG_SETTLED) if this.long else (SECONDS, SETTLED)))


def summary(tally: Tally) -> str:
    measures = ", ".join(f"{name} {rise:+.2f}" for name, rise in tally.highest.items())
    counts = ", ".join(f"{count} {name}" for name, count in sorted(tally.counts.items()))
    return f"{counts}; rise along the fitted line: {measures}"


if __name__ == "__main__":
    sys.exit(run("soak", __doc__, lambda _long: ["life"], {"life": life}, summary))
