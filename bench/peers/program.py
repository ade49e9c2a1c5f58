"""Start, ping, one-row query and memory of the server and of its peers, in one run."""

from __future__ import annotations

import argparse
import json
import subprocess
import sys
import tempfile
from contextlib import ExitStack
from pathlib import Path
from typing import Any, Callable

import http_plan
from common.messages import line
from common.stdio import Failed, Program
from figures import raw, record, samples, turns
from figures.conditions import Moment
from figures.peer_tables import FLOOR
from peers.subjects import EXPECTED, Peer, peers
from peers.watch import Watch

PINGS = 200
"""In a batch; of ours each gets a new program, which takes 256 requests that are no tool calls."""
QUERIES = 50
WARM_UP = 20
CLIENTS = [1, 2, 4, 8]
"""Over HTTP."""
MEMORY_CALLS = 300
MEMORY_ROUNDS = 5
FLOOR_LOOKS = 20


def parse(arguments: "list[str]") -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="bench/run peers", allow_abbrev=False)
    parser.add_argument("--server", type=Path, required=True)
    parser.add_argument("--floor", type=Path, required=True, help="the empty program")
    parser.add_argument("--floor-calls", type=Path, required=True,
                        help="the program that starts the empty one for each line")
    parser.add_argument("--http-floor", type=Path, required=True, help="the empty listener")
    parser.add_argument("--database", type=Path, required=True, help="an SQLite file")
    parser.add_argument("--modules", type=Path, required=True, help="node_modules of the peers")
    parser.add_argument("--rounds", type=int, default=20)
    parser.add_argument("--data", type=Path, required=True, help="the JSON file to be written")
    return parser.parse_args(arguments)


Measurement = Callable[[], "list[float]"]
"""A batch: what each of its exchanges took."""


def by_rounds(subjects: "dict[str, Measurement]", rounds: int) -> "dict[str, list[float]]":
    """What all batches of a subject took."""
    return {name: [value for batch in batches for value in batch]
            for name, batches in turns.by_turns(subjects, rounds).items()}


# Starts, in milliseconds


def floor_start(floor: Path) -> "list[float]":
    with Program([str(floor)]) as program:
        program.exchange(b"{}\n")
        return [program.milliseconds()]


def peer_start(peer: Peer) -> "list[float]":
    with Program(peer.stdio, peer.environment) as program:
        return [program.initialize()]


def starts(floor: Path, all_peers: "list[Peer]", rounds: int) -> "dict[str, list[float]]":
    subjects: "dict[str, Measurement]" = {FLOOR: lambda: floor_start(floor)}
    for peer in all_peers:
        subjects[peer.name] = lambda peer=peer: peer_start(peer)
    found = by_rounds(subjects, rounds)
    return {name: [round(value, 3) for value in values] for name, values in found.items()}


# Requests over the standard streams, in microseconds


class Opened:
    """A peer that stays open between its batches, unless its ids are used up by one."""

    def __init__(self, peer: Peer, program: Program) -> None:
        self.peer, self._program, self._next = peer, program, 1

    def _take_id(self) -> int:
        self._next += 1
        return self._next

    @property
    def busy_replies(self) -> int:
        return self._program.busy_replies

    def pings(self) -> "list[float]":
        if self.peer.takes_new_program:
            with Program(self.peer.stdio, self.peer.environment) as fresh:
                fresh.initialize()
                return self._batch(fresh, PINGS, lambda number: line("ping", number))
        return self._batch(self._program, PINGS, lambda number: line("ping", number))

    def queries(self) -> "list[float]":
        return self._batch(self._program, QUERIES, self.peer.query_line)

    def _batch(self, program: Program, count: int,
               request: "Callable[[int], bytes]") -> "list[float]":
        for _ in range(WARM_UP):
            program.asked(request(self._take_id()))
        return [program.asked(request(self._take_id())) for _ in range(count)]


def floor_pings() -> "list[float]":
    """Two changes of process and nothing else: `cat` sends the line back."""
    with Program(["cat"]) as program:
        return [program.timed(line("ping", number))[0] for number in range(PINGS)]


def floor_calls(starter: Program) -> "list[float]":
    """The empty child of each call: spawn, line, line, end. A native program starts it, as the
    server starts its workers: this one would take longer for that than the server for a call."""
    return [starter.timed(b"{}\n")[0] for _ in range(QUERIES)]


def requests(floor_command: "list[str]", all_peers: "list[Peer]", rounds: int) -> dict[str, Any]:
    with ExitStack() as stack:
        starter = stack.enter_context(Program(floor_command))
        opened = []
        for peer in all_peers:
            program = stack.enter_context(Program(peer.stdio, peer.environment))
            program.initialize()
            row = program.exchange(peer.query_line(1))
            if EXPECTED.encode() not in row:
                raise Failed(f"{peer.name}: {row[:200]!r}")
            opened.append(Opened(peer, program))
        pings: "dict[str, Measurement]" = {FLOOR: floor_pings}
        queries: "dict[str, Measurement]" = {FLOOR: lambda: floor_calls(starter)}
        for one in opened:
            pings[one.peer.name] = one.pings
            queries[one.peer.name] = one.queries
        found = {"ping": by_rounds(pings, rounds), "query": by_rounds(queries, rounds)}
        busy = {one.peer.name: one.busy_replies for one in opened}
    return {"busy_replies": busy,
            **{workload: {name: samples.latency(values) for name, values in subjects.items()}
               for workload, subjects in found.items()}}


# Memory and HTTP


def peer_memory(peer: Peer) -> float:
    """MiB of a new program and its children while it is asked."""
    with Program(peer.stdio, peer.environment) as program:
        program.initialize()
        watch = Watch(program.process.pid)
        try:
            for number in range(MEMORY_CALLS):
                program.asked(peer.query_line(number + 1))
        finally:
            found = watch.end()
    return found


def floor_memory(floor: Path) -> float:
    """MiB of the empty program while it waits for its line."""
    with Program([str(floor)]) as program:
        watch = Watch(program.process.pid)
        watch.wait(FLOOR_LOOKS)
        found = watch.end()
        program.exchange(b"{}\n")
    return found


def memory(floor: Path, all_peers: "list[Peer]", rounds: int) -> dict[str, Any]:
    subjects: "dict[str, Callable[[], float]]" = {FLOOR: lambda: floor_memory(floor)}
    for peer in all_peers:
        subjects[peer.name] = lambda peer=peer: peer_memory(peer)
    found = turns.by_turns(subjects, min(rounds, MEMORY_ROUNDS))
    return {name: {"highest_mib": max(values), "by_round_mib": values}
            for name, values in found.items()}


def http(asked: argparse.Namespace, all_peers: "list[Peer]") -> dict[str, Any]:
    # The last subject is the one that the others are compared with.
    floor = {"name": FLOOR, "command": [str(asked.http_floor), "PORT"]}
    plan = http_plan.plan(asked.rounds, 0, [*(peer.http for peer in all_peers), floor],
                          {FLOOR: http_plan.PING, **{peer.name: peer.query for peer in all_peers}},
                          "query")
    plan["clients"] = CLIENTS
    with tempfile.TemporaryDirectory(prefix="peers-") as folder:
        files = [Path(folder) / name for name in ("plan.json", "data.json")]
        files[0].write_text(json.dumps(plan), encoding="utf-8")
        done = subprocess.run([str(asked.modules / ".bin" / "node"),
                               str(http_plan.BENCH / "http_bench.mjs"), *map(str, files)],
                              check=False)
        if done.returncode != 0:
            raise Failed("the measurement over HTTP has failed")
        return {"http": raw.http(files[1])["throughput"]}


def main(arguments: "list[str]") -> int:
    asked = parse(arguments)
    began = Moment.now()
    all_peers = peers(asked.server, asked.modules, asked.database)
    try:
        found = {"versions": {peer.name: peer.version for peer in all_peers[1:]},
                 "start_ms": starts(asked.floor, all_peers, asked.rounds),
                 "stdio": requests([str(asked.floor_calls), str(asked.floor)], all_peers,
                                   asked.rounds),
                 "memory": memory(asked.floor, all_peers, asked.rounds),
                 **http(asked, all_peers)}
    except (Failed, OSError) as failure:
        print(f"bench/run peers: {failure}", file=sys.stderr)
        return 1
    record.write(asked.data, record.document(began, {"rounds": asked.rounds}, found))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
