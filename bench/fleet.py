#!/usr/bin/python3
"""A million agents after a power cut in a city, a restart of the broker, and an hour without a cloud.

Prints how the load on the cloud and the number of sessions go, for fixed delays, for delays drawn for each device,
for an advisor that hands out turns, and for both. With --write the tables of docs/fleet.md and its pictures are made
anew; everything follows from the seed.
"""

from __future__ import annotations

import argparse
import random
import re
import sys
import time
from array import array
from collections.abc import Mapping, Sequence
from concurrent.futures import ProcessPoolExecutor
from dataclasses import dataclass, replace
from pathlib import Path

from agent_delays import Step
from herd import REQUESTS, Course, Herd, Outage, Range, Scenario, Service
from plot import Picture

DOCS = Path(__file__).resolve().parents[1] / "docs"
DEVICES = 1_000_000
NEW_DEVICES = 50_000  # of them not registered yet, where devices are switched on
BOOT_SECONDS = (30, 120, 45)  # from power to agent: least, most, most usual
RESTART_SECONDS = 30
OUTAGE_SECONDS = 3600
SHARES = (50, 90, 99, 100)  # per cent connected
BINS = 450  # across a picture

SERVICES = {
    Step.REGISTER: Service(500),
    Step.CLAIM: Service(5_000),
    Step.ADVISOR: Service(5_000),
    Step.CONNECT: Service(2_000, time_out=None),  # the agent's TLS handshake waits as long as it takes
}
TITLES = {
    Step.REGISTER: "registration",
    Step.CLAIM: "claim check",
    Step.ADVISOR: "advisor",
    Step.CONNECT: "broker, new connections",
}
# Wide enough that the whole fleet's retries stay below what each service can do.
SPREAD = {
    "register_aggressive": (60, 180),
    "register": (60, 180),
    "claim": (150, 450),
    "advisor": (150, 450),
    "qbroker": (30, 630),
}
TURNS = 1_800  # connects each second: nine tenths of what the broker can do


@dataclass(frozen=True)
class Variant:
    name: str
    colour: str
    delays: Mapping[str, Range]
    turns: int | None


VARIANTS = (
    Variant("fixed delays", "red", {}, None),
    Variant("spread delays", "blue", SPREAD, None),
    Variant("turns by the advisor", "green", {}, TURNS),
    Variant("both", "purple", SPREAD, TURNS),
)


@dataclass(frozen=True)
class Case:
    title: str
    scenario: Scenario
    back: int = 0  # seconds: from then on everything works


def draw_boots(devices: int, seed: int, delay: int = 0) -> array:
    """When each agent starts; `delay`: seconds at most that its start is put off."""
    numbers = random.Random(seed)
    boots = array("d", (numbers.triangular(*BOOT_SECONDS) for _ in range(devices)))
    return array("d", (boot + delay * numbers.random() for boot in boots))


def make_cases(devices: int, seed: int) -> dict[str, Case]:
    new = NEW_DEVICES * devices // DEVICES
    boots = draw_boots(devices, seed)
    installed = [OUTAGE_SECONDS * (number + 0.5) / new for number in range(new)]
    restart = Outage(0, RESTART_SECONDS, (Step.CONNECT,))
    outage = Outage(0, OUTAGE_SECONDS, REQUESTS)
    common = Scenario(devices, 0, [], new, SERVICES, seed=seed)
    return {
        "power": Case("Power is back in a city of a million devices", replace(common, starts=boots)),
        "restart": Case("The broker restarts", replace(common, connected=devices, outage=restart)),
        "outage": Case(
            "The cloud is out of reach for an hour",
            replace(common, connected=devices - new, starts=installed, outage=outage),
            OUTAGE_SECONDS,
        ),
    }


def vary(case: Case, variant: Variant) -> Case:
    return replace(case, scenario=replace(case.scenario, delays=variant.delays, connects_as_advised=variant.turns))


def serve(case: Case, step: Step, **changes) -> Case:
    """The same with another service behind one address."""
    services = dict(case.scenario.services)
    services[step] = replace(services[step], **changes)
    return replace(case, scenario=replace(case.scenario, services=services))


def make_trials(cases: Mapping[str, Case]) -> dict[str, dict[str, Case]]:
    """What is varied beside the four ways of spreading: tables of their own."""
    restart, power = cases["restart"], cases["power"]
    fixed, turns = vary(restart, VARIANTS[0]), vary(restart, VARIANTS[2])
    queues = {}
    for seconds in (1, 5, 30, 55, None):
        row = "no limit" if seconds is None else f"{seconds} s"
        queues[row] = serve(serve(fixed, Step.ADVISOR, queue=seconds), Step.CONNECT, queue=seconds)
    widths = {}
    for low, high in ((60, 60), (45, 75), (30, 90), (30, 230), (30, 430), (30, 630), (30, 1230)):
        delays = {**SPREAD, "qbroker": (low, high)}
        widths[f"{low} to {high} s"] = replace(restart, scenario=replace(restart.scenario, delays=delays))
    fronts = {f"{rate:,}": serve(turns, Step.ADVISOR, capacity=rate) for rate in (5_000, 20_000, 50_000, 100_000)}
    boots = {}
    for delay in (0, 120, 240, 480):
        starts = draw_boots(power.scenario.devices, power.scenario.seed, delay)
        boots[f"{delay} s"] = replace(power, scenario=replace(power.scenario, starts=starts))
    return {"queues": queues, "widths": widths, "fronts": fronts, "boots": boots}


def run_case(case: Case) -> Course:
    return Herd(case.scenario).run()


# Tables.

HEADS = {
    "queues": "requests may wait",
    "widths": "`q_qbroker_delay`",
    "fronts": "advisor's answers each second",
    "boots": "start put off by up to",
}


def used_steps(courses: Sequence[Course]) -> list[Step]:
    return [step for step in REQUESTS if any(any(course.asked[step]) for course in courses)]


def seconds_until(course: Course, case: Case, percent: int) -> int | None:
    """From the moment on which everything works again to that share of sessions."""
    enough = case.scenario.devices * percent / 100
    return next((at + 1 - case.back for at in range(case.back, len(course.open)) if course.open[at] >= enough), None)


def make_table(head: str, rows: Mapping[str, tuple[Case, Course]]) -> str:
    steps = used_steps([course for _, course in rows.values()])
    heads = [head, *(f"{percent} %" for percent in SHARES)]
    for step in steps:
        heads += [f"{TITLES[step].split(',')[0]}: peak/s", "asked", "refused"]
    lines = [heads, ["---"] + ["---:"] * (len(heads) - 1)]
    for name, (case, course) in rows.items():
        cells = [name]
        for percent in SHARES:
            seconds = seconds_until(course, case, percent)
            cells.append("never" if seconds is None else f"{seconds:,} s")
        for step in steps:
            cells += load_cells(course, case, step)
        lines.append(cells)
    return "\n".join(f"| {' | '.join(cells)} |" for cells in lines)


def load_cells(course: Course, case: Case, step: Step) -> list[str]:
    """Of the time since everything works again."""
    asked, refused, timed_out = (
        counts[step][case.back :] for counts in (course.asked, course.refused, course.timed_out)
    )
    unserved = f"{sum(refused):,}"
    if any(timed_out):
        unserved += f", {sum(timed_out):,} timed out"
    return [f"{max(asked, default=0):,}", f"{sum(asked):,}", unserved]


# Pictures.


def draw(name: str, case: Case, courses: Mapping[str, Course]) -> None:
    ends = [seconds_until(course, case, 99) for course in courses.values()]
    longest = max(len(course.open) for course in courses.values())
    seconds = min(longest, int(1.05 * (case.back + max(end or longest for end in ends))))
    seconds += -seconds % 360  # whole minutes at the marks
    picture = Picture(case.title, seconds)
    picture.legend([(variant.colour, variant.name) for variant in VARIANTS])
    for step in used_steps([*courses.values()]):
        highest = max(max(course.asked[step]) for course in courses.values())
        capacity = case.scenario.services[step].capacity
        title = f"{TITLES[step]}: requests a second, logarithmic; dashed: what is served, {capacity:,}"
        panel = picture.panel(title, 1, max(highest, capacity) * 1.3, logarithmic=True)
        panel.level(capacity)
        for variant in VARIANTS:
            panel.line(peaks(courses[variant.name].asked[step], seconds, 0), variant.colour)
        panel.close()
    panel = picture.panel("open sessions", 0, case.scenario.devices)
    for variant in VARIANTS:
        sessions = courses[variant.name].open
        panel.line(peaks(sessions, seconds, sessions[-1]), variant.colour)
    panel.close()
    picture.write(DOCS / f"fleet-{name}.svg")


def peaks(values: Sequence[int], seconds: int, afterwards: int) -> list[tuple[float, float]]:
    """The highest value of each piece of the time; runs of the same value by their ends."""
    points = []
    for place in range(BINS):
        begin, end = (seconds * edge // BINS for edge in (place, place + 1))
        points.append((begin, max(values[begin : max(end, begin + 1)], default=afterwards)))
    inner = zip(points, points[1:], points[2:])
    bends = [here for before, here, after in inner if not before[1] == here[1] == after[1]]
    return [points[0], *bends, points[-1]]


# The command.


def write_tables(tables: Mapping[str, str]) -> None:
    path = DOCS / "fleet.md"
    text = path.read_text()
    for name, table in tables.items():
        block = re.compile(f"(<!-- table {name} -->\n).*?(<!-- end -->)", re.DOTALL)
        text, count = block.subn(lambda match, table=table: f"{match[1]}{table}\n{match[2]}", text)
        if count != 1:
            raise RuntimeError(f"{path} has {count} places for table {name}")
    path.write_text(text)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--devices", type=int, default=DEVICES)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=2, help="processes, each with about 150 MB")
    parser.add_argument("--write", action="store_true", help="bring docs/fleet.md and its pictures up to date")
    options = parser.parse_args()
    print(f"{options.devices:,} devices, seed {options.seed}")

    begun = time.monotonic()
    cases = make_cases(options.devices, options.seed)
    groups = {name: {variant.name: vary(case, variant) for variant in VARIANTS} for name, case in cases.items()}
    groups |= make_trials(cases)
    tables = {}
    with ProcessPoolExecutor(options.jobs) as pool:
        runs = {name: {row: pool.submit(run_case, case) for row, case in rows.items()} for name, rows in groups.items()}
        for name, rows in groups.items():
            courses = {row: run.result() for row, run in runs[name].items()}
            head = HEADS.get(name, "delays")
            tables[name] = make_table(head, {row: (case, courses[row]) for row, case in rows.items()})
            print(f"\n{name}\n{tables[name]}", flush=True)
            if options.write and name in cases:
                draw(name, cases[name], courses)
    if options.write:
        write_tables(tables)
    print(f"\n{time.monotonic() - begun:.0f} s")


if __name__ == "__main__":
    sys.exit(main())
