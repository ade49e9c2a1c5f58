"""The HTTP listener and its clients: requests and responses as exact bytes.

The fixtures `http` and `module_http` start listeners on a free port: `http()` returns an
`HttpListener` that admits everything a test can send. `exchange(bytes)` is one connection;
`post` and `delete` compose a request from what every good one holds and what the test says.
"""

from __future__ import annotations

import contextlib
import os
import re
import signal
import socket
import time
from dataclasses import dataclass, replace
from typing import Iterable, Iterator, Mapping

from harness import processes
from harness.listeners import LOOPBACK
from harness.messages import call, request
from harness.servers import Server, Servers
from harness.targets import Environment
from harness.waiting import TIMEOUT, wait_until
from tls_front_end import free_port

TOKEN = "token-of-the-tests-0123456789abcd"
"""33 characters; 32 is the minimum."""

INITIALIZE = b'"method":"initialize"'
"""What makes a body an initialize request."""
INITIALIZE_SPACED = b'"method" : "initialize"'

UNKNOWN_ID = "0" * 64

HANGING_STATEMENT = "list table;"
"""What kova_list_tables asks the engine without a policy file."""


# responses


def response(status: int, reason: str, body: bytes = b"", header: str = "") -> bytes:
    """A whole response; `header` is an additional header line with its line end."""
    head = (f"HTTP/1.1 {status} {reason}\r\n"
            "Content-Type: application/json\r\n"
            f"Content-Length: {len(body)}\r\n"
            "Cache-Control: no-store\r\n"
            "Connection: close\r\n"
            f"{header}\r\n")
    return head.encode() + body


def _error(status: int, reason: str, message: str, header: str = "") -> bytes:
    return response(status, reason, f'{{"error":"{message}"}}'.encode(), header)


RATE_EXCEEDED = _error(429, "Too Many Requests", "rate limit exceeded", "Retry-After: 60\r\n")
UNBOUNDED = _error(413, "Payload Too Large", "bounded Content-Length required")
UNKNOWN_PATH = _error(404, "Not Found", "POST or DELETE /mcp required")
NO_TOKEN = _error(503, "Unavailable", "HTTP bearer token is not configured")
UNAUTHORIZED = _error(401, "Unauthorized", "authentication failed", "WWW-Authenticate: Bearer\r\n")
HOST_REFUSED = _error(403, "Forbidden", "host is not allowed")
ORIGIN_REFUSED = _error(403, "Forbidden", "origin is not allowed")
NOT_FORWARDED = _error(426, "Upgrade Required", "TLS proxy forwarding is required")
NO_SUCH_SESSION = _error(404, "Not Found", "session not found")
SESSION_REUSED = _error(400, "Bad Request", "initialize must not reuse a session")
SESSION_REQUIRED = _error(400, "Bad Request", "valid MCP session required")
SESSION_UNKNOWN = _error(404, "Not Found", "valid MCP session required")
SESSION_FAILED = _error(502, "Bad Gateway", "MCP session failed")
RESPONSE_FAILED = _error(502, "Bad Gateway", "MCP response failed")
CLOSED = response(204, "No Content")


def ok_response(session: str, reply: bytes) -> bytes:
    """The response that relays a reply line."""
    return response(200, "OK", reply.removesuffix(b"\n"), f"Mcp-Session-Id: {session}\r\n")


def accepted(session: str) -> bytes:
    return response(202, "Accepted", header=f"Mcp-Session-Id: {session}\r\n")


# requests


@dataclass(frozen=True)
class Request:
    """A request with exactly these parts. A header whose value is None is left out."""

    first_line: bytes
    headers: Mapping[str, "str | bytes | None"]
    body: bytes = b""
    more_headers: Iterable[bytes] = ()  # whole lines without their line end

    def with_headers(self, headers: Mapping[str, "str | bytes | None"]) -> "Request":
        return replace(self, headers={**self.headers, **headers})

    def data(self) -> bytes:
        lines = [self.first_line]
        lines += [b"%s: %s" % (name.encode(), _bytes(value))
                  for name, value in self.headers.items() if value is not None]
        lines += self.more_headers
        return b"".join(line + b"\r\n" for line in lines) + b"\r\n" + self.body


def _bytes(text: "str | bytes") -> bytes:
    return text.encode() if isinstance(text, str) else text


class Client:
    """One connection."""

    def __init__(self, port: int) -> None:
        self.socket = socket.create_connection((LOOPBACK, port), TIMEOUT)

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, *_: object) -> None:
        self.socket.close()

    def send(self, data: bytes) -> None:
        """Sends the data. The other side may respond and close before it has read all of it."""
        with contextlib.suppress(ConnectionError):
            self.socket.sendall(data)

    def end_sending(self) -> None:
        with contextlib.suppress(OSError):
            self.socket.shutdown(socket.SHUT_WR)

    def read_to_end(self) -> bytes:
        """Everything until the other side closes. A reset after the response counts as its end."""
        received = bytearray()
        with contextlib.suppress(ConnectionError):
            while chunk := self.socket.recv(1 << 16):
                received += chunk
        return bytes(received)

    def reset(self) -> None:
        """Closes with a reset, as a client does that crashes."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        self.socket.close()


# the listener


@dataclass
class HttpListener:
    """A running listener."""

    server: Server
    port: int
    port_text: str
    token: str = TOKEN

    def connect(self) -> Client:
        return Client(self.port)

    def exchange(self, data: bytes, *, ended: bool = False) -> bytes:
        """Sends a request over a new connection and returns everything that comes back."""
        with self.connect() as client:
            client.send(data)
            if ended:
                client.end_sending()
            return client.read_to_end()

    def compose(self, body: bytes = b"", session: str | None = None, *, method: str = "POST",
                headers: "Mapping[str, str | bytes | None] | None" = None,
                more_headers: Iterable[bytes] = ()) -> Request:
        """A good request, with these headers changed."""
        good = {"Host": f"{LOOPBACK}:{self.port_text[:7]}",
                "Authorization": f"Bearer {self.token}", "X-Forwarded-Proto": "https",
                "Content-Length": str(len(body)), "Mcp-Session-Id": session}
        return Request(f"{method} /mcp HTTP/1.1".encode(), {**good, **(headers or {})}, body,
                       tuple(more_headers))

    def post(self, body: bytes = b"", session: str | None = None, **rest: object) -> bytes:
        return self.exchange(self.compose(body, session, **rest).data())  # type: ignore

    def post_message(self, message: bytes, session: str | None = None) -> bytes:
        """Posts a message without its line feed."""
        return self.post(message.removesuffix(b"\n"), session)

    def delete(self, session: str | None = None, **rest: object) -> bytes:
        composed = self.compose(b"", session, method="DELETE", **rest)  # type: ignore
        return self.exchange(composed.data())

    def open_session(self, body: bytes = request("initialize", "init", {})) -> str:
        """Starts a session and returns its id."""
        return self.session_of(self.post_message(body))

    @staticmethod
    def session_of(got: bytes) -> str:
        """The id in the response to an initialize request."""
        head = got.partition(b"\r\n\r\n")[0]
        found = re.search(rb"\r\nMcp-Session-Id: ([0-9a-f]{64})$", head)
        assert found and head.startswith((b"HTTP/1.1 200 OK\r\n", b"HTTP/1.1 202 ")), got
        return found[1].decode()

    def children(self) -> list[int]:
        """The processes that the listener and its sessions have started."""
        return [pid for pid in self.server.processes() if pid != self.server.process.pid]

    def session_processes(self) -> list[int]:
        workers = self.server.workers()
        return [pid for pid in self.children() if pid not in workers]

    def end_process(self, pid: int) -> None:
        """Kills a session's process and waits until the listener can see its end."""
        os.kill(pid, signal.SIGKILL)
        wait_until(lambda: processes.has_closed_everything(pid), TIMEOUT, "the end of a session")

    def stop(self) -> None:
        """Asks the listener to end; its sessions end with it."""
        self.server.process.terminate()
        self.server.wait()
        self.server.expect_no_process(TIMEOUT)

    def wait_for_no_child(self) -> None:
        wait_until(lambda: self.children() == [], TIMEOUT, "the end of every session and worker")

    def hanging_call(self, session: str, request_id: "str | int" = "hang") -> Client:
        """A client that has sent a call. With the script for it, the call hangs in the engine."""
        client = self.connect()
        client.send(self.compose(call(request_id, "kova_list_tables")[:-1], session).data())
        return client


class HttpListeners:
    """Starts listeners. Ends them at the end of the scope and checks that no process is left."""

    def __init__(self, servers: Servers) -> None:
        self._servers = servers
        self._started: list[HttpListener] = []

    def __call__(self, env: Environment | None = None, *, port_text: str = "%d",
                 **rest: object) -> HttpListener:
        """"%d" in `port_text` stands for a free port. None in `env` leaves a default out."""
        settings = {"KOVA_MCP_HTTP_BEARER_TOKEN": TOKEN,
                    "KOVA_MCP_HTTP_RATE_PER_MINUTE": "1000000", **(env or {})}
        for port in free_ports():
            text = port_text.replace("%d", str(port))
            server = self._servers.start("--http", text, env=settings, **rest)  # type: ignore
            if not _listens(server):
                time.sleep(0.1)
                continue  # another process has taken the port
            made = HttpListener(server, port if "%d" in port_text else int(port_text), text)
            self._started.append(made)
            return made
        raise AssertionError("no free port")

    def close(self) -> None:
        for listener in self._started:
            listener.server.process.terminate()
        for listener in self._started:
            listener.server.kill_unless_ended()
        for listener in self._started:
            listener.server.expect_no_process()
            assert b"Sanitizer" not in listener.server.stderr, listener.server.stderr


def free_ports() -> Iterator[int]:
    for _ in range(8):
        yield free_port()


def _listens(server: Server) -> bool:
    end = time.monotonic() + TIMEOUT
    while server.process.poll() is None:
        if b"(TLS termination required)" in server.stderr:
            return True
        assert time.monotonic() < end, f"the listener says nothing but {server.stderr!r}"
        time.sleep(0.005)
    assert (server.process.returncode, server.stderr) == (2, b"")
    return False
