"""Sessions of a listener, and listeners: what they hold, and how long opening takes."""

from __future__ import annotations

import http.client
import os
import socket
import subprocess
import time
from contextlib import ExitStack
from pathlib import Path

from common import measure
from common.messages import INITIALIZE
from common.stdio import Failed
from figures.turns import by_turns
from growth.series import Series

SESSIONS = [1, 2, 4, 8, 16]
"""To the limit of a listener."""
LISTENERS = [1, 2, 4, 8, 16, 32]
START_LIMIT = 30.0


class Listener:
    """A listener of its own process; sessions end with it."""

    def __init__(self, server: Path, port: int) -> None:
        self._port = port
        self._process = subprocess.Popen([str(server), "--http", str(port)],
                                         stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                         stderr=subprocess.PIPE)
        assert self._process.stderr is not None
        if not self._process.stderr.readline():
            raise Failed(f"the listener on port {port} has ended")

    def open_session(self) -> None:
        headers = {"Authorization": f"Bearer {os.environ['KOVA_MCP_HTTP_BEARER_TOKEN']}",
                   "Content-Type": "application/json",
                   "Accept": "application/json, text/event-stream"}
        connection = http.client.HTTPConnection("127.0.0.1", self._port, timeout=START_LIMIT)
        try:
            connection.request("POST", "/mcp", INITIALIZE.strip(), headers)
            response = connection.getresponse()
            if response.status != 200 or b'"result"' not in response.read():
                raise Failed(f"initialize is answered with {response.status}")
        finally:
            connection.close()

    def __enter__(self) -> "Listener":
        return self

    def __exit__(self, *_: object) -> None:
        assert self._process.stderr is not None
        self._process.terminate()
        self._process.wait()
        self._process.stderr.close()


def free_ports(count: int) -> "list[int]":
    with ExitStack() as held:
        sockets = [held.enter_context(socket.create_server(("127.0.0.1", 0)))
                   for _ in range(count)]
        return [one.getsockname()[1] for one in sockets]


def measured(server: Path, listeners: int, sessions: int) -> "tuple[float, float]":
    """Milliseconds of opening the sessions one after the other, and MiB (proportional set) of the
    listeners with all of them."""
    with ExitStack() as stack:
        opened = [stack.enter_context(Listener(server, port)) for port in free_ports(listeners)]
        began = time.perf_counter()
        for listener in opened:
            for _ in range(sessions):
                listener.open_session()
        took = (time.perf_counter() - began) * 1000
        held = measure.held(measure.of_executable(server))
        if held["processes"] != listeners * (sessions + 1):
            raise Failed(f"{held['processes']} processes for {listeners} x {sessions} sessions")
    return took, held["proportional_set_mib"]


def _series(kind: str, of: str, found: "dict[int, list[tuple[float, float]]]") -> "list[Series]":
    units = [("opening", "ms", 0), ("memory", "MiB", 1)]
    return [Series(f"{kind}: {what}", of, unit,
                   {count: [pair[place] for pair in pairs] for count, pairs in found.items()})
            for what, unit, place in units]


def of_sessions(server: Path, rounds: int) -> "list[Series]":
    subjects = {count: lambda count=count: measured(server, 1, count) for count in SESSIONS}
    return _series("sessions", "open sessions of one listener", by_turns(subjects, rounds))


def of_listeners(server: Path, rounds: int) -> "list[Series]":
    subjects = {count: lambda count=count: measured(server, count, SESSIONS[-1])
                for count in LISTENERS}
    return _series("listeners", f"listeners with {SESSIONS[-1]} open sessions each",
                   by_turns(subjects, rounds))
