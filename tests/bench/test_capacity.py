"""The capacity plan follows from what was measured."""

from __future__ import annotations

import json
import re
from pathlib import Path

import pytest

from figures import capacity_tables, limit_tables, scale_tables, tables
from figures.dataset import ROOT, Dataset

COSTS = {"listener_mib": 0.281, "session_mib": 0.2, "session_kernel_mib": 0.05,
         "listener_descriptors": 52.0, "session_descriptors": 3.0, "list_ms": 1.8,
         "list_record_bytes": 295.9, "list_connections": 0.0, "query_ms": 2.2,
         "query_record_bytes": 288.9, "query_connections": 1.99, "call_mib": 0.3,
         "call_kernel_mib": 0.05, "call_descriptors": 4.0, "front_proxy_ms": 5.04,
         "host_proxy_ms": 1.8, "front_proxy_mib": 12.4, "host_proxy_mib": 10.2}

HAPROXY = [(30.2, 1050), (36.2, 940), (35.0, 930)]
"""Idle and twice under load: 26.0 MiB more at most than with one client."""


def scale(haproxy: "list[tuple[float, int]]") -> "dict[str, object]":
    idle, *load = [{"haproxy": {"proportional_set_mib": mib, "descriptors": descriptors}}
                   for mib, descriptors in haproxy]
    return {"parameters": {"sessions": 1000}, "idle": idle, "load": {"samples": load},
            "initializes": 3000, "refused_initializes": 13}


@pytest.fixture(name="data")
def _data(tmp_path: Path) -> Dataset:
    (tmp_path / "costs.json").write_text(json.dumps({"costs": COSTS}))
    (tmp_path / "scale.json").write_text(json.dumps(scale(HAPROXY)))
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
    ("memory of a HAProxy that clients connect to, MiB", "13 + 0.026 × C + 0.6 × P × T"),
    ("memory of the HAProxy of a host behind fronts, MiB", "13 + 0.6 × P × T of this host"),
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
    ("memory of each front's HAProxy", ["13 MiB", "17 MiB", "54 MiB", "423 MiB"]),
    ("memory of each host's HAProxy, one host lost", ["13 MiB", "14 MiB", "20 MiB", "25 MiB"]),
    ("`maxconn` of each front", ["11", "110", "1,100", "11,000"]),
    ("calls and logins a second", ["0.5", "5", "50", "500"]),
    ("cores of the hosts", ["0.002", "0.02", "0.2", "2"]),
    ("audit a day, MB", ["1.80", "18.0", "180", "1,800"])])
def test_examples(what: str, expected: "list[str]", data: Dataset) -> None:
    assert cells(data, "clients")[what] == expected


@pytest.mark.parametrize("haproxy, told", [
    (HAPROXY, "36.2 MiB and 1,050 descriptors: 27 KiB"),
    ([(36.2, 940), (30.2, 1050)], "36.2 MiB and 1,050 descriptors: 27 KiB"),
    ([(20.2, 940), (15.2, 935)], "20.2 MiB and 940 descriptors: 10 KiB")])
def test_what_kept_connections_cost(haproxy: "list[tuple[float, int]]", told: str, data: Dataset,
                                    tmp_path: Path) -> None:
    (tmp_path / "scale.json").write_text(json.dumps(scale(haproxy)))
    assert told in " ".join(tables.make("kept", data).split())


def test_refused_initializes(data: Dataset) -> None:
    assert " 13 of 3,000 requests " in tables.make("refused", data).replace("\n", " ")


# what runs out


@pytest.mark.parametrize("value, expected", [
    (819.2, 810), (181.8, 180), (4705.3, 4700), (200, 200), (48000, 48000), (99, 99), (7, 7)])
def test_rounded_down_to_two_digits(value: float, expected: float) -> None:
    assert limit_tables.rounded_down(value) == pytest.approx(expected)


def test_what_runs_out_comes_in_order(data: Dataset) -> None:
    found = {name: row for name, row in cells(data, "limits").items() if row[1] != "not known"}
    assert list(found.items())[2:] == [
        ("host without a front: `maxconn`", ["200", "180"]),
        ("host: slots", ["1,024, the most that was tried", "810"]),
        ("host: the listeners' rate", ["7,680 calls a minute", "2,500"]),
        ("front: `maxconn`", ["4,000", "3,600"]),
        ("host: local ports", ["235 calls a second", "4,700"]),
        ("front: processors", ["2, for 392 calls a second", "7,800"]),
        ("host: processors", ["2, for 500 calls a second", "10,000"]),
        ("host: memory", ["4 GiB", "10,000"]),
        ("host behind fronts: `maxconn`", ["1,200", "48,000"])]


def test_what_is_not_known_comes_last(data: Dataset) -> None:
    assert [row[1] for row in cells(data, "limits").values()][-2:] == ["not known"] * 2


def test_a_host_is_planned_with_the_slots_that_were_tried() -> None:
    assert scale_tables.sessions(Dataset()) == capacity_tables.SLOTS_OF_A_HOST


@pytest.mark.parametrize("name", limit_tables.MAXCONN)
def test_maxconn_is_that_of_the_delivered_file(name: str) -> None:
    text = (ROOT / "deploy" / name).read_text("utf-8")
    found = re.findall(r"^ +maxconn (\d+)\b", text, re.MULTILINE)
    assert found == [str(limit_tables.MAXCONN[name])]


def test_the_rate_is_the_listeners_own() -> None:
    gate = (ROOT / "src" / "http" / "gate.cpp").read_text("utf-8")
    assert f"kDefaultRate = {limit_tables.RATE_A_MINUTE};" in gate
