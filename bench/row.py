"""What a row of the benchmark is: work of the agent's beside its floor, and what the two must come to."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from dataclasses import dataclass, field
from pathlib import Path


@dataclass(frozen=True)
class Site:
    """Where rows are measured."""

    build: Path  # with bin/orvel and the programs of bench/
    folder: Path  # for files; empty, on a disk (not in memory), and thrown away at the end


@dataclass(frozen=True)
class Target:
    """A bound for the median of the pairs' results."""

    word: str  # "at least" or "at most"
    bound: float
    unit: str = ""  # behind the numbers; a ratio has none

    def met(self, value: float) -> bool:
        return value >= self.bound if self.word == "at least" else value <= self.bound

    def __str__(self) -> str:
        return f"{self.word} {self.bound:g}{self.unit}"


def ratio(agent: float, floor: float) -> float:
    return agent / floor


def difference(agent: float, floor: float) -> float:
    return agent - floor


def alone(agent: float, _floor: float) -> float:
    return agent


Side = Callable[[Site], float]
Measure = Callable[[Site], tuple[float, float]]


def no_floor(_site: Site) -> float:
    return 0.0


def by_turns(agent: Side, floor: Side = no_floor) -> Measure:
    return lambda site: (agent(site), floor(site))


@dataclass(frozen=True)
class Row:
    """`measure` gives what agent and floor come to, in `unit`; run.py calls it for each pair and lets `compare` judge.

    A rate is compared as floor time / agent time (or rates: agent / floor), so that more is better; a time or a size
    as agent / floor, so that less is better.
    """

    name: str  # "1", or "8 idle" for one of several of the same number
    work: str
    beside: str  # what the floor does
    unit: str
    target: Target | None  # None: measured beside another row, to explain it
    measure: Measure
    compare: Callable[[float, float], float] = ratio
    pairs: int = 0  # 0: as many as the run asks for; 1 where it can't vary, more where the machine's own drift shows

    def verdict(self, value: float) -> str:
        if self.target is None:
            return "-"
        return "met" if self.target.met(value) else "missed"


@dataclass(frozen=True)
class Curve:
    """How cost grows: one line of a plot. `points` are (size of the work, cost)."""

    label: str
    points: Sequence[tuple[float, float]]


@dataclass(frozen=True)
class Growth:
    """A plot for docs/performance.md, drawn as docs/performance-NAME.svg; both axes are logarithmic."""

    name: str
    title: str
    x: str  # label of the axis, unit in it
    y: str
    measure: Callable[[Site], Sequence[Curve]] = field(repr=False)
