"""The audit file under load: every call with a reply has its record, whole, whoever else writes.

A call of most ids runs in a worker process; one whose id is spelled in escapes runs in the server
itself. The latter start no process, so that their writers meet in the file far more often.
"""

from __future__ import annotations

import json
import os
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Callable, Iterator

import pytest

from harness import audit_files
from harness.messages import call, ping
from harness.waiting import TIMEOUT, wait_until

pytestmark = pytest.mark.slow

SESSIONS = 16
CALLS = 2048
WORKER_CALL_EVERY = {"linux": 2, "windows": 8}
"""Of how many calls one runs in a worker: a process takes Wine 20 times as long."""

Ask = Callable[[bytes], bytes]


def call_in_server(request_id: str) -> bytes:
    """A call whose id is beyond what the server reads ahead, and so beyond a worker."""
    assert len(request_id) == 18
    escaped = "".join(f"\\u{ord(character):04x}" for character in request_id)
    return call("ID", "kova_list_tables").replace(b'"ID"', f'"{escaped}"'.encode())


def until_idle(ask: Ask) -> None:
    """The reply to a call in the server comes before its record is written; a later message is read
    after it. A worker's call may occupy the server for a while after the reply: it refuses a ping
    then, and drops a call whose id it does not read ahead."""
    wait_until(lambda: b'"code":-32000' not in ask(ping("idle")), TIMEOUT, "the end of the call")


class Load:
    """Sessions that list tables; the policy holds the result, so that no engine slows them down."""

    def __init__(self, windows: bool) -> None:
        self.every = WORKER_CALL_EVERY["windows" if windows else "linux"]
        self.answered: list[str] = []
        self._lock = threading.Lock()

    def one_call(self, ask: Ask, session: int, number: int) -> None:
        request_id = f"session-{session:03}-{number:06}"
        in_worker = number % self.every == 0
        reply = json.loads(ask(call(request_id, "kova_list_tables") if in_worker
                               else call_in_server(request_id)))
        assert reply["id"] == request_id and reply["result"]["isError"] is False, reply
        with self._lock:
            self.answered.append(request_id)
        if in_worker:
            until_idle(ask)

    def run(self, asks: "list[Ask]", calls: int = CALLS) -> None:
        """All sessions call at once."""
        def busy(session: int) -> None:
            for number in range(-(-calls // len(asks))):
                self.one_call(asks[session], session, number)
            until_idle(asks[session])
        with ThreadPoolExecutor(len(asks)) as pool:
            for done in [pool.submit(busy, session) for session in range(len(asks))]:
                done.result()

    def run_beside(self, quiet: Ask, busy: "list[Ask]") -> int:
        """One session that calls now and then while the others call; the number of its calls. All
        are workers': a server takes only so many ids itself, and the load takes its time."""
        count = 0
        with ThreadPoolExecutor(1) as pool:
            load = pool.submit(self.run, busy)
            while not load.done():
                self.one_call(quiet, SESSIONS, count * self.every)
                count += 1
                time.sleep(0.05)
            load.result()
        until_idle(quiet)
        return count

    def expect_every_record(self, files: "list[Path]") -> None:
        found = [record["correlation_id"] for file in files
                 for record in audit_files.records(file)]
        assert len(self.answered) >= CALLS
        missing = set(self.answered) - set(found)
        assert not missing, f"{len(missing)} of {len(self.answered)} calls have no record"
        assert sorted(found) == sorted(self.answered)


class Rotation:
    """Renames the audit file again and again."""

    def __init__(self, audit: Path) -> None:
        self.audit = audit
        self.files: list[Path] = []
        self._stopped = threading.Event()
        self._thread = threading.Thread(target=self._run)

    def __enter__(self) -> "Rotation":
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._stopped.set()
        self._thread.join()

    def _run(self) -> None:
        while not self._stopped.wait(0.002):
            renamed = self.audit.with_name(f"audit.{len(self.files)}")
            try:
                os.rename(self.audit, renamed)
            except FileNotFoundError:
                continue
            self.files.append(renamed)

    def all_files(self) -> "list[Path]":
        return [*self.files, self.audit]


@pytest.fixture
def audit(tmp_path: Path) -> Path:
    return tmp_path / "audit"


@pytest.fixture
def load(target) -> Load:
    return Load(target.windows)


@pytest.fixture(params=["stdio", "http"])
def asks(request, start, http, policy, audit) -> "Iterator[list[Ask]]":
    """Sixteen sessions: as many servers, or the sessions of one listener."""
    env = {**policy(), "KOVA_MCP_AUDIT": audit}
    if request.param == "stdio":
        servers = [start(env=env) for _ in range(SESSIONS)]
        for server in servers:
            server.initialize()
        yield [server.ask for server in servers]
        return
    endpoint = http(env)

    def asking(session: str) -> Ask:
        return lambda message: endpoint.post_message(message, session).partition(b"\r\n\r\n")[2]
    sessions = [endpoint.open_session() for _ in range(SESSIONS)]
    yield [asking(session) for session in sessions]
    for session in sessions:
        endpoint.delete(session)


def test_every_call_of_sixteen_sessions_has_its_record(asks, load, audit):
    load.run(asks)
    load.expect_every_record([audit])


def test_a_quiet_session_beside_fifteen_busy_ones_loses_none(asks, load, audit):
    assert load.run_beside(asks[0], asks[1:]) > 0
    load.expect_every_record([audit])


@pytest.mark.parametrize("one_is_quiet", [False, True])
def test_no_record_is_lost_while_the_file_is_renamed_again_and_again(asks, load, audit,
                                                                     one_is_quiet):
    with Rotation(audit) as rotation:
        if one_is_quiet:
            assert load.run_beside(asks[0], asks[1:]) > 0
        else:
            load.run(asks)
    assert len(rotation.files) > 0
    load.expect_every_record(rotation.all_files())
