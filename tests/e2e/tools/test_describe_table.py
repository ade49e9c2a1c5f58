"""kova_describe_table: the statement that it sends, and the tables that it refuses."""

from __future__ import annotations

import pytest

from harness.scripted_library import Script
from harness.tool_calls import arguments, result_json

TABLE = "table is invalid or not allowed by MCP policy"
NO_DESCRIPTION = "schema description is disabled when the policy denies columns"


@pytest.mark.parametrize("table", ["ORDERS", "orders", "Items"])
def test_a_description(tools, table):
    """The name is sent as the client writes it."""
    statement = f"describe {table};"
    tools.script(Script().on_exec(statement, columns=["FIELD"], rows=[["ID"], ["TITLE"]]))
    outcome = tools("kova_describe_table", {"table": table, "_meta": 1})
    outcome.is_success(result_json(["FIELD"], [["ID"], ["TITLE"]]), objects=table,
                       statements=[statement])


def test_a_description_is_bounded(tools):
    tools.script(Script().on_exec("describe ORDERS;", columns=["F"], repeat=[(257, ["x"])]))
    outcome = tools("kova_describe_table", {"table": "ORDERS"})
    outcome.is_success(result_json(["F"], [["x"]] * 256, truncated=True), objects="ORDERS",
                       statements=["describe ORDERS;"])


def test_a_description_that_the_database_refuses(tools):
    tools.script(Script().on_exec("describe ORDERS;", result=-1, status=None))
    tools("kova_describe_table", {"table": "ORDERS"}).is_error(
        "database statement failed", objects="ORDERS", statements=["describe ORDERS;"])


@pytest.mark.parametrize("members", [
    None, "null", "[]", '"ORDERS"', "{}", '{"_meta":{}}', '{"Table":"ORDERS"}',
    '{"table":null}', '{"table":7}', '{"table":true}', '{"table":["ORDERS"]}',
    '{"table":"ORDERS","x":1}', '{"table":"ORDERS","max_rows":1}',
    '{"table":""}', '{"table":"HIDDEN"}', '{"table":"ORDER"}', '{"table":"ORDERS "}',
    '{"table":" ORDERS"}', '{"table":"ORDERS;"}', '{"table":"ORDERS; DROP TABLE ORDERS"}',
    '{"table":"ORDERS-"}', '{"table":"S.ORDERS"}', '{"table":"\\"ORDERS\\""}',
    '{"table":"ORDERS\\n"}', '{"table":"ÖRDERS"}', '{"table":"\\ud800"}',
    '{"table":"' + "T" * 64 + '"}',
    '{"table":"' + "T" * 32768 + '"}', '{"table":"' + "T" * 32769 + '"}',
    '{"t\\u0061ble":"ORDERS"}',
], ids=lambda members: repr(members)[:50])
def test_tables_that_are_refused(tools, members):
    if members is None:
        outcome = tools("kova_describe_table")
    else:
        outcome = tools.raw(arguments("kova_describe_table", members), tool="kova_describe_table")
    outcome.is_error(TABLE, decision="deny")


def test_a_name_ends_at_an_escaped_nul(tools):
    outcome = tools.raw(arguments("kova_describe_table", '{"table":"ORDERS\\u0000; x"}'),
                        tool="kova_describe_table")
    outcome.is_success(result_json(), objects="ORDERS", statements=["describe ORDERS;"])


def test_a_name_of_63_bytes(tools):
    name = "9_" + "T" * 61
    tools.policy(allowed_tables=[name])
    tools("kova_describe_table", {"table": name}).is_success(
        result_json(), objects=name, statements=[f"describe {name};"])


@pytest.mark.parametrize("denied", [["SSN"], ["NO_SUCH_COLUMN", "OTHER"]])
def test_no_description_where_columns_are_denied(tools, denied):
    tools.policy(denied_columns=denied)
    tools("kova_describe_table", {"table": "ORDERS"}).is_error(NO_DESCRIPTION, decision="deny")


def test_the_table_comes_before_the_denied_columns(tools):
    tools.policy(denied_columns=["SSN"])
    tools("kova_describe_table", {"table": "HIDDEN"}).is_error(TABLE, decision="deny")
    tools("kova_describe_table").is_error(TABLE, decision="deny")


@pytest.mark.parametrize("table", ["ANY", "a", "9", "_", "T" * 63])
def test_without_a_policy_any_safe_name_is_described(free, table):
    free("kova_describe_table", {"table": table}).is_success(
        result_json(), objects=table, statements=[f"describe {table};"])


@pytest.mark.parametrize("table", ["", "T" * 64, "A-B", "A.B", "A;", "É"])
def test_without_a_policy_other_names_are_refused(free, table):
    free("kova_describe_table", {"table": table}).is_error(TABLE, decision="deny")
