"""Plots in Markdown: a document shows the light or the dark one as its reader's page does."""

from __future__ import annotations

from figures import plots
from figures.dataset import Dataset
from figures.markdown import BadDocument


def picture(name: str, data: Dataset) -> str:
    """NoData where there is nothing to draw."""
    plot = next((one for one in plots.PLOTS if one.name == name), None)
    if plot is None:
        raise BadDocument(f"no plot is named {name}")
    plot.series(data)
    return (f'<picture>\n  <source media="(prefers-color-scheme: dark)" '
            f'srcset="plots/{name}-dark.svg">\n'
            f'  <img src="plots/{name}-light.svg" alt="{plot.text}">\n</picture>')
