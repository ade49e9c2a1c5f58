"""Writes with a known canonical form, and other spellings of them.

A statement is a list of pieces: words and signs, literals, and the spacing between two of them. Its
canonical form is put together from the pieces, never by reading a text.
"""

from __future__ import annotations

import random
from dataclasses import dataclass

SPACING = [" ", "\t", "\n", "\r\n", "\v", "\f"]
WORDS = ["set", "where", "and", "values", "select", "from", "or", "null", "in", "between", "insert",
         "Grüße", "naïve", "drops", "x_1", "_"]
SIGNS = ["=", "<>", "(", ")", ",", "+", "*", ".", "?", ":", "1", "2.5e3", "\u00a0", "\u2019", "\"",
         "[", "]", "\x01", "\x7f", "\\", "-", "\U0001f600"]
CHARACTERS = list("aZ09 _.,;-#/*\"\\%") + ["''", "--", "/*", "DROP", "  ", "\t", "\n", "\x01", "ß",
                                           "\u00a0", "\u20ac", "\U0001f600", "Insert", "; x"]
GAP = None


@dataclass(frozen=True)
class Literal:
    content: str
    """The content of a literal with its quotes doubled."""

    @property
    def text(self) -> str:
        return f"'{self.content}'"


@dataclass(frozen=True)
class Statement:
    pieces: "tuple[str | Literal | None, ...]"
    """The pieces. GAP stands for white space; two of them are never adjacent."""

    @property
    def canonical(self) -> str:
        return "".join(" " if piece is GAP else piece.text if isinstance(piece, Literal)
                       else upper(piece) for piece in self.pieces) + ";"

    def spelled(self, source: random.Random) -> str:
        """Another spelling of the same write."""
        text = "".join(spacing(source) if piece is GAP else
                       piece.text if isinstance(piece, Literal) else
                       "".join(source.choice((c.lower, c.upper))() if c.isascii() else c
                               for c in piece) for piece in self.pieces)
        end = source.choice(["", ";", "; ", " ;\n", "\t"])
        return source.choice(["", " ", "\n\t"]) + text + end

    def altered(self, source: random.Random) -> "Statement":
        """The same write with something else in one literal."""
        index = source.choice([i for i, piece in enumerate(self.pieces)
                               if isinstance(piece, Literal)])
        changed = Literal(altered_content(self.pieces[index].content, source))
        return Statement(self.pieces[:index] + (changed,) + self.pieces[index + 1:])


def upper(text: str) -> str:
    """Letters of ASCII only."""
    return "".join(c.upper() if c.isascii() else c for c in text)


def spacing(source: random.Random) -> str:
    return "".join(source.choices(SPACING, k=source.choice((1, 1, 2, 7))))


def altered_content(content: str, source: random.Random) -> str:
    """A changed content: other case, one more space, or an appended character."""
    others = [content + " ", " " + content, content + "x", "''" + content]
    others += [content[:i] + c.swapcase() + content[i + 1:] for i, c in enumerate(content)
               if c.isascii() and c.isalpha()]
    return source.choice(others)


def literal(source: random.Random) -> Literal:
    return Literal("".join(source.choices(CHARACTERS, k=source.choice((0, 1, 3, 12)))))


def tail(source: random.Random) -> "list[str | Literal | None]":
    """What follows the table. It forms no comment and no unbalanced quote."""
    pieces: "list[str | Literal | None]" = []
    for _ in range(source.randrange(1, 14)):
        pieces += [GAP, literal(source) if source.random() < 0.3 else
                   source.choice(WORDS) if source.random() < 0.5 else source.choice(SIGNS)]
        if source.random() < 0.3:
            pieces += ["="]
    return pieces + [GAP, literal(source)]


def statement(source: random.Random) -> Statement:
    """A write to T with at least one literal."""
    start = source.choice((["insert", GAP, "into", GAP, "t"], ["update", GAP, "t"],
                           ["delete", GAP, "from", GAP, "t"]))
    return Statement(tuple(start + tail(source)))
