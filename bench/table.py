"""Prints the results of json-bench as tables: one per group, one line per input."""

from __future__ import annotations

import json
import sys
from pathlib import Path


def medians(path: Path) -> dict[str, dict[str, dict[str, float]]]:
    """Bytes per second by group, input and contender."""
    groups: dict[str, dict[str, dict[str, float]]] = {}
    results = json.loads(path.read_text(encoding="utf-8"))["benchmarks"]
    # They ran in a random order; the index is that of the registration.
    for result in sorted(results, key=lambda result: result["family_index"]):
        if result.get("error_occurred"):
            sys.exit(f"{result['name']}: {result['error_message']}")
        if result.get("aggregate_name") != "median":
            continue
        group, source, contender = result["run_name"].split("/")
        groups.setdefault(group, {}).setdefault(source, {})[contender] = result["bytes_per_second"]
    return groups


CONTENDERS_A_TABLE = 5
"""More make rows that are wider than a page; the rest follows in another table."""


def print_table(contenders: list[str], inputs: dict[str, dict[str, float]]) -> None:
    width = max(len(name) for name in inputs)
    print(f"\n| {'':{width}} | " + " | ".join(contenders) + " |")
    print(f"|{'-' * (width + 2)}|" + "|".join("-" * (len(c) + 1) + ":" for c in contenders) + "|")
    for name, speeds in inputs.items():
        cells = []
        for contender in contenders:
            speed = speeds[contender]
            ratio = "" if contender == "ours" else f" ({speeds['ours'] / speed:.2f})"
            cells.append(f"{speed / 1e6:.0f}{ratio}".rjust(len(contender)))
        print(f"| {name:{width}} | " + " | ".join(cells) + " |")


def print_group(group: str, inputs: dict[str, dict[str, float]]) -> None:
    ours, *others = list(next(iter(inputs.values())))
    print(f"\n{group}: MB/s, and in brackets the speed of ours divided by the contender's")
    for begin in range(0, len(others), CONTENDERS_A_TABLE):
        print_table([ours, *others[begin:begin + CONTENDERS_A_TABLE]], inputs)


def main() -> None:
    for group, inputs in medians(Path(sys.argv[1])).items():
        print_group(group, inputs)


if __name__ == "__main__":
    main()
