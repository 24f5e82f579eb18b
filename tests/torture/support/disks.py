"""What a power cut leaves of files: a model of a disk that keeps nothing but what was synced, and of a full one.

Data that was written to a file is lost, torn or turned to zeros, or is there, until an fsync of the file; names that
were given, changed or taken away are there or not, each for itself, until an fsync of their folder.
"""

from __future__ import annotations

import errno
import itertools
import os
import subprocess
from collections.abc import Iterator
from dataclasses import dataclass, field
from pathlib import Path

from orvel_lab import wait_until
from support.tracing import Call, Traced

AT_FDCWD = -100

State = tuple[tuple[str, bytes, int], ...]  # path below the folder, content and mode of each file


@dataclass(eq=False)
class File:
    content: bytes
    mode: int
    kept: bytes = b""  # what is on the medium for sure
    kept_mode: int = 0o600

    def outcomes(self) -> set[tuple[bytes, int]]:
        """What may be left of it."""
        if (self.content, self.mode) == (self.kept, self.kept_mode):
            return {(self.content, self.mode)}
        half = len(self.content) // 2
        contents = {self.kept, self.content, self.content[:half], bytes(len(self.content))}
        contents.add(self.content[:half] + bytes(len(self.content) - half))
        return set(itertools.product(contents, {self.mode, self.kept_mode}))

    def sync(self) -> None:
        self.kept, self.kept_mode = self.content, self.mode


@dataclass
class Open:
    """A descriptor of a program: of a file, or of a folder."""

    path: str
    file: File | None
    position: int = 0


@dataclass
class Disk:
    """Of one folder, in which everything is synced at first."""

    root: Path
    names: dict[str, File] = field(default_factory=dict)
    kept_names: dict[str, File] = field(default_factory=dict)
    changes: list[tuple[str, str, File | None]] = field(default_factory=list)  # from, to, and which file
    descriptors: dict[int, Open] = field(default_factory=dict)

    def __post_init__(self) -> None:
        for path, content, mode in self.look():
            self.names[path] = File(content, mode, content, mode)
        self.kept_names = dict(self.names)

    def look(self) -> State:
        """What really is in the folder."""
        files = (path for path in self.root.rglob("*") if path.is_file() and not path.is_symlink())
        found = ((str(path.relative_to(self.root)), path.read_bytes(), path.stat().st_mode & 0o7777) for path in files)
        return tuple(sorted(found))

    def present(self) -> State:
        """What the model takes for the folder's content."""
        return _state((path, file.content, file.mode) for path, file in self.names.items())

    def program_ended(self) -> None:
        self.descriptors.clear()

    def left_by_power_cut(self) -> Iterator[State]:
        for count in range(len(self.changes) + 1):
            for done in itertools.combinations(self.changes, count):
                names = dict(self.kept_names)
                for change in done:
                    _rename(names, *change)
                outcomes = [[(path, *left) for left in file.outcomes()] for path, file in names.items()]
                yield from map(_state, itertools.product(*outcomes))

    def apply(self, call: Call, program: Traced) -> None:
        """A call that was made."""
        if call.name and call.result >= 0:
            getattr(self, f"_{call.name}")(call, program)

    # The calls.

    def _openat(self, call: Call, program: Traced) -> None:
        flags = call.arguments[2]
        path = self._inside(program.descriptor(call.result))
        if path is None:
            return
        file = self.names.get(path)
        if file is None and flags & os.O_CREAT and not flags & os.O_DIRECTORY:
            file = File(b"", os.stat(self.root / path).st_mode & 0o7777)
            self._change("", path, file)
        if file is not None and flags & os.O_TRUNC:
            file.content = b""
        self.descriptors[call.result] = Open(path, file, len(file.content) if file and flags & os.O_APPEND else 0)

    def _open(self, call: Call, program: Traced) -> None:
        self._openat(Call("openat", (AT_FDCWD, *call.arguments), call.paths, b"", call.result), program)

    def _close(self, call: Call, _program: Traced) -> None:
        self.descriptors.pop(call.arguments[0], None)

    def _write(self, call: Call, _program: Traced) -> None:
        if opened := self.descriptors.get(call.arguments[0]):
            end = opened.position + call.result
            content = opened.file.content.ljust(opened.position, b"\0")
            opened.file.content = content[: opened.position] + call.data[: call.result] + content[end:]
            opened.position = end

    def _ftruncate(self, call: Call, _program: Traced) -> None:
        if opened := self.descriptors.get(call.arguments[0]):
            size = call.arguments[1]
            opened.file.content = opened.file.content[:size].ljust(size, b"\0")

    def _fchmod(self, call: Call, _program: Traced) -> None:
        if opened := self.descriptors.get(call.arguments[0]):
            opened.file.mode = call.arguments[1]

    def _fsync(self, call: Call, _program: Traced) -> None:
        opened = self.descriptors.get(call.arguments[0])
        if opened is None:
            return
        if opened.file is not None:
            opened.file.sync()
            return
        for change in self.changes:
            if os.path.dirname(change[1] or change[0]) == opened.path:
                _rename(self.kept_names, *change)
        self.changes = [change for change in self.changes if os.path.dirname(change[1] or change[0]) != opened.path]

    _fdatasync = _fsync

    def _renameat(self, call: Call, _program: Traced) -> None:
        old, new = self._full(call, 0, 0), self._full(call, 2, 1)
        self._change(old, new, self.names[old])

    _renameat2 = _renameat

    def _unlinkat(self, call: Call, _program: Traced) -> None:
        self._change(self._full(call, 0, 0), "", None)

    def _flock(self, _call: Call, _program: Traced) -> None:
        pass

    _fchown = _flock  # to the owner that it has: the model knows one only

    # Names.

    def _change(self, old: str, new: str, file: File | None) -> None:
        _rename(self.names, old, new, file)
        self.changes.append((old, new, file))

    def _full(self, call: Call, folder_argument: int, path: int) -> str:
        """A path below the root, of a call that names a folder's descriptor and a name in it."""
        folder = self.descriptors[call.arguments[folder_argument]]
        return os.path.normpath(os.path.join(folder.path, call.paths[path]))

    def _inside(self, path: str) -> str | None:
        inside = os.path.relpath(path.removesuffix(" (deleted)"), self.root)
        return None if inside.startswith("..") else inside.removeprefix(".")


def _rename(names: dict[str, File], old: str, new: str, file: File | None) -> None:
    """From "" a name is given, to "" it is taken away."""
    names.pop(old, None)
    if new:
        names[new] = file


def _state(files) -> State:
    return tuple(sorted(files))


class SmallDisk:
    """A file system in memory, mounted by `with`: needs a mount namespace of one's own."""

    def __init__(self, path: Path, kib: int) -> None:
        self.path = path
        self._kib = kib
        self._filler = path / "filler"

    def __enter__(self) -> SmallDisk:
        self.path.mkdir()
        _command("mount", "-t", "tmpfs", "-o", f"size={self._kib}k,mode=0700", "tmpfs", self.path)
        return self

    def __exit__(self, *_failure: object) -> None:
        _command("umount", "--lazy", self.path)

    def set_writable(self, writable: bool) -> None:
        """Tried again while somebody writes there."""
        command = ["mount", "-o", f"remount,{'rw' if writable else 'ro'}", str(self.path)]
        wait_until(lambda: subprocess.run(command, capture_output=True, check=False).returncode == 0, "the remount")

    def fill(self) -> None:
        with self._filler.open("ab", buffering=0) as filler:
            try:
                while True:
                    filler.write(bytes(1024))
            except OSError as failure:
                if failure.errno != errno.ENOSPC:
                    raise

    def free(self) -> None:
        self._filler.unlink()


def _command(*words: object) -> None:
    subprocess.run([*map(str, words)], check=True)
