"""Audit files as a reader sees them."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

KEYS = ["timestamp", "correlation_id", "client_identity", "database_identity", "tool", "policy",
        "policy_decision", "objects", "duration_ms", "rows", "bytes", "status", "error_class"]


def records(path: Path) -> list[dict[str, Any]]:
    """The file's records. Checks that each is complete, has its keys in order and ends in CRLF."""
    data = path.read_bytes() if path.exists() else b""
    assert data == b"" or data.endswith(b"\r\n"), data[-200:]
    found = [json.loads(text) for text in data.split(b"\r\n")[:-1]]
    assert all(list(record) == KEYS for record in found), found
    return found
