"""Processes by what /proc says of them: environment, command line, state."""

from __future__ import annotations

import os

MARKER = "E2E_SERVER"
"""The environment variable by which a server's descendants are told from everyone else's."""


def marked(marker: str, variable: str = MARKER) -> list[int]:
    """The processes that have the variable with this value in their environment."""
    wanted = f"{variable}={marker}".encode()
    return sorted(pid for pid in _all() if wanted in _read(pid, "environ").split(b"\0"))


def naming(text: str) -> list[int]:
    """The processes that have the text in their command line."""
    return [pid for pid in _all() if text.encode() in command_line(pid)]


def of_the_server(marker: str) -> list[int]:
    """Those of them that run the server's executable: the server, its sessions, its workers."""
    return [pid for pid in marked(marker) if b"kova-mcp" in command_line(pid)]


def workers(pids: list[int]) -> list[int]:
    return [pid for pid in pids if b"--tool-worker" in command_line(pid)]


def zombies(parent: int) -> list[int]:
    """Children that have ended and that nobody has collected (on Linux)."""
    found = []
    for pid in _all():
        state, _, rest = _read(pid, "stat").rpartition(b")")[2].strip().partition(b" ")
        if state == b"Z" and rest.split(b" ")[0] == str(parent).encode():
            found.append(pid)
    return found


def command_line(pid: int) -> bytes:
    """The arguments, each with a NUL byte behind it; empty when the process has ended."""
    return _read(pid, "cmdline")


def name(pid: int) -> str:
    """The name of the program, of which Linux keeps 15 bytes; empty when the process has ended."""
    return _read(pid, "comm").decode().strip()


def _all() -> list[int]:
    return [int(entry.name) for entry in os.scandir("/proc") if entry.name.isdigit()]


def _read(pid: int, file: str) -> bytes:
    try:
        with open(f"/proc/{pid}/{file}", "rb") as opened:
            return opened.read()
    except OSError:
        return b""
