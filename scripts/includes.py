#!/usr/bin/env python3
"""Reads who includes whom.

usage: includes.py check     fails when includes form a circle, or when docs/includes.svg no longer shows them
       includes.py draw      draws docs/includes.svg anew (needs Graphviz)

A module is a source with its header (src/core/daemon.cpp, src/core/daemon.h) and with the sources that carry on its name
without a header of their own (src/core/daemon_sleep.cpp). It needs every module whose header it includes. What is needed
must not need it back, so no module may reach itself.
"""
import html
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
PICTURE = ROOT / "docs" / "includes.svg"
FOLDERS = ("src", "platform/usi")
INCLUDE = re.compile(r'^\s*#include "([^"]+)"', re.MULTILINE)
TITLE = re.compile(r"<title>([^<]+)</title>")
# The rooms from above to below, with the colours of their modules and arrows.
ROOMS = {
    "src/ctl": ("#d9efec", "#1a7a70"),
    "src/core": ("#e8e8e8", "#606060"),
    "src/control": ("#f6dfc6", "#b06010"),
    "src/cloud": ("#d4e6f7", "#2060a0"),
    "src/broker": ("#dcefd2", "#3c7d1f"),
    "src/broker/messages": ("#dcefd2", "#3c7d1f"),
    "src/delivery": ("#f3d9ea", "#a03078"),
    "platform/usi": ("#f5f0c4", "#80700a"),
}

TOP_ROOM = "src/ctl"


def sources():
    for folder in FOLDERS:
        for path in sorted((ROOT / folder).rglob("*")):
            if path.suffix in {".h", ".cpp"}:
                yield path.relative_to(ROOT)


def module_of(path):
    stem = path.with_suffix("")
    if (ROOT / stem).with_suffix(".h").is_file():
        return str(stem)
    name = stem.name.rpartition("_")[0]
    while name and not (ROOT / path.parent / f"{name}.cpp").is_file():
        name = name.rpartition("_")[0]
    return str(stem.with_name(name or stem.name))


def included_files(path):
    for name in INCLUDE.findall((ROOT / path).read_text()):
        for base in (path.parent, *map(pathlib.Path, FOLDERS)):
            if (ROOT / base / name).is_file():
                yield base / name
                break


def read_needs():
    """For each module the set of modules that it needs."""
    needs = {}
    for path in sources():
        module = module_of(path)
        needed = needs.setdefault(module, set())
        needed.update(module_of(file) for file in included_files(path))
        needed.discard(module)
    return needs


def find_circle(needs):
    done = set()

    def visit(module, trail):
        if module in trail:
            return trail[trail.index(module):] + [module]
        if module in done:
            return None
        for needed in sorted(needs[module]):
            circle = visit(needed, trail + [module])
            if circle:
                return circle
        done.add(module)
        return None

    for module in sorted(needs):
        circle = visit(module, [])
        if circle:
            return circle
    return None


def everything_below(module, needs, known):
    if module not in known:
        known[module] = set()
        for needed in needs[module]:
            known[module] |= {needed} | everything_below(needed, needs, known)
    return known[module]


def drawn_arrows(needs):
    """The includes without those that follow from others: who needs A, which needs B, needs B anyway."""
    known = {}
    arrows = set()
    for module, needed in needs.items():
        implied = set().union(*(everything_below(other, needs, known) for other in needed))
        arrows |= {(module, other) for other in needed - implied}
    return arrows


def room_of(module):
    return module.rpartition("/")[0]


def graph_text(needs):
    lines = [
        "digraph includes {",
        '  graph [rankdir=TB ranksep=0.55 nodesep=0.16 fontname="Helvetica" fontsize=15 newrank=true]',
        '  node [shape=box style="filled,rounded" fontname="Helvetica" fontsize=12 height=0.3 margin="0.08,0.03"]',
        "  edge [arrowsize=0.6]",
    ]
    for room, (fill, line) in ROOMS.items():
        lines.append(f'  subgraph "cluster {room}" {{ label="{room}" style=rounded color="{line}" fontcolor="{line}"')
        for module in sorted(module for module in needs if room_of(module) == room):
            lines.append(f'    "{module}" [label="{module.rpartition("/")[2]}" fillcolor="{fill}" color="{line}"]')
        lines.append("  }")
    for module, needed in sorted(drawn_arrows(needs)):
        lines.append(f'  "{module}" -> "{needed}" [color="{ROOMS[room_of(module)][1]}"]')
    return "\n".join([*lines, "}", ""])


def draw(needs):
    drawn = subprocess.run(["dot", "-Tsvg"], input=graph_text(needs), text=True, capture_output=True, check=True).stdout
    # Without the comments, which name the version of Graphviz.
    PICTURE.write_text(re.sub(r"<!--.*?-->\n?", "", drawn, flags=re.DOTALL))


def shown_in_picture():
    """The modules ("a") and arrows ("a->b") that the picture has."""
    titles = {html.unescape(title) for title in TITLE.findall(PICTURE.read_text())} if PICTURE.is_file() else set()
    return {title for title in titles if "/" in title and not title.startswith("cluster ")}


def check(needs):
    circle = find_circle(needs)
    if circle:
        return f"includes form a circle: {' -> '.join(circle)}"
    strangers = sorted(module for module in needs if room_of(module) not in ROOMS)
    if strangers:
        return f"no room of scripts/includes.py: {', '.join(strangers)}"
    intruders = sorted(f"{module} -> {needed}" for module in needs for needed in needs[module]
                       if room_of(needed) == TOP_ROOM != room_of(module))
    if intruders:
        return f"{TOP_ROOM} is a program of its own, which nobody includes: {', '.join(intruders)}"
    expected = set(needs) | {f"{module}->{needed}" for module, needed in drawn_arrows(needs)}
    different = sorted(expected ^ shown_in_picture())
    if different:
        return f"docs/includes.svg is not up to date (scripts/includes.py draw): {', '.join(different)}"
    return None


def main():
    needs = read_needs()
    if sys.argv[1:] == ["draw"]:
        draw(needs)
    elif sys.argv[1:] != ["check"]:
        print(__doc__, file=sys.stderr)
        return 2
    fault = check(needs)
    if fault:
        print(fault, file=sys.stderr)
        return 1
    print(f"includes of {len(needs)} modules form no circle")
    return 0


sys.exit(main())
