"""The rate window of the HTTP listener: how many requests it admits, and what the others get."""

from __future__ import annotations

import os
import select
import signal
import socket
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack
from typing import Iterator

import pytest

from harness.http_client import (RATE_EXCEEDED, SESSION_REQUIRED, UNAUTHORIZED, UNKNOWN_PATH,
                                 Client, HttpListener, HttpListeners)
from harness.sockets import is_closed_there, waiting_connections
from harness.waiting import TIMEOUT, wait_until

PASSED = SESSION_REQUIRED
DEFAULT = 120
QUEUE_SHARE = 8
"""Connections at a time; the listener's queue has room for 16."""


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


def silent_clients(listener: HttpListener, count: int) -> Iterator[Client]:
    """Connections that send nothing, a few at a time: when the listener's queue is full, the kernel
    tries a connection again after a second."""
    for number in range(count):
        if number % QUEUE_SHARE == 0:
            wait_until(lambda: waiting_connections(listener.port) == 0, TIMEOUT, "the listener")
        yield listener.connect()


def with_response(clients: list[Client]) -> list[Client]:
    return [client for client in clients
            if select.select([client.socket], [], [], 0)[0]]


@pytest.mark.parametrize("rate, limit", [("4", 4), (None, DEFAULT)])
def test_a_silent_connection_counts(http, rate, limit):
    """A connection above the rate gets its response before it has sent a byte."""
    listener = listener_with(http, rate)
    with ExitStack() as stack:
        clients = [stack.enter_context(client)
                   for client in silent_clients(listener, limit + 1)]
        wait_until(lambda: with_response(clients) != [], TIMEOUT, "the response to one connection")
        [refused] = with_response(clients)
        assert refused.read_to_end() == RATE_EXCEEDED
        assert listener.post() == RATE_EXCEEDED
        clients.remove(refused)
        assert with_response(clients) == []
        for client in clients:
            client.send(listener.compose().data())
            assert client.read_to_end() == PASSED


def test_what_a_refused_client_has_sent_does_not_destroy_its_response(http):
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
        # A reset would come with the listener's close, right behind the end.
        wait_until(lambda: is_closed_there(client.socket), TIMEOUT, "the listener's close")
        assert client.socket.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR) == 0
    assert received == RATE_EXCEEDED


def test_clients_side_by_side_share_one_count(http):
    limit, clients = 30, 90
    listener = listener_with(http, str(limit))
    with ThreadPoolExecutor(12) as pool:
        answers = list(pool.map(lambda _: listener.post(), range(clients)))
    assert sorted(answers) == sorted([PASSED] * limit + [RATE_EXCEEDED] * (clients - limit))
