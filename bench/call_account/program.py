"""The calls in turn, with and without tracing, and the check of the sum."""

from __future__ import annotations

import argparse
import os
import sys
import time
from pathlib import Path
from typing import Any, Callable, Mapping

from call_account.processor import microseconds_a_call
from call_account.stages import (FIGURES, ServerThreads, Stage, cut, marks_of_call,
                                 marks_of_floor)
from call_account.tracing import Event, Trace, Unavailable
from common.messages import line
from common.stdio import Failed, Program
from figures import record, samples
from figures.account_tables import FLOOR, LIST, QUERY
from figures.conditions import Moment

BLOCK = 10
"""Calls of a subject before the next one's turn."""
PAUSE_SECONDS = 0.002
"""After a call: what its processes do after the reply ends before the next one begins."""
AGREEMENT = 0.15
"""Of a call's time; tracing itself takes up to an eighth."""

Call = Callable[[], float]
Cut = Callable[["list[Event]"], "list[Stage]"]


class Subject:
    """One kind of call: its times without tracing, its stages and times with it."""

    def __init__(self, name: str, call: Call, cut_call: Cut) -> None:
        self.name = name
        self._call = call
        self._cut = cut_call
        self.undisturbed: "list[float]" = []
        self.traced: "list[list[Stage]]" = []

    def block(self, trace: Trace) -> None:
        self._run()
        self.undisturbed += [self._run()[0] for _ in range(BLOCK)]
        trace.begin()
        # The first call after a change of the tracing does not count, as that before the block.
        self._run()
        spans = [self._run()[1] for _ in range(BLOCK)]
        events = trace.end()
        for begin, end in spans:
            self.traced.append(self._cut([event for event in events
                                          if begin <= event.microseconds < end]))

    def _run(self) -> "tuple[float, tuple[float, float]]":
        """The call's microseconds, and from when to when its processes were at work."""
        begin = time.monotonic_ns() / 1000
        took = self._call()
        time.sleep(PAUSE_SECONDS)
        return took, (begin, time.monotonic_ns() / 1000)

    def account(self) -> dict[str, Any]:
        """Means over the middle half of the calls, by their whole time."""
        whole = [sum(stage.wall() for stage in stages) for stages in self.traced]
        names = [stage.name for stage in self.traced[0]]
        totals = [Stage(name) for name in names]
        middle = [stages for _, stages in _middle_half(list(zip(whole, self.traced)))]
        for stages in middle:
            if [stage.name for stage in stages] != names:
                raise RuntimeError(f"{self.name}: the calls differ in their stages")
            for total, stage in zip(totals, stages):
                total.add(stage, 1 / len(middle))
        found = sum(total.wall() for total in totals)
        plain = [value for value, _ in _middle_half([(value, []) for value in self.undisturbed])]
        undisturbed = sum(plain) / len(plain)
        return {"calls": len(self.traced), "stages_us": round(found, 1),
                "undisturbed_us": round(undisturbed, 1),
                "undisturbed_median_us": round(samples.quantile(self.undisturbed, 0.5), 1),
                "ratio": round(found / undisturbed, 3),
                "stages": [{"name": total.name,
                            **{key: round(getattr(total, key), 1) for key in FIGURES}}
                           for total in totals]}


def _middle_half(values: "list[tuple[float, Any]]") -> "list[tuple[float, Any]]":
    ordered = sorted(values, key=lambda value: value[0])
    return ordered[len(ordered) // 4:len(ordered) - len(ordered) // 4]


def pids_of(events: "list[Event]", roots: "set[int]") -> "set[int]":
    """The threads and processes that the roots have started, and the roots."""
    found = set(roots)
    for event in events:
        if event.kind == "sched_process_fork" and event.pid in found:
            found.add(event.number)
    return found


def threads_of(pid: int) -> "set[int]":
    return {int(name) for name in os.listdir(f"/proc/{pid}/task")}


def tool_call(name: str, arguments: "dict[str, object]") -> bytes:
    return line("tools/call", 1, {"name": name, "arguments": arguments})


class Account:
    """The subjects of one run."""

    def __init__(self, asked: argparse.Namespace) -> None:
        self._asked = asked
        self.server = self._start_server()
        self.floor = self._start_floor()
        self.engine = asked.engine
        self.driver = os.getpid()
        self.lists = tool_call("kova_list_tables", {})
        self.query = tool_call("kova_query", {"sql": asked.query})
        # The first call starts the thread of the calls.
        self.server.asked(self.lists)
        reads = self.server.process.pid
        others = threads_of(reads) - {reads}
        if len(others) != 1:
            raise Failed(f"{self.server.name} has {len(others)} threads beside the first")
        self.threads = ServerThreads(reads, *others)
        self.subjects = [
            Subject(FLOOR, lambda: float(self.floor.exchange(self.lists)), self._cut_floor),
            Subject(LIST, lambda: self.server.asked(self.lists), self._cut_call),
            Subject(QUERY, lambda: self.server.asked(self.query), self._cut_call)]

    def _start_server(self, environment: "Mapping[str, str]" = {}) -> Program:
        server = Program([str(self._asked.server)], environment)
        server.initialize()
        return server

    def _start_floor(self) -> Program:
        """It starts the empty program for each line, and replies with the microseconds."""
        return Program([str(program) for program in self._asked.floor])

    def processor_times(self) -> "dict[str, list[float]]":
        """By round, without audit records."""
        def server() -> Program:
            return self._start_server({"KOVA_MCP_AUDIT": ""})
        return microseconds_a_call({
            FLOOR: (self._start_floor, lambda program: program.exchange(self.lists)),
            LIST: (server, lambda program: program.asked(self.lists)),
            QUERY: (server, lambda program: program.asked(self.query))})

    def run(self, calls: int) -> None:
        trace = Trace([self.driver, *self.threads, self.floor.process.pid,
                       *threads_of(self.engine)])
        try:
            for _ in range(0, calls, BLOCK):
                for subject in self.subjects:
                    subject.block(trace)
        finally:
            trace.close()

    def close(self) -> None:
        self.server.close()
        self.floor.close()

    def _cut_floor(self, events: "list[Event]") -> "list[Stage]":
        starter = self.floor.process.pid
        # What follows the end of the empty program is not the floor's.
        return cut(events, marks_of_floor(events, starter), pids_of(events, {starter}), set())[:-1]

    def _cut_call(self, events: "list[Event]") -> "list[Stage]":
        assert self.server.process.stdin is not None
        marks = marks_of_call(events, self.driver, self.threads,
                              self.server.process.stdin.fileno())
        return cut(events, marks, pids_of(events, set(self.threads)),
                   pids_of(events, threads_of(self.engine)))


def parse(arguments: "list[str]") -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="bench/run account", allow_abbrev=False)
    parser.add_argument("--floor", type=Path, nargs=2, required=True,
                        help="floor-on-demand and the empty program")
    parser.add_argument("--server", type=Path, required=True)
    parser.add_argument("--engine", type=int, required=True, help="the sample engine's process id")
    parser.add_argument("--query", required=True, help="a SELECT for one row")
    parser.add_argument("--calls", type=int, default=200, help="of each kind, traced")
    parser.add_argument("--data", type=Path, required=True, help="the JSON file to be written")
    return parser.parse_args(arguments)


def main(arguments: "list[str]") -> int:
    asked = parse(arguments)
    began = Moment.now()
    try:
        account = Account(asked)
        try:
            processor = account.processor_times()
            account.run(asked.calls)
        finally:
            account.close()
    except (Failed, OSError, Unavailable) as failure:
        print(f"bench/run account: {failure}", file=sys.stderr)
        return 1
    found = {subject.name: subject.account() for subject in account.subjects}
    record.write(asked.data, record.document(
        began, {"calls": asked.calls}, {"subjects": found, "processor_us": processor}))
    apart = [name for name, subject in found.items() if abs(subject["ratio"] - 1) > AGREEMENT]
    if not apart:
        return 0
    print(f"bench/run account: the stages do not add up to the undisturbed call: "
          f"{', '.join(apart)}", file=sys.stderr)
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
