"""Calls of one server, each seen with its reply, its statements and its audit records.

Every call runs in a process of its own that loads the policy and the library's script anew. So
`ToolCalls.policy(...)` and `ToolCalls.script(...)` hold from the next call on, and one server
serves a whole table of cases.
"""

from __future__ import annotations

import datetime
import enum
import json
import re
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Mapping, Sequence

from harness import audit_files
from harness.messages import error_reply, tool_error_reply, tool_success_reply
from harness.policy_files import PolicyFiles
from harness.scripted_library import Script, ScriptedLibrary
from harness.servers import Server, Servers
from harness.targets import Environment

class Missing(enum.Enum):
    """Stands for a member that is left out; None stands for null."""

    MEMBER = "absent"

    def __str__(self) -> str:
        return self.value


ABSENT = Missing.MEMBER

INVALID_PARAMS = -32602
UNKNOWN_TOOL = "unknown Vantreo tool"

CLOCK_SLACK = 0.1
"""Seconds by which the clocks of the server and of the test may differ."""


@dataclass(frozen=True)
class Outcome:
    """The reply, statements and audit records of one call."""

    raw_id: str
    tool: str
    policy: str
    reply: bytes
    statements: list[bytes]
    records: list[dict[str, Any]]
    began: float
    ended: float

    def is_refused(self, message: str, code: int = INVALID_PARAMS) -> None:
        """Checks for a JSON-RPC error, no statement and no audit record."""
        assert self.reply == error_reply(self.raw_id, code, message)
        assert (self.statements, self.records) == ([], [])

    def is_error(self, message: str, *, decision: str = "allow", objects: str = "",
                 statements: Sequence[str] = (), **fields: Any) -> None:
        """Checks for a tool error and its audit record; `message` is JSON-escaped."""
        assert self.reply == tool_error_reply(self.raw_id, message)
        assert self.statements == [text.encode() for text in statements]
        self.has_record(policy_decision=decision, objects=objects, rows=0, bytes=0,
                        status="error", error_class="tool_error", **fields)

    def is_success(self, result: str, *, objects: str, statements: Sequence[str] = (),
                   **fields: Any) -> None:
        """Checks for the tool result `result`, a JSON text, and its audit record."""
        assert self.reply == tool_success_reply(self.raw_id, result)
        assert self.statements == [text.encode() for text in statements]
        self.has_record(policy_decision="allow", objects=objects,
                        rows=json.loads(result)["rowCount"], bytes=len(result.encode()),
                        status="ok", error_class="none", **fields)

    def has_record(self, **fields: Any) -> None:
        """Checks for one record with these fields; the others have their defaults."""
        [record] = self.records
        expected = {"correlation_id": str(json.loads(self.raw_id)),
                    "client_identity": "desk-client", "database_identity": "SALES",
                    "tool": self.tool, "policy": self.policy, **fields}
        rest = dict(record)
        self._is_time_of_the_call(rest.pop("timestamp"), rest.pop("duration_ms"))
        assert rest == expected

    def _is_time_of_the_call(self, timestamp: str, duration: int) -> None:
        assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", timestamp)
        stamp = datetime.datetime.fromisoformat(timestamp.replace("Z", "+00:00")).timestamp()
        assert self.began - CLOCK_SLACK <= stamp <= self.ended + CLOCK_SLACK
        assert type(duration) is int
        assert 0 <= duration <= (self.ended - self.began + CLOCK_SLACK) * 1000


class ToolCalls:
    """One server on the scripted library, with a policy file (or none) and an audit file."""

    def __init__(self, servers: Servers, engine: ScriptedLibrary, folder: Path, *,
                 configured: bool = True, env: Environment | None = None,
                 library: str | None = "scripted") -> None:
        self.engine = engine
        self.configured = configured
        self.audit = folder / "audit.jsonl"
        self._servers = servers
        self._library = library
        self._policies = PolicyFiles(servers.target, folder)
        self._policy_file = folder / "policy.json"
        named = {"KOVA_MCP_POLICY": self._policy_file} if configured else {}
        self._env = {**engine.env, "KOVA_MCP_CLIENT_ID": "desk-client", **named,
                     "KOVA_MCP_AUDIT": self.audit, **(env or {})}
        self._server: Server | None = None
        self._number = 0
        self.policy_name = "m8-read-only"
        self.reset()

    def reset(self) -> "ToolCalls":
        """Sets the default policy and a library that succeeds without rows."""
        self.script(Script())
        if self.configured:
            self.policy()
        return self

    def policy(self, *, text: "str | bytes | None" = None, without: "list[str] | None" = None,
               audited: str | None = None, **overrides: Any) -> "ToolCalls":
        """Replaces the policy file; `audited` is the policy's name in the records to come."""
        document = self._policies.document(without=without, **overrides)
        self.policy_name = document.get("name", "") if audited is None else audited
        self._policies.write(self._policy_file, json.dumps(document) if text is None else text)
        return self

    def script(self, script: Script) -> "ToolCalls":
        self.engine.script(script)
        return self

    @property
    def server(self) -> Server:
        if self._server is None:
            self._server = self._servers.start(env=self._env, library=self._library)
            self._server.initialize()
        return self._server

    def __call__(self, tool: str, arguments: Any = ABSENT, *, raw_id: str | None = None) -> Outcome:
        """Calls a tool with arguments given as values."""
        members = {"name": tool} if arguments is ABSENT else {"name": tool, "arguments": arguments}
        return self.raw(json.dumps(members, ensure_ascii=False), tool=tool, raw_id=raw_id)

    def raw(self, params: "str | bytes | None", *, tool: str = "",
            raw_id: str | None = None) -> Outcome:
        """Calls with the JSON text of `params`, or without a member of that name."""
        text = params.encode() if isinstance(params, str) else params
        member = b"" if text is None else b',"params":' + text
        if raw_id is None:
            self._number += 1
            raw_id = f'"call-{self._number}"'
        return self.message(b'{"jsonrpc":"2.0","id":%s,"method":"tools/call"%s}\n'
                            % (raw_id.encode(), member), tool=tool, raw_id=raw_id)

    def message(self, message: bytes, *, tool: str = "", raw_id: str = "null") -> Outcome:
        self.engine.clear()
        self.audit.unlink(missing_ok=True)
        server = self.server
        began = time.time()
        try:
            reply = server.ask(message)
        except AssertionError:
            server.kill()  # a late reply must not be taken for that of the next call
            self._server = None
            raise
        return Outcome(raw_id, tool, self.policy_name, reply, self.engine.queries(),
                       audit_files.records(self.audit), began, time.time())


def arguments(tool: str, members: "str | bytes") -> bytes:
    """The params of a call whose arguments are JSON text."""
    text = members.encode() if isinstance(members, str) else members
    return b'{"name":"%s","arguments":%s}' % (tool.encode(), text)


def result_json(columns: Sequence[str] = (), rows: Sequence[Sequence[str]] = (), *,
                status: str = "OK", truncated: bool = False) -> str:
    """The result of a statement, for texts that need no escaping of their own."""
    shape: Mapping[str, Any] = {"status": status, "columns": list(columns),
                                "rows": [list(row) for row in rows], "rowCount": len(rows),
                                "truncated": truncated}
    return json.dumps(shape, separators=(",", ":"), ensure_ascii=False)


def filtered(names: Sequence[str]) -> str:
    """The list that the server takes from the policy."""
    return result_json(["NAME"], [[name] for name in names], status="policy-filtered")
