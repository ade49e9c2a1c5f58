"""The kernel's view of TCP connections on the loopback, in /proc/net/tcp. Under Wine, too."""

from __future__ import annotations

import socket
from dataclasses import dataclass
from pathlib import Path

LISTENING = "0A"


@dataclass(frozen=True)
class _End:
    """One end of a connection, or a listener."""

    state: str
    unsent: int
    unread: int
    """For a listener, the connections that it has not accepted yet."""
    inode: str
    """0 when no process has it open."""


def waiting_connections(port: int) -> int:
    """The connections that the listener at the port has not accepted yet."""
    return sum(end.unread for (here, _), end in _ends().items()
               if here == _name(port) and end.state == LISTENING)


def has_read(connection: socket.socket) -> bool:
    """Whether the other end has received everything that was sent over the connection."""
    here, there = _names(connection)
    ends = _ends()
    return ends[here, there].unsent == 0 and ends[there, here].unread == 0


def is_closed_there(connection: socket.socket) -> bool:
    """Whether the process at the other end has closed the connection."""
    here, there = _names(connection)
    end = _ends().get((there, here))
    return end is None or end.inode == "0"


def _ends() -> "dict[tuple[str, str], _End]":
    found = {}
    for line in Path("/proc/net/tcp").read_text("ascii").splitlines()[1:]:
        _, here, there, state, queues, _, _, _, _, inode, *_ = line.split()
        unsent, unread = (int(size, 16) for size in queues.split(":"))
        found[here, there] = _End(state, unsent, unread, inode)
    return found


def _names(connection: socket.socket) -> "tuple[str, str]":
    return _name(connection.getsockname()[1]), _name(connection.getpeername()[1])


def _name(port: int) -> str:
    """127.0.0.1 and the port as the kernel writes them."""
    return f"0100007F:{port:04X}"
