"""File systems in memory that a test fills, or forbids to be written."""

from __future__ import annotations

import contextlib
import subprocess
from pathlib import Path
from typing import Iterator

import pytest


@contextlib.contextmanager
def small_disk(folder: Path, options: str) -> Iterator[Path]:
    """Mounts one at the folder, with options of tmpfs. Skips the test where that is not allowed."""
    made = subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", str(folder)],
                          capture_output=True, text=True, check=False)
    if made.returncode != 0:
        pytest.skip(f"needs to mount a file system: {made.stderr.strip()}")
    try:
        yield folder
    finally:
        subprocess.run(["umount", "-l", str(folder)], check=True)


def remount(folder: Path, how: str) -> None:
    """"ro" forbids writing, "rw" allows it again."""
    subprocess.run(["mount", "-o", f"remount,{how}", str(folder)], check=True)
