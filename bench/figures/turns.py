"""Measuring several subjects round by round, so that a change in the machine's load meets them
all."""

from __future__ import annotations

import random
from typing import Callable, TypeVar

Name = TypeVar("Name")
Measured = TypeVar("Measured")


def by_turns(subjects: "dict[Name, Callable[[], Measured]]",
             rounds: int) -> "dict[Name, list[Measured]]":
    """Each subject once a round, in an order drawn anew for each round (the same ones in every
    run); the first round does not count."""
    drawn, order = random.Random(0), list(subjects)
    found: "dict[Name, list[Measured]]" = {name: [] for name in subjects}
    for number in range(-1, rounds):
        drawn.shuffle(order)
        for name in order:
            value = subjects[name]()
            if number >= 0:
                found[name].append(value)
    return found
