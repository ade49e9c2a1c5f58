"""The results that docs/policy.md says to stay whole: its formula, and each row of its table."""

from __future__ import annotations

import json
import re

import pytest

from harness.messages import call
from harness.scripted_library import Repeat, Script
from harness.targets import ROOT

pytestmark = pytest.mark.threads

TEXT = (ROOT / "docs" / "policy.md").read_text("utf-8")
STDIO, HTTP = (int(number.replace(",", "")) for number in re.search(
    r"a name \+ 4\) ≤ ([\d,]+), over HTTP ([\d,]+)", TEXT).groups())
ROW = re.compile(r"^\| (\d+)[^|]* \| (\d+) \| ([\d,]+)[^|]* \| ([\d,]+) \|$", re.M)
TABLE = [tuple(int(cell.replace(",", "")) for cell in row) for row in ROW.findall(TEXT)]
NAME = "COLUMN_{:02}"
NAME_SIZE = len(NAME.format(0))


def weight(rows: int, columns: int, cell: int) -> int:
    return rows * (columns * (cell + 4) + 3) + columns * (NAME_SIZE + 4)


def longest_cell(rows: int, columns: int, most: int) -> int:
    """The longest one that the formula allows."""
    return ((most - columns * (NAME_SIZE + 4)) // rows - 3) // columns - 4


def query(engine, rows: int, columns: int, cell: int) -> bytes:
    engine.script(Script().on_exec(
        "SELECT 1;", columns=[NAME.format(number) for number in range(columns)],
        repeat=[(rows, [Repeat(cell)] * columns)]))
    return call("x" * 95, "kova_query", {"sql": "SELECT 1", "max_rows": rows})


def expect_whole(reply: bytes, rows: int, columns: int, cell: int) -> None:
    result = json.loads(reply)["result"]["structuredContent"]
    assert result["rows"] == [["x" * cell] * columns] * rows


def test_the_table_is_of_the_formula():
    assert len(TABLE) == 9
    for rows, columns, stdio, http in TABLE:
        assert weight(rows, columns, stdio) <= STDIO and weight(rows, columns, http) <= HTTP


@pytest.mark.parametrize("rows, columns", [row[:2] for row in TABLE])
def test_stdio(start, engine, rows, columns):
    cell = min(longest_cell(rows, columns, STDIO), 16384)
    reply = start(env=engine.env).ask(query(engine, rows, columns, cell))
    expect_whole(reply, rows, columns, cell)


@pytest.mark.parametrize("rows, columns", [row[:2] for row in TABLE])
def test_http(http, engine, rows, columns):
    cell = longest_cell(rows, columns, HTTP)
    listener = http(engine.env)
    session = listener.open_session()
    reply = listener.post_message(query(engine, rows, columns, cell), session)
    expect_whole(reply.partition(b"\r\n\r\n")[2], rows, columns, cell)


@pytest.mark.parametrize("over_http", [False, True], ids=["stdio", "HTTP"])
def test_a_result_beyond_it_is_not_whole(start, http, engine, over_http):
    message = query(engine, 256, 10, longest_cell(256, 10, HTTP if over_http else STDIO) + 2)
    if not over_http:
        with pytest.raises(json.JSONDecodeError):
            json.loads(start(env=engine.env).ask(message))
        return
    listener = http(engine.env)
    reply = listener.post_message(message, listener.open_session())
    assert reply.startswith(b"HTTP/1.1 502 ")
