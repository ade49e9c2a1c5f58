"""Deployments for kova-admin: installed programs, environment files, and what `doctor` says."""

from __future__ import annotations

import json
import shutil
import subprocess
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Sequence

from scripted_terminal import ScriptedTerminal

from harness.servers import Result
from harness.targets import Environment, Installation, Target

TIMEOUT = 120
SECRET = "5b1e0c7d9a3f42e68d70b2c4a6e8f013"
"""As long as a key of approvals has to be."""


def executable_name(target: Target) -> str:
    return "kova-admin.exe" if target.windows else "kova-admin"


class Admin:
    """kova-admin in a folder with the server and a client library."""

    def __init__(self, target: Target, folder: Path) -> None:
        self.target = target
        self.folder = folder
        self.path = folder / executable_name(target)
        self.server = folder / target.executable.name
        if not self.path.exists():
            shutil.copy2(target.build / executable_name(target), self.path)

    def run(self, *arguments: "str | Path", env: Environment | None = None,
            cwd: Path | None = None) -> Result:
        """Runs to the end, without a terminal. Paths are written as the target does."""
        words = [self.target.path(word) if isinstance(word, Path) else word for word in arguments]
        done = subprocess.run(
            self.target.command(self.path, words), env=self.target.environment(env or {}), cwd=cwd,
            stdin=subprocess.DEVNULL, capture_output=True, start_new_session=True,
            timeout=TIMEOUT, check=False)
        return Result(done.stdout, done.stderr, done.returncode)


    def on_terminal(self, *arguments: "str | Path", env: Environment | None = None,
                    **options: Any) -> ScriptedTerminal:
        """Starts a command on a terminal; the caller closes it."""
        words = [self.target.path(word) if isinstance(word, Path) else word for word in arguments]
        return ScriptedTerminal(self.target.command(self.path, words),
                                self.target.environment(env or {}), raw=self.target.windows,
                                **options)


def admin_beside(target: Target, installation: Installation, library: str | None) -> Admin:
    return Admin(target, installation.executable(library).parent)


def environment_file(target: Target, path: Path, variables: Environment) -> Path:
    """A file with one quoted line for each variable."""
    lines = []
    for name, value in variables.items():
        if value is None:
            continue
        text = target.path(value) if isinstance(value, Path) else value
        assert "'" not in text and "\n" not in text
        lines.append(f"{name}='{text}'\n")
    path.write_text("".join(lines), encoding="utf-8")
    path.chmod(0o600)
    return path


@dataclass
class Report:
    """What `doctor --json` has printed."""

    status: str
    checks: dict[str, dict[str, str]]
    code: int

    def __getitem__(self, name: str) -> dict[str, str]:
        return self.checks[name]

    def names(self) -> list[str]:
        return list(self.checks)


STATUSES = ["ok", "warn", "fail"]


def report_of(result: Result) -> Report:
    """The report on one deployment."""
    checks = checks_of(result)
    by_name = {check["name"]: check for check in checks}
    assert len(by_name) == len(checks)
    return Report(json.loads(result.stdout)["status"], by_name, result.code)


def checks_of(result: Result) -> list[dict[str, str]]:
    """The checks of a report, whose shape is looked at each time."""
    document: Any = json.loads(result.stdout)
    assert result.stderr == b"" and result.stdout.count(b"\n") == 1
    assert list(document) == ["status", "checks"]
    for check in document["checks"]:
        assert list(check) == ["name", "status", "detail", "advice"]
        assert all(isinstance(text, str) for text in check.values())
        assert (check["advice"] == "") == (check["status"] == "ok"), check
        assert check["detail"] != ""
    worst = max(STATUSES.index(check["status"]) for check in document["checks"])
    assert document["status"] == STATUSES[worst]
    assert result.code == (1 if document["status"] == "fail" else 0)
    return document["checks"]


def tree(folder: Path) -> "dict[str, tuple[int, int]]":
    """Every file below a folder with its size and the time of its last change."""
    found = {}
    for path in sorted(folder.rglob("*")):
        status = path.stat()
        found[str(path.relative_to(folder))] = (status.st_size if path.is_file() else 0,
                                                status.st_mtime_ns if path.is_file() else 0)
    return found


def option_list(options: "dict[str, str | Path]") -> "Sequence[str | Path]":
    return [word for option in options.items() for word in option]
