"""Every command of docs/policy-authoring.md and docs/ten-complaints.md, in the order of the
document, and the example of a repository of policies."""

from __future__ import annotations

import json
import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from harness.targets import ROOT, Target
from tls_front_end import free_port

BLOCK = re.compile(r"^```sh\n(.*?)^```$", re.MULTILINE | re.DOTALL)
LIMIT = 120.0


class Shell:
    """One shell in a copy of the example files, with the programs in its path."""

    def __init__(self, target: Target, folder: Path) -> None:
        self.folder = folder
        shutil.copytree(ROOT / "deploy", folder / "deploy")
        self.env = {"PATH": f"{target.build}:/usr/bin:/bin", "HOME": str(folder),
                    "TMPDIR": str(folder), "LC_ALL": "C.UTF-8"}

    def run(self, script: str, code: int = 0) -> str:
        done = subprocess.run(["sh", "-e", "-c", script], cwd=self.folder, env=self.env,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=LIMIT, check=False)
        text = done.stdout.decode()
        assert done.returncode == code, text
        return text


@pytest.fixture
def shell(target: Target, tmp_path: Path) -> Shell:
    return Shell(target, tmp_path)


def blocks(name: str) -> list[str]:
    found = BLOCK.findall((ROOT / "docs" / name).read_text("utf-8"))
    assert len(found) > 7
    return found


def test_the_guide_of_authors(shell: Shell) -> None:
    text = shell.run("".join(blocks("policy-authoring.md")))
    assert "policies/reporting.kova-policy.json: valid" in text
    assert "place      line 1, column 8 (byte 7): *" in text
    assert "verdict    approval" in text and "# Policy `reporting_reads`" in text
    assert "Nothing found." in text and "ok 9 - no searches" in text
    assert "widens    writes_enabled: writes are switched on" in text
    assert text.count("the policies are as they should be") == 2


SHOWN = ["check      screen-one-statement", "verdict    approval", '"policy_decision":"allow"',
         "check      denied_columns", "table is not allowed by MCP policy",
         "approval token fields or operation binding are invalid", "verdict    allow",
         "max_rows must be 1..256", '403 {"error":"host is not allowed"}', "policy-writable"]
"""What the command of each complaint shows."""


def test_the_ten_complaints(shell: Shell) -> None:
    document = (ROOT / "docs" / "ten-complaints.md").read_text("utf-8")
    sections = re.split(r"^## (\d+)\. ", document, flags=re.MULTILINE)
    assert sections[1::2] == [str(number) for number in range(1, 11)]
    assert all("**Not done**" in section for section in sections[2::2])
    script = BLOCK.findall(sections[0])[0]
    for number, section in enumerate(sections[2::2]):
        script += f"echo '=== {number}'\n" + "".join(BLOCK.findall(section))
    text = shell.run(script.replace("8931", str(free_port())))
    parts = re.split(r"^=== \d\n", text, flags=re.MULTILINE)[1:]
    assert [wanted in part for wanted, part in zip(SHOWN, parts)] == 10 * [True], text


def repository(shell: Shell) -> Path:
    return shell.folder / "deploy" / "policy-repository"


def edit(path: Path, **changes: object) -> None:
    path.write_text(json.dumps({**json.loads(path.read_text("utf-8")), **changes}), "utf-8")


def test_the_repository_holds(shell: Shell) -> None:
    text = shell.run("mkdir reports; REPORTS=$PWD/reports deploy/policy-repository/check.sh")
    assert "the policies are as they should be" in text
    assert sorted(os.listdir(shell.folder / "reports")) == ["corrections.xml", "reporting.xml"]


@pytest.mark.parametrize("changes, wanted", [
    ({"approval_ttl_seconds": 900}, "long-ttl"),
    ({"version": 2}, "MCP policy identity/version is invalid"),
    ({"denied_columns": ["X"]}, "# unexpected allow: no mail addresses"),
])
def test_the_gate_refuses_a_policy(shell: Shell, changes: dict[str, object], wanted: str) -> None:
    edit(repository(shell) / "policies" / "reporting.kova-policy.json", **changes)
    text = shell.run("deploy/policy-repository/check.sh", code=1)
    assert wanted in text and "the check has found something" in text


def test_the_gate_refuses_a_widening(shell: Shell) -> None:
    shutil.copytree(repository(shell), shell.folder / "base")
    edit(repository(shell) / "policies" / "reporting.kova-policy.json",
         allowed_tables=["ORDERS", "ORDER_LINES", "PRODUCTS", "STOCK"])
    command = 'deploy/policy-repository/check.sh "$PWD/base"'
    text = shell.run(command, code=1)
    assert "widens    allowed_tables: the table STOCK may be read" in text
    shell.run("WIDENING=accepted " + command)
    shell.run("deploy/policy-repository/check.sh")


def test_the_gate_refuses_a_policy_that_the_base_has_not(shell: Shell) -> None:
    shutil.copytree(repository(shell), shell.folder / "base")
    for folder, ending in (("policies", ".kova-policy.json"), ("cases", ".json")):
        old = repository(shell) / folder / f"reporting{ending}"
        old.rename(old.with_name(f"renamed{ending}"))
    command = 'deploy/policy-repository/check.sh "$PWD/base"'
    text = shell.run(command, code=1)
    assert "policies/renamed.kova-policy.json is not in " in text
    assert text.count(" is not in ") == 1
    shell.run("WIDENING=accepted " + command)
    # A folder that is misspelled has none of them.
    assert shell.run("deploy/policy-repository/check.sh nowhere", code=1).count(" is not in ") == 2


def test_an_empty_table_of_cases_is_refused(shell: Shell) -> None:
    (repository(shell) / "cases" / "reporting.json").write_text("[]", "utf-8")
    assert "1..0" in shell.run("deploy/policy-repository/check.sh", code=1)


def test_every_policy_has_cases(shell: Shell) -> None:
    shutil.copy(repository(shell) / "policies" / "reporting.kova-policy.json",
                repository(shell) / "policies" / "other.kova-policy.json")
    assert "cases/other.json" in shell.run("deploy/policy-repository/check.sh", code=1)
