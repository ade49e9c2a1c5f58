"""The stages of a call, cut out of the trace.

A stage ends where a system call begins or returns that no other part of the call makes. Its wall
time is divided by who had a processor: the product (server or worker), else the engine, else nobody
of the two: then a wake is on its way, or something else runs.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import Callable, Iterable, NamedTuple

from call_account.tracing import Event

READ, WRITE, CLOSE, SOCKET, SENDTO, RECVFROM, EXECVE, WAIT4, PRCTL = (
    0, 1, 3, 41, 44, 45, 59, 61, 157)
EXIT_GROUP, WAITID, OPENAT, PIPE2 = 231, 247, 257, 293
POLICY_FLAGS = 0o2000000 | 0o4000 | 0o400
"""The policy file alone is opened with O_CLOEXEC, O_NONBLOCK and O_NOCTTY for reading."""
APPEND = 0o2000
STATEMENT_SEND = 4
"""After the greeting, "use" and "login"."""


@dataclass
class Stage:
    name: str
    product: float = 0.0
    """Microseconds of wall time in which the server or the worker ran."""
    engine: float = 0.0
    """Of the rest, those in which the engine ran."""
    neither: float = 0.0
    product_processor: float = 0.0
    """Microseconds of processor time, of all processes together."""
    engine_processor: float = 0.0
    faults: float = 0.0
    """Page faults of the product."""

    def add(self, other: "Stage", weight: float) -> None:
        for name in FIGURES:
            setattr(self, name, getattr(self, name) + weight * getattr(other, name))

    def wall(self) -> float:
        return self.product + self.engine + self.neither


FIGURES = ("product", "engine", "neither", "product_processor", "engine_processor", "faults")
Mark = tuple[str, float]
"""A stage, and when it ends."""


class ServerThreads(NamedTuple):
    reads: int
    calls: int
    """The one that runs the tool calls."""


class Finder:
    """Looks marks up, each after the one before it."""

    def __init__(self, events: "list[Event]", began: float) -> None:
        self.events = events
        self.now = began
        self.marks: "list[Mark]" = []

    def find(self, pid: int, kind: str, number: int,
             accept: "Callable[[Event], bool]" = lambda event: True, nth: int = 1) -> Event:
        for event in self.events:
            if (event.microseconds >= self.now and event.pid == pid and event.kind == kind
                    and event.number == number and accept(event)):
                nth -= 1
                if nth == 0:
                    return event
        raise LookupError(f"no {kind} of system call {number} by {pid}")

    def mark(self, name: str, event: Event) -> Event:
        self.marks.append((name, event.microseconds))
        self.now = event.microseconds
        return event


def child_of(events: "list[Event]", pid: int) -> int:
    for event in events:
        if event.kind == "sched_process_fork" and event.pid == pid:
            return event.number
    raise LookupError(f"{pid} has started nothing")


def _is_first(value: int, at: int = 0) -> "Callable[[Event], bool]":
    return lambda event: event.values[at] == value


def _until_main(found: Finder, child: int) -> None:
    """From the start of a program to its own first instructions."""
    found.mark("pipes, vfork", found.find(child, "sys_enter", EXECVE))
    found.mark("execve", found.find(child, "sys_exit", EXECVE))


def marks_of_floor(events: "list[Event]", starter: int) -> "list[Mark]":
    found = Finder(events, 0)
    found.mark("", found.find(starter, "sys_enter", PIPE2))
    child = child_of(events, starter)
    _until_main(found, child)
    found.mark("loading, relocating", found.find(child, "sys_enter", READ, _is_first(0)))
    found.mark("the message", found.find(child, "sys_exit", READ))
    found.mark("reply", found.find(child, "sys_exit", WRITE))
    _end(found, child, found.find(starter, "sys_exit", WAIT4))
    return found.marks


def marks_of_call(events: "list[Event]", driver: int, server: ServerThreads,
                  descriptor: int) -> "list[Mark]":
    """`descriptor` is the one into which this process writes the request."""
    found = Finder(events, 0)
    found.mark("", found.find(driver, "sys_enter", WRITE, _is_first(descriptor)))
    found.mark("the server's wake", found.find(server.reads, "sys_exit", READ))
    child = child_of(events, server.calls)
    found.mark("look at the message, hand over", found.find(server.calls, "sys_enter", PIPE2))
    _until_main(found, child)
    found.mark("loading, relocating", found.find(child, "sys_enter", PRCTL))
    policy = found.mark("own start-up", found.find(
        child, "sys_enter", OPENAT, _is_first(POLICY_FLAGS, 2)))
    found.now = policy.microseconds
    found.mark("policy", found.find(child, "sys_exit", CLOSE))
    found.mark("the message", found.find(child, "sys_exit", READ))
    if _has(events, child, SOCKET):
        _statement(found, child)
    else:
        found.mark("parse, checks", found.find(child, "sys_enter", WRITE, _is_first(1)))
    found.mark("reply", found.find(child, "sys_exit", WRITE))
    _audit_record(found, child)
    found.mark("disconnect", found.find(child, "sys_enter", EXIT_GROUP))
    _end(found, child, found.find(server.calls, "sys_exit", WAITID))
    found.mark("collect, pass the reply on",
               found.find(server.calls, "sys_enter", WRITE, _is_first(1)))
    found.mark("the client's wake", found.find(driver, "sys_exit", READ))
    return found.marks


def _has(events: "list[Event]", pid: int, number: int) -> bool:
    return any(event.pid == pid and event.kind == "sys_enter" and event.number == number
               for event in events)


def _statement(found: Finder, child: int) -> None:
    found.mark("parse, checks", found.find(child, "sys_enter", SOCKET))
    found.mark("reaching the engine", found.find(child, "sys_exit", CLOSE))
    found.mark("loading the client library", found.find(child, "sys_enter", SOCKET))
    found.mark("login", found.find(child, "sys_enter", SENDTO, nth=STATEMENT_SEND))
    reply = found.find(child, "sys_enter", WRITE, _is_first(1))
    received = [event for event in found.events
                if event.pid == child and event.kind == "sys_exit" and event.number == RECVFROM
                and found.now <= event.microseconds <= reply.microseconds]
    found.mark("statement", received[-1])


def _end(found: Finder, child: int, collected: Event) -> None:
    """The parent may learn of the end while the child still gives back its processor."""
    last = [event for event in found.events
            if event.kind == "sched_switch" and event.values[0] == child
            and event.microseconds >= found.now]
    if not last:
        raise LookupError(f"{child} does not leave its processor")
    found.mark("exit", min(last[-1], collected, key=lambda event: event.microseconds))
    found.mark("the parent's wake", collected)


def _audit_record(found: Finder, child: int) -> None:
    try:
        opened = found.find(child, "sys_enter", OPENAT, lambda event: event.values[2] & APPEND != 0)
    except LookupError:
        return
    now = found.now
    found.now = opened.microseconds
    closed = found.find(child, "sys_exit", CLOSE)
    found.now = now
    found.mark("audit record", closed)


def cut(events: "list[Event]", marks: "list[Mark]", product: "set[int]",
        engine: "set[int]") -> "list[Stage]":
    """The stages, and last what the product does after the reply has come."""
    ends = [end for _, end in marks]
    stages = [Stage(name) for name, _ in marks[1:]] + [Stage("after the reply")]
    running: "dict[str, set[int]]" = {"product": set(), "engine": set()}
    sides = {**{pid: "product" for pid in product}, **{pid: "engine" for pid in engine}}
    at = 0
    last = ends[0]
    for now, event in _with_ends(events, ends):
        # The part since the last event lies in one stage.
        if now > last:
            _spend(stages[at], now - last, running)
            last = now
        while at < len(ends) - 1 and now >= ends[at + 1]:
            at += 1
        if event is None:
            continue
        if event.kind == "sched_switch":
            _switch(event, running, sides)
        elif event.pid in sides:
            running[sides[event.pid]].add(event.pid)
            if event.kind == "page_fault_user" and event.pid in product and now >= ends[0]:
                stages[at].faults += 1
    stages[-1].product = stages[-1].engine = stages[-1].neither = 0.0
    return stages


def _with_ends(events: "list[Event]",
               ends: "list[float]") -> "Iterable[tuple[float, Event | None]]":
    both: "list[tuple[float, Event | None]]" = [(end, None) for end in ends]
    both += [(event.microseconds, event) for event in events]
    return sorted(both, key=lambda entry: entry[0])


def _switch(event: Event, running: "dict[str, set[int]]", sides: "dict[int, str]") -> None:
    for pids in running.values():
        pids.discard(event.values[0])
    if event.number in sides:
        running[sides[event.number]].add(event.number)


def _spend(stage: Stage, microseconds: float, running: "dict[str, set[int]]") -> None:
    stage.product_processor += microseconds * len(running["product"])
    stage.engine_processor += microseconds * len(running["engine"])
    if running["product"]:
        stage.product += microseconds
    elif running["engine"]:
        stage.engine += microseconds
    else:
        stage.neither += microseconds
