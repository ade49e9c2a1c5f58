"""What `bench/run scale` finds: its table, its plot, and whether it is sound."""

from __future__ import annotations

import copy
import json
import re
from pathlib import Path
from types import SimpleNamespace
from typing import Any

import pytest

from figures import plot_series, tables
from figures.dataset import Dataset
from harness.audit_files import KEYS
from scale.clients import Found
from scale import program
from scale.program import audit_of, is_sound


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


def test_what_the_run_sets_stands_in_its_line(tmp_path: Path) -> None:
    asked = program.parse(["--build", "b", "--data", "d"])
    machine = {"processor": "p", "processors": 2, "memory_mib": 1024, "distribution": "d",
               "kernel": "k"}
    (tmp_path / "scale.json").write_text(json.dumps(
        {"machine": machine, "date": "", "commit": "", "load_average": [0, 0],
         "parameters": program.parameters(asked)}))
    line = " ".join(tables.make("run-scale", Dataset(tmp_path)).split())
    assert line.endswith(", seed 1, haproxy_maxconn 4000, KOVA_MCP_HTTP_RATE_PER_MINUTE 1000000, "
                         "engine_connections 1000.")


# Whether the run is sound


def test_a_sound_run() -> None:
    assert is_sound(scale_data())


@pytest.mark.parametrize("path, value", [
    (["wrong"], 1), (["lost"], 1), (["audit", "missing"], 1), (["audit", "unasked"], 1),
    (["audit", "twice"], 1), (["left", "sockets"], 1), (["left", "sessions and workers"], 1),
    (["audit", "records"], 99998), (["audit", "answered"], 100000)])
def test_an_unsound_run(path: "list[str]", value: int) -> None:
    data: Any = copy.deepcopy(scale_data())
    place = data
    for name in path[:-1]:
        place = place[name]
    place[path[-1]] = value
    assert not is_sound(data)


def test_a_run_without_answers_is_not_sound() -> None:
    data = scale_data()
    data["audit"] |= {"answered": 0, "records": 0}
    assert not is_sound(data)


def audited(folder: Path, recorded: "list[str]", answered: "list[str]",
            cancelled: "list[str]") -> "dict[str, int]":
    audit = folder / "audit.jsonl"
    records = [{**dict.fromkeys(KEYS, ""), "correlation_id": name} for name in recorded]
    audit.write_bytes(b"".join(json.dumps(one).encode() + b"\r\n" for one in records))
    return audit_of(SimpleNamespace(audit=audit), {"answered": answered, "cancelled": cancelled})


@pytest.mark.parametrize("recorded, answered, cancelled, wrong", [
    (["a", "b"], ["b", "a"], [], {}),
    (["a", "c"], ["a"], ["c"], {}), (["a"], ["a"], ["c"], {}),
    (["a"], ["a", "b"], [], {"missing": 1}), (["a", "b"], ["a"], [], {"unasked": 1}),
    (["a", "a", "b"], ["a", "b"], [], {"twice": 1}),
    (["a", "a", "b"], ["a", "c"], [], {"twice": 1, "unasked": 1, "missing": 1}),
    ([], ["a", "b"], [], {"missing": 2})])
def test_records_of_calls(recorded: "list[str]", answered: "list[str]", cancelled: "list[str]",
                          wrong: "dict[str, int]", tmp_path: Path) -> None:
    found = audited(tmp_path, recorded, answered, cancelled)
    assert found == {"answered": len(answered), "missing": 0, "unasked": 0, "twice": 0, **wrong,
                     "records": len([name for name in recorded if name not in cancelled])}


def test_a_fault_is_told_in_its_phase_alone() -> None:
    found = Found()
    found.fault("wrong", "x" * 400)
    assert (found.counts, found.faults) == ({"wrong": 1}, ["wrong: " + "x" * 300])
    found.next_phase()
    assert (found.counts, found.faults) == ({}, [])
