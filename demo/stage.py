"""What the scenes of a session have in common: a server, its client, and checked, shown calls."""

from __future__ import annotations

import dataclasses
import json
import shlex
import subprocess
import textwrap
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Callable

from client import Client, Exchange
from engine import Engine
from formats import Note, count
from outcome import SessionFailure
from processes import Processes
from target import Target
from view import View

COMMAND_TIMEOUT = 60.0

AUDIT_COLUMNS = {"ID": "correlation_id", "TOOL": "tool", "DECISION": "policy_decision",
                 "OBJECTS": "objects", "MS": "duration_ms", "ROWS": "rows", "BYTES": "bytes",
                 "STATUS": "status"}


@dataclass
class Tally:
    """The counts of the session's last line."""

    served: int = 0
    refused: int = 0
    cancelled: int = 0
    written: int = 0


@dataclass
class Stage:
    """One server with a client, on the sample engine; before an act has started one, none."""

    view: View
    target: Target
    engine: Engine
    processes: Processes
    client: Client | None
    environment: dict[str, str]
    audit_start: int  # the audit file's size when the server started
    tally: Tally
    audited: int = 0  # calls that the audit file must hold

    @classmethod
    def open(cls, view: View, target: Target, engine: Engine, processes: Processes,
             profile: "dict[str, str] | None", tally: Tally) -> "Stage":
        """Starts a server with the profile in its environment; without one, none."""
        start = engine.audit_file.stat().st_size if engine.audit_file.exists() else 0
        environment = target.environment(profile or {})
        server = _start_server(processes, target.command(), environment) if profile else None
        return cls(view, target, engine, processes, server, environment, start, tally)

    def another(self, command: "list[str]", environment: "dict[str, str]") -> "Stage":
        """A server that is started by another command, with a client of its own."""
        client = _start_server(self.processes, command, environment)
        return dataclasses.replace(self, client=client, environment=environment, audited=0)

    def close(self) -> None:
        if self.client is None:
            return
        code = self.client.close()
        expect(code == 0, f"the server ends with exit code {code}")

    def ask(self, method: str, params: "dict[str, Any] | None" = None) -> Any:
        """Shows a request and its reply; returns the reply's result."""
        message = self.client.request(method, params)
        self.view.request(message)
        exchange = self.client.receive(self.client.send(message))
        result = exchange.reply.get("result")
        expect(exchange.reply.get("id") == message["id"] and result is not None,
               f"{method} returns no result")
        self.tally.served += 1
        self._show(exchange)
        return result

    def error_of(self, method: str, params: "dict[str, Any] | None" = None) -> Any:
        """Shows a request that must get a JSON-RPC error; returns the error."""
        message = self.client.request(method, params)
        self.view.request(message)
        exchange = self.client.receive(self.client.send(message))
        self._show(exchange)
        expect("error" in exchange.reply, f"{method} returns no error")
        return exchange.reply["error"]

    def notify(self, method: str, params: "dict[str, Any] | None" = None) -> float:
        """Shows and sends a notification; returns the time at which sending began."""
        message = self.client.notification(method, params)
        self.view.request(message)
        return self.client.send(message)

    def call(self, tool: str, arguments: "dict[str, Any] | None" = None) -> Any:
        """Shows a tool call and its reply; returns the result."""
        self.audited += 1
        params: dict[str, Any] = {"name": tool}
        if arguments is not None:
            params["arguments"] = arguments
        return self.ask("tools/call", params)

    def rows_of(self, tool: str, arguments: "dict[str, Any] | None" = None) -> Any:
        """Calls a tool that must return rows; returns its structured content."""
        result = self.call(tool, arguments)
        content = result["structuredContent"]
        expect(result["isError"] is False and content["rowCount"] == len(content["rows"]) > 0,
               f"{tool} returns no rows")
        return content

    def refused(self, tool: str, arguments: dict[str, Any], message: str) -> Any:
        """Makes a call that must be refused with the message; returns the result."""
        result = self.call(tool, arguments)
        expect(result["isError"] is True and result["content"][0]["text"] == message,
               f"{tool} is not refused with \"{message}\"")
        self.tally.refused += 1
        return result

    def run_mode(self, mode: str, environment: dict[str, str], shown_before: str,
                 text: str = "") -> tuple[str, int]:
        """Shows one run of the executable in another mode; returns its output and exit code."""
        self.view.line(f"$ {shown_before}{self.target.executable_name} {mode}", "cyan")
        process = self.processes.start(self.target.command(mode), environment,
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                       stderr=subprocess.STDOUT)
        data, _ = process.communicate(text.encode(), COMMAND_TIMEOUT)
        output = data.decode(errors="replace").strip()
        for line in output.splitlines():
            self.view.line("  " + line, "green" if process.returncode == 0 else "red")
        self.view.line(f"  exit code {process.returncode}", "dim")
        return output, process.returncode

    def show_admin(self, *arguments: "str | Path") -> None:
        """Shows a command of the operator's tool as it is typed."""
        words = self.target.words(*arguments)
        typed = subprocess.list2cmdline(words) if self.target.windows else shlex.join(words)
        lines = textwrap.wrap(f"$ {self.target.admin_name} {typed}", self.view.width - 2,
                              subsequent_indent="    ", break_long_words=False,
                              break_on_hyphens=False)
        for line in lines:
            self.view.line(line, "cyan")

    def run_admin(self, *arguments: "str | Path") -> tuple[str, int]:
        """Runs a command of the operator's tool; returns its output and exit code."""
        process = self.processes.start(self.target.admin_command(*arguments),
                                       self.target.environment({}), stdin=subprocess.DEVNULL,
                                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        data, _ = process.communicate(timeout=COMMAND_TIMEOUT)
        return data.decode(errors="replace").replace("\r", "").strip("\n"), process.returncode

    def play_admin(self, *arguments: "str | Path") -> tuple[str, int]:
        """The same, and shows the command, all output and the exit code."""
        self.show_admin(*arguments)
        output, code = self.run_admin(*arguments)
        for line in output.splitlines():
            self.view.line("  " + line, "green" if code == 0 else "red")
        self.view.line(f"  exit code {code}", "dim")
        return output, code

    def _show(self, exchange: Exchange) -> None:
        self.view.reply(_readable(exchange.reply), exchange.seconds)
        content = exchange.reply.get("result", {}).get("structuredContent", {})
        if content.get("columns"):
            self.view.table(content["columns"], content["rows"])


@dataclass(frozen=True)
class Scene:
    """A numbered piece of an act, under a heading of its own."""

    title: str
    play: Callable[[Stage], None]


def _start_server(processes: Processes, command: "list[str]",
                  environment: "dict[str, str]") -> Client:
    return Client(processes.start(command, environment, stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE))


def expect(condition: bool, otherwise: str) -> None:
    if not condition:
        raise SessionFailure(otherwise)


def _readable(reply: dict[str, Any]) -> dict[str, Any]:
    """The reply with notes in the place of rows, which follow as a table, and of repeated text."""
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


# scenes and parts of scenes that several acts have


def handshake(stage: Stage) -> None:
    result = stage.ask("initialize", {
        "protocolVersion": "2025-11-25", "capabilities": {},
        "clientInfo": {"name": "run-session", "version": "1"}})
    expect(result["protocolVersion"] == "2025-11-25", "the server speaks another protocol version")
    stage.notify("notifications/initialized")


def listed_tools(stage: Stage) -> list[str]:
    """Shows the tools' names in one line; the first act shows the descriptions."""
    names = [tool["name"] for tool in stage.ask("tools/list")["tools"]]
    stage.view.line(f"  {count(len(names), 'tool')}: {', '.join(names)}")
    return names


def audit(stage: Stage) -> None:
    """Shows what the server has appended to the audit file since its start."""
    with open(stage.engine.audit_file, "rb") as file:
        file.seek(stage.audit_start)
        records = [json.loads(line) for line in file.read().split(b"\r\n")[:-1]]
    expect(len(records) >= stage.audited, "the audit file does not hold every finished call")
    stage.view.note(f"{stage.engine.audit_file}")
    stage.view.note("One line for every finished call; a cancelled one leaves none. The first:")
    stage.view.json(records[0])
    stage.view.table(list(AUDIT_COLUMNS), [[str(record[key]) for key in AUDIT_COLUMNS.values()]
                                           for record in records])
