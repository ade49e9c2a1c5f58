"""Whole processes next to an empty one."""

from __future__ import annotations

from typing import Any, Sequence

from figures.dataset import Dataset
from figures.markdown import table
from figures.samples import quantile, ratios

Samples = Sequence[float]


def ratio(subject: Samples, floor: Samples) -> float:
    """The median over the rounds."""
    return quantile(ratios(subject, floor), 0.5)


def subjects(group: "dict[str, Samples]") -> str:
    """The first subject is the floor of the others."""
    floor = next(iter(group.values()))
    rows = []
    for name, values in group.items():
        paired = ratios(values, floor)
        low, high = quantile(paired, 0.25), quantile(paired, 0.75)
        rows.append((name, f"{quantile(values, 0.5):.3f}",
                     f"{quantile(values, 0.1):.3f} to {quantile(values, 0.9):.3f}",
                     f"{ratio(values, floor):.2f}", f"{low:.2f} to {high:.2f}",
                     f"{quantile(values, 0.1) / quantile(floor, 0.1):.2f}"))
    return table(("", "median ms", "10 % to 90 % ms", "ratio", "its quartiles", "undisturbed"),
                 rows)


def resident(data: Dataset) -> str:
    def row(name: str, one: "dict[str, Any]") -> "tuple[str, str, str]":
        return (name, f"{one['resident MiB after initialize']:.2f}",
                f"{one['resident MiB after the calls']:.2f}")
    return table(("resident memory, MiB", "after initialize", "after the calls"),
                 [row("Linux", data["linux"]), row("Windows executable, Wine", data["windows"])])
