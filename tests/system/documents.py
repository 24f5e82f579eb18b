"""Whether what the agent and the lab have said to each other is as docs/schemas describes it."""

from __future__ import annotations

import functools
import json
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from jsonschema import Draft202012Validator
from orvel_lab import Lab

SCHEMAS = Path(__file__).resolve().parents[2] / "docs" / "schemas"
EVENT_SINK = "event_sink"

# Endpoint: what the agent sends there, and what it gets with which status.
REQUESTS = {"register": "register-request", "discovery": "discovery-request"}
REPLIES = {("register", 201): "register-reply", ("claim", 200): "claim-reply", ("advisor", 200): "advisor-reply"}

Document = tuple[str, Any]  # the schema's name, and bytes, or a value that the lab has not printed yet


@functools.cache
def schema(name: str) -> Draft202012Validator:
    document = json.loads((SCHEMAS / f"{name}.json").read_text())
    Draft202012Validator.check_schema(document)
    return Draft202012Validator(document)


def schema_names() -> list[str]:
    return sorted(path.stem for path in SCHEMAS.glob("*.json"))


def complaints(name: str, document: Any) -> list[str]:
    """What is wrong with a document, in words; nothing when it fits its schema."""
    try:
        value = json.loads(document) if isinstance(document, bytes) else document
    except ValueError as error:
        return [f"{name}: {document!r} is no JSON: {error}"]
    return [f"{name}: {error.message}, in {value}" for error in schema(name).iter_errors(value)]


def bad_documents(lab: Lab, *, tolerated: tuple[str, ...] = ()) -> list[str]:
    """Complaints about all that a lab and its agents have exchanged, but for schemas that a test breaks on purpose."""
    exchanged = exchanged_documents(lab) if lab.agents else []
    return [text for name, document in exchanged if name not in tolerated for text in complaints(name, document)]


def exchanged_documents(lab: Lab) -> list[Document]:
    return [*_of_cloud(lab), *_of_handlers(lab), *_of_control(lab)]


def _of_cloud(lab: Lab) -> Iterator[Document]:
    """A script's replies are the test's own affair."""
    for request in lab.cloud.requests():
        if request.kind in REQUESTS:
            yield REQUESTS[request.kind], request.body
        name = REPLIES.get((request.kind, request.status))
        if name is not None and not request.scripted:
            yield name, request.reply.body


def _of_handlers(lab: Lab) -> Iterator[Document]:
    for name, sink in lab.handlers.items():
        if name == EVENT_SINK or name.startswith(f"{EVENT_SINK}_"):
            kind = "state" if name == EVENT_SINK else "service-claim"
            # A delivery that a killed agent has begun is empty.
            yield from ((kind, message) for message in sink.messages.snapshot() if message)


def _of_control(lab: Lab) -> Iterator[Document]:
    """What the agent has not understood is the test's own affair."""
    for agent in lab.agents:
        yield from (("control-reply", reply) for reply in agent.control.replies)
        yield from (("control-request", request) for request, result in agent.control.requests if result != -1)
