"""orvelctl status: what is known of the agent from outside."""

from __future__ import annotations

import gzip
import json
import os
import signal
from pathlib import Path

import pytest
from orvel_lab import Agent, Lab
from orvelctl_runner import Ctl

NOT_RUNNING, FILE = 3, 74
NOBODY = {"running": False, "pid": None}


def connect(lab: Lab, *options: str | Path) -> Agent:
    agent = lab.start_agent(*options)
    lab.broker.expect_session()
    lab.event_sink.wait_for_document(event=4, connected=True)
    lab.wait_for_setting("q_agent_connected", "1")
    return agent


def status(ctl: Ctl, expected_status: int = 0) -> dict[str, object]:
    result = ctl.run("status", "--json")
    assert (result.returncode, result.stderr) == (expected_status, "")
    return json.loads(result.stdout)


class TestRunning:
    def test_everything_is_told_of_a_connected_agent(self, claimed_lab: Lab):
        log = claimed_lab.folder / "connectivity.log"
        agent = connect(claimed_lab, "--connectivity_log_file", log)
        first = next(line for line in log.read_text().splitlines() if line.endswith(" S: connected"))
        agent.signal(signal.SIGUSR2)  # the report repeats the state in the log
        claimed_lab.event_sink.wait_for_document(event=1)
        version = claimed_lab.setting("q_version")
        assert status(Ctl(claimed_lab, agent, "--connectivity-log", log)) == {
            "running": True, "pid": agent.pid, "version": version,
            "registered": True, "claimed": True, "connected": True, "since": first[:19],
        }  # fmt: skip
        assert Ctl(claimed_lab, agent, "--connectivity_log_file", log).run("status").stdout == (
            f"agent:       running, pid {agent.pid}\nversion:     {version}\n"
            f"registered:  yes\nclaimed:     yes\nconnected:   yes since {first[:19]}\n"
        )

    def test_an_unclaimed_device_is_not_connected(self, make_lab):
        lab = make_lab(registered=True)
        agent = lab.start_agent("--log_info")
        agent.wait_for_line("Connection to qCloud won't be established.")
        told = status(Ctl(lab, agent))
        assert (told["registered"], told["claimed"], told["connected"], told["since"]) == (True, False, False, None)

    def test_the_agent_under_a_watchdog_is_the_one_that_counts(self, claimed_lab: Lab):
        agent = connect(claimed_lab, "--watchdog")
        told = status(Ctl(claimed_lab, agent))
        assert told["running"] and told["pid"] == int(agent.pid_file.read_text()) != agent.pid


class TestNotRunning:
    def test_before_the_first_start(self, lab: Lab):
        told = status(Ctl(lab), NOT_RUNNING)
        assert told == {**NOBODY, "version": None, "registered": False, "claimed": False, "connected": False, "since": None}

    def test_after_a_kill_it_is_not_connected_whatever_the_settings_say(self, claimed_lab: Lab):
        log = claimed_lab.folder / "connectivity.log"
        agent = connect(claimed_lab, "--connectivity_log_file", log)
        agent.signal(signal.SIGKILL)
        agent.wait()
        assert claimed_lab.setting("q_agent_connected") == "1"
        told = status(Ctl(claimed_lab, agent, "--connectivity_log_file", log), NOT_RUNNING)
        assert (told["running"], told["connected"], told["since"]) == (False, False, None)
        assert told["version"] == claimed_lab.setting("q_version")

    def test_after_a_stop_the_log_tells_since_when(self, claimed_lab: Lab):
        log = claimed_lab.folder / "connectivity.log"
        agent = connect(claimed_lab, "--connectivity_log_file", log)
        agent.stop()
        told = status(Ctl(claimed_lab, agent, "--connectivity_log_file", log), NOT_RUNNING)
        lines = log.read_text().splitlines()
        last_connected = max(index for index, line in enumerate(lines) if line.endswith(" S: connected"))
        assert told["since"] == next(line[:19] for line in lines[last_connected + 1 :] if line.endswith(" S: disconnected"))

    def test_a_pid_that_runs_but_holds_no_lock_is_somebody_else(self, lab: Lab):
        (lab.folder / "orvel.pid").write_text(f"{os.getpid()}\n")
        assert status(Ctl(lab), NOT_RUNNING)["running"] is False


class TestOlderLogs:
    def test_the_beginning_is_found_in_a_compressed_generation(self, lab: Lab):
        log = lab.folder / "connectivity.log"
        log.write_text("2026-03-03 00:00:00 S: disconnected\n2026-03-03 00:00:01 E: SSL_read == 0 errno: ''.\n")
        Path(f"{log}.1").write_text("2026-03-02 00:00:00 S: disconnected\n")
        with gzip.open(f"{log}.2.gz", "wt") as older:
            older.write("2026-03-01 00:00:00 S: connected\n2026-03-01 00:00:05 S: disconnected\n")
        assert status(Ctl(lab, None, "--connectivity_log_file", log), NOT_RUNNING)["since"] == "2026-03-01 00:00:05"

    def test_a_log_that_is_not_there_tells_nothing(self, lab: Lab):
        assert status(Ctl(lab, None, "--connectivity_log_file", lab.folder / "none"), NOT_RUNNING)["since"] is None


class TestFailures:
    def test_settings_that_can_not_be_read(self, lab: Lab):
        Ctl(lab).expect_error(FILE, "the settings can't be read", "status", "-c", lab.folder)

    def test_a_pipe_in_place_of_the_pid_file_does_not_hold_it_up(self, lab: Lab):
        os.mkfifo(lab.folder / "orvel.pid")
        Ctl(lab).expect_error(FILE, "orvel.pid can't be read", "status")

    def test_a_pid_file_of_another_user(self, lab: Lab):
        if os.geteuid() != 0:
            pytest.skip("becoming another user needs root")
        (lab.folder / "orvel.pid").write_text("1\n")
        (lab.folder / "orvel.pid").chmod(0o600)
        lab.folder.chmod(0o755)
        for folder in lab.folder.parents:
            if str(folder).startswith("/tmp/"):
                folder.chmod(folder.stat().st_mode | 0o055)
        Ctl(lab).expect_error(FILE, "the user that the agent runs as", "status", user=65534)
