#!/usr/bin/python3
"""Measures the rows of bench/rows against their floors and says which targets are met. Called by scripts/bench.sh."""

from __future__ import annotations

import argparse
import importlib
import json
import statistics
import sys
import tempfile
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

HERE = Path(__file__).resolve().parent
PROJECT = HERE.parent
sys.path[:0] = [str(HERE), str(PROJECT / "lab")]

from row import Growth, Row, Sides, Site, Trial  # noqa: E402  (found only now)
from table import write_table  # noqa: E402


@dataclass(frozen=True)
class Result:
    row: Row
    agent: float  # medians
    floor: float
    value: float
    spread: tuple[float, float]  # the lowest and the highest result of a pair
    pairs: int

    @property
    def unit(self) -> str:
        """Of the result; a ratio has none."""
        return self.row.target.unit if self.row.target else ""

    @property
    def verdict(self) -> str:
        return self.row.verdict(self.value)


def measure(trial: Trial, site: Site, pairs: int | None) -> list[Result]:
    """A B A B ...: what disturbs the machine meanwhile disturbs both."""
    turns = [trial.measure(site) for _ in range(pairs or trial.pairs)]
    return [judge(row, sides) for row, sides in zip(trial.rows, zip(*turns))]


def judge(row: Row, sides: Sequence[Sides]) -> Result:
    agents, floors = zip(*sides)
    values = [row.compare(agent, floor) for agent, floor in sides]
    middle = statistics.median
    return Result(row, middle(agents), middle(floors), middle(values), (min(values), max(values)), len(values))


def show(result: Result) -> None:
    row = result.row
    low, high = result.spread
    print(
        f"{row.name:<11} {result.verdict:<6} {result.value:9.3f}{result.unit:<4} [{low:.3f} .. {high:.3f}]  "
        f"{str(row.target or ''):<18} agent {result.agent:.6g}, floor {result.floor:.6g} {row.unit}"
        f"  {row.work}",
        flush=True,
    )


def as_json(result: Result) -> dict[str, object]:
    row = result.row
    return {
        "row": row.name,
        "work": row.work,
        "floor_work": row.beside,
        "unit": row.unit,
        "agent": result.agent,
        "floor": result.floor,
        "result": result.value,
        "result_unit": result.unit,
        "lowest": result.spread[0],
        "highest": result.spread[1],
        "pairs": result.pairs,
        "target": row.target and str(row.target),
        "verdict": result.verdict,
    }


def load() -> tuple[list[Trial], list[Growth]]:
    """All TRIALS and GROWTHS of the modules in bench/rows, the trials in the order of their rows' numbers."""
    modules = [importlib.import_module(f"rows.{path.stem}") for path in sorted((HERE / "rows").glob("[!_]*.py"))]
    trials = [trial for module in modules for trial in getattr(module, "TRIALS", [])]
    growths = [growth for module in modules for growth in getattr(module, "GROWTHS", [])]
    trials.sort(key=lambda trial: trial.rows[0].number)
    return trials, growths


def options(trials: list[Trial]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__)
    names = ", ".join(row.name for trial in trials for row in trial.rows)
    parser.add_argument("rows", nargs="*", metavar="ROW", help=f"only these, and what is measured with them: {names}")
    parser.add_argument("--pairs", type=int, help="how often, in place of each row's own number")
    parser.add_argument("--growth", action="store_true", help="how cost grows, too: draws docs/performance-*.svg")
    parser.add_argument("--build", type=Path, required=True, help="the build folder")
    return parser.parse_args()


def publish(results: list[Result]) -> None:
    all_results = [as_json(result) for result in results]
    (HERE / "results.json").write_text(json.dumps(all_results, indent=1) + "\n")
    write_table(all_results, PROJECT / "docs" / "performance.md")


def draw(growths: list[Growth], site: Site) -> None:
    from growth import draw_growth  # noqa: PLC0415  (only the plots need it)

    for growth in growths:
        draw_growth(growth, growth.measure(site), PROJECT / "docs" / f"performance-{growth.name}.svg")


def main() -> int:
    trials, growths = load()
    given = options(trials)
    wanted = {name for trial in trials for row in trial.rows for name in (row.name, str(row.number))} & set(given.rows)
    if len(wanted) < len(set(given.rows)):
        sys.exit(f"no such row: {', '.join(set(given.rows) - wanted)}")
    chosen = [t for t in trials if not wanted or any({row.name, str(row.number)} & wanted for row in t.rows)]
    with tempfile.TemporaryDirectory(prefix="bench-", dir=given.build) as folder:
        site = Site(given.build.resolve(), Path(folder))
        results = []
        for trial in chosen:
            measured = measure(trial, site, given.pairs)
            for result in measured:
                show(result)
            results += measured
        if given.growth:
            draw(growths, site)
    if not given.rows and not given.pairs:
        publish(results)
    missed = [result.row.name for result in results if result.verdict == "missed"]
    print(f"{len(results)} rows, {len(missed)} missed{': ' + ', '.join(missed) if missed else ''}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
