#!/usr/bin/env python3
"""Fails when includes form a circle.

A module is a header with its source (src/core/log.h, src/core/log.cpp); it depends on every module whose header
one of the two includes. Rooms above must not be needed by rooms below, so no module may reach itself.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
INCLUDE = re.compile(r'^\s*#include "([^"]+)"', re.MULTILINE)


def module_of(path):
    return str(path.with_suffix(""))


def read_dependencies(folder):
    dependencies = {}
    for path in sorted(folder.rglob("*")):
        if path.suffix not in {".h", ".cpp"}:
            continue
        module = module_of(path.relative_to(folder))
        needed = dependencies.setdefault(module, set())
        for name in INCLUDE.findall(path.read_text()):
            for base in (folder, path.parent):
                if (base / name).is_file():
                    needed.add(module_of((base / name).relative_to(folder)))
                    break
        needed.discard(module)
    return dependencies


def find_circle(dependencies):
    done = set()

    def visit(module, trail):
        if module in trail:
            return trail[trail.index(module):] + [module]
        if module in done:
            return None
        for needed in sorted(dependencies.get(module, ())):
            circle = visit(needed, trail + [module])
            if circle:
                return circle
        done.add(module)
        return None

    for module in sorted(dependencies):
        circle = visit(module, [])
        if circle:
            return circle
    return None


def main():
    modules = 0
    for folder in ("src", "platform/usi"):
        dependencies = read_dependencies(ROOT / folder)
        modules += len(dependencies)
        circle = find_circle(dependencies)
        if circle:
            print(f"includes of {folder} form a circle: {' -> '.join(circle)}", file=sys.stderr)
            return 1
    print(f"includes of {modules} modules form no circle")
    return 0


sys.exit(main())
