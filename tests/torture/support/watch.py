"""Looks at a file's mode whenever anything in its folder changes."""

from __future__ import annotations

import contextlib
import ctypes
import os
import stat
import threading
from pathlib import Path

from orvel_lab.waiting import Wake, poll_readable

# Of <sys/inotify.h>.
ATTRIBUTES, CLOSED, MOVED_TO, CREATED = 0x4, 0x8, 0x80, 0x100


class ModeWatch:
    """Used by `with`. Looks at every file whose name begins as that of `path`: its lock and its next version too."""

    def __init__(self, path: Path) -> None:
        self.modes: dict[str, set[int]] = {}  # by name
        self.looks = 0
        self._path = path
        libc = ctypes.CDLL(None, use_errno=True)
        self._descriptor = libc.inotify_init1(os.O_CLOEXEC | os.O_NONBLOCK)
        events = ATTRIBUTES | CLOSED | MOVED_TO | CREATED
        if self._descriptor < 0 or libc.inotify_add_watch(self._descriptor, os.fsencode(path.parent), events) < 0:
            raise OSError(ctypes.get_errno(), "inotify")
        self._over = Wake()
        self._thread = threading.Thread(target=self._follow, name="mode-watch")

    def __enter__(self) -> ModeWatch:
        self._thread.start()
        return self

    def __exit__(self, *_error: object) -> None:
        self._over.set()
        self._thread.join()
        os.close(self._descriptor)

    def fileno(self) -> int:
        return self._descriptor

    def _follow(self) -> None:
        while self._over not in poll_readable([self, self._over]):
            os.read(self._descriptor, 65536)
            self._look()
        self._look()

    def _look(self) -> None:
        self.looks += 1
        for name in os.listdir(self._path.parent):
            if self._path.name in name:
                with contextlib.suppress(FileNotFoundError):  # replaced meanwhile
                    mode = os.stat(self._path.with_name(name), follow_symlinks=False).st_mode
                    self.modes.setdefault(name, set()).add(stat.S_IMODE(mode))
