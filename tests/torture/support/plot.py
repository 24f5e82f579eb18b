"""Courses over time as a picture, one panel below the other."""

from __future__ import annotations

import sys
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parents[3] / "bench"))

from plot import Picture  # noqa: E402  (found only now)

BINS = 600  # across the picture


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
    picture = Picture(title, times[-1])
    for course in courses:
        _draw_course(picture, course, times, settled)
    picture.write(path)


def _draw_course(picture: Picture, course: Course, times: Sequence[float], settled: float) -> None:
    end, lowest, highest = times[-1], min(course.values), max(course.values)
    low = min(lowest, 0.9 * highest) if lowest else 0
    bins: dict[int, list[float]] = {}
    for time, value in zip(times, course.values):
        bins.setdefault(int(BINS * time / end), []).append(value)
    places = [(place * end / BINS, values) for place, values in bins.items()]

    panel = picture.panel(course.title, low, max(highest * 1.05, 1))
    upper, lower = ([(time, choose(values)) for time, values in places] for choose in (max, min))
    panel.band(upper, lower, "pale")
    panel.line([(time, sum(values) / len(values)) for time, values in places], "blue")
    panel.moment(settled)
    panel.line([(time, course.fit.at(time)) for time in (settled, end)], "red")
    panel.close()
