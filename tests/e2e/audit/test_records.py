"""The audit file: what is recorded, how texts are cleaned, and that no failure reaches a reply.

The records of the single tools stand with their tests; every outcome there is held against one.
"""

from __future__ import annotations

import json
import os
import re
import stat
from pathlib import Path
from typing import Any

import pytest

from harness import audit_files
from harness.messages import (WORKER_FAILED, call, line, notification, ping, pong, request,
                              tool_error_reply, tool_success_reply)
from harness.scripted_library import Script
from harness.targets import Target
from harness.tool_calls import filtered, result_json
from harness.waiting import TIMEOUT, wait_until

READS_OFF = "read tools are disabled by policy"
LISTED = filtered(["ORDERS", "ITEMS"])

RECORD = re.compile(
    rb'\{"timestamp":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z","correlation_id":"c1",'
    rb'"client_identity":"desk-client","database_identity":"SALES","tool":"kova_list_tables",'
    rb'"policy":"sales_read","policy_decision":"allow","objects":"table-catalog",'
    rb'"duration_ms":\d+,"rows":2,"bytes":(\d+),"status":"ok","error_class":"none"\}\r\n')


def recorded(run, env) -> dict[str, Any]:
    """The record of one call of kova_list_databases that ends in a tool result."""
    assert run("--tool-worker", stdin=call("c1", "kova_list_databases"), env=env).code == 0
    [record] = audit_files.records(Path(env["KOVA_MCP_AUDIT"]))
    return record


def test_the_bytes_of_a_record(run, policy, tmp_path):
    audit = tmp_path / "audit"
    reply = run("--tool-worker", stdin=call("c1", "kova_list_tables"),
                env={**policy(), "KOVA_MCP_AUDIT": audit}).stdout
    assert reply == tool_success_reply('"c1"', LISTED)
    found = RECORD.fullmatch(audit.read_bytes())
    assert found is not None and int(found[1]) == len(LISTED)


@pytest.mark.parametrize("path", [None, ""])
def test_without_a_path_there_is_no_file(run, policy, tmp_path, path):
    before = set(tmp_path.rglob("*"))
    env = {**policy(), "KOVA_MCP_AUDIT": path}
    assert run(stdin=call(1, "kova_list_tables"), env=env).stdout == tool_success_reply("1", LISTED)
    assert {found.name for found in set(tmp_path.rglob("*")) - before} == {"policy-1.json"}


def of_length(folder: Path, target: Target, length: int) -> Path:
    path = folder
    while len(target.path(path)) < length - 100:
        path = path / ("d" * 60)
    path.mkdir(parents=True, exist_ok=True)
    path = path / ("a" * (length - len(target.path(path)) - 1))
    assert len(target.path(path)) == length
    return path


@pytest.mark.parametrize("length, written", [(259, True), (260, False), (300, False)])
def test_the_length_of_the_path(run, target, policy, tmp_path, length, written):
    audit = of_length(tmp_path, target, length)
    env = {**policy(), "KOVA_MCP_AUDIT": audit}
    assert run(stdin=call(1, "kova_list_tables"), env=env).stdout == tool_success_reply("1", LISTED)
    assert audit.exists() == written


def test_a_relative_path_is_below_the_current_directory(run, policy, tmp_path):
    env = {**policy(), "KOVA_MCP_AUDIT": "audit here"}
    run(stdin=call(1, "kova_list_tables"), env=env)
    assert len(audit_files.records(tmp_path / "audit here")) == 1


def test_records_are_appended(run, policy, tmp_path):
    """Records are appended after anything that the file already contains."""
    audit = tmp_path / "audit"
    audit.write_bytes(b"old line\r\n")
    env = {**policy(), "KOVA_MCP_AUDIT": audit}
    for number in (1, 2):
        run(stdin=call(number, "kova_list_tables"), env=env)
    lines = audit.read_bytes().split(b"\r\n")
    assert lines[0] == b"old line" and lines[-1] == b""
    assert [json.loads(text)["correlation_id"] for text in lines[1:-1]] == ["1", "2"]


def test_the_file_may_be_moved_and_removed_between_calls(start, policy, tmp_path):
    audit = tmp_path / "audit"
    server = start(env={**policy(), "KOVA_MCP_AUDIT": audit})
    for number in range(3):
        server.ask(call(number, "kova_list_tables"))
        assert [record["correlation_id"] for record in audit_files.records(audit)] == [str(number)]
        if number == 0:
            audit.rename(tmp_path / "audit.1")
        else:
            audit.unlink()


def test_only_the_owner_may_read_a_new_file(run, target, policy, tmp_path):
    audit = tmp_path / "audit"
    run(stdin=call(1, "kova_list_tables"), env={**policy(), "KOVA_MCP_AUDIT": audit})
    os.umask(umask := os.umask(0))
    # On Windows a file inherits its permissions from its folder; Wine takes the umask.
    expected = 0o666 & ~umask if target.windows else 0o600
    assert stat.S_IMODE(audit.stat().st_mode) == expected


@pytest.mark.parametrize("changes, expected", [
    ({"KOVA_MCP_CLIENT_ID": None}, {"client_identity": "unconfigured"}),
    ({"KOVA_MCP_CLIENT_ID": ""}, {"client_identity": "unconfigured"}),
    ({"KOVA_MCP_DATABASE": None}, {"database_identity": "default"}),
    ({"KOVA_MCP_DATABASE": ""}, {"database_identity": "default"}),
    ({"KOVA_MCP_CLIENT_ID": 'a"b\\c'}, {"client_identity": 'a"b\\c'}),
    ({"KOVA_MCP_CLIENT_ID": "aéb"}, {"client_identity": "a__b"}),
    ({"KOVA_MCP_CLIENT_ID": "\U0001f600\t\x7f~ "}, {"client_identity": "______~ "}),
    ({"KOVA_MCP_CLIENT_ID": "c" * 126}, {"client_identity": "c" * 126}),
    ({"KOVA_MCP_CLIENT_ID": "c" * 127}, {"client_identity": "c" * 126}),
    ({"KOVA_MCP_CLIENT_ID": "c" * 125 + '""'}, {"client_identity": "c" * 125 + '"'}),
    ({"KOVA_MCP_CLIENT_ID": "c" * 126 + '"'}, {"client_identity": "c" * 126}),
    ({"KOVA_MCP_DATABASE": "d" * 95}, {"database_identity": "d" * 94}),
    ({"KOVA_MCP_DATABASE": "d" * 93 + "\\\\"}, {"database_identity": "d" * 93 + "\\"}),
    ({"KOVA_MCP_DATABASE": "é" * 60}, {"database_identity": "_" * 94}),
], ids=lambda value: str(value)[:50])
def test_identities(run, tmp_path, changes, expected):
    """Without a policy. The call fails because there is no profile, and is recorded."""
    env = {"KOVA_MCP_CLIENT_ID": "desk-client", "KOVA_MCP_DATABASE": "SALES",
           "KOVA_MCP_AUDIT": tmp_path / "audit", **changes}
    record = recorded(run, env)
    del record["timestamp"], record["duration_ms"]
    assert record == {
        "correlation_id": "c1", "client_identity": "desk-client", "database_identity": "SALES",
        "tool": "kova_list_databases", "policy": "m8-read-only", "policy_decision": "allow",
        "objects": "database-catalog", "rows": 0, "bytes": 0, "status": "error",
        "error_class": "tool_error", **expected}


@pytest.mark.parametrize("tool, expected", [
    ("t" * 128, "t" * 128), ('"' * 79, '"' * 79), ('"' * 80, '"' * 79),
    ("x" + '"' * 80, "x" + '"' * 79), ("x" * 30 + '"' * 65, "x" * 30 + '"' * 64),
    ("x" * 31 + '"' * 65, "x" * 31 + '"' * 64), ("x" * 32 + '"' * 65, "x" * 32 + '"' * 63),
    ("é\n\\", "___\\"), ("a\x00b", "a")], ids=lambda value: repr(value)[:30])
def test_tool_names(tools, tool, expected):
    """With reads off every name is refused with a record. 158 characters fit, and one more when
    the last character is escaped."""
    tools.policy(reads_enabled=False)
    tools(tool).is_error(READS_OFF, decision="deny", tool=expected)


@pytest.mark.parametrize("text, expected", [
    ('"' * 63, '"' * 63), ('"' * 64, '"' * 63), ("x" + '"' * 94, "x" + '"' * 63),
    ("\\" * 95, "\\" * 63), ("x" * 95, "x" * 95)], ids=lambda value: value[:3] + str(len(value)))
def test_correlations(run, policy, tmp_path, text, expected):
    """126 characters fit, and one more when the last character is escaped."""
    audit = tmp_path / "audit"
    result = run("--tool-worker", stdin=call(text, "kova_list_tables"),
                 env={**policy(), "KOVA_MCP_AUDIT": audit})
    assert result.stdout == tool_success_reply(json.dumps(text), LISTED)
    assert audit_files.records(audit)[0]["correlation_id"] == expected


def test_the_longest_record_is_written(run, policy, tmp_path):
    """Each text at its limit. The launch identity does not match the policy."""
    audit = tmp_path / "audit"
    env = {**policy(name="n" * 63), "KOVA_MCP_AUDIT": audit,
           "KOVA_MCP_CLIENT_ID": "c" + '"' * 95, "KOVA_MCP_DATABASE": "d" + "\\" * 95}
    run("--tool-worker", stdin=call("i" + '"' * 94, "x" + '"' * 127), env=env)
    [record] = audit_files.records(audit)
    assert (record["correlation_id"], record["tool"]) == ("i" + '"' * 63, "x" + '"' * 79)
    assert record["client_identity"] == "c" + '"' * 63
    assert record["database_identity"] == "d" + "\\" * 47
    assert record["policy"] == "n" * 63


def test_what_is_not_recorded(tools):
    messages = [
        line({"jsonrpc": "2.0", "id": 1, "method": "tools/call", "params": {"name": "x", "y": 1}}),
        call(2, "nothing"), call(None, "kova_list_tables"), call("null", "kova_list_tables"),
        request("tools/list", 3), ping(4), b"x\n", b'{"jsonrpc":"1","id":5,"method":"ping"}\n']
    for message in messages:
        assert tools.message(message).records == []


def test_a_notification_calls_nothing(tools):
    tools.engine.clear()
    tools.audit.unlink(missing_ok=True)
    tools.server.send(notification("tools/call", {"name": "kova_list_tables"}))
    tools.server.send(notification("tools/call", {"name": "kova_describe_table",
                                                  "arguments": {"table": "ITEMS"}}))
    assert tools.server.ask(ping("still there")) == pong('"still there"')
    assert audit_files.records(tools.audit) == []
    assert tools.engine.calls() == []


def test_the_check_modes_record_nothing(run, policy, engine, tmp_path):
    audit = tmp_path / "audit"
    for mode in ("--check-policy", "--check-config"):
        assert run(mode, env={**engine.env, **policy(), "KOVA_MCP_AUDIT": audit}).code == 0
    assert not audit.exists()


def test_a_call_that_crashes_before_its_reply_leaves_no_record(tools):
    tools.script(Script().on_exec("describe ITEMS;", crash=True))
    outcome = tools("kova_describe_table", {"table": "ITEMS"})
    assert (outcome.reply, outcome.records) == (WORKER_FAILED, [])


@pytest.mark.parametrize("operation", ["FreeObject", "StopVantreo"])
def test_a_call_that_crashes_behind_its_reply_leaves_one(tools, operation):
    """The reply reports the failure; the record contains the result."""
    tools.script(Script().on(operation, crash=True))
    outcome = tools("kova_describe_table", {"table": "ITEMS"})
    assert outcome.reply == WORKER_FAILED
    outcome.has_record(policy_decision="allow", objects="ITEMS", rows=0, bytes=len(result_json()),
                       status="ok", error_class="none")


def test_the_duration_is_the_call_s(tools):
    tools.script(Script().on_exec("describe ITEMS;", sleep=0.3))
    outcome = tools("kova_describe_table", {"table": "ITEMS"})
    outcome.is_success(result_json(), objects="ITEMS", statements=["describe ITEMS;"])
    assert 280 <= outcome.records[0]["duration_ms"] < 5000


def test_no_failure_of_the_audit_reaches_a_reply(start, target, policy, tmp_path):
    (tmp_path / "directory").mkdir()
    (tmp_path / "file").write_bytes(b"x")
    no_name = target.path(tmp_path / "x") + ("\\" if target.windows else "/")
    paths = [tmp_path / "directory", tmp_path / "missing" / "audit", tmp_path / "file" / "audit",
             tmp_path / ("a" * 256), no_name]
    for path in paths:
        server = start(env={**policy(), "KOVA_MCP_AUDIT": path})
        assert server.ask(call(1, "kova_list_tables")) == tool_success_reply("1", LISTED)
        assert server.ask(call(2, "kova_describe_table")) == tool_error_reply(
            "2", "table is invalid or not allowed by MCP policy")
        result = server.finish()
        assert (len(result.lines), result.stderr, result.code) == (2, b"", 0)
    assert (tmp_path / "file").read_bytes() == b"x"


def test_a_reader_costs_no_record(start, target, policy, tmp_path):
    audit = tmp_path / "audit"
    server = start(env={**policy(), "KOVA_MCP_AUDIT": audit})
    server.ask(call(1, "kova_list_tables"))
    with open(audit, "rb") as reader:
        assert reader.read().count(b"\r\n") == 1
        server.ask(call(2, "kova_list_tables"))
        assert reader.read().count(b"\r\n") == 1
    assert len(audit_files.records(audit)) == 2


def test_records_of_several_servers_never_interleave(start, policy, tmp_path):
    audit = tmp_path / "audit"
    servers = [start(env={**policy(), "KOVA_MCP_AUDIT": audit}) for _ in range(3)]
    count = 8
    for server in servers:
        server.initialize()
    for number in range(count):
        for index, server in enumerate(servers):
            server.send(call(f"{index}-{number}", "kova_list_tables"))
        for index, server in enumerate(servers):
            expected = tool_success_reply(f'"{index}-{number}"', LISTED)
            assert server.read_line() == expected
    found = [record["correlation_id"] for record in audit_files.records(audit)]
    assert len(found) == count * len(servers)
    for index in range(len(servers)):
        mine = [text for text in found if text.startswith(f"{index}-")]
        assert mine == [f"{index}-{number}" for number in range(count)]
