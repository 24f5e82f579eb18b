"""The packet format of the broker connection.

    type (1 byte), number of chunks (1 byte), then for each chunk its length (2 bytes) and its data;
    all numbers are big-endian

An empty chunk ends its packet, whatever number was announced, and a number of 0 is read as 256.
"""

from __future__ import annotations

import enum
import struct
from collections.abc import Iterable, Iterator, Sequence
from dataclasses import dataclass, field

MAX_CHUNK = 65535
MAX_CHUNKS = 255
LONGEST_TEXT = 64  # of a name or token in a description


class Type(enum.IntEnum):
    """What a packet is; the first four come from the agent."""

    IDENTITY_AGENT_ID = 0
    IDENTITY_TOKEN = 1
    KEEPALIVES = 10
    HEARTBEAT = 11
    PLAIN_MESSAGE = 2
    HEARTBEAT_RESPONSE = 12


@dataclass(frozen=True)
class Packet:
    type: int
    chunks: tuple[bytes, ...]
    raw: bytes = field(default=b"", compare=False, repr=False)  # as it arrived

    def encode(self) -> bytes:
        if len(self.chunks) > MAX_CHUNKS:
            raise ValueError(f"a packet holds at most {MAX_CHUNKS} chunks, not {len(self.chunks)}")
        encoded = struct.pack(">BB", self.type, len(self.chunks))
        return encoded + b"".join(encode_chunk(chunk) for chunk in self.chunks)

    @property
    def name(self) -> str:
        known = {member.value: member.name.lower().replace("_", " ") for member in Type}
        return known.get(self.type, f"type {self.type}")

    @property
    def text(self) -> str:
        """The first chunk as text: the id or token of an identity, the handler of a plain message."""
        return self.chunks[0].decode(errors="backslashreplace") if self.chunks else ""

    @property
    def payload(self) -> bytes:
        """What a plain message carries behind its handler id."""
        return b"".join(self.chunks[1:])

    @property
    def keepalives(self) -> tuple[int, int, int]:
        """Time, probes and interval of a keepalive packet."""
        return struct.unpack(">III", self.chunks[0])

    @property
    def sequence(self) -> int:
        """The sequence number of a heartbeat or of its response."""
        return struct.unpack(">Q8x", self.chunks[0])[0]

    @property
    def sent_at(self) -> int:
        """The agent's clock in a heartbeat, in seconds since 1970."""
        return struct.unpack(">8xq", self.chunks[0])[0]

    @property
    def _shown(self) -> str:
        """The first chunk in one short line."""
        first = self.chunks[0] if self.chunks else b""
        shown = "".join(chr(byte) if 32 <= byte < 127 else f"\\x{byte:02x}" for byte in first[:LONGEST_TEXT])
        return f"{shown}..." if len(first) > LONGEST_TEXT else shown

    def describe(self) -> str:
        """One line for a reader, as the dissector of packaging/wireshark has it; never fails."""
        sizes = [len(chunk) for chunk in self.chunks]
        if self.type in (Type.IDENTITY_AGENT_ID, Type.IDENTITY_TOKEN):
            return f"{self.name} '{self._shown}'"
        if self.type == Type.PLAIN_MESSAGE and self.chunks:
            return f"plain message for '{self._shown}', {len(self.payload)} bytes in {len(self.chunks) - 1} chunks"
        if self.type == Type.KEEPALIVES and sizes == [12]:
            return "keepalives time {}, probes {}, interval {}".format(*self.keepalives)
        if self.type == Type.HEARTBEAT and sizes == [16]:
            return f"heartbeat {self.sequence}, clock {self.sent_at}"
        if self.type == Type.HEARTBEAT_RESPONSE and sizes == [16]:
            return f"heartbeat response {self.sequence}"
        return f"{self.name} with chunks of {sizes} bytes"


def encode_chunk(data: bytes) -> bytes:
    if len(data) > MAX_CHUNK:
        raise ValueError(f"a chunk holds at most {MAX_CHUNK} bytes, not {len(data)}")
    return struct.pack(">H", len(data)) + data


def plain_message(handler: str | bytes, payload: bytes = b"", chunk_sizes: Sequence[int] | None = None) -> Packet:
    """A message for a handler: its payload in chunks of the given sizes, the rest in chunks as long as may be."""
    name = handler.encode() if isinstance(handler, str) else handler
    return Packet(Type.PLAIN_MESSAGE, (name, *cut(payload, chunk_sizes or [])))


def heartbeat_response(sequence: int, unused: bytes = bytes(8)) -> Packet:
    return Packet(Type.HEARTBEAT_RESPONSE, (struct.pack(">Q", sequence) + unused,))


def cut(data: bytes, sizes: Iterable[int], rest: int = MAX_CHUNK) -> list[bytes]:
    """`data` in pieces of the given sizes, and what is left then in pieces of `rest` bytes."""
    pieces, start = [], 0
    for size in sizes:
        pieces.append(data[start : start + size])
        start += size
    return pieces + [data[at : at + rest] for at in range(start, len(data), rest)]


class Decoder:
    """Cuts a stream into packets, whatever the pieces in which it arrives."""

    def __init__(self) -> None:
        self._pending = bytearray()

    def feed(self, data: bytes) -> Iterator[Packet]:
        self._pending += data
        while (packet := self._first()) is not None:
            del self._pending[: len(packet.raw)]
            yield packet

    @property
    def pending(self) -> bytes:
        """The bytes of a packet that is not complete yet."""
        return bytes(self._pending)

    def _first(self) -> Packet | None:
        if len(self._pending) < 2:
            return None
        chunks: list[bytes] = []
        at = 2
        while len(chunks) < (self._pending[1] or 256) and (not chunks or chunks[-1]):
            if len(self._pending) < at + 2:
                return None
            (length,) = struct.unpack_from(">H", self._pending, at)
            if len(self._pending) < at + 2 + length:
                return None
            chunks.append(bytes(self._pending[at + 2 : at + 2 + length]))
            at += 2 + length
        return Packet(self._pending[0], tuple(chunks), bytes(self._pending[:at]))
