"""A network of one's own, which is loopback alone, and rules in it: nothing but a proxy gets past, packets are lost."""

from __future__ import annotations

import ctypes
import json
import socket
import subprocess
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from pathlib import Path

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

# Lost on arrival: to the sender it looks as if the packet had gone out.
LOSSES = """
table inet loss
delete table inet loss
table inet loss {{
  counter lost {{}}
  chain input {{
    type filter hook input priority filter
    {rules}
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
        return _packets("lab", name)


@contextmanager
def lost_packets(*matches: str) -> Iterator[None]:
    """Packets that fit one of the expressions, such as "tcp dport 4000", are lost. Only in a network of one's own."""
    assert is_private(), "packets are lost in a network of one's own only"
    _run("nft", "-f", "-", given=LOSSES.format(rules="\n".join(f"{match} counter name lost drop" for match in matches)))
    try:
        yield
        assert _packets("loss", "lost") > 0, f"nothing was lost by {matches}"
    finally:
        _run("nft", "delete", "table", "inet", "loss")


def tune_tcp(**values: int) -> None:
    """Sets the kernel's values for this network, such as tcp_keepalive_time=1. Only in a network of one's own."""
    assert is_private(), "the kernel's values are changed in a network of one's own only"
    for name, value in values.items():
        Path(f"/proc/sys/net/ipv4/{name}").write_text(str(value))


def _packets(table: str, counter: str) -> int:
    shown = json.loads(_run("nft", "-j", "list", "counter", "inet", table, counter))
    return next(entry["counter"]["packets"] for entry in shown["nftables"] if "counter" in entry)


def _check(result: int, failure: str) -> None:
    if result != 0:
        raise OSError(ctypes.get_errno(), failure)


def _run(*command: str, given: str = "") -> str:
    done = subprocess.run(command, input=given, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)} failed: {done.stderr.strip()}")
    return done.stdout
