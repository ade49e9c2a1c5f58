"""The gates that an HTTP request passes, in their order: exact requests, exact responses.

Most requests here need no session. A request that passes every gate is told by the gate behind them
all: without a session id it gets SESSION_REQUIRED.
"""

from __future__ import annotations

import itertools
import socket
from pathlib import Path
from typing import Callable

import pytest

from harness.http_client import (HOST_REFUSED, INITIALIZE, INITIALIZE_SPACED, NOT_FORWARDED,
                                 NO_SUCH_SESSION, NO_TOKEN, ORIGIN_REFUSED, SESSION_REQUIRED,
                                 SESSION_REUSED, SESSION_UNKNOWN, TOKEN, UNAUTHORIZED, UNBOUNDED,
                                 UNKNOWN_ID, UNKNOWN_PATH, HttpListener, HttpListeners, Request)

PASSED = SESSION_REQUIRED

HEADER_LIMIT = 16384
BODY_LIMIT = 262144


@pytest.fixture(scope="module")
def endpoint(module_http: HttpListeners) -> HttpListener:
    return module_http()


@pytest.fixture(scope="module")
def endpoint_without_token(module_http: HttpListeners) -> HttpListener:
    return module_http({"KOVA_MCP_HTTP_BEARER_TOKEN": None})


# the order


def _wrong(header: str, value: "str | None") -> Callable[[Request], Request]:
    return lambda request: request.with_headers({header: value})


def _wrong_path(request: Request) -> Request:
    return Request(b"GET /mcp HTTP/1.1", request.headers, request.body)


FAULTS = {
    "413": (_wrong("Content-Length", "-1"), UNBOUNDED),
    "404": (_wrong_path, UNKNOWN_PATH),
    "401": (_wrong("Authorization", "Bearer nobody"), UNAUTHORIZED),
    "403 host": (_wrong("Host", "elsewhere.example"), HOST_REFUSED),
    "403 origin": (_wrong("Origin", "https://elsewhere.example"), ORIGIN_REFUSED),
    "426": (_wrong("X-Forwarded-Proto", "http"), NOT_FORWARDED),
    "404 session": (_wrong("Mcp-Session-Id", UNKNOWN_ID), SESSION_UNKNOWN),
}
"""What can be wrong with a request, in the order of the checks."""


def test_a_request_without_a_fault(endpoint):
    assert endpoint.post() == PASSED


@pytest.mark.parametrize("fault", FAULTS)
def test_one_fault(endpoint, fault):
    spoil, refused = FAULTS[fault]
    assert endpoint.exchange(spoil(endpoint.compose()).data()) == refused


@pytest.mark.parametrize("first, second", itertools.combinations(FAULTS, 2))
def test_of_two_faults_the_first_one_is_answered(endpoint, first, second):
    request = FAULTS[second][0](FAULTS[first][0](endpoint.compose()))
    assert endpoint.exchange(request.data()) == FAULTS[first][1]


@pytest.mark.parametrize("count", range(1, len(FAULTS) + 1))
def test_of_all_faults_the_first_one_is_answered(endpoint, count):
    request = endpoint.compose()
    for spoil, _ in list(FAULTS.values())[-count:]:
        request = spoil(request)
    assert endpoint.exchange(request.data()) == list(FAULTS.values())[-count][1]


@pytest.mark.parametrize("fault", [None, *FAULTS])
def test_a_missing_token_comes_behind_the_path(endpoint_without_token, fault):
    request = endpoint_without_token.compose()
    refused = NO_TOKEN
    if fault is not None:
        request = FAULTS[fault][0](request)
        refused = FAULTS[fault][1] if fault in ("413", "404") else NO_TOKEN
    assert endpoint_without_token.exchange(request.data()) == refused


def test_the_session_comes_last(endpoint):
    """The headers are checked before the body."""
    spoil, refused = FAULTS["426"]
    request = spoil(endpoint.compose(INITIALIZE, UNKNOWN_ID))
    assert endpoint.exchange(request.data()) == refused
    assert endpoint.post(INITIALIZE, UNKNOWN_ID) == SESSION_REUSED


# size

# A body that is refused for its content shows that it was read.
SEEN, UNSEEN = SESSION_REUSED, SESSION_UNKNOWN


def with_length(endpoint: HttpListener, text: "str | None", body: bytes = INITIALIZE) -> bytes:
    return endpoint.post(body, UNKNOWN_ID, headers={"Content-Length": text})


LENGTH = len(INITIALIZE)


@pytest.mark.parametrize("text", [
    str(LENGTH), f"+{LENGTH}", f"00{LENGTH}", f" \t{LENGTH} \t", f"\v\f{LENGTH}\v\f",
    str(LENGTH).zfill(31), " " * 40 + str(LENGTH).zfill(31) + " " * 40,
])
def test_a_length_that_covers_the_body(endpoint, text):
    assert with_length(endpoint, text) == SEEN


@pytest.mark.parametrize("text", [
    None, "0", "-0", "+0", str(LENGTH - 1), str(LENGTH).zfill(32), "9" * 32, "9" * 400,
    "-" + "9" * 31, "-1".ljust(31) + "x", "4294967301".zfill(32), "x" * 32,
], ids=repr)
def test_a_length_that_does_not(endpoint, text):
    """A value of 32 characters or more counts as absent."""
    assert with_length(endpoint, text) == UNSEEN


@pytest.mark.parametrize("text", [
    "-1", "-21", "-00001", "262145", "262145x", "262145".zfill(31), "1000000", "2147483648",
    "4294967295", "4294967296", "4294967301", "4294967317", "9223372036854775808",
    "18446744073709551616", "18446744073709551637", "-4294967275", "-18446744073709551595",
    "9" * 18, "9" * 19, "9" * 31, "-" + "9" * 30, "+" + "9" * 30,
    # not a whole number
    "", " ", "+", "-", "x", "x21", "x" * 31, "0x15", "++21", "--1", "+-0", "- 0", "+ 21",
    f"{LENGTH}x", f"{LENGTH}.9", f"{LENGTH} 0", f"{LENGTH},{LENGTH}", f"{LENGTH}\v0",
], ids=repr)
def test_a_length_out_of_range(endpoint, text):
    assert with_length(endpoint, text) == UNBOUNDED


def padded(endpoint: HttpListener, size: int, **rest: object) -> Request:
    """A request whose header block has this size."""
    request = endpoint.compose(**rest)  # type: ignore
    without = len(request.with_headers({"Padding": ""}).data()) - len(request.body)
    return request.with_headers({"Padding": "x" * (size - without)})


@pytest.mark.parametrize("size, answer", [
    (HEADER_LIMIT - 1, PASSED), (HEADER_LIMIT, PASSED), (HEADER_LIMIT + 1, UNBOUNDED),
    (HEADER_LIMIT + 2, UNBOUNDED), (3 * HEADER_LIMIT, UNBOUNDED)])
def test_the_size_of_the_header_block(endpoint, size, answer):
    data = padded(endpoint, size).data()
    assert data.index(b"\r\n\r\n") + 4 == len(data) == size
    assert endpoint.exchange(data) == answer


@pytest.mark.parametrize("size, answer", [
    (BODY_LIMIT - 1, SEEN), (BODY_LIMIT, SEEN), (BODY_LIMIT + 1, UNBOUNDED)])
def test_the_size_of_the_body(endpoint, size, answer):
    body = b" " * (size - LENGTH) + INITIALIZE
    assert endpoint.post(body, UNKNOWN_ID) == answer


def test_the_largest_request(endpoint):
    body = b" " * (BODY_LIMIT - LENGTH) + INITIALIZE
    data = padded(endpoint, HEADER_LIMIT, body=body, session=UNKNOWN_ID).data()
    assert len(data) == HEADER_LIMIT + BODY_LIMIT
    assert endpoint.exchange(data) == SEEN


@pytest.mark.parametrize("size", [HEADER_LIMIT + BODY_LIMIT, HEADER_LIMIT + BODY_LIMIT + 1,
                                  1 << 20])
def test_a_flood_without_a_blank_line_is_answered_when_the_buffer_is_full(endpoint, size):
    """Although the client keeps its side open."""
    data = endpoint.compose().data()[:-2]
    assert endpoint.exchange(data + b"x" * (size - len(data))) == UNBOUNDED


def test_a_blank_line_at_the_end_of_the_buffer_is_too_late(endpoint):
    data = b"POST /mcp HTTP/1.1\r\n".ljust(HEADER_LIMIT + BODY_LIMIT - 4, b"x") + b"\r\n\r\n"
    assert endpoint.exchange(data) == UNBOUNDED


@pytest.mark.parametrize("cut", [0, 1, 17, 20, 100, -LENGTH - 3, -LENGTH - 1, -LENGTH, -1])
def test_a_client_that_stops_too_early(endpoint, cut):
    data = endpoint.compose(INITIALIZE, UNKNOWN_ID).data()
    assert endpoint.exchange(data[:cut], ended=True) == UNBOUNDED


def test_a_client_that_stops_after_its_request(endpoint):
    assert endpoint.exchange(endpoint.compose(INITIALIZE, UNKNOWN_ID).data(), ended=True) == SEEN


def test_an_unfinished_header_block_is_judged_by_its_size_alone(endpoint):
    assert endpoint.exchange(b"GET / HTTP/1.1\r\n", ended=True) == UNBOUNDED


# the first line


@pytest.mark.parametrize("line", [
    b"GET /mcp HTTP/1.1", b"PUT /mcp HTTP/1.1", b"OPTIONS /mcp HTTP/1.1", b"HEAD /mcp HTTP/1.1",
    b"post /mcp HTTP/1.1", b"Delete /mcp HTTP/1.1", b"POST /mcp HTTP/1.0", b"POST /mcp HTTP/2",
    b"DELETE /mcp HTTP/1.0", b"POST /mcp http/1.1", b"POST /mcp?a=b HTTP/1.1",
    b"POST /mcp? HTTP/1.1", b"POST /mcp/ HTTP/1.1", b"POST /MCP HTTP/1.1", b"POST / HTTP/1.1",
    b"POST mcp HTTP/1.1", b"POST /mcp#x HTTP/1.1", b"POST  /mcp HTTP/1.1", b" POST /mcp HTTP/1.1",
    b"POST /mcp HTTP/1.1 ", b"POST\t/mcp HTTP/1.1", b"POST http://localhost/mcp HTTP/1.1",
    b"POST /mcp HTTP/1.1\n", b"POST /mcp HTTP/1.1\r", b"POST /mcp HTTP/1.1\0", b"POST /mcp", b"",
    b"\r\nPOST /mcp HTTP/1.1", b"POST%20/mcp HTTP/1.1", b"\x16\x03\x01\x02\x00",
], ids=repr)
def test_another_first_line(endpoint, line):
    request = endpoint.compose()
    assert endpoint.exchange(Request(line, request.headers).data()) == UNKNOWN_PATH


def test_a_first_line_that_ends_in_a_line_feed_alone(endpoint):
    data = endpoint.compose().data().replace(b"HTTP/1.1\r\n", b"HTTP/1.1\n", 1)
    assert endpoint.exchange(data) == UNKNOWN_PATH


def test_the_two_methods(endpoint):
    assert endpoint.post(session=UNKNOWN_ID) == SESSION_UNKNOWN
    assert endpoint.delete(session=UNKNOWN_ID) == NO_SUCH_SESSION


# how a header is found


@pytest.mark.parametrize("header", ["host", "HOST", "hOsT"])
def test_the_case_of_a_header_name_is_ignored(endpoint, header):
    request = endpoint.compose()
    good = request.headers["Host"]
    assert endpoint.exchange(
        request.with_headers({"Host": None, header: good}).data()) == PASSED


# Lines that stand for the Host header of a good request.
HOST_LINES = {
    b"Host:%s": True, b"Host: \t %s \t ": True, b"Host:\v\f\r %s": True, b"Host: %s\r": True,
    b"Host : %s": False, b" Host: %s": False, b"\tHost: %s": False, b"Host %s": False,
    b"Host": False, b"Host:": False, b"Host: ": False, b"Hos: %s": False, b"Hosts: %s": False,
    b"X-Host: %s": False, b"X: y\nHost: %s": False, b"X: y\rHost: %s": False,
    b"Host: %s\nX: y": False, b"Host: %s\rX: y": False, b"Host: a\r\n %s": False,
    b"Host:: %s": False, b"Host: \0%s": False, b"Host: %s\0": False,
}


@pytest.mark.parametrize("line, found", HOST_LINES.items())
def test_the_line_of_a_header(endpoint, line, found):
    filled = line.replace(b"%s", b"127.0.0.1:%d" % endpoint.port)
    answer = endpoint.post(headers={"Host": None}, more_headers=[filled])
    assert answer == (PASSED if found else HOST_REFUSED)


def test_a_length_with_a_space_before_the_colon_is_none(endpoint):
    answer = endpoint.post(INITIALIZE, UNKNOWN_ID, headers={"Content-Length": None},
                           more_headers=[b"Content-Length : %d" % LENGTH])
    assert answer == UNSEEN


# Of two headers of a name the first one counts.
SECOND_LINES = [
    ("Host", "elsewhere", None, HOST_REFUSED),
    ("Host", None, "elsewhere", PASSED),
    ("Host", "h" * 512, None, HOST_REFUSED),
    ("Host", "", None, HOST_REFUSED),
    ("Authorization", "Bearer nobody", None, UNAUTHORIZED),
    ("Authorization", None, "Bearer nobody", PASSED),
    ("Authorization", "Bearer " + "x" * 1017, None, UNAUTHORIZED),
    ("Authorization", "", None, UNAUTHORIZED),
    ("X-Forwarded-Proto", "http", None, NOT_FORWARDED),
    ("X-Forwarded-Proto", None, "http", PASSED),
    ("X-Forwarded-Proto", "h" * 32, None, NOT_FORWARDED),
    ("X-Forwarded-Proto", "", None, NOT_FORWARDED),
]


@pytest.mark.parametrize("header, first, second, answer", SECOND_LINES)
def test_the_first_of_two_lines_wins(endpoint, header, first, second, answer):
    """Also when its value is too long. None stands for the good value."""
    good = endpoint.compose().headers[header]
    lines = [f"{header}: {good if value is None else value}".encode() for value in (first, second)]
    assert endpoint.post(headers={header: None}, more_headers=lines) == answer


@pytest.mark.parametrize("first, second, answer", [
    ("a.example", None, ORIGIN_REFUSED), ("", None, ORIGIN_REFUSED),
    ("o" * 511, None, ORIGIN_REFUSED), ("o" * 512, None, PASSED), ("o" * 4000, None, PASSED),
    ("o" * 512, "a.example", PASSED), ("a.example", "o" * 512, ORIGIN_REFUSED),
    ("  " + "o" * 511 + "  ", None, ORIGIN_REFUSED),
])
def test_an_origin_that_is_too_long_is_none(endpoint, first, second, answer):
    lines = [f"Origin: {value}".encode() for value in (first, second) if value is not None]
    assert endpoint.post(more_headers=lines) == answer


@pytest.mark.parametrize("first, second, answer", [
    (str(LENGTH), "0", SEEN), ("0", str(LENGTH), UNSEEN), ("0" * 32, str(LENGTH), UNSEEN),
    (str(LENGTH), "-1", SEEN), ("", str(LENGTH), UNBOUNDED), (str(LENGTH), "", SEEN)])
def test_the_first_of_two_lengths_wins(endpoint, first, second, answer):
    lines = [f"Content-Length: {value}".encode() for value in (first, second)]
    assert endpoint.post(INITIALIZE, UNKNOWN_ID, headers={"Content-Length": None},
                         more_headers=lines) == answer


@pytest.mark.parametrize("first, second, answer", [
    ("s" * 95, None, SESSION_UNKNOWN), ("s" * 96, None, SESSION_REQUIRED),
    ("s" * 96, UNKNOWN_ID, SESSION_REQUIRED), ("", UNKNOWN_ID, SESSION_REQUIRED),
    ("", None, SESSION_REQUIRED), ("x", None, SESSION_UNKNOWN),
    (" " * 200 + "s" * 95 + " " * 200, None, SESSION_UNKNOWN)])
def test_a_session_id_that_is_empty_or_too_long_is_none(endpoint, first, second, answer):
    lines = [f"Mcp-Session-Id: {value}".encode() for value in (first, second) if value is not None]
    assert endpoint.post(more_headers=lines) == answer
    request = endpoint.compose(method="DELETE", more_headers=lines)
    assert endpoint.exchange(request.data()) == NO_SUCH_SESSION


def good_lines(endpoint: HttpListener, *headers: str) -> bytes:
    good = endpoint.compose().headers
    return b"".join(f"{name}: {good[name]}\r\n".encode() for name in headers)


@pytest.mark.parametrize("headers", [["Host"], ["Authorization"], ["X-Forwarded-Proto"],
                                     ["Host", "Authorization", "X-Forwarded-Proto"]])
def test_lines_of_the_body_count(endpoint, headers):
    body = good_lines(endpoint, *headers)
    assert endpoint.post(body, headers=dict.fromkeys(headers)) == PASSED


def test_lines_of_the_body_come_behind_those_of_the_header_block(endpoint):
    assert endpoint.post(b"Host: elsewhere\r\n") == PASSED
    assert endpoint.post(good_lines(endpoint, "Host"), headers={"Host": "x"}) == HOST_REFUSED
    assert endpoint.post(b"Origin: elsewhere\r\n") == ORIGIN_REFUSED
    assert endpoint.post(b"Mcp-Session-Id: x\r\n") == SESSION_UNKNOWN


@pytest.mark.parametrize("ending, found", [(b"\r\n", True), (b"\r\n\r\n", True), (b"\r\nx", True),
                                           (b"\n", False), (b"\r", False), (b"", False)])
def test_a_line_of_the_body_ends_in_cr_lf(endpoint, ending, found):
    body = good_lines(endpoint, "Host").removesuffix(b"\r\n") + ending
    assert endpoint.post(body, headers={"Host": None}) == (PASSED if found else HOST_REFUSED)


@pytest.mark.parametrize("length", ["0", None])
def test_what_follows_the_body_in_the_same_read_counts(endpoint, length):
    request = endpoint.compose(headers={"Host": None, "Content-Length": length})
    assert endpoint.exchange(request.data() + good_lines(endpoint, "Host")) == PASSED


def test_the_length_may_stand_behind_the_header_block(endpoint):
    """It is found there when it comes in the read that ends the block."""
    body = b"Content-Length: 44\r\n" + b"\r\n" + INITIALIZE + b" "
    assert len(body) == 44
    assert endpoint.post(body, UNKNOWN_ID, headers={"Content-Length": None}) == SEEN


# authorization


@pytest.fixture(scope="module")
def long_token(module_http: HttpListeners) -> HttpListener:
    """A token at the limit of what a client can send."""
    token = "T" * 1016
    return _listener_with_token(module_http, token)


def _listener_with_token(listeners: HttpListeners, token: str) -> HttpListener:
    made = listeners({"KOVA_MCP_HTTP_BEARER_TOKEN": token})
    made.token = token
    return made


@pytest.mark.parametrize("value, passes", [
    (f"Bearer {TOKEN}", True), (f"bearer {TOKEN}", True), (f"BEARER {TOKEN}", True),
    (f"bEaReR {TOKEN}", True), (f"  Bearer {TOKEN}\t", True),
    (f"Bearer  {TOKEN}", False), (f"Bearer\t{TOKEN}", False), (f"Bearer{TOKEN}", False),
    (f"Basic {TOKEN}", False), (f"Bearer, {TOKEN}", False), (TOKEN, False), ("Bearer", False),
    ("Bearer ", False), ("", False), (None, False), (f"Bearer {TOKEN[:-1]}", False),
    (f"Bearer {TOKEN}d", False), (f"Bearer {TOKEN.upper()}", False),
    (f"Bearer {TOKEN[:-1]}D", False), (f"Bearer x{TOKEN[1:]}", False),
    (f"Bearer {TOKEN} x", False), (f"Bearer {TOKEN},{TOKEN}", False),
    (f"Bearer {TOKEN}\0", False), (f"Bearer {TOKEN}" + "\0" * 256, False),
], ids=repr)
def test_the_authorization(endpoint, value, passes):
    answer = endpoint.post(headers={"Authorization": value})
    assert answer == (PASSED if passes else UNAUTHORIZED)


def test_an_authorization_of_1023_characters(long_token):
    assert long_token.post() == PASSED
    assert long_token.post(headers={"Authorization": f"Bearer {'T' * 1015}"}) == UNAUTHORIZED


def test_an_authorization_of_1024_characters(http):
    assert _listener_with_token(http, "T" * 1017).post() == UNAUTHORIZED


@pytest.mark.parametrize("token", [None, "", "t", "t" * 31])
def test_a_token_that_is_too_short_admits_nobody(http, token):
    endpoint = http({"KOVA_MCP_HTTP_BEARER_TOKEN": token})
    assert endpoint.post(headers={"Authorization": f"Bearer {token or ''}"}) == NO_TOKEN
    assert endpoint.post() == NO_TOKEN
    assert endpoint.delete(UNKNOWN_ID) == NO_TOKEN


@pytest.mark.parametrize("token, sent, answer", [
    ("t" * 32, "t" * 32, PASSED),
    ("t" * 31 + " ", "t" * 31 + " ", UNAUTHORIZED),  # 32 long; no header ends in a space
    ("t" * 31 + " ", "t" * 31, UNAUTHORIZED),
    (" " + "t" * 31, " " + "t" * 31, PASSED),
    ("t" * 16 + " " + "t" * 16, "t" * 16 + " " + "t" * 16, PASSED),
    ("é" * 16, "é" * 16, PASSED),
])
def test_the_token_is_not_trimmed(http, token, sent, answer):
    endpoint = http({"KOVA_MCP_HTTP_BEARER_TOKEN": token})
    assert endpoint.post(headers={"Authorization": f"Bearer {sent}"}) == answer


# host


@pytest.mark.parametrize("value, passes", [
    ("127.0.0.1:%d", True), ("localhost:%d", True), ("LOCALHOST:%d", True), ("LocalHost:%d", True),
    ("localhost", False), ("127.0.0.1", False), ("localhost:", False), ("localhost:1", False),
    ("127.0.0.1:%d,localhost:%d", False), ("localhost:%d.", False), ("xlocalhost:%d", False),
    ("[::1]:%d", False), ("127.0.0.2:%d", False), ("", False), (None, False), (",", False),
])
def test_the_host_without_a_list(endpoint, value, passes):
    filled = value if value is None else value.replace("%d", str(endpoint.port))
    assert endpoint.post(headers={"Host": filled}) == (PASSED if passes else HOST_REFUSED)


LIST = f" ,,\t a.example , B.example:8443\t,, {'h' * 600},{'i' * 500}{' ' * 20}x ,j j, last\v"
LISTED = {
    "a.example": True, "A.EXAMPLE": True, "b.example:8443": True, "B.example": False,
    "h" * 511: True, "H" * 511: True, "h" * 510: False, "h" * 512: False, "i" * 500: True,
    "i" * 499: False, "x": False, "j j": True, "j": False, "last": True, "LAST": True,
    "a.example,b.example:8443": False, "a.example ,": False, "": False, ",": False,
    "127.0.0.1:%d": False, "localhost:%d": False, "unlisted.example": False,
}


@pytest.fixture(scope="module")
def listing(module_http: HttpListeners) -> HttpListener:
    return module_http({"KOVA_MCP_HTTP_ALLOWED_HOSTS": LIST + ",origin.test",
                        "KOVA_MCP_HTTP_ALLOWED_ORIGINS": LIST + ",https://origin.test"})


@pytest.mark.parametrize("value, passes", LISTED.items())
def test_the_host_with_a_list(listing, value, passes):
    filled = value.replace("%d", str(listing.port))
    assert listing.post(headers={"Host": filled}) == (PASSED if passes else HOST_REFUSED)


def test_an_empty_list_of_hosts_allows_nothing(http):
    endpoint = http({"KOVA_MCP_HTTP_ALLOWED_HOSTS": ""})
    assert endpoint.post() == HOST_REFUSED
    assert endpoint.post(headers={"Host": ""}) == HOST_REFUSED


@pytest.mark.parametrize("text", ["00%d", "000%d", "0000000000%d"])
def test_the_host_shows_seven_characters_of_the_port_text(http, text):
    endpoint = http(port_text=text)
    name = endpoint.port_text[:7]
    assert endpoint.post(headers={"Host": f"127.0.0.1:{name}"}) == PASSED
    assert endpoint.post(headers={"Host": f"Localhost:{name.upper()}"}) == PASSED
    for other in {str(endpoint.port), endpoint.port_text, name[:-1]} - {name, name.strip()}:
        assert endpoint.post(headers={"Host": f"127.0.0.1:{other}"}) == HOST_REFUSED


# origin


@pytest.mark.parametrize("value", ["https://a.example", "null", "", "*", "http://localhost"])
def test_without_a_list_no_origin_is_allowed(endpoint, value):
    assert endpoint.post(headers={"Origin": value}) == ORIGIN_REFUSED


def test_an_empty_list_of_origins_allows_nothing(http):
    endpoint = http({"KOVA_MCP_HTTP_ALLOWED_ORIGINS": ""})
    assert endpoint.post(headers={"Origin": "https://a.example"}) == ORIGIN_REFUSED
    assert endpoint.post(headers={"Origin": ""}) == ORIGIN_REFUSED
    assert endpoint.post() == PASSED


@pytest.mark.parametrize("value, passes",
                         [*LISTED.items(), ("https://ORIGIN.test", True), (None, True)])
def test_the_origin_with_a_list(listing, value, passes):
    """An origin that is too long counts as absent."""
    passes = passes or value == "h" * 512
    answer = listing.post(headers={"Host": "origin.test", "Origin": value})
    assert answer == (PASSED if passes else ORIGIN_REFUSED)


# forwarded protocol


@pytest.mark.parametrize("value, passes", [
    ("https", True), ("HTTPS", True), ("Https", True), (" https\t", True), ("http", False),
    ("https,http", False), ("https, https", False), ("http,https", False), ("httpss", False),
    ("", False), (None, False), ("https" + "s" * 27, False), ("1", False)])
def test_the_forwarded_protocol(endpoint, value, passes):
    answer = endpoint.post(headers={"X-Forwarded-Proto": value})
    assert answer == (PASSED if passes else NOT_FORWARDED)


@pytest.mark.parametrize("value, passes", [
    ("1", True), ("true", True), ("TRUE", True), ("Yes", True), ("oN", True), ("2", False),
    ("0", False), ("", False), ("false", False), (" 1", False), ("1 ", False), ("truee", False),
    ("t", False), ("y", False)])
def test_plaintext_may_be_allowed(http, value, passes):
    endpoint = http({"KOVA_MCP_HTTP_ALLOW_PLAINTEXT_LOOPBACK": value})
    for proto in (None, "http", "p" * 32):
        answer = endpoint.post(headers={"X-Forwarded-Proto": proto})
        assert answer == (PASSED if passes else NOT_FORWARDED)
    assert endpoint.post() == PASSED


# what makes an initialize request


@pytest.mark.parametrize("body, initialize", [
    (INITIALIZE, True), (INITIALIZE_SPACED, True), (b"\0\xff" + INITIALIZE + b"\0", True),
    (b'{"params":{"method":"initialize"}}', True),
    (b'{"text":"\\"method\\":\\"initialize\\""}', False), (b'"method": "initialize"', False),
    (b'"method" :"initialize"', False), (b'"method":"Initialize"', False),
    (b'"method":"initialize', False), (b"'method':'initialize'", False),
    (b'"method"\t:\t"initialize"', False), (b'"method":"initialized"', False), (b"", False),
])
def test_what_makes_a_body_initialize(endpoint, body, initialize):
    """It must not name a session, not even an unknown one."""
    answer = endpoint.post(body, UNKNOWN_ID)
    assert answer == (SESSION_REUSED if initialize else SESSION_UNKNOWN)


def test_the_literal_must_lie_in_the_body(endpoint):
    """Not in a header, after the body or across its end."""
    in_header = endpoint.post(b"{}", UNKNOWN_ID, more_headers=[b"X: " + INITIALIZE])
    across = endpoint.compose(INITIALIZE[:-1], UNKNOWN_ID).data() + INITIALIZE[-1:]
    assert (in_header, endpoint.exchange(across)) == (SESSION_UNKNOWN, SESSION_UNKNOWN)


# the endpoint


@pytest.mark.parametrize("text", [
    "0", "65536", "abc", "", " ", "-1", "-8080", "x8080", "+", "4294975376", "4294967297",
    "18446744073709559696", "9" * 31, "-4294959216", "00065536",
    # not a whole number
    "8080abc", "8080.0", "+8080", " 8080", "8080 ", "8080\t", "80 80", "0x50", "8e3",
], ids=repr)
def test_a_port_out_of_range(run, text):
    result = run("--http", text)
    assert (result.stdout, result.stderr, result.code) == (b"", b"", 2)


@pytest.mark.parametrize("text", ["%d", "00%d", "0000000000%d"])
def test_its_line_shows_the_whole_port_text(http, text):
    endpoint = http(port_text=text)
    assert endpoint.server.stderr_lines() == [
        f"Vantreo MCP HTTP listening on 127.0.0.1:{endpoint.port_text} (TLS termination required)"]
    assert endpoint.post() == PASSED


def test_the_highest_port(http):
    assert http(port_text="65535").post() == PASSED


def test_a_port_that_is_taken(run, http):
    endpoint = http()
    result = run("--http", str(endpoint.port))
    assert (result.stdout, result.stderr, result.code) == (b"", b"", 2)
    assert endpoint.post() == PASSED


def test_a_port_is_free_again_at_once(http, start):
    endpoint = http()
    assert endpoint.post() == PASSED
    endpoint.server.kill()
    server = start("--http", str(endpoint.port))
    server.wait_for_stderr(f"listening on 127.0.0.1:{endpoint.port} ")
    server.kill()


def listening_addresses(port: int) -> list[str]:
    """The addresses on which this machine listens on a port, as the kernel writes them."""
    found = []
    listening = "0A"
    for table in Path("/proc/net").glob("tcp*"):
        rows = [row.split() for row in table.read_text("ascii").splitlines()[1:]]
        found += [row[1].rpartition(":")[0] for row in rows
                  if row[3] == listening and row[1].endswith(f":{port:04X}")]
    return found


@pytest.mark.parametrize("address", ["127.0.0.2", "::1"])
def test_it_is_reached_on_the_loopback_address_only(endpoint, address):
    with pytest.raises(OSError):
        socket.create_connection((address, endpoint.port), 5).close()
    assert listening_addresses(endpoint.port) == ["0100007F"]
    assert endpoint.post() == PASSED


def test_it_neither_reads_nor_writes_the_standard_streams(http):
    endpoint = http()
    endpoint.server.close_input()
    assert endpoint.post() == PASSED
    endpoint.server.expect_silence()
    assert endpoint.server.stderr.count(b"\n") == 1
