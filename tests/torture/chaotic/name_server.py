"""A name server that answers well, badly, or not at all; and the world in which it is the only one."""

from __future__ import annotations

import ctypes
import random
import socket
import subprocess
import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

from orvel_lab.listener import join
from orvel_lab.network import private_network
from orvel_lab.waiting import Wake, poll_readable

CLONE_NEWNS = 0x20000
ADDRESS = ("127.0.0.1", 53)
HEADER = 12
A, IN = 1, 1
RESPONSE = 0x8180  # an answer, with recursion
SERVFAIL, NXDOMAIN = 2, 3


def in_own_world(resolver_options: str, folder: Path, body: Callable[[NameServer], None]) -> None:
    """Runs `body` on a thread with a network and an /etc/resolv.conf of its own."""
    failures: list[BaseException] = []

    def run() -> None:
        try:
            with private_network(), _own_resolver(resolver_options, folder), NameServer() as server:
                body(server)
        except BaseException as failure:  # it is raised where the world was asked for
            failures.append(failure)

    thread = threading.Thread(target=run, name="own-world")
    thread.start()
    thread.join()
    if failures:
        raise failures[0]


@contextmanager
def _own_resolver(options: str, folder: Path) -> Iterator[None]:
    """For the calling thread, and what it starts, for good: nobody else sees the mount."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(CLONE_NEWNS) != 0:
        raise OSError(ctypes.get_errno(), "no mounts of one's own")
    configuration = folder / "resolv.conf"
    configuration.write_text(f"nameserver {ADDRESS[0]}\noptions {options}\n")
    subprocess.run(["mount", "--make-rprivate", "/"], check=True)
    subprocess.run(["mount", "--bind", configuration, "/etc/resolv.conf"], check=True)
    yield


class NameServer:
    """Used by `with`. `manner` is one of MANNERS, or "absent": nothing listens, and the kernel says so."""

    def __init__(self) -> None:
        self.asked = 0
        self._manner = "good"
        self._random = random.Random(53)
        self._socket: socket.socket | None = None

    def __enter__(self) -> NameServer:
        self._listen()
        return self

    def __exit__(self, *_error: object) -> None:
        self._close()

    def behave(self, manner: str) -> None:
        self._close()
        self._manner = manner
        if manner != "absent":
            self._listen()

    def _listen(self) -> None:
        self._stopping = Wake()
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind(ADDRESS)
        self._thread = threading.Thread(target=self._serve, args=(self._socket, self._stopping), name="name-server")
        self._thread.start()

    def _close(self) -> None:
        if self._socket is None:
            return
        self._stopping.set()
        join(self._thread)
        self._socket.close()
        self._socket = None

    def _serve(self, bound: socket.socket, stopping: Wake) -> None:
        while stopping not in poll_readable([bound, stopping]):
            query, client = bound.recvfrom(4096)
            self.asked += 1
            answer = MANNERS[self._manner](query, self._random)
            if answer is not None:
                bound.sendto(answer, client)


def _question(query: bytes) -> bytes:
    """Name, type and class."""
    at = HEADER
    while query[at]:
        at += 1 + query[at]
    return query[HEADER : at + 5]


def _answer(query: bytes, code: int, records: bytes = b"") -> bytes:
    counts = (1, 1 if records else 0, 0, 0)
    header = query[:2] + (RESPONSE | code).to_bytes(2, "big") + b"".join(count.to_bytes(2, "big") for count in counts)
    return header + _question(query) + records


def _good(query: bytes, _chance: random.Random) -> bytes:
    """Every name has the one address 127.0.0.1."""
    if int.from_bytes(_question(query)[-4:-2], "big") != A:
        return _answer(query, 0)
    head = b"\xc0\x0c" + A.to_bytes(2, "big") + IN.to_bytes(2, "big") + bytes(4) + (4).to_bytes(2, "big")
    return _answer(query, 0, head + socket.inet_aton("127.0.0.1"))


MANNERS: dict[str, Callable[[bytes, random.Random], bytes | None]] = {
    "good": _good,
    "silent": lambda query, chance: None,
    "noise": lambda query, chance: chance.randbytes(chance.randrange(600)),
    "torn": lambda query, chance: _good(query, chance)[: chance.randrange(HEADER, len(query) + 8)],
    "garbled": lambda query, chance: _answer(query, 0)[:-1] + chance.randbytes(60),
    "empty": lambda query, chance: _answer(query, 0),
    "unknown": lambda query, chance: _answer(query, NXDOMAIN),
    "broken": lambda query, chance: _answer(query, SERVFAIL),
}
