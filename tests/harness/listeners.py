"""Ports on the loopback for the server's reachability probe."""

from __future__ import annotations

import contextlib
import errno
import select
import socket
import threading
from typing import Iterator

LOOPBACK = "127.0.0.1"


class Listener:
    """Accepts every connection, counts it and closes it."""

    def __init__(self, port: int = 0) -> None:
        self._socket = socket.create_server((LOOPBACK, port), backlog=64)
        self.port = str(self._socket.getsockname()[1])
        self.connections = 0
        self._thread = threading.Thread(target=self._accept, daemon=True)
        self._thread.start()

    def _accept(self) -> None:
        while True:
            try:
                connection, _ = self._socket.accept()
            except OSError:
                return
            self.connections += 1
            connection.close()

    def close(self) -> None:
        with contextlib.suppress(OSError):
            self._socket.shutdown(socket.SHUT_RDWR)
        self._socket.close()
        self._thread.join(5)


@contextlib.contextmanager
def refused_port() -> Iterator[str]:
    """A port that is taken but not listened on, so that every connection to it is refused."""
    with socket.socket() as holder:
        holder.bind((LOOPBACK, 0))
        yield str(holder.getsockname()[1])


@contextlib.contextmanager
def silent_port() -> Iterator[str]:
    """A port that neither accepts nor refuses: its listener's backlog is full."""
    with contextlib.ExitStack() as stack:
        listener = stack.enter_context(socket.socket())
        listener.bind((LOOPBACK, 0))
        listener.listen(0)
        for _ in range(16):
            filler = stack.enter_context(socket.socket())
            filler.setblocking(False)
            started = filler.connect_ex(listener.getsockname())
            assert started in (0, errno.EINPROGRESS), started
            if not select.select([], [filler], [], 0.3)[1]:
                break
        else:
            raise AssertionError("the backlog does not fill up")
        yield str(listener.getsockname()[1])
