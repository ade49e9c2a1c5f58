"""The envelope's checks in their order, the handshake, the ids and the methods."""

from __future__ import annotations

import json

import pytest

from harness.messages import (PARSE_ERROR, call, cancel, error_reply, line, not_initialized,
                              notification, ping, pong, request, result_reply)
from harness.servers import Server

BAD_VERSION = (-32600, "jsonrpc must be 2.0")
NO_METHOD = (-32600, "method is required")
BAD_ID = (-32600, "request id is invalid or already used")
ID_IN_NOTIFICATION = (-32600, "notifications must not contain an id")
INITIALIZED = (-32600, "server is already initialized")
UNKNOWN = (-32601, "method not found")
INITIALIZE_RESULT = (
    '{"protocolVersion":"2025-11-25","capabilities":{"tools":{"listChanged":false}},'
    '"serverInfo":{"name":"Vantreo MCP","version":"1.25-m8",'
    '"description":"Policy-constrained Vantreo database and AI search tools"}}')


@pytest.fixture(scope="module")
def server(module_servers) -> Server:
    """An initialized server; its tests use ids of their own."""
    made = module_servers.start()
    made.initialize()
    return made


# the handshake


@pytest.mark.parametrize("params", [None, {}, {"protocolVersion": "1999-01-01"}, [], "x", 7])
def test_initialize(run, params):
    sent = request("initialize", "a", params) + ping(1)
    assert run(stdin=sent).stdout == result_reply('"a"', INITIALIZE_RESULT) + pong(1)


def test_a_second_initialize_with_another_id(run):
    sent = request("initialize", 1) + request("initialize", 2) + request("initialize", "three")
    assert run(stdin=sent).stdout == (result_reply("1", INITIALIZE_RESULT) +
                                      error_reply("2", *INITIALIZED) +
                                      error_reply('"three"', *INITIALIZED))


def test_a_second_initialize_with_the_same_id(run):
    sent = request("initialize", 1) + request("initialize", 1)
    assert run(stdin=sent).stdout == (result_reply("1", INITIALIZE_RESULT) +
                                      error_reply("1", *BAD_ID))


def test_initialize_without_an_id_is_a_notification(run):
    assert run(stdin=notification("initialize") + ping(1)).stdout == not_initialized(1)


@pytest.mark.parametrize("method", ["ping", "tools/list", "nothing", "resources/list", "",
                                    "INITIALIZE", "initialize "])
def test_before_initialize(run, method):
    assert run(stdin=request(method, 1)).stdout == not_initialized(1)


def test_a_refused_initialize_does_not_initialize(run):
    sent = line({"id": 1, "method": "initialize"}) + ping(2)
    assert run(stdin=sent).stdout == error_reply("1", *BAD_VERSION) + not_initialized(2)


def test_no_notification_is_needed_to_begin(run):
    assert run(stdin=request("initialize", 1) + ping(2)).stdout.endswith(pong(2))


def test_initialized_is_no_handshake(run):
    sent = notification("notifications/initialized") + ping(1)
    assert run(stdin=sent).stdout == not_initialized(1)


# the order of the checks: each message has the fault of its row and every later one


@pytest.mark.parametrize("message, reply", [
    (b'{"x":1,"x":2', PARSE_ERROR),
    (b'[{"x":1,"x":2}]', PARSE_ERROR),
    (b'{"x":1,"x":2,"jsonrpc":"1","method":7,"id":{}}', PARSE_ERROR),
    (b'{"jsonrpc":"1","method":7,"id":{"a":[1, 2]}}', error_reply('{"a":[1, 2]}', *BAD_VERSION)),
    (b'{"jsonrpc":"2.0","method":7,"id":[ 1 ]}', error_reply("[ 1 ]", *NO_METHOD)),
    (b'{"jsonrpc":"2.0","method":"notifications/initialized","id":null}',
     error_reply("null", *BAD_ID)),
    (b'{"jsonrpc":"2.0","method":"notifications/initialized","id":"order-1"}',
     error_reply('"order-1"', *ID_IN_NOTIFICATION)),
    (b'{"jsonrpc":"2.0","method":"initialize","id":[]}', error_reply("[]", *BAD_ID)),
    (b'{"jsonrpc":"2.0","method":"nothing","id":"null"}', error_reply('"null"', *BAD_ID)),
    (b'{"jsonrpc":"2.0","method":"nothing","id":"order-2"}', not_initialized('"order-2"')),
], ids=range(10))
def test_the_first_fault_is_answered(run, message, reply):
    assert run(stdin=message + b"\n").stdout == reply


def test_a_used_id_comes_before_everything_behind_it(run):
    sent = request("initialize", 1)
    for method in ("initialize", "ping", "nothing", "notifications/cancelled"):
        sent += request(method, 1)
    assert run(stdin=sent).stdout == (result_reply("1", INITIALIZE_RESULT) +
                                      error_reply("1", *BAD_ID) * 4)


@pytest.mark.parametrize("version", [
    None, "2", "2.0 ", " 2.0", "2.00", "", "2.0.0", "12345678", "1.0", "2.1", "v2.0", 2, True,
    {}, [], [2.0], {"2.0": "2.0"},
], ids=repr)
def test_a_wrong_version(server, version):
    message = {"id": "v", "method": "ping"}
    if version is not None:
        message["jsonrpc"] = version
    assert server.ask(message) == error_reply('"v"', *BAD_VERSION)


@pytest.mark.parametrize("raw", [b"null", b"2.00", b"2", b"2.0e0", b"20e-1", b"-2.0", b'"2.0\\t"',
                                 b'"\\ud800"', b'"2.01234567"', b"[2.0]", b"true"], ids=repr)
def test_a_wrong_version_by_its_text(server, raw):
    assert server.ask(b'{"jsonrpc":' + raw + b',"id":"v","method":"ping"}\n') == error_reply(
        '"v"', *BAD_VERSION)


@pytest.mark.parametrize("number, raw", enumerate([
    b'"2.0"', b"2.0", b'"\\u0032.0"', b'"2\\u002e0"', b'"2.0\\u0000x"']), ids=repr)
def test_a_right_version(server, number, raw):
    sent = b'{"jsonrpc":' + raw + b',"id":"version-%d","method":"ping"}\n' % number
    assert server.ask(sent) == pong(f'"version-{number}"')


@pytest.mark.parametrize("method", [7, True, None, {}, [], ["ping"], "m" * 96, "é" * 48],
                         ids=lambda method: repr(method)[:12])
def test_a_wrong_method(server, method):
    assert server.ask({"jsonrpc": "2.0", "id": "m", "method": method}) == error_reply(
        '"m"', *NO_METHOD)


@pytest.mark.parametrize("message, reply", [
    (b'{"jsonrpc":"2.0","id":"m"}', error_reply('"m"', *NO_METHOD)),
    (b'{"jsonrpc":"2.0"}', error_reply("null", *NO_METHOD)),
    (b'{"jsonrpc":"2.0","method":"\\ud800"}', error_reply("null", *NO_METHOD)),
    (b"{}", error_reply("null", *BAD_VERSION)),
    (b'{"method":"ping"}', error_reply("null", *BAD_VERSION)),
    (b'{"jsonrpc":"2.0","id":[1,{"a": null}],"method":1}',
     error_reply('[1,{"a": null}]', *NO_METHOD)),
    (b'{"jsonrpc":"2.0","id":null,"method":1}', error_reply("null", *NO_METHOD)),
    (b'{"jsonrpc":"1","id":"\\u0041\\/"}', error_reply('"A/"', *BAD_VERSION)),
    (b'{"jsonrpc":"1","id":"' + b"x" * 96 + b'"}', error_reply("null", *BAD_VERSION)),
    (b'{"jsonrpc":"1","id":' + b"9" * 120 + b"}", error_reply("9" * 120, *BAD_VERSION)),
], ids=lambda value: repr(value)[:60])
def test_faults_before_the_id_is_looked_at(server, message, reply):
    assert server.ask(message + b"\n") == reply
    assert server.ask(message + b"\n") == reply


@pytest.mark.parametrize("method, reply", [
    ("m" * 95, error_reply('"length-1"', *UNKNOWN)),
    ("é" * 47, error_reply('"length-2"', *UNKNOWN)),
    ("", error_reply('"length-3"', *UNKNOWN)),
], ids=lambda value: repr(value)[:12])
def test_a_method_of_95_bytes(server, method, reply):
    assert server.ask(request(method, json.loads(reply)["id"])) == reply


# ids


@pytest.mark.parametrize("raw, echoed", [
    (b"7", "7"), (b"-7", "-7"), (b"7.0", "7.0"), (b"1e3", "1e3"), (b"1E+3", "1E+3"), (b"0", "0"),
    (b"-0", "-0"), (b"true", "true"), (b"false", "false"),
    (b'"text"', '"text"'), (b'""', '""'), (b'"Null"', '"Null"'), (b'"null "', '"null "'),
    (b'" 7"', '" 7"'), (b"8 ", "8"),
    (b'"' + b"s" * 95 + b'"', '"' + "s" * 95 + '"'), (b"9" * 95, "9" * 95),
    (b"-" + b"9" * 94, "-" + "9" * 94),
    (b'"' + "é".encode() * 47 + b'"', '"' + "é" * 47 + '"'),
    (b'"\\u0041' + b"t" * 94 + b'"', '"A' + "t" * 94 + '"'),
    (b'"' + b"\\u0042" * 95 + b'"', '"' + "B" * 95 + '"'),
], ids=lambda value: repr(value)[:30])
def test_an_id_is_echoed_and_used_up(server, raw, echoed):
    message = b'{"jsonrpc":"2.0","id":' + raw + b',"method":"ping"}\n'
    assert server.ask(message) == pong(echoed)
    assert server.ask(message) == error_reply(echoed, *BAD_ID)


@pytest.mark.parametrize("raw, echoed", [
    (b"null", "null"), (b'"null"', '"null"'), (b'"\\u006eull"', '"null"'), (b"{}", "{}"),
    (b"[]", "[]"), (b"[ 1,\t2 ]", "[ 1,\t2 ]"), (b'{ "a" : "\\u0041" }', '{ "a" : "\\u0041" }'),
    (b'"' + b"s" * 96 + b'"', "null"), (b'"' + "é".encode() * 48 + b'"', "null"),
    (b"9" * 96, "9" * 96), (b"1" + b"0" * 500, "1" + "0" * 500),
], ids=lambda value: repr(value)[:30])
def test_an_id_that_is_refused(server, raw, echoed):
    message = b'{"jsonrpc":"2.0","id":' + raw + b',"method":"ping"}\n'
    assert server.ask(message) == error_reply(echoed, *BAD_ID)
    assert server.ask(message) == error_reply(echoed, *BAD_ID)


@pytest.mark.parametrize("first, second, echoed", [
    (b"101", b'"101"', '"101"'), (b'"102"', b"102", "102"), (b'"true-1"', b'"true\\u002d1"', None),
    (b'"A1"', b'"\\u00411"', '"A1"'), (b'"cut-1\\u0000a"', b'"cut-1\\u0000b"', '"cut-1"'),
])
def test_an_id_is_its_text(server, first, second, echoed):
    message = b'{"jsonrpc":"2.0","id":%s,"method":"ping"}\n'
    assert b'"result"' in server.ask(message % first)
    echoed = echoed or json.dumps(json.loads(second))
    assert server.ask(message % second) == error_reply(echoed, *BAD_ID)


@pytest.mark.parametrize("first, second", [
    (b"201", b"201.0"), (b"202", b"2.02e2"), (b'"case"', b'"CASE"'), (b"203", b'" 203"')])
def test_different_texts_are_different_ids(server, first, second):
    message = b'{"jsonrpc":"2.0","id":%s,"method":"ping"}\n'
    assert b'"result"' in server.ask(message % first)
    assert b'"result"' in server.ask(message % second)


@pytest.mark.parametrize("message, code", [
    (b'{"jsonrpc":"2.0","id":"used","method":"nothing"}\n', -32601),
    (b'{"jsonrpc":"2.0","id":"used","method":"notifications/initialized"}\n', -32600),
    (b'{"jsonrpc":"2.0","id":"used","method":"notifications/cancelled"}\n', -32600),
    (b'{"jsonrpc":"2.0","id":"used","method":"initialize"}\n', -32600),
])
def test_a_refused_request_uses_its_id_up(run, message, code):
    result = run(stdin=request("initialize", 1) + message + ping("used"))
    assert result.replies[1]["error"]["code"] == code
    assert result.lines[2] + b"\n" == error_reply('"used"', *BAD_ID)


def test_a_request_before_initialize_uses_its_id_up(run):
    result = run(stdin=ping(1) + request("initialize", 1) + request("initialize", 2) + ping(3))
    assert result.stdout == (not_initialized(1) + error_reply("1", *BAD_ID) +
                             result_reply("2", INITIALIZE_RESULT) + pong(3))


@pytest.mark.parametrize("message", [
    b'{"jsonrpc":"1","id":"free","method":"ping"}\n',
    b'{"jsonrpc":"2.0","id":"free","method":7}\n',
    b'{"jsonrpc":"2.0","id":"free"}\n',
    b'{"jsonrpc":"2.0","id":"free","method":"ping","x":1,"x":1}\n',
])
def test_an_earlier_refusal_leaves_the_id_free(run, message):
    result = run(stdin=request("initialize", 1) + message + ping("free"))
    assert result.lines[2] + b"\n" == pong('"free"')


def test_the_256th_id_is_the_last(run):
    sent = request("initialize", 0) + b"".join(map(ping, range(1, 258))) + ping("last") + ping(5)
    sent += notification("ping") + request("initialize", 999) + request("notifications/x", "n")
    lines = run(stdin=sent).lines
    assert [text + b"\n" for text in lines[1:256]] == [pong(n) for n in range(1, 256)]
    assert [text + b"\n" for text in lines[256:]] == [
        error_reply(raw, *BAD_ID) for raw in ("256", "257", '"last"', "5", "999", '"n"')]


def test_refused_ids_take_no_slot(run):
    sent = request("initialize", 0) + ping("x" * 96) * 300 + ping(0) * 300
    sent += b"".join(map(ping, range(1, 256))) + ping(256)
    lines = run(stdin=sent).lines
    assert lines[-2] + b"\n" == pong(255)
    assert lines[-1] + b"\n" == error_reply("256", *BAD_ID)


def test_calls_in_workers_take_no_slot_and_go_on_when_all_are_taken(run):
    def answered(sent: bytes) -> list[int]:
        return [reply["error"]["code"] for reply in run(stdin=sent).replies[-3:]]

    full = request("initialize", 0) + b"".join(map(ping, range(1, 256)))
    # Waits for the reply: the next message could otherwise be refused as busy.
    assert answered(full + ping("over") * 2 + call("c", "nothing")) == [-32600, -32600, -32602]


def test_the_id_of_a_worker_s_call_stays_free(start):
    server = start()
    server.initialize()
    for _ in range(2):
        assert server.ask(call("again", "nothing")) == error_reply(
            '"again"', -32602, "unknown Vantreo tool")
    assert server.ask(ping("again")) == pong('"again"')
    assert server.ask(call("again", "nothing")) == error_reply(
        '"again"', -32602, "unknown Vantreo tool")


# notifications


@pytest.mark.parametrize("message", [
    notification("notifications/initialized"),
    notification("notifications/initialized", {}),
    notification("notifications/cancelled"),
    cancel(1),
    notification("notifications/cancelled", []),
    notification("notifications/progress"),
    notification("ping"),
    notification("tools/list"),
    notification("initialize"),
    notification("tools/call", {"name": "kova_list_tables"}),
    notification("nothing"),
    notification("\x00"),
], ids=repr)
def test_a_notification_gets_no_answer(run, message):
    assert run(stdin=message).stdout == b""
    assert run(stdin=request("initialize", 1) + message + ping(2)).lines[1:] == [pong(2)[:-1]]


@pytest.mark.parametrize("method", ["notifications/initialized", "notifications/cancelled",
                                    "notifications\\/initialized"])
@pytest.mark.parametrize("first", [b"", request("initialize", 1)])
def test_a_notification_with_an_id(run, first, method):
    sent = first + ('{"jsonrpc":"2.0","id":"n","method":"%s"}\n' % method).encode()
    assert run(stdin=sent).stdout.endswith(error_reply('"n"', *ID_IN_NOTIFICATION))


def test_another_notification_with_an_id_is_an_unknown_method(server):
    assert server.ask(request("notifications/progress", "progress")) == error_reply(
        '"progress"', *UNKNOWN)


# methods


@pytest.mark.parametrize("raw", [b'"pin\\u0067"', b'"ping\\u0000x"', b'"ping"'])
def test_the_method_is_decoded(run, raw):
    sent = request("initialize", 0) + b'{"jsonrpc":"2.0","id":1,"method":' + raw + b"}\n"
    assert run(stdin=sent).stdout.endswith(pong(1))


@pytest.mark.parametrize("method", ["Ping", "ping ", " ping", "tools/list/", "tools/", "shutdown",
                                    "resources/list", "notifications", "é", "x\ny"])
def test_an_unknown_method(server, method):
    identity = "unknown " + method
    assert server.ask(request(method, identity)) == error_reply(json.dumps(
        identity, ensure_ascii=False), *UNKNOWN)


@pytest.mark.parametrize("params", [{}, [], "x", 7, {"a": {"b": [1, None]}}])
def test_the_params_of_a_ping_are_not_read(run, params):
    assert run(stdin=request("initialize", 0) + request("ping", 1, params)).stdout.endswith(pong(1))


def test_members_in_any_order_and_unknown_members(server):
    sent = b'{"z":[{}],"method":"ping","params":null,"id":"any","y":1.5,"jsonrpc":"2.0"}\n'
    assert server.ask(sent) == pong('"any"')
