"""The command: rounds of chaos on one target, and a report of what was done and what did not hold.

    tests/chaos/run [--target linux|windows] [--seconds N | --rounds N] [--seed S] [--round N]
                    [--fault NAME ...] [--build-dir DIR] [--engine FILE] [--verbose]

Exit codes: 0 when everything held; 1 when something did not, with each violation and its round; 2
for bad arguments, or when Wine cannot be had; 3 when no call was judged, no write was done or no
fault was.

A round in which Wine's own server ends is not judged: everything is started anew, and the round is
played again.
"""

from __future__ import annotations

import argparse
import contextlib
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path
from typing import Iterator

import wine
from chaos.checks import Checks
from chaos.clock import Clock
from chaos.hand import Hand, process_faults, surrounding_faults
from chaos.http_client import HttpClient
from chaos.ledger import Ledger
from chaos.report import report
from chaos.stage import Stage, own_mounts
from chaos.stdio_client import StdioClient
from chaos.wine_server import WineEnded, WineServer
from harness.targets import ROOT, Target

ROUND_SECONDS = 8.0
WINE_LIMIT = 60.0
CLIENTS_LIMIT = 180.0
"""Seconds in which the clients end after a round; each has one request under way at most."""
WINE_ENDS_LIMIT = 5
WINE_ENDED = "rounds played again because Wine's own server ended"

# How many clients of each kind, and pauses in seconds. Under Wine a call takes ten times as long.
PACE = {"linux": {"stdio": 2, "http": 4, "pause": 0.04, "hand": 0.25},
        "windows": {"stdio": 1, "http": 3, "pause": 0.15, "hand": 0.6}}


@dataclass
class Plan:
    """Which round is next, and whether there is one."""

    rounds: int
    seconds: float  # to be played, when `rounds` is 0
    first: int = 0
    done: int = 0
    played: float = 0.0

    @property
    def next(self) -> int:
        return self.first + self.done

    @property
    def goes_on(self) -> bool:
        return self.done < self.rounds if self.rounds else self.played < self.seconds

    def has_played(self, seconds: float) -> None:
        self.done += 1
        self.played += seconds


class Run:
    """Rounds with the same servers."""

    def __init__(self, options: argparse.Namespace, stage: Stage, ledger: Ledger,
                 wine_server: WineServer | None) -> None:
        self.options = options
        self.ledger = ledger
        self.wine_server = wine_server
        self.pace = PACE[stage.target.name]
        self.stage = stage
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

    def play(self, plan: Plan) -> None:
        """Plays what the plan has left. Raises WineEnded when a round cannot be judged."""
        while plan.goes_on:
            began = time.monotonic()
            try:
                self.round(plan.next)
            except wine.WineFailure:
                raise
            except Exception as failure:
                if self._is_lost():
                    raise WineEnded from failure
                raise
            plan.has_played(time.monotonic() - began)
            self.ledger.mark()

    def _is_lost(self) -> bool:
        return self.wine_server is not None and self.wine_server.has_ended

    def _expect_wine(self) -> None:
        if self._is_lost():
            raise WineEnded

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
            self._expect_wine()
            self.checks.after_round(self.caller)
            self._expect_wine()
        finally:
            self._tell(number, before, worked - began, time.monotonic() - worked)

    def _tell(self, number: int, before: int, played: float, checked: float) -> None:
        """What has happened in a round, when something did not hold. `before` is how many
        violations there were."""
        found = self.ledger.violations[before:]
        lost = self._is_lost()
        if lost:
            print(f"round {number}: not judged, since Wine's own server ended", flush=True)
        elif self.options.verbose or found:
            faults = ", ".join(self.ledger.faults)
            print(f"round {number}: {faults}; {len(self.ledger.requests)} requests, "
                  f"{played:.1f} + {checked:.1f} s", flush=True)
        for violation in found:
            print(f"{'not judged:' if lost else 'VIOLATION'} {violation} "
                  f"(--seed {self.options.seed} --round {number})", flush=True)

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
        if self._is_lost() and any(thread.is_alive() for thread in (*hands, *clients)):
            raise wine.WineFailure("clients of a round without Wine's server do not end")


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


@contextlib.contextmanager
def started(options: argparse.Namespace, folder: Path, mounts: bool, clock: Clock,
            ledger: Ledger) -> Iterator[Run]:
    """Everything that rounds need. Raises WineEnded when Wine's own server ends meanwhile."""
    build = (options.build_dir or ROOT / "build" / options.target).resolve()
    target = Target(options.target, build, wine.default_prefix())
    folder.mkdir()
    with ExitStack() as stack:
        # Wine's server opens the files and keeps the time, so it has to be one of this run.
        if target.windows:
            wait_for_wine(target)
            os.environ.update(clock.env)
        stack.enter_context(target.ready())
        for variable in clock.env:
            os.environ.pop(variable, None)
        server = stack.enter_context(WineServer(*clock.mark)) if target.windows else None
        try:
            stage = Stage(target, options.engine, folder, mounts=mounts, clock=clock)
            stack.callback(stage.close)
            run = Run(options, stage, ledger, server)
        except Exception:
            if server is not None and server.has_ended:
                raise WineEnded from None
            raise
        yield run


def play(options: argparse.Namespace) -> int:
    folder = Path(tempfile.mkdtemp(prefix="chaos-"))
    print(f"seed {options.seed}", flush=True)
    mounts, clock = own_mounts(), Clock(folder)
    ledger, plan = Ledger(), Plan(options.rounds, options.seconds, first=options.round)
    while True:
        try:
            place = folder / f"servers{ledger.counts[WINE_ENDED]}"
            with started(options, place, mounts, clock, ledger) as run:
                run.play(plan)
            break
        except WineEnded:
            ledger.forget()
            ledger.count(WINE_ENDED)
            ledger.mark()
            if ledger.counts[WINE_ENDED] > WINE_ENDS_LIMIT:
                raise wine.WineFailure("Wine's own server ends again and again") from None
    ledger.count("rounds", plan.done)
    code = report(ledger, run.stage, options.seed, options.fault)
    shutil.rmtree(folder, ignore_errors=True)
    return code


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
