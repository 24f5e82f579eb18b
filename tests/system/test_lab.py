"""The rest of the lab: certificates, handlers, settings, control requests, agents, and the lab as a whole."""

from __future__ import annotations

import json
import os
import re
import signal
import socket
import ssl
import stat
import subprocess
import threading
from collections.abc import Iterator
from pathlib import Path

import pytest
from lab_clients import HARDWARE_ID, SECONDS, ask, connected, trusting
from orvel_lab import (
    Agent,
    Authority,
    Control,
    DeadlinePassed,
    ExecutableSink,
    Lab,
    SanitizerReport,
    UnixSink,
    wait_until,
)
from orvel_lab import settings as settings_file


class TestCertificates:
    """Seen by OpenSSL in Python, which (unlike the agent) expands wildcards and ignores the commonName."""

    def outcome(self, make_lab, certificate, authority: Authority) -> str:
        lab = make_lab(broker_certificate=certificate)
        try:
            with connected(lab, trusting(authority)):
                return "connected"
        except ssl.SSLCertVerificationError as error:
            return error.verify_message

    @pytest.mark.parametrize("key", ["ec", "rsa"])
    def test_a_good_one_is_accepted(self, make_lab, certs: Authority, key: str):
        assert self.outcome(make_lab, certs.issue(key=key), certs) == "connected"

    def test_bad_ones_are_refused_for_their_own_reason(self, make_lab, certs: Authority, namesake_certs: Authority):
        cases = [
            (certs.expired(), "certificate has expired"),
            (certs.not_yet_valid(), "certificate is not yet valid"),
            (certs.issue(self_signed=True), "self-signed certificate"),
            (namesake_certs.issue(), "certificate signature failure"),
            (certs.issue(dns=["other.example"]), "Hostname mismatch, certificate is not valid for 'localhost'."),
            (certs.issue(dns=[b"localhost\0.example"]), "Hostname mismatch, certificate is not valid for 'localhost'."),
            (certs.issue(dns=["*.localhost"]), "Hostname mismatch, certificate is not valid for 'localhost'."),
            (certs.issue(dns=["LOCALHOST"]), "connected"),
        ]
        assert [self.outcome(make_lab, issued, certs) for issued, _ in cases] == [expected for _, expected in cases]

    def test_names_are_in_the_certificate_as_given(self, certs: Authority):
        shown = self.shown(certs.issue("common", dns=["a.example", "*.b.example"], ip=["127.0.0.1"]).path)
        assert "CN = common" in shown
        assert "DNS:a.example, DNS:*.b.example, IP Address:127.0.0.1" in shown

    def test_a_name_may_hold_a_nul_byte(self, certs: Authority):
        issued = certs.issue(b"localhost\0.evil", dns=[b"localhost\0.evil", "localhost"])
        encoded = ssl.PEM_cert_to_DER_cert(issued.path.read_text())
        assert encoded.count(b"localhost\0.evil") == 2
        assert "localhost" in self.shown(issued.path)

    def test_without_names_there_is_no_such_extension(self, certs: Authority):
        assert "Subject Alternative Name" not in self.shown(certs.issue(dns=None).path)
        assert "Subject Alternative Name" in self.shown(certs.issue(dns=[], ip=[]).path)

    def test_what_was_issued_is_not_issued_again(self, certs: Authority):
        assert certs.issue().path.read_bytes() == Authority(certs.folder).issue().path.read_bytes()

    def test_the_authority_is_found_in_its_hashed_folder(self, lab: Lab):
        context = ssl.create_default_context(capath=str(lab.authority.hashed_folder()))
        with connected(lab, context):
            assert lab.broker.expect_session().open

    def shown(self, path: Path) -> str:
        command = ["openssl", "x509", "-in", path, "-noout", "-text"]
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def deliver(sink, message: bytes) -> None:
    """What the agent does with a message for this endpoint."""
    host, colon, port = sink.endpoint.partition(":")
    if isinstance(sink, ExecutableSink):
        subprocess.run([sink.endpoint], input=message, check=True, cwd="/")
        return
    with socket.socket(socket.AF_INET if colon else socket.AF_UNIX) as client:
        client.settimeout(SECONDS)
        client.connect((host, int(port)) if colon else sink.endpoint)
        client.sendall(message)


class TestHandlers:
    @pytest.mark.parametrize("kind", ["tcp", "unix", "executable"])
    def test_messages_arrive_byte_for_byte_in_order_and_are_kept(self, lab: Lab, kind: str):
        sink = getattr(lab, f"{kind}_handler")("h")
        assert lab.settings["q_handler_h"] == sink.endpoint
        messages = [b"", bytes(range(256)) * 1000, b"last\n"]
        for message in messages:
            deliver(sink, message)
        assert [sink.expect() for _ in messages] == messages
        kept = sorted(path for path in lab.received("h").iterdir() if not path.name.startswith("."))
        assert [path.name for path in kept] == ["001", "002", "003"]
        assert [path.read_bytes() for path in kept] == messages

    def test_a_socket_in_a_deep_folder_gets_a_short_path(self, make_lab, tmp_path: Path, certs: Authority):
        with Lab(tmp_path / ("deep" * 30), authority=certs) as deep:
            sink = deep.unix_handler("h")
            assert isinstance(sink, UnixSink) and len(sink.endpoint) <= 100
            deliver(sink, b"x")
            assert sink.expect() == b"x"
        assert not os.path.exists(sink.endpoint)

    def test_a_sink_that_holds_reads_once_released(self, lab: Lab):
        sink = lab.tcp_handler("h")
        sink.behaviour = "hold"
        deliver(sink, b"held")
        sink.connections.wait_for_count(1, "a connection")
        assert not sink.messages.snapshot()
        sink.release()
        assert sink.expect() == b"held"

    def test_a_sink_can_close_early_and_refuse(self, lab: Lab):
        sink = lab.tcp_handler("h")
        sink.behaviour = "close"
        with socket.create_connection(("127.0.0.1", sink.port), timeout=SECONDS) as client:
            assert client.recv(1) == b""
        sink.refuse()
        with pytest.raises(ConnectionRefusedError):
            deliver(sink, b"x")
        sink.behaviour = "read"
        sink.accept()
        deliver(sink, b"y")
        assert sink.expect() == b"y"

    def test_documents_are_found_by_their_members(self, lab: Lab):
        for event in (1, 2, 4):
            deliver(lab.event_sink, json.dumps({"event": event, "connected": event == 4}).encode())
        assert lab.event_sink.wait_for_document(connected=True) == {"event": 4, "connected": True}
        assert [document["event"] for document in lab.event_sink.documents] == [1, 2, 4]


class TestSettings:
    def test_what_is_written_is_read_again(self, tmp_path: Path):
        path = tmp_path / "settings"
        settings = {"a": "plain", "b": " blanks = and equals ", "c": "back\\slash \\n\nlines\r", "d": "", "e": "ü"}
        settings_file.write(path, settings)
        assert settings_file.read(path) == settings
        assert stat.S_IMODE(path.stat().st_mode) == 0o600
        assert path.read_text().count("\n") == len(settings)

    def test_comments_and_lines_without_equals_are_skipped_and_the_last_value_counts(self, tmp_path: Path):
        path = tmp_path / "settings"
        path.write_text("# a=1\n\nnothing\n a =1\\t\\x\na=2\n")
        assert settings_file.read(path) == {"a": "2"}
        path.write_text(" a =1\\t\\\n")
        assert settings_file.read(path) == {"a": "1\\t\\"}

    def test_no_file_is_no_settings(self, tmp_path: Path):
        assert settings_file.read(tmp_path / "absent") == {}

    def test_a_registered_and_claimed_lab_has_the_identity_that_the_cloud_knows(self, claimed_lab: Lab):
        claimed_lab.write_settings()
        authorization = f"{claimed_lab.setting('q_agent_id')}:{claimed_lab.setting('q_agent_claim_code')}"
        target = "/claimed/v2"
        status, _, body = ask(claimed_lab.cloud, claimed_lab.authority, "GET", target, Authorization=authorization)
        assert (status, json.loads(body)["claimed"]) == (200, True)
        assert claimed_lab.setting("q_nothing") is None
        claimed_lab.wait_for_setting("q_agent_claimed", "1")
        with pytest.raises(DeadlinePassed, match="setting q_agent_claimed=2"):
            claimed_lab.wait_for_setting("q_agent_claimed", "2", deadline=0)


class TestControl:
    def test_it_sends_a_request_in_pieces_and_reads_the_whole_reply(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            received: list[bytes] = []

            def answer() -> None:
                connection, _ = server.accept()
                with connection:
                    while block := connection.recv(100):
                        received.append(block)
                    connection.sendall(b'{"result":')
                    connection.sendall(b"-10}")

            agent = threading.Thread(target=answer)
            agent.start()
            control = Control(server.getsockname()[1])
            assert control.exchange(b'{"command":"x"}', sizes=[1], rest=2) == b'{"result":-10}'
            agent.join(SECONDS)
            assert b"".join(received) == b'{"command":"x"}'

    def test_nothing_that_listens_is_told_at_the_deadline(self, lab: Lab):
        with pytest.raises(DeadlinePassed, match="nothing listens on control port"):
            Control(lab.reserve_port()).command("pause_connections", deadline=0)


STAND_IN = """#!/bin/sh
# Stands in for the agent: says some lines, then waits for SIGTERM.
echo "standard output $*"
printf 'first: 1\\nsecond ' >&2
echo 'half' >&2
printf 'no line end' >&2
echo 'first: 2' >&2
%s
trap 'echo stopping >&2; exit 7' TERM
sleep 60 &
echo $! > "$0.sleeper"
echo ready >&2
wait
"""


@pytest.fixture
def start_stand_in(lab: Lab, tmp_path: Path) -> Iterator:
    """Starts a program in place of the agent; what the program itself started is ended afterwards."""
    program = tmp_path / "stand-in"

    def start(more: str = "", *options: str) -> Agent:
        program.write_text(STAND_IN % more)
        program.chmod(0o755)
        return lab.start_agent(*options, binary=program)

    yield start
    sleeper = tmp_path / "stand-in.sleeper"
    if sleeper.exists():
        os.kill(int(sleeper.read_text()), signal.SIGKILL)


class TestAgent:
    def test_lines_are_waited_for_in_order_or_anywhere(self, start_stand_in):
        agent = start_stand_in()
        assert agent.wait_for_line("second half").text == "second half"
        assert agent.wait_for_line("no line end").time > 0
        assert agent.wait_for_line(re.compile(r"first: (\d)")).text == "no line endfirst: 2"
        assert agent.wait_for_line("first: 1", anywhere=True).text == "first: 1"
        agent.wait_for_line("ready")
        agent.assert_logged("first: 1", re.compile("half$"))
        agent.assert_not_logged("third")
        assert agent.count("first") == len(agent.wait_for_count("first", 2)) == 2
        with pytest.raises(AssertionError, match="(?s)in the log: 'half'.*second half"):
            agent.assert_not_logged("half")
        with pytest.raises(DeadlinePassed, match="(?s)first: 1.*its log:.*second half"):
            agent.wait_for_line("first: 1", deadline=0)

    def test_it_ends_on_sigterm_with_its_exit_status(self, start_stand_in, lab: Lab):
        agent = start_stand_in("", "--more")
        agent.wait_for_line("ready")
        assert agent.running and agent.returncode is None
        wait_until(lambda: agent.processes() == [agent.pid], "one process: a shell's child has its name until the exec")
        assert agent.stop() == 7
        assert not agent.running and agent.log.endswith("stopping")
        assert f"--hardware_id {HARDWARE_ID}" in agent.output and agent.output.endswith("--more\n")
        assert f"--control_port {agent.control.port}" in agent.output
        assert lab.settings_path.exists()

    def test_a_line_that_can_not_come_any_more_fails_the_wait_at_once(self, start_stand_in):
        agent = start_stand_in("exit 3")
        assert agent.wait() == 3
        with pytest.raises(DeadlinePassed, match="will not come any more"):
            agent.wait_for_line("ready")

    def test_its_log_file_is_waited_for(self, start_stand_in, lab: Lab):
        agent = start_stand_in('while [ "$1" != --log_file ]; do shift; done; echo "into the file" > "$2"')
        assert agent.wait_for_log_file(re.compile("into the file$")) == "into the file\n"
        with pytest.raises(DeadlinePassed, match="(?s)elsewhere.*into the file"):
            agent.wait_for_log_file("elsewhere", deadline=0)

    def test_one_that_does_not_obey_is_killed_and_that_is_a_failure(self, start_stand_in):
        agent = start_stand_in("trap '' TERM; echo deaf >&2; exec sleep 60")
        agent.wait_for_line("deaf")
        with pytest.raises(AssertionError, match="did not end on SIGTERM"):
            agent.stop(deadline=0.2)
        assert agent.returncode == -signal.SIGKILL
        agent.stop()

    @pytest.mark.parametrize("report", ["==1==ERROR: AddressSanitizer: x", "a.cpp:1:2: runtime error: x"])
    def test_the_report_of_a_sanitizer_is_a_failure(self, start_stand_in, lab: Lab, report: str):
        agent = start_stand_in(f"echo '{report}' >&2; exit 0")
        with pytest.raises(SanitizerReport, match=re.escape(report)):
            agent.wait()
        lab.agents.clear()

    def test_a_missing_program_is_told(self, lab: Lab, tmp_path: Path):
        with pytest.raises(FileNotFoundError, match="ORVEL_BIN"):
            lab.start_agent(binary=tmp_path / "absent")


class TestLab:
    def test_no_thread_is_left_when_it_has_stopped(self, tmp_path: Path, certs: Authority):
        before = set(threading.enumerate())
        with Lab(tmp_path / "lab", authority=certs) as lab:
            lab.unix_handler("u"), lab.executable_handler("e")
            with connected(lab, trusting(certs)):
                lab.broker.expect_session()
                assert set(threading.enumerate()) > before
        assert set(threading.enumerate()) == before

    def test_two_labs_live_side_by_side(self, make_lab):
        one, other = make_lab(), make_lab()
        assert len({one.cloud.port, one.broker.port, other.cloud.port, other.broker.port}) == 4

    def test_a_reserved_port_refuses(self, lab: Lab):
        with pytest.raises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.1", lab.reserve_port()), timeout=SECONDS)
