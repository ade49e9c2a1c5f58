"""kova_hybrid_search: its three statements around one temporary table, and what it refuses."""

from __future__ import annotations

import json

import pytest

from harness.ai_calls import (COLLECTION, COLUMN, COLUMNS, FAILURES, FAILURE_NAMES, GOOD,
                              HYBRID_ARGUMENTS, HYBRID_COUNT, HYBRID_SEARCH, HYBRID_TEXT,
                              NO_SESSION, PROVIDERS_OFF, PROVIDERS_SWITCH, READS_OFF, REFUSED_TOPS,
                              SOURCE, ask)
from harness.messages import PARSE_ERROR, WORKER_FAILED, call
from harness.scripted_library import Script, ScriptedLibrary
from harness.tool_calls import ABSENT, Outcome, ToolCalls, arguments, result_json


def hybrid(tools: ToolCalls, **changes) -> Outcome:
    return ask(tools, HYBRID_SEARCH, **changes)


def hits_of(tools: ToolCalls) -> str:
    """The temporary table of the last call: every call has a process of its own, which counts
    from 1."""
    [process] = {entry.pid for entry in tools.engine.calls()}
    return f"mcp_hits_{process}_1"


def statements(tools: ToolCalls, *, collection: str = "MANUALS", literal: str = "'red car'",
               top: int = 5, table: str = "ITEMS", key: str = "ID",
               columns: tuple[str, ...] = ("TITLE", "BODY")) -> list[str]:
    """The statements of the last call, if it ran to its end."""
    hits = hits_of(tools)
    projection = "".join(f",{table}.{column}" for column in columns)
    return [
        f"SEARCH AI {collection} TEXT {literal} TOP {top} INTO TEMP {hits};",
        f"SELECT {hits}.RANK,{hits}.SCORE,{hits}.VECTOR_ID,{hits}.SOURCE_KEY{projection} "
        f"FROM {hits},{table} WHERE {hits}.SOURCE_KEY={table}.{key} ORDER BY {hits}.RANK;",
        f"DROP TABLE {hits};",
    ]


def sent(tools: ToolCalls, outcome: Outcome, **pieces) -> None:
    """The record of a hybrid call names no objects."""
    outcome.is_success(result_json(), objects="", statements=statements(tools, **pieces))


def test_the_statements_of_a_call(tools):
    outcome = hybrid(tools)
    [process] = {entry.pid for entry in tools.engine.calls()}
    hits = f"mcp_hits_{process}_1"
    assert outcome.statements == [text.encode() for text in (
        f"SEARCH AI MANUALS TEXT 'red car' TOP 5 INTO TEMP {hits};",
        f"SELECT {hits}.RANK,{hits}.SCORE,{hits}.VECTOR_ID,{hits}.SOURCE_KEY,ITEMS.TITLE,"
        f"ITEMS.BODY FROM {hits},ITEMS WHERE {hits}.SOURCE_KEY=ITEMS.ID ORDER BY {hits}.RANK;",
        f"DROP TABLE {hits};")]
    sent(tools, outcome)


def test_no_two_calls_share_a_table(tools):
    names = set()
    for _ in range(3):
        sent(tools, hybrid(tools))
        names.add(hits_of(tools))
    assert len(names) == 3


def test_two_servers_at_a_time_share_no_table(servers, module_engine, tmp_path):
    libraries = []
    for name in ("one", "two"):
        (tmp_path / name).mkdir()
        libraries.append(ScriptedLibrary(tmp_path / name, module_engine.profile))
        libraries[-1].script(Script().on_exec("SEARCH AI ", prefix=True, sleep=0.5))
    running = [servers.start(env=library.env) for library in libraries]
    for server in running:
        server.initialize()
    for server in running:
        server.send(call(1, HYBRID_SEARCH, GOOD[HYBRID_SEARCH]))
    for server in running:
        assert b'"isError":false' in server.read_line()
    one, two = (library.queries() for library in libraries)
    assert [len(one), len(two)] == [3, 3]
    assert one[2] != two[2]


def test_the_joined_rows_are_the_answer(tools):
    tools.script(Script()
                 .on_exec("SEARCH AI ", prefix=True, status="searched", columns=["A"],
                          rows=[["1"]])
                 .on_exec("SELECT ", prefix=True, status="2 rows", columns=["RANK", "TITLE"],
                          rows=[["1", "Car"], ["2", None]])
                 .on_exec("DROP ", prefix=True, status="dropped", columns=["B"], rows=[["2"]]))
    hybrid(tools).is_success(
        result_json(["RANK", "TITLE"], [["1", "Car"], ["2", ""]], status="2 rows"), objects="",
        statements=statements(tools))


def test_the_bounds_of_the_three(tools):
    """`top` for the search and for the select, one for the drop."""
    tools.script(Script().on_exec(columns=["A"], repeat=[(300, ["x"])]))
    outcome = hybrid(tools, top=2)
    outcome.is_success(result_json(["A"], [["x"]] * 2, truncated=True), objects="",
                       statements=statements(tools, top=2))
    assert tools.engine.operations().count("Next") == 2 + 2 + 1


@pytest.mark.parametrize("top, rows, truncated", [(1, 1, True), (255, 254, False),
                                                  (256, 256, True), (256, 300, True)])
def test_top_bounds_the_rows(tools, top, rows, truncated):
    tools.script(Script().on_exec("SELECT ", prefix=True, columns=["A"], repeat=[(rows, ["x"])]))
    hybrid(tools, top=top).is_success(
        result_json(["A"], [["x"]] * min(top, rows), truncated=truncated), objects="",
        statements=statements(tools, top=top))


# --- the temporary table --------------------------------------------------------------------------

@pytest.mark.parametrize("answer, words", FAILURES, ids=FAILURE_NAMES)
def test_after_a_failed_search_nothing_runs(tools, answer, words):
    tools.script(Script().on_exec("SEARCH AI ", prefix=True, **answer))
    outcome = hybrid(tools)
    outcome.is_error(words, statements=statements(tools)[:1])


@pytest.mark.parametrize("answer, words", FAILURES, ids=FAILURE_NAMES)
def test_after_a_failed_select_the_table_is_dropped(tools, answer, words):
    tools.script(Script().on_exec("SELECT ", prefix=True, **answer))
    outcome = hybrid(tools)
    outcome.is_error(words, statements=statements(tools))


@pytest.mark.parametrize("answer", [answer for answer, _ in FAILURES], ids=FAILURE_NAMES)
def test_a_failed_drop_does_not_count(tools, answer):
    tools.script(Script().on_exec("DROP ", prefix=True, **answer))
    sent(tools, hybrid(tools))


def test_the_words_are_those_of_the_select(tools):
    tools.script(Script().on_exec("SELECT ", prefix=True, result=0, status="no select")
                 .on_exec("DROP ", prefix=True, result=0, status="no drop"))
    hybrid(tools).is_error("no select", statements=statements(tools))


@pytest.mark.parametrize("failing, reached", [("SEARCH AI ", 1), ("SELECT ", 2), ("DROP ", 3)])
def test_a_library_that_crashes(tools, failing, reached):
    """The worker fails with the library; removing the table is left to the engine."""
    tools.script(Script().on_exec(failing, prefix=True, crash=True))
    outcome = hybrid(tools)
    assert outcome.reply == WORKER_FAILED
    assert outcome.records == []
    assert outcome.statements == [text.encode() for text in statements(tools)[:reached]]


def test_without_an_engine(module_servers, engine, tmp_path):
    tools = ToolCalls(module_servers, engine, tmp_path, env={"KOVA_MCP_PASSWORD": None})
    hybrid(tools).is_error(NO_SESSION)
    hybrid(tools, columns=[]).is_error(HYBRID_COUNT)
    assert engine.calls() == []


# --- what enters the statements -------------------------------------------------------------------

@pytest.mark.parametrize("text, literal", [
    ("O'Brien", "'O''Brien'"), ("'; DROP TABLE ITEMS; --", "'''; DROP TABLE ITEMS; --'"),
    ("a\n\t\r\\\"", "'a\n\t\r\\\"'"), ("%s é", "'%s é'"), (" INTO TEMP x;", "' INTO TEMP x;'"),
    ("x" * 8192, "'" + "x" * 8192 + "'"), ("'" * 8192, "'" + "'" * 16384 + "'")],
    ids=lambda value: repr(value)[:30])
def test_the_literal_of_a_text(tools, text, literal):
    sent(tools, hybrid(tools, text=text), literal=literal)


def test_names_are_sent_as_the_client_writes_them(tools):
    tools.policy(allowed_tables=["9_items"], denied_columns=["SSN"])
    outcome = hybrid(tools, collection="manuals", source_table="9_ITEMS", key_field="id",
                     columns=["a", "A", "_", "9", "a"], top=256, _meta={"columns": 7})
    sent(tools, outcome, collection="manuals", table="9_ITEMS", key="id", top=256,
         columns=("a", "A", "_", "9", "a"))


def test_an_escaped_name_is_a_name(tools):
    members = json.dumps(GOOD[HYBRID_SEARCH]).replace("TITLE", "T\\u0049TLE")
    sent(tools, tools.raw(arguments(HYBRID_SEARCH, members), tool=HYBRID_SEARCH))


def test_the_longest_names(tools):
    collection, table, key = "C" * 63, "T" * 63, "K" * 63
    columns = tuple((f"F{n}_" + "f" * 63)[:63] for n in range(16))
    tools.policy(allowed_collections=[collection], allowed_tables=[table])
    outcome = hybrid(tools, collection=collection, source_table=table, key_field=key,
                     columns=columns, text="'" * 8192, top=256)
    sent(tools, outcome, collection=collection, table=table, key=key, columns=columns, top=256,
         literal="'" + "'" * 16384 + "'")


@pytest.mark.parametrize("count, fits", [(0, False), (1, True), (16, True), (17, False),
                                         (1000, False)])
def test_there_are_1_to_16_columns(tools, count, fits):
    columns = tuple(f"F{n}" for n in range(count))
    outcome = hybrid(tools, columns=columns)
    if fits:
        sent(tools, outcome, columns=columns)
    else:
        outcome.is_error(HYBRID_COUNT)


# --- arguments ------------------------------------------------------------------------------------

@pytest.mark.parametrize("changes", [
    {"x": 1}, {"": 1}, {"Text": "x"}, {"vector": [1]}, {"provider": "LOCAL"}, {"max_rows": 5},
    {"k" * 64: 1}, {"top": ABSENT}, {"top": ABSENT, "TOP": 5}, {"text": ABSENT}, {"text": None},
    {"text": 7}, {"text": ["x"]}, {"text": ""}, {"text": "x" * 8193}, {"text": "'" * 8193},
    {"text": "é" * 4096 + "x"}, {"text": "\x00x"}, {"text": "x" * 16401}],
    ids=lambda changes: str(changes)[:30])
def test_arguments_that_are_refused(tools, changes):
    hybrid(tools, **changes).is_error(HYBRID_ARGUMENTS)


@pytest.mark.parametrize("top", REFUSED_TOPS)
def test_bounds_that_are_refused(tools, top):
    members = json.dumps({**GOOD[HYBRID_SEARCH], "top": "TOP"}).replace('"TOP"', top)
    tools.raw(arguments(HYBRID_SEARCH, members), tool=HYBRID_SEARCH).is_error(HYBRID_ARGUMENTS)


@pytest.mark.parametrize("text", ['"\\ud800"', '"a\\udc00"', '"a\\u0000' + "x" * 16399 + '"'],
                         ids=lambda text: text[:10])
def test_texts_that_cannot_be_decoded(tools, text):
    members = json.dumps({**GOOD[HYBRID_SEARCH], "text": "TEXT"}).replace('"TEXT"', text)
    tools.raw(arguments(HYBRID_SEARCH, members), tool=HYBRID_SEARCH).is_error(HYBRID_ARGUMENTS)


@pytest.mark.parametrize("member, message", [
    ("collection", COLLECTION), ("text", HYBRID_ARGUMENTS), ("top", HYBRID_ARGUMENTS),
    ("source_table", SOURCE), ("key_field", SOURCE), ("columns", COLUMNS)])
def test_every_member_is_needed_in_its_own_spelling(tools, member, message):
    """An escaped key is allowed and not found."""
    decision = "deny" if member == "collection" else "allow"
    hybrid(tools, **{member: ABSENT}).is_error(message, decision=decision)
    escaped = json.dumps(GOOD[HYBRID_SEARCH]).replace(
        f'"{member}":', f'"\\u{ord(member[0]):04x}{member[1:]}":')
    tools.raw(arguments(HYBRID_SEARCH, escaped), tool=HYBRID_SEARCH).is_error(message,
                                                                              decision=decision)


def test_members_that_stand_twice(tools):
    members = json.dumps(GOOD[HYBRID_SEARCH])[:-1] + ',"c\\u006flumns":[]}'
    outcome = tools.raw(arguments(HYBRID_SEARCH, members), tool=HYBRID_SEARCH)
    assert outcome.reply == PARSE_ERROR
    assert (outcome.statements, outcome.records) == ([], [])


@pytest.mark.parametrize("byte", sorted(set(range(1, 32)) - {9, 10, 13}))
def test_a_control_byte_has_a_message_of_its_own(tools, byte):
    hybrid(tools, text=f"a{chr(byte)}b").is_error(HYBRID_TEXT)


@pytest.mark.parametrize("changes, message, decision", [
    # After the policy: the arguments, the number of columns, the control bytes.
    ({"text": "\x01", "columns": []}, HYBRID_COUNT, "allow"),
    ({"text": "\x01", "columns": ["F"] * 17}, HYBRID_COUNT, "allow"),
    ({"text": "\x01", "columns": [], "top": 0}, HYBRID_ARGUMENTS, "allow"),
    ({"columns": [], "x": 1}, HYBRID_ARGUMENTS, "allow"),
    ({"columns": ["F"] * 17, "text": ""}, HYBRID_ARGUMENTS, "allow"),
    # The policy check reads the names of the columns before their number, and the rest first.
    ({"columns": ["A-B"]}, COLUMN, "allow"),
    ({"columns": ["F"] * 17 + ["A-B"], "top": 0}, COLUMN, "allow"),
    ({"columns": ["SSN"], "text": "\x01", "x": 1}, COLUMN, "allow"),
    ({"columns": [], "key_field": "SSN", "x": 1}, SOURCE, "allow"),
    ({"columns": None, "source_table": "HIDDEN", "top": 0}, SOURCE, "allow"),
    ({"columns": None, "top": 0}, COLUMNS, "allow"),
    ({"collection": "OTHER", "source_table": "HIDDEN", "x": 1}, COLLECTION, "deny"),
], ids=lambda value: str(value)[:50])
def test_the_order_of_the_checks(tools, changes, message, decision):
    tools.policy(denied_columns=["SSN"])
    hybrid(tools, **changes).is_error(message, decision=decision)


# --- the policy -----------------------------------------------------------------------------------

@pytest.mark.parametrize("overrides, message, decision", [
    ({"reads_enabled": False}, READS_OFF, "deny"),
    ({"provider_reads_enabled": False}, PROVIDERS_OFF, "kill_switch"),
    ({"allowed_collections": ["OTHER"]}, COLLECTION, "deny"),
    ({"allowed_tables": ["ORDERS"]}, SOURCE, "allow"),
    ({"denied_columns": ["id"]}, SOURCE, "allow"),
    ({"denied_columns": ["body"]}, COLUMN, "allow"),
], ids=str)
def test_the_gates_refuse_good_arguments(tools, overrides, message, decision):
    tools.policy(**overrides)
    hybrid(tools).is_error(message, decision=decision)


def test_the_kill_switch(module_servers, engine, tmp_path):
    tools = ToolCalls(module_servers, engine, tmp_path, env=PROVIDERS_SWITCH)
    hybrid(tools).is_error(PROVIDERS_OFF, decision="kill_switch")
    hybrid(tools, collection="OTHER", columns=None, x=1).is_error(PROVIDERS_OFF,
                                                                  decision="kill_switch")
    assert engine.calls() == []


def test_without_a_policy(module_servers, engine, tmp_path):
    tools = ToolCalls(module_servers, engine, tmp_path, configured=False)
    sent(tools, hybrid(tools, collection="Any", source_table="T", key_field="K", columns=["C"]),
         collection="Any", table="T", key="K", columns=("C",))
