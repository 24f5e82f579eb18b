"""A change of the settings that is killed at each of its system calls, with whatever a power cut may leave then."""

from __future__ import annotations

import shutil
import signal
import subprocess
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

from support.rounds import Round
from support.disks import Disk, State
from support.tracing import Traced
from orvel_lab.agent import default_binary

TOOL = default_binary().with_name("usi")


@dataclass(frozen=True)
class Store:
    """What is in the folder at first, and the change that is made."""

    files: dict[str, str]
    change: tuple[str, ...]
    link: str = ""  # where the file `settings` points to
    options: str = ""


OLD = "# kept\nk=old\nother=1\n"
LONG = "".join(f"key{number}={'x' * 500}\n" for number in range(400))
STORES = {
    "change": Store({"settings": OLD}, ("set", "k", "new")),
    "add": Store({"settings": OLD}, ("set", "added", "2")),
    "unset": Store({"settings": OLD}, ("unset", "k")),
    "first": Store({}, ("set", "k", "new")),
    "leftover": Store({"settings": OLD, "settings.lock": "", "settings.usi-new": "k=to"}, ("set", "k", "new")),
    "link": Store({"deep/target": OLD}, ("set", "k", "new"), link="deep/target"),
    "long": Store({"settings": LONG}, ("set", "key7", "new")),
    "control": Store({"settings": OLD}, ("set", "k", "new"), options="sync=none\n"),
}


class Lost(AssertionError):
    """Neither the old settings nor the new ones are left."""


class PowerCut:
    """All of one store; each state of the disk that may be left is looked at once."""

    def __init__(self, this: Round, store: Store) -> None:
        self.this = this
        self.store = store
        self.folder = this.folder / "live"
        self.left = this.folder / "left"
        (this.folder / "options").write_text(store.options)
        self._seen: dict[State, str] = {}
        self.old = self.new = ""
        self._lay_out()
        self.old = self._list(self.folder)
        assert self._tool(self.folder, *store.change).returncode == 0
        self.new = self._list(self.folder)
        assert self.old != self.new

    def kill_at_each_call(self) -> int:
        """Gives the number of system calls."""
        for number in range(1, 1000):
            disk = self._lay_out()
            status = self._run(disk, number)
            allowed = ("new",) if status == 0 else ("old", "new")
            assert status in (0, -signal.SIGKILL), f"status {status}"
            self._cut_power(disk, allowed, f"before call {number}")
            if status == 0:
                return number - 1
        raise AssertionError("the tool does not end")

    def retry_after_each_kill(self, calls: int, step: int) -> None:
        """Killed, made anew and killed again, then the power is cut; at the end of the second one, too."""
        for first in range(1, calls + 1):
            for second in (*range(1 + first % step, calls + 20, step), 1000):
                disk = self._lay_out()
                self._run(disk, first)
                status = self._run(disk, second)
                allowed = ("new",) if status == 0 else ("old", "new")
                self._cut_power(disk, allowed, f"before call {first}, then before call {second}")

    def _lay_out(self) -> Disk:
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir()
        for name, content in self.store.files.items():
            path = self.folder / name
            path.parent.mkdir(exist_ok=True)
            path.write_text(content)
            path.chmod(0o640 if path.name in ("settings", "target") else 0o600)
        if self.store.link:
            (self.folder / "settings").symlink_to(self.store.link)
        return Disk(self.folder)

    def _arguments(self, folder: Path, *change: str) -> list[str | Path]:
        return [TOOL, "-c", folder / "settings", "--conf", self.this.folder / "options", *change]

    def _run(self, disk: Disk, killed_before: int) -> int:
        """Makes the change, killed before the system call of that number if it makes as many; gives its status."""
        tool = Traced(self._arguments(self.folder, *self.store.change))
        for _ in range(killed_before - 1):
            call = tool.next_call()
            if call is None:
                break
            disk.apply(tool.carry_out(call), tool)
        if tool.status is None:
            assert tool.next_call() is None or tool.kill() is None
            self.this.tally.counts["kills"] += tool.status < 0
        disk.program_ended()
        assert disk.look() == disk.present(), f"the model of the disk is wrong: {disk.present()} for {disk.look()}"
        return tool.status

    def _cut_power(self, disk: Disk, allowed: Sequence[str], where: str) -> None:
        for state in dict.fromkeys(disk.left_by_power_cut()):
            self.this.tally.counts["power cuts"] += 1
            if state not in self._seen:
                self._seen[state] = self._look_at(state, where)
            if self._seen[state] not in allowed:
                raise Lost(f"{where}: {self._seen[state]} settings in {state}")

    def _look_at(self, state: State, where: str) -> str:
        """Which settings are left; they can be changed afterwards."""
        self.this.tally.counts["states of a disk"] += 1
        shutil.rmtree(self.left, ignore_errors=True)
        self.left.mkdir()
        for name, content, mode in state:
            path = self.left / name
            path.parent.mkdir(exist_ok=True)
            path.write_bytes(content)
            path.chmod(mode)
            usual = 0o640 if self.store.files else 0o600
            if path.name in ("settings", "target") and mode != usual:
                raise Lost(f"{where}: mode {mode:o} in {state}")
        if self.store.link:
            (self.left / "settings").symlink_to(self.store.link)
        found = self._list(self.left)
        if found not in (self.old, self.new):
            raise Lost(f"{where}: settings {found!r} in {state}")
        changed = self._tool(self.left, "set", "afterwards", "1")
        assert changed.returncode == 0, f"{where}: {changed.stderr!r} in {state}"
        assert self._list(self.left) == f"{found}afterwards=1\n", f"{where}: in {state}"
        assert not list(self.left.rglob("*.usi-new")), f"{where}: leftovers of {state}"
        return "new" if found == self.new else "old"

    def _list(self, folder: Path) -> str:
        listed = self._tool(folder, "list")
        if listed.returncode != 0:
            raise Lost(f"settings that can't be read: {listed.stderr}")
        return listed.stdout

    def _tool(self, folder: Path, *arguments: str) -> subprocess.CompletedProcess[str]:
        command = self._arguments(folder, *arguments)
        return subprocess.run(command, capture_output=True, text=True, errors="backslashreplace", check=False)
