"""README.md has all options and settings, docs/README.md all documents, and links lead somewhere."""

from __future__ import annotations

import re
from pathlib import Path

import pytest
from test_manual_pages import agent_options, entries

ROOT = Path(__file__).resolve().parents[2]
DOCUMENTS = sorted([*ROOT.glob("*.md"), *ROOT.glob("docs/**/*.md"), *ROOT.glob("lab/*.md")])
LINK = re.compile(r"\]\(([^):#]+)(?:#[^)]*)?\)")
KEY = re.compile(r"`(q_\w+?)(?:NAME)?`(\\\*)?")


def rows(section: str) -> list[list[str]]:
    """The cells of the section's table, without its head."""
    text = (ROOT / "README.md").read_text().partition(f"\n## {section}\n")[2].partition("\n## ")[0]
    cells = re.compile(r"(?<!\\)\|")
    return [cells.split(line)[1:-1] for line in text.splitlines() if line.startswith("| `")]


def links(document: Path) -> set[str]:
    text = re.sub(r"^```.*?^```$", "", document.read_text(), flags=re.MULTILINE | re.DOTALL)
    return set(LINK.findall(text))


def test_options_are_those_of_the_agent():
    named = {name for option, *_ in rows("Command line") for name in re.findall(r"`(--?\w+)", option)}
    assert named == set(agent_options())


def test_settings_are_those_of_the_manual_page():
    named = {key for keys, meaning, _ in rows("Settings") for key, _ in KEY.findall(keys + meaning)}
    assert named == {key for key in entries() if key.startswith("q_")}


def test_settings_with_a_star_are_those_that_the_agent_reads_at_start_up():
    starred = {key for keys, *_ in rows("Settings") for key, star in KEY.findall(keys) if star}
    given = {key: entry for key, entry in entries().items() if entry.writers.startswith("the administrator")}
    assert starred == {key for key, entry in given.items() if "the agent at start-up" in entry.readers}


def test_defaults_of_settings_are_those_of_the_manual_page():
    told = {}
    for keys, _, defaults in rows("Settings"):
        if numbers := re.findall(r"\d+", defaults):
            told.update(zip((key for key, _ in KEY.findall(keys)), numbers))
    wanted = {key: entry.default for key, entry in entries().items() if entry.default.isdigit()}
    untold = {"q_agent_registered", "q_agent_claimed", "q_qcloud_proxy_port"}  # what "none" says, too
    assert told == {key: default for key, default in wanted.items() if key not in untold}


@pytest.mark.parametrize("document", DOCUMENTS, ids=lambda path: str(path.relative_to(ROOT)))
def test_links_lead_somewhere(document: Path):
    assert [link for link in links(document) if not (document.parent / link).exists()] == []


def test_the_index_has_each_document_of_its_folder():
    assert {path.name for path in ROOT.glob("docs/*.md")} - {"README.md"} <= links(ROOT / "docs" / "README.md")
