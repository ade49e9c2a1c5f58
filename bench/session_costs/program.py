"""What docs/scale.md plans with: memory, descriptors and processor time of listeners, sessions,
calls and proxies, the bytes of an audit record, and the connections of a call to the engine.

Needs the right to make namespaces, for the proxies.
"""

from __future__ import annotations

import argparse
import statistics
import sys
import tempfile
import threading
import time
from pathlib import Path
from typing import Any, Iterable

from common.measure import MIB, held, memory_kib, processor_seconds, waiting_sockets
from figures import record
from figures.conditions import Moment
from harness import privileges, several_hosts
from harness.http_client import HttpListener, HttpListeners
from harness.messages import call
from harness.policy_files import PolicyFiles
from harness.sales_engine import COUNT_ORDERS, SLOW, profile, sales_engine
from harness.servers import Servers
from harness.targets import Installation, Target
from harness.waiting import TIMEOUT, wait_until

LISTENERS = 4
SESSIONS = 16
CALLS = 400
PROXY_CALLS = 500
"""The listeners of deploy/several-hosts take 600 requests a minute."""
SETTLE_SECONDS = 1.0
CALLED = {"list": ("kova_list_tables", None), "query": (COUNT_ORDERS["name"], COUNT_ORDERS["args"])}

Costs = dict[str, float]
Opened = list[tuple[HttpListener, str]]
"""Each session with its listener."""


def memory_mib(pids: Iterable[int]) -> float:
    """The proportional set: what several processes map is shared among them."""
    return sum(memory_kib(pid)[0] for pid in pids) / MIB


def kernel_mib(pids: "list[int]") -> float:
    """Of one of them on average: page tables, and a kernel stack of 16 KiB for each thread."""
    def of_one(pid: int) -> int:
        lines = Path(f"/proc/{pid}/status").read_text("ascii").splitlines()
        fields = dict(line.split(":", 1) for line in lines)
        return int(fields["VmPTE"].split()[0]) + 16 * int(fields["Threads"])
    return statistics.mean(map(of_one, pids)) / MIB


def descriptors(pids: "list[int]") -> float:
    return float(held(pids)["descriptors"]) / len(pids)


def of_idle_ones(listeners: list[HttpListener], opened: Opened) -> Costs:
    """Opens the sessions."""
    pids = [listener.server.process.pid for listener in listeners]
    alone = memory_mib(pids)
    opened += [(listener, listener.open_session()) for listener in listeners
               for _ in range(SESSIONS)]
    sessions = [pid for listener in listeners for pid in listener.session_processes()]
    assert len(sessions) == LISTENERS * SESSIONS
    both = memory_mib(pids + sessions)
    return {"listener_mib": alone / LISTENERS, "session_mib": (both - alone) / len(sessions),
            "session_kernel_mib": kernel_mib(sessions),
            "listener_descriptors": descriptors(pids), "session_descriptors": descriptors(sessions)}


def of_calls(listener: HttpListener, session: str, audit: Path, engine_port: int) -> Costs:
    found = {}
    for name, (tool, arguments) in CALLED.items():
        bytes_before = audit.stat().st_size if audit.exists() else 0
        waiting = waiting_sockets(engine_port)
        used = tree_seconds(listener)
        for number in range(CALLS):
            got = listener.post_message(call(number, tool, arguments), session)
            assert got.startswith(b"HTTP/1.1 200 "), got
        found[f"{name}_ms"] = (tree_seconds(listener) - used) / CALLS * 1000
        found[f"{name}_record_bytes"] = (audit.stat().st_size - bytes_before) / CALLS
        found[f"{name}_connections"] = (waiting_sockets(engine_port) - waiting) / CALLS
    return found


def tree_seconds(listener: HttpListener) -> float:
    return sum(processor_seconds(pid)
               for pid in [listener.server.process.pid, *listener.session_processes()])


def of_workers(opened: Opened) -> Costs:
    """While one call of each of four sessions runs, which then end."""
    chosen = opened[:4]
    threads = [threading.Thread(target=one.post_message,
                                args=(call("slow", SLOW["name"], SLOW["args"]), name))
               for one, name in chosen]
    for thread in threads:
        thread.start()
    listener = chosen[0][0]
    wait_until(lambda: len(listener.server.workers()) == len(chosen), TIMEOUT, "the workers")
    time.sleep(SETTLE_SECONDS)
    workers = listener.server.workers()
    found = {"call_mib": memory_mib(workers) / len(workers), "call_kernel_mib": kernel_mib(workers),
             "call_descriptors": descriptors(workers)}
    for one, name in chosen:
        one.delete(name)
    for thread in threads:
        thread.join()
    return found


def of_proxies(folder: Path, target: Target) -> Costs:
    """Each request brings a connection of its own and a whole handshake: the dearest case."""
    folder.mkdir()
    server = Installation(target, folder / "installed").executable("sample")
    service = several_hosts.Service(folder, server,
                                    target.build / "sample" / "kova-sample-engine")
    try:
        [client] = service.clients_on("host-a", 1)
        pids = {"front": service.fronts["front-a"].proxy.pid,
                "host": service.hosts["host-a"].proxy.pid}
        before = {name: processor_seconds(pid) for name, pid in pids.items()}
        for _ in range(PROXY_CALLS):
            assert client.call("kova_list_tables")[0] == 200
        found = {f"{name}_proxy_ms": (processor_seconds(pid) - before[name]) / PROXY_CALLS * 1000
                 for name, pid in pids.items()}
        return {**found, **{f"{name}_proxy_mib": memory_mib([pid]) for name, pid in pids.items()}}
    finally:
        service.close()


def measured(build: Path, folder: Path) -> Costs:
    target = Target("linux", build, build / "no-prefix")
    servers = Servers(target, Installation(target, folder / "installed"), folder)
    (folder / "engine").mkdir()
    engines = sales_engine(build / "sample" / "kova-sample-engine", folder / "engine")
    engine = next(engines)
    make = HttpListeners(servers)
    audits = [folder / f"audit-{number}.jsonl" for number in range(LISTENERS)]
    try:
        variables: "dict[str, Any]" = profile(PolicyFiles(target, folder), engine)
        listeners = [make({**variables, "KOVA_MCP_AUDIT": audit}, library="sample")
                     for audit in audits]
        opened: Opened = []
        found = of_idle_ones(listeners, opened)
        found |= of_calls(*opened[0], audits[0], engine.port)
        found |= of_workers(opened)
    finally:
        make.close()
        servers.close()
        engine.stop()
    return found | of_proxies(folder / "hosts", target)


def main(arguments: "list[str]") -> int:
    parser = argparse.ArgumentParser(prog="bench/run costs", allow_abbrev=False)
    parser.add_argument("--build", type=Path, required=True, help="the build for Linux")
    parser.add_argument("--data", type=Path, required=True, help="the JSON file to be written")
    asked = parser.parse_args(arguments)
    reason = privileges.refusal("machines on a network of their own")
    if reason:
        print(f"bench/run costs: {reason}", file=sys.stderr)
        return 1
    began = Moment.now()
    with tempfile.TemporaryDirectory(prefix="costs-") as folder:
        found = measured(asked.build.resolve(), Path(folder))
    parameters = {"listeners": LISTENERS, "sessions": LISTENERS * SESSIONS, "calls": CALLS,
                  "proxy_calls": PROXY_CALLS}
    record.write(asked.data, record.document(began, parameters, {
        "costs": {name: round(value, 3) for name, value in found.items()}}))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
