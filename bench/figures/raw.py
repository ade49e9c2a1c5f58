"""What benchmarks that are no Python program write, made smaller for the data files."""

from __future__ import annotations

import json
import statistics
from pathlib import Path
from typing import Any, Callable

from figures import samples


def plain(path: Path) -> dict[str, Any]:
    found = json.loads(path.read_text("utf-8"))
    if not isinstance(found, dict):
        raise ValueError("no JSON object")
    return found


def micro(path: Path) -> dict[str, Any]:
    """Of json-bench: medians of the bytes per second by group, input and contender, in the order of
    their registration. An error for a benchmark that failed."""
    groups: "dict[str, dict[str, dict[str, int]]]" = {}
    # They ran in a random order; the index is that of the registration.
    for one in sorted(plain(path)["benchmarks"], key=lambda one: one["family_index"]):
        if one.get("error_occurred"):
            raise ValueError(f"{one['name']}: {one['error_message']}")
        if one.get("aggregate_name") != "median":
            continue
        group, source, contender = one["run_name"].split("/")
        speeds = groups.setdefault(group, {}).setdefault(source, {})
        speeds[contender] = round(one["bytes_per_second"])
    if not groups:
        raise ValueError("no medians")
    return {"bytes_a_second": groups}


def http(path: Path) -> dict[str, Any]:
    """Of http_bench.mjs: latencies become quantiles and histograms; the ratio of a subject is the
    median over the rounds of its requests a second to those of the last subject."""
    found = plain(path)
    last = {(one["workload"], one["clients"]): one["a_second"] for one in found["throughput"]}
    for one in found["throughput"]:
        rates = one["a_second"]
        base = last[one["workload"], one["clients"]]
        one["median_a_second"] = round(statistics.median(rates), 1)
        one["ratio_to_last"] = round(statistics.median(samples.ratios(rates, base)), 3)
        one["latency"] = samples.latency(one.pop("microseconds"))
    return {"memory": found["memory"], "throughput": found["throughput"]}


READERS: "dict[str, Callable[[Path], dict[str, Any]]]" = {"plain": plain, "micro": micro,
                                                          "http": http}
