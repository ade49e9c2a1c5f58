"""Parsing and escaping next to other libraries."""

from __future__ import annotations

from typing import Any

from figures.markdown import WIDEST_ROW, table

OURS = "ours"


def group(data: "dict[str, Any]", name: str) -> str:
    """MB/s, and in brackets ours divided by the contender's. More contenders than fit into a row
    make another table."""
    inputs = data["bytes_a_second"][name]
    others = [contender for contender in next(iter(inputs.values())) if contender != OURS]
    tables, shown = [], []
    for contender in others:
        if shown and _width(inputs, [*shown, contender]) > WIDEST_ROW:
            tables.append(_table(inputs, shown))
            shown = []
        shown.append(contender)
    return "\n\n".join([*tables, _table(inputs, shown)])


def _width(inputs: "dict[str, dict[str, float]]", contenders: "list[str]") -> int:
    widths = [max(map(len, inputs)), 5, *(max(len(one), 12) for one in contenders)]
    return sum(widths) + 3 * len(widths) + 1


def _table(inputs: "dict[str, dict[str, float]]", contenders: "list[str]") -> str:
    rows = []
    for name, speeds in inputs.items():
        cells = [f"{speeds[one] / 1e6:.0f} ({speeds[OURS] / speeds[one]:.2f})"
                 for one in contenders]
        rows.append((name, f"{speeds[OURS] / 1e6:.0f}", *cells))
    return table(("", OURS, *contenders), rows)
