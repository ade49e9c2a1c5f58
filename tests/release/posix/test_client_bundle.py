"""The plain client bundle: valid, the same bytes each time, and startable as a client does it."""

from __future__ import annotations

import json
import re
import subprocess
import zipfile
from pathlib import Path
from typing import Any

import pytest

import client_bundle
from harness.messages import request
from harness.targets import ROOT, Target
from harness.waiting import TIMEOUT

EPOCH = 1700000000


@pytest.fixture
def bundle(target: Target, tmp_path: Path, version: str) -> Path:
    other = tmp_path / "other"
    other.write_bytes(b"MZ")
    made = tmp_path / "kova-mcp.mcpb"
    client_bundle.write_bundle(made, version, target.executable, other,
                               ROOT / "THIRD-PARTY-NOTICES", EPOCH)
    return made


def manifest_of(bundle: Path) -> dict[str, Any]:
    with zipfile.ZipFile(bundle) as opened:
        return json.loads(opened.read("manifest.json"))


def test_the_official_validator_takes_it(bundle: Path) -> None:
    done = subprocess.run(["node", str(ROOT / "tests/release/validate.mjs"), str(bundle)],
                          capture_output=True, text=True, timeout=2 * TIMEOUT, check=False)
    assert done.returncode == 0, done.stderr


def test_it_is_the_same_each_time(bundle: Path, target: Target, version: str,
                                  tmp_path: Path) -> None:
    again = tmp_path / "again.mcpb"
    client_bundle.write_bundle(again, version, target.executable, tmp_path / "other",
                               ROOT / "THIRD-PARTY-NOTICES", EPOCH)
    assert again.read_bytes() == bundle.read_bytes()


def test_what_it_asks_for(bundle: Path) -> None:
    asked = manifest_of(bundle)["user_config"]
    assert asked["library"] == {
        "type": "directory", "title": "Client library", "required": True,
        "description": "The folder that holds the engine's client library"}
    assert [name for name, one in asked.items() if one.get("sensitive")] == ["password"]
    for name, one in asked.items():
        assert one["required"] != ("default" in one), name
    text = json.dumps(manifest_of(bundle))
    assert "APPROVAL_SECRET" not in text
    assert set(re.findall(r"\$\{user_config\.(\w+)\}", text)) == set(asked)


def test_it_serves_reading_without_the_execute_bit(bundle: Path, policy, tmp_path: Path) -> None:
    """Unpacked as a client does that loses the bit, and started by its own command, with the
    answers put in. The policy lets writes run at once."""
    folder = tmp_path / "unpacked"
    with zipfile.ZipFile(bundle) as opened:
        opened.extractall(folder)
    assert not (folder / "server" / "kova-mcp").stat().st_mode & 0o111
    identity = policy(writes_enabled=True, approval_required=False, write_tables=["ORDERS"],
                      write_types=["INSERT"])
    answers = {"library": str(tmp_path), "policy": str(identity["KOVA_MCP_POLICY"]),
               "client_id": identity["KOVA_MCP_CLIENT_ID"],
               "database": identity["KOVA_MCP_DATABASE"], "user": identity["KOVA_MCP_USER"],
               "password": "secret", "server": "127.0.0.1", "port": "1", "audit": ""}
    entry = manifest_of(bundle)["server"]["mcp_config"]["platform_overrides"]["linux"]

    def filled(text: str) -> str:
        text = text.replace("${__dirname}", str(folder))
        return re.sub(r"\$\{user_config\.(\w+)\}", lambda found: answers[found[1]], text)

    done = subprocess.run(
        [entry["command"], *map(filled, entry["args"])], capture_output=True,
        env={"PATH": "/usr/bin:/bin", **{name: filled(one) for name, one in entry["env"].items()}},
        input=request("initialize", 1, {}) + request("tools/list", 2), timeout=TIMEOUT,
        check=False)
    assert (done.returncode, done.stderr) == (0, b"")
    _, listed = map(json.loads, done.stdout.splitlines())
    names = {tool["name"] for tool in listed["result"]["tools"]}
    assert "kova_query" in names and "kova_execute" not in names
