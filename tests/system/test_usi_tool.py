"""The tool usi: settings from the command line."""

from __future__ import annotations

import os
import shutil
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
TOOL = Path(os.environ.get("ORVEL_BIN") or ROOT / "build" / "bin" / "orvel").with_name("usi")
NOBODY = 65534


class Store:
    """The three files of a store, and the tool that works on them."""

    def __init__(self, folder: Path) -> None:
        self.folder = folder
        self.storage = folder / "settings"
        self.profile = folder / "profile"
        self.config = folder / "usi.conf"
        self.config.write_text("sync=none\n")

    def run(self, *arguments: str, **options) -> subprocess.CompletedProcess[str]:
        files = ["-c", self.storage, "--profile", self.profile, "--conf", self.config]
        return run_tool(*files, *arguments, **options)

    def expect(self, status: int, output: str, *arguments: str) -> None:
        result = self.run(*arguments)
        assert (result.returncode, result.stdout, result.stderr) == (status, output, "")

    def expect_error(self, text: str, *arguments: str, **options) -> None:
        result = self.run(*arguments, **options)
        assert (result.returncode, result.stdout, result.stderr) == (2, "", f"usi: {text}\n")


def run_tool(*arguments: object, **options) -> subprocess.CompletedProcess[str]:
    options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True, "timeout": 60, **options}
    return subprocess.run([str(TOOL), *map(str, arguments)], check=False, **options)


@pytest.fixture
def store(tmp_path: Path) -> Store:
    return Store(tmp_path)


def test_value_that_was_set_is_printed(store: Store) -> None:
    store.expect(0, "", "set", "q_agent_id", "a value = with signs")
    store.expect(0, "a value = with signs\n", "get", "q_agent_id")
    assert store.storage.read_text() == "q_agent_id=a value = with signs\n"


def test_key_that_is_not_set_gives_status_1_and_prints_nothing(store: Store) -> None:
    store.expect(1, "", "get", "none")
    store.expect(1, "", "unset", "none")


def test_empty_value_is_a_value(store: Store) -> None:
    store.expect(0, "", "set", "k", "")
    store.expect(0, "\n", "get", "k")


def test_get_prints_line_ends_and_list_prints_escapes(store: Store) -> None:
    store.expect(0, "", "set", "k", "one\ntwo\\")
    store.expect(0, "one\ntwo\\\n", "get", "k")
    store.expect(0, "k=one\\ntwo\\\\\n", "list")


def test_value_may_begin_with_a_dash(store: Store) -> None:
    store.expect(0, "", "set", "k", "-c")
    store.expect(0, "-c\n", "get", "k")


def test_unset_removes_the_key_from_the_storage_file_only(store: Store) -> None:
    store.storage.write_text("# mine\na=1\nb=2\n")
    store.profile.write_text("b=default\n")
    store.expect(0, "", "unset", "b")
    assert store.storage.read_text() == "# mine\na=1\n"
    store.expect(0, "default\n", "get", "b")
    store.expect(1, "", "unset", "b")
    assert store.profile.read_text() == "b=default\n"


def test_list_shows_the_storage_file_over_the_profile(store: Store) -> None:
    store.storage.write_text("b=1\n\n#c=1\na=2\n")
    store.profile.write_text("z=3\nb=default\n")
    store.expect(0, "b=1\na=2\nz=3\n", "list")


def test_list_of_an_empty_store_is_empty(store: Store) -> None:
    store.expect(0, "", "list")


def test_config_file_chooses_the_storage_file(store: Store) -> None:
    other = store.folder / "other"
    store.config.write_text(f"storage={other}\n")
    assert run_tool("--conf", store.config, "set", "k", "v").returncode == 0
    assert other.read_text() == "k=v\n"


@pytest.mark.parametrize(
    "arguments",
    [
        [],
        ["get"],
        ["get", "a", "b"],
        ["set", "a"],
        ["set", "a", "b", "c"],
        ["unset"],
        ["list", "a"],
        ["remove", "a"],
        ["-x", "list"],
        ["--help"],
        ["-c"],
        ["--profile"],
        ["-c", "file"],
    ],
)
def test_wrong_usage_gives_status_2_and_the_usage_text(arguments: list[str]) -> None:
    result = run_tool(*arguments)
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr.startswith("usage: usi [-c FILE] [--profile FILE] [--conf FILE] COMMAND\n")


@pytest.mark.parametrize("key", ["", "a=b", "#a", "a b", "a\n"])
def test_bad_key_is_refused(store: Store, key: str) -> None:
    text = "Invalid key (empty, or with '=', a leading '#', white space or a control character)"
    store.expect_error(text, "set", key, "v")
    store.expect_error(text, "unset", key)
    store.expect(1, "", "get", key)
    assert not store.storage.exists()


@pytest.mark.parametrize(
    ("content", "text"),
    [
        (b"a=1\n\x00\x01\x02", "Not a text file (it holds a NUL byte)"),
        (b"a=1\nb=" + b"x" * (1 << 20) + b"\n", "Line too long in settings file"),
        (b"\n" * (5 << 20), "Settings file too big"),
    ],
    ids=["binary", "long line", "big"],
)
def test_file_that_is_no_settings_file_is_refused_and_left_alone(store: Store, content: bytes, text: str) -> None:
    store.storage.write_bytes(content)
    for arguments in [["get", "a"], ["set", "a", "2"], ["unset", "a"], ["list"]]:
        store.expect_error(text, *arguments)
    assert store.storage.read_bytes() == content


def test_folder_in_place_of_the_file_is_refused(store: Store) -> None:
    store.storage.mkdir()
    store.expect_error("Not a regular file", "get", "a")
    store.expect_error("Not a regular file", "set", "a", "1")


def test_missing_folder_is_an_error_of_set(store: Store) -> None:
    store.storage = store.folder / "none" / "settings"
    store.expect(1, "", "get", "a")
    store.expect_error("No such file or directory", "set", "a", "1")


def test_missing_permission_is_an_error(store: Store) -> None:
    if os.geteuid() != 0:
        pytest.skip("needs root to become somebody else")
    store.storage.write_text("a=1\n")
    store.storage.chmod(0o600)
    for folder in [store.folder, *store.folder.parents][:3]:
        folder.chmod(0o755)
    try:
        TOOL.stat()
        somebody = {"user": NOBODY, "group": NOBODY, "extra_groups": []}
        if subprocess.run([str(TOOL), "--help"], capture_output=True, check=False, **somebody).returncode != 2:
            pytest.skip("another user can't run the tool from here")
    except PermissionError:
        pytest.skip("another user can't run the tool from here")
    store.expect_error("Permission denied", "get", "a", **somebody)
    store.storage.chmod(0o644)
    store.expect_error("Permission denied", "set", "a", "2", **somebody)
    assert store.storage.read_text() == "a=1\n"


def test_full_disk_is_an_error_and_keeps_the_old_file(store: Store) -> None:
    disk = store.folder / "disk"
    disk.mkdir()
    tool = f"'{TOOL}' -c '{disk}/settings' --conf '{store.config}'"
    script = f"""
        mount -t tmpfs -o size=128k none '{disk}' || exit 77
        {tool} set k old || exit 1
        dd if=/dev/zero of='{disk}/filler' bs=4k 2> /dev/null
        {tool} set k new; echo "status $?"
        cat '{disk}/settings'
        ls '{disk}'
        rm '{disk}/filler'
        {tool} set k new; {tool} get k
    """
    result = subprocess.run(
        ["unshare", "-m", "sh", "-c", script], capture_output=True, text=True, timeout=60, check=False
    )
    if result.returncode == 77 or "unshare failed" in result.stderr:
        pytest.skip(f"a file system can't be mounted here: {result.stderr}")
    assert result.stderr == "usi: No space left on device\n"
    assert result.stdout.split("\n") == ["status 2", "k=old", "filler", "settings", "settings.lock", "new", ""]


def test_lost_output_is_an_error(store: Store) -> None:
    store.storage.write_text("a=1\n")
    with open("/dev/full", "w") as full:
        result = store.run("list", stdout=full)
    assert result.returncode == 2
    assert "No space left on device" in result.stderr


def test_tools_started_together_lose_no_update(store: Store) -> None:
    files = ["-c", store.storage, "--conf", store.config]
    tools = [subprocess.Popen([TOOL, *files, "set", f"key{i}", str(i)]) for i in range(40)]
    assert [tool.wait(timeout=60) for tool in tools] == [0] * len(tools)
    lines = store.storage.read_text().splitlines()
    assert sorted(lines) == sorted(f"key{i}={i}" for i in range(40))


def test_header_is_good_c(tmp_path: Path) -> None:
    compiler = shutil.which("cc")
    if not compiler:
        pytest.skip("no C compiler")
    source = tmp_path / "user.c"
    source.write_text('#include "usi.h"\nint main(void) { return usiStrerror(USI_BAD_KEY) == 0; }\n')
    header = ROOT / "platform" / "usi"
    for standard in ["c99", "c17"]:
        command = [compiler, f"-std={standard}", "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only"]
        subprocess.run([*command, f"-I{header}", source], check=True)
