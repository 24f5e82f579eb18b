"""The control port, and control requests that come as messages to the agent itself."""

from __future__ import annotations

import json
import signal
import socket
import struct
from collections.abc import Callable

import pytest
from orvel_lab import Agent, Control, Lab, Reply, Session
from orvel_lab.lab import AGENT_HANDLER

AN_HOUR = "3600"
PAUSED = -10
SECONDS = 20
DONE = b'{"result":0}'
REFUSED = b'{"result":-1}'


@pytest.fixture
def idle_lab(make_lab: Callable[..., Lab]) -> Lab:
    """A known device that nobody has claimed: its agent connects to nothing, and waits for commands."""
    return make_lab(registered=True, tls=False, settings={"q_claim_check": AN_HOUR})


@pytest.fixture
def lab(make_lab: Callable[..., Lab]) -> Lab:
    """A claimed device that uses discovery, and whose broker link is plain TCP."""
    settings = {"q_use_discovery": "1", "q_claim_check": AN_HOUR}
    return make_lab(registered=True, claimed=True, tls=False, settings=settings)


def start(lab: Lab, *options: str) -> Agent:
    agent = lab.start_agent("--log_debug", "--service_id", "lamp", *options)
    agent.wait_for_line("start control listener thread.")
    return agent


def connect(lab: Lab, *options: str) -> tuple[Agent, Session]:
    agent = start(lab, *options)
    session = lab.broker.expect_session()
    lab.event_sink.wait_for_document(event=4, connected=True)
    return agent, session


def vanish(client: socket.socket) -> None:
    """Ends the connection by a reset."""
    client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    client.close()


def read_all(client: socket.socket) -> bytes:
    data = b""
    while block := client.recv(4096):
        data += block
    return data


class TestRequests:
    def test_what_is_no_request_is_answered_and_described(self, idle_lab: Lab):
        agent = start(idle_lab)
        no_members = "WARNING: Can't get list of elements in control request."
        cases = [
            (b"", "WARNING: Error before: ''"),
            (b"no JSON", "WARNING: Error before: 'no JSON'"),
            (b'{"command":"pause_connections"', "WARNING: Error before: '"),
            (b"\0\1\2", "WARNING: Error before: ''"),
            (b"\xff\xfe%s%n", "WARNING: Error before: '"),
            (b"{}", no_members),
            (b"[]", no_members),
            (b'[{"command":"pause_connections"}]', no_members),
            (b"5", no_members),
            (b"null", no_members),
            (b'"pause_connections"', no_members),
        ]
        for request, text in cases:
            assert agent.control.exchange(request) == REFUSED
            agent.wait_for_line("DEBUG: Received message ")
            agent.wait_for_line(text)
            agent.wait_for_line("WARNING: Cannot parse incoming request.")
            agent.wait_for_line("DEBUG: Command execution result is -1")
        agent.assert_not_logged("Stop connections.")

    def test_the_way_in_which_it_arrives_does_not_matter(self, idle_lab: Lab):
        agent = start(idle_lab)
        request = json.dumps({"filler": "x" * 1000, "command": "resume_connections"}).encode()
        for size in (1, 255, 256, 257, 1000):
            assert agent.control.exchange(request, rest=size) == DONE
            agent.wait_for_line(f"Received message {request.decode()}.")
            agent.wait_for_line("DEBUG: Starting connections.")

    def test_it_may_be_a_mebibyte_long(self, idle_lab: Lab):
        agent = start(idle_lab)
        request = json.dumps({"filler": "x" * (1 << 20), "command": "resume_connections"}).encode()
        assert agent.control.exchange(request) == DONE
        assert agent.control.exchange(bytes(1 << 20)) == REFUSED
        agent.wait_for_line("Starting connections.")

    def test_it_ends_at_its_first_nul(self, idle_lab: Lab):
        agent = start(idle_lab)
        assert agent.control.exchange(b'{"command":"resume_connections"}\0{') == DONE
        agent.wait_for_line("Starting connections.")

    @pytest.mark.breaks("control-request")
    def test_without_a_known_command_nothing_is_done(self, idle_lab: Lab):
        agent = start(idle_lab)
        unknown = [{"command": "dance"}, {"service": "s"}, {"command": 4}, {"Command": "pause_connections"}]
        for request in unknown:
            assert agent.control.request(request) == 0
            agent.wait_for_line("WARNING: Cannot execute request with unknown type -1.")
            agent.wait_for_line("DEBUG: Command execution result is 0")

    def test_the_first_known_command_counts_but_for_a_pause(self, idle_lab: Lab):
        agent = start(idle_lab)
        both = b'{"command":"dance","command":"%s","command":"on_fernhollow","service":"s","registered":true}'
        assert agent.control.exchange(both % b"resume_connections") == DONE
        agent.wait_for_line("Starting connections.")
        assert agent.control.exchange(both % b"pause_connections") == DONE
        agent.wait_for_line("On fernhollow: 1, service id is s")
        agent.assert_not_logged("Stop connections.", "Cannot execute request")

    def test_members_that_are_missing_or_of_another_type_are_told(self, idle_lab: Lab):
        agent = start(idle_lab)
        claim = "WARNING: Incomplete on_claim/on_release request!."
        fernhollow = "WARNING: Incomplete on_fernhollow request!."
        cases = [
            ({"command": "on_claim", "service": "s"}, claim),
            ({"command": "on_claim", "claimed": True}, claim),
            ({"command": "on_claim", "service": "s", "claimed": 1}, claim),
            ({"command": "on_claim", "service": "s", "claimed": "true"}, claim),
            ({"command": "on_claim", "service": 5, "claimed": True}, claim),
            ({"command": "on_release", "service": "s"}, claim),
            ({"command": "on_release", "service": "s", "claimed": 0}, claim),
            ({"command": "on_fernhollow", "service": "s"}, fernhollow),
            ({"command": "on_fernhollow", "service": "s", "registered": "false"}, fernhollow),
            ({"command": "send_discovery"}, "WARNING: Incomplete discovery request!."),
            ({"command": "send_discovery", "service": 1}, "WARNING: Incomplete discovery request!."),
        ]
        for request, text in cases:
            assert agent.control.request(request) == -1
            agent.wait_for_line(text)
            agent.wait_for_line("WARNING: Cannot parse incoming request.")
        agent.assert_not_logged("On claim!", "On release!", "On fernhollow:")


class TestClients:
    def test_a_slow_one_keeps_the_others_waiting(self, idle_lab: Lab):
        agent = start(idle_lab)
        with agent.control.connect() as slow, agent.control.connect() as waiting:
            waiting.sendall(b'{"command":"second"}')
            waiting.shutdown(socket.SHUT_WR)
            slow.sendall(b'{"command":')
            slow.sendall(b'"first"}')
            agent.assert_not_logged("Received message")
            slow.shutdown(socket.SHUT_WR)
            assert [read_all(slow), read_all(waiting)] == [DONE, DONE]
        agent.wait_for_line('Received message {"command":"first"}.')
        agent.wait_for_line('Received message {"command":"second"}.')

    @pytest.mark.breaks("control-request")
    def test_one_that_vanishes_before_the_reply_costs_one_line(self, lab: Lab):
        agent, _ = connect(lab)
        reply = Reply(stall=True)
        lab.cloud.script("discovery", reply)
        client = agent.control.connect()
        client.sendall(b'{"command":"send_discovery","service":"s"}')
        client.shutdown(socket.SHUT_WR)
        lab.cloud.wait_for_request("discovery")
        vanish(client)
        reply.release()
        agent.wait_for_line("WARNING: write() error 32 writing back to client")
        assert agent.control.command("dance") == 0

    @pytest.mark.breaks("control-request")
    def test_one_that_vanishes_in_the_middle_of_its_request_is_served_with_what_came(self, idle_lab: Lab):
        agent = start(idle_lab)
        client = agent.control.connect()
        client.sendall(b'{"comm')
        vanish(client)
        agent.wait_for_line("WARNING: Cannot parse incoming request.")
        assert agent.control.command("dance") == 0

    @pytest.mark.breaks("control-request")
    def test_a_request_under_way_is_answered_before_sigterm_ends_the_agent(self, idle_lab: Lab):
        agent = start(idle_lab)
        assert agent.control.command("dance") == 0
        with agent.control.connect() as client:
            client.sendall(b'{"command":"dan')
            agent.signal(signal.SIGTERM)
            agent.wait_for_line("received sigterm")
            client.sendall(b'ce"}')
            client.shutdown(socket.SHUT_WR)
            assert read_all(client) == DONE
        assert agent.wait() == 0
        agent.wait_for_line("received message in control listener pipe!", anywhere=True)


class TestPort:
    def test_one_that_is_taken_leaves_the_rest_running(self, lab: Lab):
        sink = lab.tcp_handler("meter")
        with socket.create_server(("127.0.0.1", 0)) as occupant:
            agent, session = connect(lab, "--control_port", str(occupant.getsockname()[1]))
            agent.wait_for_line("WARNING: bind(). errno: 98.", anywhere=True)
            session.send_message("meter", b"x")
            assert sink.expect() == b"x"
            session.send_message(AGENT_HANDLER, b'{"command":"pause_connections"}')
            assert session.wait_ended() == "agent closed"
            agent.assert_not_logged("end control listener thread.")
            agent.kill()  # nobody is left who could take SIGTERM's message

    @pytest.mark.breaks("control-request")
    def test_it_can_be_shared_with_another_listener(self, idle_lab: Lab):
        port = idle_lab.reserve_port()
        with socket.socket() as other:
            other.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
            other.bind(("127.0.0.1", port))
            other.listen()
            agent = start(idle_lab, "--control_port", str(port))
            agent.wait_for_line("Device is not claimed. Connection to qCloud won't be established.")
        assert Control(port).command("dance") == 0
        agent.assert_not_logged("bind().")

    @pytest.mark.breaks("control-request")
    def test_only_the_loopback_address_is_served(self, idle_lab: Lab):
        agent = start(idle_lab)
        assert agent.control.command("dance") == 0
        with pytest.raises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.2", agent.control.port), timeout=SECONDS)


class TestCommands:
    def test_a_claim_is_recorded_and_told_whatever_its_flag_says(self, idle_lab: Lab):
        sink = idle_lab.tcp_handler("event_sink_meter")
        agent = start(idle_lab)
        agent.wait_for_line("Device is not claimed. Connection to qCloud won't be established.")
        assert agent.control.command("on_claim", service="meter", claimed=False) == 0
        agent.wait_for_line("DEBUG: On claim! Claimed? 0, service id is meter")
        idle_lab.broker.expect_session().expect_identity()
        idle_lab.wait_for_setting("q_agent_claimed", "1")
        idle_lab.event_sink.wait_for_document(event=3, claimed=True)
        assert json.loads(sink.expect()) == {"service": "meter", "claimed": True}

    def test_a_claim_leaves_the_running_session_alone(self, lab: Lab):
        sink = lab.tcp_handler("event_sink_meter")
        agent, session = connect(lab)
        assert agent.control.command("on_claim", service="meter", claimed=True) == 0
        agent.wait_for_line("On claim! Claimed? 1, service id is meter")
        assert sink.expect() == b'{\n\t"service":\t"meter",\n\t"claimed":\ttrue\n}'
        assert session.open
        assert len(lab.broker.sessions) == 1

    @pytest.mark.parametrize("registered", [False, True])
    def test_a_changed_registration_starts_the_session(self, idle_lab: Lab, registered: bool):
        agent = start(idle_lab)
        agent.wait_for_line("Device is not claimed. Connection to qCloud won't be established.")
        assert agent.control.command("on_fernhollow", service="meter", registered=registered) == 0
        agent.wait_for_line(f"DEBUG: On fernhollow: {int(registered)}, service id is meter")
        idle_lab.broker.expect_session().expect_identity()
        assert idle_lab.setting("q_agent_claimed") in (None, "0")

    def test_discovery_sends_what_the_request_says(self, lab: Lab):
        agent, _ = connect(lab)
        members = {"service": "meter", "id": "key", "discovery_time": 30, "discovery_data": "Ä b"}
        assert agent.control.command("send_discovery", **members) == 0
        request = lab.cloud.wait_for_request("discovery")
        assert request.query["s"] == "meter" and request.query["e"] == "30" and request.query["i"] == "key"
        assert "Ä b" in request.body.decode()

    def test_discoverys_own_failure_is_the_result(self, lab: Lab):
        agent, _ = connect(lab)
        lab.cloud.script("discovery", Reply(500))
        assert agent.control.command("send_discovery", service="meter") == -5
        agent.wait_for_line("Command execution result is -5")
        agent.assert_not_logged("Cannot parse incoming request.")

    def test_without_discovery_there_is_nothing_to_send(self, idle_lab: Lab):
        agent = start(idle_lab)
        assert agent.control.command("send_discovery", service="meter") == 0
        agent.wait_for_line("WARNING: Discovery is disabled.")
        assert not idle_lab.cloud.requests("discovery")

    def test_a_pause_lasts_until_the_resume(self, lab: Lab):
        agent, session = connect(lab)
        for _ in range(2):
            assert agent.control.command("pause_connections") == 0
            agent.wait_for_line("DEBUG: Stop connections.")
        assert session.wait_ended() == "agent closed"
        assert agent.control.command("send_discovery", service="meter") == PAUSED
        agent.wait_for_line("Command execution result is -10")
        assert agent.control.command("on_release", service="meter", claimed=False) == PAUSED
        agent.wait_for_line("WARNING: Send discovery to server would block.")
        assert not lab.cloud.requests("discovery")
        assert agent.control.command("resume_connections") == 0
        agent.wait_for_line("DEBUG: Starting connections.")
        lab.broker.expect_session().expect_identity()
        assert agent.control.command("send_discovery", service="meter") == 0

    def test_of_two_carriers_the_last_one_counts(self, lab: Lab):
        agent, _ = connect(lab, "--carrier_id", "old")
        assert lab.cloud.wait_for_request("advisor").header("X-Carrier-ID") == "old"
        assert agent.control.command("pause_connections") == 0
        resume = b'{"command":"resume_connections","carrier_id":"first","carrier_id":"second"}'
        assert agent.control.exchange(resume) == DONE
        agent.wait_for_line("WARNING: There are many ID fields in carrier changed request.")
        assert agent.count("There are many ID fields") == 1
        assert lab.cloud.wait_for_request("advisor", count=2).header("X-Carrier-ID") == "second"


class TestMessagesToTheAgent:
    def test_commands_are_executed_in_their_order(self, lab: Lab):
        told = lab.tcp_handler("event_sink_s")
        agent, session = connect(lab)
        cases = [
            ({"command": "on_claim", "service": "s", "claimed": True}, "On claim! Claimed? 1, service id is s"),
            ({"command": "on_fernhollow", "service": "s", "registered": False}, "On fernhollow: 0, service id is s"),
            ({"command": "on_release", "service": "s", "claimed": True}, "On release! Claimed? 1, service id is s"),
            ({"command": "dance"}, "WARNING: Cannot execute request with unknown type -1."),
            ({"command": "resume_connections"}, "Starting connections."),
            ({"command": "pause_connections"}, "Stop connections."),
        ]
        for request, text in cases:
            session.send_message(AGENT_HANDLER, json.dumps(request).encode())
            agent.wait_for_line(text)
        assert session.wait_ended() == "agent closed"
        lab.event_sink.wait_for_document(event=4, connected=False)  # delivered once the pause is through
        assert [json.loads(told.expect())["claimed"] for _ in range(2)] == [True, False]
        assert agent.control.command("resume_connections") == 0
        lab.broker.expect_session().expect_identity()
        agent.assert_not_logged(f"q_handler_{AGENT_HANDLER}", "Cannot parse incoming request.")

    def test_discovery_is_sent(self, lab: Lab):
        agent, session = connect(lab)
        session.send_message(AGENT_HANDLER, b'{"command":"send_discovery","service":"meter"}')
        assert lab.cloud.wait_for_request("discovery").query["s"] == "meter"
        agent.wait_for_line("discovery pushed.")
        assert session.open

    def test_what_is_no_request_is_described_and_nothing_else(self, lab: Lab):
        sink = lab.tcp_handler("meter")
        agent, session = connect(lab)
        for garbage, text in [(b"", "Error before: ''"), (b"\xff{", "Error before: '"), (b"{}", "Can't get list")]:
            session.send_message(AGENT_HANDLER, garbage)
            agent.wait_for_line(text)
            agent.wait_for_line("WARNING: Cannot parse incoming request.")
        session.send_message("meter", b"next")
        assert sink.expect() == b"next"
        agent.assert_not_logged("Command execution result")

    def test_they_stand_in_the_queue_with_the_others(self, lab: Lab):
        sink = lab.tcp_handler("meter")
        agent, session = connect(lab)
        session.send_message("meter", b"before")
        session.send_message(AGENT_HANDLER, b'{"command":"dance"}')
        session.send_message("meter", b"behind")
        assert [sink.expect(), sink.expect()] == [b"before", b"behind"]
        agent.wait_for_line("Sent to handler 6 bytes.")
        agent.wait_for_line("Cannot execute request with unknown type -1.")
        agent.wait_for_line("Sent to handler 6 bytes.")

    def test_without_a_name_of_its_own_it_has_no_messages(self, lab: Lab):
        sink = lab.tcp_handler(AGENT_HANDLER)
        del lab.settings["q_agent_handler_name"]
        _, session = connect(lab)
        session.send_message(AGENT_HANDLER, b'{"command":"pause_connections"}')
        assert sink.expect() == b'{"command":"pause_connections"}'
        assert session.open
