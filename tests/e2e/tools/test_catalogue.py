"""kova_list_databases, kova_list_tables and kova_describe_table."""

from __future__ import annotations

import pytest

from harness.scripted_library import Script
from harness.tool_calls import ABSENT, ToolCalls, arguments, filtered, result_json

NO_ARGUMENTS = "this tool accepts no arguments"
TABLE = "table is invalid or not allowed by MCP policy"
NO_DESCRIPTION = "schema description is disabled when the policy denies columns"

DATABASES = ("kova_list_databases", "database-catalog", "list database;")
TABLES = ("kova_list_tables", "table-catalog", "list table;")


@pytest.fixture(scope="module")
def with_policy(module_servers, module_engine, tmp_path_factory) -> ToolCalls:
    return ToolCalls(module_servers, module_engine, tmp_path_factory.mktemp("catalogue"))


@pytest.fixture
def tools(with_policy: ToolCalls) -> ToolCalls:
    return with_policy.reset()


@pytest.fixture(scope="module")
def without_policy(module_servers, module_engine, tmp_path_factory) -> ToolCalls:
    return ToolCalls(module_servers, module_engine, tmp_path_factory.mktemp("open"),
                     configured=False)


@pytest.fixture
def free(without_policy: ToolCalls) -> ToolCalls:
    return without_policy.reset()


@pytest.mark.parametrize("given", [ABSENT, {}, {"_meta": {}}, {"_meta": None}, {"_meta": [7]}],
                         ids=str)
def test_lists_that_are_answered_from_the_policy(tools, given):
    tools("kova_list_databases", given).is_success(filtered(["SALES"]), objects="database-catalog")
    tools("kova_list_tables", given).is_success(filtered(["ORDERS", "ITEMS"]),
                                                objects="table-catalog")


def test_an_escaped_meta_is_a_meta(tools):
    outcome = tools.raw(arguments("kova_list_tables", '{"_m\\u0065ta":{}}'),
                        tool="kova_list_tables")
    outcome.is_success(filtered(["ORDERS", "ITEMS"]), objects="table-catalog")


@pytest.mark.parametrize("given", [
    None, [], "", "x", 0, True, {"x": 1}, {"_meta": {}, "x": 1}, {"x": {}, "_meta": {}},
    {"_META": {}}, {"": 1}, {"table": "ORDERS"}, {"k" * 64: 1}], ids=str)
@pytest.mark.parametrize("tool", ["kova_list_databases", "kova_list_tables"])
def test_lists_take_no_arguments(tools, tool, given):
    tools(tool, given).is_error(NO_ARGUMENTS)


def test_lists_take_no_arguments_without_a_policy(free):
    free("kova_list_tables", {"x": 1}).is_error(NO_ARGUMENTS)


def test_the_database_is_named_as_in_the_policy(tools):
    tools.policy(database="Sales")
    tools("kova_list_databases").is_success(filtered(["Sales"]), objects="database-catalog")


def test_an_empty_list(tools):
    tools.policy(allowed_tables=[])
    outcome = tools("kova_list_tables")
    outcome.is_success('{"status":"policy-filtered","columns":["NAME"],"rows":[],"rowCount":0,'
                       '"truncated":false}', objects="table-catalog")


def test_the_longest_list(tools):
    """64 names of 63 bytes, in the policy's order and spelling."""
    names = [f"t{63 - n:02}_{'Xy9' * 20}"[:63] for n in range(64)]
    assert {len(name) for name in names} == {63}
    tools.policy(allowed_tables=names)
    tools("kova_list_tables").is_success(filtered(names), objects="table-catalog")


@pytest.mark.parametrize("tool, objects, statement", [DATABASES, TABLES])
def test_without_a_policy_the_database_is_asked(free, tool, objects, statement):
    free.script(Script().on_exec(statement, columns=["NAME", "KIND"],
                                 rows=[["A", "table"], ["B", None]]))
    expected = result_json(["NAME", "KIND"], [["A", "table"], ["B", ""]])
    free(tool).is_success(expected, objects=objects, statements=[statement])


@pytest.mark.parametrize("rows, listed, truncated", [
    (0, 0, False), (255, 255, False), (256, 256, True), (300, 256, True)])
def test_what_the_database_lists_is_bounded(free, rows, listed, truncated):
    free.script(Script().on_exec("list table;", columns=["NAME"], repeat=[(rows, ["T"])]))
    expected = result_json(["NAME"], [["T"]] * listed, truncated=truncated)
    free("kova_list_tables").is_success(expected, objects="table-catalog",
                                        statements=["list table;"])


@pytest.mark.parametrize("tool, objects, statement", [DATABASES, TABLES])
def test_a_database_that_refuses(free, tool, objects, statement):
    free.script(Script().on_exec(statement, result=0, status="no catalogue today"))
    free(tool).is_error("no catalogue today", objects=objects, statements=[statement])


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
