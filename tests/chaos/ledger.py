"""Every request with its replies, the violations, and the counts of a run."""

from __future__ import annotations

import contextlib
import threading
import time
from collections import Counter
from dataclasses import dataclass, field
from typing import Any, Iterator


Reply = dict[str, Any]

NEVER = float("inf")


@dataclass
class Serving:
    """The server that a client's calls reach, by its marker.

    The session of a listener is a process of its own, which takes the listener's limits over when
    it is started: those that the listener gets after `started` do not reach it. A stdio server has
    NEVER there. From `ended` on its client lets it end, and with it a call that is under way.
    """

    server: str
    started: float = NEVER
    ended: float = NEVER


@dataclass
class Request:
    """A request that a client has sent. `rows` is how many rows a right reply to a read has.

    The record of a call is written between `sent` and `answered`: the reply of a worker is passed
    on once the worker has ended, and a call in the server process counts as answered when the next
    reply has come.
    """

    id: str
    kind: str
    sent: float
    serving: Serving | None = None  # when it is known
    cancelled: float = NEVER
    tool: bool = False
    rows: int = 0
    mark: str | None = None  # of a write
    nonce: str | None = None  # of the approval that a write came with
    closed: bool = False  # the connection ended before a reply
    answers: list[str] = field(default_factory=list)  # what the replies were, by kind
    answered: float = 0.0
    recorded: bool = False  # there has to be an audit record

    @property
    def ended(self) -> float:
        """A call that nobody waits for may go on for any time."""
        return self.answered if self.answers else NEVER

    @property
    def given_up(self) -> float:
        """From then on the server kills the call's worker, because the client wants it to."""
        return min(self.cancelled, self.serving.ended if self.serving else NEVER)

    @property
    def open(self) -> bool:
        return not self.answers and not self.closed


@dataclass
class Doubt:
    """A time in which an audit record may be lost. One hand alone causes them.

    `kind` and `server` say of which requests; None stands for all. `cuts` says that a record may
    be written in part, and is taken back then.
    """

    begin: float
    kind: str | None = None
    server: str | None = None
    cuts: bool = False
    end: float = NEVER

    def covers(self, request: Request) -> bool:
        return (self.begin <= request.ended and request.sent <= self.end
                and self.kind in (None, request.kind) and self._concerns(request.serving))

    def _concerns(self, serving: Serving | None) -> bool:
        return (self.server is None or serving is None
                or (self.server == serving.server and self.begin <= serving.started))


@dataclass
class Kill:
    """Of a process that may be writing a record. `server` is the marker of the one it belonged to;
    one that is `unseen` looks to its server like an end."""

    moment: float
    server: str
    unseen: bool = False
    done: bool = True

    def struck(self, request: Request) -> bool:
        return (request.sent <= self.moment <= request.ended
                and (request.serving is None or request.serving.server == self.server))


class Ledger:
    """Shared by all threads. Ids are unique in a run; a round forgets those of the round before."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self.counts: Counter[str] = Counter()
        self.violations: list[str] = []
        self.requests: dict[str, Request] = {}
        self.round = 0
        self.began = time.monotonic()
        self.mark()

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
        self.kills: list[Kill] = []
        self.approved: list[tuple[str, str]] = []  # statements with their tokens, to send again

    def mark(self) -> None:
        """What was counted and found until now stays."""
        with self._lock:
            self._kept = Counter(self.counts), list(self.violations)

    def forget(self) -> None:
        """Takes back what came since the mark. No thread may be at work."""
        counts, violations = self._kept
        self.counts, self.violations = Counter(counts), list(violations)

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

    @contextlib.contextmanager
    def doubt(self, kind: str | None = None, server: str | None = None,
              cuts: bool = False) -> Iterator[None]:
        made = Doubt(time.monotonic(), kind, server, cuts)
        self.doubts.append(made)
        try:
            yield
        finally:
            made.end = time.monotonic()

    @contextlib.contextmanager
    def kill(self, server: str, unseen: bool = False) -> Iterator[Kill]:
        """Around the kill itself, so that no reply comes between. It is forgotten when it turns out
        that there was none, with `done` False."""
        made = Kill(time.monotonic(), server, unseen)
        self.kills.append(made)
        yield made
        if not made.done:
            self.kills.remove(made)

    def is_doubtful(self, request: Request) -> bool:
        return (any(doubt.covers(request) for doubt in self.doubts)
                or any(kill.unseen and kill.struck(request) for kill in self.kills))

    def may_be_cut(self, request: Request) -> bool:
        """Whether the writer of this call's record may have been killed between a write that the
        system carried out in part and its take-back. A call with a result has no such writer: the
        reply of one that was killed is not passed on, but for unseen kills."""
        kills = [kill for kill in self.kills if kill.struck(request)]
        if request.recorded and not any(kill.unseen for kill in kills):
            return False
        return any(doubt.covers(request)
                   and (request.given_up <= doubt.end
                        or any(doubt.begin <= kill.moment <= doubt.end for kill in kills))
                   for doubt in self.doubts if doubt.cuts)

    def kills_that_may_cut(self) -> int:
        return sum(any(doubt.cuts and doubt.begin <= kill.moment <= doubt.end
                       and doubt.server in (None, kill.server) for doubt in self.doubts)
                   for kill in self.kills)

    def engine_ended_during(self, request: Request) -> bool:
        return any(request.sent <= end <= request.answered for end in self.engine_ends)

    def table(self) -> list[tuple[str, int]]:
        with self._lock:
            return sorted(self.counts.items())

