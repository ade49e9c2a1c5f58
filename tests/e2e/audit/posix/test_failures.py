"""The audit file of POSIX systems: foreign locks, limits and full disks change no reply."""

from __future__ import annotations

import fcntl
import json
import os
import resource
import subprocess
from pathlib import Path

import pytest

from harness import audit_files
from harness.messages import call, ping, pong, request, tool_success_reply
from harness.targets import Installation
from harness.tool_calls import filtered
from harness.waiting import TIMEOUT

LISTED = filtered(["ORDERS", "ITEMS"])


def in_server(number: int) -> "tuple[bytes, str]":
    """A call whose id has too many escapes for a worker; the server runs it itself."""
    request_id = f"in-server-call-{number:03}"
    escaped = "".join(f"\\u{ord(character):04x}" for character in request_id)
    return (call("ID", "kova_list_tables").replace(b'"ID"', f'"{escaped}"'.encode()),
            f'"{request_id}"')


def in_worker(number: int) -> "tuple[bytes, str]":
    return call(number, "kova_list_tables"), str(number)


@pytest.mark.parametrize("made", [in_worker, in_server])
def test_a_foreign_lock_delays_a_call_and_loses_nothing(start, policy, tmp_path, made):
    """Whoever holds it: the record is written after two seconds. One call is enough to see it."""
    audit = tmp_path / "audit"
    server = start(env={**policy(), "KOVA_MCP_AUDIT": audit})
    server.initialize()
    message, raw_id = made(1)
    with open(audit, "ab") as file:
        fcntl.flock(file, fcntl.LOCK_SH)
        assert server.ask(message) == tool_success_reply(raw_id, LISTED)
        assert server.ask(ping(2)) == pong(2)
        assert len(audit_files.records(audit)) == 1


@pytest.mark.parametrize("made", [in_worker, in_server])
def test_a_file_size_limit_changes_no_reply(start, policy, tmp_path, made):
    """The signal that goes with it would end the process that writes the record."""
    audit = tmp_path / "audit"
    full = 1000
    audit.write_bytes(b"x" * (full - 2) + b"\r\n")
    for limit in (full, full + 1, full + 200):
        server = start(env={**policy(), "KOVA_MCP_AUDIT": audit}, prepare=lambda: (
            resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))))
        server.initialize()
        for number in range(3):
            message, raw_id = made(number)
            assert server.ask(message) == tool_success_reply(raw_id, LISTED)
        result = server.finish()
        assert (len(result.lines), result.stderr, result.code) == (4, b"", 0)
        assert audit.stat().st_size == full  # a part of a record is taken back


@pytest.mark.parametrize("made", [in_worker, in_server])
def test_a_full_disk_changes_no_reply(start, policy, made):
    server = start(env={**policy(), "KOVA_MCP_AUDIT": "/dev/full"})
    server.initialize()
    message, raw_id = made(1)
    assert server.ask(message) == tool_success_reply(raw_id, LISTED)
    result = server.finish()
    assert (len(result.lines), result.stderr, result.code) == (2, b"", 0)


def replies_of(target, executable: Path, env, messages: bytes, output: Path) -> bytes:
    """What a server writes whose standard output is that file."""
    with open(output, "ab") as file:
        subprocess.run([str(executable)], input=messages, stdout=file, timeout=TIMEOUT, check=True,
                       env=target.environment(env), cwd=output.parent)
    return output.read_bytes()


@pytest.mark.parametrize("name", ["/dev/stdout", "/proc/self/fd/1", "output", "link", "hard"])
def test_no_record_goes_into_the_protocol(target, policy, tmp_path, name):
    """Neither the server's own nor one of a worker, whose standard output is another one."""
    executable = Installation(target, tmp_path / "installed").executable(None)
    output = tmp_path / "output"
    output.touch()
    (tmp_path / "link").symlink_to(output)
    os.link(output, tmp_path / "hard")
    audit = name if name.startswith("/") else tmp_path / name
    env = {**policy(), "KOVA_MCP_AUDIT": audit}
    # One call a server: a second one that comes while the first runs is refused as busy.
    for message, raw_id in (in_worker(1), in_server(2)):
        output.write_bytes(b"")
        got = replies_of(target, executable, env, request("initialize", "init", {}) + message,
                         output)
        assert got.partition(b"\n")[2] == tool_success_reply(raw_id, LISTED)


def test_no_record_goes_into_a_protocol_pipe(start, policy):
    server = start(env={**policy(), "KOVA_MCP_AUDIT": "/dev/stdout"})
    server.initialize()
    for message, raw_id in (in_worker(1), in_server(2)):
        assert server.ask(message) == tool_success_reply(raw_id, LISTED)
    assert len(server.finish().lines) == 3


def test_standard_error_may_be_the_audit_file(start, policy):
    server = start(env={**policy(), "KOVA_MCP_AUDIT": "/dev/stderr"})
    server.initialize()
    for message, raw_id in (in_worker(1), in_server(2)):
        assert server.ask(message) == tool_success_reply(raw_id, LISTED)
    result = server.finish()
    found = [json.loads(text)["correlation_id"] for text in result.stderr.split(b"\r\n")[:-1]]
    assert found == ["1", "in-server-call-002"]
