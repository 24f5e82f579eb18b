"""Runs orvelctl on the settings and the agent of a lab."""

from __future__ import annotations

import subprocess
from collections.abc import Sequence

from orvel_lab import DEADLINE, Agent, Lab
from orvel_lab.agent import default_binary

PROGRAM = default_binary().with_name("orvelctl")
Result = subprocess.CompletedProcess[str]


def run_orvelctl(*arguments: object, **options) -> Result:
    options = {"capture_output": True, "text": True, "timeout": 2 * DEADLINE, "input": "", **options}
    return subprocess.run([str(PROGRAM), *map(str, arguments)], check=False, **options)


class Ctl:
    """Its options name the lab's files and, with an agent, that agent's port and pid file."""

    def __init__(self, lab: Lab, agent: Agent | None = None, *options: object) -> None:
        if not lab.settings_path.exists():
            lab.write_settings()
        files = ["-c", lab.settings_path, "--usi_profile", lab.folder / "profile", "--usi_conf", lab.folder / "usi.conf"]
        port = agent.control.port if agent else lab.reserve_port()
        pid_file = agent.pid_file if agent else lab.folder / "orvel.pid"
        self.options = [*files, "--control_port", port, "--pid_file", pid_file, *options]

    def command_line(self, *arguments: object) -> list[str]:
        return [str(word) for word in (PROGRAM, *self.options, *arguments)]

    def run(self, *arguments: object, **options) -> Result:
        return run_orvelctl(*self.options, *arguments, **options)

    def expect(self, status: int, output: str, *arguments: object, **options) -> None:
        """It says this on standard output and nothing on standard error."""
        result = self.run(*arguments, **options)
        assert (result.returncode, result.stdout, result.stderr) == (status, output, "")

    def expect_error(self, status: int, text: str, *arguments: object, **options) -> None:
        """It says nothing on standard output, and one line with this text on standard error."""
        result = self.run(*arguments, **options)
        assert (result.returncode, result.stdout) == (status, ""), result.stderr
        assert_complaint(result.stderr, text)


def assert_complaint(said: str, text: str) -> None:
    lines: Sequence[str] = said.splitlines()
    assert len(lines) == 1 and lines[0].startswith("orvelctl: ") and text in lines[0], said
