"""kova_query: its arguments, the statement that it sends, and the bound of its rows."""

from __future__ import annotations

import pytest

from harness.scripted_library import Script
from harness.tool_calls import ABSENT, ToolCalls, arguments, result_json

REFUSED = ("sql must be one bounded read-only SELECT; unknown fields are rejected; "
           "max_rows must be 1..256")
TOO_LONG = "sql size limit exceeded"
LIMIT = 32768


def query(tools: ToolCalls, sql: str, **members):
    return tools("kova_query", {"sql": sql, **members})


def query_raw(tools: ToolCalls, members: str):
    return tools.raw(arguments("kova_query", members), tool="kova_query")


@pytest.mark.parametrize("members", [
    None, "null", "[]", '"SELECT 1"', "7", "{}", '{"max_rows":1}', '{"sql":null}', '{"sql":7}',
    '{"sql":["SELECT 1"]}', '{"sql":""}', '{"sql":"   "}', '{"sql":"\\ud800"}',
    '{"SQL":"SELECT 1"}', '{"s\\u0071l":"SELECT 1"}', '{"sql":"\\u0000SELECT 1"}',
    '{"sql":"SELECT 1","x":1}', '{"sql":"SELECT 1","Max_rows":1}',
    '{"sql":"SELECT 1","approval_token":""}', '{"sql":"SELECT 1","' + "k" * 64 + '":1}',
], ids=lambda members: repr(members)[:50])
def test_arguments_that_are_refused(tools, members):
    if members is None:
        outcome = tools("kova_query", ABSENT)
    else:
        outcome = query_raw(tools, members)
    outcome.is_error(REFUSED)


@pytest.mark.parametrize("max_rows", [
    "0", "257", "-1", "-0", '"5"', "5.0", "1e2", "1E0", "null", "true", "[]", "[5]", "{}", '""',
    "4294967297", "18446744073709551617", "1" + "0" * 30, "1" + "0" * 31])
def test_bounds_that_are_refused(tools, max_rows):
    query_raw(tools, '{"sql":"SELECT 1","max_rows":%s}' % max_rows).is_error(REFUSED)


@pytest.mark.parametrize("members, listed", [
    ({}, 100), ({"max_rows": 1}, 1), ({"max_rows": 2}, 2), ({"max_rows": 256}, 256),
    ({"_meta": {"max_rows": 7}}, 100)], ids=str)
def test_the_bound_of_the_rows(tools, members, listed):
    tools.script(Script().on_exec("SELECT N FROM ITEMS;", columns=["N"], repeat=[(300, ["x"])]))
    query(tools, "SELECT N FROM ITEMS", **members).is_success(
        result_json(["N"], [["x"]] * listed, truncated=True), objects="policy-select",
        statements=["SELECT N FROM ITEMS;"])
    assert tools.engine.operations().count("Next") == listed


@pytest.mark.parametrize("rows, truncated", [(0, False), (2, False), (3, True), (4, True)])
def test_truncated_is_decided_by_the_count(tools, rows, truncated):
    tools.script(Script().on_exec("SELECT 1;", columns=["N"], repeat=[(rows, ["x"])]))
    query(tools, "SELECT 1", max_rows=3).is_success(
        result_json(["N"], [["x"]] * min(rows, 3), truncated=truncated), objects="policy-select",
        statements=["SELECT 1;"])


def test_an_escaped_bound_is_none(tools):
    """It is allowed and not found."""
    tools.script(Script().on_exec("SELECT 1;", columns=["N"], repeat=[(101, ["x"])]))
    query_raw(tools, '{"sql":"SELECT 1","max\\u005frows":2}').is_success(
        result_json(["N"], [["x"]] * 100, truncated=True), objects="policy-select",
        statements=["SELECT 1;"])


@pytest.mark.parametrize("sql, sent", [
    ("select * from items", "select * from items;"),
    ("select 1;  ", "select 1;  "),
    ("select 1;", "select 1;"),
    ("select 1  ", "select 1;"),
    ("select 1 \t\n\v\f\r", "select 1;"),
    ("select 1 ;\n\v ", "select 1 ;\n\v "),
    ("  \n select 1", "  \n select 1;"),
    ("select 1\u00a0", "select 1\u00a0;"),
    ("select 1\x01", "select 1\x01;"),
    ("select ';'", "select ';';"),
    ("select 'é\\n\t\"' from Items", "select 'é\\n\t\"' from Items;"),
    ("select 1\x00; drop table items", "select 1;"),
], ids=repr)
def test_the_terminator(tools, sql, sent):
    query(tools, sql).is_success(result_json(), objects="policy-select", statements=[sent])


def padded(end: str, length: int = LIMIT) -> str:
    """A SELECT of exactly this number of bytes."""
    return "SELECT '" + "x" * (length - 9 - len(end)) + "'" + end


@pytest.mark.parametrize("sql, sent", [
    (padded(";"), padded(";")),
    (padded("", LIMIT - 1), padded(";")),
    (padded(" "), padded(";")),
    (padded(";\n"), padded(";\n")),
    ("SELECT" + " " * (LIMIT - 7) + "1", None),
    (padded(""), None),
], ids=["whole", "one less", "a blank at the end", "white space at the end", "blanks within",
        "no room for the terminator"])
def test_texts_of_the_longest_size(tools, sql, sent):
    outcome = query(tools, sql)
    if sent is None:
        outcome.is_error(TOO_LONG, objects="policy-select")
    else:
        assert len(sent) == LIMIT
        outcome.is_success(result_json(), objects="policy-select", statements=[sent])


@pytest.mark.parametrize("sql", [
    padded(";", LIMIT + 1), padded("", LIMIT + 1), "SELECT 1" + " " * (LIMIT - 7),
    "SELECT '" + "é" * ((LIMIT - 8) // 2) + "';"],
    ids=["one more", "one more without a terminator", "blanks", "two-byte characters"])
def test_texts_that_are_too_long(tools, sql):
    assert len(sql.encode()) > LIMIT
    query(tools, sql).is_error(REFUSED)


def test_the_size_counts_decoded_bytes(tools):
    text = "SELECT '" + "A" * (LIMIT - 10) + "';"
    escaped = "SELECT '" + "\\u0041" * (LIMIT - 10) + "';"
    query_raw(tools, '{"sql":"%s"}' % escaped).is_success(
        result_json(), objects="policy-select", statements=[text])


@pytest.mark.parametrize("sql, message, objects", [
    # Order: the quick screen, the policy's rules, the size.
    ("SELECT a FROM HIDDEN; DROP TABLE ITEMS", REFUSED, ""),
    ("SELECT a FROM HIDDEN -- x", REFUSED, ""),
    ("SELECT a FROM HIDDEN", "table is not allowed by MCP policy", ""),
    (padded(" FROM HIDDEN"), "table is not allowed by MCP policy", ""),
    (padded(" FROM ITEMS"), TOO_LONG, "policy-select"),
], ids=lambda value: value[:40])
def test_the_order_of_the_checks(tools, sql, message, objects):
    query(tools, sql).is_error(message, objects=objects)


def test_the_bound_comes_before_the_text(tools):
    """Both faults have the same message, which tells nothing of the policy."""
    query(tools, "SELECT a FROM HIDDEN", max_rows=0).is_error(REFUSED)


@pytest.mark.parametrize("status, words", [
    ("no such column: A", "no such column: A"), (None, "database statement failed"),
    ("", "database statement failed")])
def test_a_statement_that_the_database_refuses(tools, status, words):
    tools.script(Script().on_exec("SELECT A FROM ITEMS;", result=0, status=status))
    query(tools, "SELECT A FROM ITEMS").is_error(words, objects="policy-select",
                                                 statements=["SELECT A FROM ITEMS;"])


def test_a_result_in_full(tools):
    tools.script(Script().on_exec(
        "SELECT ID, TITLE FROM ITEMS;", status="2 rows", columns=["ID", "TITLE"],
        rows=[["1", "one"], ["2", 'say "é"']]))
    result = ('{"status":"2 rows","columns":["ID","TITLE"],"rows":[["1","one"],'
              '["2","say \\"é\\""]],"rowCount":2,"truncated":false}')
    query(tools, "SELECT ID, TITLE FROM ITEMS").is_success(
        result, objects="policy-select", statements=["SELECT ID, TITLE FROM ITEMS;"])
