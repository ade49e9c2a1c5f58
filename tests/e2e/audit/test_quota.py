"""An audit file whose owner's quota is used up: replies and writes stay as they are, the file keeps
whole records alone, and they go on when there is room again."""

from __future__ import annotations

from pathlib import Path
from typing import Any, Iterator

import pytest

from harness.audit_files import records
from harness.messages import call, ping, pong, tool_success_reply
from harness.quotas import Quota, file_system_quota, injected_quota
from harness.tool_calls import filtered, result_json
from harness.write_calls import TOOL, WRITES, write_arguments

LISTED = filtered(["ORDERS", "ITEMS"])
PARTS = {"injected": 0, "injected, a part of a record fits": 100}
"""Quotas that are made for a Linux process, and the bytes that fit beyond them."""


def pytest_generate_tests(metafunc: pytest.Metafunc) -> None:
    kinds: "list[Any]" = ["of the file system"]
    if metafunc.config.getoption("--target") == "linux":
        # Sanitizers refuse to be loaded behind the library that injects it.
        kinds += [pytest.param(kind, marks=pytest.mark.shipped_build) for kind in PARTS]
    metafunc.parametrize("quota", kinds, indirect=True)


@pytest.fixture
def quota(request: pytest.FixtureRequest, tmp_path: Path) -> Iterator[Quota]:
    folder = tmp_path / "quota"
    folder.mkdir()
    if request.param in PARTS:
        yield injected_quota(folder, PARTS[request.param])
    else:
        with file_system_quota(folder) as made:
            yield made


def list_tables(server, raw_id: str, spelled: "str | None" = None) -> None:
    message = call("ID", "kova_list_tables").replace(b'"ID"', (spelled or raw_id).encode())
    assert server.ask(message) == tool_success_reply(raw_id, LISTED)


def list_tables_in_server(server, number: int) -> None:
    """An id with so many escapes has its call run in the server process."""
    list_tables(server, f'"{"A" * 17}{number}"', '"' + "\\u0041" * 17 + f'{number}"')
    assert server.ask(ping(f"after-{number}")) == pong(f'"after-{number}"')


def test_records_stop_and_go_on(start, policy, quota):
    server = start(env={**policy(), **quota.env, "KOVA_MCP_AUDIT": quota.audit})
    server.initialize()
    list_tables(server, "1")
    before = quota.audit.read_bytes()
    quota.use_up()
    for number in range(2, 5):
        list_tables(server, str(number))
    list_tables_in_server(server, 5)
    assert quota.audit.read_bytes() == before
    quota.give_room()
    list_tables(server, "6")
    list_tables_in_server(server, 7)
    assert [record["correlation_id"] for record in records(quota.audit)] == [
        "1", "6", "A" * 17 + "7"]
    result = server.finish()
    assert (result.stderr, result.code) == (b"", 0)


def test_a_write_is_done_and_reported_without_its_record(start, policy, engine, quota):
    server = start(env={**engine.env, **policy(**WRITES), **quota.env,
                        "KOVA_MCP_AUDIT": quota.audit})
    server.initialize()
    quota.audit.write_bytes(b"earlier\r\n")
    quota.use_up()
    for number in (1, 2):
        reply = server.ask(call(number, TOOL, write_arguments("DELETE FROM T")))
        assert reply == tool_success_reply(str(number), result_json())
        assert engine.queries() == [b"DELETE FROM T;"] * number
    assert quota.audit.read_bytes() == b"earlier\r\n"
