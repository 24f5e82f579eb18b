"""docs/writing-a-handler.md does what it says: its commands are run, one after the other, in one shell."""

from __future__ import annotations

import os
import re
import shlex
import signal
import subprocess
import tempfile
from collections.abc import Iterator
from pathlib import Path

import pytest
from orvel_lab import DEADLINE
from orvel_lab.agent import default_binary

ROOT = Path(__file__).resolve().parents[2]
DOCUMENT = ROOT / "docs" / "writing-a-handler.md"
BLOCK = re.compile(r"^```(\w*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)

# `expect` runs a command once; `look` repeats one that only looks, until it shows what it is to show.
FUNCTIONS = """
set -eu
step() { echo "== $1" >&2; }
differs() { echo "it is: $2, not: $3" >&2; exit 1; }
expect() { local shown; shown=$(eval "$1"); [[ $shown == "$2" ]] || differs "$1" "$shown" "$2"; }
look() {
  local shown end=$((SECONDS + DEADLINE))
  until shown=$(eval "$1" 2>/dev/null) && [[ $shown == "$2" ]]; do
    [[ $SECONDS -lt $end ]] || differs "$1" "$shown" "$2"
    sleep 0.05
  done
}
"""


def blocks() -> list[tuple[str, str]]:
    """Kind and text of each."""
    return BLOCK.findall(DOCUMENT.read_text())


def script() -> str:
    """`sh` is commands, `text` behind them what they print; `console` is not run."""
    parts = [FUNCTIONS]
    found = blocks()
    for (kind, text), (next_kind, shown) in zip(found, [*found[1:], ("", "")]):
        if kind != "sh":
            continue
        parts.append(f"step {shlex.quote(text.splitlines()[0])}\n")
        if next_kind == "text":
            how = "look" if text.startswith("cat ") else "expect"
            parts.append(f"{how} {shlex.quote(text)} {shlex.quote(shown.strip())}\n")
        else:
            parts.append(text)
    return "".join(parts)


@pytest.fixture
def project() -> Iterator[Path]:
    """A folder that looks like the project's, with a short path and with the programs under test as its build."""
    with tempfile.TemporaryDirectory(prefix="orvel-document-") as name:
        folder = Path(name)
        for entry in ("lab", "examples", "scripts"):
            (folder / entry).symlink_to(ROOT / entry)
        (folder / "build").mkdir()
        (folder / "build" / "bin").symlink_to(default_binary().parent.resolve())
        yield folder


def test_its_commands_do_what_it_says(own_network: None, project: Path):
    environment = {
        **os.environ,
        "ORVEL_BIN": str(default_binary().resolve()),
        "DEADLINE": str(int(DEADLINE)),
        "PYTHONDONTWRITEBYTECODE": "1",
    }
    log = project / "log"
    with log.open("w") as output:
        shell = subprocess.Popen(
            ["bash", "-c", script()],
            cwd=project,
            env=environment,
            stdin=subprocess.DEVNULL,
            stdout=output,
            stderr=subprocess.STDOUT,
            start_new_session=True,
        )
        try:
            status = shell.wait(4 * DEADLINE)
        finally:
            end_session(shell.pid)
    assert status == 0, log.read_text()


def end_session(leader: int) -> None:
    """Whatever a script that failed has left."""
    try:
        os.killpg(leader, signal.SIGKILL)
    except ProcessLookupError:
        pass


def test_nothing_but_installing_and_building_is_left_out():
    assert {kind for kind, _ in blocks()} == {"sh", "text", "console"}
    left_out = "".join(text for kind, text in blocks() if kind == "console")
    assert [line.split()[0] for line in left_out.splitlines()] == ["scripts/install-deps.sh", "cmake"]


def test_the_examples_that_it_names_exist():
    text = DOCUMENT.read_text()
    folders = re.findall(r"\]\(\.\./(examples/handlers/\w+)\)", text)
    suffixes = ["sh", "py", "c", "cpp"]
    assert len(folders) == len(suffixes)
    for folder, suffix in zip(folders, suffixes):
        for kind in ("executable", "unix", "tcp"):
            assert f"`{kind}.{suffix}`" in text and (ROOT / folder / f"{kind}.{suffix}").exists()
