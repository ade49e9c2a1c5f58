"""A deployment that `kova-admin init` has written: the official client starts the server by the
entry exactly as it was written."""

from __future__ import annotations

import json
import re
from pathlib import Path
from typing import Any, Callable

import pytest

from harness.deployments import Admin
from harness.sales_engine import COUNT_ORDERS, ORDERS
from harness.sample_engine import LOOPBACK, PASSWORD, USER, Engine
from harness.targets import ROOT, Installation, Target

CLIENTS = ["claude-desktop.json", "claude-code.json", "vscode.json", "cursor.json"]


@pytest.fixture(scope="module")
def deployment(target: Target, installation: Installation, engine: Engine,
               tmp_path_factory: pytest.TempPathFactory) -> Path:
    installed = installation.executable("sample").parent
    folder = tmp_path_factory.mktemp("deployments") / "sales"
    password = tmp_path_factory.mktemp("password") / "password"
    password.write_text(PASSWORD, encoding="utf-8")
    made = Admin(target, installed).run(
        "init", "--folder", folder, "--server", LOOPBACK, "--port", str(engine.port),
        "--database", "SALES", "--user", USER, "--password-file", password, "--client-id", "desk",
        "--name", "sales", "--tables", "ORDERS,ITEMS", "--denied-columns", "CARD",
        "--collections", "", "--writes", "approval", "--transport", "stdio")
    assert made.code == 0, made
    return folder


@pytest.mark.parametrize("client", CLIENTS)
def test_the_official_client_by_its_entry(sdk_session: Callable[..., Any], target: Target,
                                          deployment: Path, client: str) -> None:
    document = json.loads((deployment / "clients" / client).read_text("utf-8"))
    [servers] = document.values()
    [entry] = servers.values()
    command = target.command(Path(entry["command"]), entry["args"])
    server = {"command": command[0], "args": command[1:], "env": target.environment({})}
    denied = {"name": "kova_query", "args": {"sql": "SELECT CARD FROM ORDERS"}}
    session = sdk_session("calls", server, calls=[COUNT_ORDERS, denied])
    counted, refused = session["findings"]
    assert counted["result"]["structuredContent"]["rows"] == [[str(ORDERS)]]
    assert refused["result"]["isError"] is True
    assert (session["closed"]["exitCode"], session["errors"], session["stderr"]) == (0, [], "")
    records = [json.loads(line) for line in
               (deployment / "audit.jsonl").read_text("utf-8").splitlines()]
    assert records[-1]["client_identity"] == "desk" and records[-1]["policy"] == "sales"


@pytest.mark.parametrize("client", CLIENTS)
def test_the_documented_entry(deployment: Path, client: str) -> None:
    """docs/protocol.md shows each entry as it is written, with the paths of a Debian machine."""
    text = (ROOT / "docs" / "protocol.md").read_text("utf-8")
    name = {"claude-desktop.json": "Claude Desktop", "claude-code.json": "Claude Code",
            "vscode.json": "VS Code", "cursor.json": "Cursor"}[client]
    [shown] = re.findall(rf"^\*\*{name}\*\*, in .*?^```json\n(.*?)^```$", text,
                         re.MULTILINE | re.DOTALL)
    document = json.loads((deployment / "clients" / client).read_text("utf-8"))
    [servers] = document.values()
    [entry] = servers.values()
    entry["command"] = "/usr/bin/kova-admin"
    entry["args"][-1] = "/home/analyst/kova-sales/kova-mcp.env"
    assert json.loads(shown) == document
