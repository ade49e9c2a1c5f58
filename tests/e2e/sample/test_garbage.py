"""Garbage, limits and slowness on the sample engine's port."""

from __future__ import annotations

import errno
import select
import socket
import struct
import time
from contextlib import ExitStack
from typing import Callable

import pytest

from harness.sample_engine import (EXEC, FETCH, HELLO, OUTCOME, PASSWORD, RELEASE, USER, WELCOME,
                                   Client, Engine, Session, frame, hello, text)
from harness.sockets import has_read
from harness.waiting import TIMEOUT, wait_until

pytestmark = pytest.mark.sample_engine


@pytest.mark.parametrize("garbage", [
    b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n",
    b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + bytes(505),
    b"\xff" * 4096,
    bytes(4096),
    frame(EXEC, struct.pack(">I", 1) + text("list table;")),
    frame(HELLO, b""),
    frame(HELLO, b"KOVA"),
    frame(HELLO, b"kova\0\1"),
    frame(HELLO, b"KOVA\0\1x"),
], ids=["http", "tls", "ones", "zeros", "exec", "empty", "short", "magic", "long"])
def test_garbage_ends_its_connection_and_nothing_else(engine: Engine, garbage: bytes) -> None:
    with engine.session() as other, engine.connect() as connection:
        connection.sendall(garbage)
        received = b""
        try:
            connection.shutdown(socket.SHUT_WR)
            while piece := connection.recv(65536):
                received += piece
        except OSError as error:
            assert error.errno in (errno.ECONNRESET, errno.ENOTCONN), "still open"
        assert WELCOME not in received[4:5]
        assert other.all_rows("SELECT 1;") == [["1"]]
    wait_until(engine.serves_nobody)


def test_another_version_is_refused(engine: Engine) -> None:
    with engine.connect() as connection:
        session = Session(connection)
        session.send(hello(2))
        assert session.refusal() == "the version is not known"


@pytest.mark.parametrize("request_frame, message", [
    (frame(0, b""), "the frame is not known"),
    (frame(99, b""), "the frame is not known"),
    (frame(OUTCOME, b""), "the frame is not known"),
    (frame(HELLO, b"KOVA\0\1"), "the frame is not known"),
    (frame(EXEC, b""), "the frame is malformed"),
    (frame(EXEC, b"\0\0\0\1"), "the frame is malformed"),
    (frame(EXEC, b"\0\0\0\1" + text("SELECT 1;")[:-1]), "the frame is malformed"),
    (frame(EXEC, b"\0\0\0\1" + text("SELECT 1;") + b"\0"), "the frame is malformed"),
    (frame(EXEC, b"\0\0\0\1" + text("SELECT 1;")[:-1] + b"x"), "the frame is malformed"),
    (frame(EXEC, b"\0\0\0\1\xff\xff\xff\xff"), "the frame is malformed"),
    (frame(EXEC, b"\0\0\0\1\xff\xff\xff\xfex\0"), "the frame is malformed"),
    (frame(FETCH, b"\0\0\0"), "the frame is malformed"),
    (frame(FETCH, b"\0\0\0\1\0"), "the frame is malformed"),
    (frame(FETCH, b"\0\0\0\7"), "the statement object is not known"),
    (frame(RELEASE, b"\0"), "the frame is malformed"),
    (struct.pack(">IB", 65546, EXEC), "the frame is too large"),
    (struct.pack(">IB", 0xFFFFFFFF, EXEC), "the frame is too large"),
], ids=["type 0", "type 99", "reply type", "second hello", "no object", "no statement",
        "unterminated", "trailing", "text end", "null", "longest text", "fetch short",
        "fetch long", "fetch unknown", "release short", "over the limit", "largest"])
def test_a_malformed_request_is_refused(engine: Engine, request_frame: bytes, message: str) -> None:
    with engine.session() as other, engine.session() as session:
        session.send(request_frame)
        assert session.refusal() == message
        assert other.all_rows("SELECT 1;") == [["1"]]


def test_statements_have_a_limit(engine: Engine, client: Client, shop: Session) -> None:
    longest = "SELECT 1".ljust(65536)
    assert shop.all_rows(longest) == [["1"]]
    result = client.finish(client.start(engine.port),
                           longest.encode() + b" \nSELECT 1 AS A;\n")
    assert result.lines == ["error: the statement is too long", "status: OK", "A", "1"]
    shop.start(longest + " ")
    assert shop.refusal() == "the frame is too large"


def test_a_statement_with_a_nul_is_refused(shop: Session) -> None:
    reply = shop.run(b"SELECT 1;\0 DELETE FROM ITEMS;")
    assert (reply.success, reply.status) == (False, "the statement holds a NUL")
    assert shop.all_rows("SELECT COUNT(*) FROM ITEMS;") == [["3"]]


def test_bytes_that_are_no_utf8_pass_through(shop: Session) -> None:
    reply = shop.run(b"SELECT '\xff\xc3' AS A;")
    assert reply.rows == [["\udcff\udcc3"]]


def test_objects_have_a_limit(shop: Session) -> None:
    for number in range(2, 65):
        assert shop.run("SELECT 1;", number).success
    shop.send(frame(RELEASE, struct.pack(">I", 2)))
    assert shop.run("SELECT 1;", 65).success
    shop.start("SELECT 1;", 66)
    assert shop.refusal() == "too many statement objects"


def test_requests_may_arrive_byte_by_byte_and_all_at_once(engine: Engine) -> None:
    with engine.connect() as connection:
        session = Session(connection)
        for byte in hello():
            session.send(bytes([byte]))
            wait_until(lambda: has_read(connection))
        assert session.receive()[0] == WELCOME
        session.login()
        session.send(b"".join(frame(EXEC, struct.pack(">I", 1) + text(f"SELECT {number};"))
                              for number in range(50)))
        assert [session.outcome().rows[0][0] for _ in range(50)] == [
            str(number) for number in range(50)]


def test_half_open_connections_hold_up_nobody(engine: Engine, client: Client) -> None:
    connections = [engine.connect() for _ in range(40)]
    for connection in connections[::2]:
        connection.sendall(b"\0\0\0")
    assert client.run(engine.port, "SELECT 1 AS A;").code == 0
    for connection in connections:
        connection.close()
    wait_until(engine.serves_nobody)


def test_connections_have_a_limit(start_engine: Callable[..., Engine], client: Client) -> None:
    engine = start_engine("--connections", "2")
    with engine.session(), engine.session():
        with engine.connect() as third:
            assert Session(third).at_end()
        result = client.run(engine.port, "SELECT 1 AS A;")
        assert (result.code, result.lines) == (1, ["error: no connection"])
        assert engine.logged("refused: too many connections")
    wait_until(engine.serves_nobody)
    assert client.run(engine.port, "SELECT 1 AS A;").code == 0


def ends_of(connections: "list[socket.socket]") -> list[float]:
    """Reads until the other side has closed all of them; the times at which it did."""
    ends: "dict[socket.socket, float]" = {}
    while still_open := [one for one in connections if one not in ends]:
        readable = select.select(still_open, [], [], TIMEOUT)[0]
        assert readable, f"{len(still_open)} are still open"
        ends.update({one: time.monotonic() for one in readable if not one.recv(65536)})
    return [ends[one] for one in connections]


def test_who_does_not_log_in_in_time_is_dropped(start_engine: Callable[..., Engine]) -> None:
    engine = start_engine("--timeout", "1")
    beginnings = [b"", b"\0", hello(), hello() + b"\0\0\0\5"]
    with engine.session() as idle, ExitStack() as stack:
        connections = [stack.enter_context(engine.connect()) for _ in beginnings]
        started = time.monotonic()
        for connection, first in zip(connections, beginnings):
            connection.sendall(first)
        for first, end in zip(beginnings, ends_of(connections)):
            assert 0.5 < end - started < 5, first
        assert idle.all_rows("SELECT 1;") == [["1"]], "who is logged in may be idle"
        idle.send(b"\0")
        assert idle.at_end(), "but has to finish a message"


def test_who_does_not_take_a_reply_in_time_is_dropped(
        start_engine: Callable[..., Engine]) -> None:
    engine = start_engine("--timeout", "1")
    with engine.session() as lazy:
        for _ in range(40):
            lazy.start("SELECT " + ",".join(["printf('%.*c', 1000000, 'x')"] * 4) + ";")
        wait_until(engine.serves_nobody)


def test_the_log_holds_no_password(engine: Engine, client: Client) -> None:
    client.run(engine.port, f"login {USER},{PASSWORD};", f"logni {USER},{PASSWORD};",
               f"use shop; login {USER},{PASSWORD};", f"{USER},{PASSWORD}")
    client.run(engine.port, "SELECT 1;", password="another-secret")
    log = "\n".join(engine.log())
    assert "LOGIN -> OK" in log and "LOGIN -> wrong user or password" in log
    for secret in ("s3cret", "pass: word", "another-secret"):
        assert secret not in log
