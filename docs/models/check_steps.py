#!/usr/bin/env python3
"""Fails unless the steps that the models name and those that the source names are the same.

A model names a step in a comment ("/* stop.clear */", with further words behind a colon), the source at the line that does
it ("// model: stop.clear"). The source names each step once; models may go through one step in several places.
"""
import collections
import pathlib
import re
import sys

MODELS = pathlib.Path(__file__).resolve().parent
ROOT = MODELS.parent.parent
NAMES = r"([a-z_]+\.[a-z_]+(?:, [a-z_]+\.[a-z_]+)*)"
IN_MODEL = re.compile(rf"/\* {NAMES}(?::[^*]*)? \*/")
IN_SOURCE = re.compile(rf"// model: {NAMES}$", re.MULTILINE)


def named(files, pattern):
    """How often each name stands in the files."""
    return collections.Counter(name for file in files for names in pattern.findall(file.read_text())
                               for name in names.split(", "))


def main():
    modelled = named(sorted(MODELS.glob("*.pml")), IN_MODEL)
    marked = named(sorted((ROOT / "src").rglob("*.cpp")), IN_SOURCE)
    faults = [f"only in a model: {name}" for name in sorted(modelled.keys() - marked.keys())]
    faults += [f"only in the source: {name}" for name in sorted(marked.keys() - modelled.keys())]
    faults += [f"more than once in the source: {name}" for name, count in sorted(marked.items()) if count > 1]
    for fault in faults:
        print(fault, file=sys.stderr)
    print(f"model steps: {len(modelled)} in the models, {len(marked)} in the source, {len(faults)} faults")
    return 1 if faults or not modelled else 0


sys.exit(main())
