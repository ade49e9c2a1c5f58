"""What is accepted as JSON, and how texts come back.

A value is sent inside a message whose "jsonrpc" is wrong: a message that parses is refused for
that, and uses no id up.
"""

from __future__ import annotations

import json
import time

import pytest

from harness.messages import PARSE_ERROR, error_reply, request
from harness.servers import Server
from harness.waiting import TIMEOUT

PARSED = error_reply("null", -32600, "jsonrpc must be 2.0")


@pytest.fixture(scope="module")
def server(module_servers) -> Server:
    return module_servers.start()


def around(value: bytes) -> bytes:
    return b'{"jsonrpc":"1","x":' + value + b"}\n"


GOOD_VALUES = [
    b"true", b"false", b"null", b"0", b"-0", b"7", b"-7", b"10", b"1234567890" * 10, b"0.0",
    b"-0.5", b"1.25", b"1e5", b"1E5", b"1e+5", b"1e-5", b"0e0", b"1.5E+10", b"1e999", b"0.000",
    b"{}", b"[]", b"{ }", b"[ ]", b"[1,2]", b"[ 1 , 2 ]", b'{"a":1}', b'{ "a" : 1 , "b" : [ ] }',
    b'[[[{"a":{"b":[]}}]]]', b"\t\r 1 \t\r", b'""', b'"a"', b'{"":1}', b'" "',
    b'"\\"\\\\\\/\\b\\f\\n\\r\\t"', b'"\\u0000"', b'"\\u00e9\\uABCD\\uabcd"', b'"\\ud83d\\ude00"',
    # Surrogates are checked when a text is decoded, not here.
    b'"\\ud800"', b'"\\udc00"', b'"\\ude00\\ud83d"', b'"\\ud800x"', b'{"\\ud800":1}',
    b'"\x7f"', b'"\xc2\x80"', b'"\xdf\xbf"', b'"\xe0\xa0\x80"', b'"\xed\x9f\xbf"',
    b'"\xee\x80\x80"', b'"\xef\xbf\xbf"', b'"\xf0\x90\x80\x80"', b'"\xf4\x8f\xbf\xbf"',
    b'"\xef\xbb\xbf"', b'"' + b"x" * 100000 + b'"', b'"' + b"\\n" * 50000 + b'"',
]


@pytest.mark.parametrize("value", GOOD_VALUES, ids=lambda value: repr(value[:40]))
def test_a_value_that_parses(server, value):
    assert server.ask(around(value)) == PARSED


BAD_VALUES = [
    b"", b" ", b"x", b"tru", b"truex", b"True", b"TRUE", b"nul", b"nulll", b"fals", b"falsey",
    b"NaN", b"Infinity", b"-Infinity", b"undefined", b"'a'",
    # numbers
    b"-", b"+1", b"--1", b"00", b"01", b"-01", b"007", b".5", b"-.5", b"1.", b"1.e5", b"1e", b"1e+",
    b"1E-", b"1e5.5", b"1.2.3", b"0x10", b"1_000", b"1 2", b"- 1", b"1a",
    # containers
    b"[", b"]", b"[1", b"[1,", b"[1,]", b"[,1]", b"[1,,2]", b"[1 2]", b"[1}", b"{", b"{]", b'{"a"}',
    b'{"a":}', b'{"a":1,}', b'{,"a":1}', b'{"a" 1}', b'{"a":1 "b":2}', b"{1:2}", b"{a:1}",
    b"{true:1}", b'{"a"::1}', b'{"a":1]', b"{null:1}", b'{"a":1,1}', b'{["a"]:1}',
    # strings
    b'"', b'"a', b'"\\"', b'"\\', b'"a\tb"', b'"\x01"', b'"\x1f"', b'"a\rb"', b'"\\a"', b'"\\x41"',
    b'"\\0"', b"\"\\'\"", b'"\\U0041"', b'"\\u"', b'"\\u004"', b'"\\u004g"', b'"\\u 041"',
    b'"\\u-041"', b'"\\u+041"', b'"\\uD83D\\uDE0"',
    # comments are not white space, nor are these
    b"1 // c", b"/* c */ 1", b"1\x0b", b"1\x0c", b"1\xc2\xa0", b"\xef\xbb\xbf1",
]


@pytest.mark.parametrize("value", BAD_VALUES, ids=repr)
def test_a_value_that_does_not_parse(server, value):
    assert server.ask(around(value)) == PARSE_ERROR


BAD_UTF8 = [
    b"\x80", b"\xbf", b"\xc0\x80", b"\xc1\xbf", b"\xc2", b"\xc2 ", b"\xc2\xc2", b"\xc2\x7f",
    b"\xe0\x80\x80", b"\xe0\x9f\xbf", b"\xe1\x80", b"\xe1\x80 ", b"\xe1 \x80", b"\xed\xa0\x80",
    b"\xed\xbf\xbf", b"\xf0\x80\x80\x80", b"\xf0\x8f\xbf\xbf", b"\xf1\x80\x80", b"\xf1\x80\x80 ",
    b"\xf4\x90\x80\x80", b"\xf5\x80\x80\x80", b"\xf8\x88\x80\x80\x80", b"\xff", b"\xfe",
]


@pytest.mark.parametrize("sequence", BAD_UTF8, ids=repr)
def test_bytes_that_are_no_utf8(server, sequence):
    assert server.ask(around(b'"' + sequence + b'"')) == PARSE_ERROR
    assert server.ask(around(b'{"' + sequence + b'":1}')) == PARSE_ERROR
    assert server.ask(around(b"1" + sequence)) == PARSE_ERROR
    assert server.ask(around(b"1")[:-1] + sequence + b"\n") == PARSE_ERROR
    assert server.ask(sequence + around(b"1")) == PARSE_ERROR


@pytest.mark.parametrize("message", [
    b"[]", b"1", b'"a"', b"true", b"null", b"[{}]", b'[{"jsonrpc":"2.0","id":1,"method":"ping"}]',
    b"{}{}", b"{} x", b"{}]", b"x{}", b'{"jsonrpc":"1"}}', b"",
], ids=repr)
def test_a_message_is_exactly_one_object(server, message):
    assert server.ask(message + b" \n") == PARSE_ERROR


@pytest.mark.parametrize("before, after", [(b" ", b""), (b"\t\r ", b""), (b"", b" \t\r \t")])
def test_white_space_around_a_message(server, before, after):
    assert server.ask(before + around(b"1")[:-1] + after + b"\n") == PARSED


def nested(depth: int, opening: bytes, innermost: bytes, closing: bytes) -> bytes:
    return around(opening * depth + innermost + closing * depth)


@pytest.mark.parametrize("depth, innermost, reply", [
    # The message itself is the first of the 129 containers.
    (127, b"", PARSED), (127, b"1", PARSED),
    (128, b"", PARSED), (128, b" ", PARSED), (128, b"1", PARSE_ERROR), (128, b"{}", PARSE_ERROR),
    (129, b"", PARSE_ERROR), (5000, b"", PARSE_ERROR), (100000, b"", PARSE_ERROR),
])
def test_the_depth_limit(server, depth, innermost, reply):
    assert server.ask(nested(depth, b"[", innermost, b"]")) == reply


@pytest.mark.parametrize("depth, innermost, reply", [
    (126, b"{}", PARSED), (127, b"{}", PARSED),
    (126, b'{"a":1}', PARSED),
    # Keys do not count for the depth, values do.
    (127, b'{"a":1}', PARSE_ERROR), (128, b"1", PARSE_ERROR),
    (128, b"{}", PARSE_ERROR), (128, b"[]", PARSE_ERROR),
])
def test_the_depth_limit_of_objects(server, depth, innermost, reply):
    assert server.ask(nested(depth, b'{"a":', innermost, b"}")) == reply


def test_unclosed_nesting(server):
    assert server.ask(b"[" * 1000000 + b"\n") == PARSE_ERROR
    assert server.ask(b'{"a":' * 200000 + b"\n") == PARSE_ERROR


@pytest.mark.parametrize("elements, reply", [(4091, PARSED), (4092, PARSE_ERROR),
                                             (500000, PARSE_ERROR)])
def test_the_token_limit(server, elements, reply):
    # The object, two keys, "1" and the array are the five other tokens.
    assert server.ask(around(b"[" + b",".join([b"1"] * elements) + b"]")) == reply


@pytest.mark.parametrize("members, reply", [(2045, PARSED), (2046, PARSE_ERROR)])
def test_keys_are_tokens_too(server, members, reply):
    body = b",".join(b'"k%d":%d' % (n, n) for n in range(members))
    assert server.ask(around(b"{" + body + b"}")) == reply


@pytest.mark.parametrize("body", [
    '"a":1,"a":2', '"a":1,"b":2,"a":1', '"a":1,"\\u0061":2', '"\\u0061":1,"\\u0061":2',
    '"/":1,"\\/":2', '"\\n":1,"\\u000a":2', '"é":1,"\\u00e9":2', '"é":1,"\\u00E9":2',
    '"😀":1,"\\ud83d\\ude00":2', '"":1,"":2', '"A":[],"A":{}',
    # A text with an escaped NUL ends there.
    '"a":1,"a\\u0000b":2', '"a\\u0000b":1,"a\\u0000c":2', '"":1,"\\u0000":2',
    f'"{"k" * 255}":1,"{"k" * 255}":2', f'"{"é" * 127}":1,"{"é" * 127}":2',
    f'"{"k" * 254}\\u0041":1,"{"k" * 254}A":2',
], ids=lambda body: body[:40])
def test_duplicate_keys(server, body):
    for value in ("{%s}", "[{%s}]", '{"o":{%s}}', '[1,{"o":[{%s}]}]'):
        assert server.ask(around((value % body).encode())) == PARSE_ERROR
    assert server.ask(('{"jsonrpc":"1",' + body + "}\n").encode()) == PARSE_ERROR


@pytest.mark.parametrize("body", [
    '"a":1,"A":2', '"a":1,"a ":2', '"a":{"a":{"a":1}}', '"a":[{"a":1},{"a":2}]',
    '"é":1,"e\\u0301":2', '"a":"a","b":"a"',
    # Keys that are too long or cannot be decoded are not compared.
    f'"{"k" * 256}":1,"{"k" * 256}":2', f'"{"é" * 128}":1,"{"é" * 128}":2',
    '"\\ud800":1,"\\ud800":2', '"\\udc00":1,"\\udc00":2', '"a\\ud800":1,"a":2',
    f'"{"k" * 255}":1,"{"k" * 256}":2',
], ids=lambda body: body[:40])
def test_keys_that_are_not_duplicates(server, body):
    assert server.ask(around(("{%s}" % body).encode())) == PARSED


@pytest.mark.parametrize("message", [
    b'{"jsonrpc":"2.0","jsonrpc":"2.0","id":1,"method":"ping"}',
    b'{"jsonrpc":"2.0","id":1,"id":2,"method":"ping"}',
    b'{"jsonrpc":"2.0","id":1,"method":"ping","\\u006dethod":"ping"}',
    b'{"jsonrpc":"2.0","id":1,"method":"ping","params":{},"params":{}}',
    b'{"jsonrpc":"2.0","method":"notifications/initialized","x":1,"x":1}',
], ids=repr)
def test_duplicate_members_of_a_message(server, message):
    assert server.ask(message + b"\n") == PARSE_ERROR


def test_many_keys_cost_little(server):
    """Keys of one object cost about what they cost in many small ones: not every pair is compared.
    The least of several measurements is what a busy machine disturbs least."""
    keys = [b'"key-%04d":0' % n for n in range(2040)]
    one = around(b"{" + b",".join(keys[:2000]) + b"}")
    many = around(b"[" + b",".join(b"{" + b",".join(keys[n:n + 40]) + b"}"
                                   for n in range(0, 2000, 40)) + b"]")
    least = {one: TIMEOUT, many: TIMEOUT}
    for message in [one, many] * 30:
        started = time.monotonic()
        assert server.ask(message) == PARSED
        least[message] = min(least[message], time.monotonic() - started)
    assert least[one] < 6 * least[many]
    body = b",".join(keys)
    assert server.ask(around(b"{" + body + b"}")) == PARSED
    assert server.ask(around(b"{" + body + b',"key-0000":1}')) == PARSE_ERROR
    assert server.ask(around(b"{" + body + b',"key-2039":1}')) == PARSE_ERROR


# texts that come back, in an id


@pytest.fixture(scope="module")
def ready(module_servers) -> Server:
    made = module_servers.start()
    made.initialize()
    return made


@pytest.mark.parametrize("sent, echoed", [
    (b'"\\u0041"', b'"A"'), (b'"a\\/b"', b'"a/b"'), (b'"\\"\\\\"', b'"\\"\\\\"'),
    (b'"1\\b\\f\\n\\r\\t"', b'"1\\b\\f\\n\\r\\t"'),
    (b'"2\\u0008\\u000C\\u000a\\u000d\\u0009"', b'"2\\b\\f\\n\\r\\t"'),
    (b'"\\u0001\\u001F\\u001b"', b'"\\u0001\\u001f\\u001b"'),
    (b'"\\u007f"', b'"\x7f"'), (b'"\x7fx"', b'"\x7fx"'),
    (b'"\xc3\xa9"', b'"\xc3\xa9"'), (b'"\\u00e9x"', b'"\xc3\xa9x"'),
    (b'"\\u20ac"', b'"\xe2\x82\xac"'), (b'"\\uFFFF"', b'"\xef\xbf\xbf"'),
    (b'"\\u0080\\u07ff\\u0800"', b'"\xc2\x80\xdf\xbf\xe0\xa0\x80"'),
    (b'"\\ud83d\\ude00"', b'"\xf0\x9f\x98\x80"'), (b'"\\uD800\\uDC00"', b'"\xf0\x90\x80\x80"'),
    (b'"\\uDBFF\\uDFFF"', b'"\xf4\x8f\xbf\xbf"'),
    (b'"cut\\u0000off"', b'"cut"'), (b'"\\u0000"', b'""'),
    (b'"\xe2\x80\xa8"', b'"\xe2\x80\xa8"'),
], ids=repr)
def test_a_text_is_decoded_and_escaped_again(ready, sent, echoed):
    reply = ready.ask(b'{"jsonrpc":"2.0","id":' + sent + b',"method":"ping"}\n')
    assert reply == b'{"jsonrpc":"2.0","id":' + echoed + b',"result":{}}\n'


@pytest.mark.parametrize("sent", [
    b'"\\ud800"', b'"\\udc00"', b'"\\ude00\\ud83d"', b'"\\ud800x"', b'"\\ud800\\n"',
    b'"\\ud800\\u0041"', b'"\\ud800\\ud800"', b'"x\\udfff"', b'"\\udbff"', b'"\\ud800\\ue000"',
], ids=repr)
def test_a_text_with_a_lone_surrogate_cannot_be_read(ready, sent):
    reply = ready.ask(b'{"jsonrpc":"2.0","id":' + sent + b',"method":"ping"}\n')
    assert reply == error_reply("null", -32600, "request id is invalid or already used")


def test_every_reply_is_one_line_of_json(ready):
    for identity in ("a\nb", "a\r\nb", 'q"u\\o', "\x01", "€"):
        reply = ready.ask(request("ping", "line " + identity))
        assert reply.count(b"\n") == 1 and reply.endswith(b"}\n")
        assert json.loads(reply)["id"] == "line " + identity


# look-ups compare the raw key


@pytest.mark.parametrize("message, reply", [
    (b'{"jsonrpc":"2.0","id":"raw-1","\\u006dethod":"ping"}',
     error_reply('"raw-1"', -32600, "method is required")),
    (b'{"\\u006asonrpc":"2.0","id":"raw-2","method":"ping"}',
     error_reply('"raw-2"', -32600, "jsonrpc must be 2.0")),
    (b'{"jsonrpc":"2.0","\\u0069d":"raw-3","\\u006dethod":"ping"}',
     error_reply("null", -32600, "method is required")),
    (b'{"jsonrpc":"2.0","id":"raw-4","x":{"method":"ping"}}',
     error_reply('"raw-4"', -32600, "method is required")),
], ids=repr)
def test_an_escaped_key_is_not_found(ready, message, reply):
    assert ready.ask(message + b"\n") == reply


def test_an_escaped_id_makes_a_notification(ready):
    ready.send(b'{"jsonrpc":"2.0","\\u0069d":"raw-5","method":"ping"}\n')
    assert json.loads(ready.ask(request("ping", "raw-6")))["id"] == "raw-6"
