"""What `bench/run scale` finds: its table, its plot, and whether it is sound."""

from __future__ import annotations

import json
import re
from pathlib import Path
from typing import Any

import pytest

from figures import plot_series, tables
from figures.dataset import Dataset


def held(mib: float) -> "dict[str, Any]":
    return {"processes": 1088, "descriptors": 6000, "proportional_set_mib": mib}


def scale_data(left: int = 0) -> "dict[str, Any]":
    latency = {"median_ms": 5.123, "p99_ms": 50.5, "highest_ms": 1000.25, "count": 4,
               "histogram": {"up_to_ms": [1.0, 2.0], "counts": [3, 1]}}
    sample = {"second": 5.0, **held(320.5), "haproxy": held(30.0), "engine": held(2.0)}
    return {"parameters": {"listeners": 64, "sessions": 1024, "seconds": 600.0},
            "idle": {"opening_seconds": 60.0, "servers": held(300.5), "haproxy": held(20.0),
                     "engine": held(1.0)},
            "load": {"highest": held(320.5), "policy_answered_call": latency, "query": latency,
                     "queries": 9000, "policy_answered_calls_a_second": 200.0, "cancelled": 900,
                     "processor_seconds": {"servers": 300.25, "haproxy": 80.0, "engine": 9.5},
                     "samples": [sample], "counts": {}},
            "initializes": 3000, "refused_initializes": 0, "wrong": 0, "lost": 0,
            "audit": {"answered": 99999, "records": 99999, "missing": 0, "unasked": 0, "twice": 0},
            "left": {"sessions and workers": left, "sockets": 0}, "load_average": [0.1, 4.2]}


def dataset(folder: Path, left: int = 0) -> Dataset:
    (folder / "scale.json").write_text(json.dumps(scale_data(left)))
    return Dataset(folder)


@pytest.mark.parametrize("left, shown", [(0, "nothing"), (2, "sessions and workers 2")])
def test_table(left: int, shown: str, tmp_path: Path) -> None:
    text = tables.make("scale", dataset(tmp_path, left))
    assert re.search(rf"^\| left at the end +\| +{shown} \|$", text, re.MULTILINE)
    assert re.search(r"^\| processor time, s: .* \| +300\.2, 80\.0, 9\.5 \|$", text, re.MULTILINE)
    assert len(set(map(len, text.splitlines()))) == 1


def test_plot(tmp_path: Path) -> None:
    series = plot_series.scale(dataset(tmp_path))
    assert series["title"] == "1,024 sessions behind HAProxy"
    assert [line["longer"] for line in series["latency"]["lines"]] == [[0.25, 0.0]] * 2
    assert [(line["seconds"], line["mib"]) for line in series["memory"]["lines"]] == [
        ([0.0, 5.0], [300.5, 320.5]), ([0.0, 5.0], [20.0, 30.0]), ([0.0, 5.0], [1.0, 2.0])]


def test_its_place_in_a_document(tmp_path: Path) -> None:
    text = tables.make("plot-scale", dataset(tmp_path))
    assert 'srcset="plots/scale-dark.svg"' in text and 'src="plots/scale-light.svg"' in text
