"""Cancelling a call: which cancel matches, and the reply of the call."""

from __future__ import annotations

import json
import time
from typing import Iterator

import pytest

from harness.messages import (busy, call, cancel, cancelled_reply, error_reply, notification, ping,
                              pong, request)
from harness.scripted_library import Script, ScriptedLibrary
from harness.servers import Server, Servers
from harness.waiting import TIMEOUT, wait_until

pytestmark = pytest.mark.threads

STATEMENT = "list table;"


@pytest.fixture(scope="module")
def hanging_engine(module_engine: ScriptedLibrary) -> ScriptedLibrary:
    module_engine.script(Script().on_exec(STATEMENT, hang=True))
    return module_engine


class SharedServer:
    """A server whose calls of kova_list_tables hang. Each test ends its own call; where one is left
    running, the server is killed and the next test gets a new one."""

    def __init__(self, servers: Servers, engine: ScriptedLibrary) -> None:
        self._servers = servers
        self._engine = engine
        self._server: Server | None = None

    def get(self) -> Server:
        if self._server is None:
            self._server = self._servers.start(env=self._engine.env)
            self._server.initialize()
        return self._server

    def give_back(self) -> None:
        server, self._server = self.get(), None
        server.send(b'{"jsonrpc":"1","id":"idle","method":"ping"}\n')
        while (reply := server.read_line()) != busy('"idle"'):
            if b'"idle"' in reply:
                self._server = server
                return
        server.kill()


@pytest.fixture(scope="module")
def shared(module_servers: Servers, hanging_engine: ScriptedLibrary) -> SharedServer:
    return SharedServer(module_servers, hanging_engine)


@pytest.fixture
def server(shared: SharedServer) -> Iterator[Server]:
    yield shared.get()
    shared.give_back()


def raw_call(raw_id: str) -> bytes:
    return ('{"jsonrpc":"2.0","id":%s,"method":"tools/call",'
            '"params":{"name":"kova_list_tables"}}\n' % raw_id).encode()


def raw_cancel(request_id: str) -> bytes:
    return ('{"jsonrpc":"2.0","method":"notifications/cancelled",'
            '"params":{"requestId":%s}}\n' % request_id).encode()


def begin(server: Server, engine: ScriptedLibrary, raw_id: str) -> None:
    before = engine.statements().count(STATEMENT.encode())
    server.send(raw_call(raw_id))
    engine.wait_for_statement(STATEMENT, before + 1)


def expect_still_running(server: Server) -> None:
    assert server.ask(ping("fence")) == busy('"fence"')


LONG = "L" * 94  # with its quotation marks at the limit of ids that are compared
HEAVY = "\\u0041" * 15 + "B" * 3  # 93 characters that decode to 18


@pytest.mark.parametrize("raw_id, request_id", [
    ('"abc"', '"abc"'), ("7", "7"), ("7", '"7"'), ('"7"', "7"), ("-1.50", "-1.50"),
    ("1E+2", '"1E+2"'), ("true", "true"), ("true", '"true"'), ('"true"', "true"),
    ("false", '"false"'), ('"null "', '"null "'), ('"é€"', '"é€"'), ('"é"', '"\\u00e9"'),
    ('" x "', '" x "'), ('"a/b"', '"a\\/b"'),
    # The requestId is decoded, the call's own id is not.
    ('"abc"', '"\\u0061bc"'), ('"a\\u0062c"', '"a\\\\u0062c"'), ('"a\\"b"', '"a\\\\\\"b"'),
    ('"a\\/b"', '"a\\\\/b"'),
    # A requestId that is not a string is compared by its raw text.
    ('"[1, 2]"', "[1, 2]"), ('"{}"', "{}"), ('"a[1]"', '"a[1]"'),
    # A decoded NUL ends the requestId.
    ('"cut"', '"cut\\u0000off"'),
    (f'"{LONG}"', f'"{LONG}"'),
    (f'"{HEAVY}"', f'"{HEAVY}"'.replace("\\", "\\\\")),
    # Ids that are empty or too long to be kept.
    ('""', '"invalid"'), (f'"{LONG}M"', '"invalid"'), (f'"{HEAVY}CDEF"', '"invalid"'),
    ('"invalid"', '"invalid"'),
    ("9" * 95, "9" * 95),
], ids=lambda raw: raw[:40])
def test_a_cancel_that_matches(server, hanging_engine, raw_id, request_id):
    begin(server, hanging_engine, raw_id)
    server.send(raw_cancel(request_id))
    assert server.read_line() == cancelled_reply(raw_id)


@pytest.mark.parametrize("raw_id, request_ids", [
    ('"abc"', ['"ABC"', '"ab"', '"abcd"', '"abc "', '" abc"', '""', '"invalid"', "null", "7",
               '["abc"]', "[]", '"\\"abc\\""', '"\\ud800"', '"abc\\ud800"']),
    ("7", ["7.0", '"07"', "70", "0.7e1", '" 7"', "-7", "[7]"]),
    ("true", ["false", '"True"', "1"]),
    ('"a\\u0062c"', ['"abc"', '"a\\u0062c"', '"A\\\\u0062c"']),
    ('"a\\"b"', ['"a\\"b"']),
    ('""', ['""', '"Invalid"', "null"]),
    (f'"{LONG}M"', [f'"{LONG}M"', f'"{LONG}"', '""']),
    ('"x"', [f'"x{"y" * 95}"', f'"{"x" * 96}"', "9" * 96]),
], ids=lambda value: value[:30] if isinstance(value, str) else "")
def test_a_cancel_that_does_not_match(server, hanging_engine, raw_id, request_ids):
    begin(server, hanging_engine, raw_id)
    for request_id in request_ids:
        server.send(raw_cancel(request_id))
    expect_still_running(server)
    text = raw_id[1:-1] if raw_id.startswith('"') else raw_id
    server.send(cancel(text if 0 < len(text) <= 94 else "invalid"))
    assert server.read_line() == cancelled_reply(raw_id)


@pytest.mark.parametrize("message", [
    # Neither the envelope nor duplicate keys are checked.
    b'{"method":"notifications/cancelled","params":{"requestId":"m"}}',
    b'{"jsonrpc":7,"method":"notifications/cancelled","params":{"requestId":"m"}}',
    b'{"jsonrpc":"2.0","method":"notifications\\/cancelled","params":{"requestId":"m"}}',
    b'{"jsonrpc":"2.0","method":"\\u006eotifications/cancelled","params":{"requestId":"m"}}',
    b'{"params":{"requestId":"m","reason":"why","requestId":"n"},"method":"notifications/cancelled"'
    b',"method":"ping","params":{}}',
    # A cancel with an id of its own still cancels, and gets no reply.
    b'{"jsonrpc":"2.0","id":1,"method":"notifications/cancelled","params":{"requestId":"m"}}',
    b'{"jsonrpc":"2.0","id":null,"method":"notifications/cancelled","params":{"requestId":"m"}}',
    b'{"jsonrpc":"2.0","id":{},"method":"notifications/cancelled","params":{"requestId":"m"}}',
    b'{"jsonrpc":"2.0","id":"' + b"x" * 97 + b'","method":"notifications/cancelled",'
    b'"params":{"requestId":"m"}}',
    b'{"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":"m"}}\r',
], ids=repr)
def test_what_is_a_cancel(server, hanging_engine, message):
    begin(server, hanging_engine, '"m"')
    server.send(message + b"\n")
    assert server.read_line() == cancelled_reply('"m"')
    server.expect_silence(0.05)


@pytest.mark.parametrize("message", [
    b'{"jsonrpc":"2.0","method":"notifications/cancelled","params":["m"]}',
    b'{"jsonrpc":"2.0","method":"notifications/cancelled","params":"m"}',
    b'{"jsonrpc":"2.0","method":"notifications/cancelled","requestId":"m"}',
    b'{"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestid":"m"}}',
    b'{"jsonrpc":"2.0","method":"notifications/cancelled","params":{"x":{"requestId":"m"}}}',
    b'{"jsonrpc":"2.0","method":"notifications/cancelled","params":{"\\u0072equestId":"m"}}',
    b'{"jsonrpc":"2.0","\\u006dethod":"notifications/cancelled","params":{"requestId":"m"}}',
    b'{"jsonrpc":"2.0","method":"notifications/canceled","params":{"requestId":"m"}}',
    b'{"jsonrpc":"2.0","method":"Notifications/cancelled","params":{"requestId":"m"}}',
    b'{"jsonrpc":"2.0","id":"' + b"x" * 98 + b'","method":"notifications/cancelled",'
    b'"params":{"requestId":"m"}}',
    b'{"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":"m"}',
    b'[{"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":"m"}}]',
], ids=repr)
def test_what_is_no_cancel(server, hanging_engine, message):
    begin(server, hanging_engine, '"m"')
    server.send(message + b"\n")
    expect_still_running(server)
    server.send(cancel("m"))
    assert server.read_line() == cancelled_reply('"m"')


def test_an_unmatched_cancel_with_an_id_is_refused_as_busy(server, hanging_engine):
    begin(server, hanging_engine, '"m"')
    assert server.ask(request("notifications/cancelled", "c", {"requestId": "n"})) == busy('"c"')
    server.send(cancel("m"))
    assert server.read_line() == cancelled_reply('"m"')


def test_a_second_cancel_gets_no_second_reply(server, hanging_engine):
    begin(server, hanging_engine, "31")
    server.send(cancel(31) * 3)
    assert server.read_line() == cancelled_reply("31")
    assert server.ask(ping("fence-31")) == pong('"fence-31"')


def test_a_cancel_of_the_last_call_does_not_reach_the_next(server, hanging_engine):
    begin(server, hanging_engine, "41")
    server.send(cancel(41))
    assert server.read_line() == cancelled_reply("41")
    server.send(cancel(41))
    begin(server, hanging_engine, "42")
    server.send(cancel(41))
    expect_still_running(server)
    server.send(cancel(42))
    assert server.read_line() == cancelled_reply("42")


def test_the_same_id_can_be_called_and_cancelled_again(server, hanging_engine):
    for _ in range(3):
        begin(server, hanging_engine, '"same"')
        server.send(cancel("same"))
        assert server.read_line() == cancelled_reply('"same"')


@pytest.mark.parametrize("message", [cancel("idle"), cancel(7), notification(
    "notifications/cancelled", {}), notification("notifications/cancelled")])
def test_a_cancel_while_idle_is_ignored(run, message):
    assert run(stdin=message + request("initialize", 1) + message + ping(2)).lines[1:] == [
        pong(2)[:-1]]


def test_a_cancel_while_idle_must_not_have_an_id(run):
    sent = request("notifications/cancelled", "c", {"requestId": "x"})
    assert run(stdin=sent).stdout == error_reply('"c"', -32600,
                                                 "notifications must not contain an id")


def test_a_cancelled_call_leaves_no_audit_record(start, engine, policy, tmp_path):
    engine.script(Script().on_exec("SELECT 1;", hang=True))
    server = start(env={**policy(), **engine.env, "KOVA_MCP_AUDIT": tmp_path / "audit.log"})
    server.send(call("q", "kova_query", {"sql": "SELECT 1"}))
    engine.wait_for_statement("SELECT 1;")
    server.send(cancel("q"))
    assert server.read_line() == cancelled_reply('"q"')
    assert not (tmp_path / "audit.log").exists()


def test_a_cancelled_call_closes_nothing_and_says_nothing(start, engine):
    """The child is killed: it does not disconnect."""
    engine.script(Script().on_exec(STATEMENT, stderr="seen\n", hang=True))
    server = start(env=engine.env)
    begin(server, engine, "1")
    server.wait_for_stderr("seen\n")
    server.send(cancel(1))
    assert server.read_line() == cancelled_reply("1")
    assert "FreeObject" not in engine.operations()
    assert server.finish().stderr == b"seen\n"


@pytest.mark.parametrize("moment", [
    "CreateVantreoInstance", "DisableMessage", "StartVantreo", "NewObject", "Exec", "Status",
    "FieldCount", "FieldName", "Next", "DataByFno", "FreeObject", "StopVantreo"])
def test_a_cancel_in_every_moment_of_a_call(start, engine, moment):
    """Also after the child has replied: its reply is discarded."""
    script = Script().on(moment, hang=True) if moment != "Exec" else Script()
    script.on_exec(STATEMENT, hang=moment == "Exec", columns=["A"], rows=[["1"]])
    engine.script(script)
    server = start(env=engine.env)
    server.send(raw_call('"c"'))
    if moment == "Exec":
        engine.wait_for_statement(STATEMENT)
    else:
        engine.wait_for(moment)
    assert server.ask(ping("b")) == busy('"b"')
    server.send(cancel("c"))
    assert server.read_line() == cancelled_reply('"c"')
    assert server.finish().stdout.count(b"\n") == 2


def test_a_cancel_together_with_its_call(start, engine):
    """The cancel may come before the child exists."""
    engine.script(Script().on_exec(STATEMENT, hang=True))
    server = start(env=engine.env)
    for number in range(20):
        server.send(raw_call(str(number)) + cancel(number))
        assert server.read_line() == cancelled_reply(str(number))
    assert server.ask(ping("after")).startswith(b'{"jsonrpc":"2.0","id":"after"')


@pytest.mark.parametrize("delay", [0.0, 0.001, 0.002, 0.004, 0.008, 0.016, 0.03, 0.06])
def test_a_cancel_that_races_with_the_reply(start, policy, delay):
    """Whichever comes first, the call gets exactly one reply and the server continues. On a loaded
    machine it may be busy for more than 50 ms after the reply, and then says so."""
    server = start(env=policy())
    refused = 0

    def ping_passes() -> bool:
        nonlocal refused
        reply = server.ask(ping("p"))
        if reply == busy('"p"'):
            refused += 1
            return False
        assert json.loads(reply)["error"]["code"] in (-32002, -32600)
        return True

    for number in range(5):
        server.send(call(number, "kova_list_tables"))
        time.sleep(delay)
        server.send(cancel(number))
        reply = server.read_line()
        assert reply == cancelled_reply(str(number)) or b'["ORDERS"]' in reply
        wait_until(ping_passes, TIMEOUT, "the end of the call")
    assert server.finish().stdout.count(b"\n") == 10 + refused
