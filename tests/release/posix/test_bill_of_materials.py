"""Bills of materials: what the build has read, with the versions of the installed packages."""

from __future__ import annotations

import hashlib
import json
import re
import subprocess
from pathlib import Path

import pytest

import bill_of_materials
from harness.targets import ROOT, Target
from harness.waiting import TIMEOUT

VALIDATOR = ROOT / "tests" / "release" / "validate.mjs"
EPOCH = 1700000000


@pytest.fixture(scope="session")
def packages(target: Target) -> list[str]:
    return bill_of_materials.packages_of_build(target.build, ["kova-mcp", "kova-admin"])


@pytest.fixture
def bill(packages: list[str], archive: Path, version: str) -> str:
    return bill_of_materials.bill(archive, version, packages, EPOCH)


def validate(path: Path) -> int:
    return subprocess.run(["node", str(VALIDATOR), str(path)], capture_output=True,
                          timeout=2 * TIMEOUT, check=False).returncode


def test_the_server_has_nothing_of_the_tools_libraries(target: Target) -> None:
    found = bill_of_materials.packages_of_build(target.build, ["kova-mcp"])
    assert not [name for name in found if re.match("libcli11|libfmt|nlohmann", name)]


def test_versions_and_licences_are_those_of_the_installed_packages(bill: str) -> None:
    for component in json.loads(bill)["components"]:
        name = component["name"]
        shown = subprocess.run(["dpkg-query", "-W", "-f", "${Version}\n", name], text=True,
                               capture_output=True, timeout=TIMEOUT, check=True).stdout
        assert component["version"] in shown.split()
        [licence] = component["licenses"]
        assert licence["license"]["text"]["content"] == Path(
            "/usr/share/doc", name, "copyright").read_text("utf-8", "replace")


def test_it_names_the_artefact(bill: str, archive: Path, version: str) -> None:
    own = json.loads(bill)["metadata"]["component"]
    assert (own["version"], own["description"]) == (version, archive.name)
    assert own["hashes"] == [{"alg": "SHA-256",
                              "content": hashlib.sha256(archive.read_bytes()).hexdigest()}]


def test_it_is_the_same_each_time(bill: str, archive: Path, packages: list[str],
                                  version: str) -> None:
    assert bill_of_materials.bill(archive, version, packages, EPOCH) == bill


def test_the_official_validator_takes_it_and_not_a_broken_one(bill: str, tmp_path: Path) -> None:
    good, bad = tmp_path / "good.cdx.json", tmp_path / "bad.cdx.json"
    good.write_text(bill, encoding="utf-8")
    document = json.loads(bill)
    document["serialNumber"] = "1"
    bad.write_text(json.dumps(document), encoding="utf-8")
    assert (validate(good), validate(bad)) == (0, 1)
