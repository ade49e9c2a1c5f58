"""kova-admin doctor: who may change what a deployment rests on, on Linux."""

from __future__ import annotations

import shutil
from pathlib import Path
from typing import Any, Callable

import pytest

from harness.deployments import SECRET, Admin, Report, environment_file, report_of
from harness.policy_files import PolicyFiles
from harness.targets import Installation, Target

Examine = Callable[[], Report]


@pytest.fixture
def place(tmp_path: Path) -> Path:
    """All folders above it belong to the administrator or to this account alone, or are shared as
    that for temporary files is."""
    for folder in ("programs", "deployment", "state", "log"):
        (tmp_path / folder).mkdir(mode=0o700)
    return tmp_path


@pytest.fixture
def examine(target: Target, installation: Installation, policy: PolicyFiles, place: Path
            ) -> Examine:
    programs = place / "programs"
    shutil.copytree(installation.executable("scripted").parent, programs, dirs_exist_ok=True)
    admin = Admin(target, programs)
    variables: dict[str, Any] = {
        **policy(writes_enabled=True, approval_required=True, write_tables=["ORDERS"],
                 write_types=["INSERT"], approval_state_directory=place / "state"),
        "KOVA_MCP_APPROVAL_SECRET": SECRET, "KOVA_MCP_AUDIT": place / "log" / "audit.jsonl"}
    variables["KOVA_MCP_POLICY"] = shutil.copy2(variables["KOVA_MCP_POLICY"],
                                                place / "deployment" / "policy.json")
    file = environment_file(target, place / "deployment" / "kova-mcp.env", variables)
    for path in [*programs.iterdir(), place / "deployment" / "policy.json"]:
        path.chmod(path.stat().st_mode & 0o755)
    return lambda: report_of(admin.run("doctor", "--json", "--env", file))


FILES = ["programs/kova-mcp", "programs/kova-admin", "programs/libkovadll.so", "programs",
         "deployment/policy.json", "deployment/kova-mcp.env", "deployment"]


def test_nobody_else_may_change_anything(examine: Examine) -> None:
    report = examine()
    for name in ("permissions", "approval.directory", "policy"):
        assert report[name]["status"] == "ok", report[name]


@pytest.mark.parametrize("name", FILES)
@pytest.mark.parametrize("bit, status", [(0o002, "fail"), (0o020, "warn")])
def test_who_may_change_a_file(examine: Examine, place: Path, name: str, bit: int, status: str
                               ) -> None:
    path = place / name
    path.chmod(path.stat().st_mode | bit)
    check = examine()["permissions"]
    assert check["status"] == status, check
    assert "may change " in check["detail"] and f" {path}" in check["detail"], check
    assert "take the right to change it away" in check["advice"]


def test_who_may_rename_a_folder_above(examine: Examine, place: Path) -> None:
    place.chmod(0o777)
    check = examine()["permissions"]
    assert check["status"] == "fail"
    assert f"every account may change the folder {place}" in check["detail"]


@pytest.mark.parametrize("bit, status", [(0o004, "fail"), (0o040, "warn")])
def test_who_may_read_the_secrets(examine: Examine, place: Path, bit: int, status: str) -> None:
    path = place / "deployment" / "kova-mcp.env"
    path.chmod(0o600 | bit)
    report = examine()
    for name in ("permissions", "approval.secret"):
        assert report[name]["status"] == status
        assert f"may read the environment file {path}" in report[name]["detail"]


@pytest.mark.parametrize("folder, name", [("state", "approval.directory"), ("log", "audit")])
@pytest.mark.parametrize("bit, status", [(0o002, "fail"), (0o020, "warn")])
def test_who_may_delete_in_a_folder(examine: Examine, place: Path, folder: str, name: str,
                                    bit: int, status: str) -> None:
    path = place / folder
    path.chmod(0o700 | bit)
    check = examine()[name]
    assert check["status"] == status and f" {path}" in check["detail"], check
