"""A small database for the sample engine, and what the server needs and returns for it."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any, Iterator

from harness.policy_files import PolicyFiles
from harness.sample_engine import USER, Engine, make_database

ORDERS = 300
SALES = f"""
CREATE TABLE ORDERS (ID INTEGER PRIMARY KEY, CUSTOMER TEXT, TOTAL INTEGER, CARD TEXT);
CREATE TABLE ITEMS (ORDER_ID INTEGER, PRODUCT TEXT);
CREATE TABLE SALARIES (NAME TEXT, AMOUNT INTEGER);
WITH RECURSIVE N(I) AS (SELECT 1 UNION ALL SELECT I + 1 FROM N WHERE I < {ORDERS})
INSERT INTO ORDERS SELECT I, 'customer ' || I, I * 10, 'card ' || I FROM N;
INSERT INTO ITEMS VALUES (1, 'caf\u00e9 "noir"'), (1, NULL), (2, 'tab\there');
INSERT INTO SALARIES VALUES ('someone', 1);
"""

SLOW = {"name": "kova_query", "args": {
    "sql": "SELECT COUNT(A.ID) FROM ORDERS A, ORDERS B, ORDERS C, ORDERS D"
           " WHERE A.TOTAL + B.TOTAL < C.TOTAL + D.TOTAL"}}
"""Counts 8.1e9 combinations of rows, which takes longer than any test waits."""

COUNT_ORDERS = {"name": "kova_query", "args": {"sql": "SELECT COUNT(ID) AS N FROM ORDERS"}}


def slow(engine: Engine) -> "dict[str, Any]":
    """The slow query for a client's script, which waits until the engine works at it."""
    return {**SLOW, "engine": engine.process.pid}


def sales_engine(executable: Path, folder: Path) -> Iterator[Engine]:
    """The sample engine with this database in an empty folder, until the end of its tests."""
    (folder / "data").mkdir()
    make_database(folder / "data" / "SALES.db", SALES)
    made = Engine(executable, folder)
    yield made
    assert made.stop() == 0


def profile(policy: PolicyFiles, engine: Engine) -> dict[str, Any]:
    """The server's environment: a policy that hides one column, and the engine."""
    return {**policy(database_user=USER, denied_columns=["CARD"], allowed_collections=[]),
            **engine.profile("SALES")}


def result(status: str, columns: list[str], rows: list[list[Any]], truncated: bool = False) -> Any:
    """A successful result: the same document as text and as structured content."""
    document = {"status": status, "columns": columns, "rows": rows, "rowCount": len(rows),
                "truncated": truncated}
    text = json.dumps(document, separators=(",", ":"), ensure_ascii=False)
    return {"content": [{"type": "text", "text": text}], "structuredContent": document,
            "isError": False}
