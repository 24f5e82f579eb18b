"""Start-up and its end: the order of its steps, what stops it, and SIGTERM at every stage."""

from __future__ import annotations

import os
import re
import shlex
import signal
import socket
from collections.abc import Iterator
from pathlib import Path

import pytest
from orvel_lab import Agent, Lab, Reply, wait_until
from orvel_lab.agent import default_binary

VERSION = "release-3.5.9_bq917rkvn_2725daa_usi"
BUILD = "Components: Toolchain:mips-linux Platform:amd64/ubuntu:22.04 "
AN_HOUR = "3600"
LIFE = re.compile(r"^(?:State|voluntary_ctxt_switches):.*$", re.MULTILINE)
DISCOVERY_WITHOUT_SERVICE = [
    "If you want to use discovery, you need to provide service_id for discovery!",
    "Cannot create needed discovery data from settings. exiting.",
]


def lines_of(agent: Agent, *sources: str) -> list[str]:
    """What the log says for these sources, as "source tag text", in its order."""
    line = re.compile(r"^(\w+): \d+:\s+(\w+): (.*)$", re.MULTILINE)
    return [f"{source} {tag} {text}" for source, tag, text in line.findall(agent.log) if source in sources]


class TestOrder:
    def test_a_claimed_device_comes_up_step_by_step(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent("--log_debug")
        claimed_lab.broker.expect_session()
        agent.wait_for_line("qbroker thread started.")
        wait_for_waiting(agent)
        assert agent.stop() == 0
        claimed_url = claimed_lab.settings["q_claimed_url"] + "/v2"
        agent_id, claim_code = (claimed_lab.settings[key] for key in ("q_agent_id", "q_agent_claim_code"))
        expected = [
            "orvel INFO USI Profile Path: /etc/orvel/profile",
            "orvel INFO USI Config Path: /etc/orvel/usi.conf",
            f"orvel INFO Orvel version {VERSION} started.",
            "orvel INFO orvel locked the pid file.",
            "orvel DEBUG curl_global_init...",
            "orvel DEBUG curl_global_init completed.",
            "orvel DEBUG orvel_main...",
            "orvel DEBUG clear_thread_signal_mask...",
            "http_helper DEBUG curl_share_init...",
            "http_helper DEBUG curl_share_setopt...",
            "http_helper DEBUG curl_share_setopt...",
            "http_helper DEBUG curl_share_setopt...",
            "http_helper DEBUG curl_share_setopt...",
            "http_helper DEBUG init_shared_curl END",
            "orvel DEBUG init_shared_curl...",
            "orvel DEBUG SSL_load_error_strings...",
            "orvel DEBUG SSL_library_init...",
            "orvel DEBUG init_locks...",
            "orvel DEBUG init_thread_pool...",
            "logic ERROR disconnected",
            "logic DEBUG '{",
            "logic DEBUG orvel state was sent.",
            "orvel DEBUG orvel_state_init...",
            "logic DEBUG Use discovery mechanism for qCloud: 0.",
            f"logic DEBUG claimed_url='{claimed_url}'",
            "http_helper DEBUG Setup URL for CURL handle.",
            "http_helper DEBUG Performing CURL request.",
            "http_helper DEBUG CURL request was successfully performed.",
            "http_helper DEBUG Deleting CURL handle.",
            "logic DEBUG Claimed.!",
            f"logic INFO Device is claimed: id='{agent_id}', hardwareId='ABCDEFGH12345', claimCode='{claim_code}'.",
            "orvel DEBUG is_claimed='1'",
            "logic DEBUG Force connection to qCloud: 0.",
            "logic DEBUG Use discovery mechanism for qCloud: 0.",
        ]
        assert lines_of(agent, "orvel", "http_helper", "logic")[: len(expected)] == expected
        assert lines_of(agent, "orvel")[-3:] == [
            "orvel ERROR disconnected",  # an event of the connectivity log, with its tag
            "orvel DEBUG received sigterm",
            "orvel DEBUG Exit because sigterm was received.",
        ]

    def test_a_new_device_registers_between_listener_and_claim_check(self, lab: Lab):
        agent = lab.start_agent("--log_debug")
        agent.wait_for_line("orvel_state_init...")
        agent.wait_for_line("register_url='")
        agent.wait_for_line("created json registerPostData='{")
        agent.wait_for_line("Registered with: id='")
        agent.wait_for_line("Device is registered successfully: id='")
        agent.wait_for_line("claimed_url='")
        agent.wait_for_line("is_claimed='0'")
        assert lab.setting("q_agent_registered") == "1"

    def test_the_pause_of_a_paused_start_comes_before_registration(self, lab: Lab):
        agent = lab.start_agent("--log_debug", "--start_paused")
        agent.wait_for_line("orvel_state_init...")
        agent.wait_for_line("stoping qbroker thread.")
        agent.wait_for_line("Trying to stop stopped/uncreated qbroker thread.")
        agent.wait_for_line("qbroker thread stoped.")
        agent.wait_for_line("register_url='")
        agent.wait_for_line("Pause http request until we allow to do it")

    def test_the_control_port_answers_while_registration_is_refused(self, lab: Lab):
        lab.settings["q_register_aggressive_delay"] = AN_HOUR
        lab.cloud.script("register", Reply(500))
        agent = lab.start_agent("--log_debug")
        agent.wait_for_line("Sleeping for 3600 secs.")
        assert agent.control.command("pause_connections") == 0


class TestKeys:
    def test_version_build_and_pid_are_stored(self, claimed_lab: Lab):
        claimed_lab.settings.update({"q_agent_connected": "1", "q_agent_pid": "77", "q_version": "old"})
        agent = claimed_lab.start_agent()
        claimed_lab.wait_for_setting("q_agent_pid", str(agent.pid))
        claimed_lab.wait_for_setting("q_agent_connected", "1")
        assert claimed_lab.setting("q_version") == VERSION
        assert claimed_lab.setting("q_agent_build") == BUILD
        assert agent.stop() == 0
        assert (claimed_lab.setting("q_agent_connected"), claimed_lab.setting("q_agent_pid")) == ("0", "0")

    def test_pid_and_connected_are_cleared_before_the_settings_are_looked_at(self, lab: Lab):
        lab.settings = {"q_agent_connected": "1", "q_agent_pid": "77"}
        assert lab.start_agent().wait() == 0
        stored = {key: lab.setting(key) for key in ("q_agent_connected", "q_agent_pid", "q_version", "q_agent_build")}
        assert stored == {"q_agent_connected": "0", "q_agent_pid": "0", "q_version": VERSION, "q_agent_build": BUILD}


class TestRefusedStart:
    @pytest.mark.parametrize("key", ["q_register_url", "q_claimed_url", "q_discovery_url", "q_advisor_url"])
    def test_a_missing_address_ends_it_with_status_0(self, lab: Lab, key: str):
        del lab.settings[key]
        agent = lab.start_agent("--log_debug")
        assert agent.wait() == 0
        assert lines_of(agent, "orvel")[2:] == ["orvel WARNING Failed to read mandatory config settings."]
        assert not agent.pid_file.exists()

    def test_settings_of_garbage_end_it_with_status_0(self, lab: Lab):
        lab.settings_path.write_bytes(bytes(range(256)) * 10)
        agent = lab.start_agent("--log_debug")
        assert agent.wait() == 0
        agent.assert_logged("Failed to read mandatory config settings.")
        assert lab.settings_path.read_bytes() == bytes(range(256)) * 10

    @pytest.mark.parametrize("hardware_id", ["ABCDEFGH1234", "ABCDEFGH123456", "abcdefgh12345", "ABCDEFGH-1234", ""])
    def test_a_bad_hardware_id_ends_it_with_status_255_before_anything_is_stored(self, lab: Lab, hardware_id: str):
        agent = lab.start_agent("--log_debug", "--hardware_id", hardware_id)
        assert agent.wait() == 255
        assert lines_of(agent, "args", "orvel") == [
            f'args WARNING Specified hardware id "{hardware_id}" is not correct.',
            "orvel WARNING Cannot parse args/load needed variables from nvram.",
        ]
        assert "It should contain only upper latin letters and numbers and have 13 symbols" in agent.output
        assert lab.setting("q_version") is None

    def test_the_version_is_printed_before_anything_else(self, lab: Lab):
        agent = lab.start_agent("--version", "--hardware_id", "bad")
        assert agent.wait() == 0
        assert agent.output == f"Version {VERSION}\n"
        assert lab.setting("q_version") is None and not agent.pid_file.exists()

    def test_discovery_without_a_service_ends_it_with_status_1_and_no_pid_file(self, claimed_lab: Lab):
        claimed_lab.settings["q_use_discovery"] = "1"
        agent = claimed_lab.start_agent("--log_debug")
        assert agent.wait() == 1
        texts = [f"orvel WARNING {text}" for text in DISCOVERY_WITHOUT_SERVICE]
        assert lines_of(agent, "orvel")[-3:] == ["orvel DEBUG orvel_state_init...", *texts]
        agent.assert_logged("orvel locked the pid file.")
        assert not agent.pid_file.exists() and not claimed_lab.cloud.requests()

    def test_a_pid_file_that_can_not_be_made_ends_it_with_status_1(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent("--log_debug", "--pid_file", claimed_lab.folder / "absent" / "pid")
        assert agent.wait() == 1
        assert lines_of(agent, "orvel")[-1] == "orvel WARNING failed to lock the pid file."
        assert not claimed_lab.cloud.requests()

    def test_a_second_instance_ends_with_status_1_and_leaves_the_first_alone(self, claimed_lab: Lab):
        first = claimed_lab.start_agent()
        session = claimed_lab.broker.expect_session()
        second = claimed_lab.start_agent("--log_debug", "--pid_file", first.pid_file)
        assert second.wait() == 1
        second.assert_logged("Daemon is already running.", "failed to lock the pid file.")
        assert session.open and first.pid_file.read_text() == f"{first.pid}\n"


def start_short_of_descriptors(lab: Lab, limit: int) -> Agent:
    """An agent that may have this many descriptors open, the three standard ones included."""
    limited = lab.folder / "limited"
    limited.write_text(f'#!/bin/sh\nulimit -n {limit}\nexec {shlex.quote(str(default_binary()))} "$@"\n')
    limited.chmod(0o755)
    # The leak sanitizer needs descriptors of its own.
    environment = {"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + " detect_leaks=0"}
    return lab.start_agent("--log_debug", "--disable_log_file", binary=limited, environment=environment)


class TestShortOfDescriptors:
    def test_signals_that_can_not_be_handled_end_it_with_status_1(self, lab: Lab):
        agent = start_short_of_descriptors(lab, 4)
        assert agent.wait() == 1
        assert lines_of(agent, "orvel")[-1] == "orvel WARNING Failed to setup signal handers."
        assert not agent.pid_file.exists()

    def test_without_a_control_pipe_it_goes_on_and_sigterm_ends_it_at_once(self, claimed_lab: Lab):
        agent = start_short_of_descriptors(claimed_lab, 7)
        agent.wait_for_line("Cannot create pipe: errno 24.")
        agent.wait_for_line("claimed_url='")
        assert agent.stop() == 0
        assert lines_of(agent, "orvel")[-1] == "orvel DEBUG received sigterm"
        agent.assert_not_logged("control listener")
        assert agent.pid_file.read_text() == f"{agent.pid}\n"


class TestFiles:
    def test_links_are_shown_with_their_targets(self, lab: Lab):
        (lab.folder / "profile").write_text("")
        (lab.folder / "usi.conf").write_text("")
        (lab.folder / "profile-link").symlink_to("profile")
        (lab.folder / "usi-link").symlink_to(lab.folder / "usi.conf")
        options = ("--usi_profile", lab.folder / "profile-link", "--usi_conf", lab.folder / "usi-link")
        agent = lab.start_agent("--log_debug", *options)
        agent.wait_for_line("orvel locked the pid file.")
        assert lines_of(agent, "orvel")[:2] == [
            f"orvel INFO USI Profile Path: {lab.folder}/profile-link -> profile",
            f"orvel INFO USI Config Path: {lab.folder}/usi-link -> {lab.folder}/usi.conf",
        ]

    def test_a_dangling_link_is_shown_too_and_reads_as_empty(self, lab: Lab):
        (lab.folder / "link").symlink_to("nowhere")
        agent = lab.start_agent("--log_debug", "--usi_profile", lab.folder / "link")
        agent.wait_for_line(f"USI Profile Path: {lab.folder}/link -> nowhere")
        agent.wait_for_line("Device is registered successfully")

    def test_plain_files_and_absent_ones_are_shown_as_they_are(self, lab: Lab):
        (lab.folder / "profile").write_text("")
        options = ("--usi_profile", lab.folder / "profile", "--usi_conf", lab.folder / "absent")
        agent = lab.start_agent("--log_debug", *options)
        agent.wait_for_line("orvel locked the pid file.")
        assert lines_of(agent, "orvel")[:2] == [
            f"orvel INFO USI Profile Path: {lab.folder}/profile",
            f"orvel INFO USI Config Path: {lab.folder}/absent",
        ]

    def test_defaults_come_from_the_profile_behind_its_link(self, lab: Lab):
        address = lab.settings.pop("q_register_url")
        (lab.folder / "profile").write_text(f"q_register_url={address}\n")
        (lab.folder / "link").symlink_to("profile")
        agent = lab.start_agent("--log_debug", "--usi_profile", lab.folder / "link")
        agent.wait_for_line("Device is registered successfully")


def wait_for_waiting(agent: Agent) -> None:
    """Waits until all threads sleep and stay asleep: after the last step of start-up that is its end."""
    seen = [""]

    def at_rest() -> bool:
        tasks = Path(f"/proc/{agent.pid}/task").iterdir()
        seen.append("".join(line for task in tasks for line in LIFE.findall((task / "status").read_text())))
        return seen[-1] == seen[-2] and "State:\tR" not in seen[-1]

    wait_until(at_rest, "the end of start-up")


def stop_early(lab: Lab, agent: Agent) -> None:
    """SIGTERM ends it at once, and the pid file stays."""
    assert agent.stop() == 0
    assert lines_of(agent, "orvel")[-2:] == ["orvel ERROR disconnected", "orvel DEBUG received sigterm"]
    assert "received command from orvel thread to call exit()" in agent.log
    assert agent.pid_file.read_text() == f"{agent.pid}\n"
    assert (lab.setting("q_agent_connected"), lab.setting("q_agent_pid")) == ("0", "0")


def stop_late(lab: Lab, agent: Agent) -> None:
    """SIGTERM ends it in order: the pid file goes."""
    assert agent.stop() == 0
    assert lines_of(agent, "orvel")[-3:] == [
        "orvel ERROR disconnected",
        "orvel DEBUG received sigterm",
        "orvel DEBUG Exit because sigterm was received.",
    ]
    assert lines_of(agent, "control_listener")[-2:] == [
        "control_listener DEBUG received message in control listener pipe!",
        "control_listener DEBUG end control listener thread.",
    ]
    assert not agent.pid_file.exists()
    assert (lab.setting("q_agent_connected"), lab.setting("q_agent_pid")) == ("0", "0")


class TestSigterm:
    @pytest.fixture
    def stuck(self, lab: Lab) -> Lab:
        lab.settings.update({"q_register_aggressive_delay": AN_HOUR, "q_claim_delay": AN_HOUR})
        lab.settings.update({"q_http_request_timeout": AN_HOUR})
        return lab

    def test_while_the_pid_file_is_looked_at(self, claimed_lab: Lab):
        claimed_lab.cloud.script("claim", Reply(stall=True))  # start-up does not get to its end meanwhile
        pid_file = claimed_lab.folder / "fifo"
        os.mkfifo(pid_file)
        agent = claimed_lab.start_agent("--log_debug", "--pid_file", pid_file)
        agent.wait_for_line("opened ok")
        agent.signal(signal.SIGTERM)
        with pid_file.open("w") as fifo:  # opens once the agent reads from it, and names a process that is not there
            fifo.write("99999999\n")
        assert agent.wait() == 0
        agent.assert_logged("Remove not associated pid file.", "orvel locked the pid file.", "received sigterm")
        assert pid_file.read_text() == f"{agent.pid}\n"

    def test_in_the_delay_between_two_registrations(self, stuck: Lab):
        stuck.cloud.script("register", Reply(500))
        agent = stuck.start_agent("--log_debug")
        agent.wait_for_line("Sleeping for 3600 secs.")
        stop_early(stuck, agent)
        agent.assert_not_logged("exit sleep_for")  # the delay itself isn't ended by it

    def test_in_a_registration_that_stalls(self, stuck: Lab):
        stuck.cloud.script("register", Reply(stall=True))
        agent = stuck.start_agent("--log_debug")
        stuck.cloud.wait_for_request("register")
        stop_early(stuck, agent)

    def test_after_a_rejected_serial_number(self, stuck: Lab):
        stuck.cloud.script("register", Reply.wrong_serial_number())
        agent = stuck.start_agent("--log_debug")
        agent.wait_for_line("Sleeping forever.")
        stop_early(stuck, agent)

    def test_in_a_claim_check_that_stalls(self, stuck: Lab):
        stuck.cloud.script("claim", Reply(stall=True))
        agent = stuck.start_agent("--log_debug")
        stuck.cloud.wait_for_request("claim")
        stop_early(stuck, agent)

    def test_in_the_delay_between_two_claim_checks(self, stuck: Lab):
        stuck.cloud.script("claim", Reply(500))
        agent = stuck.start_agent("--log_debug")
        agent.wait_for_line("Failed to get claim status. Sleeping for 3600 secs.")
        stop_early(stuck, agent)

    def test_in_a_paused_start(self, stuck: Lab):
        agent = stuck.start_agent("--log_debug", "--start_paused")
        agent.wait_for_line("Pause http request until we allow to do it")
        stop_early(stuck, agent)

    def test_in_a_first_discovery_that_stalls(self, make_lab):
        lab = make_lab(registered=True, settings={"q_use_discovery": "1"})
        lab.cloud.advise_wait(3600)  # a session that came up just now would record itself as connected
        lab.cloud.script("discovery", Reply(stall=True))
        agent = lab.start_agent("--log_debug", "--service_id", "demo")
        lab.cloud.wait_for_request("discovery")
        stop_early(lab, agent)

    def test_while_an_unclaimed_device_waits(self, make_lab):
        lab = make_lab(registered=True)
        agent = lab.start_agent("--log_debug")
        agent.wait_for_line("Connection to qCloud won't be established.")
        wait_for_waiting(agent)
        stop_late(lab, agent)

    def test_while_connected(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent("--log_debug")
        claimed_lab.broker.expect_session()
        claimed_lab.wait_for_setting("q_agent_connected", "1")
        wait_for_waiting(agent)
        stop_late(claimed_lab, agent)

    def test_while_the_advisor_stalls(self, claimed_lab: Lab):
        claimed_lab.cloud.script("advisor", Reply(stall=True))
        agent = claimed_lab.start_agent("--log_debug")
        claimed_lab.cloud.wait_for_request("advisor")
        agent.wait_for_line("qbroker thread started.", anywhere=True)
        wait_for_waiting(agent)
        stop_late(claimed_lab, agent)

    def test_in_a_discovery_period(self, make_lab):
        lab = make_lab(registered=True, settings={"q_use_discovery": "1"})
        agent = lab.start_agent("--log_debug", "--service_id", "demo", "--discovery_time", AN_HOUR)
        agent.wait_for_line("discovery pushed.")
        lab.wait_for_setting("q_agent_connected", "1")
        wait_for_waiting(agent)
        stop_late(lab, agent)

    def test_after_a_pause(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent("--log_debug")
        claimed_lab.broker.expect_session()
        agent.control.command("pause_connections")
        wait_for_waiting(agent)
        stop_late(claimed_lab, agent)

    def test_it_is_an_event_of_the_connectivity_log(self, claimed_lab: Lab):
        log = claimed_lab.folder / "connectivity"
        agent = claimed_lab.start_agent("--connectivity_log_file", log)
        claimed_lab.broker.expect_session()
        claimed_lab.wait_for_setting("q_agent_connected", "1")
        assert agent.stop() == 0
        assert log.read_text().splitlines()[-1].endswith("disconnected")

    def test_the_pid_file_that_stays_does_not_hinder_the_next_start(self, lab: Lab):
        first = lab.start_agent("--start_paused", "--log_debug")
        first.wait_for_line("Pause http request")
        assert first.stop() == 0
        second = lab.start_agent("--log_debug", "--pid_file", first.pid_file)
        second.wait_for_line("Remove not associated pid file.")
        second.wait_for_line("orvel locked the pid file.")
        assert first.pid_file.read_text() == f"{second.pid}\n"


@pytest.fixture
def taken_port() -> Iterator[int]:
    """A port that somebody else listens on and doesn't share."""
    with socket.create_server(("127.0.0.1", 0), reuse_port=False) as server:
        yield server.getsockname()[1]


class TestWithoutListener:
    def test_it_sleeps_and_sigterm_is_only_noted(self, claimed_lab: Lab, taken_port: int):
        agent = claimed_lab.start_agent("--log_debug", "--control_port", str(taken_port))
        session = claimed_lab.broker.expect_session()
        agent.wait_for_line("bind(). errno: 98.", anywhere=True)
        agent.wait_for_line("sleeping forever.")
        agent.signal(signal.SIGTERM)
        agent.wait_for_line("received sigterm")
        agent.signal(signal.SIGUSR2)
        agent.wait_for_line("sig_usr2 handler.")
        assert agent.running and session.open
        agent.kill()
