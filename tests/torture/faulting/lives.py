"""Lives of an agent, each a script of what the lab does to it, step by step.

A fault may cost a message, a connection or an answer. So each step is repeated until its effect is there: after one
fault the agent has to serve again as if nothing had been. An agent that ends, or that gives its control port up,
cuts its life short; whether it was allowed to is judged elsewhere.
"""

from __future__ import annotations

import json
import os
import re
import signal
import time
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path

from orvel_lab import Agent, Authority, DeadlinePassed, Lab, Reply, Session, Type
from orvel_lab.channel import ChannelEnded
from support import processes

LOOK_AGAIN = 0.01
TRY_AGAIN = 1.0
CONTROL_SECONDS = 2.0
END_SECONDS = 5.0
MOST_TERMINATIONS = 4

# Its thread has failed, or start-up is over without it.
LISTENER_FAILED = re.compile(
    r"control_listener: \d+: +\w+: (select|accept|socket|bind|listen)\(\)\. errno|sleeping forever\.$", re.MULTILINE
)
THREAD_FAILED = "Failed to create qbroker thread"

SERVICE = "lamp"
LONG_TEXT = "x" * 1500  # longer than what the log formats without memory from the heap
NO_HOST = "x" * 70  # too long a name to ask a name server for
NO_PROCESS = 99999999  # higher than any process id
BIG_MESSAGE = b"0123456789abcdef" * 9000  # several chunks, and more than a pipe holds

# All waits of the agent at their shortest.
SETTINGS = {
    "q_register_delay": "0",
    "q_register_aggressive_delay": "0",
    "q_register_aggressive_time": "10",
    "q_claim_delay": "0",
    "q_claim_check": "1",
    "q_advisor_delay": "0",
    "q_qbroker_delay": "0",
    "q_http_request_timeout": "3",
    "q_http_connect_timeout": "2",
}


class Ended(Exception):
    """The agent has ended."""


class ListenerGone(Exception):
    """The agent lives on without its control port."""


class NotReached(Exception):
    """A step had no effect in time."""


@dataclass
class Life:
    """What became of one agent."""

    log: str = ""
    not_reached: str = ""  # the step that had no effect
    ended_early: bool = False  # before SIGTERM
    listener_gone: bool = False
    terminations: int = 0
    obeyed: bool = False  # ended on SIGTERM
    statuses: list[int] = field(default_factory=list)  # of the started process, and of adopted ones; signals negative
    left: list[int] = field(default_factory=list)  # processes that had to be killed
    seconds: float = 0


class Guide:
    """Leads one agent through its life."""

    def __init__(self, lab: Lab, agent: Agent, patience: float) -> None:
        self.lab = lab
        self.agent = agent
        self._patience = patience
        self._detached = "--daemon" in agent.arguments
        self._alone = not self._detached and "--watchdog" not in agent.arguments

    def ended(self) -> bool:
        if self.agent.running:
            return False
        return self._alone or _all_ended(self.agent)

    def log(self) -> str:
        """All that it has said; a daemon says it in its files alone."""
        if not self._detached:
            return self.agent.log
        files = sorted(self.lab.folder.glob(f"{self.agent.log_file.name}*"), reverse=True)
        return self.agent.log + "".join(file.read_text(errors="replace") for file in files if file.suffix != ".gz")

    def until(self, what: str, attempt: Callable[[], object], holds: Callable[[], object]) -> None:
        """Tries, and tries again, until it holds."""
        limit = time.monotonic() + self._patience
        while True:
            attempt()
            again = time.monotonic() + TRY_AGAIN
            while time.monotonic() < again:
                if holds():
                    return
                if self.ended():
                    raise Ended
                time.sleep(LOOK_AGAIN)
            if LISTENER_FAILED.search(self.log()):
                raise ListenerGone
            if time.monotonic() >= limit:
                raise NotReached(what)

    # The broker.

    def session(self) -> Session | None:
        """The newest one on which the agent has said who it is."""
        current = self.lab.broker.current
        return current if current is not None and current.packets.snapshot() else None

    def connect(self) -> None:
        """Without a thread there is no session until somebody asks for one again."""

        def ask_again() -> None:
            if THREAD_FAILED in self.log():
                self._ask("on_fernhollow", service=SERVICE, registered=True)

        self.until("a session", ask_again, self.session)

    def send(self, handler: str, payload: bytes, arrived: Callable[[], object]) -> None:
        def attempt() -> None:
            session = self.session()
            if session is None:
                return
            try:
                session.send_message(handler, payload, [len(payload) // 3] if payload is not BIG_MESSAGE else None)
            except (ChannelEnded, OSError):
                pass  # it ended just now; the next attempt takes the next one

        self.until(f"a message at {handler}", attempt, arrived)

    def deliver(self, handler: str, payload: bytes) -> None:
        sink = self.lab.handlers[handler]
        self.send(handler, payload, lambda: payload in sink.messages.snapshot())

    def beat(self) -> None:
        def heartbeat() -> bool:
            session = self.session()
            return session is not None and any(one.type == Type.HEARTBEAT for one in session.packets.snapshot())

        self.until("a heartbeat", lambda: None, heartbeat)

    # The control port.

    def command(self, name: str, effect: Callable[[], object], **members: object) -> None:
        """A command that is answered with success and has its effect."""
        done: list[int] = []

        def attempt() -> None:
            if self._ask(name, **members):
                done.append(0)

        self.until(f"the command {name}", attempt, lambda: done and effect())

    def _ask(self, name: str, **members: object) -> bool:
        try:
            return self.agent.control.command(name, CONTROL_SECONDS, pad=LONG_TEXT, **members) == 0
        except (DeadlinePassed, OSError, ValueError):
            return False  # refused, cut off or not answered

    def terminate(self) -> int:
        """SIGTERM until it ends; gives how many it took, 0 when none did it or none can do it."""
        for count in range(1, MOST_TERMINATIONS + 1):
            self._signal(signal.SIGTERM)
            limit = time.monotonic() + END_SECONDS
            while time.monotonic() < limit:
                if self.ended():
                    return count
                time.sleep(LOOK_AGAIN)
                if time.monotonic() > limit - END_SECONDS + TRY_AGAIN and LISTENER_FAILED.search(self.log()):
                    return 0
        return 0

    def _signal(self, number: int) -> None:
        for pid in [self.agent.pid] if self.agent.running else self.agent.processes():
            try:
                os.kill(pid, number)
            except ProcessLookupError:
                pass


# The lives.


def fresh_device(authority: Authority, folder: Path) -> Lab:
    """Registers, is claimed, connects over TLS, serves handlers of all three kinds, pauses and resumes.

    Before it starts there is a pid file that another agent has left, and a link in place of the profile; the first
    broker that it is sent to has a name that nobody knows, and one of the programs can not be executed.
    """
    lab = Lab(folder, authority=authority, settings=SETTINGS)
    (folder / "orvel.pid").write_text(f"{NO_PROCESS}\n")
    (folder / "profile").symlink_to("no-such-profile")
    lab.cloud.claim()
    lab.cloud.script("advisor", Reply(body={"_type": "ActionConnect", "broker": NO_HOST}))
    for make in (lab.tcp_handler, lab.unix_handler, lab.executable_handler):
        make(make.__name__.partition("_")[0])
    lab.settings["q_handler_broken"] = str(folder / "no-program")
    (folder / "no-program").write_text("no program\n")
    return lab


def lead_fresh_device(guide: Guide) -> None:
    guide.connect()
    for handler in ("tcp", "unix", "executable"):
        guide.deliver(handler, f"for {handler}".encode() * 9)
    guide.deliver("executable", BIG_MESSAGE)
    guide.send("broken", b"lost", lambda: guide.agent.count("Sended 4 bytes to local handler"))
    guide.command("pause_connections", lambda: guide.lab.broker.current is None)
    guide.command("resume_connections", guide.session, carrier_id="carrier")
    guide.deliver("tcp", b"after the pause")
    guide.agent.signal(signal.SIGUSR2)


def guarded_device(authority: Authority, folder: Path) -> Lab:
    """Claimed, under the watchdog, plain TCP through an HTTP proxy; discovery, heartbeats, rotation."""
    lab = Lab(folder, authority=authority, registered=True, claimed=True, tls=False, settings=SETTINGS)
    _plain_cloud(lab)
    lab.proxy("http", credentials=("user", "secret"))
    lab.settings.update({"q_qcloud_proxy_username": "user", "q_qcloud_proxy_password": "secret"})
    lab.settings["q_use_discovery"] = "1"
    lab.tcp_handler("tcp")
    lab.tcp_handler(f"event_sink_{SERVICE}")
    return lab


def lead_guarded_device(guide: Guide) -> None:
    sink = guide.lab.handlers[f"event_sink_{SERVICE}"]

    def told(claimed: bool) -> bool:
        return any(_fits(message, claimed=claimed) for message in sink.messages.snapshot())

    guide.connect()
    guide.deliver("tcp", b"to a handler")
    own_command = json.dumps({"command": "on_fernhollow", "service": SERVICE, "registered": True}).encode()
    guide.send("agent", own_command, lambda: guide.agent.count("On fernhollow: 1"))
    guide.command("on_release", lambda: told(False), service=SERVICE, claimed=False)
    guide.command("on_claim", lambda: told(True), service=SERVICE, claimed=True)
    guide.connect()
    guide.beat()


def daemon_device(authority: Authority, folder: Path) -> Lab:
    """Claimed, a daemon, plain TCP through a SOCKS5 proxy; known to the broker by its id."""
    lab = Lab(folder, authority=authority, registered=True, claimed=True, tls=False, token=None, settings=SETTINGS)
    _plain_cloud(lab)
    lab.proxy("socks5", credentials=("user", "secret"))
    lab.settings.update({"q_qcloud_proxy_username": "user", "q_qcloud_proxy_password": "secret"})
    lab.tcp_handler("tcp")
    return lab


def lead_daemon_device(guide: Guide) -> None:
    guide.connect()
    guide.deliver("tcp", b"from a daemon")


def silent_broker(authority: Authority, folder: Path) -> Lab:
    """Claimed; the broker leaves the heartbeats unanswered."""
    lab = Lab(folder, authority=authority, registered=True, claimed=True, tls=False, settings=SETTINGS)
    _plain_cloud(lab)
    lab.broker.answer_heartbeats = False
    return lab


def lead_through_silence(guide: Guide) -> None:
    guide.connect()
    guide.until("a second session", lambda: None, lambda: len(guide.lab.broker.sessions) > 1)


def _plain_cloud(lab: Lab) -> None:
    lab.cloud.context = None
    for key, value in lab.settings.items():
        lab.settings[key] = value.replace("https://", "http://")


def _fits(message: bytes, **members: object) -> bool:
    try:
        document = json.loads(message)
    except ValueError:
        return False  # a delivery that the fault has cut
    return all(document.get(key) == value for key, value in members.items())


@dataclass(frozen=True)
class Scenario:
    make_lab: Callable[[Authority, Path], Lab]
    lead: Callable[[Guide], None]
    options: list[str]
    only_new_sites: bool = False  # in own code: those that no scenario before it has


SCENARIOS = {
    "fresh": Scenario(fresh_device, lead_fresh_device, ["--usi_profile", "{folder}/profile"]),
    "guarded": Scenario(
        guarded_device,
        lead_guarded_device,
        "--watchdog --agent_heartbeat 1 --log_file_size 6K --log_file_cnt 3".split() + ["--service_id", SERVICE],
    ),
    "daemon": Scenario(daemon_device, lead_daemon_device, ["--daemon", "--broker_keepalive", "60,5,10"]),
    "silent": Scenario(silent_broker, lead_through_silence, ["--agent_heartbeat", "1"], only_new_sites=True),
}


def live(scenario: Scenario, lab: Lab, environment: dict[str, str], patience: float) -> Life:
    """One whole life."""
    begin = time.monotonic()
    options = [option.format(folder=lab.folder) for option in scenario.options]
    agent = lab.start_agent("--log_debug", *options, environment={"NO_PROXY": "127.0.0.1", **environment})
    guide = Guide(lab, agent, patience)
    life = Life()
    try:
        scenario.lead(guide)
    except Ended:
        life.ended_early = True
    except ListenerGone:
        life.listener_gone = True
    except NotReached as step:
        life.not_reached = str(step)
    if not life.ended_early:
        life.terminations = guide.terminate()
        life.obeyed = life.terminations > 0
    life.left = _remove_rest(agent)
    life.statuses = [agent.returncode, *adopted_ends()]
    life.log = guide.log()
    life.seconds = time.monotonic() - begin
    return life


def _all_ended(agent: Agent) -> bool:
    """Looks twice: a child that is forked while its parent ends may be missed once."""
    return not agent.processes() and not agent.processes()


def _remove_rest(agent: Agent) -> list[int]:
    """Kills what is still there."""
    return ([agent.pid] if agent.running else []) + agent.kill()


def adopted_ends() -> list[int]:
    """How agents ended whose parent was gone; this process has to be their reaper. Also reaps handlers' programs."""
    statuses = []
    for pid in processes.children(os.getpid()):
        if processes.name(pid) != "orvel":
            os.waitid(os.P_PID, pid, os.WEXITED | os.WNOHANG)
        elif ended := _wait_end(pid):
            statuses.append(ended.si_status if ended.si_code == os.CLD_EXITED else -ended.si_status)
    return statuses


def _wait_end(pid: int) -> os.waitid_result | None:
    """Its command line is empty by now, but that is so a little before it has ended."""
    limit = time.monotonic() + END_SECONDS
    while (ended := os.waitid(os.P_PID, pid, os.WEXITED | os.WNOHANG)) is None and time.monotonic() < limit:
        time.sleep(LOOK_AGAIN)
    return ended
