#!/usr/bin/python3
"""Makes each call fail that the agent makes of the functions that can, one in a life, and watches what becomes of it.

usage: faults.py [--long] [--seed N] [--jobs N] [--scenario NAME] [--replay POINT]

First a life of each scenario without a fault counts the calls. A point is a call site and the how-many-th of its calls:
sites of the agent's own code are told apart by the innermost frames of their call path, those in libraries by their
return address. In the long run every call of the own code fails, the first and last ones of each site with every error
that the function may have, and a sample inside libraries; in the short run the first calls of a sample of the sites.
"""

from __future__ import annotations

import argparse
import collections
import concurrent.futures
import multiprocessing
import os
import random
import shutil
import sys
import tempfile
import threading
import time
from collections.abc import Iterable
from dataclasses import dataclass
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

from support import processes  # noqa: E402  (found only now)
from support.builds import FOLDER, build, compile_c  # noqa: E402
from faulting.libraries import dies_by_itself  # noqa: E402
from faulting.lives import SCENARIOS, Life, adopted_ends, live  # noqa: E402
from faulting.outcomes import (  # noqa: E402
    DEATH,
    FAILED,
    LIBRARY_DIES,
    NO_SERVICE,
    NOT_MET,
    check_files,
    is_guarded,
    judge,
)
from faulting.points import FUNCTIONS, Point, Site, Table, describe  # noqa: E402
from orvel_lab import Authority  # noqa: E402

BINARY = FOLDER / "debug" / "bin" / "orvel"
SHIM = FOLDER / "faults.so"
LIBRARIES_ONLY = FOLDER / "libraries_only"
KEPT = FOLDER / "faults-failures"
OWN_PATIENCE, LIBRARY_PATIENCE = 10.0, 5.0  # seconds that a step may take
# Points of each scenario; the long run takes all in own code.
SHORT_OWN, SHORT_LIBRARY = 19, 10
LONG_LIBRARY = 200
POISON = "165"  # what the C library fills freed memory with


@dataclass
class Result:
    scenario: str
    point: Point | None
    where: str
    verdict: str
    reason: str
    seconds: float
    calls: dict[Site, int]


# --- building


def build_all() -> None:
    build("Debug")
    os.environ["ORVEL_BIN"] = str(BINARY)
    sources = Path(__file__).parent / "shims"
    frames = ["-fno-omit-frame-pointer", "-fno-optimize-sibling-calls"]
    compile_c(SHIM, "-O1", *frames, "-fPIC", "-shared", sources / "faults.c")
    compile_c(LIBRARIES_ONLY, "-O1", sources / "libraries_only.c", "-lcurl", "-lssl", "-lcrypto")


# --- one life, in a process of its own


def begin_worker() -> None:
    """Its agents' daemons become its children. A fault may make an agent confuse the lab, which needs one line only."""
    threading.excepthook = lambda what: print(f"({what.thread.name}: {what.exc_value})", flush=True)
    processes.adopt_orphans()


def run(name: str, certificates: Path, point: Point | None, where: str) -> Result:
    scenario = SCENARIOS[name]
    with tempfile.TemporaryDirectory(prefix="orvel-faults-") as folder:
        table = Table(Path(folder) / "table", point)
        versions = Path(folder) / "versions"
        versions.mkdir()
        environment = {
            "LD_PRELOAD": str(SHIM),
            "FAULTS_PROGRAM": str(BINARY),
            "FAULTS_STATE": str(table.path),
            "FAULTS_VERSIONS": str(versions),
            "MALLOC_PERTURB_": POISON,
        }
        lab = scenario.make_lab(Authority(certificates), Path(folder) / "lab")
        begin = dict(lab.settings)
        with lab:
            own = point is None or point.site.own
            life = live(scenario, lab, environment, OWN_PATIENCE if own else LIBRARY_PATIENCE)
            if not table.active:
                raise RuntimeError("the agent has not loaded the shim")
            verdict, reason = judge(point, where, life, table.fired, is_guarded(scenario.options))
            if verdict == FAILED and not own and DEATH in reason:
                control = [LIBRARIES_ONLY, lab.cloud.url("claim"), lab.authority.path]
                verdict = LIBRARY_DIES if dies_by_itself(control, SHIM, point) else verdict
        if problem := check_files(lab.folder, versions, begin, BINARY.with_name("usi"), final=point is None):
            verdict, reason = FAILED, problem
        if verdict == FAILED:
            keep(name, point, lab.folder, life, f"{where}\n{reason}\n")
        calls = table.calls() if point is None else {}
    adopted_ends()
    return Result(name, point, where, verdict, reason, life.seconds, calls)


def keep(name: str, point: Point | None, folder: Path, life: Life, reason: str) -> None:
    kept = KEPT / f"{name}-{point.text if point else 'without-fault'}".replace("/", "_")
    kept.mkdir(parents=True, exist_ok=True)
    (kept / "log").write_text(life.log)
    (kept / "reason").write_text(reason)
    if (folder / "settings").exists():
        shutil.copy(folder / "settings", kept / "settings")


# --- choosing


def every_call(calls: dict[Site, int]) -> list[Point]:
    """Of each own site every call with the first error, and the first and the last call with the others."""
    points = []
    for site, count in calls.items():
        first, *others = FUNCTIONS[site.function]
        points += [Point(site, number, first) for number in range(1, count + 1)]
        points += [Point(site, number, error) for error in others for number in {1, count}]
    return points


def first_calls(calls: dict[Site, int], count: int, chance: random.Random) -> list[Point]:
    """The first calls of so many own sites, of each function one at least."""
    sites = chance.sample(list(calls), len(calls))
    one_of_each = list({site.function: site for site in sites}.values())
    others = [site for site in sites if site not in one_of_each]
    chosen = one_of_each + others[: max(0, count - len(one_of_each))]
    return [Point(site, 1, FUNCTIONS[site.function][0]) for site in chosen]


def library_points(calls: dict[Site, int], count: int, chance: random.Random) -> list[Point]:
    """Half of them are first calls of sites, the other half any calls."""
    sites = list(calls)
    chosen = {Point(site, 1, FUNCTIONS[site.function][0]) for site in chance.sample(sites, min(count // 2, len(sites)))}
    weights = list(calls.values())
    while len(chosen) < min(count, sum(weights)):
        site = chance.choices(sites, weights)[0]
        chosen.add(Point(site, chance.randint(1, calls[site]), FUNCTIONS[site.function][0]))
    return list(chosen)


def choose(counted: dict[str, dict[Site, int]], long: bool, chance: random.Random) -> list[tuple[str, Point]]:
    chosen: list[tuple[str, Point]] = []
    known: set[Site] = set()
    for name, calls in counted.items():
        ordered = sorted(calls, key=lambda site: site.address)  # the same seed chooses the same
        excluded = known if SCENARIOS[name].only_new_sites else set()
        own = {site: calls[site] for site in ordered if site.own and site not in excluded}
        known |= own.keys()
        others = {site: calls[site] for site in ordered if not site.own}
        points = every_call(own) if long else first_calls(own, SHORT_OWN, chance)
        points += library_points(others, LONG_LIBRARY if long else SHORT_LIBRARY, chance)
        chosen += [(name, point) for point in points]
    chance.shuffle(chosen)
    return chosen


# --- telling


def show_table(results: list[Result]) -> None:
    rows: dict[tuple[str, str], collections.Counter[str]] = collections.defaultdict(collections.Counter)
    for result in results:
        who = "own" if result.point.site.own else result.point.site.library
        rows[result.point.site.function, who][result.verdict] += 1
    print(f"{'function':15} {'called by':14} {'points':>6}  outcomes")
    for (function, who), verdicts in sorted(rows.items()):
        outcomes = ", ".join(f"{count} {verdict}" for verdict, count in sorted(verdicts.items()))
        print(f"{function:15} {who:14} {verdicts.total():6}  {outcomes}")


def show_ends(results: list[Result]) -> None:
    reasons = collections.Counter(f"{one.verdict}: {one.reason}" for one in results if one.reason)
    for reason, count in sorted(reasons.items()):
        print(f"{count:6}  {reason}")


def show_limits(results: list[Result]) -> None:
    for one in results:
        if one.verdict in (NO_SERVICE, LIBRARY_DIES):
            print(f"{one.scenario} {one.point.text} {one.where}: {one.verdict}: {one.reason}")


def show_failure(result: Result) -> None:
    name = result.point.text if result.point else "without a fault"
    print(f"FAILED {result.scenario} {name}\n  {result.where}\n  {result.reason}")
    if result.point:
        library = f" --library {result.point.site.library}" if result.point.site.library else ""
        print(f"  replay: tests/torture/faults.py --scenario {result.scenario} --replay '{name}'{library}", flush=True)


# --- the experiment


class Experiment:
    def __init__(self, jobs: int, folder: Path, names: list[str]) -> None:
        context = multiprocessing.get_context("fork")
        self.pool = concurrent.futures.ProcessPoolExecutor(jobs, context, begin_worker)
        self.certificates = folder
        self.names = names
        authority = Authority(folder)
        authority.issue()

    def count_calls(self) -> dict[str, dict[Site, int]]:
        lives = [self.pool.submit(run, name, self.certificates, None, "") for name in self.names]
        counted = {}
        for life in lives:
            result = life.result()
            if result.verdict == FAILED:
                show_failure(result)
                sys.exit(1)
            counted[result.scenario] = result.calls
            own = [count for site, count in result.calls.items() if site.own]
            others = [count for site, count in result.calls.items() if not site.own]
            print(
                f"{result.scenario}: {sum(own)} calls from {len(own)} own sites, {sum(others)} from {len(others)} in "
                f"libraries, {result.seconds:.1f} s",
                flush=True,
            )
        return counted

    def carry_out(self, chosen: Iterable[tuple[str, Point]], names: dict[Site, str]) -> list[Result]:
        lives = [
            self.pool.submit(run, name, self.certificates, point, names.get(point.site, "")) for name, point in chosen
        ]
        results = []
        for life in concurrent.futures.as_completed(lives):
            result = life.result()
            results.append(result)
            if result.verdict == FAILED:
                show_failure(result)
            if len(results) % 200 == 0:
                print(f"... {len(results)} of {len(lives)} lives", flush=True)
        return results


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--long", action="store_true")
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--jobs", type=int, default=4)
    parser.add_argument("--scenario", choices=list(SCENARIOS), help="this one alone")
    parser.add_argument("--replay", metavar="POINT", help="as a failure names it, with what it names beside it")
    parser.add_argument("--library", default="")
    return parser.parse_args()


def replay(experiment: Experiment, options: argparse.Namespace) -> int:
    point = Point.parse(options.replay, options.library)
    where = describe(BINARY, [point.site])[point.site]
    [result] = experiment.carry_out([(options.scenario, point)], {point.site: where})
    print(f"{options.scenario} {point.text}\n  {where}\n  {result.verdict} {result.reason}")
    return int(result.verdict in (FAILED, NOT_MET))


def main() -> int:
    options = arguments()
    seed = options.seed if options.seed is not None else random.SystemRandom().randrange(1 << 32)
    print(f"seed {seed}", flush=True)
    build_all()
    shutil.rmtree(KEPT, ignore_errors=True)
    begin = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="orvel-faults-") as folder:
        names = [options.scenario] if options.scenario else list(SCENARIOS)
        experiment = Experiment(options.jobs, Path(folder), names)
        with experiment.pool:
            if options.replay:
                return replay(experiment, options)
            counted = experiment.count_calls()
            chosen = choose(counted, options.long, random.Random(seed))
            sites = describe(BINARY, {point.site for _, point in chosen})
            results = experiment.carry_out(chosen, sites)
    show_table(results)
    show_ends(results)
    show_limits(results)
    failed = sum(result.verdict == FAILED for result in results)
    missed = sum(result.verdict == NOT_MET for result in results)
    own = sum(result.point.site.own for result in results)
    places = len({(result.scenario, result.point.site) for result in results if result.point.site.own})
    print(
        f"faults: {len(results)} lives with a fault, {own} in own code at {places} call sites, {len(results) - own} in "
        f"libraries, {missed} not met, {failed} failed, {time.monotonic() - begin:.0f} s {'failed' if failed else 'ok'}"
    )
    return int(failed != 0)


if __name__ == "__main__":
    sys.exit(main())
