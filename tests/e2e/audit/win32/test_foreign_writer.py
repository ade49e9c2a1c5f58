"""The audit file of Windows while a foreign program writes to it."""

from __future__ import annotations

import contextlib
import json
import subprocess
from pathlib import Path
from typing import Iterator

from harness.messages import call, tool_success_reply
from harness.targets import Target
from harness.tool_calls import filtered
from harness.waiting import TIMEOUT, wait_until

LISTED = filtered(["ORDERS", "ITEMS"])


@contextlib.contextmanager
def held_by_a_writer(target: Target, path: Path) -> Iterator[None]:
    """Another program that has the file open for writing."""
    command = target.command(Path("cmd"), ["/c", f"more >> {target.path(path)}"])
    with subprocess.Popen(command, env=target.environment({}), stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as holder:
        wait_until(path.exists, TIMEOUT, "the holder's file")
        yield
        assert holder.stdin is not None
        holder.stdin.close()
        holder.wait(TIMEOUT)


def test_a_record_that_meets_a_foreign_writer_is_lost(start, target, policy, tmp_path):
    """At once: the call does not wait for the file."""
    audit = tmp_path / "audit"
    server = start(env={**policy(), "KOVA_MCP_AUDIT": audit})
    with held_by_a_writer(target, audit):
        assert server.ask(call(1, "kova_list_tables")) == tool_success_reply("1", LISTED)
    before = audit.read_bytes()
    assert b"correlation_id" not in before
    assert server.ask(call(2, "kova_list_tables")) == tool_success_reply("2", LISTED)
    assert json.loads(audit.read_bytes()[len(before):])["correlation_id"] == "2"
