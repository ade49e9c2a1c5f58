"""Every request with its replies, the violations, and the counts of a run."""

from __future__ import annotations

import threading
import time
from collections import Counter
from dataclasses import dataclass, field
from typing import Any


Reply = dict[str, Any]

RECORD_WAIT = 2.0
"""Seconds within which a loaded machine writes the record of a call: it comes after the reply."""


@dataclass
class Request:
    """A request that a client has sent. `rows` is how many rows a right reply to a read has."""

    id: str
    kind: str
    sent: float
    tool: bool = False
    rows: int = 0
    mark: str | None = None  # of a write
    nonce: str | None = None  # of the approval that a write came with
    closed: bool = False  # the connection ended before a reply
    answers: list[str] = field(default_factory=list)  # what the replies were, by kind
    answered: float = 0.0
    recorded: bool = False  # there has to be an audit record

    @property
    def open(self) -> bool:
        return not self.answers and not self.closed


@dataclass
class Doubt:
    """A time in which an audit record may be lost. One hand alone causes them."""

    begin: float
    kind: str | None
    end: float = float("inf")


class Ledger:
    """Shared by all threads. Ids are unique in a run; a round forgets those of the round before."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self.counts: Counter[str] = Counter()
        self.violations: list[str] = []
        self.requests: dict[str, Request] = {}
        self.round = 0
        self.began = time.monotonic()

    def in_round(self, moment: float) -> float:
        """Seconds since the round began."""
        return moment - self.began

    def begin_round(self, number: int) -> None:
        self.round = number
        self.began = time.monotonic()
        self.requests = {}
        self.faults: list[str] = []
        self.doubts: list[Doubt] = []
        self.engine_ends: list[float] = []
        self.listener_ends: list[float] = []
        self.unseen_kills: list[float] = []  # of workers, which their servers take for an end
        self.approved: list[tuple[str, str]] = []  # statements with their tokens, to send again

    def count(self, what: str, number: int = 1) -> None:
        with self._lock:
            self.counts[what] += number

    def violation(self, text: str) -> None:
        with self._lock:
            self.violations.append(f"round {self.round}: {text}")

    def sent(self, request: Request) -> Request:
        with self._lock:
            assert request.id not in self.requests
            self.requests[request.id] = request
            self.counts[f"sent {request.kind}"] += 1
        return request

    def answered(self, request: Request, kind: str, *, recorded: bool = False) -> None:
        request.answered = time.monotonic()
        request.recorded = recorded
        request.answers.append(kind)
        self.count(f"reply {kind}")
        if len(request.answers) > 1:
            self.violation(f"{request.id} got {len(request.answers)} replies: {request.answers}")

    def closed(self, request: Request, how: str) -> None:
        if not request.open:
            return
        request.closed = True
        self.count(f"closed: {how}")

    def fault_done(self, fault: str, began: float) -> None:
        self.count(f"fault {fault}")
        self.faults.append(f"{fault} {self.in_round(began):.2f} to "
                           f"{self.in_round(time.monotonic()):.2f} s")

    # Times in which an audit record may be lost.

    def begin_doubt(self, kind: str | None = None) -> None:
        """For requests of this kind, or of all."""
        self.doubts.append(Doubt(time.monotonic(), kind))

    def end_doubt(self) -> None:
        self.doubts[-1].end = time.monotonic()

    def is_doubtful(self, request: Request) -> bool:
        return (any(doubt.begin <= request.answered + RECORD_WAIT and request.sent <= doubt.end
                    and doubt.kind in (None, request.kind) for doubt in self.doubts)
                or any(request.sent <= end <= request.answered for end in self.unseen_kills))

    def was_file_full(self) -> bool:
        return any(doubt.kind is None for doubt in self.doubts)

    def engine_ended_during(self, request: Request) -> bool:
        return any(request.sent <= end <= request.answered for end in self.engine_ends)

    def table(self) -> list[tuple[str, int]]:
        with self._lock:
            return sorted(self.counts.items())

