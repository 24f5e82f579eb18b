"""The command line as its users see it: what is printed where, exit statuses, and what the options do."""

from __future__ import annotations

import re
import subprocess
from collections.abc import Callable, Iterator
from contextlib import suppress
from pathlib import Path

import pytest
from orvel_lab import Agent, Control, Lab, wait_until
from orvel_lab.agent import default_binary

VERSION = "Version release-3.5.9_bq917rkvn_2725daa_usi\n"
HINT = """\
Please specify hardware_id (by --hardware_id option) to run orvel.
It should contain only upper latin letters and numbers and have 13 symbols
"""
# The backslash and "n" in the sixth line are part of the text.
USAGE = """\
{program}:\t[-d|--daemon] [-c|--config_file <file name>]
\t\t[--usi_profile <path to USI profile file>] [--usi_conf <path to USI config file>]
\t\t[--disable_console] [--disable_log_file] [--model_id]
\t\t[--ca_path <path to CA folder>] [--ca_file <path to cert file>]
\t\t[--log_debug|--log_info|--log_warning|--log_error|--log_silent]
\t\t[-w|--watchdog] [-v|--version] [--log_file <filename>] [--connectivity_log_file <filename>]\\n\t\t[-s|--service_id <service_id>] [--discovery_time <discovery time>]
\t\t[--discovery_id <id>] [--carrier_id <id>] [--discovery_data <data>]
\t\t[--start_paused] [--log_file_cnt <count of files in rotation>]
\t\t[--log_file_size <max size of log file before rotation in human format: nK|nM where n in 1-9999>]
\t\t[--pid_file <pid_file>] [--watchdog_pid_file <pid_file>]
\t\t[--broker_keepalive <time>,<probes>,<intv>] [--agent_keepalive <time>,<probes>,<intv>]
\t\t[--agent_heartbeat <time>] [--enable_extra_parameters_for_dal]
\t\t--hardware_id <hardware id> [--model_id <model_id>]
"""
GOOD_ID = ("--hardware_id", "ABCDEFGH12345")
REFUSED = "orvel WARNING Cannot parse args/load needed variables from nvram."
AGENT_KEEPALIVE = "args WARNING Failed to parse agent keepalive string."
HEARTBEAT = "args WARNING Failed to parse agent heartbeat string."


class Run:
    """One start of the program that ends by itself: its status, standard output, and lines of standard error."""

    def __init__(self, folder: Path, *arguments: str | Path) -> None:
        self.folder = folder
        self.program = str(default_binary())
        files = ["--log_file", folder / "log", "-c", folder / "settings", "--pid_file", folder / "pid"]
        command = [self.program, *files, "--watchdog_pid_file", folder / "watchdog-pid", *arguments]
        result = subprocess.run(command, cwd=folder, capture_output=True, text=True, timeout=60, check=False)
        self.status, self.output = result.returncode, result.stdout
        self.errors = [shortened(line) for line in result.stderr.splitlines()]

    def left_nothing(self) -> bool:
        """True when neither settings nor a pid file were written."""
        return not [name for name in ("settings", "pid", "watchdog-pid") if (self.folder / name).exists()]


def shortened(line: str) -> str:
    """A console line as "source tag text"; any other line as it is."""
    return re.sub(r"^(\w+): \d+:  {0,3}(\w+): ", r"\1 \2 ", line)


@pytest.fixture
def run(tmp_path: Path) -> Callable[..., Run]:
    return lambda *arguments: Run(tmp_path, *arguments)


class TestVersion:
    @pytest.mark.parametrize("option", ["-v", "--version"])
    def test_it_is_printed_and_that_is_all(self, run, option: str):
        result = run("--log_debug", option)
        assert (result.status, result.output, result.errors) == (0, VERSION, [])
        assert result.left_nothing() and not (result.folder / "log").exists()

    def test_it_comes_before_what_stands_behind_it(self, run):
        result = run("--version", "--nonsense", "--hardware_id", "bad")
        assert (result.status, result.output, result.errors) == (0, VERSION, [])

    def test_it_comes_before_a_daemon_or_watchdog_is_made(self, run):
        result = run("--daemon", "--watchdog", *GOOD_ID, "--version")
        assert (result.status, result.output, result.errors) == (0, VERSION, [])
        assert result.left_nothing()

    def test_what_stands_before_it_is_read_first(self, run):
        result = run("--log_warning", "--discovery_time", "-1", "--version")
        assert (result.status, result.output) == (0, VERSION)
        assert result.errors == ["args WARNING incorrect value for discovery time: '-1'"]

    def test_an_unknown_argument_before_it_wins(self, run):
        result = run("word", "--version")
        assert (result.status, result.output) == (255, USAGE.format(program=result.program))


class TestUsage:
    @pytest.mark.parametrize(
        "argument", ["--nonsense", "word", "-x", "", "-dw", "--Daemon", "--hardware_id=ABCDEFGH12345"]
    )
    def test_an_unknown_argument_prints_it_and_ends_with_status_255(self, run, argument: str):
        result = run("--log_error", *GOOD_ID, argument)
        assert (result.status, result.output) == (255, USAGE.format(program=result.program))
        assert result.errors == [REFUSED]
        assert result.left_nothing()

    def test_no_argument_at_all_prints_the_hint_and_it(self, tmp_path: Path):
        program = default_binary()
        result = subprocess.run([program], cwd=tmp_path, capture_output=True, text=True, timeout=60, check=False)
        assert (result.returncode, result.stdout) == (255, HINT + USAGE.format(program=program))
        assert result.stderr == ""

    def test_it_names_the_program_as_it_was_called(self, tmp_path: Path):
        (tmp_path / "other name").symlink_to(default_binary())
        result = subprocess.run(
            ["./other name", "word"], cwd=tmp_path, capture_output=True, text=True, timeout=60, check=False
        )
        assert result.stdout == USAGE.format(program="./other name")

    def test_standard_error_is_silent_unless_a_level_is_chosen(self, run):
        result = run("--hardware_id", "bad")
        assert (result.status, result.output) == (255, HINT + USAGE.format(program=result.program))
        assert result.errors == [] and not (result.folder / "log").exists()


class TestHardwareId:
    @pytest.mark.parametrize(
        "hardware_id",
        ["ABCDEFGH1234", "ABCDEFGH123456", "ABCDEFGh12345", "ABCDEFGH-1234", "", "--daemon", "ÄBCDEFGH1234"],
    )
    def test_a_bad_one_is_explained_on_standard_output_and_named_on_standard_error(self, run, hardware_id: str):
        result = run("--log_error", "--hardware_id", hardware_id)
        assert (result.status, result.output) == (255, HINT + USAGE.format(program=result.program))
        assert result.errors == [f'args WARNING Specified hardware id "{hardware_id}" is not correct.', REFUSED]
        assert result.left_nothing()

    @pytest.mark.parametrize("arguments", [(), ("--hardware_id",)], ids=["absent", "without a value"])
    def test_none_is_explained_but_there_is_nothing_to_name(self, run, arguments: tuple[str, ...]):
        result = run("--log_error", *arguments)
        assert (result.status, result.output) == (255, HINT + USAGE.format(program=result.program))
        assert result.errors == [REFUSED]

    def test_the_last_of_two_counts(self, run):
        result = run("--log_error", *GOOD_ID, "--hardware_id", "bad")
        assert result.errors[0] == 'args WARNING Specified hardware id "bad" is not correct.'

    def test_the_refusal_is_in_the_log_file_too(self, run):
        run("--log_error", "--hardware_id", "bad")
        text = (run("--version").folder / "log").read_text()
        assert 'WARNING: Specified hardware id "bad" is not correct.\n' in text
        assert "WARNING: Cannot parse args/load needed variables from nvram.\n" in text


class TestNumbers:
    @pytest.mark.parametrize(
        "arguments, errors",
        [
            (("--agent_keepalive", "60,5"), [AGENT_KEEPALIVE]),
            (("--agent_keepalive", ""), [AGENT_KEEPALIVE]),
            (("--broker_keepalive", "x"), [AGENT_KEEPALIVE]),
            (("--agent_heartbeat", "-3"), [HEARTBEAT]),
            (("--agent_heartbeat", "-99999999999"), [HEARTBEAT]),
            (("--agent_keepalive", "-1", "--agent_heartbeat", "-3"), [AGENT_KEEPALIVE]),
        ],
    )
    def test_a_text_of_another_form_ends_it_with_status_255(self, run, arguments: tuple[str, ...], errors: list[str]):
        result = run("--log_error", *GOOD_ID, *arguments)
        assert (result.status, result.output) == (255, "")  # neither hint nor usage
        assert result.errors == [*errors, REFUSED]
        assert result.left_nothing()

    @pytest.mark.parametrize(
        "arguments, warning",
        [
            (("--agent_keepalive", "60,-1,10"), "Cannot convert value -1 to uint32_t - got value -1"),
            (("--broker_keepalive", "-7,1,10"), "Cannot convert value -7 to uint32_t - got value -7"),
            (("--discovery_time", "-1"), "incorrect value for discovery time: '-1'"),
            (("--control_port", "-1"), "incorrect value for listener port: '-1'"),
            (("--control_port", "-0x1"), None),
            (("--agent_heartbeat", "0"), None),
            (("--agent_keepalive", "60,5,10,99"), None),
            (("--agent_keepalive", "60,5,"), None),  # an empty field is a field
            (("--log_file_cnt", "x", "--log_file_size", "x"), None),
        ],
    )
    def test_others_are_warned_about_at_most_and_the_start_goes_on(self, run, arguments, warning: str | None):
        result = run("--log_warning", *GOOD_ID, *arguments)
        assert result.status == 0
        missing = "orvel WARNING Failed to read mandatory config settings."
        assert result.errors == [*([f"args WARNING {warning}"] if warning else []), missing]

    def test_a_level_counts_for_what_stands_behind_it(self, run):
        bad = "--discovery_time"
        result = run(bad, "-1", "--log_error", bad, "-2", "--log_warning", bad, "-3")
        assert result.errors[0] == "args WARNING incorrect value for discovery time: '-3'"


class TestSettingsFiles:
    @pytest.mark.parametrize("option", ["-c", "--config_file"])
    def test_the_last_of_two_is_the_one_that_is_used(self, run, option: str, tmp_path: Path):
        result = run(*GOOD_ID, "-c", tmp_path / "first", option, tmp_path / "second")
        assert result.status == 0
        assert not (tmp_path / "first").exists()
        assert "q_version=release-3.5.9_bq917rkvn_2725daa_usi\n" in (tmp_path / "second").read_text()

    def test_a_folder_in_its_place_is_told_at_every_access(self, run, tmp_path: Path):
        (tmp_path / "settings").mkdir()
        result = run("--log_info", *GOOD_ID)
        assert result.status == 0
        text = "\n".join(result.errors)
        assert re.search(r"^config_usi INFO Can't commit nvram, error: .+\.$", text, re.MULTILINE)
        assert re.search(r"^config_usi INFO Can't get value by name:'q_register_url' error: .+\.$", text, re.MULTILINE)
        assert result.errors[-1] == "orvel WARNING Failed to read mandatory config settings."

    def test_a_missing_folder_reads_as_empty_and_fails_each_commit(self, run, tmp_path: Path):
        result = run("--log_info", *GOOD_ID, "-c", tmp_path / "absent" / "settings")
        assert result.status == 0
        commits = [line for line in result.errors if line.startswith("config_usi INFO Can't commit nvram, error: ")]
        assert len(commits) == 4  # connected, pid, version, build
        assert not [line for line in result.errors if "Can't get value" in line]


class TestValues:
    def test_a_value_may_look_like_an_option(self, lab: Lab):
        lab.start_agent("--model_id", "--daemon")
        assert lab.cloud.wait_for_request("register").json["model"] == "--daemon"

    @pytest.mark.parametrize(
        "arguments", [(), ("--model_id", ""), ("--model_id",)], ids=["absent", "empty", "no value"]
    )
    def test_the_model_is_unknown_unless_named(self, lab: Lab, arguments: tuple[str, ...]):
        lab.start_agent(*arguments)
        assert lab.cloud.wait_for_request("register").json["model"] == "Unknown"

    def test_what_stands_before_a_missing_last_value_counts(self, lab: Lab):
        agent = lab.start_agent("--model_id", "M1", "--log_info", "--discovery_time")
        assert lab.cloud.wait_for_request("register").json["model"] == "M1"
        agent.assert_logged("orvel locked the pid file.")
        assert agent.output == ""


def open_sockets(pid: int) -> Iterator[str]:
    for link in Path(f"/proc/{pid}/fd").iterdir():
        with suppress(FileNotFoundError):  # closed meanwhile
            yield link.readlink().name


def listening_ports(pid: int) -> list[int]:
    """The IPv4 TCP ports on which a process listens."""
    own = set(open_sockets(pid))
    rows = [line.split() for line in Path(f"/proc/{pid}/net/tcp").read_text().splitlines()[1:]]
    listening = "0A"
    return [int(row[1].split(":")[1], 16) for row in rows if row[3] == listening and f"socket:[{row[9]}]" in own]


class TestControlPort:
    def test_only_the_low_16_bits_of_a_larger_number_count(self, claimed_lab: Lab):
        port = claimed_lab.reserve_port()
        claimed_lab.start_agent("--control_port", str(65536 + port))
        assert Control(port).exchange(b"") == b'{"result":-1}'

    @pytest.mark.parametrize("number", ["0", "65536", "x"])
    def test_0_takes_any_free_one(self, claimed_lab: Lab, number: str):
        agent = claimed_lab.start_agent("--control_port", number)
        ports = wait_until(lambda: listening_ports(agent.pid), "the control port")
        assert ports[0] != 0
        assert Control(ports[0]).exchange(b"") == b'{"result":-1}'

    def test_a_negative_one_keeps_the_port_named_before(self, claimed_lab: Lab):
        agent = claimed_lab.start_agent("--log_warning", "--control_port", "-1")
        agent.wait_for_line("incorrect value for listener port: '-1'")
        assert agent.control.exchange(b"") == b'{"result":-1}'


# A private network and a private /tmp, in which the agent may use the files and the port of its defaults.
WITH_PRIVATE_TMP = 'exec 3<"$1" && mount --bind "$2" /tmp && shift 2 && exec /proc/self/fd/3 "$@"'


class TestDefaults:
    @pytest.fixture
    def tmp(self, tmp_path: Path) -> Path:
        if subprocess.run(["unshare", "-mn", "true"], capture_output=True, check=False).returncode != 0:
            pytest.skip("namespaces of one's own need root")
        folder = tmp_path / "tmp"
        folder.mkdir()
        return folder

    def start(self, tmp: Path, *options: str) -> subprocess.Popen:
        """The agent with only what it can't do without; enough settings to stay."""
        urls = ("q_register_url", "q_claimed_url", "q_discovery_url", "q_advisor_url")
        (tmp / "settings").write_text("".join(f"{key}=https://127.0.0.1:1\n" for key in urls))
        network_up = 'ip link set lo up && exec sh -c "$0" sh "$@"'
        start = ["unshare", "-mn", "sh", "-c", network_up, WITH_PRIVATE_TMP, default_binary(), tmp]
        return subprocess.Popen([*start, *GOOD_ID, "-c", "/tmp/settings", *options], stderr=subprocess.DEVNULL)

    def test_of_the_files_and_of_the_port(self, tmp: Path):
        process = self.start(tmp, "--log_info")
        try:
            wait_until(lambda: (tmp / "orvel.pid").exists() and listening_ports(process.pid), "the agent")
            assert (tmp / "orvel.pid").read_text() == f"{process.pid}\n"
            assert "orvel locked the pid file." in (tmp / "orvel.log").read_text()
            assert listening_ports(process.pid) == [14369]
            assert not (tmp / "orvel_watchdog.pid").exists()
        finally:
            process.terminate()
            assert process.wait(60) == 0

    def test_of_the_watchdogs_pid_file(self, tmp: Path):
        process = self.start(tmp, "--watchdog")
        try:
            wait_until(lambda: (tmp / "orvel.pid").exists() and (tmp / "orvel.pid").read_text(), "the agent")
            assert (tmp / "orvel_watchdog.pid").read_text() == f"{process.pid}\n"
            agent = int((tmp / "orvel.pid").read_text())
        finally:
            process.terminate()
            assert process.wait(60) == 0
        wait_until(lambda: not Path(f"/proc/{agent}/exe").exists(), "the end of the agent")


def test_standard_output_stays_empty_while_the_agent_runs(claimed_lab: Lab):
    agent: Agent = claimed_lab.start_agent("--log_debug")
    claimed_lab.broker.expect_session()
    assert agent.stop() == 0
    assert agent.output == ""
