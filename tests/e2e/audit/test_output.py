"""An audit file that is the server's own standard output: no record goes into the protocol."""

from __future__ import annotations

import os

import pytest

from harness.audit_calls import ServerWithOutputFile, in_server, in_worker
from harness.audit_files import records
from harness.messages import tool_success_reply
from harness.tool_calls import filtered

LISTED = filtered(["ORDERS", "ITEMS"])


@pytest.fixture
def server(target, tmp_path) -> ServerWithOutputFile:
    return ServerWithOutputFile(target, tmp_path)


@pytest.mark.parametrize("name", ["output", "link", "hard"])
def test_no_record_goes_into_the_protocol(server, policy, tmp_path, name):
    """Neither the server's own nor one of a worker, whose standard output is another one."""
    (tmp_path / "link").symlink_to(server.output)
    os.link(server.output, tmp_path / "hard")
    env = {**policy(), "KOVA_MCP_AUDIT": tmp_path / name}
    for message, raw_id in (in_worker(1), in_server(2)):
        assert server.replies(env, message) == tool_success_reply(raw_id, LISTED)


def test_another_file_beside_it_gets_the_records(server, policy, tmp_path):
    env = {**policy(), "KOVA_MCP_AUDIT": tmp_path / "audit"}
    for message, raw_id in (in_worker(1), in_server(2)):
        assert server.replies(env, message) == tool_success_reply(raw_id, LISTED)
    found = [record["correlation_id"] for record in records(tmp_path / "audit")]
    assert found == ["1", "in-server-call-002"]
