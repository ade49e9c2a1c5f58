"""The order of a run: what is needed is built, the stage is set, the benchmarks run one by one."""

from __future__ import annotations

import signal
import subprocess
import sys
import tempfile
from contextlib import ExitStack
from pathlib import Path

from runner import arguments, installing
from runner.benchmarks import BENCHMARKS, Run
from runner.stage import Stage


def targets_of(names: "list[str]", preset: str) -> "list[str]":
    """Of all benchmarks together, each once."""
    wanted = [target for name in names
              for target in getattr(BENCHMARKS[name], preset)]
    return list(dict.fromkeys(wanted))


def play(asked: arguments.Asked, stack: ExitStack) -> None:
    for preset in ("linux", "windows"):
        targets = targets_of(asked.names, preset)
        if targets:
            installing.build(asked.build, preset, targets)
    if any(BENCHMARKS[name].needs_peers for name in asked.names):
        installing.peers(asked.build / "peers")
    folder = Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="bench-")))
    stage = None
    if any(BENCHMARKS[name].needs_stage for name in asked.names):
        stage = Stage(asked.build, folder)
        stack.callback(stage.close)
    for name in asked.names:
        print(f"== {BENCHMARKS[name].title} ==", flush=True)
        BENCHMARKS[name].run(Run(asked, folder, stage))


def main(given: "list[str]") -> int:
    asked = arguments.parse(given)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    try:
        with ExitStack() as stack:
            play(asked, stack)
    except subprocess.CalledProcessError as failure:
        words = [failure.cmd] if isinstance(failure.cmd, str) else failure.cmd
        print(f"bench/run: {' '.join(words[:3])} has ended with {failure.returncode}",
              file=sys.stderr)
        return 1
    except OSError as failure:
        print(f"bench/run: {failure}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 128 + signal.SIGINT
    return 0
