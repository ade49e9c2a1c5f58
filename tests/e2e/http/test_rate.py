"""The rate window of the HTTP listener: how many requests it admits, and what the others get."""

from __future__ import annotations

import os
import select
import signal
import socket
import time
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack

import pytest

from harness.http_client import (RATE_EXCEEDED, SESSION_REQUIRED, UNAUTHORIZED, UNKNOWN_PATH,
                                 Client, HttpListener, HttpListeners)
from harness.waiting import TIMEOUT, wait_until

PASSED = SESSION_REQUIRED
DEFAULT = 120


def listener_with(http: HttpListeners, rate: "str | None") -> HttpListener:
    return http({"KOVA_MCP_HTTP_RATE_PER_MINUTE": rate})


@pytest.mark.parametrize("rate, limit", [
    ("1", 1), ("3", 3), ("003", 3), ("120", DEFAULT), (None, DEFAULT), ("", DEFAULT),
    ("0", DEFAULT), ("-5", DEFAULT), ("abc", DEFAULT), ("x3", DEFAULT), ("- 3", DEFAULT),
    ("0x3", DEFAULT), ("-4294967293", DEFAULT), (" 3", DEFAULT), ("3 ", DEFAULT),
    ("+3", DEFAULT), ("3.9", DEFAULT), ("3x", DEFAULT),
])
def test_how_many_requests_are_admitted(http, rate, limit):
    listener = listener_with(http, rate)
    answers = [listener.post() for _ in range(limit + 2)]
    assert answers == [PASSED] * limit + [RATE_EXCEEDED] * 2


@pytest.mark.parametrize("rate", ["121", "4294967295", "4294967296", "4294967299", "9" * 40])
def test_a_higher_rate(http, rate):
    listener = listener_with(http, rate)
    assert [listener.post() for _ in range(DEFAULT + 1)] == [PASSED] * (DEFAULT + 1)


def test_refused_requests_count(http):
    listener = listener_with(http, "5")
    refused = [listener.exchange(b"GET / HTTP/1.1\r\n\r\n") for _ in range(2)]
    refused += [listener.post(headers={"Authorization": None}) for _ in range(2)]
    assert refused == [UNKNOWN_PATH] * 2 + [UNAUTHORIZED] * 2
    assert [listener.post(), listener.post()] == [PASSED, RATE_EXCEEDED]


@pytest.mark.parametrize("data", [
    b"", b"x", b"GET / HTTP/1.1\r\n\r\n", b"\r\n\r\n", b"P" * 300000,
    b"POST /mcp HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
], ids=["nothing", "byte", "method", "blank line", "flood", "length"])
def test_the_rate_comes_first(http, data):
    """Also without a token."""
    listener = http({"KOVA_MCP_HTTP_RATE_PER_MINUTE": "1", "KOVA_MCP_HTTP_BEARER_TOKEN": None})
    listener.exchange(b"", ended=True)
    assert listener.exchange(data) == RATE_EXCEEDED
    assert listener.exchange(data, ended=True) == RATE_EXCEEDED
    assert listener.delete("x") == RATE_EXCEEDED


def answered(clients: list[Client]) -> list[Client]:
    return [client for client in clients
            if select.select([client.socket], [], [], 0)[0]]


@pytest.mark.parametrize("rate, limit", [("4", 4), (None, DEFAULT)])
def test_a_silent_connection_counts(http, rate, limit):
    """A connection above the rate gets its response before it has sent a byte."""
    listener = listener_with(http, rate)
    with ExitStack() as stack:
        clients = [stack.enter_context(listener.connect()) for _ in range(limit + 1)]
        wait_until(lambda: answered(clients) != [], TIMEOUT, "the answer of one connection")
        [refused] = answered(clients)
        assert refused.read_to_end() == RATE_EXCEEDED
        assert listener.post() == RATE_EXCEEDED
        clients.remove(refused)
        assert answered(clients) == []
        for client in clients:
            client.send(listener.compose().data())
            assert client.read_to_end() == PASSED


def test_what_a_refused_client_has_sent_does_not_destroy_its_answer(http):
    """Its bytes are read, so that the connection ends without a reset."""
    listener = listener_with(http, "1")
    assert listener.post() == PASSED
    process = listener.server.process.pid
    os.kill(process, signal.SIGSTOP)
    with listener.connect() as client:
        client.socket.sendall(b"x" * 32000)
        os.kill(process, signal.SIGCONT)
        received = b""
        while chunk := client.socket.recv(4096):
            received += chunk
        time.sleep(0.2)  # a reset would come right behind the end
        assert client.socket.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR) == 0
    assert received == RATE_EXCEEDED


def test_clients_side_by_side_share_one_count(http):
    limit, clients = 30, 90
    listener = listener_with(http, str(limit))
    with ThreadPoolExecutor(12) as pool:
        answers = list(pool.map(lambda _: listener.post(), range(clients)))
    assert sorted(answers) == sorted([PASSED] * limit + [RATE_EXCEEDED] * (clients - limit))
