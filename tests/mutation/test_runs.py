"""What is seen of a run while it lasts."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path
from typing import Iterator

import pytest

from mutation import tests

ENDS_AT = {"the process": ("task",), "a thread": ("task", "1", "stat")}
"""How far a process can be looked at that ends meanwhile."""


class Ending:
    """A folder of /proc that is gone before everything in it has been read."""

    def __init__(self, gone: "tuple[str, ...]", place: "tuple[str, ...]" = ()) -> None:
        self.gone = gone
        self.place = place

    def __truediv__(self, name: str) -> "Ending":
        return Ending(self.gone, (*self.place, name))

    def iterdir(self) -> "Iterator[Ending]":
        self.look()
        return iter([self / "1"])

    def read_text(self, errors: str) -> str:
        self.look()
        return "1 (name) S 1 1 1 0 -1 0 0 0 0 0 1 2"

    def look(self) -> None:
        if self.place == self.gone:
            raise FileNotFoundError(self.place)


@pytest.mark.parametrize("gone", ENDS_AT.values(), ids=ENDS_AT)
def test_a_process_that_ends_while_it_is_looked_at(monkeypatch, gone):
    members = [Ending(gone), Path("/proc") / str(os.getpid())]
    monkeypatch.setattr(tests, "session_members", lambda session: members)
    ticks, awake = tests.activity(1)
    assert awake and ticks >= 0
    monkeypatch.setattr(tests, "session_members", lambda session: [Ending(())])
    assert tests.activity(1) == (3, False)


def test_a_session_has_the_processes_that_were_started_in_it():
    with subprocess.Popen([sys.executable, "-c", "input()"], stdin=subprocess.PIPE,
                          start_new_session=True) as running:
        assert [member.name for member in tests.session_members(running.pid)] == [str(running.pid)]
        running.communicate(b"\n")
    assert tests.session_members(running.pid) == []
