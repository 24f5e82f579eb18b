"""Whole lives: what a start takes, and what is left when the device is connected and idle."""

from __future__ import annotations

import contextlib
import statistics
import time
from collections.abc import Callable, Iterator, Sequence
from dataclasses import dataclass
from pathlib import Path

from row import Row, Sides, Site, Target, Trial, alone, by_turns, difference

from ._crowd import crowd
from ._processes import memory, quiet, settle_disk, wakeups
from ._service import Device, Life, Service

STARTS, START_PAIRS = 8, 41  # short turns and many of them, because the disk is faster now and slower then
IDLE_SECONDS = 60
FEW, CROWD = 50, 200

Command = Callable[[Device], list[str]]


@dataclass(frozen=True)
class Messages:
    """What is sent through the device: so many messages at a time that its queue holds them."""

    count: int
    size: int
    burst: int


HALF_FULL = Messages(100_000, size=256, burst=500)
FULL = Messages(20_000, size=3900, burst=980)  # nearly as many as the queue holds, by number and by bytes


def agent(device: Device) -> list[str]:
    return device.agent


def floor(device: Device) -> list[str]:
    return device.floor


@contextlib.contextmanager
def one_device(site: Site) -> Iterator[tuple[Service, Device]]:
    with Service(site) as service:
        device = Device(site, service, "device")
        try:
            yield service, device
        finally:
            device.close()


def start_time(command: Command, registered: bool) -> Callable[[Site], float]:
    def measure(site: Site) -> float:
        times = []
        with one_device(site) as (service, device):
            for _ in range(STARTS):
                device.prepare(registered)
                with Life(service, command(device)) as life:
                    times.append(life.milliseconds)
        return statistics.median(times)

    return measure


def idle_memory(service: Service, command: list[str], loads: Sequence[Messages] = ()) -> list[float]:
    """KiB that are private and dirty, before any message and after each of these loads."""
    with Life(service, command) as life:
        sizes = [rest(life.pid)]
        for load in loads:
            service.send(load.count, load.size, load.burst)
            sizes.append(rest(life.pid))
    described = ", ".join(f"private dirty {size['Private_Dirty']} KiB, PSS {size['Pss']} KiB" for size in sizes)
    print(f"          {Path(command[0]).name}: {described}", flush=True)
    return [size["Private_Dirty"] for size in sizes]


def rest(pid: int) -> dict[str, int]:
    quiet([pid])
    return memory(pid)


def memories(site: Site) -> list[Sides]:
    settle_disk()
    with one_device(site) as (service, device):
        device.prepare()
        idle, after, full = idle_memory(service, device.agent, [HALF_FULL, FULL])
        device.prepare()
        (bare,) = idle_memory(service, device.floor)
    return [(idle, bare), (after, idle), (full, idle)]


def crowds(site: Site) -> list[Sides]:
    many, few = crowd(site, CROWD), crowd(site, FEW)
    return [
        (many.proportional, few.proportional),
        (many.private, few.private),
        (many.milliseconds, few.milliseconds),
    ]


def idle_wakeups(site: Site) -> float:
    with one_device(site) as (service, device):
        device.prepare()
        with Life(service, device.agent) as life:
            quiet([life.pid])
            before = wakeups(life.pid)
            time.sleep(IDLE_SECONDS)
            return wakeups(life.pid) - before


FLAT = Target("at most", 1.2)
MEMORY_GROWTH = Target("at most", 1024, " KiB")

TRIALS = [
    by_turns(
        Row(
            "7",
            "start of a claimed device, exec to its identity at the broker",
            "a bare program with the same requests, TLS connect and settings commits",
            "ms",
            Target("at most", 1.10),
        ),
        start_time(agent, registered=True),
        start_time(floor, registered=True),
        pairs=START_PAIRS,
    ),
    by_turns(
        Row(
            "7 first",
            "the first start of all, which registers, too",
            "the bare program, which registers, too",
            "ms",
            None,
        ),
        start_time(agent, registered=False),
        start_time(floor, registered=False),
        pairs=START_PAIRS,
    ),
    Trial(
        [
            Row("8", "private dirty memory, connected and idle", "the bare program's", "KiB", Target("at most", 1.10)),
            Row("8 after", "the same after 100,000 messages", "the agent's before", "KiB", MEMORY_GROWTH, difference),
            Row(
                "8 full",
                "the same after 20,000 more, of 3,900 bytes, 980 at a time",
                "the agent's before",
                "KiB",
                MEMORY_GROWTH,
                difference,
            ),
        ],
        memories,
    ),
    by_turns(
        Row(
            "9",
            "wake-ups of all threads in 60 s, connected and idle",
            "none",
            "wake-ups",
            Target("at most", 0),
            alone,
        ),
        idle_wakeups,
        pairs=1,
    ),
    Trial(
        [
            Row("15", f"proportional set size of each of {CROWD} agents, one lab", f"of each of {FEW}", "KiB", FLAT),
            Row("15 private", "private dirty memory of each of them", f"of each of {FEW}", "KiB", FLAT),
            Row("15 time", "time for each until all are connected", f"of {FEW}", "ms", FLAT),
        ],
        crowds,
    ),
]
