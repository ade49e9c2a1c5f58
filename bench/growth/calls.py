"""Calls over the standard streams: how their time grows with cells and bytes."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any, Callable

from common.messages import line
from common.stdio import Failed, Program
from figures.turns import by_turns
from growth.series import Series

ROWS = [1, 16, 32, 64, 128, 256]
COLUMNS = [1, 4, 8, 16, 32, 64]
"""Both to the limit of a result; with the most of the other. Fewer cells cost less than the call
itself."""
BYTES = [62_500, 125_000, 250_000, 500_000, 1_000_000]
IDS = 240
"""A server takes 256 requests that are no tool calls."""
PADDING = "The quick brown fox jumps over the lazy dog. "


def query(sql: str, rows: int) -> bytes:
    return line("tools/call", 1, {"name": "kova_query",
                                  "arguments": {"sql": sql, "max_rows": rows}})


def cells_query(rows: int, columns: int) -> bytes:
    names = ", ".join(f"C{number}" for number in range(1, columns + 1))
    return query(f"SELECT {names} FROM ORDERS WHERE ID <= {rows}", rows)


def padded(method: str, number: int, params: "dict[str, Any]", size: int) -> bytes:
    """A line of this many bytes; `_meta` makes it that long."""
    bare = len(line(method, number, {**params, "_meta": {"pad": ""}}))
    pad = (PADDING * (size // len(PADDING) + 1))[:size - bare]
    return line(method, number, {**params, "_meta": {"pad": pad}})


def of_results(server: Path, rounds: int) -> "list[Series]":
    with Program([str(server)]) as program:
        program.initialize()
        sizes = {**{("rows", rows): (rows, COLUMNS[-1]) for rows in ROWS},
                 **{("columns", columns): (ROWS[-1], columns) for columns in COLUMNS}}
        subjects: "dict[tuple[str, int], Callable[[], float]]" = {}
        for (kind, _), size in sizes.items():
            request = cells_query(*size)
            _check_rows(program.exchange(request), size[0])
            subjects[kind, size[0] * size[1]] = lambda request=request: program.asked(request)
        found = by_turns(subjects, rounds)
    return [Series(f"cells, by {kind}", f"cells of a kova_query, more {kind} each time", "µs",
                   {cells: values for (which, cells), values in found.items() if which == kind})
            for kind in ("rows", "columns")]


def _check_rows(line_of_reply: bytes, count: int) -> None:
    reply = json.loads(line_of_reply)
    if reply["result"].get("structuredContent", {}).get("rowCount") != count:
        raise Failed(f"not {count} rows: {str(reply)[:200]}")


def of_bytes(server: Path, rounds: int) -> "list[Series]":
    """A ping and a call that the policy answers, as lines of the same length."""
    with Program([str(server)]) as program:
        program.initialize()
        number = 1

        def ping(size: int) -> float:
            nonlocal number
            number += 1
            return program.asked(padded("ping", number, {}, size))

        call = {"name": "kova_list_tables", "arguments": {}}
        subjects: "dict[tuple[str, int], Callable[[], float]]" = {}
        for size in BYTES:
            request = padded("tools/call", 1, call, size)
            subjects["ping", size] = lambda size=size: ping(size)
            subjects["call", size] = lambda request=request: program.asked(request)
        found = by_turns(subjects, min(rounds, IDS // len(BYTES) - 1))
    return [Series(f"bytes: {kind}", f"bytes of a {kind}", "µs",
                   {size: found[kind, size] for size in BYTES}) for kind in ("ping", "call")]
