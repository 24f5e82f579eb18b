"""The command `orvel-lab`, with a client in place of the agent."""

from __future__ import annotations

import json
import signal
import socket
import ssl
import subprocess
import sys
import threading
from pathlib import Path

import pytest
from orvel_lab import settings as settings_file
from orvel_lab.packets import plain_message
from running_lab import COMMAND, IDENTITY, SECONDS, run


def test_the_agent_command_and_its_settings_are_ready(up):
    running = up("--set", "q_use_discovery=1", "--agent", sys.executable)
    document = running.document
    command = document["agent_command"]
    assert command[0] == str(Path(sys.executable).resolve())
    assert command[command.index("--control_port") + 1] == str(document["control_port"])
    assert Path(command[command.index("--ca_file") + 1]).exists()
    settings = settings_file.read(Path(command[command.index("-c") + 1]))
    base = f"https://127.0.0.1:{document['cloud']['port']}"
    assert settings["q_register_url"] == f"{base}/register"
    assert settings["q_claimed_url"] == f"{base}/claimed"
    assert settings["q_discovery_url"] == f"{base}/discovery"
    assert settings["q_advisor_url"] == f"{base}/advisor"
    assert settings["q_agent_handler_name"] == "agent"
    assert settings["q_broker_port"] == str(document["broker"]["port"])
    assert settings["q_use_discovery"] == "1"
    assert set(document["handlers"]) == {"tcp", "unix", "exec", "event_sink"}
    for name, handler in document["handlers"].items():
        assert settings[f"q_handler_{name}"] == handler["endpoint"]
    assert document["agent_command_line"] in running.stop()


def test_messages_go_out_through_the_session(up, tmp_path: Path):
    running = up()
    payload = tmp_path / "payload"
    payload.write_bytes(bytes(range(256)) * 300)
    with running.agent() as client:
        for arguments, expected in [
            (["tcp", "hello"], plain_message("tcp", b"hello")),
            (["agent", "hello", "--chunks", "2,1"], plain_message("agent", b"hello", [2, 1])),
            (["unix", "--file", str(payload)], plain_message("unix", payload.read_bytes())),
        ]:
            running.run("send", *arguments)
            encoded, received = expected.encode(), b""
            while len(received) < len(encoded):
                received += client.recv(len(encoded) - len(received))
            assert received == encoded


def test_what_handlers_receive_is_kept_and_waited_for(up):
    running = up()
    handlers = running.document["handlers"]
    message = bytes(range(256))
    host, port = handlers["tcp"]["endpoint"].split(":")
    with socket.create_connection((host, int(port)), timeout=SECONDS) as client:
        client.sendall(message)
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(handlers["unix"]["endpoint"])
        client.sendall(message)
    for _ in range(2):
        subprocess.run([handlers["exec"]["endpoint"]], input=message, check=True, cwd="/")
    for name, count in [("tcp", 1), ("unix", 1), ("exec", 2)]:
        running.run("wait", "received", name, str(count))
        assert (Path(handlers[name]["folder"]) / f"{count:03d}").read_bytes() == message
    assert running.status()["received"] == {"event_sink": 0, "tcp": 1, "unix": 1, "exec": 2}


def test_a_session_is_shown_and_dropped(up):
    running = up()
    assert running.status()["connected"] is False
    with running.agent() as client:
        status = running.status()
        assert status["connected"] is True
        [session] = status["sessions"]
        assert (session["open"], session["tls"], session["packets"]) == (True, "TLSv1.2", 1)
        assert session["identity"] == "identity token 'lab-token'"
        assert "session 1" in running.run("status")
        assert "lab closed" in running.run("drop")
        assert client.recv(1) == b""
    running.run("wait", "disconnected")
    with running.agent() as client:
        running.run("wait", "connected", "2")
        assert "lab reset" in running.run("drop", "--reset")
    assert [session["ended_by"] for session in running.status()["sessions"]] == ["lab closed", "lab reset"]
    printed = running.stop()
    assert "identity token 'lab-token'" in printed and "session 1: ended: lab closed" in printed


def test_claim_release_and_advice_change_the_cloud(up):
    running = up("--heartbeat", "5", "--agent-keepalive", "60,5,10")
    advice = running.status()["advice"]
    assert (advice["agentHeartbeat"], advice["agentKeepalive"]) == ("5", "60,5,10")
    assert "brokerKeepalive" not in advice
    running.run("advise", "wait", "7")
    assert running.status()["advice"] == {"_type": "ActionWait", "period": 7}
    running.run("advise", "connect")
    assert running.status()["advice"] == advice
    context = ssl.create_default_context(cafile=running.document["ca_file"])
    claimed = []
    for command in ("claim", "release"):
        running.run(command)
        plain = socket.create_connection(("127.0.0.1", running.document["cloud"]["port"]), timeout=SECONDS)
        with context.wrap_socket(plain, server_hostname="127.0.0.1") as client:
            body = b'{"hardwareId":"ABCDEFGH12345","model":"M"}'
            client.sendall(b"POST /register HTTP/1.1\r\nContent-Length: %d\r\n\r\n" % len(body) + body)
            assert client.recv(100).startswith(b"HTTP/1.1 201 ")
        running.run("wait", "registered")
        [device] = running.status()["devices"]
        claimed.append(device["claimed"])
    assert claimed == [True, False]
    assert "register: POST /register -> 201" in running.stop()


def test_a_control_request_reaches_the_agents_port(up):
    running = up()
    with socket.socket() as server:
        server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)  # as the agent does
        server.bind(("127.0.0.1", running.document["control_port"]))
        server.listen()
        received: list[bytes] = []

        def answer() -> None:
            connection, _ = server.accept()
            with connection:
                while block := connection.recv(100):
                    received.append(block)
                connection.sendall(b'{"result":-10}')

        agent = threading.Thread(target=answer)
        agent.start()
        assert running.run("control", '{"command":"x"}') == '{"result":-10}\n'
        agent.join(SECONDS)
    assert received == [b'{"command":"x"}']


def test_trace_shows_packets_and_exchanges_as_they_happen(up):
    running = up()
    for options in (["--json"], []):
        command = [COMMAND, "--dir", running.folder, "trace", *options]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as trace:
            try:
                assert "trace begins" in trace.stdout.readline()
                with running.agent():
                    running.run("send", "tcp", "hello")
                lines = [trace.stdout.readline() for _ in range(3 if options else 5)]
            finally:
                trace.terminate()
        if options:
            events = [json.loads(line) for line in lines]
            assert "TLSv1.2" in events[0]["summary"]
            assert events[1]["details"]["bytes"] == IDENTITY.encode().hex(" ")
            assert events[2]["details"]["bytes"] == plain_message("tcp", b"hello").encode().hex(" ")
        else:
            assert lines[1].rstrip().endswith("identity token 'lab-token'")
            assert lines[2].strip() == f"in: {IDENTITY.encode().hex(' ')}"


def test_trace_shows_the_recorded_packets_one_a_line(up):
    running = up()
    with running.agent():
        running.run("send", "tcp", "hello")
        running.run("send", "agent", "hello", "--chunks", "2")
    running.run("wait", "disconnected")
    lines = [line.split(maxsplit=1)[1] for line in running.run("trace", "--packets", "--recorded").splitlines()]
    assert lines == [
        "1 agent  identity token 'lab-token'",
        "1 broker plain message for 'tcp', 5 bytes in 1 chunks",
        "1 broker plain message for 'agent', 5 bytes in 2 chunks",
    ]
    assert "opened from 127.0.0.1" in running.run("trace", "--recorded")


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_it_stops_clean_with_an_open_session_and_can_start_again(up, number: int):
    running = up()
    with running.agent() as client:
        running.stop(number)
        client.settimeout(SECONDS)
        try:
            assert client.recv(1) == b""
        except ConnectionResetError:
            pass
    assert running.process.returncode == 0
    assert not (running.folder / "lab.json").exists()
    assert "no lab is up" in running.run("status", status=1)
    assert up(folder=running.folder).status()["sessions"] == []


def test_a_second_lab_in_the_same_folder_is_refused(up):
    running = up()
    assert "a lab is up in" in running.run("up", status=1)
    assert running.status()["pid"] == running.process.pid


def test_a_folder_that_no_lab_has_made_is_left_alone(tmp_path: Path):
    (tmp_path / "precious").write_text("x")
    done = run("--dir", str(tmp_path), "up")
    assert (done.returncode, done.stdout) == (1, "")
    assert "is not empty, and no lab has made it" in done.stderr
    assert [path.name for path in tmp_path.iterdir()] == ["precious"]


@pytest.mark.parametrize(
    "arguments",
    [
        [],
        ["sing"],
        ["send", "tcp"],
        ["send", "tcp", "text", "--file", "file"],
        ["send", "tcp", "text", "--chunks", "x"],
        ["advise", "wait"],
        ["advise", "connect", "5"],
        ["wait", "sunshine"],
        ["wait", "received"],
        ["wait", "connected", "soon"],
        ["up", "--set", "novalue"],
    ],
)
def test_wrong_use_is_told_with_status_2(tmp_path: Path, arguments: list[str]):
    done = run("--dir", str(tmp_path / "lab"), *arguments)
    assert (done.returncode, done.stdout) == (2, "")
    assert "usage: orvel-lab" in done.stderr


def test_what_is_not_possible_is_told_with_status_1(up, tmp_path: Path):
    running = up()
    for arguments, expected in [
        (["send", "tcp", "x"], "no agent is connected"),
        (["send", "tcp", "--file", str(tmp_path / "absent")], "No such file"),
        (["drop"], "no agent is connected"),
        (["wait", "received", "nobody"], "no handler nobody"),
        (["wait", "connected", "--deadline", "0"], "connected: did not come in time"),
    ]:
        assert expected in running.run(*arguments, status=1)
    assert "no lab is up" in run("--dir", str(tmp_path / "nowhere"), "status").stderr
    assert run("--dir", str(tmp_path / "nowhere"), "wait", "up", "--deadline", "0").returncode == 1


def test_the_help_names_every_command():
    done = run("--help")
    assert done.returncode == 0
    for name in ["up", "send", "claim", "release", "advise", "drop", "control", "wait", "status", "trace"]:
        assert f"    {name} " in done.stdout
        assert run(name, "--help").returncode == 0
