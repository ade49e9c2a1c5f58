"""The table of plots: what is drawn, from which data files, and what each shows.

A plot is added here: a name, the function that takes its series out of the data files (plain lists
and dictionaries, so that a check needs no plotting library), the function of drawings.py that draws
them, and the text for a reader who does not see it.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any, Callable

from figures import plot_series
from figures.dataset import Dataset


@dataclass(frozen=True)
class Plot:
    name: str
    series: "Callable[[Dataset], dict[str, Any]]"
    drawing: str
    """The function of drawings.py: they are loaded only where something is drawn."""
    text: str


PLOTS = [
    Plot("start", plot_series.start, "bars",
         "From the spawn of a server to its reply to initialize, next to two other servers"),
    Plot("memory", plot_series.memory, "bars",
         "The memory that a server and its children hold while queries run"),
    Plot("latency", plot_series.latency, "distributions",
         "The distribution of the time of a ping and of a one-row query over stdio"),
    Plot("throughput", plot_series.throughput, "throughput",
         "Pings and one-row queries a second over HTTP against the number of clients"),
    Plot("calls", plot_series.calls, "ratios",
         "A tool call as a multiple of an empty child's time, on Linux and under Wine"),
    Plot("account", plot_series.account, "stages",
         "Where the time of a one-row query goes, stage by stage"),
    Plot("scale", plot_series.scale, "scale",
         "The time of calls among a thousand sessions, and the memory while they are made"),
    Plot("growth", plot_series.growth, "growth",
         "Cost against the number of keys, tokens, bytes, rows, columns, sessions and listeners, "
         "with other servers where they have the same"),
]
