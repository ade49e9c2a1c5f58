"""Values as text for people: counts, durations, JSON and tables, each cut to what fits."""

from __future__ import annotations

import json
from typing import Any, Sequence

TEXT_SHOWN = 160
ITEMS_SHOWN = 4
ROWS_SHOWN = 12
CELL_SHOWN = 72


def duration(seconds: float) -> str:
    return f"{seconds:.1f} s" if seconds >= 1 else f"{seconds * 1000:.1f} ms"


def printable(text: str) -> str:
    """Replaces control characters, so that no data can control the reader's terminal."""
    return "".join(c if c.isprintable() else "·" for c in text)


def count(number: int, noun: str) -> str:
    return f"{number:,} {noun}" + ("" if number == 1 else "s")


# JSON


class Note(str):
    """Shown in parentheses in the place of a value."""


def _scalar(value: Any) -> str:
    if isinstance(value, Note):
        return f"({value})"
    if not isinstance(value, str):
        return json.dumps(value)
    text = printable(json.dumps(value[:TEXT_SHOWN], ensure_ascii=False))
    if len(value) <= TEXT_SHOWN:
        return text
    return f"{text[:-1]}…\" ({count(len(value) - TEXT_SHOWN, 'more character')})"


def _entries(value: "dict[str, Any] | list[Any]") -> list[tuple[str, Any]]:
    """The entries to show, each with its key as a prefix; a long list is cut with a note."""
    if isinstance(value, dict):
        return [(f"{_scalar(key)}: ", entry) for key, entry in value.items()]
    if len(value) > ITEMS_SHOWN:
        value = [*value[:ITEMS_SHOWN - 1], Note(f"{len(value) - ITEMS_SHOWN + 1:,} more")]
    return [("", entry) for entry in value]


def _brackets(value: "dict[str, Any] | list[Any]") -> str:
    return "{}" if isinstance(value, dict) else "[]"


def _flat(value: Any) -> str:
    if not isinstance(value, (dict, list)):
        return _scalar(value)
    left, right = _brackets(value)
    return left + ", ".join(before + _flat(entry) for before, entry in _entries(value)) + right


def pretty(value: Any, width: int) -> list[str]:
    """JSON for people: lines are filled to the width; long texts and lists are cut with a note."""
    flat = _flat(value)
    if len(flat) <= width or not isinstance(value, (dict, list)):
        return [flat]
    left, right = _brackets(value)
    lines = [left]
    entries = _entries(value)
    for number, (before, entry) in enumerate(entries):
        end = "," if number < len(entries) - 1 else right
        flat = before + _flat(entry) + end
        gap = " " if len(lines[-1]) > 1 else ""
        if len(lines[-1]) + len(gap) + len(flat) <= width:
            lines[-1] += gap + flat
            continue
        inner = pretty(entry, width - 2 - len(before) - len(end))
        if gap:
            lines.append("  " + before + inner[0])
        else:
            lines[-1] += before + inner[0]
        lines += ["  " + text for text in inner[1:]]
        lines[-1] += end
    return lines


# tables


def _cell(text: "str | None", width: int) -> str:
    shown = "(null)" if text is None else printable(text)
    return shown if len(shown) <= width else shown[:width - 1] + "…"


def _widths(cells: Sequence[Sequence[str]], total: int) -> list[int]:
    """Column widths that add up to at most `total`; the widest columns are narrowed first."""
    widths = [max(map(len, column)) for column in zip(*cells)]
    while sum(widths) + 2 * (len(widths) - 1) > total and max(widths) > 8:
        widths[widths.index(max(widths))] -= 1
    return widths


def _is_number(text: "str | None") -> bool:
    return text is None or text.lstrip("-").replace(".", "", 1).isdecimal()


def table(columns: Sequence[str], rows: Sequence[Sequence["str | None"]],
          total: int) -> list[str]:
    """A header, a rule, the first rows, and a note with the number of the others."""
    if not columns:
        return ["(no columns)"]
    shown = rows[:ROWS_SHOWN]
    cells = [[_cell(text, CELL_SHOWN) for text in row] for row in [columns, *shown]]
    widths = _widths(cells, total)
    right = [all(map(_is_number, column)) for column in zip(*shown)] or [False] * len(columns)
    lines = []
    for row in cells:
        fitted = [_cell(text, width) for text, width in zip(row, widths)]
        placed = [text.rjust(width) if number else text.ljust(width)
                  for text, width, number in zip(fitted, widths, right)]
        lines.append("  ".join(placed).rstrip())
    lines.insert(1, "  ".join("─" * width for width in widths))
    if len(rows) > len(shown):
        lines.append(f"… {count(len(rows) - len(shown), 'more row')}")
    return lines
