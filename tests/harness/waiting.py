"""Waiting for what another process does."""

from __future__ import annotations

import os
import select
import subprocess
import time
from typing import Any

TIMEOUT = 60.0
"""Seconds to wait for anything before the test fails; enough for a machine whose processors
and disk others use."""

POLL_INTERVAL = 0.01


def wait_until(condition: Any, timeout: float = TIMEOUT, what: str = "a condition") -> float:
    """Waits until the condition holds and returns the seconds that this took."""
    began = time.monotonic()
    while not condition():
        assert time.monotonic() - began < timeout, f"waited {timeout} s for {what}"
        time.sleep(POLL_INTERVAL)
    return time.monotonic() - began


def wait_for_end(process: "subprocess.Popen[bytes]", timeout: float = TIMEOUT) -> int:
    """Waits for the end of a child and returns its exit code; raises subprocess.TimeoutExpired.
    Popen.wait() looks only every 50 ms, which adds up over thousands of processes."""
    try:
        descriptor = os.pidfd_open(process.pid)
    except OSError:  # It has ended and is collected, or the kernel has no such call.
        return process.wait(timeout)
    try:
        select.select([descriptor], [], [], timeout)
    finally:
        os.close(descriptor)
    return process.wait(0)
