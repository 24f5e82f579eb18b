#!/usr/bin/python3
"""Measures the rows of bench/rows against their floors and says which targets are met. Called by scripts/bench.sh."""

from __future__ import annotations

import argparse
import importlib
import json
import statistics
import sys
import tempfile
from dataclasses import dataclass
from pathlib import Path

HERE = Path(__file__).resolve().parent
PROJECT = HERE.parent
sys.path[:0] = [str(HERE), str(PROJECT / "lab")]

from row import Growth, Row, Site  # noqa: E402  (found only now)
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
    def verdict(self) -> str:
        return self.row.verdict(self.value)


def measure(row: Row, site: Site, pairs: int) -> Result:
    """A B A B ...: what disturbs the machine meanwhile disturbs both."""
    agents, floors = [], []
    for _ in range(row.pairs or pairs):
        agent, floor = row.measure(site)
        agents.append(agent)
        floors.append(floor)
    values = [row.compare(agent, floor) for agent, floor in zip(agents, floors)]
    middle = statistics.median
    return Result(row, middle(agents), middle(floors), middle(values), (min(values), max(values)), len(values))


def show(result: Result) -> None:
    row = result.row
    low, high = result.spread
    unit = row.target.unit if row.target else ""
    print(
        f"{row.name:<11} {result.verdict:<6} {result.value:9.3f}{unit:<4} [{low:.3f} .. {high:.3f}]  "
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
        "lowest": result.spread[0],
        "highest": result.spread[1],
        "pairs": result.pairs,
        "target": row.target and str(row.target),
        "verdict": result.verdict,
    }


def load() -> tuple[list[Row], list[Growth]]:
    """All ROWS and GROWTHS of the modules in bench/rows, in the order of their names."""
    modules = [importlib.import_module(f"rows.{path.stem}") for path in sorted((HERE / "rows").glob("[!_]*.py"))]
    rows = [row for module in modules for row in getattr(module, "ROWS", [])]
    growths = [growth for module in modules for growth in getattr(module, "GROWTHS", [])]
    rows.sort(key=lambda row: (int(row.name.split()[0]), row.name))
    return rows, growths


def options(rows: list[Row]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("rows", nargs="*", metavar="ROW", help=f"only these: {', '.join(row.name for row in rows)}")
    parser.add_argument("--pairs", type=int, default=7, help="how often agent and floor are measured by turns")
    parser.add_argument("--growth", action="store_true", help="measure how cost grows, too, and draw docs/performance-*.svg")
    parser.add_argument("--build", type=Path, required=True, help="the build folder")
    return parser.parse_args()


def main() -> int:
    rows, growths = load()
    given = options(rows)
    chosen = [row for row in rows if not given.rows or row.name in given.rows or row.name.split()[0] in given.rows]
    with tempfile.TemporaryDirectory(prefix="bench-", dir=given.build) as folder:
        site = Site(given.build.resolve(), Path(folder))
        results = []
        for row in chosen:
            results.append(measure(row, site, given.pairs))
            show(results[-1])
        if given.growth:
            from growth import draw_growth  # noqa: PLC0415  (only the plots need it)

            for growth in growths:
                draw_growth(growth, growth.measure(site), PROJECT / "docs" / f"performance-{growth.name}.svg")
    if not given.rows:
        all_results = [as_json(result) for result in results]
        (HERE / "results.json").write_text(json.dumps(all_results, indent=1) + "\n")
        write_table(all_results, PROJECT / "docs" / "performance.md")
    missed = [result.row.name for result in results if result.verdict == "missed"]
    print(f"{len(results)} rows, {len(missed)} missed{': ' + ', '.join(missed) if missed else ''}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
