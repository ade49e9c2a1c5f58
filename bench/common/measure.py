"""What processes hold and have used, from /proc."""

from __future__ import annotations

import contextlib
import os
import re
from pathlib import Path
from typing import Any, Iterable, NamedTuple

TIME_WAIT = "06"
"""The state of a closed connection that waits for stray segments."""
LISTENING = "0A"

MIB = 1024.0
"""KiB in a MiB: /proc counts in KiB."""


def of_executable(executable: Path) -> list[int]:
    """The processes that run this file."""
    found = []
    for name in os.listdir("/proc"):
        with contextlib.suppress(OSError):
            if name.isdigit() and os.readlink(f"/proc/{name}/exe") == str(executable):
                found.append(int(name))
    return found


def family(root: int) -> list[int]:
    """The process and its descendants; those that have just ended are left out."""
    found = [root]
    for pid in found:
        try:
            for task in os.listdir(f"/proc/{pid}/task"):
                children = Path(f"/proc/{pid}/task/{task}/children").read_text("ascii")
                found += map(int, children.split())
        except OSError:
            continue
    return found


def memory_kib(pid: int) -> "tuple[int, int]":
    """Proportional set, and the private part of it that was written; zeros for an ended process."""
    try:
        text = Path(f"/proc/{pid}/smaps_rollup").read_text("ascii")
    except OSError:
        return 0, 0
    fields = dict(re.findall(r"^(\w+): +(\d+) kB$", text, re.MULTILINE))
    return int(fields["Pss"]), int(fields["Private_Dirty"])


def held(pids: Iterable[int]) -> dict[str, Any]:
    """The sums over these processes."""
    pids = list(pids)
    memory = [memory_kib(pid) for pid in pids]
    return {"processes": len(pids),
            "proportional_set_mib": round(sum(pair[0] for pair in memory) / MIB, 1),
            "private_written_mib": round(sum(pair[1] for pair in memory) / MIB, 1),
            "descriptors": sum(_descriptors(pid) for pid in pids)}


def _descriptors(pid: int) -> int:
    try:
        return len(os.listdir(f"/proc/{pid}/fd"))
    except OSError:
        return 0


def processor_seconds(pid: int) -> float:
    """Of the process and the children that it has waited for; zero for an ended process."""
    try:
        fields = Path(f"/proc/{pid}/stat").read_text("ascii").rpartition(")")[2].split()
    except OSError:
        return 0.0
    return sum(map(int, fields[11:15])) / os.sysconf("SC_CLK_TCK")


def sockets_of_ports(ports: Iterable[int]) -> int:
    """Sockets of this machine with one of these local ports that are not closed. Those that only
    wait for stray segments belong to no process."""
    wanted = set(ports)
    return sum(one.local in wanted and one.state != TIME_WAIT for one in _sockets())


def waiting_sockets(port: int) -> int:
    """Connections to this port that were closed and hold their local port for a minute."""
    return sum(one.remote == port and one.state == TIME_WAIT for one in _sockets())


def listens(pid: int, port: int) -> bool:
    """Whether it is this process that takes connections to the port."""
    wanted = {f"socket:[{one.inode}]" for one in _sockets()
              if one.local == port and one.state == LISTENING}
    found = set()
    with contextlib.suppress(OSError):
        for name in os.listdir(f"/proc/{pid}/fd"):
            with contextlib.suppress(OSError):
                found.add(os.readlink(f"/proc/{pid}/fd/{name}"))
    return bool(wanted & found)


class _Socket(NamedTuple):
    local: int
    """Its port."""
    remote: int
    state: str
    inode: str


def _sockets() -> "list[_Socket]":
    """Those for TCP over IPv4."""
    fields = [row.split() for row in Path("/proc/net/tcp").read_text("ascii").splitlines()[1:]]
    return [_Socket(int(field[1].rpartition(":")[2], 16), int(field[2].rpartition(":")[2], 16),
                    field[3], field[9]) for field in fields]
