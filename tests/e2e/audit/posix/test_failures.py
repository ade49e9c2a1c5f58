"""The audit file of POSIX systems: foreign locks, limits and full disks change no reply."""

from __future__ import annotations

import fcntl
import json
import resource

import pytest

from harness import audit_files
from harness.audit_calls import ServerWithOutputFile, in_server, in_worker
from harness.messages import call, ping, pong, tool_success_reply
from harness.tool_calls import filtered, result_json
from harness.write_calls import TOOL, WRITES, write_arguments

LISTED = filtered(["ORDERS", "ITEMS"])


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


def test_a_write_is_done_and_reported_under_a_file_size_limit(start, policy, engine, tmp_path):
    audit = tmp_path / "audit"
    earlier = b"x" * 998 + b"\r\n"
    audit.write_bytes(earlier)
    env = {**engine.env, **policy(**WRITES), "KOVA_MCP_AUDIT": audit}
    _, most = resource.getrlimit(resource.RLIMIT_FSIZE)
    server = start(env=env, prepare=lambda: (
        resource.setrlimit(resource.RLIMIT_FSIZE, (len(earlier), most))))
    server.initialize()

    def delete(number: int) -> None:
        reply = server.ask(call(number, TOOL, write_arguments("DELETE FROM T")))
        assert reply == tool_success_reply(str(number), result_json())
        assert engine.queries() == [b"DELETE FROM T;"] * number

    delete(1)
    assert audit.read_bytes() == earlier
    resource.prlimit(server.process.pid, resource.RLIMIT_FSIZE, (most, most))
    delete(2)
    record = audit.read_bytes().removeprefix(earlier)
    assert json.loads(record)["correlation_id"] == "2"


@pytest.mark.parametrize("made", [in_worker, in_server])
def test_a_full_disk_changes_no_reply(start, policy, made):
    server = start(env={**policy(), "KOVA_MCP_AUDIT": "/dev/full"})
    server.initialize()
    message, raw_id = made(1)
    assert server.ask(message) == tool_success_reply(raw_id, LISTED)
    result = server.finish()
    assert (len(result.lines), result.stderr, result.code) == (2, b"", 0)


@pytest.mark.parametrize("name", ["/dev/stdout", "/proc/self/fd/1"])
def test_no_record_goes_into_the_protocol_by_its_descriptor(target, policy, tmp_path, name):
    server = ServerWithOutputFile(target, tmp_path)
    env = {**policy(), "KOVA_MCP_AUDIT": name}
    for message, raw_id in (in_worker(1), in_server(2)):
        assert server.replies(env, message) == tool_success_reply(raw_id, LISTED)


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
