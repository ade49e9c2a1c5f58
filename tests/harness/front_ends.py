"""nginx and HAProxy with the configurations of deploy/, a recorder behind them, and a client."""

from __future__ import annotations

import contextlib
import http.client
import os
import re
import signal
import socket
import ssl
import subprocess
import threading
from dataclasses import dataclass
from pathlib import Path
from typing import Iterable, Mapping, Protocol, Sequence

from harness import processes
from harness.http_client import TOKEN
from harness.listeners import LOOPBACK
from harness.waiting import TIMEOUT, wait_for_end, wait_until
from tls_front_end import (filled, free_port, haproxy_command, haproxy_configuration, nginx_command,
                           nginx_configuration)

# behind the front end


class Recorder:
    """Takes a listener's place: keeps each request and sends the same response after a delay. An
    empty response closes the connection."""

    RESPONSE = (b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 2\r\n"
                b"Connection: close\r\n\r\n{}")

    def __init__(self, delay: float = 0.0, response: bytes = RESPONSE) -> None:
        self.connections = 0
        self._response = response
        self.requests: list[bytes] = []
        self._delay = threading.Event()
        self._seconds = delay
        self._socket = socket.create_server((LOOPBACK, 0))
        self.port = self._socket.getsockname()[1]
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self) -> None:
        while True:
            try:
                connection, _ = self._socket.accept()
            except OSError:
                return
            self.connections += 1
            with connection:
                connection.settimeout(TIMEOUT)
                with contextlib.suppress(OSError):
                    self.requests.append(self._read(connection))
                    self._delay.wait(self._seconds)
                    connection.sendall(self._response)

    @staticmethod
    def _read(connection: socket.socket) -> bytes:
        data = b""
        while b"\r\n\r\n" not in data or len(data) < _whole_length(data):
            piece = connection.recv(65536)
            if not piece:
                break
            data += piece
        return data

    def stop(self) -> None:
        self._delay.set()
        with contextlib.suppress(OSError):
            self._socket.shutdown(socket.SHUT_RDWR)
        self._socket.close()
        self._thread.join(TIMEOUT)


def _whole_length(data: bytes) -> int:
    head, _, _ = data.partition(b"\r\n\r\n")
    for line in head.lower().split(b"\r\n"):
        if line.startswith(b"content-length:"):
            return len(head) + 4 + int(line.partition(b":")[2])
    return len(head) + 4


# the front end


class FrontEnd:
    """nginx or HAProxy with the configuration of deploy/; `changes` are made to its text."""

    def __init__(self, kind: str, folder: Path, certificate: Path, ports: Sequence[int],
                 changes: Mapping[str, str]) -> None:
        self.kind = kind
        self.port = free_port()
        self.certificate = certificate
        self.url = f"https://localhost:{self.port}/mcp"
        folder.mkdir()
        self._log = folder / "log"
        configuration = folder / "configuration"
        text = (nginx_configuration(folder, certificate, self.port, *ports) if kind == "nginx"
                else haproxy_configuration(certificate, self.port, ports))
        configuration.write_text(filled(text, changes), encoding="utf-8")
        self._peers = re.search(rf"peer this {LOOPBACK}:(\d+)", text)
        command = (nginx_command if kind == "nginx" else haproxy_command)(configuration)
        with open(self._log, "wb") as log:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log,
                                            stderr=log, start_new_session=True)
        wait_until(self._is_up, TIMEOUT, f"the start of {kind}")

    def _is_up(self) -> bool:
        assert self.process.poll() is None, self.log()
        if self.kind == "haproxy" and "Loading success" not in self.log():
            return False
        with socket.socket() as probe:
            return probe.connect_ex((LOOPBACK, self.port)) == 0

    def log(self) -> str:
        return self._log.read_text("utf-8", errors="replace")

    def learn_from(self, peer: str) -> None:
        """Connects to HAProxy as one of its peers, and says that this one's whole table has been
        sent. A HAProxy hands its own table over once it has learnt one, or has waited some seconds
        for a peer that has one; no setting shortens that."""
        request, finished, confirmed = b"\0\0", b"\0\1", b"\0\3"  # messages of peers
        assert self._peers is not None
        address = LOOPBACK, int(self._peers[1])
        with socket.create_connection(address, TIMEOUT) as connection:
            connection.sendall(f"HAProxyS 2.1\nthis\n{peer} 0 0\n".encode())
            received = connection.makefile("rb")
            assert received.readline() == b"200\n"
            assert received.read(2) == request
            connection.sendall(finished)
            assert received.read(2) == confirmed

    def reload(self) -> None:
        """HAProxy starts a new process that takes over; waits until the old one has ended."""
        self.process.send_signal(signal.SIGUSR2)
        wait_until(lambda: "Former worker" in self.log(), TIMEOUT, "the end of the old process")

    def stop(self) -> None:
        self.process.terminate()
        # HAProxy ends with 0 or by the signal, depending on how far its start has come.
        ended = (0,) if self.kind == "nginx" else (0, -signal.SIGTERM)
        assert wait_for_end(self.process) in ended, self.log()
        wait_until(lambda: processes.of_group(self.process.pid) == [], TIMEOUT,
                   f"the end of every process of {self.kind}")


# the client


@dataclass(frozen=True)
class Response:
    status: int
    headers: dict[str, str]
    body: bytes

    @classmethod
    def of(cls, got: http.client.HTTPResponse) -> "Response":
        fields = {name.lower(): value for name, value in got.getheaders()}
        return cls(got.status, fields, got.read())

    def header(self, name: str) -> "str | None":
        return self.headers.get(name.lower())


class Served(Protocol):
    """What serves HTTPS on a port of this machine."""

    port: int
    certificate: Path


class Caller:
    """Sends single requests to a front end."""

    def __init__(self, front: Served) -> None:
        self._port = front.port
        self._context = ssl.create_default_context(cafile=str(front.certificate))

    def connect(self) -> ssl.SSLSocket:
        plain = socket.create_connection((LOOPBACK, self._port), timeout=TIMEOUT)
        return self._context.wrap_socket(plain, server_hostname="localhost")

    def ask(self, body: "bytes | Iterable[bytes] | None" = None, method: str = "POST",
            path: str = "/mcp", token: str = TOKEN,
            headers: "Mapping[str, str] | None" = None) -> Response:
        """An iterable body goes out in chunks."""
        connection = http.client.HTTPSConnection(LOOPBACK, self._port, context=self._context,
                                                 timeout=TIMEOUT)
        sent = {"Authorization": f"Bearer {token}", "Content-Type": "application/json",
                **(headers or {})}
        # The other side may refuse and close before it has read the whole request.
        with contextlib.closing(connection):
            with contextlib.suppress(BrokenPipeError, ConnectionResetError, ssl.SSLEOFError):
                connection.request(method, path, body, sent)
            return Response.of(connection.getresponse())


def clean_environment(certificate: Path) -> dict[str, str]:
    """An environment in which Node.js trusts the certificate."""
    return {"PATH": os.environ["PATH"], "NODE_EXTRA_CA_CERTS": str(certificate),
            "NODE_OPTIONS": "--dns-result-order=ipv4first"}
