"""The server beside its peers: every row of the table and every plot has its floor."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

import pytest

from common.messages import line
from common.stdio import Failed
from figures import plot_series, tables
from figures.dataset import Dataset
from growth import calls, sessions
from peers.subjects import SELECT, Peer
from runner import installing
from runner.benchmarks import BENCHMARKS

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


# What peers are asked


def peer(rows_argument: str) -> Peer:
    return Peer("one", "1", ["one"], {}, "query", rows_argument)


@pytest.mark.parametrize("rows_argument, most", [("", {}), ("max_rows", {"max_rows": 7})])
def test_queries(rows_argument: str, most: "dict[str, int]") -> None:
    asked = peer(rows_argument)
    assert json.loads(asked.query_line(3)) == {
        "jsonrpc": "2.0", "id": 3, "method": "tools/call",
        "params": {"name": "query", "arguments": {"sql": SELECT}}}
    assert json.loads(asked.select_line(3, "SELECT 1", 7)) == {
        "jsonrpc": "2.0", "id": 3, "method": "tools/call",
        "params": {"name": "query", "arguments": {"sql": "SELECT 1", **most}}}


@pytest.mark.parametrize("size", [200, 62_500])
def test_a_padded_line_is_of_its_size(size: int) -> None:
    padded = calls.padded("ping", 12, {}, size)
    assert len(padded) == size and padded.endswith(b"\n")
    message = json.loads(padded)
    del message["params"]["_meta"]["pad"]
    assert message == json.loads(line("ping", 12, {"_meta": {}}))


def member_of(made: bytes) -> "dict[str, Any]":
    """Its `_meta`, after a look at the rest."""
    message = json.loads(made)
    meta = message["params"].pop("_meta")
    assert made.endswith(b"\n") and message == json.loads(line("ping", 12, {}))
    return meta


@pytest.mark.parametrize("keys", calls.MEMBERS)
def test_a_line_of_keys(keys: int) -> None:
    names = list(member_of(calls.keyed("ping", 12, {}, keys)))
    assert all(name.startswith("key_12_") for name in names)  # others in each message
    numbers = [int(name[len("key_12_"):]) for name in names]
    assert numbers != sorted(numbers) and sorted(numbers) == list(range(keys))


@pytest.mark.parametrize("pairs", calls.MEMBERS)
def test_a_line_of_pairs(pairs: int) -> None:
    items = member_of(calls.listed("ping", 12, {}, pairs))["list"]
    assert len(items) == 2 * pairs and set(items[1::2]) == {None}
    assert sorted(items[::2]) == list(range(pairs))


def test_listeners_of_those_that_have_sessions(monkeypatch: pytest.MonkeyPatch) -> None:
    asked: "list[tuple[str, int, int]]" = []

    def measured(one: Peer, listeners: int, of_each: int) -> "tuple[float, float]":
        asked.append((one.name, listeners, of_each))
        return listeners * 10.0, listeners * 2.0

    monkeypatch.setattr(sessions, "measured", measured)
    servers = [Peer(name, "1", [], {}, "query", session_processes=processes)
               for name, processes in (("ours", 1), ("with", 0), ("without", None))]
    opening, memory, of_peer, _ = sessions.of_listeners(servers, 2)
    assert (opening.peer, memory.peer, of_peer.peer) == ("", "", "with")
    assert opening.samples == {count: [count * 10.0] * 2 for count in sessions.LISTENERS}
    assert memory.samples[32] == [64.0, 64.0] and max(of_peer.samples) == 8
    assert {of_each for _, _, of_each in asked} == {sessions.SESSIONS[-1]}
    assert {name for name, *_ in asked} == {"ours", "with"}


@pytest.mark.parametrize("cells, rows, of_one_row, good", [
    (6, 3, 2, True), (3, 3, 1, True), (5, 3, 2, False), (2, 3, 1, False), (0, 3, 0, False),
    (0, 3, 1, False)])
def test_rows_of_a_reply(cells: int, rows: int, of_one_row: int, good: bool) -> None:
    reply = b'["cell 0","cell 1","cell 10"]' * cells
    if good:
        calls.check_rows("one", reply, rows, of_one_row)
    else:
        with pytest.raises(Failed, match=f"one: not {rows} rows"):
            calls.check_rows("one", reply, rows, of_one_row)


# Installing them


def test_who_needs_peers() -> None:
    assert [name for name, one in BENCHMARKS.items() if one.needs_peers] == ["peers", "growth"]


@pytest.mark.parametrize("npm, reason", [
    (None, "npm is missing, which installs the peers"),
    ("exit 1", "npm cannot install the peers of bench/peers/package.json")])
def test_peers_that_are_not_to_be_had(npm: "str | None", reason: str, tmp_path: Path,
                                      monkeypatch: pytest.MonkeyPatch) -> None:
    programs, folder = tmp_path / "bin", tmp_path / "peers"
    programs.mkdir()
    if npm is not None:
        (programs / "npm").write_text(f"#!/bin/sh\n{npm}\n")
        (programs / "npm").chmod(0o755)
    monkeypatch.setenv("PATH", str(programs))
    for _ in range(2):
        with pytest.raises(OSError, match=reason):
            installing.peers(folder)
