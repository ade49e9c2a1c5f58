"""`bench/tables` and `bench/plot` see every figure and plot that is not of the data files."""

from __future__ import annotations

import json
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from harness.targets import ROOT


@pytest.fixture
def tree(tmp_path: Path) -> Path:
    """A copy of the benchmarks whose plots and tables are those of its data."""
    shutil.copytree(ROOT / "bench", tmp_path / "bench", ignore=shutil.ignore_patterns(
        "__pycache__", "node_modules"))
    git = ["git", "-C", str(tmp_path)]
    subprocess.run([*git, "init", "-q"], check=True)
    subprocess.run([*git, "add", "bench/results.md"], check=True)
    return tmp_path


def check(tree: Path, program: str) -> "tuple[int, str]":
    done = subprocess.run([tree / "bench" / program, "--check"], capture_output=True, text=True,
                          check=False)
    assert done.stderr == ""
    return done.returncode, done.stdout


def change(path: Path, pattern: str, new: str) -> None:
    text, count = re.subn(pattern, new, path.read_text("utf-8"), count=1)
    assert count == 1
    path.write_text(text, encoding="utf-8")


def test_the_copy_is_in_order(tree: Path) -> None:
    assert check(tree, "tables") == (0, "")
    assert check(tree, "plot")[0] == 0


@pytest.mark.parametrize("name", ["linux", "http", "peers", "growth"])
def test_a_date_in_the_data_changes_the_tables(tree: Path, name: str) -> None:
    change(tree / "bench" / "data" / f"{name}.json", r'"date": "\d+', '"date": "1999')
    code, output = check(tree, "tables")
    assert code == 1 and "its tables are not those of bench/data" in output


def test_a_short_run_whose_tables_are_in_order(tree: Path) -> None:
    change(tree / "bench" / "data" / "micro.json", r'"repetitions": 9', '"repetitions": 1')
    subprocess.run([tree / "bench" / "tables", "--write"], check=True, capture_output=True)
    assert check(tree, "tables") == (
        1, "error: bench/data/micro.json is of a run with repetitions 1, not 9; "
        "run bench/run micro\n")


def test_a_figure_in_the_document(tree: Path) -> None:
    document = tree / "bench" / "results.md"
    change(document, r"(\| spawn to initialize, median +\| +)\d", r"\g<1>0")
    assert check(tree, "tables")[0] == 1
    subprocess.run([tree / "bench" / "tables", "--write"], check=True, capture_output=True)
    assert check(tree, "tables") == (0, "")
    assert document.read_text("utf-8") == (ROOT / "bench" / "results.md").read_text("utf-8")


def test_a_table_that_nobody_makes(tree: Path) -> None:
    change(tree / "bench" / "results.md", "<!-- table peers -->", "<!-- table piers -->")
    assert check(tree, "tables") == (1, "error: bench/results.md: no table is named piers\n")


def test_a_plot_that_nobody_draws(tree: Path) -> None:
    change(tree / "bench" / "results.md", "<!-- table plot-scale -->", "<!-- table plot-scales -->")
    assert check(tree, "tables") == (1, "error: bench/results.md: no plot is named scales\n")


def test_data_of_another_run(tree: Path) -> None:
    path = tree / "bench" / "data" / "peers.json"
    data = json.loads(path.read_text("utf-8"))
    data["memory"]["DBHub"]["highest_mib"] += 1
    path.write_text(json.dumps(data))
    lines = check(tree, "plot")[1].splitlines()
    assert [line for line in lines if line.startswith("error: ")] == [
        f"error: bench/plots/memory-{theme}.svg was drawn from other data or by other code; "
        "run bench/plot" for theme in ("light", "dark")]


def test_a_plot_that_was_changed(tree: Path) -> None:
    change(tree / "bench" / "plots" / "start-dark.svg", "kova-mcp", "nova-mcp")
    code, output = check(tree, "plot")
    errors = [line for line in output.splitlines() if line.startswith("error: ")]
    assert (code, errors) == (1, ["error: bench/plots/start-dark.svg was changed after it was "
                                  "drawn; run bench/plot"])


@pytest.mark.parametrize("change_plots, fault", [
    (lambda folder: (folder / "growth-light.svg").unlink(), "growth-light.svg is missing"),
    (lambda folder: (folder / "growth-light.svg").write_text("<svg/>\n"),
     "growth-light.svg does not say what it was drawn from"),
    (lambda folder: (folder / "more.svg").write_text("<svg/>\n"), "more.svg belongs to no plot")])
def test_files_that_are_no_plots(tree: Path, change_plots, fault: str) -> None:
    change_plots(tree / "bench" / "plots")
    code, output = check(tree, "plot")
    assert code == 1 and f"error: bench/plots/{fault}" in output


def test_code_that_draws_otherwise(tree: Path) -> None:
    change(tree / "bench" / "figures" / "style.py", '"#0072b2"', '"#0073b2"')
    code, output = check(tree, "plot")
    plots = list((tree / "bench" / "plots").glob("*.svg"))
    assert code == 1 and plots and output.count("by other code") == len(plots)


def test_a_benchmark_that_has_never_run(tree: Path) -> None:
    (tree / "bench" / "data" / "growth.json").unlink()
    assert "growth: left out, bench/run growth has not been run" in check(tree, "plot")[1]
    subprocess.run([tree / "bench" / "tables", "--write"], check=True, capture_output=True)
    text = (tree / "bench" / "results.md").read_text("utf-8")
    assert "<!-- table growth -->\n(no data: `bench/run growth` has not been run)\n" in text


@pytest.mark.parametrize("program, arguments", [
    ("tables", []), ("tables", ["--chek"]), ("tables", ["piers"]), ("tables", ["a", "b", "c"]),
    ("plot", ["--chek"]), ("plot", ["--check", "x"])])
def test_bad_arguments(program: str, arguments: "list[str]") -> None:
    done = subprocess.run([ROOT / "bench" / program, *arguments], capture_output=True, text=True,
                          check=False)
    assert (done.returncode, done.stderr) == (2, f"bench/{program}: bad arguments; try --help\n")
