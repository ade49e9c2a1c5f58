"""The executable's part in the processor's control-flow protection."""

from __future__ import annotations

import re
import subprocess
from pathlib import Path

import pytest

pytestmark = pytest.mark.shipped_build

CALLED_BY_POINTER = ["main", "kova::ToolThread::serve(void*)",
                     "kova::tool_worker_mode(kova::Startup const&)"]


def output_of(*command: "str | Path") -> str:
    return subprocess.run([str(part) for part in command], check=True, text=True,
                          stdout=subprocess.PIPE).stdout


def test_an_indirect_call_finds_a_landing_place(target):
    """The file as a whole is not marked for the protection: the C runtime's start files and
    libsodium, as the distribution builds them, are not."""
    symbols = output_of("nm", "-C", target.executable)
    for name in CALLED_BY_POINTER:
        found = re.search(rf"^([0-9a-f]+) T {re.escape(name)}$", symbols, re.MULTILINE)
        assert found, name
        start = int(found.group(1), 16)
        code = output_of("objdump", "-d", f"--start-address={start}",
                         f"--stop-address={start + 4}", target.executable)
        assert "endbr64" in code, name
