"""The benchmarks: what each needs, and how it is run."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Mapping

import http_plan
import wine
from figures import record
from figures.conditions import Moment
from figures.dataset import ROOT
from figures.parameters import DEFAULTS
from runner import installing
from runner.arguments import Asked
from runner.stage import Stage

BENCH = ROOT / "bench"
SELECT_ONE = "SELECT ID, NAME FROM ITEMS WHERE ID = 7"
MICRO_REPETITIONS = DEFAULTS["micro"]["repetitions"]


class Run:
    """What the functions of the benchmarks have in common. A program that fails ends the run with
    a CalledProcessError."""

    def __init__(self, asked: Asked, folder: Path, stage: "Stage | None") -> None:
        self.asked, self.folder, self._stage = asked, folder, stage
        self.linux = asked.build / "linux"

    @property
    def stage(self) -> Stage:
        assert self._stage is not None
        return self._stage

    def program(self, command: "list[str | Path]", variables: Mapping[str, str] = {},
                quiet: bool = False) -> None:
        subprocess.run([str(part) for part in command], check=True,
                       env={**os.environ, **variables},
                       stdout=subprocess.DEVNULL if quiet else None)

    def module(self, name: str, *arguments: "str | Path",
               variables: Mapping[str, str] = {}) -> None:
        """A Python program of the benchmarks, which writes the data file itself."""
        folders = [BENCH, *(ROOT / other for other in ("tests", "scripts", "demo"))]
        self.program([sys.executable, "-m", name, *arguments],
                     {**variables, "PYTHONPATH": ":".join(map(str, folders))})

    def tables(self, name: str) -> None:
        self.program([BENCH / "tables", name, self.asked.data_file(name)])

    def record(self, name: str, reader: str, began: Moment, parameter: str, part: Path) -> None:
        code = record.main(["--data", str(self.asked.data_file(name)), "--began", str(began),
                            "--parameter", parameter, "--reader", reader, str(part)])
        if code != 0:
            raise subprocess.CalledProcessError(code, "figures.record")


def linux(run: Run) -> None:
    rounds, part = run.asked.value("linux", "rounds"), run.folder / "linux.json"
    server, began = run.stage.installed("linux", "empty-program", "relay"), Moment.now()
    run.program([run.linux / "bench" / "whole-process-bench", str(rounds),
                 server.with_name("empty-program"), server.with_name("relay"), server, SELECT_ONE,
                 part],
                run.stage.environment())
    run.record("linux", "plain", began, f"rounds={rounds}", part)


def windows(run: Run) -> None:
    rounds, part = run.asked.value("windows", "rounds"), run.folder / "windows.json"
    server, began = run.stage.installed_for_windows(), Moment.now()
    paths = [wine.windows_path(server.with_name(name))
             for name in ("empty-program.exe", "relay.exe", server.name)]
    prefix = os.environ.get("WINEPREFIX", str(run.asked.build / "wineprefix"))
    run.program([ROOT / "scripts" / "wine.py", "run",
                 run.asked.build / "windows" / "bench" / "whole-process-bench.exe", str(rounds),
                 *paths, SELECT_ONE, wine.windows_path(part)],
                {**run.stage.profile(), "WINEPREFIX": prefix,
                 "KOVA_MCP_POLICY": wine.windows_path(run.stage.policy)})
    run.record("windows", "plain", began, f"rounds={rounds}", part)


def micro(run: Run) -> None:
    part, began = run.folder / "micro.json", Moment.now()
    run.program([run.linux / "bench" / "json-bench", f"--benchmark_out={part}",
                 "--benchmark_out_format=json", "--benchmark_enable_random_interleaving=true",
                 f"--benchmark_repetitions={MICRO_REPETITIONS}", "--benchmark_min_time=0.05"],
                quiet=True)
    run.record("micro", "micro", began, f"repetitions={MICRO_REPETITIONS}", part)
    run.tables("micro")


def http(run: Run) -> None:
    rounds, plan = run.asked.value("http", "rounds"), run.folder / "plan.json"
    part, began = run.folder / "http.json", Moment.now()
    plan.write_text(json.dumps(http_plan.plan_of_http(
        str(run.stage.installed("http")), str(ROOT / "tests" / "interop" / "node_modules"),
        rounds)), encoding="utf-8")
    run.program(["node", BENCH / "http_bench.mjs", plan, part], run.stage.listener_environment())
    run.record("http", "http", began, f"rounds={rounds}", part)
    run.tables("http")


def peers(run: Run) -> None:
    modules = installing.peers(run.asked.build / "peers")
    server = run.stage.installed("peers", "empty-program", "floor-on-demand")
    run.module("peers.program", "--server", server,
               "--floor", server.with_name("empty-program"),
               "--floor-calls", server.with_name("floor-on-demand"),
               "--http-floor", run.linux / "bench" / "empty-listener",
               "--database", run.stage.database, "--modules", modules,
               "--rounds", str(run.asked.value("peers", "rounds")),
               "--data", run.asked.data_file("peers"),
               variables=run.stage.listener_environment())
    run.tables("peers")


def growth(run: Run) -> None:
    run.module("growth.program", "--server", run.stage.installed("growth"),
               "--parser", run.linux / "bench" / "growth-bench",
               "--database", run.stage.database,
               "--modules", installing.peers(run.asked.build / "peers"),
               "--rounds", str(run.asked.value("growth", "rounds")),
               "--data", run.asked.data_file("growth"),
               variables=run.stage.listener_environment())
    run.tables("growth")


def account(run: Run) -> None:
    server = run.stage.installed("account", "empty-program", "floor-on-demand")
    run.module("call_account.program", "--server", server,
               "--floor", server.with_name("floor-on-demand"),
               server.with_name("empty-program"), "--engine", str(run.stage.engine.pid),
               "--query", SELECT_ONE, "--calls", str(run.asked.value("account", "rounds")),
               "--data", run.asked.data_file("account"),
               variables={**run.stage.environment(),
                          "KOVA_MCP_AUDIT": str(server.with_name("audit.jsonl"))})
    run.tables("account")


def audit(run: Run) -> None:
    run.module("audit.program", "--build", run.asked.build,
               "--rounds", str(run.asked.value("audit", "rounds")),
               "--data", run.asked.data_file("audit"))
    run.tables("audit")


def hardening(run: Run) -> None:
    run.module("hardening.program", "--build", run.asked.build, "--policy", run.stage.policy,
               "--rounds", str(run.asked.value("hardening", "rounds")),
               "--data", run.asked.data_file("hardening"),
               variables=run.stage.environment())
    run.tables("hardening")


def costs(run: Run) -> None:
    run.module("session_costs.program", "--build", run.linux,
               "--data", run.asked.data_file("costs"))
    run.tables("costs")


def scale(run: Run) -> None:
    """Prints its table itself, also when an answer was wrong."""
    run.module("scale.program", "--build", run.linux, "--data", run.asked.data_file("scale"),
               "--seconds", str(run.asked.value("scale", "seconds")),
               "--listeners", str(run.asked.value("scale", "listeners")))


@dataclass(frozen=True)
class Benchmark:
    title: str
    run: "Callable[[Run], None]"
    linux: "tuple[str, ...]"
    """Targets of the build."""
    windows: "tuple[str, ...]" = ()
    needs_stage: bool = True
    needs_peers: bool = False


SERVICE = ("kova-mcp", "kovadll", "kova-sample-engine")
CALLS = (*SERVICE, "empty-program", "relay", "whole-process-bench")
BENCHMARKS = {
    "linux": Benchmark("whole process, Linux", linux, CALLS),
    "windows": Benchmark("whole process, Windows executable under Wine", windows,
                         ("kova-sample-engine",),
                         ("kova-mcp", "kovadll", "empty-program", "relay",
                          "whole-process-bench")),
    "micro": Benchmark("parsing and escaping", micro, ("json-bench",), needs_stage=False),
    "http": Benchmark("HTTP, Linux", http, SERVICE),
    "peers": Benchmark("peers, Linux", peers,
                       (*SERVICE, "empty-program", "floor-on-demand", "empty-listener"),
                       needs_peers=True),
    "growth": Benchmark("growth, Linux", growth, (*SERVICE, "growth-bench"), needs_peers=True),
    "account": Benchmark("where the time of a call goes, Linux", account,
                         (*SERVICE, "empty-program", "floor-on-demand")),
    "audit": Benchmark("audit records, Linux and Wine", audit, ("kova-mcp",), ("kova-mcp",),
                       needs_stage=False),
    "hardening": Benchmark("hardening options, Linux and Wine", hardening,
                           ("kova-mcp", "kova-sample-engine", "compare-workers"),
                           ("kova-mcp", "compare-workers")),
    "costs": Benchmark("sessions, calls and proxies, Linux", costs, SERVICE, needs_stage=False),
    "scale": Benchmark("many sessions behind HAProxy, Linux", scale, SERVICE, needs_stage=False)}
