"""The kernel's trace of a few processes and their children."""

from __future__ import annotations

import os
import re
from pathlib import Path
from typing import Iterator, NamedTuple

TRACEFS = Path("/sys/kernel/tracing")
BUFFER_KIB = 16384
EVENTS = ("raw_syscalls/sys_enter", "raw_syscalls/sys_exit", "sched/sched_switch",
          "sched/sched_process_fork", "sched/sched_process_exit", "exceptions/page_fault_user")
LINE = re.compile(r"^.*-(\d+) +\[\d+\] \S+ +(\d+\.\d+): (\w+): (.*)$")
ENTER = re.compile(r"NR (\d+) \(([^)]*)\)")
LEAVE = re.compile(r"NR (\d+) = (-?\d+)")
SWITCH = re.compile(r"prev_pid=(\d+) .*next_pid=(\d+)")
FORK = re.compile(r"child_pid=(\d+)")


class Unavailable(Exception):
    """The system does not let this process trace."""


class Event(NamedTuple):
    microseconds: float
    """Of the monotonic clock."""
    pid: int
    """The thread that was running."""
    kind: str
    number: int
    """The system call; of a fork the child, of a switch the thread that goes on."""
    values: tuple[int, ...]
    """A system call's arguments, or its result alone."""


class Trace:
    """An instance of the kernel's tracing, which nobody else's tracing meets."""

    def __init__(self, pids: "list[int]") -> None:
        self.folder = TRACEFS / "instances" / f"call-account-{os.getpid()}"
        try:
            self.folder.mkdir()
        except OSError as failure:
            raise Unavailable(f"no tracing ({failure}): it needs root, and tracefs mounted at "
                              f"{TRACEFS}") from failure
        self._set("trace_clock", "mono")
        self._set("buffer_size_kb", str(BUFFER_KIB))
        self._set("options/event-fork", "1")
        self._set("set_event_pid", " ".join(map(str, pids)))

    def close(self) -> None:
        self.folder.rmdir()

    def begin(self) -> None:
        self._set("trace", "")
        self._enable(True)

    def end(self) -> "list[Event]":
        """What has happened since `begin`, in the order of time."""
        self._enable(False)
        text = (self.folder / "trace").read_text("ascii", errors="replace")
        if "LOST" in text:
            raise RuntimeError("the trace's buffer is too small")
        return sorted(_events(text), key=lambda event: event.microseconds)

    def _enable(self, on: bool) -> None:
        for event in EVENTS:
            self._set(f"events/{event}/enable", str(int(on)))

    def _set(self, name: str, value: str) -> None:
        (self.folder / name).write_text(value + "\n" if value else "", encoding="ascii")


def _events(text: str) -> Iterator[Event]:
    for line in text.splitlines():
        found = LINE.match(line)
        if found is None:
            continue
        pid, seconds, kind, rest = found.groups()
        number, values = _values(kind, rest)
        yield Event(float(seconds) * 1e6, int(pid), kind, number, values)


def _values(kind: str, text: str) -> "tuple[int, tuple[int, ...]]":
    if kind == "sys_enter" and (found := ENTER.search(text)):
        return int(found[1]), tuple(int(value, 16) for value in found[2].split(", "))
    if kind == "sys_exit" and (found := LEAVE.search(text)):
        return int(found[1]), (int(found[2]),)
    if kind == "sched_switch" and (found := SWITCH.search(text)):
        return int(found[2]), (int(found[1]),)
    if kind == "sched_process_fork" and (found := FORK.search(text)):
        return int(found[1]), ()
    return 0, ()
