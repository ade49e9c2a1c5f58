"""The command: rounds of chaos on one target, and a report of what was done and what did not hold.

    tests/chaos/run [--target linux|windows] [--seconds N | --rounds N] [--seed S] [--round N]
                    [--fault NAME ...] [--build-dir DIR] [--engine FILE] [--verbose]

Exit codes: 0 when everything held; 1 when something did not, with each violation and its round; 2
for bad arguments, or when Wine cannot be had; 3 when no call was judged, no write was done or no
fault was.
"""

from __future__ import annotations

import argparse
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time
from contextlib import ExitStack
from pathlib import Path

import wine
from chaos.checks import Checks
from chaos.clock import Clock
from chaos.hand import Hand, process_faults, surrounding_faults
from chaos.http_client import HttpClient
from chaos.ledger import Ledger
from chaos.report import report
from chaos.stage import Stage, own_mounts
from chaos.stdio_client import StdioClient
from harness.targets import ROOT, Target

ROUND_SECONDS = 8.0
WINE_LIMIT = 60.0
CLIENTS_LIMIT = 180.0
"""Seconds in which the clients end after a round; each has one request under way at most."""

# How many clients of each kind, and pauses in seconds. Under Wine a call takes ten times as long.
PACE = {"linux": {"stdio": 2, "http": 4, "pause": 0.04, "hand": 0.25},
        "windows": {"stdio": 1, "http": 3, "pause": 0.15, "hand": 0.6}}


class Run:
    def __init__(self, options: argparse.Namespace, target: Target, folder: Path,
                 mounts: bool, clock: "Clock | None") -> None:
        self.options = options
        self.ledger = Ledger()
        self.pace = PACE[target.name]
        self.stage = Stage(target, options.engine, folder, mounts=mounts,
                           clock=clock)
        self.checks = Checks(self.stage, self.ledger)
        self.caller = HttpClient("check", "check", self.stage, self.ledger, 0)
        self.checks.measure_rest(self.caller)
        self._measure_stdio()
        print(f"threads, descriptors and handles at rest: listener {self.checks.rest}, "
              f"stdio server {self.stage.stdio_rest}", flush=True)

    def _measure_stdio(self) -> None:
        """The calls for that belong to no round."""
        calm = Ledger()
        calm.begin_round(0)
        servers = [StdioClient(f"calm{i}", "", self.stage, calm, 0) for i in range(2)]
        held = [server.measure_rest() for server in servers]
        assert not calm.violations, calm.violations
        self.stage.stdio_rest = tuple(map(max, *held))
        for path in self.stage.audit.path.iterdir():
            path.unlink()

    def play(self) -> None:
        end = time.monotonic() + self.options.seconds
        number = self.options.round
        while (number < self.options.round + self.options.rounds if self.options.rounds
               else time.monotonic() < end):
            self.round(number)
            number += 1
        self.ledger.count("rounds", number - self.options.round)

    def round(self, number: int) -> None:
        began, before = time.monotonic(), len(self.ledger.violations)
        self.ledger.begin_round(number)
        seed = f"{self.options.seed}:{number}"
        stdio = [StdioClient(f"r{number}s{i}", seed, self.stage, self.ledger, self.pace["pause"])
                 for i in range(int(self.pace["stdio"]))]
        http = [HttpClient(f"r{number}h{i}", seed, self.stage, self.ledger, self.pace["pause"])
                for i in range(int(self.pace["http"]))]
        hands = [Hand(name, seed, self._faults(possible(self.stage)), self.stage, self.ledger,
                      stdio, self.pace["hand"])
                 for name, possible in (("first hand", process_faults),
                                        ("second hand", surrounding_faults))]
        for thread in (*stdio, *http, *hands):
            thread.start()
        time.sleep(ROUND_SECONDS)
        self._stop(hands, [*stdio, *http])
        worked = time.monotonic()
        try:
            self.checks.after_round(self.caller)
        finally:
            self._tell(number, before, worked - began, time.monotonic() - worked)

    def _tell(self, number: int, before: int, played: float, checked: float) -> None:
        """What has happened in a round, when something did not hold. `before` is how many
        violations there were."""
        found = self.ledger.violations[before:]
        if self.options.verbose or found:
            faults = ", ".join(self.ledger.faults)
            print(f"round {number}: {faults}; {len(self.ledger.requests)} requests, "
                  f"{played:.1f} + {checked:.1f} s", flush=True)
        for violation in found:
            print(f"VIOLATION {violation} (--seed {self.options.seed} --round {number})",
                  flush=True)

    def _faults(self, possible: list[str]) -> list[str]:
        chosen = self.options.fault
        return [fault for fault in possible if not chosen or fault in chosen]

    def _stop(self, hands: list[Hand], clients: "list[StdioClient | HttpClient]") -> None:
        for hand in hands:
            hand.stopping.set()
        for hand in hands:
            hand.join(CLIENTS_LIMIT)
        if self.stage.clock is not None:
            self.stage.clock.set_wall(0)
        for client in clients:
            client.stopping.set()
        end = time.monotonic() + CLIENTS_LIMIT
        for client in clients:
            client.join(max(0, end - time.monotonic()))
            if client.is_alive():
                self.ledger.violation(f"{client.name} does not come to its end")


def parse(arguments: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--target", choices=["linux", "windows"], default="linux")
    parser.add_argument("--seconds", type=float, default=60.0)
    parser.add_argument("--rounds", type=int, default=0)
    parser.add_argument("--seed", default=None)
    parser.add_argument("--round", type=int, default=0, help="the number of the first round")
    parser.add_argument("--fault", action="append", help="do these faults alone")
    parser.add_argument("--build-dir", type=Path)
    parser.add_argument("--engine", type=Path,
                        default=ROOT / "build" / "linux" / "sample" / "kova-sample-engine")
    parser.add_argument("--verbose", action="store_true")
    options = parser.parse_args(arguments)
    options.seed = options.seed or str(random.randrange(10 ** 6))
    return options


def wait_for_wine(target: Target) -> None:
    """Waits until no Wine is up in the prefix."""
    if not wine.is_prepared(target.prefix):
        return
    try:
        subprocess.run([wine.server(), "-w"], env={**os.environ, **wine.environment(target.prefix)},
                       timeout=WINE_LIMIT, check=False)
    except subprocess.TimeoutExpired:
        raise wine.WineFailure(f"something else uses Wine in {target.prefix}") from None


def main(arguments: list[str]) -> int:
    options = parse(arguments)
    try:
        return play(options)
    except wine.WineFailure as failure:
        print(f"chaos: {failure}", file=sys.stderr)
        return 2


def play(options: argparse.Namespace) -> int:
    build = (options.build_dir or ROOT / "build" / options.target).resolve()
    target = Target(options.target, build, wine.default_prefix())
    folder = Path(tempfile.mkdtemp(prefix="chaos-"))
    print(f"seed {options.seed}", flush=True)
    mounts = own_mounts()
    with ExitStack() as stack:
        clock = Clock(folder)
        # Wine's server opens the files and keeps the time, so it has to be one of this run.
        if target.windows:
            wait_for_wine(target)
            os.environ.update(clock.env)
        stack.enter_context(target.ready())
        for variable in clock.env:
            os.environ.pop(variable, None)
        run = Run(options, target, folder, mounts, clock)
        stack.callback(run.stage.close)
        run.play()
        code = report(run.ledger, run.stage, options.seed, options.fault)
    shutil.rmtree(folder, ignore_errors=True)
    return code


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
