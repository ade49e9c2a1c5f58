"""An audit file on a disk that is full, that may not be written, or that takes a part of a record:
replies and writes stay as they are, and the file keeps whole records alone."""

from __future__ import annotations

from pathlib import Path
from typing import Iterator

import pytest

from harness.audit_files import records
from harness.messages import call, tool_success_reply
from harness.small_disks import remount, small_disk
from harness.tool_calls import filtered, result_json
from harness.write_calls import TOOL, WRITES, write_arguments

LISTED = filtered(["ORDERS", "ITEMS"])
BLOCK = 4096
"""Bytes that the file system gives to a file at a time."""
EARLIER_LENGTH = BLOCK - 150
"""So many that a record fits the file's block in part."""
EARLIER = b"x" * (EARLIER_LENGTH - 2) + b"\r\n"


class Disk:
    def __init__(self, folder: Path) -> None:
        self.folder = folder
        self.audit = folder / "audit"
        self._filler = folder / "filler"

    def fill(self) -> None:
        with open(self._filler, "wb", buffering=0) as filler:
            try:
                while filler.write(bytes(BLOCK)) == BLOCK:
                    pass
            except OSError:
                pass  # It is full.

    def empty(self) -> None:
        self._filler.unlink()


@pytest.fixture
def disk(tmp_path: Path) -> Iterator[Disk]:
    folder = tmp_path / "disk"
    folder.mkdir()
    with small_disk(folder, "size=64k"):
        yield Disk(folder)


def list_tables(server, number: int) -> None:
    assert server.ask(call(number, "kova_list_tables")) == tool_success_reply(str(number), LISTED)


def test_a_record_that_the_disk_takes_in_part_is_taken_back(start, policy, disk):
    disk.audit.write_bytes(EARLIER)
    server = start(env={**policy(), "KOVA_MCP_AUDIT": disk.audit})
    server.initialize()
    disk.fill()
    list_tables(server, 1)
    assert disk.audit.read_bytes() == EARLIER
    disk.empty()
    list_tables(server, 2)
    assert disk.audit.read_bytes().startswith(EARLIER)
    disk.audit.write_bytes(disk.audit.read_bytes()[len(EARLIER):])
    assert [record["correlation_id"] for record in records(disk.audit)] == ["2"]


def test_a_disk_that_may_not_be_written(start, policy, disk):
    server = start(env={**policy(), "KOVA_MCP_AUDIT": disk.audit})
    server.initialize()
    list_tables(server, 1)
    remount(disk.folder, "ro")
    list_tables(server, 2)
    remount(disk.folder, "rw")
    list_tables(server, 3)
    assert [record["correlation_id"] for record in records(disk.audit)] == ["1", "3"]


@pytest.mark.parametrize("how", ["full", "read-only"])
def test_a_write_is_done_and_reported_without_its_record(start, policy, engine, disk, how):
    """The statement has run when its record is written."""
    disk.audit.write_bytes(EARLIER)
    server = start(env={**engine.env, **policy(**WRITES), "KOVA_MCP_AUDIT": disk.audit})
    server.initialize()
    if how == "full":
        disk.fill()
    else:
        remount(disk.folder, "ro")
    reply = server.ask(call(1, TOOL, write_arguments("DELETE FROM T")))
    assert reply == tool_success_reply("1", result_json())
    assert engine.queries() == [b"DELETE FROM T;"]
    assert disk.audit.read_bytes() == EARLIER
