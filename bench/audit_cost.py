#!/usr/bin/env python3
"""What an audit record costs: the same calls with and without one, of one session and of sixteen.

    bench/audit_cost.py [EXECUTABLE] [CALLS]

Each session is a stdio server that is asked to describe no table: the call runs in its worker and
is refused before any database is needed, so that only the server is measured. Rounds with and
without a record alternate; the figures are the medians of milliseconds per call.
"""

from __future__ import annotations

import json
import os
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

ROUNDS = 5


def session(executable: str, env: "dict[str, str]", calls: int) -> None:
    with subprocess.Popen([executable], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          env=env) as server:
        assert server.stdin is not None and server.stdout is not None
        for number in range(calls):
            message = {"jsonrpc": "2.0", "id": number, "method": "tools/call",
                       "params": {"name": "kova_describe_table", "arguments": {}}}
            server.stdin.write(json.dumps(message).encode() + b"\n")
            server.stdin.flush()
            assert b'"isError":true' in server.stdout.readline()
        server.stdin.close()


def round_ms(executable: str, env: "dict[str, str]", sessions: int, calls: int) -> float:
    each = calls // sessions
    threads = [threading.Thread(target=session, args=(executable, env, each))
               for _ in range(sessions)]
    started = time.monotonic()
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return (time.monotonic() - started) * 1000 / (each * sessions)


def main() -> None:
    executable = sys.argv[1] if len(sys.argv) > 1 else "build/linux/kova-mcp"
    calls = int(sys.argv[2]) if len(sys.argv) > 2 else 800
    executable = str(Path(executable).resolve())
    with tempfile.TemporaryDirectory() as folder:
        audit = os.path.join(folder, "audit")
        plain = {"PATH": "/usr/bin:/bin"}
        for sessions in (1, 16):
            figures: "dict[str, list[float]]" = {"without": [], "with": []}
            for _ in range(ROUNDS):
                for name, env in (("without", plain), ("with", {**plain, "KOVA_MCP_AUDIT": audit})):
                    figures[name].append(round_ms(executable, env, sessions, calls))
            without, recorded = (statistics.median(figures[name]) for name in ("without", "with"))
            print(f"{sessions:2} sessions: {without:.2f} ms without a record, {recorded:.2f} ms "
                  f"with one, ratio {recorded / without:.2f}")
        records = Path(audit).read_bytes().count(b"\r\n")
        expected = sum(ROUNDS * (calls // sessions) * sessions for sessions in (1, 16))
        assert records == expected, f"{records} records of {expected} calls"


if __name__ == "__main__":
    main()
