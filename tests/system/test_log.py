"""The log as its readers see it: which lines reach which output, their form, and what becomes of full files."""

from __future__ import annotations

import gzip
import os
import re
import shutil
import signal
from collections import Counter
from pathlib import Path

import pytest
from orvel_lab import Agent, Lab, Reply, wait_until

CONSOLE_LINE = re.compile(r"(\w+): (\d+): (  DEBUG|   INFO|WARNING|  ERROR): (.*)")
FILE_LINE = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \((\d+)\):(\w+):(\d+)\t(  DEBUG|   INFO|WARNING|): (.*)")
CONNECTIVITY_LINE = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d ([ES]): (.*)")
LIFE = re.compile(r"^(?:State|voluntary_ctxt_switches):.*$", re.MULTILINE)
FAILURE = ["log_rotation_fwrite(): No such file or directory", "Log rotation function failed"]
REPORT = "sig_usr2 handler."

# What an agent says whose start ends at a missing service id: one line of each kind.
WARNING = "incorrect value for discovery time: '-1'"
ERROR = "If you want to use discovery, you need to provide service_id for discovery!"
STATUS = "disconnected"
INFO = "orvel locked the pid file."
DEBUG = "orvel_main..."


def console(text: str) -> list[tuple[str, ...]]:
    """The lines of a console log as (source, line, tag, message); lines of a longer message as (text,)."""
    return [found.groups() if (found := CONSOLE_LINE.fullmatch(line)) else (line,) for line in text.splitlines()]


def as_on_console(text: str) -> list[tuple[str, ...]]:
    """The lines of a log file without time and process, and with the tag that events have on the console."""
    lines = []
    for line in text.splitlines():
        found = FILE_LINE.fullmatch(line)
        lines.append((*found.groups()[1:3], found.group(4) or "  ERROR", found.group(5)) if found else (line,))
    return lines


def events(agent: Agent) -> list[str]:
    """The messages of the connectivity events on the console."""
    return [line[-1] for line in console(agent.log) if len(line) == 4 and line[2] == "  ERROR"]


def processes(text: str) -> set[int]:
    return {int(found.group(1)) for line in text.splitlines() if (found := FILE_LINE.fullmatch(line))}


def connectivity(path: Path) -> list[tuple[str, str]]:
    """The lines of a connectivity log as (tag, message)."""
    return [CONNECTIVITY_LINE.fullmatch(line).groups() for line in path.read_text().splitlines()]


def generations(log: Path) -> dict[int, Path]:
    """The older generations of a log by number; one that is being compressed in its plain form, the whole one."""
    paths = sorted(log.parent.glob(f"{log.name}.*"), reverse=True)  # the compressed form before the plain one
    return {int(path.name.removeprefix(f"{log.name}.").removesuffix(".gz")): path for path in paths}


def compressed(log: Path, numbers: set[int]) -> bool:
    """True once these generations are there, all of them compressed, and nothing else is."""
    names = {path.name for path in log.parent.glob(f"{log.name}.*")}
    return names == {f"{log.name}.{number}.gz" for number in numbers}


def content(path: Path) -> str:
    return gzip.decompress(path.read_bytes()).decode() if path.suffix == ".gz" else path.read_text()


def whole_text(log: Path) -> str:
    """All generations of a log, the oldest first."""
    older = generations(log)
    return "".join(content(older[number]) for number in sorted(older, reverse=True)) + content(log)


def report(agent: Agent) -> None:
    """Makes the agent log something, and waits for it."""
    seen = agent.count(REPORT)
    agent.signal(signal.SIGUSR2)
    agent.wait_for_count(REPORT, seen + 1)


def wait_until_idle(pid: int) -> None:
    """Waits until all threads sleep and stay asleep.

    A line that another thread writes at the very moment of the exit may reach the console only: comparing both outputs
    takes an agent that has nothing to say when it is stopped.
    """
    seen = [""]

    def life(task: Path) -> str:
        try:
            return "".join(LIFE.findall((task / "status").read_text()))
        except (FileNotFoundError, ProcessLookupError):
            return ""  # a thread that has just ended

    def asleep() -> bool:
        seen.append("".join(map(life, Path(f"/proc/{pid}/task").iterdir())))
        return seen[-1] == seen[-2] and "State:\tR" not in seen[-1]

    wait_until(asleep, "an idle agent")


def stop_idle(agent: Agent) -> None:
    wait_until_idle(agent.pid)
    assert agent.stop() == 0


@pytest.fixture
def short_lived(claimed_lab: Lab) -> Lab:
    """Its agents end by themselves, having said one line of each kind."""
    claimed_lab.settings["q_use_discovery"] = "1"
    return claimed_lab


class TestLevels:
    @pytest.mark.parametrize(
        "option, said",
        [
            ("--log_debug", {(DEBUG, "  DEBUG"), (INFO, "   INFO"), (WARNING, "WARNING"), (ERROR, "WARNING")}),
            ("--log_info", {(INFO, "   INFO"), (WARNING, "WARNING"), (ERROR, "WARNING")}),
            ("--log_warning", {(WARNING, "WARNING"), (ERROR, "WARNING")}),
            ("--log_error", {(ERROR, "WARNING")}),  # errors carry the tag of warnings
            ("--log_silent", set()),
        ],
    )
    def test_each_option_lets_its_level_and_those_above_through(self, short_lived: Lab, option: str, said: set):
        agent = short_lived.start_agent(option, "--discovery_time", "-1")
        assert agent.wait() == 1
        for lines in (console(agent.log), as_on_console(agent.log_file_text)):
            kinds = {(line[-1], line[2]) for line in lines if len(line) == 4}
            assert {kind for kind in kinds if kind[0] in (DEBUG, INFO, WARNING, ERROR)} == said
            assert (STATUS, "  ERROR") in kinds  # events pass in every case

    def test_by_default_there_are_only_events(self, short_lived: Lab):
        agent = short_lived.start_agent("--discovery_time", "-1")
        assert agent.wait() == 1
        assert re.fullmatch(r"logic: \d+:   ERROR: disconnected", agent.log)
        assert re.fullmatch(r"\S+ \S+ \(%d\):logic:\d+\t: disconnected\n" % agent.pid, agent.log_file_text)

    def test_the_last_of_several_counts(self, short_lived: Lab):
        agent = short_lived.start_agent("--log_debug", "--log_error")
        assert agent.wait() == 1
        agent.assert_logged(ERROR)
        agent.assert_not_logged(INFO, DEBUG)


class TestOutputs:
    def test_both_carry_the_same_lines_in_their_forms(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent("--log_debug")
        claimed_lab.broker.expect_session()
        stop_idle(agent)
        assert as_on_console(agent.log_file_text) == console(agent.log)
        assert processes(agent.log_file_text) == {agent.pid}
        assert {len(line) for line in console(agent.log)} == {1, 4}  # some messages are of several lines

    def test_the_console_can_be_switched_off(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent("--log_debug", "--disable_console")
        claimed_lab.broker.expect_session()
        agent.wait_for_log_file("connected")
        assert agent.stop() == 0
        assert (agent.log, agent.output) == ("", "")
        assert "received sigterm" in agent.log_file_text

    def test_the_files_can_be_switched_off(self, claimed_lab: Lab):
        log = claimed_lab.folder / "connectivity"
        agent = claimed_lab.start_agent("--log_debug", "--disable_log_file", "--connectivity_log_file", log)
        agent.wait_for_line("  ERROR: connected")
        assert agent.stop() == 0
        agent.assert_logged("received sigterm")
        assert not agent.log_file.exists() and not log.exists()

    def test_both_can_be_switched_off(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent("--log_debug", "--disable_log_file", "--disable_console")
        claimed_lab.broker.expect_session()
        assert agent.stop() == 0
        assert agent.log == "" and not agent.log_file.exists()

    def test_a_second_start_appends_to_the_file(self, short_lived: Lab):
        agents = [short_lived.start_agent("--log_info", "--log_file", short_lived.folder / "log") for _ in range(2)]
        assert [agent.wait() for agent in agents] == [1, 1]
        assert processes((short_lived.folder / "log").read_text()) == {agent.pid for agent in agents}


class TestConnectivityLog:
    def test_it_holds_the_events_and_the_log_does_not(self, make_lab):
        lab = make_lab(registered=True, claimed=True, tls=False)
        log = lab.folder / "connectivity"
        agent = lab.start_agent("--log_info", "--connectivity_log_file", log)
        session = lab.broker.expect_session()
        agent.wait_for_line("  ERROR: connected")
        session.close()
        lab.broker.expect_session()
        agent.wait_for_count("  ERROR: connected", 2)
        stop_idle(agent)
        lines = connectivity(log)
        assert ("S", "connected") in lines and ("S", "disconnected") in lines
        assert ("E", "Other end disconnected.") in lines
        assert {message for tag, message in lines if tag == "S"} == {"connected", "disconnected"}
        assert lines == [(("S" if "connected" in message[:12] else "E"), message) for _, message in lines]
        assert events(agent) == [message for _, message in lines]
        assert not re.search(r"\t: ", agent.log_file_text)

    def test_a_request_that_fails_is_an_event_of_the_other_kind(self, claimed_lab: Lab):
        log = claimed_lab.folder / "connectivity"
        claimed_lab.cloud.script("advisor", Reply(raw=b"", end="reset"))
        agent = claimed_lab.start_agent("--connectivity_log_file", log)
        claimed_lab.broker.expect_session()
        assert agent.stop() == 0
        failed = [message for tag, message in connectivity(log) if tag == "E"]
        assert failed[0].startswith(f"curl_easy_perform(url='{claimed_lab.settings['q_advisor_url']}/v2")
        assert not agent.log_file.exists()  # silent: nothing but events

    def test_without_one_the_events_are_in_the_log_with_an_empty_tag(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent()
        claimed_lab.broker.expect_session()
        agent.wait_for_line("  ERROR: connected")
        stop_idle(agent)
        lines = [FILE_LINE.fullmatch(line).groups() for line in agent.log_file_text.splitlines()]
        assert {(source, tag, message) for _, source, _, tag, message in lines} == {
            ("logic", "", "disconnected"),
            ("logic", "", "connected"),
            ("orvel", "", "disconnected"),  # the stop
        }


class TestVanishingFolder:
    def test_it_is_told_on_standard_error_and_the_agent_goes_on(self, claimed_lab: Lab):
        folder = claimed_lab.folder / "logs"
        folder.mkdir()
        agent = claimed_lab.start_agent("--log_debug", "--log_file", folder / "log")
        session = claimed_lab.broker.expect_session()
        report(agent)
        agent.assert_not_logged(*FAILURE)
        wait_until_idle(agent.pid)
        shutil.rmtree(folder)
        report(agent)
        agent.wait_for_line(FAILURE[0])
        agent.wait_for_line(FAILURE[1])
        assert agent.control.exchange(b"") == b'{"result":-1}'
        assert session.open and not folder.exists()

        folder.mkdir()
        report(agent)
        wait_until(lambda: (folder / "log").exists() and REPORT in (folder / "log").read_text(), "the log")

    def test_the_two_texts_come_without_the_console_too(self, short_lived: Lab):
        agent = short_lived.start_agent(
            "--log_error", "--disable_console", "--log_file", short_lived.folder / "absent" / "log"
        )
        assert agent.wait() == 1
        lines = 3  # the event and two errors: each is lost with its own two texts
        assert agent.log.splitlines() == FAILURE * lines


class TestRotation:
    SMALL = ("--log_debug", "--log_file_size", "1K")

    def rotate(self, lab: Lab, agent: Agent, done) -> None:
        """Lets the agent write until `done`, and stay so."""
        lab.broker.expect_session()
        wait_until(lambda: report(agent) or done(), "enough generations")

    def test_older_generations_are_numbered_compressed_and_dropped(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent(*self.SMALL, "--log_file_cnt", "3")
        self.rotate(claimed_lab, agent, lambda: 3 in generations(agent.log_file))
        for _ in range(12):
            report(agent)
        wait_until(lambda: compressed(agent.log_file, {1, 2, 3}) or report(agent), "the compression")
        stop_idle(agent)
        lines = as_on_console(whole_text(agent.log_file))
        everything = console(agent.log)
        assert 0 < len(lines) < len(everything)
        assert lines == everything[-len(lines) :]  # the newest ones, in order, none lost or torn

    def test_by_default_there_are_five(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent(*self.SMALL)
        self.rotate(claimed_lab, agent, lambda: 5 in generations(agent.log_file))
        wait_until(lambda: compressed(agent.log_file, {1, 2, 3, 4, 5}) or report(agent), "the compression")

    def test_a_count_of_0_keeps_everything_in_one_file(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent(*self.SMALL, "--log_file_cnt", "0")
        claimed_lab.broker.expect_session()
        stop_idle(agent)
        assert agent.log_file.stat().st_size > 2048 and not generations(agent.log_file)
        assert as_on_console(agent.log_file_text) == console(agent.log)

    def test_below_its_size_a_file_is_not_rotated(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent("--log_debug")
        claimed_lab.broker.expect_session()
        assert agent.stop() == 0
        assert not generations(agent.log_file)

    def test_a_daemon_rotates_too(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent(*self.SMALL, "--daemon")
        assert agent.wait() == 0
        daemon = wait_until(lambda: agent.daemon_pid, "the daemon's pid file")
        claimed_lab.broker.expect_session()

        def three_compressed() -> bool:
            os.kill(daemon, signal.SIGUSR2)
            return {f"{agent.log_file.name}.{number}.gz" for number in (1, 2, 3)} <= {
                path.name for path in agent.log_file.parent.iterdir()
            }

        wait_until(three_compressed, "three compressed generations")


class TestAgentAndWatchdog:
    """Two processes write one log."""

    def restarted(self, lab: Lab, *options: str) -> tuple[Agent, set[int]]:
        """A watchdog whose agent was restarted some times, and which has ended; and the pids of all."""
        agent = lab.start_agent("--log_debug", "--watchdog", *options)
        pids = {agent.pid}
        for restarts in range(4):
            lab.broker.expect_session()
            agent.wait_for_count("  ERROR: connected", restarts + 1)
            pid = int(agent.pid_file.read_text())
            pids.add(pid)
            wait_until_idle(pid)
            agent.signal(signal.SIGTERM if restarts == 3 else signal.SIGHUP)
        assert agent.wait() == 0
        wait_until(lambda: not agent.processes(), "the end of agent and watchdog")
        return agent, pids

    def test_no_line_is_lost_or_torn_and_each_carries_its_process(self, claimed_lab: Lab):
        agent, pids = self.restarted(claimed_lab)
        assert processes(agent.log_file_text) == pids and len(pids) == 5
        assert Counter(as_on_console(agent.log_file_text)) == Counter(console(agent.log))

    def test_nor_while_the_file_is_rotated(self, claimed_lab: Lab):
        agent, pids = self.restarted(claimed_lab, "--log_file_size", "2K", "--log_file_cnt", "200")
        assert len(generations(agent.log_file)) > 5
        text = whole_text(agent.log_file)
        assert processes(text) == pids
        assert Counter(as_on_console(text)) == Counter(console(agent.log))

    def test_nor_with_a_connectivity_log(self, claimed_lab: Lab):
        log = claimed_lab.folder / "connectivity"
        agent, _ = self.restarted(claimed_lab, "--connectivity_log_file", log)
        assert Counter(message for _, message in connectivity(log)) == Counter(events(agent))
