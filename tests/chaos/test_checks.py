"""The checks of a round find what they are there for."""

from __future__ import annotations

import json
import random
import sqlite3
from contextlib import closing
from pathlib import Path
from types import SimpleNamespace

import pytest

from chaos.acts import Acts
from chaos.checks import Checks
from chaos.ledger import RECORD_WAIT, Ledger, Request
from harness.audit_files import KEYS
from harness.sample_engine import make_database


@pytest.fixture
def ledger() -> Ledger:
    made = Ledger()
    made.begin_round(1)
    return made


@pytest.fixture
def stage(tmp_path: Path) -> SimpleNamespace:
    for folder in ("audit", "markers"):
        (tmp_path / folder).mkdir()
    make_database(tmp_path / "SALES.db", "CREATE TABLE EVENTS (MARK TEXT);")
    return SimpleNamespace(markers=tmp_path / "markers", audit=SimpleNamespace(
        path=tmp_path / "audit"), engine=SimpleNamespace(database=tmp_path / "SALES.db"))


def noted(ledger: Ledger, kind: str, answer: str | None = None, **fields: object) -> Request:
    made = ledger.sent(Request("a.1", kind, 0.0, tool=True, **fields))  # type: ignore[arg-type]
    if answer:
        ledger.answered(made, answer, recorded=answer.startswith("tool"))
    return made


@pytest.mark.parametrize("answer, written, marked, told", [
    ("tool result", 1, True, None),
    (None, 1, True, None),
    (None, 0, True, None),
    ("tool error", 0, False, None),
    ("tool result", 2, True, "the write a.1 ran 2 times"),
    (None, 1, False, "the write a.1 ran without a marker"),
    ("tool result", 0, True, "the write a.1 was reported as done and is not"),
])
def test_writes(ledger, stage, answer, written, marked, told):
    noted(ledger, "write", answer, mark="a.1", nonce="77")
    if marked:
        (stage.markers / "77.used").touch()
    with closing(sqlite3.connect(stage.engine.database)) as connection:
        connection.executemany("INSERT INTO EVENTS VALUES (?)", [("a.1",)] * written)
        connection.commit()
    Checks(stage, ledger).check_writes()
    assert ledger.violations == ([] if told is None else [f"round 1: {told}"])


def test_a_write_without_an_approval(ledger, stage):
    noted(ledger, "unapproved write", mark="a.1")
    with closing(sqlite3.connect(stage.engine.database)) as connection:
        connection.execute("INSERT INTO EVENTS VALUES ('a.1')")
        connection.commit()
    Checks(stage, ledger).check_writes()
    assert ledger.violations == ["round 1: the write a.1 ran without an approval"]


def record(correlation_id: str) -> bytes:
    return json.dumps({**dict.fromkeys(KEYS), "correlation_id": correlation_id}).encode() + b"\r\n"


@pytest.mark.parametrize("files, told", [
    ([record("a.1")], None),
    ([b"", record("a.1")], None),
    ([b""], "1 answered calls have no record: ['a.1 (read, at 1.00 to 2.50 s)']"),
    ([record("a.1") * 2], "2 records of a.1"),
    ([record("a.1"), record("a.1")], "2 records of a.1"),
    ([record("a.1") + record("b")], "a record of a call that nobody made: b"),
    ([record("a.1") + b'{"timestamp":\r\n'], "no record: b'{\"timestamp\":'"),
])
def test_records(ledger, stage, files, told):
    request = noted(ledger, "read", "tool result")
    request.sent, request.answered = ledger.began + 1, ledger.began + 2.5
    for number, content in enumerate(files):
        (stage.audit.path / f"{number}.jsonl").write_bytes(content)
    Checks(stage, ledger).check_audit()
    assert ledger.violations == ([] if told is None else [f"round 1: {told}"])


def test_a_lost_record_of_a_call_in_doubt(ledger, stage):
    ledger.begin_doubt()
    noted(ledger, "read", "tool result")
    ledger.end_doubt()
    Checks(stage, ledger).check_audit()
    assert ledger.violations == []


@pytest.mark.parametrize("before, lost", [(RECORD_WAIT / 2, 0), (RECORD_WAIT * 2, 1)])
def test_a_doubt_that_begins_between_reply_and_record(ledger, stage, before, lost):
    request = noted(ledger, "read", "tool result")
    request.sent -= before
    request.answered -= before
    ledger.begin_doubt()
    ledger.end_doubt()
    Checks(stage, ledger).check_audit()
    assert len(ledger.violations) == lost


@pytest.mark.parametrize("kind, lost", [("read", 1), ("read in the server", 0)])
def test_a_doubt_about_some_calls(ledger, stage, kind, lost):
    ledger.begin_doubt("read in the server")
    noted(ledger, kind, "tool result")
    ledger.end_doubt()
    Checks(stage, ledger).check_audit()
    assert len(ledger.violations) == lost


def test_a_second_reply(ledger):
    request = noted(ledger, "read", "tool result")
    ledger.answered(request, "cancelled")
    assert ledger.violations == ["round 1: a.1 got 2 replies: ['tool result', 'cancelled']"]


@pytest.mark.parametrize("kind, rows, told", [
    ("read", [["1", "a.1"], ["2", "a.1"]], None),
    ("slow read", [["0", "a.1"]], None),
    ("read", [["1", "a.1"], ["2", "b.1"]], "a.1: wrong rows: [['1', 'a.1'], ['2', 'b.1']]"),
    ("read", [["1", "a.1"]], "a.1: 1 of 2 rows"),
    ("refused read", [], "a.1: refused read, and carried out: {"),
    ("unapproved write", [], "a.1: unapproved write, and carried out: {"),
])
def test_the_content_of_a_reply(ledger, kind, rows, told):
    content = {"rows": rows, "rowCount": len(rows)}
    reply = {"result": {"content": [{"text": json.dumps(content)}], "structuredContent": content,
                        "isError": False}}
    request = noted(ledger, kind, rows=2)
    Acts("a", random.Random(1), ledger).judge(request, reply)
    assert len(ledger.violations) == (0 if told is None else 1)
    assert all(text.startswith(f"round 1: {told}") for text in ledger.violations)


def test_a_short_result_of_an_engine_that_ended(ledger):
    request = noted(ledger, "read", rows=2)
    ledger.engine_ends.append(request.sent)
    content = {"rows": [["1", "a.1"]], "rowCount": 1}
    Acts("a", random.Random(1), ledger).judge(request, {"result": {
        "content": [{"text": json.dumps(content)}], "structuredContent": content,
        "isError": False}})
    assert ledger.violations == []
