"""The server beside its peers: every row of the table and every plot has its floor."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

import pytest

from figures import plot_series, tables
from figures.dataset import Dataset

RATES = {"kova-mcp": 400.0, "Other": 300.0, "floor": 5000.0}


def http(workload: str, clients: int, name: str) -> "dict[str, Any]":
    return {"workload": workload, "clients": clients, "subject": name,
            "median_a_second": RATES[name] * clients, "ratio_to_last": 0.08,
            "latency": {"median_ms": 1.0, "p90_ms": 2.0, "p99_ms": 3.0}}


@pytest.fixture(name="data")
def _data(tmp_path: Path) -> Dataset:
    taken = {"median_ms": 0.05, "count": 1, "histogram": {"up_to_ms": [0.06], "counts": [1]}}
    names = ["floor", "kova-mcp", "Other"]
    (tmp_path / "peers.json").write_text(json.dumps({
        "versions": {"Other": "1.2"}, "start_ms": {name: [1.5] for name in names},
        "stdio": {"ping": {name: taken for name in names},
                  "query": {name: taken for name in names}},
        "memory": {name: {"highest_mib": 0.15 if name == "floor" else 3.5} for name in names},
        "http": [http(workload, clients, name) for workload in ("ping", "query")
                 for clients in (1, 8) for name in RATES]}))
    return Dataset(tmp_path)


def test_table(data: Dataset) -> None:
    rows = [[cell.strip() for cell in line.split("|")[1:-1]]
            for line in tables.make("peers", data).splitlines()]
    assert rows[0] == ["", "floor", "kova-mcp", "Other 1.2"]
    found = {row[0]: row[1:] for row in rows[2:]}
    assert found["ping, HTTP, 8 clients, a second"] == ["40,000", "3,200", "2,400"]
    assert found["memory during calls, highest"] == ["0.1 MiB", "3.5 MiB", "3.5 MiB"]
    assert len(found) == 8 and all(cell not in ("", "–") for row in found.values() for cell in row)


def test_ratios_are_to_the_floor(data: Dataset) -> None:
    head, _, ours, *_ = tables.make("peers-http", data).splitlines()
    assert "ratio to floor" in head and ours.endswith("0.08 |")


def test_plots(data: Dataset) -> None:
    assert [bar["name"] for bar in plot_series.memory(data)["bars"]] == [
        "empty program", "kova-mcp", "Other"]
    for panel in plot_series.throughput(data)["panels"]:
        assert {line["name"] for line in panel["lines"]} == {"empty listener", "kova-mcp", "Other"}
