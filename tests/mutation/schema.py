"""Writes a source that holds all its changes; a number chooses one at run time."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Sequence

from mutation.syntax import Change, Constant, Source


@dataclass
class Place:
    """The changes of one place, and the places inside it."""
    start: int
    end: int
    changes: list[Change]
    inner: "list[Place]"


def places(changes: Sequence[Change]) -> list[Place]:
    """The places, nested as they stand in the source. Places that cross are an error."""
    roots: list[Place] = []
    open_places: list[Place] = []
    for change in sorted(changes, key=lambda made: (made.start, -made.end)):
        while open_places and open_places[-1].end <= change.start:
            open_places.pop()
        top = open_places[-1] if open_places else None
        if top is not None and (top.start, top.end) == (change.start, change.end):
            top.changes.append(change)
            continue
        if top is not None and change.end > top.end:
            raise ValueError(f"places cross: {top.changes[0].original} and {change.original}")
        made = Place(change.start, change.end, [change], [])
        (top.inner if top is not None else roots).append(made)
        open_places.append(made)
    return roots


def chosen(change: Change) -> str:
    function = "kova_mutant_if_run" if change.evaluated else "kova_mutant"
    return f"::{function}({change.number})"


class Writer:
    def __init__(self, source: Source, constants: Sequence[Constant]) -> None:
        self.text = source.text
        self.specifiers = {constant.start: constant for constant in constants}

    def plain(self, start: int, end: int) -> str:
        """The source of a stretch, with the constants that become variables."""
        pieces = []
        for at in sorted(at for at in self.specifiers if start <= at < end):
            constant = self.specifiers[at]
            pieces.append(self.text[start:at].decode() + constant.specifiers)
            start = constant.end
        return "".join(pieces) + self.text[start:end].decode()

    def stretch(self, start: int, end: int, inside: list[Place]) -> str:
        pieces = []
        for place in inside:
            pieces += [self.plain(start, place.start), self.place(place)]
            start = place.end
        return "".join(pieces) + self.plain(start, end)

    def place(self, place: Place) -> str:
        kept = self.stretch(place.start, place.end, place.inner)
        jumps = [change for change in place.changes if change.kind == "jump"]
        if jumps:
            choice = "".join(f"if ({chosen(change)}) {change.text} else " for change in jumps)
            return f"{{ {choice}{kept} }}"
        values = [change for change in place.changes if change.kind != "removal"]
        removals = [change for change in place.changes if change.kind == "removal"]
        if any(change.text.startswith("!(") for change in values):
            kept = f"static_cast<bool>({kept})"
        if values:
            choice = "".join(f"{chosen(change)} ? ({change.text}) : " for change in values)
            kept = f"({choice}({kept}))"
        if removals:
            choice = " || ".join(chosen(change) for change in removals)
            kept = f"({choice} ? static_cast<void>(0) : static_cast<void>({kept}))"
        return kept


def with_all(source: Source, changes: Sequence[Change], constants: Sequence[Constant]) -> str:
    """The source with these changes, of which `kova_mutant` chooses one."""
    return Writer(source, constants).stretch(0, len(source.text), places(changes))


def with_one(source: Source, change: Change) -> str:
    """The source with this one change made."""
    text = change.text
    if change.kind == "removal":
        text = "static_cast<void>(0)"
    elif change.kind != "jump":
        text = f"({text})" if change.kind != "text" else text
    return source.text[:change.start].decode() + text + source.text[change.end:].decode()
