#!/usr/bin/python3
"""Signals at random instants, and kills under the watchdog.

storm  SIGUSR1, SIGUSR2, SIGCHLD and SIGPIPE, under the watchdog SIGHUP too (to it and to the agent), from the
       "version ... started" line on, through start-up, session and deliveries to all three kinds of handlers. Then
       SIGTERM, in some rounds in the midst of it all: status 0, the pid file removed if start-up was over, and the end
       within 2 seconds of the moment from which nobody occupies the control port (SIGTERM itself, or the end of the
       client that is being served then). Sanitizers' builds, whose exit takes a while by itself, get five times that.
       The watchdog has never replaced an agent that was not told to end: none has crashed.
kill   kill -9 of the agent under the watchdog, in its life and in the midst of its start: each time there is a new one
       that is connected, delivers and answers on the control port; no zombie, no second agent.
"""

from __future__ import annotations

import contextlib
import os
import re
import select
import signal
import socket
import sys
import time
from collections import Counter, defaultdict
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

from support import processes  # noqa: E402  (found only now)
from support.processes import Process  # noqa: E402
from support.life import Life  # noqa: E402
from support.rounds import Round, Tally, run, sanitizer  # noqa: E402
from orvel_lab import DEADLINE, Agent, DeadlinePassed, Reply, wait_until  # noqa: E402

STORMS, LONG_STORMS = 30, 500
KILL_ROUNDS, LONG_KILL_ROUNDS = 3, 30
KILLS = 10  # that are looked at in each round
SIGNALS = 40  # in each storm
STARTED = re.compile("version .* started")
TERMINATED = re.compile("received sigterm")
STATE_REPORT = "sig_usr2 handler."
RESTART = "Received sigchld in watchdog."
ORDERLY_END = "Exit because sigterm was received."
END_SECONDS = 2 * (5 if sanitizer() else 1)
VERY_LONG = "3600"
LOG_FILE_LINE = re.compile(r"^\S+ \S+ \((\d+)\):\w+:\d+\t *\w+: (.*)$", re.MULTILINE)

USER_SIGNALS = (signal.SIGUSR1, signal.SIGUSR2, signal.SIGCHLD, signal.SIGPIPE)


# --- storms


class Storm:
    """One round: `guarded` is under the watchdog, `sleepy` has nothing to do until a SIGUSR1 ends its sleep."""

    def __init__(self, this: Round) -> None:
        self.this = this
        self.guarded = this.chance(0.5)
        self.registered = this.chance(0.6)
        self.sleepy = this.chance(0.3)
        self.early = this.chance(0.35)  # SIGTERM comes in the midst of it all
        self.sent: Counter[int] = Counter()

    def run(self) -> None:
        options = {"registered": self.registered, "tls": self.this.chance(0.7), "authority": self.this.authority}
        with Life(self.this.folder / "lab", **options) as self.life:
            self._prepare_cloud()
            self.agent = self.life.start(*(["--watchdog"] if self.guarded else []))
            self.agent.wait_for_line(STARTED)
            self._storm()
            if not self.early:
                self._check_life_with_restarts()
            self._check_end(*self._terminate())
        self._count()

    def _prepare_cloud(self) -> None:
        """Answers that take their time, so that the signals meet every step of the start."""
        lab = self.life.lab
        device = lab.cloud.register(lab.hardware_id)
        lab.cloud.claim()
        if self.sleepy and not self.registered:
            lab.settings["q_register_aggressive_delay"] = VERY_LONG
            lab.cloud.script("register", Reply(500))
        elif self.sleepy:
            lab.cloud.script("advisor", Reply(body={"_type": "ActionWait", "period": int(VERY_LONG)}))
        bodies = {
            "register": (201, {"deviceId": device.id, "claimCode": device.claim_code}),
            "claim": (200, {"_type": "Device", "deviceId": device.id, "claimed": True}),
            "advisor": (200, lab.cloud.advice),
        }
        for kind, (status, body) in bodies.items():
            lab.cloud.script(kind, Reply(status, body, delay=self.this.between(0, 0.15)))

    # The signals.

    def _storm(self) -> None:
        seconds = self.this.between(0.01, 0.5) if self.early else self.this.between(0.2, 1.5)
        begun = time.monotonic()
        for instant in sorted(self.this.between(0, seconds) for _ in range(SIGNALS)):
            time.sleep(max(0.0, begun + instant - time.monotonic()))
            number = self.this.random.choice(USER_SIGNALS)
            if self.guarded and self.this.chance(0.1):
                number = signal.SIGHUP
            self._send(number, to_child=self.guarded and self.this.chance(0.5))

    def _send(self, number: int, to_child: bool = False) -> None:
        if to_child:
            for child in processes.children(self.agent.pid):
                if processes.send(child, self.agent.pid, number):
                    self.sent[number] += 1
                    return
        if not processes.send(self.agent.pid, os.getpid(), number) or processes.state(self.agent.pid) == "Z":
            raise AssertionError(f"it has ended before SIGTERM\n--- its log:\n{self.agent.log}\n---")
        self.sent[number] += 1

    # What must hold afterwards.

    def _check_life_with_restarts(self) -> None:
        """As _check_life(), once more if a hangup of the storm has taken the agent away meanwhile."""
        while True:
            ends = self.agent.count(RESTART)
            try:
                self._check_life()
                return
            except (AssertionError, OSError):
                if not self.guarded:
                    raise
                with contextlib.suppress(DeadlinePassed):
                    self.agent.wait_for_count(RESTART, ends + 1)
                if self.agent.count(RESTART) == ends:
                    raise

    def _check_life(self) -> None:
        """Everything works as if there had been no signal."""
        if self.sleepy:
            self._wake()
        session = self.life.probe()
        assert self.agent.control.exchange(b"") == b'{"result":-1}'
        reports = self.agent.count(STATE_REPORT)
        self._send(signal.SIGUSR2)
        self.agent.wait_for_count(STATE_REPORT, reports + 1)
        self.life.calm()
        self.life.probe()
        working = self._working_process()
        wait_until(lambda: not processes.children(working), "the end of all handler programs, and no zombie")
        if not self.guarded:
            assert self.life.fed == [session], f"sessions {[other.number for other in self.life.fed]}: one was lost"
        assert self.agent.count(STATE_REPORT) <= self.sent[signal.SIGUSR2]
        self.this.tally.counts["messages"] += self.life.check_delivery(not self.guarded, self.sent[signal.SIGHUP])

    def _working_process(self) -> int:
        if not self.guarded:
            return self.agent.pid
        agents = processes.children(self.agent.pid)
        assert len(agents) == 1, f"the watchdog's children: {agents}"
        return agents[0]

    def _wake(self) -> None:
        """Ends the long sleep; what comes before the agent has lain down wakes nobody, so it is repeated."""

        def woken() -> bool:
            self._send(signal.SIGUSR1)
            return self.life.identified() is not None

        wait_until(woken, "the end of the sleep")

    # The end.

    def _terminate(self) -> tuple[int, int]:
        """Sends SIGTERM, sometimes while a client occupies the control port. Gives the agent's pid and status."""
        watchdog = self.agent.pid
        client = self._occupy() if not self.early and self.this.chance(0.3) else None
        assert processes.send(watchdog, os.getpid(), signal.SIGTERM)
        self.terminated = time.time()
        if client is not None:
            time.sleep(self.this.between(0, 0.4))
            client.close()
        free = time.monotonic()
        _wait_end(watchdog, free)
        pid, status = _collect_orphan(self.agent, free) if self.guarded else (watchdog, 0)
        self.ended = time.time()
        seconds = time.monotonic() - free
        self.this.tally.measure("end", seconds)
        assert seconds <= END_SECONDS, f"its end took {seconds:.2f} s\n--- its log:\n{self.agent.log}\n---"
        # A handler's program that was just being started holds the port's socket until its exec.
        wait_until(lambda: not processes.listens(self.agent.control.port), "a free control port")
        assert self.agent.wait() == 0, f"status {self.agent.returncode}\n--- its log:\n{self.agent.log}\n---"
        return pid, status

    def _occupy(self) -> socket.socket:
        client = self.agent.control.connect()
        client.sendall(b"{")
        self.this.tally.counts["occupied"] += 1
        return client

    def _check_end(self, pid: int, status: int) -> None:
        lab, log_file = self.life.lab, self.agent.log_file_text
        told = _by_teller(log_file)
        crashed = [teller for teller, texts in told.items() if _has(texts, STARTED) and not _has(texts, TERMINATED)]
        assert not crashed, f"replaced by the watchdog without a hangup: {crashed}\n--- the log:\n{log_file}\n---"
        said = told[pid]
        if status < 0 and not _has(said, STARTED):
            self.this.tally.counts["ended before its handlers"] += 1  # as a new child, in its very first moments
            return
        assert status == 0, f"status {status}\n--- its log:\n{log_file}\n---"
        orderly = ORDERLY_END in said
        replaced = self.guarded and self.sent[signal.SIGHUP] > 0  # then the last one may still have been starting
        assert orderly or self.early or replaced, f"not in order\n--- its log:\n{log_file}\n---"
        self.this.tally.counts["orderly ends" if orderly else "ends during start-up"] += 1
        locked = "orvel locked the pid file." in said
        if orderly or locked:
            assert self.agent.pid_file.exists() != orderly, f"pid file, {orderly=}\n--- its log:\n{log_file}\n---"
        assert (lab.setting("q_agent_connected"), lab.setting("q_agent_pid")) == ("0", "0"), log_file
        closed = [line.time for line in self.agent.lines.snapshot() if "end control listener thread." in line.text]
        if orderly and closed:
            self.this.tally.measure("end behind the listener's", self.ended - closed[-1])

    def _count(self) -> None:
        for number, count in self.sent.items():
            self.this.tally.counts[signal.Signals(number).name] += count
        self.this.tally.counts["storms"] += 1
        self.this.tally.counts["guarded"] += self.guarded


def _by_teller(log_file: str) -> dict[int, list[str]]:
    """What each process has said."""
    told: dict[int, list[str]] = defaultdict(list)
    for teller, text in LOG_FILE_LINE.findall(log_file):
        told[int(teller)].append(text)
    return told


def _has(texts: list[str], pattern: re.Pattern[str]) -> bool:
    return any(map(pattern.search, texts))


def _collect_orphan(agent: Agent, since: float) -> tuple[int, int]:
    """Pid and status of the agent that the watchdog has left to us."""
    program = Path(agent.arguments[0]).name[:15]  # as the kernel cuts it
    mine = [pid for pid in processes.children(os.getpid()) if pid != agent.pid]
    left = [pid for pid in mine if processes.name(pid) == program]
    assert len(left) == 1, f"agents that the watchdog has left: {left}"
    _wait_end(left[0], since)
    _, status = os.waitpid(left[0], 0)
    return left[0], os.waitstatus_to_exitcode(status)


def _wait_end(pid: int, since: float) -> None:
    """Waits for a child's end, without collecting it."""
    process = os.pidfd_open(pid)
    try:
        poller = select.poll()
        poller.register(process, select.POLLIN)
        left = since + max(DEADLINE, END_SECONDS) - time.monotonic()
        if not poller.poll(max(0.0, left) * 1000):
            raise DeadlinePassed(f"process {pid} does not end on SIGTERM\n{processes.waits(pid)}")
    finally:
        os.close(process)


def storm(this: Round) -> None:
    processes.adopt_orphans()
    try:
        Storm(this).run()
    finally:
        _reap_handlers()


def _reap_handlers() -> None:
    """Handler programs that outlived their agent are ours now."""
    for pid in processes.zombies(os.getpid()):
        os.waitpid(pid, os.WNOHANG)


# --- kills


def kills(this: Round) -> None:
    processes.adopt_orphans()
    options = {"registered": this.chance(0.5), "tls": this.chance(0.7), "authority": this.authority}
    try:
        with Life(this.folder / "lab", **options) as life:
            life.lab.cloud.claim()
            agent = life.start("--watchdog")
            killed: list[Process] = []
            life.probe()
            for _ in range(KILLS):
                time.sleep(this.between(0, 0.4))
                killed.append(_kill_agent(agent, killed))
                while this.chance(0.4):  # its successor too, in the midst of its start
                    time.sleep(this.between(0, 0.15))
                    killed.append(_kill_agent(agent, killed))
                _check_successor(life, killed)
                this.tally.counts["kills looked at"] += 1
            this.tally.counts["kills"] += len(killed)
            assert agent.count(RESTART) == len(killed)
            life.calm()
            this.tally.counts["messages"] += life.check_delivery(complete=False, cut=len(killed))
            agent.signal(signal.SIGTERM)
            _wait_end(agent.pid, time.monotonic())
            _, status = _collect_orphan(agent, time.monotonic())
            assert (agent.wait(), status) == (0, 0), f"status {status} of the last one\n--- the log:\n{agent.log}\n---"
    finally:
        _reap_handlers()


def _kill_agent(agent: Agent, killed: list[Process]) -> Process:
    """Kills the watchdog's present child, which none of the kills before has met."""

    def living() -> Process | None:
        present = map(processes.process, processes.children(agent.pid))
        return next((child for child in present if child.started and child not in killed), None)

    try:
        victim = wait_until(living, "a new agent")
    except DeadlinePassed as failure:
        raise DeadlinePassed(f"{failure}; killed {killed}\n--- its log:\n{agent.log}\n---") from None
    assert processes.send(victim.pid, agent.pid, signal.SIGKILL), f"agent {victim} has ended by itself\n{agent.log}"
    return victim


def _check_successor(life: Life, killed: list[Process]) -> None:
    life.probe()
    agent = life.agent
    assert agent.control.exchange(b"") == b'{"result":-1}'
    agents = [processes.process(child) for child in processes.children(agent.pid)]
    assert len(agents) == 1 and agents[0] not in killed, f"killed {killed}, now there are {agents}"
    assert not any(victim.state() for victim in killed), "a killed agent is still a zombie"
    life.lab.wait_for_setting("q_agent_pid", str(agents[0].pid))
    device = life.lab.cloud.devices[life.lab.hardware_id]
    stored = [life.lab.setting(key) for key in ("q_agent_id", "q_agent_claim_code", "q_agent_registered")]
    assert stored == [device.id, device.claim_code, "1"], stored


# --- all of it


def names(long: bool) -> list[str]:
    storms, kill_rounds = (LONG_STORMS, LONG_KILL_ROUNDS) if long else (STORMS, KILL_ROUNDS)
    return [f"kill-{number}" for number in range(kill_rounds)] + [f"storm-{number}" for number in range(storms)]


def summary(tally: Tally) -> str:
    counts = tally.counts
    numbers = [name for name in counts if name.startswith("SIG")]
    each = ", ".join(f"{counts[name]} {name}" for name in sorted(numbers))
    ends = f"{counts['orderly ends']} orderly ends, {counts['ends during start-up']} during start-up, "
    ends += f"{counts['ended before its handlers']} before the handlers"
    measures = ", ".join(f"slowest {name} {seconds:.2f} s" for name, seconds in tally.highest.items())
    return (
        f"{counts['storms']} storms ({counts['guarded']} under the watchdog), "
        f"{sum(counts[name] for name in numbers)} signals ({each}), {ends}, {measures}; "
        f"{counts['kills']} kills (of {counts['kills looked at']} the outcome looked at); {counts['messages']} messages"
    )


if __name__ == "__main__":
    sys.exit(run("signals", __doc__, names, {"storm": storm, "kill": kills}, summary))
