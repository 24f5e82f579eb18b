"""The completions of orvelctl: they know the commands and options that its help shows, and no others."""

from __future__ import annotations

import re
import shutil
import subprocess
from pathlib import Path

import pytest
from orvelctl_runner import run_orvelctl

FOLDER = Path(__file__).resolve().parents[2] / "packaging" / "completion"
BASH = FOLDER / "orvelctl.bash"
ZSH = FOLDER / "_orvelctl"
LONG_OPTION = re.compile(r"--[a-z_-]+")


def help_text(*command: str) -> str:
    result = run_orvelctl(*command, "--help")
    assert result.returncode == 0
    return result.stdout


def options_in_help(*command: str) -> set[str]:
    """The long options at the beginning of its lines."""
    lines = (line.split("  ")[1] for line in help_text(*command).splitlines() if line.startswith("  -"))
    return {option for names in lines for option in LONG_OPTION.findall(names)}


def commands_in_help() -> set[str]:
    listed = help_text().partition("Subcommands:\n")[2].partition("\n\n")[0]
    return {line.split()[0] for line in listed.splitlines()}


COMMANDS = [
    "claim", "release", "discover", "pause", "resume", "registered", "raw", "status", "watch", "send-test", "doctor",
]  # fmt: skip


def global_options() -> set[str]:
    return options_in_help() - {"--version"}


def complete(*words: str) -> set[str]:
    """What bash offers for the last word."""
    script = 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _orvelctl; printf "%s\\n" "${COMPREPLY[@]}"'
    command = ["bash", "-c", script, "bash", str(BASH), "orvelctl", *words]
    result = subprocess.run(command, capture_output=True, text=True, check=True)
    assert result.stderr == ""
    return set(result.stdout.split())


def test_the_help_knows_these_commands():
    assert commands_in_help() == set(COMMANDS)


class TestBash:
    def test_commands_are_offered(self):
        assert complete("") == set(COMMANDS)
        assert complete("--timeout", "5", "re") == {"release", "resume", "registered"}
        assert complete("--timeout", "re") == set()

    def test_global_options_are_offered_first(self):
        assert complete("--") == options_in_help()

    @pytest.mark.parametrize("command", COMMANDS)
    def test_options_of_a_command_are_those_of_its_help(self, command: str):
        assert complete(command, "--") == options_in_help(command) | global_options()
        assert complete("-c", "file", command, "--") == options_in_help(command) | global_options()

    def test_values_are_offered(self, tmp_path: Path):
        (tmp_path / "settings").write_text("q_handler_lamp=/bin/cat\n q_handler_meter =/bin/cat\nq_other=1\n")
        assert complete("claim", "--claimed", "") == {"true", "false"}
        assert complete("-c", f"{tmp_path}/s") == {f"{tmp_path}/settings"}
        assert complete("-c", f"{tmp_path}/settings", "send-test", "") == {"lamp", "meter"}
        assert complete("send-test", "lamp", "--file", f"{tmp_path}/") == {f"{tmp_path}/settings"}
        assert complete("doctor", "--ca_path", f"{tmp_path.parent}/{tmp_path.name[:-1]}") >= {str(tmp_path)}

    @pytest.mark.parametrize("name", ["$(touch${IFS}pwned)", "`touch${IFS}pwned`", "lamp$(touch${IFS}pwned)", "a;touch${IFS}pwned"])
    def test_names_are_no_commands(self, tmp_path: Path, monkeypatch: pytest.MonkeyPatch, name: str):
        monkeypatch.chdir(tmp_path)
        (tmp_path / "settings").write_text(f"q_handler_{name}=x\nq_handler_l.2-b_C=x\n")
        assert complete("-c", "settings", "send-test", "") == {"l.2-b_C"}
        assert complete("-c", "settings", "send-test", "$(touch pwned)") == set()
        assert list(tmp_path.iterdir()) == [tmp_path / "settings"]


class TestZsh:
    text = ZSH.read_text()

    def section(self, command: str) -> str:
        """The branch of a command in the second case; the one of all others when it has none."""
        branches = re.split(r";;\n", self.text.partition("case $words[1] in")[2])
        named = [branch for branch in branches if command in re.split(r"[|\s]+", branch.partition(")")[0].strip())]
        return (named or [branch for branch in branches if branch.strip().startswith("*)")])[0]

    def test_commands_are_those_of_the_help(self):
        listed = self.text.partition("commands=(")[2].partition("\n  )")[0]
        assert set(re.findall(r"'([a-z-]+):", listed)) == set(COMMANDS)

    def test_global_options_are_those_of_the_help(self):
        listed = self.text.partition("globals=(")[2].partition("\n  )")[0]
        assert set(LONG_OPTION.findall(listed)) == global_options()
        assert "--version" in self.text

    @pytest.mark.parametrize("command", COMMANDS)
    def test_options_of_a_command_are_those_of_its_help(self, command: str):
        section = self.section(command)
        assert "_arguments $globals" in section
        assert set(re.findall(r"'(--[a-z_-]+)\[", section)) == options_in_help(command) - {"--help"}

    def test_names_are_no_commands(self, tmp_path: Path):
        if shutil.which("zsh") is None:
            pytest.skip("there is no zsh")
        (tmp_path / "settings").write_text("q_handler_$(touch${IFS}pwned)=x\nq_handler_`touch pwned`=x\n q_handler_lamp =x\n")
        function = self.text.partition("_orvelctl_handlers() {")[2].partition("\n}\n")[0]
        script = "settings=settings; compadd() { print -l -- $@ }; handlers_of() {" + function + "\n}; handlers_of"
        said = subprocess.run(["zsh", "-c", script], cwd=tmp_path, capture_output=True, text=True, check=True)
        assert (said.stdout.split(), said.stderr) == (["--", "lamp"], "")
        assert list(tmp_path.iterdir()) == [tmp_path / "settings"]

    def test_its_syntax_is_right(self):
        if shutil.which("zsh") is None:
            pytest.skip("there is no zsh")
        subprocess.run(["zsh", "-n", ZSH], check=True)
