"""The handlers in examples/handlers: four languages, three kinds, the real agent, and what goes wrong around them."""

from __future__ import annotations

import random
import shutil
import signal
import socket
import stat
import struct
import subprocess
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from example_handler import EXAMPLES, SUFFIXES, Example, children
from orvel_lab import Lab, wait_until

LANGUAGES = list(SUFFIXES)
LISTENING_KINDS = ["tcp", "unix"]
KINDS = [*LISTENING_KINDS, "executable"]
PAYLOADS = [
    b"",
    b"x",
    b"\0",
    bytes(range(256)) * 3 + b"\0\n",
    random.Random(1).randbytes(70_000),
    random.Random(2).randbytes(1_000_000),
]
SILENT_SENDER_DEADLINE = 120
RESET_ON_CLOSE = struct.pack("ii", 1, 0)

every_language = pytest.mark.parametrize("language", LANGUAGES)
every_kind = pytest.mark.parametrize("kind", KINDS)
every_listening_kind = pytest.mark.parametrize("kind", LISTENING_KINDS)
MakeExample = Callable[[str, str], Example]


@pytest.fixture
def make_example(tmp_path: Path) -> Iterator[MakeExample]:
    made: list[Example] = []

    def make(language: str, kind: str) -> Example:
        made.append(Example(tmp_path, language, kind))
        return made[-1]

    yield make
    for example in made:
        example.close()


@pytest.fixture
def listening(make_example: MakeExample) -> MakeExample:
    def make(language: str, kind: str) -> Example:
        example = make_example(language, kind)
        example.start()
        return example

    return make


@pytest.fixture
def lab(make_lab: Callable[..., Lab]) -> Lab:
    """A claimed device whose broker link is plain TCP."""
    return make_lab(registered=True, claimed=True, tls=False)


def start_under_agent(lab: Lab, example: Example):
    """The example as the handler meter of a connected agent: agent and session."""
    if example.kind != "executable":
        example.start()
    lab.settings["q_handler_meter"] = example.endpoint
    agent = lab.start_agent("--log_debug", environment={"HANDLER_FOLDER": str(example.folder)})
    return agent, lab.broker.expect_session()


def begin_message(example: Example, begin: bytes) -> socket.socket:
    """A sender whose message the example has begun to take."""
    sender = example.connect()
    sender.sendall(begin)
    wait_until(example.parts, "a file for the message")
    return sender


def mode(path: Path) -> int:
    return stat.S_IMODE(path.stat().st_mode)


@every_language
@every_kind
class TestWithTheAgent:
    def test_each_message_arrives_byte_for_byte(self, lab: Lab, make_example: MakeExample, language: str, kind: str):
        example = make_example(language, kind)
        agent, session = start_under_agent(lab, example)
        for count, payload in enumerate(PAYLOADS, start=1):
            session.send_message("meter", payload)
            example.wait_kept(*PAYLOADS[:count])
        assert agent.stop() == 0

    def test_a_burst_of_messages_is_kept_and_leaves_no_zombies(
        self, lab: Lab, make_example: MakeExample, language: str, kind: str
    ):
        example = make_example(language, kind)
        agent, session = start_under_agent(lab, example)
        messages = [b"message %d" % number for number in range(50)]
        for message in messages:
            session.send_message("meter", message)
        # What starts a program for each message has no order: they run at the same time.
        example.wait_kept(*messages, in_order=language != "shell" and kind != "executable")
        parent = example.process.pid if example.process else agent.pid
        wait_until(lambda: not children(parent), "no children")

    def test_what_it_keeps_is_for_its_owner_only(
        self, lab: Lab, make_example: MakeExample, language: str, kind: str
    ):
        example = make_example(language, kind)
        _, session = start_under_agent(lab, example)
        session.send_message("meter", b"secret")
        example.wait_kept(b"secret")
        assert [mode(path) for path in example.folder.iterdir()] == [0o600]
        if kind == "unix":
            assert mode(example.socket) & 0o077 == 0


@every_language
@every_listening_kind
class TestLifeOfAListener:
    @pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
    def test_a_signal_ends_it_and_takes_the_socket_away(
        self, listening: MakeExample, language: str, kind: str, number: int
    ):
        example = listening(language, kind)
        example.send(b"message")
        example.wait_kept(b"message")
        # socat, which the shell's one becomes, ends with the status of a program that the signal has killed.
        assert example.stop(number) == (128 + number if language == "shell" else 0)
        assert not example.socket.exists()

    def test_a_message_that_is_coming_in_at_the_stop_is_kept(self, listening: MakeExample, language: str, kind: str):
        example = listening(language, kind)
        with begin_message(example, b"begin, ") as sender:
            example.process.send_signal(signal.SIGTERM)
            sender.sendall(b"end")
        example.wait_kept(b"begin, end")
        example.wait_ended()

    def test_after_a_kill_it_can_be_started_again(self, listening: MakeExample, language: str, kind: str):
        example = listening(language, kind)
        example.stop(signal.SIGKILL)
        assert example.socket.exists() == (kind == "unix")
        example.start()
        example.send(b"message")
        example.wait_kept(b"message")


@every_language
def test_a_message_that_is_cut_by_a_reset_is_not_kept(listening: MakeExample, language: str):
    example = listening(language, "tcp")
    sender = begin_message(example, b"begin")
    sender.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET_ON_CLOSE)
    sender.close()
    wait_until(lambda: not example.parts(), "the begin is thrown away")
    example.send(b"next")
    example.wait_kept(b"next")


@every_language
def test_a_file_that_is_no_socket_is_left_alone(make_example: MakeExample, language: str):
    example = make_example(language, "unix")
    example.socket.write_text("precious")
    example.start_unwatched()
    assert example.wait_ended() not in (0, 2)
    assert example.socket.read_text() == "precious"


def test_a_sender_that_says_nothing_more_is_given_up_by_all_of_them(listening: MakeExample):
    examples = [listening(language, kind) for language in LANGUAGES for kind in LISTENING_KINDS]
    senders = [begin_message(example, b"begin") for example in examples]
    for example, sender in zip(examples, senders):
        with sender:
            sender.settimeout(SILENT_SENDER_DEADLINE)
            assert sender.recv(1) == b""
        example.send(b"next")
        example.wait_kept(b"next")


@pytest.mark.parametrize("program", sorted(EXAMPLES.glob("*/*.sh")), ids=lambda path: path.name)
@pytest.mark.skipif(shutil.which("shellcheck") is None, reason="needs shellcheck")
def test_shellcheck_has_nothing_to_say(program: Path):
    subprocess.run(["shellcheck", program], check=True)
