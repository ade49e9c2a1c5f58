"""The server and its peers in one table."""

from __future__ import annotations

from typing import Any

from figures.dataset import Dataset
from figures.markdown import table
from figures.samples import quantile
from figures.wording import short_time

FLOOR = "floor"
CLIENTS = (1, 8)
"""Those of the table; the plot shows all."""


def subject_names(peers: "dict[str, Any]") -> "list[str]":
    """All but the floor."""
    return [name for name in peers["memory"] if name != FLOOR]


def a_second(peers: "dict[str, Any]", workload: str, subject: str) -> "dict[int, float]":
    """Median requests a second by the number of clients."""
    return {one["clients"]: one["median_a_second"] for one in peers["http"]
            if one["workload"] == workload and one["subject"] == subject}


def summary(data: Dataset) -> str:
    peers = data["peers"]
    names = subject_names(peers)
    everybody = [FLOOR, *names]
    stdio = peers["stdio"]
    rows: "list[list[str]]" = [
        ["spawn to initialize, median",
         *(short_time(quantile(peers["start_ms"][name], 0.5)) for name in everybody)]]
    for workload, title in (("ping", "ping, stdio, median"),
                            ("query", "one-row query, stdio, median")):
        rows.append([title, *(short_time(stdio[workload][name]["median_ms"])
                              for name in everybody)])
    for workload, title in (("ping", "ping, HTTP"), ("query", "one-row query, HTTP")):
        rates = [a_second(peers, workload, name) for name in everybody]
        for clients in CLIENTS:
            of = f"{clients} client{'s' if clients > 1 else ''}"
            rows.append([f"{title}, {of}, a second",
                         *(f"{rate[clients]:,.0f}" for rate in rates)])
    rows.append(["memory during calls, highest",
                 *(f"{peers['memory'][name]['highest_mib']:.1f} MiB" for name in everybody)])
    versions = peers["versions"]
    return table(("", FLOOR, *(f"{name} {versions.get(name, '')}".strip() for name in names)), rows)
