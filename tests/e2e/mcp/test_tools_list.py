"""tools/list, byte for byte, under every policy that changes it."""

from __future__ import annotations

import pytest

from harness.messages import request, result_reply

TAIL = ('"annotations":{"readOnlyHint":true,"destructiveHint":false,"idempotentHint":true,'
        '"openWorldHint":false},"execution":{"taskSupport":"forbidden"}}')
NO_ARGUMENTS = '{"type":"object","additionalProperties":false}'


def entry(name: str, description: str, schema: str) -> str:
    return f'{{"name":"{name}","description":"{description}","inputSchema":{schema},{TAIL}'


LIST_DATABASES = entry("kova_list_databases", "List policy-allowed Vantreo databases.",
                       NO_ARGUMENTS)
LIST_TABLES = entry("kova_list_tables", "List policy-allowed tables and views.", NO_ARGUMENTS)
DESCRIBE_TABLE = entry(
    "kova_describe_table", "Describe one allowed table without returning row data.",
    '{"type":"object","properties":{"table":{"type":"string","maxLength":63}},'
    '"required":["table"],"additionalProperties":false}')
QUERY = entry(
    "kova_query", "Execute exactly one parsed read-only SELECT with bounded output.",
    '{"type":"object","properties":{"sql":{"type":"string","maxLength":32768},'
    '"max_rows":{"type":"integer","minimum":1,"maximum":256}},'
    '"required":["sql"],"additionalProperties":false}')
VECTOR_SEARCH = entry(
    "kova_vector_search", "Search an AI collection with a numeric vector.",
    '{"type":"object","properties":{"collection":{"type":"string","maxLength":63},'
    '"vector":{"type":"array","minItems":1,"maxItems":4096,"items":{"type":"number"}},'
    '"top":{"type":"integer","minimum":1,"maximum":256}},'
    '"required":["collection","vector","top"],"additionalProperties":false}')
TEXT_SEARCH = entry(
    "kova_text_search", "Embed bounded text using the collection provider and search.",
    '{"type":"object","properties":{"collection":{"type":"string","maxLength":63},'
    '"text":{"type":"string","maxLength":8192},'
    '"top":{"type":"integer","minimum":1,"maximum":256}},'
    '"required":["collection","text","top"],"additionalProperties":false}')
HYBRID_SEARCH = entry(
    "kova_hybrid_search",
    "Search an AI collection and join ranked hits to authorized source columns.",
    '{"type":"object","properties":{"collection":{"type":"string","maxLength":63},'
    '"text":{"type":"string","maxLength":8192},'
    '"top":{"type":"integer","minimum":1,"maximum":256},'
    '"source_table":{"type":"string","maxLength":63},'
    '"key_field":{"type":"string","maxLength":63},'
    '"columns":{"type":"array","minItems":1,"maxItems":16,'
    '"items":{"type":"string","maxLength":63}}},'
    '"required":["collection","text","top","source_table","key_field","columns"],'
    '"additionalProperties":false}')
AI_STATUS = entry(
    "kova_ai_status",
    "Show bounded AI collection, optional provider, and durable job health without secrets.",
    '{"type":"object","properties":{"collection":{"type":"string","maxLength":63},'
    '"provider":{"type":"string","maxLength":63}},'
    '"required":["collection"],"additionalProperties":false}')
EXECUTE = (
    '{"name":"kova_execute",'
    '"description":"Execute one policy-approved INSERT, UPDATE, or DELETE.",'
    '"inputSchema":{"type":"object","properties":{"sql":{"type":"string","maxLength":32768},'
    '"approval_token":{"type":"string","maxLength":255}},"required":["sql"],'
    '"additionalProperties":false},"annotations":{"readOnlyHint":false,"destructiveHint":true,'
    '"idempotentHint":false,"openWorldHint":false},"execution":{"taskSupport":"forbidden"}}')

CATALOGUE = [LIST_DATABASES, LIST_TABLES, DESCRIBE_TABLE, QUERY, VECTOR_SEARCH]
READS = CATALOGUE + [TEXT_SEARCH, HYBRID_SEARCH, AI_STATUS]
READS_WITHOUT_PROVIDERS = CATALOGUE + [AI_STATUS]


def listing(tools: list[str], raw_id: str = "1") -> bytes:
    return result_reply(raw_id, '{"tools":[' + ",".join(tools) + "]}")


def listed(run, env=None) -> bytes:
    result = run(stdin=request("initialize", 0) + request("tools/list", 1), env=env)
    return result.stdout.split(b"\n", 1)[1]


@pytest.mark.parametrize("env, tools", [
    ({}, READS),
    ({"KOVA_MCP_POLICY": ""}, READS),
    ({"KOVA_MCP_DISABLE_PROVIDERS": "1"}, READS_WITHOUT_PROVIDERS),
    ({"KOVA_MCP_DISABLE_PROVIDERS": "YES"}, READS_WITHOUT_PROVIDERS),
    ({"KOVA_MCP_DISABLE_PROVIDERS": "2"}, READS),
    ({"KOVA_MCP_DISABLE_WRITES": "0"}, READS),
])
def test_without_a_policy(run, env, tools):
    assert listed(run, env) == listing(tools)


WRITES = {"writes_enabled": True, "write_types": ["DELETE"], "write_tables": ["ORDERS"]}
NO_READS = {"reads_enabled": False}
NO_PROVIDERS = {"provider_reads_enabled": False}


@pytest.mark.parametrize("overrides, env, tools", [
    ({}, {}, READS),
    (NO_PROVIDERS, {}, READS_WITHOUT_PROVIDERS),
    ({}, {"KOVA_MCP_DISABLE_PROVIDERS": "on"}, READS_WITHOUT_PROVIDERS),
    (NO_READS, {}, []),
    (WRITES, {}, READS + [EXECUTE]),
    ({**WRITES, **NO_PROVIDERS}, {}, READS_WITHOUT_PROVIDERS + [EXECUTE]),
    ({**WRITES, **NO_READS}, {}, [EXECUTE]),
    ({**WRITES, **NO_READS, **NO_PROVIDERS}, {}, [EXECUTE]),
    (WRITES, {"KOVA_MCP_DISABLE_WRITES": "true"}, READS),
    ({**WRITES, **NO_READS}, {"KOVA_MCP_DISABLE_WRITES": "1"}, []),
    ({**WRITES, "writes_enabled": False}, {}, READS),
    ({**WRITES, "write_types": []}, {}, READS),
    ({**WRITES, "write_tables": []}, {}, READS),
    ({"allowed_tables": [], "allowed_collections": []}, {}, READS),
    ({**WRITES, "version": 2}, {}, []),
])
def test_under_a_policy(run, policy, overrides, env, tools):
    assert listed(run, {**policy(**overrides), **env}) == listing(tools)


def test_under_a_policy_that_cannot_be_read(run, tmp_path):
    assert listed(run, {"KOVA_MCP_POLICY": tmp_path / "missing.json"}) == listing([])


@pytest.mark.parametrize("params", [{}, {"cursor": "x"}, {"cursor": 7, "y": [1]}, [], "x", 0])
def test_the_params_are_not_read(run, params):
    result = run(stdin=request("initialize", 0) + request("tools/list", "p", params))
    assert result.stdout.split(b"\n", 1)[1] == listing(READS, '"p"')


def test_the_running_server_does_not_follow_an_edited_policy(start, policy, tmp_path):
    env = policy()
    server = start(env=env)
    server.initialize()
    assert server.ask(request("tools/list", 1)) == listing(READS)
    policy.write(env["KOVA_MCP_POLICY"], "{}")
    assert server.ask(request("tools/list", 2)) == listing(READS, "2")
