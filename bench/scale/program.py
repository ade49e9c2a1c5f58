"""Many sessions behind HAProxy: idle, used for a while, and ended."""

from __future__ import annotations

import argparse
import json
import resource
import subprocess
import sys
import tempfile
import time
from collections import Counter
from pathlib import Path
from typing import Any

from common import measure
from figures import markdown, record, samples, scale_tables
from figures.conditions import Moment
from harness import audit_files
from harness.http_client import TOKEN
from harness.waiting import wait_until
from scale.stage import CHOSEN, Stage

SESSIONS_OF_A_LISTENER = 16
WEIGHTS = {"policy-answered call": 93.0, "query": 5.0, "cancelled query": 0.5,
           "leaves and comes anew": 1.5}
SAMPLE_SECONDS = 5.0
SETTLE_SECONDS = 2.0
DESCRIPTORS = 16384
END_LIMIT = 60.0


def parse(arguments: "list[str]") -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="bench/run scale", allow_abbrev=False)
    parser.add_argument("--build", type=Path, required=True, help="the build for Linux")
    parser.add_argument("--data", type=Path, required=True, help="the JSON file to be written")
    parser.add_argument("--seconds", type=float, default=600.0)
    parser.add_argument("--listeners", type=int, default=64)
    parser.add_argument("--rate", type=float, default=200.0,
                        help="policy-answered calls a second, of all clients")
    parser.add_argument("--client-processes", type=int, default=2)
    parser.add_argument("--seed", default="1")
    return parser.parse_args(arguments)


class Clients:
    """The processes of clients."""

    def __init__(self, wishes: "list[dict[str, Any]]") -> None:
        self.processes = [subprocess.Popen([sys.executable, "-m", "scale.clients"], text=True,
                                           stdin=subprocess.PIPE, stdout=subprocess.PIPE)
                          for _ in wishes]
        for process, wish in zip(self.processes, wishes):
            self._tell(process, json.dumps(wish))

    @staticmethod
    def _tell(process: "subprocess.Popen[str]", line: str) -> None:
        assert process.stdin is not None
        process.stdin.write(line + "\n")
        process.stdin.flush()

    def begin(self) -> None:
        """The next phase."""
        for process in self.processes:
            self._tell(process, "")

    def results(self) -> "list[dict[str, Any]]":
        """Of the phase that was begun; waits for it."""
        found = []
        for process in self.processes:
            assert process.stdout is not None
            line = process.stdout.readline()
            if not line:
                raise RuntimeError("a process of clients has failed")
            found.append(json.loads(line))
        return found

    def end(self) -> None:
        for process in self.processes:
            process.kill()
            process.wait()


def parameters(asked: argparse.Namespace) -> dict[str, Any]:
    sessions = asked.listeners * SESSIONS_OF_A_LISTENER
    lists = WEIGHTS["policy-answered call"] / sum(WEIGHTS.values())
    return {"listeners": asked.listeners, "sessions": sessions, "seconds": asked.seconds,
            "policy_answered_calls_a_second": asked.rate, "weights": WEIGHTS,
            "think_seconds": round(sessions * lists / asked.rate, 3),
            "client_processes": asked.client_processes, "seed": asked.seed, **CHOSEN}


def wishes(asked: argparse.Namespace, chosen: dict[str, Any],
           stage: Stage) -> "list[dict[str, Any]]":
    count = asked.client_processes
    shares = [chosen["sessions"] // count + (number < chosen["sessions"] % count)
              for number in range(count)]
    common = {"port": stage.front.port, "certificate": str(stage.front.certificate),
              "token": TOKEN, "seed": asked.seed, "seconds": asked.seconds,
              "think": chosen["think_seconds"], "weights": list(WEIGHTS.values())}
    return [{**common, "name": f"{chr(ord('a') + number)}", "clients": share}
            for number, share in enumerate(shares)]


def idle_phase(stage: Stage, clients: Clients) -> dict[str, Any]:
    began = time.monotonic()
    opened = clients.results()
    seconds = round(time.monotonic() - began, 2)
    time.sleep(SETTLE_SECONDS)
    return {"opening_seconds": seconds, "servers": stage.servers_hold(),
            "haproxy": stage.front_holds(), "engine": stage.engine_holds(),
            "counts": _sum(opened), "faults": _faults(opened)}


def load_phase(stage: Stage, clients: Clients, seconds: float) -> dict[str, Any]:
    """Measures while the clients are at work."""
    used = stage.processor_seconds()
    began = time.monotonic()
    clients.begin()
    held = []
    while (left := began + seconds - time.monotonic()) > 0:
        time.sleep(min(SAMPLE_SECONDS, left))
        held.append({"second": round(time.monotonic() - began, 1), **stage.servers_hold(),
                     "haproxy": stage.front_holds(), "engine": stage.engine_holds()})
    found = clients.results()
    took = time.monotonic() - began
    lists = [value for part in found for value in part["latencies"]]
    queries = [value for part in found for value in part["query_latencies"]]
    after = stage.processor_seconds()
    return {"took_seconds": round(took, 2),
            "policy_answered_calls_a_second": round(len(lists) / took, 1),
            "policy_answered_call": samples.latency(lists), "query": samples.latency(queries),
            "queries": len(queries), "cancelled": sum(len(part["cancelled"]) for part in found),
            "highest": {key: max(sample[key] for sample in held) for key in
                        ("processes", "descriptors", "proportional_set_mib",
                         "private_written_mib")},
            "processor_seconds": {key: round(after[key] - used[key], 1) for key in used},
            "counts": _sum(found), "faults": _faults(found), "samples": held,
            "ids": {kind: [name for part in found for name in part[kind]]
                    for kind in ("answered", "cancelled")}}


def audit_of(stage: Stage, ids: "dict[str, list[str]]") -> dict[str, int]:
    """A cancelled call has a record only if it was finished already."""
    recorded = Counter(record["correlation_id"] for record in audit_files.records(stage.audit))
    for name in ids["cancelled"]:
        recorded.pop(name, None)
    answered = set(ids["answered"])
    return {"answered": len(ids["answered"]), "records": sum(recorded.values()),
            "missing": len(answered - set(recorded)), "unasked": len(set(recorded) - answered),
            "twice": sum(count > 1 for count in recorded.values())}


def _sum(parts: "list[dict[str, Any]]") -> dict[str, int]:
    total: Counter[str] = Counter()
    for part in parts:
        total.update(part["counts"])
    return dict(sorted(total.items()))


def _faults(parts: "list[dict[str, Any]]") -> "list[str]":
    return [fault for part in parts for fault in part["faults"]]


def play(asked: argparse.Namespace, folder: Path) -> dict[str, Any]:
    chosen = parameters(asked)
    began = Moment.now()
    stage = Stage(asked.build.resolve(), folder, asked.listeners)
    clients = None
    try:
        empty = stage.servers_hold()
        clients = Clients(wishes(asked, chosen, stage))
        idle = idle_phase(stage, clients)
        load = load_phase(stage, clients, asked.seconds)
        time.sleep(SETTLE_SECONDS)  # The record of the last call follows its reply.
        clients.begin()
        leaving = clients.results()
        listeners = len(stage.listeners)
        wait_until(lambda: len(measure.of_executable(stage.executable)) <= listeners, END_LIMIT,
                   "the end of the sessions")
        ended = stage.servers_hold()
        audit = audit_of(stage, load.pop("ids"))
    finally:
        if clients is not None:
            clients.end()
        left = stage.close()
    phases = [idle["counts"], load["counts"], _sum(leaving)]
    return record.document(began, chosen, {
        "listeners_alone": empty, "idle": idle, "load": load, "ended": ended, "audit": audit,
        **{name: sum(phase.get(key, 0) for phase in phases) for name, key in
           {"initializes": "initializes", "refused_initializes": "refused initializes",
            "wrong": "wrong", "lost": "lost"}.items()},
        "faults": idle["faults"] + load["faults"] + _faults(leaving),
        "left": {"sessions and workers": ended["processes"] - listeners, **left}})


def is_sound(data: dict[str, Any]) -> bool:
    """No answer wrong or lost, a record for each, and nothing left."""
    audit = data["audit"]
    return (data["wrong"] == data["lost"] == audit["missing"] == audit["unasked"] == audit["twice"]
            == sum(data["left"].values()) == 0 and audit["records"] == audit["answered"] > 0)


def main(arguments: "list[str]") -> int:
    asked = parse(arguments)
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, DESCRIPTORS), hard))
    with tempfile.TemporaryDirectory(prefix="scale-") as folder:
        data = play(asked, Path(folder))
    record.write(asked.data, data)
    print(markdown.table(("", ""), scale_tables.rows(data)))
    if is_sound(data):
        return 0
    print("\n".join(["bench/run scale: an answer, a record or an end is not as it should be",
                     *data["faults"]]), file=sys.stderr)
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
