"""The table of results in docs/performance.md, between two marks."""

from __future__ import annotations

from collections.abc import Sequence
from pathlib import Path

BEGIN, END = "<!-- table -->\n", "<!-- end -->"
HEAD = """\
| row | work | floor | agent | floor's | result | lowest to highest (pairs) | target | |
|---|---|---|---:|---:|---:|---|---|---|
"""

Result = dict[str, object]  # as in results.json


def number(value: object) -> str:
    """Three digits, or all that stand before the point."""
    return f"{value:,.0f}" if abs(value) >= 100 else f"{value:.3g}"


def line(result: Result) -> str:
    spread = f"{number(result['lowest'])} to {number(result['highest'])}"
    cells = [
        result["row"],
        result["work"],
        result["floor_work"],
        f"{number(result['agent'])} {result['unit']}",
        number(result["floor"]),
        f"{number(result['result'])}{result['result_unit']}",
        f"{spread} ({result['pairs']})",
        result["target"] or "",
        result["verdict"],
    ]
    return f"| {' | '.join(map(str, cells))} |\n"


def write_table(results: Sequence[Result], page: Path) -> None:
    before, rest = page.read_text().split(BEGIN)
    after = rest.partition(END)[2]
    page.write_text(before + BEGIN + HEAD + "".join(map(line, results)) + END + after)
