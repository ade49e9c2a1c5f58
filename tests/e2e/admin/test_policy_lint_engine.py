"""`policy lint` with an engine: what it asks, and what it says when the engine does not tell."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any, Callable

import pytest

from harness.deployments import Admin
from harness.policy_desk import PolicyDesk
from harness.sample_engine import USER, Engine, make_database
from harness.targets import Installation, Target

PEOPLE = """
CREATE TABLE ORDERS (ID INTEGER PRIMARY KEY, TOTAL INTEGER);
CREATE TABLE THINGS (ID INTEGER, OWNER_EMAIL TEXT, LABEL TEXT);
"""


@pytest.fixture
def admin(target: Target, installation: Installation) -> Admin:
    return Admin(target, installation.executable("sample").parent)


@pytest.fixture
def engine(start_sample_engine: Callable[..., Engine], tmp_path: Path) -> Engine:
    made = start_sample_engine()
    make_database(made.folder / "data" / "PEOPLE.db", PEOPLE)
    return made


def lint(admin: Admin, path: Path, env: dict[str, Any]) -> tuple[list[tuple[str, str]], bytes]:
    result = admin.run("policy", "lint", "--json", path, env=env)
    assert result.code in (0, 1), result
    return [(found["rule"], found["why"])
            for found in json.loads(result.stdout)["findings"]], result.stderr


def test_columns_of_the_engine(admin: Admin, authors: PolicyDesk, engine: Engine) -> None:
    env = engine.profile("PEOPLE")
    named = {"database": "PEOPLE", "database_user": USER}
    plain = authors.policy("a.json", allowed_tables=["ORDERS"], **named)
    assert lint(admin, plain, env) == ([], b"")
    [(rule, why)], noted = lint(admin, authors.policy("b.json", allowed_tables=["ORDERS", "things"],
                                                      **named), env)
    assert (rule, noted) == ("no-denied-columns", b"") and "things.OWNER_EMAIL" in why
    [(rule, why)], noted = lint(admin, authors.policy(
        "c.json", denied_columns=["owner_email", "LABELS"], **named), env)
    assert (rule, noted) == ("unknown-denied-column", b"") and why.startswith("LABELS ")


def test_an_engine_that_does_not_let_it_in(admin: Admin, authors: PolicyDesk,
                                           engine: Engine) -> None:
    named = {"database": "PEOPLE", "database_user": USER}
    path = authors.policy(denied_columns=["LABELS"], allowed_tables=["USERS"], **named)
    env = {**engine.profile("PEOPLE"), "KOVA_MCP_PASSWORD": "wrong"}
    found, noted = lint(admin, path, env)
    assert found == [] and b"note: the engine was not asked: " in noted
    # Another database's policy asks nothing.
    assert lint(admin, authors.policy("d.json", denied_columns=["X"]), env) == ([], b"")
