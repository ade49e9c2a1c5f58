"""A client's connection: HTTP/1.1 over TLS, kept open between requests while HAProxy keeps it."""

from __future__ import annotations

import asyncio
import contextlib
import ssl
import time
from dataclasses import dataclass

KEPT_SECONDS = 6.0
"""HAProxy closes a connection after ten seconds without a request ("timeout http-request"). One
that is reused sooner than that does not meet its end."""

RESPONSE_LIMIT = 60.0
"""Seconds after which a response counts as lost."""


@dataclass
class Target:
    """Where the requests go."""

    port: int
    token: str
    context: ssl.SSLContext


@dataclass
class Response:
    status: int
    session: str
    body: bytes


class Lost(Exception):
    """A request that has got no whole response."""


class Connection:
    """One request at a time."""

    def __init__(self, target: Target) -> None:
        self._target = target
        self._streams: "tuple[asyncio.StreamReader, asyncio.StreamWriter] | None" = None
        self._used = 0.0

    async def ask(self, body: bytes, session: str = "", method: str = "POST") -> Response:
        """Raises Lost when the connection fails or no response comes in time."""
        try:
            return await asyncio.wait_for(self._ask(body, session, method), RESPONSE_LIMIT)
        except (OSError, EOFError, ValueError, TimeoutError, asyncio.TimeoutError) as failure:
            self.close()
            raise Lost(repr(failure)) from failure

    async def _ask(self, body: bytes, session: str, method: str) -> Response:
        if time.monotonic() - self._used > KEPT_SECONDS:
            self.close()
        if self._streams is None:
            self._streams = await asyncio.open_connection(
                "127.0.0.1", self._target.port, ssl=self._target.context,
                server_hostname="localhost")
        reader, writer = self._streams
        named = f"Mcp-Session-Id: {session}\r\n" if session else ""
        writer.write((f"{method} /mcp HTTP/1.1\r\nHost: localhost\r\n"
                      f"Authorization: Bearer {self._target.token}\r\n"
                      f"Content-Type: application/json\r\n{named}"
                      f"Content-Length: {len(body)}\r\n\r\n").encode() + body)
        response = await self._read(reader)
        self._used = time.monotonic()
        return response

    async def _read(self, reader: asyncio.StreamReader) -> Response:
        head = (await reader.readuntil(b"\r\n\r\n")).decode("latin-1").split("\r\n")
        fields = {name.lower(): value.strip() for name, _, value in
                  (line.partition(":") for line in head[1:] if line)}
        status = int(head[0].split(" ")[1])
        length = 0 if status == 204 else int(fields["content-length"])
        body = await reader.readexactly(length)
        if fields.get("connection", "").lower() == "close":
            self.close()
        return Response(status, fields.get("mcp-session-id", ""), body)

    def close(self) -> None:
        if self._streams is not None:
            with contextlib.suppress(OSError, RuntimeError):
                self._streams[1].close()
            self._streams = None
