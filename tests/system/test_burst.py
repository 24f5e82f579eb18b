"""Many messages in bursts: all of them arrive, in their order, byte for byte."""

from __future__ import annotations

import os
import random
from collections.abc import Iterator

import pytest
from orvel_lab import Lab, TcpSink
from orvel_lab.packets import plain_message
from orvel_lab.waiting import Journal

MESSAGES = int(os.environ.get("ORVEL_BURST_MESSAGES", "10000"))
SEED = 20
LONGEST = 70_000
QUEUE_ITEMS = 1000
QUEUE_BYTES = 4_000_000
HANDLER = "meter"
OVERHEAD = 24 + len(HANDLER)  # bytes that each queued message costs besides its payload


def payloads(count: int) -> Iterator[bytes]:
    """Of 1 to 70,000 bytes: both limits first, then any sizes, then for a while short ones."""
    source = random.Random(SEED)
    for number in range(count):
        longest = 100 if number * 4 >= count * 3 else LONGEST
        size = (1, LONGEST)[number] if number < 2 else source.randint(1, longest)
        yield source.randbytes(size)


def bursts(messages: Iterator[bytes]) -> Iterator[list[bytes]]:
    """As many messages at a time as the queue holds, even if none were delivered meanwhile."""
    burst: list[bytes] = []
    room = QUEUE_BYTES
    for message in messages:
        cost = len(message) + OVERHEAD
        if len(burst) == QUEUE_ITEMS or cost > room:
            yield burst
            burst, room = [], QUEUE_BYTES
        burst.append(message)
        room -= cost
    yield burst


@pytest.fixture
def unkept_sink(claimed_lab: Lab) -> TcpSink:
    """A handler whose messages are not kept in files."""
    sink = TcpSink(HANDLER)
    claimed_lab.handlers[HANDLER] = sink  # which is stopped with the others
    claimed_lab.settings[f"q_handler_{HANDLER}"] = sink.endpoint
    sink.start()
    return sink


def test_thousands_of_messages_arrive_in_order_byte_for_byte(claimed_lab: Lab, unkept_sink: TcpSink):
    agent = claimed_lab.start_agent()
    session = claimed_lab.broker.expect_session()
    claimed_lab.event_sink.wait_for_document(event=4, connected=True)
    arrived = 0
    for burst in bursts(payloads(MESSAGES)):
        session.send(b"".join(plain_message(HANDLER, message).encode() for message in burst))
        assert unkept_sink.wait_for_count(len(burst)) == burst
        unkept_sink.messages = Journal()
        arrived += len(burst)
    assert arrived == MESSAGES
    agent.assert_not_logged("Queue full.")
