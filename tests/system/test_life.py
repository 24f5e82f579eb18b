"""A device's life: found, claimed, released, paused; and when its agent holds a broker session."""

from __future__ import annotations

import json
import os
import signal

import pytest
from orvel_lab import Agent, Lab, Reply, Session, wait_until

SERVICE = "demo"
AN_HOUR = "3600"
NEVER = 100_000  # seconds
PAUSED = -10

# An ended discovery thread is joined by the next push. When none comes, the thread sanitizer would call it a leak.
ENVIRONMENT = {"TSAN_OPTIONS": os.environ.get("TSAN_OPTIONS", "") + " report_thread_leaks=0"}


def start(lab: Lab, *options: str) -> Agent:
    """An agent that announces itself for a service where discovery is on."""
    return lab.start_agent("--log_debug", "--service_id", SERVICE, *options, environment=ENVIRONMENT)


def start_connected(lab: Lab, *options: str) -> tuple[Agent, Session]:
    agent = start(lab, *options)
    session = lab.broker.expect_session()
    lab.wait_for_setting("q_agent_connected", "1")
    return agent, session


def wake_until_logged(agent: Agent, text: str) -> None:
    """Ends the agent's sleeps until it has said this: a signal that comes just before a sleep is lost."""

    def logged() -> bool:
        agent.signal(signal.SIGUSR1)
        return agent.count(text) > 0

    wait_until(logged, text)


def end_discovery_sleep(agent: Agent, line: str) -> None:
    wake_until_logged(agent, line)
    agent.wait_for_line(line)


@pytest.fixture
def unclaimed(make_lab) -> Lab:
    """A registered device that waits to be found."""
    return make_lab(registered=True, settings={"q_use_discovery": "1", "q_claim_check": AN_HOUR})


class TestDiscoveredDevice:
    def test_its_whole_life(self, make_lab):
        lab = make_lab(registered=True, tls=False, settings={"q_use_discovery": "1"})
        agent = start(lab, "--discovery_time", "3")  # time enough for a first session

        first = lab.broker.expect_session()
        request = lab.cloud.wait_for_request("discovery")
        assert request.query == {"i": lab.hardware_id, "e": "3", "s": SERVICE}
        agent.wait_for_line("pushing discovery.")
        agent.wait_for_line("Discover OK!.")
        agent.wait_for_line("Setting new discovery time.")
        agent.wait_for_line("discovery pushed.")
        agent.wait_for_line("Sleep in discovery thread for ", anywhere=True)

        agent.wait_for_line("Device is not claimed.", anywhere=True)
        agent.wait_for_line("stoping qbroker thread.")
        agent.wait_for_line("discovery thread ended.")
        first.wait_ended()
        lab.wait_for_setting("q_agent_connected", "0")
        assert lab.setting("q_agent_claimed") in (None, "0")

        assert agent.control.command("send_discovery", service="other", discovery_time=NEVER) == 0
        second = lab.broker.expect_session()
        assert lab.cloud.wait_for_request("discovery", count=2).query["s"] == "other"
        agent.wait_for_line("pushing discovery.")
        agent.wait_for_line("before join discovery thread.")
        agent.wait_for_line("after  join discovery thread.")
        agent.wait_for_line("Setting new discovery time.")

        lab.cloud.claim()
        end_discovery_sleep(agent, "Device is claimed: id=")
        agent.wait_for_line("discovery thread ended.")
        lab.wait_for_setting("q_agent_claimed", "1")
        assert second.open and agent.count("stoping qbroker thread.") == 1

    def test_a_claim_that_a_program_reports_keeps_the_session_beyond_the_period(self, unclaimed: Lab):
        agent, session = start_connected(unclaimed, "--discovery_time", str(NEVER))
        unclaimed.cloud.claim()
        assert agent.control.command("on_claim", service=SERVICE, claimed=True) == 0
        unclaimed.wait_for_setting("q_agent_claimed", "1")
        end_discovery_sleep(agent, "discovery thread ended.")
        assert session.open
        agent.assert_not_logged("stoping qbroker thread.")

    def test_a_period_that_ends_unclaimed_leaves_a_forced_session_alone(self, unclaimed: Lab):
        unclaimed.settings["q_force_connection"] = "1"
        agent, session = start_connected(unclaimed, "--discovery_time", "1")
        agent.wait_for_line("discovery thread ended.")
        assert session.open
        agent.assert_not_logged("stoping qbroker thread.")


DECISIONS = [
    # force, discovery, claimed; session, push
    ("1", "1", False, True, True),
    ("1", "1", True, True, False),
    ("1", "0", False, True, False),
    ("1", "0", True, True, False),
    ("0", "0", True, True, False),
    ("0", "0", False, False, False),
    ("0", "1", False, True, True),
    ("0", "1", True, True, False),
    ("2", "0", False, False, False),  # only 1 forces
    ("0", "2", False, True, True),  # everything but 0 is on...
    ("1", "2", False, True, False),  # ... but for a forced connection
]


@pytest.mark.parametrize(("force", "discovery", "claimed", "session", "push"), DECISIONS)
def test_who_gets_a_session_and_who_is_announced(make_lab, force, discovery, claimed, session, push):
    settings = {"q_force_connection": force, "q_use_discovery": discovery}
    lab = make_lab(registered=True, claimed=claimed, settings=settings)
    agent = start(lab)
    agent.wait_for_line(f"is_claimed='{int(claimed)}'")
    agent.wait_for_line(f"Force connection to qCloud: {force}.")
    agent.wait_for_line(f"Use discovery mechanism for qCloud: {discovery}.")
    if session:
        lab.broker.expect_session().expect_identity()
    else:
        agent.wait_for_line("Device is not claimed. Connection to qCloud won't be established.")
    if push:
        agent.wait_for_line("discovery pushed.")
    assert agent.stop() == 0
    assert agent.count("Establishing connection with qCloud forcibly.") == (force == "1")
    assert agent.count("pushing discovery.") == len(lab.cloud.requests("discovery")) == push
    assert bool(lab.cloud.requests("advisor")) == session


class TestRelease:
    """`on_release` with `claimed` false means released; with true it only makes sure of the session."""

    def released(self, lab: Lab, agent: Agent, claimed: bool, expected: int = 0) -> None:
        assert agent.control.command("on_release", service="meter", claimed=claimed) == expected
        agent.wait_for_line(f"On release! Claimed? {int(claimed)}, service id is meter")

    def told(self, lab: Lab) -> dict:
        return json.loads(lab.handlers["event_sink_meter"].expect())

    @pytest.fixture
    def claimed(self, claimed_lab: Lab) -> Lab:
        claimed_lab.tcp_handler("event_sink_meter")
        return claimed_lab

    def test_with_discovery_it_pushes_and_keeps_the_session(self, claimed: Lab):
        claimed.settings["q_use_discovery"] = "1"
        agent, session = start_connected(claimed)
        claimed.cloud.release()
        self.released(claimed, agent, False)
        assert claimed.cloud.wait_for_request("discovery").query == {"i": claimed.hardware_id, "s": "meter"}
        assert self.told(claimed) == {"service": "meter", "claimed": False}
        assert claimed.setting("q_agent_claimed") == "0"
        assert session.open

    def test_with_discovery_a_stopped_session_is_started_even_if_the_push_fails(self, unclaimed: Lab):
        agent = start(unclaimed, "--discovery_time", "1")
        agent.wait_for_line("discovery thread ended.")
        unclaimed.cloud.script("discovery", Reply(500))
        self.released(unclaimed, agent, False)
        agent.wait_for_count("starting qbroker thread.", 2)
        agent.wait_for_line("Failed to send discovery.", anywhere=True)
        assert agent.count("discovery thread ended.") == 1

    def test_with_discovery_it_is_refused_while_paused(self, claimed: Lab):
        claimed.settings["q_use_discovery"] = "1"
        agent, _ = start_connected(claimed)
        agent.control.command("pause_connections")
        self.released(claimed, agent, False, expected=PAUSED)
        agent.wait_for_line("Send discovery to server would block.")
        assert claimed.setting("q_agent_claimed") == "1"
        assert not claimed.handlers["event_sink_meter"].messages.snapshot()

    def test_without_discovery_the_session_is_stopped(self, claimed: Lab):
        agent, session = start_connected(claimed)
        self.released(claimed, agent, False)
        agent.wait_for_line("qbroker thread stoped.", anywhere=True)
        session.wait_ended()
        assert self.told(claimed) == {"service": "meter", "claimed": False}
        assert (claimed.setting("q_agent_claimed"), claimed.setting("q_agent_connected")) == ("0", "0")
        assert not claimed.cloud.requests("discovery")

    def test_without_discovery_a_forced_session_stays(self, claimed: Lab):
        claimed.settings["q_force_connection"] = "1"
        agent, session = start_connected(claimed)
        self.released(claimed, agent, False)
        assert self.told(claimed)["claimed"] is False
        assert claimed.setting("q_agent_claimed") == "0"
        assert session.open

    def test_without_discovery_and_session_it_is_only_recorded(self, claimed: Lab):
        agent, _ = start_connected(claimed)
        agent.control.command("pause_connections")
        self.released(claimed, agent, False)
        assert self.told(claimed)["claimed"] is False
        assert claimed.setting("q_agent_claimed") == "0"
        assert agent.count("stoping qbroker thread.") == 1  # the pause's

    def test_still_claimed_starts_a_stopped_session(self, claimed: Lab):
        agent, session = start_connected(claimed)
        self.released(claimed, agent, False)
        session.wait_ended()
        self.released(claimed, agent, True)
        claimed.broker.expect_session()
        assert [self.told(claimed)["claimed"] for _ in range(2)] == [False, False]
        assert claimed.setting("q_agent_claimed") == "1"

    def test_still_claimed_changes_nothing_while_the_session_runs(self, claimed: Lab):
        claimed.settings["q_force_connection"] = "1"
        agent, session = start_connected(claimed)
        self.released(claimed, agent, False)
        self.released(claimed, agent, True)
        assert [self.told(claimed)["claimed"] for _ in range(2)] == [False, False]
        assert claimed.setting("q_agent_claimed") == "0"
        assert session.open


class TestPauseAndResume:
    def test_discovery_is_refused_until_the_resume_whose_carrier_the_advisor_gets(self, unclaimed: Lab):
        lab = unclaimed
        agent, session = start_connected(lab, "--carrier_id", "first", "--discovery_time", str(NEVER))
        assert lab.cloud.wait_for_request("advisor").header("X-Carrier-ID") == "first"
        assert agent.control.command("pause_connections") == 0
        session.wait_ended()
        lab.wait_for_setting("q_agent_connected", "0")
        pushed = len(lab.cloud.requests("discovery"))
        assert agent.control.command("send_discovery", service=SERVICE, carrier_id="lost") == PAUSED
        assert len(lab.cloud.requests("discovery")) == pushed

        assert agent.control.command("resume_connections", carrier_id="second") == 0
        lab.broker.expect_session()
        assert lab.cloud.wait_for_request("advisor", count=2).header("X-Carrier-ID") == "second"
        agent.wait_for_line("appending additional header X-Carrier-ID: second.", anywhere=True)
        assert agent.control.command("send_discovery", service=SERVICE, discovery_time=1) == 0

    def test_a_resume_without_a_carrier_keeps_the_old_one(self, claimed_lab: Lab):
        agent, _ = start_connected(claimed_lab, "--carrier_id", "first")
        agent.control.command("pause_connections")
        agent.control.command("resume_connections")
        assert claimed_lab.cloud.wait_for_request("advisor", count=2).header("X-Carrier-ID") == "first"

    def test_discovery_replaces_the_carrier_too(self, unclaimed: Lab):
        agent, _ = start_connected(unclaimed, "--carrier_id", "first", "--discovery_time", str(NEVER))
        assert agent.control.command("send_discovery", service=SERVICE, carrier_id="third") == 0
        agent.control.command("pause_connections")
        agent.control.command("resume_connections")
        assert unclaimed.cloud.wait_for_request("advisor", count=2).header("X-Carrier-ID") == "third"

    def test_an_unclaimed_device_without_discovery_gets_no_session_from_a_resume(self, make_lab):
        lab = make_lab(registered=True)
        agent = start(lab)
        agent.wait_for_line("Connection to qCloud won't be established.")
        agent.control.command("pause_connections")
        agent.control.command("resume_connections")
        assert agent.stop() == 0
        assert not lab.cloud.requests("advisor")


class TestStartPaused:
    def start_paused(self, lab: Lab) -> Agent:
        agent = start(lab, "--start_paused")
        agent.wait_for_line("Trying to stop stopped/uncreated qbroker thread.")
        agent.wait_for_line("Pause http request until we allow to do it")
        return agent

    def test_a_new_device_registers_after_the_resume(self, lab: Lab):
        lab.cloud.claim()
        agent = self.start_paused(lab)
        assert not lab.cloud.requests()
        assert agent.control.command("resume_connections") == 0
        lab.broker.expect_session()
        asked = [request.kind for request in lab.cloud.requests()]
        assert asked == ["register", "claim", "advisor"]

    def test_a_known_device_asks_for_its_claim_after_the_resume(self, claimed_lab: Lab):
        agent = self.start_paused(claimed_lab)
        assert not claimed_lab.cloud.requests()
        assert agent.control.command("resume_connections") == 0
        claimed_lab.broker.expect_session()
        agent.wait_for_line("is_claimed='1'", anywhere=True)
        assert {request.kind for request in claimed_lab.cloud.requests()} == {"claim", "advisor"}

    def test_a_new_device_without_an_id_has_nothing_to_announce(self, lab: Lab):
        lab.settings["q_use_discovery"] = "1"
        agent = self.start_paused(lab)
        assert agent.control.command("send_discovery", service=SERVICE) == -1

    def test_a_known_device_may_not_announce_itself(self, unclaimed: Lab):
        agent = self.start_paused(unclaimed)
        assert agent.control.command("send_discovery", service=SERVICE) == PAUSED

    def test_a_user_signal_does_not_end_the_pause(self, claimed_lab: Lab):
        agent = self.start_paused(claimed_lab)
        agent.signal(signal.SIGUSR1)
        agent.signal(signal.SIGUSR2)
        agent.wait_for_line("sig_usr2 handler.")
        assert agent.stop() == 0
        assert not claimed_lab.cloud.requests()
