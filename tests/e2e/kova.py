"""The server under test, as a client sees it, for both targets.

How a test is written
---------------------
* `--target linux|windows` picks the executable; the same test runs for both. A path that the server
  is given is a `pathlib.Path`: in an environment or in a policy it is turned into the target's own
  form (`target.path(p)`), under Wine `Z:\\tmp\\...`.
* `run(*args, stdin=b"", env={})` runs the executable to its end and answers a `Result` (`stdout`,
  `stderr`, `code`, `lines`).
* `start(*args, env={})` starts it and answers a `Server`: `send(message)` (bytes are sent as they
  are, a dictionary becomes one line), `read_line()`, `read_reply()` (parsed), `expect_silence()`,
  `close_input()`, `wait()`. At the end of the test every server has ended, and no process that it
  started is left.
* Neither sees a `KOVA_*` variable but those in `env`. `library=` picks what lies beside the
  executable: "scripted" (default), "incomplete" (one operation is missing), "broken" (no library
  at all, a text file of its name) or None.
* `engine` is a scripted client library with a listener for the reachability probe: `engine.env` is
  the profile to pass on, `engine.script(Script()...)` says what the library answers from the next
  process on, `engine.calls()`, `engine.statements()` and `engine.wait_for_statement(text)` say what
  it was asked.
* `policy(**overrides)` (module policy_files) writes a policy file and answers the environment that
  goes with it.
* Module listeners: `Listener` (accepts and counts), `refused_port`, `silent_port`.
"""

from __future__ import annotations

import fcntl
import json
import os
import queue
import shutil
import subprocess
import threading
import time
import uuid
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Iterable, Mapping, Sequence

TIMEOUT = 20.0
"""Seconds after which an answer that has not come is a failure, not a slow machine."""

MARKER = "E2E_SERVER"
"""The environment variable by which a server's descendants are told from everyone else's."""

WINE = "/usr/lib/wine/wine64"

Environment = Mapping[str, "str | Path | None"]


class Target:
    """One of the two executables and how to run it."""

    def __init__(self, name: str, build: Path, prefix: Path) -> None:
        self.name = name
        self.build = build
        self.prefix = prefix
        self.windows = name == "windows"
        self.executable = build / ("kova-mcp.exe" if self.windows else "kova-mcp")
        self.library_name = "kovadll.dll" if self.windows else "libkovadll.so"
        self.line_end = b"\r\n" if self.windows else b"\n"  # of standard error
        self._keeper: subprocess.Popen[bytes] | None = None

    def path(self, path: Path) -> str:
        """The path as the target writes it."""
        text = str(path)
        return "Z:" + text.replace("/", "\\") if self.windows else text

    def command(self, executable: Path, arguments: Sequence[str]) -> list[str]:
        return ([WINE] if self.windows else []) + [str(executable), *arguments]

    def environment(self, extra: Environment) -> dict[str, str]:
        """A minimal environment and the variables of the test; None leaves one out."""
        env = {"PATH": "/usr/bin:/bin", "HOME": str(self.build), "LC_ALL": "C.UTF-8"}
        if self.windows:
            env |= {"WINEPREFIX": str(self.prefix), "WINEDEBUG": "-all"}
        for name, value in extra.items():
            if value is not None:
                env[name] = self.path(value) if isinstance(value, Path) else value
        return env

    def prepare(self) -> None:
        """Makes the Wine prefix once, and keeps Wine's own servers up for the session."""
        if not self.windows:
            return
        self.prefix.parent.mkdir(parents=True, exist_ok=True)
        env = self.environment({})
        quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        with open(f"{self.prefix}.lock", "w", encoding="ascii") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            if not (self.prefix / "system.reg").exists():
                subprocess.run([WINE, "wineboot", "-i"], env=env, check=True, timeout=300, **quiet)
            # Wine's own servers keep the streams of the process that starts them.
            subprocess.run([WINE, "cmd", "/c", "exit"], env=env, check=True, timeout=300, **quiet)
            self._keeper = subprocess.Popen([WINE, "cmd"], env=env, stdin=subprocess.PIPE, **quiet)

    def release(self) -> None:
        if self._keeper is not None and self._keeper.stdin is not None:
            self._keeper.stdin.close()
            self._keeper.wait(timeout=TIMEOUT)


class Installation:
    """Folders that each hold the executable and, beside it, one kind of client library."""

    def __init__(self, target: Target, root: Path) -> None:
        self.target = target
        self.root = root

    def executable(self, library: str | None = None, folder: Path | None = None) -> Path:
        folder = folder or self.root / (library or "none")
        executable = folder / self.target.executable.name
        if not executable.exists():
            folder.mkdir(parents=True, exist_ok=True)
            self._add_library(folder / self.target.library_name, library)
            shutil.copy2(self.target.executable, executable)
        return executable

    def _add_library(self, path: Path, library: str | None) -> None:
        support = self.target.build / "tests" / "support"
        if library == "scripted":
            shutil.copy2(support / self.target.library_name, path)
        elif library == "incomplete":
            shutil.copy2(support / "incomplete" / self.target.library_name, path)
        elif library == "broken":
            path.write_text("no library\n", encoding="ascii")
        elif library is not None:
            raise ValueError(library)


@dataclass
class Result:
    """What a finished process has left."""

    stdout: bytes
    stderr: bytes
    code: int

    @property
    def lines(self) -> list[bytes]:
        """The reply lines, without their line feeds; an unfinished last line is a failure."""
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
            for line in whole:
                self.lines.put(bytes(line) + b"\n")
        if self.lines is not None:
            if rest:
                self.lines.put(bytes(rest))
            self.lines.put(None)


class Server:
    """A running executable with pipes on its three streams."""

    def __init__(self, target: Target, executable: Path, arguments: Sequence[str],
                 env: Environment, cwd: Path | None = None, pass_fds: Sequence[int] = (),
                 unread: Sequence[str] = ()) -> None:
        self.target = target
        self.marker = uuid.uuid4().hex
        nobody = _pipe_without_reader() if unread else None
        self.process = subprocess.Popen(
            target.command(executable, arguments),
            env=target.environment({**env, MARKER: self.marker}), cwd=cwd, pass_fds=pass_fds,
            stdin=subprocess.PIPE, bufsize=0,
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

    def expect_end(self) -> None:
        """Standard output ends without a further line."""
        got = self._lines.get(timeout=TIMEOUT)
        assert got is None, f"unexpected output: {got!r}"

    @property
    def stderr(self) -> bytes:
        return bytes(self._err.data)

    def stderr_lines(self) -> list[str]:
        """Whole lines of standard error, whose ends must be the target's."""
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
        """The exit code, of which Wine hands the lowest eight bits on."""
        code = self.process.wait(timeout)
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
        self.process.wait(TIMEOUT)

    def processes(self) -> list[int]:
        """The processes of this executable that this server is or has started."""
        wanted = f"{MARKER}={self.marker}".encode()
        found = []
        for entry in os.scandir("/proc"):
            if entry.name.isdigit() and wanted in _read(f"/proc/{entry.name}/environ").split(b"\0"):
                if b"kova-mcp" in _read(f"/proc/{entry.name}/cmdline"):
                    found.append(int(entry.name))
        return sorted(found)

    def workers(self) -> list[int]:
        return [pid for pid in self.processes()
                if b"--tool-worker" in _read(f"/proc/{pid}/cmdline")]

    def zombies(self) -> list[int]:
        """Children that have ended and that nobody has collected (on Linux)."""
        found = []
        for entry in os.scandir("/proc"):
            stat = _read(f"/proc/{entry.name}/stat") if entry.name.isdigit() else b""
            state, _, rest = stat.rpartition(b")")[2].strip().partition(b" ")
            if state == b"Z" and rest.split(b" ")[0] == str(self.process.pid).encode():
                found.append(int(entry.name))
        return found

    def close(self) -> None:
        """The end of a test: nothing may be left, whatever the test did."""
        if self.process.stdin is not None and not self.process.stdin.closed:
            self.process.stdin.close()
        try:
            self.process.wait(5)
            left_running = False
        except subprocess.TimeoutExpired:
            left_running = True
        if not left_running:
            self.expect_no_process()
        self.kill()
        self._join()
        for pipe in (self.process.stdout, self.process.stderr):
            if pipe is not None:
                pipe.close()
        assert not left_running, f"the server did not end with its input; stderr: {self.stderr!r}"

    def expect_no_process(self, timeout: float = 3.0) -> None:
        wait_until(lambda: not self.processes(), timeout, "the end of the server's processes")


class Servers:
    """Starts servers and closes all of them at the end of their scope."""

    def __init__(self, target: Target, installation: Installation, scratch: Path) -> None:
        self.target = target
        self.installation = installation
        self.scratch = scratch
        self._started: list[Server] = []

    def start(self, *arguments: str, env: Environment | None = None,
              library: str | None = "scripted", cwd: Path | None = None,
              pass_fds: Sequence[int] = (), unread: Sequence[str] = ()) -> Server:
        """`unread` names output streams that are pipes without a reader."""
        server = Server(self.target, self.installation.executable(library), arguments, env or {},
                        cwd or self.scratch, pass_fds, unread)
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


# the messages that a client sends, and the replies that it expects


def line(message: Any) -> bytes:
    """One message in its shortest spelling."""
    return json.dumps(message, separators=(",", ":"), ensure_ascii=False).encode() + b"\n"


def request(method: str, request_id: Any, params: Any = None) -> bytes:
    message = {"jsonrpc": "2.0", "id": request_id, "method": method}
    return line(message if params is None else {**message, "params": params})


def notification(method: str, params: Any = None) -> bytes:
    message = {"jsonrpc": "2.0", "method": method}
    return line(message if params is None else {**message, "params": params})


def call(request_id: Any, tool: str, arguments: Any = None) -> bytes:
    params = {"name": tool} if arguments is None else {"name": tool, "arguments": arguments}
    return request("tools/call", request_id, params)


def cancel(request_id: Any) -> bytes:
    return notification("notifications/cancelled", {"requestId": request_id})


def error_reply(raw_id: str, code: int, message: str) -> bytes:
    """`raw_id` is the id's JSON text."""
    return (f'{{"jsonrpc":"2.0","id":{raw_id},"error":{{"code":{code},"message":"{message}"}}}}\n'
            ).encode()


def result_reply(raw_id: str, result: str) -> bytes:
    return f'{{"jsonrpc":"2.0","id":{raw_id},"result":{result}}}\n'.encode()


def tool_error_reply(raw_id: str, message: str) -> bytes:
    content = f'{{"content":[{{"type":"text","text":"{message}"}}],"isError":true}}'
    return result_reply(raw_id, content)


def tool_success_reply(raw_id: str, result: str) -> bytes:
    """`result` is the result's JSON text, carried as text and as it is."""
    text = json.dumps(result, ensure_ascii=False)
    return result_reply(raw_id, f'{{"content":[{{"type":"text","text":{text}}}],'
                                f'"structuredContent":{result},"isError":false}}')


def cancelled_reply(raw_id: str) -> bytes:
    return result_reply(raw_id, '{"content":[{"type":"text","text":"request cancelled"}],'
                                '"structuredContent":{"cancelled":true},"isError":true}')


PARSE_ERROR = error_reply("null", -32700, "invalid, duplicate, deep, or oversized JSON message")
OVERSIZE_ERROR = error_reply("null", -32700, "MCP message exceeds 1048576 bytes")
WORKER_FAILED = error_reply("null", -32603, "isolated MCP tool worker failed")
BUSY = "another MCP database tool is still active"
NOT_INITIALIZED = "server is not initialized"


def ping(request_id: Any) -> bytes:
    return request("ping", request_id)


def pong(raw_id: Any) -> bytes:
    return result_reply(str(raw_id), "{}")


def not_initialized(raw_id: Any) -> bytes:
    return error_reply(str(raw_id), -32002, NOT_INITIALIZED)


def busy(raw_id: Any) -> bytes:
    return error_reply(str(raw_id), -32000, BUSY)


# small helpers


def wait_until(condition: Any, timeout: float, what: str) -> None:
    end = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < end, f"waited {timeout} s for {what}"
        time.sleep(0.01)


def _pipe_without_reader() -> int:
    reader, writer = os.pipe()
    os.close(reader)
    return writer


def _read(path: str) -> bytes:
    try:
        with open(path, "rb") as file:
            return file.read()
    except OSError:
        return b""


# the scripted client library


def escape_field(text: "str | bytes | None | Repeat") -> str:
    """A field of a script, in the escapes that tests/support/scripted_library/script.h names."""
    if text is None:
        return "\\N"
    if isinstance(text, Repeat):
        return f"\\*{text.count};{escape_field(text.character)}"
    data = text.encode() if isinstance(text, str) else text
    return "".join(chr(b) if 0x20 <= b < 0x7F and b != 0x5C else f"\\x{b:02x}" for b in data)


@dataclass(frozen=True)
class Repeat:
    """A text of one repeated byte, for cells of a given length."""

    count: int
    character: "str | bytes" = "x"


Cell = "str | bytes | None | Repeat"


class Script:
    """What the scripted library answers. Rules are tried in the order in which they are added.

    `Script().on_exec("SELECT", prefix=True, columns=["A"], rows=[["1"], [None]])`
    `Script().on("Next", "3", crash=True)`: the third KOVA_Next of a process
    `Script().on("NewObject", null=True)`

    What a rule may do, in this order: streams, sleep (seconds), stdout, stderr, crash, hang,
    exit_code. What it may answer: null, result, status, columns, fields (a false column count),
    rows, repeat (a list of (count, cells)). `times` limits it to that many calls of one process.
    """

    def __init__(self) -> None:
        self._lines: list[str] = []

    def on_exec(self, statement: "str | bytes | None" = None, *, prefix: bool = False,
                **what: Any) -> "Script":
        return self.on("Exec", statement, prefix=prefix, **what)

    def on(self, operation: str, text: "str | bytes | None" = None, *, prefix: bool = False,
           times: int | None = None, streams: bool = False, sleep: float | None = None,
           stdout: "str | bytes | Repeat | None" = None,
           stderr: "str | bytes | Repeat | None" = None,
           crash: bool = False, hang: bool = False, exit_code: int | None = None,
           null: bool = False, result: int | None = None, status: Any = "OK",
           columns: Iterable[Any] = (), fields: int | None = None,
           rows: Iterable[Iterable[Any]] = (),
           repeat: Iterable[tuple[int, Iterable[Any]]] = ()) -> "Script":
        if text is None:
            self._add("rule", operation, "any")
        else:
            self._add("rule", operation, "prefix" if prefix else "exact", escape_field(text))
        if times is not None:
            self._add("times", str(times))
        if streams:
            self._add("streams")
        if sleep is not None:
            self._add("sleep", str(round(sleep * 1000)))
        for name, value in (("stdout", stdout), ("stderr", stderr)):
            if value is not None:
                self._add(name, escape_field(value))
        for name, wanted in (("crash", crash), ("hang", hang), ("null", null)):
            if wanted:
                self._add(name)
        if exit_code is not None:
            self._add("exit", str(exit_code))
        if result is not None:
            self._add("result", str(result))
        self._add("status", escape_field(status))
        for column in columns:
            self._add("column", escape_field(column))
        if fields is not None:
            self._add("fields", str(fields))
        for row in rows:
            self._add("row", *map(escape_field, row))
        for count, row in repeat:
            self._add("repeat", str(count), *map(escape_field, row))
        return self

    def _add(self, *parts: str) -> None:
        self._lines.append("\t".join(parts))

    def text(self) -> str:
        return "\n".join(self._lines) + "\n"


@dataclass(frozen=True)
class Call:
    """One call that the library has seen: the name behind "KOVA_" and the arguments as bytes."""

    pid: int
    operation: str
    arguments: tuple[bytes, ...]


def _unescape(text: str) -> bytes:
    return text.encode("latin-1").decode("unicode_escape").encode("latin-1")


@dataclass
class ScriptedLibrary:
    """The script and the log of the scripted library, for every process that is given `env`."""

    folder: Path
    profile: dict[str, str] = field(default_factory=dict)

    def __post_init__(self) -> None:
        self.script(Script())

    @property
    def _log(self) -> Path:
        return self.folder / "library.log"

    @property
    def env(self) -> dict[str, "str | Path | None"]:
        return {**self.profile, "SCRIPTED_LIBRARY_SCRIPT": self.folder / "library.script",
                "SCRIPTED_LIBRARY_LOG": self._log}

    def script(self, script: Script) -> None:
        """Takes effect in the next process: each reads the script at its first call."""
        (self.folder / "library.script").write_text(script.text(), encoding="ascii", newline="")

    def calls(self) -> list[Call]:
        text = self._log.read_text("ascii") if self._log.exists() else ""
        found = []
        for entry in text.split("\n")[:-1]:
            pid, operation, *arguments = entry.split("\t")
            found.append(Call(int(pid), operation, tuple(map(_unescape, arguments))))
        return found

    def operations(self) -> list[str]:
        return [entry.operation for entry in self.calls()]

    def statements(self) -> list[bytes]:
        """Every statement that was run, the session's own "use" and "login" included."""
        return [entry.arguments[1] for entry in self.calls() if entry.operation == "Exec"]

    def queries(self) -> list[bytes]:
        """The statements without the session's own."""
        return [statement for statement in self.statements()
                if not statement.startswith((b"use ", b"login "))]

    def wait_for_statement(self, statement: str, count: int = 1) -> None:
        """Waits until the statement has reached the library."""
        wanted = statement.encode()
        wait_until(lambda: self.statements().count(wanted) >= count, TIMEOUT,
                   f"{statement!r} at the library")

    def wait_for(self, operation: str, count: int = 1) -> None:
        """Waits until the operation has been called."""
        wait_until(lambda: self.operations().count(operation) >= count, TIMEOUT,
                   f"KOVA_{operation} at the library")

    def clear(self) -> None:
        """Forgets the calls so far. No process may have the log open."""
        self._log.unlink(missing_ok=True)
