"""The file for the registry: filled in, complete, and what the registry would refuse is found."""

from __future__ import annotations

import argparse
import copy
import hashlib
import json
from pathlib import Path
from typing import Any, Callable

import pytest

import client_bundle
import registry_file

PUBLISHER = registry_file.Publisher("com.example/kova-mcp", "https://code.example.com/kova-mcp",
                                    "example", "https://downloads.example.com/kova-mcp/v1/")


@pytest.fixture
def bundle(tmp_path: Path, version: str) -> Path:
    made = tmp_path / f"kova-mcp-{version}.mcpb"
    made.write_bytes(b"a bundle")
    return made


@pytest.fixture
def document(bundle: Path, version: str) -> dict[str, Any]:
    return json.loads(registry_file.filled(bundle, version, PUBLISHER))


def test_what_is_filled_in(document: dict[str, Any], bundle: Path, version: str) -> None:
    assert (document["name"], document["version"]) == ("com.example/kova-mcp", version)
    assert document["repository"] == {"url": "https://code.example.com/kova-mcp",
                                      "source": "example"}
    [package] = document["packages"]
    assert package["identifier"] == f"https://downloads.example.com/kova-mcp/v1/{bundle.name}"
    assert package["version"] == version
    assert package["fileSha256"] == hashlib.sha256(b"a bundle").hexdigest()
    assert registry_file.faults(document) == []


def test_it_asks_for_what_the_bundle_asks_for(document: dict[str, Any]) -> None:
    [package] = document["packages"]
    listed = [(one["name"], one["description"], one["isRequired"], one["isSecret"])
              for one in package["environmentVariables"]]
    assert listed == [(variable, description, required, secret) for
                      _, variable, _, _, description, required, secret in client_bundle.ASKED]


def test_without_an_owner_it_is_complete_and_names_nobody(bundle: Path, version: str) -> None:
    nobody = registry_file.Publisher()
    found = json.loads(registry_file.filled(bundle, version, nobody))
    assert registry_file.faults(found) == [] and not nobody.is_chosen and PUBLISHER.is_chosen
    for text in (found["repository"]["url"], found["packages"][0]["identifier"]):
        assert text.startswith("https://kova-mcp.invalid/")


def test_the_options_give_the_publisher() -> None:
    parser = argparse.ArgumentParser()
    registry_file.add_options(parser)
    for publisher in (PUBLISHER, registry_file.Publisher()):
        chosen = parser.parse_args(registry_file.options_of(publisher))
        assert registry_file.publisher_of(chosen) == publisher
    assert registry_file.publisher_of(parser.parse_args([])) == registry_file.Publisher()


def set_top(name: str, value: Any) -> Callable[[dict[str, Any]], None]:
    return lambda document: document.__setitem__(name, value)


def set_package(name: str, value: Any) -> Callable[[dict[str, Any]], None]:
    return lambda document: document["packages"][0].__setitem__(name, value)


def set_variable(name: str, value: Any) -> Callable[[dict[str, Any]], None]:
    return lambda document: document["packages"][0]["environmentVariables"][0].__setitem__(
        name, value)


@pytest.mark.parametrize("change, fault", [
    (set_top("name", "kova-mcp"), "name"),
    (set_top("name", "com.example/kova/mcp"), "name"),
    (set_top("name", "@NAME@"), "name"),
    (set_top("description", ""), "description"),
    (set_top("description", "x" * 101), "description"),
    (set_top("version", "^1.25.8"), "version"),
    (set_top("repository", {"url": "http://example.com/x", "source": "example"}), "repository"),
    (set_top("repository", {"url": "https://example.com/x", "source": ""}), "repository"),
    (set_package("version", "1.0.0"), "version"),
    (set_package("identifier", "https://mcp.example.com/bundle"), "identifier"),
    (set_package("identifier", "https://example.com/@BUNDLE@mcp"), "a place"),
    (set_package("fileSha256", "0" * 63), "fileSha256"),
    (set_package("fileSha256", "A" * 64), "fileSha256"),
    (set_package("transport", {"type": "http"}), "transport"),
    (set_variable("format", "path"), "environmentVariables"),
    (set_variable("isSecret", "no"), "environmentVariables"),
    (set_variable("description", ""), "environmentVariables")])
def test_what_the_registry_would_refuse(document: dict[str, Any], fault: str,
                                        change: Callable[[dict[str, Any]], None]) -> None:
    changed = copy.deepcopy(document)
    change(changed)
    assert fault in [found.partition(":")[0].partition(" that")[0]
                     for found in registry_file.faults(changed)]


def test_the_longest_description_is_taken(document: dict[str, Any]) -> None:
    document["description"] = "x" * registry_file.DESCRIPTION_LIMIT
    assert registry_file.faults(document) == []
