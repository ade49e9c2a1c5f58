"""The capacity plan follows from what was measured."""

from __future__ import annotations

import json
from pathlib import Path

import pytest

from figures import capacity_tables, tables
from figures.dataset import Dataset

COSTS = {"listener_mib": 0.281, "session_mib": 0.2, "session_kernel_mib": 0.05,
         "listener_descriptors": 52.0, "session_descriptors": 3.0, "list_ms": 1.8,
         "list_record_bytes": 295.9, "list_connections": 0.0, "query_ms": 2.2,
         "query_record_bytes": 288.9, "query_connections": 1.99, "call_mib": 0.3,
         "call_kernel_mib": 0.05, "call_descriptors": 4.0, "front_proxy_ms": 5.04,
         "host_proxy_ms": 1.8, "front_proxy_mib": 12.4, "host_proxy_mib": 10.2}


@pytest.fixture(name="data")
def _data(tmp_path: Path) -> Dataset:
    (tmp_path / "costs.json").write_text(json.dumps({"costs": COSTS}))
    return Dataset(tmp_path)


@pytest.mark.parametrize("value, expected", [
    (0, 0), (0.281, 0.29), (0.28, 0.28), (12.4, 13), (5.04, 5.1), (295.9, 300), (1, 1),
    (99.1, 100)])
def test_rounded_up_to_two_digits(value: float, expected: float) -> None:
    assert capacity_tables.rounded_up(value) == pytest.approx(expected)


def cells(data: Dataset, name: str) -> "dict[str, list[str]]":
    rows = [[cell.strip() for cell in line.split("|")[1:-1]]
            for line in tables.make(name, data).splitlines()]
    return {row[0]: row[1:] for row in rows}


@pytest.mark.parametrize("what, expected", [
    ("memory, MiB, without HAProxy",
     "0.29 × listeners + 0.25 × slots + (0.35 + the client library's own) × P × T"),
    ("memory of each HAProxy, MiB", "13 + 0.6 × P × T"),
    ("cores, all hosts together", "0.004 × P, and the engine's own"),
    ("cores, all fronts together", "0.0051 × P; less when clients keep their connections"),
    ("new connections to the engine", "2 × P a second"),
    ("audit", "C × N × 300 bytes a day")])
def test_formulas(what: str, expected: str, data: Dataset) -> None:
    assert cells(data, "capacity")[what] == [expected]


@pytest.mark.parametrize("what, expected", [
    ("slots", ["13", "125", "1,250", "12,500"]), ("listeners", ["1", "8", "79", "782"]),
    ("hosts", ["2", "2", "3", "14"]), ("processes", ["15", "136", "1,354", "13,532"]),
    ("memory of listeners, sessions and calls", ["4 MiB", "34 MiB", "344 MiB", "3.4 GiB"]),
    ("calls and logins a second", ["0.5", "5", "50", "500"]),
    ("cores of the hosts", ["0.002", "0.02", "0.2", "2"]),
    ("audit a day, MB", ["1.80", "18.0", "180", "1,800"])])
def test_examples(what: str, expected: "list[str]", data: Dataset) -> None:
    assert cells(data, "clients")[what] == expected
