"""The mode that the command line chooses, and the tool-worker mode seen from its pipes."""

from __future__ import annotations

import json

import pytest

from harness.http_client import CLOSED, ok_response
from harness.messages import (BUSY, PARSE_ERROR, call, cancel, error_reply, not_initialized,
                              notification, ping, pong, request, result_reply, tool_error_reply)


@pytest.mark.parametrize("arguments", [
    [], [""], ["--help"], ["-h"], ["--version"], ["--check-policy "], ["--CHECK-POLICY"],
    ["--Check-Config"], ["--Tool-Worker"], ["--check-policy", "x"], ["x", "--check-policy"],
    ["--check-config", "--check-config"], ["--issue-approval", "x"], ["--tool-worker", "x"],
    ["--http"], ["--HTTP", "1"], ["--http ", "1"], ["1", "--http"], ["--http=1"],
    ["--http", "1", "2"], ["a", "b", "c"], ["--check-policy", "--check-config", "--http", "1"],
], ids=" ".join)
def test_anything_else_is_a_stdio_server(run, arguments):
    result = run(*arguments, stdin=ping(1) + ping(2))
    assert result.stdout == not_initialized(1) + not_initialized(2)
    assert (result.stderr, result.code) == (b"", 0)


@pytest.mark.parametrize("port", ["", "0", "65536", "port", "--check-policy"])
def test_http_with_anything_behind_it_is_the_listener(run, port):
    result = run("--http", port, stdin=ping(1))
    assert (result.stdout, result.stderr, result.code) == (b"", b"", 2)


def test_the_listener_lives_whatever_the_policy_says(http, policy):
    listener = http(policy(version=2))
    listener.server.send(ping(1))
    listener.server.close_input()
    session = listener.open_session()
    assert listener.post_message(ping(1), session) == ok_response(session, pong(1))
    listener.server.expect_silence()
    assert listener.delete(session) == CLOSED


def test_no_input_at_all(run):
    result = run()
    assert (result.stdout, result.stderr, result.code) == (b"", b"", 0)


def test_a_stdio_server_with_an_invalid_policy_still_serves(run, policy):
    result = run(stdin=request("initialize", 1) + ping(2) + request("tools/list", 3),
                 env=policy(version=2))
    assert result.lines[1] + b"\n" == pong(2)
    assert result.lines[2] + b"\n" == result_reply("3", '{"tools":[]}')
    assert (result.stderr, result.code) == (b"", 0)


def test_the_worker_without_input(run):
    result = run("--tool-worker")
    assert (result.stdout, result.stderr, result.code) == (b"", b"", 0)


@pytest.mark.parametrize("line, reply", [
    (ping(1), pong(1)),
    (ping(1)[:-1], pong(1)),
    (ping(1)[:-1] + b"\r\n", pong(1)),
    (ping(1)[:-1] + b"\r\r\r\n", pong(1)),
    (ping(1)[:-1] + b"\r\r", pong(1)),
    (request("initialize", 1), error_reply("1", -32600, "server is already initialized")),
    (request("nothing", 1), error_reply("1", -32601, "method not found")),
    (notification("notifications/initialized"), b""),
    (notification("ping"), b""),
    (cancel(1), b""),
    (b"\n", PARSE_ERROR),
    (b"\r\n", PARSE_ERROR),
    (b"x\n", PARSE_ERROR),
    (b"\0\n", PARSE_ERROR),
    (b"\0" + ping(1), PARSE_ERROR),
    (ping(1)[:-1] + b"\0 rest\n", pong(1)),
    (ping(1)[:-2] + b"\0}\n", PARSE_ERROR),
    (b"\xef\xbb\xbf" + ping(1), PARSE_ERROR),
    (ping(1) + ping(2), pong(1)),
    (b"\n" + ping(2), PARSE_ERROR),
    (call(1, "nothing"), error_reply("1", -32602, "unknown Vantreo tool")),
], ids=repr)
def test_the_worker_returns_one_line(run, line, reply):
    result = run("--tool-worker", stdin=line)
    assert (result.stdout, result.stderr, result.code) == (reply, b"", 0)


@pytest.mark.parametrize("length", [1048575, 1048576, 1048577, 1048578, 1200000])
def test_the_worker_knows_no_oversize(run, length):
    """It reads the first 1,048,577 bytes, here a message and spaces, and ignores the rest."""
    line = ping(1)[:-1].ljust(length) + b"\n"
    assert run("--tool-worker", stdin=line).stdout == pong(1)


@pytest.mark.parametrize("start, reply", [(1048577, pong(1)), (1048576, PARSE_ERROR)])
def test_the_worker_cuts_after_1048577_bytes(run, start, reply):
    assert run("--tool-worker", stdin=ping(1)[:-1].ljust(start) + b"x\n").stdout == reply


def test_the_worker_lists_the_tools(run, policy):
    reply = run("--tool-worker", stdin=request("tools/list", 1), env=policy(reads_enabled=False))
    assert reply.stdout == result_reply("1", '{"tools":[]}')


def test_the_worker_loads_the_policy(run, policy):
    reply = run("--tool-worker", stdin=call("a", "kova_list_databases"), env=policy()).replies[0]
    assert reply["result"]["structuredContent"]["rows"] == [["SALES"]]


def test_the_worker_ends_with_0_whatever_the_outcome(run, policy):
    result = run("--tool-worker", stdin=call("a", "kova_list_databases"), env=policy(version=2))
    assert result.stdout == tool_error_reply('"a"', "MCP policy identity/version is invalid")
    assert result.code == 0


def test_the_worker_closes_its_database_session(run, engine):
    result = run("--tool-worker", stdin=call(1, "kova_list_tables"), env=engine.env)
    assert json.loads(result.stdout)["result"]["isError"] is False
    assert engine.operations()[-2:] == ["FreeObject", "StopVantreo"]


def test_the_worker_is_never_busy(run, engine):
    result = run("--tool-worker", stdin=call(1, "kova_list_tables") + ping(2), env=engine.env)
    assert BUSY.encode() not in result.stdout
    assert len(result.lines) == 1
