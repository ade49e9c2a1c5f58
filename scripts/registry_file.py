"""The file by which a registry of MCP servers lists the release: deploy/server.json, filled in.

The fields are those of the registry's schema of 2025-12-11. The owner publishes it.
"""

from __future__ import annotations

import argparse
import dataclasses
import hashlib
import json
import re
from pathlib import Path
from typing import Any

TEMPLATE = Path(__file__).resolve().parents[1] / "deploy" / "server.json"
DESCRIPTION_LIMIT = 100
FORMATS = ("string", "number", "boolean", "filepath")


@dataclasses.dataclass(frozen=True)
class Publisher:
    """Where the owner publishes. These names exist nowhere, until the owner has chosen."""
    name: str = "invalid.kova-mcp/kova-mcp"
    repository: str = "https://kova-mcp.invalid/repository"
    source: str = "none"
    downloads: str = "https://kova-mcp.invalid/downloads"

    @property
    def is_chosen(self) -> bool:
        return all(getattr(self, one.name) != one.default for one in dataclasses.fields(self))


def add_options(parser: argparse.ArgumentParser) -> None:
    for field, text in (("name", "the server's name in the registry, such as com.example/kova-mcp"),
                        ("repository", "the address of the sources"),
                        ("source", "what serves them, as the registry calls it"),
                        ("downloads", "the address of the folder that holds the release's files")):
        parser.add_argument(f"--registry-{field}", default=getattr(Publisher, field), help=text,
                            metavar=field.upper())


def publisher_of(chosen: argparse.Namespace) -> Publisher:
    return Publisher(**{one.name: getattr(chosen, f"registry_{one.name}")
                        for one in dataclasses.fields(Publisher)})


def options_of(publisher: Publisher) -> list[str]:
    """The options that give this publisher again."""
    return [word for name, value in dataclasses.asdict(publisher).items()
            for word in (f"--registry-{name}", value)]


def filled(bundle: Path, version: str, publisher: Publisher) -> str:
    """The file for a client bundle. It is the same for the same bundle."""
    text = TEMPLATE.read_text("utf-8")
    values = {"NAME": publisher.name, "VERSION": version, "REPOSITORY": publisher.repository,
              "SOURCE": publisher.source, "DOWNLOADS": publisher.downloads.rstrip("/"),
              "BUNDLE": bundle.name,
              "SHA256": hashlib.sha256(bundle.read_bytes()).hexdigest()}
    for name, value in values.items():
        # As JSON writes it, without the quotes of the text around it.
        text = text.replace(f"@{name}@", json.dumps(value)[1:-1])
    return text


def faults(document: dict[str, Any]) -> list[str]:
    """What the registry would refuse, one line each."""
    [package] = document["packages"]
    checks = {
        "name: a reverse domain name, one slash, a name":
            re.fullmatch(r"[A-Za-z0-9.-]+/[A-Za-z0-9._-]+", document["name"]),
        f"description: 1 to {DESCRIPTION_LIMIT} characters":
            1 <= len(document["description"]) <= DESCRIPTION_LIMIT,
        "version: one version, no range": re.fullmatch(r"\d+\.\d+\.\d+", document["version"]),
        "version: the package has another one": package["version"] == document["version"],
        "repository: an https address": is_address(document["repository"]["url"]),
        "repository: a source": document["repository"]["source"],
        "identifier: the https address of a file whose name contains mcp":
            is_address(package["identifier"])
            and "mcp" in package["identifier"].rpartition("/")[2],
        "fileSha256: 64 digits in lower case":
            re.fullmatch(r"[0-9a-f]{64}", package["fileSha256"]),
        "transport: stdio": package["transport"] == {"type": "stdio"},
        "environmentVariables: name, description and a known format of each":
            all(one["name"] and one["description"] and one["format"] in FORMATS
                and isinstance(one["isRequired"], bool) and isinstance(one["isSecret"], bool)
                for one in package["environmentVariables"]),
        "a place that is not filled in": "@" not in json.dumps(document)}
    return [name for name, holds in checks.items() if not holds]


def is_address(text: str) -> bool:
    return re.fullmatch(r"https://[A-Za-z0-9.-]+(:\d+)?/\S+", text) is not None
