"""A small MCP client: one line per message, over the standard streams of a server."""

from __future__ import annotations

import json
import queue
import subprocess
import threading
import time
from dataclasses import dataclass
from typing import Any

from outcome import SessionFailure

REPLY_TIMEOUT = 60.0


@dataclass(frozen=True)
class Exchange:
    """A reply, and the seconds from the request's first byte to the reply's line."""

    reply: dict[str, Any]
    seconds: float


class Client:
    """Speaks to a started server whose standard streams are pipes."""

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
        """Makes a request with the next id; `send` sends it."""
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
        """Returns the time at which sending began."""
        assert self.process.stdin is not None
        began = time.monotonic()
        data = json.dumps(message, ensure_ascii=False, separators=(",", ":")).encode() + b"\n"
        try:
            self.process.stdin.write(data)
            self.process.stdin.flush()
        except BrokenPipeError:
            raise SessionFailure(f"the server has ended: {self.last_diagnostic()}") from None
        return began

    def receive(self, sent: float) -> Exchange:
        """Waits for the next reply. `sent` is the time that `send` returned."""
        try:
            received = self._replies.get(timeout=REPLY_TIMEOUT)
        except queue.Empty:
            raise SessionFailure(f"no reply within {REPLY_TIMEOUT:.0f} s") from None
        if received is None:
            raise SessionFailure(f"the server has ended: {self.last_diagnostic()}")
        at, line = received
        return Exchange(json.loads(line), at - sent)

    def replied_within(self, seconds: float) -> bool:
        """Whether the server replies or ends within the time; `receive` still gets the reply."""
        try:
            received = self._replies.get(timeout=seconds)
        except queue.Empty:
            return False
        self._replies.put(received)
        return True

    def close(self) -> int:
        """Closes the server's input, which ends the server. Returns its exit code."""
        assert self.process.stdin is not None
        self.process.stdin.close()
        code = self.process.wait(REPLY_TIMEOUT)
        for reader in self._readers:
            reader.join(REPLY_TIMEOUT)
        return code

    def last_diagnostic(self) -> str:
        """The last line on the server's standard error."""
        lines = self.diagnostics.decode(errors="replace").splitlines()
        return lines[-1] if lines else "it said nothing"
