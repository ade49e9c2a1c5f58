"""The executable at a path with blanks and characters beyond ASCII."""

from __future__ import annotations

from pathlib import Path

import pytest

from harness.http_client import HttpListeners, ok_response
from harness.messages import call, ping, pong, tool_success_reply
from harness.servers import Servers
from harness.targets import Installation, Target
from harness.tool_calls import filtered

LISTED = filtered(["ORDERS", "ITEMS"])


@pytest.fixture
def named(target: Target, tmp_path: Path):
    folder = tmp_path / "with a blank" / "gr\u00fcn \u65b9\u5411 \U0001f600"
    plain = Installation(target, folder).executable("scripted", folder)
    executable = plain.rename(plain.with_name("kova-mcp f\u00fcr \u65b9.exe"))

    class Named(Installation):
        def executable(self, library: str | None = None, folder: Path | None = None) -> Path:
            return executable

    servers = Servers(target, Named(target, folder), tmp_path)
    yield servers
    servers.close()


def test_a_call_and_the_library_beside_the_executable(named, engine, policy):
    server = named.start(env={**engine.env, **policy()})
    assert server.ask(call(1, "kova_list_tables")) == tool_success_reply("1", LISTED)
    server.ask(call(2, "kova_describe_table", {"table": "ITEMS"}))
    assert engine.statements()[-1:] == [b"describe ITEMS;"]


def test_a_session_and_its_calls(named, policy):
    listeners = HttpListeners(named)
    try:
        endpoint = listeners(policy())
        session = endpoint.open_session()
        assert endpoint.post_message(ping(1), session) == ok_response(session, pong(1))
        reply = endpoint.post_message(call(2, "kova_list_tables"), session)
        assert reply == ok_response(session, tool_success_reply("2", LISTED))
    finally:
        listeners.close()
