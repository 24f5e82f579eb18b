"""The broker session: whom it asks, what it says, and how it waits."""

from __future__ import annotations

import os
import signal
import socket
import subprocess
import time

import pytest
from broker_session import (
    AN_HOUR,
    IDLE_SECONDS,
    agents_socket,
    connect,
    sanitized,
    seconds_between_requests,
    sleeps,
    wait_at_rest,
)
from orvel_lab import DeadlinePassed, Lab, Packet, Reply, Type
from orvel_lab.agent import default_binary
from orvel_lab.lab import TOKEN


class TestIdentity:
    def test_the_advisors_token_identifies_the_agent(self, claimed_lab: Lab):
        _, session = connect(claimed_lab)
        assert session.wait_for_bytes(13) == b"\x01\x01\x00\x09" + TOKEN

    def test_a_token_may_hold_any_byte(self, make_lab):
        token = bytes(range(256)) * 100
        _, session = connect(make_lab(registered=True, claimed=True, token=token))
        assert session.expect_identity() == Packet(Type.IDENTITY_TOKEN, (token,))

    def test_without_a_token_the_agent_id_identifies_it(self, make_lab):
        lab = make_lab(registered=True, claimed=True, token=None)
        _, session = connect(lab)
        agent_id = lab.settings["q_agent_id"].encode()
        assert session.wait_for_bytes(20) == b"\x00\x01\x00\x10" + agent_id

    @pytest.mark.breaks("advisor-reply")
    @pytest.mark.parametrize("token", ["not base64", "YWJj!", "YWJ", "YWI=YWI="])
    def test_a_token_that_is_not_base64_counts_as_absent(self, claimed_lab: Lab, token: str):
        claimed_lab.cloud.advice["token"] = token
        _, session = connect(claimed_lab)
        agent_id = claimed_lab.settings["q_agent_id"].encode()
        assert session.expect_identity() == Packet(Type.IDENTITY_AGENT_ID, (agent_id,))

    def test_without_token_and_agent_id_the_process_ends(self, make_lab):
        lab = make_lab(registered=True, claimed=True, token=None)
        agent, session = connect(lab)
        tool = default_binary().with_name("usi")
        subprocess.run([tool, "-c", lab.settings_path, "unset", "q_agent_id"], check=True)
        session.close()
        assert agent.wait() == 1
        agent.assert_logged("WARNING: Cannot get q_agent_id value.")


class TestKeepalives:
    def test_the_broker_gets_the_values_of_the_command_line(self, claimed_lab: Lab):
        agent, session = connect(claimed_lab, "--broker_keepalive", "258,3,4294967")
        identity = 4 + len(TOKEN)
        sent = session.wait_for_bytes(identity + 16)[identity:]
        assert sent == b"\x0a\x01\x00\x0c" + b"\x00\x00\x01\x02" + b"\x00\x00\x00\x03" + b"\x00\x41\x89\x37"
        agent.assert_logged("DEBUG: keepalives sent to qbroker.")

    def test_the_advisors_values_replace_those_of_the_command_line(self, claimed_lab: Lab):
        claimed_lab.cloud.advice.update(agentKeepalive="70,6,7", brokerKeepalive="80,8,9")
        agent, session = connect(claimed_lab, "--broker_keepalive", "1,2,3", "--agent_keepalive", "1,2,3")
        assert session.expect(Type.KEEPALIVES).keepalives == (80, 8, 9)
        with agents_socket(agent, session) as own_end:
            assert own_end.getsockopt(socket.IPPROTO_TCP, socket.TCP_KEEPIDLE) == 70

    @pytest.mark.parametrize("values", ["0,5,10", "60,0,10", "60,5,0"])
    def test_one_value_of_0_means_no_keepalives(self, claimed_lab: Lab, values: str):
        agent, session = connect(claimed_lab, "--broker_keepalive", values, "--agent_keepalive", values)
        session.send_message("nobody")
        agent.wait_for_line("handler_desc='q_handler_nobody'")
        assert [packet.type for packet in session.packets.snapshot()] == [Type.IDENTITY_TOKEN]
        agent.assert_not_logged("keepalives")

    def test_the_agents_own_are_set_on_its_socket(self, claimed_lab: Lab):
        agent, session = connect(claimed_lab, "--agent_keepalive", "60,5,10")
        agent.assert_logged("DEBUG: keepalives values are set.")
        with agents_socket(agent, session) as own_end:
            assert own_end.getsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE) == 1
            options = (socket.TCP_KEEPIDLE, socket.TCP_KEEPCNT, socket.TCP_KEEPINTVL)
            assert [own_end.getsockopt(socket.IPPROTO_TCP, option) for option in options] == [60, 5, 10]

    def test_without_values_keepalives_are_on_with_the_systems_values(self, claimed_lab: Lab):
        agent, session = connect(claimed_lab)
        with agents_socket(agent, session) as own_end, socket.socket() as fresh:
            assert own_end.getsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE) == 1
            assert not os.get_blocking(own_end.fileno())
            systems = fresh.getsockopt(socket.IPPROTO_TCP, socket.TCP_KEEPIDLE)
            assert own_end.getsockopt(socket.IPPROTO_TCP, socket.TCP_KEEPIDLE) == systems

    @pytest.mark.parametrize(
        ("values", "option"),
        [("99999,5,10", "TCP_KEEPIDLE"), ("60,999,10", "TCP_KEEPCNT"), ("60,5,99999", "TCP_KEEPINTVL")],
    )
    def test_values_that_the_system_refuses_are_logged_and_the_session_goes_on(
        self, claimed_lab: Lab, values: str, option: str
    ):
        agent, session = connect(claimed_lab, "--agent_keepalive", values)
        agent.assert_logged(
            f"WARNING: Cannot set {option} - setsockopt(): Invalid argument.",
            "WARNING: Cannot set keepalives to connection with qbroker - possibly connection status will be "
            "unsynchronized.",
        )
        session.send_message("nobody")
        agent.wait_for_line("handler_desc='q_handler_nobody'")


class TestHeartbeats:
    def test_the_first_one_comes_after_its_seconds(self, claimed_lab: Lab):
        agent, session = connect(claimed_lab, "--agent_heartbeat", "1")
        packet = session.expect(Type.HEARTBEAT)
        assert time.time() - session.opened_at >= 1
        assert packet.encode()[:12] == b"\x0b\x01\x00\x10" + b"\0\0\0\0\0\0\0\x01"
        assert int(session.opened_at) <= packet.sent_at <= time.time()
        agent.wait_for_line("DEBUG: heartbeat with seq number 1 was sent.")

    def test_an_answered_one_is_followed_by_the_next(self, claimed_lab: Lab):
        agent, session = connect(claimed_lab, "--agent_heartbeat", "1")
        assert [session.expect(Type.HEARTBEAT).sequence for _ in range(2)] == [1, 2]
        agent.wait_for_line("DEBUG: Received heartbeat response with sequence number 1, latest sent was 1.")
        agent.wait_for_line("DEBUG: heartbeat OK!")
        agent.wait_for_line("DEBUG: heartbeat with seq number 2 was sent.")
        assert agent.count("heartbeat OK!") == 1

    def test_the_advisors_seconds_replace_those_of_the_command_line(self, claimed_lab: Lab):
        claimed_lab.cloud.advice["agentHeartbeat"] = "1"
        _, session = connect(claimed_lab, "--agent_heartbeat", AN_HOUR)
        assert session.expect(Type.HEARTBEAT).sequence == 1

    def test_numbers_go_on_over_reconnections(self, claimed_lab: Lab):
        claimed_lab.settings["q_qbroker_delay"] = "0"
        agent, session = connect(claimed_lab, "--agent_heartbeat", "1")
        assert session.expect(Type.HEARTBEAT).sequence == 1
        session.close()
        assert claimed_lab.broker.expect_session().expect(Type.HEARTBEAT).sequence == 2
        agent.assert_not_logged("heartbeat OK!")  # the first one of a connection is sent without a check

    def test_a_missing_answer_closes_and_reconnects_without_delay(self, claimed_lab: Lab):
        claimed_lab.settings["q_qbroker_delay"] = AN_HOUR
        claimed_lab.broker.answer_heartbeats = False
        agent, session = connect(claimed_lab, "--agent_heartbeat", "1")
        assert session.wait_ended() == "agent closed"
        assert [packet.type for packet in session.packets.snapshot()] == [Type.IDENTITY_TOKEN, Type.HEARTBEAT]
        # A connection that never had a heartbeat is not judged by the one that was missed on the last.
        assert claimed_lab.broker.expect_session().expect(Type.HEARTBEAT).sequence == 2
        agent.wait_for_line("WARNING: latest heartbeat is not received! Sending command to close connection.")
        agent.wait_for_line("DEBUG: keep_connection=1, success=1.")
        agent.assert_not_logged("Connection to qbroker was closed.", "Cannot send command")

    def test_an_answer_to_an_older_one_counts_as_missing(self, claimed_lab: Lab):
        claimed_lab.broker.answer_heartbeats = False
        agent, session = connect(claimed_lab, "--agent_heartbeat", "1")
        session.expect(Type.HEARTBEAT)
        session.send_heartbeat_response(0)
        agent.wait_for_line("Received heartbeat response with sequence number 0, latest sent was 1.")
        agent.wait_for_line("latest heartbeat is not received! Sending command to close connection.")
        assert session.wait_ended() == "agent closed"

    @pytest.mark.parametrize("size", [1, 15, 17, 20])
    def test_an_answer_of_another_size_is_warned_about_and_ignored(self, claimed_lab: Lab, size: int):
        agent, session = connect(claimed_lab)
        session.send(Packet(Type.HEARTBEAT_RESPONSE, (bytes(size),)))
        warning = "WARNING: Size of hearbeat responce is more than we expected. Expected 16, but received "
        agent.wait_for_line(f"{warning}{size}.")
        session.send_message("nobody")
        agent.wait_for_line("handler_desc='q_handler_nobody'")
        agent.assert_not_logged("Received heartbeat response")

    def test_an_answer_that_nobody_asked_for_is_stored(self, claimed_lab: Lab):
        agent, session = connect(claimed_lab)
        session.send_heartbeat_response(2**64 - 1)
        agent.wait_for_line(f"Received heartbeat response with sequence number {2**64 - 1}, latest sent was 0.")


class TestIdle:
    @pytest.mark.breaks("advisor-reply")
    @pytest.mark.parametrize("advised", [None, "0", "-1"])
    def test_a_connected_agent_makes_no_wake_up(self, claimed_lab: Lab, advised: str | None):
        """No heartbeats by default, and none when the advisor takes back those of the command line."""
        options = []
        if advised is not None:
            claimed_lab.cloud.advice["agentHeartbeat"] = advised
            options = ["--agent_heartbeat", "1"]
        agent, session = connect(claimed_lab, *options)
        claimed_lab.event_sink.wait_for_document(event=4, connected=True)
        at_rest = wait_at_rest(agent)
        with pytest.raises(DeadlinePassed):
            session.expect(Type.HEARTBEAT, deadline=IDLE_SECONDS)
        if not sanitized():
            assert sleeps(agent) == at_rest


class TestAdvisor:
    def test_it_is_asked_again_after_the_seconds_that_it_named(self, claimed_lab: Lab):
        claimed_lab.cloud.script("advisor", Reply(body={"_type": "ActionWait", "period": 1}))
        agent, _ = connect(claimed_lab)
        assert seconds_between_requests(claimed_lab, 2) >= 1
        agent.assert_logged(
            "DEBUG: Making advisor request for qbroker address.",
            "DEBUG: Wait command received from adviser. Sleeping for 1 secs.",
        )

    def test_a_wait_without_seconds_lasts_until_a_user_signal(self, claimed_lab: Lab):
        claimed_lab.cloud.script("advisor", Reply(body={"_type": "ActionWait", "period": 0}))
        agent = claimed_lab.start_agent("--log_debug")
        agent.wait_for_line("DEBUG: 'wait forever' command received from adviser. Sleeping forever.")
        wait_at_rest(agent)
        agent.signal(signal.SIGUSR1)
        agent.wait_for_line("DEBUG: Exiting sleeping sleep_forever_interruptable.")
        claimed_lab.broker.expect_session()

    def test_a_resume_ends_no_wait_for_ever_and_starts_no_second_thread(self, claimed_lab: Lab):
        claimed_lab.cloud.advise_wait(0)
        agent = claimed_lab.start_agent("--log_debug")
        agent.wait_for_line("Sleeping forever.")
        assert agent.control.command("resume_connections") == 0
        agent.wait_for_line("WARNING: qbroker thread already started.")
        wait_at_rest(agent)
        agent.signal(signal.SIGUSR1)
        agent.wait_for_line("Sleeping forever.")
        assert agent.control.command("pause_connections") == 0
        # One request for the start and one for the signal: the resume gave no third.
        assert len(claimed_lab.cloud.requests("advisor")) == 2

    def test_a_user_signal_ends_a_wait_of_some_seconds_too(self, claimed_lab: Lab):
        claimed_lab.cloud.script("advisor", Reply(body={"_type": "ActionWait", "period": 3600}))
        agent = claimed_lab.start_agent("--log_debug")
        agent.wait_for_line("Sleeping for 3600 secs.")
        wait_at_rest(agent)
        agent.signal(signal.SIGUSR1)
        claimed_lab.broker.expect_session()

    @pytest.mark.parametrize(
        "reply",
        [
            Reply(500),
            Reply(body="<html>"),
            Reply(body=b""),
            Reply(body={"_type": "ActionConnect"}),
            Reply(body={"_type": "ActionDance", "broker": "localhost"}),
            Reply(body={"_type": "ActionWait"}),
            Reply(end="reset", cut=0),
        ],
        ids=["500", "html", "empty", "no broker", "unknown action", "no period", "reset"],
    )
    def test_after_a_useless_answer_it_is_asked_again_after_the_advisor_delay(self, claimed_lab: Lab, reply: Reply):
        claimed_lab.settings["q_qbroker_delay"] = AN_HOUR
        claimed_lab.cloud.script("advisor", reply)
        agent, _ = connect(claimed_lab)
        assert seconds_between_requests(claimed_lab, 2) >= 1
        assert agent.count("Making advisor request for qbroker address.") == 2
        assert agent.count("qbroker_host=") == 1

    @pytest.mark.parametrize("port", [None, "0"])
    def test_without_a_port_of_its_own_the_stored_one_counts(self, claimed_lab: Lab, port: str | None):
        claimed_lab.cloud.advise_connect("localhost", port, TOKEN)
        agent, _ = connect(claimed_lab)
        agent.assert_logged(f"INFO: qbroker_host=localhost, qbroker_port={claimed_lab.broker.port}, using ssl=1")

    def test_the_stored_port_is_443_when_unset(self, claimed_lab: Lab):
        del claimed_lab.settings["q_broker_port"]
        claimed_lab.cloud.advise_connect("localhost", None, TOKEN)
        agent = claimed_lab.start_agent("--log_info")
        agent.wait_for_line("INFO: qbroker_host=localhost, qbroker_port=443, using ssl=1")

    def test_the_advisors_port_comes_before_the_stored_one(self, claimed_lab: Lab):
        claimed_lab.settings["q_broker_port"] = str(claimed_lab.reserve_port())
        connect(claimed_lab)


class TestTlsSwitch:
    def test_the_broker_link_is_plain_when_it_is_switched_off(self, plain_lab: Lab):
        agent, session = connect(plain_lab)
        assert session.expect_identity().text == TOKEN.decode()
        assert session.tls_version is None
        agent.assert_logged("using ssl=0")

    def test_it_is_tls_when_nothing_is_said(self, claimed_lab: Lab):
        del claimed_lab.settings["q_broker_ssl"]
        agent, session = connect(claimed_lab)
        assert session.tls_version == "TLSv1.2"
        agent.assert_logged("using ssl=1")
