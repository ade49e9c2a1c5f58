"""A round in which Wine's own server ends is played again, and is not judged before."""

from __future__ import annotations

import os
import shutil
import subprocess
from pathlib import Path
from types import SimpleNamespace
from typing import Any, Callable, Iterator

import pytest

from chaos.ledger import Ledger
from chaos.program import Plan, Run
from chaos.wine_server import WineEnded, WineServer
from harness import processes
from harness.waiting import wait_until

VARIABLE = "CHAOS_TEST"
Program = Callable[[], "subprocess.Popen[bytes]"]


@pytest.fixture(autouse=True)
def short_pause(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr("chaos.wine_server.KILL_PAUSE", 0.01)


@pytest.fixture(name="start")
def _start(tmp_path: Path) -> Iterator[Callable[[str], "subprocess.Popen[bytes]"]]:
    """Starts a program of a name that waits for its input to end."""
    with_input = []

    def start(name: str) -> "subprocess.Popen[bytes]":
        program = tmp_path / name
        if not program.exists():
            shutil.copy2("/bin/cat", program)
        with_input.append(subprocess.Popen([program], stdin=subprocess.PIPE,
                                           env={VARIABLE: str(tmp_path)}))
        wait_until(lambda: processes.name(with_input[-1].pid) == name, what="the program")
        return with_input[-1]
    yield start
    for process in with_input:
        assert process.stdin is not None
        process.stdin.close()
        process.wait()


def test_what_waits_for_an_ended_server_is_killed(start, tmp_path):
    server, program, other = start("wineserver64"), start("program"), subprocess.Popen(
        ["/bin/cat"], stdin=subprocess.PIPE, env={VARIABLE: "another run"})
    with WineServer(lambda: processes.marked(str(tmp_path), VARIABLE)) as watched:
        assert not watched.has_ended and program.poll() is None
        server.kill()
        wait_until(lambda: watched.has_ended, what="the end")
        assert program.wait() == -9
        assert start_late(start) == -9
        assert other.poll() is None
    assert other.stdin is not None
    other.stdin.close()
    assert other.wait() == 0


def start_late(start: Any) -> int:
    """What was started just before the end comes up after it."""
    return start("late").wait()


def test_a_server_that_goes_on_is_let_alone(start, tmp_path):
    server, program = start("wineserver64"), start("program")
    before = os.listdir("/proc/self/fd")
    with WineServer(lambda: processes.marked(str(tmp_path), VARIABLE)) as watched:
        assert not watched.has_ended
    assert server.poll() is None and program.poll() is None
    assert len(os.listdir("/proc/self/fd")) == len(before)


class Rounds:
    """Stands for a run: in the round `lost`, Wine's server ends."""

    def __init__(self, lost: int, fails: bool = False) -> None:
        self.ledger, self.played = Ledger(), list[int]()
        self.lost, self.fails = lost, fails
        self.wine_server = SimpleNamespace(has_ended=False)

    def round(self, number: int) -> None:
        self.played.append(number)
        self.ledger.begin_round(number)
        self.ledger.count("sent")
        if number == self.lost:
            self.ledger.violation("nothing comes any more")
            self.wine_server.has_ended = True
            if self.fails:
                raise AssertionError

    def _is_lost(self) -> bool:
        return self.wine_server.has_ended


@pytest.mark.parametrize("fails", [False, True])
def test_a_lost_round_is_next_again_and_leaves_nothing(fails):
    rounds, plan = Rounds(lost=7, fails=fails), Plan(rounds=4, seconds=0, next=5)
    with pytest.raises(WineEnded):
        Run.play(rounds, plan)
    assert rounds.played == [5, 6, 7] and plan.next == 7 and plan.done == 2 and plan.goes_on
    assert rounds.ledger.violations == [] and rounds.ledger.counts["sent"] == 2
    rounds.wine_server.has_ended, rounds.lost = False, 0
    Run.play(rounds, plan)
    assert rounds.played[3:] == [7, 8] and not plan.goes_on and rounds.ledger.counts["sent"] == 4


def test_a_failure_while_the_server_runs_is_one():
    rounds = Rounds(lost=1, fails=True)
    rounds._is_lost = lambda: False  # type: ignore[method-assign]
    with pytest.raises(AssertionError):
        Run.play(rounds, Plan(rounds=2, seconds=0, next=1))


def test_seconds_are_those_of_judged_rounds():
    plan = Plan(rounds=0, seconds=10)
    plan.has_played(9.5)
    assert plan.goes_on
    plan.has_played(0.5)
    assert not plan.goes_on and plan.next == plan.done == 2
