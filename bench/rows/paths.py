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

from row import Curve, Growth, Row, Site, Target

HANDLER = "bench"
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
        port, self.endpoint = self._line().split(" ", 1)
        self.port = int(port)

    def ask(self, line: str) -> str:
        self._process.stdin.write(f"{line}\n".encode())
        return self._line()

    def answer(self) -> str:
        """One more line."""
        return self._line()

    def end(self) -> None:
        self._process.kill()  # it may be waiting for an agent that does not come
        self._process.communicate()

    def _line(self) -> str:
        if not poll_readable([self._process.stdout], LONGEST):
            raise TimeoutError("the peer does not answer")
        line = self._process.stdout.readline().decode()
        assert line.endswith("\n"), "the peer has ended"
        return line.strip()


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
        yield lambda count: int(this.peer.ask(f"deliver {HANDLER} {count} {load.size} {load.open_at_once}"))


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
            return int(this.peer.answer()) - begun

        yield deliver


def delivery_rates(load: Load, floor_options: Sequence[str], site: Site) -> tuple[float, float]:
    """Slice by slice, because the machine is faster now and slower then; the middle slice of each counts."""
    with agent_side(load, site) as agent, floor_side(load, site, *floor_options) as floor:
        times = [(agent(load.count // SLICES), floor(load.count // SLICES)) for _ in range(SLICES)]
    agent_time, floor_time = map(statistics.median, zip(*times))
    return load.count // SLICES * SECOND / agent_time, load.count // SLICES * SECOND / floor_time


def delivery(
    name: str, load: Load, target: float | None, work: str, beside: str, *floor_options: str, pairs: int = 0
) -> Row:
    measure = functools.partial(delivery_rates, load, floor_options)
    return Row(name, work, beside, "messages/s", target and Target("at least", target), measure, pairs=pairs)


def delivery_times(loads: Sequence[Load], x_of: Callable[[Load], float], site: Site) -> list[Curve]:
    rates = [(x_of(load), *delivery_rates(load, [], site)) for load in loads]
    agent = [(x, 1e6 / rate) for x, rate, _ in rates]
    floor = [(x, 1e6 / rate) for x, _, rate in rates]
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
def receiving_floor(load: Load, site: Site, *more: str) -> Iterator[Receive]:
    with scene(site, load) as this:
        program = site.build / "bin" / "floor_tls"
        command = [program, str(this.peer.port), this.lab.authority.path, str(READ_SIZE), *more]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as floor:
            this.peer.ask("accept")
            this.peer.ask(f"seal {HANDLER} {load.count} {load.size}")
            yield lambda: Received(flood(this), int(floor.stdout.read()) / SECOND)


def received(load: Load, floor_options: Sequence[str], site: Site) -> tuple[Received, Received]:
    with receiving_agent(load, site) as receive:
        agent = receive()
    with receiving_floor(load, site, *floor_options) as receive:
        floor = receive()
    return agent, floor


def receiving_rates(load: Load, floor_options: Sequence[str], site: Site) -> tuple[float, float]:
    agent, floor = received(load, floor_options, site)
    return agent.rate, floor.rate


def receiving_processor(load: Load, site: Site) -> tuple[float, float]:
    agent, floor = received(load, [], site)
    return agent.processor, floor.processor


def receiving_times(loads: Sequence[Load], site: Site) -> list[Curve]:
    rates = [(load.size, *receiving_rates(load, [], site)) for load in loads]
    agent = [(size, 1e6 / rate) for size, rate, _ in rates]
    floor = [(size, 1e6 / rate) for size, _, rate in rates]
    return [Curve("agent", agent), Curve("floor", floor)]


# --- all of it

MESSAGES = Load("tcp", 50_000, 256)
LOGGED = Load("tcp", 50_000, 256, log_lines=2)
TO_UNIX = Load("unix", 50_000, 256)
TO_PROGRAM = Load("program", 2_000, 256)
STREAM = Load("tls", 2**30 // 4096, 4096)

SOCKETS = "setting read, socket, connect, send, close"
PROGRAMS = "setting read, stat, pipe, {}, exec, write, reap"

ROWS = [
    delivery("1", MESSAGES, 0.95, "50,000 messages of 256 bytes from the broker to a TCP handler", SOCKETS, pairs=11),
    delivery("1 logged", LOGGED, None, "the same with --log_info", SOCKETS + ", and as many log lines (2)"),
    delivery("2", TO_UNIX, 0.80, "50,000 messages of 256 bytes from the broker to a Unix socket", SOCKETS + ", and stat"),
    delivery("3", TO_PROGRAM, 0.95, "2,000 messages to a program", PROGRAMS.format("fork"), pairs=11),
    delivery("3 vfork", TO_PROGRAM, None, "the same", PROGRAMS.format("vfork"), "vfork"),
    Row(
        "6",
        "1 GiB of messages of 4 KiB over TLS, dropped at a full queue, no log",
        f"SSL_read of {READ_SIZE} bytes, again and again",
        "MiB/s",
        Target("at least", 0.9),
        functools.partial(receiving_rates, STREAM, []),
        pairs=21,
    ),
    Row(
        "6 ahead",
        "the same",
        "the same, OpenSSL reading ahead",
        "MiB/s",
        None,
        functools.partial(receiving_rates, STREAM, ["ahead"]),
    ),
    Row(
        "6 processor",
        "the processor's time for that",
        "the same",
        "s",
        None,
        functools.partial(receiving_processor, STREAM),
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
