"""Reading, reducing and laying out figures."""

from __future__ import annotations

import json
from functools import partial
from pathlib import Path
from typing import Any

import pytest

from figures import (growth_tables, markdown, plot_series, raw, record, samples, tables, turns,
                     wording)
from figures.dataset import Dataset


@pytest.mark.parametrize("values, share, expected", [
    ([7], 0.5, 7), ([7], 0.0, 7), ([3, 1, 2], 0.5, 2), ([4, 3, 2, 1], 0.5, 2),
    (list(range(1, 101)), 0.99, 99), (list(range(1, 101)), 1.0, 100), ([1, 2], 0.51, 2)])
def test_quantile(values: "list[float]", share: float, expected: float) -> None:
    assert samples.quantile(values, share) == expected


def test_no_samples() -> None:
    with pytest.raises(ValueError, match="no samples"):
        samples.quantile([], 0.5)
    assert samples.latency([]) == {
        "count": 0, "median_ms": None, "p90_ms": None, "p99_ms": None, "p999_ms": None,
        "highest_ms": None, "histogram": {"up_to_ms": [], "counts": []}}


def test_ratios_are_paired() -> None:
    assert samples.ratios([2, 9], [1, 3]) == [2, 3]
    with pytest.raises(ValueError, match="2 samples against 1"):
        samples.ratios([2, 9], [1])


def test_histogram_buckets() -> None:
    # Both ends of a bucket: 1,000 µs is its limit, 1,001 µs belongs to the next.
    assert samples.histogram([0, 1, 1000, 1001, 1122]) == {
        "up_to_ms": [0.001, 1.0, 1.122], "counts": [2, 1, 2]}


def played(rounds: int) -> "tuple[list[str], dict[str, int]]":
    """The subjects of each round in their order, and how many samples each of them has."""
    order: "list[str]" = []
    found = turns.by_turns({name: partial(order.append, name) for name in "abc"}, rounds)
    return (["".join(order[at:at + 3]) for at in range(0, len(order), 3)],
            {name: len(values) for name, values in found.items()})


def test_turns_are_drawn_for_each_round() -> None:
    rounds, samples_of = played(60)
    assert samples_of == dict.fromkeys("abc", 60)
    assert len(rounds) == 61  # one more, which does not count
    assert set(rounds) == {"abc", "acb", "bac", "bca", "cab", "cba"}
    assert played(60)[0] == rounds


# Data files


@pytest.mark.parametrize("value", [
    {}, {"a": []}, {"a": list(range(200))}, {"a": [1.5, -2e-07, 3]}, {"a": ["x", "y"]},
    {"a": "[\n 1,\n 2\n]"}, {"a": [[1, 2], [3]]}, {"a": [None, 1]}, {"ü": "µs"}])
def test_text_is_the_same_json(value: "dict[str, Any]") -> None:
    assert json.loads(record.text_of(value)) == value


def test_lists_of_numbers_fill_lines() -> None:
    lines = record.text_of({"a": list(range(200))}).splitlines()
    assert len(lines) < 14 and max(map(len, lines)) <= record.WIDTH + len(' "a": [')


def test_a_data_file_says_where_it_comes_from(tmp_path: Path) -> None:
    part, data = tmp_path / "part.json", tmp_path / "new" / "data.json"
    part.write_text('{"calls": {"floor": [1, 2]}}')
    assert record.main(["--data", str(data), "--began", "0.5:100:10", "--parameter", "rounds=2",
                        str(part)]) == 0
    found = json.loads(data.read_text("utf-8"))
    assert list(found) == ["machine", "date", "commit", "load_average", "stolen", "parameters",
                           "calls"]
    assert set(found["machine"]) == {"processor", "processors", "memory_mib", "kernel",
                                     "distribution"}
    assert found["parameters"] == {"rounds": 2} and found["load_average"][0] == 0.5
    assert 0 <= found["stolen"] <= 1
    assert [path.name for path in data.parent.iterdir()] == ["data.json"]


@pytest.mark.parametrize("text", [None, "", "[1]", '{"a": 1'])
def test_a_bad_part_replaces_nothing(text: "str | None", tmp_path: Path,
                                     capsys: pytest.CaptureFixture[str]) -> None:
    part, data = tmp_path / "part.json", tmp_path / "data.json"
    data.write_text("old")
    if text is not None:
        part.write_text(text)
    assert record.main(["--data", str(data), "--began", "1:2:3", str(part)]) == 1
    assert data.read_text() == "old"
    assert capsys.readouterr().err.startswith(f"figures.record: {part}: ")


def micro_result(name: str, speed: float, index: int, **rest: Any) -> "dict[str, Any]":
    return {"family_index": index, "run_name": name, "name": name, "bytes_per_second": speed,
            "aggregate_name": "median", **rest}


def test_micro_takes_medians_in_their_order(tmp_path: Path) -> None:
    path = tmp_path / "micro.json"
    path.write_text(json.dumps({"benchmarks": [
        micro_result("parse/keys/other", 5.4, 2), micro_result("parse/keys/ours", 9, 1),
        micro_result("parse/keys/ours", 1, 1, aggregate_name="mean")]}))
    found = raw.micro(path)["bytes_a_second"]
    assert found == {"parse": {"keys": {"ours": 9, "other": 5}}}
    assert list(found["parse"]["keys"]) == ["ours", "other"]


@pytest.mark.parametrize("results, message", [
    ([], "no medians"),
    ([micro_result("a/b/c", 1, 1, error_occurred=True, error_message="failed")], "a/b/c: failed")])
def test_micro_refuses(results: "list[dict[str, Any]]", message: str, tmp_path: Path) -> None:
    path = tmp_path / "micro.json"
    path.write_text(json.dumps({"benchmarks": results}))
    with pytest.raises(ValueError, match=message):
        raw.micro(path)


def test_http_ratios_are_those_of_the_rounds(tmp_path: Path) -> None:
    path = tmp_path / "http.json"
    common = {"workload": "ping", "clients": 1, "microseconds": [100, 200]}
    path.write_text(json.dumps({"memory": [], "throughput": [
        {**common, "subject": "a", "a_second": [10, 30, 20]},
        {**common, "subject": "b", "a_second": [5, 10, 20]}]}))
    first, last = raw.http(path)["throughput"]
    assert (first["median_a_second"], first["ratio_to_last"], last["ratio_to_last"]) == (20, 2, 1)
    assert "microseconds" not in first and first["latency"]["count"] == 2


# Tables


def test_table() -> None:
    assert markdown.table(("", "ms"), [("a", 1), ("bcd", 22)]) == (
        "|     | ms |\n|-----|---:|\n| a   |  1 |\n| bcd | 22 |")


def test_a_row_is_not_too_wide() -> None:
    fits = "x" * (markdown.WIDEST_ROW - 4)
    assert len(markdown.table((fits,), []).splitlines()[0]) == markdown.WIDEST_ROW
    with pytest.raises(ValueError, match="a row has 161 characters"):
        markdown.table((fits + "x",), [])


def test_regions_are_filled_and_nothing_else() -> None:
    text = "a\n<!-- table one -->\nold\n<!-- end -->\nb\n<!-- table two -->\n<!-- end -->\nc\n"
    filled = markdown.filled(text, lambda name: f"new {name}")
    assert filled == ("a\n<!-- table one -->\nnew one\n<!-- end -->\nb\n"
                      "<!-- table two -->\nnew two\n<!-- end -->\nc\n")
    assert markdown.filled(filled, lambda name: f"new {name}") == filled


@pytest.mark.parametrize("text", [
    "<!-- table one -->\nold\n", "<!-- table one -->\n<!-- table two -->\n<!-- end -->\n"])
def test_a_region_without_an_end(text: str) -> None:
    with pytest.raises(markdown.BadDocument, match="the region of table one has no end"):
        markdown.filled(text, lambda name: name)


@pytest.mark.parametrize("name, benchmark", [("scale", "scale"), ("run-linux", "linux"),
                                             ("peers", "peers"), ("run-scale", "scale"),
                                             ("plot-scale", "scale")])
def test_a_missing_data_file(name: str, benchmark: str, tmp_path: Path) -> None:
    assert tables.make(name, Dataset(tmp_path)) == (
        f"(no data: `bench/run {benchmark}` has not been run)")


@pytest.mark.parametrize("power", [0.5, 1, 2])
def test_exponent(power: float) -> None:
    items = [1, 2, 4, 8]
    assert growth_tables.exponent(items, [3 * item ** power for item in items]) == (
        pytest.approx(power))


@pytest.mark.parametrize("fixed, each", [(0, 3), (5, 0.25)])
def test_a_fit_finds_its_parts(fixed: float, each: float) -> None:
    work = [1, 2, 4, 8]
    assert growth_tables.fit(work, [fixed + each * one for one in work]) == (
        pytest.approx((fixed, each)))


def test_a_fit_has_no_fixed_part_below_zero() -> None:
    assert growth_tables.fit([1, 2], [1, 4]) == pytest.approx((0, 9 / 5))


def growth_of(folder: Path, items: "dict[str, list[int]]", costs: "dict[str, list[float]]",
              *more: "dict[str, Any]") -> Dataset:
    """A data file with all series; those that are not given grow from 125,000 items on."""
    names = [series for panel in plot_series.PANELS for series in panel.series.values()]
    series = [{"name": one, "unit": "ms", "items": items.get(one, LONG),
               "samples": [[cost] for cost in costs.get(one, LONG)]} for one in names]
    (folder / "growth.json").write_text(json.dumps({"series": [*more, *series]}))
    return Dataset(folder)


LONG = [125_000, 250_000, 500_000]


def panel_with(data: Dataset, name: str) -> "tuple[dict[str, str], list[dict[str, Any]]]":
    """What the panel with this series calls its series, and its lines."""
    [(panel, drawn)] = [(panel, drawn) for panel, drawn in
                        zip(plot_series.PANELS, plot_series.growth(data)["panels"])
                        if name in panel.series.values()]
    return panel.series, drawn["lines"]


@pytest.mark.parametrize("name, items, costs, words, fit", [
    ("bytes: ping", [1, 2, 4], [2.1, 2.2, 2.4], "2.00 ms + 100 µs a byte",
     [(0, 2), (1, 2.1), (2, 2.2), (4, 2.4)]),
    ("bytes: call", [124_999, 125_000, 250_000], [1, 3, 4], "2.00 ms + 8.00 ns a byte",
     [(125_000, 3), (250_000, 4)]),
    ("keys: check for duplicates", [2, 4, 8], [2, 8, 24], "1.00 ms × n log2 n",
     [(0, 0), (2, 2), (4, 8), (8, 24)])])
def test_growth_in_words(name: str, items: "list[int]", costs: "list[float]", words: str,
                         fit: "list[tuple[float, float]]", tmp_path: Path) -> None:
    called, lines = panel_with(growth_of(tmp_path, {name: items}, {name: costs}), name)
    [line] = [line for line in lines if called[line["name"]] == name]
    assert (line["words"], line["costs"]) == (words, costs)
    assert [tuple(point) for point in line["fit"]] == [pytest.approx(pair) for pair in fit]


def peer_series(peer: str, name: str) -> "dict[str, Any]":
    return {"name": name, "peer": peer, "unit": "ms", "items": LONG,
            "samples": [[cost * 2] for cost in LONG]}


def test_peers_stand_beside_ours_in_the_plot(tmp_path: Path) -> None:
    data = growth_of(tmp_path, {}, {}, peer_series("B", "bytes: ping"),
                     peer_series("A", "bytes: ping"), peer_series("A", "sessions: memory"))
    assert plot_series.growth(data)["subjects"] == ["kova-mcp", "B", "A"]
    _, lines = panel_with(data, "bytes: ping")
    assert [(line["name"], line["of"], line["costs"][0]) for line in lines] == [
        ("kova-mcp, ping", "kova-mcp", LONG[0]),
        ("kova-mcp, policy-answered call", "kova-mcp", LONG[0]),
        ("B, ping", "B", 2 * LONG[0]), ("A, ping", "A", 2 * LONG[0])]
    assert [line["name"] for line in panel_with(data, "sessions: memory")[1]] == ["kova-mcp", "A"]
    assert [line["name"] for line in panel_with(data, "sessions: opening")[1]] == [""]


def test_peers_stand_below_ours_in_the_table(tmp_path: Path) -> None:
    data = growth_of(tmp_path, {}, {}, peer_series("B", "bytes: ping"))
    rows = [line.split("|")[1].strip() for line in tables.make("growth", data).splitlines()]
    place = rows.index("bytes: ping")
    assert rows[place + 1] == "bytes: ping, B" and len(rows) == len(set(rows))


@pytest.mark.parametrize("value, unit, text", [
    (0, "ms", "0"), (2, "µs", "2.00 µs"), (0.0232, "µs", "23.2 ns"), (0.5, "MiB", "512 KiB"),
    (0.0005, "MiB", "524 bytes"), (0.25, "ns", "0.25 ns")])
def test_with_unit(value: float, unit: str, text: str) -> None:
    assert wording.with_unit(value, unit) == text


@pytest.mark.parametrize("milliseconds, text", [
    (0.0004, "0 µs"), (0.0576, "58 µs"), (0.9994, "999 µs"), (0.9995, "1.00 ms"), (612, "612 ms")])
def test_short_time(milliseconds: float, text: str) -> None:
    assert wording.short_time(milliseconds) == text
