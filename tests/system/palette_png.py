"""Screenshots for the documents: with a palette they are a fraction as long (RFC 2083)."""

from __future__ import annotations

import struct
import zlib
from collections import Counter
from collections.abc import Iterator

SIGNATURE = b"\x89PNG\r\n\x1a\n"
CHANNELS = {2: 3, 6: 4}  # of the colour types RGB and RGBA
PALETTE = 3
COLOURS = 256


def with_palette(png: bytes) -> bytes:
    """The same picture in 256 colours at most: those of its most frequent shades; the others become the nearest."""
    chunks = dict(_chunks(png))
    width, height, depth, kind = struct.unpack(">IIBB", chunks[b"IHDR"][:10])
    assert depth == 8 and kind in CHANNELS, f"a PNG of depth {depth} and type {kind}"
    rows = list(_rows(zlib.decompress(chunks[b"IDAT"]), width * CHANNELS[kind], CHANNELS[kind]))
    pixels = [[row[at : at + 3] for at in range(0, len(row), CHANNELS[kind])] for row in rows]
    numbers = Counter(pixel for row in pixels for pixel in row)
    palette = _palette(numbers)
    index = {colour: _nearest(colour, palette) for colour in numbers}
    data = b"".join(b"\0" + bytes(index[pixel] for pixel in row) for row in pixels)
    return b"".join([
        SIGNATURE,
        _chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, PALETTE, 0, 0, 0)),
        _chunk(b"PLTE", b"".join(palette)),
        _chunk(b"IDAT", zlib.compress(data, 9)),
        _chunk(b"IEND", b""),
    ])


def _chunks(png: bytes) -> Iterator[tuple[bytes, bytes]]:
    """Kind and data of each; consecutive ones of the image are one."""
    at, image = len(SIGNATURE), b""
    while at < len(png):
        length, kind = struct.unpack(">I4s", png[at : at + 8])
        data = png[at + 8 : at + 8 + length]
        image += data if kind == b"IDAT" else b""
        yield kind, image if kind == b"IDAT" else data
        at += 12 + length


def _chunk(kind: bytes, data: bytes) -> bytes:
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))


def _rows(data: bytes, length: int, step: int) -> Iterator[bytes]:
    """The bytes of each row, its filter undone."""
    above = bytearray(length)
    for at in range(0, len(data), length + 1):
        row = bytearray(data[at + 1 : at + 1 + length])
        for i in range(length) if data[at] else ():
            left, corner = (row[i - step], above[i - step]) if i >= step else (0, 0)
            row[i] = (row[i] + _predicted(data[at], left, above[i], corner)) & 0xFF
        yield bytes(row)
        above = row


def _predicted(filter_kind: int, left: int, up: int, corner: int) -> int:
    if filter_kind < 4:
        return (0, left, up, (left + up) // 2)[filter_kind]
    return min((left, up, corner), key=lambda value: abs(left + up - corner - value))


def _palette(numbers: Counter[bytes]) -> list[bytes]:
    """The most frequent colour of each shade, so that many greys leave room for a rare green."""
    shades: Counter[bytes] = Counter()
    colours: dict[bytes, bytes] = {}
    for colour, count in numbers.most_common():
        shade = bytes(byte >> 3 for byte in colour)
        shades[shade] += count
        colours.setdefault(shade, colour)
    return [colours[shade] for shade, _ in shades.most_common(COLOURS)]


def _nearest(colour: bytes, palette: list[bytes]) -> int:
    distances = (sum((one - other) ** 2 for one, other in zip(colour, candidate)) for candidate in palette)
    return min(enumerate(distances), key=lambda entry: entry[1])[0]
