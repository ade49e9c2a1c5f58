"""What a data file says of the machine's other work."""

from __future__ import annotations

from typing import Any

import pytest

from figures import conditions
from figures.conditions import Moment, since
from figures.run_line import run_line


def run(**conditions_of_run: Any) -> "dict[str, Any]":
    return {"machine": {"processor": "P", "processors": 2, "memory_mib": 2048, "kernel": "6",
                        "distribution": "D"},
            "date": "2026-11-23 08:00 UTC", "commit": "0123", "load_average": [0.5, 1.5],
            "parameters": {"rounds": 2}, **conditions_of_run}


def test_a_moment_is_one_word_and_read_again() -> None:
    assert str(Moment(0.5, 100, 10)) == "0.5:100:10"
    assert Moment.of("0.5:100:10") == Moment(0.5, 100, 10)


@pytest.mark.parametrize("word", ["", "0.5", "0.5:100", "0.5:100:10:1", "0.5:a:10"])
def test_another_word_is_refused(word: str) -> None:
    with pytest.raises(ValueError):
        Moment.of(word)


def test_now_counts_on() -> None:
    first, second = Moment.now(), Moment.now()
    assert 0 < first.wanted <= second.wanted and 0 <= first.stolen <= second.stolen


@pytest.mark.parametrize("wanted, stolen, share", [(300, 50, 0.2), (100, 10, 0.0), (200, 10, 0.0)])
def test_the_share_that_the_host_withheld(wanted: int, stolen: int, share: float,
                                          monkeypatch: pytest.MonkeyPatch) -> None:
    after = Moment(2.0, wanted, stolen)
    monkeypatch.setattr(conditions.Moment, "now", lambda: after)
    assert since(Moment(0.5, 100, 10)) == {"load_average": [0.5, 2.0], "stolen": share}


def test_the_run_line_says_it() -> None:
    line = run_line(run(stolen=0.24)).replace("\n", " ")
    assert "load 0.5 before, 1.5 after; 24 % of the" in line
    assert "withheld" not in run_line(run())
