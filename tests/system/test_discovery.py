"""Announcing the device: what is sent, how long a period lasts, and what the local programs are told."""

from __future__ import annotations

import os
import re
import signal

import pytest
from orvel_lab import Agent, Lab, Reply, wait_until

NEVER = "100000"  # seconds
SLEEP = re.compile(r"Sleep in discovery thread for (\d+) seconds\.$")

# An ended discovery thread is joined by the next push. When none comes, the thread sanitizer would call it a leak.
ENVIRONMENT = {"TSAN_OPTIONS": os.environ.get("TSAN_OPTIONS", "") + " report_thread_leaks=0"}

BAD_STATUS, TIMED_OUT, UNRESOLVED, UNCONNECTED, FAILED = -5, -4, -7, -8, 1


@pytest.fixture
def unclaimed(make_lab) -> Lab:
    return make_lab(registered=True, settings={"q_use_discovery": "1"})


def start(lab: Lab, *options: str) -> Agent:
    """An agent that has been through its first push."""
    agent = lab.start_agent("--log_debug", "--service_id", "demo", *options, environment=ENVIRONMENT)
    agent.wait_for_line("pushing discovery.")
    agent.wait_for_line(re.compile(r"discovery pushed\.|Failed to send discovery\."))
    return agent


def sleeps(agent: Agent, count: int) -> list[int]:
    lines = agent.wait_for_count(SLEEP, count)
    return [int(SLEEP.search(line.text)[1]) for line in lines]


class TestRequest:
    def test_it_names_the_device_in_its_document_and_the_service_in_its_address(self, unclaimed: Lab):
        start(unclaimed, "--discovery_time", "77", "--model_id", "M")
        request = unclaimed.cloud.wait_for_request("discovery")
        assert request.target == f"/discovery/v3/?i={unclaimed.hardware_id}&e=77&s=demo"
        device = unclaimed.settings["q_agent_id"]
        assert request.body.decode() == (
            f'{{\n\t"_type":\t"Device",\n\t"_id":\t"{device}",\n\t"hardwareId":\t"{unclaimed.hardware_id}",'
            '\n\t"model":\t"M"\n}'
        )
        assert request.header("Content-Type") == "application/json"
        assert request.header("Authorization") == f"{device}:{unclaimed.settings['q_agent_claim_code']}"

    def test_its_id_and_data_come_from_the_command_line(self, unclaimed: Lab):
        start(unclaimed, "--discovery_id", "other", "--discovery_data", "a \"b\"", "--discovery_time", "77")
        request = unclaimed.cloud.wait_for_request("discovery")
        assert request.query["i"] == "other"
        assert request.json["discoveryData"] == 'a "b"'
        assert list(request.json) == ["_type", "_id", "hardwareId", "model", "discoveryData"]

    def test_its_time_is_the_discovery_delay_unless_given(self, unclaimed: Lab):
        unclaimed.settings["q_discovery_delay"] = "55"
        start(unclaimed)
        assert unclaimed.cloud.wait_for_request("discovery").query["e"] == "55"

    def test_its_time_is_60_when_nothing_is_said(self, unclaimed: Lab):
        start(unclaimed)
        assert unclaimed.cloud.wait_for_request("discovery").query["e"] == "60"

    def test_a_time_of_0_leaves_it_out_and_the_claim_check_decides(self, unclaimed: Lab):
        unclaimed.settings.update({"q_discovery_delay": "0", "q_claim_check": NEVER})
        agent = start(unclaimed)
        request = unclaimed.cloud.wait_for_request("discovery")
        assert request.target == f"/discovery/v3/?i={unclaimed.hardware_id}&s=demo"
        assert sleeps(agent, 1)[0] in range(int(NEVER) - 60, int(NEVER) + 1)

    def test_the_claim_check_is_an_hour_unless_set(self, unclaimed: Lab):
        unclaimed.settings["q_discovery_delay"] = "0"
        assert sleeps(start(unclaimed), 1)[0] in range(3540, 3601)

    def test_without_a_service_nothing_is_announced_when_discovery_is_switched_on_during_start_up(self, make_lab):
        lab = make_lab(registered=True, settings={"q_use_discovery": "0"})
        late = Reply(503, stall=True)
        lab.cloud.script("claim", late)
        agent = lab.start_agent("--log_debug", environment=ENVIRONMENT)
        lab.cloud.wait_for_request("claim")
        lab.change_setting("q_use_discovery", "1")
        late.release()
        agent.wait_for_line("pushing discovery.")
        agent.wait_for_line("WARNING: If you want to make discovery request, please provide service id")
        lab.broker.expect_session()
        assert agent.stop() == 0
        assert not lab.cloud.requests("discovery")

    def test_a_program_may_give_all_of_it(self, unclaimed: Lab):
        agent = start(unclaimed)
        members = {"service": "S", "id": "I", "discovery_time": 9, "discovery_data": ""}
        assert agent.control.command("send_discovery", **members) == 0
        request = unclaimed.cloud.wait_for_request("discovery", count=2)
        assert request.query == {"i": "I", "e": "9", "s": "S"}
        assert request.json["discoveryData"] == ""


class TestPeriod:
    def test_the_later_deadline_counts(self, unclaimed: Lab):
        agent = start(unclaimed, "--discovery_time", "600")
        assert agent.control.command("send_discovery", service="s", discovery_time=60) == 0
        sleeps(agent, 1)
        wake_until_count(agent, SLEEP, 2)
        assert sleeps(agent, 2)[1] in range(480, 601)
        assert agent.count("Setting new discovery time.") == 1

    def test_it_is_prolonged_and_seen_after_the_next_wake_up(self, unclaimed: Lab):
        agent = start(unclaimed, "--discovery_time", "600")
        sleeps(agent, 1)
        assert agent.control.command("send_discovery", service="s", discovery_time=9000) == 0
        agent.wait_for_count("Setting new discovery time.", 2)
        wake_until_count(agent, SLEEP, 2)
        assert sleeps(agent, 2)[1] in range(8880, 9001)
        assert agent.count("before join discovery thread.") == 0

    def test_its_session_runs_already_at_start_up(self, unclaimed: Lab):
        agent = start(unclaimed)
        agent.assert_logged("qbroker thread already started.")  # said before the push was over
        unclaimed.broker.expect_session()

    def test_a_failed_claim_check_at_its_end_is_repeated(self, unclaimed: Lab):
        agent = start(unclaimed, "--discovery_time", "1")
        unclaimed.cloud.script("claim", Reply(500))  # the first check is over
        agent.wait_for_line("Failed to get claim status. Sleeping for 1 secs.", anywhere=True)
        agent.wait_for_line("discovery thread ended.", anywhere=True)

    def test_an_ended_thread_is_joined_before_the_next_period_even_if_the_push_fails(self, unclaimed: Lab):
        agent = start(unclaimed, "--discovery_time", "1")
        agent.wait_for_line("discovery thread ended.", anywhere=True)
        unclaimed.cloud.script("discovery", Reply(500))
        assert agent.control.command("send_discovery", service="s") == BAD_STATUS
        agent.wait_for_line("Invalid http code '500' from server.")
        agent.wait_for_line("before join discovery thread.")
        agent.wait_for_line("after  join discovery thread.")
        agent.wait_for_line("Failed to send discovery.")
        assert agent.control.command("send_discovery", service="s", discovery_time=600) == 0
        agent.wait_for_line("discovery pushed.")
        assert agent.count("before join discovery thread.") == 1
        unclaimed.broker.expect_session()

    def test_a_failed_push_opens_none_and_the_session_of_start_up_stays(self, unclaimed: Lab):
        unclaimed.cloud.script("discovery", Reply(500))
        agent = start(unclaimed, "--discovery_time", "1")
        session = unclaimed.broker.expect_session()
        session.expect_identity()
        agent.assert_logged("Failed to send discovery.")
        agent.assert_not_logged("Setting new discovery time.", "Sleep in discovery thread")
        assert session.open

    def test_a_failed_push_leaves_an_open_one_as_it_is(self, unclaimed: Lab):
        agent = start(unclaimed, "--discovery_time", "600")
        sleeps(agent, 1)
        unclaimed.cloud.script("discovery", Reply(500))
        assert agent.control.command("send_discovery", service="s", discovery_time=9000) == BAD_STATUS
        wake_until_count(agent, SLEEP, 2)
        assert sleeps(agent, 2)[1] in range(480, 601)

    def test_a_resume_inside_it_starts_the_session_again(self, unclaimed: Lab):
        agent = start(unclaimed, "--discovery_time", NEVER)
        unclaimed.broker.expect_session()
        agent.control.command("pause_connections")
        agent.control.command("resume_connections")
        unclaimed.broker.expect_session()

    def test_a_resume_after_it_starts_none(self, unclaimed: Lab):
        agent = start(unclaimed, "--discovery_time", "1")
        agent.wait_for_line("discovery thread ended.", anywhere=True)
        agent.control.command("pause_connections")
        agent.control.command("resume_connections")
        assert agent.stop() == 0
        assert agent.count("starting qbroker thread.") == 1


def wake_until_count(agent: Agent, pattern: re.Pattern[str], count: int) -> None:
    """Ends the sleeps of the discovery thread; a signal that comes just before a sleep is lost."""

    def reached() -> bool:
        agent.signal(signal.SIGUSR1)
        return agent.count(pattern) >= count

    wait_until(reached, f"{count} times {pattern.pattern}")


class TestResults:
    """What the control port answers to send_discovery is what the push gave."""

    def push(self, lab: Lab, **more: object) -> int:
        return start(lab, "--discovery_time", NEVER).control.command("send_discovery", service="s", **more)

    @pytest.mark.parametrize("status", [201, 204, 404, 500])
    def test_every_status_but_200_is_minus_5(self, unclaimed: Lab, status: int):
        unclaimed.cloud.script("discovery", Reply(), Reply.error(status, 1, "m"))
        assert self.push(unclaimed) == BAD_STATUS

    def test_a_server_that_stalls_is_minus_4(self, unclaimed: Lab):
        unclaimed.settings["q_http_request_timeout"] = "2"
        unclaimed.cloud.script("discovery", Reply(), Reply(stall=True))
        assert self.push(unclaimed) == TIMED_OUT
        unclaimed.agents[0].wait_for_line("Can't' make discovery request.")

    def test_a_name_that_nobody_knows_is_minus_7(self, unclaimed: Lab):
        unclaimed.settings["q_discovery_url"] = f"https://{'x' * 64}.example/discovery"
        assert self.push(unclaimed) == UNRESOLVED

    def test_a_server_that_is_not_there_is_minus_8(self, unclaimed: Lab):
        unclaimed.settings["q_discovery_url"] = f"https://127.0.0.1:{unclaimed.reserve_port()}/discovery"
        assert self.push(unclaimed) == UNCONNECTED

    @pytest.mark.parametrize("broken", [Reply(raw=b"garbage\r\n\r\n", end="close"), Reply(cut=0, end="reset")])
    def test_everything_else_is_1(self, unclaimed: Lab, broken: Reply):
        unclaimed.cloud.script("discovery", Reply(), broken)
        assert self.push(unclaimed) == FAILED

    def test_an_answer_of_any_kind_with_status_200_is_0(self, unclaimed: Lab):
        unclaimed.cloud.script("discovery", Reply(), Reply(200, "<html>"))
        assert self.push(unclaimed) == 0
        unclaimed.agents[0].wait_for_line("Discover OK!.")

    def test_discovery_that_is_switched_off_is_0_too(self, make_lab):
        lab = make_lab(registered=True)
        agent = lab.start_agent("--log_debug")
        agent.wait_for_line("Connection to qCloud won't be established.")
        assert agent.control.command("send_discovery", service="s") == 0
        agent.wait_for_line("Discovery is disabled.")
        assert not lab.cloud.requests("discovery")
