"""The checks of a round find what they are there for."""

from __future__ import annotations

import json
import random
import sqlite3
from contextlib import closing
from pathlib import Path
from queue import Queue
from types import SimpleNamespace
from typing import Any

import pytest

from chaos.acts import Acts
from chaos.checks import Checks
from chaos.http_client import Response, _Session
from chaos.ledger import Ledger, Request
from chaos.stdio_client import _Life
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


FAILED = {"code": -32603, "message": "isolated MCP tool worker failed"}
NO_MEMORY = {"code": -32603, "message": "server memory limit"}


class ServerStandIn:
    """Replies to each message with the next of the given lines of replies."""

    def __init__(self, replies: list[list[dict[str, Any] | None]]) -> None:
        self._replies = iter(replies)
        self._lines: Queue[bytes | None] = Queue()
        self.process = None
        self.marker = "m"

    def send(self, _: bytes) -> None:
        for reply in next(self._replies):
            self._lines.put(json.dumps({"jsonrpc": "2.0", **reply}).encode() + b"\n"
                            if reply is not None else None)


def play_stdio(ledger: Ledger, calls: int,
               replies: list[list[dict[str, Any] | None]]) -> list[str]:
    """The ids of the client are a.1, a.2 and so on; its calls come first. None is the end of the
    server."""
    server = ServerStandIn(replies)
    client = SimpleNamespace(rng=random.Random(1), ledger=ledger)
    acts = Acts("a", client.rng, ledger)
    life = _Life(client, server, acts, deaf=False)  # type: ignore[arg-type]
    for _ in range(calls):
        life._ask(*acts.refused_read())
    life._settle()
    return ledger.violations


REFUSED = {"content": [{"text": "no"}], "isError": True}


@pytest.mark.parametrize("calls, replies", [
    (1, [[{"id": "a.1", "result": REFUSED}]]),
    (1, [[{"id": None, "error": FAILED}], [{"id": "a.2", "result": {}}]]),
    (2, [[], [{"id": None, "error": FAILED}, {"id": "a.1", "result": REFUSED}],
         [{"id": "a.3", "result": {}}]]),
    # What failed was a cancel; the call comes to its own end.
    (1, [[{"id": None, "error": NO_MEMORY}], [{"id": "a.2", "error": {"code": -32000}}],
         [{"id": "a.1", "result": REFUSED}, {"id": "a.3", "result": {}}]]),
])
def test_replies_without_an_id(ledger, calls, replies):
    assert play_stdio(ledger, calls, replies) == []
    assert all(not request.open for request in ledger.requests.values())


@pytest.mark.parametrize("calls, replies, told", [
    (1, [[{"id": None, "error": FAILED}, {"id": "a.1", "result": REFUSED}],
         [{"id": "a.2", "result": {}}]],
     "replies without an id ['-32603 isolated MCP tool worker failed'], and left are []"),
    (1, [[{"id": None, "error": {"code": -32600, "message": "no"}},
          {"id": "a.1", "result": REFUSED}]],
     "a reply without an id and without a request: -32600 no"),
    (1, [[{"id": "b", "result": REFUSED}, {"id": "a.1", "result": REFUSED}]],
     "a reply to no open request: "),
])
def test_replies_of_which_one_is_too_few_or_too_many(ledger, calls, replies, told):
    violations = play_stdio(ledger, calls, replies)
    assert len(violations) == 1 and violations[0].startswith(f"round 1: a: {told}")


def test_a_server_that_ends_without_a_reply(ledger, monkeypatch):
    monkeypatch.setattr("chaos.stdio_client.wait_for_end", lambda *_: 0)
    assert play_stdio(ledger, 1, [[None]]) == [
        "round 1: a: replies without an id [], and left are ['a.1']"]


def test_a_server_that_is_killed_after_a_failure(ledger, monkeypatch):
    monkeypatch.setattr("chaos.stdio_client.wait_for_end", lambda *_: -9)
    assert play_stdio(ledger, 1, [[{"id": None, "error": FAILED}], [None]]) == []
    assert all(request.closed for request in ledger.requests.values())


def http_session(ledger: Ledger) -> _Session:
    client = SimpleNamespace(rng=random.Random(1), ledger=ledger)
    return _Session(client, Acts("a", client.rng, ledger))  # type: ignore[arg-type]


def finish(session: _Session, noted: Request, **reply: object) -> None:
    body = json.dumps({"jsonrpc": "2.0", **reply}).encode()
    connection = SimpleNamespace(request=noted, read=lambda: Response(200, {}, body))
    session._finish(connection)  # type: ignore[arg-type]


@pytest.mark.parametrize("first, violations", [(NO_MEMORY, 0), (FAILED, 1)])
def test_a_reply_to_the_request_before(ledger, first, violations):
    """A cancel that could not be parsed has a reply, which the next request gets."""
    session = http_session(ledger)
    one, other = session.acts.ping()[0], session.acts.ping()[0]
    finish(session, one, id=None, error=first)
    finish(session, other, id=one.id, result={})
    assert len(ledger.violations) == violations


@pytest.mark.parametrize("left, violations", [(True, 0), (False, 1)])
def test_a_reply_behind_garbage_to_a_request_that_was_left(ledger, left, violations, monkeypatch):
    session = http_session(ledger)
    before, _ = session.acts.refused_read()
    if left:
        session._left.add(before.id)
    body = json.dumps({"jsonrpc": "2.0", "id": before.id, "result": REFUSED}).encode()
    monkeypatch.setattr(session, "_tell", lambda line: None)
    monkeypatch.setattr(session, "_begin", lambda noted, line: SimpleNamespace(
        read=lambda: Response(200, {}, body)))
    session._garbage()
    assert len(ledger.violations) == violations
