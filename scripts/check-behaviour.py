#!/usr/bin/env python3
"""Holds docs/behaviour.md against the tests.

Each row of its tables is one behaviour, and its last cell names the tests that show it, in backticks:
`Suite.Name` for a unit test, `test_file.py::test_name` for a system test. A behaviour that no test can reach says
`none: reason`. Fails for a row without either, and for a test that doesn't exist.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOCUMENT = ROOT / "docs" / "behaviour.md"
UNIT_TEST = re.compile(r"^\s*TEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)", re.MULTILINE)
SYSTEM_TEST = re.compile(r"^\s*def (test_\w+)\(", re.MULTILINE)
NAMED = re.compile(r"`([^`]+)`")


def existing_tests():
    names = set()
    for path in (ROOT / "tests" / "unit").rglob("*.cpp"):
        names |= {f"{suite}.{name}" for suite, name in UNIT_TEST.findall(path.read_text())}
    for path in (ROOT / "tests" / "system").rglob("test_*.py"):
        names |= {f"{path.name}::{name}" for name in SYSTEM_TEST.findall(path.read_text())}
    return names


def rows(text):
    for number, line in enumerate(text.splitlines(), 1):
        if line.startswith("|") and not re.match(r"^\|[\s|:-]+\|$", line):
            cells = [cell.strip() for cell in re.split(r"(?<!\\)\|", line.strip()[1:-1])]
            yield number, cells


def main():
    tests = existing_tests()
    behaviours = 0
    faults = []
    for number, cells in rows(DOCUMENT.read_text()):
        proof = cells[-1]
        if proof.lower() in {"test", "tests"}:
            continue
        behaviours += 1
        if proof.startswith("none:") and len(proof) > len("none:") + 10:
            continue
        named = NAMED.findall(proof)
        if not named:
            faults.append(f"line {number}: no test is named")
        faults += [f"line {number}: there is no test {name}" for name in named if name not in tests]
    for fault in faults:
        print(f"docs/behaviour.md, {fault}", file=sys.stderr)
    print(f"{behaviours} behaviours, {len(faults)} faults")
    return 1 if faults else 0


sys.exit(main())
