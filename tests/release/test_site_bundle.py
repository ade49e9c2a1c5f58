"""The bundle of one site, as the official tool for bundles sees it."""

from __future__ import annotations

import json
import subprocess
import zipfile
from pathlib import Path

import pytest

from harness.deployments import environment_file, executable_name
from harness.policy_files import PolicyFiles, profile
from harness.targets import ROOT, Target
from harness.waiting import TIMEOUT

VALIDATOR = ROOT / "tests" / "release" / "validate.mjs"


@pytest.fixture
def bundle(target: Target, policy: PolicyFiles, tmp_path: Path) -> Path:
    file = environment_file(target, tmp_path / "site.env", {**policy(), **profile("2300")})
    made = tmp_path / "site.mcpb"
    command = target.command(target.build / executable_name(target),
                             ["bundle", "--env", target.path(file), "--output", target.path(made)])
    subprocess.run(command, env=target.environment({}), stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, timeout=TIMEOUT, check=True)
    return made


def validate(bundle: Path) -> int:
    return subprocess.run(["node", str(VALIDATOR), str(bundle)], capture_output=True,
                          timeout=2 * TIMEOUT, check=False).returncode


def test_the_official_validator_takes_it_and_not_a_broken_one(bundle: Path,
                                                              tmp_path: Path) -> None:
    broken = tmp_path / "broken.mcpb"
    with zipfile.ZipFile(bundle) as opened, zipfile.ZipFile(broken, "w") as made:
        for one in opened.infolist():
            data = opened.read(one)
            if one.filename == "manifest.json":
                manifest = json.loads(data)
                del manifest["server"]["entry_point"]
                data = json.dumps(manifest).encode()
            made.writestr(one, data)
    assert (validate(bundle), validate(broken)) == (0, 1)


def test_the_official_tool_starts_it_only_with_a_password(bundle: Path, target: Target,
                                                          tmp_path: Path) -> None:
    """What its own code makes of the manifest, as a client that uses it does."""
    folder = tmp_path / "unpacked"
    with zipfile.ZipFile(bundle) as opened:
        opened.extractall(folder)

    def entry(answers: "dict[str, str]") -> "dict[str, object] | None":
        asked = {"manifest": str(folder / "manifest.json"), "folder": target.path(folder),
                 "platform": "win32" if target.windows else "linux", "answers": answers}
        done = subprocess.run(["node", str(ROOT / "tests" / "release" / "bundle_entry.mjs")],
                              input=json.dumps(asked), capture_output=True, text=True,
                              timeout=TIMEOUT, check=True)
        return json.loads(done.stdout)

    assert entry({}) is None
    made = entry({"password": "secret"})
    assert made is not None
    variables = made["env"]
    assert variables["KOVA_MCP_PASSWORD"] == "secret"
    separator = "\\" if target.windows else "/"
    assert variables["KOVA_MCP_POLICY"] == f"{target.path(folder)}{separator}policy.json"
    assert "${" not in json.dumps(made)
