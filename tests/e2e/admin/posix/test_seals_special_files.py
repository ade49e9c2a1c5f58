"""kova-admin audit verify where a sealed name is no file that can be read."""

from __future__ import annotations

import json
import os
from pathlib import Path

from harness.audit_logs import record, write
from harness.operator_desk import Desk


def seal_of(file: "str | Path") -> bytes:
    made = {"file": str(file), "sha256": "a" * 64, "lines": 1, "first": None, "last": None,
            "blocks": ["b" * 64], "previous": None}
    return json.dumps(made).encode() + b"\n"


def test_a_pipe_and_a_device_are_missing(desk: Desk) -> None:
    pipe = desk.folder / "pipe"
    os.mkfifo(pipe)  # nobody writes to it
    for file in (pipe, "/dev/zero"):
        seals = desk.file("SEALS", seal_of(file))
        result = desk.run("audit", "verify", seals)
        assert (result.stdout.decode(), result.code) == (f"{file}: missing\n", 1)


def test_a_file_that_cannot_be_read_hides_no_other(desk: Desk) -> None:
    unreadable = "/proc/self/mem"  # can be opened, also by root, and not read
    seals = desk.file("SEALS", seal_of(unreadable))
    changed = write(desk.folder / "audit.jsonl-20261121", [record()])
    assert desk.run("audit", "seal", "--to", seals, changed).code == 0
    changed.write_bytes(b"x\n")
    result = desk.run("audit", "verify", seals)
    assert result.stdout.decode().splitlines() == [
        f"{unreadable}: the file cannot be read", f"{changed}: lines 1-1: does not hold"]
    assert (result.stderr, result.code) == (b"", 1)
