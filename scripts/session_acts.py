"""What a played session shows, act by act. Each act also checks that it has seen what it shows."""

from __future__ import annotations

import json
import subprocess
import time
from dataclasses import dataclass
from typing import Any, Callable

from session_client import Client, Exchange, SessionFailure
from session_sample import CLIENT_ID, Engine, Processes, Target
from session_view import Note, View, count, duration

SLOW_SECONDS = 2.0
CANCEL_LIMIT = 5.0
CHECK_TIMEOUT = 60.0
ENGINE_LIMIT = 5.0
BUSY = -32000

AUDIT_COLUMNS = {"ID": "correlation_id", "TOOL": "tool", "DECISION": "policy_decision",
                 "OBJECTS": "objects", "MS": "duration_ms", "ROWS": "rows", "BYTES": "bytes",
                 "STATUS": "status"}

REFUSED_SECOND = ("sql must be one bounded read-only SELECT; unknown fields are rejected; "
                  "max_rows must be 1..256")


@dataclass
class Tally:
    """What the session's last line tells."""

    answered: int = 0
    refused: int = 0
    cancelled: int = 0
    written: int = 0


@dataclass
class Stage:
    """What the acts play on."""

    view: View
    target: Target
    engine: Engine
    processes: Processes
    client: Client
    environment: dict[str, str]
    audit_start: int
    tally: Tally
    audited: int = 0  # calls that have to stand in the audit file

    @classmethod
    def open(cls, view: View, target: Target, engine: Engine, processes: Processes,
             environment: dict[str, str], tally: Tally) -> "Stage":
        """Starts a server with the environment."""
        start = engine.audit_file.stat().st_size if engine.audit_file.exists() else 0
        server = processes.start(target.command(), environment, stdin=subprocess.PIPE,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        return cls(view, target, engine, processes, Client(server), environment, start, tally)

    def close(self) -> None:
        code = self.client.close()
        expect(code == 0, f"the server ends with exit code {code}")

    def ask(self, method: str, params: "dict[str, Any] | None" = None) -> Any:
        """Shows a request and its reply, and answers the reply's result."""
        message = self.client.request(method, params)
        self.view.request(message)
        exchange = self.client.receive(self.client.send(message))
        result = exchange.reply.get("result")
        expect(exchange.reply.get("id") == message["id"] and result is not None,
               f"{method} is not answered with a result")
        self.tally.answered += 1
        self._show(exchange)
        return result

    def error_of(self, method: str, params: "dict[str, Any] | None" = None) -> Any:
        """Shows a request that has to be answered with a JSON-RPC error, and answers the error."""
        message = self.client.request(method, params)
        self.view.request(message)
        exchange = self.client.receive(self.client.send(message))
        self._show(exchange)
        expect("error" in exchange.reply, f"{method} is not answered with an error")
        return exchange.reply["error"]

    def notify(self, method: str, params: "dict[str, Any] | None" = None) -> float:
        message = self.client.notification(method, params)
        self.view.request(message)
        return self.client.send(message)

    def call(self, tool: str, arguments: "dict[str, Any] | None" = None) -> Any:
        self.audited += 1
        params: dict[str, Any] = {"name": tool}
        if arguments is not None:
            params["arguments"] = arguments
        return self.ask("tools/call", params)

    def rows_of(self, tool: str, arguments: "dict[str, Any] | None" = None) -> Any:
        """Calls a tool that answers rows, and answers the rows' object."""
        result = self.call(tool, arguments)
        content = result["structuredContent"]
        expect(result["isError"] is False and content["rowCount"] == len(content["rows"]) > 0,
               f"{tool} does not answer with rows")
        return content

    def refused(self, tool: str, arguments: dict[str, Any], message: str) -> Any:
        """Calls a tool that has to be refused with the message, and answers the result."""
        result = self.call(tool, arguments)
        expect(result["isError"] is True and result["content"][0]["text"] == message,
               f"{tool} is not refused with \"{message}\"")
        self.tally.refused += 1
        return result

    def _show(self, exchange: Exchange) -> None:
        self.view.reply(readable(exchange.reply), exchange.seconds)
        content = exchange.reply.get("result", {}).get("structuredContent", {})
        if content.get("columns"):
            self.view.table(content["columns"], content["rows"])


def expect(condition: bool, otherwise: str) -> None:
    if not condition:
        raise SessionFailure(otherwise)


def readable(reply: dict[str, Any]) -> dict[str, Any]:
    """The reply with notes for what stands in a table below it, and for what stands in it twice."""
    result = reply.get("result", {})
    content = result.get("structuredContent", {})
    parts = {key: _without_rows(part) for key, part in content.items() if isinstance(part, dict)}
    if "rows" in content or parts:
        length = len(result["content"][0]["text"])
        text = Note(f"the same as a text of {count(length, 'character')}")
        result = {**result, "content": [{**result["content"][0], "text": text}],
                  "structuredContent": {**_without_rows(content), **parts}}
    if len(result.get("tools", [])) > 1:
        more = Note(f"{len(result['tools']) - 1} more, below")
        result = {**result, "tools": [result["tools"][0], more]}
    return {**reply, "result": result} if "result" in reply else reply


def _without_rows(content: dict[str, Any]) -> dict[str, Any]:
    if not content.get("columns"):
        return content
    return {**content, "rows": Note(count(len(content["rows"]), "row") + ", below")}


# the acts


def handshake(stage: Stage) -> None:
    result = stage.ask("initialize", {
        "protocolVersion": "2025-11-25", "capabilities": {},
        "clientInfo": {"name": "run-session", "version": "1"}})
    expect(result["protocolVersion"] == "2025-11-25", "the server speaks another protocol version")
    stage.notify("notifications/initialized")


def tools(stage: Stage) -> None:
    listed = stage.ask("tools/list")["tools"]
    stage.view.table(["NAME", "DESCRIPTION"],
                     [[tool["name"], tool["description"]] for tool in listed])
    expect("kova_query" in [tool["name"] for tool in listed], "kova_query is not listed")


def catalogue(stage: Stage) -> None:
    stage.rows_of("kova_list_databases")
    stage.rows_of("kova_list_tables")


def query(stage: Stage) -> None:
    content = stage.rows_of("kova_query", {
        "sql": "SELECT NAME, PACKAGES, INSTALLED_SIZE FROM SECTIONS WHERE PACKAGES > 2500"
               " ORDER BY PACKAGES DESC"})
    expect(content["truncated"] is False, "the result is truncated")
    stage.rows_of("kova_query", {
        "sql": "SELECT D.KIND, P.NAME, P.VERSION, P.SUMMARY FROM DEPENDS D JOIN PACKAGES P"
               " ON P.NAME = D.DEPENDS_ON WHERE D.PACKAGE = 'sqlite3' ORDER BY P.NAME"})


def truncated(stage: Stage) -> None:
    content = stage.rows_of("kova_query", {
        "sql": "SELECT NAME, VERSION, SUMMARY FROM PACKAGES ORDER BY NAME", "max_rows": 5})
    expect(content["truncated"] is True and content["rowCount"] == 5,
           "the result is not truncated at five rows")


def refusals(stage: Stage) -> None:
    stage.view.note("A column that the policy denies: who maintains a package is personal data.")
    stage.refused("kova_query", {"sql": "SELECT NAME, MAINTAINER FROM PACKAGES"},
                  "column is denied by MCP policy")
    stage.view.note("A table that the policy does not name: the engine's own catalogue.")
    stage.refused("kova_query", {"sql": "SELECT NAME, SQL FROM SQLITE_SCHEMA"},
                  "table is not allowed by MCP policy")
    stage.view.note("A description, which would name the denied column.")
    stage.refused("kova_describe_table", {"table": "PACKAGES"},
                  "schema description is disabled when the policy denies columns")
    stage.view.note("A second statement, smuggled in behind the first.")
    stage.refused("kova_query", {"sql": "SELECT NAME FROM SECTIONS; DELETE FROM PACKAGES"},
                  REFUSED_SECOND)


def _expect_busy(stage: Stage) -> None:
    expect(stage.error_of("ping").get("code") == BUSY,
           "a request beside a running call is not refused as busy")


def cancellation(stage: Stage) -> None:
    """A join of every dependency with every other would run for hours."""
    client, view = stage.client, stage.view
    message = client.request("tools/call", {"name": "kova_query", "arguments": {
        "sql": "SELECT COUNT(A.PACKAGE) FROM DEPENDS A, DEPENDS B"
               " WHERE A.DEPENDS_ON < B.PACKAGE"}})
    view.request(message)
    client.send(message)
    with view.step("The query runs") as step:
        end = time.monotonic() + SLOW_SECONDS
        while (left := end - time.monotonic()) > 0:
            step.progress(f"and is cancelled in {left:.1f} s")
            expect(not client.ended_within(min(left, 0.1)), "the slow query ends by itself")
        step.outcome = ": no answer so far"
    view.note("One call at a time: anything else is refused meanwhile.")
    _expect_busy(stage)
    view.note("The client gives up.")
    sent = stage.notify("notifications/cancelled",
                        {"requestId": message["id"], "reason": "taking too long"})
    exchange = client.receive(sent)
    view.reply(exchange.reply, exchange.seconds)
    expect(exchange.reply["result"]["structuredContent"] == {"cancelled": True},
           "the call is not answered as cancelled")
    expect(exchange.seconds < CANCEL_LIMIT, "the cancelled call takes too long to end")
    stage.tally.cancelled += 1
    view.line(f"Cancelled: the call ended {duration(exchange.seconds)} after the notification.",
              "bold")
    view.line(f"The engine's log: {_interruption(stage.engine)}", "dim")
    view.note("The next request is served.")
    stage.ask("ping")


def _interruption(engine: Engine) -> str:
    end = time.monotonic() + ENGINE_LIMIT
    while time.monotonic() < end:
        for line in reversed(engine.log()):
            if "interrupted" in line:
                return line
        time.sleep(0.02)
    raise SessionFailure("the engine goes on with the cancelled statement")


def checks(stage: Stage) -> None:
    stage.view.note("--check-policy reads the policy; --check-config also logs in to the engine.")
    stage_check(stage, "--check-policy", {}, 0, "MCP_CONFIG_OK policy=")
    stage_check(stage, "--check-policy", {"KOVA_MCP_CLIENT_ID": "someone-else"}, 2,
                "MCP_CONFIG_INVALID: MCP launch identity does not match named policy")
    stage_check(stage, "--check-config", {}, 0, "MCP_CONFIG_OK policy=")
    stage_check(stage, "--check-config", {"KOVA_MCP_PASSWORD": "wrong"}, 2,
                "MCP_CONFIG_INVALID: authenticated database profile unavailable")


def stage_check(stage: Stage, mode: str, wrong: dict[str, str], code: int, begin: str) -> None:
    given = "".join(f"{name}={value} " for name, value in wrong.items())
    output, ended = run_mode(stage, mode, stage.environment | wrong, given)
    expect(ended == code, f"{mode} ends with {ended} instead of {code}")
    expect(output.startswith(begin), f"{mode} does not print \"{begin}\"")


def run_mode(stage: Stage, mode: str, environment: dict[str, str], shown_before: str,
             text: str = "") -> tuple[str, int]:
    """Shows one run of the executable in another mode; answers its output and exit code."""
    stage.view.line(f"$ {shown_before}{stage.target.executable_name} {mode}", "cyan")
    process = stage.processes.start(stage.target.command(mode), environment, stdin=subprocess.PIPE,
                                    stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    output = process.communicate(text.encode(), CHECK_TIMEOUT)[0].decode(errors="replace").strip()
    for line in output.splitlines():
        stage.view.line("  " + line, "green" if process.returncode == 0 else "red")
    stage.view.line(f"  exit code {process.returncode}", "dim")
    return output, process.returncode


def audit(stage: Stage) -> None:
    with open(stage.engine.audit_file, "rb") as file:
        file.seek(stage.audit_start)
        records = [json.loads(line) for line in file.read().split(b"\r\n")[:-1]]
    expect(len(records) >= stage.audited, "the audit file does not hold every finished call")
    stage.view.note(f"{stage.engine.audit_file}")
    stage.view.note("One line for every finished call; a cancelled one leaves none. The first:")
    stage.view.json(records[0])
    stage.view.table(list(AUDIT_COLUMNS), [[str(record[key]) for key in AUDIT_COLUMNS.values()]
                                           for record in records])


@dataclass(frozen=True)
class Act:
    title: str
    play: Callable[[Stage], None]


ACTS = [
    Act("The handshake", handshake),
    Act("The tools that the policy leaves", tools),
    Act("Databases and tables", catalogue),
    Act("Queries", query),
    Act("A result cut at the rows that were asked for", truncated),
    Act("What is refused", refusals),
    Act("A slow query, cancelled half-way", cancellation),
    Act("The two configuration checks, right and wrong", checks),
    Act("The audit file", audit),
]
