#!/usr/bin/python3
"""The bill of materials of a Debian package, in SPDX 2.3's JSON: what its programs are linked with.

usage: sbom.py write PACKAGE BILL   for a package that was built on this machine
       sbom.py check PACKAGE BILL   every required field is there, and every library that the programs ask for
"""

from __future__ import annotations

import hashlib
import json
import os
import re
import subprocess
import sys
import tempfile
import uuid
from collections.abc import Iterable, Iterator
from contextlib import contextmanager
from datetime import datetime, timezone
from pathlib import Path
from typing import Any

Json = dict[str, Any]

NEEDED = re.compile(r"\(NEEDED\).*\[(.+)\]")
FOUND = re.compile(r"^\s*(\S+) (?:=> (/\S+) )?\(0x", re.MULTILINE)  # ldd's lines; the loader stands there by its path
ID = re.compile(r"SPDXRef-[A-Za-z0-9.-]+")
DOCUMENT_FIELDS = {
    "spdxVersion": r"SPDX-2\.3",
    "dataLicense": r"CC0-1\.0",
    "SPDXID": r"SPDXRef-DOCUMENT",
    "name": r".+",
    "documentNamespace": r"[a-z]+:[^#\s]+",
}
CREATION_FIELDS = {"created": r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", "creators": r"\[.+\]"}
PACKAGE_FIELDS = {
    "SPDXID": ID.pattern,
    "name": r".+",
    "versionInfo": r".+",
    "downloadLocation": r"NOASSERTION|NONE|[a-z+]+:.+",
}


def run(*command: str | Path) -> str:
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def sha256(file: Path) -> str:
    return hashlib.sha256(file.read_bytes()).hexdigest()


@contextmanager
def programs_of(deb: Path) -> Iterator[list[Path]]:
    with tempfile.TemporaryDirectory() as folder:
        run("dpkg-deb", "--extract", deb, folder)
        yield sorted((Path(folder) / "usr/bin").iterdir())


def needed(binary: Path) -> list[str]:
    """The libraries that it asks for itself."""
    return NEEDED.findall(run("readelf", "--dynamic", binary))


def loaded(program: Path) -> dict[str, Path]:
    """Every library that is loaded with it, those of its libraries included."""
    found = {Path(name).name: Path(path or name) for name, path in FOUND.findall(run("ldd", program))}
    return {name: path for name, path in found.items() if path.is_absolute()}  # the kernel's own one has no file


def owners(libraries: Iterable[Path]) -> dict[Path, str]:
    """The Debian package of each; the database may know a file by its path before /usr."""
    spellings = {}
    for library in libraries:
        real = str(library.resolve())
        spellings |= {real: library, real.removeprefix("/usr"): library}
    # One of the two is not found, so that the exit status says nothing.
    search = ["dpkg-query", "--search", *spellings]
    listed = subprocess.run(search, check=False, capture_output=True, text=True).stdout
    found = (line.rsplit(": ", 1) for line in listed.splitlines())
    return {spellings[path]: package.split(":")[0] for package, path in found}


def debian_item(package: str) -> Json:
    fields = run("dpkg-query", "-W", "-f", "${Package}\n${Version}\n${Architecture}", package)
    name, version, architecture = fields.split("\n")
    url = f"pkg:deb/debian/{name}@{version.replace('+', '%2B').replace(':', '%3A')}?arch={architecture}"
    reference = {"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl", "referenceLocator": url}
    return item(name, version, externalRefs=[reference], supplier="Organization: Debian")


def item(name: str, version: str, **more: Any) -> Json:
    unknown = {"downloadLocation": "NOASSERTION", "licenseConcluded": "NOASSERTION", "copyrightText": "NOASSERTION"}
    return {"SPDXID": item_id(name), "name": name, "versionInfo": version, "filesAnalyzed": False, **unknown, **more}


def item_id(name: str) -> str:
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]", lambda found: f"-{ord(found[0]):x}-", name)


class Bill:
    def __init__(self, deb: Path) -> None:
        name, version = run("dpkg-deb", "--show", "--showformat", "${Package}\n${Version}", deb).split("\n")
        self.deb = deb
        self.product = item(
            name,
            version,
            packageFileName=deb.name,
            checksums=[{"algorithm": "SHA256", "checksumValue": sha256(deb)}],
        )
        self.items = {name: self.product}
        self.libraries: dict[str, set[str]] = {}  # by Debian package
        self.links = {("SPDXRef-DOCUMENT", "DESCRIBES", self.product["SPDXID"])}

    def link(self, user: str, kind: str, used: str) -> None:
        if user != used:
            self.links.add((item_id(user), kind, item_id(used)))

    def add_linked_in(self, program: str) -> None:
        """What becomes part of the programs themselves. No file of theirs tells: the build says so."""
        settings = item("usi", self.product["versionInfo"], comment="the bundled settings library, of these sources")
        self.items.setdefault("usi", settings)
        self.link(self.product["name"], "STATIC_LINK", "usi")
        if program == "orvelctl":
            headers = debian_item("libcli11-dev")
            self.items.setdefault("libcli11-dev", headers | {"comment": "the headers of CLI11, part of orvelctl"})
            self.link(self.product["name"], "STATIC_LINK", "libcli11-dev")

    def add_loaded(self, program: Path) -> None:
        paths = loaded(program)
        packages = owners(paths.values())
        users = [(self.product["name"], program), *((packages[path], path) for path in paths.values())]
        for user, binary in users:
            for library in needed(binary):
                package = packages[paths[library]]
                if package not in self.items:
                    self.items[package] = debian_item(package)
                self.libraries.setdefault(package, set()).add(library)
                self.link(user, "DYNAMIC_LINK", package)

    def document(self) -> Json:
        for package, names in self.libraries.items():
            self.items[package]["summary"] = " ".join(sorted(names))
        seconds = int(os.environ.get("SOURCE_DATE_EPOCH") or self.deb.stat().st_mtime)
        created = datetime.fromtimestamp(seconds, timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")
        return {
            "spdxVersion": "SPDX-2.3",
            "dataLicense": "CC0-1.0",
            "SPDXID": "SPDXRef-DOCUMENT",
            "name": self.deb.stem,
            "documentNamespace": uuid.uuid5(uuid.NAMESPACE_OID, sha256(self.deb)).urn,
            "creationInfo": {"created": created, "creators": ["Tool: sbom.py"]},
            "packages": [self.items[key] for key in sorted(self.items)],
            "relationships": [
                {"spdxElementId": user, "relationshipType": kind, "relatedSpdxElement": used}
                for user, kind, used in sorted(self.links)
            ],
        }


def write(deb: Path, path: Path) -> None:
    bill = Bill(deb)
    with programs_of(deb) as programs:
        for program in programs:
            bill.add_linked_in(program.name)
            bill.add_loaded(program)
    path.write_text(json.dumps(bill.document(), indent=2) + "\n")


def wrong_fields(where: str, holder: Json, fields: dict[str, str]) -> Iterator[str]:
    for field, pattern in fields.items():
        if not re.fullmatch(pattern, str(holder.get(field, ""))):
            yield f"{where}: {field} is {holder.get(field)!r}"


def wrong_links(bill: Json) -> Iterator[str]:
    known = {"SPDXRef-DOCUMENT", *(each.get("SPDXID") for each in bill["packages"])}
    for link in bill["relationships"]:
        for end in ("spdxElementId", "relatedSpdxElement"):
            if link.get(end) not in known:
                yield f"relationship: {end} is {link.get(end)!r}, which is no package here"
    if not any(link.get("relationshipType") == "DESCRIBES" for link in bill["relationships"]):
        yield "nothing says what the document describes"


def libraries_in(bill: Json) -> set[str]:
    return {library for each in bill["packages"] for library in each.get("summary", "").split()}


def missing_libraries(bill: Json, deb: Path) -> Iterator[str]:
    named = libraries_in(bill)
    with programs_of(deb) as programs:
        for program in programs:
            yield from (f"{program.name}: {name} is not named" for name in needed(program) if name not in named)


def faults(bill: Json, deb: Path) -> Iterator[str]:
    bill = {"creationInfo": {}, "packages": [], "relationships": [], **bill}
    yield from wrong_fields("document", bill, DOCUMENT_FIELDS)
    yield from wrong_fields("creationInfo", bill["creationInfo"], CREATION_FIELDS)
    for each in bill["packages"]:
        yield from wrong_fields(f"package {each.get('name')}", each, PACKAGE_FIELDS)
    if sha256(deb) not in json.dumps(bill["packages"]):
        yield f"no package has the checksum {sha256(deb)}"
    yield from wrong_links(bill)
    yield from missing_libraries(bill, deb)


def check(deb: Path, path: Path) -> int:
    bill = json.loads(path.read_text())
    found = list(faults(bill, deb))
    for fault in found:
        print(f"{path}: {fault}", file=sys.stderr)
    if not found:
        linked_in = [link for link in bill["relationships"] if link["relationshipType"] == "STATIC_LINK"]
        print(f"{len(libraries_in(bill))} shared libraries, {len(linked_in)} linked in; every required field is there")
    return 1 if found else 0


def main() -> int:
    if len(sys.argv) != 4 or sys.argv[1] not in ("write", "check"):
        print(__doc__, file=sys.stderr)
        return 2
    deb, path = map(Path, sys.argv[2:])
    if sys.argv[1] == "check":
        return check(deb, path)
    write(deb, path)
    return 0


if __name__ == "__main__":
    sys.exit(main())
