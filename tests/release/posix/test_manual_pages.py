"""The manual pages say what the programs take, no less and no more."""

from __future__ import annotations

import json
import re
import subprocess
from pathlib import Path

import pytest

from harness.servers import Result
from harness.targets import Target
from harness.waiting import TIMEOUT

ROOT = Path(__file__).resolve().parents[3]
MANUAL = ROOT / "docs" / "man"
PAGES = ("kova-mcp.1", "kova-admin.1", "kova-mcp-policy.5")


def source(page: str) -> str:
    return (MANUAL / f"{page}.scd").read_text("utf-8")


@pytest.mark.parametrize("page", PAGES)
def test_a_page_is_made_without_a_complaint(page: str, tmp_path: Path) -> None:
    made = subprocess.run(["scdoc"], input=source(page).encode(), capture_output=True,
                          timeout=TIMEOUT, check=False)
    assert (made.returncode, made.stderr) == (0, b"")
    (tmp_path / page).write_bytes(made.stdout)
    shown = subprocess.run(["groff", "-man", "-ww", "-Kutf8", "-Tutf8", str(tmp_path / page)],
                           capture_output=True, timeout=TIMEOUT, check=False)
    assert (shown.returncode, shown.stderr) == (0, b"")


def test_the_server_page_has_every_option() -> None:
    table = (ROOT / "src/app/main.cpp").read_text("utf-8")
    modes = set(re.findall(r'\.argument = "(--[a-z-]+)"', table)) - {"--tool-worker"}
    assert len(modes) >= 4
    assert set(re.findall(r"^\*(--[a-z-]+)\*", source("kova-mcp.1"), re.MULTILINE)) >= modes
    assert set(re.findall(r"\*(--[a-z-]+)\*", source("kova-mcp.1"))) == modes


def test_the_server_page_has_every_variable() -> None:
    rows = re.findall(r"^\| `(KOVA_MCP_\w+)`", (ROOT / "docs/environment.md").read_text("utf-8"),
                      re.MULTILINE)
    assert len(rows) >= 15
    assert set(re.findall(r"\bKOVA_MCP_[A-Z_]+", source("kova-mcp.1"))) == set(rows)


def test_the_page_of_the_tool_and_the_completion_are_up_to_date(target: Target) -> None:
    done = subprocess.run(["/usr/bin/python3", str(ROOT / "scripts/make_command_files.py"),
                           "--check", "--build-dir", str(target.build)], capture_output=True,
                          text=True, timeout=TIMEOUT, check=False)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_the_example_of_the_policy_page_is_a_policy_with_the_keys_of_the_page(
        run, tmp_path: Path) -> None:
    page = source("kova-mcp-policy.5")
    [example] = re.findall(r"^```\n(.*?)^```$", page, re.MULTILINE | re.DOTALL)
    document = json.loads(example)
    (tmp_path / "policy.json").write_text(example, encoding="utf-8")
    checked: Result = run("--check-policy", library=None, env={
        "KOVA_MCP_POLICY": tmp_path / "policy.json", "KOVA_MCP_CLIENT_ID": document["client_id"],
        "KOVA_MCP_DATABASE": document["database"], "KOVA_MCP_USER": document["database_user"]})
    assert (checked.code, checked.stderr) == (0, b"")
    keys = page.partition("# KEYS")[2].partition("# EXAMPLE")[0]
    headings = re.findall(r"^\*(\w.*)\*$", keys, re.MULTILINE)
    assert [key for line in headings for key in line.split("*, *")] == list(document)
