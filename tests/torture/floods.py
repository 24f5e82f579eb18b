#!/usr/bin/python3
"""More than the agent can take: messages, messages as long as may be, state reports, control connections.

flood    A broker sends at full speed, over TLS or plain TCP, while the handler never reads. What the queue takes and
         refuses is known beforehand, so each refusal is checked: its number and the memory in use that it names. The
         agent's memory never grows by more than what the queue holds, one message in assembly and 1 MiB. When the
         handler reads, exactly what was taken arrives, in its order, byte for byte; then everything is as before.
huge     Messages of 255 chunks of 65,535 bytes at a full queue; then the longest one that the queue takes, whole, and
         one of a byte more, which it refuses.
reports  A queue full of state reports, and more of them.
control  Connections to the control port, one after another and in bunches: requests, garbage, half requests, silence,
         resets, and clients that do not wait for the reply. No descriptor, thread or memory is left behind.
"""

from __future__ import annotations

import contextlib
import re
import signal
import socket
import struct
import sys
import threading
import time
from collections import Counter
from collections.abc import Iterable, Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

from support import processes  # noqa: E402  (found only now)
from support.rounds import Round, Tally, run, sanitizer  # noqa: E402
from orvel_lab import Lab, wait_until  # noqa: E402
from orvel_lab.packets import MAX_CHUNK, MAX_CHUNKS, Packet, Type, cut, plain_message  # noqa: E402
from orvel_lab.waiting import Journal  # noqa: E402

MESSAGES, LONG_MESSAGES = 50_000, 1_000_000
BIG_MESSAGES, LONG_BIG_MESSAGES = 2_000, 100_000
HUGE, LONG_HUGE = 5, 200
REPORTS, LONG_REPORTS = 200, 2_000  # behind the full queue
CONNECTIONS, LONG_CONNECTIONS = 1_000, 10_000
BUNCH = 8  # connections at a time; more than the listener's backlog

QUEUE_ITEMS = 1000
QUEUE_BYTES = 4_000_000
OVERHEAD = 24  # bytes that a queued message costs besides its payload and the name of its handler
HANDLER = "local"
PLUG = bytes(400_000)  # more than the sockets between agent and handler take: its delivery does not end
SLACK_KIB = 1024
BLOCK = 256 * 1024
FULL = re.compile(rb"WARNING: Queue full\. Dropped (-?\d+) packets\. Memory usage is (-?\d+)")
REPORT, REPORT_REFUSED = b"sig_usr2 handler.", b"cannot send orvel state."
NO_DATA_YET = b"SSL_read < 0 errno: 'Resource temporarily unavailable'."
PATIENCE = 120  # seconds for anything but the flood itself
SLOWEST = 1_000  # messages in a second: a sanitizer's build on a loaded machine


class Queue:
    """The agent's queue while nothing is taken off: what it takes, and the memory in use at each refusal."""

    def __init__(self) -> None:
        self.taken: list[bytes] = []
        self.memory = 0
        self.refusals: list[int] = []
        self.offered = 0
        self.longest = 0

    def offer(self, payload: bytes, handler: str = HANDLER) -> None:
        self.offered += 1
        self.longest = max(self.longest, len(payload))
        cost = len(payload) + len(handler) + OVERHEAD
        if len(self.taken) < QUEUE_ITEMS and self.memory + cost <= QUEUE_BYTES:
            self.taken.append(payload)
            self.memory += cost
        else:
            self.refusals.append(self.memory)


class LogFile:
    """Follows the agent's log file: checks the number of each refusal, and counts the other messages."""

    def __init__(self, path: Path) -> None:
        self._path = path
        self._position = 0
        self.refusals: list[int] = []  # the memory in use that each one names
        self.others: Counter[bytes] = Counter()

    def read(self) -> LogFile:
        with self._path.open("rb") as file:
            file.seek(self._position)
            while line := file.readline():
                if not line.endswith(b"\n"):
                    break  # it still grows
                self._position += len(line)
                self._take(line)
        return self

    def _take(self, line: bytes) -> None:
        if found := FULL.search(line):
            number, memory = map(int, found.groups())
            assert number == len(self.refusals) + 1, f"refusal {len(self.refusals) + 1} is counted as {number}"
            self.refusals.append(memory)
        else:
            self.others[line.partition(b": ")[2].rstrip()] += 1


class Memory:
    """The highest use since it was made, by the kernel's own mark: no peak is missed."""

    def __init__(self, pid: int) -> None:
        self._pid = pid
        Path(f"/proc/{pid}/clear_refs").write_text("5")
        self._idle = self._status("VmRSS")

    def growth_kib(self) -> int:
        return self._status("VmHWM") - self._idle

    def _status(self, name: str) -> int:
        text = Path(f"/proc/{self._pid}/status").read_text()
        return int(re.search(rf"^{name}:\s+(\d+) kB", text, re.MULTILINE).group(1))


class Flooded:
    """An agent with a session, and a handler that can be made to read nothing. Used by `with`."""

    def __init__(self, this: Round, tls: bool, level: str = "--log_warning") -> None:
        self.this = this
        self.lab = Lab(this.folder / "lab", registered=True, claimed=True, tls=tls, authority=this.authority)
        self.sink = self.lab.unix_handler(HANDLER)
        for sink in (self.sink, self.lab.event_sink):
            sink.folder = None  # in memory only
        self._options = ["--disable_console", level, "--log_file_size", "9999M"]

    def __enter__(self) -> Flooded:
        with contextlib.ExitStack() as started:
            started.enter_context(self.lab)
            self._start()
            self._started = started.pop_all()
        return self

    def __exit__(self, *failure: object) -> None:
        self._started.__exit__(*failure)

    def stop_reading(self) -> None:
        """From now on nothing is taken off the queue: the one worker is busy with a message that nobody reads."""
        self.sink.messages = Journal()
        self.sink.behaviour = "hold"
        met = len(self.sink.connections)
        self.session.send_message(HANDLER, PLUG)
        self.sink.connections.wait_for_count(met + 1, "the delivery that nobody reads", PATIENCE)

    def send(self, packets: Iterable[bytes], seconds: float) -> None:
        """At full speed; an agent that does not read any more ends it."""
        limit = threading.Timer(seconds, self.session.cut)
        limit.start()
        try:
            for block in _blocks(packets):
                self.session.send(block)
        finally:
            limit.cancel()

    def wait_for_refusals(self, queue: Queue, seconds: float) -> None:
        """All of them have to be in the log, each with its number and with the memory that was in use."""
        wanted = len(queue.refusals)
        wait_until(lambda: len(self.log.read().refusals) >= wanted, f"{wanted} refusals", seconds)
        assert self.log.refusals == queue.refusals, f"{len(self.log.refusals)} refusals for {wanted}, or other memory"
        assert len(self.sink.messages) == 0, "the handler has read"

    def check_memory(self, held: int, in_assembly: int) -> None:
        """Against what the queue holds and a message in assembly."""
        limit = (held + in_assembly) // 1024 + SLACK_KIB
        growth = self.memory.growth_kib()
        self.this.tally.measure(f"{self.this.name.partition('-')[0]} beyond its bytes", growth - limit + SLACK_KIB)
        assert sanitizer() or growth <= limit, f"memory has grown by {growth} KiB; {limit} are allowed"

    def check_arrival(self, queue: Queue) -> None:
        """The handler reads: what the queue has taken arrives, nothing else does, and the session is still there."""
        self.sink.release()
        expected = [PLUG, *queue.taken]
        received = self.sink.wait_for_count(len(expected), PATIENCE)
        assert received == expected, "other messages than the oldest, or in another order"
        refused = len(self.log.read().refusals)
        self.deliver(b"after all")
        assert len(self.sink.messages) == len(expected) + 1
        sent = queue.offered
        assert refused == len(self.log.read().refusals) == sent - len(queue.taken), f"{refused} refusals of {sent}"
        assert len(self.lab.broker.connections) == 1, "the session was lost"
        self.this.tally.counts["refused"] += refused
        self.this.tally.counts["taken"] += len(queue.taken)

    def end(self, *expected: bytes) -> None:
        """An orderly end; besides refusals the log holds nothing but what is expected."""
        assert self.agent.stop() == 0
        said = set(self.log.read().others)
        assert said <= {b"connected", b"disconnected", *expected}, f"in the log: {said}"

    def deliver(self, message: bytes) -> None:
        """A message that arrives, after all that were sent before."""
        before = len(self.sink.messages)
        self.session.send_message(HANDLER, message)
        assert self.sink.wait_for_count(before + 1, PATIENCE)[-1] == message

    def _start(self) -> None:
        self.agent = self.lab.start_agent(*self._options)
        self.session = self.lab.broker.expect_session(PATIENCE)
        self.lab.event_sink.wait_for_document(PATIENCE, event=4, connected=True)
        for number in range(20):  # everything that delivery needs is there from now on
            self.deliver(b"%d" % number * 1000)
        self.log = LogFile(self.agent.log_file)
        self.memory = Memory(self.agent.pid)


def _blocks(packets: Iterable[bytes]) -> Iterator[bytes]:
    block = bytearray()
    for packet in packets:
        block += packet
        if len(block) >= BLOCK:
            yield bytes(block)
            block.clear()
    yield bytes(block)


def _encoded(payload: bytes) -> bytes:
    """As plain_message(), for payloads of one chunk and many of them."""
    name = HANDLER.encode()
    return struct.pack(">BBH", Type.PLAIN_MESSAGE, 2, len(name)) + name + struct.pack(">H", len(payload)) + payload


# --- messages at full speed


def flood(this: Round) -> None:
    kind, link = this.name.split("-")[1:]
    counts = {"small": (MESSAGES, LONG_MESSAGES), "big": (BIG_MESSAGES, LONG_BIG_MESSAGES)}
    count, longest = counts[kind][this.long], {"small": 200, "big": MAX_CHUNK}[kind]
    with Flooded(this, tls=link == "tls") as flooded:
        flooded.stop_reading()
        queue = Queue()
        begun = time.monotonic()
        flooded.send(_numbered(this, queue, count, longest), PATIENCE + count / SLOWEST)
        flooded.wait_for_refusals(queue, PATIENCE + count / SLOWEST)
        this.tally.measure(f"{kind} messages a second over {link}", count / (time.monotonic() - begun))
        flooded.check_memory(queue.memory, queue.longest)
        flooded.check_arrival(queue)
        flooded.end(NO_DATA_YET)
    this.tally.counts[f"{kind} messages"] += count


def _numbered(this: Round, queue: Queue, count: int, longest: int) -> Iterator[bytes]:
    filler = this.random.randbytes(longest)
    for number in range(count):
        payload = b"%09d" % number + filler[: this.random.randrange(longest - 8)]
        queue.offer(payload)
        yield _encoded(payload)


# --- messages as long as may be


def huge(this: Round) -> None:
    count = LONG_HUGE if this.long else HUGE
    name = "x" * MAX_CHUNK
    payload = this.random.randbytes(MAX_CHUNK * (MAX_CHUNKS - 1))
    with Flooded(this, tls=False) as flooded:
        flooded.stop_reading()
        queue = Queue()
        flooded.send(_numbered(this, queue, 500, MAX_CHUNK), PATIENCE)
        for handler in (HANDLER, name) * count:
            queue.offer(payload, handler)
            flooded.send([plain_message(handler, payload).encode()], PATIENCE)
        flooded.wait_for_refusals(queue, PATIENCE)
        flooded.check_memory(queue.memory, len(payload) + len(name))
        flooded.check_arrival(queue)
        _send_longest(this, flooded)
        flooded.end()
    this.tally.counts["huge messages"] += 2 * count


def _send_longest(this: Round, flooded: Flooded) -> None:
    """The queue takes a message that fills it, in chunks of many sizes; a byte more it refuses."""
    most = QUEUE_BYTES - OVERHEAD - len(HANDLER)
    for size in (most, most + 1):
        message = this.random.randbytes(size)
        chunks = cut(message, (this.random.randint(1, 2 * size // MAX_CHUNKS) for _ in range(MAX_CHUNKS - 15)))
        refused, arrived = len(flooded.log.read().refusals), len(flooded.sink.messages)
        flooded.session.send(Packet(Type.PLAIN_MESSAGE, (HANDLER.encode(), *chunks)))
        if size == most:
            assert flooded.sink.wait_for_count(arrived + 1, PATIENCE)[-1] == message
            assert len(flooded.log.read().refusals) == refused
        else:
            wait_until(lambda: len(flooded.log.read().refusals) == refused + 1, "its refusal", PATIENCE)
            assert len(flooded.sink.messages) == arrived


# --- state reports


def reports(this: Round) -> None:
    more = LONG_REPORTS if this.long else REPORTS
    with Flooded(this, tls=False, level="--log_debug") as flooded:
        flooded.stop_reading()
        known = len(flooded.lab.event_sink.messages)
        _report(flooded, QUEUE_ITEMS + more)
        wait_until(lambda: _said(flooded, REPORT_REFUSED) == more, f"{more} refused reports", PATIENCE)
        document = flooded.lab.event_sink.messages.snapshot()[-1].replace(b'"event":\t4', b'"event":\t1')
        cost = len(document) + len("event_sink") + OVERHEAD
        assert flooded.log.refusals == [QUEUE_ITEMS * cost] * more, f"other memory than 1,000 of {document!r} take"
        flooded.check_memory(QUEUE_ITEMS * cost, len(document))
        flooded.sink.release()
        arrived = flooded.lab.event_sink.wait_for_count(known + QUEUE_ITEMS, PATIENCE)[known:]
        assert set(arrived) == {document}, f"reports {set(arrived)}"
        flooded.deliver(b"after all")
        assert len(flooded.lab.event_sink.messages) == known + QUEUE_ITEMS
        assert flooded.agent.stop() == 0
    this.tally.counts["reports"] += QUEUE_ITEMS + more
    this.tally.counts["refused"] += more
    this.tally.counts["taken"] += QUEUE_ITEMS


def _report(flooded: Flooded, count: int) -> None:
    """One report after another, each asked for when the one before has been made."""
    for number in range(1, count + 1):
        flooded.agent.signal(signal.SIGUSR2)
        limit = time.monotonic() + PATIENCE
        while _said(flooded, REPORT) < number:
            assert time.monotonic() < limit, f"no report {number}"
            time.sleep(0.0005)


def _said(flooded: Flooded, text: bytes) -> int:
    return sum(count for line, count in flooded.log.read().others.items() if line.endswith(text))


# --- control connections


class Client:
    """One connection of a kind chosen by chance; `reply` is what has to come back, None where nobody waits for it."""

    KINDS = ("request", "garbage", "half", "silence", "reset", "impatient")
    RESULTS = {"request": b'{"result":0}', "garbage": b'{"result":-1}', "half": b'{"result":-1}'}

    def __init__(self, this: Round) -> None:
        self.kind = this.random.choice(self.KINDS)
        request = b'{"command":"on_nothing","data":"%s"}' % (b"x" * this.random.choice((1, 300, 5000)))
        self.data = {
            "garbage": this.random.randbytes(this.random.choice((1, 255, 256, 257, 20_000))),
            "half": request[: this.random.randrange(1, len(request))],
            "silence": b"",
        }.get(self.kind, request)
        self.reply = self.RESULTS.get(self.kind)

    def connect(self, flooded: Flooded) -> None:
        control = flooded.agent.control
        if self.reply is not None:
            reply = control.exchange(self.data, deadline=PATIENCE)
            assert reply == self.reply, f"{self.kind} {self.data[:300]!r}: {reply!r}"
            return
        with control.connect(PATIENCE) as connection:
            if self.kind == "reset":
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            with contextlib.suppress(BrokenPipeError, ConnectionResetError):
                connection.sendall(self.data)


def control(this: Round) -> None:
    count = LONG_CONNECTIONS if this.long else CONNECTIONS
    clients = [Client(this) for _ in range(count)]
    with Flooded(this, tls=False) as flooded, ThreadPoolExecutor(BUNCH) as bunch:
        pid = flooded.agent.pid
        before = processes.descriptors(pid), processes.threads(pid)
        single = count * 3 // 4
        for client in clients[:single]:
            client.connect(flooded)
        for at in range(single, count, BUNCH):  # beyond the backlog the system tries again, a second later
            list(bunch.map(lambda client: client.connect(flooded), clients[at : at + BUNCH]))
        assert flooded.agent.control.exchange(b"", deadline=PATIENCE) == b'{"result":-1}'
        wait_until(lambda: (processes.descriptors(pid), processes.threads(pid)) == before, "nothing left behind")
        flooded.check_memory(0, 0)
        flooded.deliver(b"after all")
        assert flooded.agent.stop() == 0
    this.tally.counts["connections"] += count
    for client in clients:
        this.tally.counts[f"{client.kind} connections"] += 1


# --- all of it


def names(_long: bool) -> list[str]:
    floods = [f"flood-{kind}-{link}" for kind in ("small", "big") for link in ("tls", "tcp")]
    return ["control-0", *floods, "huge-0", "reports-0"]


def summary(tally: Tally) -> str:
    counts, highest = tally.counts, tally.highest
    kinds = ", ".join(f"{counts[f'{kind} connections']} {kind}" for kind in Client.KINDS)
    speeds = [(name.partition(" messages a second ")[2], name, speed) for name, speed in highest.items()]
    rates = ", ".join(f"{speed:.0f}/s {name.split()[0]} {over}" for over, name, speed in sorted(speeds) if over)
    beyond = {name: kib for name, kib in highest.items() if name.endswith("beyond its bytes")}
    worst = max(beyond.values(), default=0)
    memory = "memory not judged" if sanitizer() else f"memory at most {worst:.0f} KiB of {SLACK_KIB} beyond its bytes"
    return (
        f"{counts['small messages']} small and {counts['big messages']} big messages ({rates}), "
        f"{counts['huge messages']} of 255 chunks of 65535 bytes, {counts['reports']} state reports: "
        f"{counts['taken']} taken and delivered in order, {counts['refused']} refused and counted; "
        f"{counts['connections']} control connections ({kinds}); {memory}"
    )


BODIES = {"flood": flood, "huge": huge, "reports": reports, "control": control}

if __name__ == "__main__":
    sys.exit(run("floods", __doc__, names, BODIES, summary, workers=2))
