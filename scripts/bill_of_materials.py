"""Bills of materials (CycloneDX 1.6, JSON) of what a build has read and the packages it came from.

What is in an executable is what its linker opened and its compiler included. Debian's dpkg says
which package a file belongs to and its version; the licence is the package's own copyright file,
whole.
"""

from __future__ import annotations

import datetime
import hashlib
import json
import re
import shlex
import subprocess
import tempfile
import urllib.parse
import uuid
from pathlib import Path
from typing import Any, Iterable

NAMESPACE = uuid.UUID("6ba7b811-9dad-11d1-80b4-00c04fd430c8")
"""For name-based identifiers: that of RFC 4122 for addresses."""
SCHEMA = "http://cyclonedx.org/schema/bom-1.6.schema.json"


def output_of(command: list[str], cwd: "Path | None" = None) -> str:
    return subprocess.run(command, cwd=cwd, capture_output=True, text=True, check=True).stdout


def linked_files(build: Path, target: str) -> set[Path]:
    """What the linker opens for a target: its command again, with the result thrown away."""
    command = output_of(["ninja", "-t", "commands", target], build).splitlines()[-1]
    command = command.removeprefix(": && ").removesuffix(" && :")
    words = shlex.split(command)
    # A file: the linker for Windows reads what it has written, for the checksum in it.
    with tempfile.NamedTemporaryFile() as result:
        words[words.index("-o") + 1] = result.name
        traced = output_of([*words, "-Wl,--trace"], build)
    # A member of an archive stands in parentheses or before its archive.
    names = re.findall(r"/[^\s()]+", traced)
    return {Path(name) for name in names if name.startswith("/usr") or name.startswith("/lib")}


def included_files(build: Path, target: str) -> set[Path]:
    """What the compiler has read for the target's objects."""
    inputs = output_of(["ninja", "-t", "inputs", target], build).split()
    objects = [name for name in inputs if name.endswith((".o", ".obj", ".gch"))]
    read = output_of(["ninja", "-t", "deps", *objects], build)
    paths = {(build / line.strip()).resolve() for line in read.splitlines()
             if line.startswith("    ")}
    return {path for path in paths if path.is_relative_to("/usr")}


def packages_of(files: Iterable[Path]) -> list[str]:
    """The installed packages that the files belong to, in order."""
    found: set[str] = set()
    names = sorted({name for path in files for name in (str(path), str(path.resolve()))})
    for start in range(0, len(names), 500):
        done = subprocess.run(["dpkg-query", "--search", *names[start:start + 500]],
                              capture_output=True, text=True, check=False)
        for line in done.stdout.splitlines():
            owners, _, _ = line.rpartition(": ")
            found |= {owner.strip() for owner in owners.split(",")
                      if not owner.startswith("diversion by")}
    return sorted(found)


def component_of(package: str) -> dict[str, Any]:
    name, version, architecture = output_of(
        ["dpkg-query", "--show", "--showformat", "${Package}\n${Version}\n${Architecture}",
         package]).splitlines()
    licence = Path("/usr/share/doc", name, "copyright").read_text("utf-8", "replace")
    quoted = urllib.parse.quote(version, safe="")
    return {"type": "library", "bom-ref": name, "name": name, "version": version,
            "purl": f"pkg:deb/debian/{urllib.parse.quote(name, safe='')}@{quoted}"
                    f"?arch={architecture}",
            "licenses": [{"license": {"name": f"copyright file of {name}",
                                      "text": {"contentType": "text/plain", "content": licence}}}]}


def packages_of_build(build: Path, targets: list[str]) -> list[str]:
    files: set[Path] = set()
    for target in targets:
        files |= linked_files(build, target) | included_files(build, target)
    return packages_of(files)


def bill(artefact: Path, version: str, packages: list[str], epoch: int) -> str:
    """The bill of one artefact, the same text for the same input."""
    digest = hashlib.sha256(artefact.read_bytes()).hexdigest()
    own = f"kova-mcp@{version}"
    components = [component_of(package) for package in packages]
    names = [component["bom-ref"] for component in components]
    time = datetime.datetime.fromtimestamp(epoch, datetime.timezone.utc)
    document = {
        "$schema": SCHEMA, "bomFormat": "CycloneDX", "specVersion": "1.6",
        "serialNumber": f"urn:uuid:{uuid.uuid5(NAMESPACE, digest)}", "version": 1,
        "metadata": {
            "timestamp": time.strftime("%Y-%m-%dT%H:%M:%SZ"), "lifecycles": [{"phase": "build"}],
            "component": {"type": "application", "bom-ref": own, "name": "kova-mcp",
                          "version": version, "description": artefact.name,
                          "hashes": [{"alg": "SHA-256", "content": digest}]}},
        "components": components,
        "dependencies": [{"ref": own, "dependsOn": names}, *({"ref": name} for name in names)],
        "compositions": [{"aggregate": "complete", "dependencies": [own]}]}
    return json.dumps(document, indent=2, ensure_ascii=False) + "\n"
