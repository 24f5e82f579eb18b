"""Pictures of courses over time, one panel below the other: SVG, made by hand, for light and dark pages."""

from __future__ import annotations

import math
from collections.abc import Iterable, Sequence
from html import escape
from pathlib import Path

WIDTH, PANEL, GAP, LEFT, TOP, RIGHT, BOTTOM = 900, 120, 44, 70, 40, 20, 40
LEGEND = 24
MARKS = 6  # on the time axis, without the one at 0
STYLE = """
  .page { fill: #fff }
  text { font: 12px sans-serif; fill: #333 }
  .title { font-size: 15px }
  .frame { fill: none; stroke: #bbb }
  .level { stroke: #999; stroke-dasharray: 4 3 }
  .line { fill: none; stroke-width: 1.2 }
  .band { stroke: none }
  .blue { stroke: #1f5f99 } .red { stroke: #c8501e } .green { stroke: #009e73 } .purple { stroke: #a34f92 }
  .pale { fill: #9ec5e8 }
  @media (prefers-color-scheme: dark) {
    .page { fill: #16191d }
    text { fill: #ccc }
    .frame { stroke: #555 }
    .level { stroke: #888 }
    .blue { stroke: #5fa8e6 } .red { stroke: #f08a5d } .green { stroke: #45cfa5 } .purple { stroke: #d99bcb }
    .pale { fill: #2c4a66 }
  }
"""

Point = tuple[float, float]  # seconds, value


class Panel:
    """One frame with its own vertical scale."""

    def __init__(self, picture: Picture, title: str, low: float, high: float, logarithmic: bool) -> None:
        self._picture = picture
        self._base = picture.height + 18
        self._logarithmic = logarithmic
        self._low, self._high = self._scaled(low), self._scaled(high)
        picture.text(LEFT, self._base - 6, title, "start")
        picture.text(LEFT - 6, self._base + 10, _short(high), "end")
        picture.text(LEFT - 6, self._base + PANEL, _short(low), "end")
        picture.height += PANEL + GAP

    def line(self, points: Iterable[Point], colour: str) -> None:
        self._picture.add(f'<polyline class="line {colour}" points="{self._places(points)}"/>')

    def band(self, upper: Sequence[Point], lower: Sequence[Point], colour: str) -> None:
        places = self._places([*upper, *reversed(lower)])
        self._picture.add(f'<polygon class="band {colour}" points="{places}"/>')

    def level(self, value: float) -> None:
        y = self._y(value)
        self._picture.add(f'<line class="level" x1="{LEFT}" y1="{y}" x2="{WIDTH - RIGHT}" y2="{y}"/>')

    def moment(self, seconds: float) -> None:
        x = self._picture.x(seconds)
        self._picture.add(f'<line class="level" x1="{x}" y1="{self._base}" x2="{x}" y2="{self._base + PANEL}"/>')

    def close(self) -> None:
        """Draws the frame, above everything."""
        size = f'width="{WIDTH - LEFT - RIGHT}" height="{PANEL}"'
        self._picture.add(f'<rect class="frame" x="{LEFT}" y="{self._base}" {size}/>')

    def _scaled(self, value: float) -> float:
        return math.log10(max(value, 1)) if self._logarithmic else value

    def _y(self, value: float) -> str:
        share = (self._high - self._scaled(value)) / (self._high - self._low)
        return f"{self._base + PANEL * min(max(share, 0), 1):.1f}"

    def _places(self, points: Iterable[Point]) -> str:
        return " ".join(f"{self._picture.x(seconds)},{self._y(value)}" for seconds, value in points)


class Picture:
    """`seconds`: the length of the time axis."""

    def __init__(self, title: str, seconds: float) -> None:
        self.height = TOP
        self._title = title
        self._seconds = seconds
        self._parts: list[str] = []

    def legend(self, entries: Sequence[tuple[str, str]]) -> None:
        """Colours and what they stand for."""
        width = (WIDTH - LEFT - RIGHT) / len(entries)
        for number, (colour, what) in enumerate(entries):
            x = LEFT + number * width
            y = self.height
            self.add(f'<line class="line {colour}" x1="{x:.1f}" y1="{y - 4}" x2="{x + 20:.1f}" y2="{y - 4}"/>')
            self.text(x + 26, y, what, "start")
        self.height += LEGEND

    def panel(self, title: str, low: float, high: float, logarithmic: bool = False) -> Panel:
        return Panel(self, title, low, high, logarithmic)

    def x(self, seconds: float) -> str:
        return f"{LEFT + (WIDTH - LEFT - RIGHT) * seconds / self._seconds:.1f}"

    def add(self, part: str) -> None:
        self._parts.append(part)

    def text(self, x: float, y: float, text: str, anchor: str) -> None:
        self.add(f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}">{escape(text)}</text>')

    def write(self, path: Path) -> None:
        height = self.height + BOTTOM
        unit, length = ("min", 60) if self._seconds >= 300 else ("s", 1)
        for mark in range(MARKS + 1):
            seconds = self._seconds * mark / MARKS
            label = f"{seconds / length:.0f} {unit}"
            self.text(float(self.x(seconds)), height - 12, label, "end" if mark == MARKS else "middle")
        head = [
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" role="img">',
            f"<title>{escape(self._title)}</title>",
            f"<style>{STYLE}</style>",
            f'<rect class="page" width="{WIDTH}" height="{height}"/>',
            f'<text class="title" x="{LEFT}" y="22">{escape(self._title)}</text>',
        ]
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text("\n".join([*head, *self._parts, "</svg>", ""]))


def _short(value: float) -> str:
    for size, letter in ((1_000_000, "M"), (10_000, "k")):
        if value >= size:
            return f"{value / (size if letter == 'M' else 1000):.3g}{letter}"
    return f"{value:.0f}"
