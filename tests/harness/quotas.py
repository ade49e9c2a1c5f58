"""Quotas that refuse a test's audit file more room, and grant it again."""

from __future__ import annotations

import contextlib
import os
import subprocess
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable, Iterator

import pytest

from harness.targets import ROOT, Environment

SOURCE = ROOT / "tests" / "support" / "posix" / "injected_quota.c"
IMAGE_BYTES = 128 << 20
"""A sparse file; the file system takes no smaller one."""
UNLIMITED = 1 << 30
APPENDED = 1200
"""As many bytes as the longest record."""


@dataclass
class Quota:
    """Without a limit at first."""

    audit: Path
    limit: Callable[[int], object]
    """Sets how many bytes there may be."""
    part: int = 0
    """How many bytes more a quota that is used up still takes."""
    env: Environment = field(default_factory=dict)

    def use_up(self) -> None:
        """Checks that nobody can append a record any more, and that it is for the quota."""
        size = self.audit.stat().st_size
        self.limit(size + self.part if self.env else 1)
        tried = subprocess.run(
            ["dd", "if=/dev/zero", f"of={self.audit}", "oflag=append", "conv=notrunc",
             f"bs={APPENDED}", "count=1"], capture_output=True, text=True, check=False,
            env={**os.environ, "LC_ALL": "C", **{name: str(value)
                                                 for name, value in self.env.items()}})
        assert "Disk quota exceeded" in tried.stderr, tried.stderr
        assert self.audit.stat().st_size == size + self.part
        if self.part:
            os.truncate(self.audit, size)

    def give_room(self) -> None:
        self.limit(UNLIMITED)


@contextlib.contextmanager
def file_system_quota(folder: Path) -> Iterator[Quota]:
    """Of a part of a Btrfs, whose quotas hold for root, too. Skips the test where no file system
    may be mounted."""
    image, mounted, part = folder / "image", folder / "disk", folder / "disk" / "part"
    mounted.mkdir()
    with open(image, "wb") as file:
        file.truncate(IMAGE_BYTES)
    subprocess.run(["mkfs.btrfs", "--quiet", "--mixed", str(image)], check=True,
                   capture_output=True)
    made = subprocess.run(["mount", "-o", "loop", str(image), str(mounted)], capture_output=True,
                          text=True, check=False)
    if made.returncode != 0:
        pytest.skip(f"needs to mount a Btrfs: {' '.join(made.stderr.split())}")

    def btrfs(*words: "str | Path") -> str:
        return subprocess.run(["btrfs", *map(str, words)], check=True, capture_output=True,
                              text=True).stdout.strip()

    try:
        btrfs("subvolume", "create", part)
        btrfs("quota", "enable", mounted)
        number = btrfs("inspect-internal", "rootid", part)
        # Said of the whole: what is said of the part fails while its quota is used up.
        yield Quota(part / "audit",
                    lambda size: btrfs("qgroup", "limit", str(size), f"0/{number}", mounted))
    finally:
        subprocess.run(["umount", "-l", str(mounted)], check=True)


def injected_quota(folder: Path, part: int = 0) -> Quota:
    """One that the processes with `env` have on Linux, wherever the tests run."""
    built, limit, audit = folder / "injected_quota.so", folder / "limit", folder / "audit"
    subprocess.run(["cc", "-std=c17", "-O2", "-Wall", "-Wextra", "-Werror", "-shared", "-fPIC",
                    "-o", str(built), str(SOURCE)], check=True)

    def set_limit(size: int) -> None:
        # In one step: a process may read it now.
        new = folder / "limit.new"
        new.write_text(str(size))
        new.rename(limit)

    set_limit(UNLIMITED)
    return Quota(audit, set_limit, part,
                 {"LD_PRELOAD": built, "QUOTA_FILE": audit, "QUOTA_LIMIT": limit})
