"""Calls over the standard streams: how their time grows with cells, keys, tokens and bytes."""

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
MEMBERS = [125, 250, 500, 1000, 2000]
"""The longest is what one message to ours may hold: 4,096 tokens."""
BYTES = [62_500, 125_000, 250_000, 500_000, 1_000_000]
IDS = 240
"""A server takes 256 requests that are no tool calls."""
PADDING = "The quick brown fox jumps over the lazy dog. "
POLICY_ANSWERED = {"name": "kova_list_tables", "arguments": {}}
CELL = b"cell 0"
"""What the first column holds; a reply may have it more than once for each row."""
Subjects = dict[tuple[str, str, int], Callable[[], float]]
"""By server, kind and size."""
Sized = Callable[[str, int, "dict[str, Any]", int], bytes]
"""Makes a line of a method, an id and params that holds so many items in its member `_meta`."""


def select(rows: int, columns: int) -> str:
    names = ", ".join(f"C{number}" for number in range(1, columns + 1))
    return f"SELECT {names} FROM ORDERS WHERE ID <= {rows}"


def padded(method: str, number: int, params: "dict[str, Any]", size: int) -> bytes:
    """A line of this many bytes; `_meta` makes it that long."""
    bare = len(line(method, number, {**params, "_meta": {"pad": ""}}))
    pad = (PADDING * (size // len(PADDING) + 1))[:size - bare]
    return line(method, number, {**params, "_meta": {"pad": pad}})


def keyed(method: str, number: int, params: "dict[str, Any]", keys: int) -> bytes:
    """Keys in no order, and others in each message."""
    members = {f"key_{number}_{key * 7919 % keys}": key for key in range(keys)}
    return line(method, number, {**params, "_meta": members})


def listed(method: str, number: int, params: "dict[str, Any]", pairs: int) -> bytes:
    """A list of numbers and nulls: two tokens for each pair."""
    items = [item for pair in range(pairs) for item in ((pair + number) * 7919 % pairs, None)]
    return line(method, number, {**params, "_meta": {"list": items}})


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


def of_pings(all_peers: "list[Peer]", rounds: int) -> "list[Series]":
    """A ping of all servers with more and more keys, tokens and bytes, and a call of ours with
    more and more bytes."""
    return [*_of_pings("keys", MEMBERS, keyed, all_peers, rounds),
            *_of_pings("pairs of tokens", MEMBERS, listed, all_peers, rounds),
            *_of_pings("bytes", BYTES, padded, all_peers, rounds, with_calls=True)]


def _of_pings(items: str, sizes: "list[int]", sized: Sized, all_peers: "list[Peer]", rounds: int,
              with_calls: bool = False) -> "list[Series]":
    """With calls, also those of the same sizes that the policy of ours, the first of the servers,
    answers."""
    ours, numbers = all_peers[0], itertools.count(1)

    def ping(program: Program, size: int) -> float:
        return program.asked(sized("ping", next(numbers), {}, size))

    with ExitStack() as stack:
        programs = {peer.name: started(stack, peer) for peer in all_peers}
        subjects: Subjects = {(name, "ping", size): partial(ping, program, size)
                              for size in sizes for name, program in programs.items()}
        for size in sizes if with_calls else []:
            request = sized("tools/call", next(numbers), POLICY_ANSWERED, size)
            subjects[ours.name, "call", size] = partial(programs[ours.name].asked, request)
        found = by_turns(subjects, min(rounds, IDS // len(sizes) - 1))
    pings = _series(f"{items}: ping", f"{items} of a ping", "ping", all_peers, found)
    if not with_calls:
        return pings
    return [*pings, *_series(f"{items}: call", f"{items} of a call", "call", [ours], found)]


def _series(name: str, of: str, kind: str, of_peers: "list[Peer]",
            found: "dict[tuple[str, str, int], list[float]]") -> "list[Series]":
    """Of ours, the first, and of the others."""
    return [Series(name, of, "µs", {size: values for (whose, which, size), values in found.items()
                                    if (whose, which) == (peer.name, kind)},
                   "" if place == 0 else peer.name)
            for place, peer in enumerate(of_peers)]
