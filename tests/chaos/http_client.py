"""A client of HTTP sessions, one after the other, through HAProxy or at the listener itself."""

from __future__ import annotations

import contextlib
import json
import random
import re
import socket
import ssl
import threading
import time
from dataclasses import dataclass
from typing import Any

from chaos.acts import MEMORY_LIMIT, Acts
from chaos.ledger import Ledger, Request, Serving
from chaos.stage import Stage
from harness.http_client import TOKEN
from harness.listeners import LOOPBACK
from harness.messages import cancel

RESPONSE_LIMIT = 90.0
"""Seconds in which a request has its response, whatever the hand does."""

LOOK_INTERVAL = 2.0
KEPT_AFTER = 15.0
"""Seconds after a listener's kill in which its connections are closed."""

HEAD = re.compile(rb"HTTP/1\.[01] (\d{3}) [^\r\n]*\r\n((?:[^\r\n]+\r\n)*)\r\n")
EXPECTED = {200, 202, 204, 400, 404, 408, 413, 502, 503, 504}


@dataclass
class Response:
    status: int
    headers: dict[str, str]
    body: bytes


class Connection:
    """One request and its response."""

    def __init__(self, client: "HttpClient", data: bytes, request: Request | None = None) -> None:
        self.client = client
        self.request = request
        self._socket: socket.socket | None = None
        self._began = time.monotonic()
        try:
            plain = socket.create_connection((LOOPBACK, client.port()), RESPONSE_LIMIT)
            self._socket = plain
            if not client.direct:
                self._socket = client.context.wrap_socket(plain, server_hostname="localhost")
            self._socket.sendall(data)
        except TimeoutError:
            self._violation(f"no connection within {RESPONSE_LIMIT} s")
        except OSError:
            pass  # The response, or its absence, is looked at when it is read.

    def vanish(self, reset: bool) -> None:
        if self._socket is None:
            return
        with contextlib.suppress(OSError):  # A failed handshake has closed it.
            if reset:
                self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                        b"\1\0\0\0\0\0\0\0")
        self._socket.close()

    def read(self) -> Response | None:
        """The response; None when the connection was closed before all of it had come."""
        data = bytearray()
        try:
            while self._socket is not None and (piece := self._receive()):
                data += piece
        except TimeoutError:
            self._violation(f"no response within {RESPONSE_LIMIT} s, but {bytes(data[-300:])!r}")
            return None
        except OSError:
            pass
        finally:
            if self._socket is not None:
                self._socket.close()
        return self._parse(bytes(data))

    def _receive(self) -> bytes:
        assert self._socket is not None
        end = time.monotonic() + RESPONSE_LIMIT
        self._socket.settimeout(LOOK_INTERVAL)
        while True:
            try:
                return self._socket.recv(1 << 16)
            except TimeoutError:
                if self._is_kept_by_wine():
                    self.client.ledger.count("connection of a killed listener, kept open by Wine")
                    return b""
                if time.monotonic() > end:
                    raise

    def _is_kept_by_wine(self) -> bool:
        """Wine's server now and then keeps a socket open of which the process was killed."""
        killed = [end for end in self.client.ledger.listener_ends if end > self._began]
        return (self.client.stage.target.windows and bool(killed)
                and time.monotonic() > killed[-1] + KEPT_AFTER)

    def _parse(self, data: bytes) -> Response | None:
        head = HEAD.match(data)
        if head is None:
            if b"\r\n\r\n" in data:
                self._violation(f"no HTTP: {data[:300]!r}")
            return None
        fields = [line.split(": ", 1) for line in head[2].decode("latin-1").split("\r\n")[:-1]]
        headers = {name.lower(): value for name, value in fields}
        body = data[head.end():]
        length = int(headers.get("content-length", "0" if head[1] == b"204" else len(body)))
        if len(body) > length:
            self._violation(f"more than one response: {data[:300]!r}")
        return Response(int(head[1]), headers, body) if len(body) == length else None

    def _violation(self, text: str) -> None:
        name = self.request.id if self.request else self.client.name
        self.client.ledger.violation(f"{name}: {text}")


class HttpClient(threading.Thread):
    def __init__(self, name: str, seed: str, stage: Stage, ledger: Ledger, pause: float) -> None:
        super().__init__(daemon=True, name=name)
        self.rng = random.Random(f"{seed}:{name}")
        self.stage = stage
        self.ledger = ledger
        self.pause = pause
        self.stopping = threading.Event()
        self.direct = False
        self.context = ssl.create_default_context(cafile=str(stage.proxy.certificate))
        self._life = 0

    def port(self) -> int:
        return self.stage.listener_port if self.direct else self.stage.proxy.port

    def run(self) -> None:
        try:
            while not self.stopping.is_set():
                self._life += 1
                self.direct = self.rng.random() < 0.25
                self._live()
                self.stopping.wait(self.rng.uniform(0, 4 * self.pause))
        except Exception as failure:  # pylint: disable=broad-except
            self.ledger.violation(f"{self.name}: {failure!r}")

    def compose(self, body: bytes, session: str | None, method: str = "POST") -> bytes:
        lines = [f"{method} /mcp HTTP/1.1", "Host: localhost", f"Authorization: Bearer {TOKEN}",
                 "Content-Type: application/json", f"Content-Length: {len(body)}",
                 "X-Forwarded-Proto: https", "Connection: close"]
        if session is not None:
            lines.append(f"Mcp-Session-Id: {session}")
        return "\r\n".join(lines).encode() + b"\r\n\r\n" + body

    def _live(self) -> None:
        if self.rng.random() < 0.15:
            self._send_garbage()
            return
        acts = Acts(f"{self.name}-{self._life}", self.rng, self.ledger)
        session = _Session(self, acts)
        session.begin()
        for _ in range(self.rng.randint(3, 40)):
            if self.stopping.wait(self.rng.uniform(0, 2 * self.pause)) or not session.id:
                break
            session.act()
        session.end()

    def _send_garbage(self) -> None:
        """What is no request, or half of one."""
        rng = self.rng
        good = self.compose(b'{"jsonrpc":"2.0","id":1,"method":"ping"}', "0" * 64)
        data = rng.choice([
            rng.randbytes(rng.randint(1, 20000)), good[:rng.randint(1, len(good) - 1)],
            good.replace(b"Content-Length: ", b"Content-Length: 9"),
            good.replace(b"Content-Length: ", b"Content-Length: -"),
            b"GET / HTTP/1.1\r\n\r\n", b"\r\n" * rng.randint(1, 20000), b"",
            good.replace(b"Bearer", b"Bearer x")])
        self.ledger.count("sent HTTP garbage")
        connection = Connection(self, data)
        time.sleep(rng.uniform(0, 0.05))
        connection.vanish(reset=rng.random() < 0.5)


class _Session:
    """One session as its client sees it."""

    def __init__(self, client: HttpClient, acts: Acts) -> None:
        self.client = client
        self.rng = client.rng
        self.ledger = client.ledger
        self.acts = acts
        self.id: str | None = None
        # Ids of requests: whose replies nobody waits for; whose replies another one may have got.
        self._left: set[str] = set()
        self._late: set[str] = set()

    def begin(self) -> None:
        noted, line = self.acts.initialize()
        response = self._exchange(noted, line)
        if response is not None and response.status == 200:
            self.id = response.headers["mcp-session-id"]
            # A listener that has been killed meanwhile has taken the session along.
            self.acts.serving = Serving(self.client.stage.listener.marker, time.monotonic())

    def act(self) -> None:
        what = self.rng.choices(
            [self._one_call, self._cancelled_call, self._two_calls, self._vanish, self._ping,
             self._garbage], [20, 6, 4, 3, 3, 2])[0]
        what()

    def end(self) -> None:
        """By DELETE, also during a call, or by leaving without one."""
        if self.id is None:
            return
        how = self.rng.choices(["idle", "busy", "silent"], [5, 3, 2])[0]
        call = self._begin(*self.acts.any_call()) if how == "busy" else None
        if how != "silent":
            if call:
                time.sleep(self.rng.uniform(0, 0.03))
            self._let_end()
            response = Connection(self.client,
                                  self.client.compose(b"", self.id, method="DELETE")).read()
            self.ledger.count(f"DELETE {response.status if response else 'closed'}")
        if call:
            self._finish(call)
        self.id = None

    def _let_end(self) -> None:
        """The DELETE that follows ends the session with what it is doing."""
        if self.acts.serving is not None:
            self.acts.serving.ended = time.monotonic()

    def _one_call(self) -> None:
        self._exchange(*self.acts.any_call())

    def _ping(self) -> None:
        self._exchange(*self.acts.ping())

    def _cancelled_call(self) -> None:
        noted, line = self.acts.any_call()
        call = self._begin(noted, line)
        time.sleep(self.rng.choice([0, 0.005, 0.02, 0.05]))
        self.ledger.count("sent cancel")
        noted.cancelled = time.monotonic()
        self._tell(cancel(noted.id))
        self._finish(call)

    def _two_calls(self) -> None:
        """Both at once; the session serves one after the other."""
        both = [self._begin(*self.acts.any_call()) for _ in range(2)]
        for call in both:
            self._finish(call)

    def _vanish(self) -> None:
        noted, line = self.acts.any_call()
        data = self.client.compose(line[:-1], self.id)
        cut = self.rng.choice([len(data), len(data), self.rng.randint(1, len(data))])
        connection = Connection(self.client, data[:cut], noted)
        time.sleep(self.rng.choice([0, 0.005, 0.05]))
        connection.vanish(reset=self.rng.random() < 0.5)
        self.ledger.closed(noted, "client vanished")
        self._left.add(noted.id)

    def _garbage(self) -> None:
        """The body is passed on, but no reply is waited for: it comes as the next one, and the
        next one's after it. So the session is of no further use; what it still says must be about
        itself, or about a request that was left and came after the garbage."""
        self.ledger.count("sent garbage")
        self._tell(self.acts.garbage())
        noted, line = self.acts.ping()
        response = self._begin(noted, line).read()
        if response is not None and response.status == 200:
            reply = json.loads(response.body)
            if reply["id"] not in {None, noted.id, *self._left}:
                self.ledger.violation(f"{noted.id}: a reply for another: {response.body[:300]!r}")
        self.ledger.closed(noted, "behind garbage")
        self._leave()

    def _leave(self) -> None:
        if self.id is None:
            return
        self._let_end()
        Connection(self.client, self.client.compose(b"", self.id, method="DELETE")).read()
        self.id = None

    def _tell(self, line: bytes) -> None:
        response = Connection(self.client, self.client.compose(line[:-1], self.id)).read()
        if response is not None and response.status not in EXPECTED:
            self.ledger.violation(f"{self.acts.name}: status {response.status}")

    def _begin(self, noted: Request, line: bytes) -> Connection:
        return Connection(self.client, self.client.compose(line[:-1], self.id), noted)

    def _exchange(self, noted: Request, line: bytes) -> Response | None:
        return self._finish(self._begin(noted, line))

    def _finish(self, connection: Connection) -> Response | None:
        noted, response = connection.request, connection.read()
        assert noted is not None
        if response is None or response.status != 200:
            self._left.add(noted.id)
        if response is None:
            self.ledger.closed(noted, "no response")
        elif response.status == 200:
            self._take(noted, response.body)
        else:
            self.ledger.answered(noted, f"status {response.status}")
            if response.status not in EXPECTED or response.status in (202, 204):
                self.ledger.violation(f"{noted.id}: status {response.status}")
            if response.status in (404, 502):
                self.id = None
        return response

    def _take(self, noted: Request, body: bytes) -> None:
        try:
            reply: Any = json.loads(body)
            assert reply["jsonrpc"] == "2.0" and ("result" in reply) != ("error" in reply)
            found = reply["id"]
        except (AssertionError, KeyError, TypeError, ValueError):
            self.ledger.violation(f"{noted.id}: the body is no message: {body[:300]!r}")
            return
        if found is None:
            message = f"{reply['error']['code']} {reply['error']['message']}"
            self.ledger.answered(noted, f"{message} (id null)")
            if MEMORY_LIMIT in message:  # It may have been to a cancel.
                self._late.add(noted.id)
                self._leave()
        elif found in self._late:
            self.ledger.answered(noted, "late reply for another, behind a failed cancel")
            self._late.add(noted.id)
        elif found != noted.id:
            self.ledger.violation(f"{noted.id}: a reply for another: {body[:300]!r}")
        else:
            self.acts.judge(noted, reply)
