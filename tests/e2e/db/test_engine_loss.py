"""An engine that goes away, hangs or comes back, seen through the server and the sample library."""

from __future__ import annotations

import json
import signal
import time
from pathlib import Path
from typing import Any, Callable

import pytest

from harness import audit_files
from harness.messages import (WORKER_FAILED, call, cancel, cancelled_reply, ping, pong,
                              tool_error_reply)
from harness.sample_engine import ENDLESS, SHOP, USER, Engine, make_database
from harness.servers import Server, Servers
from harness.waiting import TIMEOUT, wait_until

UNAVAILABLE = "authenticated Vantreo profile is unavailable"
DATABASE = SHOP + f"""
CREATE VIEW FOREVER AS SELECT N FROM {ENDLESS};
CREATE VIEW TRICKLE AS SELECT A, (SELECT COUNT(*) FROM (
    WITH RECURSIVE C(N) AS (SELECT 1 UNION ALL SELECT N+1+0*A FROM C LIMIT 200000) SELECT N FROM C
    )) AS B FROM (SELECT N AS A FROM {ENDLESS});
"""
ENDLESS_QUERY = call("slow", "kova_query", {"sql": "SELECT COUNT(N) FROM FOREVER"})
QUERY = {"sql": "SELECT NAME FROM ITEMS WHERE ID = 1"}


@pytest.fixture
def engine(start_sample_engine: Callable[..., Engine], tmp_path: Path) -> Engine:
    (tmp_path / "data").mkdir()
    make_database(tmp_path / "data" / "shop.db", DATABASE)
    return start_sample_engine()


@pytest.fixture
def start_server(servers: Servers, tmp_path: Path) -> Callable[..., Server]:
    def start(engine: Engine, **env: Any) -> Server:
        settings = {**engine.profile(), "KOVA_MCP_CLIENT_ID": "desk-client",
                    "KOVA_MCP_AUDIT": tmp_path / "audit", **env}
        server = servers.start(env=settings, library="sample")
        server.initialize()
        return server

    return start


@pytest.fixture
def server(engine, start_server, policy) -> Server:
    env = policy(allowed_tables=["ITEMS", "FOREVER", "TRICKLE"], database="shop",
                 database_user=USER)
    return start_server(engine, KOVA_MCP_POLICY=env["KOVA_MCP_POLICY"])


def works(server: Server) -> None:
    result = json.loads(server.ask(call("next", "kova_query", QUERY)))["result"]
    assert result["isError"] is False
    assert result["structuredContent"]["rows"] == [["one"]]


def is_failure(reply: bytes) -> bool:
    if reply == WORKER_FAILED:
        return True
    result = json.loads(reply)["result"]
    return result["isError"] is True and result["content"][0]["text"] != ""


def begin(server: Server, engine: Engine) -> None:
    """Sends a call without an end and waits until the engine is busy with it."""
    before = engine.cpu_seconds()
    server.send(ENDLESS_QUERY)
    engine.wait_until_busy(before)


def nothing_is_left(server: Server) -> None:
    wait_until(lambda: server.processes() == [server.process.pid], 3, "the end of the worker")
    if not server.target.windows:
        assert server.zombies() == []


@pytest.mark.parametrize("how", [signal.SIGKILL, signal.SIGTERM], ids=lambda how: how.name)
def test_an_engine_that_ends_in_the_middle_of_a_statement(server, engine, start_sample_engine, how):
    begin(server, engine)
    engine.process.send_signal(how)
    ended = time.monotonic()
    reply = server.read_line()
    assert time.monotonic() - ended < 1
    assert is_failure(reply)
    engine.stop()
    nothing_is_left(server)
    assert server.ask(call(2, "kova_query", QUERY)) == tool_error_reply("2", UNAVAILABLE)
    assert server.ask(ping(3)) == pong(3)
    start_sample_engine("--port", str(engine.port))
    works(server)


def test_an_engine_that_ends_in_the_middle_of_a_result(server, engine, start_sample_engine):
    """The library cannot tell a failure from the end of the rows: the call returns those so far."""
    server.send(call("rows", "kova_query", {"sql": "SELECT A FROM TRICKLE WHERE B > 0"}))
    wait_until(lambda: engine.logged("FROM TRICKLE", "-> OK"), TIMEOUT, "the first rows")
    engine.wait_until_busy(engine.cpu_seconds())  # With the next rows: it has sent the first ones.
    engine.process.send_signal(signal.SIGKILL)
    ended = time.monotonic()
    reply = server.read_line()
    assert time.monotonic() - ended < 1
    engine.stop()
    result = json.loads(reply)["result"]["structuredContent"]
    count = result["rowCount"]
    assert (result["status"], result["truncated"]) == ("OK", False)
    assert result["rows"] == [[str(number + 1)] for number in range(count)] != []
    nothing_is_left(server)
    start_sample_engine("--port", str(engine.port))
    works(server)


def test_an_engine_that_ends_while_it_is_logged_in_to(server, engine, start_sample_engine):
    """While stopped, it accepts connections and sends nothing."""
    engine.process.send_signal(signal.SIGSTOP)
    server.send(call("login", "kova_query", QUERY))
    wait_until(lambda: server.workers() != [], TIMEOUT, "the worker")
    server.expect_silence(0.3)
    engine.process.send_signal(signal.SIGKILL)
    ended = time.monotonic()
    assert server.read_line() == tool_error_reply('"login"', UNAVAILABLE)
    assert time.monotonic() - ended < 1
    engine.stop()
    start_sample_engine("--port", str(engine.port))
    works(server)


def test_an_engine_that_hangs_does_not_hold_a_cancel(server, engine):
    begin(server, engine)
    engine.process.send_signal(signal.SIGSTOP)
    began = time.monotonic()
    server.send(cancel("slow"))
    assert server.read_line() == cancelled_reply('"slow"')
    assert time.monotonic() - began < 1
    nothing_is_left(server)
    engine.process.send_signal(signal.SIGCONT)
    works(server)


def test_a_cancel_ends_the_statement(server, engine):
    begin(server, engine)
    server.send(cancel("slow"))
    assert server.read_line() == cancelled_reply('"slow"')
    wait_until(lambda: engine.logged("FOREVER", "-> interrupted"), 1, "the statement's end")
    works(server)
    recorded = audit_files.records(engine.folder / "audit")
    assert [record["correlation_id"] for record in recorded] == ["next"]


def test_a_killed_server_ends_the_statement(server, engine):
    """A client that crashes during a call kills its server so."""
    begin(server, engine)
    server.kill()
    wait_until(lambda: engine.logged("FOREVER", "-> interrupted"), 2, "the statement's end")
    server.expect_no_process()


def test_an_engine_that_was_away_between_two_calls(server, engine, start_sample_engine):
    works(server)
    engine.stop()
    assert server.ask(call(1, "kova_query", QUERY)) == tool_error_reply("1", UNAVAILABLE)
    start_sample_engine("--port", str(engine.port))
    works(server)
    recorded = audit_files.records(engine.folder / "audit")
    assert [(record["objects"], record["status"]) for record in recorded] == [
        ("policy-select", "ok"), ("policy-select", "error"), ("policy-select", "ok")]


def test_a_session_that_has_lost_its_engine_stays_as_it_is(engine, start_sample_engine,
                                                           start_server):
    """Calls in the server process share one session. A lost one is kept: its statements fail."""
    server = start_server(engine)

    def ask(number: int) -> dict[str, Any]:
        raw_id = '"' + "\\u0041" * 17 + str(number) + '"'
        return json.loads(server.ask(
            b'{"jsonrpc":"2.0","id":%s,"method":"tools/call","params":{"name":"kova_list_tables"}}'
            b"\n" % raw_id.encode()))["result"]

    assert ask(1)["isError"] is False
    engine.stop(signal.SIGKILL)
    lost = ask(2)
    assert lost["isError"] is True and lost["content"][0]["text"] != UNAVAILABLE
    start_sample_engine("--port", str(engine.port))
    assert ask(3) == lost
    works(server)


@pytest.mark.parametrize("changes", [
    {"KOVA_MCP_PASSWORD": "wrong"}, {"KOVA_MCP_USER": "stranger"}, {"KOVA_MCP_DATABASE": "none"}],
    ids=str)
def test_an_engine_that_refuses_the_profile(engine, start_server, changes):
    server = start_server(engine, **changes)
    assert server.ask(call(1, "kova_list_tables")) == tool_error_reply("1", UNAVAILABLE)
    assert server.ask(ping(2)) == pong(2)


@pytest.mark.parametrize("sql, words", [
    ("SELECT ABSENT FROM ITEMS", "no such column: ABSENT"),
    ("SELECT NAME FROM ITEMS WHERE", 'near ";": syntax error')])
def test_the_engine_s_own_words(server, sql, words):
    result = json.loads(server.ask(call(1, "kova_query", {"sql": sql})))["result"]
    assert result == {"content": [{"type": "text", "text": words}], "isError": True}
    works(server)
