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
    tool: str
    """Runs its argument `sql`."""
    rows_argument: str = ""
    """The argument of the tool that says how many rows it returns at most, where it has one."""
    environment: "dict[str, str]" = field(default_factory=dict)
    takes_new_program: bool = False
    """Whether each batch of pings needs one: ids of requests are taken once."""

    session_processes: "int | None" = None
    """How many processes each session of its HTTP side adds; none where it has no sessions."""

    @property
    def query(self) -> "dict[str, Any]":
        """Method and params of the one-row query."""
        return http_plan.call(self.tool, sql=SELECT)

    def query_line(self, number: int) -> bytes:
        return line(number=number, **self.query)

    def select_line(self, number: int, sql: str, rows: int) -> bytes:
        """A query for this many rows at most."""
        most = {self.rows_argument: rows} if self.rows_argument else {}
        return line(number=number, **http_plan.call(self.tool, sql=sql, **most))


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
             "kova_query", "max_rows", takes_new_program=True, session_processes=1),
        Peer("SDK server", _version(modules, "@modelcontextprotocol/sdk"),
             [*sdk, "stdio", str(database)],
             {"name": "SDK server", "command": [*sdk, "http", "PORT", str(database)]},
             "query", session_processes=0),
        Peer("DBHub", _version(modules, "@bytebase/dbhub"), [*dbhub, "--transport", "stdio"],
             {"name": "DBHub", "command": [*dbhub, "--transport", "http", "--port", "PORT"],
              "environment": own_machine},
             "execute_sql", environment=own_machine)]
