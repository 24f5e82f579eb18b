"""What a life with one fault may come to. Everything that is not listed here is a failure."""

from __future__ import annotations

import errno
import gzip
import re
import subprocess
import zlib
from dataclasses import dataclass
from pathlib import Path

from orvel_lab.agent import SANITIZER_REPORTS
from orvel_lab.settings import unescape

from .lives import THREAD_FAILED, Life
from .points import MEMORY, Point

DEATH = "ended by signal"

# Verdicts.
SERVED = "goes on"
ENDED = "ends as stated"
NOT_TOLD = "does not hear SIGTERM, as stated"
SESSION_LATE = "goes on, connects on the next command only"
DEFAULT_TAKEN = "goes on with a default in place of a setting"
NO_CONTROL = "goes on without control port"
NO_SERVICE = "goes on without service"  # allowed behind faults inside libraries only
LIBRARY_DIES = "the library dies by itself"
NOT_MET = "not met"  # the call did not come this time
FAILED = "FAILED"


@dataclass(frozen=True)
class End:
    """An end that a fault may bring, with its exit status and its text."""

    functions: set[str]  # of the agent's own code; behind a fault in a library any call may fail
    status: int
    text: str


SETTINGS_CALLS = {"open", "read", *MEMORY}
STATED_ENDS = [
    End(MEMORY, 1, r"(malloc|strdup|realloc)\(\)\.$"),
    End(MEMORY, 255, r"(malloc\(\)\.|realloc\(\)\.$|malloc\.$)"),  # the first has no line end
    End(SETTINGS_CALLS, 0, r"Failed to read mandatory config settings\.$"),
    End(SETTINGS_CALLS, 1, r"Cannot get q_agent_id value\.$"),
    End({"open", "fopen", "write"}, 1, r"failed to lock the (watchdog )?pid file\.$"),
    End({"pipe"}, 1, r"Failed to setup signal handers\.$"),
    End({"pthread_create"}, 1, r"Failed to create main thread ret=\d+\.$"),
    End({"fork"}, 1, r"watchdog: .*fork\(\)\. errno: \d+\.$"),
    End({"fork", "open"}, 1, r"failed to daemonize\.$"),
]

# Functions of the agent whose failed allocation is always the end, and a few more that ask it themselves.
FATAL_ALLOCATIONS = ("must_allocate ", "make_room ", "make_buffer ")
WATCHDOG_FOLLOWS = re.compile(r"Child exit normally\.$", re.MULTILINE)

# The control listener's thread: no more commands then, and a SIGTERM is only noted once start-up is over.
LISTENER_CALLS = {"pipe", "socket", "accept", "poll", "pthread_create"}
ONLY_NOTED = re.compile(r"received sigterm$", re.MULTILINE)
BYTE_LOST = "Possibly process won't be terminated"

LISTENER_TEXTS = ("sleeping forever.", "Cannot create pipe: errno")

UNREAD_SETTING = re.compile(r"Can't get value by name:'(\w+)' error")
SLOW_DEFAULTS = {
    "q_register_delay",
    "q_register_aggressive_delay",
    "q_claim_delay",
    "q_advisor_delay",
    "q_qbroker_delay",
}

ALLOWED_SETTINGS = {
    "q_agent_id": r"LAB-[0-9A-F]{12}",
    "q_agent_claim_code": r"[0-9A-F]{8}",
    "q_agent_registered": r"[01]",
    "q_agent_claimed": r"[01]",
    "q_agent_connected": r"[01]",
    "q_agent_pid": r"\d+",
    "q_version": r"release-3\.5\.9_bq917rkvn_2725daa_usi",
    # Put together piece by piece; a piece that found no memory is left out.
    "q_agent_build": r"(Components: )?(Toolchain:mips-linux )?(Platform:amd64/ubuntu:22\.04 )?",
}


def judge(point: Point | None, where: str, life: Life, fired: bool, guarded: bool) -> tuple[str, str]:
    """The verdict, and what speaks for it: the end's text, or the failure."""
    if problem := _always_wrong(life, guarded):
        return FAILED, problem
    if point is not None and not fired:
        return (NOT_MET, "") if _served(life) else (FAILED, f"without any fault: {_outcome(life)}")
    if point is None:
        return (SERVED, "") if _served(life) else (FAILED, _outcome(life))
    if end := _stated_end(point, where, life, guarded):
        return ENDED, end
    if _is_fatal_allocation(point, where):
        return FAILED, f"a failed allocation that is fatal was not: {_outcome(life)}"
    if _served(life):
        return SESSION_LATE if THREAD_FAILED in life.log else SERVED, ""
    if point.site.own and point.site.function == "write" and BYTE_LOST in life.log:
        return NOT_TOLD, f"{life.terminations} SIGTERM"
    if _has_only_lost_control(point, life):
        return NO_CONTROL, "SIGTERM noted" if not life.obeyed else "ended on SIGTERM"
    if default := _has_only_a_default(point, life):
        return DEFAULT_TAKEN, default
    if not point.site.own and life.obeyed and set(life.statuses) == {0}:
        return NO_SERVICE, life.not_reached
    return FAILED, _outcome(life)


def check_files(folder: Path, versions: Path, settings: dict[str, str], tool: Path, final: bool) -> str:
    """What is wrong with the files that the agent leaves; empty when nothing is."""
    path = folder / "settings"
    listed = subprocess.run([tool, "-c", path, "list"], capture_output=True, text=True, check=False)
    if listed.returncode != 0:
        return f"the settings can't be read: {listed.stderr}"
    for version in sorted(versions.iterdir(), key=lambda one: int(one.name)):
        if problem := check_settings(version.read_text(), settings):
            return f"version {version.name} of the settings: {problem}"
    if final and "\nq_agent_connected=0\n" not in path.read_text():
        return "q_agent_connected is left at 1"
    return check_settings(path.read_text(), settings) or _check_generations(folder)


def check_settings(text: str, settings: dict[str, str]) -> str:
    """Each key has the value that it began with, or one that the agent gives it; every line is whole."""
    if not text.endswith("\n"):
        return "it is empty, or its last line is not whole"
    found = dict(line.split("=", 1) for line in text.splitlines())
    if missing := settings.keys() - found.keys():
        return f"gone: {sorted(missing)}"
    for key, value in found.items():
        allowed = ALLOWED_SETTINGS.get(key, "(?!)")
        if unescape(value) != settings.get(key) and not re.fullmatch(allowed, unescape(value)):
            return f"{key} is {value!r}"
    return ""


def _check_generations(folder: Path) -> str:
    for path in folder.glob("orvel.log*.gz"):
        try:
            gzip.decompress(path.read_bytes())
        except (OSError, EOFError, zlib.error) as error:
            return f"{path.name} is not whole: {error}"
    return ""


def _always_wrong(life: Life, guarded: bool) -> str:
    if killed := [status for status in life.statuses if status < 0 and not _was_killed_by_us(status, life)]:
        return f"{DEATH} {-killed[0]}"
    if guarded and life.log.count("Received sigchld in watchdog.") > life.log.count("Child exit normally."):
        return f"{DEATH}, the watchdog's agent"
    if reports := [report for report in SANITIZER_REPORTS if report in life.log]:
        return f"reported: {reports[0]}"
    return ""


def _was_killed_by_us(status: int, life: Life) -> bool:
    return status == -9 and bool(life.left)


def _served(life: Life) -> bool:
    """All steps had their effect, and the first SIGTERM was obeyed."""
    whole = not (life.ended_early or life.listener_gone or life.not_reached or life.left)
    return whole and life.terminations == 1 and set(life.statuses) == {0}


def _outcome(life: Life) -> str:
    if life.ended_early:
        return f"ended with {life.statuses} and no text that allows it"
    parts = [f"no effect: {life.not_reached}"] if life.not_reached else []
    parts += ["its control listener ended"] if life.listener_gone else []
    parts += [f"processes {life.left} had to be killed"] if life.left else []
    return ", ".join([*parts, f"statuses {life.statuses} after {life.terminations} SIGTERM"])


def _stated_end(point: Point, where: str, life: Life, guarded: bool) -> str:
    """The text of an end that the function's failure may bring."""
    if _is_fatal_allocation(point, where) and "args.cpp" in where and life.statuses[0] == 1:
        return "status 1, before an option has let the log say anything"
    for end in STATED_ENDS:
        if point.site.own and point.site.function not in end.functions:
            continue
        found = re.search(end.text, life.log, re.MULTILINE)
        if found and not life.left and _has_status(end.status, life, guarded):
            return f"status {end.status}: {found[0]}"
    return ""


def _has_status(status: int, life: Life, guarded: bool) -> bool:
    """The watchdog ends with status 0 behind an agent that has ended by itself."""
    if guarded and WATCHDOG_FOLLOWS.search(life.log):
        return life.statuses[0] == 0
    return status in life.statuses and set(life.statuses) <= {0, status}


def _is_fatal_allocation(point: Point, where: str) -> bool:
    return point.site.own and point.site.function in MEMORY and where.startswith(FATAL_ALLOCATIONS)


def _has_only_lost_control(point: Point, life: Life) -> bool:
    """Told to the agent's own call, or seen by it behind a fault in a library: then it sleeps forever."""
    if life.ended_early or not (life.obeyed or ONLY_NOTED.search(life.log)):
        return False
    if point.site.own and (point.site.function not in LISTENER_CALLS or point.error == errno.EINTR):
        return False
    return life.listener_gone or any(text in life.log for text in LISTENER_TEXTS)


def _has_only_a_default(point: Point, life: Life) -> str:
    """A setting that could not be read has its default; so a delay may have become a minute, which nobody waits for."""
    unread = UNREAD_SETTING.search(life.log)
    only_slow = point.site.function in SETTINGS_CALLS and life.obeyed and set(life.statuses) == {0}
    return unread[1] if unread and only_slow and unread[1] in SLOW_DEFAULTS else ""


def is_guarded(options: list[str]) -> bool:
    return "--watchdog" in options


