"""Wine's own server, without which every Windows program of a run stands still.

Seldom, when many processes have just been killed, one of its own assertions ends it. Nothing can
be said of the round in which that happens.
"""

from __future__ import annotations

import contextlib
import os
import select
import signal
import threading
from typing import Callable

from harness import processes

KILL_PAUSE = 0.5
"""Seconds between two looks for programs that stand still."""


class WineEnded(Exception):
    """Wine's own server has ended in a round."""


class WineServer(contextlib.AbstractContextManager["WineServer"]):
    """Watches the one server among the processes of a run, which `find` returns. When it ends, they
    are killed again and again until this is closed: those that wait for it would wait for ever, and
    a new one would start another server."""

    def __init__(self, find: Callable[[], list[int]]) -> None:
        self._find = find
        (server,) = (pid for pid in find() if processes.name(pid).startswith("wineserver"))
        self._server = os.pidfd_open(server)
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
            for pid in self._find():
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
