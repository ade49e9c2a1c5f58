"""scripts/wine.py, as a shell script uses it: paths and arguments (win32/ has what needs Wine)."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import pytest

import wine
from harness.targets import ROOT
from harness.waiting import TIMEOUT

COMMAND = str(ROOT / "scripts" / "wine.py")


def run(*arguments: str) -> "subprocess.CompletedProcess[str]":
    environment = {**os.environ, "WINEPREFIX": str(wine.default_prefix())}
    return subprocess.run([COMMAND, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=TIMEOUT * 3, env=environment, check=False)


@pytest.mark.parametrize("path, name", [
    ("/", "Z:\\"), ("/tmp/a b/c.txt", "Z:\\tmp\\a b\\c.txt"), ("/\u00e9", "Z:\\\u00e9")])
def test_paths(path: str, name: str) -> None:
    there, back = run("path", path), run("host-path", name)
    assert (there.stdout, there.returncode) == (f"{name}\n", 0)
    assert (back.stdout, back.returncode) == (f"{path}\n", 0)


def test_a_relative_path_is_made_absolute() -> None:
    assert run("path", "x/y").stdout == wine.windows_path(Path.cwd() / "x" / "y") + "\n"


def test_a_name_on_another_drive_is_refused() -> None:
    done = run("host-path", "C:\\windows")
    assert (done.stdout, done.stderr, done.returncode) == (
        "", "wine.py: C:\\windows is not on drive Z:\n", 1)


@pytest.mark.parametrize("arguments", [[], ["start"], ["run"], ["hold"], ["path"],
                                       ["path", "a", "b"], ["prepare", "x"]], ids=" ".join)
def test_bad_arguments_get_one_line(arguments: list[str]) -> None:
    done = run(*arguments)
    assert (done.stdout, done.stderr, done.returncode) == (
        "", "wine.py: bad arguments; see --help\n", 2)
