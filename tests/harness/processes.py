"""Finds processes by their environment, command line and state in /proc."""

from __future__ import annotations

import os
import signal

MARKER = "E2E_SERVER"
"""The environment variable that marks a server and every process that it starts."""


def marked(marker: str, variable: str = MARKER) -> list[int]:
    """The processes that have the variable with this value in their environment."""
    return sorted(pid for pid in _all() if _has(pid, marker, variable))


def _has(pid: int, marker: str, variable: str) -> bool:
    return f"\0{variable}={marker}\0".encode() in b"\0" + _read(pid, "environ")


def kill_marked(marker: str, variable: str = MARKER) -> None:
    """Kills them, and never another one that has got the number of one meanwhile."""
    for pid in marked(marker, variable):
        try:
            descriptor = os.pidfd_open(pid)
        except ProcessLookupError:
            continue
        try:
            if _has(pid, marker, variable):
                signal.pidfd_send_signal(descriptor, signal.SIGKILL)
        except ProcessLookupError:
            pass
        finally:
            os.close(descriptor)


def naming(text: str) -> list[int]:
    """The processes that have the text in their command line."""
    return [pid for pid in _all() if text.encode() in command_line(pid)]


def of_the_server(marker: str) -> list[int]:
    """Those of them that run the server's executable: the server, its sessions, its workers."""
    return [pid for pid in marked(marker) if b"kova-mcp" in command_line(pid)]


def workers(pids: list[int]) -> list[int]:
    return [pid for pid in pids if b"--tool-worker" in command_line(pid)]


def zombies(parent: int) -> list[int]:
    """Children that have ended and have not been waited for (Linux)."""
    found = []
    for pid in _all():
        state, _, rest = _read(pid, "stat").rpartition(b")")[2].strip().partition(b" ")
        if state == b"Z" and rest.split(b" ")[0] == str(parent).encode():
            found.append(pid)
    return found


def descendants(ancestor: int) -> list[int]:
    """The children of a process, and theirs, also while one is just becoming another program."""
    found = [ancestor]
    for pid in found:
        for thread in _listed(f"/proc/{pid}/task"):
            found += map(int, _read(pid, f"task/{thread}/children").split())
    return found[1:]


def of_group(group: int) -> list[int]:
    """The processes of a process group that have not ended. Who has ended and has lost its parent
    belongs to it until the system's first process takes notice, which may take seconds."""
    return [pid for pid in _all()
            if _read(pid, "stat").rpartition(b")")[2].split()[2:3] == [str(group).encode()]
            and not has_closed_everything(pid)]


def has_closed_everything(pid: int) -> bool:
    """Whether the last thread of the process has ended. Its command line disappears before that,
    with its memory; its pipes and sockets are closed with its last thread."""
    fields = _read(pid, "stat").rpartition(b")")[2].split()
    return not fields or (fields[0] in (b"Z", b"X") and int(fields[17]) <= 1)


def command_line(pid: int) -> bytes:
    """The arguments, each with a NUL byte behind it; empty when the process has ended."""
    return _read(pid, "cmdline")


def name(pid: int) -> str:
    """The name of the program, of which Linux keeps 15 bytes; empty when the process has ended."""
    return _read(pid, "comm").decode().strip()


def _listed(folder: str) -> list[str]:
    """Nothing when the process has ended."""
    try:
        return os.listdir(folder)
    except OSError:
        return []


def _all() -> list[int]:
    return [int(name) for name in os.listdir("/proc") if name.isdigit()]


def _read(pid: int, file: str) -> bytes:
    """Tests look through all processes often: system calls alone take a third of a file object's
    time."""
    try:
        descriptor = os.open(f"/proc/{pid}/{file}", os.O_RDONLY)
    except OSError:
        return b""
    data = b""
    try:
        while piece := os.read(descriptor, 1 << 16):
            data += piece
    except OSError:
        pass  # It has ended meanwhile.
    finally:
        os.close(descriptor)
    return data
