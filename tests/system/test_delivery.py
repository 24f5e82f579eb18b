"""From the broker's messages to the handlers: three kinds of them, the ways in which they fail, and the queue."""

from __future__ import annotations

import os
import random
import re
import shlex
import signal
from collections.abc import Callable
from pathlib import Path

import pytest
from orvel_lab import Agent, Lab, Session, wait_until
from orvel_lab.packets import plain_message

MAX_CHUNK = 65535
TOO_LONG_TO_BE_BUFFERED = bytes(1_000_000)
QUEUE_ITEMS = 1000
QUEUE_BYTES = 4_000_000
OVERHEAD = 24  # bytes that each queued message costs besides its payload and its handler's name


@pytest.fixture
def lab(make_lab: Callable[..., Lab]) -> Lab:
    """A claimed device whose broker link is plain TCP."""
    return make_lab(registered=True, claimed=True, tls=False)


def connect(lab: Lab) -> tuple[Agent, Session]:
    """An agent with its whole log, and its session, once everything before the first message has been delivered."""
    agent = lab.start_agent("--log_debug")
    session = lab.broker.expect_session()
    lab.event_sink.wait_for_document(event=4, connected=True)
    return agent, session


def add_program(lab: Lab, name: str, text: str, mode: int = 0o755) -> Path:
    """An executable file of the test's own as the handler `name`."""
    path = lab.folder / name
    path.write_text(text)
    path.chmod(mode)
    lab.settings[f"q_handler_{name}"] = str(path)
    return path


def lines_after(agent: Agent, text: str) -> list[str]:
    """What the agent has said since it said this last."""
    lines = agent.log.split("\n")
    last = max(index for index, line in enumerate(lines) if text in line)
    return lines[last + 1 :]


def children(agent: Agent) -> list[int]:
    """The agent's children, those included that have ended and that nobody has waited for."""

    def parent(stat: Path) -> int:
        try:
            return int(stat.read_text().rpartition(")")[2].split()[1])
        except OSError:
            return 0  # it has gone meanwhile

    return [int(stat.parent.name) for stat in Path("/proc").glob("[0-9]*/stat") if parent(stat) == agent.pid]


class TestKinds:
    PAYLOADS = [
        b"",
        b"x",
        b"\0",
        bytes(range(256)) * 3 + b"\0\0",
        random.Random(1).randbytes(MAX_CHUNK),
        random.Random(2).randbytes(70_000),
    ]

    @pytest.mark.parametrize("kind", ["tcp", "unix", "executable"])
    def test_each_payload_arrives_byte_for_byte(self, lab: Lab, kind: str):
        sink = getattr(lab, f"{kind}_handler")("meter")
        agent, session = connect(lab)
        for payload in self.PAYLOADS:
            session.send_message("meter", payload)
            assert sink.expect() == payload
            if kind == "executable":
                agent.wait_for_line(f"Sended {len(payload)} bytes to local handler {sink.endpoint}.")
            elif payload:
                agent.wait_for_line(f"Sent to handler {len(payload)} bytes.")
            else:
                agent.wait_for_line(f"host_address='{sink.endpoint}'")
        agent.assert_not_logged("Sent to handler 0 bytes.")

    def test_handlers_of_all_kinds_are_served_in_the_order_of_the_messages(self, lab: Lab):
        sinks = [lab.tcp_handler("t"), lab.unix_handler("u"), lab.executable_handler("e")]
        agent, session = connect(lab)
        session.send(b"".join(plain_message(name, name.encode()).encode() for name in ("u", "e", "t")))
        assert [sink.expect() for sink in sinks] == [b"t", b"u", b"e"]
        for name in ("u", "e", "t"):
            agent.wait_for_line(f"handler_desc='q_handler_{name}'")


class TestEndpointsOutOfService:
    def test_a_handler_without_a_setting_gets_nothing_and_costs_one_line(self, lab: Lab):
        sink = lab.tcp_handler("meter")
        agent, session = connect(lab)
        session.send_message("nobody", b"lost")
        session.send_message("meter", b"still here")
        assert sink.expect() == b"still here"
        agent.wait_for_line("DEBUG: handler_desc='q_handler_nobody'")
        said = [line for line in lines_after(agent, "q_handler_nobody") if "q_handler_meter" not in line]
        assert not [line for line in said if "WARNING" in line or "ERROR" in line]
        assert sum("host_address=" in line for line in said) == 1

    def test_each_one_has_its_text_and_the_next_message_is_delivered(self, lab: Lab):
        refused, absent = lab.reserve_port(), lab.folder / "absent.sock"
        folder, too_long = lab.folder / "folder", "/tmp/" + "l" * 104
        folder.mkdir()
        interpreter = add_program(lab, "interpreter", "#!/no/such/interpreter\n")
        cases = [
            (f"127.0.0.1:{refused}", f"Can't connect to '127.0.0.1':{refused}, errno=111 - Connection refused."),
            (f"{absent}", f"Can't connect to unix socket '{absent}', errno=2 - No such file or directory."),
            (f"{folder}", f"Can't connect to unix socket '{folder}', errno=111 - Connection refused."),
            (too_long, f"Can't connect to unix socket '{too_long}', errno=22 - Invalid argument."),
            (f"{interpreter}", f"Cannot execute {interpreter}, errno 2."),
            ("127.0.0.1:0", "Incorrect port value in configuration: '0'."),
            ("127.0.0.1:x", "Incorrect port value in configuration: '0'."),
            ("127.0.0.1:", "Incorrect port value in configuration: '0'."),
            ("127.0.0.1:70000", "Incorrect port value in configuration: '70000'."),
            ("127.0.0.1:65536", "Incorrect port value in configuration: '65536'."),
            ("127.0.0.1:-1", "Can't connect to '127.0.0.1':65535, errno="),
            ("", "Getting message from queue"),  # an empty setting counts as none
        ]
        sink = lab.tcp_handler("meter")
        for number, (endpoint, _) in enumerate(cases):
            lab.settings[f"q_handler_case{number}"] = endpoint
        agent, session = connect(lab)
        for number, (_, text) in enumerate(cases):
            session.send_message(f"case{number}", b"lost")
            session.send_message("meter", b"%d" % number)
            assert sink.expect() == b"%d" % number
            agent.wait_for_line(f"handler_desc='q_handler_case{number}'")
            agent.wait_for_line(text)
            agent.wait_for_line("handler_desc='q_handler_meter'")

    def test_one_that_closes_early_loses_its_own_message_only(self, lab: Lab):
        sink = lab.tcp_handler("meter")
        sink.behaviour = "close"
        _, session = connect(lab)
        for message in (b"short", TOO_LONG_TO_BE_BUFFERED):
            session.send_message("meter", message)
        sink.connections.wait_for_count(2, "both connections")
        sink.behaviour = "read"
        session.send_message("meter", b"next")
        assert sink.expect() == b"next"

    def test_a_unix_socket_that_closes_early_is_told_with_port_0(self, lab: Lab):
        sink = lab.unix_handler("meter")
        sink.behaviour = "close"
        agent, session = connect(lab)
        session.send_message("meter", TOO_LONG_TO_BE_BUFFERED)
        agent.wait_for_line(f"WARNING: Failed to send msg to qhandler on port '{sink.endpoint}':0.")
        sink.behaviour = "read"
        session.send_message("meter", b"next")
        assert sink.expect() == b"next"

    def test_one_that_never_reads_holds_up_nobody_with_a_short_message(self, lab: Lab):
        lazy, sink = lab.tcp_handler("lazy"), lab.tcp_handler("meter")
        lazy.behaviour = "hold"
        agent, session = connect(lab)
        session.send_message("lazy", b"unread")
        session.send_message("lazy", b"unread too")
        session.send_message("meter", b"behind")
        assert sink.expect() == b"behind"
        agent.wait_for_line("Sent to handler 6 bytes.")
        agent.wait_for_line("Sent to handler 10 bytes.")
        lazy.release()
        assert [lazy.expect(), lazy.expect()] == [b"unread", b"unread too"]

    def test_a_handler_that_comes_back_gets_the_next_message_and_none_of_the_lost_ones(self, lab: Lab):
        sink = lab.tcp_handler("meter")
        sink.refuse()
        agent, session = connect(lab)
        session.send_message("meter", b"lost")
        agent.wait_for_line(f"WARNING: Can't connect to '127.0.0.1':{sink.port}, errno=111 - Connection refused.")
        sink.accept()
        session.send_message("meter", b"next")
        assert sink.expect() == b"next"


class TestSettings:
    def test_a_changed_setting_counts_for_the_next_message(self, lab: Lab):
        first, second = lab.tcp_handler("first"), lab.unix_handler("second")
        lab.settings["q_handler_meter"] = first.endpoint
        _, session = connect(lab)
        session.send_message("meter", b"1")
        assert first.expect() == b"1"
        lab.change_setting("q_handler_meter", second.endpoint)
        session.send_message("meter", b"2")
        assert second.expect() == b"2"
        assert first.messages.snapshot() == [b"1"]

    def test_a_long_name_is_cut_to_117_bytes(self, lab: Lab):
        known = "n" * 117
        sink = lab.tcp_handler(known)
        lab.settings[f"q_handler_{known}n"] = f"127.0.0.1:{lab.reserve_port()}"
        agent, session = connect(lab)
        for size in (117, 118, 1000):
            session.send_message("n" * size, b"%d" % size)
            assert sink.expect() == b"%d" % size
        assert agent.count(f"handler_desc='q_handler_{known}'") == 3

    def test_an_ordinary_handler_has_one_endpoint(self, lab: Lab):
        first, second = lab.tcp_handler("first"), lab.tcp_handler("second")
        lab.settings["q_handler_meter"] = f"{first.endpoint},{second.endpoint}"
        agent, session = connect(lab)
        session.send_message("meter", b"one")
        assert first.expect() == b"one"
        agent.wait_for_line("WARNING: handler for meter has multiple endpoints (2). Only event_sink support this.")
        session.send_message("second", b"other")
        assert second.expect() == b"other"

    def test_it_has_one_endpoint_also_when_that_refuses(self, lab: Lab):
        second = lab.tcp_handler("second")
        refused = lab.reserve_port()
        lab.settings["q_handler_meter"] = f"127.0.0.1:{refused},{second.endpoint}"
        agent, session = connect(lab)
        session.send_message("meter", b"lost")
        agent.wait_for_line(f"Can't connect to '127.0.0.1':{refused}, errno=111 - Connection refused.")
        agent.wait_for_line("handler for meter has multiple endpoints (2). Only event_sink support this.")
        session.send_message("second", b"other")
        assert second.expect() == b"other"

    @pytest.mark.breaks("state")
    def test_the_event_sink_has_many_and_one_that_refuses_stops_none_behind_it(self, lab: Lab):
        refused = f"127.0.0.1:{lab.reserve_port()}"
        sinks = [lab.executable_handler("program"), lab.unix_handler("socket"), lab.event_sink]
        lab.settings["q_handler_event_sink"] = ",".join([refused, *(sink.endpoint for sink in sinks)])
        agent, session = connect(lab)
        for sink in sinks:
            assert sink.wait_for_document(event=4)["connected"] is True
        session.send_message("event_sink", b"{}")
        for sink in sinks:
            sink.wait_for(lambda message: message == b"{}", "the broker's message")
        agent.assert_not_logged("Only event_sink support this.")
        assert agent.count("Can't connect to '127.0.0.1':") >= 2

    def test_a_wrong_port_ends_the_round_of_the_event_sink(self, lab: Lab):
        behind, sink = lab.tcp_handler("behind"), lab.tcp_handler("meter")
        before = lab.event_sink.endpoint
        lab.settings["q_handler_event_sink"] = f"{before},127.0.0.1:0,{behind.endpoint}"
        agent, session = connect(lab)
        agent.wait_for_line("Incorrect port value in configuration: '0'.")
        session.send_message("meter", b"x")
        assert sink.expect() == b"x"
        assert not behind.messages.snapshot()


class TestPrograms:
    def test_surroundings(self, lab: Lab):
        result = lab.folder / "result"
        kept = shlex.quote(str(result))
        text = f"""#!/bin/sh
        {{ pwd; umask; echo "$#"; echo $(ls /proc/self/fd); echo "$MARK"; echo "$PATH"; cat; }} > {kept}.new
        mv {kept}.new {kept}
        """
        add_program(lab, "meter", text)
        agent = lab.start_agent(environment={"MARK": "kept"})
        lab.broker.expect_session().send_message("meter", b"payload")
        wait_until(result.exists, "the program's result")
        folder, mask, arguments, descriptors, mark, path, payload = result.read_text().split("\n")
        assert (folder, mask, arguments) == ("/", "0000", "0")
        assert descriptors == "0 1 2 3"  # the last one is ls's own
        assert (mark, path, payload) == ("kept", os.environ["PATH"], "payload")
        assert agent.running

    def test_none_is_left_behind_when_it_has_ended(self, lab: Lab):
        sink = lab.executable_handler("meter")
        ended = add_program(lab, "ended", "#!/bin/sh\nexit 3\n")
        agent, session = connect(lab)
        for number in range(10):
            session.send_message("ended", b"x")
            session.send_message("meter", b"%d" % number)
            assert sink.expect() == b"%d" % number
        assert agent.count(f"Sended 1 bytes to local handler {ended}.") == 10
        wait_until(lambda: not children(agent), "the end of every child")

    def test_one_that_ends_early_costs_a_long_message_only(self, lab: Lab):
        program = add_program(lab, "ended", "#!/bin/sh\nexit 0\n")
        sink = lab.tcp_handler("meter")
        agent, session = connect(lab)
        session.send_message("ended", b"short")
        agent.wait_for_line(f"DEBUG: Sended 5 bytes to local handler {program}.")
        session.send_message("ended", TOO_LONG_TO_BE_BUFFERED)
        agent.wait_for_line("some error. errno = 32 - Broken pipe.")
        agent.wait_for_line(re.compile(r"write\(\). Writed \d+ bytes instead of 1000000\."))
        session.send_message("meter", b"next")
        assert sink.expect() == b"next"

    def test_a_file_that_is_not_executable_is_warned_about_and_tried(self, lab: Lab):
        program = add_program(lab, "plain", "#!/bin/sh\n", mode=0o644)
        sink = lab.tcp_handler("meter")
        agent, session = connect(lab)
        session.send_message("plain", b"x")
        agent.wait_for_line("WARNING: handler plain pointing to file, but executable bit is not set.")
        agent.wait_for_line(f"Cannot execute {program}, errno 13.")
        session.send_message("plain", TOO_LONG_TO_BE_BUFFERED)
        agent.wait_for_line(re.compile(r"write\(\). Writed \d+ bytes instead of 1000000\."))
        session.send_message("meter", b"next")
        assert sink.expect() == b"next"

    def test_a_script_needs_no_first_line(self, lab: Lab):
        result = lab.folder / "result"
        kept = shlex.quote(str(result))
        add_program(lab, "meter", f"cat > {kept}.new\nmv {kept}.new {kept}\n")
        _, session = connect(lab)
        session.send_message("meter", b"payload")
        wait_until(result.exists, "the script's result")
        assert result.read_bytes() == b"payload"


class TestQueue:
    def hold_up(self, lab: Lab, name: str) -> tuple:
        """An agent whose worker is busy with a long message to the Unix socket handler `name`, which does not read."""
        sink = lab.unix_handler(name)
        sink.behaviour = "hold"
        agent, session = connect(lab)
        session.send_message(name, TOO_LONG_TO_BE_BUFFERED)
        sink.connections.wait_for_count(1, "the long message's connection")
        return sink, agent, session

    def test_with_too_many_messages_the_newest_are_dropped_and_counted(self, lab: Lab):
        sink, agent, session = self.hold_up(lab, "slow")
        messages = [b"%04d" % number for number in range(QUEUE_ITEMS + 3)]
        session.send(b"".join(plain_message("slow", message).encode() for message in messages))
        usage = QUEUE_ITEMS * (4 + len("slow") + OVERHEAD)
        for dropped in (1, 2, 3):
            agent.wait_for_line(f"WARNING: Queue full. Dropped {dropped} packets. Memory usage is {usage}")
        agent.signal(signal.SIGUSR2)
        agent.wait_for_line(f"Queue full. Dropped 4 packets. Memory usage is {usage}")
        agent.wait_for_line("cannot send orvel state.")

        sink.release()
        assert sink.wait_for_count(QUEUE_ITEMS + 1) == [TOO_LONG_TO_BE_BUFFERED, *messages[:QUEUE_ITEMS]]
        session.send_message("slow", b"next")
        assert sink.wait_for_count(QUEUE_ITEMS + 2)[-1] == b"next"
        assert agent.count("Queue full.") == 4

    def test_the_memory_limit_is_reached_exactly(self, lab: Lab):
        sink, agent, session = self.hold_up(lab, "slow")
        share = QUEUE_BYTES // 10
        message = bytes(share - len("slow") - OVERHEAD)
        for _ in range(10):
            session.send_message("slow", message)
        session.send_message("slow", b"")
        agent.wait_for_line(f"Queue full. Dropped 1 packets. Memory usage is {QUEUE_BYTES}")
        sink.release()
        assert sink.wait_for_count(11)[1:] == [message] * 10
        assert agent.count("Queue full.") == 1

    def test_a_message_longer_than_the_queue_is_dropped(self, lab: Lab):
        sink = lab.tcp_handler("meter")
        agent, session = connect(lab)
        longest = QUEUE_BYTES - len("meter") - OVERHEAD
        session.send_message("meter", bytes(longest))
        assert sink.expect() == bytes(longest)
        session.send_message("meter", bytes(longest + 1))
        agent.wait_for_line("Queue full. Dropped 1 packets. Memory usage is 0")
        session.send_message("meter", b"next")
        assert sink.expect() == b"next"

    def test_one_handler_at_a_time_is_served(self, lab: Lab):
        quick = lab.tcp_handler("quick")
        slow, agent, session = self.hold_up(lab, "slow")
        session.send_message("quick", b"behind the slow one")
        agent.wait_for_line("DEBUG: Added message to queue.")
        agent.wait_for_line("DEBUG: Available threads: 1, waiting threads: 0.")
        agent.wait_for_line("INFO: Cannot create more threads - limit reached.")
        assert not quick.messages.snapshot()
        slow.release()
        assert quick.expect() == b"behind the slow one"
        agent.wait_for_line("Sent to handler 1000000 bytes.")
        agent.wait_for_line("DEBUG: Getting message from queue.")
        agent.wait_for_line("Sent to handler 19 bytes.")

    def test_an_idle_worker_is_woken(self, lab: Lab):
        sink = lab.tcp_handler("meter")
        agent, session = connect(lab)
        agent.wait_for_line("INFO: Starting message thread.")
        session.send_message("meter", b"first")
        assert sink.expect() == b"first"
        session.send_message("meter", b"second")
        assert sink.expect() == b"second"
        agent.wait_for_line("Some threads are waiting... Notifying them.")
        agent.wait_for_line("Getting message from queue after wait.", anywhere=True)
        assert agent.count("Starting message thread.") == 1

    def test_a_handler_that_is_held_up_does_not_hold_up_the_session_or_the_control_port(self, lab: Lab):
        sink, agent, session = self.hold_up(lab, "slow")
        assert agent.control.command("pause_connections") == 0
        assert session.wait_ended() == "agent closed"
        assert agent.control.command("resume_connections") == 0
        second = lab.broker.expect_session()
        second.send_message("slow", b"from the second session")
        sink.release()
        assert sink.wait_for_count(2)[1] == b"from the second session"

    def test_sigterm_ends_the_agent_in_the_middle_of_a_delivery(self, lab: Lab):
        _, agent, _ = self.hold_up(lab, "slow")
        assert agent.stop() == 0
