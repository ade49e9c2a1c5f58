"""A run that could not show anything does not pass, and what it could not do is named."""

from __future__ import annotations

from types import SimpleNamespace
from typing import Any

import pytest

from chaos.ledger import Ledger
from chaos.records import JUDGED, LEFT_OUT_WITH, LEFT_OUT_WITHOUT
from chaos.report import HELD, SHOWN_NOTHING, VIOLATED, WRITTEN, report

DONE = {JUDGED: 5, WRITTEN: 2, "fault kill_worker": 1}


def stage(*, windows: bool = False, mounts: bool = True) -> Any:
    folder = SimpleNamespace(can_be_filled=mounts)
    return SimpleNamespace(target=SimpleNamespace(windows=windows, name="t"), audit=folder,
                           state=folder, clock=object())


def told(capsys: Any, counts: "dict[str, int]", where: Any = None,
         chosen: "list[str] | None" = None, violation: bool = False) -> tuple[int, str]:
    ledger = Ledger()
    ledger.counts.update(counts)
    if violation:
        ledger.violation("something")
    code = report(ledger, where or stage(), "1", chosen)
    return code, capsys.readouterr().out


def test_a_run_in_which_everything_held(capsys):
    code, text = told(capsys, DONE)
    assert code == HELD == 0 and "shows nothing" not in text and "impossible" not in text


@pytest.mark.parametrize("absent, named", [
    (JUDGED, JUDGED), (WRITTEN, WRITTEN), ("fault kill_worker", "the faults")])
def test_a_run_without_what_it_judges_by(capsys, absent, named):
    code, text = told(capsys, {**DONE, absent: 0})
    assert code == SHOWN_NOTHING != 0 and f"the run shows nothing: none of {named}\n" in text


def test_a_violation_is_told_before_that(capsys):
    assert told(capsys, {}, violation=True)[0] == VIOLATED == 1


def test_calls_that_are_left_out(capsys):
    text = told(capsys, {**DONE, LEFT_OUT_WITH: 7, LEFT_OUT_WITHOUT: 3})[1]
    assert "left out: 7 with a record, 3 without\n" in text


@pytest.mark.parametrize("where, named", [
    (stage(mounts=False), ["fill_audit_folder", "fill_state_folder"]),
    (stage(windows=True), ["take_descriptors", "take_memory", "limit_file_size"]),
])
def test_faults_that_are_impossible(capsys, where, named):
    text = told(capsys, DONE, where)[1]
    lines = [line.split(": ") for line in text.splitlines() if line.startswith("impossible")]
    assert [fault for _, fault, _ in lines] == named
    assert not any(fault in text.split("never done")[1] for fault in named)


def test_faults_that_were_not_done(capsys):
    text = told(capsys, DONE, chosen=["kill_worker", "stop_proxy"])[1]
    assert text.endswith("; never done: stop_proxy\n")
