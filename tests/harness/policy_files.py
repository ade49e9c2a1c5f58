"""Policy files and the environments that go with them."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

from harness.listeners import LOOPBACK
from harness.targets import Target

DEFAULT: dict[str, Any] = {
    "version": 1,
    "name": "sales_read",
    "client_id": "desk-client",
    "database": "SALES",
    "database_user": "reader",
    "reads_enabled": True,
    "provider_reads_enabled": True,
    "writes_enabled": False,
    "approval_required": False,
    "allowed_tables": ["ORDERS", "ITEMS"],
    "denied_columns": [],
    "allowed_collections": ["MANUALS"],
    "write_tables": [],
    "write_types": [],
    "approval_ttl_seconds": 300,
    "approval_state_directory": "",
}
"""A valid policy with all sixteen keys; reads on, writes off."""


def profile(port: str) -> dict[str, str]:
    """The database profile that goes with the default policy."""
    return {"KOVA_MCP_SERVER": LOOPBACK, "KOVA_MCP_PORT": port, "KOVA_MCP_DATABASE": "SALES",
            "KOVA_MCP_USER": "reader", "KOVA_MCP_PASSWORD": "secret"}


class PolicyFiles:
    """Writes policy files into one folder.

    `policy(allowed_tables=["A"])` overrides keys, `without=["version"]` leaves keys out,
    `text=` (str or bytes) replaces the whole file. It returns the environment: the file's path
    and the launch identity that the policy names.
    """

    def __init__(self, target: Target, folder: Path) -> None:
        self.target = target
        self.folder = folder
        self._count = 0

    def document(self, *, without: "list[str] | None" = None, **overrides: Any) -> dict[str, Any]:
        document = {**DEFAULT, **overrides}
        for key in without or []:
            del document[key]
        return {key: self.target.path(value) if isinstance(value, Path) else value
                for key, value in document.items()}

    def __call__(self, *, text: "str | bytes | None" = None, without: "list[str] | None" = None,
                 **overrides: Any) -> dict[str, "str | Path | None"]:
        document = self.document(without=without, **overrides)
        self._count += 1
        path = self.folder / f"policy-{self._count}.json"
        self.write(path, json.dumps(document) if text is None else text)
        return {"KOVA_MCP_POLICY": path, **self.identity(document)}

    @staticmethod
    def write(path: Path, text: "str | bytes") -> None:
        path.write_bytes(text.encode() if isinstance(text, str) else text)

    @staticmethod
    def identity(document: "dict[str, Any] | None" = None) -> dict[str, "str | Path | None"]:
        named = {**DEFAULT, **(document or {})}
        return {"KOVA_MCP_CLIENT_ID": str(named["client_id"]),
                "KOVA_MCP_DATABASE": str(named["database"]),
                "KOVA_MCP_USER": str(named["database_user"])}
