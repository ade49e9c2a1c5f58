"""The loader of the sample data, and the sample policies."""

from __future__ import annotations

import contextlib
import json
import sqlite3
import subprocess
from pathlib import Path
from typing import Any, Callable

import pytest

from harness.sample_engine import Engine, read_database
from harness.servers import Result
from harness.targets import ROOT, Target
from harness.waiting import TIMEOUT

pytestmark = pytest.mark.sample_engine


INDEX = """\
Package: alpha
Source: alpha-source (1.0)
Version: 1.0-1
Installed-Size: 100
Maintainer: A Person <person@example.org>
Architecture: amd64
Pre-Depends: dpkg (>= 1.15)
Depends: beta (>= 2:1.0) | gamma:any, delta
Suggests: epsilon
Description: first of them
 Its longer words.
Homepage: https://example.org/alpha
Tag: role::program,
 uitoolkit::none
Section: games
Priority: optional
Size: 5000

Package: beta
Version: 2.0
Architecture: all
Maintainer: B
Description: second
Section: games
Priority: extra

Package: beta
Version: 1.0
Architecture: all
Maintainer: B
Description: an older second
Section: games
Priority: extra
"""


NAMES = "SELECT NAME FROM PACKAGES ORDER BY NAME;"


class Loader:
    def __init__(self, folder: Path) -> None:
        self.data = folder / "data"
        self.index = folder / "index"
        self.index.write_text(INDEX)
        self.database = self.data / "sample.db"

    def run(self, *arguments: str) -> subprocess.CompletedProcess[str]:
        return subprocess.run(
            ["/usr/bin/python3", str(ROOT / "sample" / "data" / "load_packages.py"), "--data",
             str(self.data), "--input", str(self.index), *arguments],
            capture_output=True, text=True, timeout=TIMEOUT, check=False)

    def query(self, sql: str) -> list[tuple]:
        return read_database(self.database, sql)


@pytest.fixture
def loader(tmp_path: Path) -> Loader:
    return Loader(tmp_path)


def test_the_loader_fills_its_tables(loader: Loader) -> None:
    result = loader.run()
    assert (result.returncode, result.stdout) == (0, "")
    assert result.stderr.splitlines()[-1] == "loaded 2 packages"
    assert "\r" not in result.stderr, "nothing is rewritten where there is no terminal"
    assert loader.query("SELECT * FROM PACKAGES ORDER BY NAME") == [
        ("alpha", "1.0-1", "games", "optional", "amd64", "alpha-source", 100, 5000,
         "A Person <person@example.org>", "https://example.org/alpha", "first of them",
         "first of them\nIts longer words.", "role::program uitoolkit::none"),
        ("beta", "2.0", "games", "extra", "all", "beta", None, None, "B", None, "second", "second",
         None),
    ]
    assert loader.query("SELECT * FROM SECTIONS") == [("games", 2, 100)]
    assert loader.query("SELECT * FROM DEPENDS ORDER BY rowid") == [
        ("alpha", "PRE-DEPENDS", "dpkg", ">= 1.15", 0),
        ("alpha", "DEPENDS", "beta", ">= 2:1.0", 0),
        ("alpha", "DEPENDS", "gamma", None, 1),
        ("alpha", "DEPENDS", "delta", None, 0),
        ("alpha", "SUGGESTS", "epsilon", None, 0),
    ]
    assert [path.name for path in loader.data.iterdir()] == ["sample.db"]


def test_the_loader_leaves_current_data_alone(loader: Loader, executable: Path,
                                              tmp_path: Path) -> None:
    assert loader.run().returncode == 0
    before = loader.database.stat().st_ino
    assert loader.run().stderr == f"{loader.database} is up to date\n"
    engine = Engine(executable, tmp_path)
    try:
        with engine.session("sample") as session:
            assert session.all_rows(NAMES) == [["alpha"], ["beta"]]
            assert loader.run().stderr == f"{loader.database} is up to date\n"
    finally:
        assert engine.stop() == 0
    assert loader.run().stderr == f"{loader.database} is up to date\n"
    assert loader.database.stat().st_ino == before


def test_the_loader_follows_the_index(loader: Loader, executable: Path, tmp_path: Path) -> None:
    assert loader.run().returncode == 0
    loader.index.write_text(INDEX.replace("alpha", "omega"))
    engine = Engine(executable, tmp_path)
    try:
        with engine.session("sample") as session:
            assert session.all_rows(NAMES) == [["alpha"], ["beta"]]
            refused = loader.run()
            assert refused.returncode == 1
            last = refused.stderr.splitlines()[-1]
            assert last.startswith(f"load_packages: {loader.database} is in use; stop the engine")
            assert session.all_rows(NAMES) == [["alpha"], ["beta"]]
    finally:
        assert engine.stop() == 0
    assert loader.run().returncode == 0
    assert loader.query("SELECT NAME FROM PACKAGES ORDER BY NAME") == [("beta",), ("omega",)]


def test_the_loader_keeps_the_notes(loader: Loader) -> None:
    assert loader.run().returncode == 0
    assert loader.query("SELECT * FROM NOTES") == []
    with contextlib.closing(sqlite3.connect(loader.database)) as connection, connection:
        connection.execute("INSERT INTO NOTES VALUES (7, 'alpha', 'gone soon'), (9, 'beta', 'b')")
    loader.index.write_text(INDEX.replace("Package: alpha", "Package: omega"))
    assert loader.run().stderr.splitlines()[-1] == "loaded 2 packages"
    assert loader.query("SELECT NAME FROM PACKAGES ORDER BY NAME") == [("beta",), ("omega",)]
    assert loader.query("SELECT * FROM NOTES") == [(7, "alpha", "gone soon"), (9, "beta", "b")]


def test_the_loader_adds_the_notes_to_a_database_of_an_earlier_form(loader: Loader) -> None:
    loader.data.mkdir()
    with contextlib.closing(sqlite3.connect(loader.database)) as connection, connection:
        connection.execute("CREATE TABLE PACKAGES (NAME TEXT)")
    assert loader.run().returncode == 0
    assert loader.query("SELECT * FROM NOTES") == []


def test_notes_that_cannot_be_read_are_not_thrown_away(loader: Loader) -> None:
    loader.data.mkdir()
    with contextlib.closing(sqlite3.connect(loader.database)) as connection, connection:
        connection.execute("CREATE TABLE NOTES (WORDS TEXT)")
        connection.execute("INSERT INTO NOTES VALUES ('kept')")
    result = loader.run()
    assert result.returncode == 1
    assert result.stderr.splitlines()[-1] == (
        f"load_packages: the notes in {loader.database} cannot be read (no such column: ID)")
    assert loader.query("SELECT * FROM NOTES") == [("kept",)]
    assert [path.name for path in loader.data.iterdir()] == ["sample.db"]


NO_PACKAGE = "NOTES.PACKAGE must be the NAME of one of the PACKAGES"
LENGTH = "CHECK constraint failed: a NOTE has 1 to 500 characters"


def test_wrong_notes_are_refused_in_clear_words(loader: Loader, executable: Path,
                                                tmp_path: Path) -> None:
    assert loader.run().returncode == 0
    engine = Engine(executable, tmp_path)
    try:
        with engine.session("sample") as session:
            for statement, words in (
                    ("INSERT INTO NOTES (PACKAGE, NOTE) VALUES ('alpha', 'first')",
                     "1 row inserted"),
                    ("INSERT INTO NOTES (PACKAGE, NOTE) VALUES ('alhpa', 'x')", NO_PACKAGE),
                    ("INSERT INTO NOTES (PACKAGE, NOTE) VALUES ('beta', 'x'), ('alhpa', 'x')",
                     NO_PACKAGE),
                    ("UPDATE NOTES SET PACKAGE = 'omega'", NO_PACKAGE),
                    ("INSERT INTO NOTES (PACKAGE, NOTE) VALUES ('alpha', '')", LENGTH),
                    (f"UPDATE NOTES SET NOTE = '{'x' * 501}'", LENGTH),
                    ("INSERT INTO NOTES (PACKAGE) VALUES ('alpha')",
                     "NOT NULL constraint failed: NOTES.NOTE"),
                    ("INSERT INTO NOTES (NOTE) VALUES ('x')",
                     "NOT NULL constraint failed: NOTES.PACKAGE"),
                    ("INSERT INTO NOTES VALUES (1, 'beta', 'x')",
                     "UNIQUE constraint failed: NOTES.ID"),
                    (f"UPDATE NOTES SET PACKAGE = 'beta', NOTE = '{'x' * 500}'", "1 row updated"),
                    ("DELETE FROM NOTES WHERE ID = 2", "0 rows deleted")):
                assert session.run(statement).status == words, statement
            assert session.all_rows("SELECT * FROM NOTES") == [["1", "beta", "x" * 500]]
    finally:
        assert engine.stop() == 0


@pytest.mark.parametrize("content", ["", "\n\n", "Nothing: here\n"])
def test_an_index_without_packages_keeps_the_old_data(loader: Loader, content: str) -> None:
    assert loader.run().returncode == 0
    loader.index.write_text(content)
    result = loader.run()
    assert result.returncode == 1
    assert result.stderr.splitlines()[-1] == (
        "load_packages: the package index holds no package; run apt-get update")
    assert loader.query("SELECT COUNT(*) FROM PACKAGES") == [(2,)]
    assert [path.name for path in loader.data.iterdir()] == ["sample.db"]


def test_the_loader_replaces_what_is_no_database(loader: Loader) -> None:
    loader.data.mkdir()
    loader.database.write_text("words, and enough of them to be looked at" * 30)
    assert loader.run().returncode == 0
    assert loader.query("SELECT COUNT(*) FROM PACKAGES") == [(2,)]


@pytest.mark.parametrize("arguments, code", [
    (["--database", "../x"], 2), (["--nonsense"], 2), (["--input", "/nonexistent"], 1)])
def test_the_loader_refuses_bad_arguments(loader: Loader, arguments: list[str], code: int) -> None:
    result = loader.run(*arguments)
    assert result.returncode == code and "Traceback" not in result.stderr


def sample_policy(name: str) -> dict[str, Any]:
    return json.loads((ROOT / "sample" / "data" / name).read_text("utf-8"))


def test_the_sample_policies_fit_the_sample_data(loader: Loader) -> None:
    reads, notes = sample_policy("policy.json"), sample_policy("policy-notes.json")
    assert loader.run().returncode == 0
    tables = {name for (name,) in loader.query(
        "SELECT name FROM sqlite_schema WHERE type = 'table' AND name NOT LIKE 'sqlite_%'"
        " AND name NOT LIKE 'AI\\_%' ESCAPE '\\'")}
    assert set(notes["allowed_tables"]) == tables
    assert set(reads["allowed_tables"]) == tables - {"NOTES"} | {"PACKAGE_TEXTS_VECTORS"}
    assert loader.query("SELECT NAME, SOURCE_TABLE FROM AI_COLLECTIONS") == [
        ("NOTE_TEXTS", "NOTES"), ("PACKAGE_TEXTS", "PACKAGES")]
    assert (reads["allowed_collections"], notes["allowed_collections"]) == (["PACKAGE_TEXTS"], [])
    assert reads["provider_reads_enabled"] and not notes["provider_reads_enabled"]
    columns = {name for (name,) in loader.query("SELECT name FROM pragma_table_info('PACKAGES')")}
    assert "MAINTAINER" in columns
    for policy in (reads, notes):
        assert policy["denied_columns"] == ["MAINTAINER"] and policy["database"] == "sample"
    assert not reads["writes_enabled"]
    assert notes["writes_enabled"] and notes["approval_required"]
    assert notes["write_tables"] == ["NOTES"]


IDENTITY = {"KOVA_MCP_CLIENT_ID": "sample-client", "KOVA_MCP_DATABASE": "sample",
            "KOVA_MCP_USER": "sample"}


def test_the_server_takes_the_sample_policy(run: Callable[..., Result]) -> None:
    result = run("--check-policy", env={
        **IDENTITY, "KOVA_MCP_POLICY": ROOT / "sample" / "data" / "policy.json"})
    assert result.code == 0
    assert result.stdout.startswith(b"MCP_CONFIG_OK policy=sample_reads configured=yes reads=yes")
    assert b" writes=no " in result.stdout


def test_the_server_takes_the_policy_for_notes_once_it_has_a_state_directory(
        run: Callable[..., Result], target: Target, tmp_path: Path) -> None:
    template = ROOT / "sample" / "data" / "policy-notes.json"
    result = run("--check-policy", env={**IDENTITY, "KOVA_MCP_POLICY": template})
    assert (result.code, b"approval state directory must be absolute" in result.stderr) == (2, True)
    policy = tmp_path / "policy.json"
    policy.write_text(json.dumps({**sample_policy("policy-notes.json"),
                                  "approval_state_directory": target.path(tmp_path)}))
    result = run("--check-policy", env={**IDENTITY, "KOVA_MCP_POLICY": policy})
    assert result.code == 0
    assert (b" writes=yes approval_required=yes tables=4 collections=0 write_tables=1 "
            in result.stdout)
