"""Replies while a tool call runs. One call runs during all tests of this file."""

from __future__ import annotations

import time
from typing import Iterator

import pytest

from harness.messages import (OVERSIZE_ERROR, busy, call, cancel, cancelled_reply, notification,
                              ping, pong, request)
from harness.scripted_library import Script, ScriptedLibrary
from harness.servers import Server

BOM = b"\xef\xbb\xbf"


@pytest.fixture(scope="module")
def running_call(module_servers, module_engine: ScriptedLibrary) -> Iterator[Server]:
    module_engine.script(Script().on_exec("list table;", hang=True))
    server = module_servers.start(env=module_engine.env)
    server.initialize()
    server.send(call("running", "kova_list_tables"))
    module_engine.wait_for_statement("list table;")
    yield server
    server.send(cancel("running"))
    while server.read_line() != cancelled_reply('"running"'):
        pass  # left unread by a failed test


@pytest.fixture
def running(running_call: Server) -> Server:
    running_call.drop_pending()
    return running_call


def silent(server: Server, message: bytes) -> None:
    """The message gets no reply: the next reply is the following request's."""
    server.send(message)
    assert server.ask(ping("fence")) == busy('"fence"')


@pytest.mark.parametrize("method", [
    "ping", "initialize", "tools/list", "tools/call", "nothing", "", "notifications/initialized",
    "notifications/cancelled", "m" * 95])
def test_every_method_is_refused(running, method):
    assert running.ask(request(method, 7)) == busy(7)


def test_a_call_is_refused(running):
    assert running.ask(call("x", "kova_list_databases", {})) == busy('"x"')


@pytest.mark.parametrize("raw", [
    b"7", b"-7.50", b"1E+05", b"true", b"false", b"null", b'"a"', b'""', b'"null"',
    b'"\\u0041\\/"', b'"\\ud800"', b'"\xc3\xa9"', b"{}", b"[]", b"[ 1,\t2 ]",
    b'{ "a" : "\\u0041" }',
    b'"' + b"x" * 97 + b'"', b"9" * 99, b"[" + b" " * 97 + b"]", b'"' + b"\\u0041" * 16 + b'"',
], ids=lambda raw: repr(raw)[:30])
def test_the_id_is_echoed_as_it_came(running, raw):
    sent = b'{"jsonrpc":"2.0","id":' + raw + b',"method":"ping"}\n'
    assert running.ask(sent) == busy(raw.decode())


@pytest.mark.parametrize("raw", [
    b'"' + b"x" * 98 + b'"', b"9" * 100, b"[" + b" " * 98 + b"]", b'"' + b"\\u0041" * 17 + b'"'],
    ids=lambda raw: repr(raw)[:30])
def test_an_id_of_100_characters_is_not_answered(running, raw):
    silent(running, b'{"jsonrpc":"2.0","id":' + raw + b',"method":"ping"}\n')


@pytest.mark.parametrize("message, raw_id", [
    (b'{"id":1,"method":"ping"}', 1),
    (b'{"jsonrpc":"1.0","id":2,"method":"ping"}', 2),
    (b'{"jsonrpc":{},"id":3,"method":"ping","params":7}', 3),
    # Duplicate keys are not checked here; the first one counts.
    (b'{"jsonrpc":"2.0","id":4,"id":5,"method":"ping"}', 4),
    (b'{"jsonrpc":"2.0","id":"a","id":"b","id":"c","method":"ping","method":7}', '"a"'),
    (b'{"jsonrpc":"2.0","id":6,"method":"ping","x":1,"x":2}', 6),
    (b'{"jsonrpc":"2.0","\\u0069d":7,"id":8,"method":"ping"}', 8),
    (b'{"jsonrpc":"2.0","id":9,"method":"notifications/cancelled","params":{"requestId":"other"}}',
     9),
    (b' {"jsonrpc":"2.0","id" : 10 ,"method":"ping"} ', 10),
    (b'{"jsonrpc":"2.0","id":11,"method":"' + "é".encode() * 47 + b'"}', 11),
], ids=lambda value: repr(value)[:60])
def test_the_envelope_is_not_judged(running, message, raw_id):
    assert running.ask(message + b"\n") == busy(raw_id)


@pytest.mark.parametrize("message", [
    notification("notifications/initialized"),
    notification("ping"),
    notification("tools/call", {"name": "kova_list_tables"}),
    cancel("other"),
    cancel(None),
    notification("notifications/cancelled", {}),
    notification("notifications/cancelled", []),
    notification("notifications/cancelled"),
    b'{"jsonrpc":"2.0","\\u0069d":1,"method":"ping"}\n',
    # No id can be read from these.
    b"x\n",
    b"{}\n",
    b'{"id":1}\n',
    b'{"jsonrpc":"2.0","id":1,"method":7}\n',
    b'{"jsonrpc":"2.0","id":1,"method":"\\ud800"}\n',
    request("m" * 96, 1),
    request("é" * 48, 1),
    b'[{"jsonrpc":"2.0","id":1,"method":"ping"}]\n',
    b'{"jsonrpc":"2.0","id":1,"method":"ping"\n',
    b'{"jsonrpc":"2.0","id":1,"method":"ping","x":"\xff"}\n',
    b'{"jsonrpc":"2.0","id":1,"method":"ping","x":' + b"[" * 129 + b"]" * 129 + b"}\n",
    b'{"jsonrpc":"2.0","id":1,"method":"ping","x":[' + b",".join([b"1"] * 4096) + b"]}\n",
    BOM + ping(1),
    b"\n",
    b"\r\n",
    b"\0\n",
    b" \n",
], ids=lambda message: repr(message)[:60])
def test_what_gets_no_answer(running, message):
    silent(running, message)


def test_framing_errors_are_answered(running):
    assert running.ask(b"x" * 1048577 + b"\n") == OVERSIZE_ERROR
    running.send(b"x\0\n" + ping("lost") + ping("fence"))
    assert running.read_line() == OVERSIZE_ERROR
    assert running.read_line() == busy('"fence"')


def test_a_request_waits_a_moment_before_it_is_refused(running):
    """A call that is about to end costs the next request no refusal."""
    started = time.monotonic()
    assert running.ask(ping("waits")) == busy('"waits"')
    assert time.monotonic() - started > 0.03


def test_refused_requests_are_answered_in_their_order(running):
    running.send(b"".join(ping(number) for number in range(5)))
    assert [running.read_line() for _ in range(5)] == [busy(number) for number in range(5)]


def test_a_refused_id_is_not_used_up(start, engine):
    engine.script(Script().on_exec("list table;", hang=True))
    server = start(env=engine.env)
    server.initialize()
    server.send(call("running", "kova_list_tables"))
    engine.wait_for_statement("list table;")
    assert server.ask(ping("again")) == busy('"again"')
    server.send(cancel("running"))
    assert server.read_line() == cancelled_reply('"running"')
    assert server.ask(ping("again")) == pong('"again"')


def test_a_refused_initialize_has_no_effect(start, engine):
    engine.script(Script().on_exec("list table;", hang=True))
    server = start(env=engine.env)
    server.send(call("running", "kova_list_tables"))
    engine.wait_for_statement("list table;")
    assert server.ask(request("initialize", 1)) == busy(1)
    server.send(cancel("running"))
    assert server.read_line() == cancelled_reply('"running"')
    assert b"server is not initialized" in server.ask(ping(2))
    assert b"protocolVersion" in server.ask(request("initialize", 1))


def test_a_quick_call_does_not_leave_the_server_busy(start, policy):
    """The next message waits a little for a call that is about to end."""
    server = start(env=policy())
    server.initialize()
    for number in range(10):
        assert b'"isError":false' in server.ask(call(number, "kova_list_tables"))
        assert server.ask(ping(number)) == pong(number)
