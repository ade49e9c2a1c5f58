"""Whole processes next to an empty one."""

from __future__ import annotations

from typing import Any, Sequence

from figures.dataset import Dataset
from figures.markdown import table
from figures.samples import quantile, ratio, ratios

Samples = Sequence[float]


def subjects(group: "dict[str, Samples]") -> str:
    """The first subject is the floor of the others."""
    floor = next(iter(group.values()))
    rows = []
    for name, values in group.items():
        paired = ratios(values, floor)
        low, high = quantile(paired, 0.25), quantile(paired, 0.75)
        of_floor = ratio(values, floor)
        rows.append((name, f"{quantile(values, 0.5):.3f}",
                     f"{quantile(values, 0.1):.3f} to {quantile(values, 0.9):.3f}",
                     f"{of_floor.median:.2f}", f"{low:.2f} to {high:.2f}",
                     f"{of_floor.undisturbed:.2f}"))
    return table(("", "median ms", "10 % to 90 % ms", "ratio", "its quartiles", "undisturbed"),
                 rows)


def resident(data: Dataset) -> str:
    def row(name: str, one: "dict[str, Any]") -> "tuple[str, str, str]":
        return (name, f"{one['resident MiB after initialize']:.2f}",
                f"{one['resident MiB after the calls']:.2f}")
    return table(("resident memory, MiB", "after initialize", "after the calls"),
                 [row("Linux", data["linux"]), row("Windows executable, Wine", data["windows"])])
