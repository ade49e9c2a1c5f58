"""Shows a session: headings, messages, tables and progress; in colour on a terminal only."""

from __future__ import annotations

import os
import shutil
import sys
import time
from typing import Any, Sequence, TextIO

from formats import duration, pretty, table

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
    """One line of progress, rewritten on a terminal and repeated every few seconds elsewhere."""

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


def standard_view(stream: TextIO = sys.stdout) -> View:
    """Characters that the stream cannot write become question marks instead of an error."""
    reconfigure = getattr(stream, "reconfigure", None)
    if reconfigure is not None:
        reconfigure(errors="replace")
    return View(stream)
