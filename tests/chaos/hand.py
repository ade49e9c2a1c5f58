"""The hands that break things: one kills and stops processes, the other one takes away files,
resources and the time. Each fault ends by itself within two seconds, but for the clock's, which may
last to the round's end."""

from __future__ import annotations

import contextlib
import os
import random
import resource
import signal
import threading
import time
from typing import Callable

from chaos.acts import IN_SERVER
from chaos.ledger import Ledger
from chaos.stage import Stage
from chaos.stdio_client import StdioClient
from harness import processes
from harness.servers import Server

FAULTS_A_ROUND = 3  # of each hand
LOOK_LIMIT = 0.5
"""Seconds in which a worker is looked for; it lives for some milliseconds."""
RESTORE_PASSES, RESTORE_WAIT = 3, 0.03
"""Until the first pass, a process that is limited still can start another one."""
HIDE_TRIES = 5
WALL_MOVES = [-10 * 365 * 86400, -3600, -301, -2, 2, 301, 3600, 10 * 365 * 86400]
MONOTONIC_MOVES = [1, 61, 16 * 60]
LIMITS = ["take_descriptors", "take_memory", "limit_file_size"]
CLOCK_FAULTS = ["move_wall_clock", "move_monotonic_clock"]
SURROUNDING_FAULTS = ["rename_audit_file", "hide_audit_file", "hide_state_folder",
                      "fill_audit_folder", "fill_state_folder", *LIMITS, *CLOCK_FAULTS]
SPARE_DESCRIPTORS = [0, 1, 2, 4, 8]
SPARE_MEMORY = [0, 1 << 16, 1 << 20, 5 << 20, 20 << 20]


def send_signal(pid: int, number: signal.Signals, text: bytes = b"kova-mcp") -> bool:
    """Sends a signal to a process that has the text in its command line; never to another one that
    has got its number meanwhile."""
    try:
        descriptor = os.pidfd_open(pid)
    except ProcessLookupError:
        return False
    try:
        if text not in processes.command_line(pid):
            return False
        signal.pidfd_send_signal(descriptor, number)
        return True
    except ProcessLookupError:
        return False
    finally:
        os.close(descriptor)


def process_faults(_: Stage) -> list[str]:
    return ["kill_worker", "kill_session", "kill_stdio_server", "kill_listener", "kill_engine",
            "kill_proxy", "reload_proxy", "stop_worker", "stop_session", "stop_stdio_server",
            "stop_listener", "stop_engine", "stop_proxy"]


def surrounding_faults(stage: Stage) -> list[str]:
    """What can be done to this target on this machine."""
    impossible = impossible_faults(stage)
    return [fault for fault in SURROUNDING_FAULTS if fault not in impossible]


def impossible_faults(stage: Stage) -> dict[str, str]:
    """What cannot, with the reason."""
    found = {}
    for fault, folder in (("fill_audit_folder", stage.audit), ("fill_state_folder", stage.state)):
        if not folder.can_be_filled:
            found[fault] = "no file system of its own can be mounted, which takes root"
    if stage.target.windows:
        found.update(dict.fromkeys(LIMITS, "under Wine the limit is that of the native process"))
    if stage.clock is None:
        found.update(dict.fromkeys(CLOCK_FAULTS, "the run moves no clock"))
    return found


class Hand(threading.Thread):
    """Does some of the given faults for a round, one after the other."""

    def __init__(self, name: str, seed: str, faults: list[str], stage: Stage, ledger: Ledger,
                 clients: list[StdioClient], pause: float) -> None:
        super().__init__(daemon=True, name=name)
        self.rng = random.Random(f"{seed}:{name}")
        self.stage = stage
        self.ledger = ledger
        self.clients = clients
        self.pause = pause
        self.stopping = threading.Event()
        self.faults = self.rng.sample(faults, min(FAULTS_A_ROUND, len(faults)))

    def run(self) -> None:
        try:
            while self.faults and not self.stopping.wait(self.rng.expovariate(1 / self.pause)):
                fault = self.rng.choice(self.faults)
                began = time.monotonic()
                if getattr(self, fault)() is not False:
                    self.ledger.fault_done(fault, began)
        except Exception as failure:  # pylint: disable=broad-except
            self.ledger.violation(f"the hand at {self.faults}: {failure!r}")

    # whom

    def _stdio_server(self) -> Server | None:
        running = [server for client in self.clients if (server := client.server) is not None]
        return self.rng.choice(running) if running else None

    def _any_server(self) -> Server | None:
        return self.rng.choice([self.stage.listener, self._stdio_server()])

    def _worker(self, server: Server | None) -> int | None:
        end = time.monotonic() + LOOK_LIMIT
        while server is not None and time.monotonic() < end:
            if found := server.workers():
                time.sleep(self.rng.choice([0, 0, 0.002, 0.01]))
                return self.rng.choice(found)
            time.sleep(0.003)
        return None

    def _session(self) -> int | None:
        found = self.stage.sessions()
        return self.rng.choice(found) if found else None

    # kill

    def kill_worker(self) -> bool:
        """Wine gives a process that the native system kills the exit code 0, so its server passes
        on a reply whose record was still to be written."""
        server = self._any_server()
        pid = self._worker(server)
        return (server is not None and pid is not None
                and self._kill(pid, server, unseen=self.stage.target.windows))

    def _kill(self, pid: int, server: Server, unseen: bool = False) -> bool:
        """A process of this server."""
        with self.ledger.kill(server.marker, unseen) as kill:
            kill.done = send_signal(pid, signal.SIGKILL)
        return kill.done

    def kill_session(self) -> bool:
        listener, pid = self.stage.listener, self._session()
        return pid is not None and self._kill(pid, listener)

    def kill_stdio_server(self) -> bool:
        server = self._stdio_server()
        return server is not None and self._kill(server.process.pid, server)

    def kill_listener(self) -> None:
        old = self.stage.listener
        self.ledger.listener_ends.append(time.monotonic())
        with self.ledger.kill(old.marker):
            old.kill()
        self._pause(0.3)
        try:
            old.expect_no_process(20)
        except AssertionError as failure:
            self.ledger.violation(f"a killed listener leaves processes: {failure}")
        old.close()
        self.stage.start_listener()

    def kill_engine(self) -> None:
        self.ledger.engine_ends.append(time.monotonic())
        self.stage.engine.end(self.rng.choice([signal.SIGKILL, signal.SIGTERM]))
        self._pause(0.5)
        self.stage.engine.start()

    def kill_proxy(self) -> None:
        self.stage.proxy.end()
        self._pause(0.5)
        self.stage.proxy.start()

    def reload_proxy(self) -> None:
        self.stage.proxy.process.send_signal(signal.SIGUSR2)

    # stop and continue

    def _pause(self, limit: float) -> None:
        time.sleep(self.rng.uniform(0, limit))

    def _stop_and_continue(self, pids: list[int], text: bytes = b"kova-mcp") -> bool:
        stopped = [pid for pid in pids if send_signal(pid, signal.SIGSTOP, text)]
        self._pause(1.0)
        for pid in stopped:
            send_signal(pid, signal.SIGCONT, text)
        return bool(stopped)

    def stop_worker(self) -> bool:
        pid = self._worker(self._any_server())
        return pid is not None and self._stop_and_continue([pid])

    def stop_session(self) -> bool:
        pid = self._session()
        return pid is not None and self._stop_and_continue([pid])

    def stop_stdio_server(self) -> bool:
        server = self._stdio_server()
        return server is not None and self._stop_and_continue([server.process.pid])

    def stop_listener(self) -> bool:
        return self._stop_and_continue([self.stage.listener.process.pid])

    def stop_engine(self) -> bool:
        return self._stop_and_continue([self.stage.engine.process.pid], b"kova-sample-engine")

    def stop_proxy(self) -> bool:
        return self._stop_and_continue(self.stage.proxy.processes(), b"haproxy")

    # files

    def fill_audit_folder(self) -> None:
        with self.ledger.doubt(cuts=True):
            self.stage.audit.fill(self.rng.choice([0, 1, 100, 4096]))
            self._pause(1.0)
            self.stage.audit.empty()

    def rename_audit_file(self) -> bool:
        """As a rotation does: nothing may be lost."""
        rotated = self.stage.audit.path / f"audit-{time.monotonic_ns()}.jsonl"
        with contextlib.suppress(FileNotFoundError):
            self.stage.audit_file.rename(rotated)
            return True
        return False

    def hide_audit_file(self) -> bool:
        """A folder in the file's place, unless a server is faster each time."""
        for _ in range(HIDE_TRIES):
            self.rename_audit_file()
            with contextlib.suppress(FileExistsError), self.ledger.doubt():
                self.stage.audit_file.mkdir()
                self._pause(1.0)
                self.stage.audit_file.rmdir()
                return True
        return False

    def fill_state_folder(self) -> None:
        self.stage.state.fill_with_files()
        self._pause(1.0)
        self.stage.state.empty()

    def hide_state_folder(self) -> bool:
        hidden = self.stage.markers.with_name("hidden")
        try:
            self.stage.markers.rename(hidden)
        except PermissionError:  # Under Wine, while a marker is made in it.
            return False
        self._pause(1.0)
        hidden.rename(self.stage.markers)
        return True

    # resources and limits (Linux)

    def _limit(self, which: int, value: Callable[[int], int], server: Server | None) -> bool:
        """Limits a server and what it starts from now on, for a while."""
        if server is None:
            return False
        pid = server.process.pid
        try:
            before = resource.prlimit(pid, which)
            resource.prlimit(pid, which, (value(pid), before[1]))
        except (ProcessLookupError, FileNotFoundError):
            return False
        self._pause(1.0)
        for _ in range(RESTORE_PASSES):
            for limited in {pid, *processes.descendants(pid), *server.processes()}:
                with contextlib.suppress(ProcessLookupError):
                    resource.prlimit(limited, which, before)
            time.sleep(RESTORE_WAIT)
        return True

    def take_descriptors(self) -> bool:
        """A call in the server itself, whose database session is open already, may have none left
        for the audit file."""
        spare, server = self.rng.choice(SPARE_DESCRIPTORS), self._any_server()
        if server is None:
            return False
        with self.ledger.doubt(IN_SERVER, server.marker):
            return self._limit(resource.RLIMIT_NOFILE,
                               lambda pid: len(os.listdir(f"/proc/{pid}/fd")) + spare, server)

    def take_memory(self) -> bool:
        spare = self.rng.choice(SPARE_MEMORY)

        def present(pid: int) -> int:
            with open(f"/proc/{pid}/statm", encoding="ascii") as sizes:
                return int(sizes.read().split()[0]) * resource.getpagesize()

        return self._limit(resource.RLIMIT_AS, lambda pid: present(pid) + spare,
                           self._any_server())

    def limit_file_size(self) -> bool:
        """The file of the audit is at its limit, or just before it."""
        try:
            size = self.stage.audit_file.stat().st_size
        except FileNotFoundError:
            size = 0
        limit = max(0, size + self.rng.choice([-1, 0, 1, 100, 1000]))
        server = self._any_server()
        if server is None:
            return False
        with self.ledger.doubt(server=server.marker, cuts=True):
            return self._limit(resource.RLIMIT_FSIZE, lambda pid: limit, server)

    # the clock of the processes

    def move_wall_clock(self) -> None:
        assert self.stage.clock is not None
        self.stage.clock.set_wall(self.rng.choice(WALL_MOVES))
        self._pause(1.0)
        if self.rng.random() < 0.5:
            self.stage.clock.set_wall(0)

    def move_monotonic_clock(self) -> None:
        assert self.stage.clock is not None
        self.stage.clock.advance_monotonic(self.rng.choice(MONOTONIC_MOVES))
