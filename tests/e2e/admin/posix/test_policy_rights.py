"""What depends on a file system's rights, and on names that another one does not take."""

from __future__ import annotations

from pathlib import Path

from e2e.admin.test_policy_lint import lint
from harness.policy_desk import PolicyDesk


def test_a_state_directory_that_others_write(authors: PolicyDesk) -> None:
    path = authors.writes(allowed_tables=["ORDERS", "T"])
    authors.state.chmod(0o770)
    assert lint(authors, path, code=0) == []
    authors.state.chmod(0o777)
    assert lint(authors, path) == [("open-state-directory", "approval_state_directory")]
    # The folder of that name on this machine is not the one of the policy's machine.
    assert lint(authors, "--other-host", path, code=0) == []


def test_a_policy_that_others_write(authors: PolicyDesk) -> None:
    path: Path = authors.policy()
    path.chmod(0o664)
    assert lint(authors, path, code=0) == []
    path.chmod(0o666)
    assert lint(authors, path) == [("policy-writable", "")]


def test_a_file_name_is_escaped(authors: PolicyDesk) -> None:
    path = authors.file("a\x1b[2J\u202e.json", "{}")
    for command in ("check", "lint"):
        result = authors.run(command, path)
        shown = result.stdout + result.stderr
        assert b"\x1b" not in shown and "\u202e".encode() not in shown
        assert b"\\x1B[2J\\u{202E}.json" in shown
