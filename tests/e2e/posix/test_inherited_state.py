"""What a process is given by the one that starts it: ignored signals, a limit of memory."""

from __future__ import annotations

import resource
import signal

import pytest

from http_client import CLOSED, answered, free_ports
from kova import Script, call, ping, pong, tool_success_reply
from tool_calls import result_json

SESSIONS = 16
LINE_BUFFER = 1048578


def ignore_ended_children() -> None:
    """Children of whoever ignores this signal are gone as soon as they end, exit code and all."""
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)


def test_a_call_of_a_server_that_was_started_to_ignore_ended_children(start, engine):
    engine.script(Script().on_exec("list table;"))
    server = start(env={**engine.env, "KOVA_MCP_DEBUG": "1"}, prepare=ignore_ended_children)
    assert server.ask(call(1, "kova_list_tables")) == tool_success_reply("1", result_json())
    server.wait_for_stderr("event=tool_worker_finish request_id=1 cancelled=0 exit=0\n")
    assert server.finish().code == 0


def test_sessions_of_a_listener_that_was_started_to_ignore_ended_children(http):
    endpoint = http(prepare=ignore_ended_children)
    session = endpoint.open_session()
    assert endpoint.delete(session) == CLOSED
    assert endpoint.children() == []
    # Ended by somebody else, they must give their places up.
    sessions = [endpoint.open_session() for _ in range(SESSIONS)]
    assert len(set(sessions)) == SESSIONS
    for pid in endpoint.session_processes():
        endpoint.end_process(pid)
    session = endpoint.open_session()
    assert endpoint.post_message(ping(1), session) == answered(session, pong(1))
    assert endpoint.delete(session) == CLOSED
    endpoint.wait_for_no_child()
    assert endpoint.server.zombies() == []


def limited_to(size: int):
    """The data of the process and of everything that it starts may take so many bytes."""
    return lambda: resource.setrlimit(resource.RLIMIT_DATA, (size, size))


@pytest.mark.parametrize("arguments", [
    [], ["--check-policy"], ["--check-config"], ["--issue-approval"], ["--tool-worker"],
    ["--http", "PORT"], ["--unknown"], ["--http"],
], ids=" ".join)
def test_without_memory_for_the_line_buffer_every_mode_ends_with_2(start, arguments):
    """The limit leaves room for everything else: it is two bytes less than the buffer alone."""
    port = str(next(free_ports()))
    server = start(*[argument.replace("PORT", port) for argument in arguments],
                   prepare=limited_to(LINE_BUFFER - 2))
    assert server.wait() == 2
    assert server.finish().stdout == server.stderr == b""


@pytest.mark.parametrize("arguments", [[], ["--check-policy"]], ids=str)
def test_with_twice_that_memory_there_is_enough(start, arguments):
    assert start(*arguments, prepare=limited_to(2 * LINE_BUFFER)).finish().code == 0
