"""A round in which Wine's own server ends is played again, and is not judged before."""

from __future__ import annotations

import contextlib
import os
import shutil
import subprocess
from pathlib import Path
from types import SimpleNamespace
from typing import Any, Callable, Iterator

import pytest

import wine
from chaos import program
from chaos.ledger import Ledger
from chaos.program import WINE_ENDED, WINE_ENDS_LIMIT, Plan, Run
from chaos.wine_server import WineEnded, WineServer
from harness import processes
from harness.waiting import wait_until

VARIABLE = "CHAOS_TEST"


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
    with WineServer(str(tmp_path), VARIABLE) as watched:
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
    with WineServer(str(tmp_path), VARIABLE) as watched:
        assert not watched.has_ended
    assert server.poll() is None and program.poll() is None
    assert len(os.listdir("/proc/self/fd")) == len(before)


def test_no_server_and_two_servers_are_refused(start, tmp_path):
    with pytest.raises(wine.WineFailure, match="but 0"):
        WineServer(str(tmp_path), VARIABLE)
    for name in ("wineserver64", "wineserver"):
        start(name)
    with pytest.raises(wine.WineFailure, match="but 2"):
        WineServer(str(tmp_path), VARIABLE)


class Rounds(Run):
    """Rounds in which nothing is done. In the rounds `lost`, Wine's server ends."""

    def __init__(self, ledger: Ledger, lost: list[int], fails: bool = False) -> None:
        self.ledger, self.lost, self.fails = ledger, lost, fails
        self.played: list[int] = []
        self.wine_server = SimpleNamespace(has_ended=False)
        self.stage = None

    def round(self, number: int) -> None:
        self.played.append(number)
        self.ledger.begin_round(number)
        self.ledger.count("sent")
        if number in self.lost:
            self.lost.remove(number)
            self.ledger.violation("nothing comes any more")
            self.wine_server.has_ended = True
            if self.fails:
                raise AssertionError
            self._expect_wine()


@pytest.mark.parametrize("fails", [False, True])
def test_a_lost_round_is_next_again(fails):
    rounds, plan = Rounds(Ledger(), lost=[7], fails=fails), Plan(rounds=4, seconds=0, first=5)
    with pytest.raises(WineEnded):
        rounds.play(plan)
    assert rounds.played == [5, 6, 7] and plan.next == 7 and plan.done == 2 and plan.goes_on
    rounds.wine_server.has_ended = False
    rounds.play(plan)
    assert rounds.played[3:] == [7, 8] and not plan.goes_on


def test_a_failure_while_the_server_runs_is_one():
    rounds = Rounds(Ledger(), lost=[1], fails=True)
    rounds.wine_server = None
    rounds.round = lambda number: 1 / 0  # type: ignore[method-assign]
    with pytest.raises(ZeroDivisionError):
        rounds.play(Plan(rounds=2, seconds=0, first=1))


def play(monkeypatch: pytest.MonkeyPatch, rounds: int, lost: list[int]) -> tuple[Ledger, list[str]]:
    """A whole run; its ledger as it is reported, and the folders of its servers."""
    told, folders = [], []

    @contextlib.contextmanager
    def started(_: Any, folder: Path, *__: Any) -> Iterator[Rounds]:
        folders.append(folder.name)
        yield Rounds(ledger, lost)

    ledger = Ledger()
    monkeypatch.setattr(program, "started", started)
    monkeypatch.setattr(program, "Ledger", lambda: ledger)
    monkeypatch.setattr(program, "own_mounts", lambda: False)
    monkeypatch.setattr(program, "report", lambda given, *_: told.append(given) or 0)
    assert program.main(["--rounds", str(rounds), "--seed", "1"]) == 0
    assert told == [ledger]
    return ledger, folders


def test_a_run_goes_on_with_new_servers(monkeypatch):
    ledger, folders = play(monkeypatch, rounds=3, lost=[1, 2])
    assert folders == ["servers0", "servers1", "servers2"]
    assert ledger.violations == []
    assert dict(ledger.counts) == {"sent": 3, "rounds": 3, WINE_ENDED: 2}


def test_it_does_not_go_on_for_ever(monkeypatch, capsys):
    with pytest.raises(AssertionError):
        play(monkeypatch, rounds=1, lost=[0] * (WINE_ENDS_LIMIT + 1))
    assert "ends again and again" in capsys.readouterr().err
    assert play(monkeypatch, rounds=1, lost=[0] * WINE_ENDS_LIMIT)[0].counts["rounds"] == 1


def test_seconds_are_those_of_judged_rounds():
    plan = Plan(rounds=0, seconds=10)
    plan.has_played(9.5)
    assert plan.goes_on
    plan.has_played(0.5)
    assert not plan.goes_on and plan.next == plan.done == 2
