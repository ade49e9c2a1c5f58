"""Starts the processes of a session, and ends every one of them with it."""

from __future__ import annotations

import contextlib
import os
import signal
import subprocess
import time
import uuid
from pathlib import Path
from typing import Any, Iterator, Sequence

from target import WINE_PREFIX, scripted_terminal, wine

MARKER = "KOVA_RUN_SESSION"
"""The environment variable that marks this session's processes; they inherit it. The caller may set
it to find what is left of the session."""

END_TIMEOUT = 10.0
GONE_TIMEOUT = 3.0


class Processes:
    """The processes of one session. Use `all_processes`, which also handles signals."""

    def __init__(self) -> None:
        self.marker = os.environ.get(MARKER) or uuid.uuid4().hex
        self._started: list[subprocess.Popen[bytes]] = []
        self._terminals: list[scripted_terminal.ScriptedTerminal] = []
        self.survivors: list[str] = []
        self._wine_env: dict[str, str] | None = None

    def start(self, command: Sequence[str], env: "dict[str, str] | None" = None,
              **options: Any) -> "subprocess.Popen[bytes]":
        """Starts a process. Its own process group keeps the terminal's Ctrl-C from it; the kernel
        ends it when this process dies."""
        process = subprocess.Popen(_ended_with_this(command), env=self._marked(env),
                                   start_new_session=True, **options)
        self._started.append(process)
        return process

    def start_on_terminal(self, command: Sequence[str], env: "dict[str, str]",
                          **options: Any) -> scripted_terminal.ScriptedTerminal:
        """Starts a process on a terminal of its own, which is scripted."""
        terminal = scripted_terminal.ScriptedTerminal(_ended_with_this(command), self._marked(env),
                                                      **options)
        self._terminals.append(terminal)
        return terminal

    def _marked(self, env: "dict[str, str] | None") -> dict[str, str]:
        marked = {**(os.environ if env is None else env), MARKER: self.marker}
        if env is not None and "WINEPREFIX" in env:
            self._wine_env = marked
        return marked

    def finish(self, process: "subprocess.Popen[bytes]") -> None:
        """Asks the process group to stop; kills it when it does not within the timeout."""
        if process.poll() is None:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGTERM)
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(END_TIMEOUT)
        if process.poll() is None:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
            process.wait()

    def close(self) -> None:
        """Ends everything. What did not end by itself is killed and listed in `survivors`."""
        for terminal in self._terminals:
            terminal.close()
        self._terminals.clear()
        for process in reversed(self._started):
            self.finish(process)
        self._started.clear()
        self._end_survivors(wine.OWN_PROGRAMS)
        if self._wine_env is not None and not self._prefix_is_shared() and self._wine_ends():
            self._end_survivors(set())

    def _wine_ends(self) -> bool:
        """Waits for Wine's own servers, which end by themselves soon after the last program."""
        try:
            subprocess.run([wine.server(), "-w"], env=self._wine_env, timeout=END_TIMEOUT,
                           check=False, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
        except subprocess.TimeoutExpired:
            return False
        return True

    def _prefix_is_shared(self) -> bool:
        """Whether a program of somebody else, such as a test, uses the same Wine prefix."""
        own = f"{MARKER}={self.marker}".encode()
        return any(name not in wine.OWN_PROGRAMS and own not in variables
                   for _, name, variables in _processes_with(f"WINEPREFIX={WINE_PREFIX}"))

    def _end_survivors(self, tolerated: set[str]) -> None:
        end = time.monotonic() + GONE_TIMEOUT
        while (left := self._left(tolerated)) and time.monotonic() < end:
            time.sleep(0.05)
        for pid, name in left.items():
            self.survivors.append(name)
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)

    def _left(self, tolerated: set[str]) -> dict[int, str]:
        """This session's processes that still run, found by the marker that they inherit."""
        found = _processes_with(f"{MARKER}={self.marker}")
        return {pid: name for pid, name, _ in found if pid != os.getpid() and name not in tolerated}


def _ended_with_this(command: Sequence[str]) -> list[str]:
    return ["setpriv", "--pdeathsig", "TERM", "--", *command]


def _processes_with(variable: str) -> Iterator[tuple[int, str, list[bytes]]]:
    """The processes that have the variable in their environment: number, name, environment."""
    for folder in Path("/proc").iterdir():
        if not folder.name.isdigit():
            continue
        with contextlib.suppress(OSError):  # it has ended, or belongs to another user
            variables = (folder / "environ").read_bytes().split(b"\0")
            if variable.encode() in variables:
                yield int(folder.name), (folder / "comm").read_text().strip(), variables


@contextlib.contextmanager
def all_processes() -> Iterator[Processes]:
    """Ends every process at the end of the block. SIGTERM and SIGHUP end the block as Ctrl-C
    does."""
    processes = Processes()

    def stop(number: int, _: Any) -> None:
        raise KeyboardInterrupt(signal.Signals(number).name)

    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, stop)
    try:
        yield processes
    finally:
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, signal.SIG_IGN)
        processes.close()
