"""`policy test` and the server say the same of every statement of the servers' tests: each reply of
the server becomes a case that must hold."""

from __future__ import annotations

import importlib
import json
from typing import Any, Callable

import pytest

from e2e.admin.test_same_verdict import TABLES, statements, tabled
from harness.policy_desk import PolicyDesk
from harness.tool_calls import ToolCalls
from harness.write_calls import Writes

pytestmark = pytest.mark.slow

MODULES = ("e2e.tools.test_query", "e2e.policy.test_hostile_selects")
DENIED = ["SSN", "C"]


def is_text(sql: object) -> bool:
    """Whether a client can send it: no half of a pair of surrogates."""
    return isinstance(sql, str) and not any("\ud800" <= c <= "\udfff" for c in sql)


def as_case(number: int, sql: str, reply: bytes) -> dict[str, Any]:
    """What the server has said, as a case."""
    result = json.loads(reply)["result"]
    if not result["isError"]:
        return {"name": f"{number}", "sql": sql, "expect": "allow"}
    asked = result.get("structuredContent")
    case = {"name": f"{number}", "sql": sql, "reason": result["content"][0]["text"],
            "expect": "deny" if asked is None else "approval"}
    return case if asked is None else {**case, "table": asked["table"],
                                       "type": asked["operation_type"]}


def agree(authors: PolicyDesk, policy: Any, tool: str, found: list[object],
          ask: Callable[[str], bytes]) -> None:
    texts = list(dict.fromkeys(sql for sql in found if is_text(sql)))
    cases = [{**as_case(number, sql, ask(sql)), "tool": tool} for number, sql in enumerate(texts)]
    assert {"allow", "deny"} <= {case["expect"] for case in cases} or tool == "kova_execute"
    result = authors.run("test", "--fail-on-empty", policy, authors.cases(cases))
    assert result.code == 0, [line for line in result.stdout.decode().splitlines()
                              if not line.startswith("ok ")]


@pytest.fixture(scope="module")
def guarded(served: Writes) -> Writes:
    return served.guarded(write_tables=TABLES)


def test_writes(authors: PolicyDesk, guarded: Writes) -> None:
    agree(authors, authors.writes(write_tables=TABLES), "kova_execute", statements(),
          lambda sql: guarded(sql).reply)


@pytest.mark.parametrize("denied", [[], DENIED])
def test_queries(authors: PolicyDesk, tools: ToolCalls, denied: list[str]) -> None:
    rules = {"allowed_tables": ["T", "U", "ORDERS", "ITEMS"], "denied_columns": denied}
    tools.policy(**rules)
    found = [sql for module in MODULES for sql in tabled(importlib.import_module(module))]
    assert len(found) > 80
    agree(authors, authors.policy(**rules), "kova_query", found,
          lambda sql: tools("kova_query", {"sql": sql}).reply)
