"""The HTTP listener on POSIX: descriptors, signals, ended children."""

from __future__ import annotations

import contextlib
import ctypes
import os
import resource
import select
import signal
import socket
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack
from pathlib import Path

import pytest

from harness.http_client import CLOSED, SESSION_REQUIRED, UNAUTHORIZED, accepted, ok_response
from harness.messages import notification, ping, pong
from harness.waiting import TIMEOUT, wait_until

PIDFD_OPEN, PIDFD_GETFD = 434, 438  # system calls


@pytest.fixture
def endpoint(http):
    return http()


def descriptors(pid: int) -> "dict[str, str]":
    found = {}
    for name in os.listdir(f"/proc/{pid}/fd"):
        with contextlib.suppress(FileNotFoundError):  # closed meanwhile
            found[name] = os.readlink(f"/proc/{pid}/fd/{name}")
    return found


def listening_socket(pid: int, port: int) -> socket.socket:
    """A duplicate of the listener's own socket."""
    system_call = ctypes.CDLL(None, use_errno=True).syscall
    process = system_call(PIDFD_OPEN, pid, 0)
    assert process >= 0, os.strerror(ctypes.get_errno())
    for name, link in descriptors(pid).items():
        if not link.startswith("socket:"):
            continue
        duplicate = system_call(PIDFD_GETFD, process, int(name), 0)
        assert duplicate >= 0, os.strerror(ctypes.get_errno())
        found = socket.socket(fileno=duplicate)
        if found.getsockname()[1] == port and found.getsockopt(socket.SOL_SOCKET,
                                                               socket.SO_ACCEPTCONN):
            os.close(process)
            return found
        found.close()
    raise AssertionError("no listening socket")


def test_the_listener_ends_with_0_when_nothing_can_be_accepted_any_more(endpoint):
    session = endpoint.open_session()
    assert endpoint.post_message(ping(1), session) == ok_response(session, pong(1))
    with listening_socket(endpoint.server.process.pid, endpoint.port) as own:
        own.shutdown(socket.SHUT_RDWR)
    assert endpoint.server.wait() == 0
    endpoint.server.expect_no_process()


def wait_for_rest(pid: int) -> None:
    """Waits until only the listener's thread and the one that starts sessions are left."""
    wait_until(lambda: len(os.listdir(f"/proc/{pid}/task")) == 2, TIMEOUT, "the last connection")


def test_a_lack_of_descriptors_passes(endpoint):
    """Connections wait until others close; a session that cannot be made is refused."""
    process, session, room = endpoint.server.process.pid, endpoint.open_session(), 6
    wait_for_rest(process)
    held = len(descriptors(process))
    resource.prlimit(process, resource.RLIMIT_NOFILE, (held + room, held + room))
    with ExitStack() as late:
        with ExitStack() as early:
            for _ in range(room - 2):
                early.enter_context(endpoint.connect())
            wait_until(lambda: len(descriptors(process)) == held + room - 2, TIMEOUT, "clients")
            assert endpoint.post(b'"method":"initialize"') == SESSION_REQUIRED
            assert endpoint.post_message(ping(1), session) == ok_response(session, pong(1))
            for _ in range(2):
                early.enter_context(endpoint.connect())
            wait_until(lambda: len(descriptors(process)) == held + room, TIMEOUT, "more clients")
            waiting = late.enter_context(endpoint.connect())
            waiting.send(endpoint.compose(ping(2)[:-1], session).data())
            assert select.select([waiting.socket], [], [], 0.5)[0] == []
        assert waiting.read_to_end() == ok_response(session, pong(2))
    assert endpoint.delete(session) == CLOSED
    assert endpoint.delete(endpoint.open_session()) == CLOSED


def test_a_session_holds_its_standard_streams_alone(endpoint):
    """Neither another session's pipes nor a client's connection."""
    sessions = [endpoint.open_session()]
    with endpoint.connect() as silent:
        sessions.append(endpoint.open_session())
        links = [descriptors(pid) for pid in endpoint.session_processes()]
        silent.end_sending()
    own = descriptors(endpoint.server.process.pid)
    assert len(links) == 2
    for held in links:
        assert sorted(held) == ["0", "1", "2"]
        assert held["2"] == own["2"]
    assert len({held[stream] for held in links for stream in "01"}) == 4
    assert [endpoint.delete(session) for session in sessions] == [CLOSED] * 2


def test_the_listener_passes_its_own_descriptors_to_nobody(http):
    """Including those that the listener was started with."""
    reader, writer = os.pipe()
    endpoint = http(pass_fds=[reader, writer])
    os.close(reader)
    os.close(writer)
    session = endpoint.open_session()
    [pid] = endpoint.session_processes()
    assert sorted(descriptors(pid)) == ["0", "1", "2"]
    assert endpoint.delete(session) == CLOSED


def signal_mask(pid: int, name: str) -> int:
    lines = Path(f"/proc/{pid}/status").read_text("ascii").splitlines()
    [mask] = [line.split()[1] for line in lines if line.startswith(f"{name}:")]
    return int(mask, 16)


def test_clients_and_children_that_have_gone_end_nobody(endpoint):
    """The listener ignores the signal of a broken pipe."""
    session = endpoint.open_session()
    [pid] = endpoint.session_processes()
    own = signal_mask(endpoint.server.process.pid, "SigIgn")
    assert own >> (signal.SIGPIPE - 1) & 1
    endpoint.end_process(pid)
    assert endpoint.post_message(notification("nothing"), session).startswith(b"HTTP/1.1 502 ")
    assert endpoint.server.process.poll() is None


def test_a_listener_that_was_stopped_goes_on(endpoint):
    """Together with connections that came meanwhile, open or closed."""
    session = endpoint.open_session()
    process = endpoint.server.process.pid
    os.kill(process, signal.SIGSTOP)
    with ExitStack() as stack:
        clients = [stack.enter_context(endpoint.connect()) for _ in range(12)]
        for number, client in enumerate(clients):
            client.send(endpoint.compose(ping(number)[:-1], session).data())
            if number % 3 == 0:
                client.reset()
        os.kill(process, signal.SIGCONT)
        for number, client in enumerate(clients):
            if number % 3 != 0:
                assert client.read_to_end() == ok_response(session, pong(number))
    assert endpoint.post_message(notification("nothing"), session) == accepted(session)
    assert endpoint.delete(session) == CLOSED


def memory_of(pid: int) -> bytes:
    """The writable memory of a process without the shadow memory of sanitizers."""
    found = bytearray()
    lines = Path(f"/proc/{pid}/maps").read_text("utf-8").splitlines()
    with open(f"/proc/{pid}/mem", "rb") as memory:
        for line in lines:
            span, access = line.split()[:2]
            begin, end = (int(part, 16) for part in span.split("-"))
            if "rw" in access and end - begin < 1 << 30:
                memory.seek(begin)
                found += memory.read(end - begin)
    return bytes(found)


def test_what_a_client_has_sent_is_not_kept(endpoint):
    """Above all, not the client's token."""
    tokens = [f"{number:03}-sent-as-a-token" * 4 for number in range(20)]
    with ThreadPoolExecutor(4) as pool:
        answers = set(pool.map(
            lambda token: endpoint.post(headers={"Authorization": f"Bearer {token}"}), tokens))
    assert answers == {UNAUTHORIZED}
    wait_for_rest(endpoint.server.process.pid)
    memory = memory_of(endpoint.server.process.pid)
    assert endpoint.token.encode() in memory  # in the environment
    assert b"-sent-as-a-token" not in memory


def test_sessions_that_cannot_be_started_leave_nothing_behind(http):
    """There is no room for another process."""
    endpoint = http(library=None)
    session = endpoint.open_session()
    process = endpoint.server.process.pid
    held = len(descriptors(process))
    resource.prlimit(process, resource.RLIMIT_NOFILE, (held + 3, held + 3))
    for _ in range(20):
        assert endpoint.post(b'"method":"initialize"') == SESSION_REQUIRED
    assert endpoint.server.zombies() == []
    assert len(endpoint.children()) == 1
    assert endpoint.post_message(ping(1), session) == ok_response(session, pong(1))
    assert endpoint.delete(session) == CLOSED
