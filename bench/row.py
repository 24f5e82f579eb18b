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


@dataclass(frozen=True)
class Row:
    """What is compared. A rate is compared as agent / floor, so that more is better; a time or a size, too, so that less
    is better."""

    name: str  # "1", or "8 idle" for one of several of the same number
    work: str
    beside: str  # what the floor does
    unit: str
    target: Target | None  # None: measured beside another row, to explain it
    compare: Callable[[float, float], float] = ratio

    @property
    def number(self) -> int:
        return int(self.name.split()[0])

    def verdict(self, value: float) -> str:
        if self.target is None:
            return "-"
        return "met" if self.target.met(value) else "missed"


Sides = tuple[float, float]  # what agent and floor come to, in the row's unit
Side = Callable[[Site], float]


@dataclass(frozen=True)
class Trial:
    """Rows that are measured together. `measure` gives what each comes to, in their order; run.py calls it for each
    pair."""

    rows: Sequence[Row]
    measure: Callable[[Site], Sequence[Sides]]
    pairs: int = 7  # 1 where it can't vary; more where the machine's own drift shows


def by_turns(row: Row, agent: Side, floor: Side = lambda _site: 0.0, pairs: int = 7) -> Trial:
    """A row by itself: first the agent, then the floor."""
    return Trial([row], lambda site: [(agent(site), floor(site))], pairs)


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
