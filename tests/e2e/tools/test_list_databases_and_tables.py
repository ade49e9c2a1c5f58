"""kova_list_databases and kova_list_tables: lists from the policy, or from the database."""

from __future__ import annotations

import pytest

from harness.scripted_library import Script
from harness.tool_calls import ABSENT, arguments, filtered, result_json

NO_ARGUMENTS = "this tool accepts no arguments"

DATABASES = ("kova_list_databases", "database-catalog", "list database;")
TABLES = ("kova_list_tables", "table-catalog", "list table;")


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
