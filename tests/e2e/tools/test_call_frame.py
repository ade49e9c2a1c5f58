"""tools/call: its params, its tool names and the checks before the tools, in their order."""

from __future__ import annotations

import json
from typing import Any

import pytest

from harness.messages import PARSE_ERROR
from harness.tool_calls import ABSENT, UNKNOWN_TOOL, ToolCalls, arguments, filtered

PARAMS = "tools/call params are invalid or contain unknown fields"
NAME = "tools/call requires a valid tool name"
READS_OFF = "read tools are disabled by policy"
PROVIDERS_OFF = "provider-backed MCP reads are disabled by policy or kill switch"
COLLECTION = "collection is invalid or not allowed by MCP policy"
STATUS_OFF = "provider status is disabled by policy or kill switch"
HYBRID_SOURCE = "hybrid source table or key is denied by MCP policy"
HYBRID_COLUMNS = "hybrid columns are invalid"
HYBRID_COLUMN = "hybrid column is denied by MCP policy"
BAD_VERSION = "MCP policy identity/version is invalid"

LISTED = filtered(["ORDERS", "ITEMS"])
READ_TOOLS = ["kova_list_databases", "kova_list_tables", "kova_describe_table", "kova_query",
              "kova_text_search", "kova_ai_status", "kova_vector_search", "kova_hybrid_search"]
COLLECTION_TOOLS = ["kova_text_search", "kova_vector_search", "kova_hybrid_search",
                    "kova_ai_status"]


@pytest.mark.parametrize("params", [
    None, "null", "true", "7", '"kova_list_tables"', "[]", '[{"name":"kova_list_tables"}]',
    '{"x":1}',
    '{"name":"kova_list_tables","x":null}',
    '{"x":1,"name":"kova_list_tables"}',
    '{"Name":"kova_list_tables"}',
    '{"name":"kova_list_tables","Arguments":{}}',
    '{"name":"kova_list_tables","_Meta":{}}',
    '{"name":"kova_list_tables","":1}',
    '{"name":"kova_list_tables","name ":1}',
    '{"name":"kova_list_tables","' + "k" * 64 + '":1}',
    '{"name":"kova_list_tables","\\ud800":1}',
    '{"name":"kova_list_tables","\\u0000name":1}',
    # Keys too long to be compared are no duplicates, but unknown all the same.
    '{"name":"kova_list_tables","%s":1,"%s":1}' % ("k" * 256, "k" * 256),
    '{"x":1,"name":7}',
], ids=lambda params: repr(params)[:60])
def test_params_that_are_refused(tools, params):
    tools.raw(params).is_refused(PARAMS)


@pytest.mark.parametrize("params", [
    "{}", '{"arguments":{}}', '{"name":null}', '{"name":7}', '{"name":true}', '{"name":[]}',
    '{"name":{"name":"kova_list_tables"}}',
    '{"name":"' + "n" * 129 + '"}',
    '{"name":"' + "é" * 64 + 'n"}',
    '{"name":"\\ud800"}', '{"name":"\\udc00x"}', '{"name":"\\ud83dx"}',
    # A member is allowed by its decoded key and found by its raw key.
    '{"n\\u0061me":"kova_list_tables"}',
    '{"name\\u0000x":"kova_list_tables"}',
], ids=lambda params: repr(params)[:60])
def test_tool_names_that_are_refused(tools, params):
    tools.raw(params).is_refused(NAME)


@pytest.mark.parametrize("name", [
    "", "n" * 128, "é" * 64, "KOVA_QUERY", "kova_query ", " kova_query", "kova_quer",
    "kova_list_table", "tools/list", "\x00kova_query"], ids=lambda name: repr(name)[:40])
def test_names_of_no_tool(tools, name):
    tools(name).is_refused(UNKNOWN_TOOL)


def test_the_arguments_of_no_tool_are_not_looked_at(tools):
    tools("nothing", 7).is_refused(UNKNOWN_TOOL)


@pytest.mark.parametrize("members", [
    '"name":"kova_list_tables"',
    '"name":"kova\\u005flist_tables"',
    '"name":"kova_list_tables\\u0000x"',
    '"arguments":{},"_meta":{},"name":"kova_list_tables"',
    '"name":"kova_list_tables","_meta":null',
    '"name":"kova_list_tables","_meta":7',
    '"name":"kova_list_tables","_meta":{"progressToken":1,"a":{"b":[{"name":[]}]}}',
    '"name":"kova_list_tables","_m\\u0065ta":[1]',
    # An escaped key is allowed and not found: the call has no arguments.
    '"name":"kova_list_tables","argum\\u0065nts":[1]',
], ids=repr)
def test_params_that_are_accepted(tools, members):
    outcome = tools.raw("{" + members + "}", tool="kova_list_tables")
    outcome.is_success(LISTED, objects="table-catalog")


@pytest.mark.parametrize("params", [
    '{"name":"kova_list_tables","name":"kova_query"}',
    '{"name":"kova_list_tables","n\\u0061me":"kova_query"}',
    '{"name":"kova_list_tables","name\\u0000x":"kova_query"}',
    '{"name":"kova_list_tables","_meta":{"a":{"b":1,"b":1}}}',
    '{"name":"kova_query","arguments":{"sql":"SELECT 1","sql":"SELECT 2"}}',
    '{"x":1,"x":1}',
], ids=repr)
def test_duplicate_members_come_first(tools, params):
    outcome = tools.raw(params)
    assert outcome.reply == PARSE_ERROR
    assert (outcome.statements, outcome.records) == ([], [])


@pytest.mark.parametrize("raw_id, correlation", [
    ("7", "7"), ('"7"', "7"), ("-1.50", "-1.50"), ("1E+05", "1E+05"), ("true", "true"),
    ('""', ""), ('"a b"', "a b"), ('"' + "i" * 95 + '"', "i" * 95), ("9" * 95, "9" * 95),
    ('"é"', "__"), ('"\\u0001\\u007f\\n"', "___"), ('"a\\"b\\\\c"', 'a"b\\c')],
    ids=lambda value: repr(value)[:30])
def test_the_id_is_the_correlation(tools, raw_id, correlation):
    outcome = tools("kova_list_tables", raw_id=raw_id)
    assert b'"isError":false' in outcome.reply
    [record] = outcome.records
    assert record["correlation_id"] == correlation


@pytest.mark.parametrize("raw_id, echoed", [
    ('"' + "i" * 96 + '"', "null"), ("9" * 96, "9" * 96), ("null", "null"), ("[7]", "[7]")],
    ids=lambda value: value[:10])
def test_an_id_that_is_no_id(tools, raw_id, echoed):
    """The dispatcher of the call's process refuses it before the call is accepted."""
    outcome = tools("kova_list_tables", raw_id=raw_id)
    assert outcome.reply == (f'{{"jsonrpc":"2.0","id":{echoed},"error":{{"code":-32600,"message":'
                             '"request id is invalid or already used"}}\n').encode()
    assert outcome.records == []


@pytest.mark.parametrize("tool", READ_TOOLS + ["kova_execute", "nothing", ""])
def test_an_invalid_policy_refuses_every_name(tools, tool):
    tools.policy(version=2, audited="")
    tools(tool, {"x": 1}).is_error(BAD_VERSION, decision="deny")


@pytest.mark.parametrize("tool", READ_TOOLS + ["nothing", "", "KOVA_EXECUTE"])
def test_the_read_switch(tools, tool):
    tools.policy(reads_enabled=False)
    tools(tool, 7).is_error(READS_OFF, decision="deny")


@pytest.mark.parametrize("reads", [True, False])
def test_the_write_tool_passes_the_read_switch(tools, reads):
    """The tool is unknown while writes are off."""
    tools.policy(reads_enabled=reads)
    tools("kova_execute", {"sql": "DELETE FROM ORDERS"}).is_refused(UNKNOWN_TOOL)


HYBRID = {"collection": "MANUALS", "text": "x", "top": 1, "source_table": "ITEMS",
          "key_field": "ID", "columns": ["TITLE"]}


@pytest.mark.parametrize("tool, given", [
    ("kova_text_search", ABSENT), ("kova_text_search", {"collection": "OTHER"}),
    ("kova_hybrid_search", []), ("kova_hybrid_search", HYBRID)], ids=str)
def test_the_provider_gate(tools, tool, given):
    tools.policy(provider_reads_enabled=False)
    tools(tool, given).is_error(PROVIDERS_OFF, decision="kill_switch")


@pytest.mark.parametrize("tool", ["kova_vector_search", "kova_ai_status"])
def test_who_is_not_subject_to_the_provider_gate(tools, tool):
    tools.policy(provider_reads_enabled=False)
    tools(tool, {}).is_error(COLLECTION, decision="deny")


@pytest.mark.parametrize("given", [
    ABSENT, None, [], "MANUALS", 7, {}, {"Collection": "MANUALS"}, {"collection": None},
    {"collection": ["MANUALS"]}, {"collection": ""}, {"collection": "OTHER"},
    {"collection": "MANUAL"}, {"collection": "MANUALS "}, {"collection": "MANUALS;"},
    {"collection": "M" * 64}, {"collection": "MÄNUALS"}, {"collection": "OTHER", "x": 1}], ids=str)
def test_the_collection_gate(tools, given):
    tools("kova_text_search", given).is_error(COLLECTION, decision="deny")


@pytest.mark.parametrize("tool", COLLECTION_TOOLS)
@pytest.mark.parametrize("members", [
    '{"collection":"OTHER"}', '{"c\\u006fllection":"MANUALS"}', '{"collection":"\\ud800"}'])
def test_the_collection_gate_of_every_tool(tools, tool, members):
    tools.raw(arguments(tool, members), tool=tool).is_error(COLLECTION, decision="deny")


@pytest.mark.parametrize("collection", ["MANUALS", "manuals", "MaNuAlS", "MANUALS\x00;"])
def test_collections_that_are_allowed(tools, collection):
    """The next check refuses."""
    tools("kova_hybrid_search", {"collection": collection}).is_error(HYBRID_SOURCE)


def test_a_collection_of_63_bytes(tools):
    tools.policy(allowed_collections=["C" * 63])
    tools("kova_hybrid_search", {"collection": "c" * 63}).is_error(HYBRID_SOURCE)


@pytest.mark.parametrize("provider", ["P", "", None, 7, [], {}, "not safe;"], ids=str)
def test_the_provider_of_a_status(tools, provider):
    """Its presence is refused, whatever its value."""
    tools.policy(provider_reads_enabled=False)
    given = {"collection": "MANUALS", "provider": provider}
    tools("kova_ai_status", given).is_error(STATUS_OFF, decision="kill_switch")


def test_the_collection_comes_before_the_provider_of_a_status(tools):
    tools.policy(provider_reads_enabled=False)
    given = {"collection": "OTHER", "provider": "P"}
    tools("kova_ai_status", given).is_error(COLLECTION, decision="deny")


@pytest.mark.parametrize("changes, message", [
    ({"source_table": ABSENT}, HYBRID_SOURCE),
    ({"source_table": 7}, HYBRID_SOURCE),
    ({"source_table": ""}, HYBRID_SOURCE),
    ({"source_table": "HIDDEN"}, HYBRID_SOURCE),
    ({"source_table": "ITEMS "}, HYBRID_SOURCE),
    ({"source_table": "T" * 64}, HYBRID_SOURCE),
    ({"key_field": ABSENT}, HYBRID_SOURCE),
    ({"key_field": None}, HYBRID_SOURCE),
    ({"key_field": "SSN"}, HYBRID_SOURCE),
    ({"key_field": "ssn"}, HYBRID_SOURCE),
    ({"key_field": "A-B"}, HYBRID_SOURCE),
    ({"key_field": "K" * 64}, HYBRID_SOURCE),
    ({"columns": ABSENT}, HYBRID_COLUMNS),
    ({"columns": None}, HYBRID_COLUMNS),
    ({"columns": "TITLE"}, HYBRID_COLUMNS),
    ({"columns": {"TITLE": 1}}, HYBRID_COLUMNS),
    ({"columns": ["TITLE", 7]}, HYBRID_COLUMN),
    ({"columns": [["TITLE"]]}, HYBRID_COLUMN),
    ({"columns": ["TITLE", "Ssn"]}, HYBRID_COLUMN),
    ({"columns": [""]}, HYBRID_COLUMN),
    ({"columns": ["C" * 64]}, HYBRID_COLUMN),
    # The first of several faults is reported.
    ({"source_table": "HIDDEN", "columns": None, "x": 1}, HYBRID_SOURCE),
    ({"key_field": "SSN", "columns": ["SSN"]}, HYBRID_SOURCE),
    ({"columns": ["SSN"], "top": 0, "text": "", "x": 1}, HYBRID_COLUMN),
    ({"columns": 7, "top": 0, "x": 1}, HYBRID_COLUMNS),
], ids=lambda value: str(value)[:60])
def test_the_hybrid_gate(tools, changes, message):
    tools.policy(denied_columns=["SSN"])
    given = {key: value for key, value in {**HYBRID, **changes}.items() if value is not ABSENT}
    tools("kova_hybrid_search", given).is_error(message)


@pytest.mark.parametrize("overrides, params, message, decision", [
    ({"version": 2}, '{"name":"kova_query","x":1}', PARAMS, None),
    ({"version": 2}, '{"name":7}', NAME, None),
    ({"reads_enabled": False}, '{"name":7}', NAME, None),
    ({"version": 2, "reads_enabled": False}, '{"name":"nothing"}', BAD_VERSION, "deny"),
    ({"reads_enabled": False, "provider_reads_enabled": False}, '{"name":"kova_text_search"}',
     READS_OFF, "deny"),
    ({"reads_enabled": False, "allowed_collections": []}, '{"name":"kova_vector_search"}',
     READS_OFF, "deny"),
    ({"provider_reads_enabled": False, "allowed_collections": []}, '{"name":"kova_text_search"}',
     PROVIDERS_OFF, "kill_switch"),
    ({"allowed_collections": [], "allowed_tables": []},
     '{"name":"kova_hybrid_search","arguments":{"source_table":7}}', COLLECTION, "deny"),
], ids=lambda value: str(value)[:50])
def test_the_order_of_the_gates(tools, overrides, params, message, decision):
    tools.policy(**overrides, audited="" if "version" in overrides else "sales_read")
    outcome = tools.raw(params, tool=str(json.loads(params)["name"]))
    if decision is None:
        outcome.is_refused(message)
    else:
        outcome.is_error(message, decision=decision)


def test_without_a_policy_no_name_is_withheld(module_servers, engine, tmp_path):
    tools = ToolCalls(module_servers, engine, tmp_path, configured=False)
    given: dict[str, Any] = {"collection": "ANY", "source_table": "ANY", "key_field": "SSN"}
    tools("kova_hybrid_search", given).is_error(HYBRID_COLUMNS)
    tools("kova_hybrid_search", {**given, "columns": ["A-B"]}).is_error(HYBRID_COLUMN)
    tools("kova_hybrid_search", {**given, "source_table": "A-B"}).is_error(HYBRID_SOURCE)
    tools("kova_text_search", {"collection": "A.B"}).is_error(COLLECTION, decision="deny")
    tools("kova_execute", {"sql": "DELETE FROM T"}).is_refused(UNKNOWN_TOOL)
