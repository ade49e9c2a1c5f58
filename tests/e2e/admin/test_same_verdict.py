"""`approve --show` and the server say the same of every statement of the write tests."""

from __future__ import annotations

import ast
import importlib
import itertools
import json
import random
import re
from types import FunctionType, ModuleType
from typing import Any, Iterator
from unittest import mock

import pytest

from harness.operator_desk import Desk, desks
from harness.write_calls import Writes
from harness.write_generator import statement

pytestmark = pytest.mark.slow

SEEDS = range(8)
LONGEST = "N" * 63
TABLES = ["T", "ORDERS", LONGEST]
PARTS = 8

TABLE_OF_WRITES = "e2e.policy.test_hostile_writes"
"""Its tests send statements and look at the outcomes, and do nothing else: they can be played."""
GENERATED = "e2e.approval.test_generated_writes"
WRITTEN_OUT = ["e2e.tools.test_execute", "e2e.approval.test_tokens", "e2e.approval.test_single_use",
               "e2e.approval.test_writes_on_sample_engine", "e2e.approval.test_issue", GENERATED,
               TABLE_OF_WRITES]
VERB = re.compile(r"\b(insert|update|delete)\b", re.IGNORECASE)


class Sent:
    """Stands for the write tool: takes down what is sent to it."""

    def __init__(self) -> None:
        self.texts: list[str] = []
        self.calls = self

    def __call__(self, sql: str, *_: Any) -> None:
        self.texts.append(sql)

    def raw(self, params: bytes, **_: Any) -> None:
        self.texts.append(json.loads(params)["arguments"]["sql"])

    def open(self, **_: Any) -> "Sent":
        return self

    guarded = open


def rows_of(test: FunctionType) -> Iterator[dict[str, Any]]:
    """The arguments of each run of a test, by its tables."""
    tables = []
    for mark in getattr(test, "pytestmark", []):
        if mark.name == "parametrize":
            names = [name.strip() for name in mark.args[0].split(",")]
            tables.append([dict(zip(names, [row] if len(names) == 1 else row))
                           for row in mark.args[1]])
    for choice in itertools.product(*tables):
        yield {name: value for row in choice for name, value in row.items()}


def played(module: ModuleType) -> list[str]:
    """Every statement that the module's tests send."""
    sent = Sent()
    checks = {name: mock.DEFAULT for name in ("ran", "refused")}
    with mock.patch.multiple(module, **checks):
        for name, test in list(vars(module).items()):
            if name.startswith("test_") and name != "test_an_empty_refusal_is_still_one":
                tool = next(one for one in ("writes", "served")
                            if one in test.__code__.co_varnames[:test.__code__.co_argcount])
                for row in rows_of(test):
                    test(**{tool: sent}, **row)
    return sent.texts


def tabled(module: ModuleType) -> list[str]:
    """Every `sql` of the module's tables."""
    tests = [test for name, test in vars(module).items() if name.startswith("test_")]
    return [row["sql"] for test in tests for row in rows_of(test)
            if isinstance(row.get("sql"), str)]


def written_out(module: ModuleType) -> list[str]:
    """Every text of the module's source that could be a write, and its beginnings of one."""
    assert module.__file__ is not None
    with open(module.__file__, encoding="utf-8") as file:
        nodes = list(ast.walk(ast.parse(file.read())))
    return [node.value for node in nodes
            if isinstance(node, ast.Constant) and isinstance(node.value, str)
            and VERB.search(node.value)]


def generated() -> list[str]:
    found = []
    for seed in [*SEEDS, *(20260 + seed for seed in importlib.import_module(GENERATED).SEEDS)]:
        source = random.Random(seed)
        write = statement(source)
        found += [write.spelled(source), write.altered(source).spelled(source)]
    return found


def statements() -> list[str]:
    modules = {name: importlib.import_module(name) for name in WRITTEN_OUT}
    sent = played(modules[TABLE_OF_WRITES])
    assert len(sent) > 250
    found = sent + generated()
    for module in modules.values():
        found += tabled(module) + written_out(module)
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


@pytest.mark.parametrize("part", range(PARTS))
def test_every_statement(module_desk, guarded, part):
    module_desk.policy(write_tables=TABLES)
    for sql in statements()[part::PARTS]:
        agree(module_desk, guarded, sql)
