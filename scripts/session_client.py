"""A plain MCP client: one line a message, over the standard streams of the real executable."""

from __future__ import annotations

import json
import queue
import subprocess
import threading
import time
from dataclasses import dataclass
from typing import Any

REPLY_TIMEOUT = 60.0


class SessionFailure(Exception):
    """What happened is not what the session is there to show. Its text is one line."""


@dataclass(frozen=True)
class Exchange:
    reply: dict[str, Any]
    seconds: float  # from the first byte sent to the line received


class Client:
    """Speaks to a started server; its standard streams are pipes."""

    def __init__(self, process: "subprocess.Popen[bytes]") -> None:
        self.process = process
        self.diagnostics = b""
        self._replies: queue.Queue[tuple[float, bytes] | None] = queue.Queue()
        self._last_id = 0
        self._readers = [threading.Thread(target=reader, daemon=True)
                         for reader in (self._read_replies, self._read_diagnostics)]
        for reader in self._readers:
            reader.start()

    def _read_replies(self) -> None:
        assert self.process.stdout is not None
        for line in self.process.stdout:
            self._replies.put((time.monotonic(), line))
        self._replies.put(None)

    def _read_diagnostics(self) -> None:
        assert self.process.stderr is not None
        for line in self.process.stderr:
            self.diagnostics += line

    def request(self, method: str, params: "dict[str, Any] | None" = None) -> dict[str, Any]:
        """The message of a request, with the next id; `send` sends it."""
        self._last_id += 1
        message: dict[str, Any] = {"jsonrpc": "2.0", "id": self._last_id, "method": method}
        if params is not None:
            message["params"] = params
        return message

    @staticmethod
    def notification(method: str, params: "dict[str, Any] | None" = None) -> dict[str, Any]:
        message: dict[str, Any] = {"jsonrpc": "2.0", "method": method}
        if params is not None:
            message["params"] = params
        return message

    def send(self, message: dict[str, Any]) -> float:
        """Answers the time at which the sending began."""
        assert self.process.stdin is not None
        began = time.monotonic()
        data = json.dumps(message, ensure_ascii=False, separators=(",", ":")).encode() + b"\n"
        try:
            self.process.stdin.write(data)
            self.process.stdin.flush()
        except BrokenPipeError:
            raise SessionFailure(f"the server has ended: {self.last_words()}") from None
        return began

    def receive(self, sent: float) -> Exchange:
        try:
            received = self._replies.get(timeout=REPLY_TIMEOUT)
        except queue.Empty:
            raise SessionFailure(f"no reply within {REPLY_TIMEOUT:.0f} s") from None
        if received is None:
            raise SessionFailure(f"the server has ended: {self.last_words()}")
        at, line = received
        return Exchange(json.loads(line), at - sent)

    def ended_within(self, seconds: float) -> bool:
        """Waits while the server works; true when it has replied or ended before the time."""
        try:
            received = self._replies.get(timeout=seconds)
        except queue.Empty:
            return False
        self._replies.put(received)
        return True

    def close(self) -> int:
        """Ends the server's input, which ends the server; its exit code."""
        assert self.process.stdin is not None
        self.process.stdin.close()
        code = self.process.wait(REPLY_TIMEOUT)
        for reader in self._readers:
            reader.join(REPLY_TIMEOUT)
        return code

    def last_words(self) -> str:
        lines = self.diagnostics.decode(errors="replace").splitlines()
        return lines[-1] if lines else "it said nothing"
