"""How cost grows: an exponent and a fit for each series, and the checks against the plain work."""

from __future__ import annotations

import math
from typing import Any, Callable, NamedTuple, Sequence

from figures.dataset import Dataset
from figures.markdown import table
from figures.samples import Ratio, quantile, ratio
from figures.wording import short, with_unit


def medians(series: "dict[str, Any]") -> "list[float]":
    return [quantile(values, 0.5) for values in series["samples"]]


def series_named(data: Dataset, name: str) -> "list[dict[str, Any]]":
    """Ours, and behind it those of the peers that have it."""
    found = [one for one in data["growth"]["series"] if one["name"] == name]
    return sorted(found, key=lambda one: "peer" in one)


def peers(data: Dataset) -> "list[str]":
    return list(dict.fromkeys(one["peer"] for one in data["growth"]["series"] if "peer" in one))


def exponent(items: Sequence[float], costs: Sequence[float]) -> float:
    """Of the power of the number of items that fits the costs best: 1 is linear growth."""
    x, y = [math.log(item) for item in items], [math.log(cost) for cost in costs]
    mean_x, mean_y = sum(x) / len(x), sum(y) / len(y)
    return (sum((a - mean_x) * (b - mean_y) for a, b in zip(x, y))
            / sum((a - mean_x) ** 2 for a in x))


Work = Callable[[float], float]
"""What a number of items means for the one who works through them."""


def linear(items: float) -> float:
    return items


def sorting(items: float) -> float:
    return items * math.log2(items) if items > 1 else 0.0


SORTS = "keys: check for duplicates"
"""The one series that sorts."""


def work_of(series: "dict[str, Any]") -> Work:
    return sorting if series["name"] == SORTS else linear


class Fit(NamedTuple):
    fixed: float
    """What none at all would cost."""
    each: float
    """What each unit of work adds."""


def fit(work: Sequence[float], costs: Sequence[float]) -> Fit:
    """By least squares; nothing has a fixed part below zero."""
    mean_work, mean_cost = sum(work) / len(work), sum(costs) / len(costs)
    each = (sum((x - mean_work) * (y - mean_cost) for x, y in zip(work, costs))
            / sum((x - mean_work) ** 2 for x in work))
    fixed = mean_cost - each * mean_work
    if fixed >= 0:
        return Fit(fixed, each)
    return Fit(0.0, sum(x * y for x, y in zip(work, costs)) / sum(x * x for x in work))


FITTED_FROM = {"bytes: call": 125_000}
"""Fewer bytes go through the pipe of a new process as it is; for more the server enlarges it, and
the process takes a large page."""


def fitted(series: "dict[str, Any]") -> "tuple[list[int], list[float]]":
    """The numbers of items that the fit is of, and their costs."""
    first = FITTED_FROM.get(series["name"], 0)
    pairs = [(count, cost) for count, cost in zip(series["items"], medians(series))
             if count >= first]
    return [count for count, _ in pairs], [cost for _, cost in pairs]


def fit_of(series: "dict[str, Any]") -> Fit:
    items, costs = fitted(series)
    return fit([work_of(series)(count) for count in items], costs)


def summary(data: Dataset) -> str:
    """`item` compares the cost of one item, of the most with that of the fewest."""
    rows = []
    names = dict.fromkeys(one["name"] for one in data["growth"]["series"])
    for series in (one for name in names for one in series_named(data, name)):
        items, costs, unit = series["items"], medians(series), series["unit"]
        found = fit_of(series)
        rows.append((", ".join([series["name"], *([series["peer"]] if "peer" in series else [])]),
                     f"{items[0]:,} to {items[-1]:,}",
                     f"{short(costs[0])} to {short(costs[-1])} {unit}",
                     f"{exponent(*fitted(series)):.2f}", with_unit(found.fixed, unit),
                     with_unit(found.each, unit) + (" × log2 n" if series["name"] == SORTS else ""),
                     f"{(costs[-1] / items[-1]) / (costs[0] / items[0]):.2f}",
                     f"{costs[-1] / costs[-2]:.2f}"))
    return table(("", "items", "median cost", "exponent", "fixed", "each item",
                  "item, last to first", "last doubling"), rows)


def ratio_at_most_items(data: Dataset, name: str, base: str) -> Ratio:
    subject, floor = (series_named(data, one)[0]["samples"][-1] for one in (name, base))
    return ratio(subject, floor)


def check_ratio(data: Dataset) -> Ratio:
    return ratio_at_most_items(data, SORTS, "keys: parse")


def long_call_ratio(data: Dataset) -> Ratio:
    return ratio_at_most_items(data, "bytes: call", "bytes: ping")


def checks(data: Dataset) -> str:
    rows = [("2,000 keys: the check for duplicates to the parse", check_ratio(data)),
            ("1,000,000 bytes: a call that the policy answers to a ping", long_call_ratio(data))]
    return table(("", "ratio", "undisturbed"),
                 [(name, f"{found.median:.2f}", f"{found.undisturbed:.2f}")
                  for name, found in rows])
