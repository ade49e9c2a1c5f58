"""Each aim takes its figure from the right place, and is met only where nothing denies it."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

import pytest

from figures import aims, tables
from figures.aims import Aim
from figures.dataset import Dataset
from figures.samples import Ratio, ratio


def call_data(call: "list[float]", floor: "list[float]") -> "dict[str, Any]":
    return {"calls": {aims.FLOOR: floor, aims.POLICY_CALL: call}}


def growth_data() -> "dict[str, Any]":
    ends = {"keys: parse": 10, "keys: check for duplicates": 40, "bytes: ping": 100,
            "bytes: call": 150}
    return {"series": [{"name": name, "items": [1, 2], "samples": [[7], [end]]}
                       for name, end in ends.items()]}


def stage(name: str, product: float) -> "dict[str, Any]":
    return {"name": name, "product": product}


def account_data() -> "dict[str, Any]":
    """A record, and what the engine's client library does, are not the product's own."""
    others = [stage("audit record", 4000), stage("login", 2000)]
    return {"subjects": {"empty program": {"stages": [stage("execve", 100)]},
                         "kova_query": {"stages": [stage("execve", 250), *others]}},
            "processor_us": {"empty program": [200, 100], "kova_list_tables": [240, 140]}}


def scale_data() -> "dict[str, Any]":
    """Each figure is of its own."""
    return {"idle": {"servers": {"proportional_set_mib": 300.5}},
            "load": {"policy_answered_call": {"p99_ms": 50.5},
                     "policy_answered_calls_a_second": 199.2},
            "wrong": 1, "lost": 2, "audit": {"missing": 4, "unasked": 8, "twice": 16},
            "left": {"sockets": 32, "processes": 64}}


FILES = {"linux": call_data([2, 3, 4], [2, 2, 2]), "windows": call_data([4, 4], [2, 2]),
         "growth": growth_data(), "scale": scale_data(), "account": account_data()}


@pytest.fixture(name="data")
def _data(tmp_path: Path) -> Dataset:
    for name, found in FILES.items():
        (tmp_path / f"{name}.json").write_text(json.dumps(found))
    return Dataset(tmp_path)


@pytest.mark.parametrize("aim, seen", [
    (aims.CALL_LINUX, Ratio(1.5, 1)), (aims.CALL_WINE, Ratio(2, 2)),
    (aims.LONG_CALL, Ratio(1.5, 1.5)), (aims.DUPLICATE_KEYS, Ratio(4, 4)),
    (aims.PROCESSOR_TIME, Ratio(1.2, 1.4)), (aims.OWN_SHARE, 0.15),
    (aims.IDLE_MEMORY, 300.5), (aims.CALL_P99, 50.5), (aims.CALL_RATE, 199.2),
    (aims.BAD_ANSWERS, 3), (aims.BAD_RECORDS, 28), (aims.LEFT, 96)])
def test_where_an_aim_is_seen(aim: Aim, seen: "float | Ratio", data: Dataset) -> None:
    assert aim in aims.AIMS and aim.measured(data) == pytest.approx(seen)


@pytest.mark.parametrize("seen, at_least, met", [
    (2, False, True), (2.01, False, False), (2, True, True), (1.99, True, False),
    (Ratio(2, 2), False, True), (Ratio(1.4, 2.01), False, False), (Ratio(2.01, 1.4), False, False),
    (Ratio(2, 1.99), True, False)])
def test_met(seen: "float | Ratio", at_least: bool, met: bool) -> None:
    assert Aim("", 2, lambda _: seen, at_least).is_met(seen) == met


@pytest.mark.parametrize("call, title", [
    (aims.POLICY_CALL, "kova_list_tables by policy"), ("(b) a query", "a query"),
    ("its worker", "its worker")])
def test_titles_have_no_letters(call: str, title: str) -> None:
    assert aims.title_of(call) == title


def test_a_ratio_is_seen_in_two_ways() -> None:
    # The noise of one round of three meets the floor.
    assert ratio([4, 4, 4], [1, 4, 40]) == Ratio(1, 4)


def rows(data: Dataset) -> "dict[str, list[str]]":
    found = [[cell.strip() for cell in line.split("|")[1:-1]]
             for line in tables.make("aims", data).splitlines()]
    return {row[0]: row[1:] for row in found}


@pytest.mark.parametrize("aim, row", [
    (aims.CALL_LINUX, ["at most 1.15", "1.50", "1", "not met"]),
    (aims.DUPLICATE_KEYS, ["at most 5", "4", "4", "met"]),
    (aims.OWN_SHARE, ["at most 0.2", "0.15", "", "met"]),
    (aims.CALL_RATE, ["at least 198", "199.2", "", "met"]),
    (aims.BAD_ANSWERS, ["at most 0", "3", "", "not met"])])
def test_table(aim: Aim, row: "list[str]", data: Dataset) -> None:
    assert rows(data)[aim.name] == row


def test_an_aim_that_was_not_measured(tmp_path: Path) -> None:
    assert rows(Dataset(tmp_path))[aims.CALL_WINE.name] == (
        ["at most 1.1", "–", "", "not measured: bench/run windows"])
