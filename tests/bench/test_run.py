"""What `bench/run` takes and refuses, and where its data goes."""

from __future__ import annotations

import re
import sqlite3
import subprocess
from contextlib import closing
from pathlib import Path

import pytest

from figures import tables
from figures.dataset import DATA, ROOT, Dataset
from figures.parameters import DEFAULTS
from runner import arguments, program, stage
from runner.benchmarks import BENCHMARKS


def test_all_know_the_same_benchmarks() -> None:
    assert set(BENCHMARKS) == set(DEFAULTS) == set(arguments.TAKES)
    assert set(tables.OF_BENCHMARK) == set(DEFAULTS)
    for name, takes in arguments.TAKES.items():
        assert set(takes.values()) <= set(DEFAULTS[name]) and set(takes) <= set(arguments.OPTIONS)


def test_what_is_missing_names_a_benchmark(tmp_path: Path) -> None:
    texts = [tables.make(name, Dataset(tmp_path)) for name in tables.TABLES]
    asked = set(re.findall(r"bench/run ([\w-]+)", "".join(texts)))
    assert asked == set(DEFAULTS)


@pytest.mark.parametrize("given, names", [
    ([], ["linux", "windows", "http", "micro"]), (["micro", "linux"], ["linux", "micro"]),
    (["--rounds", "2"], ["linux", "windows", "http", "micro"]),
    (["--rounds", "2", "peers", "--build", "x", "audit"], ["peers", "audit"])])
def test_names(given: "list[str]", names: "list[str]") -> None:
    assert arguments.parse(given).names == names


@pytest.mark.parametrize("given, name, folder", [
    ([], "linux", DATA), (["--rounds", "1000"], "linux", DATA),
    (["--rounds", "1000"], "windows", Path("/b")), (["--rounds", "1000"], "micro", DATA),
    (["--rounds", "999", "linux"], "linux", Path("/b")),
    (["--rounds", "200", "account"], "account", DATA),
    (["--rounds", "20", "account"], "account", Path("/b")),
    (["--seconds", "600", "--listeners", "64", "scale"], "scale", DATA),
    (["--seconds", "600", "--listeners", "63", "scale"], "scale", Path("/b")),
    (["--seconds", "30", "scale"], "scale", Path("/b")), (["costs"], "costs", DATA)])
def test_data_file(given: "list[str]", name: str, folder: Path) -> None:
    asked = arguments.parse(["--build", "/b", *given])
    assert asked.data_file(name) == folder / f"{name}.json"


def test_values() -> None:
    assert arguments.parse(["account"]).value("account", "rounds") == 200
    assert arguments.parse(["--rounds", "7", "account"]).value("account", "rounds") == 7
    assert arguments.parse(["--seconds", "7", "scale"]).value("scale", "listeners") == 64


@pytest.mark.parametrize("given, reason", [
    (["piers"], "there is no benchmark piers"), (["--rounds"], "argument --rounds: expected one"),
    (["--rounds", "0"], "takes a number from 1 to 9999999"), (["--rounds", "x"], "takes a number"),
    (["--rounds", "10000000"], "takes a number"), (["--rounds", "-1"], "argument --rounds"),
    (["--listeners", "100", "scale"], "takes a number from 1 to 99"),
    (["--seconds", "1000000", "scale"], "takes a number from 1 to 999999"),
    (["--rounds", "2", "scale"], "scale takes no --rounds"),
    (["--rounds", "2", "linux", "micro"], "micro takes no --rounds"),
    (["--rounds", "2", "costs"], "costs takes no --rounds"),
    (["--seconds", "2"], "linux takes no --seconds"),
    (["--seconds", "2", "scale", "http"], "http takes no --seconds"),
    (["--listeners", "2", "peers"], "peers takes no --listeners"), (["--round", "2"], "--round")])
def test_refusals(given: "list[str]", reason: str) -> None:
    done = subprocess.run([ROOT / "bench" / "run", *given], capture_output=True, text=True,
                          check=False)
    assert (done.returncode, done.stdout) == (2, "")
    assert re.fullmatch(rf"bench/run: .*{re.escape(reason)}.*; try --help\n", done.stderr)


def test_help() -> None:
    done = subprocess.run([ROOT / "bench" / "run", "--help"], capture_output=True, text=True,
                          check=False)
    assert done.returncode == 0 and all(f"\n  {name} " in done.stdout for name in BENCHMARKS)


def test_targets_are_built_once() -> None:
    assert program.targets_of(["audit", "scale", "growth"], "linux") == [
        "kova-mcp", "kovadll", "kova-sample-engine", "growth-bench"]
    assert program.targets_of(["costs", "micro"], "windows") == []


def test_the_database_holds_what_is_asked_for(tmp_path: Path) -> None:
    stage.make_database(tmp_path / "bench.db")
    with closing(sqlite3.connect(tmp_path / "bench.db")) as database:
        assert database.execute("SELECT NAME FROM ITEMS WHERE ID = 7").fetchall() == [("item 6",)]
        assert database.execute("SELECT COUNT(*), C64 FROM ORDERS").fetchall() == [
            (256, "cell 63")]
