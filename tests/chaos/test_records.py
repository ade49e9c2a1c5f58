"""What the audit files of a round are judged by: which calls need a record, and which pieces of a
record a killed writer may have left."""

from __future__ import annotations

import json
from typing import Any

import pytest

from chaos.acts import IN_SERVER
from chaos.ledger import NEVER, Doubt, Kill, Ledger, Request, Serving
from chaos.records import JUDGED, LEFT_OUT_WITH, LEFT_OUT_WITHOUT, RecordCheck
from harness.audit_files import KEYS

PIECE = b'{"timestamp":"2026-01-01T00:00:00.000Z","correlation_id":"a.1","client'
NAMELESS = b'{"timestamp":"2026-01-01T'


@pytest.fixture
def ledger() -> Ledger:
    made = Ledger()
    made.begin_round(1)
    return made


def called(ledger: Ledger, answer: str | None = "tool result", name: str = "a.1",
           kind: str = "read", **fields: Any) -> Request:
    """A call from second 10 to 11 of the round, on the server "m"."""
    made = ledger.sent(Request(name, kind, ledger.began + 10, tool=True, **fields))
    made.serving = made.serving or Serving("m")
    if answer:
        ledger.answered(made, answer, recorded=answer.startswith("tool"))
        made.answered = ledger.began + 11
    return made


def doubt(ledger: Ledger, begin: float, end: float, **fields: Any) -> None:
    ledger.doubts.append(Doubt(ledger.began + begin, end=ledger.began + end, **fields))


def killed(ledger: Ledger, moment: float, server: str = "m", unseen: bool = False) -> None:
    ledger.kills.append(Kill(ledger.began + moment, server, unseen))


def record(correlation_id: str) -> bytes:
    return json.dumps({**dict.fromkeys(KEYS), "timestamp": "0", "correlation_id": correlation_id},
                      separators=(",", ":")).encode() + b"\r\n"


def judge(ledger: Ledger, tmp_path: Any, *files: bytes) -> list[str]:
    check = RecordCheck(ledger)
    for number, content in enumerate(files):
        (tmp_path / f"{number}.jsonl").write_bytes(content)
        check.read(tmp_path / f"{number}.jsonl")
    check.judge()
    return ledger.violations


@pytest.mark.parametrize("files, told", [
    ([record("a.1")], None),
    ([b"", record("a.1")], None),
    ([b""], "1 answered calls have no record: ['a.1 (read, at 10.00 to 11.00 s)']"),
    ([record("a.1") * 2], "2 records of a.1"),
    ([record("a.1"), record("a.1")], "2 records of a.1"),
    ([record("a.1") + record("b")], "a record of a call that nobody made: b"),
    ([record("a.1") + b'{"timestamp":\r\n'], "no whole record: b'{\"timestamp\":'"),
    ([record("a.1") + b'{"timestamp":'], "no whole record: b'{\"timestamp\":'"),
    ([record("a.1") + b"\r\n"], "no whole record: b''"),
    ([b'{"timestamp":' + record("a.1")], "no whole record: b'{\"timestamp\":'"),
    ([record("a.1") + b'{"timestamp":1,"other":2}\r\n'],
     "no whole record: b'{\"timestamp\":1,\"other\":2}'"),
])
def test_records(ledger, tmp_path, files, told):
    called(ledger)
    assert judge(ledger, tmp_path, *files) == ([] if told is None else [f"round 1: {told}"])


# Which calls are left out.

@pytest.mark.parametrize("begin, end, lost", [
    (10.5, 10.6, 0), (9, 10.1, 0), (10.9, 12, 0), (9, 12, 0), (8, 9.9, 1), (11.1, 12, 1)])
def test_a_doubt_holds_for_the_calls_of_its_time_alone(ledger, tmp_path, begin, end, lost):
    called(ledger)
    doubt(ledger, begin, end)
    assert len(judge(ledger, tmp_path, b"")) == lost


@pytest.mark.parametrize("server, lost", [("m", 0), ("n", 1), (None, 0)])
def test_a_doubt_holds_for_its_server_alone(ledger, tmp_path, server, lost):
    called(ledger)
    doubt(ledger, 9, 12, server=server)
    assert len(judge(ledger, tmp_path, b"")) == lost


@pytest.mark.parametrize("started, lost", [(8.0, 1), (9.5, 0)])
def test_a_limit_of_a_listener_does_not_reach_older_sessions(ledger, tmp_path, started, lost):
    called(ledger, serving=Serving("m", ledger.began + started))
    doubt(ledger, 9, 12, server="m")
    assert len(judge(ledger, tmp_path, b"")) == lost


@pytest.mark.parametrize("kind, lost", [("read", 1), (IN_SERVER, 0)])
def test_a_doubt_about_some_calls(ledger, tmp_path, kind, lost):
    called(ledger, kind=kind)
    doubt(ledger, 9, 12, kind=IN_SERVER)
    assert len(judge(ledger, tmp_path, b"")) == lost


@pytest.mark.parametrize("moment, server, unseen, lost", [
    (9.5, "m", True, 1), (10.5, "m", True, 0), (11.5, "m", True, 1), (10.5, "n", True, 1),
    (10.5, "m", False, 1)])
def test_a_worker_whose_kill_is_not_seen(ledger, tmp_path, moment, server, unseen, lost):
    called(ledger)
    killed(ledger, moment, server, unseen)
    assert len(judge(ledger, tmp_path, b"")) == lost


def test_calls_left_out_are_counted_with_and_without_a_record(ledger, tmp_path):
    for name in ("a.1", "a.2", "a.3"):
        called(ledger, name=name)
    called(ledger, name="b.1", serving=Serving("n"))
    doubt(ledger, 9, 12, server="m")
    judge(ledger, tmp_path, record("a.1") + record("b.1"))
    assert [ledger.counts[what] for what in (JUDGED, LEFT_OUT_WITH, LEFT_OUT_WITHOUT)] == [1, 1, 2]


def test_a_kill_that_did_not_happen_is_forgotten(ledger):
    with ledger.kill("m") as kill:
        kill.done = False
    with ledger.kill("n"):
        pass
    assert [kill.server for kill in ledger.kills] == ["n"]


# Pieces of records.

def cut(ledger: Ledger) -> None:
    doubt(ledger, 9, 12, cuts=True)


@pytest.mark.parametrize("ending", [b"\r\n", b""])
def test_a_piece_of_a_call_with_a_result_is_not_excused(ledger, tmp_path, ending):
    called(ledger)
    cut(ledger)
    killed(ledger, 10.5)
    killed(ledger, 12.5)
    assert len(judge(ledger, tmp_path, PIECE + ending)) == 1


@pytest.mark.parametrize("server, unseen, violations", [
    ("m", True, 0), ("n", True, 1), ("m", False, 1)])
def test_a_piece_of_a_call_with_a_result_after_an_unseen_kill(ledger, tmp_path, server, unseen,
                                                              violations):
    called(ledger)
    cut(ledger)
    killed(ledger, 10.5, server, unseen)
    assert len(judge(ledger, tmp_path, PIECE)) == violations


@pytest.mark.parametrize("moment, server, cuts, violations", [
    (10.5, "m", True, 0), (10.5, "m", False, 1), (9.5, "m", True, 1), (12.5, "m", True, 1),
    (10.5, "n", True, 1), (None, "m", True, 1)])
def test_a_piece_is_excused_for_a_kill_of_its_writer(ledger, tmp_path, moment, server, cuts,
                                                     violations):
    called(ledger, None)
    doubt(ledger, 9, 12, cuts=cuts)
    if moment is not None:
        killed(ledger, moment, server)
    assert len(judge(ledger, tmp_path, PIECE)) == violations


@pytest.mark.parametrize("cancelled, session_ended, violations", [
    (10.5, NEVER, 0), (NEVER, 10.5, 0), (12.5, NEVER, 1), (NEVER, NEVER, 1)])
def test_a_piece_is_excused_for_a_call_that_its_client_gave_up(ledger, tmp_path, cancelled,
                                                               session_ended, violations):
    called(ledger, None, cancelled=ledger.began + cancelled,
           serving=Serving("m", ended=ledger.began + session_ended))
    cut(ledger)
    assert len(judge(ledger, tmp_path, PIECE)) == violations


@pytest.mark.parametrize("kills, violations", [
    ([], 2), ([10.5], 1), ([10.5, 11.5], 0), ([8.0, 13.0], 2)])
def test_pieces_without_a_name_are_excused_for_one_kill_each(ledger, tmp_path, kills, violations):
    cut(ledger)
    for moment in kills:
        killed(ledger, moment)
    assert len(judge(ledger, tmp_path, NAMELESS + b"\r\n" + NAMELESS)) == violations


@pytest.mark.parametrize("server, cuts, violations", [("m", True, 0), ("n", True, 1),
                                                      ("m", False, 1)])
def test_a_piece_without_a_name_needs_a_kill_of_a_server_that_is_limited(ledger, tmp_path, server,
                                                                         cuts, violations):
    doubt(ledger, 9, 12, server=server, cuts=cuts)
    killed(ledger, 10.5)
    assert len(judge(ledger, tmp_path, NAMELESS)) == violations


def test_what_never_was_a_record_is_not_excused(ledger, tmp_path):
    cut(ledger)
    killed(ledger, 10.5)
    assert judge(ledger, tmp_path, b"other\r\n") == ["round 1: no whole record: b'other'"]


def test_a_record_behind_a_piece_counts(ledger, tmp_path):
    called(ledger)
    called(ledger, None, name="b.1", cancelled=ledger.began + 10.5)
    cut(ledger)
    assert judge(ledger, tmp_path, PIECE.replace(b"a.1", b"b.1") + record("a.1")) == []


def test_a_piece_of_a_call_that_nobody_made_is_not_excused(ledger, tmp_path):
    cut(ledger)
    killed(ledger, 10.5)
    assert len(judge(ledger, tmp_path, PIECE)) == 1
