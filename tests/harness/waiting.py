"""Waiting for what another process does."""

from __future__ import annotations

import time
from typing import Any

TIMEOUT = 20.0
"""Seconds after which an answer that has not come is a failure, not a slow machine."""

POLL_INTERVAL = 0.01


def wait_until(condition: Any, timeout: float = TIMEOUT, what: str = "a condition") -> float:
    """Waits until the condition holds and returns the seconds that this took."""
    began = time.monotonic()
    while not condition():
        assert time.monotonic() - began < timeout, f"waited {timeout} s for {what}"
        time.sleep(POLL_INTERVAL)
    return time.monotonic() - began
