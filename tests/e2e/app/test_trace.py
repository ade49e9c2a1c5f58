"""Trace lines on standard error."""

from __future__ import annotations

import pytest

from harness.messages import call, cancel, cancelled_reply, error_reply, notification, ping, request
from harness.scripted_library import Script

STATEMENT = "list table;"


def start_line(request_id: str) -> str:
    return f"MCP_TRACE event=tool_worker_start request_id={request_id} isolation=process"


def finish_line(request_id: str, cancelled: int = 0, exit_code: int = 0) -> str:
    return (f"MCP_TRACE event=tool_worker_finish request_id={request_id} "
            f"cancelled={cancelled} exit={exit_code}")


def matched_line(request_id: str) -> str:
    return f"MCP_TRACE event=cancel_matched request_id={request_id}"


def dispatched_line(request_id: str, process: str = "terminated") -> str:
    return (f"MCP_TRACE event=cancel_dispatched request_id={request_id} "
            f"isolated_process={process}")


ALL_ON = {"KOVA_MCP_DEBUG": "1"}


@pytest.mark.parametrize("value, on", [
    (None, False), ("", False), ("0", False), ("1", True), ("false", True), ("00", True),
    (" 0", True), ("0 ", True), ("no", True), ("off", True), ("2", True), ("é", True)])
def test_what_switches_tracing_on(run, policy, value, on):
    result = run(stdin=call(1, "kova_list_tables"), env={**policy(), "KOVA_MCP_DEBUG": value})
    assert (b"MCP_TRACE" in result.stderr) is on
    assert b"MCP_TRACE" not in result.stdout
    assert len(result.lines) == 1


def test_a_call_writes_its_start_and_its_finish(start, policy):
    server = start(env={**policy(), **ALL_ON})
    server.ask(call(1, "kova_list_tables"))
    server.ask(call("two", "nothing"))
    server.finish()
    assert server.stderr_lines() == [start_line("1"), finish_line("1"), start_line("two"),
                                     finish_line("two")]


def test_lines_end_as_the_target_s_text_files_do(run, policy, target):
    result = run(stdin=call(1, "kova_list_tables"), env={**policy(), **ALL_ON})
    end = target.line_end.decode()
    assert result.stderr.decode() == start_line("1") + end + finish_line("1") + end


@pytest.mark.parametrize("message", [
    ping(1), request("tools/list", 1), request("initialize", 1), cancel(1), b"x\n",
    notification("tools/call", {"name": "kova_list_tables"}),
    notification("tools/call"),
], ids=repr)
def test_nothing_else_is_traced(run, message):
    assert run(stdin=message, env=ALL_ON).stderr == b""


@pytest.mark.parametrize("raw_id, traced", [
    ("7", "7"), ("-1.5E+3", "-1.5E+3"), ("true", "true"), ("null", "null"), ("[ 1 ]", "[ 1 ]"),
    ('"abc"', "abc"), ('"a\\u0062c"', "a\\u0062c"), ('"a%sb%n"', "a%sb%n"), ('"a b"', "a b"),
    ('"é"', "é"), ('""', "invalid"), ('"null"', "null"),
    ('"' + "x" * 94 + '"', "x" * 94), ('"' + "x" * 95 + '"', "invalid"),
    ('"' + "x" * 97 + '"', "invalid"),
    ("9" * 95, "9" * 95), ("9" * 96, "9" * 95), ("9" * 99, "9" * 95),
], ids=lambda raw: raw[:20])
def test_the_id_in_the_lines(start, raw_id, traced):
    server = start(env=ALL_ON)
    sent = f'{{"jsonrpc":"2.0","id":{raw_id},"method":"tools/call"}}\n'
    server.send(sent.encode())
    server.read_line()
    server.finish()
    assert server.stderr_lines() == [start_line(traced), finish_line(traced)]


@pytest.mark.parametrize("raw_id", ['"' + "x" * 98 + '"', "9" * 100], ids=["string", "number"])
def test_an_id_that_is_not_recognised_runs_in_no_worker(run, raw_id):
    sent = f'{{"jsonrpc":"2.0","id":{raw_id},"method":"tools/call"}}\n'
    result = run(stdin=request("initialize", 1) + sent.encode(), env=ALL_ON)
    assert result.stderr == b""
    assert result.replies[1]["error"]["message"] == "request id is invalid or already used"


@pytest.mark.parametrize("method", ["tools\\/call", "tools/c\\u0061ll", "tools/call\\u0000x"])
def test_the_method_is_decoded_before_it_is_compared(start, method):
    server = start(env=ALL_ON)
    sent = f'{{"jsonrpc":"2.0","id":1,"method":"{method}","params":{{"name":"nothing"}}}}\n'
    assert server.ask(sent.encode()) == error_reply("1", -32602, "unknown Vantreo tool")
    server.finish()
    assert server.stderr_lines() == [start_line("1"), finish_line("1")]


def test_a_cancelled_call(start, engine):
    engine.script(Script().on_exec(STATEMENT, hang=True))
    server = start(env={**engine.env, **ALL_ON})
    server.send(call("abc", "kova_list_tables"))
    engine.wait_for_statement(STATEMENT)
    assert server.stderr_lines() == [start_line("abc")]
    server.send(cancel("other"))
    server.send(cancel("abc"))
    assert server.read_line() == cancelled_reply('"abc"')
    server.finish()
    assert server.stderr_lines() == [start_line("abc"), matched_line("abc"),
                                     dispatched_line("abc"), finish_line("abc", 1, 1223)]


def test_a_cancel_that_comes_with_its_call(start, engine):
    """The cancel ends the child, or the child is ended as soon as it exists."""
    engine.script(Script().on_exec(STATEMENT, hang=True))
    server = start(env={**engine.env, **ALL_ON})
    seen = set()
    for number in range(30):
        server.send(call(number, "kova_list_tables") + cancel(number))
        assert server.read_line() == cancelled_reply(str(number))
        server.wait_for_stderr(finish_line(str(number), 1, 1223))
        for process in ("starting", "terminated"):
            if dispatched_line(str(number), process) in server.stderr_lines():
                seen.add(process)
    lines = server.stderr_lines()
    assert len(lines) == 30 * 4
    assert "starting" in seen


@pytest.mark.parametrize("what, exit_code", [
    ({"exit_code": 0}, 0), ({"exit_code": 1}, 1), ({"exit_code": 77}, 77),
    ({"exit_code": 255}, 255)])
def test_the_child_s_exit_code(start, engine, what, exit_code):
    engine.script(Script().on_exec(STATEMENT, **what))
    server = start(env={**engine.env, **ALL_ON})
    server.ask(call(1, "kova_list_tables"))
    server.finish()
    assert server.stderr_lines()[-1] == finish_line("1", 0, exit_code)


def test_the_exit_code_of_a_crash(start, engine, target):
    """An access violation, or 128 plus the number of the signal."""
    engine.script(Script().on_exec(STATEMENT, crash=True))
    server = start(env={**engine.env, **ALL_ON})
    server.ask(call(1, "kova_list_tables"))
    server.finish()
    code = 0xC0000005 if target.windows else 128 + 11
    assert server.stderr_lines()[-1] == finish_line("1", 0, code)


def test_a_cancel_behind_the_child_s_reply(start, engine):
    """The child has replied and hangs in its disconnect: the call still counts as cancelled."""
    engine.script(Script().on("StopVantreo", hang=True).on_exec(STATEMENT))
    server = start(env={**engine.env, **ALL_ON})
    server.send(call(1, "kova_list_tables"))
    engine.wait_for("StopVantreo")
    server.expect_silence(0.1)
    server.send(cancel(1))
    assert server.read_line() == cancelled_reply("1")
    server.finish()
    assert server.stderr_lines()[1:] == [matched_line("1"), dispatched_line("1"),
                                         finish_line("1", 1, 1223)]


def test_a_second_cancel_is_traced_again(start, engine):
    engine.script(Script().on("StopVantreo", hang=True).on_exec(STATEMENT, hang=True))
    server = start(env={**engine.env, **ALL_ON})
    server.send(call(1, "kova_list_tables"))
    engine.wait_for_statement(STATEMENT)
    server.send(cancel(1) * 2)
    assert server.read_line() == cancelled_reply("1")
    server.finish()
    lines = server.stderr_lines()
    assert lines.count(finish_line("1", 1, 1223)) == 1
    assert 1 <= lines.count(matched_line("1")) <= 2


def test_the_child_s_own_standard_error_comes_through(start, engine):
    engine.script(Script().on_exec(STATEMENT, stderr="from the library\n"))
    server = start(env=engine.env)
    server.ask(call(1, "kova_list_tables"))
    assert server.finish().stderr == b"from the library\n"


def test_a_standard_error_without_a_reader_costs_nothing(start, policy):
    server = start(env={**policy(), **ALL_ON}, unread=["stderr"])
    server.initialize()
    assert b"ORDERS" in server.ask(call(1, "kova_list_tables"))
    assert b'"result":{}' in server.ask(ping(2))
