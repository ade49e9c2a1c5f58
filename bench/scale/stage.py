"""What runs: the sample engine, the listeners and HAProxy before them."""

from __future__ import annotations

import os
from contextlib import ExitStack
from pathlib import Path
from typing import Any

from common import measure
from harness.front_ends import FrontEnd
from harness.http_client import HttpListeners
from harness.policy_files import PolicyFiles
from harness.sales_engine import SALES, profile
from harness.sample_engine import Engine, make_database
from harness.servers import Servers
from harness.targets import Installation, Target
from tls_front_end import NAMES, make_certificate

MAXCONN, RATE_PER_MINUTE, ENGINE_CONNECTIONS = 4000, 1_000_000, 1000
CHOSEN = {"haproxy_maxconn": MAXCONN, "KOVA_MCP_HTTP_RATE_PER_MINUTE": RATE_PER_MINUTE,
          "engine_connections": ENGINE_CONNECTIONS}
"""What the run sets otherwise than deploy/haproxy.cfg and the defaults: more connections of
clients, requests a minute at each listener, and connections to the engine than those allow."""


class Stage:
    """Closes what it has started, and then knows what is left."""

    def __init__(self, build: Path, folder: Path, listeners: int) -> None:
        target = Target("linux", build, folder)
        installation = Installation(target, folder / "installed")
        self.executable = installation.executable("sample").resolve()
        self.audit = folder / "audit.jsonl"
        self.temporary = folder / "temporary"
        for name in ("engine", "work", "policy", "temporary"):
            (folder / name).mkdir()
        self._shared = _shared_memory()
        with ExitStack() as opened:
            (folder / "engine" / "data").mkdir()
            make_database(folder / "engine" / "data" / "SALES.db", SALES)
            self.engine = Engine(build / "sample" / "kova-sample-engine", folder / "engine",
                                 "--connections", str(ENGINE_CONNECTIONS))
            opened.callback(self.engine.stop)
            servers = Servers(target, installation, folder / "work")
            opened.callback(servers.close)
            start = HttpListeners(servers)
            opened.callback(start.close)
            env = {**profile(PolicyFiles(target, folder / "policy"), self.engine),
                   "KOVA_MCP_AUDIT": self.audit, "TMPDIR": self.temporary,
                   "KOVA_MCP_HTTP_RATE_PER_MINUTE": str(RATE_PER_MINUTE),
                   "KOVA_MCP_HTTP_ALLOWED_HOSTS": NAMES.replace(" ", ",")}
            self.listeners = [start(env, library="sample") for _ in range(listeners)]
            self.front = FrontEnd("haproxy", folder / "haproxy", make_certificate(folder),
                                  [listener.port for listener in self.listeners],
                                  {"maxconn 200  # SET": f"maxconn {MAXCONN}"})
            opened.callback(self.front.stop)
            self._opened = opened.pop_all()

    def servers_hold(self) -> dict[str, Any]:
        """All listeners, sessions and workers."""
        return measure.held(measure.of_executable(self.executable))

    def front_holds(self) -> dict[str, Any]:
        return measure.held(measure.family(self.front.process.pid))

    def engine_holds(self) -> dict[str, Any]:
        return measure.held([self.engine.process.pid])

    def processor_seconds(self) -> dict[str, float]:
        """So far. A session counts its workers and a listener its sessions once they have ended."""
        groups = {"servers": measure.of_executable(self.executable),
                  "haproxy": measure.family(self.front.process.pid),
                  "engine": [self.engine.process.pid]}
        return {name: sum(map(measure.processor_seconds, pids)) for name, pids in groups.items()}

    def close(self) -> dict[str, int]:
        """Ends everything; returns what is left after that."""
        ports = [self.front.port, self.engine.port, *(server.port for server in self.listeners)]
        self._opened.close()
        work = self.temporary.parent / "work"
        return {"processes": len(measure.of_executable(self.executable)),
                "sockets": measure.sockets_of_ports(ports),
                "temporary files": len(list(self.temporary.iterdir())),
                "files in the working folder": len(list(work.iterdir())),
                "shared memory": len(_shared_memory() - self._shared)}


def _shared_memory() -> set[str]:
    return {name for name in os.listdir("/dev/shm") if "kova" in name}
