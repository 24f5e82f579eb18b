"""Fixtures of the system tests: the real agent against a lab of its own for each test."""

from __future__ import annotations

import sys
from collections.abc import Callable, Iterator
from contextlib import ExitStack
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "lab"))

from orvel_lab import Authority, Lab  # noqa: E402  (found only now)

LABS = pytest.StashKey[list[Lab]]()


@pytest.fixture(scope="session")
def certs(tmp_path_factory: pytest.TempPathFactory) -> Authority:
    """The authority that the agents trust (--ca_file); certificates that it has issued are kept for the session."""
    return Authority(tmp_path_factory.mktemp("authority"))


@pytest.fixture(scope="session")
def namesake_certs(tmp_path_factory: pytest.TempPathFactory, certs: Authority) -> Authority:
    """Another authority of the same name, which no agent trusts."""
    return Authority(tmp_path_factory.mktemp("namesake"), name=certs.name)


@pytest.fixture
def make_lab(request: pytest.FixtureRequest, tmp_path: Path, certs: Authority) -> Iterator[Callable[..., Lab]]:
    """Starts labs with options of the test's own; they are stopped, and their agents checked, when it is over."""
    labs = request.node.stash.setdefault(LABS, [])
    with ExitStack() as stack:

        def make(**options) -> Lab:
            folder = tmp_path / f"lab{len(labs) + 1}"
            lab = stack.enter_context(Lab(folder, **{"authority": certs, **options}))
            labs.append(lab)
            return lab

        yield make


@pytest.fixture
def lab(make_lab: Callable[..., Lab]) -> Lab:
    """A lab with a cloud that knows no device yet, and a broker over TLS."""
    return make_lab()


@pytest.fixture
def claimed_lab(make_lab: Callable[..., Lab]) -> Lab:
    """A lab whose device is registered and claimed: its agent connects at once."""
    return make_lab(registered=True, claimed=True)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item, call: pytest.CallInfo[None]):
    """A failed test shows the log of each of its agents."""
    report = (yield).get_result()
    if report.failed:
        for lab in item.stash.get(LABS, []):
            for agent in lab.agents:
                report.sections.append((f"log of agent {agent.pid}", agent.log))
