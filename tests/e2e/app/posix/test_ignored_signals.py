"""A process that is started to ignore signals."""

from __future__ import annotations

import signal

from harness.http_client import CLOSED, ok_response
from harness.messages import call, ping, pong, tool_success_reply
from harness.scripted_library import Script
from harness.tool_calls import result_json

SESSIONS = 16


def ignore_ended_children() -> None:
    """With this signal ignored, the kernel removes ended children and their exit codes at once."""
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
    # Sessions that are killed must free their slots.
    sessions = [endpoint.open_session() for _ in range(SESSIONS)]
    assert len(set(sessions)) == SESSIONS
    for pid in endpoint.session_processes():
        endpoint.end_process(pid)
    session = endpoint.open_session()
    assert endpoint.post_message(ping(1), session) == ok_response(session, pong(1))
    assert endpoint.delete(session) == CLOSED
    endpoint.wait_for_no_child()
    assert endpoint.server.zombies() == []
