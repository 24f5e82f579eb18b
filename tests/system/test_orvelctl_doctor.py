"""orvelctl doctor: says what is wrong with a device, and nothing else."""

from __future__ import annotations

import os
import socket
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest
from orvel_lab import Lab
from orvelctl_runner import Ctl


@pytest.fixture
def lab(make_lab: Callable[..., Lab]) -> Lab:
    """A device with a program, a socket and a port as handlers."""
    lab = make_lab(registered=True, claimed=True, tls=False)
    lab.unix_handler("unix")
    lab.executable_handler("program")
    return lab


def examine(lab: Lab, *options: object) -> tuple[int, list[str], str]:
    """Exit status, what is wrong, and everything."""
    result = Ctl(lab).run("doctor", *options)
    assert result.stderr == ""
    wrong = [line.strip().removeprefix("WRONG ") for line in result.stdout.splitlines() if line.startswith("  WRONG ")]
    advice = [line for line in result.stdout.splitlines() if line.startswith("        -> ")]
    assert len(advice) == len(wrong)
    return result.returncode, wrong, result.stdout


def assert_one_wrong(lab: Lab, text: str, *options: object) -> None:
    status, wrong, said = examine(lab, *options)
    assert status == 1 and len(wrong) == 1 and text in wrong[0], said


def test_a_healthy_device(lab: Lab):
    status, wrong, said = examine(lab, "--ca_file", lab.authority.path)
    assert (status, wrong) == (0, []), said
    assert said.endswith("nothing is wrong\n")
    for text in ("settings, mode 0600", "q_advisor_url: https://", "is valid", "a program", "somebody listens"):
        assert text in said


def test_a_running_agent_is_nothing_wrong(lab: Lab):
    agent = lab.start_agent()
    lab.event_sink.wait_for_document(event=4, connected=True)
    assert f"the agent runs as process {agent.pid}" in Ctl(lab, agent).run("doctor").stdout


@pytest.mark.parametrize(
    ("key", "value", "text"),
    [
        ("q_register_url", "", "q_register_url is not set: the agent will not start"),
        ("q_claimed_url", "http://cloud/claim", "q_claimed_url is not https"),
        ("q_discovery_url", "cloud", "q_discovery_url is no address"),
        ("q_discovery_url", "https://", "q_discovery_url is no address"),
        ("q_advisor_url", "https://cloud/" + "a" * 114, "more than 127 characters"),
        ("q_advisor_url", "https://cloud/a?b=c", "something behind its path"),
        ("q_advisor_delay", "soon", "q_advisor_delay is no number: soon"),
        ("q_qcloud_use_proxy", "5", "no kind of proxy"),
        ("q_qcloud_use_proxy", "1", "its address is not set"),
        ("q_handler_a", "127.0.0.1:{closed}", "nobody listens there"),
        ("q_handler_a", "127.0.0.1:70000", "no port between 1 and 65535"),
        ("q_handler_a", "/nowhere/at/all", "no such program or socket"),
        ("q_handler_a", "/etc/passwd", "not executable"),
        ("q_handler_a", "/etc", "neither a file nor a socket"),
        ("q_handler_a", "program", "neither host:port nor a path"),
        ("q_handler_a", " /bin/cat", "a blank"),
        ("q_handler_a", "/bin/cat,/bin/cat", "several endpoints"),
        ("q_handler_" + "a" * 118, "/bin/cat", "longer than the agent reads"),
        ("q_broker_port", "65536", "q_broker_port is too large"),
        ("q_handler_event_sink", "/bin/cat,/nowhere", "q_handler_event_sink /nowhere: there is no such"),
    ],
)
def test_a_wrong_setting_is_named(lab: Lab, key: str, value: str, text: str):
    lab.settings[key] = value.format(closed=lab.reserve_port())
    assert_one_wrong(lab, text)


def test_a_socket_on_which_nobody_listens_any_more(lab: Lab):
    path = lab.socket_path("dead.sock")
    with socket.socket(socket.AF_UNIX) as dead:
        dead.bind(str(path))
    lab.settings["q_handler_a"] = str(path)
    assert_one_wrong(lab, "nobody listens on this socket")


def test_a_handlers_host_that_has_no_address(own_network: None, lab: Lab):
    lab.settings["q_handler_a"] = "host.invalid:80"
    assert_one_wrong(lab, "no IPv4 address")


def test_a_program_that_this_user_can_not_execute(lab: Lab):
    program = lab.folder / "program_of_root"
    program.write_text("#!/bin/sh\n")
    program.chmod(0o644)
    lab.settings["q_handler_a"] = str(program)
    assert_one_wrong(lab, "is not executable for this user (Permission denied)")


def test_a_program_in_place_of_a_watch_is_dangerous(lab: Lab, tmp_path: Path):
    program = tmp_path / "orvelctl-watch-abC123" / "events"
    program.parent.mkdir()
    program.write_text("#!/bin/sh\n")
    program.chmod(0o755)
    lab.settings["q_handler_event_sink"] += f",{program}"
    assert_one_wrong(lab, f"{program} is dangerous: it is no socket")


def test_a_value_controls_no_terminal(lab: Lab):
    lab.settings["q_advisor_delay"] = "\x1b[2J"
    assert_one_wrong(lab, "q_advisor_delay is no number: \\x1B[2J")


class TestProxy:
    def test_one_that_takes_connections(self, lab: Lab):
        lab.proxy("socks5")
        status, _, said = examine(lab)
        assert status == 0 and "SOCKS5 proxy at 127.0.0.1:" in said

    def test_one_that_is_not_there(self, lab: Lab):
        proxy = {"use_proxy": "1", "proxy_hostname": "127.0.0.1", "proxy_port": str(lab.reserve_port())}
        lab.settings.update({f"q_qcloud_{key}": value for key, value in proxy.items()})
        assert_one_wrong(lab, "can't be reached: Connection refused")

    def test_a_name_that_does_not_resolve(self, own_network: None, lab: Lab):
        proxy = {"use_proxy": "1", "proxy_hostname": "proxy.invalid", "proxy_port": "1"}
        lab.settings.update({f"q_qcloud_{key}": value for key, value in proxy.items()})
        assert_one_wrong(lab, "can't be resolved")

    def test_an_https_proxy_needs_the_devices_own_helper(self, own_network: None, lab: Lab):
        lab.proxy("https")
        assert_one_wrong(lab, "the helper through which the cloud is asked at 127.0.0.1:3128 can't be reached")
        with socket.create_server(("127.0.0.1", 3128)):
            status, _, said = examine(lab)
        assert status == 0 and "127.0.0.1:3128 takes connections" in said


class TestFiles:
    def test_settings_that_others_may_read(self, lab: Lab):
        lab.write_settings()
        lab.settings_path.chmod(0o644)
        assert_one_wrong(lab, "mode 0644, but holds the claim code")

    def test_a_profile_that_others_may_change(self, lab: Lab):
        (lab.folder / "profile").write_text("# nothing\n")
        (lab.folder / "profile").chmod(0o666)
        assert_one_wrong(lab, "others may change it")

    def test_settings_that_can_not_be_read(self, lab: Lab):
        status, wrong, _ = examine(lab, "-c", lab.folder)
        assert status == 1 and any("the settings can't be read" in one for one in wrong)

    def test_settings_that_are_not_there(self, lab: Lab):
        status, wrong, _ = examine(lab, "-c", lab.folder / "none")
        assert status == 1 and "No such file" in wrong[0]

    def test_a_handler_of_the_profile_is_looked_at(self, lab: Lab):
        (lab.folder / "profile").write_text("q_handler_a=/nowhere\n")
        assert_one_wrong(lab, "q_handler_a /nowhere: there is no such")


class TestPidFile:
    def test_a_stale_one(self, lab: Lab):
        child = subprocess.Popen(["true"])
        child.wait()
        (lab.folder / "orvel.pid").write_text(f"{child.pid}\n")
        assert_one_wrong(lab, f"is stale: process {child.pid} has ended")

    def test_one_that_names_another_process(self, lab: Lab):
        (lab.folder / "orvel.pid").write_text(f"{os.getpid()}\n")
        assert_one_wrong(lab, "it is not the agent")

    def test_one_without_a_number(self, lab: Lab):
        (lab.folder / "orvel.pid").write_text("none\n")
        assert_one_wrong(lab, "holds no process id")


class TestCertificates:
    def test_an_empty_file(self, lab: Lab, tmp_path: Path):
        (tmp_path / "empty").write_text("")
        assert_one_wrong(lab, "empty", "--ca_file", tmp_path / "empty")

    def test_a_file_without_certificates(self, lab: Lab):
        assert_one_wrong(lab, "holds no certificate", "--ca_file", "/etc/passwd")

    def test_a_file_that_is_not_there(self, lab: Lab):
        assert_one_wrong(lab, "can't be read", "--ca_file", "/nowhere")

    def test_a_folder_needs_hash_names(self, lab: Lab, tmp_path: Path):
        folder = tmp_path / "authorities"
        folder.mkdir()
        (folder / "lab.pem").write_bytes(Path(lab.authority.path).read_bytes())
        assert_one_wrong(lab, "no certificate under its hash name", "--ca_path", folder)
        subprocess.run(["openssl", "rehash", folder], check=True)
        status, _, said = examine(lab, "--ca_path", folder)
        assert status == 0 and f"{folder}: 1 certificates" in said
