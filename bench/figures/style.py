"""How all plots look, light and dark."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import matplotlib

matplotlib.use("svg")
from matplotlib import pyplot  # noqa: E402  the backend is chosen first


@dataclass(frozen=True)
class Theme:
    name: str
    paper: str
    ink: str
    faint: str
    colours: "tuple[str, ...]"
    """Ours, then the others; told apart also without red and green."""
    neutral: str
    """Of a floor."""
    second: str
    """Of something else of ours, where several things of ours stand side by side."""
    waiting: str
    """Of time in which nothing of a call runs."""
    beside: str
    """Of what is neither ours nor another server: the sample engine, an aim."""


LIGHT = Theme("light", "#ffffff", "#1f2328", "#d8dee4", ("#0072b2", "#d55e00", "#9b4f96"),
              "#6e7781", "#5aaedb", "#afb8c1", "#00795c")
DARK = Theme("dark", "#0d1117", "#e6edf3", "#30363d", ("#56b4e9", "#e69f00", "#d8a0d4"),
             "#9198a1", "#2c7fb8", "#636c76", "#35c79a")
THEMES = (LIGHT, DARK)
FONTS = ["DejaVu Sans", "Verdana", "Arial", "Helvetica"]
"""Texts are drawn by the reader's program, which may have only its own font."""
FLOORS = ("cat", "empty program", "empty child", "empty listener")


def settings(theme: Theme) -> "dict[str, Any]":
    return {"svg.fonttype": "none", "svg.hashsalt": "bench", "font.family": "sans-serif",
            "font.sans-serif": FONTS, "font.size": 10, "axes.titlesize": 10,
            "axes.titleweight": "bold", "axes.titlelocation": "left",
            "figure.facecolor": theme.paper,
            "axes.facecolor": theme.paper, "savefig.facecolor": theme.paper,
            "text.color": theme.ink, "axes.labelcolor": theme.ink, "axes.edgecolor": theme.faint,
            "xtick.color": theme.ink, "ytick.color": theme.ink, "grid.color": theme.faint,
            "axes.spines.top": False, "axes.spines.right": False, "axes.axisbelow": True,
            "xtick.minor.size": 0, "ytick.minor.size": 0}


def colour(theme: Theme, name: str, others: "list[str]") -> str:
    """Of a subject among the subjects of its plot; the first of them that is no floor is ours."""
    if name in FLOORS:
        return theme.neutral
    return theme.colours[[one for one in others if one not in FLOORS].index(name)]


def figure(columns: int, rows: int, width: float, height: float, title: str) -> "tuple[Any, Any]":
    """A figure with its axes as a list; inches."""
    made, axes = pyplot.subplots(rows, columns, figsize=(width, height), squeeze=False)
    made.suptitle(title, x=0.01, ha="left", fontsize=12, fontweight="bold")
    return made, [one for row in axes for one in row]
