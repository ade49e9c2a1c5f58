"""The sample engine as a process, a client for its wire format, and its client program.

The engine runs natively for both targets; what goes through the client library does so with the
library of the target.
"""

from __future__ import annotations

import os
import signal
import socket
import sqlite3
import struct
import subprocess
from contextlib import closing
from dataclasses import dataclass, field
from pathlib import Path

import pytest

from harness.listeners import LOOPBACK
from harness.targets import ROOT, Target
from harness.waiting import TIMEOUT, wait_until

USER = "app"
PASSWORD = "s3cret, \"pass: word'"

HELLO, EXEC, FETCH, RELEASE = 1, 2, 3, 4
WELCOME, OUTCOME, ROWS, REFUSED = 129, 130, 131, 132
MORE, END, FAILED = 0, 1, 2

ENDLESS = "(WITH RECURSIVE C(N) AS (SELECT 1 UNION ALL SELECT N+1 FROM C) SELECT N FROM C)"
"""A subquery with an endless number of rows, for a FROM."""


SHOP = """
CREATE TABLE ITEMS (ID INTEGER PRIMARY KEY, NAME TEXT NOT NULL, PRICE REAL DEFAULT 0, PICTURE BLOB);
CREATE TABLE PARTS (ITEM INTEGER NOT NULL REFERENCES ITEMS (ID), NAME TEXT);
CREATE VIEW CHEAP AS SELECT NAME FROM ITEMS WHERE PRICE < 2;
CREATE INDEX ITEMS_BY_NAME ON ITEMS (NAME);
INSERT INTO ITEMS VALUES (1, 'one', 1.5, NULL), (2, 'zw\u00f6', 2, x'4142'), (3, '', 1e20, '');
"""


ARTICLES = """
CREATE TABLE ARTICLES (ID INTEGER PRIMARY KEY, TITLE TEXT, BODY TEXT, PRICE INTEGER);
CREATE TABLE DRAFTS (NAME TEXT, BODY TEXT);
CREATE VIEW SLOW AS WITH RECURSIVE C(N) AS (SELECT 1 UNION ALL SELECT N+1 FROM C)
  SELECT N AS ID, 'slow' AS TITLE FROM C;
INSERT INTO ARTICLES VALUES (1, 'red car', 'a fast car on the road', 10),
  (2, 'blue boat', 'a boat that sails on the sea', 20), (3, 'green bicycle', 'two wheels', 30),
  (4, 'grey train', 'a train on rails', 40), (5, 'O''Brien''s plane', 'a plane in the air', 50);
CREATE TABLE AI_COLLECTIONS (NAME TEXT PRIMARY KEY COLLATE NOCASE, SOURCE_TABLE TEXT,
  KEY_COLUMN TEXT, TEXT_COLUMNS TEXT, PROVIDER TEXT);
INSERT INTO AI_COLLECTIONS VALUES ('DOCS', 'ARTICLES', 'ID', 'TITLE 2, BODY', 'LOCAL'),
  ('BARE', 'DRAFTS', 'NAME', 'BODY', 'LOCAL'), ('LOST', 'NOWHERE', 'ID', 'BODY', 'LOCAL'),
  ('ALIEN', 'ARTICLES', 'ID', 'BODY', 'ELSEWHERE');
"""


def executable(config: pytest.Config) -> Path:
    """The engine, which is native also when the Windows client library is tested."""
    build = os.environ.get("KOVA_BUILD_DIR")
    if build is None and config.getoption("--target") == "linux":
        build = config.getoption("--build-dir")
    path = Path(build or ROOT / "build" / "linux").resolve() / "sample" / "kova-sample-engine"
    assert path.exists(), f"{path} is not built"
    return path


def embed(executable: Path, data: Path) -> subprocess.CompletedProcess[str]:
    """Builds the collections of the databases in a folder."""
    return subprocess.run([str(executable), "--data", str(data), "--embed"], capture_output=True,
                          text=True, timeout=TIMEOUT * 3, stdin=subprocess.DEVNULL, check=False)


def make_database(path: Path, script: str) -> None:
    with closing(sqlite3.connect(path)) as connection:
        connection.executescript("PRAGMA synchronous=OFF;" + script)


def read_database(path: Path, sql: str) -> list[tuple]:
    with closing(sqlite3.connect(path)) as connection:
        return connection.execute(sql).fetchall()


class Engine:
    """A running engine with its data folder."""

    def __init__(self, executable: Path, folder: Path, *options: str) -> None:
        self.folder = folder
        self.data = folder / "data"
        self.data.mkdir(exist_ok=True)
        self.users = folder / "users"
        if not self.users.exists():
            self.users.write_text(f"# users\n\n{USER}:{PASSWORD}\n", encoding="utf-8")
        self._log_path = folder / "log"
        with open(self._log_path, "wb") as log:
            self.process = subprocess.Popen(
                [str(executable), "--data", str(self.data), "--users", str(self.users), "--log",
                 *options], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=log)
        self.ready_line = self.process.stdout.readline().decode()
        self.port = int(self.ready_line.rpartition(":")[2])

    def profile(self, database: str = "shop") -> dict[str, str]:
        """The database profile of a server or client program."""
        return {"KOVA_MCP_SERVER": LOOPBACK, "KOVA_MCP_PORT": str(self.port),
                "KOVA_MCP_DATABASE": database, "KOVA_MCP_USER": USER,
                "KOVA_MCP_PASSWORD": PASSWORD}

    def log(self) -> list[str]:
        return self._log_path.read_text(encoding="utf-8", errors="replace").splitlines()

    def logged(self, *pieces: str) -> bool:
        return any(all(piece in line for piece in pieces) for line in self.log())

    def connect(self) -> socket.socket:
        return socket.create_connection((LOOPBACK, self.port), timeout=TIMEOUT)

    def session(self, database: str = "shop") -> "Session":
        return Session(self.connect()).greet().login(database)

    def cpu_seconds(self) -> float:
        fields = Path(f"/proc/{self.process.pid}/stat").read_text().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def wait_until_busy(self, before: float) -> None:
        """Waits until the engine has worked for 0.1 s since cpu_seconds() was `before`."""
        wait_until(lambda: self.cpu_seconds() > before + 0.1, TIMEOUT, "work at the engine")

    def serves_nobody(self) -> bool:
        """Whether the thread of every client has ended."""
        names = []
        for task in Path(f"/proc/{self.process.pid}/task").iterdir():
            try:
                names.append((task / "comm").read_text().strip())
            except (FileNotFoundError, ProcessLookupError):
                pass  # It has ended meanwhile.
        return "client" not in names

    def stop(self, how: int = signal.SIGTERM) -> int:
        if self.process.poll() is None:
            self.process.send_signal(how)
        code = self.process.wait(TIMEOUT)
        self.process.stdout.close()
        return code


@dataclass
class Reply:
    """An Outcome or a block of rows."""

    success: bool = True
    status: str = ""
    names: list[str] = field(default_factory=list)
    rows: list[list[str | None]] = field(default_factory=list)
    end: int = END
    message: str = ""


class Payload:
    def __init__(self, data: bytes) -> None:
        self.data = data

    def take(self, size: int) -> bytes:
        assert len(self.data) >= size, "the payload is too short"
        piece, self.data = self.data[:size], self.data[size:]
        return piece

    def number(self, size: int) -> int:
        return int.from_bytes(self.take(size), "big")

    def text(self) -> str | None:
        size = self.number(4)
        if size == 0xFFFFFFFF:
            return None
        value = self.take(size)
        assert self.take(1) == b"\0"
        return value.decode("utf-8", "surrogateescape")


def frame(kind: int, payload: bytes) -> bytes:
    return struct.pack(">IB", len(payload), kind) + payload


def text(value: bytes | str) -> bytes:
    data = value.encode() if isinstance(value, str) else value
    return struct.pack(">I", len(data)) + data + b"\0"


def hello(version: int = 1) -> bytes:
    return frame(HELLO, b"KOVA" + struct.pack(">H", version))


class Session:
    """One connection, over which a test sends exact bytes."""

    def __init__(self, connection: socket.socket) -> None:
        self.socket = connection
        self.columns: dict[int, int] = {}

    def __enter__(self) -> "Session":
        return self

    def __exit__(self, *_: object) -> None:
        self.socket.close()

    def send(self, data: bytes) -> None:
        self.socket.sendall(data)

    def receive_exactly(self, size: int) -> bytes:
        data = b""
        while len(data) < size:
            piece = self.socket.recv(size - len(data))
            if not piece:
                raise EOFError
            data += piece
        return data

    def receive(self) -> tuple[int, Payload]:
        size, kind = struct.unpack(">IB", self.receive_exactly(5))
        return kind, Payload(self.receive_exactly(size))

    def at_end(self) -> bool:
        """Waits for the next byte; true when the engine closes the connection instead."""
        try:
            return self.socket.recv(1) == b""
        except ConnectionResetError:
            return True

    def refusal(self) -> str:
        """Reads a refusal and the end of the connection; returns the message."""
        kind, payload = self.receive()
        assert kind == REFUSED
        message = payload.text()
        assert self.at_end()
        return message

    def greet(self) -> "Session":
        self.send(hello())
        kind, payload = self.receive()
        assert (kind, payload.data) == (WELCOME, b"\0\1")
        return self

    def login(self, database: str = "shop") -> "Session":
        assert self.run(f"use {database};").success
        assert self.run(f"login {USER},{PASSWORD};").success
        return self

    def start(self, statement: bytes | str, number: int = 1) -> None:
        self.send(frame(EXEC, struct.pack(">I", number) + text(statement)))

    def outcome(self, number: int = 1) -> Reply:
        kind, payload = self.receive()
        assert kind == OUTCOME
        success = payload.number(1) == 1
        status = payload.text()
        names = [payload.text() for _ in range(payload.number(2))]
        self.columns[number] = len(names)
        return self._rows(Reply(success, status, names), payload, number)

    def run(self, statement: bytes | str, number: int = 1) -> Reply:
        self.start(statement, number)
        return self.outcome(number)

    def fetch(self, number: int = 1) -> Reply:
        self.send(frame(FETCH, struct.pack(">I", number)))
        kind, payload = self.receive()
        assert kind == ROWS
        return self._rows(Reply(), payload, number)

    def all_rows(self, statement: str) -> list[list[str | None]]:
        reply = self.run(statement)
        assert reply.success, reply.status
        rows = reply.rows
        while reply.end == MORE:
            reply = self.fetch()
            rows += reply.rows
        assert reply.end == END, reply.message
        return rows

    def _rows(self, reply: Reply, payload: Payload, number: int) -> Reply:
        for _ in range(payload.number(2)):
            reply.rows.append([payload.text() for _ in range(self.columns[number])])
        reply.end = payload.number(1)
        reply.message = payload.text()
        assert payload.data == b""
        return reply


@dataclass
class ClientResult:
    code: int
    lines: list[str]


class Client:
    """kova-sample-client: statements through the client library of the target."""

    def __init__(self, target: Target) -> None:
        self.target = target
        name = "kova-sample-client.exe" if target.windows else "kova-sample-client"
        self.executable = target.build / "sample" / name
        assert self.executable.exists(), f"{self.executable} is not built"

    def start(self, port: int, *statements: str, database: str = "shop", user: str = USER,
              password: str = PASSWORD) -> subprocess.Popen[bytes]:
        env = self.target.environment({
            "KOVA_MCP_SERVER": LOOPBACK, "KOVA_MCP_PORT": str(port),
            "KOVA_MCP_DATABASE": database, "KOVA_MCP_USER": user, "KOVA_MCP_PASSWORD": password})
        # Without statements the program reads standard input.
        return subprocess.Popen(self.target.command(self.executable, statements), env=env,
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def run(self, port: int, *statements: str, **login: str) -> ClientResult:
        return self.finish(self.start(port, *statements, **login))

    def finish(self, process: subprocess.Popen[bytes], text: bytes = b"") -> ClientResult:
        """Waits for the end of the program."""
        output, _ = process.communicate(text, timeout=TIMEOUT)
        lines = output.decode("utf-8").replace("\r\n", "\n").split("\n")
        return ClientResult(process.returncode, lines[:-1])
