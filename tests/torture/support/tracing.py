"""A program that is stopped at each of its system calls, without any help of its own (ptrace; x86-64)."""

from __future__ import annotations

import ctypes
import os
import platform
import signal
import struct
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

PTRACE_TRACEME, PTRACE_SYSCALL, PTRACE_DETACH, PTRACE_SETOPTIONS = 0, 24, 17, 0x4200
PTRACE_GET_SYSCALL_INFO, ENTRY, EXIT = 0x420E, 1, 2
TRACE_MARKED_CALLS, TRACE_KILL_WITH_TRACER = 1, 0x100000
MARKED_STOP = signal.SIGTRAP | 0x80
LONGEST_PATH = 4096

# The calls that change files, or that tell which file a descriptor is.
NAMES = {
    1: "write", 2: "open", 3: "close", 73: "flock", 74: "fsync", 75: "fdatasync", 77: "ftruncate", 91: "fchmod",
    93: "fchown", 257: "openat", 263: "unlinkat", 264: "renameat", 316: "renameat2",
}  # fmt: skip
# Those that leave files as they are: read, stat, fstat, lstat, lseek, mprotect, munmap, brk, signals, ioctl, pread64,
# access, nanosleep, getpid, execve, uname, readlink, times, ids, prctl, futex, clocks, exits and what a start needs.
HARMLESS = {
    0, 4, 5, 6, 8, 10, 11, 12, 13, 14, 16, 17, 21, 28, 35, 39, 59, 60, 63, 79, 89, 96, 99, 102, 104, 107, 108, 131, 157,
    158, 186, 202, 204, 218, 228, 230, 231, 262, 267, 269, 273, 302, 318, 332, 334, 439,
}  # fmt: skip
MMAP, MAP_SHARED, PROT_WRITE = 9, 1, 2

libc = ctypes.CDLL(None, use_errno=True)
libc.ptrace.argtypes, libc.ptrace.restype = [ctypes.c_long] * 4, ctypes.c_long


@dataclass
class Call:
    """A system call that changes files, or that only leads to one; `name` is "" for any other."""

    name: str
    arguments: tuple[int, ...]
    paths: tuple[str, ...] = ()
    data: bytes = b""
    result: int = 0


class Traced:
    """Started by the constructor; belongs to the thread that made it. Its output goes nowhere."""

    def __init__(self, arguments: Sequence[str | Path]) -> None:
        if platform.machine() != "x86_64":
            raise RuntimeError("the numbers of system calls are known for x86-64 only")
        self.status: int | None = None  # as of subprocess: negative for a signal
        self.pid = os.fork()
        if self.pid == 0:
            _become(arguments)
        self._wait()
        self._request(PTRACE_SETOPTIONS, TRACE_MARKED_CALLS | TRACE_KILL_WITH_TRACER)

    def next_call(self) -> Call | None:
        """Runs to the beginning of the next system call, which is not made yet; None when the program has ended."""
        if self.status is not None or not self._step():
            return None
        number, *arguments = struct.unpack_from("<7Q", self._information(ENTRY), 24)
        if number == MMAP and not (arguments[3] & MAP_SHARED and arguments[2] & PROT_WRITE):
            return Call("", tuple(arguments))
        if number not in NAMES and number not in HARMLESS:
            raise AssertionError(f"system call {number}{tuple(arguments)} is not known to the model of a disk")
        return self._described(NAMES.get(number, ""), arguments)

    def carry_out(self, call: Call) -> Call:
        """Lets the call happen; afterwards its result is known."""
        if self._step():  # the last one does not come back
            (call.result,) = struct.unpack_from("<q", self._information(EXIT), 24)
        return call

    def run_to(self, name: str) -> None:
        """Leaves it stopped before the first call of that name."""
        while (call := self.next_call()) is not None and call.name != name:
            self.carry_out(call)
        if call is None:
            raise AssertionError(f"it has ended with {self.status} before any {name}()")

    def release(self) -> int:
        """Lets it go its way; gives its exit status."""
        self._request(PTRACE_DETACH)
        self._wait()
        return self.status

    def kill(self) -> None:
        """The call before which it stands is not made."""
        os.kill(self.pid, signal.SIGKILL)
        while self.status is None:
            self._wait()

    def descriptor(self, number: int) -> str:
        """What an open descriptor is: the path of a file."""
        return os.readlink(f"/proc/{self.pid}/fd/{number}")

    def _described(self, name: str, arguments: Sequence[int]) -> Call:
        call = Call(name, tuple(_signed(argument) for argument in arguments))
        if name in ("openat", "unlinkat"):
            call.paths = (self._path(arguments[1]),)
        elif name == "open":
            call.paths = (self._path(arguments[0]),)
        elif name in ("renameat", "renameat2"):
            call.paths = (self._path(arguments[1]), self._path(arguments[3]))
        elif name == "write":
            call.data = self._memory(arguments[1], arguments[2])
        return call

    def _path(self, address: int) -> str:
        return os.fsdecode(self._memory(address, LONGEST_PATH).partition(b"\0")[0])

    def _memory(self, address: int, size: int) -> bytes:
        """What is there of so many bytes: a path may lie at the end of the program's memory."""
        with open(f"/proc/{self.pid}/mem", "rb", buffering=0) as memory:
            memory.seek(address)
            return memory.read(size)

    def _step(self) -> bool:
        number = 0
        while True:
            self._request(PTRACE_SYSCALL, number)
            stopped_by = self._wait()
            if stopped_by is None or stopped_by == MARKED_STOP:
                return stopped_by is not None
            number = stopped_by  # a signal, which it gets now

    def _wait(self) -> int | None:
        """The signal by which it has stopped; None when it has ended."""
        _, status = os.waitpid(self.pid, 0)
        if os.WIFSTOPPED(status):
            return os.WSTOPSIG(status)
        self.status = os.waitstatus_to_exitcode(status)
        return None

    def _information(self, wanted: int) -> bytes:
        buffer = ctypes.create_string_buffer(88)
        self._request(PTRACE_GET_SYSCALL_INFO, ctypes.addressof(buffer), len(buffer))
        assert buffer.raw[0] == wanted, f"stop {buffer.raw[0]} in place of {wanted}"
        return buffer.raw

    def _request(self, what: int, data: int = 0, address: int = 0) -> None:
        if libc.ptrace(what, self.pid, address, data) < 0:
            raise OSError(ctypes.get_errno(), f"ptrace request {what}")


def _become(arguments: Sequence[str | Path]) -> None:
    """In the new process: the program, watched from its first system call on."""
    try:
        nowhere = os.open("/dev/null", os.O_RDWR)
        os.dup2(nowhere, 1)
        os.dup2(nowhere, 2)
        libc.ptrace(PTRACE_TRACEME, 0, 0, 0)
        os.execv(arguments[0], [os.fsencode(argument) for argument in arguments])
    finally:
        os._exit(127)


def _signed(value: int) -> int:
    """A descriptor such as AT_FDCWD comes as 32 bits of 64."""
    return ctypes.c_int(value).value if value > 0x7FFFFFFF else value
