"""Whole paths: messages from the broker's socket to a handler, and the stream that they come in."""

from __future__ import annotations

import contextlib
import functools
import shutil
import statistics
import subprocess
import tempfile
from collections.abc import Callable, Iterator, Sequence
from dataclasses import dataclass
from pathlib import Path

from orvel_lab import Agent, Lab
from orvel_lab.certificates import Authority
from orvel_lab.waiting import poll_readable

from row import Curve, Growth, Row, Sides, Site, Target, Trial

HANDLER = "bench"
SOCKETS = "setting read, socket, connect, send, close; for a Unix socket stat, too"
SETTING = f"q_handler_{HANDLER}"
PATIENCE = 60
LONGEST = 1200  # that a measurement may take: 5,000,000 messages, on a machine that is slow
SECOND = 1_000_000_000  # in the nanoseconds of the programs
READ_SIZE = 4096  # the agent's buffer for what it reads from the broker
SLICES = 10  # by which agent and floor take turns within a pair

# What the agent's queue holds, with some room left: the peer must not send more than that at a time.
MOST_MESSAGES, MOST_BYTES, OVERHEAD = 900, 3_600_000, 24


@dataclass(frozen=True)
class Load:
    """Messages, and what takes them: `kind` is "tcp", "unix", "program" or, for nobody takes them, "tls"."""

    kind: str
    count: int
    size: int
    log_lines: int = 0  # that a delivery writes to the log file

    @property
    def open_at_once(self) -> int:
        return min(MOST_MESSAGES, max(1, MOST_BYTES // (self.size + len(HANDLER) + OVERHEAD)))

    @property
    def agent_options(self) -> list[str]:
        # One log file: no line of the agent's costs the moving and compressing of older ones.
        return ["--log_info", "--log_file_size", "9999M"] if self.log_lines else []


class Peer:
    """The program that is broker and handler. One line to its standard input, one line back."""

    def __init__(self, program: Path, *arguments: str | Path) -> None:
        command = [program, *arguments]
        self._process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0)
        try:
            port, self.endpoint = self.answer().split(" ", 1)
            self.port = int(port)
        except Exception:
            self.end()
            raise

    def ask(self, line: str, patience: float = PATIENCE) -> str:
        self._process.stdin.write(f"{line}\n".encode())
        return self.answer(patience)

    def answer(self, patience: float = PATIENCE) -> str:
        """One more line."""
        if not poll_readable([self._process.stdout], patience):
            raise TimeoutError("the peer does not answer")
        line = self._process.stdout.readline().decode()
        assert line.endswith("\n"), "the peer has ended"
        return line.strip()

    def end(self) -> None:
        self._process.kill()  # it may be waiting for an agent that does not come
        self._process.communicate()


@dataclass
class Scene:
    """Cloud, broker and handler, and what the agent needs to know about them."""

    site: Site
    load: Load
    lab: Lab
    peer: Peer

    @contextlib.contextmanager
    def connected_agent(self) -> Iterator[Agent]:
        logs = ["--disable_log_file"] if self.load.kind == "tls" else self.load.agent_options
        agent = self.lab.start_agent("--disable_console", *logs, binary=self.site.build / "bin" / "orvel")
        self.peer.ask("accept")
        self.lab.event_sink.wait_for_document(PATIENCE, event=4, connected=True)
        yield agent
        assert agent.stop() == 0

    def run_floor(self, program: str, *arguments: object) -> int:
        command = [self.site.build / "bin" / program, *map(str, arguments)]
        return int(subprocess.run(command, stdout=subprocess.PIPE, check=True, timeout=LONGEST).stdout)


@functools.cache
def authority(folder: Path) -> Authority:
    return Authority(folder / "certificates")


@contextlib.contextmanager
def scene(site: Site, load: Load) -> Iterator[Scene]:
    with contextlib.ExitStack() as started:
        folder = Path(started.enter_context(tempfile.TemporaryDirectory(prefix="path-", dir=site.folder)))
        sockets = Path(started.enter_context(tempfile.TemporaryDirectory(prefix="bench-")))  # a short path
        keys = authority(site.folder)
        tls = load.kind == "tls"
        lab = Lab(folder, registered=True, claimed=True, tls=tls, authority=keys, settings={"q_qbroker_delay": "60"})
        certificate = keys.issue()
        secrets = [certificate.path, certificate.key] if tls else []
        sink = "tcp" if load.kind == "tcp" else sockets / "handler.sock"
        peer = Peer(site.build / "bin" / "bench_peer", sink, *secrets)
        started.callback(peer.end)
        endpoint = peer.endpoint
        if load.kind == "program":
            endpoint = shutil.copy(site.build / "bin" / "bench_handler", sockets / "handler")
        lab.settings[SETTING] = str(endpoint)
        lab.event_sink.folder = None  # in memory only
        lab.cloud.advise_connect("localhost", peer.port)
        started.enter_context(lab)
        lab.write_settings()
        yield Scene(site, load, lab, peer)


# --- delivery, in messages a second

Deliver = Callable[[int], int]  # so many messages; how many nanoseconds that took


@contextlib.contextmanager
def agent_side(load: Load, site: Site) -> Iterator[Deliver]:
    with scene(site, load) as this, this.connected_agent():

        def deliver(count: int) -> int:
            return int(this.peer.ask(f"deliver {HANDLER} {count} {load.size} {load.open_at_once}", LONGEST))

        yield deliver


@contextlib.contextmanager
def floor_side(load: Load, site: Site, *more: str) -> Iterator[Deliver]:
    program = "floor_programs" if load.kind == "program" else "floor_sockets"
    with scene(site, load) as this:
        log = this.lab.folder / "floor.log"
        log.touch()
        logs = [log, load.log_lines] if load.log_lines else []

        def deliver(count: int) -> int:
            this.peer.ask(f"collect {count} {load.size}")
            begun = this.run_floor(program, this.lab.settings_path, SETTING, count, load.size, *logs, *more)
            return int(this.peer.answer(LONGEST)) - begun

        yield deliver


def slices(load: Load, sides: Sequence[Deliver]) -> list[tuple[int, ...]]:
    """Nanoseconds of each side for each slice, by turns, because the machine is faster now and slower then."""
    return [tuple(deliver(load.count // SLICES) for deliver in sides) for _ in range(SLICES)]


def delivery_rates(load: Load, floors: Sequence[Sequence[str]], site: Site) -> list[Sides]:
    """Of the middle slice, beside the floor with each of these sets of options."""
    with contextlib.ExitStack() as ends:
        sides = [ends.enter_context(agent_side(load, site))]
        sides += [ends.enter_context(floor_side(load, site, *more)) for more in floors]
        times = map(statistics.median, zip(*slices(load, sides)))
    agent, *rates = (load.count / SLICES * SECOND / time for time in times)
    return [(agent, rate) for rate in rates]


def delivery(name: str, load: Load, target: Target | None, work: str, pairs: int = 7) -> Trial:
    beside = SOCKETS + (f", and as many log lines ({load.log_lines})" if load.log_lines else "")
    row = Row(name, work, beside, "messages/s", target)
    return Trial([row], functools.partial(delivery_rates, load, [[]]), pairs)


def delivery_times(loads: Sequence[Load], x_of: Callable[[Load], float], site: Site) -> list[Curve]:
    """Of all slices together: what grows late counts, too."""
    agent, floor = [], []
    for load in loads:
        with agent_side(load, site) as ours, floor_side(load, site) as least:
            spent = map(sum, zip(*slices(load, [ours, least])))
        for curve, time in zip((agent, floor), spent):
            curve.append((x_of(load), time / load.count / 1e3))
    return [Curve("agent", agent), Curve("floor", floor)]


# --- receiving over TLS: MiB a second, or the processor's seconds for all of it


@dataclass(frozen=True)
class Received:
    rate: float
    processor: float


def processor_seconds(agent: Agent) -> float:
    """Of all threads, in the scheduler's nanoseconds."""
    tasks = Path(f"/proc/{agent.pid}/task").glob("*/schedstat")
    return sum(int(each.read_text().split()[0]) for each in tasks) / SECOND


def flood(this: Scene) -> float:
    """Sends what was sealed; MiB a second."""
    load = this.load
    return load.count * load.size / 2**20 / (int(this.peer.ask("flood")) / SECOND)


Receive = Callable[[], Received]


@contextlib.contextmanager
def receiving_agent(load: Load, site: Site) -> Iterator[Receive]:
    with scene(site, load) as this, this.connected_agent() as agent:
        this.peer.ask(f"plug {HANDLER}")
        this.peer.ask(f"seal {HANDLER} {load.count} {load.size}")

        def receive() -> Received:
            before = processor_seconds(agent)
            rate = flood(this)
            return Received(rate, processor_seconds(agent) - before)

        yield receive


@contextlib.contextmanager
def receiving_floor(load: Load, site: Site, more: Sequence[str]) -> Iterator[Receive]:
    with scene(site, load) as this:
        program = site.build / "bin" / "floor_tls"
        command = [program, str(this.peer.port), this.lab.authority.path, str(READ_SIZE), *more]
        floor = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        try:
            this.peer.ask("accept")
            this.peer.ask(f"seal {HANDLER} {load.count} {load.size}")
            yield lambda: Received(flood(this), int(floor.communicate(timeout=PATIENCE)[0]) / SECOND)
        finally:
            floor.kill()
            floor.communicate()


def receive_by_turns(load: Load, floors: Sequence[Sequence[str]], site: Site) -> list[Received]:
    """Of the agent, and of the floor with each of these sets of options."""
    received = []
    for side in (receiving_agent, *(functools.partial(receiving_floor, more=more) for more in floors)):
        with side(load, site) as receive:
            received.append(receive())
    return received


def receiving(site: Site) -> list[Sides]:
    agent, floor, ahead = receive_by_turns(STREAM, [[], ["ahead"]], site)
    return [(agent.rate, floor.rate), (agent.rate, ahead.rate), (agent.processor, floor.processor)]


def receiving_times(loads: Sequence[Load], site: Site) -> list[Curve]:
    rates = [[received.rate for received in receive_by_turns(load, [[]], site)] for load in loads]
    return [
        Curve(label, [(load.size, 1e6 / rate) for load, rate in zip(loads, side)])
        for label, side in zip(("agent", "floor"), zip(*rates))
    ]


# --- all of it

MESSAGES = Load("tcp", 50_000, 256)
LOGGED = Load("tcp", 50_000, 256, log_lines=2)
TO_UNIX = Load("unix", 50_000, 256)
TO_PROGRAM = Load("program", 2_000, 256)
STREAM = Load("tls", 2**30 // 4096, 4096)

PROGRAMS = "setting read, stat, pipe, {}, exec, write, reap"

STREAM_WORK = "1 GiB of messages of 4 KiB over TLS, dropped at a full queue, no log"
READS = f"SSL_read of {READ_SIZE} bytes, again and again"

TRIALS = [
    delivery("1", MESSAGES, Target("at least", 0.95), "50,000 messages of 256 bytes from the broker to a TCP handler", 11),
    delivery("1 logged", LOGGED, None, "row 1 with --log_info"),
    delivery("2", TO_UNIX, Target("at least", 0.80), "50,000 messages of 256 bytes from the broker to a Unix socket"),
    Trial(
        [
            Row("3", "2,000 messages to a program", PROGRAMS.format("fork"), "messages/s", Target("at least", 0.95)),
            Row("3 vfork", "row 3", PROGRAMS.format("vfork"), "messages/s", None),
        ],
        functools.partial(delivery_rates, TO_PROGRAM, [[], ["vfork"]]),
    ),
    Trial(
        [
            Row("6", STREAM_WORK, READS, "MiB/s", Target("at least", 0.9)),
            Row("6 ahead", "row 6", "the same, OpenSSL reading ahead", "MiB/s", None),
            Row("6 processor", "the processor's time for row 6", READS, "s", None),
        ],
        receiving,
        pairs=15,
    ),
]

COUNTS = [Load("tcp", count, 256) for count in (50_000, 500_000, 5_000_000)]
SIZES = [Load("tcp", 10_000, size) for size in (16, 64, 256, 1024, 4096, 16_384, 65_536)]
STREAMS = [Load("tls", 2**27 // size, size) for size in (64, 256, 1024, 4096, 16_384, 65_536)]

GROWTHS = [
    Growth(
        "delivery-count",
        "Delivery to a TCP handler, 256 bytes each",
        "messages",
        "microseconds for a message",
        functools.partial(delivery_times, COUNTS, lambda load: load.count),
    ),
    Growth(
        "delivery-size",
        "Delivery to a TCP handler, 10,000 messages",
        "bytes in a message",
        "microseconds for a message",
        functools.partial(delivery_times, SIZES, lambda load: load.size),
    ),
    Growth(
        "receiving-size",
        "Receiving over TLS, 128 MiB, dropped at a full queue",
        "bytes in a message",
        "microseconds for a MiB",
        functools.partial(receiving_times, STREAMS),
    ),
]
