"""The watchdog: it replaces an agent that was killed, follows one that ended, and passes signals on."""

from __future__ import annotations

import os
import re
import signal
from collections.abc import Iterator
from pathlib import Path

import pytest
from orvel_lab import Agent, Lab, Reply, Session, wait_until

AN_HOUR = "3600"
STATE_REPORT = "sig_usr2 handler."
CHILD_ENDED = ["watchdog DEBUG Received sigchld in watchdog.", "watchdog INFO Child exit normally."]


def children(pid: int) -> list[int]:
    return [int(child) for child in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


def state(pid: int) -> str | None:
    """The state letter of a process, "Z" for one that nobody has reaped yet; None when it is gone."""
    path = Path(f"/proc/{pid}/stat")
    return path.read_text().rpartition(")")[2].split()[0] if path.exists() else None


def said_by(agent: Agent, source: str) -> list[str]:
    """What one source has said on the console, as "source tag text", in its order."""
    line = re.compile(rf"^({source}): \d+:\s+(\w+): (.*)$", re.MULTILINE)
    return [" ".join(found) for found in line.findall(agent.log)]


def wait_for_end(agent: Agent) -> None:
    wait_until(lambda: not agent.processes(), "the end of agent and watchdog")


class Guarded:
    """A watchdog and its agents; `agent` is the process that was started, which is the watchdog."""

    def __init__(self, lab: Lab, *options: str | Path) -> None:
        self.lab = lab
        self.watchdog_pid_file = lab.folder / "orvel-watchdog.pid"
        self.agent = lab.start_agent("--log_debug", "--watchdog", *options)
        self.watchdog = self.agent.pid

    def child(self, *, after: int = 0) -> int:
        """The agent process that has locked the pid file: another one than `after`."""

        def locked() -> int | None:
            text = self.agent.pid_file.read_text() if self.agent.pid_file.exists() else ""
            return int(text) if text.endswith("\n") and int(text) != after else None

        return wait_until(locked, "the pid file of a new agent")

    def session(self) -> Session:
        return self.lab.broker.expect_session()

    def wake(self) -> None:
        """Ends the agent's sleep; what comes before the agent has lain down wakes nobody, so it is repeated."""

        def woken() -> int:
            self.agent.signal(signal.SIGUSR1)
            return self.agent.count(f"exit sleep_for {AN_HOUR} secs")

        wait_until(woken, "the end of the sleep")

    def terminate(self) -> int:
        self.agent.signal(signal.SIGTERM)
        status = self.agent.wait()
        wait_for_end(self.agent)
        return status


@pytest.fixture
def guarded(claimed_lab: Lab) -> Iterator[Guarded]:
    """With an agent that has its session."""
    guarded = Guarded(claimed_lab)
    guarded.first_session = guarded.session()
    claimed_lab.wait_for_setting("q_agent_connected", "1")
    yield guarded
    if guarded.agent.running:
        assert guarded.terminate() == 0


@pytest.fixture
def registering(lab: Lab) -> Iterator[Guarded]:
    """With an agent that waits, for an hour, to repeat a registration that failed."""
    lab.settings["q_register_aggressive_delay"] = AN_HOUR
    lab.cloud.script("register", Reply(500))
    guarded = Guarded(lab)
    guarded.agent.wait_for_line(f"Sleeping for {AN_HOUR} secs.")
    yield guarded
    if guarded.agent.running:
        assert guarded.terminate() == 0


class TestStart:
    def test_watchdog_and_agent_each_have_a_pid_file(self, guarded: Guarded):
        child = guarded.child()
        assert guarded.watchdog_pid_file.read_text() == f"{guarded.watchdog}\n"
        assert children(guarded.watchdog) == [child]
        guarded.lab.wait_for_setting("q_agent_pid", str(child))

    def test_the_watchdog_comes_before_the_agent(self, guarded: Guarded):
        paths = ["USI Profile Path", "USI Config Path"]
        texts = [*paths, "orvel locked the watchdog pid file.", "Orvel version ", "orvel locked the pid file."]
        places = [guarded.agent.log.index(text) for text in texts]
        assert places == sorted(places)

    def test_a_watchdog_that_can_not_start_has_written_the_settings_already(self, lab: Lab):
        (lab.folder / "taken").write_text(f"{os.getpid()}\n")
        agent = lab.start_agent("--log_debug", "--watchdog", "--watchdog_pid_file", lab.folder / "taken")
        assert agent.wait() == 1
        log = agent.log
        assert log.index("USI Config Path") < log.index("Daemon is already running.")
        assert (lab.setting("q_agent_connected"), lab.setting("q_agent_pid")) == ("0", "0")
        assert lab.setting("q_version") == "release-3.5.9_bq917rkvn_2725daa_usi"
        agent.assert_not_logged("Orvel version")

    def test_a_second_one_ends_with_status_1_and_leaves_the_first_alone(self, guarded: Guarded):
        second = guarded.lab.start_agent("--log_debug", "--watchdog", "--watchdog_pid_file", guarded.watchdog_pid_file)
        assert second.wait() == 1
        assert said_by(second, "daemon")[-1] == "daemon INFO Daemon is already running."
        assert said_by(second, "watchdog") == ["watchdog WARNING failed to lock the watchdog pid file."]
        assert guarded.first_session.open
        assert guarded.watchdog_pid_file.read_text() == f"{guarded.watchdog}\n"

    def test_without_one_a_killed_agent_stays_dead(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent()
        claimed_lab.broker.expect_session()
        agent.signal(signal.SIGKILL)
        assert agent.wait() == -signal.SIGKILL
        assert agent.pid_file.exists() and not agent.processes()


class TestKilledAgent:
    @pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGINT], ids=lambda number: number.name)
    def test_a_new_one_takes_its_place_and_works(self, claimed_lab: Lab, number: signal.Signals):
        sink = claimed_lab.tcp_handler("meter")
        guarded = Guarded(claimed_lab)
        guarded.session()
        first = guarded.child()
        os.kill(first, number)
        second = guarded.child(after=first)
        session = guarded.session()
        session.send_message("meter", b"to the new one")
        assert sink.expect() == b"to the new one"
        assert guarded.agent.control.exchange(b"") == b'{"result":-1}'
        assert children(guarded.watchdog) == [second]
        assert state(first) is None  # no zombie
        guarded.agent.assert_logged("Received sigchld in watchdog.", "Remove not associated pid file.")
        guarded.agent.assert_not_logged("Child exit normally.")
        assert guarded.terminate() == 0

    def test_it_is_replaced_each_time_without_a_limit(self, guarded: Guarded):
        child = guarded.child()
        for _ in range(6):  # also in the midst of its start
            os.kill(child, signal.SIGKILL)
            child = guarded.child(after=child)
        guarded.session()
        assert children(guarded.watchdog) == [child]
        assert said_by(guarded.agent, "watchdog").count(CHILD_ENDED[0]) == 6

    def test_the_settings_are_not_written_anew(self, guarded: Guarded):
        guarded.lab.change_setting("q_version", "changed")
        child = guarded.child()
        os.kill(child, signal.SIGKILL)
        guarded.lab.wait_for_setting("q_agent_pid", str(guarded.child(after=child)))
        assert guarded.lab.setting("q_version") == "changed"
        assert guarded.agent.count("USI Profile Path") == 1

    def test_a_stored_registration_is_kept(self, registering: Guarded):
        registering.wake()
        registering.agent.wait_for_line("is_claimed='0'")
        registered = registering.lab.cloud.requests("register")
        os.kill(registering.child(), signal.SIGKILL)
        registering.agent.wait_for_line("is_claimed='0'")
        assert registering.lab.cloud.requests("register") == registered


class TestEndedAgent:
    def test_status_1_ends_the_watchdog_with_status_0(self, claimed_lab: Lab):
        claimed_lab.settings["q_use_discovery"] = "1"  # without a service: the agent exits with status 1
        guarded = Guarded(claimed_lab)
        assert guarded.agent.wait() == 0
        guarded.agent.assert_logged("Cannot create needed discovery data from settings. exiting.")
        assert said_by(guarded.agent, "watchdog")[-2:] == CHILD_ENDED
        assert guarded.agent.count("Orvel version") == 1
        assert guarded.watchdog_pid_file.exists() and not guarded.agent.pid_file.exists()

    def test_status_0_ends_it_too(self, claimed_lab: Lab):
        claimed_lab.settings["q_advisor_url"] = ""
        guarded = Guarded(claimed_lab)
        assert guarded.agent.wait() == 0
        assert said_by(guarded.agent, "watchdog")[-2:] == CHILD_ENDED
        assert guarded.watchdog_pid_file.exists()

    def test_an_agent_that_runs_already_ends_it_too(self, claimed_lab: Lab):
        first = claimed_lab.start_agent()
        session = claimed_lab.broker.expect_session()
        guarded = Guarded(claimed_lab, "--pid_file", first.pid_file)
        assert guarded.agent.wait() == 0
        guarded.agent.assert_logged("Daemon is already running.", "failed to lock the pid file.")
        assert session.open

    def test_a_sigterm_to_the_agent_alone_ends_both(self, guarded: Guarded):
        os.kill(guarded.child(), signal.SIGTERM)
        assert guarded.agent.wait() == 0
        assert said_by(guarded.agent, "watchdog")[-2:] == CHILD_ENDED
        guarded.agent.assert_logged("Exit because sigterm was received.")
        assert guarded.watchdog_pid_file.exists() and not guarded.agent.pid_file.exists()


class TestHangup:
    @pytest.mark.parametrize("to", ["agent", "watchdog"])
    def test_it_restarts_the_agent_in_order(self, guarded: Guarded, to: str):
        first = guarded.child()
        os.kill(first if to == "agent" else guarded.watchdog, signal.SIGHUP)
        second = guarded.child(after=first)
        guarded.session()
        assert guarded.first_session.wait_ended() == "agent closed"
        assert children(guarded.watchdog) == [second] and state(first) is None
        ending = ["received sigterm", "Exit because sigterm was received."]
        told = ["received sighup.", *ending, "Received sigchld in watchdog."]
        places = [guarded.agent.log.index(text) for text in told]
        assert places == sorted(places)
        # The old agent has removed its pid file, so that the new one finds none.
        guarded.agent.assert_not_logged("Remove not associated pid file.", "Child exit normally.")
        assert guarded.agent.count("Orvel version") == 2

    def test_one_restart_does_not_count_for_the_next_end(self, guarded: Guarded):
        first = guarded.child()
        os.kill(first, signal.SIGHUP)
        second = guarded.child(after=first)
        guarded.session()
        os.kill(second, signal.SIGTERM)
        assert guarded.agent.wait() == 0
        assert said_by(guarded.agent, "watchdog")[-2:] == CHILD_ENDED

    def test_it_restarts_an_agent_that_is_still_starting(self, registering: Guarded):
        first = registering.child()
        registering.agent.signal(signal.SIGHUP)
        registering.child(after=first)
        registering.agent.wait_for_line("Device is registered successfully")
        # The old one has exited amidst its start-up and left its pid file.
        registering.agent.assert_logged("Remove not associated pid file.")

    def test_without_a_watchdog_it_ends_the_agent(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent()
        claimed_lab.broker.expect_session()
        agent.signal(signal.SIGHUP)
        assert agent.wait() == -signal.SIGHUP


class TestSigterm:
    def test_it_ends_both_and_the_watchdogs_pid_file_stays(self, guarded: Guarded):
        child = guarded.child()
        assert guarded.terminate() == 0
        said = said_by(guarded.agent, "watchdog")
        assert said[-2:] == ["watchdog INFO Received sig_term.", "watchdog DEBUG Send sig_term."]
        guarded.agent.assert_logged("Exit because sigterm was received.")
        guarded.agent.assert_not_logged("Received sigchld in watchdog.")
        assert state(child) is None or state(child) == "Z"  # its new parent's business
        assert not guarded.agent.pid_file.exists()
        assert guarded.watchdog_pid_file.read_text() == f"{guarded.watchdog}\n"
        assert guarded.lab.setting("q_agent_connected") == "0"

    def test_the_pid_file_that_stays_does_not_hinder_the_next_start(self, claimed_lab: Lab):
        first = Guarded(claimed_lab)
        first.session()
        assert first.terminate() == 0
        second = Guarded(claimed_lab, "--watchdog_pid_file", first.watchdog_pid_file)
        second.agent.wait_for_line("Remove not associated pid file.")
        second.agent.wait_for_line("orvel locked the watchdog pid file.")
        second.session()
        assert first.watchdog_pid_file.read_text() == f"{second.watchdog}\n"
        assert second.terminate() == 0

    def test_it_ends_an_agent_that_is_still_starting(self, registering: Guarded):
        assert registering.terminate() == 0
        registering.agent.assert_logged("Received sig_term.", "received command from orvel thread to call exit()")
        assert registering.agent.pid_file.exists()


class TestUserSignals:
    def test_the_first_one_ends_the_agents_sleep(self, registering: Guarded):
        registering.wake()
        registering.agent.wait_for_line("Device is registered successfully")

    def test_the_second_one_makes_the_agent_report(self, guarded: Guarded):
        guarded.lab.event_sink.wait_for_document(connected=True)
        seen = guarded.agent.count(STATE_REPORT)
        guarded.agent.signal(signal.SIGUSR2)
        guarded.agent.wait_for_count(STATE_REPORT, seen + 1)

    def test_the_watchdog_itself_says_nothing_and_goes_on(self, guarded: Guarded):
        before = said_by(guarded.agent, "watchdog")
        for number in (signal.SIGUSR1, signal.SIGUSR2):
            guarded.agent.signal(number)
        guarded.agent.wait_for_line(STATE_REPORT)
        assert said_by(guarded.agent, "watchdog") == before
        assert guarded.agent.running and guarded.first_session.open


class TestKilledWatchdog:
    def test_the_agent_goes_on_and_a_hangup_means_nothing_any_more(self, guarded: Guarded):
        child = guarded.child()
        guarded.agent.signal(signal.SIGKILL)
        assert guarded.agent.wait() == -signal.SIGKILL
        os.kill(child, signal.SIGHUP)
        os.kill(child, signal.SIGUSR2)
        guarded.agent.wait_for_log_file(STATE_REPORT)
        assert guarded.first_session.open
        assert guarded.agent.control.exchange(b"") == b'{"result":-1}'
        os.kill(child, signal.SIGTERM)
        wait_for_end(guarded.agent)
        assert not guarded.agent.pid_file.exists()


class TestDaemonWithWatchdog:
    LINE = re.compile(r"^\S+ \S+ \((\d+)\):(\w+):\d+\t *(\w+): (.*)$", re.MULTILINE)

    @pytest.fixture
    def daemon(self, claimed_lab: Lab) -> Iterator[Guarded]:
        """`watchdog` is the pid of the process that the detaching has left."""
        daemon = Guarded(claimed_lab, "--daemon")
        assert daemon.agent.wait() == 0
        daemon.child()
        daemon.watchdog = int(daemon.watchdog_pid_file.read_text())
        daemon.first_session = daemon.session()
        claimed_lab.wait_for_setting("q_agent_connected", "1")
        yield daemon
        if daemon.agent.processes():
            os.kill(daemon.watchdog, signal.SIGTERM)
            wait_for_end(daemon.agent)

    def test_the_detaching_comes_first_then_the_paths_then_the_fork(self, daemon: Guarded):
        text = daemon.agent.wait_for_log_file("orvel locked the pid file.")
        watchdog, child = str(daemon.watchdog), str(daemon.child())
        lines = [(pid, words) for pid, _, level, words in self.LINE.findall(text) if level == "INFO"]
        assert [(pid, words.partition(":")[0]) for pid, words in lines[:4]] == [
            (watchdog, "orvel started as daemon."),
            (watchdog, "USI Profile Path"),
            (watchdog, "USI Config Path"),
            (watchdog, "orvel locked the watchdog pid file."),
        ]
        assert (child, "orvel locked the pid file.") in lines[4:]
        assert {pid for pid, _ in lines[4:]} == {child}
        assert daemon.agent.log == ""

    def test_the_settings_are_written_before_the_watchdog_locks_its_pid_file(self, lab: Lab):
        (lab.folder / "taken").write_text(f"{os.getpid()}\n")
        daemon = Guarded(lab, "--daemon", "--watchdog_pid_file", lab.folder / "taken")
        assert daemon.agent.wait() == 0  # that of the process that has detached the other
        daemon.agent.wait_for_log_file("failed to lock the watchdog pid file.")
        wait_for_end(daemon.agent)
        assert lab.setting("q_version") == "release-3.5.9_bq917rkvn_2725daa_usi"
        assert "Orvel version" not in daemon.agent.log_file_text

    def test_both_are_detached(self, daemon: Guarded):
        for pid in (daemon.watchdog, daemon.child()):
            assert os.getsid(pid) not in (os.getsid(0), pid)
            assert os.readlink(f"/proc/{pid}/cwd") == "/"
            assert [os.readlink(f"/proc/{pid}/fd/{number}") for number in range(3)] == ["/dev/null"] * 3
        assert children(daemon.watchdog) == [daemon.child()]

    @pytest.mark.breaks("state")
    @pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGHUP], ids=lambda number: number.name)
    def test_a_killed_agent_and_a_hangup_of_it_lead_to_a_new_one(self, daemon: Guarded, number: signal.Signals):
        first = daemon.child()
        os.kill(first, number)
        second = daemon.child(after=first)
        daemon.session().send_message("event_sink", b"still there")
        assert children(daemon.watchdog) == [second] and state(first) is None

    def test_a_hangup_of_the_watchdog_restarts_the_agent(self, daemon: Guarded):
        first = daemon.child()
        os.kill(daemon.watchdog, signal.SIGHUP)
        daemon.child(after=first)
        daemon.session()

    def test_sigterm_to_the_watchdog_ends_both(self, daemon: Guarded):
        os.kill(daemon.watchdog, signal.SIGTERM)
        wait_for_end(daemon.agent)
        assert not daemon.agent.pid_file.exists()
        assert daemon.watchdog_pid_file.read_text() == f"{daemon.watchdog}\n"
        assert "Send sig_term." in daemon.agent.log_file_text

    def test_a_second_one_changes_nothing(self, daemon: Guarded):
        options = ("--daemon", "--watchdog", "--watchdog_pid_file", daemon.watchdog_pid_file)
        second = daemon.lab.start_agent("--log_debug", *options)
        assert second.wait() == 0
        second.wait_for_log_file("failed to lock the watchdog pid file.")
        wait_for_end(second)
        assert "Daemon is already running." in second.log_file_text
        assert daemon.first_session.open and children(daemon.watchdog) == [daemon.child()]
