"""What an audit record costs: the same calls with and without one, of one session and of sixteen.

Each session is a stdio server that is asked to describe no table: the call runs in a worker and is
refused before any database is needed, so that only the server is measured. All sessions call at
once; those with an audit share one file. Rounds with and without take turns.
"""

from __future__ import annotations

import argparse
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack
from functools import partial
from pathlib import Path

import wine
from common.messages import line
from common.stdio import BUSY, Failed, Program
from figures import record
from figures.conditions import Moment
from figures.turns import by_turns
from harness.targets import Target

SESSIONS = (1, 16)
CALLS = {"linux": 320, "windows": 32}
"""Of all sessions in a round."""


def call(number: int) -> bytes:
    return line("tools/call", number, {"name": "kova_describe_table", "arguments": {}})


def ask(program: Program, calls: int) -> None:
    for number in range(calls):
        reply = program.exchange(call(number))
        while BUSY in reply:  # The worker of the last call has not ended yet.
            reply = program.exchange(call(number))
        if b'"isError":true' not in reply:
            raise Failed(f"unexpected reply: {reply[:200]!r}")


def milliseconds_a_call(target: Target, audit: "Path | None", sessions: int) -> float:
    """The start of the servers and their end are not counted."""
    each = CALLS[target.name] // sessions
    command = target.command(target.executable, [])
    with ExitStack() as stack:
        programs = [stack.enter_context(Program(command, target.environment(
            {"KOVA_MCP_AUDIT": audit}))) for _ in range(sessions)]
        for program in programs:
            program.initialize()
        pool = stack.enter_context(ThreadPoolExecutor(sessions))
        began = time.monotonic()
        for done in [pool.submit(ask, program, each) for program in programs]:
            done.result()
        return (time.monotonic() - began) * 1000 / (each * sessions)


def measured(target: Target, rounds: int) -> "list[dict[str, object]]":
    found: "list[dict[str, object]]" = []
    with tempfile.TemporaryDirectory(prefix="audit-") as folder, target.ready():
        audit = Path(folder) / "audit"
        for sessions in SESSIONS:
            times = by_turns({
                name: partial(milliseconds_a_call, target, path, sessions)
                for name, path in (("without", None), ("with", audit))}, rounds)
            found.append({"target": target.name, "sessions": sessions,
                          "without_ms": times["without"], "with_ms": times["with"]})
        records = audit.read_bytes().count(b"\r\n")
    each = CALLS[target.name]
    calls = sum((rounds + 1) * (each // sessions) * sessions for sessions in SESSIONS)
    if records != calls:
        raise Failed(f"{records} records of {calls} calls")
    return found


def main(arguments: "list[str]") -> int:
    parser = argparse.ArgumentParser(prog="bench/run audit", allow_abbrev=False)
    parser.add_argument("--build", type=Path, required=True, help="the folder of both builds")
    parser.add_argument("--rounds", type=int, default=20)
    parser.add_argument("--data", type=Path, required=True, help="the JSON file to be written")
    asked = parser.parse_args(arguments)
    began = Moment.now()
    try:
        found = [one for name in CALLS for one in measured(
            Target(name, asked.build.resolve() / name, wine.default_prefix()), asked.rounds)]
    except (Failed, OSError, wine.WineFailure) as failure:
        print(f"bench/run audit: {failure}", file=sys.stderr)
        return 1
    record.write(asked.data, record.document(began, {"rounds": asked.rounds}, {"calls": found}))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
