"""The agent as a daemon: what it cuts itself off from, and its pid files."""

from __future__ import annotations

import os
import re
import shlex
import signal
import stat
import subprocess
from dataclasses import dataclass
from pathlib import Path

import pytest
from orvel_lab import Agent, Lab, wait_until
from orvel_lab.agent import default_binary

LIVE_PID = os.getpid()


@dataclass
class Process:
    """What the system knows of a running process."""

    pid: int

    @property
    def _fields(self) -> list[str]:
        """Those of /proc/PID/stat from the state on, the third one of all."""
        return Path(f"/proc/{self.pid}/stat").read_text().rpartition(")")[2].split()

    @property
    def parent(self) -> int:
        return int(self._fields[1])

    @property
    def session(self) -> int:
        return int(self._fields[3])

    @property
    def terminal(self) -> int:
        return int(self._fields[4])

    @property
    def folder(self) -> str:
        return os.readlink(f"/proc/{self.pid}/cwd")

    @property
    def streams(self) -> list[str]:
        return [os.readlink(f"/proc/{self.pid}/fd/{number}") for number in range(3)]

    def status(self, name: str) -> str:
        text = Path(f"/proc/{self.pid}/status").read_text()
        return re.search(rf"^{name}:\s*(.*)$", text, re.MULTILINE).group(1)

    def ignores(self, number: int) -> bool:
        return bool(int(self.status("SigIgn"), 16) >> (number - 1) & 1)


def started(agent: Agent) -> Process:
    """The daemon, once it has written its pid file; the process that was started has ended by then."""
    assert agent.wait() == 0
    return Process(wait_until(lambda: agent.daemon_pid, "the daemon's pid file"))


def ended(agent: Agent) -> bool:
    return not agent.processes()


class TestDaemon:
    @pytest.mark.parametrize("option", ["-d", "--daemon"])
    def test_the_started_process_ends_with_status_0_and_says_nothing(self, claimed_lab: Lab, option: str):
        agent = claimed_lab.start_agent("--log_debug", option)
        daemon = started(agent)
        assert daemon.pid != agent.pid
        claimed_lab.broker.expect_session()
        assert (agent.log, agent.output) == ("", "")

    def test_it_is_cut_off_from_session_terminal_folder_and_streams(self, claimed_lab: Lab):
        daemon = started(claimed_lab.start_agent("--daemon"))
        assert daemon.parent != os.getpid()
        assert daemon.session not in (os.getsid(0), daemon.pid)  # in a session of its own, without leading it
        assert daemon.terminal == 0
        assert daemon.folder == "/"
        assert daemon.streams == ["/dev/null"] * 3

    def test_its_file_mask_is_empty(self, claimed_lab: Lab):
        before = os.umask(0o077)
        try:
            agent = claimed_lab.start_agent("--log_debug", "--daemon")
        finally:
            os.umask(before)
        daemon = started(agent)
        assert daemon.status("Umask") == "0000"
        modes = [stat.S_IMODE(file.stat().st_mode) for file in (agent.pid_file, agent.log_file)]
        assert modes == [0o660, 0o666]

    def test_a_hangup_does_not_end_it(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent("--log_debug", "--daemon")
        daemon = started(agent)
        session = claimed_lab.broker.expect_session()
        assert daemon.ignores(signal.SIGHUP)
        os.kill(daemon.pid, signal.SIGHUP)
        os.kill(daemon.pid, signal.SIGUSR2)
        agent.wait_for_log_file("sig_usr2 handler.")
        assert session.open and agent.daemon_pid == daemon.pid

    def test_its_log_begins_with_the_detaching_and_carries_its_pid(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent("--log_debug", "--daemon")
        daemon = started(agent)
        text = agent.wait_for_log_file("orvel locked the pid file.")
        sources = re.findall(r"^\S+ \S+ \((\d+)\):(\w+):\d+\t *(\w+): (.*)$", text, re.MULTILINE)
        assert sources[0] == (str(daemon.pid), "orvel", "INFO", "orvel started as daemon.")
        assert sources[1][3].startswith("USI Profile Path: ")
        assert {pid for pid, *_ in sources} == {str(daemon.pid)}

    def test_it_reports_itself_as_a_daemon(self, claimed_lab: Lab):
        daemon = started(claimed_lab.start_agent("--daemon"))
        document = claimed_lab.event_sink.wait_for_document(connected=True)
        assert (document["daemon"], document["pid"]) == (True, daemon.pid)
        assert claimed_lab.setting("q_agent_pid") == str(daemon.pid)

    def test_sigterm_ends_it_and_removes_its_pid_file(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent("--daemon")
        daemon = started(agent)
        claimed_lab.wait_for_setting("q_agent_connected", "1")
        os.kill(daemon.pid, signal.SIGTERM)
        wait_until(lambda: ended(agent), "the end of the daemon")
        assert not agent.pid_file.exists()
        assert claimed_lab.setting("q_agent_connected") == "0"

    def test_a_second_one_learns_it_only_in_the_log_file(self, claimed_lab: Lab):
        first = claimed_lab.start_agent("--daemon")
        daemon = started(first)
        second = claimed_lab.start_agent("--log_debug", "--daemon", "--pid_file", first.pid_file)
        assert second.wait() == 0  # that of the process that has detached the daemon
        second.wait_for_log_file("failed to lock the pid file.")
        wait_until(lambda: ended(second), "the end of the second daemon")
        assert "Daemon is already running." in second.log_file_text
        assert second.log == "" and first.daemon_pid == daemon.pid

    def test_the_settings_are_read_after_the_detaching(self, claimed_lab: Lab):
        claimed_lab.settings["q_advisor_url"] = ""
        agent = claimed_lab.start_agent("--log_debug", "--daemon")
        assert agent.wait() == 0
        agent.wait_for_log_file("Failed to read mandatory config settings.")
        wait_until(lambda: ended(agent), "the end of the daemon")
        assert agent.log == "" and not agent.pid_file.exists()


class TestUnderInit:
    """Init itself starts no daemon: there a daemon's parents would only hide its end."""

    def start(self, lab: Lab, *options: str) -> subprocess.CompletedProcess:
        """Starts the agent from a shell that is the init process of a namespace."""
        if subprocess.run(["unshare", "--pid", "--fork", "true"], capture_output=True, check=False).returncode != 0:
            pytest.skip("a process namespace of one's own needs root")
        lab.write_settings()
        command = [str(default_binary()), *lab.agent_arguments("--log_debug", *options)]
        script = f"{shlex.join(command)}; exit $?"
        init = ["unshare", "--pid", "--fork", "sh", "-c", script]
        return subprocess.run(init, capture_output=True, text=True, timeout=60, check=False)

    @pytest.mark.parametrize("options", [("--daemon",), ("-d", "--watchdog")])
    def test_it_refuses_to_detach_and_ends_with_status_1(self, lab: Lab, options: tuple[str, ...]):
        result = self.start(lab, *options)
        assert result.returncode == 1
        assert re.fullmatch(
            r"daemon: \d+:    INFO: the process is already daemon\.\norvel: \d+: WARNING: failed to daemonize\.\n",
            result.stderr,
        )
        assert lab.setting("q_version") is None and not list(lab.folder.glob("*.pid"))

    def test_without_the_option_it_runs(self, lab: Lab):
        lab.settings["q_advisor_url"] = ""
        result = self.start(lab)
        assert result.returncode == 0
        assert "Failed to read mandatory config settings." in result.stderr


class TestPidFile:
    """Without a daemon: a pid file is the same for both."""

    @pytest.fixture(params=["--pid_file", "--watchdog_pid_file"])
    def option(self, request: pytest.FixtureRequest) -> str:
        return request.param

    def start(self, lab: Lab, option: str, content: str | None) -> tuple[Agent, Path]:
        path = lab.folder / "the.pid"
        if content is not None:
            path.write_text(content)
        return lab.start_agent("--log_debug", *(["--watchdog"] if "watchdog" in option else []), option, path), path

    def assert_refused(self, agent: Agent, option: str) -> None:
        assert agent.wait() == 1
        name = "watchdog pid" if "watchdog" in option else "pid"
        assert agent.log.endswith(f"WARNING: failed to lock the {name} file.")
        agent.assert_not_logged("orvel_main...")

    def test_of_a_live_process_stops_the_start(self, claimed_lab: Lab, option: str):
        agent, path = self.start(claimed_lab, option, f"{LIVE_PID}\n")
        self.assert_refused(agent, option)
        agent.wait_for_line(re.compile(r"DEBUG: open\(\) .*/the.pid$"))
        agent.wait_for_line("opened ok")
        agent.wait_for_line(f"read from pid file pid {LIVE_PID}, kill result is 0, errno is 0")
        agent.wait_for_line("INFO: Daemon is already running.")
        assert path.read_text() == f"{LIVE_PID}\n"

    @pytest.mark.parametrize("content", ["", "agent\n", "-\n"])
    def test_without_a_number_stops_the_start(self, claimed_lab: Lab, option: str, content: str):
        agent, path = self.start(claimed_lab, option, content)
        self.assert_refused(agent, option)
        agent.assert_logged("WARNING: Error reading data from pid file - possibly data is in wrong format")
        assert path.read_text() == content

    def test_that_is_a_folder_stops_the_start(self, claimed_lab: Lab, option: str):
        (claimed_lab.folder / "the.pid").mkdir()
        agent, _ = self.start(claimed_lab, option, None)
        self.assert_refused(agent, option)
        agent.assert_logged("WARNING: Error opening pid file for reading 21")

    def test_in_a_missing_folder_stops_the_start(self, claimed_lab: Lab, option: str):
        watchdog = ["--watchdog"] if "watchdog" in option else []
        agent = claimed_lab.start_agent("--log_debug", *watchdog, option, claimed_lab.folder / "absent" / "the.pid")
        self.assert_refused(agent, option)
        agent.assert_logged("WARNING: lock file access().")

    def test_of_a_dead_process_is_replaced(self, claimed_lab: Lab, option: str):
        dead = subprocess.Popen(["true"])
        dead.wait()
        agent, path = self.start(claimed_lab, option, f"{dead.pid}\n")
        agent.wait_for_line(f"read from pid file pid {dead.pid}, kill result is -1, errno is 3")
        agent.wait_for_line("INFO: Remove not associated pid file.")
        agent.wait_for_line("INFO: orvel locked the " + ("watchdog pid file." if "watchdog" in option else "pid file."))
        assert path.read_text() == f"{agent.pid}\n"
        agent.signal(signal.SIGTERM)
        wait_until(lambda: ended(agent), "the end of the agent and its watchdog")

    def test_is_made_for_owner_and_group(self, claimed_lab: Lab):
        before = os.umask(0)
        try:
            agent = claimed_lab.start_agent("--log_debug")
        finally:
            os.umask(before)
        agent.wait_for_line("orvel locked the pid file.")
        assert stat.S_IMODE(agent.pid_file.stat().st_mode) == 0o660
