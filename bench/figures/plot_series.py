"""What the plots show, taken out of the data files."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

from figures import account_tables, aims, growth_tables, peer_tables, scale_tables
from figures.dataset import Dataset
from figures.samples import quantile, ratios
from figures.wording import with_unit

OURS = "kova-mcp"
FLOOR_NAMES = {"start": "empty program", "ping": "cat", "query": "empty child",
               "memory": "empty program", "http": "empty listener"}
"""What the floor is, for each thing that is measured."""


def _shown(name: str, measured: str) -> str:
    return FLOOR_NAMES[measured] if name == peer_tables.FLOOR else name


def _bar(name: str, value: float, low: "float | None" = None,
         high: "float | None" = None) -> "dict[str, Any]":
    return {"name": name, "value": value, "low": low, "high": high}


def start(data: Dataset) -> "dict[str, Any]":
    bars = []
    for name, values in data["peers"]["start_ms"].items():
        bars.append(_bar(_shown(name, "start"), quantile(values, 0.5), quantile(values, 0.1),
                         quantile(values, 0.9)))
    return {"title": "From spawn to initialize", "axis": "milliseconds (median, 10 % to 90 %)",
            "unit": "ms", "log": True, "bars": bars}


def memory(data: Dataset) -> "dict[str, Any]":
    bars = [_bar(_shown(name, "memory"), held["highest_mib"])
            for name, held in data["peers"]["memory"].items()]
    return {"title": "Memory while one-row queries run",
            "axis": "MiB, the highest proportional set of the server and its children",
            "unit": "MiB", "log": False, "bars": bars}


def _distribution(name: str, found: "dict[str, Any]") -> "dict[str, Any]":
    """Shares of the samples that took longer than each limit; the last bucket has none."""
    histogram, total = found["histogram"], found["count"]
    longer, left = [], total
    for count in histogram["counts"]:
        left -= count
        longer.append(round(left / total, 6))
    return {"name": name, "ms": histogram["up_to_ms"], "longer": longer,
            "median": found["median_ms"], "count": total}


def latency(data: Dataset) -> "dict[str, Any]":
    stdio = data["peers"]["stdio"]
    panels = []
    for workload, title in (("ping", "ping"), ("query", "one-row query")):
        lines = [_distribution(_shown(name, workload), found)
                 for name, found in stdio[workload].items()]
        panels.append({"title": title, "lines": lines})
    return {"title": "Share of requests over stdio slower than t", "panels": panels}


def throughput(data: Dataset) -> "dict[str, Any]":
    peers = data["peers"]
    panels = []
    for workload, title in (("ping", "ping"), ("query", "one-row query")):
        rates = {name: peer_tables.a_second(peers, workload, name)
                 for name in peers["memory"]}
        panels.append({"title": title, "lines": [
            {"name": _shown(name, "http"), "clients": list(rate), "a_second": list(rate.values())}
            for name, rate in rates.items()]})
    return {"title": "Requests a second over HTTP", "panels": panels}


def calls(data: Dataset) -> "dict[str, Any]":
    targets = []
    for target, title, aim in (("linux", "Linux", aims.CALL_LINUX.bound),
                               ("windows", "Wine", aims.CALL_WINE.bound)):
        group = data[target]["calls"]
        floor = group[aims.FLOOR]
        rows = []
        for name, values in group.items():
            if name != aims.FLOOR:
                paired = ratios(values, floor)
                rows.append(_bar(aims.title_of(name), quantile(paired, 0.5),
                                 quantile(paired, 0.25), quantile(paired, 0.75)))
        targets.append({"title": title, "aim": aim, "rows": rows,
                        "floor_ms": quantile(floor, 0.5)})
    return {"title": "A tool call as a multiple of an empty child", "targets": targets,
            "aim_of": aims.title_of(aims.POLICY_CALL)}


@dataclass(frozen=True)
class Panel:
    title: str
    item: str
    series: "dict[str, str]"
    """Those of the data file that share the panel, by what they are called there."""


ALL = ""
"""The name of a series that is all of its panel."""
PANELS = [
    Panel("keys of one object", "key", {"parse": "keys: parse",
                                        "check for duplicates, which sorts": growth_tables.SORTS}),
    Panel("pairs of tokens in a list", "pair", {"parse": "pairs of tokens: parse"}),
    Panel("keys of one object in a ping", "key", {ALL: "keys: ping"}),
    Panel("pairs of tokens of a list in a ping", "pair", {ALL: "pairs of tokens: ping"}),
    Panel("bytes of one message", "byte", {"ping": "bytes: ping",
                                           "policy-answered call": "bytes: call"}),
    Panel("cells of a query: 64 columns, or 256 rows", "cell",
          {"more rows": "cells, by rows", "more columns": "cells, by columns"}),
    Panel("sessions of one listener: memory", "session", {ALL: "sessions: memory"}),
    Panel("sessions of one listener: opening all", "session", {ALL: "sessions: opening"}),
    Panel("listeners with 16 sessions each: memory", "listener", {ALL: "listeners: memory"}),
    Panel("listeners with 16 sessions each: opening all", "listener",
          {ALL: "listeners: opening"})]


def _lines(data: Dataset, panel: Panel) -> "list[dict[str, Any]]":
    """Those of ours, and then those of the peers."""
    found = [(name, one) for name, series in panel.series.items()
             for one in growth_tables.series_named(data, series)]
    compared = any("peer" in series for _, series in found)
    return [_line(panel, name, series, compared)
            for name, series in sorted(found, key=lambda pair: "peer" in pair[1])]


def _line(panel: Panel, name: str, series: "dict[str, Any]", compared: bool) -> "dict[str, Any]":
    """With its fit from no items on, or from where it begins, as numbers and in words."""
    unit, found, whose = series["unit"], growth_tables.fit_of(series), series.get("peer", OURS)
    work = growth_tables.work_of(series)
    of = "× n log2 n" if work == growth_tables.sorting else f"a {panel.item}"
    items, _ = growth_tables.fitted(series)
    begin = [] if len(items) < len(series["items"]) else [0]
    return {"name": ", ".join([whose] * compared + [name] * (name != ALL)), "of": whose,
            "unit": unit, "items": series["items"], "costs": growth_tables.medians(series),
            "fit": [[count, found.fixed + found.each * work(count)]
                    for count in begin + items],
            "words": (f"{with_unit(found.fixed, unit)} + " if found.fixed else "")
            + f"{with_unit(found.each, unit)} {of}"}


def growth(data: Dataset) -> "dict[str, Any]":
    panels: "list[dict[str, Any]]" = [{"title": panel.title, "lines": _lines(data, panel)}
                                      for panel in PANELS]
    panels[0]["bar"] = {"times": aims.DUPLICATE_KEYS.bound, "of": "parse"}
    return {"title": "Cost against size; dotted: the fit in words below",
            "subjects": [OURS, *growth_tables.peers(data)], "panels": panels}


def account(data: Dataset) -> "dict[str, Any]":
    """The stages of a query, and where the floor has the same stage its whole time."""
    subjects = data[account_tables.DATA]["subjects"]
    floor = {stage["name"]: account_tables.wall(stage)
             for stage in subjects[account_tables.FLOOR]["stages"]}
    query = subjects[account_tables.QUERY]
    rows = [{"name": stage["name"], "floor": floor.get(stage["name"]),
             **{part: stage[part] for part in account_tables.WALL}}
            for stage in query["stages"] if account_tables.wall(stage) > 0]
    return {"title": "Where the time of a one-row query goes",
            "axis": f"microseconds of {query['stages_us']:,.0f} in all", "rows": rows}


MEMORY_OF = {"servers": "listeners, sessions, workers", "haproxy": "HAProxy",
             "engine": "sample engine"}


def scale(data: Dataset) -> "dict[str, Any]":
    """The latencies of the load, and the memory from the idle sessions on."""
    found = data[scale_tables.DATA]
    idle, load = found["idle"], found["load"]
    over_time = [{"second": 0.0, **{name: idle[name] for name in MEMORY_OF}},
                 *({**one, "servers": one} for one in load["samples"])]
    lines = [{"name": title, "seconds": [one["second"] for one in over_time],
              "mib": [one[name]["proportional_set_mib"] for one in over_time]}
             for name, title in MEMORY_OF.items()]
    return {"title": f"{found['parameters']['sessions']:,} sessions behind HAProxy",
            "latency": {"title": "Share of calls slower than t",
                        "aim": {"share": 0.01, "ms": aims.CALL_P99.bound},
                        "lines": [_distribution("policy-answered call",
                                                load["policy_answered_call"]),
                                  _distribution("query", load["query"])]},
            "memory": {"title": "Memory from the idle sessions on", "aim": aims.IDLE_MEMORY.bound,
                       "lines": lines}}
