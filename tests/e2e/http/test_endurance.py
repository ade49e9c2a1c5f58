"""The HTTP listener among slow, broken and many clients: it stays up, serves, and loses nothing.

What the listener holds is counted from outside (`Holdings`): threads and memory by /proc on both
targets, Unix descriptors by /proc too. Under Wine those are the sockets and pipes that the process
has used, and the rest of its handles (processes, jobs, events, threads) are counted by a helper
that asks Wine for its table of handles.
"""

from __future__ import annotations

import os
import shutil
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path
from typing import Iterator

import pytest

import wine
from harness.http_client import (CLOSED, HANGING_STATEMENT, INITIALIZE, RESPONSE_FAILED,
                                 SESSION_FAILED, SESSION_REQUIRED, SESSION_REUSED, SESSION_UNKNOWN,
                                 UNBOUNDED, UNKNOWN_ID, HttpListener, HttpListeners, accepted,
                                 ok_response)
from harness.messages import call, cancel, cancelled_reply, ping, pong
from harness.scripted_library import Repeat, Script, ScriptedLibrary
from harness.servers import Servers
from harness.targets import Installation, Target
from harness.waiting import TIMEOUT, wait_until

pytestmark = pytest.mark.endurance

PASSED = SESSION_REQUIRED


@dataclass(frozen=True)
class Holdings:
    """What a process holds of the system, but for memory."""

    descriptors: int
    threads: int
    handles: int


class NamedInstallation(Installation):
    """The executable under another name, so that its processes differ from those of other tests."""

    name = f"kova-mcp-{os.getpid()}.exe"

    def executable(self, library: str | None = None, folder: Path | None = None) -> Path:
        plain = super().executable(library, folder)
        named = plain.with_name(self.name)
        if not named.exists():
            shutil.copy2(plain, named)
        return named


def handles(target: Target) -> int:
    if not target.windows:
        return 0
    helper = target.build / "tests" / "support" / "handle-count.exe"
    told = subprocess.run(wine.command(helper, NamedInstallation.name), stdout=subprocess.PIPE,
                          env=target.environment({}), check=True, timeout=TIMEOUT)
    return int(told.stdout)


def holdings(endpoint: HttpListener) -> Holdings:
    process = Path("/proc", str(endpoint.server.process.pid))
    return Holdings(len(os.listdir(process / "fd")), len(os.listdir(process / "task")),
                    handles(endpoint.server.target))


def resident_kib(endpoint: HttpListener) -> int:
    status = Path("/proc", str(endpoint.server.process.pid), "status").read_text("ascii")
    [line] = [line for line in status.splitlines() if line.startswith("VmRSS:")]
    return int(line.split()[1])


def at_rest(endpoint: HttpListener) -> Holdings:
    """What it holds once nothing changes any more: a connection's thread ends a moment after its
    client has seen its end."""
    held = holdings(endpoint)
    for _ in range(100):
        time.sleep(0.2)
        held, earlier = holdings(endpoint), held
        if held == earlier:
            return held
    raise AssertionError(f"{held} instead of {earlier}")


def expect_to_hold(endpoint: HttpListener, expected: Holdings) -> None:
    end = time.monotonic() + TIMEOUT
    while (held := holdings(endpoint)) != expected:
        assert time.monotonic() < end, f"{held} instead of {expected}"
        time.sleep(0.05)


@pytest.fixture
def endpoint(target: Target, tmp_path: Path, engine: ScriptedLibrary) -> Iterator[HttpListener]:
    """A listener that has served each kind of request once and has no sessions."""
    servers = Servers(target, NamedInstallation(target, tmp_path / "named"), tmp_path)
    listeners = HttpListeners(servers)
    try:
        made = listeners(engine.env)
        assert made.post() == PASSED
        assert made.delete(made.open_session()) == CLOSED
        made.wait_for_no_child()
        yield made
    finally:
        listeners.close()
        servers.close()


# slow clients


def test_a_request_byte_by_byte(endpoint):
    session = endpoint.open_session()
    with endpoint.connect() as client:
        for byte in endpoint.compose(ping(1)[:-1], session).data():
            client.send(bytes([byte]))
        assert client.read_to_end() == ok_response(session, pong(1))


def test_slow_clients_hold_nobody_up(endpoint):
    """While some clients send byte by byte, others are served."""
    session = endpoint.open_session()
    data = endpoint.compose(ping(1)[:-1], UNKNOWN_ID).data()
    with ExitStack() as stack:
        slow = [stack.enter_context(endpoint.connect()) for _ in range(30)]
        for position, byte in enumerate(data):
            for client in slow:
                client.send(bytes([byte]))
            if position % 10 == 0:
                reply = endpoint.post_message(ping(position), session)
                assert reply == ok_response(session, pong(position))
        assert [client.read_to_end() for client in slow] == [SESSION_UNKNOWN] * 30
    assert endpoint.delete(session) == CLOSED


def test_a_body_in_many_pieces(endpoint):
    body = b" " * (262144 - len(INITIALIZE)) + INITIALIZE
    data = endpoint.compose(body, UNKNOWN_ID).data()
    with endpoint.connect() as client:
        for start in range(0, len(data), 3001):
            client.send(data[start:start + 3001])
        assert client.read_to_end() == SESSION_REUSED


def test_clients_that_do_not_read(endpoint, engine):
    """A session does not wait for clients that do not read."""
    script = Script().on("Status", stdout=b"\n", exit_code=0)
    engine.script(script.on_exec(HANGING_STATEMENT, stdout=Repeat(262144)))
    session = endpoint.open_session()
    with ExitStack() as stack:
        idle = [stack.enter_context(endpoint.connect()) for _ in range(12)]
        for number, client in enumerate(idle):
            message = call(f"call-{number}", "kova_list_tables")[:-1]
            client.send(endpoint.compose(message, session).data())
        engine.wait_for_statement(HANGING_STATEMENT, len(idle))
        assert endpoint.post_message(ping(1), session) == ok_response(session, pong(1))
        for client in idle:
            assert client.read_to_end() == ok_response(session, b"x" * 262144)


# clients that leave


def stages(data: bytes, body_begins: int) -> list[int]:
    """How much of a request is sent before its client leaves."""
    return [0, 1, 10, 20, body_begins - 2, body_begins, body_begins + 1, len(data) - 1, len(data)]


@pytest.mark.parametrize("how", ["closed", "half closed and closed", "reset"])
def test_clients_that_leave_at_every_stage(endpoint, how):
    before = at_rest(endpoint)
    session = endpoint.open_session()
    for number in range(20):
        data = endpoint.compose(ping(f"left-{number}")[:-1], session).data()
        for cut in stages(data, data.index(b"\r\n\r\n") + 4)[:None if number < 5 else -1]:
            client = endpoint.connect()
            client.send(data[:cut])
            if how == "reset":
                client.reset()
            elif how == "closed":
                client.socket.close()
            else:
                client.end_sending()
                client.socket.close()
    assert endpoint.post_message(ping(1), session) == ok_response(session, pong(1))
    assert endpoint.delete(session) == CLOSED
    expect_to_hold(endpoint, before)


def test_silent_clients(endpoint):
    """Each takes a thread and a socket while it is connected."""
    before = at_rest(endpoint)
    with ExitStack() as stack:
        for _ in range(100):
            stack.enter_context(endpoint.connect())
        wait_until(lambda: holdings(endpoint).threads == before.threads + 100, TIMEOUT,
                   "a thread for each connection")
        assert endpoint.post() == PASSED
    expect_to_hold(endpoint, before)


# many clients


def test_many_clients_at_once(endpoint):
    """More connections than the backlog holds; none is lost."""
    before = at_rest(endpoint)
    with ExitStack() as stack:
        clients = [stack.enter_context(endpoint.connect()) for _ in range(100)]
        for client in clients:
            client.send(endpoint.compose().data())
        assert [client.read_to_end() for client in clients] == [PASSED] * 100
    expect_to_hold(endpoint, before)


def test_a_flood_of_bytes_takes_bounded_memory(endpoint):
    """A connection's buffer keeps its size, however much is sent."""
    def flood(_: int) -> bytes:
        return endpoint.exchange(b"POST /mcp HTTP/1.1\r\n" + b"x" * (4 << 20))

    before = at_rest(endpoint)
    with ThreadPoolExecutor(8) as pool:
        assert set(pool.map(flood, range(40))) <= {UNBOUNDED, b""}
    assert endpoint.post() == PASSED
    assert resident_kib(endpoint) < 64 * 1024
    expect_to_hold(endpoint, before)


def use_sessions(endpoint: HttpListener, rounds: int) -> None:
    """Sessions that end in each possible way."""
    for number in range(rounds):
        session = endpoint.open_session()
        assert endpoint.post_message(ping(number), session) == ok_response(session, pong(number))
        if number % 4 == 1:
            endpoint.end_process(endpoint.session_processes()[0])
            assert endpoint.post_message(ping("x"), session) == SESSION_FAILED
        elif number % 4 == 2:
            assert endpoint.post(b"x", session) == accepted(session)  # the error reply is not read
            assert endpoint.delete(session) == CLOSED
        elif number % 4 == 3:
            endpoint.end_process(endpoint.session_processes()[0])  # the next initialize removes it
            if number == rounds - 1:
                assert endpoint.delete(session) == CLOSED
        else:
            assert endpoint.delete(session) == CLOSED


def come_and_go(endpoint: HttpListener, connections: int) -> None:
    good = endpoint.compose().data()
    bad = endpoint.compose(headers={"Content-Length": "-1"}).data()
    unknown = endpoint.compose(ping(1)[:-1], UNKNOWN_ID).data()

    def one(number: int) -> bool:
        kind = number % 6
        if kind == 0:
            return endpoint.exchange(good) == PASSED
        if kind == 1:
            return endpoint.exchange(bad) == UNBOUNDED
        if kind == 2:
            return endpoint.exchange(unknown) == SESSION_UNKNOWN
        if kind == 3:
            return endpoint.exchange(good[:number % len(good)], ended=True) == UNBOUNDED
        client = endpoint.connect()
        client.send(good[:number % len(good)])
        if kind == 4:
            client.reset()
        else:
            client.socket.close()
        return True

    with ThreadPoolExecutor(8) as pool:
        assert all(pool.map(one, range(connections)))


def test_thousands_of_connections_leave_nothing_behind(endpoint):
    before = at_rest(endpoint)
    for _ in range(2):
        come_and_go(endpoint, 1500)
        use_sessions(endpoint, 12)
        expect_to_hold(endpoint, before)
    assert endpoint.children() == [] and endpoint.server.zombies() == []


@pytest.mark.shipped_build
def test_thousands_of_connections_take_no_memory_for_good(endpoint):
    come_and_go(endpoint, 1500)
    use_sessions(endpoint, 12)
    used = resident_kib(endpoint)
    for _ in range(3):
        come_and_go(endpoint, 1500)
        use_sessions(endpoint, 12)
    assert resident_kib(endpoint) < used + 4096


def test_sessions_that_come_and_go_side_by_side(endpoint):
    before = at_rest(endpoint)

    def live(number: int) -> bool:
        session = endpoint.open_session()
        reply = endpoint.post_message(ping(number), session)
        return (reply == ok_response(session, pong(number))) & (endpoint.delete(session) == CLOSED)

    with ThreadPoolExecutor(8) as pool:
        assert all(pool.map(live, range(120)))
    endpoint.wait_for_no_child()
    expect_to_hold(endpoint, before)


def test_calls_that_are_broken_off_leave_nothing_behind(endpoint, engine):
    """By a cancel, by DELETE and by their client."""
    engine.script(Script().on_exec(HANGING_STATEMENT, hang=True))
    before = at_rest(endpoint)
    for number in range(1, 13):
        session = endpoint.open_session()
        with endpoint.hanging_call(session, number) as client:
            engine.wait_for_statement(HANGING_STATEMENT, number)
            if number % 3 == 0:
                client.reset()
            elif number % 3 == 1:
                assert endpoint.post_message(cancel(number), session) == accepted(session)
                reply = ok_response(session, cancelled_reply(str(number)))
                assert client.read_to_end() == reply
            assert endpoint.delete(session) == CLOSED
            if number % 3 == 2:
                assert client.read_to_end() == RESPONSE_FAILED
    endpoint.wait_for_no_child()
    expect_to_hold(endpoint, before)
