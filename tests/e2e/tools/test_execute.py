"""kova_execute: what it takes, when it asks for an approval, and what runs."""

from __future__ import annotations

import json

import pytest

from harness.approval_tokens import SECRET, digest_of, token_for
from harness.messages import cancel, cancelled_reply
from harness.scripted_library import Script
from harness.tool_calls import ABSENT, UNKNOWN_TOOL, arguments, result_json
from harness.waiting import wait_until
from harness.write_calls import (BAD_ARGUMENTS, COMMENT, EXPIRED, FIELDS, INVALID, NOT_ALLOWED,
                                 NO_WRITE, PROHIBITED, SECOND_STATEMENT, SIZE, SPENT, TOOL,
                                 UNCLASSIFIED, UNTERMINATED, WRITES, Writes, accepted,
                                 asks_for_approval, ran, refused, token_refused)

SPELLING = "  insert   into   orders (id, note) values (1, 'a  B')  ;  "
CANONICAL = "INSERT INTO ORDERS (ID, NOTE) VALUES (1, 'a  B');"
DELETE = "DELETE FROM T;"


@pytest.fixture
def open_writes(served: Writes) -> Writes:
    return served.open()


@pytest.fixture
def writes(served: Writes) -> Writes:
    return served.guarded()


@pytest.mark.parametrize("sql, kind, table, canonical", [
    (SPELLING, "INSERT", "ORDERS", CANONICAL),
    ("update t set a=1 where b = 'x'", "UPDATE", "T", "UPDATE T SET A=1 WHERE B = 'x';"),
    ("delete from t", "DELETE", "T", DELETE),
    (DELETE, "DELETE", "T", DELETE),
])
def test_an_approval_is_asked_for(writes, sql, kind, table, canonical):
    asks_for_approval(writes(sql), kind, table, canonical)
    assert writes.markers() == set()
    assert writes.engine.calls() == []


@pytest.mark.parametrize("raw_id", ["7", '"a\\"b"', "-1.5e3"])
def test_the_answer_carries_the_id(writes, raw_id):
    outcome = writes("delete from t", raw_id=raw_id)
    assert outcome.reply.startswith(b'{"jsonrpc":"2.0","id":%s,"result":' % raw_id.encode())
    assert b'"operation_digest":"%s"' % digest_of(DELETE).encode() in outcome.reply


def test_the_answer_carries_the_policy(served):
    served.guarded(name="N" * 63, approval_ttl_seconds=30)
    asks_for_approval(served(DELETE), "DELETE", "T", DELETE, policy="N" * 63, ttl=30)
    served.guarded(name="w", approval_ttl_seconds=900)
    asks_for_approval(served(DELETE), "DELETE", "T", DELETE, policy="w", ttl=900)


def test_asking_twice_keeps_nothing(writes):
    first, second = writes(DELETE, raw_id='"a"'), writes(DELETE, raw_id='"a2"')
    assert first.reply.replace(b'"a"', b'"a2"') == second.reply


def test_the_round_of_one_write(writes, run, policy):
    asks_for_approval(writes(SPELLING), "INSERT", "ORDERS", CANONICAL)
    operator = policy(**WRITES, approval_required=True, approval_state_directory=writes.state)
    issued = run("--issue-approval", stdin=digest_of(CANONICAL).encode() + b"\n",
                 env={**operator, "KOVA_MCP_APPROVAL_SECRET": SECRET})
    token = issued.lines[0].decode()
    accepted(writes(SPELLING, token), CANONICAL, table="ORDERS")
    assert writes.markers() == {token.split(".")[2] + ".used"}
    token_refused(writes(SPELLING, token), SPENT, table="ORDERS")


@pytest.mark.parametrize("repeated", [CANONICAL, SPELLING, SPELLING.strip(" ;").replace("o", "O"),
                                      "\tINSERT\nINTO\r\nORDERS\v(ID,\fNOTE) VALUES (1, 'a  B')"])
def test_the_repeated_write_may_be_spelled_otherwise(writes, repeated):
    accepted(writes(repeated, token_for(CANONICAL).text), CANONICAL, table="ORDERS")


@pytest.mark.parametrize("altered, table", [
    ("INSERT INTO ORDERS (ID, NOTE) VALUES (1, 'a B')", "ORDERS"),
    ("INSERT INTO ORDERS (ID, NOTE) VALUES (1, 'A  B')", "ORDERS"),
    ("INSERT INTO ORDERS (ID, NOTE) VALUES (2, 'a  B')", "ORDERS"),
    ("INSERT INTO ORDERS (ID,NOTE) VALUES (1, 'a  B')", "ORDERS"),
    ("INSERT INTO T (ID, NOTE) VALUES (1, 'a  B')", "T"),
    (DELETE, "T"),
])
def test_an_altered_write(writes, altered, table):
    token = token_for(CANONICAL).text
    token_refused(writes(altered, token), FIELDS, table=table)
    assert writes.markers() == set()
    accepted(writes(CANONICAL, token), CANONICAL, table="ORDERS")


def test_a_write_that_fails_has_spent_its_token(writes):
    token = token_for(DELETE).text
    writes.calls.script(Script().on_exec(DELETE, result=0, status="table is locked"))
    writes(DELETE, token).is_error("table is locked", decision="approval_accepted", objects="T",
                                   statements=[DELETE])
    token_refused(writes(DELETE, token), SPENT)


def test_a_failure_without_words(writes):
    writes.calls.script(Script().on_exec(DELETE, result=-1, status=None))
    writes(DELETE, token_for(DELETE).text).is_error(
        "database statement failed", decision="approval_accepted", objects="T",
        statements=[DELETE])


def test_a_write_returns_one_row_at_most(open_writes):
    script = Script().on_exec(DELETE, status="3 rows deleted", columns=["ID"],
                              rows=[["1"], ["2"], ["3"]])
    open_writes.calls.script(script)
    result = result_json(["ID"], [["1"]], status="3 rows deleted", truncated=True)
    open_writes("delete from t").is_success(result, objects="T", statements=[DELETE])
    open_writes.guarded().calls.script(script)
    accepted(open_writes("delete from t", token_for(DELETE).text), DELETE, result=result)


def test_a_cancelled_write_has_spent_its_token(writes):
    token = token_for(DELETE)
    writes.calls.script(Script().on_exec(DELETE, sleep=60))
    writes.engine.clear()
    server = writes.calls.server
    server.send(b'{"jsonrpc":"2.0","id":"long","method":"tools/call","params":%s}\n'
                % arguments(TOOL, json.dumps({"sql": DELETE, "approval_token": token.text})))
    writes.engine.wait_for_statement(DELETE)
    server.send(cancel("long"))
    assert server.read_line() == cancelled_reply('"long"')
    wait_until(lambda: not server.workers(), 20, "the end of the worker")
    writes.calls.script(Script())
    token_refused(writes(DELETE, token.text), SPENT)


@pytest.mark.parametrize("token", [None, 7, True, [], {}, "", "x", "x" * 255, "x" * 256,
                                   "x" * 5000], ids=lambda token: repr(token)[:12])
def test_no_token_is_looked_at_without_the_need_for_one(open_writes, token):
    ran(open_writes("delete from t", token), DELETE)
    assert open_writes.markers() == set()


def test_a_good_token_is_not_spent_without_the_need_for_one(served):
    token = token_for(DELETE).text
    ran(served.guarded(approval_required=False)(DELETE, token), DELETE)
    assert served.markers() == set()
    accepted(served.open(approval_required=True)(DELETE, token), DELETE)


@pytest.mark.parametrize("token, message", [
    ("null", INVALID), ("7", INVALID), ("true", INVALID), ("[]", INVALID), ("{}", INVALID),
    ('"%s"' % ("x" * 256), INVALID), ('"%s"' % ("." * 256), INVALID),
    ('"%s"' % ("\u00e9" * 128), INVALID), ('"%s"' % ("\\u00e9" * 128), INVALID),
    ('"\\ud800"', INVALID), ('"\\udc00"', INVALID), ('"x\\u0000%s"' % ("x" * 254), INVALID),
    ('""', FIELDS), ('"x"', FIELDS), ('"%s"' % ("x" * 255), FIELDS), ('"%s"' % ("." * 255), FIELDS),
    ('"%s"' % ("\\u0078" * 255), FIELDS),
], ids=lambda value: value[:16])
def test_a_token_of_the_wrong_shape(writes, token, message):
    outcome = writes.calls.raw(arguments(TOOL, '{"sql":"%s","approval_token":%s}'
                                         % (DELETE, token)), tool=TOOL)
    token_refused(outcome, message)
    assert writes.markers() == set()


def test_a_token_under_an_escaped_key_is_none(writes):
    outcome = writes.calls.raw(arguments(TOOL, '{"sql":"%s","approval_toke\\u006e":"%s"}'
                                         % (DELETE, token_for(DELETE).text)), tool=TOOL)
    asks_for_approval(outcome, "DELETE", "T", DELETE)


@pytest.mark.parametrize("members", [
    '{}', '[]', '"DELETE FROM T"', 'null', '{"sql":null}', '{"sql":7}', '{"sql":["DELETE FROM T"]}',
    '{"sql":"DELETE FROM T","dry_run":true}', '{"sql":"DELETE FROM T","SQL":"x"}',
    '{"sql":"DELETE FROM T","max_rows":1}', '{"sql":"DELETE FROM T","":1}',
    '{"sql":"DELETE FROM T","%s":1}' % ("k" * 64), '{"sql":"DELETE FROM T","approval-token":"x"}',
    '{"sq\\u006c":"DELETE FROM T"}', '{"approval_token":"x"}', '{"_meta":{}}',
    '{"sql":"DELETE FROM T\\ud800"}', '{"sql":"%s"}' % "x".ljust(32769),
    '{"sql":"%s"}' % ("DELETE FROM T;".ljust(32768) + "\\n"),
], ids=lambda members: members[:40])
def test_arguments_that_are_refused(writes, members):
    refused(writes.calls.raw(arguments(TOOL, members), tool=TOOL), BAD_ARGUMENTS)


def test_no_arguments_at_all(writes):
    refused(writes.calls(TOOL), BAD_ARGUMENTS)


def test_meta_is_tolerated(writes):
    text = '{"_meta":{"sql":"x"},"sql":"delete from t"}'
    asks_for_approval(writes.calls.raw(arguments(TOOL, text), tool=TOOL), "DELETE", "T", DELETE)


MESSAGES = [
    ("", SIZE),
    ("DELETE FROM T -- all", COMMENT),
    ("UPDATE t SET a = 1; UPDATE t SET a = 2", SECOND_STATEMENT),
    ("UPDATE T SET A = 'x", UNTERMINATED),
    ("DELETE", UNCLASSIFIED),
    ("DELETE t WHERE a = 1", NO_WRITE),
    ("DELETE FROM ITEMS", NOT_ALLOWED),
    ("INSERT INTO t SELECT * FROM load", PROHIBITED),
]


@pytest.mark.parametrize("sql, message", MESSAGES, ids=lambda text: text[:30])
def test_the_messages_of_the_classifier(open_writes, sql, message):
    refused(open_writes(sql), message)


@pytest.mark.parametrize("sql, message", MESSAGES, ids=lambda text: text[:30])
@pytest.mark.parametrize("token", [None, "x"], ids=repr)
def test_the_classifier_comes_before_the_token(writes, sql, message, token):
    refused(writes(sql, token), message)


@pytest.mark.parametrize("types, message", [
    (["INSERT"], NOT_ALLOWED), (["update"], NOT_ALLOWED), (["Delete"], None),
    (["INSERT", "UPDATE"], NOT_ALLOWED), (["DELETE", "INSERT"], None),
], ids=str)
def test_the_types_of_the_policy(served, types, message):
    outcome = served.open(write_types=types)(DELETE)
    if message is None:
        ran(outcome, DELETE)
    else:
        refused(outcome, message)


def test_the_tables_of_the_policy_ignore_case(served):
    ran(served.open(write_tables=["oRdErS"])(CANONICAL), CANONICAL, table="ORDERS")
    refused(served.open(write_tables=["ORDER", "RDERS", "ORDERS_"])(CANONICAL), NOT_ALLOWED)


def test_reading_a_table_does_not_allow_writing_it(served):
    served.open(allowed_tables=["ITEMS"], write_tables=["T"])
    refused(served("DELETE FROM ITEMS"), NOT_ALLOWED)
    ran(served(DELETE), DELETE)


OFF = [{"writes_enabled": False}, {"write_types": []}, {"write_tables": []},
       {"writes_enabled": False, "reads_enabled": False}]


@pytest.mark.parametrize("off", OFF, ids=lambda off: ",".join(off))
@pytest.mark.parametrize("approval", [False, True], ids=["open", "guarded"])
def test_writes_that_the_policy_has_off(served, off, approval):
    served.guarded(approval_required=approval, **off)
    served(DELETE, token_for(DELETE).text).is_refused(UNKNOWN_TOOL)
    served.calls(TOOL).is_refused(UNKNOWN_TOOL)
    served.calls(TOOL, {"sql": 7, "dry_run": True}).is_refused(UNKNOWN_TOOL)
    assert served.markers() == set()


def test_no_writes_without_a_policy(servers, engine, tmp_path):
    writes = Writes(servers, engine, tmp_path, env={"KOVA_MCP_POLICY": None})
    writes(DELETE).is_refused(UNKNOWN_TOOL)


@pytest.mark.parametrize("value, works", [("1", False), ("TRUE", False), ("on", False),
                                          ("0", True), ("enable", True), ("", True)], ids=str)
def test_the_kill_switch(servers, engine, tmp_path, value, works):
    writes = Writes(servers, engine, tmp_path, env={"KOVA_MCP_DISABLE_WRITES": value}).guarded()
    token = token_for(DELETE).text
    if works:
        accepted(writes(DELETE, token), DELETE)
        return
    writes(DELETE, token).is_refused(UNKNOWN_TOOL)
    writes.open()(DELETE).is_refused(UNKNOWN_TOOL)
    assert writes.markers() == set()


def test_the_frame_comes_first(served):
    bad = "tools/call params are invalid or contain unknown fields"
    for off in (False, True):
        served.open(writes_enabled=not off)
        served.calls.raw('{"name":"kova_execute","arguments":{},"x":1}').is_refused(bad)
        served.calls.raw("[]").is_refused(bad)
        served.open(writes_enabled=not off, approval_ttl_seconds=29)
        served(DELETE).is_error("approval TTL must be 30..900 seconds", decision="deny")


def test_a_policy_whose_state_folder_is_gone(served):
    served.guarded(approval_state_directory=served.state / "none")
    served(DELETE, token_for(DELETE).text).is_error("approval state directory does not exist",
                                                    decision="deny")


def test_writes_work_with_reads_off(served):
    ran(served.open(reads_enabled=False)(DELETE), DELETE)
    served.calls("kova_query", {"sql": "SELECT A FROM ORDERS"}).is_error(
        "read tools are disabled by policy", decision="deny")


@pytest.mark.parametrize("name", ["kova_Execute", "KOVA_EXECUTE", "kova_execute ", "execute"])
def test_the_name_is_exact(open_writes, name):
    open_writes.calls(name, {"sql": DELETE}).is_refused(UNKNOWN_TOOL)


@pytest.mark.parametrize("presented, message", [
    ({"digest": "0" * 64, "expiry": "1", "signature": "0" * 64}, FIELDS),
    ({"expiry": "1", "signature": "0" * 64}, EXPIRED),
], ids=["fields", "time"])
def test_fields_and_time_come_before_the_signature(writes, presented, message):
    token_refused(writes(DELETE, token_for(DELETE).joined(**presented)), message)


def test_a_token_for_nobody_is_no_token(writes):
    """An absent token differs from a null one."""
    asks_for_approval(writes(DELETE, ABSENT), "DELETE", "T", DELETE)
    token_refused(writes(DELETE, None), INVALID)
