"""Running one statement: the result's JSON, its limits, and what a failing library leads to."""

from __future__ import annotations

import pytest

from harness.messages import tool_error_reply
from harness.scripted_library import Repeat, Script
from harness.tool_calls import Outcome, ToolCalls, result_json

COLUMNS_EXCEEDED = "database result column limit exceeded"
CELL_EXCEEDED = "database cell limit exceeded"
BYTES_EXCEEDED = "database result byte limit exceeded"
NO_SESSION = "authenticated Vantreo profile is unavailable"
CELL = 16384
CEILING = 1048575
REPLY_LIMIT = 1048577

SESSION = ["CreateVantreoInstance", "DisableMessage", "StartVantreo", "NewObject", "Exec", "Exec"]
END = ["FreeObject", "StopVantreo"]


@pytest.fixture
def tools(without_policy: ToolCalls) -> ToolCalls:
    return without_policy.reset()


def select(tools: ToolCalls, max_rows: int = 100, **answer) -> Outcome:
    """Runs a SELECT with this result of the library."""
    tools.script(Script().on_exec("SELECT 1;", **answer))
    return tools("kova_query", {"sql": "SELECT 1", "max_rows": max_rows})


def succeeds(outcome: Outcome, result: str) -> None:
    outcome.is_success(result, objects="policy-select", statements=["SELECT 1;"])


def fails(outcome: Outcome, message: str) -> None:
    outcome.is_error(message, objects="policy-select", statements=["SELECT 1;"])


def test_no_columns_and_no_rows(tools):
    succeeds(select(tools, status="5 rows changed"),
             '{"status":"5 rows changed","columns":[],"rows":[],"rowCount":0,"truncated":false}')


def test_a_status_that_is_null(tools):
    succeeds(select(tools, status=None), result_json(status=""))


def test_rows_of_no_columns(tools):
    succeeds(select(tools, rows=[[], []]),
             '{"status":"OK","columns":[],"rows":[[],[]],"rowCount":2,"truncated":false}')


def test_null_cells_and_names(tools):
    succeeds(select(tools, columns=["A", None, ""], rows=[[None, "", "x"], [None]]),
             result_json(["A", "", ""], [["", "", "x"], ["", "", ""]]))


def test_every_cell_is_a_text(tools):
    succeeds(select(tools, columns=["N"], rows=[["7"], ["1.50"], ["true"], ["null"], [" 2 "]]),
             result_json(["N"], [["7"], ["1.50"], ["true"], ["null"], [" 2 "]]))


@pytest.mark.parametrize("cell, escaped", [
    (b'"\\\n\x01\xc3\xa9', b'\\"\\\\\\n\\u0001\xc3\xa9'),
    (b"\r\t\b\f\x0b\x1f", b"\\r\\t\\u0008\\u000c\\u000b\\u001f"),
    (b"/\x7f <>&'", b"/\x7f <>&'"),
    # Bytes that are not UTF-8 are passed on unchanged.
    (b"\xff\xc3", b"\xff\xc3"),
], ids=repr)
@pytest.mark.parametrize("place", ["cell", "name", "status"])
def test_escapes(tools, place, cell, escaped):
    """The reply contains it twice: as JSON, and escaped inside the text."""
    answer = {"cell": {"columns": ["A"], "rows": [[cell]]}, "name": {"columns": [cell]},
              "status": {"status": cell}}[place]
    result = {
        "cell": b'{"status":"OK","columns":["A"],"rows":[["%s"]],"rowCount":1,"truncated":false}',
        "name": b'{"status":"OK","columns":["%s"],"rows":[],"rowCount":0,"truncated":false}',
        "status": b'{"status":"%s","columns":[],"rows":[],"rowCount":0,"truncated":false}',
    }[place] % escaped
    outcome = select(tools, **answer)
    text = result.replace(b"\\", b"\\\\").replace(b'"', b'\\"')
    assert outcome.reply == (b'{"jsonrpc":"2.0","id":%s,"result":{"content":[{"type":"text",'
                             b'"text":"%s"}],"structuredContent":%s,"isError":false}}\n'
                             % (outcome.raw_id.encode(), text, result))
    assert outcome.records[0]["bytes"] == len(result)


def test_64_columns(tools):
    names = [f"C{n}" for n in range(64)]
    succeeds(select(tools, columns=names, rows=[names]), result_json(names, [names]))
    assert tools.engine.operations().count("FieldName") == 64


@pytest.mark.parametrize("answer", [
    {"columns": ["C"] * 65}, {"fields": 65}, {"fields": 2147483647}, {"fields": -1},
    {"fields": -2147483648},
    # Checked before the status, the names and the cells.
    {"fields": 65, "rows": [[Repeat(CELL + 1)]]}], ids=lambda answer: str(answer)[:30])
def test_too_many_columns(tools, answer):
    fails(select(tools, **answer), COLUMNS_EXCEEDED)
    assert tools.engine.operations() == SESSION + ["Exec", "FieldCount"] + END


def test_the_order_of_the_calls(tools):
    select(tools, columns=["A", "B"], rows=[["1", "2"], ["3", "4"]])
    row = ["Next", "DataByFno", "DataByFno"]
    assert tools.engine.operations() == SESSION + [
        "Exec", "FieldCount", "Status", "FieldName", "FieldName", *row, *row, "Next"] + END
    numbers = [call.arguments for call in tools.engine.calls()
               if call.operation in ("FieldName", "DataByFno")]
    assert numbers == [(b"object", b"1"), (b"object", b"2")] * 3


def test_no_row_behind_the_bound_is_asked_for(tools):
    """Neither further rows nor their cells are read."""
    answer = {"columns": ["A"], "rows": [["x"], ["y"], [Repeat(CELL + 1)]]}
    succeeds(select(tools, 2, **answer), result_json(["A"], [["x"], ["y"]], truncated=True))
    assert tools.engine.operations().count("Next") == 2
    fails(select(tools, 3, **answer), CELL_EXCEEDED)


@pytest.mark.parametrize("rows, max_rows, truncated", [(1, 1, True), (0, 1, False),
                                                       (255, 256, False), (256, 256, True)])
def test_truncated_means_that_the_bound_was_met(tools, rows, max_rows, truncated):
    succeeds(select(tools, max_rows, columns=["A"], repeat=[(rows, ["x"])]),
             result_json(["A"], [["x"]] * rows, truncated=truncated))


def test_a_cell_of_16384_bytes(tools):
    succeeds(select(tools, columns=["A", "B"], rows=[["x", Repeat(CELL)]]),
             result_json(["A", "B"], [["x", "x" * CELL]]))


def test_a_cell_of_16385_bytes(tools):
    """The statement fails, whatever was read before, and nothing more is read."""
    fails(select(tools, columns=["A", "B"], rows=[["a", "b"], ["c", Repeat(CELL + 1)], ["d", "e"]]),
          CELL_EXCEEDED)
    assert tools.engine.operations()[-5:] == ["Next", "DataByFno", "DataByFno"] + END


def test_a_cell_is_measured_before_it_is_escaped(tools):
    outcome = select(tools, columns=["A"], rows=[[Repeat(CELL, b"\x01")]])
    assert outcome.records[0]["bytes"] == len(result_json(["A"], [[""]])) + 6 * CELL
    outcome = select(tools, columns=["A"], rows=[[Repeat(CELL + 1, b"\x01")]])
    fails(outcome, CELL_EXCEEDED)


@pytest.mark.parametrize("more", [0, 1, 5000])
def test_a_status_and_names_are_cut_at_16384_bytes(tools, more):
    succeeds(select(tools, status=Repeat(CELL + more, "s"), columns=[Repeat(CELL + more, "n")]),
             result_json(["n" * CELL], status="s" * CELL))


def large_answer(bytes_in_all: int) -> tuple[dict, str]:
    """Rows whose result has this number of bytes as JSON, and that result."""
    rows = 64
    frame = len(result_json(["A"], [[""]] * rows))
    short = bytes_in_all - frame - (rows - 1) * CELL
    assert 0 < short <= CELL
    answer = {"columns": ["A"], "repeat": [(rows - 1, [Repeat(CELL)]), (1, [Repeat(short)])]}
    return answer, result_json(["A"], [["x" * CELL]] * (rows - 1) + [["x" * short]])


def test_a_result_of_1048575_bytes(tools):
    """The reply contains it twice and is cut; the record is complete."""
    answer, result = large_answer(CEILING)
    assert len(result) == CEILING
    outcome = select(tools, **answer)
    text = result.replace('"', '\\"')
    whole = (f'{{"jsonrpc":"2.0","id":{outcome.raw_id},"result":{{"content":[{{"type":"text",'
             f'"text":"{text}"}}],"structuredContent":{result},"isError":false}}}}\n')
    assert outcome.reply == whole[:REPLY_LIMIT].encode() + b"\n"
    outcome.has_record(policy_decision="allow", objects="policy-select", rows=64, bytes=CEILING,
                       status="ok", error_class="none")


def test_a_result_of_1048576_bytes(tools):
    answer, _ = large_answer(CEILING + 1)
    fails(select(tools, **answer), BYTES_EXCEEDED)


@pytest.mark.parametrize("rows, fits", [(10, True), (11, False)])
def test_the_limit_counts_after_escaping(tools, rows, fits):
    outcome = select(tools, columns=["A"], repeat=[(rows, [Repeat(CELL, b"\x1f")])])
    if fits:
        assert outcome.records[0]["bytes"] == len(result_json(["A"], [[""]] * rows)) + 60 * CELL
        return
    fails(outcome, BYTES_EXCEEDED)


def test_names_alone_can_exceed_the_limit(tools):
    fails(select(tools, columns=[Repeat(CELL)] * 64), BYTES_EXCEEDED)
    assert "Next" not in tools.engine.operations()


@pytest.mark.parametrize("result", [1, 2, 4294967296, 9223372036854775807])
def test_results_that_are_a_success(tools, result):
    succeeds(select(tools, result=result), result_json())


@pytest.mark.parametrize("result", [0, -1, -4294967295, -9223372036854775808])
def test_results_that_are_a_failure(tools, result):
    fails(select(tools, result=result, status="no", columns=["A"], rows=[["x"]]), "no")
    assert tools.engine.operations() == SESSION + ["Exec", "Status"] + END


@pytest.mark.parametrize("status, words", [
    (None, "database statement failed"), ("", "database statement failed"), (" ", " "),
    (Repeat(255, "e"), "e" * 255), (Repeat(256, "e"), "e" * 255), (Repeat(70000, "e"), "e" * 255),
    ('near "x": \\ no', 'near \\"x\\": \\\\ no'), ("a\nb\tc\x08\x0c\x01", "a\\nb\\tc\\b\\f\\u0001"),
    ("é€", "é€")], ids=lambda value: repr(value)[:40])
def test_the_words_of_a_failure(tools, status, words):
    fails(select(tools, result=0, status=status), words)


def test_a_message_is_cut_between_two_characters(tools):
    for length, tail in ((254, "é"), (253, "€x"), (253, "é")):
        outcome = select(tools, result=0, status="e" * length + tail + "x")
        kept = tail if length + len(tail.encode()) <= 255 else ""
        assert outcome.reply == tool_error_reply(outcome.raw_id, "e" * length + kept)


@pytest.mark.parametrize("library", [None, "broken", "incomplete"])
def test_without_a_usable_library(module_servers, engine, tmp_path, library):
    """Everything except statements works."""
    tools = ToolCalls(module_servers, engine, tmp_path, library=library)
    tools("kova_query", {"sql": "SELECT 1"}).is_error(NO_SESSION, objects="policy-select")
    tools("kova_describe_table", {"table": "ITEMS"}).is_error(NO_SESSION, objects="ITEMS")
    tools("kova_list_databases").is_success(
        result_json(["NAME"], [["SALES"]], status="policy-filtered"), objects="database-catalog")
    assert engine.calls() == []


def test_the_library_is_not_taken_from_the_current_directory(servers, engine, tmp_path):
    folder = servers.installation.executable("scripted").parent
    server = servers.start(env=engine.env, library=None, cwd=folder)
    reply = server.ask(b'{"jsonrpc":"2.0","id":1,"method":"tools/call",'
                       b'"params":{"name":"kova_list_tables"}}\n')
    assert reply == tool_error_reply("1", NO_SESSION)
    assert engine.calls() == []


@pytest.mark.parametrize("operation", ["Exec", "FieldCount", "Status", "FieldName", "Next",
                                       "DataByFno"])
def test_a_library_that_crashes(tools, operation):
    """The call gets a reply and no record; the next one works."""
    script = Script().on_exec("SELECT 1;", columns=["A"], rows=[["x"]])
    if operation == "Exec":
        script = Script().on_exec("SELECT 1;", crash=True)
    else:
        script.on(operation, crash=True)
    tools.script(script)
    outcome = tools("kova_query", {"sql": "SELECT 1"})
    assert outcome.reply == (b'{"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":'
                             b'"isolated MCP tool worker failed"}}\n')
    assert outcome.records == []
    succeeds(select(tools), result_json())
