#!/usr/bin/python3
"""Measures on this machine what docs/scale.md plans with: memory, descriptors and processor time of
listeners, sessions, calls and proxies, and the bytes of an audit record. Half a minute; needs the
Linux build and, for the proxies, the right to make namespaces.

    scripts/session_costs.py
"""

from __future__ import annotations

import os
import statistics
import sys
import tempfile
import threading
import time
from pathlib import Path
from typing import Iterable

ROOT = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(ROOT / "tests"), str(ROOT / "demo"), str(ROOT / "scripts")]

# pylint: disable=wrong-import-position
from harness import privileges, several_hosts  # noqa: E402
from harness.http_client import HttpListener, HttpListeners  # noqa: E402
from harness.messages import call  # noqa: E402
from harness.policy_files import PolicyFiles  # noqa: E402
from harness.sales_engine import COUNT_ORDERS, SLOW, profile, sales_engine  # noqa: E402
from harness.servers import Servers  # noqa: E402
from harness.targets import Installation, Target  # noqa: E402
from harness.waiting import TIMEOUT, wait_until  # noqa: E402

LISTENERS = 4
SESSIONS = 16
CALLS = 100
PRIVATE = ("Private_Clean", "Private_Dirty")
TICK = 1 / os.sysconf("SC_CLK_TCK")


def memory(pids: Iterable[int], kind: str = "Pss") -> float:
    """KiB; the proportional set shares what several processes map among them."""
    total = 0
    for pid in pids:
        for line in Path(f"/proc/{pid}/smaps_rollup").read_text("ascii").splitlines():
            if line.startswith(f"{kind}:"):
                total += int(line.split()[1])
    return total


def kernel_memory(pid: int) -> float:
    """KiB of page tables, and of the stacks that the kernel has for threads: sixteen each."""
    lines = Path(f"/proc/{pid}/status").read_text("ascii").splitlines()
    fields = dict(line.split(":", 1) for line in lines)
    return int(fields["VmPTE"].split()[0]) + 16 * int(fields["Threads"])


def descriptors(pid: int) -> int:
    return len(os.listdir(f"/proc/{pid}/fd"))


def processor_seconds(pid: int) -> float:
    """Of the process and of its children that have ended."""
    fields = Path(f"/proc/{pid}/stat").read_text("ascii").rpartition(")")[2].split()
    return sum(int(fields[number]) for number in range(11, 15)) * TICK


def show(name: str, value: float, unit: str) -> None:
    print(f"{name:52} {value:10.2f} {unit}")


def measure_idle(listeners: list[HttpListener]) -> list[tuple[HttpListener, str]]:
    pids = [listener.server.process.pid for listener in listeners]
    show("listener without sessions, proportional", memory(pids) / LISTENERS, "KiB")
    opened = [(listener, listener.open_session()) for listener in listeners
              for _ in range(SESSIONS)]
    sessions = [pid for listener in listeners for pid in listener.session_processes()]
    assert len(sessions) == LISTENERS * SESSIONS
    show(f"listener with {SESSIONS} sessions, proportional", memory(pids) / LISTENERS, "KiB")
    show("session after initialize, proportional", memory(sessions) / len(sessions), "KiB")
    show("all together, a session", memory(pids + sessions) / len(sessions), "KiB")
    show("session, private", sum(memory(sessions, kind) for kind in PRIVATE) / len(sessions), "KiB")
    show("page tables and kernel stacks of a session", kernel_memory(sessions[0]), "KiB")
    show(f"descriptors of a listener with {SESSIONS} sessions", descriptors(pids[0]), "")
    show("descriptors of a session", descriptors(sessions[0]), "")
    return opened


def measure_calls(opened: list[tuple[HttpListener, str]], audits: list[Path]) -> None:
    listener, session = opened[0]
    for tool, arguments in (("kova_list_tables", None), (COUNT_ORDERS["name"],
                                                        COUNT_ORDERS["args"])):
        before = audit_bytes(audits)
        seconds = [tree_seconds(listener)]
        began = time.monotonic()
        for number in range(CALLS):
            got = listener.post_message(call(number, tool, arguments), session)
            assert got.startswith(b"HTTP/1.1 200 "), got
        took = time.monotonic() - began
        seconds.append(tree_seconds(listener))
        show(f"{tool}: processor", (seconds[1] - seconds[0]) / CALLS * 1000, "ms")
        show(f"{tool}: from request to response, mean", took / CALLS * 1000, "ms")
        show(f"{tool}: audit record", (audit_bytes(audits) - before) / CALLS, "bytes")
    for one, name in opened:
        assert one.post_message(call("c", **{"tool": COUNT_ORDERS["name"],
                                             "arguments": COUNT_ORDERS["args"]}), name)
    sessions = [pid for one in {id(one): one for one, _ in opened}.values()
                for pid in one.session_processes()]
    show("session after a call, proportional", memory(sessions) / len(sessions), "KiB")


def tree_seconds(listener: HttpListener) -> float:
    return sum(processor_seconds(pid)
               for pid in [listener.server.process.pid, *listener.session_processes()])


def audit_bytes(audits: list[Path]) -> int:
    return sum(path.stat().st_size for path in audits if path.exists())


def measure_workers(opened: list[tuple[HttpListener, str]]) -> None:
    """While one call of each of four sessions runs."""
    chosen = opened[:4]
    threads = [threading.Thread(target=one.post_message,
                                args=(call("slow", SLOW["name"], SLOW["args"]), name))
               for one, name in chosen]
    for thread in threads:
        thread.start()
    listener = chosen[0][0]
    wait_until(lambda: len(listener.server.workers()) == len(chosen), TIMEOUT, "the workers")
    time.sleep(1)
    workers = listener.server.workers()
    show("worker of a call with the sample's client library", memory(workers) / len(workers), "KiB")
    show("descriptors of a worker", statistics.mean(map(descriptors, workers)), "")
    for one, name in chosen:
        one.delete(name)
    for thread in threads:
        thread.join()


def measure_proxies(folder: Path, target: Target) -> None:
    """Every request with a connection of its own and a whole handshake: the dearest case."""
    reason = privileges.refusal("machines on a network of their own")
    if reason:
        print(f"the proxies are not measured: {reason}")
        return
    folder.mkdir()
    server = Installation(target, folder / "installed").executable("sample")
    service = several_hosts.Service(folder, server,
                                    target.build / "sample" / "kova-sample-engine")
    try:
        [client] = service.clients_on("host-a", 1)
        pids = {"front's": service.fronts["front-a"].proxy.pid,
                "host's": service.hosts["host-a"].proxy.pid}
        before = {name: processor_seconds(pid) for name, pid in pids.items()}
        for _ in range(CALLS * 2):
            assert client.call("kova_list_tables")[0] == 200
        for name, pid in pids.items():
            took = (processor_seconds(pid) - before[name]) / (CALLS * 2)
            show(f"the {name} HAProxy: processor a request", took * 1000, "ms")
            show(f"the {name} HAProxy, proportional", memory([pid]) / 1024, "MiB")
    finally:
        service.close()


def main() -> None:
    build = ROOT / "build" / "linux"
    target = Target("linux", build, build / "no-prefix")
    with tempfile.TemporaryDirectory(prefix="kova-costs-") as name:
        folder = Path(name)
        servers = Servers(target, Installation(target, folder / "installed"), folder)
        (folder / "engine").mkdir()
        engines = sales_engine(build / "sample" / "kova-sample-engine", folder / "engine")
        engine = next(engines)
        make = HttpListeners(servers)
        audits = [folder / f"audit-{number}.jsonl" for number in range(LISTENERS)]
        try:
            variables = profile(PolicyFiles(target, folder), engine)
            listeners = [make({**variables, "KOVA_MCP_AUDIT": audit}, library="sample")
                         for audit in audits]
            opened = measure_idle(listeners)
            measure_calls(opened, audits)
            measure_workers(opened)
        finally:
            make.close()
            servers.close()
            engine.stop()
        measure_proxies(folder / "hosts", target)


if __name__ == "__main__":
    main()
