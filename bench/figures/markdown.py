"""Tables and paragraphs in Markdown, and the marked regions of a document that hold them.

A region begins with the line `<!-- table NAME -->` and ends with `<!-- end -->`.
"""

from __future__ import annotations

import re
import textwrap
from typing import Callable, Sequence

BEGIN = re.compile(r"<!-- table (\S+) -->\n")
REGION = re.compile(r"(<!-- table (\S+) -->\n)((?:(?!<!--).)*?)(<!-- end -->)", re.DOTALL)
WIDEST_ROW = 160
"""Wider ones are hard to read in the source."""
PARAGRAPH_WIDTH = 118


class BadDocument(Exception):
    """A region without an end, or of a table that nobody makes. The text says which."""


def table(head: Sequence[str], rows: Sequence[Sequence[object]]) -> str:
    """The first column is aligned left, the others right."""
    cells = [list(map(str, row)) for row in [head, *rows]]
    widths = [max(len(row[column]) for row in cells) for column in range(len(head))]

    def padded(row: Sequence[str]) -> str:
        aligned = [row[0].ljust(widths[0])]
        aligned += [cell.rjust(width) for cell, width in zip(row[1:], widths[1:])]
        return "| " + " | ".join(aligned) + " |"
    line = "|" + "|".join(["-" * (widths[0] + 2)] + ["-" * (width + 1) + ":"
                                                     for width in widths[1:]]) + "|"
    rows_of_text = [padded(cells[0]), line, *map(padded, cells[1:])]
    wide = [row for row in rows_of_text if len(row) > WIDEST_ROW]
    if wide:
        raise ValueError(f"a row has {len(wide[0])} characters: {wide[0]}")
    return "\n".join(rows_of_text)


def paragraph(text: str) -> str:
    """In lines, as they stand in a document's source."""
    return "\n".join(textwrap.wrap(text, PARAGRAPH_WIDTH, break_long_words=False))


def names(text: str) -> "list[str]":
    return BEGIN.findall(text)


def filled(text: str, make: "Callable[[str], str]") -> str:
    """The document with what `make` gives for the name of each region."""
    whole = [found[2] for found in REGION.finditer(text)]
    for name in names(text):
        if name not in whole:
            raise BadDocument(f"the region of table {name} has no end")
    return REGION.sub(lambda found: f"{found[1]}{make(found[2])}\n{found[4]}", text)
