"""The agent's settings file: one key=value a line."""

from __future__ import annotations

import os
import re
from collections.abc import Mapping
from pathlib import Path

ESCAPED = {"\\": "\\\\", "\n": "\\n", "\r": "\\r"}
UNESCAPED = {escaped: plain for plain, escaped in ESCAPED.items()}


def write(path: Path, settings: Mapping[str, str]) -> None:
    """Writes the file whole; it may hold credentials, so only its owner may read it."""
    lines = [f"{key}={escape(value)}\n" for key, value in settings.items()]
    incoming = path.with_name(path.name + ".new")
    with open(os.open(incoming, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600), "w", encoding="utf-8") as file:
        file.writelines(lines)
    os.replace(incoming, path)


def read(path: Path) -> dict[str, str]:
    """All settings of the file; none when there is no file."""
    if not path.exists():
        return {}
    settings = {}
    for line in path.read_bytes().decode(errors="surrogateescape").split("\n"):
        key, equals, value = line.partition("=")
        if equals and not line.lstrip(" \t").startswith("#"):
            settings[key.strip(" \t")] = unescape(value)
    return settings


def escape(value: str) -> str:
    return re.sub(r"[\\\n\r]", lambda found: ESCAPED[found.group()], value)


def unescape(value: str) -> str:
    return re.sub(r"\\[\\nr]", lambda found: UNESCAPED[found.group()], value)
