"""TLS's records in a tapped stream."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterator

# Content types (RFC 5246).
CHANGE_CIPHER_SPEC, ALERT, HANDSHAKE, APPLICATION_DATA = 20, 21, 22, 23

Stream = bytes | bytearray


def records(stream: Stream) -> Counter[int]:
    """How many records of each content type a TLS peer has sent; a failure when it has sent anything else."""
    found = list(_walk(stream))
    end = found[-1][1] if found else 0
    assert end == len(stream), f"the last record is not whole: {stream[-80:].hex(' ')}"
    return Counter(kind for kind, _ in found)


def whole_records(stream: Stream) -> Counter[int]:
    """The same for a stream that may have been cut in the middle of a record, which does not count."""
    return Counter(kind for kind, end in _walk(stream) if end <= len(stream))


def _walk(stream: Stream) -> Iterator[tuple[int, int]]:
    """The type and the end of each record of which the head is there."""
    at = 0
    while at + 5 <= len(stream):
        kind, version, size = stream[at], stream[at + 1], int.from_bytes(stream[at + 3 : at + 5], "big")
        if kind not in (CHANGE_CIPHER_SPEC, ALERT, HANDSHAKE, APPLICATION_DATA) or version != 3 or size == 0:
            raise AssertionError(f"not a TLS record at byte {at}: {stream[at : at + 80].hex(' ')}")
        at += 5 + size
        yield kind, at
