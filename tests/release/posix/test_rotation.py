"""The shipped rotation loses no record of servers under load, with logrotate itself."""

from __future__ import annotations

import gzip
import itertools
import json
import subprocess
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any

from harness.messages import call
from harness.targets import ROOT
from harness.waiting import TIMEOUT

SERVERS = 4
CALLS = 60
"""Calls of each server, at the least."""
ROTATIONS = 3
"""Files that the servers' calls go on for: the third rotation compresses the first file."""
LOG = "/var/log/kova-mcp/*/audit.jsonl {"
ACCOUNT = "su kova-mcp kova-mcp"


class Rotation(threading.Thread):
    """Rotates again and again until it is stopped, and once at the least."""

    def __init__(self, folder: Path, settings: Path) -> None:
        super().__init__()
        self.command = ["logrotate", "--force", "--state", str(folder / "state"), str(settings)]
        self.stopped = threading.Event()
        self.failures: list[str] = []

    def run(self) -> None:
        while not self.stopped.is_set():
            done = subprocess.run(self.command, capture_output=True, text=True, timeout=TIMEOUT,
                                  check=False)
            # A name has seconds: within the same one there is nothing to do.
            errors = [line for line in done.stderr.splitlines() if "already exists" not in line]
            if done.returncode not in (0, 1) or errors:
                self.failures.append(done.stderr)


def read(path: Path) -> bytes:
    return gzip.decompress(path.read_bytes()) if path.suffix == ".gz" else path.read_bytes()


def test_no_record_is_lost_under_load(start, policy, tmp_path: Path) -> None:
    logs = tmp_path / "sales"
    logs.mkdir(mode=0o700)
    text = (ROOT / "deploy/kova-mcp.logrotate").read_text("utf-8")
    assert text.count(LOG) == 1 and text.count(ACCOUNT) == 1
    settings = tmp_path / "settings"
    settings.write_text(text.replace(LOG, f"{tmp_path}/*/audit.jsonl {{").replace(ACCOUNT, ""),
                        encoding="utf-8")
    settings.chmod(0o644)
    env: dict[str, Any] = {**policy(), "KOVA_MCP_AUDIT": logs / "audit.jsonl"}
    servers = [start(env=env, library=None) for _ in range(SERVERS)]
    names: list[str] = []
    deadline = time.monotonic() + TIMEOUT

    def work(number: int) -> None:
        servers[number].initialize()
        for one in itertools.count():
            if one >= CALLS and len(list(logs.iterdir())) > ROTATIONS:
                return
            assert time.monotonic() < deadline, rotation.failures
            name = f"call-{number}-{one}"
            reply = json.loads(servers[number].ask(call(name, "kova_list_databases", {})))
            assert reply["result"]["isError"] is False
            names.append(name)

    rotation = Rotation(tmp_path, settings)
    rotation.start()
    try:
        with ThreadPoolExecutor(SERVERS) as pool:
            list(pool.map(work, range(SERVERS)))
    finally:
        rotation.stopped.set()
        rotation.join()
    for server in servers:
        assert server.finish().code == 0
    assert rotation.failures == []
    files = list(logs.iterdir())
    assert any(path.suffix == ".gz" for path in files)
    found = [json.loads(line)["correlation_id"] for path in files
             for line in read(path).splitlines()]
    assert len(names) >= SERVERS * CALLS
    assert sorted(found) == sorted(names)
