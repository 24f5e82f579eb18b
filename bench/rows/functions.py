"""Single functions of the agent and of the settings library, and the size of the program."""

from __future__ import annotations

import json
import statistics
import subprocess
import sys
import tempfile
from collections.abc import Sequence
from pathlib import Path

from row import Curve, Growth, Row, Side, Sides, Site, Target, Trial, alone, by_turns, difference

PROJECT = Path(__file__).resolve().parents[2]
MESSAGE_SIZES = (16, 64, 256, 1024, 4096, 16384, 65536)
MESSAGE_COUNTS = (1_000, 10_000, 100_000)
SETTINGS = (10, 20, 50, 100, 200, 500, 1000, 2000)
GROWTH_ROUNDS = 3
LONGEST = 600  # seconds for one benchmark


def rate(work: str, site: Site, seconds: float = 0.5) -> float:
    """Pieces of work in a second, by one benchmark of bench_functions."""
    with tempfile.TemporaryDirectory(dir=site.folder) as folder:
        command: list[str | Path] = [site.build / "bin/bench_functions", folder, "--benchmark_format=json"]
        # The library adds to a name how its time is counted.
        command += [f"--benchmark_filter=^{work}(/iterations:[0-9]+|/manual_time)?$", f"--benchmark_min_time={seconds}"]
        quietly = {"stdout": subprocess.PIPE, "stderr": subprocess.DEVNULL, "timeout": LONGEST}
        output = subprocess.run(command, check=True, **quietly).stdout
    (result,) = json.loads(output)["benchmarks"]
    return float(result["items_per_second"])


def in_millions(work: str) -> Side:
    return lambda site: rate(work, site) / 1e6


def in_thousands(work: str) -> Side:
    return lambda site: rate(work, site) / 1e3


def nanoseconds(work: str) -> Side:
    return lambda site: 1e9 / rate(work, site)


def microseconds(work: str) -> Side:
    return lambda site: 1e6 / rate(work, site)


def program_size(site: Site) -> float:
    """As the test command watches it, in KiB."""
    command = [sys.executable, PROJECT / "scripts/footprint.py", site.build / "bin/orvel"]
    output = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=False).stdout
    return float(output.split()[0])


def curve(label: str, works: Sequence[tuple[float, str]], site: Site) -> Curve:
    """Nanoseconds for each piece of work."""

    def cost(work: str) -> float:
        return statistics.median(1e9 / rate(work, site, 0.1) for _ in range(GROWTH_ROUNDS))

    return Curve(label, [(size, cost(work)) for size, work in works])


def queue_growth(site: Site) -> list[Curve]:
    return [
        curve(f"{label}, {count:,} messages", [(size, f"queue/{side}/{size}/{count}") for size in MESSAGE_SIZES], site)
        for side, label in (("agent", "agent"), ("floor", "floor"))
        for count in MESSAGE_COUNTS
    ]


def settings_growth(site: Site) -> list[Curve]:
    return [
        curve(label, [(count, f"setting/{side}/{count}") for count in SETTINGS], site)
        for side, label in (("agent", "a setting read"), ("floor", "one stat()"))
    ]


def queue_times(site: Site) -> list[Sides]:
    agent, floor, apart = (nanoseconds(f"queue/{side}/64/1000")(site) for side in ("agent", "floor", "apart"))
    return [(agent, floor), (agent, apart)]


QUEUE = Row(
    "5",
    "messages of 64 bytes through the parser and the queue to the worker",
    "malloc, memcpy, mutex and push, mutex and pop, free: one block for each message",
    "ns a message",
    Target("at most", 1.5),
)
QUEUE_APART = Row(
    "5 apart",
    "row 5",
    "the same with a block for the name and one for the payload, as they change hands",
    "ns a message",
    None,
)

TRIALS = [
    by_turns(
        Row(
            "4",
            "the parser over a stream of 64 KiB chunks",
            "memcpy of the same bytes",
            "MB/s",
            Target("at least", 0.6),
        ),
        in_millions("parse/agent"),
        in_millions("parse/floor"),
    ),
    Trial([QUEUE, QUEUE_APART], queue_times, pairs=11),
    by_turns(
        Row("10", "a log line to the file", "stat, open, write, close", "thousand lines/s", Target("at least", 0.9)),
        in_thousands("log_line/agent"),
        in_thousands("log_line/floor"),
    ),
    by_turns(
        Row(
            "11",
            "a log call that is filtered",
            "an integer comparison",
            "ns",
            Target("at most", 2, " ns"),
            difference,
        ),
        nanoseconds("filtered_call/agent"),
        nanoseconds("filtered_call/floor"),
    ),
    by_turns(
        Row(
            "12",
            "a setting read, one of 200, file unchanged",
            "one stat of the file",
            "ns",
            Target("at most", 1.3),
        ),
        nanoseconds("setting/agent/200"),
        nanoseconds("setting/floor/200"),
    ),
    by_turns(
        Row(
            "13",
            "a commit of one changed setting of 200",
            "lock, write, fsync, rename, fsync of the folder",
            "us",
            Target("at most", 1.1),
        ),
        microseconds("commit/agent"),
        microseconds("commit/floor"),
        pairs=21,
    ),
    by_turns(
        Row("14", "text and data of the stripped program", "nothing", "KiB", Target("at most", 200, " KiB"), alone),
        program_size,
        pairs=1,
    ),
]

GROWTHS = [
    Growth(
        name="queue",
        title="A message from the broker's bytes through the queue to the worker",
        x="payload in bytes",
        y="ns a message",
        measure=queue_growth,
    ),
    Growth(
        name="settings",
        title="A setting read while the file stays as it is",
        x="settings in the file",
        y="ns a read",
        measure=settings_growth,
    ),
]
