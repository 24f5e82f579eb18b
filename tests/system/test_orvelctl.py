"""orvelctl's requests to the agent, and its command line."""

from __future__ import annotations

import json
import os
import pty
import socket
import subprocess
import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager

import pytest
from documents import complaints
from orvel_lab import DEADLINE, Agent, Lab, Reply
from orvelctl_runner import Ctl, assert_complaint, run_orvelctl

USAGE, UNREACHABLE, FILE, TIMEOUT = 64, 69, 74, 75
DISCOVERED = "done (nothing was sent if discovery is switched off: setting q_use_discovery)\n"


@pytest.fixture
def lab(make_lab: Callable[..., Lab]) -> Lab:
    """A known device that nobody has claimed, with discovery."""
    return make_lab(registered=True, tls=False, settings={"q_use_discovery": "1", "q_claim_check": "3600"})


@pytest.fixture
def agent(lab: Lab) -> Agent:
    agent = lab.start_agent("--log_debug", "--service_id", "lamp", "--start_paused")
    agent.wait_for_line("start control listener thread.")
    return agent


@contextmanager
def server(answer: bytes) -> Iterator[int]:
    """A program on a port that is no agent: it answers whatever comes with `answer`."""
    with socket.create_server(("127.0.0.1", 0)) as listening:
        listening.settimeout(DEADLINE)

        def serve() -> None:
            connection, _ = listening.accept()
            with connection:
                while connection.recv(4096):
                    pass
                connection.sendall(answer)

        thread = threading.Thread(target=serve)
        thread.start()
        yield listening.getsockname()[1]
        thread.join()


class TestRequests:
    @pytest.mark.parametrize(
        ("arguments", "request_text", "log"),
        [
            (["claim", "--service", "s"], {"command": "on_claim", "service": "s", "claimed": True}, "On claim! Claimed? 1,"),
            (
                ["claim", "--service", "s", "--claimed", "false"],
                {"command": "on_claim", "service": "s", "claimed": False},
                "On claim! Claimed? 0,",
            ),
            (
                ["release", "--service", "s", "--claimed", "true"],
                {"command": "on_release", "service": "s", "claimed": True},
                "On release! Claimed? 1,",
            ),
            (["pause"], {"command": "pause_connections"}, "Stop connections."),
            (["resume"], {"command": "resume_connections"}, "Starting connections."),
            (
                ["resume", "--carrier_id", 'a "b"\\'],
                {"command": "resume_connections", "carrier_id": 'a "b"\\'},
                "Starting connections.",
            ),
            (
                ["registered", "--service", "ä"],
                {"command": "on_fernhollow", "service": "ä", "registered": True},
                "On fernhollow: 1, service id is ä",
            ),
        ],
    )
    def test_each_option_is_a_member(self, lab: Lab, agent: Agent, arguments, request_text, log):
        Ctl(lab, agent).expect(0, "done\n", *arguments)
        line = agent.wait_for_line("Received message ")
        sent = line.text.partition("Received message ")[2].removesuffix(".")
        assert json.loads(sent) == request_text
        assert list(json.loads(sent)) == list(request_text)
        assert complaints("control-request", request_text) == []
        agent.wait_for_line(log)

    def test_discover_announces_what_its_options_say(self, lab: Lab, agent: Agent):
        ctl = Ctl(lab, agent)
        ctl.expect(0, "done\n", "resume")
        options = ["--service", "lamp", "--id", "me", "--discovery_time", "600", "--discovery_data", "data", "--carrier_id", "c"]
        ctl.expect(0, DISCOVERED, "discover", *options)
        requests = [request for request in lab.cloud.requests("discovery") if request.query.get("i") == "me"]
        assert [request.query for request in requests] == [{"i": "me", "e": "600", "s": "lamp"}]
        assert requests[0].json["discoveryData"] == "data"

    def test_global_options_may_stand_behind_the_command(self, lab: Lab, agent: Agent):
        result = run_orvelctl("pause", "--control_port", agent.control.port)
        assert (result.returncode, result.stdout, result.stderr) == (0, "done\n", "")


class TestResults:
    def test_discovery_while_paused_gives_10(self, lab: Lab, agent: Agent):
        Ctl(lab, agent).expect_error(10, "connections are paused", "discover", "--service", "lamp")
        Ctl(lab, agent).expect_error(10, "orvelctl resume", "release", "--service", "lamp")

    def test_discovery_that_the_cloud_refuses_gives_5(self, lab: Lab, agent: Agent):
        lab.cloud.script("discovery", *[Reply.error(500, 1, "no")] * 4)
        ctl = Ctl(lab, agent)
        ctl.expect(0, "done\n", "resume")
        ctl.expect_error(5, "the cloud refused", "discover", "--service", "lamp")

    def test_discovery_without_an_identity_gives_1(self, make_lab: Callable[..., Lab]):
        lab = make_lab(settings={"q_use_discovery": "1"})
        agent = lab.start_agent("--log_debug", "--service_id", "lamp", "--start_paused")
        agent.wait_for_line("start control listener thread.")
        Ctl(lab, agent).expect_error(1, "no agent id yet", "discover", "--service", "lamp")


class TestRaw:
    def test_text_goes_out_as_it_stands(self, lab: Lab, agent: Agent):
        Ctl(lab, agent).expect(0, '{"result":0}\n', "raw", '{"command":"pause_connections"}')
        agent.wait_for_line('Received message {"command":"pause_connections"}.')

    def test_standard_input_is_sent_whole(self, lab: Lab, agent: Agent):
        text = json.dumps({"filler": "x" * 1000000, "command": "pause_connections"})
        Ctl(lab, agent).expect(0, '{"result":0}\n', "raw", "-", input=text)
        agent.wait_for_line("Stop connections.")

    @pytest.mark.parametrize("text", ["", "[1]", "no JSON", '{"command":"on_claim"}'])
    def test_what_the_agent_does_not_understand_gives_1(self, lab: Lab, agent: Agent, text: str):
        result = Ctl(lab, agent).run("raw", text)  # also when it is empty, or looks like a list
        assert (result.returncode, result.stdout) == (1, '{"result":-1}\n')
        assert_complaint(result.stderr, "did not understand the request")


class TestWithoutAnAnswer:
    def test_nobody_listens(self, lab: Lab):
        Ctl(lab).expect_error(UNREACHABLE, "nothing listens on 127.0.0.1:", "pause")

    def test_an_agent_that_serves_somebody_else_is_waited_for(self, lab: Lab, agent: Agent):
        with agent.control.connect():
            Ctl(lab, agent).expect_error(TIMEOUT, "may have been executed", "--timeout", "1", "pause")
        Ctl(lab, agent).expect(0, "done\n", "resume")

    @pytest.mark.parametrize("answer", [b"", b"hello", b"{}", b'{"result":"0"}', b'{"result":0.5}', b"[0]"])
    def test_some_other_program_listens(self, lab: Lab, answer: bytes):
        with server(answer) as port:
            Ctl(lab).expect_error(UNREACHABLE, "no answer of the agent", "--control_port", port, "pause")

    @pytest.mark.parametrize("code", [77, -2, -3, -6])
    def test_an_unknown_code_has_words_and_a_status_too(self, lab: Lab, code: int):
        with server(b'{"result":%d}' % code) as port:
            Ctl(lab).expect_error(11, f"does not know: {code}", "--control_port", port, "pause")

    def test_what_it_says_controls_no_terminal(self, lab: Lab):
        with server(b"\x1b[2J\n" + b"x" * 1000) as port:
            result = Ctl(lab).run("--control_port", port, "pause")
        assert_complaint(result.stderr, "no answer of the agent: \\x1B[2J\\x0Axxx")
        assert "\x1b" not in result.stderr and "x... (is" in result.stderr and len(result.stderr) < 400

    def test_raw_shows_it_as_it_is_but_on_a_terminal(self, lab: Lab):
        with server(b"\x1b[2J") as port:
            assert Ctl(lab).run("--control_port", port, "raw", "{}").stdout == "\x1b[2J\n"
        ours, theirs = pty.openpty()
        with server(b"\x1b[2J") as port:
            Ctl(lab).run("--control_port", port, "raw", "{}", capture_output=False, stdout=theirs, stderr=subprocess.DEVNULL)
        assert os.read(ours, 100) == b"\\x1B[2J\r\n"
        os.close(ours)
        os.close(theirs)

    def test_an_endless_answer_is_given_up(self, lab: Lab):
        with server(b"x" * 70000) as port:
            Ctl(lab).expect_error(UNREACHABLE, "failed", "--control_port", port, "pause")


class TestCommandLine:
    @pytest.mark.parametrize(
        ("arguments", "text"),
        [
            ([], "subcommand is required"),
            (["dance"], "required"),
            (["claim"], "--service is required"),
            (["claim", "--service"], "--service"),
            (["claim", "--service", "s", "--claimed", "1"], "--claimed"),
            (["discover", "--service", "s", "--discovery_time", "-1"], "--discovery_time"),
            (["discover", "--service", "s", "--discovery_time", "1.5"], "--discovery_time"),
            (["discover", "--service", "s", "--discovery_time", "2147483648"], "--discovery_time"),
            (["pause", "now"], "now"),
            (["pause", "resume"], "resume"),
            (["raw"], "JSON is required"),
            (["send-test"], "HANDLER is required"),
            (["send-test", "h", "--text", "a", "--file", "b"], "excludes"),
            (["--control_port", "0", "pause"], "--control_port"),
            (["--control_port", "65536", "pause"], "--control_port"),
            (["--timeout", "0", "pause"], "--timeout"),
            (["--unknown", "pause"], "--unknown"),
        ],
    )
    def test_a_mistake_is_named_in_one_line(self, arguments: list[str], text: str):
        result = run_orvelctl(*arguments)
        assert (result.returncode, result.stdout) == (USAGE, "")
        assert_complaint(result.stderr, text)
        assert "see orvelctl --help" in result.stderr

    def test_help_and_version_are_no_mistakes(self):
        for arguments in (["--help"], ["-h"], ["claim", "--help"], ["--version"], ["-v"]):
            result = run_orvelctl(*arguments)
            assert (result.returncode, result.stderr) == (0, ""), arguments
            assert result.stdout

    def test_the_last_of_a_repeated_option_counts(self, lab: Lab, agent: Agent):
        Ctl(lab, agent).expect(0, "done\n", "claim", "--service", "a", "--service", "b")
        agent.wait_for_line('"service":"b"')

    def test_output_that_is_lost_is_a_failure(self):
        with open("/dev/full", "w", encoding="utf-8") as full:
            result = run_orvelctl("--version", capture_output=False, stdout=full, stderr=-1)
        assert result.returncode == FILE
        assert_complaint(result.stderr, "No space left on device")
