"""The bill of materials that comes with a package: complete, and missed when it is not."""

from __future__ import annotations

import json
import shutil
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest
from orvel_lab.agent import default_binary

TOOL = Path(__file__).resolve().parents[2] / "scripts" / "sbom.py"
CONTROL = """Package: orvel
Version: {version}
Architecture: all
Maintainer: nobody <nobody@orvel.example>
Description: a test's package
"""


def sbom(*arguments: object) -> subprocess.CompletedProcess[str]:
    return subprocess.run([TOOL, *map(str, arguments)], capture_output=True, text=True, check=False)


def make_package(folder: Path, version: int) -> Path:
    """With the agent and nothing else."""
    (folder / "tree/DEBIAN").mkdir(parents=True)
    (folder / "tree/usr/bin").mkdir(parents=True)
    (folder / "tree/DEBIAN/control").write_text(CONTROL.format(version=version))
    shutil.copy(default_binary(), folder / "tree/usr/bin/orvel")
    path = folder / "orvel.deb"
    subprocess.run(["dpkg-deb", "--root-owner-group", "-z0", "--build", folder / "tree", path], check=True)
    return path


@pytest.fixture(scope="module")
def deb(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return make_package(tmp_path_factory.mktemp("package"), version=1)


@pytest.fixture(scope="module")
def written(deb: Path) -> str:
    path = deb.with_suffix(".json")
    result = sbom("write", deb, path)
    assert result.returncode == 0, result.stderr
    return path.read_text()


@pytest.fixture
def bill(written: str, tmp_path: Path) -> Path:
    """The test's own copy."""
    path = tmp_path / "bill.json"
    path.write_text(written)
    return path


def test_it_names_each_library_that_the_agent_asks_for(deb: Path, bill: Path):
    asked = subprocess.run(["objdump", "-p", default_binary()], check=True, capture_output=True, text=True).stdout
    needed = {line.split()[1] for line in asked.splitlines() if line.strip().startswith("NEEDED")}
    packages = json.loads(bill.read_text())["packages"]
    assert needed <= {name for package in packages for name in package.get("summary", "").split()}
    assert {"orvel", "usi"} < {package["name"] for package in packages}
    assert sbom("check", deb, bill).returncode == 0


def test_it_says_from_which_version_each_library_is(bill: Path):
    packages = {package["name"]: package for package in json.loads(bill.read_text())["packages"]}
    installed = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", "libcurl4"], check=True, capture_output=True)
    assert packages["libcurl4"]["versionInfo"] == installed.stdout.decode()


def without(path: str) -> Callable[[dict], None]:
    """Takes a field away: `path` is its names and indexes, with dots."""

    def change(document: dict) -> None:
        *way, last = [int(word) if word.isdigit() else word for word in path.split(".")]
        for step in way:
            document = document[step]
        del document[last]

    return change


def name_nobody(document: dict) -> None:
    document["relationships"][0]["relatedSpdxElement"] = "SPDXRef-nobody"


@pytest.mark.parametrize(
    ("change", "complaint"),
    [
        (without("documentNamespace"), "document: documentNamespace is None"),
        (without("creationInfo"), "creationInfo: created is None"),
        (without("packages.0.versionInfo"), "versionInfo is None"),
        (without("packages.0"), "which is no package here"),
        (without("packages"), "is not named"),
        (without("relationships"), "nothing says what the document describes"),
        (name_nobody, "'SPDXRef-nobody'"),
    ],
)
def test_what_is_missing_is_noticed(deb: Path, bill: Path, change: Callable[[dict], None], complaint: str):
    document = json.loads(bill.read_text())
    change(document)
    bill.write_text(json.dumps(document))
    result = sbom("check", deb, bill)
    assert result.returncode == 1 and complaint in result.stderr


def test_a_bill_of_another_package_is_noticed(bill: Path, tmp_path: Path):
    other = make_package(tmp_path / "other", version=2)
    assert "no package has the checksum" in sbom("check", other, bill).stderr
