"""Captures of the broker link, written by hand or taken from loopback, and what tshark's dissector says of them."""

from __future__ import annotations

import shutil
import signal
import socket
import struct
import subprocess
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

import pytest
from orvel_lab import DEADLINE, wait_until

DISSECTOR = Path(__file__).resolve().parents[2] / "packaging" / "wireshark" / "orvel.lua"
PORT = 4000  # of captures that were written by hand
RAW_IP = 101
BETWEEN = "\x1f"
MARK = b"this is the end of the capture"


@dataclass(frozen=True)
class Frame:
    """What the dissector says of one frame."""

    stream: str
    summaries: list[str]
    experts: list[str]
    info: str


def write_capture(path: Path, streams: Sequence[Sequence[bytes]], size_limit: int = 65535) -> None:
    """A TCP stream of the broker's for each entry, one segment for each piece."""
    with path.open("wb") as file:
        file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, size_limit, RAW_IP))
        for number, pieces in enumerate(streams):
            sequence = 1
            for piece in pieces:
                packet = _segment(10000 + number, sequence, piece)
                kept = packet[:size_limit]
                file.write(struct.pack("<IIII", number, 0, len(kept), len(packet)) + kept)
                sequence += len(piece)


def _segment(to_port: int, sequence: int, data: bytes) -> bytes:
    """Without checksums: nobody looks at them."""
    tcp = struct.pack(">HHIIBBHHH", PORT, to_port, sequence, 1, 5 << 4, 0x18, 65535, 0, 0) + data
    address = socket.inet_aton("127.0.0.1")
    return struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(tcp), 0, 0, 64, 6, 0) + address + address + tcp


def require_tshark() -> None:
    if shutil.which("tshark") is None:
        pytest.skip("tshark is not installed: see scripts/install-deps.sh")


def dissect(path: Path, *options: str) -> list[Frame]:
    """The frames in which the dissector has found packets, or something odd."""
    require_tshark()
    fields = ["tcp.stream", "orvel.summary", "_ws.expert.message", "_ws.col.Info"]
    form = ["-T", "fields", "-E", "separator=\t", "-E", "occurrence=a", "-E", f"aggregator={BETWEEN}"]
    command = ["tshark", "-X", f"lua_script:{DISSECTOR}", "-n", "-r", path, "-Y", "orvel", *form, *options]
    for field in fields:
        command += ["-e", field]
    done = subprocess.run(command, capture_output=True, text=True, check=False, timeout=10 * DEADLINE)
    assert done.returncode == 0 and "Lua" not in done.stderr, done.stderr
    return [_frame(line) for line in done.stdout.splitlines()]


def _frame(line: str) -> Frame:
    stream, summaries, experts, info = line.split("\t")
    assert "Lua Error" not in experts, experts
    return Frame(stream, _split(summaries), _split(experts), info)


def _split(joined: str) -> list[str]:
    return joined.split(BETWEEN) if joined else []


def summaries_of(frames: Sequence[Frame]) -> list[str]:
    return [summary for frame in frames for summary in frame.summaries]


@contextmanager
def captured_loopback(path: Path) -> Iterator[None]:
    """Everything on this network's loopback, until the block has ended."""
    require_tshark()
    command = ["dumpcap", "-q", "-i", "lo", "-w", str(path)]
    with subprocess.Popen(command, stderr=subprocess.PIPE, text=True) as dumpcap:
        try:
            said = []
            for line in dumpcap.stderr:
                said.append(line)
                if line.startswith("File:"):
                    break
            else:
                pytest.skip(f"this system does not let dumpcap capture: {''.join(said).strip()}")
            yield
            _wait_for_mark(path)
        finally:
            dumpcap.send_signal(signal.SIGINT)


def _wait_for_mark(path: Path) -> None:
    """Frames are captured in their order: what comes before the mark is in the file when the mark is."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
        receiver.bind(("127.0.0.1", 0))
        receiver.sendto(MARK, receiver.getsockname())
    wait_until(lambda: MARK in path.read_bytes(), "the end of the capture")
