"""The plain client bundle: valid, the same bytes each time, and startable as a client does it."""

from __future__ import annotations

import json
import re
import shutil
import subprocess
import zipfile
from pathlib import Path
from typing import Any

import pytest

import client_bundle
from harness import newcomer
from harness.policy_files import PolicyFiles
from harness.sample_engine import USER, Engine
from harness.servers import Server
from harness.targets import ROOT, Target
from harness.waiting import TIMEOUT

EPOCH = 1700000000


def write(made: Path, target: Target, version: str) -> Path:
    """With the target's server; that of the other system is none."""
    other = made.parent / "other"
    other.write_bytes(b"other")
    linux, windows = (other, target.executable) if target.windows else (target.executable, other)
    client_bundle.write_bundle(made, version, linux, windows, ROOT / "THIRD-PARTY-NOTICES", EPOCH)
    return made


@pytest.fixture
def bundle(target: Target, tmp_path: Path, version: str) -> Path:
    return write(tmp_path / "kova-mcp.mcpb", target, version)


def manifest_of(bundle: Path) -> dict[str, Any]:
    with zipfile.ZipFile(bundle) as opened:
        return json.loads(opened.read("manifest.json"))


def test_the_official_validator_takes_it(bundle: Path) -> None:
    done = subprocess.run(["node", str(ROOT / "tests/release/validate.mjs"), str(bundle)],
                          capture_output=True, text=True, timeout=2 * TIMEOUT, check=False)
    assert done.returncode == 0, done.stderr


def test_it_is_the_same_each_time(bundle: Path, target: Target, version: str,
                                  tmp_path: Path) -> None:
    assert write(tmp_path / "again.mcpb", target, version).read_bytes() == bundle.read_bytes()


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


def test_who_publishes_it_is_its_author(target: Target, version: str) -> None:
    assert client_bundle.manifest(version, "Example Ltd")["author"] == {"name": "Example Ltd"}
    assert client_bundle.manifest(version)["author"] == {"name": "kova-mcp maintainers"}


def entry_of(folder: Path, target: Target, answers: dict[str, str]) -> dict[str, Any]:
    """What a client makes of the manifest on the target's system."""
    manifest = json.loads((folder / "manifest.json").read_text("utf-8"))
    assert set(answers) == set(manifest["user_config"])
    config = manifest["server"]["mcp_config"]
    config |= config["platform_overrides"]["win32" if target.windows else "linux"]
    places = {"__dirname": target.path(folder),
              **{f"user_config.{name}": one for name, one in answers.items()}}

    def filled(text: str) -> str:
        return re.sub(r"\$\{([\w.]+)\}", lambda found: places[found[1]], text)

    return {"command": filled(config["command"]), "args": [filled(one) for one in config["args"]],
            "env": {name: filled(one) for name, one in config["env"].items()}}


def test_it_serves_reading_with_a_library_elsewhere(bundle: Path, policy: PolicyFiles,
                                                    target: Target, engine: Engine,
                                                    client_library: Path, tmp_path: Path) -> None:
    """Unpacked as a client does that loses the execute bit, and started by the manifest's command,
    with the answers put in. The policy lets writes run at once."""
    folder, library = tmp_path / "unpacked", tmp_path / "the vendor's library"
    with zipfile.ZipFile(bundle) as opened:
        opened.extractall(folder)
    assert not (folder / "server" / "kova-mcp").stat().st_mode & 0o111
    library.mkdir()
    shutil.copy2(client_library, library)
    settings = {**policy(database_user=USER, denied_columns=["CARD"], allowed_collections=[],
                         writes_enabled=True, approval_required=False, write_tables=["ORDERS"],
                         write_types=["INSERT"]), **engine.profile("SALES")}
    answers = {name: as_text(target, settings.get(variable, ""))
               for name, variable, *_ in client_bundle.ASKED}
    entry = entry_of(folder, target, {**answers, "library": target.path(library)})
    if target.windows:
        entry["env"]["WINEPATH"] = entry["env"].pop("PATH")  # Wine's name for it from outside
    server = Server(target, Path(entry["command"]), entry["args"], entry["env"])
    newcomer.play_to_the_end(server)


def as_text(target: Target, value: "str | Path") -> str:
    return target.path(value) if isinstance(value, Path) else value
