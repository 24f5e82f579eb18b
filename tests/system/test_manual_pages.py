"""The manual pages: they name the options, commands and settings that the programs have, and no others."""

from __future__ import annotations

import re
import subprocess
from collections.abc import Iterable
from dataclasses import dataclass
from pathlib import Path

import pytest
from orvel_lab.agent import default_binary
from test_orvelctl_completion import COMMANDS, help_text, options_in_help

ROOT = Path(__file__).resolve().parents[2]
FOLDER = ROOT / "packaging" / "man"
PAGES = sorted(path.name for path in FOLDER.iterdir())
FLAGS = re.compile(r"\bFl ([\w-]+(?: , [\w-]+)*)")
LONG_OPTION = re.compile(r"(?<!\S)--[a-z_-]+")
KEY = re.compile(r'"(q_[a-z_]+)(?:%s)?"')


def source(name: str) -> str:
    """Without comments."""
    return re.sub(r"//.*", "", (ROOT / name).read_text())


def page(name: str) -> list[str]:
    return (FOLDER / name).read_text().splitlines()


def section(name: str, title: str) -> list[str]:
    lines = page(name)
    start = lines.index(f".Sh {title}") + 1
    return lines[start : next((i for i in range(start, len(lines)) if lines[i].startswith(".Sh ")), len(lines))]


def flags(lines: Iterable[str]) -> set[str]:
    return {"-" + name for line in lines for names in FLAGS.findall(line) for name in names.split(" , ")}


def items(lines: Iterable[str], pattern: str) -> set[str]:
    """What the pattern's group finds at the beginning of list items."""
    return {found[1] for line in lines if (found := re.match(rf"\.It {pattern}", line))}


def agent_options() -> dict[str, bool]:
    """Each name in the agent's table, and whether a value follows it."""
    rows = re.findall(r'\{("-\w"|nullptr), ("--\w+"), (true|false),', source("src/core/args.cpp"))
    return {name.strip('"'): value == "true" for *names, value in rows for name in names if name != "nullptr"}


def usi_options() -> set[str]:
    return set(re.findall(r'\{"(-c|--\w+)", usiSet', source("platform/usi/usi_tool.cpp")))


def orvelctl_options() -> set[str]:
    """Those that stand before a command."""
    return options_in_help() | set(re.findall(r"^  (-\w),", help_text(), re.MULTILINE))


class TestPages:
    def test_all_are_there(self):
        wanted = ["orvel-handlers.7", "orvel-protocol.7", "orvel-settings.5", "orvel.8", "orvelctl.1", "usi.1"]
        assert PAGES == wanted

    @pytest.mark.parametrize("name", PAGES)
    def test_lint_is_silent(self, name: str):
        command = ["mandoc", "-T", "lint", "-W", "all", name]
        result = subprocess.run(command, cwd=FOLDER, capture_output=True, text=True, check=False)
        assert (result.returncode, result.stdout, result.stderr) == (0, "", "")

    @pytest.mark.parametrize("name", PAGES)
    def test_title_is_the_files_name(self, name: str):
        assert ".Dt " + name.upper().replace(".", " ") in page(name)

    @pytest.mark.parametrize("name", PAGES)
    def test_cross_references_exist(self, name: str):
        found = re.findall(r"\bXr (\S+) (\d)", "\n".join(page(name)))
        assert found
        assert {f"{title}.{number}" for title, number in found} <= set(PAGES) - {name}

    @pytest.mark.parametrize("name", PAGES)
    def test_are_installed(self, name: str):
        assert name in re.findall(r"[\w-]+\.\d\b", (ROOT / "CMakeLists.txt").read_text())


class TestAgentsOptions:
    def test_are_those_of_its_table(self):
        assert len(agent_options()) > 30
        assert flags(line for line in page("orvel.8") if line.startswith(".It Fl")) == set(agent_options())

    def test_have_a_value_where_the_table_says_so(self):
        heads = [line for line in page("orvel.8") if line.startswith(".It Fl")]
        assert {name: " Ar " in head for head in heads for name in flags([head])} == agent_options()

    def test_are_taken_by_the_program(self):
        for option, has_value in agent_options().items():
            command = [str(default_binary()), option, *(["1"] if has_value else []), "--version"]
            result = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False)
            assert (result.returncode, result.stdout[:8]) == (0, "Version "), option


class TestOrvelctl:
    def test_global_options_are_those_of_its_help(self):
        items_of_page = [line for line in section("orvelctl.1", "DESCRIPTION") if line.startswith(".It Fl")]
        assert flags(items_of_page) == orvelctl_options()

    def test_commands_and_their_options_are_those_of_its_help(self):
        found: dict[str, set[str]] = {}
        command = ""
        for line in section("orvelctl.1", "COMMANDS"):
            head = re.match(r"\.It Cm (\S+)", line)
            command = head[1] if head else command
            if line.startswith(".It "):
                found.setdefault(command, set()).update(flags([line]))
        assert found == {name: options_in_help(name) - {"--help"} for name in COMMANDS}

    def test_exit_statuses_are_those_of_its_source(self):
        own = re.findall(r"constexpr int exit_\w+ = (\d+);", source("src/ctl/exit_status.h"))
        codes = [code for code in results_in_source() if int(code) < -1]
        listed = items(section("orvelctl.1", "EXIT STATUS"), r"(\d+)")
        assert listed == {*own, *(code.lstrip("-") for code in codes)}


class TestUsi:
    def test_options_are_those_of_its_source(self):
        assert len(usi_options()) == 3
        assert flags(line for line in page("usi.1") if line.startswith(".It Fl")) == usi_options()

    def test_commands_are_those_of_its_usage(self):
        tool = default_binary().with_name("usi")
        said = subprocess.run([str(tool)], capture_output=True, text=True, timeout=60, check=False).stderr
        usage = dict(re.findall(r"^  (\w+)((?: [A-Z]+)*)  ", said, re.MULTILINE))
        heads = [line.split()[2:] for line in page("usi.1") if line.startswith(".It Cm")]
        listed = {name: [word.upper() for word in rest if word != "Ar"] for name, *rest in heads}
        assert listed == {name: arguments.split() for name, arguments in usage.items()}

    def test_its_source_has_no_other_commands(self):
        table = source("platform/usi/usi_tool.cpp").partition("constexpr command commands[]")[2].partition("};")[0]
        assert items(page("usi.1"), r"Cm (\w+)") == set(re.findall(r'\{"(\w+)", \d', table))


def known_options(name: str) -> set[str]:
    if name == "usi.1":
        return usi_options()
    if name == "orvelctl.1":
        return orvelctl_options().union(*map(options_in_help, COMMANDS))
    return set(agent_options())


@pytest.mark.parametrize("name", PAGES)
def test_no_option_is_mentioned_that_does_not_exist(name: str):
    assert flags(line for line in page(name) if line.startswith(".")) <= known_options(name)
    everywhere = set().union(*map(known_options, PAGES))
    assert set(LONG_OPTION.findall("\n".join(page(name)))) <= everywhere


# --- settings


@dataclass
class Entry:
    """What the page says about a key, before it comes to its meaning."""

    kind: str
    default: str
    writers: str
    readers: str


def read_entry(lines: list[str]) -> Entry:
    text = " ".join(line.removeprefix(".Ic ").removesuffix(" .").removesuffix(" ;") for line in lines)
    found = re.fullmatch(
        r"(\w+), (?:default )?(required|no default|\d+)\. Written by (.*?);? read by (.*?)\.?", text
    )
    assert found, text
    return Entry(*found.groups())


def entries() -> dict[str, Entry]:
    """A key with a name behind its prefix is listed by the prefix. Items in a row share what follows them."""
    found: dict[str, Entry] = {}
    keys: list[str] = []
    lines = page("orvel-settings.5")
    for number, line in enumerate(lines):
        head = re.match(r"\.It Va (\w+)", line)
        if not head:
            continue
        keys.append(head[1])
        if lines[number + 1].startswith(".It "):
            continue
        entry = read_entry(lines[number + 1 : lines.index(".Pp", number)])
        found.update(dict.fromkeys(keys, entry))
        keys = []
    return found


def sources(folder: str) -> dict[str, str]:
    """The texts of a folder's sources; "src" is the agent alone."""
    paths = [path for path in (ROOT / folder).rglob("*.cpp") if folder != "src" or path.parent.name != "ctl"]
    return {path.stem: source(str(path.relative_to(ROOT))) for path in paths}


def keys_in(texts: Iterable[str]) -> list[str]:
    return [key for text in texts for key in KEY.findall(text)]


def extra_keys() -> set[str]:
    return set(re.findall(r'state_flag \w+\{&AgentState::\w+, "(\w+)"', source("src/cloud/logic_state.cpp")))


def written_by_agent() -> list[str]:
    return [key for text in sources("src").values() for key in re.findall(r'config_set\("(\w+)"', text)]


def defaults_in_source() -> dict[str, str]:
    found = dict(re.findall(r'"(q_\w+)", (\d+)\}', source("src/cloud/logic_settings.cpp")))
    for text in sources("src").values():
        for key, default in re.findall(r'config_get_uint\("(q_\w+)", (\w+)\)', text):
            named = re.search(rf"constexpr uint32_t {default} = (\d+);", text)
            found[key] = named[1] if named else default
    return found


def orvelctl_users() -> dict[str, set[str]]:
    """The commands of orvelctl that know each key."""
    found: dict[str, set[str]] = {}
    for stem, text in sources("src/ctl").items():
        command = "doctor" if stem.startswith("doctor_") else stem.replace("_", "-")
        for key in KEY.findall(text):
            found.setdefault(key, set()).add(command)
    found["q_handler_event_sink"] |= found["q_handler_"]
    return found


class TestSettings:
    def test_are_those_of_the_sources(self):
        known = {*keys_in([*sources("src").values(), *sources("src/ctl").values()]), *extra_keys()}
        known |= set(keys_in(sources("platform").values()))
        assert len(known) > 30 and len(extra_keys()) == 3
        assert set(entries()) == known

    def test_no_other_is_mentioned_on_any_page(self):
        for name in PAGES:
            mentioned = set(re.findall(r"\bq_\w+", "\n".join(page(name))))
            assert {key for key in mentioned if not key.startswith("q_handler_")} <= set(entries()), name

    def test_defaults_are_those_of_the_source(self):
        numbers = {key: entry.default for key, entry in entries().items() if entry.default.isdigit()}
        assert len(numbers) > 15
        assert numbers == defaults_in_source()

    def test_the_required_ones_are_the_addresses(self):
        addresses = re.findall(r'AgentSettings::\w+, "(q_\w+_url)"', source("src/cloud/logic_settings.cpp"))
        assert {key for key, entry in entries().items() if entry.default == "required"} == set(addresses)

    def test_what_doctor_takes_for_a_number_is_one(self):
        table = source("src/ctl/doctor_settings.cpp").partition("number_keys[]")[2].partition("};")[0]
        assert {entries()[key].kind for key in KEY.findall(table)} == {"Number", "Switch"}

    def test_written_by_the_agent_are_those_that_it_stores(self):
        stored = {*written_by_agent(), *extra_keys()}
        assert {key for key, entry in entries().items() if entry.writers.startswith("the agent")} == stored

    def test_read_by_the_agent_are_those_that_it_looks_up(self):
        everywhere = keys_in(sources("src").values())
        read = {key for key in everywhere if everywhere.count(key) > written_by_agent().count(key)}
        told = {key for key, entry in entries().items() if "the agent" in entry.readers}
        assert told - {"q_handler_event_sink"} == read  # which it looks up as one of q_handler_NAME

    def test_orvelctls_commands_are_those_that_know_the_key(self):
        told = {key: set(re.findall(r"orvelctl ([\w-]+)", entry.readers)) for key, entry in entries().items()}
        assert {key: commands for key, commands in told.items() if commands} == orvelctl_users()

    def test_written_by_orvelctl_is_what_watch_changes(self):
        writers = {stem for stem, text in sources("src/ctl").items() if "write_setting(" in text}
        assert writers == {"settings", "watch"}  # the first is its definition
        told = {key: re.findall(r"orvelctl (\w+)", entry.writers) for key, entry in entries().items()}
        assert {key: names for key, names in told.items() if names} == {"q_handler_event_sink": ["watch"]}

    def test_the_librarys_own_options_are_those_of_its_source(self):
        own = re.findall(r'copy_from\(config, "(\w+)"', source("platform/usi/usi_calls.cpp"))
        assert items(section("orvel-settings.5", "THE LIBRARY'S OWN OPTIONS"), r"Ic (\w+)") == set(own)


# --- protocols


def results_in_source() -> list[str]:
    return re.findall(r'\{(-?\d+), "', source("src/ctl/request.cpp"))


class TestProtocols:
    def test_requests_are_those_that_the_agent_knows(self):
        known = re.findall(r'\{"(\w+)", request_\w+,', source("src/cloud/json_helper_control.cpp"))
        assert items(section("orvel-protocol.7", "CONTROL PORT"), r"Ic (\w+)") == set(known)

    def test_results_are_those_that_orvelctl_explains(self):
        assert items(section("orvel-protocol.7", "CONTROL PORT"), r"(-?\d+)$") == set(results_in_source())

    def test_packet_types_are_those_of_the_format(self):
        types = re.findall(r"constexpr uint8_t packet_\w+ = (\d+);", source("src/broker/packet_format.h"))
        assert items(page("orvel-protocol.7"), r"(\d+) Ta") == set(types)

    def test_members_of_the_state_document_are_those_that_it_has(self):
        members = re.findall(r'\(object, "(\w+)", agent->', source("src/cloud/json_helper_cloud.cpp"))
        heads = [line for line in page("orvel-handlers.7") if line.startswith(".It Cm ")]
        assert {word for head in heads for word in head.split()[2:] if word != ","} == set(members)
