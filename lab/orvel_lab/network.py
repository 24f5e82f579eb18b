"""A network of one's own, which is loopback alone, and a rule in it that nothing but a proxy gets past."""

from __future__ import annotations

import ctypes
import json
import socket
import subprocess
from collections.abc import Iterator, Sequence
from contextlib import contextmanager

CLONE_NEWNET = 0x40000000

# The proxies connect from this address. Everything else in the lab does so from 127.0.0.1.
PROXY_ADDRESS = "127.0.0.2"

# A refused connection is reset at once, as if nothing listened.
RULES = """
table inet lab
delete table inet lab
table inet lab {{
  counter through {{}}
  counter past {{}}
  chain guarded {{
    ip saddr {proxy} tcp flags syn / syn,ack counter name through
    ip saddr {proxy} accept
    counter name past reject with tcp reset
  }}
  chain output {{
    type filter hook output priority filter
    tcp dport {{ {ports} }} goto guarded
  }}
}}
"""


@contextmanager
def private_network() -> Iterator[None]:
    """The calling thread, and every thread and program that it starts, in a new network. Needs root."""
    libc = ctypes.CDLL(None, use_errno=True)
    with open("/proc/thread-self/ns/net", "rb", buffering=0) as before:
        _check(libc.unshare(CLONE_NEWNET), "no network of one's own")
        try:
            set_up_loopback()
            yield
        finally:
            _check(libc.setns(before.fileno(), CLONE_NEWNET), "no way back into the first network")


def is_private() -> bool:
    """Whether this network is loopback alone."""
    return [name for _, name in socket.if_nameindex()] == ["lo"]


def set_up_loopback() -> None:
    """In a new network: IPv4 only, so that a name with addresses of both kinds leads nowhere else."""
    _run("ip", "link", "set", "lo", "up")
    _run("ip", "-6", "address", "flush", "dev", "lo")
    _run("ip", "address", "replace", f"{PROXY_ADDRESS}/8", "dev", "lo")


class Firewall:
    """Lets nothing but a proxy reach the ports, and counts. Stays until the network ends or another one replaces it."""

    def __init__(self, ports: Sequence[int]) -> None:
        rules = RULES.format(proxy=PROXY_ADDRESS, ports=", ".join(map(str, ports)))
        _run("nft", "-f", "-", given=rules)

    @property
    def through(self) -> int:
        """How many connections the proxies have made."""
        return self._count("through")

    @property
    def past(self) -> int:
        """How many packets of others were refused."""
        return self._count("past")

    def _count(self, name: str) -> int:
        shown = json.loads(_run("nft", "-j", "list", "counter", "inet", "lab", name))
        return next(entry["counter"]["packets"] for entry in shown["nftables"] if "counter" in entry)


def _check(result: int, failure: str) -> None:
    if result != 0:
        raise OSError(ctypes.get_errno(), failure)


def _run(*command: str, given: str = "") -> str:
    done = subprocess.run(command, input=given, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)} failed: {done.stderr.strip()}")
    return done.stdout
