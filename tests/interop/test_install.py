"""What `cmake --install` puts into a folder: everything that is shipped, and nothing else."""

from __future__ import annotations

import json
import os
import re
import subprocess
from pathlib import Path

import pytest

from harness.messages import request
from harness.targets import Target
from harness.waiting import TIMEOUT

ROOT = Path(__file__).resolve().parents[2]
OPTIONAL = {"LICENSE", "SECURITY.md", "THIRD-PARTY-NOTICES"}


@pytest.fixture(scope="module")
def installed(target: Target, tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("installed")
    subprocess.run(["cmake", "--install", str(target.executable.parent), "--prefix", str(folder)],
                   check=True, capture_output=True, timeout=TIMEOUT)
    return folder


@pytest.fixture
def documents(target: Target, installed: Path) -> Path:
    return installed if target.windows else installed / "share" / "doc" / "kova-mcp"


def files_of(folder: str) -> set[str]:
    """All but the sources of the manual pages."""
    return {str(path.relative_to(ROOT)) for path in (ROOT / folder).rglob("*")
            if path.is_file() and not path.is_relative_to(ROOT / "docs" / "man")}


def completions(target: Target, installed: Path, documents: Path) -> set[Path]:
    names = ("kova-mcp", "kova-admin")
    found = {documents / "completions" / f"{name}.ps1" for name in names}
    if not target.windows:
        share = installed / "share"
        found |= {share / "bash-completion" / "completions" / name for name in names}
        found |= {share / "zsh" / "site-functions" / f"_{name}" for name in names}
    return found


def manual_pages(target: Target, installed: Path, documents: Path) -> set[Path]:
    """Of a build that is to be packed too (KOVA_PACKAGES)."""
    cache = (target.executable.parent / "CMakeCache.txt").read_text("utf-8")
    if "KOVA_PACKAGES:BOOL=ON" not in cache:
        return set()
    pages = ("kova-mcp.1", "kova-admin.1", "kova-mcp-policy.5")
    if target.windows:
        return {documents / "man" / f"{page}.txt" for page in pages}
    return {installed / "share" / "man" / f"man{page[-1]}" / f"{page}.gz" for page in pages}


def test_what_is_installed(target: Target, installed: Path, documents: Path) -> None:
    programs = {installed / (f"{name}.exe" if target.windows else f"bin/{name}")
                for name in ("kova-mcp", "kova-admin")}
    found = {path for path in installed.rglob("*") if path.is_file()}
    expected = {"README.md", "CHANGELOG.md", *files_of("docs"), *files_of("deploy"),
                *(name for name in OPTIONAL if (ROOT / name).exists())}
    assert found == (programs | completions(target, installed, documents)
                     | manual_pages(target, installed, documents)
                     | {documents / name for name in expected})
    scripts = {path for path in found if path.suffix == ".sh"}
    runnable = {path for path in found if path.stat().st_mode & 0o111}
    assert runnable == scripts | programs


def test_the_installed_server_starts(target: Target, installed: Path) -> None:
    program = installed / ("kova-mcp.exe" if target.windows else "bin/kova-mcp")
    done = subprocess.run(target.command(program, []), env=target.environment({}),
                          input=request("initialize", 1, {}), capture_output=True, timeout=TIMEOUT,
                          check=False)
    assert (done.returncode, done.stderr) == (0, b"")
    assert json.loads(done.stdout)["result"]["serverInfo"]["name"] == "Vantreo MCP"


def test_links_between_installed_documents_hold(documents: Path) -> None:
    """Some also lead to what the source tree alone has, such as the sample's README."""
    broken = []
    for document in documents.rglob("*.md"):
        for link in re.findall(r"\]\((?!https?:)([^)#]+)", document.read_text("utf-8")):
            linked = os.path.relpath(document.parent / link, documents)
            shipped = linked.partition("/")[0] in ("docs", "deploy", "README.md", "CHANGELOG.md")
            if not ((documents if shipped else ROOT) / linked).exists():
                broken.append(f"{document.relative_to(documents)}: {link}")
    assert broken == []
