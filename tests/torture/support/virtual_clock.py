"""The driver's side of shims/virtual_clock.c: an agent whose clock jumps from one deadline to the next.

While the agent or the lab does anything, or something is on its way between them, the clock stands still. All times are
nanoseconds of the agent's monotonic clock.
"""

from __future__ import annotations

import mmap
import os
import socket
import struct
import subprocess
import tempfile
from pathlib import Path

from support.builds import FOLDER
from support.rounds import PROJECT

SECOND = 1_000_000_000
SOURCE = PROJECT / "tests/torture/shims/virtual_clock.c"
SHIM = FOLDER / "virtual_clock.so"
PAGE = struct.Struct("=qqqq")  # now, how far the wall clock is ahead, jumps, timed waits
NOW, AHEAD, JUMPS, TIMED_WAITS = range(4)
PATIENCE = 180  # real seconds, for everything that happens up to the next rest


class Stuck(AssertionError):
    """The agent does not come to rest, or has ended."""


def build_shim() -> None:
    FOLDER.mkdir(parents=True, exist_ok=True)
    incoming = SHIM.with_name(f"{SHIM.name}.{os.getpid()}")
    compiler = ["gcc", "-std=gnu17", "-O2", "-Wall", "-Wextra", "-Wshadow", "-Werror"]
    subprocess.run([*compiler, "-shared", "-fPIC", "-pthread", "-o", incoming, SOURCE], check=True)
    os.replace(incoming, SHIM)


class VirtualClock:
    """Used by `with`. The agent is started with `environment`; its first instruction waits for meet()."""

    def __init__(self, folder: Path, now: int, wall: int) -> None:
        self._folder = tempfile.TemporaryDirectory(prefix="clock-", dir=folder)
        path = Path(self._folder.name)
        (path / "page").write_bytes(PAGE.pack(now, wall - now, 0, 0))
        with (path / "page").open("r+b") as file:
            self._page = mmap.mmap(file.fileno(), PAGE.size)
        self._door = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._door.bind(str(path / "door"))
        self._door.listen(1)
        self._door.settimeout(PATIENCE)
        self._ahead = wall - now
        self._agent: socket.socket | None = None
        self.environment = {
            "LD_PRELOAD": str(SHIM),
            "VIRTUAL_CLOCK": f"{os.getpid()}:{path / 'page'}:{path / 'door'}",
        }

    def __enter__(self) -> VirtualClock:
        return self

    def __exit__(self, *_failure: object) -> None:
        self.part()
        self._door.close()
        self._folder.cleanup()

    def meet(self) -> None:
        """Waits for the agent that was just started."""
        self._agent, _ = self._door.accept()
        self._agent.settimeout(PATIENCE)

    def part(self) -> None:
        """The clock stands still from now on."""
        if self._agent is not None:
            self._agent.close()
            self._agent = None

    @property
    def now(self) -> int:
        return PAGE.unpack(self._page[: PAGE.size])[NOW]

    @property
    def wall(self) -> int:
        page = PAGE.unpack(self._page[: PAGE.size])
        return page[NOW] + page[AHEAD]

    @property
    def jumps(self) -> int:
        return PAGE.unpack(self._page[: PAGE.size])[JUMPS]

    @property
    def timed_waits(self) -> int:
        return PAGE.unpack(self._page[: PAGE.size])[TIMED_WAITS]

    def run_until(self, moment: int) -> None:
        """Lets the clock run up to there, and everything happen that is due by then."""
        try:
            self._agent.sendall(struct.pack("=qq", moment, self._ahead))
            answer = self._agent.recv(8, socket.MSG_WAITALL)
        except TimeoutError:
            raise Stuck(f"no rest within {PATIENCE} s") from None
        except OSError as error:
            raise Stuck(f"the agent has ended: {error}") from None
        if len(answer) != 8:
            raise Stuck("the agent has ended")

    def set_wall(self, wall: int) -> None:
        """The wall clock jumps: now, and before anything else happens."""
        self._ahead = wall - self.now
        self.run_until(self.now)
