"""`approve --show` and the server say the same of every statement of the write tests."""

from __future__ import annotations

import importlib
import json
import random

import pytest

from harness.operator_desk import Desk, desks
from harness.write_calls import Writes
from harness.write_generator import statement

SEEDS = range(40)
LONGEST = "N" * 63
TABLES = ["T", "ORDERS", LONGEST]


def values_of(module_name: str) -> list[object]:
    """Every `sql` of the module's tables."""
    found = []
    for test in vars(importlib.import_module(module_name)).values():
        for mark in getattr(test, "pytestmark", []):
            names = [name.strip() for name in str(mark.args[0]).split(",")] if mark.args else []
            if mark.name == "parametrize" and "sql" in names:
                place = names.index("sql")
                found += [row if len(names) == 1 else row[place] for row in mark.args[1]]
    return found


def statements() -> list[str]:
    found = [value for name in ("e2e.tools.test_execute", "e2e.policy.test_hostile_writes")
             for value in values_of(name) if isinstance(value, str)]
    assert len(found) > 100
    for seed in SEEDS:
        source = random.Random(seed)
        found.append(statement(source).spelled(source))
    return list(dict.fromkeys(found))


@pytest.fixture(scope="module")
def module_desk(target, tmp_path_factory):
    yield from desks(target, tmp_path_factory.mktemp("verdict"))


@pytest.fixture(scope="module")
def guarded(served: Writes) -> Writes:
    return served.guarded(write_tables=TABLES)


def agree(desk: Desk, guarded: Writes, sql: str) -> None:
    result = desk.run("approve", "--show", "--json", "-",
                      stdin=json.dumps({"sql": sql}, ensure_ascii=False).encode())
    if "\0" in sql:  # the one difference: the server cuts there
        assert (result.code, result.stdout) == (2, b"")
        assert b"NUL" in result.stderr
        return
    reply = json.loads(guarded(sql).reply)["result"]
    if "structuredContent" in reply:
        shown = json.loads(result.stdout)
        asked = reply["structuredContent"]
        assert (shown["digest"], shown["type"], shown["table"]) == (
            asked["operation_digest"], asked["operation_type"], asked["table"])
        return
    assert (result.code, result.stdout) == (2, b"")
    message = reply["content"][0]["text"]
    said = result.stderr.decode().replace("\r", "")
    assert said == f"kova-admin: {message or 'the server refuses the statement: it is too large'}\n"


@pytest.mark.parametrize("part", range(8))
def test_every_statement(module_desk, guarded, part):
    module_desk.policy(write_tables=TABLES)
    for sql in statements()[part::8]:
        agree(module_desk, guarded, sql)
