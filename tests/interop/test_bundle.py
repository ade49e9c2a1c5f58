"""A bundle of `kova-admin bundle`: unpacked as a client does, and the official client starts the
server by what its manifest says."""

from __future__ import annotations

import json
import re
import zipfile
from pathlib import Path
from typing import Any, Callable

import pytest

from harness.deployments import Admin, environment_file
from harness.policy_files import PolicyFiles
from harness.sales_engine import COUNT_ORDERS, ORDERS, profile
from harness.sample_engine import PASSWORD, Engine
from harness.targets import Installation, Target

DENIED = {"name": "kova_query", "args": {"sql": "SELECT CARD FROM ORDERS"}}
AUDIT = "calls.jsonl"


@pytest.fixture
def bundle(target: Target, installation: Installation, engine: Engine, policy: PolicyFiles,
           tmp_path: Path) -> Path:
    """A bundle with the sample's client library, made without the login's password."""
    admin = Admin(target, installation.executable("sample").parent)
    variables = {**profile(policy, engine), "KOVA_MCP_PASSWORD": None}
    file = environment_file(target, tmp_path / "site.env", variables)
    made = tmp_path / "site.mcpb"
    done = admin.run("bundle", "--env", file, "--output", made, "--library",
                     admin.folder / target.library_name, "--audit", "${HOME}/" + AUDIT)
    assert (done.stderr, done.code) == (b"", 0)
    return made


def unpack(bundle: Path, folder: Path, keep_modes: bool) -> None:
    """As a client does; some lose the execute bit."""
    with zipfile.ZipFile(bundle) as opened:
        opened.extractall(folder)
        for one in opened.infolist():
            (folder / one.filename).chmod((one.external_attr >> 16) & 0o777 if keep_modes
                                          else 0o600)


def entry_of(folder: Path, target: Target, answers: "dict[str, str]") -> "dict[str, Any]":
    """What a client makes of the manifest on the target's system."""
    manifest = json.loads((folder / "manifest.json").read_text("utf-8"))
    asked = manifest["user_config"]
    assert {name for name, one in asked.items() if one["required"]} == set(answers) == set(asked)
    config = manifest["server"]["mcp_config"]
    config |= config["platform_overrides"]["win32" if target.windows else "linux"]
    places = {"__dirname": target.path(folder), "HOME": target.path(folder.parent),
              **{f"user_config.{name}": one for name, one in answers.items()}}

    def filled(text: str) -> str:
        return re.sub(r"\$\{([\w.]+)\}", lambda found: places[found[1]], text)

    return {"command": filled(config["command"]), "args": [filled(one) for one in config["args"]],
            "env": {name: filled(one) for name, one in config["env"].items()}}


@pytest.mark.parametrize("keep_modes", [True, False], ids=["modes kept", "execute bit lost"])
def test_the_official_client_by_the_manifest(sdk_session: Callable[..., Any], target: Target,
                                             bundle: Path, tmp_path: Path,
                                             keep_modes: bool) -> None:
    folder = tmp_path / "client's folder" / "unpacked"
    unpack(bundle, folder, keep_modes)
    entry = entry_of(folder, target, {"password": PASSWORD})
    command = (target.command(Path(entry["command"]), entry["args"]) if target.windows
               else [entry["command"], *entry["args"]])
    server = {"command": command[0], "args": command[1:],
              "env": target.environment(entry["env"])}
    session = sdk_session("calls", server, calls=[COUNT_ORDERS, DENIED])
    counted, refused = session["findings"]
    assert counted["result"]["structuredContent"]["rows"] == [[str(ORDERS)]]
    assert refused["result"]["content"][0]["text"] == "column is denied by MCP policy"
    assert (session["closed"]["exitCode"], session["errors"], session["stderr"]) == (0, [], "")
    listed = sdk_session("list", server)["findings"]["tools"]
    assert "kova_execute" not in {tool["name"] for tool in listed}
    records = (folder.parent / AUDIT).read_text("utf-8").splitlines()
    assert [json.loads(line)["status"] for line in records] == ["ok", "error"]


def test_a_wrong_password_logs_nobody_in(sdk_session: Callable[..., Any], target: Target,
                                         bundle: Path, tmp_path: Path) -> None:
    folder = tmp_path / "unpacked"
    unpack(bundle, folder, True)
    entry = entry_of(folder, target, {"password": "wrong"})
    command = (target.command(Path(entry["command"]), entry["args"]) if target.windows
               else [entry["command"], *entry["args"]])
    session = sdk_session("calls", {"command": command[0], "args": command[1:],
                                    "env": target.environment(entry["env"])},
                          calls=[COUNT_ORDERS])
    assert session["findings"][0]["result"]["isError"] is True
