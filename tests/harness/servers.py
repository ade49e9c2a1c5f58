"""Starts servers and speaks MCP with them over their standard streams."""

from __future__ import annotations

import contextlib
import fcntl
import json
import os
import queue
import signal
import subprocess
import sys
import termios
import threading
import time
import uuid
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Callable, Mapping, Sequence

import wine
from harness import processes
from harness.messages import line, request
from harness.targets import Environment, Installation, Target
from harness.waiting import TIMEOUT, wait_for_end, wait_until

END_TIMEOUT = 5.0
"""Seconds in which a server must end after its input has ended."""


@dataclass
class Result:
    """What a finished process has left."""

    stdout: bytes
    stderr: bytes
    code: int

    @property
    def lines(self) -> list[bytes]:
        """The reply lines without their line feeds. Fails when the last line is incomplete."""
        assert self.stdout == b"" or self.stdout.endswith(b"\n"), self.stdout[-200:]
        return self.stdout.split(b"\n")[:-1]

    @property
    def replies(self) -> list[Any]:
        return [json.loads(line) for line in self.lines]


class _Collector(threading.Thread):
    """Drains a pipe, so that the server never waits for the test."""

    def __init__(self, pipe: Any, lines: "queue.Queue[bytes | None] | None") -> None:
        super().__init__(daemon=True)
        self.pipe = pipe
        self.lines = lines
        self.data = bytearray()
        self.start()

    def run(self) -> None:
        rest = bytearray()
        while chunk := os.read(self.pipe.fileno(), 1 << 16) if self.pipe else b"":
            self.data += chunk
            if self.lines is None:
                continue
            rest += chunk
            *whole, rest = rest.split(b"\n")
            for text in whole:
                self.lines.put(bytes(text) + b"\n")
        if self.lines is not None:
            if rest:
                self.lines.put(bytes(rest))
            self.lines.put(None)


class Server:
    """A running executable with pipes on its three streams."""

    def __init__(self, target: Target, executable: Path, arguments: Sequence[str],
                 env: Environment, cwd: Path | None = None, pass_fds: Sequence[int] = (),
                 unread: Sequence[str] = (), prepare: Callable[[], None] | None = None) -> None:
        self.target = target
        self.marker = uuid.uuid4().hex
        nobody = _pipe_without_reader() if unread else None
        self.process = subprocess.Popen(
            target.command(executable, arguments),
            env=target.environment({**env, processes.MARKER: self.marker}), cwd=cwd,
            pass_fds=pass_fds, preexec_fn=prepare, stdin=subprocess.PIPE, bufsize=0,
            stdout=nobody if "stdout" in unread else subprocess.PIPE,
            stderr=nobody if "stderr" in unread else subprocess.PIPE)
        if nobody is not None:
            os.close(nobody)
        self._lines: queue.Queue[bytes | None] = queue.Queue()
        self._out = _Collector(self.process.stdout, self._lines)
        self._err = _Collector(self.process.stderr, None)

    # what the client sends

    def send(self, message: "bytes | Mapping[str, Any]") -> None:
        data = message if isinstance(message, bytes) else line(message)
        assert self.process.stdin is not None
        while data:
            data = data[os.write(self.process.stdin.fileno(), data):]

    def has_read_its_input(self) -> bool:
        """Whether the server has taken everything that was sent out of its pipe."""
        assert self.process.stdin is not None
        unread = fcntl.ioctl(self.process.stdin.fileno(), termios.FIONREAD, bytes(4))
        return int.from_bytes(unread, sys.byteorder) == 0

    def close_input(self) -> None:
        assert self.process.stdin is not None
        self.process.stdin.close()

    # what it gets

    def read_line(self, timeout: float = TIMEOUT) -> bytes:
        """The next line with its line feed. Fails when none comes."""
        try:
            got = self._lines.get(timeout=timeout)
        except queue.Empty:
            raise AssertionError(f"no reply within {timeout} s; stderr: {self.stderr!r}") from None
        assert got is not None, f"standard output ended; stderr: {self.stderr!r}"
        return got

    def read_reply(self, timeout: float = TIMEOUT) -> Any:
        got = self.read_line(timeout)
        assert got.endswith(b"\n"), got[-200:]
        return json.loads(got)

    def ask(self, message: "bytes | Mapping[str, Any]", timeout: float = TIMEOUT) -> bytes:
        """Sends one message and reads one line."""
        self.send(message)
        return self.read_line(timeout)

    def expect_silence(self, seconds: float = 0.2) -> None:
        try:
            got = self._lines.get(timeout=seconds)
        except queue.Empty:
            return
        raise AssertionError(f"unexpected output: {got!r}")

    def drop_pending(self) -> None:
        """Drops unread lines, so that one failed test does not make the next one fail."""
        with contextlib.suppress(queue.Empty):
            while True:
                self._lines.get_nowait()

    @property
    def stderr(self) -> bytes:
        return bytes(self._err.data)

    def stderr_lines(self) -> list[str]:
        """The complete lines of standard error. Fails when one has not the target's line end."""
        data = self.stderr
        lines = data.split(self.target.line_end)
        assert not any("\r" in text or "\n" in text for text in map(bytes.decode, lines)), data
        return [text.decode() for text in lines[:-1]]

    def wait_for_stderr(self, text: str, timeout: float = TIMEOUT) -> None:
        wait_until(lambda: text.encode() in self.stderr, timeout, f"{text!r} on standard error")

    def initialize(self) -> None:
        reply = json.loads(self.ask(request("initialize", "init", {})))
        assert reply["id"] == "init" and "result" in reply, reply

    # its end

    def wait(self, timeout: float = TIMEOUT) -> int:
        """Waits for the end and returns the exit code. Wine passes its lowest eight bits on."""
        code = wait_for_end(self.process, timeout)
        self._join()
        return code

    def _join(self) -> None:
        self._out.join(TIMEOUT)
        self._err.join(TIMEOUT)

    def finish(self) -> Result:
        """Ends the input and waits for the end of everything."""
        self.close_input()
        code = self.wait()
        return Result(bytes(self._out.data), self.stderr, code)

    def kill(self) -> None:
        self.process.kill()
        wait_for_end(self.process)

    def kill_unless_ended(self) -> None:
        """Gives the process END_TIMEOUT to end of what it was told before."""
        with contextlib.suppress(subprocess.TimeoutExpired):
            wait_for_end(self.process, END_TIMEOUT)
        self.kill()

    def processes(self) -> list[int]:
        """The processes of this executable that this server is or has started.

        A process that Wine's loader has not become yet is left out: when its parent is killed just
        then it stays in the loader, where no job object reaches it.
        """
        found = processes.of_the_server(self.marker)
        if not self.target.windows:
            return found
        loader = wine.loader().encode() + b"\0"
        return [pid for pid in found if not processes.command_line(pid).startswith(loader)]

    def workers(self) -> list[int]:
        return processes.workers(self.processes())

    def zombies(self) -> list[int]:
        """Children that have ended and have not been waited for (Linux)."""
        return processes.zombies(self.process.pid)

    def close(self) -> None:
        """Ends the server at the end of a test. Fails when it does not end or leaves a process."""
        if self.process.stdin is not None and not self.process.stdin.closed:
            self.process.stdin.close()
        try:
            wait_for_end(self.process, END_TIMEOUT)
            left_running = False
        except subprocess.TimeoutExpired:
            left_running = True
        try:
            if not left_running:
                self.expect_no_process()
        finally:
            self._end_everything()
        assert not left_running, f"the server did not end with its input; stderr: {self.stderr!r}"

    def _end_everything(self) -> None:
        self.kill()
        for pid in processes.of_the_server(self.marker):
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        self._join()
        for pipe in (self.process.stdout, self.process.stderr):
            if pipe is not None:
                pipe.close()

    def expect_no_process(self, timeout: float = 3.0) -> None:
        end = time.monotonic() + timeout
        while left := self.processes():
            told = {pid: processes.command_line(pid).replace(b"\0", b" ") for pid in left}
            assert time.monotonic() < end, f"still there after {timeout} s: {told}"
            time.sleep(0.01)


class Servers:
    """Starts servers and closes all of them at the end of their scope."""

    def __init__(self, target: Target, installation: Installation, scratch: Path) -> None:
        self.target = target
        self.installation = installation
        self.scratch = scratch
        self._started: list[Server] = []

    def start(self, *arguments: str, env: Environment | None = None,
              library: str | None = "scripted", cwd: Path | None = None,
              pass_fds: Sequence[int] = (), unread: Sequence[str] = (),
              prepare: Callable[[], None] | None = None) -> Server:
        """`unread` names output streams that are pipes without a reader; `prepare` is called in
        the new process before it becomes the executable."""
        server = Server(self.target, self.installation.executable(library), arguments, env or {},
                        cwd or self.scratch, pass_fds, unread, prepare)
        self._started.append(server)
        return server

    def run(self, *arguments: str, stdin: bytes = b"", env: Environment | None = None,
            library: str | None = "scripted", cwd: Path | None = None) -> Result:
        server = self.start(*arguments, env=env, library=library, cwd=cwd)
        try:
            server.send(stdin)
        except BrokenPipeError:
            pass  # a mode that does not read its input
        return server.finish()

    def close(self) -> None:
        failures = []
        for server in self._started:
            try:
                server.close()
            except AssertionError as failure:
                failures.append(str(failure))
        assert not failures, failures


def _pipe_without_reader() -> int:
    reader, writer = os.pipe()
    os.close(reader)
    return writer
