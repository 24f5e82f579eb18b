#!/usr/bin/python3
"""What must not get out, and what must not get in.

certificates  An agent whose broker shows a bad certificate (expired, of another name, ...) or speaks another version
              or cipher, and a good one now and then, in one life. Over a tap in front of the broker (in one kind of
              round: of an HTTPS proxy) the bad ones get TLS's handshake and alerts alone, and decrypt nothing.
log           A life with everything in it, at each log level, also behind proxies: token, claim code and proxy password
              are in no other message than in those that contain them by definition (support/credentials.py).
settings      The settings file has the mode 0600 at its creation, at every change and in between, whatever the umask.
descriptors   Programs that are started get the three standard descriptors, although the agent's own starter has left it
              some more.
hardening     A release build of the agent and of the settings tool: position-independent, bound at its start, read-only
              relocations, stack protector, fortified, no executable stack, small.
"""

from __future__ import annotations

import contextlib
import os
import re
import shlex
import signal
import ssl
import subprocess
import sys
from collections import Counter
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

from support.binary import check_hardening  # noqa: E402  (found only now)
from support.builds import build  # noqa: E402
from support.life import ENVIRONMENT, Life  # noqa: E402
from support.credentials import LEVELS, expected, forms, messages, read, search  # noqa: E402
from support.records import APPLICATION_DATA, HANDSHAKE, records  # noqa: E402
from support.rounds import Round, Tally, run  # noqa: E402
from support.watch import ModeWatch  # noqa: E402
from orvel_lab import Authority, DeadlinePassed, Lab, Reply, Session, wait_until  # noqa: E402
from orvel_lab.agent import default_binary  # noqa: E402
from orvel_lab.relay import Relay  # noqa: E402

KINDS = ("token", "agent id", "HTTPS proxy")
SHORT_LIVES, LONG_LIVES = 1, 20  # of each kind, in other orders
WAYS = ("direct", "http", "https", "socks5")
SHORT_LOGS = [(level, "http") for level in LEVELS] + [("debug", way) for way in WAYS if way != "http"]
LONG_LOGS = [(level, way) for level in LEVELS for way in WAYS] * 5
LISTINGS = 10
PASSED_NONE = {"NO_PROXY": "127.0.0.1"}  # the HTTP client's own way to the cloud, past the proxy
PRIVATE = 0o600

# Names as bytes, for a NUL in them.
NUL_NAME = b"localhost\0.evil.example"

ContextAndHost = tuple[ssl.SSLContext, str]


# --- certificates


def bad_servers(good: Authority, namesake: Authority) -> dict[str, ContextAndHost]:
    """What each shows, and the name under which the advisor sends the agent there."""

    def shows(authority: Authority = good, host: str = "localhost", **options) -> ContextAndHost:
        return authority.issue(**options).server_context(maximum=ssl.TLSVersion.TLSv1_2), host

    def speaks(**options) -> ContextAndHost:
        return good.issue().server_context(**options), "localhost"

    versions = ssl.TLSVersion
    return {
        "expired": shows(valid_from=-30, valid_until=-1),
        "expired a minute ago": shows(valid_from=-30, valid_until=-1 / 1440),
        "not yet valid": shows(valid_from=30, valid_until=60),
        "self-signed": shows(self_signed=True),
        "another authority of the same name": shows(namesake),
        "another authority, RSA": shows(namesake, key="rsa"),
        "wrong name": shows(common_name="other.example", dns=["other.example"]),
        "other alternative name": shows(common_name="localhost", dns=["other.example"]),
        "no alternative name in an empty list": shows(common_name="localhost", dns=[], ip=[]),
        "other common name alone": shows(common_name="other.example", dns=None),
        "right name with a NUL behind": shows(common_name="x", dns=[NUL_NAME]),
        "NUL in the common name": shows(common_name=NUL_NAME, dns=None),
        "beginning of the name": shows(common_name="x", dns=["localhos"]),
        "name with more behind": shows(common_name="x", dns=["localhost.example", "localhost."]),
        "wildcards": shows(host="127.0.0.1", common_name="*.0.0.1", dns=["*.0.0.1", "*"], ip=[]),
        "address as IP name": shows(host="127.0.0.1", common_name="127.0.0.1", dns=[], ip=["127.0.0.1"]),
        "TLS 1.1 only": speaks(minimum=versions.TLSv1_1, maximum=versions.TLSv1_1),
        "TLS 1.3 only": speaks(minimum=versions.TLSv1_3),
        "another cipher only": speaks(maximum=versions.TLSv1_2, ciphers="ECDHE-ECDSA-AES128-CCM"),
    }


class Certificates:
    def __init__(self, this: Round) -> None:
        self.this = this
        self.kind = KINDS[int(this.name.split("-")[1]) % len(KINDS)]
        self.secrets = {name: f"{name}-{this.random.randrange(1 << 64):016x}" for name in ("token", "password")}
        self.good = this.authority.issue().server_context(maximum=ssl.TLSVersion.TLSv1_2), "localhost"
        self.good_taps: list[Relay] = []

    def run(self) -> None:
        namesake = Authority(self.this.folder / "namesake", name=self.this.authority.name)
        bad = bad_servers(self.this.authority, namesake)
        names = list(bad)
        self.this.random.shuffle(names)
        token = None if self.kind == "agent id" else self.secrets["token"].encode()
        options = {"registered": True, "claimed": True, "tls": self.kind != "HTTPS proxy", "token": token}
        settings = {"q_qbroker_delay": "0"}
        with contextlib.ExitStack() as self.stack:
            self.lab = self.stack.enter_context(
                Lab(self.this.folder / "lab", authority=self.this.authority, settings=settings, **options)
            )
            self._prepare()
            self._meet_good()
            for name in names:
                self._meet_bad(name, *bad[name])
                if self.this.chance(0.3):
                    self._meet_good()
            self._meet_good()
            self._end_sessions()
            assert self.lab.agents[0].stop() == 0
            self._check_good_taps()

    def _prepare(self) -> None:
        device = self.lab.cloud.devices[self.lab.hardware_id]
        self.identity = device.id if self.kind == "agent id" else self.secrets["token"]
        self.secrets.update({"agent id": device.id, "claim code": device.claim_code})
        self.server = self.lab.broker
        if self.kind == "HTTPS proxy":
            self.server = self.lab.proxy("https", credentials=("user", self.secrets["password"]))
            self.lab.settings["q_qcloud_proxy_username"] = "user"
            self.lab.settings["q_qcloud_proxy_password"] = self.secrets["password"]
        self.lab.write_settings()

    def _meet(self, context: ssl.SSLContext, host: str) -> Relay:
        """From now on the agent is sent there, over a tap of its own."""
        tap = self.stack.enter_context(Relay(self.server.port))
        self.server.context = context
        if self.kind == "HTTPS proxy":
            self.lab.change_setting("q_qcloud_proxy_port", str(tap.port))
            port = self.lab.broker.port
        else:
            port = tap.port
        token = None if self.kind == "agent id" else self.secrets["token"].encode()
        self.lab.cloud.advise_connect(host, port, token)
        if not self.lab.agents:
            self.lab.start_agent("--log_debug", environment={**ENVIRONMENT, **PASSED_NONE})
        self._end_sessions()
        return tap

    def _end_sessions(self) -> None:
        for session in self.lab.broker.sessions:
            if session.open:
                session.cut()

    def _meet_bad(self, name: str, context: ssl.SSLContext, host: str) -> None:
        tap = self._meet(context, host)
        try:
            connection = tap.wait_over()
        except DeadlinePassed as failure:
            heard = [session.raw for session in self.lab.broker.sessions if session.open]
            raise AssertionError(f"{name}: the agent stays; the broker has read {heard}") from failure
        found = records(connection.sent)
        assert found[HANDSHAKE], f"{name}: no handshake"
        assert not found[APPLICATION_DATA], f"{name}: the agent has sent application data: {found}"
        self._check_in_the_clear(name, connection.sent)
        for session in self.lab.broker.connections.snapshot():
            if session.peer[1] == connection.port:
                session.wait_ended()
                assert session.raw == b"", f"{name}: the broker has read {session.raw!r}"
        self.this.tally.counts["refused"] += 1

    def _meet_good(self) -> None:
        tap = self._meet(*self.good)
        self.good_taps.append(tap)
        session = self.lab.broker.expect_session()
        while not len(tap.connections):  # the agent was on its way by another tap already
            session.cut()
            session = self.lab.broker.expect_session()
        text = session.expect_identity().text
        assert text == self.identity, f"{text} instead of {self.identity}"
        self.this.tally.counts["accepted"] += 1

    def _check_good_taps(self) -> None:
        """The tap sees what is to be seen, and that is ciphered."""
        for tap in self.good_taps:
            connections = tap.connections.snapshot()
            assert any(records(connection.sent)[APPLICATION_DATA] for connection in connections)
            for connection in connections:
                self._check_in_the_clear("good", connection.sent)

    def _check_in_the_clear(self, name: str, sent: bytearray) -> None:
        told = [kind for kind, secret in self.secrets.items() if any(form.encode() in sent for form in forms(secret))]
        assert not told, f"{name}: in the clear: {told}"


def certificates(this: Round) -> None:
    Certificates(this).run()


# --- log


class LogLife:
    """Everything happens that a device may meet; what has been logged is searched at the end."""

    def __init__(self, this: Round) -> None:
        self.this = this
        _, self.level, self.way, _ = this.name.split("-")
        self.secrets = {kind: self._secret() for kind in ("token", "claim code", "proxy password")}

    def _secret(self) -> str:
        return "".join(self.this.random.choices("ABCDEFGHKLMNPQRSTUVWXYZ23456789", k=24))

    def run(self) -> None:
        options = {"tls": self.way == "direct", "token": self.secrets["token"].encode()}
        settings = {"q_use_discovery": "1", "q_qbroker_delay": "0", "q_register_aggressive_delay": "1"}
        with Life(self.this.folder / "lab", authority=self.this.authority, settings=settings, **options) as self.life:
            self.lab = self.life.lab
            self._prepare_cloud()
            self._prepare_proxy()
            connectivity = self.lab.folder / "connectivity.log"
            service = ["--service_id", "demo", "--discovery_time", "1"]
            with _proxy_for_broker_alone(self.way == "https"):
                log = [f"--log_{self.level}", "--connectivity_log_file", connectivity]
                self.agent = self.life.start(*log, "--watchdog", *service)
            self._live()
            assert self.agent.stop() == 0
            self._search(connectivity)

    def _prepare_cloud(self) -> None:
        cloud = self.lab.cloud
        code = self.secrets["claim code"]
        cloud.register(self.lab.hardware_id).claim_code = code
        cloud.script("register", Reply(500, {"claimCode": code}), Reply(201, {"claimCode": code}))
        cloud.script("register", Reply(201, f"<{code}"))
        cloud.script("claim", Reply(500), Reply(200, "no document"))
        cloud.script("discovery", Reply.error(500, 7, "not now"))
        cloud.script("advisor", Reply(500, cloud.advice), Reply(200, f"<{cloud.advice['token']}"))
        cloud.script("advisor", Reply(200, {**cloud.advice, "broker": None, "agentKeepalive": "1,2"}))

    def _prepare_proxy(self) -> None:
        if self.way == "direct":
            return
        self.proxy = self.lab.proxy(self.way, credentials=("user", self.secrets["proxy password"]))
        self.lab.settings["q_qcloud_proxy_username"] = "user"
        self.lab.settings["q_qcloud_proxy_password"] = self.secrets["proxy password"]

    def _live(self) -> None:
        lab = self.lab
        lab.cloud.wait_for_request("discovery")
        lab.cloud.claim()
        self._command("on_claim", service="demo", claimed=True)
        self.life.probe()
        self._send_oddities(self.life.probe())
        self.agent.signal(signal.SIGUSR2)
        self.agent.control.exchange(b"{")
        self._command("pause_connections")
        self._command("resume_connections")
        self.life.probe()
        self._drop()
        self._refuse_password() if self.way != "direct" else self._show_bad_certificate()
        self.life.probe()
        checks = len(lab.cloud.requests("claim"))
        self.agent.signal(signal.SIGHUP)
        lab.cloud.wait_for_request("claim", checks + 1)
        self.life.probe()
        self.life.calm()

    def _command(self, name: str, **members) -> None:
        """Repeated: for a moment after its start, and while another one is being carried out, the agent may refuse."""
        wait_until(lambda: self.agent.control.command(name, **members) == 0, f"result 0 of {name}")

    def _send_oddities(self, session: Session) -> None:
        session.send_message("nobody", b"message without a handler")
        session.send_message("meter", b"")
        session.send_message("agent", b'{"command": "on_fernhollow", "service": "demo", "registered": true}')
        session.send(b"\x63\x01\x00\x01x")

    def _drop(self) -> None:
        self.lab.broker.plan("close-after-identity")
        for session in self.lab.broker.sessions:
            if session.open:
                session.reset()

    def _refuse_password(self) -> None:
        """The proxy knows another one for a while."""
        right, before = self.proxy.credentials, len(self.proxy.connections)
        self.proxy.credentials = ("user", "another")
        self._drop()
        self.proxy.wait_for_connections(before + 3)
        self.proxy.credentials = right

    def _show_bad_certificate(self) -> None:
        good, broker = self.lab.broker.context, self.lab.broker
        broker.context = self.this.authority.expired().server_context(maximum=ssl.TLSVersion.TLSv1_2)
        self._drop()
        wait_until(lambda: any("TLS failed" in one.ended_by for one in broker.connections.snapshot()), "a refusal")
        broker.context = good

    def _search(self, connectivity: Path) -> None:
        found: Counter[tuple[str, str, str]] = Counter()
        logs = [*connectivity.parent.glob("*.log*")]
        assert connectivity in logs
        for text in [self.agent.log, *map(read, logs)]:
            found += search(text, self.secrets)
            self.this.tally.counts["log messages"] += sum(1 for _ in messages(text))
        assert not search(self.agent.output, self.secrets)
        told = {"direct": set(), "socks5": set()}.get(self.way, {"proxy password"})  # HTTP's requests are logged
        wanted = expected(self.level, {"claim code", "token", *told})
        assert wanted <= set(found), f"not met: {wanted - set(found)}\n{self.agent.log}"
        self.this.tally.counts["messages with a credential"] += found.total()
        self.this.tally.counts["log lives"] += 1


@contextlib.contextmanager
def _proxy_for_broker_alone(alone: bool):
    """The environment of an agent that is started now: the cloud's way behind an HTTPS proxy leads to a fixed port."""
    if alone:
        os.environ.update(PASSED_NONE)
    try:
        yield
    finally:
        for name in PASSED_NONE:
            os.environ.pop(name, None)


def log(this: Round) -> None:
    LogLife(this).run()


# --- settings


def settings(this: Round) -> None:
    """The lab's own file is the agent's profile; the agent, and in other rounds the tool, has to make the real one."""
    by_tool = this.name.endswith("tool")
    before = os.umask(0)
    try:
        with Life(this.folder / "lab", authority=this.authority) as life:
            lab = life.lab
            lab.cloud.claim()
            lab.write_settings()
            stored = lab.folder / "stored" / "settings"
            stored.parent.mkdir()
            with ModeWatch(stored) as watch:
                if by_tool:
                    subprocess.run([default_binary().with_name("usi"), "-c", stored, "set", "x", "1"], check=True)
                agent = life.start("--usi_profile", lab.settings_path, "-c", stored)
                lab.settings_path = stored
                for number in range(20 if not this.long else 500):
                    life.probe()
                    lab.change_setting("number", str(number))
                    _check_private(stored)
                    assert agent.control.command("pause_connections" if number % 2 else "resume_connections") == 0
                    this.tally.counts["changes of the settings file"] += 1
                    agent.control.command("resume_connections")
                assert agent.stop() == 0
            _check_private(stored)
            others = {name: [*map(oct, modes)] for name, modes in watch.modes.items() if modes != {PRIVATE}}
            assert not others, f"modes: {others}"
            assert stored.name in watch.modes
            this.tally.counts["looks at modes"] += watch.looks
    finally:
        os.umask(before)


def _check_private(path: Path) -> None:
    mode = path.stat().st_mode & 0o7777
    assert mode == PRIVATE, f"{path.name} has mode {mode:o}"


# --- descriptors

LISTING = """#!/bin/sh
cd {folder} || exit 1
ls -l /proc/self/fd > .$$ && mv .$$ $$.listing
"""
STARTER = """#!/bin/sh
exec 3< /etc/passwd 7>> {left_open} 9<> {left_open}
exec {agent} "$@"
"""


def descriptors(this: Round) -> None:
    options = [] if this.name.endswith("plain") else ["--watchdog"]
    with Lab(this.folder / "lab", registered=True, claimed=True, authority=this.authority) as lab:
        left_open = lab.folder / "left-open"
        lister = _script(lab.folder / "lister", LISTING.format(folder=shlex.quote(str(lab.folder))))
        words = {"left_open": shlex.quote(str(left_open)), "agent": shlex.quote(str(default_binary()))}
        starter = _script(lab.folder / "starter", STARTER.format(**words))
        lab.settings["q_handler_lister"] = str(lister)
        agent = lab.start_agent("--log_debug", *options, binary=starter, environment=ENVIRONMENT)
        session = lab.broker.expect_session()
        session.expect_identity()
        assert all(_holds(pid, left_open) for pid in agent.processes()), "the starter has left nothing open"
        count = LISTINGS if not this.long else LISTINGS * 20
        with agent.control.connect() as occupied:
            occupied.sendall(b"{")
            for number in range(count):
                session.send_message("lister", str(number).encode())
            wait_until(lambda: len([*lab.folder.glob("*.listing")]) == count, f"{count} listings")
        for listing in lab.folder.glob("*.listing"):
            _check_listing(listing)
        this.tally.counts["programs without a foreign descriptor"] += count
        assert agent.stop() == 0


def _script(path: Path, text: str) -> Path:
    path.write_text(text)
    path.chmod(0o755)
    return path


def _holds(pid: int, file: Path) -> bool:
    folder = Path(f"/proc/{pid}/fd")
    return str(file) in {os.readlink(folder / name) for name in os.listdir(folder)}


def _check_listing(listing: Path) -> None:
    """The message, the program's own output file, the null device; and the folder that `ls` reads."""
    listed = re.findall(r" (\d+) -> (.*)$", listing.read_text(), re.MULTILINE)
    found = {int(number): target for number, target in listed}
    assert found.keys() == {0, 1, 2, 3}, f"a program got {found}"
    assert found[0].startswith("pipe:") and found[2] == "/dev/null" and re.fullmatch(r"/proc/\d+/fd", found[3]), found


# --- hardening


def hardening(this: Round) -> None:
    folder = build("Release")
    this.tally.measure("bytes of the agent", check_hardening(folder / "orvel"))
    check_hardening(folder / "usi")


# --- the experiment


def names(long: bool) -> list[str]:
    lives = LONG_LIVES if long else SHORT_LIVES
    return [
        "hardening",
        *(f"certificates-{number}" for number in range(lives * len(KINDS))),
        *(f"log-{level}-{way}-{number}" for number, (level, way) in enumerate(LONG_LOGS if long else SHORT_LOGS)),
        "settings-agent",
        "settings-tool",
        "descriptors-plain",
        "descriptors-watchdog",
    ]


def summary(tally: Tally) -> str:
    counts = tally.counts
    texts = ", ".join(f"{counts[name]} {name}" for name in sorted(counts) if name not in ("refused", "accepted"))
    return (
        f"{counts['refused']} bad servers told nothing, {counts['accepted']} good ones; {texts}; "
        f"agent of {tally.highest.get('bytes of the agent', 0) / 1024:.0f} KiB"
    )


if __name__ == "__main__":
    bodies = {"certificates": certificates, "log": log, "settings": settings, "descriptors": descriptors}
    sys.exit(run("wire", __doc__, names, {**bodies, "hardening": hardening}, summary))
