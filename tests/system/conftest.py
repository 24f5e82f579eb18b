"""Fixtures of the system tests: the real agent against a lab of its own for each test."""

from __future__ import annotations

import os
import signal
import sys
from collections.abc import Callable, Iterator
from contextlib import ExitStack
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "lab"))

from console_site import ConsoleSite, MakeConsole  # noqa: E402  (found only now)
from documents import bad_documents  # noqa: E402
from orvel_lab import Authority, Lab  # noqa: E402
from orvel_lab.network import private_network  # noqa: E402
from orvel_lab.real_proxies import RealProxy  # noqa: E402
from real_proxy_site import MakeSite, Site  # noqa: E402
from running_lab import Running  # noqa: E402
from webdriver import Browser  # noqa: E402

LABS = pytest.StashKey[list[Lab]]()


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line("markers", "breaks(*schemas): the test says what does not fit these schemas, on purpose")
    # Whoever starts the tests in the background, or by nohup, has these ignored, and programs would inherit that.
    for number, action in {
        signal.SIGINT: signal.default_int_handler,
        signal.SIGQUIT: signal.SIG_DFL,
        signal.SIGHUP: signal.SIG_DFL,
    }.items():
        if signal.getsignal(number) == signal.SIG_IGN:
            signal.signal(number, action)


@pytest.fixture(scope="session")
def certs(tmp_path_factory: pytest.TempPathFactory) -> Authority:
    """The authority that the agents trust (--ca_file); certificates that it has issued are kept for the session."""
    return Authority(tmp_path_factory.mktemp("authority"))


@pytest.fixture(scope="session")
def namesake_certs(tmp_path_factory: pytest.TempPathFactory, certs: Authority) -> Authority:
    """Another authority of the same name, which no agent trusts."""
    return Authority(tmp_path_factory.mktemp("namesake"), name=certs.name)


@pytest.fixture
def own_network() -> Iterator[None]:
    """All that the test starts lives in a network of its own: ports are free there, and rules concern nobody else."""
    if os.geteuid() != 0:
        pytest.skip("a network of one's own needs root")
    with private_network():
        yield


@pytest.fixture
def make_lab(request: pytest.FixtureRequest, tmp_path: Path, certs: Authority) -> Iterator[Callable[..., Lab]]:
    """Starts labs with options of the test's own; they are stopped, and their agents checked, when it is over.

    So is everything that was said, against the schemas, but for those that the mark `breaks` names.
    """
    labs = request.node.stash.setdefault(LABS, [])
    with ExitStack() as stack:

        def make(**options) -> Lab:
            folder = tmp_path / f"lab{len(labs) + 1}"
            lab = stack.enter_context(Lab(folder, **{"authority": certs, **options}))
            labs.append(lab)
            return lab

        yield make
    tolerated = tuple(name for mark in request.node.iter_markers("breaks") for name in mark.args)
    assert not [text for lab in labs for text in bad_documents(lab, tolerated=tolerated)]


@pytest.fixture
def make_site(own_network: None, make_lab: Callable[..., Lab]) -> Iterator[MakeSite]:
    """Starts a proxy and a lab of which everything but that proxy is kept away; nobody may have tried otherwise."""
    sites: list[Site] = []
    with ExitStack() as stack:

        def make(proxy: RealProxy, **options) -> Site:
            sites.append(Site(make_lab, stack, proxy, **options))
            return sites[-1]

        yield make
        for site in sites:
            print(site.proxy.log)  # shown when the test has failed
            assert site.firewall.past == 0


@pytest.fixture
def lab(make_lab: Callable[..., Lab]) -> Lab:
    """A lab with a cloud that knows no device yet, and a broker over TLS."""
    return make_lab()


@pytest.fixture
def claimed_lab(make_lab: Callable[..., Lab]) -> Lab:
    """A lab whose device is registered and claimed: its agent connects at once."""
    return make_lab(registered=True, claimed=True)


@pytest.fixture
def plain_lab(make_lab: Callable[..., Lab]) -> Lab:
    """A claimed lab whose broker link is plain TCP."""
    return make_lab(registered=True, claimed=True, tls=False)


@pytest.fixture
def up(tmp_path: Path) -> Iterator[Callable[..., Running]]:
    """Starts labs that are ended with the test."""
    started: list[Running] = []

    def start(*options: str, folder: Path = tmp_path / "lab") -> Running:
        started.append(Running(folder, *options))
        return started[-1]

    yield start
    for running in started:
        if running.process.poll() is None:
            running.stop()
        assert running.sanitizer_reports() == []


@pytest.fixture(scope="session")
def browser(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Browser]:
    """One for all tests of the session: starting it takes longer than most of them."""
    started = Browser(tmp_path_factory.mktemp("browser"))
    yield started
    started.stop()


@pytest.fixture
def make_console(up: Callable[..., Running], browser: Browser, tmp_path: Path) -> Iterator[MakeConsole]:
    """Starts a lab with a console and opens its page, about which the browser may have nothing to complain."""
    browser.show_as()

    def make(*options: str) -> ConsoleSite:
        return ConsoleSite(up("--console", *options), browser, tmp_path / "screenshots")

    yield make
    complaints = browser.complaints()
    browser.open("about:blank")
    assert not complaints


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item, call: pytest.CallInfo[None]):
    """A failed test shows the log of each of its agents."""
    report = (yield).get_result()
    if report.failed:
        for lab in item.stash.get(LABS, []):
            for agent in lab.agents:
                report.sections.append((f"log of agent {agent.pid}", agent.log))
