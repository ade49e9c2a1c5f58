"""Standard streams that are missing."""

from __future__ import annotations

import os

import pytest

from harness.messages import call, ping, tool_success_reply
from harness.scripted_library import Script
from harness.tool_calls import result_json


def closed(*streams: int):
    return lambda: [os.close(stream) for stream in streams]


def test_without_standard_error_a_call_goes_on(start, engine):
    """Trace lines go nowhere, above all not into a pipe of the protocol."""
    engine.script(Script().on_exec("list table;"))
    server = start(env={**engine.env, "KOVA_MCP_DEBUG": "1"}, prepare=closed(2))
    for number in range(3):
        reply = server.ask(call(number, "kova_list_tables"))
        assert reply == tool_success_reply(str(number), result_json())
    result = server.finish()
    assert (len(result.lines), result.stderr, result.code) == (3, b"", 0)


@pytest.mark.parametrize("streams", [(0,), (0, 2), (0, 1, 2)], ids=str)
def test_without_standard_input_there_is_no_input(start, streams):
    server = start(prepare=closed(*streams))
    assert server.wait() == 0


def test_without_standard_output_the_calls_are_done(start, engine, tmp_path):
    """Nobody is told, and no descriptor of a call takes the output's place."""
    engine.script(Script().on_exec("list table;"))
    audit = tmp_path / "audit"
    server = start(env={**engine.env, "KOVA_MCP_AUDIT": audit}, prepare=closed(1))
    server.send(call(1, "kova_list_tables") + ping(2))
    result = server.finish()
    assert (result.stdout, result.stderr, result.code) == (b"", b"", 0)
    assert audit.read_bytes().count(b"\r\n") == 1
