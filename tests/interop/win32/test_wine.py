"""scripts/wine.py, as a shell script uses it to run programs."""

from __future__ import annotations

import os
import signal
import subprocess

import pytest

import wine
from harness.targets import ROOT, Target
from harness.waiting import TIMEOUT

COMMAND = str(ROOT / "scripts" / "wine.py")


def run(*arguments: str) -> "subprocess.CompletedProcess[str]":
    environment = {**os.environ, "WINEPREFIX": str(wine.default_prefix())}
    return subprocess.run([COMMAND, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=TIMEOUT * 3, env=environment, check=False)


def test_run_returns_the_program_s_exit_code(target: Target) -> None:
    done = run("run", str(target.executable), "--issue-approval")
    assert (done.stdout, done.returncode) == ("", 2)


@pytest.mark.parametrize("script, code", [
    ("exit 7", 7), ("kill -TERM $$", 128 + signal.SIGTERM)], ids=["exit", "signal"])
def test_hold_returns_the_command_s_exit_code(target: Target, script: str, code: int) -> None:
    assert run("hold", "sh", "-c", script).returncode == code


def test_hold_runs_a_command_that_needs_wine(target: Target) -> None:
    started = run("hold", *target.command(target.executable, ["--check-policy"]))
    assert (started.returncode, started.stderr) == (0, "")
    assert "MCP_CONFIG_OK policy=default" in started.stdout


def test_hold_without_the_command(target: Target) -> None:
    done = run("hold", "no-such-command")
    assert (done.stdout, done.returncode) == ("", 1)
    assert done.stderr.startswith("wine.py: ") and done.stderr.count("\n") == 1
