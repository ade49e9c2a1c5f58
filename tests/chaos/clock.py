"""The clock of the processes under test, which the run moves."""

from __future__ import annotations

import mmap
import os
import struct
import subprocess
from pathlib import Path

SOURCE = Path(__file__).with_name("moved_clock.c")

FILE = "CHAOS_CLOCK"
"""The variable with the file that tells a process how far its clock is moved."""
SECOND = 1_000_000_000


class Clock:
    """Moves the clocks of the processes that have `env` in their environment (Linux)."""

    def __init__(self, folder: Path) -> None:
        self._object = folder / "moved_clock.so"
        subprocess.run(["cc", "-std=c17", "-O2", "-Wall", "-Wextra", "-Werror", "-shared", "-fPIC",
                        "-o", str(self._object), str(SOURCE)], check=True)
        self._file = folder / "clock"
        self._file.write_bytes(bytes(16))
        descriptor = os.open(self._file, os.O_RDWR)
        self._moves = mmap.mmap(descriptor, 16)
        os.close(descriptor)
        self.wall = 0
        self.monotonic = 0

    @property
    def env(self) -> dict[str, str]:
        return {"LD_PRELOAD": str(self._object), FILE: str(self._file)}

    @property
    def mark(self) -> tuple[str, str]:
        """The value and the variable by which the processes are known whose clock it is."""
        return str(self._file), FILE

    def set_wall(self, seconds: float) -> None:
        """Lets the wall clock differ from the machine's by so much, in either direction."""
        self.wall = int(seconds * SECOND)
        self._write()

    def advance_monotonic(self, seconds: float) -> None:
        """A clock that never goes back goes forward only."""
        self.monotonic += int(seconds * SECOND)
        self._write()

    def _write(self) -> None:
        self._moves[:] = struct.pack("=qq", self.wall, self.monotonic)
