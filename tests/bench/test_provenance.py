"""Data files of short runs and of unknown sources are seen."""

from __future__ import annotations

import json
import subprocess
from pathlib import Path
from typing import Any

import pytest

from figures import provenance
from figures.parameters import DEFAULTS

NO_COMMIT = "0123456789ab"


def git(root: Path, *arguments: str) -> str:
    return subprocess.run(["git", "-C", str(root), "-c", "user.name=n", "-c", "user.email=e",
                           *arguments], check=True, capture_output=True, text=True).stdout.strip()


def write(root: Path, name: str, commit: str, **parameters: Any) -> None:
    folder = root / "bench" / "data"
    folder.mkdir(parents=True, exist_ok=True)
    (folder / f"{name}.json").write_text(json.dumps(
        {"commit": commit, "parameters": {**DEFAULTS.get(name, {}), **parameters}}))


def faults(root: Path) -> "list[str]":
    return provenance.faults(root / "bench" / "data", root)


@pytest.fixture(name="tree")
def _tree(tmp_path: Path) -> Path:
    """A repository of two commits."""
    root = tmp_path / "tree"
    root.mkdir()
    git(root, "init", "-q")
    for message in ("first", "second"):
        git(root, "commit", "-q", "--allow-empty", "-m", message)
    return root


@pytest.fixture(name="measured")
def _measured(tree: Path) -> str:
    """The commit before the last one: the data are committed after it."""
    return git(tree, "rev-parse", "--short=12", "HEAD~1")


def test_whole_runs_of_known_sources(tree: Path, measured: str) -> None:
    for name in DEFAULTS:
        write(tree, name, measured, more="than the defaults")
    assert faults(tree) == []


@pytest.mark.parametrize("name, parameters, reason", [
    ("linux", {"rounds": 60}, "is of a run with rounds 60, not 1000; run bench/run linux"),
    ("account", {"calls": None}, "is of a run with calls None, not 200; run bench/run account"),
    ("scale", {"seconds": 30.0}, "is of a run with seconds 30.0, not 600; run bench/run scale"),
    ("scale", {"listeners": 16}, "is of a run with listeners 16, not 64; run bench/run scale"),
    ("piers", {}, "belongs to no benchmark")])
def test_parameters(name: str, parameters: "dict[str, Any]", reason: str, tree: Path,
                    measured: str) -> None:
    write(tree, name, measured, **parameters)
    assert faults(tree) == [f"bench/data/{name}.json {reason}"]


def test_sources(tree: Path, measured: str) -> None:
    git(tree, "checkout", "-q", "-b", "other")
    git(tree, "commit", "-q", "--allow-empty", "-m", "elsewhere")
    elsewhere = git(tree, "rev-parse", "--short=12", "HEAD")
    git(tree, "checkout", "-q", "-")
    for name, commit in (("linux", elsewhere), ("peers", NO_COMMIT), ("http", "unknown"),
                         ("growth", f"{measured} and changes"), ("windows", measured)):
        write(tree, name, commit)
    assert faults(tree) == [
        f"bench/data/growth.json is of sources that no commit holds: {measured} and changes",
        "bench/data/http.json is of sources that no commit holds: unknown",
        f"bench/data/linux.json is of commit {elsewhere}, which is not in this history",
        f"bench/data/peers.json is of commit {NO_COMMIT}, which is not in this history"]


def shallow_clone(tree: Path) -> Path:
    clone = tree.parent / "clone"
    git(tree, "clone", "-q", "--depth", "1", tree.as_uri(), str(clone))
    return clone


def without_commits(tree: Path) -> Path:
    git(tree.parent, "init", "-q", "new")
    return tree.parent / "new"


def unpacked(tree: Path) -> Path:
    """In a folder of another repository."""
    (tree / "unpacked").mkdir()
    return tree / "unpacked"


@pytest.mark.parametrize("place", [shallow_clone, without_commits, unpacked])
def test_without_history_the_parameters_count(place: Any, tree: Path) -> None:
    root = place(tree)
    write(root, "linux", f"{NO_COMMIT} and changes")
    assert faults(root) == []
    write(root, "linux", NO_COMMIT, rounds=2)
    assert faults(root) == ["bench/data/linux.json is of a run with rounds 2, not 1000; "
                            "run bench/run linux"]
