"""Audit files made for a test, without a server."""

from __future__ import annotations

import datetime
import json
from pathlib import Path
from typing import Any, Iterable

START = datetime.datetime(2026, 11, 21, 11, 0, 0)


def time_text(seconds: float) -> str:
    """So many seconds after the first record."""
    when = START + datetime.timedelta(seconds=seconds)
    return when.strftime("%Y-%m-%dT%H:%M:%S.") + f"{when.microsecond // 1000:03}Z"


def record(seconds: float = 0, **members: Any) -> dict[str, Any]:
    """One record; `client`, `decision` and `duration` stand for the longer names."""
    names = {"client": "client_identity", "decision": "policy_decision", "duration": "duration_ms"}
    made = {"timestamp": time_text(seconds), "correlation_id": "3", "client_identity": "desk",
            "database_identity": "SALES", "tool": "kova_query", "policy": "sales_read",
            "policy_decision": "allow", "objects": "policy-select", "duration_ms": 13, "rows": 3,
            "bytes": 119, "status": "ok", "error_class": "none"}
    for name, value in members.items():
        name = names.get(name, name)
        assert name in made, name
        made[name] = value
    if made["status"] == "error" and "error_class" not in members:
        made["error_class"] = "tool_error"
    return made


def line(made: dict[str, Any]) -> bytes:
    """As the server writes it."""
    return json.dumps(made, separators=(",", ":")).encode() + b"\r\n"


def content(records: Iterable[dict[str, Any]]) -> bytes:
    return b"".join(line(made) for made in records)


def write(path: Path, records: Iterable[dict[str, Any]]) -> Path:
    path.write_bytes(content(records))
    return path
