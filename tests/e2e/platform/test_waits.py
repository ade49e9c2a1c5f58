"""How long the server waits for what, seen from outside."""

from __future__ import annotations

import time

from harness.messages import busy, call, cancel, cancelled_reply, ping
from harness.scripted_library import Script

MOMENT = 0.05
"""What a message waits for a running call before it is refused."""
CLOCK_STEP = 0.016
"""Clocks that move in such steps let a wait end early."""
PACE = 0.5
"""What no machine takes for the refusal itself each time, whatever else runs on it."""


def test_each_message_waits_50_ms_for_a_running_call(start, engine):
    engine.script(Script().on_exec("list table;", hang=True))
    server = start(env=engine.env)
    server.send(call("running", "kova_list_tables"))
    engine.wait_for_statement("list table;")
    taken = []
    for number in range(20):
        started = time.monotonic()
        assert server.ask(ping(number)) == busy(number)
        taken.append(time.monotonic() - started)
    # The upper bound is one against noise; a unit test holds the wait itself.
    assert MOMENT - CLOCK_STEP <= min(taken) < MOMENT + PACE
    assert server.ask(cancel("running")) == cancelled_reply('"running"')
