"""Does a library die of a fault by itself? Asked of a program that uses the libraries as the agent does, without it."""

from __future__ import annotations

import os
import subprocess
import tempfile
from collections.abc import Sequence
from pathlib import Path

from .points import Point, Site, Table


def dies_by_itself(command: Sequence[str | Path], shim: Path, point: Point) -> bool:
    with tempfile.TemporaryDirectory(prefix="orvel-faults-") as folder:
        counting = Table(Path(folder) / "count", None)
        assert _run(command, shim, counting) == 0, "it dies without any fault"
        same = next((site for site in counting.calls() if _is_same(site, point.site)), None)
        if same is None:
            return False
        table = Table(Path(folder) / "fault", Point(same, point.call, point.error))
        return _run(command, shim, table) < 0


def _is_same(site: Site, other: Site) -> bool:
    return (site.function, site.library, site.path) == (other.function, other.library, other.path)


def _run(command: Sequence[str | Path], shim: Path, table: Table) -> int:
    faults = {"LD_PRELOAD": str(shim), "FAULTS_PROGRAM": str(command[0]), "FAULTS_STATE": str(table.path)}
    return subprocess.run(command, env={**os.environ, **faults}, capture_output=True, check=False).returncode
