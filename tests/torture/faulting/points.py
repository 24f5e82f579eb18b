"""Where the agent calls the functions that can fail: the table that the preloaded shim fills, and names for it."""

from __future__ import annotations

import ctypes
import errno
import mmap
import subprocess
from collections.abc import Iterable
from dataclasses import dataclass
from pathlib import Path

# The order is that of the shim's enumeration. The errors are those that a call may fail with: the first always, the
# others in long runs.
FUNCTIONS = {
    "malloc": [errno.ENOMEM],
    "calloc": [errno.ENOMEM],
    "realloc": [errno.ENOMEM],
    "strdup": [errno.ENOMEM],
    "open": [errno.EMFILE],
    "openat": [errno.EMFILE],
    "fopen": [errno.EMFILE],
    "write": [errno.EIO, errno.ENOSPC, errno.EINTR],
    "send": [errno.EIO, errno.EINTR],
    "read": [errno.EIO, errno.EINTR],
    "recv": [errno.EIO, errno.EINTR],
    "socket": [errno.EMFILE],
    "connect": [errno.ECONNREFUSED, errno.EINTR],
    "pipe": [errno.EMFILE],
    "fork": [errno.EAGAIN],
    "vfork": [errno.EAGAIN],
    "pthread_create": [errno.EAGAIN],
    "rename": [errno.EIO],
    "renameat": [errno.EIO],
    "fsync": [errno.EIO],
    "accept": [errno.EMFILE, errno.ECONNABORTED, errno.EINTR],
    "poll": [errno.ENOMEM, errno.EINTR],
    "ppoll": [errno.ENOMEM],
    "select": [errno.ENOMEM],
}
NAMES = list(FUNCTIONS)
MEMORY = {"malloc", "calloc", "realloc", "strdup"}

PATH_DEPTH = 4
MOST_SITES = 16384
MOST_MODULES = 64
MODULE_NAME_SIZE = 120


class _Site(ctypes.Structure):
    _fields_ = [
        ("key", ctypes.c_uint64),
        ("function", ctypes.c_uint32),
        ("module", ctypes.c_uint32),
        ("path", ctypes.c_uint64 * PATH_DEPTH),
        ("calls", ctypes.c_uint64),
    ]


class _State(ctypes.Structure):
    _fields_ = [
        ("target_key", ctypes.c_uint64),
        ("target_call", ctypes.c_uint64),
        ("target_errno", ctypes.c_int32),
        ("fired", ctypes.c_int32),
        ("fired_pid", ctypes.c_int32),
        ("module_count", ctypes.c_uint32),
        ("versions", ctypes.c_uint32),
        ("lost", ctypes.c_uint64),
        ("modules", (ctypes.c_char * MODULE_NAME_SIZE) * MOST_MODULES),
        ("sites", _Site * MOST_SITES),
    ]


@dataclass(frozen=True)
class Site:
    """A place that calls one of the functions, for as long as the agent is not built anew."""

    function: str
    module: int  # 0: the agent itself
    path: tuple[int, ...]  # return addresses, innermost first
    library: str = ""  # of a module other than 0

    @property
    def own(self) -> bool:
        return self.module == 0

    @property
    def key(self) -> int:
        key = 14695981039346656037
        for number in (NAMES.index(self.function), self.module, *self.path):
            key = ((key ^ number) * 1099511628211) & (1 << 64) - 1
            key ^= key >> 29
        return key or 1

    @property
    def address(self) -> str:
        return f"{self.function}@{self.module}:" + "+".join(f"{address:x}" for address in self.path)


@dataclass(frozen=True)
class Point:
    """The `call`-th call of a site, which is to fail."""

    site: Site
    call: int
    error: int

    @property
    def text(self) -> str:
        return f"{self.site.address}#{self.call}:{errno.errorcode[self.error]}"

    @classmethod
    def parse(cls, text: str, library: str = "") -> Point:
        function, _, rest = text.partition("@")
        module, _, rest = rest.partition(":")
        addresses, _, rest = rest.partition("#")
        call, _, error = rest.partition(":")
        path = tuple(int(address, 16) for address in addresses.split("+"))
        return cls(Site(function, int(module), path, library), int(call), getattr(errno, error))


class Table:
    """The file that the agent with the shim and the experiment share."""

    def __init__(self, path: Path, point: Point | None) -> None:
        self.path = path
        with open(path, "wb+") as file:
            file.truncate(ctypes.sizeof(_State))
            self._map = mmap.mmap(file.fileno(), 0)
        self._state = _State.from_buffer(self._map)
        if point is not None:
            self._state.target_call = point.call
            self._state.target_errno = point.error
            self._state.target_key = point.site.key

    @property
    def fired(self) -> bool:
        return self._state.fired != 0

    @property
    def active(self) -> bool:
        """Has a process with the shim been here?"""
        return self._state.module_count != 0

    def calls(self) -> dict[Site, int]:
        """How often each site has called so far."""
        if self._state.lost:
            raise RuntimeError(f"{self._state.lost} calls found no room in the table of sites")
        found = {}
        for entry in self._state.sites:
            if entry.key == 0:
                continue
            path = tuple(entry.path)
            while len(path) > 1 and path[-1] == 0:
                path = path[:-1]
            library = self._library(entry.module) if entry.module else ""
            site = Site(NAMES[entry.function], entry.module, path + (0,) * (PATH_DEPTH - len(path)), library)
            found[site] = entry.calls
        return found

    def _library(self, module: int) -> str:
        name = self._state.modules[module].value.decode() if module < self._state.module_count else ""
        return Path(name).name.split(".so")[0] or "loaded later"


def describe(binary: Path, sites: Iterable[Site]) -> dict[Site, str]:
    """Names for sites: the agent's functions from the inside to the outside, or the library."""
    own = [site for site in sites if site.own]
    addresses = sorted({address for site in own for address in site.path if address})
    names = dict(zip(addresses, _symbols(binary, addresses)))
    described = {site: f"in {site.library}" for site in sites if not site.own}
    for site in own:
        described[site] = " < ".join(names[address] for address in site.path if address)
    return described


def _symbols(binary: Path, addresses: list[int]) -> list[str]:
    given = "\n".join(hex(address - 1) for address in addresses)  # the call stands before the return address
    command = ["addr2line", "-f", "-C", "-s", "-e", str(binary)]
    lines = subprocess.run(command, input=given, capture_output=True, text=True, check=True).stdout.splitlines()
    return [f"{_short(name)} {where.split(' ')[0]}" for name, where in zip(lines[::2], lines[1::2])]


def _short(name: str) -> str:
    return name.replace("(anonymous namespace)::", "").split("(")[0].split("<")[0]
