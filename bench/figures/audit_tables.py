"""What an audit record costs."""

from __future__ import annotations

from figures.dataset import Dataset
from figures.markdown import table
from figures.samples import quantile, ratios
from figures.wording import short_time

TARGETS = {"linux": "Linux", "windows": "Windows executable, Wine"}


def summary(data: Dataset) -> str:
    rows = []
    for one in data["audit"]["calls"]:
        paired = ratios(one["with_ms"], one["without_ms"])
        rows.append([f"{TARGETS[one['target']]}, {one['sessions']} "
                     f"session{'s' if one['sessions'] > 1 else ''} at once",
                     *(short_time(quantile(one[name], 0.5)) for name in ("without_ms", "with_ms")),
                     f"{quantile(paired, 0.5):.2f}"])
    return table(("", "a call without a record", "with one", "ratio"), rows)
