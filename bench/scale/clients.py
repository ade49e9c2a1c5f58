"""One process of simulated clients. Each holds a session: thinks, calls, cancels, leaves.

Its first input line is a JSON document with what program.py's `wishes` has; after each phase it
prints one JSON line and waits for an input line that begins the next: open, load, leave.
"""

from __future__ import annotations

import asyncio
import json
import random
import ssl
import sys
import time
from collections import Counter
from typing import Any

from harness.messages import call, cancel, notification, request
from harness.sales_engine import COUNT_ORDERS, ORDERS, SLOW, result
from scale.https import Connection, Lost, Response, Target

STARTS_AT_ONCE = 16
REFUSED_PAUSE = 0.2
"""Seconds until a client whose initialize was refused tries again."""

CANCEL_PAUSE = 1.0
"""Seconds until a cancel is repeated. One that comes over its own connection may overtake the call,
and the server passes over a cancel of what it does not know."""

LISTED = result("policy-filtered", ["NAME"], [["ORDERS"], ["ITEMS"]])
COUNTED = result("OK", ["N"], [[str(ORDERS)]])
CANCELLED = {"content": [{"type": "text", "text": "request cancelled"}],
             "structuredContent": {"cancelled": True}, "isError": True}


class Found:
    """What all clients of this process have seen."""

    def __init__(self) -> None:
        self.counts: Counter[str] = Counter()
        self.latencies: list[int] = []
        self.query_latencies: list[int] = []
        self.answered: list[str] = []
        self.cancelled: list[str] = []
        self.faults: list[str] = []

    def fault(self, kind: str, told: str) -> None:
        """`kind` is "wrong" or "lost"."""
        self.counts[kind] += 1
        if len(self.faults) < 20:
            self.faults.append(f"{kind}: {told[:300]}")

    def next_phase(self) -> None:
        """Counts and faults are told phase by phase."""
        self.counts.clear()
        self.faults.clear()

    def document(self) -> dict[str, Any]:
        return {"counts": self.counts, "latencies": self.latencies,
                "query_latencies": self.query_latencies, "answered": self.answered,
                "cancelled": self.cancelled, "faults": self.faults}


class Client:
    def __init__(self, name: str, wishes: dict[str, Any], target: Target, found: Found) -> None:
        self.name = name
        self.wishes = wishes
        self.rng = random.Random(f"{wishes['seed']}:{name}")
        self.found = found
        self.session = ""
        self._connection = Connection(target)
        self._second = Connection(target)
        self._calls = 0

    async def open(self) -> None:
        """Tries until a listener admits it."""
        body = request("initialize", "init", {}).rstrip()
        while True:
            self.found.counts["initializes"] += 1
            got = await self._ask(body)
            if got is not None and got.status == 200:
                break
            if got is not None:
                self.found.counts["refused initializes"] += 1
                self.found.counts[f"initialize refused by {got.status}"] += 1
            await asyncio.sleep(REFUSED_PAUSE)
        self.session = got.session
        if "serverInfo" not in json.loads(got.body).get("result", {}):
            self.found.fault("wrong", repr(got.body))
        got = await self._ask(notification("notifications/initialized").rstrip(), self.session)
        if got is not None and got.status != 202:
            self.found.fault("wrong", repr(got))

    async def use(self, end: float) -> None:
        """Acts at random times, which do not depend on how long the responses take."""
        acts = [self._list, self._count, self._cancel, self._come_anew]
        due = time.monotonic() + self.rng.expovariate(1 / self.wishes["think"])
        while due < end:
            await asyncio.sleep(due - time.monotonic())
            act = self.rng.choices(acts, self.wishes["weights"])[0]
            await act(due)
            # What comes after the other acts is not late because of them.
            since = due if act == self._list else time.monotonic()
            due = since + self.rng.expovariate(1 / self.wishes["think"])

    async def leave(self) -> None:
        self.found.counts["leaves"] += 1
        got = await self._ask(b"", self.session, "DELETE")
        if got is not None and got.status != 204:
            self.found.fault("wrong", repr(got))
        self._connection.close()
        self._second.close()

    # the acts

    async def _list(self, due: float) -> None:
        if await self._call("kova_list_tables", None, LISTED):
            self.found.latencies.append(round((time.monotonic() - due) * 1e6))

    async def _count(self, _: float) -> None:
        began = time.monotonic()
        if await self._call(COUNT_ORDERS["name"], COUNT_ORDERS["args"], COUNTED):
            self.found.query_latencies.append(round((time.monotonic() - began) * 1e6))

    async def _cancel(self, _: float) -> None:
        name = self._next_id()
        slow = asyncio.create_task(
            self._ask(call(name, SLOW["name"], SLOW["args"]).rstrip(), self.session))
        await asyncio.sleep(self.rng.uniform(0.05, 0.2))
        while not slow.done():
            self.found.counts["cancels"] += 1
            await self._send_cancel(name)
            await asyncio.wait([slow], timeout=CANCEL_PAUSE)
        if self._judge(name, await slow, CANCELLED):
            self.found.cancelled.append(name)

    async def _send_cancel(self, name: str) -> None:
        try:
            got = await self._second.ask(cancel(name).rstrip(), self.session)
            if got.status != 202:
                self.found.fault("wrong", repr(got))
        except Lost as failure:
            self.found.fault("lost", repr(failure))

    async def _come_anew(self, _: float) -> None:
        await self.leave()
        await self.open()

    async def _call(self, tool: str, arguments: Any, expected: Any) -> bool:
        name = self._next_id()
        got = await self._ask(call(name, tool, arguments).rstrip(), self.session)
        good = self._judge(name, got, expected)
        if good:
            self.found.answered.append(name)
        return good

    def _judge(self, name: str, got: "Response | None", expected: Any) -> bool:
        """Whether this is the expected result. A lost response has been counted already."""
        if got is None:
            return False
        wanted = {"jsonrpc": "2.0", "id": name, "result": expected}
        if got.status == 200 and json.loads(got.body) == wanted and got.session == self.session:
            return True
        self.found.fault("wrong", f"{name}: {got!r}")
        return False

    def _next_id(self) -> str:
        self._calls += 1
        return f"{self.name}-{self._calls}"

    async def _ask(self, body: bytes, session: str = "", method: str = "POST") -> "Response | None":
        try:
            return await self._connection.ask(body, session, method)
        except Lost as failure:
            self.found.fault("lost", f"{self.name}: {body!r}: {failure!r}")
            return None


async def _limited(starts: "list[Any]") -> None:
    """So many at a time."""
    gate = asyncio.Semaphore(STARTS_AT_ONCE)

    async def one(start: Any) -> None:
        async with gate:
            await start()

    await asyncio.gather(*(one(start) for start in starts))


async def play(wishes: dict[str, Any]) -> None:
    target = Target(wishes["port"], wishes["token"],
                    ssl.create_default_context(cafile=wishes["certificate"]))
    found = Found()
    clients = [Client(f"{wishes['name']}{number}", wishes, target, found)
               for number in range(wishes["clients"])]
    read = asyncio.get_running_loop().run_in_executor
    await _limited([client.open for client in clients])
    print(json.dumps(found.document()), flush=True)
    await read(None, sys.stdin.readline)
    found.next_phase()
    end = time.monotonic() + wishes["seconds"]
    await asyncio.gather(*(client.use(end) for client in clients))
    print(json.dumps(found.document()), flush=True)
    await read(None, sys.stdin.readline)
    found.next_phase()
    await _limited([client.leave for client in clients])
    print(json.dumps({"counts": found.counts, "faults": found.faults}), flush=True)


if __name__ == "__main__":
    asyncio.run(play(json.loads(sys.stdin.readline())))
