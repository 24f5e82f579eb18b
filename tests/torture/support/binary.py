"""What the linker and the compiler have done to harden a program: read from the program itself."""

from __future__ import annotations

import os
import re
import subprocess
from pathlib import Path

MOST_BYTES = 200 * 1024  # of code and data

# What writes without a limit has checked twins, or no place in a program at all.
UNCHECKED = {"gets", "strcpy", "strcat", "stpcpy", "sprintf", "vsprintf", "printf", "vprintf", "fprintf", "vfprintf"}


def check_hardening(program: Path) -> int:
    """Fails for a property that is missing. Gives the bytes of code and data."""
    header, dynamic = _readelf("--file-header", program), _readelf("--dynamic", program)
    segments, symbols = _readelf("--program-headers", program), _readelf("--dyn-syms", program)
    imported = set(re.findall(r" UND (\w+)", symbols))
    properties = {
        "position-independent": " DYN " in header and re.search(r"\(FLAGS_1\).*\bPIE\b", dynamic),
        "bound at its start": re.search(r"\(FLAGS_1\).*\bNOW\b", dynamic) or "BIND_NOW" in dynamic,
        "relocations read-only": "GNU_RELRO" in segments,
        "no lazily bound table that stays writable": ".got.plt" not in _readelf("--section-headers", program),
        "no relocations in code": "TEXTREL" not in dynamic,
        "stack not executable": re.search(r"GNU_STACK(?: +0x\w+){5} RW ", segments),
        "nothing writable and executable": not re.search(r"^ *LOAD .* RWE ", segments, re.MULTILINE),
        "stack protector": "__stack_chk_fail" in imported,
        "fortified": any(re.fullmatch(r"__\w+_chk", name) and name != "__stack_chk_fail" for name in imported),
        "no search path of its own": not re.search(r"\((RPATH|RUNPATH)\)", dynamic),
        "no symbols": "\nSymbol table '.symtab'" not in _readelf("--symbols", program),
    }
    missing = [name for name, there in properties.items() if not there]
    assert not missing, f"{program} is not: {', '.join(missing)}"
    assert not imported & UNCHECKED, f"{program} calls {imported & UNCHECKED} without a check of the buffer"
    size = _size(program)
    assert size < MOST_BYTES, f"{program}: {size} bytes of code and data"
    return size


def _readelf(what: str, program: Path) -> str:
    return _run("readelf", "--wide", what, program)


def _size(program: Path) -> int:
    text, data = _run("size", program).splitlines()[1].split()[:2]
    return int(text) + int(data)


def _run(*command: str | Path) -> str:
    plain_english = {**os.environ, "LC_ALL": "C"}
    return subprocess.run(command, check=True, capture_output=True, text=True, env=plain_english).stdout
