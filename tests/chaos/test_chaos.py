"""A bounded run of chaos. KOVA_CHAOS_SECONDS and KOVA_CHAOS_SEED change its length and its random
numbers."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import pytest

from harness.targets import ROOT

SECONDS = os.environ.get("KOVA_CHAOS_SECONDS", "60")
SEED = os.environ.get("KOVA_CHAOS_SEED", "1")
START_AND_END = 400.0
"""Seconds beside those of the rounds: the start, and clients that come to their end."""


@pytest.mark.chaos
def test_everything_holds_among_faults(pytestconfig: pytest.Config) -> None:
    """The run mounts file systems of its own, so it is a process of its own."""
    command = [str(Path(__file__).with_name("run")), "--seconds", SECONDS, "--seed", SEED,
               "--target", pytestconfig.getoption("--target")]
    if (build := pytestconfig.getoption("--build-dir")) is not None:
        command += ["--build-dir", str(build)]
    if (engine := os.environ.get("KOVA_BUILD_DIR")) is not None:
        command += ["--engine", str(Path(engine, "sample", "kova-sample-engine"))]
    done = subprocess.run(command, cwd=ROOT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False,
                          timeout=float(SECONDS) + START_AND_END)
    print(done.stdout)
    assert done.returncode == 0, done.stdout
