"""The modules whose code decides, and their sources."""

from __future__ import annotations

from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]

MODULES = {
    "policy": ["src/policy/*"],
    "approval": ["src/approval/*"],
    "mcp": ["src/mcp/*"],
    "http": ["src/http/request.*", "src/http/gate.*"],
    "json": ["src/json/*"],
    "query": ["src/tools/query_tool.*"],
}
"""Patterns of the files of each module. The screen of kova_query is src/policy/quick_select, which
belongs to policy, and src/tools/query_tool."""


def sources(module: str) -> list[str]:
    """The module's files, relative to the root, sources before headers."""
    found = {path.relative_to(ROOT).as_posix() for pattern in MODULES[module]
             for path in ROOT.glob(pattern) if path.suffix in (".cpp", ".h")}
    return sorted(found, key=lambda name: (name.endswith(".h"), name))


def module_of(file: str) -> "str | None":
    return next((name for name in MODULES if file in sources(name)), None)
