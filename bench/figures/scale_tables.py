"""Many sessions behind HAProxy: the table, and what has an aim."""

from __future__ import annotations

from typing import Any

from figures.dataset import Dataset
from figures.markdown import paragraph, table

DATA = "scale"


def rows(data: dict[str, Any]) -> "list[tuple[str, str]]":
    """What was measured, and how much."""
    before, after = data["load_average"]
    found = [*_idle(data["parameters"], data["idle"]), *_load(data["parameters"], data["load"]),
             *_soundness(data), ("load average before, after", f"{before}, {after}")]
    return [(name, str(value)) for name, value in found]


def _idle(asked: dict[str, Any], idle: dict[str, Any]) -> "list[tuple[str, Any]]":
    servers = idle["servers"]
    return [
        ("listeners, sessions", f"{asked['listeners']}, {asked['sessions']}"),
        ("to open them all, s", idle["opening_seconds"]),
        ("idle: processes, descriptors", f"{servers['processes']}, {servers['descriptors']}"),
        ("idle: proportional set, MiB (HAProxy, engine beside)",
         f"{servers['proportional_set_mib']} ({idle['haproxy']['proportional_set_mib']}, "
         f"{idle['engine']['proportional_set_mib']})")]


def _load(asked: dict[str, Any], load: dict[str, Any]) -> "list[tuple[str, Any]]":
    most, lists, used = load["highest"], load["policy_answered_call"], load["processor_seconds"]
    return [
        ("load, s", asked["seconds"]),
        ("load: processes, descriptors, MiB at most",
         f"{most['processes']}, {most['descriptors']}, {most['proportional_set_mib']}"),
        ("policy-answered calls a second", load["policy_answered_calls_a_second"]),
        ("their median, 99th percentile, highest, ms",
         f"{lists['median_ms']}, {lists['p99_ms']}, {lists['highest_ms']}"),
        ("processor time, s: listeners with sessions and workers, HAProxy, engine",
         f"{used['servers']:.1f}, {used['haproxy']:.1f}, {used['engine']:.1f}"),
        ("queries, cancelled calls, sessions ended and begun anew",
         f"{load['queries']}, {load['cancelled']}, {load['counts'].get('leaves', 0)}")]


def _soundness(data: dict[str, Any]) -> "list[tuple[str, Any]]":
    audit = data["audit"]
    return [
        ("initializes, of them refused", f"{data['initializes']}, {data['refused_initializes']}"),
        ("answered calls, audit records", f"{audit['answered']}, {audit['records']}"),
        ("answered without a record, recorded twice", f"{audit['missing']}, {audit['twice']}"),
        ("wrong answers, lost answers", f"{data['wrong']}, {data['lost']}"),
        ("left after the clients: server processes beside the listeners",
         data["left"]["sessions and workers"]),
        ("left at the end", ", ".join(f"{name} {count}" for name, count in data["left"].items()
                                      if count) or "nothing")]


def summary(data: Dataset) -> str:
    return table(("", ""), rows(data[DATA]))


def idle_mib(data: Dataset) -> float:
    """Of the listeners and all sessions: the proportional set."""
    return data[DATA]["idle"]["servers"]["proportional_set_mib"]


def call_p99_ms(data: Dataset) -> float:
    return data[DATA]["load"]["policy_answered_call"]["p99_ms"]


def calls_a_second(data: Dataset) -> float:
    return data[DATA]["load"]["policy_answered_calls_a_second"]


def bad_answers(data: Dataset) -> int:
    """Wrong ones and lost ones."""
    return data[DATA]["wrong"] + data[DATA]["lost"]


def bad_records(data: Dataset) -> int:
    """Answered calls without a record, records of no call, and calls with more than one."""
    audit = data[DATA]["audit"]
    return audit["missing"] + audit["unasked"] + audit["twice"]


def left(data: Dataset) -> int:
    """Processes, sockets and files that are there after the last session."""
    return sum(data[DATA]["left"].values())


def sessions(data: Dataset) -> int:
    return data[DATA]["parameters"]["sessions"]


def highest_of_haproxy(data: Dataset, what: str) -> float:
    """The highest that was seen of HAProxy's `what`, idle and under load."""
    seen = [data[DATA]["idle"], *data[DATA]["load"]["samples"]]
    return max(sample["haproxy"][what] for sample in seen)


def refused(data: Dataset) -> str:
    """How often no free slot was found, as a sentence."""
    found = data[DATA]
    return paragraph(
        f"In `bench/run scale` there are as many clients as slots, {sessions(data):,}: "
        f"{found['refused_initializes']:,} of {found['initializes']:,} requests `initialize` got "
        "400 there.")
