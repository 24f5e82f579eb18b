"""Single functions of the agent and of the settings library, and the size of the program."""

from __future__ import annotations

import json
import statistics
import subprocess
import sys
import tempfile
from collections.abc import Sequence
from pathlib import Path

from row import Curve, Growth, Row, Side, Site, Target, alone, by_turns, difference

PROJECT = Path(__file__).resolve().parents[2]
MESSAGE_SIZES = (16, 64, 256, 1024, 4096, 16384, 65536)
MESSAGE_COUNTS = (1_000, 10_000, 100_000)
SETTINGS = (10, 20, 50, 100, 200, 500, 1000, 2000)
GROWTH_ROUNDS = 3


def rate(work: str, site: Site, seconds: float = 0.5) -> float:
    """Pieces of work in a second, by one benchmark of bench_functions."""
    with tempfile.TemporaryDirectory(dir=site.folder) as folder:
        command: list[str | Path] = [site.build / "bin/bench_functions", folder, "--benchmark_format=json"]
        # The library adds to a name how its time is counted.
        command += [f"--benchmark_filter=^{work}(/iterations:[0-9]+|/manual_time)?$", f"--benchmark_min_time={seconds}"]
        output = subprocess.run(command, check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout
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


ROWS = [
    Row(
        name="4",
        work="the parser over a stream of 64 KiB chunks",
        beside="memcpy of the same bytes",
        unit="MB/s",
        target=Target("at least", 0.6),
        measure=by_turns(in_millions("parse/agent"), in_millions("parse/floor")),
    ),
    Row(
        name="5",
        work="messages of 64 bytes through the parser and the queue to the worker",
        beside="malloc, memcpy, mutex and push, mutex and pop, free: one block for each message",
        target=Target("at most", 1.5),
        unit="ns a message",
        measure=by_turns(nanoseconds("queue/agent/64/1000"), nanoseconds("queue/floor/64/1000")),
    ),
    Row(
        name="5 apart",
        work="the same",
        beside="the same with three blocks for each message: record, name and payload",
        target=None,
        unit="ns a message",
        measure=by_turns(nanoseconds("queue/agent/64/1000"), nanoseconds("queue/apart/64/1000")),
    ),
    Row(
        name="10",
        work="a log line to the file",
        beside="stat, open, write, close",
        unit="thousand lines/s",
        target=Target("at least", 0.9),
        measure=by_turns(in_thousands("log_line/agent"), in_thousands("log_line/floor")),
    ),
    Row(
        name="11",
        work="a log call that is filtered",
        beside="an integer comparison",
        unit="ns",
        target=Target("at most", 2, " ns"),
        measure=by_turns(nanoseconds("filtered_call/agent"), nanoseconds("filtered_call/floor")),
        compare=difference,
    ),
    Row(
        name="12",
        work="a setting read, one of 200, file unchanged",
        beside="one stat of the file",
        unit="ns",
        target=Target("at most", 1.3),
        measure=by_turns(nanoseconds("setting/agent/200"), nanoseconds("setting/floor/200")),
    ),
    Row(
        name="13",
        work="a commit of one changed setting of 200",
        beside="lock, write, fsync, rename, fsync of the folder",
        unit="us",
        target=Target("at most", 1.1),
        measure=by_turns(microseconds("commit/agent"), microseconds("commit/floor")),
        pairs=21,
    ),
    Row(
        name="14",
        work="text and data of the stripped program",
        beside="nothing",
        unit="KiB",
        target=Target("at most", 200, " KiB"),
        measure=by_turns(program_size),
        compare=alone,
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
