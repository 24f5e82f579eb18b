"""Whole lives: what a start takes, and what is left when the device is connected and idle."""

from __future__ import annotations

import contextlib
import statistics
import time
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from pathlib import Path

from row import Row, Site, Target, alone, by_turns, difference

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
FULL = Messages(20_000, size=3900, burst=980)  # as many of them as the queue holds, by number and by bytes


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


def idle_memory(command: Command, messages: Messages | None = None) -> Callable[[Site], float]:
    def measure(site: Site) -> float:
        settle_disk()
        with one_device(site) as (service, device):
            device.prepare()
            with Life(service, command(device)) as life:
                quiet([life.pid])
                if messages:
                    service.send(messages.count, messages.size, messages.burst)
                    quiet([life.pid])
                sizes = memory(life.pid)
        program = Path(command(device)[0]).name
        print(f"          {program}: private dirty {sizes['Private_Dirty']} KiB, PSS {sizes['Pss']} KiB", flush=True)
        return sizes["Private_Dirty"]

    return measure


def idle_wakeups(site: Site) -> float:
    with one_device(site) as (service, device):
        device.prepare()
        with Life(service, device.agent) as life:
            quiet([life.pid])
            before = wakeups(life.pid)
            time.sleep(IDLE_SECONDS)
            return wakeups(life.pid) - before


ROWS = [
    Row(
        name="7",
        work="start of a claimed device, exec to its identity at the broker",
        beside="a bare program with the same requests, TLS connect and settings commits",
        unit="ms",
        target=Target("at most", 1.10),
        measure=by_turns(start_time(agent, registered=True), start_time(floor, registered=True)),
        pairs=START_PAIRS,
    ),
    Row(
        name="7 first",
        work="the first start of all, which registers, too",
        beside="the bare program, which registers, too",
        unit="ms",
        target=None,
        measure=by_turns(start_time(agent, registered=False), start_time(floor, registered=False)),
        pairs=START_PAIRS,
    ),
    Row(
        name="8 idle",
        work="private dirty memory, connected and idle",
        beside="the bare program's",
        unit="KiB",
        target=Target("at most", 1.10),
        measure=by_turns(idle_memory(agent), idle_memory(floor)),
    ),
    Row(
        name="8 after",
        work="private dirty memory after 100,000 messages",
        beside="the agent's before them",
        unit="KiB",
        target=Target("at most", 1024, " KiB"),
        measure=by_turns(idle_memory(agent, HALF_FULL), idle_memory(agent)),
        compare=difference,
    ),
    Row(
        name="8 full",
        work="the same after 20,000 messages of 3,900 bytes that fill the queue again and again",
        beside="the agent's before them",
        unit="KiB",
        target=Target("at most", 1024, " KiB"),
        measure=by_turns(idle_memory(agent, FULL), idle_memory(agent)),
        compare=difference,
    ),
    Row(
        name="9",
        work="wake-ups of all threads in 60 s, connected and idle",
        beside="none",
        unit="wake-ups",
        target=Target("at most", 0),
        measure=by_turns(idle_wakeups),
        compare=alone,
        pairs=1,
    ),
    Row(
        name="15 memory",
        work=f"proportional set size of each of {CROWD} agents that one lab serves",
        beside=f"of each of {FEW}",
        unit="KiB",
        target=Target("at most", 1.2),
        measure=by_turns(lambda site: crowd(site, CROWD).proportional, lambda site: crowd(site, FEW).proportional),
    ),
    Row(
        name="15 time",
        work=f"{CROWD} agents started at once, time for each until all are connected",
        beside=f"{FEW} agents",
        unit="ms",
        target=Target("at most", 1.2),
        measure=by_turns(lambda site: crowd(site, CROWD).milliseconds, lambda site: crowd(site, FEW).milliseconds),
    ),
]
