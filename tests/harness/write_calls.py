"""Calls of kova_execute under policies that allow writes, and what they leave behind."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

from harness.approval_tokens import SECRET, digest_of
from harness.messages import result_reply
from harness.scripted_library import ScriptedLibrary
from harness.servers import Servers
from harness.targets import Environment
from harness.tool_calls import ABSENT, Outcome, ToolCalls, result_json

TOOL = "kova_execute"

BAD_ARGUMENTS = "kova_execute requires bounded SQL and rejects unknown arguments"
DISABLED = "MCP writes are disabled by policy or kill switch"
SIZE = "write SQL size is invalid"
COMMENT = "comments are not allowed in writes"
SECOND_STATEMENT = "only one write statement is allowed"
TOO_LARGE = "normalized write is too large"
UNTERMINATED = "unterminated write literal"
UNCLASSIFIED = "write syntax cannot be classified"
NO_WRITE = "only INSERT, UPDATE, and DELETE are classifiable writes"
NOT_ALLOWED = "write type or target table is not allowed by MCP policy"
PROHIBITED = "write contains a prohibited operation"

INVALID = "approval token is invalid"
FIELDS = "approval token fields or operation binding are invalid"
EXPIRED = "approval token is expired or exceeds policy TTL"
NO_SECRET = "approval verification secret is unavailable"
SIGNATURE = "approval signature is invalid"
SPENT = "approval token was already used or replay state is unavailable"

WRITES: dict[str, Any] = {"writes_enabled": True, "write_types": ["INSERT", "UPDATE", "DELETE"],
                          "write_tables": ["ORDERS", "T"]}
"""Policy keys that allow writes without approval."""


def write_arguments(sql: Any, token: Any = ABSENT) -> dict[str, Any]:
    return {"sql": sql} if token is ABSENT else {"sql": sql, "approval_token": token}


class Writes:
    """The write tool of one server, and the folder of its replay markers."""

    def __init__(self, servers: Servers, engine: ScriptedLibrary, folder: Path, *,
                 secret: str | None = SECRET, env: Environment | None = None) -> None:
        self.engine = engine
        self.state = folder / "state"
        self.state.mkdir()
        self.calls = ToolCalls(servers, engine, folder,
                               env={"KOVA_MCP_APPROVAL_SECRET": secret, **(env or {})})
        self.open()

    def open(self, **overrides: Any) -> "Writes":
        """Sets a policy of writes without approval and deletes the markers of spent tokens."""
        for marker in self.state.iterdir():
            marker.unlink()
        self.calls.reset().policy(**{**WRITES, "approval_state_directory": self.state,
                                     **overrides})
        return self

    def guarded(self, **overrides: Any) -> "Writes":
        """Sets a policy of writes with tokens and deletes the markers of spent tokens."""
        return self.open(**{"approval_required": True, **overrides})

    def __call__(self, sql: Any, token: Any = ABSENT, *, raw_id: str | None = None) -> Outcome:
        return self.calls(TOOL, write_arguments(sql, token), raw_id=raw_id)

    def markers(self) -> set[str]:
        return {path.name for path in self.state.iterdir()}


def approval_answer(raw_id: str, kind: str, table: str, canonical: "str | bytes", *,
                    policy: str = "sales_read", ttl: int = 300) -> bytes:
    return result_reply(raw_id, (
        '{"content":[{"type":"text","text":'
        '"operator approval is required for this exact normalized operation"}],'
        '"structuredContent":{"approval_required":true,"operation_type":"%s","table":"%s",'
        '"operation_digest":"%s","policy":"%s","maximum_ttl_seconds":%u},"isError":true}'
        % (kind, table, digest_of(canonical), policy, ttl)))


def asks_for_approval(outcome: Outcome, kind: str, table: str, canonical: "str | bytes",
                      **fields: Any) -> None:
    assert outcome.reply == approval_answer(outcome.raw_id, kind, table, canonical, **fields)
    assert outcome.statements == []
    outcome.has_record(policy_decision="approval_required", objects=table, rows=0, bytes=0,
                       status="error", error_class="tool_error")


def ran(outcome: Outcome, canonical: "str | bytes", *, table: str = "T",
        decision: str = "allow", result: str | None = None) -> None:
    """Checks that the canonical statement reached the library once, byte for byte."""
    sent = canonical.encode() if isinstance(canonical, str) else canonical
    text = result_json() if result is None else result
    assert outcome.statements == [sent]
    reply = json.loads(outcome.reply)["result"]
    assert (reply["isError"], reply["structuredContent"]) == (False, json.loads(text))
    outcome.has_record(policy_decision=decision, objects=table, rows=json.loads(text)["rowCount"],
                       bytes=len(text.encode()), status="ok", error_class="none")


def accepted(outcome: Outcome, canonical: "str | bytes", *, table: str = "T",
             result: str | None = None) -> None:
    """Checks for a write that ran because of its token."""
    ran(outcome, canonical, table=table, decision="approval_accepted", result=result)


def refused(outcome: Outcome, message: str) -> None:
    """Checks for a refusal before the table is known; the recorded decision stays `allow`."""
    outcome.is_error(message)


def token_refused(outcome: Outcome, message: str, *, table: str = "T") -> None:
    outcome.is_error(message, decision="deny", objects=table)
