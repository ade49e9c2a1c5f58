"""The programs that are compared, their command lines and their requests."""

from __future__ import annotations

import json
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import http_plan
from common.messages import line

SELECT = "SELECT ID, NAME FROM ITEMS WHERE ID = 7"
EXPECTED = "item 6"
"""What the row holds; every reply to the query must."""


@dataclass(frozen=True)
class Peer:
    name: str
    version: str
    stdio: "list[str]"
    http: "dict[str, Any]"
    """The subject of http_bench.mjs; its name is this one."""
    query: "dict[str, Any]"
    """Method and params of the one-row query."""
    environment: "dict[str, str]" = field(default_factory=dict)
    takes_new_program: bool = False
    """Whether each batch of pings needs one: ids of requests are taken once."""

    def query_line(self, number: int) -> bytes:
        return line(self.query["method"], number, self.query["params"])


def _version(modules: Path, package: str) -> str:
    return json.loads((modules / package / "package.json").read_text("utf-8"))["version"]


def peers(server: Path, modules: Path, database: Path) -> "list[Peer]":
    """Ours is the first; the database is what the peers open themselves."""
    node = str(modules / ".bin" / "node")
    sdk = [node, str(http_plan.BENCH / "sdk_server.mjs"), str(modules)]
    dbhub = [node, str(modules / "@bytebase" / "dbhub" / "dist" / "index.js"),
             "--dsn", f"sqlite://{database}"]
    own_machine = {"DBHUB_HOST": "127.0.0.1"}
    return [
        Peer("kova-mcp", "", [str(server)],
             {"name": "kova-mcp", "command": http_plan.listener(str(server))["command"]},
             http_plan.call("kova_query", sql=SELECT), takes_new_program=True),
        Peer("SDK server", _version(modules, "@modelcontextprotocol/sdk"),
             [*sdk, "stdio", str(database)],
             {"name": "SDK server", "command": [*sdk, "http", "PORT", str(database)]},
             http_plan.call("query", sql=SELECT)),
        Peer("DBHub", _version(modules, "@bytebase/dbhub"), [*dbhub, "--transport", "stdio"],
             {"name": "DBHub", "command": [*dbhub, "--transport", "http", "--port", "PORT"],
              "environment": own_machine},
             http_plan.call("execute_sql", sql=SELECT), own_machine)]
