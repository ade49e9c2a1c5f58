"""HTTP servers next to each other."""

from __future__ import annotations

from typing import Any

from figures.markdown import table


def throughput(found: "list[dict[str, Any]]") -> str:
    rows = []
    last = found[-1]["subject"]
    for one in found:
        latency = one["latency"]
        is_last = one["subject"] == last
        rows.append((one["workload"], one["clients"], one["subject"],
                     f"{one['median_a_second']:.0f}", f"{latency['median_ms']:.2f}",
                     f"{latency['p90_ms']:.2f}", f"{latency['p99_ms']:.2f}",
                     "" if is_last else f"{one['ratio_to_last']:.3g}"))
    return table(("", "clients", "server", "requests/s", "median ms", "90 % ms", "99 % ms",
                  f"ratio to {last}"), rows)


def memory(found: "list[dict[str, Any]]") -> str:
    rows = [(one["subject"], one["after"]["processes"], one["before"]["proportional_set_mib"],
             one["after"]["proportional_set_mib"], one["after"]["private_written_mib"])
            for one in found]
    return table((f"MiB at {found[0]['sessions']} sessions", "processes", "before the sessions",
                  "proportional set", "of it private and written"), rows)
