"""What the clients and the hands write down, so that a lost or cut record can be judged."""

from __future__ import annotations

import random
from types import SimpleNamespace
from typing import Any

import pytest

from chaos.acts import IN_SERVER, Acts
from chaos.hand import Hand
from chaos.http_client import Response, _Session
from chaos.ledger import NEVER, Ledger
from chaos.stdio_client import _Life


@pytest.fixture
def ledger() -> Ledger:
    made = Ledger()
    made.begin_round(1)
    return made


def hand(ledger: Ledger, server: str, windows: bool = False) -> Any:
    running = SimpleNamespace(marker=server, process=SimpleNamespace(pid=0))
    stage = SimpleNamespace(target=SimpleNamespace(windows=windows), listener=running,
                            audit_file=SimpleNamespace(stat=lambda: SimpleNamespace(st_size=0)))
    made = Hand("h", "1", [], stage, ledger, [], 1.0)  # type: ignore[arg-type]
    made._any_server = lambda: running  # type: ignore[method-assign]
    return made


@pytest.mark.parametrize("fault, told", [
    ("limit_file_size", (None, "m", True)), ("take_descriptors", (IN_SERVER, "m", False))])
def test_a_limit_puts_one_server_in_doubt(ledger, monkeypatch, fault, told):
    limited = hand(ledger, "m")
    monkeypatch.setattr(limited, "_limit", lambda *_: True)
    assert getattr(limited, fault)()
    assert [(made.kind, made.server, made.cuts) for made in ledger.doubts] == [told]
    assert ledger.doubts[0].end < NEVER


def test_a_full_disk_cuts_records(ledger, monkeypatch):
    made = hand(ledger, "m")
    monkeypatch.setattr(made, "_pause", lambda _: None)
    made.stage.audit = SimpleNamespace(fill=lambda _: None, empty=lambda: None)
    made.fill_audit_folder()
    assert [(found.server, found.cuts) for found in ledger.doubts] == [(None, True)]


def test_a_killed_listener_is_noted(ledger, monkeypatch):
    killer = hand(ledger, "m")
    monkeypatch.setattr(killer, "_pause", lambda _: None)
    killer.stage.start_listener = lambda: None
    for name in ("kill", "close"):
        setattr(killer.stage.listener, name, lambda: None)
    killer.stage.listener.expect_no_process = lambda _: None
    killer.kill_listener()
    assert [kill.server for kill in ledger.kills] == ["m"]


@pytest.mark.parametrize("windows", [False, True])
def test_a_killed_worker_is_noted_with_its_server(ledger, monkeypatch, windows):
    killer = hand(ledger, "m", windows)
    monkeypatch.setattr(killer, "_worker", lambda server: 7)
    monkeypatch.setattr("chaos.hand.send_signal", lambda *_: True)
    assert killer.kill_worker()
    assert [(kill.server, kill.unseen) for kill in ledger.kills] == [("m", windows)]


def http_session(ledger: Ledger) -> _Session:
    stage = SimpleNamespace(listener=SimpleNamespace(marker="m"))
    client = SimpleNamespace(rng=random.Random(1), ledger=ledger, stage=stage)
    return _Session(client, Acts("a", client.rng, ledger))  # type: ignore[arg-type]


def test_a_session_knows_its_listener(ledger, monkeypatch):
    session = http_session(ledger)
    monkeypatch.setattr(session, "_exchange", lambda *_: Response(
        200, {"mcp-session-id": "s"}, b""))
    session.begin()
    noted, _ = session.acts.read()
    assert noted.serving is not None and noted.serving.server == "m"
    assert noted.serving.started < NEVER and noted.given_up == NEVER
    session._let_end()
    assert noted.given_up < NEVER


def test_a_cancelled_call_of_a_session_is_given_up(ledger, monkeypatch):
    session = http_session(ledger)
    for name in ("_begin", "_tell", "_finish"):
        monkeypatch.setattr(session, name, lambda *_: None)
    session._cancelled_call()
    [noted] = ledger.requests.values()
    assert noted.given_up < NEVER


def stdio_life(ledger: Ledger, monkeypatch: pytest.MonkeyPatch) -> tuple[_Life, list[str]]:
    """The list tells what was done to its server."""
    done: list[str] = []
    server = SimpleNamespace(marker="m", send=lambda _: None,
                             process=SimpleNamespace(kill=lambda: done.append("kill")),
                             close_input=lambda: done.append("close"))
    client = SimpleNamespace(rng=random.Random(1), ledger=ledger)
    monkeypatch.setattr(_Life, "_read_to_end", lambda self: None)
    return _Life(client, server, Acts("a", client.rng, ledger), False), done  # type: ignore


def test_a_cancelled_call_of_a_stdio_server_is_given_up(ledger, monkeypatch):
    stdio_life(ledger, monkeypatch)[0]._cancelled_call()
    [noted] = ledger.requests.values()
    assert noted.given_up < NEVER and noted.serving.started == NEVER


@pytest.mark.parametrize("how", ["idle", "busy", "killed"])
def test_the_end_of_a_stdio_server_gives_its_calls_up(ledger, monkeypatch, how):
    life, done = stdio_life(ledger, monkeypatch)
    life._ask(*life.acts.refused_read())
    monkeypatch.setattr(life, "rng", SimpleNamespace(choices=lambda *_: [how],
                                                     uniform=lambda *_: 0))
    life.end()
    assert all(noted.given_up < NEVER for noted in ledger.requests.values())
    assert [kill.server for kill in ledger.kills] == ["m"] * done.count("kill")
    assert ("kill" in done) == (how == "killed")
