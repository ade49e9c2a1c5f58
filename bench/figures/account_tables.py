"""Where the time of a call goes, stage by stage."""

from __future__ import annotations

from typing import Any, Sequence

from figures.dataset import Dataset
from figures.markdown import table

DATA = "account-linux"
HEAD = ("microseconds", "whole", "product runs", "engine runs", "neither", "processor: product",
        "engine", "page faults")
WALL = ("product", "engine", "neither")
FLOOR, LIST, QUERY = "empty program", "kova_list_tables", "kova_query"


def wall(stage: "dict[str, Any]") -> float:
    return sum(stage[part] for part in WALL)


def stages(data: Dataset, subject: str) -> str:
    """`whole` is the sum of the three columns behind it."""
    found = data[DATA]["subjects"][subject]["stages"]
    return table(HEAD, [*(_row(stage["name"], [stage]) for stage in found), _row("sum", found)])


def total(subject: "dict[str, Any]", *figures: str) -> float:
    return sum(stage[figure] for stage in subject["stages"] for figure in figures)


def totals(data: Dataset) -> str:
    """The stages' sum next to the calls that nobody traced, and processor time next to the
    floor's."""
    subjects = data[DATA]["subjects"]
    floor = total(subjects[FLOOR], "product_processor")
    rows = [(name, f"{one['undisturbed_us']:.0f}", f"{one['stages_us']:.0f}",
             f"{one['ratio']:.2f}", f"{total(one, 'product_processor') / floor:.2f}")
            for name, one in subjects.items()]
    return table(("", "not traced, µs", "sum of the stages", "ratio",
                  "product's processor time to the floor's"), rows)


def _row(name: str, found: "Sequence[dict[str, Any]]") -> "tuple[str, ...]":
    def cell(*figures: str) -> str:
        return f"{sum(stage[figure] for stage in found for figure in figures):.1f}"
    return (name, cell(*WALL), *map(cell, WALL), cell("product_processor"),
            cell("engine_processor"), cell("faults"))
