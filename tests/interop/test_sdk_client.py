"""Full stdio sessions of the official TypeScript client with the server on the sample engine."""

from __future__ import annotations

import json
import uuid
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

from harness import processes
from harness.policy_files import PolicyFiles
from harness.sample_engine import Engine
from harness.sales_engine import COUNT_ORDERS, ORDERS, profile, result, slow
from harness.targets import Installation
from harness.waiting import TIMEOUT, wait_until

HERE = Path(__file__).resolve().parent

CLOSE_LIMIT_MS = 2000
"""The client waits this long for the server to end by itself before it ends it by a signal."""


Scenario = Callable[..., dict[str, Any]]


@pytest.fixture
def play(sdk_session: Callable[..., Any], engine: Engine, installation: Installation,
         policy: PolicyFiles, tmp_path: Path) -> Iterator[Scenario]:
    """`play(scenario, **wishes)` returns what session.mjs has found."""
    target = installation.target
    marker = uuid.uuid4().hex

    def run(scenario: str, *, env: "dict[str, Any] | None" = None, **wishes: Any) -> dict[str, Any]:
        variables = {**profile(policy, engine), "KOVA_MCP_AUDIT": tmp_path / "audit.jsonl",
                     processes.MARKER: marker, **(env or {})}
        command = target.command(installation.executable("sample"), [])
        server = {"command": command[0], "args": command[1:],
                  "env": target.environment(variables), "cwd": str(tmp_path)}
        return sdk_session(scenario, server, **wishes)

    yield run
    wait_until(lambda: not processes.of_the_server(marker), TIMEOUT,
               "the end of every process of the server")


def assert_closed(session: dict[str, Any]) -> None:
    """Checks that the server has ended by itself at the end of its input, without messages."""
    assert (session["closed"]["exitCode"], session["closed"]["signalCode"]) == (0, None)
    assert session["closed"]["ms"] < CLOSE_LIMIT_MS
    assert (session["errors"], session["stderr"]) == ([], "")


def test_connect(play: Scenario) -> None:
    session = play("connect")
    assert session["findings"] == {
        "version": {"name": "Vantreo MCP", "version": "1.25-m8",
                    "description": "Policy-constrained Vantreo database and AI search tools"},
        "capabilities": {"tools": {"listChanged": False}},
        "ping": {}}
    assert_closed(session)


def test_list_tools(play: Scenario) -> None:
    session = play("list")
    tools = {tool["name"]: tool for tool in session["findings"]["tools"]}
    assert list(tools) == ["kova_list_databases", "kova_list_tables", "kova_describe_table",
                           "kova_query", "kova_vector_search", "kova_text_search",
                           "kova_hybrid_search", "kova_ai_status"]
    assert tools["kova_query"] == {
        "name": "kova_query",
        "description": "Execute exactly one parsed read-only SELECT with bounded output.",
        "inputSchema": {
            "type": "object",
            "properties": {"sql": {"type": "string", "maxLength": 32768},
                           "max_rows": {"type": "integer", "minimum": 1, "maximum": 256}},
            "required": ["sql"], "additionalProperties": False},
        "annotations": {"readOnlyHint": True, "destructiveHint": False, "idempotentHint": True,
                        "openWorldHint": False},
        "execution": {"taskSupport": "forbidden"}}
    assert_closed(session)


def test_list_tools_without_providers(play: Scenario) -> None:
    session = play("list", env={"KOVA_MCP_DISABLE_PROVIDERS": "1"})
    names = [tool["name"] for tool in session["findings"]["tools"]]
    assert "kova_text_search" not in names and "kova_hybrid_search" not in names
    assert len(names) == 6
    assert_closed(session)


def refusal(message: str) -> Any:
    return {"content": [{"type": "text", "text": message}], "isError": True}


def query(sql: str, **more: Any) -> dict[str, Any]:
    return {"name": "kova_query", "args": {"sql": sql, **more}}


def test_calls(play: Scenario) -> None:
    calls = [
        ({"name": "kova_list_databases", "args": {}},
         result("policy-filtered", ["NAME"], [["SALES"]])),
        ({"name": "kova_list_tables"},
         result("policy-filtered", ["NAME"], [["ORDERS"], ["ITEMS"]])),
        (COUNT_ORDERS, result("OK", ["N"], [[str(ORDERS)]])),
        (query("SELECT ORDER_ID, PRODUCT FROM ITEMS ORDER BY ORDER_ID, PRODUCT"),
         result("OK", ["ORDER_ID", "PRODUCT"],
                [["1", ""], ["1", 'caf\u00e9 "noir"'], ["2", "tab\there"]])),
        (query("SELECT ID FROM ORDERS ORDER BY ID", max_rows=2),
         result("OK", ["ID"], [["1"], ["2"]], truncated=True)),
        (query("SELECT CARD FROM ORDERS"), refusal("column is denied by MCP policy")),
        (query("SELECT AMOUNT FROM SALARIES"), refusal("table is not allowed by MCP policy")),
        (query("SELECT ID FROM ORDERS; DELETE FROM ORDERS"),
         refusal("sql must be one bounded read-only SELECT; unknown fields are rejected;"
                 " max_rows must be 1..256")),
        (query("SELECT ID FROM ORDERS WHERE NO_SUCH_COLUMN = 1"),
         refusal("no such column: NO_SUCH_COLUMN")),
    ]
    session = play("calls", calls=[asked for asked, _ in calls])
    assert [outcome["result"] for outcome in session["findings"]] == [wanted for _, wanted in calls]
    assert_closed(session)


def test_unknown_tool_is_a_protocol_error(play: Scenario) -> None:
    session = play("calls", calls=[{"name": "kova_drop", "args": {}}])
    assert session["findings"][0]["error"]["code"] == -32602
    assert "unknown Vantreo tool" in session["findings"][0]["error"]["message"]
    assert_closed(session)


def test_finished_calls_are_audited(play: Scenario, tmp_path: Path) -> None:
    play("calls", calls=[COUNT_ORDERS, query("SELECT CARD FROM ORDERS")])
    lines = (tmp_path / "audit.jsonl").read_bytes().split(b"\r\n")
    records = [json.loads(line) for line in lines[:-1]]
    assert [(record["tool"], record["status"], record["rows"]) for record in records] == [
        ("kova_query", "ok", 1), ("kova_query", "error", 0)]


def test_a_second_call_beside_a_running_one_is_refused_as_busy(play: Scenario,
                                                              engine: Engine) -> None:
    session = play("parallel", slow=slow(engine))
    for name in ("second", "ping"):
        error = session["findings"][name]["error"]
        assert error["code"] == -32000
        assert "another MCP database tool is still active" in error["message"]
    assert "aborted" in session["findings"]["first"]["error"]["message"]


def test_abort_signal_cancels_a_slow_query(play: Scenario, engine: Engine, tmp_path: Path) -> None:
    before = sum("interrupted" in line for line in engine.log())
    session = play("cancel", slow=slow(engine), quick=COUNT_ORDERS)
    found = session["findings"]
    assert found["first"]["error"]["message"].endswith("the user gave up")
    assert found["first"]["ms"] < found["busyAfter"] + 1000
    assert found["notification"]["params"]["requestId"] == found["request"]["id"]
    assert found["reply"] == {
        "jsonrpc": "2.0", "id": found["request"]["id"],
        "result": {"content": [{"type": "text", "text": "request cancelled"}],
                   "structuredContent": {"cancelled": True}, "isError": True}}
    assert found["repliedAfter"] < 1000
    assert found["next"]["result"] == result("OK", ["N"], [[str(ORDERS)]])
    wait_until(lambda: sum("interrupted" in line for line in engine.log()) == before + 1, TIMEOUT,
               "the interrupted statement in the engine's log")
    lines = (tmp_path / "audit.jsonl").read_bytes().split(b"\r\n")
    assert [json.loads(line)["rows"] for line in lines[:-1]] == [1]
    assert (session["closed"]["exitCode"], session["stderr"]) == (0, "")


def test_a_client_that_closes_during_a_call_leaves_nothing(play: Scenario, engine: Engine) -> None:
    """The server lets the call finish; the client's signal ends it before that."""
    session = play("closeBusy", slow=slow(engine))
    assert "Connection closed" in session["findings"]["running"]["error"]["message"]


def test_the_lock_file_pins_every_package_and_names_no_address() -> None:
    lock = json.loads((HERE / "package-lock.json").read_text("utf-8"))
    packages = {name: entry for name, entry in lock["packages"].items() if name}
    assert all("resolved" not in entry and entry["integrity"].startswith("sha512-")
               for entry in packages.values())
    pinned = json.loads((HERE / "package.json").read_text("utf-8"))["dependencies"]
    for name, version in pinned.items():
        assert packages[f"node_modules/{name}"]["version"] == version
