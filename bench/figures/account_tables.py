"""Where the time of a call goes, stage by stage."""

from __future__ import annotations

from typing import Any, Sequence

from figures.dataset import Dataset
from figures.markdown import table
from figures.samples import Ratio, quantile, ratio

DATA = "account"
HEAD = ("microseconds", "whole", "product runs", "engine runs", "neither", "processor: product",
        "engine", "page faults")
WALL = ("product", "engine", "neither")
FLOOR, LIST, QUERY = "empty program", "kova_list_tables", "kova_query"
AUDIT = "audit record"
CLIENT_LIBRARY = ("loading the client library", "login", "statement")


def wall(stage: "dict[str, Any]") -> float:
    return sum(stage[part] for part in WALL)


def stages(data: Dataset, subject: str) -> str:
    """`whole` is the sum of the three columns behind it."""
    found = data[DATA]["subjects"][subject]["stages"]
    return table(HEAD, [*(_row(stage["name"], [stage]) for stage in found), _row("sum", found)])


def totals(data: Dataset) -> str:
    """The stages' sum next to the calls that nobody traced, and the processor time without tracing
    and records next to the floor's."""
    processor = data[DATA]["processor_us"]
    rows = []
    for name, one in data[DATA]["subjects"].items():
        of_floor = ratio(processor[name], processor[FLOOR])
        rows.append((name, f"{one['undisturbed_us']:.0f}", f"{one['stages_us']:.0f}",
                     f"{one['ratio']:.2f}", f"{quantile(processor[name], 0.5):.0f}",
                     f"{of_floor.median:.2f}", f"{of_floor.undisturbed:.2f}"))
    return table(("", "not traced, µs", "sum of the stages", "ratio", "processor time, µs",
                  "ratio to the floor's", "undisturbed"), rows)


def processor_ratio(data: Dataset) -> Ratio:
    """Of a call that the policy answers to the floor's, without records."""
    processor = data[DATA]["processor_us"]
    return ratio(processor[LIST], processor[FLOOR])


def own_share_ms(data: Dataset) -> float:
    """Of a one-row query: the wall time in which server or worker run, beyond the floor, the audit
    record and what the engine's client library does."""
    subjects = data[DATA]["subjects"]
    beyond = _product_runs(subjects[QUERY], [AUDIT, *CLIENT_LIBRARY])
    return (beyond - _product_runs(subjects[FLOOR])) / 1000


def _product_runs(subject: "dict[str, Any]", without: "Sequence[str]" = ()) -> float:
    return sum(stage["product"] for stage in subject["stages"] if stage["name"] not in without)


def _row(name: str, found: "Sequence[dict[str, Any]]") -> "tuple[str, ...]":
    def cell(*figures: str) -> str:
        return f"{sum(stage[figure] for stage in found for figure in figures):.1f}"
    return (name, cell(*WALL), *map(cell, WALL), cell("product_processor"),
            cell("engine_processor"), cell("faults"))
