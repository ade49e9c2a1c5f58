"""A stdio server that is left idle holds no more than one that has served without faults."""

from __future__ import annotations

from types import SimpleNamespace
from typing import Any, Iterable

import pytest

from chaos.ledger import Ledger
from chaos.stdio_client import IDS_LIMIT, LOOKED_AT, REST_LOOKS, StdioClient, _Life

REST = (2, 7, 40)


@pytest.fixture(autouse=True)
def no_pauses(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr("chaos.stdio_client.REST_WAIT", 0)


def look(held: Iterable[tuple[int, int, int]], processes: int = 1, alive: int = REST_LOOKS) -> Any:
    """What a ledger has after a client has looked at a server that ends after `alive` looks."""
    ledger, looks, pings = Ledger(), iter(held), iter([True] * alive)
    stage = SimpleNamespace(stdio_rest=REST, stdio_holdings=lambda server: next(looks))
    server = SimpleNamespace(processes=lambda: list(range(processes)))
    client = StdioClient("a", "1", stage, ledger, 0)  # type: ignore[arg-type]
    life = SimpleNamespace(rest=lambda: next(pings, False))
    client._expect_nothing_held(life, server)  # type: ignore[arg-type]
    return ledger


@pytest.mark.parametrize("held", [
    [REST], [(1, 6, 40)], [(3, 7, 40), (2, 8, 40), (2, 7, 41), REST]])
def test_what_is_held_for_a_moment_is_none_of_it(held):
    ledger = look(held)
    assert ledger.violations == [] and ledger.counts[LOOKED_AT] == 1


@pytest.mark.parametrize("held", [(3, 7, 40), (2, 8, 40), (2, 7, 41)])
def test_a_thread_a_descriptor_and_a_handle_that_stay(held):
    ledger = look([held] * REST_LOOKS)
    assert ledger.violations == [
        "round 0: a: an idle stdio server keeps 0 processes, and of threads, descriptors and "
        f"handles {held} instead of {REST}"]
    assert ledger.counts[LOOKED_AT] == 0


def test_a_process_that_stays():
    assert "keeps 1 processes" in look([REST] * REST_LOOKS, processes=2).violations[0]


def test_a_server_that_has_ended_holds_nothing():
    ledger = look([(3, 7, 40)], alive=1)
    assert ledger.violations == [] and ledger.counts[LOOKED_AT] == 0


def life(deaf: bool = False, has_ended: bool = False) -> _Life:
    client = SimpleNamespace(rng=None, ledger=Ledger())
    acts = SimpleNamespace(ping=lambda: (SimpleNamespace(id="1", tool=False), b""))
    made = _Life(client, SimpleNamespace(marker="m"), acts, deaf)  # type: ignore[arg-type]
    made.has_ended = has_ended
    made._send = lambda data: None  # type: ignore[method-assign]
    made._read_line = made.open.clear  # type: ignore[method-assign]
    return made


def test_looks_do_not_use_up_the_ids_of_a_client():
    resting = life()
    resting.ids = IDS_LIMIT
    assert all(resting.rest() for _ in range(REST_LOOKS))


@pytest.mark.parametrize("deaf, has_ended", [(True, False), (False, True)])
def test_a_server_without_replies_is_not_looked_at(deaf, has_ended):
    assert not life(deaf, has_ended).rest()


@pytest.mark.parametrize("stopping, looks", [(True, 1), (False, 0)])
def test_a_server_is_looked_at_when_the_round_ends(monkeypatch, stopping, looks):
    ledger, done = Ledger(), []
    stage = SimpleNamespace(start_stdio=lambda unread: SimpleNamespace(marker="m"))
    client = StdioClient("a", "1", stage, ledger, 0)  # type: ignore[arg-type]
    if stopping:
        client.stopping.set()
    for name in ("initialize", "act", "end"):
        monkeypatch.setattr(_Life, name, lambda self: None)
    monkeypatch.setattr(client, "_expect_nothing_left", lambda server: None)
    monkeypatch.setattr(client, "_expect_nothing_held", lambda *_: done.append(1))
    client._live()
    assert len(done) == looks
