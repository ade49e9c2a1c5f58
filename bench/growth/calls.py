"""Calls over the standard streams: how their time grows with rows, columns and bytes."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any, Callable

from figures.turns import by_turns
from growth.series import Series
from peers.stdio import Failed, Program
from peers.subjects import line

ROWS = [8, 16, 32, 64, 128, 256]
"""To the limit of a result."""
COLUMNS = [4, 8, 16, 32, 64]
"""To the limit of a result."""
ROWS_OF_COLUMNS = 16
BYTES = [62_500, 125_000, 250_000, 500_000, 1_000_000]
IDS = 240
"""A server takes 256 requests that are no tool calls."""
PADDING = "The quick brown fox jumps over the lazy dog. "


def query(sql: str, rows: int) -> bytes:
    return line("tools/call", 1, {"name": "kova_query",
                                  "arguments": {"sql": sql, "max_rows": rows}})


def rows_query(rows: int) -> bytes:
    return query(f"SELECT ID, C1 FROM ORDERS WHERE ID <= {rows}", rows)


def columns_query(columns: int) -> bytes:
    names = ", ".join(f"C{number}" for number in range(1, columns + 1))
    return query(f"SELECT {names} FROM ORDERS WHERE ID <= {ROWS_OF_COLUMNS}", ROWS_OF_COLUMNS)


def padded(method: str, number: int, params: "dict[str, Any]", size: int) -> bytes:
    """A line of this many bytes; `_meta` makes it that long."""
    bare = len(line(method, number, {**params, "_meta": {"pad": ""}}))
    pad = (PADDING * (size // len(PADDING) + 1))[:size - bare]
    return line(method, number, {**params, "_meta": {"pad": pad}})


def of_results(server: Path, rounds: int) -> "list[Series]":
    with Program([str(server)]) as program:
        program.initialize()
        requests = {"rows": {count: rows_query(count) for count in ROWS},
                    "columns": {count: columns_query(count) for count in COLUMNS}}
        for count, request in requests["rows"].items():
            reply = json.loads(program.exchange(request))
            if reply["result"].get("structuredContent", {}).get("rowCount") != count:
                raise Failed(f"not {count} rows: {str(reply)[:200]}")
        found = {kind: by_turns({count: lambda request=request: program.asked(request)
                                 for count, request in by_count.items()}, rounds)
                 for kind, by_count in requests.items()}
    return [Series("rows", "rows of a kova_query", "µs", found["rows"]),
            Series("columns", f"columns of a kova_query of {ROWS_OF_COLUMNS} rows", "µs",
                   found["columns"])]


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
