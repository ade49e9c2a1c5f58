"""Kill switches and name rules, as far as they show from outside."""

from __future__ import annotations

import pytest

from harness.messages import call, tool_error_reply
from harness.tool_calls import UNKNOWN_TOOL, ToolCalls, result_json

PROVIDERS_OFF = "provider-backed MCP reads are disabled by policy or kill switch"
STATUS_OFF = "provider status is disabled by policy or kill switch"
COLLECTION = "collection is invalid or not allowed by MCP policy"
TABLE = "table is invalid or not allowed by MCP policy"
HYBRID_SOURCE = "hybrid source table or key is denied by MCP policy"
HYBRID_COLUMNS = "hybrid columns are invalid"
READS_OFF = "read tools are disabled by policy"

SWITCHED_ON = ["1", "true", "TRUE", "Yes", "oN"]
SWITCHED_OFF = [None, "", "0", "01", "11", "true ", " true", "enable", "false", "y"]
WRITES = {"writes_enabled": True, "write_types": ["INSERT"], "write_tables": ["ORDERS"]}


@pytest.mark.parametrize("value", SWITCHED_ON + SWITCHED_OFF, ids=repr)
def test_the_write_switch(run, policy, value):
    env = {**policy(**WRITES), "KOVA_MCP_DISABLE_WRITES": value}
    allowed = b"writes=no" if value in SWITCHED_ON else b"writes=yes"
    assert allowed in run("--check-policy", env=env).stdout.split(b" ")


@pytest.mark.parametrize("value, refused", [
    ("1", PROVIDERS_OFF), ("On", PROVIDERS_OFF), ("true ", COLLECTION), ("01", COLLECTION)])
def test_the_provider_switch_at_a_call(run, value, refused):
    """The message shows whether the check of the provider switch or the next one has refused."""
    result = run("--tool-worker", stdin=call(1, "kova_text_search"),
                 env={"KOVA_MCP_DISABLE_PROVIDERS": value})
    assert result.stdout == tool_error_reply("1", refused)


def test_the_provider_switch_overrides_the_policy(module_servers, engine, tmp_path):
    tools = ToolCalls(module_servers, engine, tmp_path, env={"KOVA_MCP_DISABLE_PROVIDERS": "yes"})
    collection = {"collection": "MANUALS"}
    for tool in ("kova_text_search", "kova_hybrid_search"):
        tools(tool, collection).is_error(PROVIDERS_OFF, decision="kill_switch")
    tools("kova_ai_status", {**collection, "provider": None}).is_error(
        STATUS_OFF, decision="kill_switch")
    tools("kova_vector_search", {"collection": "OTHER"}).is_error(COLLECTION, decision="deny")
    # Reads are checked first.
    tools.policy(reads_enabled=False)
    tools("kova_text_search", collection).is_error(READS_OFF, decision="deny")


def test_the_write_switch_at_a_call(module_servers, engine, tmp_path):
    tools = ToolCalls(module_servers, engine, tmp_path, env={"KOVA_MCP_DISABLE_WRITES": "1"})
    tools.policy(**WRITES)
    tools("kova_execute", {"sql": "INSERT INTO ORDERS VALUES (1)"}).is_refused(UNKNOWN_TOOL)
    tools("kova_list_databases").is_success(
        result_json(["NAME"], [["SALES"]], status="policy-filtered"), objects="database-catalog")


@pytest.mark.parametrize("missing", [{"writes_enabled": False}, {"write_types": []},
                                     {"write_tables": []}], ids=str)
def test_what_writes_need(module_servers, engine, tmp_path, missing):
    tools = ToolCalls(module_servers, engine, tmp_path)
    tools.policy(**{**WRITES, **missing})
    tools("kova_execute", {"sql": "INSERT INTO ORDERS VALUES (1)"}).is_refused(UNKNOWN_TOOL)


NAMES = [("a", True), ("_", True), ("9", True), ("A_9z", True), ("N" * 63, True), ("N" * 64, False),
         ("", False), ("A-B", False), ("A.B", False), ("A B", False), ("A\x7f", False),
         ("Ä", False), ("A\n", False)]


def test_names_without_a_policy(module_servers, engine, tmp_path):
    """Every safe name is a readable table, an allowed collection and no denied column."""
    tools = ToolCalls(module_servers, engine, tmp_path, configured=False)
    for name, safe in NAMES:
        described = tools("kova_describe_table", {"table": name})
        found = tools("kova_hybrid_search", {"collection": name})
        source = tools("kova_hybrid_search",
                       {"collection": "A", "source_table": name, "key_field": "K"})
        key = tools("kova_hybrid_search",
                    {"collection": "A", "source_table": "T", "key_field": name})
        if safe:
            described.is_success(result_json(), objects=name, statements=[f"describe {name};"])
            found.is_error(HYBRID_SOURCE)
            source.is_error(HYBRID_COLUMNS)
            key.is_error(HYBRID_COLUMNS)
        else:
            described.is_error(TABLE, decision="deny")
            found.is_error(COLLECTION, decision="deny")
            source.is_error(HYBRID_SOURCE)
            key.is_error(HYBRID_SOURCE)


def test_names_ignore_case(module_servers, engine, tmp_path):
    tools = ToolCalls(module_servers, engine, tmp_path)
    tools.policy(allowed_tables=["Orders"], denied_columns=["Ssn"], allowed_collections=["Docs"])
    given = {"collection": "dOCS", "source_table": "ORDERS", "key_field": "ID"}
    tools("kova_hybrid_search", given).is_error(HYBRID_COLUMNS)
    tools("kova_hybrid_search", {**given, "key_field": "sSN"}).is_error(HYBRID_SOURCE)
    tools("kova_query", {"sql": "select id from oRDERS"}).is_success(
        result_json(), objects="policy-select", statements=["select id from oRDERS;"])


def test_case_is_ignored_for_ascii_letters_only(module_servers, engine, tmp_path):
    """A Kelvin sign is not k, and a dotless i is not i."""
    tools = ToolCalls(module_servers, engine, tmp_path)
    tools.policy(allowed_collections=["KI"])
    for collection in ("\u212aI", "K\u0131", "K\u0130"):
        tools("kova_hybrid_search", {"collection": collection}).is_error(COLLECTION,
                                                                         decision="deny")
