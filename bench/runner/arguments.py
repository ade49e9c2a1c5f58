"""What may be asked of `bench/run`."""

from __future__ import annotations

import argparse
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, NoReturn

from figures.dataset import DATA, ROOT
from figures.parameters import DEFAULTS

HELP = """Builds the benchmarks, runs them and prints their tables; results.md says what they mean.

usage: bench/run [--build DIR] [--rounds N] [linux] [windows] [http] [peers] [growth] [account]
                 [audit] [micro] [costs] [hardening]
       bench/run [--build DIR] [--seconds N] [--listeners N] scale

  linux      a tool call of the Linux server next to the spawn of an empty program
  windows    the same of the Windows server, under Wine
  micro      parsing and escaping next to simdjson and RapidJSON
  http       the Linux HTTP listener next to a server written with the official SDK
  peers      start, ping, query and memory next to two servers that npm installs into DIR/peers
  growth     how cost grows with keys, tokens, cells, bytes, sessions and listeners, next to the
             same two servers
  audit      what an audit record costs, with one session and with sixteen, on both targets
  account    where the time of a call of the Linux server goes, stage by stage, from the kernel's
             trace of its processes (as root)
  costs      what docs/scale.md plans with: memory, processor time and connections of sessions,
             calls and proxies, Linux (as one who may make namespaces)
  hardening  what each hardening option of the executables costs, on both targets: builds without
             one of them
  scale      sixteen sessions at each of many Linux listeners behind HAProxy: idle, then used by
             clients that call, cancel and leave

Without a name linux, windows, http and micro run. Each writes its data to bench/data/NAME.json,
from which bench/plot and bench/tables --write make plots and tables. --rounds is the number of
measurements of each subject (default: 3000 for hardening, of which Wine takes a third, 1000 for
linux, 200 for windows and account, 30 for http, 20 for peers, growth and audit; micro and costs
take none). scale takes --seconds of use (default: 600) with --listeners (default: 64). With other
values than the default ones the data goes to DIR/NAME.json. The builds go to DIR/linux and
DIR/windows; DIR is build/ by default.
Exit codes: 0 done, 1 failed, 2 bad arguments."""

WITHOUT_A_NAME = ["linux", "windows", "http", "micro"]
OPTIONS = {"rounds": 9_999_999, "seconds": 999_999, "listeners": 99}
"""The most that each takes."""
ROUNDS = {"rounds": "rounds"}
TAKES: "dict[str, dict[str, str]]" = {
    **{name: ROUNDS for name in ("linux", "windows", "http", "peers", "growth", "audit",
                                    "hardening")},
    "account": {"rounds": "calls"}, "micro": {}, "costs": {},
    "scale": {"seconds": "seconds", "listeners": "listeners"}}
"""The options of each benchmark, and what its data file calls them."""


@dataclass(frozen=True)
class Asked:
    build: Path
    names: "list[str]"
    given: "dict[str, int]"
    """Values of options."""

    def value(self, name: str, option: str) -> int:
        """Of an option that the benchmark takes."""
        return self.given.get(option, DEFAULTS[name][TAKES[name][option]])

    def is_default(self, name: str) -> bool:
        return all(self.value(name, option) == DEFAULTS[name][kept]
                   for option, kept in TAKES[name].items())

    def data_file(self, name: str) -> Path:
        """Where its data goes: a run with parameters of its own replaces no figures."""
        return (DATA if self.is_default(name) else self.build) / f"{name}.json"


class Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        self.exit(2, f"bench/run: {message}; try --help\n")

    def format_help(self) -> str:
        return HELP + "\n"


def _number(most: int) -> "Callable[[str], int]":
    def read(text: str) -> int:
        if not (text.isascii() and text.isdigit() and 1 <= int(text) <= most):
            raise argparse.ArgumentTypeError(f"takes a number from 1 to {most}")
        return int(text)
    return read


def parse(arguments: "list[str]") -> Asked:
    """Ends the process with 2 when it refuses."""
    parser = Parser(prog="bench/run", allow_abbrev=False)
    parser.add_argument("--build", type=Path, default=ROOT / "build")
    for option, most in OPTIONS.items():
        parser.add_argument(f"--{option}", type=_number(most))
    parser.add_argument("names", nargs="*")
    asked = parser.parse_intermixed_args(arguments)
    given = {option: getattr(asked, option) for option in OPTIONS
             if getattr(asked, option) is not None}
    for name in asked.names:
        if name not in DEFAULTS:
            parser.error(f"there is no benchmark {name}")
    # Without a name micro, which has no rounds, runs as always beside those that have.
    for option in given:
        for name in asked.names or ["linux"]:
            if option not in TAKES[name]:
                parser.error(f"{name} takes no --{option}")
    wanted = asked.names or WITHOUT_A_NAME
    return Asked(asked.build.resolve(), [name for name in DEFAULTS if name in wanted], given)
