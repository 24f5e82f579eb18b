"""Builds of the agent that an experiment needs in one certain form."""

from __future__ import annotations

import os
import shutil
import subprocess
from pathlib import Path

from support.rounds import PROJECT

FOLDER = Path(os.environ.get("ORVEL_TORTURE_BUILD") or PROJECT / "build-torture")


def build(kind: str, *options: str) -> Path:
    """The folder with the agent and the settings tool; `kind` is "Debug" or "Release"."""
    folder = FOLDER / kind.lower()
    launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
    form = ["-G", "Ninja", f"-DCMAKE_BUILD_TYPE={kind}", "-DBUILD_TESTING=OFF", *launcher, *options]
    _run("cmake", "-S", PROJECT, "-B", folder, *form)
    _run("cmake", "--build", folder, "--target", "orvel", "usi_tool")
    return folder / "bin"


def _run(*command: object) -> None:
    done = subprocess.run([*map(str, command)], capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, command))}\n{done.stdout}{done.stderr}")
