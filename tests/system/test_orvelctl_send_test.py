"""orvelctl send-test: a delivery like the agent's, without a cloud."""

from __future__ import annotations

import os
import signal
from collections.abc import Callable
from pathlib import Path

import pytest
from orvel_lab import Lab, wait_until
from orvelctl_runner import Ctl, assert_complaint

WRONG, FILE, TIMEOUT = 1, 74, 75


@pytest.fixture
def lab(make_lab: Callable[..., Lab]) -> Lab:
    return make_lab(registered=True, claimed=True, tls=False)


def last_line(text: str) -> str:
    return text.splitlines()[-1] + "\n"


class TestDelivery:
    @pytest.mark.parametrize("kind", ["tcp_handler", "unix_handler", "executable_handler"])
    @pytest.mark.parametrize("size", [1, 65536, 300000])
    def test_every_kind_of_handler_gets_the_message_whole(self, lab: Lab, kind: str, size: int, tmp_path: Path):
        sink = getattr(lab, kind)("lamp")
        message = bytes(i * 7 % 256 for i in range(size))
        (tmp_path / "message").write_bytes(message)
        result = Ctl(lab).run("send-test", "lamp", "--file", tmp_path / "message")
        assert (result.returncode, result.stdout) == (0, f"{size} bytes delivered to lamp\n"), result.stderr
        assert sink.expect() == message

    def test_the_message_may_be_an_option_or_standard_input(self, lab: Lab):
        sink = lab.tcp_handler("lamp")
        for arguments, said in ((["--text", "-on"], ""), ([], "off"), (["--file", "-"], "dim")):
            assert Ctl(lab).run("send-test", "lamp", *arguments, input=said).returncode == 0
        assert [sink.expect() for _ in range(3)] == [b"-on", b"off", b"dim"]

    def test_the_empty_message_starts_the_handler_too(self, lab: Lab):
        sink = lab.executable_handler("lamp")
        assert Ctl(lab).run("send-test", "lamp", "--text", "").returncode == 0
        assert sink.expect() == b""

    def test_a_long_name_is_cut_as_the_agent_cuts_it(self, lab: Lab):
        sink = lab.tcp_handler("n" * 117)
        assert Ctl(lab).run("send-test", "n" * 118, "--text", "on").returncode == 0
        assert sink.expect() == b"on"

    def test_each_endpoint_of_event_sink_is_served(self, lab: Lab):
        second = lab.unix_handler("second")
        lab.settings["q_handler_event_sink"] += f",{second.endpoint}"
        assert Ctl(lab).run("send-test", "event_sink", "--text", "hello").returncode == 0
        assert (lab.event_sink.expect(), second.expect()) == (b"hello", b"hello")

    def test_it_says_what_the_agent_says(self, lab: Lab):
        lab.settings["q_handler_gone"] = "/nowhere"
        agent = lab.start_agent("--log_debug")
        lab.broker.expect_session().send_message("gone", b"message")
        agent.wait_for_line("Can't connect to unix socket '/nowhere'")
        said = Ctl(lab).run("send-test", "gone", "--text", "message", "--verbose").stderr.splitlines()[:-1]
        agents = [line.text for line in agent.lines.snapshot() if line.text.startswith("message_sender")]
        assert said == [line for line in agents if line in said] and len(said) == 3


class TestFailures:
    @pytest.mark.parametrize(
        ("endpoint", "log"),
        [
            ("/nowhere", "Can't connect to unix socket '/nowhere', errno=2"),
            ("127.0.0.1:0", "Incorrect port value in configuration: '0'."),
            ("127.0.0.1:{closed}", "Can't connect to '127.0.0.1':"),
            ("/etc/passwd", "executable bit is not set."),
        ],
    )
    def test_what_the_agent_would_log_is_shown(self, lab: Lab, endpoint: str, log: str):
        lab.settings["q_handler_lamp"] = endpoint.format(closed=lab.reserve_port())
        result = Ctl(lab).run("send-test", "lamp", "--text", "on")
        assert (result.returncode, result.stdout) == (WRONG, "")
        assert log in result.stderr and "DEBUG" not in result.stderr
        assert_complaint(last_line(result.stderr), "did not get to lamp")

    def test_one_of_several_sinks_fails(self, lab: Lab):
        lab.settings["q_handler_event_sink"] = f"/nowhere,{lab.event_sink.endpoint}"
        assert Ctl(lab).run("send-test", "event_sink", "--text", "hello").returncode == WRONG
        assert lab.event_sink.expect() == b"hello"

    def test_a_second_endpoint_of_another_handler_is_no_failure_but_said(self, lab: Lab):
        sink = lab.tcp_handler("lamp")
        lab.settings["q_handler_lamp"] += ",/nowhere"
        result = Ctl(lab).run("send-test", "lamp", "--text", "on")
        assert result.returncode == 0 and "Only event_sink support this." in result.stderr
        assert sink.expect() == b"on"

    def test_a_name_without_a_setting(self, lab: Lab):
        Ctl(lab).expect_error(WRONG, "there is no handler lamp: set q_handler_lamp", "send-test", "lamp", "--text", "on")

    def test_a_program_in_place_of_a_watch_is_not_started(self, lab: Lab, tmp_path: Path):
        program = tmp_path / "orvelctl-watch-abC123" / "events"
        program.parent.mkdir()
        program.write_text(f"#!/bin/sh\ntouch {tmp_path}/started\n")
        program.chmod(0o755)
        lab.settings["q_handler_event_sink"] += f",{program}"
        Ctl(lab).expect_error(WRONG, f"{program} is dangerous", "send-test", "event_sink", "--text", "on")
        assert not (tmp_path / "started").exists()

    def test_the_agents_own_name(self, lab: Lab):
        Ctl(lab).expect_error(WRONG, "orvelctl raw", "send-test", "agent", "--text", "{}")

    def test_a_message_that_can_not_be_read(self, lab: Lab):
        lab.tcp_handler("lamp")
        Ctl(lab).expect_error(FILE, "/nowhere: No such file", "send-test", "lamp", "--file", "/nowhere")

    def test_a_message_that_the_agents_queue_would_not_take(self, lab: Lab, tmp_path: Path):
        sink = lab.unix_handler("lamp")
        longest = 4000000 - len("lamp") - 24
        (tmp_path / "message").write_bytes(bytes(longest))
        assert Ctl(lab).run("send-test", "lamp", "--file", tmp_path / "message").returncode == 0
        assert len(sink.expect()) == longest
        for more in (1, 1000000):
            (tmp_path / "message").write_bytes(bytes(longest + more))
            Ctl(lab).expect_error(WRONG, "too long", "send-test", "lamp", "--file", tmp_path / "message")

    def test_settings_that_can_not_be_read(self, lab: Lab):
        Ctl(lab).expect_error(FILE, "settings can't be read", "send-test", "-c", lab.folder, "lamp", "--text", "on")

    def test_a_program_that_reads_nothing_is_given_up(self, lab: Lab, tmp_path: Path):
        program = tmp_path / "program"
        program.write_text(f"#!/bin/sh\necho $$ >{tmp_path}/pid\nexec sleep 60\n")
        program.chmod(0o755)
        lab.settings["q_handler_lamp"] = str(program)
        (tmp_path / "message").write_bytes(bytes(1000000))
        result = Ctl(lab).run("send-test", "lamp", "--file", tmp_path / "message", "--timeout", "2")
        wait_until(lambda: (tmp_path / "pid").exists() and (tmp_path / "pid").read_text().endswith("\n"), "the program's pid")
        signal_program(tmp_path / "pid")
        assert (result.returncode, result.stdout) == (TIMEOUT, "")
        assert_complaint(last_line(result.stderr), "did not take the message within 2 s")


def signal_program(pid_file: Path) -> None:
    os.kill(int(pid_file.read_text()), signal.SIGKILL)
