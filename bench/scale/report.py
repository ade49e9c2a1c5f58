"""The table."""

from __future__ import annotations

from typing import Any


def rows(data: dict[str, Any]) -> "list[tuple[str, str]]":
    """What was measured, and how much."""
    asked, idle, load = data["parameters"], data["idle"], data["load"]
    most, lists = load["highest"], load["policy_answered_call"]
    found = [
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
        ("left at the end", ", ".join(f"{name} {count}" for name, count in data["left"].items()
                                      if count) or "nothing"),
        ("load average before, after", f"{data['load_average'][0]}, {data['load_average'][1]}")]
    return [(name, str(value)) for name, value in found]


def table(data: dict[str, Any]) -> str:
    shown = rows(data)
    width = max(len(name) for name, _ in shown)
    return "\n".join(f"{name:<{width}}  {value}" for name, value in shown)
