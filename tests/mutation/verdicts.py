"""Equivalent changes, and the report."""

from __future__ import annotations

import json
from collections import Counter
from dataclasses import dataclass
from pathlib import Path
from typing import Collection, Mapping, Sequence

from mutation.modules import MODULES, module_of
from mutation.syntax import Change
from mutation.tests import KILLED, NOT_BUILT, SURVIVED, TIMED_OUT, Outcome

EQUIVALENT = "equivalent"
LIST = Path(__file__).parent / "equivalent.json"
REQUIRED = 0.98
"""The share of the changes which are not equivalent that the tests must find."""


class ListFailure(Exception):
    """A list of equivalent changes that cannot be read. The text is one line."""


def as_entry(change: Change) -> dict:
    entry = {"file": change.file, "function": change.function, "line": change.line_text,
             "from": change.original, "to": change.shown}
    return entry if change.nth == 1 else {**entry, "nth": change.nth}


def read_list(path: Path = LIST) -> dict[tuple, str]:
    """The reason of each equivalent change, by its key."""
    reasons: dict[tuple, str] = {}
    for group in json.loads(path.read_text()):
        if not group.get("reason"):
            raise ListFailure(f"{path.name}: a group without a reason")
        for entry in group["changes"]:
            key = (entry["file"], entry["function"], entry["line"], entry["from"], entry["to"],
                   entry.get("nth", 1))
            if key in reasons:
                raise ListFailure(f"{path.name}: twice: {key}")
            reasons[key] = group["reason"]
    return reasons


@dataclass
class Verdicts:
    """What became of each change that was judged. `possible` has the keys of all changes of the
    sources, also of those that were not."""
    outcomes: Mapping[Change, Outcome]
    reasons: Mapping[tuple, str]
    possible: Collection[tuple]

    def status(self, change: Change) -> str:
        outcome = self.outcomes[change]
        if outcome.status == SURVIVED and change.key in self.reasons:
            return EQUIVALENT
        return outcome.status

    def counts(self, module: "str | None" = None) -> Counter:
        return Counter(self.status(change) for change in self.outcomes
                       if module is None or module_of(change.file) == module)

    def survivors(self) -> list[Change]:
        return [change for change in self.outcomes if self.status(change) == SURVIVED]

    def stale(self) -> list[tuple]:
        """Entries of the list whose change was judged and is not equivalent, or that the sources no
        longer have."""
        keys = {change.key: change for change in self.outcomes}
        return [key for key in self.reasons if key not in self.possible
                or key in keys and self.status(keys[key]) in (KILLED, TIMED_OUT, NOT_BUILT)]

    def passed(self) -> bool:
        return share(self.counts()) >= REQUIRED


def share(counts: Counter) -> float:
    """Of the changes that were built and are not equivalent, those that a test has found. Where all
    that were built are equivalent, none was left to be found."""
    found = counts[KILLED] + counts[TIMED_OUT]
    judged = found + counts[SURVIVED]
    return found / judged if judged else float(counts[EQUIVALENT] > 0)


def table(verdicts: Verdicts) -> list[str]:
    heads = ("module", "changes", "killed", "timed out", "equivalent", "survived", "not built",
             "found")
    rows: list[Sequence[str]] = [heads]
    for name in [*MODULES, "all"]:
        counts = verdicts.counts(None if name == "all" else name)
        if counts:
            rows.append((name, str(sum(counts.values())), str(counts[KILLED]),
                         str(counts[TIMED_OUT]), str(counts[EQUIVALENT]), str(counts[SURVIVED]),
                         str(counts[NOT_BUILT]), f"{100 * share(counts):.1f} %"))
    widths = [max(len(row[column]) for row in rows) for column in range(len(heads))]
    return ["  ".join([row[0].ljust(widths[0])] + [cell.rjust(width) for cell, width
                                                  in zip(row[1:], widths[1:])]) for row in rows]


def named(change: Change) -> str:
    return f"{change.file}:{change.line}: {change.original}  ->  {change.shown}"


def report(verdicts: Verdicts) -> str:
    lines = []
    survivors = verdicts.survivors()
    if survivors:
        lines.append("Survivors:")
        lines += [f"  {named(change)}   ({change.function})" for change in survivors]
        lines.append("")
    stale = verdicts.stale()
    if stale:
        lines.append(f"No longer to be listed in {LIST.name}:")
        lines += [f"  {key[0]}: {key[1]}: {key[3]}  ->  {key[4]}" for key in stale]
        lines.append("")
    return "\n".join(lines + table(verdicts))
