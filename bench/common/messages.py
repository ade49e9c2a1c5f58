"""Messages to a program, a line each."""

from __future__ import annotations

import json
from typing import Any


def line(method: str, number: int, params: "dict[str, Any] | None" = None) -> bytes:
    message: dict[str, Any] = {"jsonrpc": "2.0", "id": number, "method": method}
    if params is not None:
        message["params"] = params
    return json.dumps(message, separators=(",", ":")).encode() + b"\n"


INITIALIZE = line("initialize", 0, {"protocolVersion": "2025-06-18", "capabilities": {},
                                    "clientInfo": {"name": "bench", "version": "1"}})
INITIALIZED = b'{"jsonrpc":"2.0","method":"notifications/initialized"}\n'
