"""Whether a profile makes a session with the engine, and whether that was connected to."""

from __future__ import annotations

import socket

from harness.listeners import LOOPBACK, Listener
from harness.targets import Environment
from harness.waiting import TIMEOUT


def check(run, env: Environment) -> bool:
    """Whether --check-config makes a session."""
    result = run("--check-config", env=env)
    assert (result.code, b"database_profile=authenticated\n" in result.stdout) in ((0, True),
                                                                                 (2, False))
    return result.code == 0


def connections(listener: Listener) -> int:
    """How often the server has connected. Connections are accepted in their order, so all have
    been counted when one that is made here has been accepted."""
    with socket.create_connection((LOOPBACK, int(listener.port)), timeout=TIMEOUT) as last:
        assert last.recv(1) == b""
    return listener.connections - 1
