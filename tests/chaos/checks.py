"""What is looked at when a round is over and every fault is lifted."""

from __future__ import annotations

import signal
import sqlite3
import time
from collections import Counter
from contextlib import closing

from chaos.hand import send_signal
from chaos.http_client import Connection, HttpClient
from chaos.ledger import Ledger
from chaos.records import RecordCheck
from chaos.report import WRITTEN
from chaos.stage import Stage
from harness import processes
from harness.waiting import TIMEOUT, wait_until

ALL_SESSIONS_UNUSED = 16 * 60
"""Seconds after which the listener may end every session."""


KEPT_LIMIT = 5.0
REST_WAIT = 0.5  # for threads that are just ending


class Checks:
    def __init__(self, stage: Stage, ledger: Ledger) -> None:
        self.stage = stage
        self.ledger = ledger
        self.rest = (0, 0, 0)
        self._kept_clients = 0

    def after_round(self, caller: HttpClient) -> None:
        for request in self.ledger.requests.values():
            if request.open:
                self.ledger.violation(f"{request.id} ({request.kind}) got neither reply nor close")
        self.check_that_the_listener_runs()
        self.check_listener(caller)
        self.check_engine()
        self.check_writes()
        self.check_audit()

    def check_that_the_listener_runs(self) -> None:
        listener = self.stage.listener
        code = listener.process.poll()
        if code is not None:
            self.ledger.violation(f"the listener has ended with {code}: {listener.stderr[-300:]!r}")
            listener.close()
            self.stage.start_listener()

    # what is left

    def check_listener(self, caller: HttpClient) -> None:
        """Ends the sessions that clients have left behind. Then the listener serves, and holds
        nothing."""
        self.end_sessions(caller)
        try:
            wait_until(lambda: self._children() == [], TIMEOUT, "the end of every session")
            wait_until(lambda: self._holds_no_more(), TIMEOUT, "the end of what connections hold")
        except AssertionError as failure:
            self.ledger.violation(
                f"the listener keeps {len(self._children())} processes, and of threads, "
                f"descriptors and handles {self.stage.holdings()} instead of {self.rest}: "
                f"{failure}")

    def _holds_no_more(self) -> bool:
        return all(held <= rest for held, rest in zip(self.stage.holdings(), self.rest))

    def end_sessions(self, caller: HttpClient) -> None:
        if self.stage.clock is not None:
            self.stage.clock.advance_monotonic(ALL_SESSIONS_UNUSED)
        else:
            killed = self.stage.sessions()
            for pid in killed:
                send_signal(pid, signal.SIGKILL)
            wait_until(lambda: all(map(processes.has_closed_everything, killed)), TIMEOUT,
                       "the end of killed sessions")
        body = b'{"jsonrpc":"2.0","id":"check","method":"initialize","params":{}}'
        for direct in (False, True):
            caller.direct = direct
            response = Connection(caller, caller.compose(body, None)).read()
            if response is None or response.status != 200:
                self.ledger.violation(f"the listener does not serve after the round: {response}")
                return
            session = response.headers["mcp-session-id"]
            closed = Connection(caller, caller.compose(b"", session, method="DELETE")).read()
            if closed is None or closed.status != 204:
                self.ledger.violation(f"DELETE after the round: {closed}")

    def measure_rest(self, caller: HttpClient) -> None:
        """What a listener holds that has served and is idle."""
        for _ in range(3):  # Wine keeps some things from the first ones.
            self.end_sessions(caller)
            wait_until(lambda: self._children() == [], TIMEOUT, "the end of every session")
            time.sleep(REST_WAIT)
            self.rest = tuple(max(pair) for pair in zip(self.rest, self.stage.holdings()))

    def _children(self) -> list[int]:
        return [pid for pid in self.stage.listener.processes()
                if pid != self.stage.listener.process.pid]

    def check_engine(self) -> None:
        """No process is left but the listener, so the engine has no client left. Wine's server now
        and then keeps the socket of a killed worker open."""
        windows = self.stage.target.windows
        try:
            wait_until(lambda: self.stage.engine.clients() <= self._kept_clients,
                       KEPT_LIMIT if windows else TIMEOUT, "the engine's clients")
        except AssertionError as failure:
            if not windows:
                self.ledger.violation(f"the engine still has clients: {failure}")
            self.ledger.count("connections of killed workers, kept open by Wine",
                              self.stage.engine.clients() - self._kept_clients)
        self._kept_clients = self.stage.engine.clients()

    # writes

    def check_writes(self) -> None:
        written = self._written()
        markers = {path.name.removesuffix(".used") for path in self.stage.markers.iterdir()}
        nonces = {request.mark: request.nonce for request in self.ledger.requests.values()
                  if request.kind == "write"}
        for mark, times in written.items():
            if times > 1:
                self.ledger.violation(f"the write {mark} ran {times} times")
            if mark not in nonces:
                self.ledger.violation(f"the write {mark} ran without an approval")
            elif nonces[mark] not in markers:
                self.ledger.violation(f"the write {mark} ran without a marker")
        for request in self.ledger.requests.values():
            if request.mark and request.answers == ["tool result"] and request.mark not in written:
                self.ledger.violation(f"the write {request.mark} was reported as done and is not")
        self.ledger.count(WRITTEN, len(written))
        self.ledger.count("replay markers", len(markers))
        self._forget_writes()

    def _written(self) -> Counter[str]:
        with closing(sqlite3.connect(self.stage.engine.database, timeout=TIMEOUT)) as connection:
            return Counter(mark for (mark,) in connection.execute("SELECT MARK FROM EVENTS"))

    def _forget_writes(self) -> None:
        with closing(sqlite3.connect(self.stage.engine.database, timeout=TIMEOUT)) as connection:
            connection.execute("DELETE FROM EVENTS")
            connection.commit()
        for marker in self.stage.markers.iterdir():
            marker.unlink()

    # records

    def check_audit(self) -> None:
        check = RecordCheck(self.ledger)
        for path in self.stage.audit.path.iterdir():
            check.read(path)
            path.unlink()
        check.judge()
