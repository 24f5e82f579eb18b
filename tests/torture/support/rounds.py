"""Seeded rounds of an experiment, several processes at a time; each round can be replayed by its name."""

from __future__ import annotations

import argparse
import multiprocessing
import random
import sys
import tempfile
import time
import traceback
from collections import Counter
from collections.abc import Callable, Sequence
from concurrent.futures import ProcessPoolExecutor, as_completed
from dataclasses import dataclass, field
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[3] / "lab"))

from orvel_lab import Authority, DeadlinePassed  # noqa: E402  (found only now)
from orvel_lab.agent import default_binary  # noqa: E402

PROJECT = Path(__file__).resolve().parents[3]
LONGEST_REPORT = 12_000  # characters: a failure comes with the agent's whole log


@dataclass
class Tally:
    """What rounds have done: numbers to add up, and measures of which the highest counts."""

    counts: Counter[str] = field(default_factory=Counter)
    highest: dict[str, float] = field(default_factory=dict)

    def measure(self, name: str, value: float) -> None:
        self.highest[name] = max(value, self.highest.get(name, value))

    def add(self, other: Tally) -> None:
        self.counts += other.counts
        for name, value in other.highest.items():
            self.measure(name, value)


@dataclass
class Round:
    """One round: its name, its own source of chance, a folder that goes when it has ended, and its tally."""

    name: str
    random: random.Random
    folder: Path
    authority: Authority
    long: bool
    tally: Tally = field(default_factory=Tally)

    def chance(self, probability: float) -> bool:
        return self.random.random() < probability

    def between(self, low: float, high: float) -> float:
        return self.random.uniform(low, high)


Body = Callable[[Round], None]


def sanitizer() -> str:
    """The sanitizer that the agent is built with: "address", "thread", or none."""
    program = default_binary().read_bytes()
    if b"__tsan_init" in program:
        return "thread"
    return "address" if b"__asan_init" in program else ""


def run(
    experiment: str,
    description: str,
    names: Callable[[bool], Sequence[str]],
    bodies: dict[str, Body],
    summary: Callable[[Tally], str],
    workers: int = 4,
) -> int:
    """Runs the rounds that `names` gives for long or short mode; the part before "-" says which body they have.

    The last line is the summary. The first failing round is shown, with the command that repeats it. Gives the exit
    status.
    """
    options = _parse(description, workers)
    chosen = options.only or list(names(options.long))
    print(f"{experiment}: seed {options.seed}, {len(chosen)} rounds, agent {default_binary()}", flush=True)
    begun = time.monotonic()
    tally = Tally()
    with tempfile.TemporaryDirectory(prefix=f"orvel-{experiment}-") as folder:
        authority = Authority(Path(folder) / "authority")
        authority.issue()  # here, so that the workers find it
        for name, result in _results(chosen, bodies, options, Path(folder), authority):
            if isinstance(result, str):
                print(result)
                print(f"{experiment}: round {name} FAILED; to replay:")
                print(f"  {sys.argv[0]} {'--long ' * options.long}--seed {options.seed} --only {name}")
                return 1
            tally.add(result)
    print(f"{experiment}: {summary(tally)}, {time.monotonic() - begun:.0f} s ok")
    return 0


def _parse(description: str, workers: int) -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--long", action="store_true", help="the full counts")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1_000_000))
    parser.add_argument("--only", action="append", metavar="ROUND", help="this round only (may be repeated)")
    parser.add_argument("--workers", type=int, default=workers, help="rounds at a time (default %(default)s)")
    return parser.parse_args()


def _results(names, bodies: dict[str, Body], options: argparse.Namespace, folder: Path, authority: Authority):
    pool = ProcessPoolExecutor(options.workers, multiprocessing.get_context("fork"))
    try:
        waiting = {}
        for name in names:
            body = bodies[name.partition("-")[0]]
            task = pool.submit(_run_one, body, name, options.seed, folder, authority, options.long)
            waiting[task] = name
        for done in as_completed(waiting):
            yield waiting[done], done.result()
    finally:
        pool.shutdown(cancel_futures=True)


def _run_one(body: Body, name: str, seed: int, folder: Path, authority: Authority, long: bool) -> Tally | str:
    """The tally, or what is known about the failure."""
    with tempfile.TemporaryDirectory(prefix=f"{name}-", dir=folder) as own:
        this = Round(name, random.Random(f"{seed} {name}"), Path(own), authority, long)
        try:
            body(this)
        except Exception:  # whatever it is, it is this round's failure
            report = traceback.format_exc()
            if len(report) > LONGEST_REPORT:
                half = LONGEST_REPORT // 2
                report = f"{report[:half]}\n[...]\n{report[-half:]}"
            return report
    return this.tally


def until(moment: float, what: str) -> float:
    """Seconds left until a moment of the monotonic clock; fails when it has passed."""
    left = moment - time.monotonic()
    if left <= 0:
        raise DeadlinePassed(what)
    return left
