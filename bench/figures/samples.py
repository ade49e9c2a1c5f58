"""Quantiles, ratios of paired samples, latency histograms."""

from __future__ import annotations

import math
from typing import Any, NamedTuple, Sequence

STEPS_OF_TEN = 20
"""Buckets of a histogram from one power of ten to the next: each ends 12 % above the one before."""


def quantile(values: Sequence[float], share: float) -> float:
    """The smallest value that at least this share of the values does not exceed."""
    ordered = sorted(values)
    if not ordered:
        raise ValueError("no samples")
    return ordered[max(0, math.ceil(share * len(ordered)) - 1)]


def ratios(values: Sequence[float], floor: Sequence[float]) -> "list[float]":
    """By round; the two were measured in the same rounds."""
    if len(values) != len(floor):
        raise ValueError(f"{len(values)} samples against {len(floor)}")
    return [value / base for value, base in zip(values, floor)]


class Ratio(NamedTuple):
    """How a subject compares with its floor. Noise that meets the floor alone makes the median
    smaller than it is, noise that meets the subject alone makes it larger."""
    median: float
    """Over the rounds."""
    undisturbed: float
    """Of the first deciles, which foreign load disturbs least."""


def ratio(values: Sequence[float], floor: Sequence[float]) -> Ratio:
    return Ratio(quantile(ratios(values, floor), 0.5), quantile(values, 0.1) / quantile(floor, 0.1))


def latency(microseconds: Sequence[float]) -> dict[str, Any]:
    """Count, quantiles in milliseconds (null without samples) and the histogram."""
    shares = {"median": 0.5, "p90": 0.9, "p99": 0.99, "p999": 0.999, "highest": 1.0}
    found: dict[str, Any] = {"count": len(microseconds)}
    for name, share in shares.items():
        found[f"{name}_ms"] = (round(quantile(microseconds, share) / 1000, 3) if microseconds
                               else None)
    return {**found, "histogram": histogram(microseconds)}


def histogram(microseconds: Sequence[float]) -> "dict[str, list[float]]":
    """`counts` of values at most `up_to_ms` and above the bucket before it; empty buckets are left
    out. Whatever is below a microsecond counts as one."""
    counts: dict[int, int] = {}
    for value in microseconds:
        step = math.ceil(STEPS_OF_TEN * math.log10(max(1, value)))
        counts[step] = counts.get(step, 0) + 1
    steps = sorted(counts)
    return {"up_to_ms": [round(10 ** (step / STEPS_OF_TEN) / 1000, 4) for step in steps],
            "counts": [counts[step] for step in steps]}
