"""How long the server waits for what, seen from outside."""

from __future__ import annotations

import time

from harness.messages import busy, call, cancel, cancelled_reply, ping
from harness.scripted_library import Script
from harness.waiting import TIMEOUT

MOMENT = 0.05
"""What a message waits for a running call before it is refused."""


def test_each_message_waits_50_ms_for_a_running_call(start, engine):
    engine.script(Script().on_exec("list table;", hang=True))
    server = start(env=engine.env)
    server.send(call("running", "kova_list_tables"))
    engine.wait_for_statement("list table;")
    count = 20
    started = time.monotonic()
    server.send(b"".join(ping(number) for number in range(count)))
    assert [server.read_line() for _ in range(count)] == [busy(number) for number in range(count)]
    taken = time.monotonic() - started
    # Clocks that move in steps of 16 ms let a wait end early.
    assert count * (MOMENT - 0.016) <= taken < TIMEOUT
    assert server.ask(cancel("running")) == cancelled_reply('"running"')
