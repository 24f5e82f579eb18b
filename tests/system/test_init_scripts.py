"""What starts the agent on a device: the plain init script, procd's, and the systemd unit's command line."""

from __future__ import annotations

import os
import re
import shlex
import shutil
import subprocess
from pathlib import Path

import pytest
from orvel_lab import DEADLINE, Agent, Lab, wait_until
from orvel_lab.agent import default_binary

PACKAGING = Path(__file__).resolve().parents[2] / "packaging"
INIT_SCRIPT = PACKAGING / "init.d" / "orvel"
PROCD_SCRIPT = PACKAGING / "openwrt" / "files" / "orvel.init"
STAND_IN = Path(__file__).with_name("procd_stand_in.sh")
UNIT = PACKAGING / "systemd" / "orvel.service"
DEFAULTS = PACKAGING / "etc" / "default" / "orvel"


@pytest.fixture(params=["dash", "busybox ash"])
def shell(request: pytest.FixtureRequest) -> list[str]:
    """Of a Debian system, and of a small device."""
    words = request.param.split()
    if shutil.which(words[0]) is None:
        pytest.fail(f"{words[0]} is not installed: see scripts/install-deps.sh")
    return words


def start(lab: Lab, command: list[object], control_port: int, environment: dict[str, str]) -> Agent:
    """The lab looks after what the command starts, too: at the end nothing of it may be left."""
    if not lab.settings_path.exists():
        lab.write_settings()
    program, *arguments = map(str, command)
    files = (lab.folder / "orvel.pid", lab.folder / "orvel.log")
    agent = Agent(arguments, control_port, *files, Path(shutil.which(program)), environment)
    lab.agents.append(agent)
    return agent


def options_of(lab: Lab, control_port: int) -> list[str]:
    """The lab's own, without the id, which has its own place."""
    arguments = lab.agent_arguments("--log_debug", control_port=control_port)
    return arguments[arguments.index("-c") :]


@pytest.mark.parametrize("script", [INIT_SCRIPT, PROCD_SCRIPT, STAND_IN], ids=["plain", "procd", "stand_in"])
def test_shellcheck_finds_nothing(script: Path):
    if shutil.which("shellcheck") is None:
        pytest.fail("shellcheck is not installed: see scripts/install-deps.sh")
    result = subprocess.run(["shellcheck", script], capture_output=True, text=True, check=False)
    assert result.returncode == 0, result.stdout


class InitScript:
    """The plain script, with files in the lab's folder."""

    def __init__(self, lab: Lab, shell: list[str]) -> None:
        self.lab = lab
        self.command = [*shell, str(INIT_SCRIPT)]
        self.control_port = lab.reserve_port()
        self.environment = {"ORVEL_DEFAULTS": str(lab.folder / "defaults")}
        self.write_defaults(lab.hardware_id)

    def write_defaults(self, hardware_id: str) -> None:
        lines = {
            "ORVEL_HARDWARE_ID": hardware_id,
            "ORVEL_OPTIONS": " ".join(options_of(self.lab, self.control_port)),
            "ORVEL_PROGRAM": default_binary(),
            "ORVEL_RUN_FOLDER": self.lab.folder,
            "ORVEL_LOG_FOLDER": self.lab.folder,
        }
        text = "".join(f"{name}={shlex.quote(str(value))}\n" for name, value in lines.items())
        (self.lab.folder / "defaults").write_text(text)

    def start(self) -> Agent:
        return start(self.lab, [*self.command, "start"], self.control_port, self.environment)

    def started(self) -> Agent:
        agent = self.start()
        assert agent.wait() == 0
        return agent

    def run(self, action: str) -> tuple[int, str]:
        """Exit status, and what it says."""
        options = {"env": {**os.environ, **self.environment}, "timeout": 2 * DEADLINE}
        done = subprocess.run([*self.command, action], capture_output=True, text=True, check=False, **options)
        return done.returncode, done.stdout + done.stderr

    def pid(self, name: str = "orvel") -> int:
        return int((self.lab.folder / f"{name}.pid").read_text())


class TestInitScript:
    @pytest.fixture
    def script(self, claimed_lab: Lab, shell: list[str]) -> InitScript:
        return InitScript(claimed_lab, shell)

    def test_starts_reports_and_stops_the_agent(self, script: InitScript):
        agent = script.started()
        script.lab.broker.expect_session()
        assert script.run("status") == (0, f"orvel runs, pid {agent.daemon_pid}\n")
        assert script.run("stop") == (0, "")
        assert not agent.processes() and not agent.pid_file.exists()
        assert script.lab.setting("q_agent_connected") == "0"
        assert script.run("status") == (3, "orvel does not run\n")

    def test_the_agent_runs_under_its_watchdog(self, script: InitScript):
        agent = script.started()
        assert sorted(agent.processes()) == sorted([script.pid(), script.pid("orvel-watchdog")])
        assert script.run("stop")[0] == 0

    def test_a_second_start_changes_nothing(self, script: InitScript):
        agent = script.started()
        before = sorted(agent.processes())
        script.started()
        assert sorted(agent.processes()) == before
        assert script.run("stop")[0] == 0

    def test_a_restart_brings_a_new_session(self, script: InitScript):
        script.started()
        first = script.lab.broker.expect_session()
        assert script.run("restart") == (0, "")
        assert first.wait_ended() == "agent closed"
        script.lab.broker.expect_session()
        assert script.run("stop")[0] == 0

    def test_a_reload_brings_a_new_agent_under_the_same_watchdog(self, script: InitScript):
        agent = script.started()
        script.lab.broker.expect_session()
        before, watchdog = script.pid(), script.pid("orvel-watchdog")
        assert script.run("reload") == (0, "")
        script.lab.broker.expect_session()
        wait_until(lambda: agent.daemon_pid not in (None, before), "a new agent")
        assert script.pid("orvel-watchdog") == watchdog
        assert script.run("stop")[0] == 0

    def test_a_reload_needs_an_agent(self, script: InitScript):
        assert script.run("reload") == (7, "orvel does not run\n")

    def test_a_stop_needs_none(self, script: InitScript):
        assert script.run("stop") == (0, "")

    def test_a_start_without_an_id_says_so(self, script: InitScript):
        script.write_defaults("")
        agent = script.start()
        assert agent.wait() == 1
        assert "Please specify hardware_id" in agent.output

    def test_a_start_that_comes_to_nothing_is_noticed(self, script: InitScript):
        script.lab.settings["q_advisor_url"] = ""
        agent = script.start()
        assert agent.wait() == 1
        agent.assert_logged(f"orvel did not start: see {script.lab.folder}/orvel.log, and orvelctl doctor")
        agent.wait_for_log_file("Failed to read mandatory config settings.")

    def test_somebody_elses_process_is_left_alone(self, script: InitScript):
        (script.lab.folder / "orvel.pid").write_text(f"{os.getpid()}\n")
        assert script.run("status") == (3, "orvel does not run\n")
        assert script.run("stop") == (0, "")

    @pytest.mark.parametrize("action", ["", "begin"])
    def test_another_word_gets_the_usage(self, script: InitScript, action: str):
        status, said = script.run(action)
        assert status == 2 and said.startswith("usage: ")


class ProcdScript:
    """The script of procd's devices, with a stand-in for procd."""

    def __init__(self, lab: Lab, shell: list[str]) -> None:
        self.lab = lab
        self.command = [*shell, STAND_IN, PROCD_SCRIPT]
        self.control_port = lab.reserve_port()
        self.notes_path = lab.folder / "notes"
        self.environment = {
            "NOTES": str(self.notes_path),
            "PROG": str(default_binary()),
            "PID_FILE": str(lab.folder / "orvel.pid"),
            "uci_enabled": "1",
            "uci_hardware_id": lab.hardware_id,
            "uci_options": " ".join(options_of(lab, self.control_port)),
        }

    def do(self, action: str) -> Agent:
        return start(self.lab, [*self.command, action], self.control_port, self.environment)

    def notes(self) -> list[str]:
        return self.notes_path.read_text().splitlines()


class TestProcdScript:
    @pytest.fixture
    def script(self, claimed_lab: Lab, shell: list[str]) -> ProcdScript:
        return ProcdScript(claimed_lab, shell)

    def test_the_agent_runs_as_procds_own_child(self, script: ProcdScript):
        agent = script.do("start_service")
        script.lab.broker.expect_session()
        assert agent.processes() == [agent.pid]  # in the foreground, without a watchdog
        assert agent.stop() == 0

    def test_procd_starts_it_again_and_takes_its_log(self, script: ProcdScript):
        script.do("start_service")
        script.lab.broker.expect_session()
        loaded, opened, command, *rest = script.notes()
        assert (loaded, opened) == ("config_load orvel", "procd_open_instance")
        assert command.startswith(f"procd_set_param command {default_binary()} --hardware_id {script.lab.hardware_id} ")
        assert rest == ["procd_set_param respawn 3600 10 0", "procd_set_param stderr 1", "procd_close_instance"]

    def test_a_reload_is_a_new_agent(self, script: ProcdScript):
        first = script.do("start_service")
        script.lab.broker.expect_session()
        second = script.do("reload_service")
        assert first.wait() == 0
        script.lab.broker.expect_session()
        assert second.processes() == [second.pid]
        assert second.stop() == 0

    def test_a_change_of_the_configuration_is_a_reason_to_reload(self, script: ProcdScript):
        assert script.do("service_triggers").wait() == 0
        assert script.notes() == ["procd_add_reload_trigger orvel"]

    def test_nothing_starts_before_it_is_switched_on(self, script: ProcdScript):
        del script.environment["uci_enabled"]
        assert script.do("start_service").wait() == 0
        assert script.notes() == ["config_load orvel"]


class TestUnit:
    def shipped_options(self) -> str:
        command = ["sh", "-c", f'. {DEFAULTS}; printf %s "$ORVEL_OPTIONS"']
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout

    def command_line(self, lab: Lab) -> str:
        """The unit's for a shell, with the tested program, and with the lab's folder in place of that in /run.

        To systemd ${NAME} is one word, even when it is empty, and $NAME as many as it holds.
        """
        lines = UNIT.read_text().replace("\\\n", " ").splitlines()
        (command,) = [line.removeprefix("ExecStart=") for line in lines if line.startswith("ExecStart=")]
        command = re.sub(r"(\$\{\w+\})", r'"\1"', command)
        return command.replace("/usr/bin/orvel", str(default_binary())).replace("%t/orvel", str(lab.folder))

    def test_its_command_line_starts_an_agent_with_the_shipped_options(self, claimed_lab: Lab):
        port = claimed_lab.reserve_port()
        options = " ".join([self.shipped_options(), *options_of(claimed_lab, port)])
        environment = {"ORVEL_HARDWARE_ID": claimed_lab.hardware_id, "ORVEL_OPTIONS": options}
        agent = start(claimed_lab, ["sh", "-c", f"exec {self.command_line(claimed_lab)}"], port, environment)
        claimed_lab.broker.expect_session()
        assert agent.processes() == [agent.pid]
        assert agent.stop() == 0
        assert not agent.log_file.exists()

    def test_without_an_id_it_fails_and_says_so(self, lab: Lab):
        environment = {"ORVEL_HARDWARE_ID": "", "ORVEL_OPTIONS": self.shipped_options()}
        command = ["sh", "-c", f"exec {self.command_line(lab)}"]
        agent = start(lab, command, lab.reserve_port(), environment)
        assert agent.wait() == 255
        assert "Please specify hardware_id" in agent.output
