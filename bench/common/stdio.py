"""A program that is asked over its standard streams: one line to it, one line back."""

from __future__ import annotations

import os
import subprocess
import time
from pathlib import Path
from typing import Mapping, Sequence

from common.messages import INITIALIZE, INITIALIZED

READ_SIZE = 1 << 16
START_LIMIT = 60.0
BUSY = b'"code":-32000'
"""On a busy machine the worker of a call may end after its reply has come."""


class Failed(Exception):
    """A subject has ended or answered with an error. The text is one line."""


class Program:
    """A running program. Its messages to a log go nowhere."""

    def __init__(self, command: Sequence[str], environment: Mapping[str, str] = {}) -> None:
        self.name = Path(command[0]).name
        self.busy_replies = 0
        self._started = time.perf_counter()
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL, bufsize=0,
                                        env={**os.environ, **environment})
        assert self.process.stdin is not None and self.process.stdout is not None
        self._input = self.process.stdin.fileno()
        self._output = self.process.stdout.fileno()

    def exchange(self, line: bytes) -> bytes:
        """The next line of output, without its end. Each of our lines fits into the pipe."""
        os.write(self._input, line)
        got = os.read(self._output, READ_SIZE)
        while not got.endswith(b"\n"):
            more = os.read(self._output, READ_SIZE)
            if not more:
                raise Failed(f"{self.name} has ended")
            got += more
        return got

    def milliseconds(self) -> float:
        """Since the spawn."""
        return (time.perf_counter() - self._started) * 1000

    def initialize(self) -> float:
        """Milliseconds from the spawn to the reply."""
        got = self.exchange(INITIALIZE)
        took = self.milliseconds()
        if b'"result"' not in got:
            raise Failed(f"{self.name}: {got[:200]!r}")
        os.write(self._input, INITIALIZED)
        return took

    def timed(self, line: bytes) -> "tuple[float, bytes]":
        """Microseconds until the reply, and the reply."""
        began = time.perf_counter()
        got = self.exchange(line)
        return (time.perf_counter() - began) * 1e6, got

    def asked(self, line: bytes) -> float:
        """Microseconds until the reply, which has to be a good result."""
        return self.answered(line)[0]

    def answered(self, line: bytes) -> "tuple[float, bytes]":
        """As `timed`, of a good result; a line that comes before the end of the last call is sent
        again."""
        took, got = self.timed(line)
        while BUSY in got:
            self.busy_replies += 1
            more, got = self.timed(line)
            took += more
        if b'"result"' not in got or b'"isError":true' in got:
            raise Failed(f"{self.name}: {got[:200]!r}")
        return took, got

    def close(self) -> None:
        """Ends its input, and the program if that does not do it."""
        assert self.process.stdin is not None and self.process.stdout is not None
        self.process.stdin.close()
        try:
            self.process.wait(START_LIMIT)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()

    def __enter__(self) -> "Program":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()
