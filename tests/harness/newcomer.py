"""What somebody does with a new installation: the commands of docs/install.md, a first session."""

from __future__ import annotations

import json
import re
from pathlib import Path
from typing import Any

from harness.messages import call, request
from harness.sales_engine import COUNT_ORDERS, ORDERS
from harness.sample_engine import LOOPBACK, USER, Engine
from harness.servers import Server
from harness.targets import ROOT

GUIDE = ROOT / "docs" / "install.md"
BLOCK = re.compile(r"^```(\w+)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
READ_ONLY_TOOLS = {"kova_list_databases", "kova_list_tables", "kova_describe_table", "kova_query"}


def sections() -> dict[str, str]:
    parts = re.split(r"^## (.+)$", GUIDE.read_text("utf-8"), flags=re.MULTILINE)
    return dict(zip(parts[1::2], parts[2::2]))


def blocks(section: str, shell: str, **values: str) -> list[str]:
    """The blocks of a section for one shell; `values` stand for names such as VERSION."""
    found = [text for name, text in BLOCK.findall(sections()[section]) if name == shell]
    for name, value in values.items():
        found = [text.replace(name, value) for text in found]
    return found


def at_the_engine(block: str, engine: Engine) -> str:
    """A block with the test's engine and login."""
    for guides, tests in (("--server db.internal.example", f"--server {LOOPBACK}"),
                          ("--port 2300", f"--port {engine.port}"),
                          ("--user mcp_reader", f"--user {USER}")):
        assert guides in block
        block = block.replace(guides, tests)
    return block


def entry_of(text: str) -> "tuple[str, list[str]]":
    """Command and arguments of the one server of a client's configuration file."""
    [entry] = json.loads(text)["mcpServers"].values()
    return entry["command"], entry["args"]


def play_to_the_end(server: Server) -> None:
    """The session, after which the server ends without a word."""
    try:
        play_session(server)
        ended = server.finish()
    finally:
        server.kill()
    assert (ended.code, ended.stderr) == (0, b"")


def play_session(server: Server) -> None:
    """The first session: the tools, a query, and one that the policy refuses."""
    server.initialize()
    listed = json.loads(server.ask(request("tools/list", "list")))
    names = {tool["name"] for tool in listed["result"]["tools"]}
    assert READ_ONLY_TOOLS <= names and "kova_execute" not in names
    counted = ask(server, "count", COUNT_ORDERS["args"])
    assert counted["structuredContent"]["rows"] == [[str(ORDERS)]]
    refused = ask(server, "card", {"sql": "SELECT CARD FROM ORDERS"})
    assert refused["isError"] is True
    assert refused["content"][0]["text"] == "column is denied by MCP policy"


def ask(server: Server, name: str, arguments: dict[str, Any]) -> dict[str, Any]:
    return json.loads(server.ask(call(name, "kova_query", arguments)))["result"]


def last_calls(audit: Path, count: int) -> list[str]:
    """The correlation ids of the last records."""
    lines = audit.read_text("utf-8").splitlines()
    return [json.loads(line)["correlation_id"] for line in lines[-count:]]
