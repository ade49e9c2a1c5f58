"""A series: one cost at growing numbers of items."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any


@dataclass(frozen=True)
class Series:
    name: str
    of: str
    """What the items are, for the reader of a plot."""
    unit: str
    samples: "dict[int, list[float]]"
    """By the number of items, in the order of the rounds."""
    peer: str = ""
    """Whose it is, where it is not ours."""

    def data(self) -> dict[str, Any]:
        whose = {"peer": self.peer} if self.peer else {}
        return {"name": self.name, **whose, "of": self.of, "unit": self.unit,
                "items": list(self.samples),
                "samples": [[round(value, 4) for value in values]
                            for values in self.samples.values()]}
