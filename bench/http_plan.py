"""What http_bench.mjs is to measure: its plan, for `bench/run http` and `bench/run peers`."""

from __future__ import annotations

from pathlib import Path
from typing import Any

BENCH = Path(__file__).resolve().parent
CLIENTS = [1, 8]
PINGS = 200
"""Of one client in a batch. A session of the listener takes 256 requests that are no tool calls."""
CALLS = 50
PING = {"method": "ping"}


def call(tool: str, **arguments: Any) -> dict[str, Any]:
    return {"method": "tools/call", "params": {"name": tool, "arguments": arguments}}


def listener(server: str) -> dict[str, Any]:
    return {"name": "listener", "command": [server, "--http", "PORT"]}


def sdk_server(node: str, modules: str, *database: str) -> dict[str, Any]:
    return {"name": "SDK server", "command": [node, str(BENCH / "sdk_server.mjs"), modules, "http",
                                              "PORT", *database]}


def plan(rounds: int, sessions: int, subjects: "list[dict[str, Any]]",
         calls: "dict[str, dict[str, Any]]", name: str) -> dict[str, Any]:
    """Pings, and the call of each subject."""
    return {"rounds": rounds, "clients": CLIENTS, "sessions": sessions, "subjects": subjects,
            "workloads": [{"name": "ping", "requests": PINGS,
                           "calls": {subject["name"]: PING for subject in subjects}},
                          {"name": name, "requests": CALLS, "calls": calls}]}


def plan_of_http(server: str, modules: str, rounds: int) -> dict[str, Any]:
    """Of `bench/run http`."""
    subjects = [listener(server), sdk_server("node", modules)]
    calls = {subject["name"]: call("kova_list_tables") for subject in subjects}
    return plan(rounds, 16, subjects, calls, "tool call")
