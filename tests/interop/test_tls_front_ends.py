"""The TLS front ends of deploy/, nginx and HAProxy, before the real listener."""

from __future__ import annotations

import json
import subprocess
import time
import uuid
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

from harness.front_ends import Caller, FrontEnd, Recorder, Response, clean_environment
from harness.http_client import CLOSED, TOKEN, HttpListener, response
from harness.messages import call, cancel, request
from harness.sales_engine import COUNT_ORDERS, ORDERS, SLOW, result, slow
from harness.sample_engine import Engine
from harness.waiting import TIMEOUT, wait_until

HERE = Path(__file__).resolve().parent
SESSION_TIMEOUT = 120.0
KINDS = ["nginx", "haproxy"]
SESSIONS_OF_A_LISTENER = 16
BODY_LIMIT = 262144
UNUSED_SECONDS = 0.5
"""Several times the interval that health checks would have with SHORT_INTERVAL."""
SHORT_INTERVAL = {"nginx": {}, "haproxy": {
    "    option redispatch 1\n": "    option redispatch 1\n    default-server inter 50ms\n"}}

SHORT_RETRIES = {"nginx": {}, "haproxy": {"timeout connect 5s": "timeout connect 100ms"}}
"""HAProxy tries a connection again after this time, or after a second when it is longer."""

INITIALIZE = request("initialize", 1, {}).rstrip()
PING = request("ping", "p").rstrip()
NO_SESSION = b'{"error":"valid MCP session required"}'
UNKNOWN_PATH = b'{"error":"POST or DELETE /mcp required"}'
UNBOUNDED = b'{"error":"bounded Content-Length required"}'
HOST_REFUSED = b'{"error":"host is not allowed"}'
ORIGIN_REFUSED = b'{"error":"origin is not allowed"}'

ORIGIN = "https://app.example.com"
WITH_ORIGIN = {
    "nginx": {f'#"{ORIGIN}" $http_origin;': f'"{ORIGIN}" $http_origin;'},
    "haproxy": {"acl cors_origin always_false": "", "#acl cors_origin": "acl cors_origin"}}

Listen = Callable[..., HttpListener]
Front = Callable[..., FrontEnd]


@pytest.fixture
def record() -> Iterator[Callable[..., Recorder]]:
    started: list[Recorder] = []

    def start(**options: Any) -> Recorder:
        started.append(Recorder(**options))
        return started[-1]

    yield start
    for recorder in started:
        recorder.stop()


def session_of(response: Response) -> dict[str, str]:
    """The header by which a client names its session."""
    assert response.status == 200, response
    name = response.header("Mcp-Session-Id")
    assert name is not None and len(name) == 64
    return {"Mcp-Session-Id": name}


def serves(caller: Caller, session: dict[str, str]) -> bool:
    """Whether a ping, whose id must be fresh, gets its reply in the session; 404 if not."""
    name = uuid.uuid4().hex
    got = caller.ask(request("ping", name).rstrip(), headers=session)
    if got.status == 404:
        return False
    assert (got.status, json.loads(got.body)) == (200, {"jsonrpc": "2.0", "id": name, "result": {}})
    return True


# the official client


@pytest.mark.parametrize("kind", KINDS)
def test_a_whole_session_of_the_official_client(listen: Listen, front: Front, engine: Engine,
                                                kind: str) -> None:
    server = listen()
    end = front(kind, server)
    interrupted = sum("interrupted" in line for line in engine.log())
    tables = {"name": "kova_list_tables", "args": {}}
    denied = {"name": "kova_query", "args": {"sql": "SELECT CARD FROM ORDERS"}}
    wishes = {"url": end.url, "token": TOKEN, "slow": slow(engine), "quick": COUNT_ORDERS,
              "calls": [tables, COUNT_ORDERS, denied] * 3}
    done = subprocess.run(["node", str(HERE / "http_session.mjs")], capture_output=True,
                          input=json.dumps(wishes).encode(), timeout=SESSION_TIMEOUT, check=False,
                          env=clean_environment(end.certificate))
    assert done.returncode == 0, done.stderr.decode(errors="replace") + end.log()
    found = json.loads(done.stdout)
    assert found["version"]["name"] == "Vantreo MCP"
    assert len(found["sessionId"]) == 64
    assert len(found["tools"]) == 8 and "kova_query" in found["tools"]
    counted = result("OK", ["N"], [[str(ORDERS)]])
    listed = result("policy-filtered", ["NAME"], [["ORDERS"], ["ITEMS"]])
    refused = {"content": [{"type": "text", "text": "column is denied by MCP policy"}],
               "isError": True}
    *calls, ping = found["parallel"]
    assert [outcome["result"] for outcome in calls] == [listed, counted, refused] * 3
    assert ping == {}
    assert found["errorsBeforeCancel"] == []
    cancelled = found["cancelled"]
    assert cancelled["first"]["error"]["message"].endswith("the user gave up")
    assert cancelled["reply"] == {
        "jsonrpc": "2.0", "id": cancelled["request"]["id"],
        "result": {"content": [{"type": "text", "text": "request cancelled"}],
                   "structuredContent": {"cancelled": True}, "isError": True}}
    assert cancelled["waiting"]["result"] == counted
    assert found["after"]["result"] == counted
    assert "valid MCP session required" in found["afterTermination"]["error"]["message"]
    assert found["statuses"].count(["GET", 405]) == 1
    assert found["statuses"][-2:] == [["DELETE", 204], ["POST", 400]]
    wait_until(lambda: sum("interrupted" in line for line in engine.log()) == interrupted + 1,
               TIMEOUT, "the interrupted statement in the engine's log")
    wait_until(lambda: server.children() == [], TIMEOUT,
               "the end of the session's processes")


@pytest.fixture(params=KINDS)
def abandoned(request: pytest.FixtureRequest, listen: Listen, front: Front,
              engine: Engine) -> "tuple[HttpListener, Caller, dict[str, str]]":
    """A session whose slow call runs on after its client has closed the connection."""
    server = listen()
    caller = Caller(front(request.param, server))
    session = session_of(caller.ask(INITIALIZE))
    body = call(7, SLOW["name"], SLOW["args"]).rstrip()
    head = (f"POST /mcp HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer {TOKEN}\r\n"
            f"Mcp-Session-Id: {session['Mcp-Session-Id']}\r\nContent-Length: {len(body)}\r\n\r\n")
    with caller.connect() as connection:
        connection.sendall(head.encode() + body)
        wait_until(server.server.workers, TIMEOUT, "the call's worker")
    # Served after the close was seen, by the front end and by the listener.
    assert caller.ask(PING).status == 400
    assert server.server.workers()
    return server, caller, session


def test_an_abandoned_call_can_be_cancelled(
        abandoned: "tuple[HttpListener, Caller, dict[str, str]]") -> None:
    server, caller, session = abandoned
    assert caller.ask(cancel(7).rstrip(), headers=session).status == 202
    assert serves(caller, session)
    wait_until(lambda: not server.server.workers(), TIMEOUT, "the end of the worker")


def test_delete_ends_an_abandoned_call(
        abandoned: "tuple[HttpListener, Caller, dict[str, str]]") -> None:
    server, caller, session = abandoned
    assert caller.ask(method="DELETE", headers=session).status == 204
    wait_until(lambda: server.children() == [], TIMEOUT,
               "the end of the session's processes")


# what the front end refuses


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("method", ["GET", "HEAD", "PUT", "PATCH", "OPTIONS"])
def test_other_methods_get_405_and_are_told_which_ones_are_served(
        record: Callable[..., Recorder], front: Front, kind: str, method: str) -> None:
    recorder = record()
    got = Caller(front(kind, recorder)).ask(method=method)
    assert (got.status, got.header("Allow")) == (405, "POST, DELETE")
    assert got.body == (b"" if method == "HEAD" else UNKNOWN_PATH)
    assert recorder.connections == 0


@pytest.mark.parametrize("kind", KINDS)
def test_what_the_front_end_refuses_costs_no_rate(listen: Listen, front: Front, kind: str) -> None:
    allowed = 3
    caller = Caller(front(kind, listen(KOVA_MCP_HTTP_RATE_PER_MINUTE=str(allowed))))
    for path in ("/", "/mcp/", "/mcp2", "/MCP", "/other?path=/mcp", "/.well-known/x"):
        got = caller.ask(INITIALIZE, path=path)
        assert (got.status, got.body) == (404, UNKNOWN_PATH), path
    for name in ("other.example.com", "localhost.example.com", "127.0.0.2:443"):
        got = caller.ask(INITIALIZE, headers={"Host": name})
        assert (got.status, got.body) == (421, HOST_REFUSED), name
    assert caller.ask(method="GET").status == 405
    assert caller.ask(b" " * (BODY_LIMIT + 1)).status == 413
    if kind == "haproxy":
        assert caller.ask(iter([INITIALIZE])).status == 411
    for _ in range(allowed):
        got = caller.ask(PING)
        assert (got.status, got.body) == (400, NO_SESSION)
    got = caller.ask(PING)
    assert (got.status, got.body, got.header("Retry-After")) == (
        429, b'{"error":"rate limit exceeded"}', "60")


@pytest.mark.parametrize("kind", KINDS)
def test_an_unused_front_end_does_not_connect_to_the_listener(
        record: Callable[..., Recorder], front: Front, kind: str) -> None:
    recorder = record()
    front(kind, recorder, changes=SHORT_INTERVAL[kind])
    time.sleep(UNUSED_SECONDS)
    assert recorder.connections == 0


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("length", [BODY_LIMIT, BODY_LIMIT + 1])
def test_bodies_up_to_the_limit_reach_the_listener(listen: Listen, front: Front, kind: str,
                                                   length: int) -> None:
    """A larger body gets nginx's own page, or the listener's message from HAProxy."""
    got = Caller(front(kind, listen())).ask(b" " * length)
    if length <= BODY_LIMIT:
        assert (got.status, got.body) == (400, NO_SESSION)
    else:
        assert got.status == 413
        assert kind == "nginx" or got.body == UNBOUNDED


def test_nginx_gives_chunks_their_length(listen: Listen, front: Front) -> None:
    caller = Caller(front("nginx", listen()))
    session_of(caller.ask(iter([INITIALIZE[:10], INITIALIZE[10:]])))
    assert caller.ask(iter([b" " * BODY_LIMIT])).status == 400
    assert caller.ask(iter([b" " * BODY_LIMIT, b" "])).status == 413


def test_haproxy_refuses_what_has_no_length(record: Callable[..., Recorder], front: Front) -> None:
    recorder = record()
    end = front("haproxy", recorder)
    got = Caller(end).ask(iter([INITIALIZE]))
    assert (got.status, got.body) == (411, UNBOUNDED)
    with Caller(end).connect() as connection:
        connection.sendall(b"POST /mcp HTTP/1.1\r\nHost: localhost\r\n\r\n")
        assert connection.recv(64).startswith(b"HTTP/1.1 411 ")
    assert recorder.connections == 0


# what the listener gets


@pytest.mark.parametrize("kind", KINDS)
def test_the_request_as_the_listener_gets_it(record: Callable[..., Recorder], front: Front,
                                             kind: str) -> None:
    recorder = record()
    end = front(kind, recorder)
    got = Caller(end).ask(PING, path="/mcp?token=x&y=1", headers={
        "Host": f"LOCALHOST:{end.port}", "X-Forwarded-Proto": "http", "Mcp-Session-Id": "abc"})
    assert (got.status, got.body) == (200, b"{}")
    [sent] = recorder.requests
    head, _, body = sent.partition(b"\r\n\r\n")
    line, *fields = head.decode("ascii").split("\r\n")
    assert line == "POST /mcp HTTP/1.1"
    assert body == PING
    named = [(name.lower(), value.strip()) for name, _, value in
             (field.partition(":") for field in fields)]
    for name, value in (("host", "localhost"), ("x-forwarded-proto", "https"),
                        ("connection", "close"), ("content-length", str(len(PING))),
                        ("mcp-session-id", "abc"), ("authorization", f"Bearer {TOKEN}")):
        assert [given.lower() if name == "host" else given for key, given in named
                if key == name] == [value]


@pytest.mark.parametrize("kind", KINDS)
def test_a_delete_passes(record: Callable[..., Recorder], front: Front, kind: str) -> None:
    recorder = record()
    assert Caller(front(kind, recorder)).ask(method="DELETE").status == 200
    assert recorder.requests[0].startswith(b"DELETE /mcp HTTP/1.1\r\n")


@pytest.mark.parametrize("kind", KINDS)
def test_the_listener_is_asked_when_the_request_is_whole(record: Callable[..., Recorder],
                                                         front: Front, kind: str) -> None:
    """A later request of another client is served meanwhile: the recorder takes one after the
    other, so it would wait for the first one's last byte if it had been given that one before."""
    recorder = record()
    caller = Caller(front(kind, recorder))
    body = b"x" * 100_000
    with caller.connect() as connection:
        connection.sendall(b"POST /mcp HTTP/1.1\r\nHost: localhost\r\n"
                           b"Content-Length: 100000\r\n\r\n" + body[:99_999])
        assert caller.ask(PING).status == 200
        assert recorder.connections == 1
        connection.sendall(body[99_999:])
        assert connection.recv(64).startswith(b"HTTP/1.1 200 ")
    assert recorder.requests[1].endswith(b"\r\n\r\n" + body)


@pytest.mark.parametrize("kind, changes", [
    ("nginx", {"client_body_timeout 30s": "client_body_timeout 500ms; send_timeout 500ms"}),
    ("haproxy", {"timeout client 60s": "timeout client 500ms",
                 "timeout http-request 10s": "timeout http-request 500ms"})])
def test_no_limit_on_the_client_cuts_a_long_call(record: Callable[..., Recorder], front: Front,
                                                 kind: str, changes: dict[str, str]) -> None:
    got = Caller(front(kind, record(delay=1.5), changes=changes)).ask(PING)
    assert (got.status, got.body) == (200, b"{}")


# CORS


def cors_headers(response: Response) -> dict[str, str]:
    return {name: value for name, value in response.headers.items()
            if name.startswith("access-control-") or name == "vary"}


PREFLIGHT = {"Origin": ORIGIN, "Access-Control-Request-Method": "POST",
             "Access-Control-Request-Headers": "authorization,content-type,mcp-session-id"}


@pytest.mark.parametrize("kind", KINDS)
def test_cors_is_off(listen: Listen, front: Front, kind: str) -> None:
    caller = Caller(front(kind, listen()))
    preflight = caller.ask(method="OPTIONS", headers=PREFLIGHT)
    assert (preflight.status, cors_headers(preflight)) == (405, {})
    got = caller.ask(INITIALIZE, headers={"Origin": ORIGIN})
    assert (got.status, got.body, cors_headers(got)) == (403, ORIGIN_REFUSED, {})
    got = caller.ask(INITIALIZE)
    assert (got.status, cors_headers(got)) == (200, {})


@pytest.mark.parametrize("kind", KINDS)
def test_cors_for_a_configured_origin(listen: Listen, front: Front, kind: str) -> None:
    caller = Caller(front(kind, listen(KOVA_MCP_HTTP_ALLOWED_ORIGINS=ORIGIN),
                          changes=WITH_ORIGIN[kind]))
    readable = {"access-control-allow-origin": ORIGIN, "vary": "Origin",
                "access-control-expose-headers": "Mcp-Session-Id"}
    preflight = caller.ask(method="OPTIONS", headers=PREFLIGHT)
    assert (preflight.status, preflight.body) == (204, b"")
    assert preflight.header("Access-Control-Allow-Origin") == ORIGIN
    assert preflight.header("Access-Control-Allow-Methods") == "POST, DELETE"
    assert preflight.header("Access-Control-Allow-Headers") == (
        "Authorization, Content-Type, Mcp-Session-Id, MCP-Protocol-Version")
    assert preflight.header("Vary") == "Origin"
    first = caller.ask(INITIALIZE, headers={"Origin": ORIGIN})
    assert cors_headers(first) == readable
    session = session_of(first)
    assert cors_headers(caller.ask(PING, headers={**session, "Origin": ORIGIN})) == readable
    failed = caller.ask(PING, token="wrong", headers={"Origin": ORIGIN})
    assert (failed.status, cors_headers(failed)) == (401, readable)
    for other in ("https://evil.example.com", f"{ORIGIN}.example.com", "null"):
        preflight = caller.ask(method="OPTIONS", headers={**PREFLIGHT, "Origin": other})
        assert (preflight.status, cors_headers(preflight)) == (405, {})
        got = caller.ask(INITIALIZE, headers={"Origin": other})
        assert (got.status, got.body, cors_headers(got)) == (403, ORIGIN_REFUSED, {})


# several listeners


@pytest.fixture
def pair(listen: Listen, front: Front) -> tuple[FrontEnd, list[HttpListener]]:
    servers = [listen(), listen()]
    return front("haproxy", *servers), servers


def opened_directly(server: HttpListener) -> dict[str, str]:
    """A session that the front end has not seen opened."""
    got = server.post(INITIALIZE, headers={"Host": "localhost"})
    return {"Mcp-Session-Id": server.session_of(got)}


def open_sessions(caller: Caller, count: int) -> list[dict[str, str]]:
    return [session_of(caller.ask(INITIALIZE)) for _ in range(count)]


def test_haproxy_keeps_more_than_sixteen_sessions_each_at_its_listener(
        pair: tuple[FrontEnd, list[HttpListener]]) -> None:
    end, servers = pair
    caller = Caller(end)
    sessions = open_sessions(caller, SESSIONS_OF_A_LISTENER + 4)
    assert len({session["Mcp-Session-Id"] for session in sessions}) == len(sessions)
    for _ in range(3):
        for session in sessions:
            assert serves(caller, session)
    held = [len(server.children()) for server in servers]
    assert held == [len(sessions) // 2] * 2
    for session in sessions:
        assert caller.ask(method="DELETE", headers=session).status == 204
        assert caller.ask(PING, headers=session).status == 404
    for server in servers:
        wait_until(lambda server=server: server.children() == [], TIMEOUT,
                   "the end of the sessions")


def test_haproxy_finds_the_sessions_again_after_a_reload(listen: Listen, front: Front) -> None:
    """As after a new certificate."""
    end = front("haproxy", listen(), listen(), changes={
        "\n    peer this ": "\n    peer earlier 127.0.0.1:9\n    peer this "})
    caller = Caller(end)
    end.learn_from("earlier")
    sessions = open_sessions(caller, 6)
    end.reload()
    # These are all at the same listener: a front end that takes turns does not find them.
    for session in sessions[::2]:
        assert serves(caller, session)
    assert serves(caller, session_of(caller.ask(INITIALIZE)))


def test_haproxy_does_without_a_listener_that_has_ended(
        pair: tuple[FrontEnd, list[HttpListener]]) -> None:
    end, servers = pair
    caller = Caller(end)
    sessions = open_sessions(caller, 4)
    servers[0].stop()
    got = [caller.ask(PING, headers=session) for session in sessions]
    assert sorted(response.status for response in got) == [200, 200, 404, 404]
    assert {response.body for response in got if response.status == 404} == {NO_SESSION}
    for session in open_sessions(caller, 4):
        assert serves(caller, session)


def test_haproxy_learns_where_a_session_is_from_responses_alone(
        pair: tuple[FrontEnd, list[HttpListener]]) -> None:
    """An unknown id goes to the listeners in turn, until one accepts it."""
    end, servers = pair
    caller = Caller(end)
    sessions = [opened_directly(server) for server in servers for _ in range(3)]
    missed = 0
    for session in sessions:
        while not serves(caller, session):
            missed += 1
            assert missed < len(sessions)
    assert missed > 0
    for session in sessions:
        assert serves(caller, session)


# a listener without a free slot


def test_haproxy_admits_the_next_clients_where_a_slot_is_free(
        pair: tuple[FrontEnd, list[HttpListener]]) -> None:
    """The first listener is full of sessions that nobody uses any more."""
    end, servers = pair
    caller = Caller(end)
    forgotten = [opened_directly(servers[0]) for _ in range(SESSIONS_OF_A_LISTENER)]
    admitted = open_sessions(caller, SESSIONS_OF_A_LISTENER)
    assert [len(server.children()) for server in servers] == [SESSIONS_OF_A_LISTENER] * 2
    refused = caller.ask(INITIALIZE)
    assert (refused.status, refused.body) == (400, NO_SESSION)
    for session in admitted:
        assert serves(caller, session)
    got = servers[0].delete(forgotten[0]["Mcp-Session-Id"], headers={"Host": "localhost"})
    assert got == CLOSED
    for _ in range(2):  # whoever's turn it is
        session = session_of(caller.ask(INITIALIZE))
        assert serves(caller, session)
        assert caller.ask(method="DELETE", headers=session).status == 204


BAD_REQUEST = response(400, "Bad Request", NO_SESSION)
SOME_SESSION = {"Mcp-Session-Id": "0" * 64}


@pytest.fixture
def refusing(record: Callable[..., Recorder], front: Front,
             refusal: bytes) -> tuple[Caller, list[Recorder]]:
    """Three listeners that return the same to everything."""
    recorders = [record(response=refusal) for _ in range(3)]
    return Caller(front("haproxy", *recorders)), recorders


@pytest.mark.parametrize("refusal", [BAD_REQUEST])
@pytest.mark.parametrize("spelling", [b'"method":"initialize"', b'"method" : "initialize"'])
def test_haproxy_asks_every_listener_once_for_a_session(
        refusing: tuple[Caller, list[Recorder]], spelling: bytes) -> None:
    caller, recorders = refusing
    body = b'{"jsonrpc":"2.0","id":1,%b,"params":{"x":"%b"}}' % (spelling, b"x" * 250_000)
    got = caller.ask(body, headers={"X-Kova-Listener": "listener2"})
    assert (got.status, got.body) == (400, NO_SESSION)
    assert [recorder.connections for recorder in recorders] == [1, 1, 1]
    for recorder in recorders:
        head, _, sent = recorder.requests[0].partition(b"\r\n\r\n")
        assert sent == body
        assert b"x-kova-listener" not in head.lower()


@pytest.mark.parametrize("refusal", [BAD_REQUEST])
def test_haproxy_tells_a_front_that_no_slot_is_free(
        refusing: tuple[Caller, list[Recorder]]) -> None:
    """The front then asks another host."""
    caller, recorders = refusing
    got = caller.ask(INITIALIZE, headers={"X-Kova-Front": "yes"})
    assert (got.status, got.body) == (425, NO_SESSION)
    assert [recorder.connections for recorder in recorders] == [1, 1, 1]
    assert not any(b"x-kova-front" in recorder.requests[0].lower() for recorder in recorders)


@pytest.mark.parametrize("body, headers", [
    (PING, SOME_SESSION),
    (call(1, "kova_list_tables").rstrip(), SOME_SESSION),
    (INITIALIZE, SOME_SESSION),
    (PING, {}),
    (PING, {"X-Kova-Listener": "listener1"}),
    (b"no message", {}),
    (b'{"method":  "initialize"}', {})])
@pytest.mark.parametrize("refusal", [
    BAD_REQUEST, response(425, "Too Early"), response(502, "Bad Gateway"),
    response(503, "Unavailable"), b"HTTP/1.1 200 OK\r\nContent-", b""])
def test_haproxy_sends_nothing_else_twice(refusing: tuple[Caller, list[Recorder]],
                                          refusal: bytes, body: bytes,
                                          headers: dict[str, str]) -> None:
    """A request of a session might run twice, and a bad one is bad at every listener."""
    caller, recorders = refusing
    got = caller.ask(body, headers=headers)
    expected = int(refusal.split()[1]) if refusal.endswith((b"\r\n\r\n", b"}")) else 502
    assert got.status == expected
    assert sum(recorder.connections for recorder in recorders) == 1
    assert b"x-kova-listener" not in b"".join(
        data.lower() for recorder in recorders for data in recorder.requests)


@pytest.mark.parametrize("refusal", [
    response(401, "Unauthorized"), response(429, "Too Many Requests"), response(502, "Bad Gateway"),
    response(503, "Unavailable"), b"HTTP/1.1 200 OK\r\nContent-", b""])
def test_haproxy_repeats_an_initialize_after_no_other_response(
        refusing: tuple[Caller, list[Recorder]], refusal: bytes) -> None:
    caller, recorders = refusing
    expected = int(refusal.split()[1]) if refusal.endswith(b"\r\n\r\n") else 502
    assert caller.ask(INITIALIZE).status == expected
    assert sum(recorder.connections for recorder in recorders) == 1


@pytest.mark.parametrize("kind", KINDS)
def test_without_a_listener_the_front_end_says_so(
        record: Callable[..., Recorder], front: Front, kind: str) -> None:
    recorder = record()
    end = front(kind, recorder, changes=SHORT_RETRIES[kind])
    recorder.stop()
    assert Caller(end).ask(PING).status == {"nginx": 502, "haproxy": 503}[kind]
