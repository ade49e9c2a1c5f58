"""Calls over the standard streams: how their time grows with cells and bytes."""

from __future__ import annotations

import itertools
from contextlib import ExitStack
from functools import partial
from typing import Any, Callable

from common.messages import line
from common.stdio import Failed, Program
from figures.turns import by_turns
from growth.series import Series
from peers.subjects import Peer

ROWS = [1, 16, 32, 64, 128, 256]
COLUMNS = [1, 4, 8, 16, 32, 64]
"""Both to the limit of a result; with the most of the other. Fewer cells cost less than the call
itself."""
BYTES = [62_500, 125_000, 250_000, 500_000, 1_000_000]
IDS = 240
"""A server takes 256 requests that are no tool calls."""
PADDING = "The quick brown fox jumps over the lazy dog. "
CELL = b"cell 0"
"""What the first column holds; a reply may have it more than once for each row."""
Subjects = dict[tuple[str, str, int], Callable[[], float]]
"""By server, kind and size."""


def select(rows: int, columns: int) -> str:
    names = ", ".join(f"C{number}" for number in range(1, columns + 1))
    return f"SELECT {names} FROM ORDERS WHERE ID <= {rows}"


def padded(method: str, number: int, params: "dict[str, Any]", size: int) -> bytes:
    """A line of this many bytes; `_meta` makes it that long."""
    bare = len(line(method, number, {**params, "_meta": {"pad": ""}}))
    pad = (PADDING * (size // len(PADDING) + 1))[:size - bare]
    return line(method, number, {**params, "_meta": {"pad": pad}})


def started(stack: ExitStack, peer: Peer) -> Program:
    program = stack.enter_context(Program(peer.stdio, peer.environment))
    program.initialize()
    return program


def of_results(all_peers: "list[Peer]", rounds: int) -> "list[Series]":
    """More rows of all servers, more columns of ours, the first of them."""
    ours = all_peers[0]
    by_rows = {("rows", rows): (rows, COLUMNS[-1]) for rows in ROWS}
    by_columns = {("columns", columns): (ROWS[-1], columns) for columns in COLUMNS}
    with ExitStack() as stack:
        subjects: Subjects = {}
        for peer in all_peers:
            program = started(stack, peer)
            one_row = program.answered(peer.select_line(1, select(1, 1), 1))[1].count(CELL)
            sizes = {**by_rows, **by_columns} if peer is ours else by_rows
            for (kind, _), (rows, columns) in sizes.items():
                request = peer.select_line(1, select(rows, columns), rows)
                check_rows(peer.name, program.answered(request)[1], rows, one_row)
                subjects[peer.name, kind, rows * columns] = partial(program.asked, request)
        found = by_turns(subjects, rounds)
    of = "cells of a query, more {} each time"
    return [*_series("cells, by rows", of.format("rows"), "rows", all_peers, found),
            *_series("cells, by columns", of.format("columns"), "columns", [ours], found)]


def check_rows(name: str, reply: bytes, rows: int, of_one_row: int) -> None:
    """`of_one_row` is how often a reply of one row has the first cell."""
    if of_one_row == 0 or reply.count(CELL) != rows * of_one_row:
        raise Failed(f"{name}: not {rows} rows: {reply[:200]!r}")


def of_bytes(all_peers: "list[Peer]", rounds: int) -> "list[Series]":
    """A ping of all servers, and a call that the policy of ours, the first of them, answers, as
    lines of the same length."""
    ours, numbers = all_peers[0], itertools.count(1)
    call = {"name": "kova_list_tables", "arguments": {}}

    def ping(program: Program, size: int) -> float:
        return program.asked(padded("ping", next(numbers), {}, size))

    with ExitStack() as stack:
        programs = {peer.name: started(stack, peer) for peer in all_peers}
        subjects: Subjects = {}
        for size in BYTES:
            for name, program in programs.items():
                subjects[name, "ping", size] = partial(ping, program, size)
            request = padded("tools/call", next(numbers), call, size)
            subjects[ours.name, "call", size] = partial(programs[ours.name].asked, request)
        found = by_turns(subjects, min(rounds, IDS // len(BYTES) - 1))
    return [*_series("bytes: ping", "bytes of a ping", "ping", all_peers, found),
            *_series("bytes: call", "bytes of a call", "call", [ours], found)]


def _series(name: str, of: str, kind: str, of_peers: "list[Peer]",
            found: "dict[tuple[str, str, int], list[float]]") -> "list[Series]":
    """Of ours, the first, and of the others."""
    return [Series(name, of, "µs", {size: values for (whose, which, size), values in found.items()
                                    if (whose, which) == (peer.name, kind)},
                   "" if place == 0 else peer.name)
            for place, peer in enumerate(of_peers)]
