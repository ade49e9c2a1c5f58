"""What every data file says of its run, and how it is written.

    python3 -m figures.record --data FILE --began MOMENT [--parameter NAME=VALUE ...]
        [--reader plain|micro|http] PART ...

merges the JSON objects of the files PART and writes them to FILE behind machine, date, commit and
load; a reader of raw.py makes them smaller. MOMENT is what `figures.conditions` printed before the
run. Exit codes: 0 written, 1 a part is missing or not what it should be, 2 bad arguments.
"""

from __future__ import annotations

import argparse
import datetime
import json
import os
import platform
import re
import subprocess
import sys
import textwrap
from pathlib import Path
from typing import Any

from figures import raw
from figures.conditions import Moment, since

ROOT = Path(__file__).resolve().parents[2]
MEASURED = ("src", "sample", "bench", "deploy", "demo", "tests", "CMakeLists.txt",
            ":!bench/data", ":!bench/plots", ":!bench/results.md", ":!**/*.md")
"""What figures depend on; a run that follows another finds that one's data changed."""
WIDTH = 100
NUMBERS = re.compile(r"\[\n\s*(-?\d[-+.\de,\s]*?)\s+\]")


def machine() -> dict[str, Any]:
    models = re.findall(r"^model name\s*: (.*)$", Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    total = re.match(r"MemTotal: +(\d+)", Path("/proc/meminfo").read_text("ascii"))
    assert total is not None
    return {"processor": models[0] if models else os.uname().machine,
            "processors": len(os.sched_getaffinity(0)), "memory_mib": round(int(total[1]) / 1024),
            "kernel": os.uname().release,
            "distribution": platform.freedesktop_os_release().get("PRETTY_NAME", "unknown")}


def now() -> str:
    return datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC")


def commit() -> str:
    """The commit that was measured, "and changes" when the tree differs from it."""
    def git(*arguments: str) -> str:
        done = subprocess.run(["git", "-C", str(ROOT), *arguments], capture_output=True, text=True,
                              check=False)
        return done.stdout.strip()
    found = git("rev-parse", "--short=12", "HEAD") or "unknown"
    return found + (" and changes" if git("status", "--porcelain", "--", *MEASURED) else "")


def document(began: Moment, parameters: dict[str, Any],
             found: dict[str, Any]) -> dict[str, Any]:
    """The whole file; `found` is what the benchmark has measured. To be called at the end."""
    return {"machine": machine(), "date": now(), "commit": commit(),
            **since(began),
            "parameters": parameters, **found}


def text_of(data: dict[str, Any]) -> str:
    """Indented JSON, whose lists of numbers fill lines instead of taking one each."""
    def filled(found: "re.Match[str]") -> str:
        numbers = " ".join(found[1].split())
        return "[" + "\n".join(textwrap.wrap(numbers, WIDTH)) + "]"
    return NUMBERS.sub(filled, json.dumps(data, indent=1, ensure_ascii=False)) + "\n"


def write(path: Path, data: dict[str, Any]) -> None:
    """Replaces the file at once: a run that is interrupted leaves the old one."""
    path.parent.mkdir(parents=True, exist_ok=True)
    new = path.with_name(path.name + ".new")
    new.write_text(text_of(data), encoding="utf-8")
    new.replace(path)


def _parameter(text: str) -> "tuple[str, int | float | str]":
    name, equals, value = text.partition("=")
    if not name or not equals:
        raise argparse.ArgumentTypeError(f"{text} is not NAME=VALUE")
    for number in (int, float):
        try:
            return name, number(value)
        except ValueError:
            pass
    return name, value


def main(arguments: "list[str]") -> int:
    parser = argparse.ArgumentParser(prog="figures.record", allow_abbrev=False)
    parser.add_argument("--data", type=Path, required=True)
    parser.add_argument("--began", type=Moment.of, required=True)
    parser.add_argument("--parameter", type=_parameter, action="append", default=[])
    parser.add_argument("--reader", choices=raw.READERS, default="plain")
    parser.add_argument("parts", type=Path, nargs="+")
    asked = parser.parse_args(arguments)
    found: dict[str, Any] = {}
    for path in asked.parts:
        try:
            found.update(raw.READERS[asked.reader](path))
        except (OSError, KeyError, ValueError) as failure:
            print(f"figures.record: {path}: {failure}", file=sys.stderr)
            return 1
    write(asked.data, document(asked.began, dict(asked.parameter), found))
    print(f"written: {asked.data}", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
