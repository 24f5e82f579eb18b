"""Waiting without polling: journals that wake whoever waits for an entry, and descriptors that end a poll."""

from __future__ import annotations

import os
import select
import threading
import time
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field
from typing import Any, Generic, TypeVar

# Seconds that a wait may take unless the caller says otherwise: generous, because sanitizer builds on a loaded
# machine are slow, and because a wait that succeeds never uses it up.
DEADLINE = float(os.environ.get("ORVEL_LAB_DEADLINE", "30"))
LOOK_AGAIN_SECONDS = 0.05

Item = TypeVar("Item")
Found = TypeVar("Found")


class DeadlinePassed(AssertionError):
    """What was waited for did not come in time, or can not come any more."""


@dataclass(frozen=True)
class Event:
    """Something that happened in the lab, told to its observer."""

    source: str  # "cloud", "broker", "handler", "control", "lab"
    summary: str  # one line for a reader
    details: dict[str, Any] = field(default_factory=dict)  # JSON values: what a trace shows
    time: float = field(default_factory=time.time)


Observer = Callable[[Event], None]


def ignore(_event: Event) -> None:
    """The observer of a lab that nobody watches."""


class Journal(Generic[Item]):
    """An append-only list that several threads fill, and on which others wait."""

    def __init__(self) -> None:
        self._items: list[Item] = []
        self._changed = threading.Condition()
        self._ended = ""

    def append(self, item: Item) -> None:
        with self._changed:
            self._items.append(item)
            self._changed.notify_all()

    def touch(self) -> None:
        """Wakes the waiters after an entry itself has changed."""
        with self._changed:
            self._changed.notify_all()

    def end(self, reason: str) -> None:
        """No more entries will come: waits that are not satisfied yet fail at once."""
        with self._changed:
            self._ended = self._ended or reason
            self._changed.notify_all()

    def __len__(self) -> int:
        with self._changed:
            return len(self._items)

    def snapshot(self) -> list[Item]:
        with self._changed:
            return list(self._items)

    def wait(self, find: Callable[[Sequence[Item]], Found | None], what: str, deadline: float | None = None) -> Found:
        """The first result of `find` that is not None; `find` is called again after each change."""
        limit = time.monotonic() + (DEADLINE if deadline is None else deadline)
        with self._changed:
            while True:
                found = find(self._items)
                if found is not None:
                    return found
                left = limit - time.monotonic()
                if self._ended:
                    raise DeadlinePassed(f"{what}: will not come any more, {self._ended}")
                if left <= 0:
                    raise DeadlinePassed(f"{what}: did not come in time; {len(self._items)} entries so far")
                self._changed.wait(min(left, threading.TIMEOUT_MAX))

    def wait_for_count(self, count: int, what: str, deadline: float | None = None) -> list[Item]:
        return self.wait(lambda items: list(items) if len(items) >= count else None, what, deadline)


def wait_until(holds: Callable[[], Found], what: str, deadline: float | None = None) -> Found:
    """The first true result of `holds`. For what tells nobody that it has changed, such as a file of the agent."""
    limit = time.monotonic() + (DEADLINE if deadline is None else deadline)
    while not (result := holds()):
        if time.monotonic() >= limit:
            raise DeadlinePassed(f"{what}: did not come in time")
        time.sleep(LOOK_AGAIN_SECONDS)
    return result


class Wake:
    """A descriptor that becomes readable once and stays so: it ends every poll that watches it."""

    def __init__(self) -> None:
        self._descriptor = os.eventfd(0, os.EFD_CLOEXEC | os.EFD_NONBLOCK)

    def fileno(self) -> int:
        return self._descriptor

    def set(self) -> None:
        os.eventfd_write(self._descriptor, 1)

    def is_set(self) -> bool:
        return bool(poll_readable([self], 0))

    def wait(self, seconds: float | None = None) -> bool:
        return bool(poll_readable([self], seconds))

    def __del__(self) -> None:
        os.close(self._descriptor)


def poll_readable(watched: Sequence[Any], seconds: float | None = None) -> list[Any]:
    """The members of `watched` that became readable (or failed); an empty list when the time is over."""
    poller = select.poll()
    by_descriptor = {member.fileno(): member for member in watched}
    for descriptor in by_descriptor:
        poller.register(descriptor, select.POLLIN)
    ready = poller.poll(None if seconds is None else max(0.0, seconds) * 1000)
    return [by_descriptor[descriptor] for descriptor, _ in ready]
