"""A client of stdio servers, one after the other."""

from __future__ import annotations

import json
import operator
import queue
import random
import subprocess
import threading
import time
from typing import Any

from chaos.acts import IN_SERVER, MEMORY_LIMIT, Acts
from chaos.ledger import Ledger, Request, Serving
from chaos.stage import Holdings, Stage
from harness.messages import cancel
from harness.servers import Server
from harness.waiting import wait_for_end, wait_until

REPLY_LIMIT = 90.0
"""Seconds in which a request has its reply, whatever the hands do; a fault lasts two at most."""
END_LIMIT = 60.0
REST_LOOKS, REST_WAIT = 40, 0.2
LOOKED_AT = "idle stdio servers looked at"
IDS_LIMIT = 200
"""A server remembers 256 ids of requests that are no tool calls."""
PING_PAUSE = 0.1
PARSE_ERROR = -32700
INTERNAL_ERROR = -32603


class StdioClient(threading.Thread):
    def __init__(self, name: str, seed: str, stage: Stage, ledger: Ledger, pause: float) -> None:
        super().__init__(daemon=True, name=name)
        self.rng = random.Random(f"{seed}:{name}")
        self.stage = stage
        self.ledger = ledger
        self.pause = pause
        self.stopping = threading.Event()
        self.server: Server | None = None  # the hand looks for it here
        self._life = 0

    def run(self) -> None:
        try:
            while not self.stopping.is_set():
                self._life += 1
                self._live()
        except Exception as failure:  # pylint: disable=broad-except
            self.ledger.violation(f"{self.name}: {failure!r}")

    def _live(self) -> None:
        """One server from its start to its end."""
        deaf = self.rng.random() < 0.03
        self.server = self.stage.start_stdio(unread=["stdout"] if deaf else [])
        life = _Life(self, self.server, Acts(f"{self.name}-{self._life}", self.rng, self.ledger),
                     deaf)
        try:
            life.initialize()
            for _ in range(self.rng.randint(5, 60)):
                if self.stopping.wait(self.rng.uniform(0, 2 * self.pause)) or life.has_ended:
                    break
                life.act()
            if self.stopping.is_set():
                self._expect_nothing_held(life, self.server)
            life.end()
        finally:
            server, self.server = self.server, None
            self._expect_nothing_left(server)

    def _expect_nothing_held(self, life: "_Life", server: Server) -> None:
        """At the end of a round, when every fault is lifted, the server is left idle. It holds no
        more than one that has served without faults."""
        for _ in range(REST_LOOKS):
            if not life.rest():
                return
            held, running = self.stage.stdio_holdings(server), len(server.processes())
            if running <= 1 and all(map(operator.le, held, self.stage.stdio_rest)):
                self.ledger.count(LOOKED_AT)
                return
        self.ledger.violation(
            f"{self.name}: an idle stdio server keeps {running - 1} processes, and of threads, "
            f"descriptors and handles {held} instead of {self.stage.stdio_rest}")

    def measure_rest(self) -> Holdings:
        """What a server holds that has served reads of every kind, and is idle."""
        server = self.stage.start_stdio()
        acts = Acts(self.name, self.rng, self.ledger)
        life = _Life(self, server, acts, deaf=False)
        life.initialize()
        for act in 2 * [acts.read, acts.in_process_read, acts.tables]:
            life.ask_and_settle(*act())
        assert life.rest()
        wait_until(lambda: len(server.processes()) == 1, what="the end of the workers")
        held = self.stage.stdio_holdings(server)
        server.close()
        return held

    def _expect_nothing_left(self, server: Server) -> None:
        try:
            wait_for_end(server.process, END_LIMIT)
            server.expect_no_process(END_LIMIT)
        except (AssertionError, subprocess.TimeoutExpired) as failure:
            self.ledger.violation(f"{self.name}: a stdio server does not end: {failure}")
        server._end_everything()  # pylint: disable=protected-access


class _Life:
    """The requests of one server and their replies."""

    def __init__(self, client: StdioClient, server: Server, acts: Acts, deaf: bool) -> None:
        self.rng = client.rng
        self.ledger = client.ledger
        self.server = server
        self.acts = acts
        self.acts.serving = self.serving = Serving(server.marker)
        self.deaf = deaf  # nobody reads its standard output
        self.open: dict[str, Request] = {}
        self.garbage = 0
        self.nameless: list[str] = []  # replies without an id; they are given out in a pause
        self.ids = 0
        self.has_ended = False
        self._unrecorded: list[Request] = []  # in-process calls, whose records come after replies

    # what is sent

    def initialize(self) -> None:
        self._ask(*self.acts.initialize())
        self._settle()

    def act(self) -> None:
        what = self.rng.choices(
            [self._one_call, self._crowded_call, self._cancelled_call, self._in_process_call,
             self._ping, self._garbage, self._oversized], [20, 6, 6, 2, 3, 3, 0.3])[0]
        what()
        self._settle()

    def rest(self) -> bool:
        """Lets the server finish with the last worker. False when nobody reads its replies, or it
        has ended."""
        if self.deaf or self.has_ended:
            return False
        self._ping()
        self.ids -= 1  # The server remembers a few more than IDS_LIMIT.
        self._settle()
        time.sleep(REST_WAIT)
        return not self.has_ended

    def ask_and_settle(self, noted: Request, line: bytes) -> None:
        self._ask(noted, line)
        self._settle()

    def end(self) -> None:
        """Ends the input, now and then with a call under way, or kills the server."""
        how = self.rng.choices(["idle", "busy", "killed"], [4, 3, 2])[0]
        if how != "idle" and not self.has_ended:
            self._ask(*self.acts.any_call())
            time.sleep(self.rng.uniform(0, 0.03))
        self.serving.ended = time.monotonic()
        if how == "killed":
            with self.ledger.kill(self.server.marker):
                self.server.process.kill()
            self.ledger.count("client killed its server")
        self.server.close_input()
        if self.deaf:
            self._settle()
        self._read_to_end()

    def _one_call(self) -> None:
        self._ask(*self.acts.any_call())

    def _crowded_call(self) -> None:
        """Other messages while a call runs."""
        self._ask(*self.acts.any_call())
        for _ in range(self.rng.randint(1, 4)):
            time.sleep(self.rng.uniform(0, 0.01))
            self.rng.choice([self._ping, self._one_call, self._garbage])()

    def _cancelled_call(self) -> None:
        noted, line = self.acts.any_call()
        self._ask(noted, line)
        time.sleep(self.rng.choice([0, 0.002, 0.01, 0.03]))
        noted.cancelled = time.monotonic()
        self._send(cancel(noted.id) * self.rng.choice([1, 1, 2]))
        self.ledger.count("sent cancel")

    def _in_process_call(self) -> None:
        self._settle()
        self._ask(*self.acts.in_process_read())

    def _ping(self) -> None:
        self._ask(*self.acts.ping())

    def _garbage(self) -> None:
        self.garbage += 1
        self.ledger.count("sent garbage")
        self._send(self.acts.garbage())

    def _oversized(self) -> None:
        self.garbage += 1
        self.ledger.count("sent oversized")
        self._send(b"x" * (1 << 20) + b"y" * self.rng.randint(1, 5000) + b"\n")

    def _ask(self, noted: Request, line: bytes) -> None:
        self.open[noted.id] = noted
        self.ids += not noted.tool
        self._send(line)

    def _send(self, data: bytes) -> None:
        try:
            self.server.send(data)
        except (BrokenPipeError, ValueError):
            pass  # It has been killed: standard output will end.

    # what comes back

    def _settle(self) -> None:
        """Reads until every request has its reply."""
        if self.deaf:
            for noted in self.open.values():
                self.ledger.closed(noted, "nobody reads standard output")
            self.open.clear()
            self.has_ended = self.rng.random() < 0.3
            return
        while len(self.open) > len(self.nameless) and not self.has_ended:
            self._read_line()
        if self.nameless and not self.has_ended:
            self._ping_until_idle()
        if self.nameless and not self.has_ended:
            self._give_out_nameless()
        self.has_ended |= self.ids > IDS_LIMIT

    def _ping_until_idle(self) -> None:
        """Whatever was sent before a ping that is served has had its reply by then."""
        answered = False
        while not answered and not self.has_ended:
            noted, line = self.acts.ping()
            failures = len(self.nameless)
            self._ask(noted, line)
            while noted.open and len(self.nameless) == failures and not self.has_ended:
                self._read_line()
            answered = noted.answers == ["result"]
            time.sleep(0 if answered else PING_PAUSE)

    def _give_out_nameless(self) -> None:
        """A reply without an id may be to any request that is left. The one that tells of missing
        memory may also be to a cancel or to garbage."""
        left, messages = list(self.open.values()), self.nameless
        failed_calls = sum(MEMORY_LIMIT not in message for message in messages)
        if len(left) > len(messages) or failed_calls > sum(noted.tool for noted in left):
            self.ledger.violation(f"{self.acts.name}: replies without an id {messages}, and left "
                                  f"are {[noted.id for noted in left]}")
        for noted in left:
            self.ledger.answered(noted, "failure (id null)")
        self.open.clear()
        self.nameless = []

    def _read_line(self) -> None:
        try:
            line = self.server._lines.get(timeout=REPLY_LIMIT)  # pylint: disable=protected-access
        except queue.Empty:
            self.ledger.violation(f"no reply within {REPLY_LIMIT} s to {list(self.open)}")
            self.has_ended = True
            self.server.process.kill()
            return
        if line is None:
            self._lose_all()
        else:
            self._take(line)

    def _read_to_end(self) -> None:
        while not self.has_ended and not self.deaf:
            self._read_line()

    def _lose_all(self) -> None:
        self.has_ended = True
        code = wait_for_end(self.server.process, END_LIMIT)
        if code == 0:
            self._give_out_nameless()
        elif code not in (-9, 137):
            self.ledger.violation(f"the server ended with {code}: {self.server.stderr[-300:]!r}")
        for noted in self.open.values():
            self.ledger.closed(noted, "server killed")
        self.open.clear()

    def _take(self, line: bytes) -> None:
        reply = self._parse(line)
        if reply is None:
            return
        for noted in self._unrecorded:
            noted.recorded, noted.answered = True, time.monotonic()
        self._unrecorded.clear()
        if reply["id"] is None:
            self._take_nameless(reply)
            return
        noted = self.open.pop(reply["id"], None)
        if noted is None:
            self.ledger.violation(f"{self.acts.name}: a reply to no open request: {line[:300]!r}")
            return
        self.acts.judge(noted, reply)
        if noted.kind == IN_SERVER and noted.recorded:
            noted.recorded = False
            self._unrecorded.append(noted)

    def _parse(self, line: bytes) -> Any:
        try:
            assert line.endswith(b"\n")
            reply = json.loads(line)
            assert reply["jsonrpc"] == "2.0" and ("result" in reply) != ("error" in reply)
            assert "id" in reply
            return reply
        except (AssertionError, KeyError, TypeError, ValueError):
            if not line.endswith(b"\n") and self._was_killed():
                self.ledger.count("line cut by a kill")  # A pipe takes a long line in pieces.
            else:
                self.ledger.violation(f"no message on standard output: {line[:300]!r}")
            return None

    def _was_killed(self) -> bool:
        return wait_for_end(self.server.process, END_LIMIT) in (-9, 137)

    def _take_nameless(self, reply: Any) -> None:
        """A reply with the id null: to garbage, or to a request whose id could not be had."""
        error = reply["error"]
        if error["code"] == PARSE_ERROR and self.garbage > 0:
            self.garbage -= 1
            self.ledger.count("reply to garbage")
            return
        message = f"{error['code']} {error['message']}"
        self.ledger.count(f"reply {message} (id null)")
        if error["code"] != INTERNAL_ERROR:
            self.ledger.violation(f"{self.acts.name}: a reply without an id and without a request: "
                                  f"{message}")
            return
        self.nameless.append(message)
