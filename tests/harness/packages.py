"""Packs what a build folder that was configured with KOVA_PACKAGES holds."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

from harness.waiting import TIMEOUT

EPOCH = "1700000000"
"""The time of the packages of the tests, in seconds."""


def pack(build: Path, folder: Path) -> list[Path]:
    """Runs cpack in a build folder and returns what it has packed."""
    done = subprocess.run(["cpack", "-B", str(folder)], cwd=build, capture_output=True, text=True,
                          env={**os.environ, "SOURCE_DATE_EPOCH": EPOCH}, timeout=4 * TIMEOUT,
                          check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    return sorted(path for path in folder.iterdir() if path.is_file())
