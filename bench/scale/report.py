"""The data file and the table."""

from __future__ import annotations

import json
import math
from pathlib import Path
from typing import Any

STEPS_OF_TEN = 10
"""Buckets of the histogram from one power of ten to the next."""


def percentile(sorted_values: "list[int]", share: float) -> "int | None":
    """The smallest value that this share of the values does not exceed."""
    if not sorted_values:
        return None
    return sorted_values[max(0, math.ceil(share * len(sorted_values)) - 1)]


def latency(microseconds: "list[int]") -> dict[str, Any]:
    values = sorted(microseconds)
    shares = {"median": 0.5, "p90": 0.9, "p99": 0.99, "p999": 0.999, "highest": 1.0}
    found: dict[str, Any] = {"count": len(values)}
    for name, share in shares.items():
        value = percentile(values, share)
        found[f"{name}_ms"] = None if value is None else round(value / 1000, 3)
    return {**found, "histogram": _histogram(values)}


def _histogram(values: "list[int]") -> "list[dict[str, Any]]":
    """Counts of values at most `up_to_ms` and above the bucket before it."""
    counts: dict[int, int] = {}
    for value in values:
        step = math.ceil(STEPS_OF_TEN * math.log10(max(1, value)))
        counts[step] = counts.get(step, 0) + 1
    return [{"up_to_ms": round(10 ** (step / STEPS_OF_TEN) / 1000, 4), "count": counts[step]}
            for step in sorted(counts)]


def write(path: Path, document: dict[str, Any]) -> None:
    path.parent.mkdir(exist_ok=True)
    path.write_text(json.dumps(document, indent=1) + "\n", encoding="utf-8")


def table(data: dict[str, Any]) -> str:
    asked, idle, load = data["parameters"], data["idle"], data["load"]
    most, lists = load["highest"], load["policy_answered_call"]
    rows = [
        ("listeners, sessions", f"{asked['listeners']}, {asked['sessions']}"),
        ("to open them all, s", idle["opening_seconds"]),
        ("idle: processes, descriptors",
         f"{idle['servers']['processes']}, {idle['servers']['descriptors']}"),
        ("idle: proportional set, MiB (HAProxy, engine beside)",
         f"{idle['servers']['proportional_set_mib']} ({idle['haproxy']['proportional_set_mib']}, "
         f"{idle['engine']['proportional_set_mib']})"),
        ("load, s", asked["seconds"]),
        ("load: processes, descriptors, MiB at most",
         f"{most['processes']}, {most['descriptors']}, {most['proportional_set_mib']}"),
        ("policy-answered calls a second", load["policy_answered_calls_a_second"]),
        ("their median, 99th percentile, highest, ms",
         f"{lists['median_ms']}, {lists['p99_ms']}, {lists['highest_ms']}"),
        ("queries, cancelled calls, sessions ended and begun anew",
         f"{load['queries']}, {load['cancelled']}, {load['counts'].get('leaves', 0)}"),
        ("initializes, of them refused", f"{data['initializes']}, {data['refused_initializes']}"),
        ("answered calls, audit records",
         f"{data['audit']['answered']}, {data['audit']['records']}"),
        ("answered without a record, recorded twice",
         f"{data['audit']['missing']}, {data['audit']['twice']}"),
        ("wrong answers, lost answers", f"{data['wrong']}, {data['lost']}"),
        ("left after the clients: server processes beside the listeners",
         data["left"]["sessions and workers"]),
        ("left at the end", ", ".join(f"{name} {count}" for name, count in data["left"].items())),
        ("load average before, after", f"{data['load_average'][0]}, {data['load_average'][1]}")]
    width = max(len(name) for name, _ in rows)
    return "\n".join(f"{name:<{width}}  {value}" for name, value in rows)
