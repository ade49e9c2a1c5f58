"""Sessions of the HTTP listener: their start, the exchanges, their end."""

from __future__ import annotations

import itertools
import json
import re
import select
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack
from typing import Iterator

import pytest

from harness.http_client import (CLOSED, HANGING_STATEMENT, INITIALIZE, INITIALIZE_SPACED,
                                 NO_SUCH_SESSION, RESPONSE_FAILED, SESSION_FAILED,
                                 SESSION_REQUIRED, SESSION_REUSED, SESSION_UNKNOWN, UNKNOWN_ID,
                                 Client, HttpListener, HttpListeners, accepted, ok_response)
from harness.messages import (OVERSIZE_ERROR, PARSE_ERROR, call, cancel, cancelled_reply,
                              error_reply, not_initialized, notification, ping, pong, request)
from harness.scripted_library import Repeat, Script, ScriptedLibrary

pytestmark = pytest.mark.threads

LIMIT = 16
ANSWER_LIMIT = 262144


@pytest.fixture(scope="module")
def shared(module_http: HttpListeners) -> HttpListener:
    return module_http()


@pytest.fixture
def endpoint(shared: HttpListener) -> Iterator[HttpListener]:
    """A listener that all tests share. None of them leaves a session behind, or all are ended."""
    yield shared
    left = shared.session_processes()
    for pid in left:
        shared.end_process(pid)
    if left:
        assert shared.delete(shared.open_session()) == CLOSED
    shared.wait_for_no_child()


@pytest.fixture
def session(endpoint: HttpListener) -> Iterator[str]:
    made = endpoint.open_session()
    yield made
    endpoint.delete(made)


def hanging(http: HttpListeners, engine: ScriptedLibrary, **env: str) -> HttpListener:
    """A listener whose calls of kova_list_tables hang in the engine."""
    engine.script(Script().on_exec(HANGING_STATEMENT, hang=True))
    return http({**engine.env, **env})


def is_answered(*clients: Client, seconds: float = 1.0) -> bool:
    """Whether any of them gets a response within the seconds."""
    return select.select([client.socket for client in clients], [], [], seconds)[0] != []


# the start


def test_initialize_gets_the_reply_of_the_stdio_server(endpoint, run):
    message = request("initialize", 1, {"protocolVersion": "2025-11-25"})
    reply = run(stdin=message).stdout
    got = endpoint.post_message(message)
    session = endpoint.session_of(got)
    assert got == ok_response(session, reply)
    assert endpoint.delete(session) == CLOSED


@pytest.mark.parametrize("message, reply", [
    (request("ping", 1, {"method": "initialize"})[:-1], not_initialized(1)),
    (b'{"jsonrpc":"2.0","id":1,"method":"tools/list","params":{"method" : "initialize"}}',
     not_initialized(1)),
    (b'{"id"' + INITIALIZE, PARSE_ERROR),
    (b'"id"' + INITIALIZE_SPACED, PARSE_ERROR),
])
def test_the_literal_anywhere_starts_a_session(endpoint, message, reply):
    """The session's own server decides what the message is."""
    got = endpoint.post(message)
    session = endpoint.session_of(got)
    assert got == ok_response(session, reply)
    assert endpoint.post_message(ping(2), session) == ok_response(session, not_initialized(2))
    assert endpoint.delete(session) == CLOSED


def test_a_session_that_begins_without_an_answer(endpoint):
    """Its error reply is the next response."""
    got = endpoint.post(b"x" + INITIALIZE)
    session = endpoint.session_of(got)
    assert got == accepted(session)
    assert endpoint.post_message(ping(1), session) == ok_response(session, PARSE_ERROR)
    assert endpoint.post_message(ping(2), session) == ok_response(session, not_initialized(1))
    assert endpoint.delete(session) == CLOSED


@pytest.mark.parametrize("body", [
    b'{"jsonrpc":"2.0","id":1,"method": "initialize","params":{}}',
    b'{"jsonrpc":"2.0","id":1,"method" :"initialize","params":{}}',
    b'{"jsonrpc":"2.0","id":1,"method":"\\u0069nitialize","params":{}}',
])
def test_other_spellings_of_initialize_start_none(endpoint, body):
    assert endpoint.post(body) == SESSION_REQUIRED
    assert endpoint.children() == []
    session = endpoint.open_session(request("ping", 0, {"method": "initialize"}))
    assert b'"serverInfo"' in endpoint.post(body, session)
    assert endpoint.post_message(ping(2), session) == ok_response(session, pong(2))
    assert endpoint.delete(session) == CLOSED


def test_initialize_with_a_session_id(endpoint, session):
    for sent in (session, UNKNOWN_ID, "x"):
        assert endpoint.post_message(request("initialize", 1, {}), sent) == SESSION_REUSED
    assert len(endpoint.children()) == 1


@pytest.mark.parametrize("sent", ["", " \t ", "s" * 96])
def test_initialize_with_an_id_that_counts_as_none(endpoint, sent):
    got = endpoint.post_message(request("initialize", 1, {}), sent)
    assert endpoint.delete(endpoint.session_of(got)) == CLOSED


def test_ids_are_drawn_anew(endpoint):
    ids = []
    for _ in range(40):
        ids.append(endpoint.open_session())
        assert endpoint.delete(ids[-1]) == CLOSED
    assert len(set(ids)) == 40
    # No two of them agree in more places than random ids would.
    assert max(sum(map(str.__eq__, a, b)) for a, b in itertools.combinations(ids, 2)) < 32


@pytest.mark.parametrize("change", [
    str.upper, lambda s: s[:-1], lambda s: s + "0", lambda s: s[:-1] + "g", lambda s: "g" + s[1:],
    lambda s: s + "\0", lambda s: "0" + s, lambda s: s + "," + s[:20], lambda s: f'"{s}"',
], ids=["upper", "shorter", "longer", "last", "first", "NUL", "before", "list", "quoted"])
def test_an_id_that_is_nearly_one(endpoint, change):
    session = next(s for s in iter(endpoint.open_session, "") if any(c > "9" for c in s))
    assert endpoint.post_message(ping(1), change(session)) == SESSION_UNKNOWN
    assert endpoint.delete(change(session)) == NO_SUCH_SESSION
    assert endpoint.post_message(ping(1), session) == ok_response(session, pong(1))
    assert endpoint.delete(session) == CLOSED


# sixteen of them


def test_the_seventeenth_session(endpoint):
    message = request("initialize", "init", {})
    sessions = [endpoint.open_session() for _ in range(LIMIT)]
    assert len(set(sessions)) == LIMIT
    assert endpoint.post_message(message) == SESSION_REQUIRED
    assert len(endpoint.children()) == LIMIT
    assert endpoint.delete(sessions[7]) == CLOSED
    sessions[7] = endpoint.open_session()
    assert endpoint.post_message(message) == SESSION_REQUIRED
    for number, session in enumerate(sessions):
        assert endpoint.post_message(ping(number), session) == ok_response(session, pong(number))
    assert [endpoint.delete(session) for session in sessions] == [CLOSED] * LIMIT


def test_more_clients_at_once_than_sessions(endpoint):
    message = request("initialize", "init", {})
    with ThreadPoolExecutor(24) as pool:
        answers = list(pool.map(lambda _: endpoint.post_message(message), range(24)))
    refused = [got for got in answers if got == SESSION_REQUIRED]
    sessions = {endpoint.session_of(got) for got in answers if got not in refused}
    assert (len(refused), len(sessions)) == (24 - LIMIT, LIMIT)
    with ThreadPoolExecutor(LIMIT) as pool:
        assert list(pool.map(endpoint.delete, sessions)) == [CLOSED] * LIMIT


def test_sessions_know_nothing_of_each_other(endpoint):
    """Neither request ids, nor the handshake, nor unread replies are shared."""
    first, second = endpoint.open_session(), endpoint.open_session()
    raw = endpoint.open_session(request("ping", 1, {"method": "initialize"}))
    assert endpoint.post(b"x", first) == accepted(first)
    assert endpoint.post_message(ping(1), second) == ok_response(second, pong(1))
    assert endpoint.post_message(ping(2), raw) == ok_response(raw, not_initialized(2))
    assert endpoint.post_message(ping(1), first) == ok_response(first, PARSE_ERROR)
    assert endpoint.post_message(ping(2), first) == ok_response(first, pong(1))
    used = error_reply("1", -32600, "request id is invalid or already used")
    assert endpoint.post_message(ping(1), second) == ok_response(second, used)
    assert endpoint.delete(first) == CLOSED
    assert endpoint.post_message(ping(3), second) == ok_response(second, pong(3))
    assert [endpoint.delete(s) for s in (second, raw)] == [CLOSED] * 2


# one exchange


@pytest.mark.parametrize("body", [
    b"", b"\r", b"\r\r", notification("notifications/initialized")[:-1], cancel(7)[:-1],
    notification("nothing", {"ID": 1, "Id": 2, "i": "d"})[:-1],
    notification("nothing", {"text": '"id"'})[:-1],
])
def test_a_body_that_wants_no_answer(endpoint, session, body):
    assert b'"id"' not in body
    assert endpoint.post(body, session) == accepted(session)
    assert endpoint.post_message(ping(1), session) == ok_response(session, pong(1))


def test_a_complaint_about_a_body_without_an_id_is_the_next_answer(endpoint, session):
    for body in (b"x", b"{}", b"[1]"):
        assert endpoint.post(body, session) == accepted(session)
    replies = [PARSE_ERROR, error_reply("null", -32600, "jsonrpc must be 2.0"), PARSE_ERROR,
               pong(1)]
    got = [endpoint.post_message(ping(number), session) for number in range(1, 5)]
    assert got == [ok_response(session, reply) for reply in replies]


@pytest.mark.parametrize("body", [
    notification("nothing", {"id": 1})[:-1], notification("nothing", ["id"])[:-1],
    cancel("id")[:-1],
])
def test_a_notification_that_mentions_an_id_waits_for_a_line(endpoint, session, body):
    """The next line of the session is taken as the response."""
    with endpoint.connect() as client:
        client.send(endpoint.compose(body, session).data())
        # Its message reaches the session before the error reply, or that reply waits for it.
        assert endpoint.post(b"x", session) == accepted(session)
        assert client.read_to_end() == ok_response(session, PARSE_ERROR)
    assert endpoint.post_message(ping(1), session) == ok_response(session, pong(1))


def test_several_messages_in_one_body(endpoint, session):
    """One line is read; the others stay for the exchanges to come."""
    assert endpoint.post(ping(1) + ping(2) + ping(3), session) == ok_response(session, pong(1))
    for number in range(4, 7):
        got = endpoint.post_message(ping(number), session)
        assert got == ok_response(session, pong(number - 2))
    assert endpoint.post(cancel(1) + b"x\n\n\nx", session) == accepted(session)
    replies = [pong(5), pong(6), PARSE_ERROR, PARSE_ERROR, pong(7)]
    for number, reply in enumerate(replies, 7):
        assert endpoint.post_message(ping(number), session) == ok_response(session, reply)


def test_what_a_session_leaves_unread_is_not_the_next_one_s(endpoint):
    """Although it takes the same slot."""
    first = endpoint.open_session()
    assert endpoint.post(ping(1) + ping(2) + ping(3), first) == ok_response(first, pong(1))
    assert endpoint.post_message(ping(4), first) == ok_response(first, pong(2))
    assert endpoint.delete(first) == CLOSED
    second = endpoint.open_session()
    assert endpoint.post_message(ping(5), second) == ok_response(second, pong(5))
    assert endpoint.delete(second) == CLOSED


def test_many_messages_in_one_body(endpoint, session):
    """Their replies, more than a pipe holds, come back complete and one by one."""
    ids = [f"{'i' * 88}{number:04}" for number in range(200)]
    got = endpoint.post(b"".join(map(ping, ids)), session)
    assert got == ok_response(session, pong(json.dumps(ids[0])))
    for request_id in ids[1:]:
        got = endpoint.post_message(request("nothing", "used"), session)
        assert got == ok_response(session, pong(json.dumps(request_id)))


def test_the_body_reaches_the_session_as_it_is(endpoint, session):
    padded = ping("u-\u00e9-\U0001f600")[:-1].ljust(262144)
    assert endpoint.post(padded, session) == ok_response(session, pong('"u-\u00e9-\U0001f600"'))
    assert endpoint.post(b'\xff"id"', session) == ok_response(session, PARSE_ERROR)
    assert endpoint.post(b"\r\r" + ping(2)[:-1] + b"\r\r", session) == ok_response(session, pong(2))


def test_a_nul_in_a_body(endpoint, session):
    """The NUL hides the line feed, so the next line is taken as the rest of this one."""
    with endpoint.connect() as client:
        client.send(endpoint.compose(ping(1)[:-1] + b"\0", session).data())
        while not is_answered(client, seconds=0.1):
            assert endpoint.post_message(notification("nothing"), session) == accepted(session)
        assert client.read_to_end() == ok_response(session, OVERSIZE_ERROR)


def test_what_follows_the_body_is_not_sent(endpoint, session):
    data = endpoint.compose(ping(1)[:-1], session).data()
    assert endpoint.exchange(data + b"x") == ok_response(session, pong(1))
    assert endpoint.post_message(ping(2), session) == ok_response(session, pong(2))


def test_a_delete_with_a_body(endpoint):
    session = endpoint.open_session()
    composed = endpoint.compose(b"x" + INITIALIZE, session, method="DELETE")
    assert endpoint.exchange(composed.data()) == CLOSED
    endpoint.wait_for_no_child()


# what the session replies


def answer_of(http: HttpListeners, engine: ScriptedLibrary, output: "bytes | Repeat",
              more: bytes = b"") -> tuple[HttpListener, str, bytes]:
    """The response to a call whose worker writes that line, and where it came from."""
    script = Script().on("Status", stdout=more, exit_code=0)
    engine.script(script.on_exec(HANGING_STATEMENT, stdout=output))
    endpoint = http(engine.env)
    session = endpoint.open_session()
    return endpoint, session, endpoint.post_message(call(1, "kova_list_tables"), session)


@pytest.mark.parametrize("size, more", [
    (1, b"\n"), (65535, b"\n"), (65536, b"\n"), (65537, b"\n"), (ANSWER_LIMIT - 1, b"\n"),
    (ANSWER_LIMIT, b"\n"), (ANSWER_LIMIT, b"\r\n"), (ANSWER_LIMIT, b"\r" * 1000 + b"\n"),
    (ANSWER_LIMIT - 1, b"\r\r\rx\r\r\n"),
])
def test_an_answer_of_any_size_up_to_the_limit(http, engine, size, more):
    """Carriage returns do not count."""
    endpoint, session, got = answer_of(http, engine, Repeat(size), more)
    assert got == ok_response(session, b"x" * size + more.replace(b"\r", b""))
    assert endpoint.post_message(ping(2), session) == ok_response(session, pong(2))


@pytest.mark.parametrize("size, more", [
    (ANSWER_LIMIT + 1, b"\n"), (ANSWER_LIMIT, b"\rx\n"), (600000, b"\n"),
    (1048577, b"\n"), (0, b"\n"), (0, b"\r\r\n")])
def test_an_answer_that_is_too_long_or_empty_ends_the_session(http, engine, size, more):
    endpoint, session, got = answer_of(http, engine, Repeat(size) if size else b"", more)
    assert got == RESPONSE_FAILED
    assert endpoint.post_message(ping(2), session) == SESSION_UNKNOWN
    endpoint.wait_for_no_child()
    assert endpoint.server.zombies() == []


def test_the_rest_of_an_answer_that_is_too_long_is_nobody_s(http, engine):
    """The next request does not get it."""
    script = Script().on_exec(HANGING_STATEMENT, sleep=0.5, stdout=Repeat(600000))
    engine.script(script.on("Status", stdout=b"\n", exit_code=0))
    endpoint = http(engine.env)
    session = endpoint.open_session()
    with endpoint.hanging_call(session) as running, ExitStack() as stack:
        engine.wait_for_statement(HANGING_STATEMENT)
        waiting = [stack.enter_context(endpoint.connect()) for _ in range(5)]
        for number, client in enumerate(waiting):
            client.send(endpoint.compose(ping(number)[:-1], session).data())
        expect_ended(endpoint, session, running, waiting)


def test_an_answer_of_several_lines(http, engine):
    endpoint, session, got = answer_of(http, engine, b"one\n\rtwo\r", b"\n\nfour\n")
    assert got == ok_response(session, b"one")
    assert endpoint.post_message(ping(2), session) == ok_response(session, b"two")
    assert endpoint.post_message(ping(3), session) == RESPONSE_FAILED  # an empty line
    assert endpoint.post_message(ping(4), session) == SESSION_UNKNOWN


def test_an_answer_of_any_bytes(http, engine):
    output = bytes(set(range(256)) - set(b"\r\n"))
    _, session, got = answer_of(http, engine, output, b"\n")
    assert got == ok_response(session, output)


# the end


def test_delete_ends_the_session(endpoint):
    session = endpoint.open_session()
    assert endpoint.delete(session) == CLOSED
    assert endpoint.server.zombies() == []
    if not endpoint.server.target.windows:  # where an ended process stays listed a little longer
        assert endpoint.children() == []
    endpoint.wait_for_no_child()
    assert endpoint.post_message(ping(1), session) == SESSION_UNKNOWN
    assert endpoint.delete(session) == NO_SUCH_SESSION


@pytest.mark.parametrize("message", [ping(1), notification("notifications/initialized")])
def test_a_session_whose_process_has_ended(endpoint, message):
    """It stays in the table until a request uses it."""
    session = endpoint.open_session()
    endpoint.end_process(endpoint.children()[0])
    assert endpoint.post_message(message, session) == SESSION_FAILED
    assert endpoint.post_message(message, session) == SESSION_UNKNOWN
    assert endpoint.delete(session) == NO_SUCH_SESSION
    assert endpoint.server.zombies() == []


def test_delete_of_a_session_whose_process_has_ended(endpoint):
    session = endpoint.open_session()
    endpoint.end_process(endpoint.children()[0])
    assert endpoint.delete(session) == CLOSED
    assert endpoint.delete(session) == NO_SUCH_SESSION


def test_a_process_that_ends_during_an_exchange(http, engine):
    """A call whose id is too long in its source runs in the session's own process."""
    engine.script(Script().on_exec(HANGING_STATEMENT, crash=True))
    endpoint = http(engine.env)
    session = endpoint.open_session()
    escaped = "\\u0041" * 20
    message = (b'{"jsonrpc":"2.0","id":"%s","method":"tools/call",'
               b'"params":{"name":"kova_list_tables"}}' % escaped.encode())
    assert endpoint.post(message, session) == RESPONSE_FAILED
    assert endpoint.post_message(ping(2), session) == SESSION_UNKNOWN
    assert endpoint.delete(endpoint.open_session()) == CLOSED


def test_the_next_initialize_reaps_what_has_ended(endpoint):
    """Also when it needs the slot itself."""
    sessions = [endpoint.open_session() for _ in range(LIMIT)]
    for pid in endpoint.session_processes()[3:6]:
        endpoint.end_process(pid)
    sessions.append(endpoint.open_session())
    assert endpoint.server.zombies() == []
    answers = [endpoint.post_message(ping(n), session) for n, session in enumerate(sessions)]
    gone = [session for session, got in zip(sessions, answers) if got == SESSION_UNKNOWN]
    alive = [session for session in sessions if session not in gone]
    assert len(gone) == 3 and sessions[-1] in alive
    assert answers == [SESSION_UNKNOWN if session in gone else ok_response(session, pong(n))
                       for n, session in enumerate(sessions)]
    assert [endpoint.delete(session) for session in gone] == [NO_SUCH_SESSION] * 3
    sessions = alive + [endpoint.open_session() for _ in range(2)]
    assert endpoint.post_message(request("initialize", 1, {})) == SESSION_REQUIRED
    assert [endpoint.delete(session) for session in sessions] == [CLOSED] * LIMIT


def test_a_session_that_takes_no_more(endpoint, session):
    """Unread error replies fill its output pipe, then a body fills its input pipe."""
    with ExitStack() as stack:
        def begin(body: bytes) -> Client:
            client = stack.enter_context(endpoint.connect())
            client.send(endpoint.compose(body, session).data())
            return client

        while is_answered(stuck := begin(b"x\n" * 131072)):
            assert stuck.read_to_end() == accepted(session)
        clients = [stuck, begin(b"x"), begin(ping(1)[:-1])]
        assert not is_answered(*clients)
        other = endpoint.open_session()
        assert endpoint.post_message(ping(1), other) == ok_response(other, pong(1))
        assert [endpoint.delete(one) for one in (session, other)] == [CLOSED] * 2
        assert [client.read_to_end() for client in clients] == [SESSION_FAILED] * 3
    endpoint.wait_for_no_child()


# side by side


def test_parallel_requests_of_one_session(endpoint, session):
    """Each gets its own complete reply."""
    def ask(number: int) -> bool:
        request_id = f"{number:04}" + "p" * 80
        got = endpoint.post_message(ping(request_id), session)
        return got == ok_response(session, pong(json.dumps(request_id)))

    with ThreadPoolExecutor(16) as pool:
        assert all(pool.map(ask, range(240)))


def test_parallel_calls_of_one_session(http, engine):
    """None of them finds another call active."""
    cell = "c" * 3000
    engine.script(Script().on_exec(HANGING_STATEMENT, columns=["A"], rows=[[cell]] * 20))
    endpoint = http(engine.env)
    session = endpoint.open_session()

    def ask(number: int) -> bytes:
        return endpoint.post_message(call(f"call-{number}", "kova_list_tables"), session)

    with ThreadPoolExecutor(8) as pool:
        answers = list(pool.map(ask, range(24)))
    for number, got in enumerate(answers):
        body = got.partition(b"\r\n\r\n")[2]
        assert got == ok_response(session, body)
        reply = json.loads(body)
        assert reply["id"] == f"call-{number}"
        assert reply["result"]["structuredContent"]["rows"] == [[cell]] * 20


def test_parallel_requests_of_many_sessions(endpoint):
    sessions = [endpoint.open_session() for _ in range(8)]

    def ask(number: int) -> bool:
        session = sessions[number % 8]
        return endpoint.post_message(ping(number), session) == ok_response(session, pong(number))

    with ThreadPoolExecutor(16) as pool:
        assert all(pool.map(ask, range(400)))
    assert [endpoint.delete(session) for session in sessions] == [CLOSED] * 8


def test_notifications_do_not_mix_with_requests(endpoint, session):
    """Bodies larger than a pipe takes at once come through unbroken."""
    def send(number: int) -> bool:
        if number % 2:
            body = notification("nothing")[:-1].ljust(200000)
            return endpoint.post(body, session) == accepted(session)
        body = ping(number)[:-1].ljust(200000)
        return endpoint.post(body, session) == ok_response(session, pong(number))

    with ThreadPoolExecutor(8) as pool:
        assert all(pool.map(send, range(80)))


def test_a_cancel_passes_the_call_that_it_cancels(http, engine):
    endpoint = hanging(http, engine)
    session = endpoint.open_session()
    with endpoint.hanging_call(session) as client:
        engine.wait_for_statement(HANGING_STATEMENT)
        assert endpoint.post_message(cancel("other"), session) == accepted(session)
        assert endpoint.post_message(cancel("hang"), session) == accepted(session)
        assert client.read_to_end() == ok_response(session, cancelled_reply('"hang"'))
    assert endpoint.post_message(ping(1), session) == ok_response(session, pong(1))
    assert endpoint.server.workers() == []


def test_requests_wait_for_the_call_that_runs(http, engine):
    """None of them is refused as busy."""
    endpoint = hanging(http, engine)
    session = endpoint.open_session()
    with endpoint.hanging_call(session) as client, ExitStack() as stack:
        engine.wait_for_statement(HANGING_STATEMENT)
        waiting = [stack.enter_context(endpoint.connect()) for _ in range(10)]
        for number, one in enumerate(waiting):
            one.send(endpoint.compose(ping(number)[:-1], session).data())
        assert endpoint.post_message(cancel("hang"), session) == accepted(session)
        assert client.read_to_end() == ok_response(session, cancelled_reply('"hang"'))
        for number, one in enumerate(waiting):
            assert one.read_to_end() == ok_response(session, pong(number))


def test_a_call_of_one_session_delays_no_other(http, engine):
    endpoint = hanging(http, engine)
    first, second = endpoint.open_session(), endpoint.open_session()
    with endpoint.hanging_call(first):
        engine.wait_for_statement(HANGING_STATEMENT)
        assert endpoint.post_message(ping(1), second) == ok_response(second, pong(1))
        third = endpoint.open_session()
        assert endpoint.post_message(ping(1), third) == ok_response(third, pong(1))
        assert [endpoint.delete(s) for s in (second, third)] == [CLOSED] * 2
        assert endpoint.delete(first) == CLOSED


# a session that ends while it is used


def expect_ended(endpoint: HttpListener, session: str, running: Client,
                 waiting: list[Client]) -> None:
    """Each client of the session gets an error, and nothing of the session is left."""
    assert running.read_to_end() == RESPONSE_FAILED
    for client in waiting:
        assert client.read_to_end() in (SESSION_UNKNOWN, SESSION_FAILED, RESPONSE_FAILED)
    assert endpoint.post_message(ping(1), session) == SESSION_UNKNOWN
    endpoint.wait_for_no_child()
    assert endpoint.server.zombies() == []


@pytest.fixture
def busy_session(http, engine) -> Iterator[tuple[HttpListener, str, Client, list[Client]]]:
    """A session with a call that runs and requests that wait for their turn."""
    endpoint = hanging(http, engine)
    session = endpoint.open_session()
    with ExitStack() as stack:
        running = stack.enter_context(endpoint.hanging_call(session))
        engine.wait_for_statement(HANGING_STATEMENT)
        waiting = [stack.enter_context(endpoint.connect()) for _ in range(5)]
        for number, client in enumerate(waiting):
            client.send(endpoint.compose(ping(number)[:-1], session).data())
        assert len(endpoint.server.workers()) == 1
        yield endpoint, session, running, waiting


def test_delete_while_a_call_runs(busy_session):
    endpoint, session, running, waiting = busy_session
    assert endpoint.delete(session) == CLOSED
    expect_ended(endpoint, session, running, waiting)


def test_delete_by_many_while_a_call_runs(busy_session):
    endpoint, session, running, waiting = busy_session
    with ThreadPoolExecutor(8) as pool:
        answers = list(pool.map(lambda _: endpoint.delete(session), range(8)))
    assert CLOSED in answers and set(answers) <= {CLOSED, NO_SUCH_SESSION}
    expect_ended(endpoint, session, running, waiting)


def test_a_process_that_ends_while_a_call_runs(busy_session):
    endpoint, session, running, waiting = busy_session
    [pid] = endpoint.session_processes()
    endpoint.end_process(pid)
    expect_ended(endpoint, session, running, waiting)


def test_clients_that_leave_a_running_call(busy_session):
    """The call and the session continue without their client."""
    endpoint, session, running, waiting = busy_session
    running.reset()
    for client in waiting:
        client.socket.close()
    assert len(endpoint.server.workers()) == 1
    assert endpoint.post_message(cancel("hang"), session) == accepted(session)
    assert endpoint.post_message(ping(99), session) == ok_response(session, pong(99))
    assert endpoint.delete(session) == CLOSED
    endpoint.wait_for_no_child()


def test_the_end_of_the_listener_ends_everything(busy_session):
    endpoint, _, running, waiting = busy_session
    endpoint.open_session()
    endpoint.server.kill()
    endpoint.server.expect_no_process()
    for client in (running, *waiting):
        assert client.read_to_end() == b""


def test_sessions_that_end_while_others_begin(endpoint):
    """Slots are reused under many clients; no client reaches another one's session."""
    def live(number: int) -> bool:
        for turn in range(4):
            got = endpoint.post_message(request("initialize", f"init-{number}-{turn}", {}))
            if got == SESSION_REQUIRED:
                continue
            session = endpoint.session_of(got)
            reply = endpoint.post_message(ping(f"{number}-{turn}"), session)
            if reply != ok_response(session, pong(f'"{number}-{turn}"')):
                return False
            if endpoint.delete(session) != CLOSED:
                return False
        return True

    with ThreadPoolExecutor(20) as pool:
        assert all(pool.map(live, range(20)))


# what a session is given


def test_its_standard_error_is_the_listener_s(http, engine):
    endpoint = hanging(http, engine, KOVA_MCP_DEBUG="1")
    session = endpoint.open_session()
    with endpoint.hanging_call(session):
        engine.wait_for_statement(HANGING_STATEMENT)
        endpoint.post_message(cancel("hang"), session)
        endpoint.server.wait_for_stderr("MCP_TRACE event=cancel_matched request_id=hang")


def test_it_runs_the_listener_s_executable_without_arguments(endpoint, session):
    [pid] = endpoint.children()
    with open(f"/proc/{pid}/cmdline", "rb") as file:
        command = file.read().rstrip(b"\0").decode()
    assert re.split(r"[/\\]", command)[-1] == endpoint.server.target.executable.name
