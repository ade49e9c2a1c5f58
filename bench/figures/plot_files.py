"""The SVG files of the plots, and whether they are those of the data.

A file names the SHA-256 of what it was drawn from (its series, and the modules that draw) and that
of the drawing itself. So a check needs neither the plotting library nor its version.
"""

from __future__ import annotations

import hashlib
import json
import re
from pathlib import Path
from typing import Any

from figures.dataset import ROOT

PLOTS = ROOT / "bench" / "plots"
MODULES = ("drawings.py", "style.py", "wording.py")
MARK = re.compile(r"<!-- drawn from ([0-9a-f]{64}), drawing ([0-9a-f]{64}) -->\n")


def _sha256(text: str) -> str:
    return hashlib.sha256(text.encode()).hexdigest()


def source_digest(series: "dict[str, Any]") -> str:
    """Of the series and of the code that draws them."""
    code = [(Path(__file__).with_name(name)).read_text("utf-8") for name in MODULES]
    return _sha256("\0".join([json.dumps(series, sort_keys=True), *code]))


def path_of(name: str, theme: str, folder: Path = PLOTS) -> Path:
    return folder / f"{name}-{theme}.svg"


def marked(drawing: str, series: "dict[str, Any]") -> str:
    """The file's text: the mark stands behind the XML declaration."""
    declaration, body = drawing.split("\n", 1)
    return (f"{declaration}\n<!-- drawn from {source_digest(series)}, "
            f"drawing {_sha256(body)} -->\n{body}")


def fault(path: Path, series: "dict[str, Any]") -> str:
    """Why the file is not the plot of these series; empty when it is."""
    try:
        text = path.read_text("utf-8")
    except FileNotFoundError:
        return "is missing"
    mark = MARK.search(text)
    if mark is None:
        return "does not say what it was drawn from"
    if mark[1] != source_digest(series):
        return "was drawn from other data or by other code"
    if mark[2] != _sha256(text[mark.end():]):
        return "was changed after it was drawn"
    return ""
