#!/usr/bin/python3
"""Serves the sample database over HTTPS until it is interrupted.

    serve_http.py linux|windows    the listener of that executable behind nginx
"""

from __future__ import annotations

import json
import secrets
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Sequence

from engine import Engine
from outcome import BAD_ARGUMENTS, SessionFailure, guarded
from prepare import prepare
from processes import Processes, all_processes
from target import STATE, Target
from tls_front_end import (NAMES, free_port, make_certificate, nginx_command,
                           nginx_configuration)
from view import View, standard_view

START_TIMEOUT = 60.0
TRIES = 3  # another program may take a free port first
BANNER = "(TLS termination required)"
INITIALIZE = json.dumps({
    "jsonrpc": "2.0", "id": 1, "method": "initialize", "params": {
        "protocolVersion": "2025-11-25", "capabilities": {},
        "clientInfo": {"name": "curl", "version": "1"}}}, separators=(",", ":"))


@dataclass(frozen=True)
class Server:
    """A process that must run as long as the session does."""

    name: str
    process: "subprocess.Popen[bytes]"
    port: int
    log: Path

    def last_line(self) -> str:
        lines = self.log.read_text("utf-8", errors="replace").splitlines()
        return lines[-1] if lines else "it said nothing"

    def becomes_ready(self, is_ready: "Callable[[Server], bool]") -> bool:
        """Waits until it is ready; false when it ends before that."""
        end = time.monotonic() + START_TIMEOUT
        while self.process.poll() is None:
            if is_ready(self):
                return True
            if time.monotonic() > end:
                raise SessionFailure(f"{self.name} does not start: {self.last_line()}")
            time.sleep(0.05)
        return False


@dataclass(frozen=True)
class Service:
    """The listener and nginx of one session; everything that they write lies in one folder."""

    target: Target
    folder: Path
    processes: Processes
    token: str
    certificate: Path

    def start_listener(self, profile: dict[str, str]) -> Server:
        environment = self.target.environment(profile | {
            "KOVA_MCP_HTTP_BEARER_TOKEN": self.token,
            "KOVA_MCP_HTTP_ALLOWED_HOSTS": NAMES.replace(" ", ",")})
        # No trial connection: it would count against the listener's rate.
        return self._start("the listener",
                           lambda port: self.target.command("--http", str(port)),
                           lambda server: BANNER in server.last_line(), environment)

    def start_nginx(self, listener: Server) -> Server:
        configuration = self.folder / "nginx.conf"

        def command(port: int) -> list[str]:
            text = nginx_configuration(self.folder, self.certificate, port, listener.port)
            configuration.write_text(text, encoding="utf-8")
            return nginx_command(configuration)

        return self._start("nginx", command, lambda _: (self.folder / "nginx.pid").exists())

    def _start(self, name: str, command: Callable[[int], Sequence[str]],
               is_ready: Callable[[Server], bool],
               environment: "dict[str, str] | None" = None) -> Server:
        log = self.folder / f"{name.split()[-1]}.log"
        for _ in range(TRIES):
            port = free_port()
            with open(log, "wb") as output:
                process = self.processes.start(command(port), environment, stdout=output,
                                               stderr=output, stdin=subprocess.DEVNULL)
            server = Server(name, process, port, log)
            if server.becomes_ready(is_ready):
                return server
        raise SessionFailure(f"{name} does not start: {server.last_line()}")


def show(view: View, service: Service, url: str) -> None:
    entry = {"type": "http", "url": url, "headers": {"Authorization": f"Bearer {service.token}"}}
    view.line()
    view.line(f"Serving the sample database with {service.target.executable_name} behind nginx."
              " Ctrl-C stops it.", "bold")
    view.line()
    view.line(f"URL          {url}")
    view.line(f"Bearer token {service.token}")
    view.line(f"Certificate  {service.certificate}")
    view.line()
    view.note("The client's entry:")
    view.line(json.dumps({"mcpServers": {"vantreo-sample": entry}}, indent=2))
    view.line()
    view.note("The certificate is self-signed and ends with this session. A client on Node.js")
    view.note("trusts it when NODE_EXTRA_CA_CERTS names it. Without a client:")
    view.line(f"curl -i --cacert {service.certificate} -H 'Authorization: Bearer {service.token}' "
              f"{url} -d '{INITIALIZE}'")


def watch(servers: Sequence[Server]) -> None:
    """Waits until one of them has ended, which is a failure."""
    while True:
        for server in servers:
            if server.process.poll() is not None:
                raise SessionFailure(f"{server.name} has ended: {server.last_line()}")
        time.sleep(0.2)


def serve(target: Target, view: View, processes: Processes) -> None:
    prepare(target, view, processes)
    engine = Engine("http", processes)
    with tempfile.TemporaryDirectory(prefix="http-", dir=STATE) as name:
        folder = Path(name)
        service = Service(target, folder, processes, secrets.token_urlsafe(32),
                      make_certificate(folder))
        try:
            listener = service.start_listener(engine.profile(target))
            nginx = service.start_nginx(listener)
            show(view, service, f"https://localhost:{nginx.port}/mcp")
            watch([nginx, listener, Server("the sample engine", engine.process, int(engine.port),
                                           engine.log_file)])
        finally:
            processes.close()  # before the folder that they write into is removed


def run(target: Target, view: View) -> int:
    with all_processes() as processes:
        serve(target, view, processes)
    return 0


def main(arguments: list[str]) -> int:
    if arguments not in (["linux"], ["windows"]):
        print("serve_http.py: expected linux or windows", file=sys.stderr)
        return BAD_ARGUMENTS
    view = standard_view()
    return guarded(view, lambda: run(Target(arguments[0]), view))


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
