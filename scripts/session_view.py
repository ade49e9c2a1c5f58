"""How a session is shown: headings, messages, tables and progress; colour only on a terminal."""

from __future__ import annotations

import json
import os
import shutil
import sys
import time
from typing import Any, Sequence, TextIO

TEXT_SHOWN = 160
ITEMS_SHOWN = 4
ROWS_SHOWN = 12
CELL_SHOWN = 72
SECONDS_BETWEEN_LINES = 5.0

_STYLES = {"bold": "1", "dim": "2", "red": "31", "green": "32", "cyan": "36"}


class View:
    """Writes to one stream, in colours when it is a terminal."""

    def __init__(self, stream: TextIO) -> None:
        self.stream = stream
        self.terminal = stream.isatty()
        self._colours = (self.terminal and "NO_COLOR" not in os.environ
                         and os.environ.get("TERM") != "dumb")
        columns = shutil.get_terminal_size((100, 24)).columns if self.terminal else 100
        self.width = min(max(columns, 60), 140)

    def style(self, text: str, style: str) -> str:
        return f"\x1b[{_STYLES[style]}m{text}\x1b[0m" if self._colours else text

    def line(self, text: str = "", style: str | None = None) -> None:
        print(self.style(text, style) if style else text, file=self.stream, flush=True)

    def heading(self, text: str) -> None:
        self.line()
        self.line(f"{text} " + "─" * max(self.width - len(text) - 1, 0), "bold")

    def note(self, text: str) -> None:
        self.line(f"# {text}", "dim")

    def request(self, message: dict[str, Any]) -> None:
        self._message("→ ", message, "cyan")

    def reply(self, message: dict[str, Any], seconds: float) -> None:
        result = message.get("result", {})
        failed = "error" in message or result.get("isError") is True
        self._message("← ", message, "red" if failed else "green", f"  {duration(seconds)}")

    def _message(self, arrow: str, message: dict[str, Any], style: str, end: str = "") -> None:
        lines = [arrow + text for text in pretty(message, self.width - len(arrow))]
        lines[1:] = ["  " + text[len(arrow):] for text in lines[1:]]
        for text in lines[:-1]:
            self.line(text, style)
        self.line(self.style(lines[-1], style) + self.style(end, "dim"))

    def json(self, value: Any) -> None:
        for text in pretty(value, self.width - 2):
            self.line("  " + text)

    def table(self, columns: Sequence[str], rows: Sequence[Sequence[str | None]]) -> None:
        for number, text in enumerate(table(columns, rows, self.width - 2)):
            self.line("  " + text, "bold" if number == 0 else None)

    def step(self, what: str) -> "Step":
        return Step(self, what)


class Step:
    """One line of progress: rewritten in place on a terminal, elsewhere now and then."""

    def __init__(self, view: View, what: str) -> None:
        self.view = view
        self.what = what
        self.outcome = ""
        self._started = time.monotonic()
        self._shown_at = self._started

    def __enter__(self) -> "Step":
        self.progress("")
        return self

    def progress(self, text: str) -> None:
        now = time.monotonic()
        if not self.view.terminal:
            if now - self._shown_at >= SECONDS_BETWEEN_LINES:
                self._shown_at = now
                self.view.line(f"{self.what} {text}", "dim")
        else:
            shown = f"{self.what} {text}"[:self.view.width - 1]
            print(f"\r\x1b[K{shown}", end="", file=self.view.stream, flush=True)

    def __exit__(self, kind: Any, *_: Any) -> None:
        if self.view.terminal:
            print("\r\x1b[K", end="", file=self.view.stream, flush=True)
        if kind is not None:
            return
        taken = duration(time.monotonic() - self._started)
        self.view.line(f"{self.what}{self.outcome or ': done'} ({taken})", "dim")


def duration(seconds: float) -> str:
    return f"{seconds:.1f} s" if seconds >= 1 else f"{seconds * 1000:.1f} ms"


def printable(text: str) -> str:
    """Nothing in the data moves the reader's terminal."""
    return "".join(c if c.isprintable() else "·" for c in text)


def count(number: int, noun: str) -> str:
    return f"{number:,} {noun}" + ("" if number == 1 else "s")


# JSON


class Note(str):
    """Words in the place of a value that is not shown."""


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
    """The entries to show, each with what stands before it; a long list is cut with a note."""
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
    """JSON for people: lines are filled up to the width, and what is long is cut with a note."""
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
    """Column widths of at most `total`, taken from the widest columns first."""
    widths = [max(map(len, column)) for column in zip(*cells)]
    while sum(widths) + 2 * (len(widths) - 1) > total and max(widths) > 8:
        widths[widths.index(max(widths))] -= 1
    return widths


def _is_number(text: "str | None") -> bool:
    return text is None or text.lstrip("-").replace(".", "", 1).isdecimal()


def table(columns: Sequence[str], rows: Sequence[Sequence["str | None"]],
          total: int) -> list[str]:
    """A header, a rule, the first rows, and a note about those that are not shown."""
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


def standard_view(stream: TextIO = sys.stdout) -> View:
    """Characters that the stream cannot write become question marks instead of an error."""
    reconfigure = getattr(stream, "reconfigure", None)
    if reconfigure is not None:
        reconfigure(errors="replace")
    return View(stream)
