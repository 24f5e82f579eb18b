"""Courses over time as a picture, one panel below the other: SVG, made by hand."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from html import escape
from pathlib import Path

WIDTH, PANEL, GAP, LEFT, TOP, RIGHT, BOTTOM = 900, 120, 44, 70, 40, 20, 40
BINS = 600  # across the picture
STYLE = """
  text { font: 12px sans-serif; fill: #333 }
  .title { font-size: 15px }
  .frame { fill: none; stroke: #bbb }
  .band { fill: #9ec5e8; stroke: none }
  .mean { fill: none; stroke: #1f5f99; stroke-width: 1 }
  .fit { stroke: #c0392b; stroke-width: 1.5 }
  .settled { stroke: #999; stroke-dasharray: 4 3 }
"""


@dataclass(frozen=True)
class Line:
    """begin + slope * seconds"""

    begin: float
    slope: float

    def at(self, seconds: float) -> float:
        return self.begin + self.slope * seconds


@dataclass(frozen=True)
class Course:
    title: str
    values: Sequence[float]
    fit: Line


def fit(times: Sequence[float], values: Sequence[float]) -> Line:
    """By least squares."""
    middle, mean = sum(times) / len(times), sum(values) / len(values)
    spread = sum((time - middle) ** 2 for time in times)
    slope = sum((time - middle) * (value - mean) for time, value in zip(times, values)) / spread
    return Line(mean - slope * middle, slope)


def draw(path: Path, title: str, times: Sequence[float], settled: float, courses: Sequence[Course]) -> None:
    """Each course as a band from its lowest to highest values, their mean, and the fitted line from `settled` on."""
    height = TOP + len(courses) * (PANEL + GAP) + BOTTOM
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" role="img">',
        f"<title>{escape(title)}</title>",
        f"<style>{STYLE}</style>",
        f'<rect width="{WIDTH}" height="{height}" fill="white"/>',
        f'<text class="title" x="{LEFT}" y="22">{escape(title)}</text>',
    ]
    for number, course in enumerate(courses):
        parts += _panel(course, TOP + number * (PANEL + GAP), times, settled)
    end = times[-1]
    unit, seconds = ("min", 60) if end >= 300 else ("s", 1)
    for step in range(7):
        time = end * step / 6
        label = f"{time / seconds:.0f} {unit}"
        parts.append(f'<text x="{_x(time, end):.1f}" y="{height - 12}" text-anchor="middle">{label}</text>')
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("\n".join([*parts, "</svg>", ""]))


def _x(time: float, end: float) -> float:
    return LEFT + (WIDTH - LEFT - RIGHT) * time / end


def _panel(course: Course, top: float, times: Sequence[float], settled: float) -> list[str]:
    end, lowest, highest = times[-1], min(course.values), max(course.values)
    low, high = min(lowest, 0.9 * highest) if lowest else 0, max(highest * 1.05, 1)
    base = top + 18

    def y(value: float) -> float:
        return base + PANEL * (high - value) / (high - low)

    bins: dict[int, list[float]] = {}
    for time, value in zip(times, course.values):
        bins.setdefault(int(BINS * time / end), []).append(value)
    places = [(_x(place * end / BINS, end), values) for place, values in bins.items()]
    upper = [f"{x:.1f},{y(max(values)):.1f}" for x, values in places]
    lower = [f"{x:.1f},{y(min(values)):.1f}" for x, values in reversed(places)]
    mean = [f"{x:.1f},{y(sum(values) / len(values)):.1f}" for x, values in places]
    start, stop = _x(settled, end), _x(end, end)
    first, last = y(course.fit.at(settled)), y(course.fit.at(end))
    return [
        f'<text x="{LEFT}" y="{top + 12}">{escape(course.title)}</text>',
        f'<polygon class="band" points="{" ".join(upper + lower)}"/>',
        f'<polyline class="mean" points="{" ".join(mean)}"/>',
        f'<line class="settled" x1="{start:.1f}" y1="{base}" x2="{start:.1f}" y2="{base + PANEL}"/>',
        f'<line class="fit" x1="{start:.1f}" y1="{first:.1f}" x2="{stop:.1f}" y2="{last:.1f}"/>',
        f'<rect class="frame" x="{LEFT}" y="{base}" width="{WIDTH - LEFT - RIGHT}" height="{PANEL}"/>',
        f'<text x="{LEFT - 6}" y="{base + 10}" text-anchor="end">{high:.0f}</text>',
        f'<text x="{LEFT - 6}" y="{base + PANEL}" text-anchor="end">{low:.0f}</text>',
    ]
