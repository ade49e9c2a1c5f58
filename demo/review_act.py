"""The session's fifth act: policies that are tested, and the audit of this session that is read."""

from __future__ import annotations

import datetime
import json
from pathlib import Path

from desk_act import DeskAct
from engine import POLICY
from stage import Scene, Stage, expect
from target import Target

ALLOWED = "SELECT NAME FROM PACKAGES"
REFUSED = "SELECT NAME, MAINTAINER FROM PACKAGES"
DENIED_COLUMN = "column is denied by MCP policy"
CASES = [
    {"name": "names", "sql": ALLOWED, "expect": "allow"},
    {"name": "maintainers", "sql": REFUSED, "expect": "deny", "reason": DENIED_COLUMN},
    {"name": "no writes", "sql": "DELETE FROM NOTES", "expect": "deny"},
]


def now_text() -> str:
    """The time as the audit file writes it."""
    now = datetime.datetime.now(datetime.timezone.utc)
    return now.strftime("%Y-%m-%dT%H:%M:%S.") + f"{now.microsecond // 1000:03}Z"


class ReviewAct:
    """The scenes in their order. The report is of what the session has recorded since `began`."""

    def __init__(self, target: Target, desk: DeskAct, began: str) -> None:
        self.folder = target.executable.parent / "review"
        self.desk = desk
        self.began = began
        self.scenes = [
            Scene("What a policy means: kova-admin policy explain", self.explain),
            Scene("What must stay refused: kova-admin policy test", self.test),
            Scene("What a change would do: kova-admin policy diff", self.compare),
            Scene("What has happened in this session: kova-admin audit report", self.report),
        ]

    def explain(self, stage: Stage) -> None:
        self.folder.mkdir(mode=0o700, exist_ok=True)
        _, code = stage.play_admin("policy", "explain", POLICY)
        expect(code == 0, "the policy is not explained")
        output, code = stage.play_admin("policy", "explain", POLICY, REFUSED)
        expect(code == 1 and DENIED_COLUMN in output, "the refusal is not explained")

    def test(self, stage: Stage) -> None:
        output, code = stage.play_admin("policy", "test", POLICY, self._cases())
        expect(code == 0 and f"ok {len(CASES)} - " in output, "the cases are not as expected")

    def compare(self, stage: Stage) -> None:
        stage.view.note("A change that takes the one denied column away.")
        changed = self.folder / "policy-changed.json"
        policy = json.loads(POLICY.read_text("utf-8"))
        changed.write_text(json.dumps({**policy, "denied_columns": []}, indent=2), "utf-8")
        output, code = stage.play_admin("policy", "diff", "--fail-on-widening", POLICY, changed,
                                        self._cases())
        expect(code == 1 and "MAINTAINER" in output, "the widening is not found")

    def report(self, stage: Stage) -> None:
        page = self.folder / "report.html"
        page.unlink(missing_ok=True)
        deployment = self.desk.deployment
        _, code = stage.play_admin(
            "audit", "report", "--output", page, "--since", self.began, "--journal",
            deployment / "journal.jsonl", stage.engine.audit_file, deployment / "audit.jsonl")
        expect(code == 0 and page.read_bytes().startswith(b"<!doctype html>"),
               "there is no report")
        stage.view.line(f"The report of this session: {page}", "bold")

    def _cases(self) -> Path:
        cases = self.folder / "cases.json"
        cases.write_text(json.dumps(CASES, indent=2), "utf-8")
        return cases
