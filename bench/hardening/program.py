"""What each hardening option of the executables costs: builds without one of them beside the build
with all, one call that the policy decides, all builds in each round."""

from __future__ import annotations

import argparse
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import wine
from common.stdio import Failed
from figures import record
from figures.conditions import Moment
from figures.hardening_tables import OPTIONS, Without
from harness.targets import Target
from runner import installing

WINDOWS_SHARE = 3
"""Under Wine, where a call takes much longer, there are so many times fewer rounds."""
LINE = re.compile(r" ms +ratio +([\d.]+) +undisturbed +([\d.]+) ")
"""A line of compare-workers."""


def built(build: Path, target: str, number: int, without: Without) -> Path:
    folder = build / "hardening" / str(number)
    installing.build(folder, target, ["kova-mcp"], f"-DKOVA_LAST_OPTIONS={without.compiler}",
                     f"-DKOVA_LAST_LINK_OPTIONS={without.linker}")
    return Target(target, folder / target, wine.default_prefix()).executable


def copies(folder: Path, executables: "list[Path]") -> "list[Path]":
    """A file for each of them, all written alike: Linux loads a copied file a little faster than
    one that the linker wrote."""
    made = []
    for place, executable in enumerate(executables):
        (folder / str(place)).mkdir(parents=True, exist_ok=True)
        made.append(Path(shutil.copy2(executable, folder / str(place))))
    return made


def compared(target: Target, policy: Path, rounds: int,
             servers: "list[Path]") -> "list[dict[str, float]]":
    """How the time of a call of each compares with that of the first."""
    name = "compare-workers.exe" if target.windows else "compare-workers"
    command = target.command(target.build / "bench" / name,
                             [str(rounds), *map(target.path, servers)])
    with target.ready():
        done = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=False, env={
            **os.environ, **target.environment({"KOVA_MCP_POLICY": policy})})
    found = LINE.findall(done.stdout)
    if done.returncode != 0 or len(found) != len(servers):
        raise Failed(f"compare-workers has ended with {done.returncode}")
    return [{"ratio": float(ratio), "undisturbed": float(low)} for ratio, low in found]


def measured(build: Path, name: str, policy: Path, rounds: int) -> "dict[str, object]":
    target = Target(name, build / name, wine.default_prefix())
    without = [built(build, name, number, against[name])
               for number, against in enumerate(OPTIONS.values()) if name in against]
    servers = copies(build / "hardening" / name, [target.executable, target.executable, *without])
    _, again, *others = compared(target, policy, rounds, servers)
    options = [option for option, against in OPTIONS.items() if name in against]
    return {"rounds": rounds, "again": again, "without": dict(zip(options, others))}


def main(arguments: "list[str]") -> int:
    parser = argparse.ArgumentParser(prog="bench/run hardening", allow_abbrev=False)
    parser.add_argument("--build", type=Path, required=True, help="the folder of both builds")
    parser.add_argument("--policy", type=Path, required=True)
    parser.add_argument("--rounds", type=int, default=3000)
    parser.add_argument("--data", type=Path, required=True, help="the JSON file to be written")
    asked = parser.parse_args(arguments)
    began = Moment.now()
    try:
        found = {name: measured(asked.build, name, asked.policy,
                                max(1, asked.rounds // (WINDOWS_SHARE if name == "windows" else 1)))
                 for name in ("linux", "windows")}
    except (Failed, OSError, subprocess.CalledProcessError, wine.WineFailure) as failure:
        print(f"bench/run hardening: {failure}", file=sys.stderr)
        return 1
    record.write(asked.data, record.document(began, {"rounds": asked.rounds}, {"targets": found}))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
