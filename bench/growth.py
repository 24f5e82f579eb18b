"""Pictures of how cost grows with the size of the work: both axes logarithmic, in the style of plot.py."""

from __future__ import annotations

import math
from collections.abc import Iterator, Sequence
from html import escape
from pathlib import Path

from plot import STYLE, WIDTH
from row import Curve, Growth

LEFT, RIGHT, TOP, PANEL, BOTTOM = 80, 20, 40, 360, 52
LEGEND, PER_LINE = 20, 3
COLOURS = ("blue", "red", "green", "purple")
DASHES = ("", "7 4", "2 3")  # a further one for each time that the colours are used up or that a new kind begins
LINES = ".grid { stroke: #8884; stroke-width: 0.6 }"


class Axis:
    """One logarithmic scale between two places of the picture, of a decade at least: what hardly differs looks it."""

    def __init__(self, values: Sequence[float], begin: float, end: float) -> None:
        low, high = math.log10(min(values)), math.log10(max(values))
        room = max(0.04 * (high - low), (1 - high + low) / 2)
        self.low, self.high = low - room, high + room
        self._begin, self._end = begin, end

    def place(self, value: float) -> float:
        share = (math.log10(value) - self.low) / (self.high - self.low)
        return self._begin + share * (self._end - self._begin)

    def marks(self) -> Iterator[float]:
        """1, 10, 100...; within less than two decades 2, 5, 20... too."""
        leads = (1,) if self.high - self.low > 2.5 else (1, 2, 5)
        for decade in range(math.floor(self.low), math.ceil(self.high) + 1):
            for lead in leads:
                value = lead * 10.0**decade
                if self.low <= math.log10(value) <= self.high:
                    yield value


def text(x: float, y: float, words: str, anchor: str, more: str = "") -> str:
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{more}>{escape(words)}</text>'


def line(colour: str, dash: str, points: Sequence[tuple[float, float]]) -> str:
    places = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
    dashes = f' stroke-dasharray="{dash}"' if dash else ""
    return f'<polyline class="line {colour}"{dashes} points="{places}"/>'


def looks(curves: Sequence[Curve]) -> list[tuple[str, str]]:
    """A colour for each size or number (what stands behind the comma), dashes for each kind before it."""
    kinds = list(dict.fromkeys(curve.label.split(",")[0] for curve in curves))
    kinds_share = any("," in curve.label for curve in curves)
    chosen = []
    for number, curve in enumerate(curves):
        kind = kinds.index(curve.label.split(",")[0])
        same_kind = [other for other in curves[:number] if other.label.split(",")[0] == kinds[kind]]
        colour = len(same_kind) if kinds_share else number
        chosen.append((COLOURS[colour % len(COLOURS)], DASHES[kind % len(DASHES)] if kinds_share else ""))
    return chosen


def legend(curves: Sequence[Curve], top: float) -> Iterator[str]:
    width = (WIDTH - LEFT - RIGHT) / PER_LINE
    for number, (curve, (colour, dash)) in enumerate(zip(curves, looks(curves))):
        x, y = LEFT + number % PER_LINE * width, top + number // PER_LINE * LEGEND
        yield line(colour, dash, [(x, y - 4), (x + 26, y - 4)])
        yield text(x + 32, y, curve.label, "start")


def shown(value: float) -> str:
    return f"{value:,.0f}" if value >= 1 else f"{value:g}"


def grid(horizontal: Axis, vertical: Axis, top: float) -> Iterator[str]:
    for value in horizontal.marks():
        x = horizontal.place(value)
        yield f'<line class="grid" x1="{x:.1f}" y1="{top}" x2="{x:.1f}" y2="{top + PANEL}"/>'
        yield text(x, top + PANEL + 16, shown(value), "middle")
    for value in vertical.marks():
        y = vertical.place(value)
        yield f'<line class="grid" x1="{LEFT}" y1="{y:.1f}" x2="{WIDTH - RIGHT}" y2="{y:.1f}"/>'
        yield text(LEFT - 6, y + 4, shown(value), "end")
    yield f'<rect class="frame" x="{LEFT}" y="{top}" width="{WIDTH - LEFT - RIGHT}" height="{PANEL}"/>'


def draw_growth(growth: Growth, curves: Sequence[Curve], path: Path) -> None:
    top = TOP + LEGEND * math.ceil(len(curves) / PER_LINE)
    points = [point for curve in curves for point in curve.points]
    horizontal = Axis([x for x, _ in points], LEFT, WIDTH - RIGHT)
    vertical = Axis([y for _, y in points], top + PANEL, top)
    height = top + PANEL + BOTTOM
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" role="img">',
        f"<title>{escape(growth.title)}</title>",
        f"<style>{STYLE}{LINES}</style>",
        f'<rect class="page" width="{WIDTH}" height="{height}"/>',
        text(LEFT, 22, growth.title, "start", ' class="title"'),
        *legend(curves, TOP + LEGEND - 8),
        *grid(horizontal, vertical, top),
        text((LEFT + WIDTH - RIGHT) / 2, height - 12, growth.x, "middle"),
        text(18, top + PANEL / 2, growth.y, "middle", f' transform="rotate(-90 18 {top + PANEL / 2:.0f})"'),
    ]
    for curve, (colour, dash) in zip(curves, looks(curves)):
        parts.append(line(colour, dash, [(horizontal.place(x), vertical.place(y)) for x, y in curve.points]))
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("\n".join([*parts, "</svg>", ""]))
