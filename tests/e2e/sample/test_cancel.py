"""Statements whose client goes away end at the engine."""

from __future__ import annotations

import socket
import sqlite3
import struct
from contextlib import closing
from typing import Callable

import pytest

from harness.sample_engine import ENDLESS, FETCH, MORE, Client, Engine, frame, read_database
from harness.sockets import has_read
from harness.waiting import TIMEOUT, wait_until

pytestmark = pytest.mark.sample_engine


INTERRUPTIBLE = {
    "select": f"SELECT COUNT(*) FROM {ENDLESS};",
    "sort": f"SELECT N FROM {ENDLESS} WHERE N < 0;",
    "insert": f"INSERT INTO PARTS SELECT 1, N FROM {ENDLESS};",
    "update": f"UPDATE ITEMS SET PRICE = (SELECT COUNT(*) FROM {ENDLESS});",
}


@pytest.mark.parametrize("statement", INTERRUPTIBLE.values(), ids=INTERRUPTIBLE.keys())
def test_a_statement_ends_with_its_client(engine: Engine, client: Client, statement: str) -> None:
    process = client.start(engine.port, statement)
    wait_until(lambda: engine.logged("LOGIN -> OK"))
    engine.wait_until_busy(engine.cpu_seconds())
    assert not engine.logged("FROM C") and process.poll() is None
    process.kill()
    assert wait_until(lambda: engine.logged("FROM C", "-> interrupted")) < 1
    process.wait(TIMEOUT)
    process.stdin.close()
    process.stdout.close()
    wait_until(engine.serves_nobody)
    assert read_database(engine.data / "shop.db", "SELECT COUNT(*) FROM PARTS") == [(0,)]
    assert read_database(engine.data / "shop.db", "SELECT SUM(PRICE) FROM ITEMS WHERE ID < 3") == [
        (3.5,)]


@pytest.mark.parametrize("leave", [lambda s: s.close(), lambda s: s.shutdown(socket.SHUT_WR)],
                         ids=["close", "half-close"])
def test_a_statement_ends_when_its_socket_closes(engine: Engine,
                                                 leave: Callable[[socket.socket], None]) -> None:
    with engine.session() as session:
        before = engine.cpu_seconds()
        session.start(f"SELECT COUNT(*) FROM {ENDLESS};")
        engine.wait_until_busy(before)
        leave(session.socket)
        assert wait_until(lambda: engine.logged("COUNT(*)", "-> interrupted")) < 1


def test_a_fetch_ends_with_its_client(engine: Engine) -> None:
    with engine.session() as session:
        reply = session.run(f"SELECT N FROM {ENDLESS} WHERE N < 200 OR N < 0;")
        assert reply.end == MORE
        before = engine.cpu_seconds()
        session.send(frame(FETCH, struct.pack(">I", 1)))
        engine.wait_until_busy(before)
    assert wait_until(lambda: engine.logged("(fetch) -> interrupted")) < 1


def test_a_wait_for_a_busy_database_ends_with_its_client(engine: Engine) -> None:
    with closing(sqlite3.connect(engine.data / "shop.db", isolation_level=None)) as other:
        with engine.session() as session:
            assert session.run("list table;").success
            other.execute("BEGIN IMMEDIATE")
            session.start("DELETE FROM ITEMS;")
            wait_until(lambda: has_read(session.socket))
        assert wait_until(lambda: engine.logged("DELETE", "-> interrupted")) < 1
        other.execute("ROLLBACK")
    assert read_database(engine.data / "shop.db", "SELECT COUNT(*) FROM ITEMS") == [(3,)]
