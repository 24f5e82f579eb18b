"""Credentials in the log: where they may stand, and the search for them everywhere else."""

from __future__ import annotations

import base64
import gzip
import re
from collections import Counter
from collections.abc import Iterator
from pathlib import Path

LEVELS = ("debug", "info", "warning", "error", "silent")
TAGS = {"DEBUG": 0, "INFO": 1, "WARNING": 3, "ERROR": 3}  # errors carry the tag of warnings

# The messages that contain a credential by definition: what it is, the tag, and how the message begins.
BY_DEFINITION = [
    ("claim code", "DEBUG", "Registered with: id='"),
    ("claim code", "INFO", "Device is registered successfully: id='"),
    ("claim code", "INFO", "Device is claimed: id='"),
    ("claim code", "WARNING", "Can't parse register reply: http code:'"),
    ("claim code", "WARNING", "Error before: '"),  # the rest of a reply that is no JSON
    ("token", "DEBUG", "body:'"),
    ("token", "WARNING", "Error before: '"),
    ("proxy password", "DEBUG", "Sending request : CONNECT "),
]

# Both outputs. Some messages end without a line end, so that the next one begins in the midst of a line.
MESSAGE = re.compile(
    r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d (?:\(\d+\):\w+:\d+\t *|[ES])(\w*): |\w+: \d+: *(DEBUG|INFO|WARNING|ERROR): "
)


def forms(secret: str) -> list[str]:
    """The secret as it is, in hexadecimal digits, and what shows of it in the base64 of a longer text."""
    found = [secret, secret.encode().hex(), secret.encode().hex().upper()]
    for before in range(3):
        encoded = base64.b64encode(bytes(before) + secret.encode()).decode()
        found.append(encoded[-(-before * 8 // 6) : (before + len(secret)) * 8 // 6])
    return found


def messages(text: str) -> Iterator[tuple[str, str]]:
    """Tag and text of each; an event's tag is empty. What stands before the first one is a message, too."""
    begun = [*MESSAGE.finditer(text)]
    yield "", text[: begun[0].start()] if begun else text
    for this, following in zip(begun, [*begun[1:], None]):
        yield this[1] or this[2] or "", text[this.end() : following.start() if following else len(text)]


def search(text: str, secrets: dict[str, str]) -> Counter[tuple[str, str, str]]:
    """How often each message that may contain a credential does; a failure when another one does."""
    found: Counter[tuple[str, str, str]] = Counter()
    for tag, message in messages(text):
        for kind, secret in secrets.items():
            if not any(form in message for form in forms(secret)):
                continue
            known = [entry for entry in BY_DEFINITION if entry[:2] == (kind, tag) and message.startswith(entry[2])]
            assert known, f"the {kind} {secret!r} is in a message where it does not belong: {tag} {message!r}"
            found.update(known)
    return found


def expected(level: str, kinds: set[str]) -> set[tuple[str, str, str]]:
    """The messages that a whole life shows at that level: a search that misses one of them would prove nothing."""
    lowest = LEVELS.index(level)
    return {entry for entry in BY_DEFINITION if entry[0] in kinds and TAGS[entry[1]] >= lowest}


def read(path: Path) -> str:
    content = path.read_bytes()
    return (gzip.decompress(content) if path.suffix == ".gz" else content).decode(errors="backslashreplace")
