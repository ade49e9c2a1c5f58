"""What kova_text_search and kova_vector_search share: top, collection, policy, failures."""

from __future__ import annotations

import json

import pytest

from harness.ai_calls import (COLLECTION, FAILURES, FAILURE_NAMES, GOOD, NO_SESSION, PROVIDERS_OFF,
                              READS_OFF, REFUSED_TOPS, TEXT_ARGUMENTS, TEXT_SEARCH,
                              VECTOR_ARGUMENTS, VECTOR_SEARCH, ask)
from harness.messages import PARSE_ERROR
from harness.scripted_library import Script
from harness.tool_calls import ABSENT, ToolCalls, arguments, result_json

RED_CAR = "SEARCH AI MANUALS TEXT 'red car' TOP 5;"
VECTOR = "SEARCH AI MANUALS QUERY [1,2.5,-3] TOP 5;"
SENT = {TEXT_SEARCH: RED_CAR, VECTOR_SEARCH: VECTOR}
REFUSED = {TEXT_SEARCH: TEXT_ARGUMENTS, VECTOR_SEARCH: VECTOR_ARGUMENTS}
SEARCHES = [TEXT_SEARCH, VECTOR_SEARCH]


@pytest.mark.parametrize("tool", SEARCHES)
def test_the_hits_are_the_answer(tools, tool):
    tools.script(Script().on_exec(
        SENT[tool], status="2 hits", columns=["RANK", "SCORE", "VECTOR_ID", "SOURCE_KEY"],
        rows=[["1", "0.5", "7", "a"], ["2", "0.25", "9", 'b "é"']]))
    ask(tools, tool).is_success(
        '{"status":"2 hits","columns":["RANK","SCORE","VECTOR_ID","SOURCE_KEY"],"rows":['
        '["1","0.5","7","a"],["2","0.25","9","b \\"é\\""]],"rowCount":2,"truncated":false}',
        objects="MANUALS", statements=[SENT[tool]])


@pytest.mark.parametrize("tool", SEARCHES)
@pytest.mark.parametrize("top, rows, truncated", [
    (1, 1, True), (1, 0, False), (2, 300, True), (255, 254, False), (256, 300, True)])
def test_top_bounds_the_rows(tools, tool, top, rows, truncated):
    statement = SENT[tool].replace("TOP 5;", f"TOP {top};")
    tools.script(Script().on_exec(statement, columns=["RANK"], repeat=[(rows, ["x"])]))
    listed = min(rows, top)
    ask(tools, tool, top=top).is_success(
        result_json(["RANK"], [["x"]] * listed, truncated=truncated), objects="MANUALS",
        statements=[statement])
    assert tools.engine.operations().count("Next") == (listed if truncated else listed + 1)


@pytest.mark.parametrize("tool", SEARCHES)
@pytest.mark.parametrize("top", REFUSED_TOPS)
def test_bounds_that_are_refused(tools, tool, top):
    members = json.dumps({**GOOD[tool], "top": 5})[:-len("5}")] + top + "}"
    tools.raw(arguments(tool, members), tool=tool).is_error(REFUSED[tool])


@pytest.mark.parametrize("tool", SEARCHES)
@pytest.mark.parametrize("changes", [
    {"top": ABSENT}, {"top": ABSENT, "TOP": 5}, {"x": 1}, {"": 1}, {"Collection": "MANUALS"},
    {"max_rows": 5}, {"source_table": "ITEMS"}, {"provider": "LOCAL"}, {"k" * 64: 1}],
    ids=lambda changes: str(changes)[:40])
def test_arguments_that_are_refused(tools, tool, changes):
    ask(tools, tool, **changes).is_error(REFUSED[tool])


def test_neither_takes_the_others_argument(tools):
    ask(tools, TEXT_SEARCH, vector=[1]).is_error(TEXT_ARGUMENTS)
    ask(tools, VECTOR_SEARCH, text="x").is_error(VECTOR_ARGUMENTS)


@pytest.mark.parametrize("tool", SEARCHES)
def test_what_is_tolerated(tools, tool):
    """`_meta` in any form, members in any order, an escaped spelling of a value."""
    rest = json.dumps({key: value for key, value in GOOD[tool].items() if key != "collection"})
    members = '{"_meta":{"top":[7]},%s,"collection":"MANUAL\\u0053"}' % rest[1:-1]
    tools.raw(arguments(tool, members), tool=tool).is_success(
        result_json(), objects="MANUALS", statements=[SENT[tool]])


@pytest.mark.parametrize("tool", SEARCHES)
def test_an_escaped_top_is_none(tools, tool):
    """It is allowed and not found."""
    members = json.dumps(GOOD[tool]).replace('"top"', '"t\\u006fp"')
    tools.raw(arguments(tool, members), tool=tool).is_error(REFUSED[tool])


@pytest.mark.parametrize("tool", SEARCHES)
def test_members_that_stand_twice(tools, tool):
    members = json.dumps(GOOD[tool])[:-1] + ',"t\\u006fp":5}'
    outcome = tools.raw(arguments(tool, members), tool=tool)
    assert outcome.reply == PARSE_ERROR
    assert (outcome.statements, outcome.records) == ([], [])


@pytest.mark.parametrize("tool", SEARCHES)
@pytest.mark.parametrize("collection", ["manuals", "MaNuAlS"])
def test_the_collection_is_sent_as_the_client_writes_it(tools, tool, collection):
    ask(tools, tool, collection=collection).is_success(
        result_json(), objects=collection,
        statements=[SENT[tool].replace("MANUALS", collection)])


@pytest.mark.parametrize("tool", SEARCHES)
def test_a_collection_of_63_bytes(tools, tool):
    name = "9_" + "C" * 61
    tools.policy(allowed_collections=[name])
    ask(tools, tool, collection=name).is_success(
        result_json(), objects=name, statements=[SENT[tool].replace("MANUALS", name)])
    ask(tools, tool, collection=name + "C").is_error(COLLECTION, decision="deny")


@pytest.mark.parametrize("tool", SEARCHES)
@pytest.mark.parametrize("answer, words", FAILURES, ids=FAILURE_NAMES)
def test_a_statement_that_fails(tools, tool, answer, words):
    tools.script(Script().on_exec(SENT[tool], **answer))
    ask(tools, tool).is_error(words, objects="MANUALS", statements=[SENT[tool]])


def test_without_an_engine(module_servers, engine, tmp_path):
    tools = ToolCalls(module_servers, engine, tmp_path, env={"KOVA_MCP_PASSWORD": None})
    for tool in SEARCHES:
        ask(tools, tool).is_error(NO_SESSION, objects="MANUALS")
        # The arguments are checked first.
        ask(tools, tool, top=0).is_error(REFUSED[tool])
    assert engine.calls() == []


def test_without_a_policy(module_servers, engine, tmp_path):
    tools = ToolCalls(module_servers, engine, tmp_path, configured=False)
    for tool in SEARCHES:
        ask(tools, tool, collection="Any_1").is_success(
            result_json(), objects="Any_1", statements=[SENT[tool].replace("MANUALS", "Any_1")])
        ask(tools, tool, collection="A-B").is_error(COLLECTION, decision="deny")


@pytest.mark.parametrize("tool", SEARCHES)
def test_the_gates_refuse_good_arguments(tools, tool):
    tools.policy(reads_enabled=False)
    ask(tools, tool).is_error(READS_OFF, decision="deny")
    tools.policy(allowed_collections=["OTHER"])
    ask(tools, tool).is_error(COLLECTION, decision="deny")
    # The policy is asked before the arguments are checked.
    ask(tools, tool, top=0, x=1).is_error(COLLECTION, decision="deny")


def test_the_kill_switch_stops_text_alone(switched_off, tools):
    ask(switched_off, TEXT_SEARCH).is_error(PROVIDERS_OFF, decision="kill_switch")
    ask(switched_off, TEXT_SEARCH, top=0, x=1).is_error(PROVIDERS_OFF, decision="kill_switch")
    ask(switched_off, VECTOR_SEARCH).is_success(result_json(), objects="MANUALS",
                                                statements=[VECTOR])
    tools.policy(provider_reads_enabled=False)
    ask(tools, TEXT_SEARCH).is_error(PROVIDERS_OFF, decision="kill_switch")
    ask(tools, VECTOR_SEARCH).is_success(result_json(), objects="MANUALS", statements=[VECTOR])
