"""How cost grows: an exponent for each series, and the checks against the plain work."""

from __future__ import annotations

import math
from typing import Any, Sequence

from figures.dataset import Dataset
from figures.markdown import table
from figures.samples import Ratio, quantile, ratio


def medians(series: "dict[str, Any]") -> "list[float]":
    return [quantile(values, 0.5) for values in series["samples"]]


def series_named(data: Dataset, name: str) -> "dict[str, Any]":
    return next(one for one in data["growth"]["series"] if one["name"] == name)


def exponent(items: Sequence[float], costs: Sequence[float]) -> float:
    """Of the power of the number of items that fits the costs best: 1 is linear growth."""
    x, y = [math.log(item) for item in items], [math.log(cost) for cost in costs]
    mean_x, mean_y = sum(x) / len(x), sum(y) / len(y)
    return (sum((a - mean_x) * (b - mean_y) for a, b in zip(x, y))
            / sum((a - mean_x) ** 2 for a in x))


def _number(value: float) -> str:
    return f"{value:.1f}" if value < 100 else f"{value:,.0f}"


def summary(data: Dataset) -> str:
    """`an item` compares the cost of one item, of the most with that of the fewest."""
    rows = []
    for series in data["growth"]["series"]:
        items, costs = series["items"], medians(series)
        rows.append((series["name"], f"{items[0]:,} to {items[-1]:,}",
                     f"{_number(costs[0])} to {_number(costs[-1])} {series['unit']}",
                     f"{exponent(items, costs):.2f}",
                     f"{(costs[-1] / items[-1]) / (costs[0] / items[0]):.2f}",
                     f"{costs[-1] / costs[-2]:.2f}"))
    return table(("", "items", "median cost", "exponent", "an item, last to first",
                  "the last doubling"), rows)


def ratio_at_most_items(data: Dataset, name: str, base: str) -> Ratio:
    subject, floor = (series_named(data, one)["samples"][-1] for one in (name, base))
    return ratio(subject, floor)


def check_ratio(data: Dataset) -> Ratio:
    return ratio_at_most_items(data, "keys: check for duplicates", "keys: parse")


def long_call_ratio(data: Dataset) -> Ratio:
    return ratio_at_most_items(data, "bytes: call", "bytes: ping")


def checks(data: Dataset) -> str:
    rows = [("2,000 keys: the check for duplicates to the parse", check_ratio(data)),
            ("1,000,000 bytes: a call that the policy answers to a ping", long_call_ratio(data))]
    return table(("", "ratio", "undisturbed"),
                 [(name, f"{found.median:.2f}", f"{found.undisturbed:.2f}")
                  for name, found in rows])
