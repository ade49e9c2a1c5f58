"""The running server and the empty program, called and timed from outside."""

from __future__ import annotations

import json
import os
import subprocess
import time
from pathlib import Path

READ_SIZE = 1 << 16


class Program:
    """A program that answers a line with a line."""

    def __init__(self, *arguments: "str | Path") -> None:
        self.process = subprocess.Popen(arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        assert self.process.stdin is not None and self.process.stdout is not None
        self.input = self.process.stdin.fileno()
        self._output = self.process.stdout.fileno()

    def exchange(self, request: bytes) -> bytes:
        os.write(self.input, request)
        reply = b""
        while not reply.endswith(b"\n"):
            got = os.read(self._output, READ_SIZE)
            if not got:
                raise RuntimeError("the program has ended")
            reply += got
        return reply

    def close(self) -> None:
        self.process.communicate()


class Server(Program):
    """A stdio server after its handshake."""

    def __init__(self, executable: Path) -> None:
        super().__init__(executable)
        self.exchange(message("initialize", {}))

    def call(self, request: bytes) -> float:
        """Microseconds from the request to its reply."""
        began = time.perf_counter_ns()
        reply = self.exchange(request)
        took = (time.perf_counter_ns() - began) / 1000
        if b'"isError":false' not in reply:
            raise RuntimeError(f"the call has failed: {reply!r}")
        return took


class Floor(Program):
    """Starts the empty program for each line (floor_on_demand.cpp)."""

    def call(self, request: bytes) -> float:
        """Microseconds from before the empty program's start to after its end."""
        return float(self.exchange(request))


def message(method: str, params: "dict[str, object]") -> bytes:
    return json.dumps({"jsonrpc": "2.0", "id": 1, "method": method, "params": params}).encode(
        ) + b"\n"


def tool_call(name: str, arguments: "dict[str, object]") -> bytes:
    return message("tools/call", {"name": name, "arguments": arguments})
