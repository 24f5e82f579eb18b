"""What the agent's state looks like from outside: documents to its event sinks, settings, connectivity log."""

from __future__ import annotations

import json
import signal

from orvel_lab import Agent, Lab

EXTRA = "--enable_extra_parameters_for_dal"


def document(agent: Agent, event: int, registered: bool, claimed: bool, connected: bool, daemon: bool = False) -> bytes:
    flags = {"registered": registered, "claimed": claimed, "connected": connected}
    members = "".join(f',\n\t"{name}":\t{json.dumps(value)}' for name, value in flags.items())
    return f'{{\n\t"event":\t{event},\n\t"daemon":\t{json.dumps(daemon)},\n\t"pid":\t{agent.pid}{members}\n}}'.encode()


def connected_agent(lab: Lab, *options: str) -> Agent:
    agent = lab.start_agent("--log_debug", *options)
    session = lab.broker.expect_session()
    session.expect_identity()
    lab.event_sink.wait_for_document(event=4, connected=True)
    return agent


class TestDocuments:
    def test_a_devices_first_life_is_told_in_its_order(self, lab: Lab):
        lab.cloud.claim()
        agent = connected_agent(lab)
        assert lab.event_sink.messages.snapshot() == [
            document(agent, 0, False, False, False),
            document(agent, 2, True, False, False),
            document(agent, 3, True, True, False),
            document(agent, 4, True, True, True),
        ]

    def test_a_known_device_tells_only_what_changes(self, claimed_lab: Lab):
        agent = connected_agent(claimed_lab)
        agent.control.command("pause_connections")
        claimed_lab.event_sink.wait_for_count(3)
        assert claimed_lab.event_sink.messages.snapshot() == [
            document(agent, 0, True, True, False),
            document(agent, 4, True, True, True),
            document(agent, 4, True, True, False),
        ]

    def test_claim_and_release_are_told(self, make_lab):
        lab = make_lab(registered=True)
        agent = lab.start_agent("--log_debug")
        agent.wait_for_line("Connection to qCloud won't be established.")
        agent.control.command("pause_connections")  # the order of claimed and connected would be open
        agent.control.command("on_claim", service="s", claimed=False)
        agent.control.command("on_release", service="s", claimed=False)
        lab.event_sink.wait_for_count(3)
        assert lab.event_sink.messages.snapshot() == [
            document(agent, 0, True, False, False),
            document(agent, 3, True, True, False),
            document(agent, 3, True, False, False),
        ]

    def test_the_second_user_signal_asks_for_one(self, claimed_lab: Lab):
        agent = connected_agent(claimed_lab)
        claimed_lab.change_setting("q_agent_pid", "7")
        claimed_lab.change_setting("q_agent_connected", "0")
        agent.signal(signal.SIGUSR2)
        agent.wait_for_line("sig_usr2 handler.")
        agent.wait_for_line("connected")
        agent.wait_for_line("'{")
        agent.wait_for_line("orvel state was sent.")
        claimed_lab.event_sink.wait_for_document(event=1)
        assert claimed_lab.event_sink.messages.snapshot()[-1] == document(agent, 1, True, True, True)
        assert claimed_lab.setting("q_agent_pid") == str(agent.pid)
        assert claimed_lab.setting("q_agent_connected") == "1"

    def test_a_signal_that_comes_during_registration_is_answered_too(self, lab: Lab):
        agent = lab.start_agent("--log_debug", "--start_paused")
        agent.wait_for_line("Pause http request until we allow to do it")
        agent.signal(signal.SIGUSR2)
        lab.event_sink.wait_for_document(event=1, registered=False, connected=False)

    def test_without_a_sink_the_agent_goes_on_and_stores_all_the_same(self, lab: Lab):
        lab.event_sink.refuse()
        lab.cloud.claim()
        agent = lab.start_agent("--log_debug")
        lab.broker.expect_session()
        for key in ("q_agent_registered", "q_agent_claimed", "q_agent_connected"):
            lab.wait_for_setting(key, "1")
        agent.assert_not_logged("cannot send orvel state.")  # it was queued; the delivery failed later

    def test_without_an_endpoint_for_the_sink_it_goes_on_too(self, claimed_lab: Lab):
        del claimed_lab.settings["q_handler_event_sink"]
        claimed_lab.start_agent()
        claimed_lab.broker.expect_session()
        claimed_lab.wait_for_setting("q_agent_connected", "1")


class TestServices:
    def test_a_claim_is_told_to_the_services_own_handler(self, claimed_lab: Lab):
        sink = claimed_lab.tcp_handler("event_sink_meter")
        agent = connected_agent(claimed_lab)
        agent.control.command("on_claim", service="meter", claimed=False)
        assert sink.expect() == b'{\n\t"service":\t"meter",\n\t"claimed":\ttrue\n}'
        agent.wait_for_line("service notify was sended.")

    def test_a_release_is_told_to_it_too(self, claimed_lab: Lab):
        sink = claimed_lab.tcp_handler("event_sink_meter")
        agent = connected_agent(claimed_lab)
        agent.control.command("on_release", service="meter", claimed=True)
        assert sink.expect() == b'{\n\t"service":\t"meter",\n\t"claimed":\tfalse\n}'

    def test_a_service_without_a_handler_does_no_harm(self, claimed_lab: Lab):
        agent = connected_agent(claimed_lab)
        assert agent.control.command("on_claim", service="nobody", claimed=True) == 0
        agent.wait_for_line("service notify was sended.")

    def test_a_long_name_is_cut_in_the_name_of_its_handler(self, claimed_lab: Lab):
        service = "s" * 200
        sink = claimed_lab.tcp_handler("event_sink_" + "s" * 106)  # of 116, the key holds 106
        agent = connected_agent(claimed_lab)
        agent.control.command("on_claim", service=service, claimed=True)
        assert json.loads(sink.expect()) == {"service": service, "claimed": True}


class TestSettings:
    def extra(self, lab: Lab) -> list[str | None]:
        return [lab.setting(key) for key in ("Registered", "Claimed", "Connected")]

    def test_extra_parameters_are_written_when_asked_for(self, lab: Lab):
        lab.cloud.claim()
        lab.start_agent(EXTRA)
        for key in ("Registered", "Claimed", "Connected"):
            lab.wait_for_setting(key, "true")

    def test_extra_parameters_follow_every_change(self, claimed_lab: Lab):
        agent = connected_agent(claimed_lab, EXTRA)
        agent.control.command("pause_connections")
        claimed_lab.wait_for_setting("Connected", "false")
        agent.control.command("on_release", service="s", claimed=False)
        assert self.extra(claimed_lab) == ["true", "false", "false"]

    def test_extra_parameters_are_written_by_the_first_report_too(self, lab: Lab):
        agent = lab.start_agent(EXTRA, "--start_paused", "--log_debug")
        agent.wait_for_line("orvel_state_init...")
        assert self.extra(lab) == ["false", "false", "false"]

    def test_extra_parameters_are_never_written_otherwise(self, lab: Lab):
        lab.cloud.claim()
        agent = connected_agent(lab)
        agent.signal(signal.SIGUSR2)
        lab.event_sink.wait_for_document(event=1)
        assert agent.stop() == 0
        assert self.extra(lab) == [None, None, None]

    def test_a_lost_connection_changes_connected_alone(self, claimed_lab: Lab):
        agent = connected_agent(claimed_lab)
        claimed_lab.change_setting("q_agent_registered", "untouched")
        claimed_lab.change_setting("q_agent_claimed", "untouched")
        agent.control.command("pause_connections")
        claimed_lab.wait_for_setting("q_agent_connected", "0")
        assert claimed_lab.setting("q_agent_registered") == claimed_lab.setting("q_agent_claimed") == "untouched"

    def test_a_state_that_does_not_change_writes_nothing(self, claimed_lab: Lab):
        agent = connected_agent(claimed_lab)
        claimed_lab.change_setting("q_agent_claimed", "untouched")
        agent.control.command("on_claim", service="s", claimed=True)
        assert claimed_lab.setting("q_agent_claimed") == "untouched"
        agent.signal(signal.SIGUSR2)
        claimed_lab.event_sink.wait_for_document(event=1)
        assert [sent["event"] for sent in claimed_lab.event_sink.documents] == [0, 4, 1]
