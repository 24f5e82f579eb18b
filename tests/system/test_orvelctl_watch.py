"""orvelctl watch: state documents as they come, and an event_sink setting that is left as it was found."""

from __future__ import annotations

import fcntl
import json
import os
import signal
import socket
import stat
import subprocess
import tempfile
from collections.abc import Callable, Iterator
from contextlib import contextmanager, suppress
from pathlib import Path

import pytest
from orvel_lab import DEADLINE, Agent, Lab, wait_until
from orvelctl_runner import Ctl, assert_complaint

KEY = "q_handler_event_sink"


@pytest.fixture
def runtime() -> Iterator[Path]:
    """A short folder for the sockets, as XDG_RUNTIME_DIR: not in /tmp, where watch makes none."""
    parent = "/run" if os.geteuid() == 0 else Path.home()
    with tempfile.TemporaryDirectory(prefix="orvelctl-", dir=parent) as folder:
        yield Path(folder)


STARTED: list[subprocess.Popen[bytes]] = []


@pytest.fixture(autouse=True)
def leave_none_running() -> Iterator[None]:
    """A watch that a failed test has not ended is killed."""
    yield
    for process in STARTED:
        if process.poll() is None:
            process.kill()
            process.wait()
    STARTED.clear()


def start(lab: Lab, runtime: Path, **options) -> subprocess.Popen[bytes]:
    environment = {**os.environ, "XDG_RUNTIME_DIR": str(runtime)}
    STARTED.append(subprocess.Popen(Ctl(lab).command_line("watch"), env=environment, **options))
    return STARTED[-1]


class Watch:
    """A running watch, in the setting since the constructor is through."""

    def __init__(self, lab: Lab, runtime: Path, output: Path, preexec: Callable[[], None] | None = None) -> None:
        self.output = output
        before = endpoints(lab)
        with open(output, "wb") as file:
            self.process = start(lab, runtime, stdout=file, stderr=subprocess.PIPE, preexec_fn=preexec)
        new = wait_until(lambda: set(endpoints(lab)) - set(before) or self.process.poll(), "the watch's endpoint")
        assert isinstance(new, set), self.end(None)
        self.endpoint = Path(new.pop())

    def documents(self, count: int) -> list[dict[str, object]]:
        """Those printed, once there are `count` of them."""
        return wait_until(lambda: found if len(found := parse_all(self.output.read_text())) >= count else None, "documents")

    def end(self, number: int | None) -> tuple[int, str]:
        if number is not None:
            self.process.send_signal(number)
        _, said = self.process.communicate(timeout=DEADLINE)
        return self.process.returncode, said.decode()


def parse_all(text: str) -> list[dict[str, object]]:
    decoder, found, at = json.JSONDecoder(), [], 0
    while at < len(text):
        try:
            document, at = decoder.raw_decode(text, at)
        except json.JSONDecodeError:
            break  # it is still being written
        found.append(document)
        while at < len(text) and text[at].isspace():
            at += 1
    return found


def endpoints(lab: Lab) -> list[str]:
    return [endpoint for endpoint in (lab.setting(KEY) or "").split(",") if endpoint]


@pytest.fixture
def lab(make_lab: Callable[..., Lab]) -> Lab:
    lab = make_lab(registered=True, tls=False)
    lab.write_settings()
    return lab


@pytest.fixture
def agent(lab: Lab) -> Agent:
    agent = lab.start_agent("--log_info")
    agent.wait_for_line("Connection to qCloud won't be established.")
    lab.event_sink.wait_for_document(event=0)
    return agent


def send(endpoint: Path, document: bytes) -> None:
    """Ends when the watch has taken it all."""
    with socket.socket(socket.AF_UNIX) as connection:
        connection.settimeout(DEADLINE)
        connection.connect(str(endpoint))
        connection.sendall(document)
        connection.shutdown(socket.SHUT_WR)
        assert connection.recv(1) == b""


@contextmanager
def closing_descriptor(path: Path) -> Iterator[int]:
    descriptor = os.open(path, os.O_RDONLY)
    try:
        yield descriptor
    finally:
        os.close(descriptor)


class TestDocuments:
    def test_each_comes_to_the_watch_and_to_the_others(self, lab: Lab, agent: Agent, runtime: Path, tmp_path: Path):
        before = lab.setting(KEY)
        watch = Watch(lab, runtime, tmp_path / "out")
        assert endpoints(lab) == [before, str(watch.endpoint)]
        agent.signal(signal.SIGUSR2)
        assert [document["event"] for document in watch.documents(1)] == [1]
        Ctl(lab, agent).expect(0, "done\n", "claim", "--service", "s")
        assert {document["event"] for document in watch.documents(3)[1:3]} == {3, 4}
        lab.event_sink.wait_for_document(event=3)
        assert watch.end(signal.SIGINT) == (0, "")
        assert lab.setting(KEY) == before

    def test_two_watches_get_the_same(self, lab: Lab, agent: Agent, runtime: Path, tmp_path: Path):
        before = lab.setting(KEY)
        watches = [Watch(lab, runtime, tmp_path / name) for name in "ab"]
        agent.signal(signal.SIGUSR2)
        assert watches[0].documents(1) == watches[1].documents(1)
        assert watches[0].end(signal.SIGTERM) == (0, "")
        agent.signal(signal.SIGUSR2)
        assert len(watches[1].documents(2)) == 2
        assert watches[1].end(signal.SIGTERM) == (0, "")
        assert lab.setting(KEY) == before
        assert len(parse_all(watches[0].output.read_text())) == 1


class TestSetting:
    @pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT, signal.SIGTSTP])
    def test_every_end_takes_the_endpoint_away(self, lab: Lab, runtime: Path, tmp_path: Path, number: int):
        before = lab.setting(KEY)
        watch = Watch(lab, runtime, tmp_path / "out")
        assert stat.S_IMODE(watch.endpoint.stat().st_mode) == 0o600
        assert stat.S_IMODE(watch.endpoint.parent.stat().st_mode) == 0o700
        assert watch.endpoint.parent.parent == runtime
        assert watch.end(number) == (0, "")
        assert lab.setting(KEY) == before
        assert list(runtime.iterdir()) == []

    def test_the_end_of_its_reader_ends_it(self, lab: Lab, runtime: Path):
        before = lab.setting(KEY)
        process = start(lab, runtime, stdout=subprocess.PIPE)
        wait_until(lambda: len(endpoints(lab)) == 2, "the watch's endpoint")
        process.stdout.close()
        assert process.wait(DEADLINE) == 0
        assert lab.setting(KEY) == before
        assert list(runtime.iterdir()) == []

    def test_a_reader_that_takes_nothing_does_not_hold_the_end_up(self, lab: Lab, agent: Agent, runtime: Path):
        before = lab.setting(KEY)
        ours, theirs = os.pipe()
        os.set_blocking(theirs, False)
        with suppress(BlockingIOError):
            while os.write(theirs, bytes(4096)):
                pass
        os.set_blocking(theirs, True)
        process = start(lab, runtime, stdout=theirs)
        wait_until(lambda: len(endpoints(lab)) == 2, "the watch's endpoint")
        for count in (2, 3):
            agent.signal(signal.SIGUSR2)
            lab.event_sink.wait_for_count(count)  # served before the watch, but one after the other
        process.terminate()
        assert process.wait(DEADLINE) == 0
        os.close(ours)
        os.close(theirs)
        assert lab.setting(KEY) == before

    def test_a_reader_that_takes_nothing_holds_no_sender_up(self, lab: Lab, runtime: Path):
        before = endpoints(lab)
        process = start(lab, runtime, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        endpoint = wait_until(lambda: set(endpoints(lab)) - set(before), "the watch's endpoint").pop()
        for _ in range(40):  # 4 MB, which no buffer on the way holds
            send(Path(endpoint), b"x" * 100000)
        process.terminate()
        _, said = process.communicate(timeout=DEADLINE)
        assert process.returncode == 74
        assert_complaint(said.decode(), "documents were dropped")
        assert endpoints(lab) == before

    def test_an_ignored_hangup_stays_ignored(self, lab: Lab, agent: Agent, runtime: Path, tmp_path: Path):
        watch = Watch(lab, runtime, tmp_path / "out", lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
        watch.process.send_signal(signal.SIGHUP)
        agent.signal(signal.SIGUSR2)
        assert len(watch.documents(1)) == 1
        assert watch.end(signal.SIGTERM) == (0, "")

    def test_many_at_once_lose_nothing(self, lab: Lab, runtime: Path):
        before = lab.setting(KEY)
        processes = [start(lab, runtime, stdout=subprocess.DEVNULL) for _ in range(8)]
        wait_until(lambda: len(endpoints(lab)) == 9, "eight endpoints")
        assert endpoints(lab)[0] == before
        for process in processes:
            process.terminate()
        assert [process.wait(DEADLINE) for process in processes] == [0] * 8
        assert lab.setting(KEY) == before
        assert list(runtime.iterdir()) == []

    def test_without_other_endpoints_the_setting_ends_empty(self, lab: Lab, runtime: Path, tmp_path: Path):
        lab.settings.pop(KEY)
        lab.write_settings()
        watch = Watch(lab, runtime, tmp_path / "out")
        assert endpoints(lab) == [str(watch.endpoint)]
        assert watch.end(signal.SIGINT) == (0, "")
        assert lab.setting(KEY) == ""

    def test_another_change_meanwhile_is_kept(self, lab: Lab, runtime: Path, tmp_path: Path):
        watch = Watch(lab, runtime, tmp_path / "out")
        lab.change_setting(KEY, f"/first,{watch.endpoint},/last")
        assert watch.end(signal.SIGINT) == (0, "")
        assert lab.setting(KEY) == "/first,/last"

    def test_a_folder_with_a_comma_is_passed_over(self, lab: Lab, runtime: Path, tmp_path: Path):
        odd = runtime / "a,b"
        odd.mkdir()
        watch = Watch(lab, odd, tmp_path / "out")
        assert watch.endpoint.parent.parent == (Path("/run") if os.geteuid() == 0 else lab.folder)
        assert watch.end(signal.SIGINT) == (0, "")
        assert not watch.endpoint.parent.exists()


    def test_a_runtime_folder_in_a_folder_of_all_is_passed_over(self, lab: Lab, tmp_path: Path):
        with tempfile.TemporaryDirectory(dir="/tmp") as folder:
            watch = Watch(lab, Path(folder), tmp_path / "out")
            assert watch.endpoint.parent.parent == (Path("/run") if os.geteuid() == 0 else lab.folder)
            assert watch.end(signal.SIGINT) == (0, "")


class TestLock:
    """Another orvelctl holds the settings' folder."""

    @pytest.fixture
    def held(self, lab: Lab) -> Iterator[None]:
        with closing_descriptor(lab.settings_path.parent) as folder:
            fcntl.flock(folder, fcntl.LOCK_EX)
            yield

    def test_the_start_gives_up(self, lab: Lab, held: None, runtime: Path):
        before = lab.setting(KEY)
        process = start(lab, runtime, stderr=subprocess.PIPE)
        _, said = process.communicate(timeout=DEADLINE)
        assert process.returncode == 75
        assert_complaint(said.decode(), "another orvelctl keeps changing the settings")
        assert (lab.setting(KEY), list(runtime.iterdir())) == (before, [])

    def test_a_signal_ends_the_waiting_of_the_start(self, lab: Lab, held: None, runtime: Path):
        before = lab.setting(KEY)
        process = start(lab, runtime, stderr=subprocess.PIPE)
        wait_until(lambda: list(runtime.iterdir()), "the watch's socket")
        process.send_signal(signal.SIGINT)
        _, said = process.communicate(timeout=DEADLINE)
        assert (process.returncode, said) == (0, b"")
        assert (lab.setting(KEY), list(runtime.iterdir())) == (before, [])

    def test_a_second_signal_ends_the_waiting_of_the_end(self, lab: Lab, runtime: Path, tmp_path: Path):
        before = lab.setting(KEY)
        watch = Watch(lab, runtime, tmp_path / "out")
        with closing_descriptor(lab.settings_path.parent) as folder:
            fcntl.flock(folder, fcntl.LOCK_EX)
            watch.process.send_signal(signal.SIGINT)
            watch.process.send_signal(signal.SIGTERM)
            status, said = watch.end(None)
        assert status == 0
        assert_complaint(said, f"{KEY} is changed without waiting")
        assert lab.setting(KEY) == before


class TestKilled:
    def test_what_a_killed_watch_leaves_is_found_and_taken_away(self, lab: Lab, runtime: Path, tmp_path: Path):
        before = lab.setting(KEY)
        killed = Watch(lab, runtime, tmp_path / "killed")
        assert killed.end(signal.SIGKILL)[0] == -signal.SIGKILL
        assert endpoints(lab) == [before, str(killed.endpoint)]
        said = Ctl(lab).run("doctor").stdout
        assert f"WRONG {KEY} {killed.endpoint} was left by a watch that was killed\n" in said

        watch = Watch(lab, runtime, tmp_path / "out")
        assert endpoints(lab) == [before, str(watch.endpoint)]
        assert not killed.endpoint.parent.exists()
        assert "was left by" not in Ctl(lab).run("doctor").stdout
        assert watch.end(signal.SIGINT) == (0, "")

    def test_a_living_watch_is_not_taken_for_a_killed_one(self, lab: Lab, agent: Agent, runtime: Path, tmp_path: Path):
        watch = Watch(lab, runtime, tmp_path / "out")
        assert "was left by" not in Ctl(lab).run("doctor").stdout
        agent.signal(signal.SIGUSR2)
        assert [document["event"] for document in watch.documents(1)] == [1]
        assert watch.end(signal.SIGINT) == (0, "")


class TestFailures:
    def run(self, lab: Lab, runtime: Path, *options: object) -> subprocess.CompletedProcess[str]:
        return Ctl(lab, None, *options).run("watch", env={**os.environ, "XDG_RUNTIME_DIR": str(runtime)})

    def test_settings_that_can_not_be_read(self, lab: Lab, runtime: Path):
        result = self.run(lab, runtime, "-c", lab.folder)
        assert (result.returncode, result.stdout) == (74, "")
        assert_complaint(result.stderr, "the settings can't be read")
        assert list(runtime.iterdir()) == []

    def test_settings_of_a_folder_that_was_removed(self, lab: Lab, runtime: Path, tmp_path: Path):
        gone = tmp_path / "gone"
        gone.mkdir()
        environment = {**os.environ, "XDG_RUNTIME_DIR": str(runtime)}
        result = Ctl(lab, None, "-c", "settings").run("watch", cwd=gone, preexec_fn=gone.rmdir, env=environment)
        assert (result.returncode, result.stdout) == (74, "")
        assert_complaint(result.stderr, "settings")
        assert list(runtime.iterdir()) == []

    def test_output_that_is_lost(self, lab: Lab, agent: Agent, runtime: Path):
        before = lab.setting(KEY)
        with open("/dev/full", "wb") as full:
            process = start(lab, runtime, stdout=full, stderr=subprocess.PIPE)
        wait_until(lambda: len(endpoints(lab)) == 2, "the watch's endpoint")
        agent.signal(signal.SIGUSR2)
        _, said = process.communicate(timeout=DEADLINE)
        assert process.returncode == 74
        assert_complaint(said.decode(), "No space left on device")
        assert lab.setting(KEY) == before

    def test_a_setting_that_is_full(self, lab: Lab, runtime: Path):
        value = "/" + "x" * 1000
        lab.change_setting(KEY, value)
        result = self.run(lab, runtime)
        assert (result.returncode, result.stdout) == (74, "")
        assert_complaint(result.stderr, "no room for another endpoint")
        assert lab.setting(KEY) == value
        assert list(runtime.iterdir()) == []
