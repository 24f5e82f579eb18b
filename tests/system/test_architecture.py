"""docs/architecture.md names every module of the agent, and its pictures none that isn't there."""

from __future__ import annotations

import re
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
TEXT = (ROOT / "docs" / "architecture.md").read_text()
ROOMS = sorted(f"src/{path.name}" for path in (ROOT / "src").iterdir() if path.is_dir())
SECTIONS = dict(section.split("\n", 1) for section in re.split(r"^## ", TEXT, flags=re.MULTILINE)[1:])
SECTIONS_WITH_PICTURES = ["A message's way", "Threads", "Start-up", "State record", "Life and end"]
SECOND_LINE = re.compile(r'<br>([^"\]\n]*)')


def modules(room: str) -> set[str]:
    return {path.stem for path in (ROOT / room).rglob("*") if path.suffix in {".h", ".cpp"}}


def whole_names(cell: str) -> list[str]:
    """The names in a cell; one that begins with an underscore carries on the last one that does not."""
    names, begun = [], ""
    for name in re.findall(r"`(\w+)`", cell):
        begun = begun if name.startswith("_") else name
        names.append(begun + name if name.startswith("_") else name)
    return names


def table() -> dict[str, list[str]]:
    """The modules that the table names, by their room, which stands in its first row only."""
    named: dict[str, list[str]] = {}
    room = ""
    for line in SECTIONS["Rooms and modules"].splitlines():
        if line.startswith("|"):
            _, first, module, _ = line.split("|", 3)
            room = first.strip(" `") or room
            named.setdefault(room, []).extend(whole_names(module))
    return named


def modules_in_pictures(section: str) -> set[str]:
    """Those on the second lines of boxes."""
    pictures = re.findall(r"^```mermaid\n(.*?)^```$", SECTIONS[section], re.MULTILINE | re.DOTALL)
    return {name for picture in pictures for line in SECOND_LINE.findall(picture) for name in line.split(", ")}


@pytest.mark.parametrize("room", ROOMS)
def test_the_table_names_each_module_of_a_room_once(room: str):
    assert sorted(table()[room]) == sorted(modules(room))


def test_there_are_no_other_pictures():
    assert [title for title, text in SECTIONS.items() if "```mermaid" in text] == SECTIONS_WITH_PICTURES


@pytest.mark.parametrize("section", SECTIONS_WITH_PICTURES)
def test_the_modules_in_a_picture_exist(section: str):
    named = modules_in_pictures(section)
    assert named
    assert named <= set().union(*map(modules, ROOMS))
