"""The data files as they stand in the repository."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

ROOT = Path(__file__).resolve().parents[2]
DATA = ROOT / "bench" / "data"


class NoData(Exception):
    """No data file: the benchmark was never run here. The text is the name of both."""


class Dataset:
    """Reads each file once. `NoData` for a file that does not exist."""

    def __init__(self, folder: Path = DATA, replaced: "dict[str, Path] | None" = None) -> None:
        self._folder = folder
        self._replaced = replaced or {}
        """Files to read instead of those of the folder, by name."""
        self._read: "dict[str, dict[str, Any]]" = {}

    def __getitem__(self, name: str) -> "dict[str, Any]":
        if name not in self._read:
            path = self._replaced.get(name, self._folder / f"{name}.json")
            try:
                self._read[name] = json.loads(path.read_text("utf-8"))
            except FileNotFoundError as missing:
                raise NoData(name) from missing
        return self._read[name]
