"""Wine's own server, without which every Windows program of a run stands still.

Seldom, when processes have just been killed, it ends itself with an abort. Nothing can be said of
the round in which that happens.
"""

from __future__ import annotations

import contextlib
import os
import select
import threading

import wine
from harness import processes

KILL_PAUSE = 0.5
"""Seconds between two looks for programs that stand still."""


class WineEnded(Exception):
    """Wine's own server has ended in a round."""


class WineServer(contextlib.AbstractContextManager["WineServer"]):
    """Watches the one server among the processes of a run, whose environment has the variable with
    this value. When it ends, they are killed again and again until this is closed: those that wait
    for it would wait for ever, and a new one would start another server."""

    def __init__(self, value: str, variable: str) -> None:
        self._mark = value, variable
        servers = [pid for pid in processes.marked(*self._mark)
                   if processes.name(pid).startswith("wineserver")]
        if len(servers) != 1:
            raise wine.WineFailure(f"there is not one server of Wine's, but {len(servers)}")
        self._server = os.pidfd_open(servers[0])
        self._closing, self._closed = os.pipe()
        self._thread = threading.Thread(target=self._watch, name="wine server")
        self._thread.start()

    @property
    def has_ended(self) -> bool:
        return bool(select.select([self._server], [], [], 0)[0])

    def __exit__(self, *_: object) -> None:
        os.close(self._closed)
        self._thread.join()
        os.close(self._closing)
        os.close(self._server)

    def _watch(self) -> None:
        select.select([self._server, self._closing], [], [])
        while not select.select([self._closing], [], [], KILL_PAUSE)[0]:
            processes.kill_marked(*self._mark)
