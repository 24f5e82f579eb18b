"""Every way in which a broker session ends."""

from __future__ import annotations

import re
import resource
import signal
import socket
import time
from contextlib import ExitStack

import pytest
from broker_session import AN_HOUR, connect, descriptor_of, fill_backlog, wait_at_rest
from orvel_lab import Agent, Lab, Packet, Reply, Type
from orvel_lab.lab import TOKEN


class TestEnds:
    def test_a_broker_that_closes_is_left_and_asked_for_again_after_the_delay(self, claimed_lab: Lab):
        agent, session = connect(claimed_lab)
        closed_at = time.time()
        session.close()
        for text in (
            "ERROR: SSL_read == 0 errno: 'Success'.",
            "ERROR: Other end disconnected.",
            "DEBUG: Other end disconnected.",
            "DEBUG: keep_connection=1, success=0.",
            "ERROR: disconnected",
            "WARNING: Connection to qbroker was closed. Sleeping for 1 secs.",
            "DEBUG: Making advisor request for qbroker address.",
        ):
            agent.wait_for_line(text)
        assert claimed_lab.cloud.wait_for_request("advisor", 2).time - closed_at >= 1
        claimed_lab.broker.expect_session()

    def test_both_states_are_recorded_and_told(self, claimed_lab: Lab):
        agent, session = connect(claimed_lab)
        claimed_lab.event_sink.wait_for_document(event=4, connected=True)
        claimed_lab.wait_for_setting("q_agent_connected", "1")
        assert agent.control.command("pause_connections") == 0
        assert session.wait_ended() == "agent closed"
        claimed_lab.event_sink.wait_for_document(event=4, connected=False)
        claimed_lab.wait_for_setting("q_agent_connected", "0")

    @pytest.mark.parametrize("tls", [True, False], ids=["tls", "tcp"])
    @pytest.mark.parametrize("end", ["close", "cut", "reset", "half_close"])
    def test_every_way_of_ending_is_noticed_and_a_new_session_begins(self, make_lab, tls: bool, end: str):
        lab = make_lab(registered=True, claimed=True, tls=tls)
        agent, session = connect(lab)
        getattr(session, end)()
        lab.broker.expect_session().expect_identity()
        agent.wait_for_line("keep_connection=1, success=0.")
        assert agent.count("Other end disconnected.") == (0 if end == "reset" else 2)

    def test_a_reset_under_tls_is_described(self, claimed_lab: Lab):
        agent, session = connect(claimed_lab)
        session.reset()
        for text in (
            "ERROR: SSL_read < 0 errno: 'Connection reset by peer'.",
            "ERROR: openssl read error: 'SSL_ERROR_SYSCALL', errno: 'Connection reset by peer'.",
            "WARNING: openssl read result: '-1', error: '5', errno: '104'.",
        ):
            agent.wait_for_line(text)

    def test_without_a_delay_nothing_is_said_about_sleeping(self, claimed_lab: Lab):
        claimed_lab.settings["q_qbroker_delay"] = "0"
        agent, session = connect(claimed_lab)
        session.close()
        claimed_lab.broker.expect_session()
        agent.assert_not_logged("Connection to qbroker was closed.", "exit sleep_for")

    def test_a_user_signal_ends_the_delay(self, claimed_lab: Lab):
        claimed_lab.settings["q_qbroker_delay"] = AN_HOUR
        agent, session = connect(claimed_lab)
        session.close()
        agent.wait_for_line("Connection to qbroker was closed. Sleeping for 3600 secs.")
        wait_at_rest(agent)
        agent.signal(signal.SIGUSR1)
        claimed_lab.broker.expect_session()

    def test_a_user_signal_leaves_a_session_alone(self, claimed_lab: Lab):
        agent, session = connect(claimed_lab)
        sink = claimed_lab.tcp_handler("late")
        claimed_lab.change_setting("q_handler_late", sink.endpoint)
        for number in range(5):
            agent.signal(signal.SIGUSR1)
            session.send_message("late", b"%d" % number)
            assert sink.expect() == b"%d" % number
        assert session.open

    def test_a_wait_that_fails_ends_the_session(self, plain_lab: Lab):
        agent, session = connect(plain_lab)
        soft, hard = resource.prlimit(agent.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(agent.pid, resource.RLIMIT_NOFILE, (1, hard))  # poll(2) wants no more than that
        session.send(Packet(99, ()))
        agent.wait_for_line("WARNING: select error 22.")
        resource.prlimit(agent.pid, resource.RLIMIT_NOFILE, (soft, hard))
        agent.wait_for_line("DEBUG: keep_connection=1, success=0.")
        plain_lab.broker.expect_session().expect_identity()

    def test_a_broker_that_sends_one_byte_now_and_then_is_listened_to(self, claimed_lab: Lab):
        sink = claimed_lab.tcp_handler("slow")
        _, session = connect(claimed_lab)
        session.drip(Packet(Type.PLAIN_MESSAGE, (b"slow", b"x")), seconds=0.2)
        assert sink.expect() == b"x"


class TestCommandPipe:
    def test_a_session_without_one_runs_and_a_missed_heartbeat_still_closes_it(self, plain_lab: Lab):
        plain_lab.broker.answer_heartbeats = False
        agent, session = connect(plain_lab)
        advice = Reply(body={**plain_lab.cloud.advice, "agentHeartbeat": "1"}, stall=True)
        plain_lab.cloud.script("advisor", advice)
        soft, hard = resource.prlimit(agent.pid, resource.RLIMIT_NOFILE)
        descriptor = descriptor_of(agent, session)
        session.close()
        plain_lab.event_sink.wait_for_document(event=4, connected=False)
        plain_lab.cloud.wait_for_request("advisor", 2)
        wait_at_rest(agent)
        resource.prlimit(agent.pid, resource.RLIMIT_NOFILE, (descriptor + 1, hard))  # room for the socket alone
        advice.release()
        agent.wait_for_line("Connected to qbroker.")
        agent.wait_for_line(re.compile(r"DEBUG: qbroker_connection:qbroker_connect:\d+: error 24$"))
        resource.prlimit(agent.pid, resource.RLIMIT_NOFILE, (soft, hard))
        session = plain_lab.broker.expect_session()
        session.expect_identity()
        agent.wait_for_line("latest heartbeat is not received! Sending command to close connection.")
        agent.wait_for_line("WARNING: Cannot send command '99' to qbroker thread - write end is not initialized.")
        assert session.wait_ended() == "agent closed"


class TestStop:
    """Whatever the session does, `pause_connections` ends it and returns."""

    def stop(self, agent: Agent, *texts: str) -> None:
        assert agent.control.command("pause_connections") == 0
        agent.wait_for_line("DEBUG: stoping qbroker thread.")
        for text in (*texts, "DEBUG: exiting msg_processor thread.", "DEBUG: exiting qbroker_connection_thread"):
            agent.wait_for_line(text)
        agent.wait_for_line("DEBUG: qbroker thread stoped.")

    def test_the_thread_tells_its_life(self, claimed_lab: Lab):
        agent, session = connect(claimed_lab)
        agent.assert_logged(
            "DEBUG: starting qbroker thread.",
            "DEBUG: qbroker thread started.",
            "DEBUG: enter qbroker_connection_thread",
            "DEBUG: Connected to qbroker.",
        )
        self.stop(agent, "keep_connection=0, success=1.", "disconnected")
        assert session.wait_ended() == "agent closed"

    def test_a_stop_without_a_thread_warns(self, claimed_lab: Lab):
        agent, _ = connect(claimed_lab)
        self.stop(agent)
        assert agent.control.command("pause_connections") == 0
        agent.wait_for_line("DEBUG: stoping qbroker thread.")
        agent.wait_for_line("WARNING: Trying to stop stopped/uncreated qbroker thread.")
        agent.wait_for_line("DEBUG: qbroker thread stoped.")

    def test_a_stopped_session_can_be_started_again(self, claimed_lab: Lab):
        agent, _ = connect(claimed_lab)
        for _ in range(3):
            self.stop(agent)
            assert agent.control.command("resume_connections") == 0
            claimed_lab.broker.expect_session().expect_identity()

    def test_while_the_advisor_stalls_it_takes_effect_after_the_requests_time_out(self, claimed_lab: Lab):
        claimed_lab.settings["q_http_request_timeout"] = "1"
        claimed_lab.cloud.script("advisor", Reply(stall=True))
        agent = claimed_lab.start_agent("--log_debug")
        claimed_lab.cloud.wait_for_request("advisor")
        self.stop(agent, "Can't make advisor request.")
        assert len(claimed_lab.cloud.requests("advisor")) == 1

    def test_while_the_advisor_can_not_be_asked(self, claimed_lab: Lab):
        claimed_lab.settings["q_advisor_delay"] = AN_HOUR
        claimed_lab.cloud.script("advisor", Reply(500))
        agent = claimed_lab.start_agent("--log_debug")
        agent.wait_for_line("Invalid http code '500' from server.")
        self.stop(agent, "exit sleep_for 3600 secs")

    @pytest.mark.parametrize(("period", "end"), [(0, "Exiting sleeping"), (3600, "exit sleep_for 3600 secs")])
    def test_while_it_waits_on_the_advisors_word(self, claimed_lab: Lab, period: int, end: str):
        claimed_lab.cloud.advise_wait(period)
        agent = claimed_lab.start_agent("--log_debug")
        agent.wait_for_line("command received from adviser.")
        self.stop(agent, end)

    def test_while_it_waits_to_reconnect(self, claimed_lab: Lab):
        claimed_lab.settings["q_qbroker_delay"] = AN_HOUR
        agent, session = connect(claimed_lab)
        session.close()
        agent.wait_for_line("Sleeping for 3600 secs.")
        self.stop(agent, "exit sleep_for 3600 secs")

    def test_while_it_connects_to_a_broker_that_accepts_nobody(self, claimed_lab: Lab):
        with ExitStack() as stack:
            full = stack.enter_context(socket.socket())
            full.bind(("127.0.0.1", 0))
            full.listen(0)
            port = full.getsockname()[1]
            fill_backlog(stack, port)
            claimed_lab.cloud.advise_connect("localhost", port, TOKEN)
            agent = claimed_lab.start_agent("--log_debug")
            agent.wait_for_line(f"qbroker_port={port}")
            wait_at_rest(agent)
            interrupted = "errno=4 - Interrupted system call."
            self.stop(
                agent,
                f"WARNING: Can't connect to server, {interrupted}",
                f"WARNING: Can't connect to 'localhost':{port}, {interrupted}",
                "keep_connection=0, success=1.",
            )

    def test_while_tls_waits_for_a_silent_broker(self, claimed_lab: Lab):
        claimed_lab.broker.plan("stall")
        agent = claimed_lab.start_agent("--log_debug")
        claimed_lab.broker.expect_connection()
        self.stop(agent, "WARNING: Could not connect to SSL server ", "keep_connection=0, success=1.")

    def test_while_heartbeats_run(self, claimed_lab: Lab):
        agent, session = connect(claimed_lab, "--agent_heartbeat", "1")
        session.expect(Type.HEARTBEAT)
        self.stop(agent, "keep_connection=0, success=1.")

    @pytest.mark.parametrize("state", ["asking", "waiting", "handshake", "connected"])
    def test_sigterm_ends_the_process_in_every_state(self, claimed_lab: Lab, state: str):
        if state == "asking":
            claimed_lab.cloud.script("advisor", Reply(stall=True))
        if state == "waiting":
            claimed_lab.cloud.advise_wait(3600)
        if state == "handshake":
            claimed_lab.broker.plan("stall")
        agent = claimed_lab.start_agent("--log_debug")
        claimed_lab.cloud.wait_for_request("advisor")
        if state == "waiting":
            agent.wait_for_line("Sleeping for 3600 secs.")
        if state == "handshake":
            claimed_lab.broker.expect_connection()
        if state == "connected":
            agent.wait_for_line("Reading packet header.")
        assert agent.stop() == 0
        assert not agent.pid_file.exists()
