"""The child process of a call: what becomes of its reply, its failures and its end."""

from __future__ import annotations

import json
import os
import signal
import time

import pytest

from harness.audit_files import records
from harness.messages import (PARSE_ERROR, WORKER_FAILED, call, cancel, cancelled_reply,
                              error_reply, ping, pong, request, tool_success_reply)
from harness.scripted_library import Repeat, Script
from harness.servers import Server
from harness.targets import Installation
from harness.tool_calls import result_json
from harness.waiting import wait_until

pytestmark = pytest.mark.threads

STATEMENT = "list table;"
LIMIT = 1048577  # limit of a child's output that is passed on


# the reply


@pytest.mark.parametrize("output, passed_on", [
    (b"x", b"x\n"), (b"x\n", b"x\n"), (b"\n", b"\n"), (b"x\r", b"x\r\n"), (b"a\nb", b"a\nb\n"),
    (b"a\nb\n\n", b"a\nb\n\n"), (b"\x00\xff\x00", b"\x00\xff\x00\n"), (b"{}", b"{}\n"),
], ids=repr)
def test_what_the_child_writes_is_passed_on(run, engine, output, passed_on):
    engine.script(Script().on_exec(STATEMENT, stdout=output, exit_code=0))
    assert run(stdin=call(1, "kova_list_tables"), env=engine.env).stdout == passed_on


@pytest.mark.parametrize("length, feed, passed_on", [
    (LIMIT - 2, b"\n", LIMIT - 2), (LIMIT - 1, b"\n", LIMIT - 1), (LIMIT - 1, b"", LIMIT - 1),
    (LIMIT, b"", LIMIT), (LIMIT, b"\n", LIMIT), (LIMIT + 1, b"", LIMIT), (LIMIT + 1, b"\n", LIMIT),
    (3 * LIMIT, b"\n", LIMIT)])
def test_a_long_output_is_cut(start, engine, length, feed, passed_on):
    script = Script().on("Status", stdout=feed, exit_code=0)
    engine.script(script.on_exec(STATEMENT, stdout=Repeat(length)))
    server = start(env=engine.env)
    reply = server.ask(call(1, "kova_list_tables"))
    assert len(reply) == passed_on + 1 and reply == b"x" * passed_on + b"\n"
    engine.script(Script())
    assert server.ask(call(2, "kova_list_tables")).startswith(b'{"jsonrpc":"2.0","id":2,')


def result_of(rows: int, cell: int) -> str:
    text = ",".join([f'["{"x" * cell}"]'] * rows)
    return (f'{{"status":"OK","columns":["A"],"rows":[{text}],"rowCount":{rows},'
            f'"truncated":false}}')


@pytest.mark.parametrize("rows, cell", [(31, 16384), (32, 16384), (50, 16384), (63, 16384)])
def test_a_large_result_is_cut_like_any_output(start, engine, tmp_path, rows, cell):
    """A reply contains its result twice and may so exceed the limit."""
    engine.script(Script().on_exec(STATEMENT, columns=["A"], repeat=[(rows, [Repeat(cell)])]))
    server = start(env={**engine.env, "KOVA_MCP_AUDIT": tmp_path / "audit.log"})
    result = result_of(rows, cell)
    whole = tool_success_reply('"big"', result)
    expected = whole if len(whole) <= LIMIT else whole[:LIMIT] + b"\n"
    assert server.ask(call("big", "kova_list_tables")) == expected
    assert server.ask(ping(1)).startswith(b'{"jsonrpc":"2.0","id":1,')
    record, = records(tmp_path / "audit.log")
    assert (record["rows"], record["bytes"], record["status"]) == (rows, len(result), "ok")


def test_the_child_echoes_the_id(run, policy):
    for raw_id, echoed in [('"abc"', '"abc"'), ('"\\u0061bc"', '"abc"'), ("7", "7"),
                           ("7.50", "7.50"), ("true", "true"), ('""', '""')]:
        sent = f'{{"jsonrpc":"2.0","id":{raw_id},"method":"tools/call","params":{{"name":"n"}}}}\n'
        assert run(stdin=sent.encode(), env=policy()).stdout == error_reply(
            echoed, -32602, "unknown Vantreo tool")


BAD_ID = "request id is invalid or already used"


@pytest.mark.parametrize("message, reply", [
    (b'{"jsonrpc":"2.0","id":null,"method":"tools/call"}', error_reply("null", -32600, BAD_ID)),
    (b'{"jsonrpc":"2.0","id":"null","method":"tools/call"}',
     error_reply('"null"', -32600, BAD_ID)),
    (b'{"jsonrpc":"2.0","id":[ 1 ],"method":"tools/call"}', error_reply("[ 1 ]", -32600, BAD_ID)),
    (b'{"jsonrpc":"2.0","id":{"a": 1},"method":"tools/call"}',
     error_reply('{"a": 1}', -32600, BAD_ID)),
    (b'{"jsonrpc":"2.0","id":"' + b"x" * 96 + b'","method":"tools/call"}',
     error_reply("null", -32600, BAD_ID)),
    (b'{"jsonrpc":"2.0","id":' + b"9" * 96 + b',"method":"tools/call"}',
     error_reply("9" * 96, -32600, BAD_ID)),
    (b'{"jsonrpc":"2.0","id":"\\ud800","method":"tools/call"}',
     error_reply("null", -32600, BAD_ID)),
    (b'{"jsonrpc":"1","id":"a","method":"tools/call"}',
     error_reply('"a"', -32600, "jsonrpc must be 2.0")),
    (b'{"id":"a","method":"tools/call"}', error_reply('"a"', -32600, "jsonrpc must be 2.0")),
    (b'{"jsonrpc":"2.0","id":"a","id":"b","method":"tools/call"}', PARSE_ERROR),
    (b'{"jsonrpc":"2.0","id":"a","method":"tools/call","x":{"k":1,"\\u006b":2}}', PARSE_ERROR),
    (b'{"jsonrpc":"2.0","id":"a","method":"tools/call","method":"ping"}', PARSE_ERROR),
    (b'{"jsonrpc":"2.0","id":"a","method":"tools/call"}',
     error_reply('"a"', -32602, "tools/call params are invalid or contain unknown fields")),
], ids=lambda value: repr(value)[:60])
def test_the_child_checks_the_envelope(run, message, reply):
    result = run(stdin=message + b"\n", env={"KOVA_MCP_DEBUG": "1"})
    assert result.stdout == reply
    assert b"event=tool_worker_finish" in result.stderr


def test_a_call_needs_no_handshake_and_no_new_id(start, policy):
    server = start(env=policy())
    for _ in range(3):
        assert b'"isError":false' in server.ask(call(1, "kova_list_tables"))
    assert b"server is not initialized" in server.ask(ping(1))


def test_a_call_without_an_id_is_a_notification(run, engine):
    sent = b'{"jsonrpc":"2.0","method":"tools/call","params":{"name":"kova_list_tables"}}\n'
    result = run(stdin=request("initialize", 1) + sent + ping(2), env=engine.env)
    assert result.lines[1] + b"\n" == pong(2)
    assert engine.calls() == []


def test_the_longest_line_reaches_the_child(run, policy):
    sent = call(1, "kova_list_tables")[:-2].ljust(1048575) + b"}\n"
    assert b"ORDERS" in run(stdin=sent, env=policy()).stdout


# failures


@pytest.mark.parametrize("what", [
    {"exit_code": 0}, {"exit_code": 1}, {"exit_code": 255}, {"crash": True},
    {"stdout": "x\n", "exit_code": 1}, {"stdout": "x\n", "exit_code": 2},
    {"stdout": "x\n", "crash": True}, {"stdout": Repeat(3 * LIMIT), "exit_code": 3},
], ids=repr)
def test_a_child_that_fails(start, engine, what):
    engine.script(Script().on_exec(STATEMENT, **what))
    server = start(env=engine.env)
    assert server.ask(call("f", "kova_list_tables")) == WORKER_FAILED
    engine.script(Script())
    assert b'"id":"g"' in server.ask(call("g", "kova_list_tables"))


@pytest.mark.parametrize("moment", ["FreeObject", "StopVantreo"])
@pytest.mark.parametrize("what", [{"crash": True}, {"exit_code": 9}], ids=["crash", "exit"])
def test_a_child_that_fails_behind_its_reply(start, engine, tmp_path, moment, what):
    engine.script(Script().on(moment, **what))
    server = start(env={**engine.env, "KOVA_MCP_AUDIT": tmp_path / "audit.log"})
    assert server.ask(call("f", "kova_list_tables")) == WORKER_FAILED
    assert [record["status"] for record in records(tmp_path / "audit.log")] == ["ok"]


def test_a_child_that_leaves_early_with_0_has_answered(start, engine):
    engine.script(Script().on("FreeObject", exit_code=0))
    reply = start(env=engine.env).ask(call("c", "kova_list_tables"))
    assert reply.startswith(b'{"jsonrpc":"2.0","id":"c","result":')


def expect_left_processes(engine, target, count: int) -> None:
    """They have been started, and on Linux, where they belong to nobody, still run and are ended.
    On Windows they end with the call's process."""
    left = [int(entry.arguments[0]) for entry in engine.calls() if entry.operation == "left"]
    assert len(left) == count
    for pid in left if not target.windows else []:
        os.kill(pid, signal.SIGKILL)


def test_a_process_that_a_call_leaves_behind_does_not_hold_its_reply(start, engine, target):
    """Although that process holds the call's standard output."""
    engine.script(Script().on_exec(STATEMENT, leave=True))
    server = start(env=engine.env)
    server.initialize()
    assert server.ask(call(1, "kova_list_tables")) == tool_success_reply("1", result_json())
    assert server.ask(ping(2)) == pong(2)
    engine.script(Script().on_exec(STATEMENT, leave=True, hang=True))
    server.send(call(3, "kova_list_tables"))
    engine.wait_for("left", 2)
    server.send(cancel(3))
    assert server.read_line() == cancelled_reply("3")
    assert server.ask(ping(4)) == pong(4)
    expect_left_processes(engine, target, 2)


def test_the_reply_waits_for_the_end_of_the_child(start, engine):
    engine.script(Script().on("StopVantreo", sleep=0.7))
    server = start(env=engine.env)
    server.send(call(1, "kova_list_tables"))
    engine.wait_for("StopVantreo")
    server.expect_silence(0.4)
    assert b'"result"' in server.read_line()
    assert server.workers() == []


def test_a_child_that_cannot_start(target, tmp_path):
    """The executable's folder has another name by then, too long for a child's command line."""
    folder = tmp_path / "own"
    executable = Installation(target, folder).executable("scripted", folder)
    server = Server(target, executable, [], {"KOVA_MCP_DEBUG": "1"}, tmp_path)
    try:
        server.initialize()
        folder.rename(tmp_path / ("d" * 200))
        assert server.ask(call(1, "kova_list_tables")) == WORKER_FAILED
        assert server.ask(ping(1)) == pong(1)
        server.finish()
        assert server.stderr_lines()[-1].endswith("request_id=1 cancelled=0 exit=1")
    finally:
        server.close()


@pytest.mark.parametrize("length, works", [(259, True), (260, False)])
def test_the_length_of_the_executable_s_path(target, installation, policy, tmp_path, length,
                                             works):
    missing = length - len(target.path(tmp_path / target.executable.name)) - 1
    assert missing > 0, "the folder for temporary files has too long a name"
    executable = installation.executable(folder=tmp_path / ("d" * missing))
    assert len(target.path(executable)) == length
    server = Server(target, executable, [], policy(), tmp_path)
    try:
        reply = server.ask(call(1, "kova_list_tables"))
        assert (b"ORDERS" in reply) if works else (reply == WORKER_FAILED)
    finally:
        server.close()


# one process per call


def test_every_call_has_a_process_and_a_session_of_its_own(start, engine):
    server = start(env=engine.env)
    for number in range(3):
        server.ask(call(number, "kova_list_tables"))
    started = [entry.pid for entry in engine.calls() if entry.operation == "StartVantreo"]
    stopped = [entry.pid for entry in engine.calls() if entry.operation == "StopVantreo"]
    assert len(set(started)) == 3 and started == stopped
    assert engine.queries() == [STATEMENT.encode()] * 3


def test_calls_follow_an_edited_policy(start, policy):
    env = policy()
    server = start(env=env)
    assert b'[["ORDERS"],["ITEMS"]]' in server.ask(call(1, "kova_list_tables"))
    policy.write(env["KOVA_MCP_POLICY"], json.dumps(policy.document(allowed_tables=["OTHER"])))
    assert b'[["OTHER"]]' in server.ask(call(2, "kova_list_tables"))
    policy.write(env["KOVA_MCP_POLICY"], "{}")
    assert b"MCP policy identity/version is invalid" in server.ask(call(3, "kova_list_tables"))
    server.initialize()
    assert b"kova_list_tables" in server.ask(request("tools/list", 4))


def test_the_child_s_streams(start, engine, target):
    """The child has three pipes and no other descriptor of the server."""
    engine.script(Script().on("CreateVantreoInstance", streams=True))
    gift, other = os.pipe()
    with open("/dev/null", "rb") as file:
        server = start(env=engine.env, pass_fds=[gift, other, file.fileno()])
        server.ask(call(1, "kova_list_tables"))
    os.close(gift)
    os.close(other)
    seen = next(entry for entry in engine.calls() if entry.operation == "streams")
    streams = seen.arguments[0].decode().split()
    if target.windows:
        assert [stream for stream in streams if stream.endswith(":pipe")] == streams[-3:]
        assert len(streams) <= 5  # Wine opens the current directory and a console device
    else:
        assert sorted(streams) == ["0:pipe", "1:pipe", "2:pipe"]


def test_no_process_is_left_between_calls(start, engine, policy, target):
    server = start(env={**engine.env, **policy()})
    for number in range(5):
        server.ask(call(number, "kova_list_tables"))
    engine.script(Script().on_exec("SELECT 1;", hang=True))
    server.send(call("h", "kova_query", {"sql": "SELECT 1"}))
    engine.wait_for_statement("SELECT 1;")
    assert len(server.workers()) == 1
    server.send(cancel("h"))
    assert server.read_line() == cancelled_reply('"h"')
    wait_until(lambda: server.processes() == [server.process.pid], 2, "the end of the worker")
    if not target.windows:
        assert server.zombies() == []


# the end


@pytest.mark.parametrize("feed", [b"\n", b""], ids=["line", "no line feed"])
def test_the_end_of_input_during_a_call(start, engine, feed):
    engine.script(Script().on_exec(STATEMENT, sleep=0.5))
    server = start(env=engine.env)
    server.send(call("last", "kova_list_tables")[:-1] + feed)
    result = server.finish()
    assert result.lines[0].startswith(b'{"jsonrpc":"2.0","id":"last","result":')
    assert (len(result.lines), result.code) == (1, 0)


def test_a_cancel_as_the_last_line(start, engine):
    engine.script(Script().on_exec(STATEMENT, hang=True))
    server = start(env=engine.env)
    server.send(call("last", "kova_list_tables"))
    engine.wait_for_statement(STATEMENT)
    server.send(cancel("last")[:-1])
    result = server.finish()
    assert (result.stdout, result.code) == (cancelled_reply('"last"'), 0)


def test_a_killed_server_takes_its_worker_along(start, engine):
    engine.script(Script().on_exec(STATEMENT, hang=True))
    server = start(env=engine.env)
    server.send(call(1, "kova_list_tables"))
    engine.wait_for_statement(STATEMENT)
    assert len(server.workers()) == 1
    server.kill()
    server.expect_no_process(2.0)


@pytest.mark.parametrize("delay", [0.0, 0.002, 0.005, 0.01, 0.02, 0.05])
def test_a_server_killed_while_its_worker_starts(start, engine, delay):
    engine.script(Script().on("CreateVantreoInstance", hang=True))
    server = start(env=engine.env)
    server.ask(ping(0))
    server.send(call(1, "kova_list_tables"))
    time.sleep(delay)
    server.kill()
    server.expect_no_process(2.0)


def test_a_client_that_goes_in_the_middle_of_a_call(start, engine):
    engine.script(Script().on_exec(STATEMENT, sleep=0.5))
    server = start(env=engine.env, unread=["stdout", "stderr"])
    server.send(call(1, "kova_list_tables"))
    engine.wait_for_statement(STATEMENT)
    server.close_input()
    assert server.wait() == 0
    server.expect_no_process(1.0)
    assert "StopVantreo" in engine.operations()


def test_a_client_that_does_not_listen(start, policy):
    """Replies without a reader are dropped; the server continues to the end of input."""
    server = start(env=policy(), unread=["stdout"])
    server.send(request("initialize", 1) + ping(2) + call(3, "kova_list_tables") + b"x\n")
    server.close_input()
    assert server.wait() == 0


# an id that the pre-scan does not read


HEAVY = '"' + "\\u0048" * 17 + '"'  # 104 characters that decode to 17


def heavy_call(tool: str, raw_id: str = HEAVY) -> bytes:
    return (f'{{"jsonrpc":"2.0","id":{raw_id},"method":"tools/call",'
            f'"params":{{"name":"{tool}"}}}}\n').encode()


def test_a_call_with_a_heavy_id_runs_in_the_server_itself(start, engine):
    server = start(env={**engine.env, "KOVA_MCP_DEBUG": "1"})
    assert server.ask(heavy_call("kova_list_tables")) == error_reply(
        f'"{"H" * 17}"', -32002, "server is not initialized")
    server.initialize()
    assert server.ask(heavy_call("kova_list_tables")) == error_reply(
        f'"{"H" * 17}"', -32600, BAD_ID)
    for letter in ("I", "J"):
        raw_id = HEAVY.replace("\\u0048", f"\\u{ord(letter):04x}")
        reply = server.ask(heavy_call("kova_list_tables", raw_id))
        assert reply.startswith(f'{{"jsonrpc":"2.0","id":"{letter * 17}","result":'.encode())
    # Both use one database session, which stays open until the end of input.
    assert engine.operations().count("StartVantreo") == 1
    assert engine.queries() == [STATEMENT.encode()] * 2
    assert "FreeObject" not in engine.operations()
    # A worker opens another database session.
    server.ask(call("w", "kova_list_tables"))
    assert engine.operations().count("StartVantreo") == 2
    assert engine.operations().count("StopVantreo") == 1
    result = server.finish()
    assert engine.operations()[-2:] == ["FreeObject", "StopVantreo"]
    assert engine.operations().count("StopVantreo") == 2
    assert result.stderr.count(b"MCP_TRACE") == 2


def test_a_heavy_call_cannot_be_cancelled(start, engine):
    engine.script(Script().on_exec(STATEMENT, sleep=0.3))
    server = start(env=engine.env)
    server.initialize()
    server.send(heavy_call("kova_list_tables") + cancel("H" * 17) + cancel("invalid") + ping(1))
    assert b'"isError":false' in server.read_line()
    assert server.read_line() == pong(1)
