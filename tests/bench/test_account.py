"""The stages of a call: where each ends, and who had a processor meanwhile."""

from __future__ import annotations

import json
from pathlib import Path

import pytest

from call_account import processor, stages
from call_account.stages import ServerThreads, Stage, cut, marks_of_call, marks_of_floor
from call_account.tracing import Event, _events
from figures import account_tables
from figures.dataset import Dataset

PRODUCT, WORKER, ENGINE, OTHER, IDLE = 1, 2, 3, 4, 0
DRIVER, SERVER, THREAD, CHILD = 10, 11, 12, 13
INPUT = 7
"""The descriptor into which the driver writes the request."""

TRACE = """\
# tracer: nop
     kova-mcp-11      [001] .....  100.000010: sys_enter: NR 59 (7f00, 1, 2, 0, 0, 0)
     kova-mcp-11      [001] .....  100.000020: sys_exit: NR 59 = -2
          <idle>-0    [000] d..2.  100.000030: sched_switch: prev_comm=swapper/0 prev_pid=0 \
prev_prio=120 prev_state=R ==> next_comm=kova-mcp next_pid=12 next_prio=120
     kova-mcp-11      [001] .....  100.000040: sched_process_fork: comm=kova-mcp pid=11 \
child_comm=kova-mcp child_pid=13
     kova-mcp-13      [001] .....  100.000050: page_fault_user: address=0x7f ip=0x7f error_code=0x6
"""


def test_the_kernels_lines_are_read() -> None:
    assert [event._replace(microseconds=round(event.microseconds - 1e8))
            for event in _events(TRACE)] == [
        Event(10, 11, "sys_enter", 59, (0x7f00, 1, 2, 0, 0, 0)),
        Event(20, 11, "sys_exit", 59, (-2,)), Event(30, 0, "sched_switch", 12, (0,)),
        Event(40, 11, "sched_process_fork", 13, ()), Event(50, 13, "page_fault_user", 0, ())]


# cut


def switch(now: float, before: int, after: int) -> Event:
    return Event(now, before, "sched_switch", after, (before,))


MARKS = [("", 10.0), ("first", 20.0), ("second", 40.0)]


def cut_of(*events: Event) -> "list[Stage]":
    return cut(list(events), MARKS, {PRODUCT, WORKER}, {ENGINE})


@pytest.mark.parametrize("events, first, second", [
    # Nobody runs, or what is neither.
    ([], (0, 0, 10), (0, 0, 20)), ([switch(5, IDLE, OTHER)], (0, 0, 10), (0, 0, 20)),
    # Who runs already when the call begins; a stage ends while it runs.
    ([switch(5, IDLE, PRODUCT)], (10, 0, 0), (20, 0, 0)),
    ([switch(12, IDLE, PRODUCT), switch(30, PRODUCT, IDLE)], (8, 0, 2), (10, 0, 10)),
    ([switch(12, IDLE, ENGINE), switch(15, ENGINE, IDLE)], (0, 3, 7), (0, 0, 20)),
    # Both at once count as the product's time.
    ([switch(12, IDLE, ENGINE), switch(14, IDLE, PRODUCT), switch(16, PRODUCT, IDLE),
      switch(18, ENGINE, IDLE)], (2, 4, 4), (0, 0, 20)),
    # One of the product follows the other on the same processor.
    ([switch(12, IDLE, PRODUCT), switch(14, PRODUCT, WORKER), switch(16, WORKER, IDLE)],
     (4, 0, 6), (0, 0, 20)),
    # What ends where a stage ends belongs to it; what follows the last mark to none.
    ([switch(10, IDLE, PRODUCT), switch(20, PRODUCT, IDLE)], (10, 0, 0), (0, 0, 20)),
    ([switch(41, IDLE, PRODUCT), switch(50, PRODUCT, IDLE)], (0, 0, 10), (0, 0, 20))])
def test_wall_time(events: "list[Event]", first: "tuple[float, ...]",
                   second: "tuple[float, ...]") -> None:
    found = cut_of(*events)
    assert [stage.name for stage in found] == ["first", "second", "after the reply"]
    assert [(stage.product, stage.engine, stage.neither) for stage in found] == [
        first, second, (0, 0, 0)]
    assert sum(stage.wall() for stage in found) == MARKS[-1][1] - MARKS[0][1]


def test_processor_time_is_of_all_processes() -> None:
    first, second, after = cut_of(
        switch(10, IDLE, PRODUCT), switch(12, IDLE, WORKER), switch(15, WORKER, ENGINE),
        switch(19, ENGINE, IDLE), switch(45, PRODUCT, IDLE))
    assert (first.product_processor, first.engine_processor, first.wall()) == (13, 4, 10)
    assert (second.product_processor, second.engine_processor) == (20, 0)
    assert (after.product_processor, after.wall()) == (5, 0)


@pytest.mark.parametrize("now, pid, faults", [
    (9, PRODUCT, (0, 0, 0)), (10, PRODUCT, (1, 0, 0)), (20, WORKER, (0, 1, 0)),
    (41, WORKER, (0, 0, 1)), (15, ENGINE, (0, 0, 0)), (15, OTHER, (0, 0, 0))])
def test_page_faults(now: float, pid: int, faults: "tuple[int, ...]") -> None:
    assert tuple(stage.faults for stage in cut_of(Event(now, pid, "page_fault_user", 0, ()))) == (
        faults)


# marks


def enter(pid: int, number: int, *values: int) -> "tuple[int, str, int, tuple[int, ...]]":
    return pid, "sys_enter", number, (*values, 0, 0, 0)


def leave(pid: int, number: int) -> "tuple[int, str, int, tuple[int, ...]]":
    return pid, "sys_exit", number, (1,)


def fork(pid: int, child: int) -> "tuple[int, str, int, tuple[int, ...]]":
    return pid, "sched_process_fork", child, ()


def away(pid: int) -> "tuple[int, str, int, tuple[int, ...]]":
    """It leaves its processor."""
    return pid, "sched_switch", IDLE, (pid,)


FLOOR = [
    enter(SERVER, stages.PIPE2), fork(SERVER, CHILD), enter(CHILD, stages.EXECVE),
    leave(CHILD, stages.EXECVE), enter(CHILD, stages.READ, 5), enter(CHILD, stages.READ, 0),
    leave(CHILD, stages.READ), leave(CHILD, stages.WRITE), away(CHILD),
    leave(SERVER, stages.WAIT4)]
STATEMENT = [
    enter(CHILD, stages.SOCKET), leave(CHILD, stages.CLOSE), enter(CHILD, stages.SOCKET),
    *([enter(CHILD, stages.SENDTO)] * 4), leave(CHILD, stages.RECVFROM)]
RECORD = [enter(CHILD, stages.OPENAT, 0, 0, stages.APPEND), leave(CHILD, stages.CLOSE)]
BEFORE = [
    enter(DRIVER, stages.WRITE, INPUT + 1), enter(DRIVER, stages.WRITE, INPUT),
    leave(SERVER, stages.READ), enter(THREAD, stages.PIPE2),
    fork(THREAD, CHILD), enter(CHILD, stages.EXECVE), leave(CHILD, stages.EXECVE),
    enter(CHILD, stages.OPENAT, 0, 0, 0), enter(CHILD, stages.PRCTL),
    enter(CHILD, stages.OPENAT, 0, 0, stages.POLICY_FLAGS), leave(CHILD, stages.CLOSE),
    leave(CHILD, stages.READ)]
REPLY = [enter(CHILD, stages.WRITE, 1), leave(CHILD, stages.WRITE)]
EXIT = [away(CHILD), enter(CHILD, stages.EXIT_GROUP), away(CHILD), away(CHILD)]
END = [*EXIT, leave(THREAD, stages.WAITID), enter(THREAD, stages.WRITE, 1),
       leave(DRIVER, stages.READ)]
LIST = [*BEFORE, *REPLY, *RECORD, *END]
QUERY = [*BEFORE, *STATEMENT, *REPLY, *RECORD, *END]


def timed(lines: "list[tuple[int, str, int, tuple[int, ...]]]") -> "list[Event]":
    return [Event(float(now), *line) for now, line in enumerate(lines)]


def call_marks(lines: "list[tuple[int, str, int, tuple[int, ...]]]") -> "list[stages.Mark]":
    return marks_of_call(timed(lines), DRIVER, ServerThreads(SERVER, THREAD), INPUT)


def test_marks_of_the_floor() -> None:
    assert marks_of_floor(timed(FLOOR), SERVER) == [
        ("", 0), ("pipes, vfork", 2), ("execve", 3), ("loading, relocating", 5),
        ("the message", 6), ("reply", 7), ("exit", 8), ("the parent's wake", 9)]


BEGINNING = [("", 1), ("the server's wake", 2), ("look at the message, hand over", 3),
             ("pipes, vfork", 5), ("execve", 6), ("loading, relocating", 8), ("own start-up", 9),
             ("policy", 10), ("the message", 11)]


def ending(began: int) -> "list[stages.Mark]":
    """The end of a call, whose first event is this one: the worker waits once more before it
    exits, and once while it does."""
    return [("disconnect", began + 1), ("exit", began + 3), ("the parent's wake", began + 4),
            ("collect, pass the reply on", began + 5), ("the client's wake", began + 6)]


@pytest.mark.parametrize("lines, rest", [
    (LIST, [("parse, checks", 12), ("reply", 13), ("audit record", 15), *ending(16)]),
    ([*BEFORE, *REPLY, *END], [("parse, checks", 12), ("reply", 13), *ending(14)]),
    (QUERY, [("parse, checks", 12), ("reaching the engine", 13),
             ("loading the client library", 14), ("login", 18), ("statement", 19), ("reply", 21),
             ("audit record", 23), *ending(24)])])
def test_marks_of_a_call(lines: "list[tuple[int, str, int, tuple[int, ...]]]",
                         rest: "list[stages.Mark]") -> None:
    assert call_marks(lines) == [*BEGINNING, *rest]


def test_a_parent_that_learns_of_the_end_before_the_child_is_away() -> None:
    late = [*FLOOR[:-2], FLOOR[-1], FLOOR[-2]]
    assert marks_of_floor(timed(late), SERVER)[-2:] == [("exit", 8), ("the parent's wake", 8)]
    both = [*BEFORE, *REPLY, *END[:2], END[4], *END[2:4], *END[5:]]
    assert call_marks(both)[-5:-2] == [("disconnect", 15), ("exit", 16), ("the parent's wake", 16)]


def test_a_child_that_stays() -> None:
    with pytest.raises(LookupError, match="13 does not leave its processor"):
        marks_of_floor(timed([one for one in FLOOR if one != away(CHILD)]), SERVER)


@pytest.mark.parametrize("left_out, reason", [
    (BEFORE[1], "no sys_enter of system call 1 by 10"),
    (BEFORE[3], "no sys_enter of system call 293 by 12"), (BEFORE[4], "12 has started nothing"),
    (BEFORE[5], "no sys_enter of system call 59 by 13"),
    (BEFORE[9], "no sys_enter of system call 257 by 13"),
    (STATEMENT[3], "no sys_enter of system call 44 by 13"),
    (EXIT[1], "no sys_enter of system call 231 by 13"),
    (END[4], "no sys_exit of system call 247 by 12"),
    (END[6], "no sys_exit of system call 0 by 10")])
def test_a_trace_with_a_gap(left_out: "tuple[int, str, int, tuple[int, ...]]",
                            reason: str) -> None:
    lines = list(QUERY)
    lines.remove(left_out)
    with pytest.raises(LookupError, match=reason):
        call_marks(lines)


# processor time


def test_processor_time_is_divided_by_the_calls(monkeypatch: pytest.MonkeyPatch) -> None:
    """The first round does not count. A program is asked for each call, and has ended before the
    time is looked at again."""
    spent, seen = iter([10.0, 10.5, 20.0, 20.3, 30.0, 30.1]), []

    class Told:
        def __enter__(self) -> "Told":
            return self

        def __exit__(self, *_: object) -> None:
            seen.append("end")

    def look() -> float:
        seen.append("look")
        return next(spent)

    monkeypatch.setattr(processor, "_spent", look)
    monkeypatch.setattr(processor, "CALLS", 2)
    monkeypatch.setattr(processor, "ROUNDS", 2)
    found = processor.microseconds_a_call({"one": (
        Told, lambda program: seen.append("call"))})  # type: ignore[dict-item]
    assert found == {"one": [150000.0, 50000.0]}
    assert seen == 3 * ["look", "call", "call", "end", "look"]


# tables


def stage(name: str, product: float, neither: float, processor: float) -> "dict[str, object]":
    return {"name": name, "product": product, "engine": 0.5, "neither": neither,
            "product_processor": processor, "engine_processor": 0.25, "faults": 1.0}


@pytest.fixture(name="data")
def _data(tmp_path: Path) -> Dataset:
    subjects = {"empty program": [stage("execve", 100, 10, 200)],
                "kova_list_tables": [stage("execve", 100, 20, 240), stage("reply", 50, 1, 60)]}
    processor = {"empty program": [200.0, 100.0], "kova_list_tables": [240.0, 140.0]}
    (tmp_path / "account.json").write_text(json.dumps({"subjects": {
        name: {"undisturbed_us": 150.0, "stages_us": 160.0, "ratio": 1.067, "stages": found}
        for name, found in subjects.items()}, "processor_us": processor}))
    return Dataset(tmp_path)


def rows(text: str) -> "list[list[str]]":
    return [[cell.strip() for cell in line.split("|")[1:-1]] for line in text.splitlines()]


def test_table_of_stages(data: Dataset) -> None:
    assert rows(account_tables.stages(data, account_tables.LIST))[2:] == [
        ["execve", "120.5", "100.0", "0.5", "20.0", "240.0", "0.2", "1.0"],
        ["reply", "51.5", "50.0", "0.5", "1.0", "60.0", "0.2", "1.0"],
        ["sum", "172.0", "150.0", "1.0", "21.0", "300.0", "0.5", "2.0"]]


def test_table_of_totals(data: Dataset) -> None:
    assert rows(account_tables.totals(data))[2:] == [
        ["empty program", "150", "160", "1.07", "100", "1.00", "1.00"],
        ["kova_list_tables", "150", "160", "1.07", "140", "1.20", "1.40"]]
