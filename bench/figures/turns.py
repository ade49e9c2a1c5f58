"""Measuring several subjects in turn, so that a change in the machine's load meets them all."""

from __future__ import annotations

from typing import Callable, TypeVar

Name = TypeVar("Name")
Measured = TypeVar("Measured")


def by_turns(subjects: "dict[Name, Callable[[], Measured]]",
             rounds: int) -> "dict[Name, list[Measured]]":
    """Each subject once a round, forwards and backwards; the first round does not count."""
    found: "dict[Name, list[Measured]]" = {name: [] for name in subjects}
    for number in range(-1, rounds):
        for name in list(subjects)[::1 if number % 2 == 0 else -1]:
            value = subjects[name]()
            if number >= 0:
                found[name].append(value)
    return found
