"""The sample client library and engines that misbehave."""

from __future__ import annotations

import signal
import socket
import struct
import threading
import time

import pytest

from harness.listeners import LOOPBACK
from harness.sample_engine import (ENDLESS, OUTCOME, ROWS, WELCOME, Client, Engine, Session, frame,
                                   text)
from harness.waiting import TIMEOUT, wait_until

pytestmark = pytest.mark.sample_engine


class FakeEngine:
    """Accepts one connection after the other, greets it and responds from a list."""

    def __init__(self, *answers: bytes, welcome: bytes = frame(WELCOME, b"\0\1")) -> None:
        self._listener = socket.create_server((LOOPBACK, 0))
        self.port = self._listener.getsockname()[1]
        self._answers = [welcome, *answers]
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self) -> None:
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            with connection:
                session = Session(connection)
                try:
                    for answer in self._answers:
                        session.receive()
                        session.send(answer)
                except (EOFError, OSError):
                    pass

    def __enter__(self) -> "FakeEngine":
        return self

    def __exit__(self, *_: object) -> None:
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._thread.join(TIMEOUT)


def rows_block(*cells: bytes, count: int = 0, end: bytes = b"\1",
               message: bytes = text("")) -> bytes:
    return struct.pack(">H", count) + b"".join(cells) + end + message


def outcome(rows: bytes = rows_block(), names: tuple[str, ...] = (), success: bytes = b"\1",
            status: bytes = text("OK")) -> bytes:
    columns = struct.pack(">H", len(names)) + b"".join(text(name) for name in names)
    return frame(OUTCOME, success + status + columns + rows)


OK = outcome()
LOST = ["error: connection to the engine was lost"]
MALFORMED = ["error: the engine's reply is malformed"]


def test_the_fake_engine_can_behave(client: Client) -> None:
    good = outcome(rows_block(text("1"), b"\xff\xff\xff\xff", count=1), ("A", "B"))
    with FakeEngine(OK, OK, good) as fake:
        assert client.run(fake.port, "x").lines == ["status: OK", "A\tB", "1\t\\N"]


@pytest.mark.parametrize("welcome", [
    b"", b"HTTP/1.1 400 Bad Request\r\n\r\n", frame(WELCOME, b"\0\2"), frame(WELCOME, b""),
    frame(OUTCOME, b"\0\1"), frame(132, text("no")), struct.pack(">IB", 0xFFFFFFFF, WELCOME),
], ids=["silence", "http", "version", "empty", "type", "refused", "oversized"])
def test_what_is_no_engine_gives_no_connection(client: Client, welcome: bytes) -> None:
    with FakeEngine(welcome=welcome) as fake:
        assert client.run(fake.port, "x").lines == ["error: no connection"]


def test_no_engine_gives_no_connection(client: Client) -> None:
    with socket.create_server((LOOPBACK, 0)) as listener:
        port = listener.getsockname()[1]
    started = time.monotonic()
    assert client.run(port, "x").lines == ["error: no connection"]
    assert time.monotonic() - started < 5


@pytest.mark.parametrize("answer, lines", [
    (b"", LOST),
    (b"\0\0", LOST),
    (outcome()[:-1], LOST),
    (frame(ROWS, rows_block()), LOST),
    (struct.pack(">IB", 4194305, OUTCOME), LOST),
    (frame(132, text("the reason")), ["error: the engine refused: the reason"]),
    (frame(132, b"\0"), LOST),
    (frame(OUTCOME, b""), MALFORMED),
    (outcome(success=b"\2"), MALFORMED),
    (outcome(status=b"\0\0\0\2OK"), MALFORMED),
    (outcome(status=b"\0\0\0\2OKx"), MALFORMED),
    (outcome(status=b"\xff\xff\xff\xff"), MALFORMED),
    (outcome(status=b"\xff\xff\xff\xfeOK\0"), MALFORMED),
    (outcome(rows_block(end=b"\3")), MALFORMED),
    (outcome(rows_block(message=b"")), MALFORMED),
    (outcome(rows_block() + b"x"), MALFORMED),
    (frame(OUTCOME, b"\1" + text("OK") + b"\xff\xff"), MALFORMED),
    (outcome(b""), MALFORMED),
], ids=["closed", "cut header", "cut payload", "other type", "oversized", "refused",
        "bad refusal", "empty", "success", "unterminated status", "status end", "null status",
        "long status", "rows end", "no message", "trailing", "names", "no rows"])
def test_a_bad_outcome_fails_the_statement(client: Client, answer: bytes,
                                           lines: list[str]) -> None:
    with FakeEngine(OK, OK, answer) as fake:
        result = client.run(fake.port, "x", "y")
        assert result.lines == lines + LOST, "and the connection is lost"


@pytest.mark.parametrize("rows", [
    rows_block(text("1"), count=2),
    rows_block(text("1")[:-1] + b"x", count=1),
    rows_block(b"\0\1\0\0x\0", count=1),
    rows_block(text("1"), count=1, end=b"\7"),
    rows_block(text("1"), count=1) + b"x",
], ids=["too few", "unterminated", "too long", "end", "trailing"])
def test_bad_rows_end_the_result(client: Client, rows: bytes) -> None:
    with FakeEngine(OK, OK, outcome(rows, ("A",))) as fake:
        result = client.run(fake.port, "x", "y")
        assert result.lines[:2] == ["status: OK", "A"]
        assert result.lines[-1:] == LOST and len(result.lines) <= 4


@pytest.mark.parametrize("how", [signal.SIGKILL, signal.SIGTERM])
def test_an_engine_that_dies_fails_the_statement(engine: Engine, client: Client,
                                                 how: int) -> None:
    process = client.start(engine.port, f"SELECT COUNT(*) FROM {ENDLESS};", "SELECT 1;")
    wait_until(lambda: engine.logged("LOGIN -> OK"))
    engine.wait_until_busy(engine.cpu_seconds())
    engine.stop(how)
    result = client.finish(process)
    assert result.code == 1 and result.lines[-1:] == LOST
    assert result.lines[0] in (LOST[0], "error: interrupted")


def test_an_engine_that_dies_ends_a_result(engine: Engine, client: Client) -> None:
    process = client.start(engine.port, f"SELECT N FROM {ENDLESS};", "SELECT 1;")
    assert process.stdout.readline().rstrip() == b"status: OK"
    engine.stop(signal.SIGKILL)
    assert client.finish(process).lines[-1:] == LOST
