"""Waiting for what another process does."""

from __future__ import annotations

import time
from typing import Any

TIMEOUT = 20.0
"""Seconds after which an answer that has not come is a failure, not a slow machine."""


def wait_until(condition: Any, timeout: float, what: str) -> None:
    end = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < end, f"waited {timeout} s for {what}"
        time.sleep(0.01)
