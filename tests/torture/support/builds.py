"""Builds that an experiment needs in one certain form, in a folder that all experiments share."""

from __future__ import annotations

import fcntl
import os
import shutil
import subprocess
from pathlib import Path

from support.rounds import PROJECT

FOLDER = Path(os.environ.get("ORVEL_TORTURE_BUILD") or PROJECT / "build-torture")
OPTIONS = {
    "Debug": ["-DCMAKE_CXX_FLAGS=-fno-omit-frame-pointer"],  # for whoever follows the frames
    "Release": [],
}


def build(kind: str) -> Path:
    """The folder with the agent and the settings tool; `kind` is "Debug" or "Release"."""
    folder = FOLDER / kind.lower()
    folder.mkdir(parents=True, exist_ok=True)
    launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
    form = ["-G", "Ninja", f"-DCMAKE_BUILD_TYPE={kind}", "-DBUILD_TESTING=OFF", *OPTIONS[kind], *launcher]
    with open(folder / "lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)  # against another experiment that builds the same
        execute("cmake", "-S", PROJECT, "-B", folder, *form)
        execute("cmake", "--build", folder, "--target", "orvel", "usi_tool")
    return folder / "bin"


def compile_c(target: Path, *options: object) -> None:
    """Puts a program or a library in place at once: another experiment may be using the one that is there."""
    target.parent.mkdir(parents=True, exist_ok=True)
    incoming = target.with_name(f"{target.name}.{os.getpid()}")
    execute("gcc", "-std=gnu17", "-Wall", "-Wextra", "-Werror", "-o", incoming, *options)
    os.replace(incoming, target)


def execute(*command: object) -> None:
    """Silent, unless it fails."""
    done = subprocess.run([*map(str, command)], capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, command))}\n{done.stdout}{done.stderr}")
