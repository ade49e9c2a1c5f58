"""The sample engine with a small database, and the server that is installed for it."""

from __future__ import annotations

import json
import os
import shutil
from pathlib import Path
from typing import Any, Iterator

import pytest

from kova import MARKER, Target
from policy_files import PolicyFiles
from sample_engine import LOOPBACK, PASSWORD, USER, Engine, make_database

ROOT = Path(__file__).resolve().parents[2]

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

SLOW = {"name": "kova_query", "ms": 1500, "args": {
    "sql": "SELECT COUNT(A.ID) FROM ORDERS A, ORDERS B, ORDERS C, ORDERS D"
           " WHERE A.TOTAL + B.TOTAL < C.TOTAL + D.TOTAL"}}
"""Eight thousand million rows to look at: longer than any test waits."""

COUNT_ORDERS = {"name": "kova_query", "args": {"sql": "SELECT COUNT(ID) AS N FROM ORDERS"}}


@pytest.fixture(scope="module")
def engine(pytestconfig: pytest.Config,
           tmp_path_factory: pytest.TempPathFactory) -> Iterator[Engine]:
    """The engine is native for both targets."""
    build = os.environ.get("KOVA_BUILD_DIR")
    if build is None and pytestconfig.getoption("--target") == "linux":
        build = pytestconfig.getoption("--build-dir")
    executable = Path(build or ROOT / "build" / "linux").resolve() / "sample" / "kova-sample-engine"
    assert executable.exists(), f"{executable} is not built"
    folder = tmp_path_factory.mktemp("engine")
    (folder / "data").mkdir()
    make_database(folder / "data" / "SALES.db", SALES)
    made = Engine(executable, folder)
    yield made
    assert made.stop() == 0


@pytest.fixture(scope="module")
def executable(target: Target, tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The server with the sample client library beside it."""
    folder = tmp_path_factory.mktemp("installed")
    shutil.copy2(target.build / "sample" / target.library_name, folder)
    return Path(shutil.copy2(target.executable, folder))


def profile(policy: PolicyFiles, engine: Engine) -> dict[str, Any]:
    """The server's environment: a policy that hides one column, and the engine."""
    return {**policy(database_user=USER, denied_columns=["CARD"], allowed_collections=[]),
            "KOVA_MCP_SERVER": LOOPBACK, "KOVA_MCP_PORT": str(engine.port),
            "KOVA_MCP_PASSWORD": PASSWORD}


def processes(marker: str) -> list[int]:
    """The processes of the server that are left, its workers included."""
    wanted = f"{MARKER}={marker}".encode()
    found = []
    for folder in Path("/proc").iterdir():
        if not folder.name.isdigit():
            continue
        try:
            mine = wanted in (folder / "environ").read_bytes().split(b"\0")
            if mine and b"kova-mcp" in (folder / "cmdline").read_bytes():
                found.append(int(folder.name))
        except OSError:
            pass
    return found


def result(status: str, columns: list[str], rows: list[list[Any]], truncated: bool = False) -> Any:
    """A successful result: the same document as text and as it is."""
    document = {"status": status, "columns": columns, "rows": rows, "rowCount": len(rows),
                "truncated": truncated}
    text = json.dumps(document, separators=(",", ":"), ensure_ascii=False)
    return {"content": [{"type": "text", "text": text}], "structuredContent": document,
            "isError": False}
