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


def print_group(group: str, inputs: dict[str, dict[str, float]]) -> None:
    contenders = list(next(iter(inputs.values())))
    width = max(len(name) for name in inputs)
    print(f"\n{group}: MB/s, and in brackets the speed of ours divided by the contender's\n")
    print(f"| {'':{width}} | " + " | ".join(contenders) + " |")
    print(f"|{'-' * (width + 2)}|" + "|".join("-" * (len(c) + 1) + ":" for c in contenders) + "|")
    for name, speeds in inputs.items():
        cells = []
        for contender in contenders:
            speed = speeds[contender]
            ratio = "" if contender == "ours" else f" ({speeds['ours'] / speed:.2f})"
            cells.append(f"{speed / 1e6:.0f}{ratio}".rjust(len(contender)))
        print(f"| {name:{width}} | " + " | ".join(cells) + " |")


def main() -> None:
    for group, inputs in medians(Path(sys.argv[1])).items():
        print_group(group, inputs)


if __name__ == "__main__":
    main()
