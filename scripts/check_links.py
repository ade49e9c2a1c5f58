#!/usr/bin/python3
"""Relative links and anchors of every Markdown file lead to a file and a heading of this tree."""

from __future__ import annotations

import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
CODE_BLOCK = re.compile(r"^(```+).*?^\1$", re.MULTILINE | re.DOTALL)
CODE = re.compile(r"(`+).+?\1")
LINK = re.compile(r"\]\(([^)\s]+)\)")
HEADING = re.compile(r"^#{1,6} +(.+?) *#*$", re.MULTILINE)


def anchor_of(heading: str) -> str:
    """As the usual renderers make it: lower case, no punctuation, a hyphen for each space."""
    text = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading).lower()
    return re.sub(r"[^\w\- ]", "", text).replace(" ", "-")


def anchors_of(text: str) -> set[str]:
    """A heading that stands there again has a number behind its anchor."""
    found: list[str] = []
    for heading in HEADING.findall(CODE_BLOCK.sub("", text)):
        found.append(anchor_of(heading))
    return {name if before == 0 else f"{name}-{before}"
            for name, before in ((name, found[:place].count(name))
                                 for place, name in enumerate(found))}


def broken_links(document: Path, tracked: set[Path]) -> list[str]:
    text = document.read_text("utf-8")
    broken = []
    for link in LINK.findall(CODE.sub("", CODE_BLOCK.sub("", text))):
        if re.match(r"[a-z]+:", link):
            continue
        name, _, anchor = link.partition("#")
        linked = (document.parent / name).resolve() if name else document
        if linked not in tracked:
            broken.append(f"{link}: no such file")
        elif anchor and anchor not in anchors_of(linked.read_text("utf-8")):
            broken.append(f"{link}: no such heading")
    return broken


def main() -> int:
    shown = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, capture_output=True, text=True,
                           check=True).stdout
    files = {ROOT / name for name in shown.split("\0") if name}
    tracked = files | {folder for file in files for folder in file.parents}
    found = [f"{document.relative_to(ROOT)}: {fault}"
             for document in sorted(files) if document.suffix == ".md"
             for fault in broken_links(document, tracked)]
    for fault in found:
        print(f"error: {fault}")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
