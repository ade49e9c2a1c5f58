"""Which calls follow an edited policy file.

A call runs in a process of its own, which reads the file anew. A call whose id is spelled with so
many escapes that the source text exceeds 99 bytes runs in the server process, which goes on under
the policy that it read at its start.
"""

from __future__ import annotations

import json

import pytest

from harness.http_client import HttpListener
from harness.messages import (call, error_reply, request, tool_error_reply, tool_success_reply)
from harness.scripted_library import Script
from harness.tool_calls import INVALID_PARAMS, UNKNOWN_TOOL, result_json
from harness.write_calls import WRITES

DELETE = "DELETE FROM T;"
DISABLED = {"KOVA_MCP_DISABLE_WRITES": "1"}


def long_id(number: int) -> str:
    """An id of 109 bytes of source text that decodes to 22."""
    return '"' + "\\u0041" * 17 + f'{number:05}"'


def echoed(number: int) -> str:
    """The id of the reply: the same id in its shortest spelling."""
    return f'"{"A" * 17}{number:05}"'


def call_in_server(number: int, tool: str, arguments: "dict[str, str] | None" = None) -> bytes:
    message = call("ID", tool, arguments)
    return message.replace(b'"ID"', long_id(number).encode())


@pytest.fixture
def writes(policy, engine):
    """The environment of a policy under which a DELETE from T runs at once."""
    engine.script(Script().on_exec(DELETE, status="1 row deleted"))
    return {**engine.env, **policy(**WRITES)}


def deleted(raw_id: str) -> bytes:
    return tool_success_reply(raw_id, result_json([], [], status="1 row deleted"))


def unknown_tool(raw_id: str) -> bytes:
    return error_reply(raw_id, INVALID_PARAMS, UNKNOWN_TOOL)


def edit(policy, env, **overrides) -> None:
    policy.write(env["KOVA_MCP_POLICY"], json.dumps(policy.document(**overrides)))


def test_a_call_in_the_server_process_goes_on_under_the_old_policy(start, policy):
    env = policy()
    server = start(env=env)
    server.initialize()
    edit(policy, env, allowed_tables=["OTHER"])
    assert b'[["OTHER"]]' in server.ask(call(1, "kova_list_tables"))
    assert b'[["ORDERS"],["ITEMS"]]' in server.ask(call_in_server(2, "kova_list_tables"))
    edit(policy, env, reads_enabled=False)
    refused = tool_error_reply("3", "read tools are disabled by policy")
    assert server.ask(call(3, "kova_list_tables")) == refused
    assert b'[["ORDERS"],["ITEMS"]]' in server.ask(call_in_server(4, "kova_list_tables"))
    policy.write(env["KOVA_MCP_POLICY"], "{}")
    assert b"MCP policy identity/version is invalid" in server.ask(call(5, "kova_list_tables"))
    assert b'[["ORDERS"],["ITEMS"]]' in server.ask(call_in_server(6, "kova_list_tables"))


def test_a_write_in_the_server_process_goes_on_under_the_old_policy(start, policy, engine, writes):
    """Writes stop with the server: the next one reads the file."""
    server = start(env=writes)
    server.initialize()
    edit(policy, writes, **{**WRITES, "writes_enabled": False})
    arguments = {"sql": "delete from T"}
    assert server.ask(call(1, "kova_execute", arguments)) == unknown_tool("1")
    assert engine.queries() == []
    assert server.ask(call_in_server(2, "kova_execute", arguments)) == deleted(echoed(2))
    assert engine.queries() == [DELETE.encode()]
    server.close_input()
    assert server.wait() == 0
    server = start(env=writes)
    server.initialize()
    assert server.ask(call_in_server(3, "kova_execute", arguments)) == unknown_tool(echoed(3))
    assert engine.queries() == [DELETE.encode()]


def test_a_call_in_the_server_process_obeys_the_kill_switch(start, engine, writes):
    server = start(env={**writes, **DISABLED})
    server.initialize()
    reply = server.ask(call_in_server(1, "kova_execute", {"sql": "delete from T"}))
    assert reply == unknown_tool(echoed(1))
    assert engine.queries() == []


def test_a_server_that_was_started_with_an_invalid_policy_refuses(start, policy, engine):
    """A file that is mended later does not help a call in the server process."""
    env = policy(text="{}")
    server = start(env={**engine.env, **env})
    server.initialize()
    edit(policy, env)
    assert b'[["ORDERS"],["ITEMS"]]' in server.ask(call(1, "kova_list_tables"))
    refused = tool_error_reply(echoed(2), "MCP policy identity/version is invalid")
    assert server.ask(call_in_server(2, "kova_list_tables")) == refused
    assert server.ask(request("tools/list", 3)).count(b'"name"') == 0


TABLES = {"old": b'[["ORDERS"],["ITEMS"]]', "new": b'[["OTHER"]]'}


class HttpSession:
    """A session whose calls run in its server process."""

    def __init__(self, listener: HttpListener) -> None:
        self.listener = listener
        self.id = listener.open_session()
        self.count = 0

    def policy(self) -> str:
        """Which of the two policies the calls run under."""
        self.count += 1
        got = self.listener.post_message(call_in_server(self.count, "kova_list_tables"), self.id)
        [found] = [name for name, rows in TABLES.items() if rows in got]
        return found


def test_over_http_a_new_session_follows_the_edited_policy(http, policy):
    """An open session does not, and goes on as it was beside the new one."""
    env = policy()
    listener = http(env)
    before = HttpSession(listener)
    assert before.policy() == "old"
    unused = HttpSession(listener)
    edit(policy, env, allowed_tables=["OTHER"])
    after = HttpSession(listener)
    assert [before.policy(), unused.policy(), after.policy()] == ["old", "old", "new"]
    in_worker = listener.post_message(call(1, "kova_list_tables"), before.id)
    assert TABLES["new"] in in_worker
    assert HttpSession(http(env)).policy() == "new"
    assert [before.policy(), after.policy()] == ["old", "new"]
