"""Whether the data files of the repository are of whole runs of sources that the repository has."""

from __future__ import annotations

import json
import re
import subprocess
from pathlib import Path
from typing import Any

from figures.parameters import DEFAULTS

COMMIT = re.compile(r"[0-9a-f]{7,40}")


def faults(folder: Path, root: Path) -> "list[str]":
    """One line for each file and fault. A clone without history, or a tree that is none, does not
    tell which commits there were: then the parameters alone are looked at."""
    has_history = _has_history(root)
    found = []
    for path in sorted(folder.glob("*.json")):
        data = json.loads(path.read_text("utf-8"))
        reasons = _of_parameters(path.stem, data)
        if has_history:
            reasons += _of_commit(data, root)
        found += [f"{path.relative_to(root)} {reason}" for reason in reasons]
    return found


def _of_parameters(name: str, data: "dict[str, Any]") -> "list[str]":
    if name not in DEFAULTS:
        return ["belongs to no benchmark"]
    given = data.get("parameters", {})
    return [f"is of a run with {parameter} {given.get(parameter)}, not {value}; "
            f"run bench/run {name}"
            for parameter, value in DEFAULTS[name].items() if given.get(parameter) != value]


def _of_commit(data: "dict[str, Any]", root: Path) -> "list[str]":
    commit = str(data.get("commit"))
    if not COMMIT.fullmatch(commit):
        return [f"is of sources that no commit holds: {commit}"]
    if not _succeeds(root, "merge-base", "--is-ancestor", commit, "HEAD"):
        return [f"is of commit {commit}, which is not in this history"]
    return []


def _has_history(root: Path) -> bool:
    """Of this tree itself, not of a folder around it."""
    shallow = _git(root, "rev-parse", "--is-shallow-repository")
    top = _git(root, "rev-parse", "--show-toplevel").stdout.strip()
    return (top != "" and Path(top).resolve() == root.resolve()
            and shallow.stdout.strip() == "false" and _succeeds(root, "rev-parse", "-q", "--verify",
                                                                "HEAD"))


def _succeeds(root: Path, *arguments: str) -> bool:
    return _git(root, *arguments).returncode == 0


def _git(root: Path, *arguments: str) -> "subprocess.CompletedProcess[str]":
    return subprocess.run(["git", "-C", str(root), *arguments], capture_output=True, text=True,
                          check=False)
