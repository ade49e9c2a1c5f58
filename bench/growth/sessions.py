"""Sessions of a listener, and listeners: what they hold, and how long opening takes."""

from __future__ import annotations

import http.client
import os
import socket
import subprocess
import time
from contextlib import ExitStack
from functools import partial
from pathlib import Path
from typing import Callable

from common import measure
from common.messages import INITIALIZE
from common.stdio import Failed
from figures.turns import by_turns
from growth.series import Series
from peers.subjects import Peer

SESSIONS = [1, 2, 4, 8, 16]
"""To the limit of a listener."""
LISTENERS = [1, 2, 4, 8, 16, 32]
LISTENERS_OF_PEERS = [1, 2, 4, 8]
"""Each takes more than ten times the memory of one of ours."""
Work = Callable[[Peer, int], "tuple[float, float]"]
"""Measures a server with so many items: milliseconds, and MiB."""
START_LIMIT = 30.0
LOOK_SECONDS = 0.002


class Listener:
    """A server's HTTP side in a process of its own, whose sessions end with it."""

    def __init__(self, command: "list[str]", port: int) -> None:
        self._port, self._name = port, Path(command[0]).name
        self._process = subprocess.Popen([str(port) if word == "PORT" else word
                                          for word in command], stdin=subprocess.DEVNULL,
                                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.pid = self._process.pid

    def wait(self) -> None:
        """Until it listens: another program may have taken the port."""
        limit = time.monotonic() + START_LIMIT
        while not measure.listens(self.pid, self._port):
            if self._process.poll() is not None or time.monotonic() > limit:
                raise Failed(f"{self._name} does not listen on port {self._port}")
            time.sleep(LOOK_SECONDS)

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
        except OSError as failure:
            raise Failed(f"{self._name}, initialize: {failure}") from failure
        finally:
            connection.close()

    def __enter__(self) -> "Listener":
        return self

    def __exit__(self, *_: object) -> None:
        self._process.terminate()
        self._process.wait()


def free_ports(count: int) -> "list[int]":
    with ExitStack() as held:
        sockets = [held.enter_context(socket.create_server(("127.0.0.1", 0)))
                   for _ in range(count)]
        return [one.getsockname()[1] for one in sockets]


def measured(peer: Peer, listeners: int, sessions: int) -> "tuple[float, float]":
    """Milliseconds of opening the sessions one after the other, and MiB (proportional set) of the
    listeners with all of them."""
    assert peer.session_processes is not None
    with ExitStack() as stack:
        opened = [stack.enter_context(Listener(peer.http["command"], port))
                  for port in free_ports(listeners)]
        for listener in opened:
            listener.wait()
        began = time.perf_counter()
        for listener in opened:
            for _ in range(sessions):
                listener.open_session()
        took = (time.perf_counter() - began) * 1000
        held = measure.held([pid for one in opened for pid in measure.family(one.pid)])
        if held["processes"] != listeners * (1 + sessions * peer.session_processes):
            raise Failed(f"{held['processes']} processes for {listeners} x {sessions} sessions")
    return took, held["proportional_set_mib"]


def _series(kind: str, of: str, found: "dict[int, list[tuple[float, float]]]",
            peer: str = "") -> "list[Series]":
    units = [("opening", "ms", 0), ("memory", "MiB", 1)]
    return [Series(f"{kind}: {what}", of, unit,
                   {count: [pair[place] for pair in pairs] for count, pairs in found.items()}, peer)
            for what, unit, place in units]


def _of_all(kind: str, of: str, all_peers: "list[Peer]", rounds: int, work: Work,
              counts: "list[int]", counts_of_peers: "list[int]") -> "list[Series]":
    chosen = [peer for peer in all_peers if peer.session_processes is not None]
    sizes = {peer.name: counts_of_peers for peer in chosen} | {chosen[0].name: counts}
    found = by_turns({(peer.name, count): partial(work, peer, count)
                      for peer in chosen for count in sizes[peer.name]}, rounds)
    return [one for peer in chosen
            for one in _series(kind, of,
                               {count: found[peer.name, count] for count in sizes[peer.name]},
                               "" if peer is chosen[0] else peer.name)]


def of_sessions(all_peers: "list[Peer]", rounds: int) -> "list[Series]":
    """Of ours, the first, and of the others that have sessions."""
    return _of_all("sessions", "open sessions of one listener", all_peers, rounds,
                     lambda peer, count: measured(peer, 1, count), SESSIONS, SESSIONS)


def of_listeners(all_peers: "list[Peer]", rounds: int) -> "list[Series]":
    """Of ours, the first, and fewer of the others that have sessions."""
    return _of_all("listeners", f"listeners with {SESSIONS[-1]} open sessions each", all_peers,
                     rounds, lambda peer, count: measured(peer, count, SESSIONS[-1]),
                     LISTENERS, LISTENERS_OF_PEERS)
