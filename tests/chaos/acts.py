"""The calls that clients make, and what a right reply to each is.

Every request has an id that no other request of the run has. A read carries it as a literal that
each row of its result repeats, a write stores it; so a reply that reaches a wrong client is seen by
its id or by its content.
"""

from __future__ import annotations

import json
import random
import time
from typing import Any

from chaos.ledger import Ledger, Reply, Request, Serving
from harness.approval_tokens import Token, digest_of, new_nonce
from harness.messages import call, request

MEMORY_LIMIT = "server memory limit"
CANCELLED = "request cancelled"
SPENT = "approval token was already used or replay state is unavailable"
IN_SERVER = "read in the server"
WRITE_TOOL = "kova_execute"
ROW_COUNTS = [0, 1, 7, 60, 256]
SLOW_SOURCE = "ORDERS A, ORDERS B, ORDERS C WHERE A.ID <= {0} AND B.ID + C.ID < 0"
"""Reads 300 * 300 * {0} combinations of rows; one takes about a tenth of a microsecond."""


class Acts:
    """The calls of one client, from its own random numbers."""

    def __init__(self, name: str, rng: random.Random, ledger: Ledger) -> None:
        self.name = name
        self.rng = rng
        self.ledger = ledger
        self.serving: Serving | None = None  # once the client knows it
        self._number = 0

    def new_id(self) -> str:
        self._number += 1
        return f"{self.name}.{self._number}"

    def note(self, kind: str, **fields: Any) -> Request:
        made = Request(self.new_id(), kind, time.monotonic(), self.serving, **fields)
        return self.ledger.sent(made)

    # Each returns the request and its message, a line.

    def any_call(self) -> tuple[Request, bytes]:
        return self.rng.choices([self.read, self.tables, self.slow_read, self.refused_read,
                                 self.write], [10, 2, 1, 1, 6])[0]()

    def read(self) -> tuple[Request, bytes]:
        rows = self.rng.choice(ROW_COUNTS)
        noted = self.note("read", tool=True, rows=rows)
        sql = f"SELECT ID, '{noted.id}' AS MARK FROM ORDERS WHERE ID <= {rows}"
        return noted, call(noted.id, "kova_query", {"sql": sql, "max_rows": 256})

    def slow_read(self) -> tuple[Request, bytes]:
        noted = self.note("slow read", tool=True, rows=1)
        source = SLOW_SOURCE.format(self.rng.randint(1, 20))
        sql = f"SELECT COUNT(A.ID) AS N, '{noted.id}' AS MARK FROM {source}"
        return noted, call(noted.id, "kova_query", {"sql": sql})

    def refused_read(self) -> tuple[Request, bytes]:
        noted = self.note("refused read", tool=True)
        return noted, call(noted.id, "kova_query", {"sql": "SELECT NAME FROM SALARIES"})

    def tables(self) -> tuple[Request, bytes]:
        noted = self.note("table list", tool=True)
        return noted, call(noted.id, "kova_list_tables")

    def in_process_read(self) -> tuple[Request, bytes]:
        """A call that runs in the server process, because its id is spelled in escapes."""
        noted, line = self.read()
        spelled = "".join(f"\\u{ord(letter):04x}" for letter in noted.id)
        padded = spelled.encode() + b"\\u0020" * max(0, 18 - len(noted.id))
        del self.ledger.requests[noted.id]
        noted.kind, noted.id = IN_SERVER, noted.id + " " * max(0, 18 - len(noted.id))
        self.ledger.sent(noted)
        head, tail = line.split(b'"method"', 1)
        before = noted.id.rstrip().encode()
        return noted, head.replace(b'"' + before + b'"', b'"' + padded + b'"') + b'"method"' + tail

    def ping(self) -> tuple[Request, bytes]:
        noted = self.note("ping")
        return noted, request("ping", noted.id)

    def initialize(self) -> tuple[Request, bytes]:
        noted = self.note("initialize")
        return noted, request("initialize", noted.id, {})

    def write(self) -> tuple[Request, bytes]:
        """An approved write, one that was sent before, or one without a good token."""
        kind = self.rng.choices(["approved", "again", "unapproved"], [6, 2, 1])[0]
        place = self.rng.random()
        if kind == "again" and self.ledger.approved:
            # Mostly one of the last, so that two sessions use a token at the same time.
            return self.write_again(*self.ledger.approved[-1 - int(
                place ** 4 * len(self.ledger.approved))])
        return self.new_write("unapproved write" if kind == "unapproved" else "write")

    def new_write(self, kind: str) -> tuple[Request, bytes]:
        noted = self.note(kind, tool=True)
        noted.mark = noted.id
        sql = f"INSERT INTO EVENTS (MARK) VALUES ('{noted.mark}');"
        arguments = {"sql": sql}
        if kind == "write":
            token = Token(digest_of(sql), str(int(time.time()) + 200), new_nonce(),
                          name="sales_chaos", database="SALES")
            noted.nonce = token.nonce
            arguments["approval_token"] = token.text
            self.ledger.approved.append((sql, token.text))
        return noted, call(noted.id, WRITE_TOOL, arguments)

    def write_again(self, sql: str, token: str) -> tuple[Request, bytes]:
        noted = self.note("write again", tool=True)
        noted.mark, noted.nonce = sql.split("'")[1], token.split(".")[2]
        return noted, call(noted.id, WRITE_TOOL, {"sql": sql, "approval_token": token})

    def garbage(self) -> bytes:
        """A line that is no message; without the four characters by which the listener knows a
        request."""
        kind = self.rng.randrange(5)
        if kind == 0:
            data = self.rng.randbytes(self.rng.randint(1, 3000))
            data = data.replace(b"\n", b"?").replace(b"\0", b"?").replace(b'"', b"?")
            return b"?" + data + b"\n"
        if kind == 1:
            return b'{"jsonrpc":"2.0","method":"ping"\n'
        if kind == 2:
            return b"[" * self.rng.randint(1, 5000) + b"\n"
        if kind == 3:
            return b'{"jsonrpc":"2.0","jsonrpc":"2.0","method":"ping"}\n'
        return b'{"a":"' + b"\\u12" * self.rng.randint(1, 200) + b'"}\n'

    # what a right reply is

    def judge(self, noted: Request, reply: Reply) -> None:
        """Notes the reply to a request, whose id it has. Says what is wrong with it."""
        error = reply.get("error")
        if error is not None:
            self.ledger.answered(noted, f"error {error['code']}")
            return
        result = reply["result"]
        if not noted.tool:
            self.ledger.answered(noted, "result")
            return
        text = result["content"][0]["text"]
        if text == CANCELLED:
            self.ledger.answered(noted, "cancelled")
        elif result["isError"]:
            self.ledger.answered(noted, "tool error", recorded=True)
        else:
            self.ledger.answered(noted, "tool result", recorded=True)
            self._judge_content(noted, text, result["structuredContent"])

    def _judge_content(self, noted: Request, text: str, content: Any) -> None:
        if json.loads(text) != content:
            self.ledger.violation(f"{noted.id}: text and structured content differ")
        if noted.kind in ("refused read", "unapproved write"):
            self.ledger.violation(f"{noted.id}: {noted.kind}, and carried out: {text[:200]}")
        elif "read" in noted.kind:
            self._judge_rows(noted, content)

    def _judge_rows(self, noted: Request, content: Any) -> None:
        """The client library cannot tell an engine that is lost from the end of the rows."""
        rows, mark = content["rows"], noted.id.rstrip()
        expected = [[str(number), mark] for number in range(1, noted.rows + 1)]
        if noted.kind == "slow read":
            expected = [["0", mark]]
        if content["rowCount"] != len(rows) or rows != expected[:len(rows)]:
            self.ledger.violation(f"{noted.id}: wrong rows: {str(rows)[:200]}")
        elif len(rows) < len(expected) and self.ledger.engine_ended_during(noted):
            self.ledger.count("result cut by the engine's end")
        elif len(rows) < len(expected):
            self.ledger.violation(f"{noted.id}: {len(rows)} of {len(expected)} rows")
