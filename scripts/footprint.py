#!/usr/bin/env python3
"""Prints how much text and data a program has, in KiB, and fails if that is more than a device has for it, or if the
program needs the C++ library: a device may have none, and loading it costs time and memory at every start.

usage: footprint.py PROGRAM
"""

import re
import subprocess
import sys

MOST_KIB = 200


def kib(program: str) -> float:
    """What `size` finds in the program's sections; symbols and debug information are not among them."""
    output = subprocess.run(["size", program], check=True, stdout=subprocess.PIPE, text=True).stdout
    text, data = output.splitlines()[1].split()[:2]
    return (int(text) + int(data)) / 1024


def libraries(program: str) -> list[str]:
    """What the dynamic loader has to find."""
    output = subprocess.run(["readelf", "--dynamic", program], check=True, stdout=subprocess.PIPE, text=True).stdout
    return re.findall(r"\(NEEDED\).*\[(.*)\]", output)


def main() -> int:
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    found = kib(sys.argv[1])
    print(f"{found:.1f} KiB of text and data, at most {MOST_KIB} are allowed")
    unwanted = [name for name in libraries(sys.argv[1]) if name.startswith("libstdc++")]
    for name in unwanted:
        print(f"needs {name}")
    return 0 if found <= MOST_KIB and not unwanted else 1


if __name__ == "__main__":
    sys.exit(main())
