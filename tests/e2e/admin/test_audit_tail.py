"""kova-admin audit tail: follows a file while it grows and is rotated."""

from __future__ import annotations

import subprocess
import threading
from pathlib import Path
from typing import Iterator

import pytest

from harness.audit_logs import content, line, record
from harness.operator_desk import Desk
from harness.waiting import TIMEOUT


class Tail:
    """A running command whose lines are read as they come."""

    def __init__(self, desk: Desk, *arguments: "str | Path") -> None:
        self.process = subprocess.Popen(
            desk.command("audit", "tail", *arguments), env=desk.environment(),
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, start_new_session=True)
        self.lines: list[str] = []
        self.changed = threading.Condition()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self) -> None:
        for text in self.process.stdout:
            with self.changed:
                self.lines.append(text.decode().rstrip("\r\n"))
                self.changed.notify_all()

    def wait_for(self, count: int) -> list[str]:
        with self.changed:
            assert self.changed.wait_for(lambda: len(self.lines) >= count, TIMEOUT), self.lines
            return list(self.lines)

    def close(self) -> None:
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()


@pytest.fixture
def tail(desk: Desk) -> Iterator:
    started: list[Tail] = []

    def start(*arguments: "str | Path") -> Tail:
        started.append(Tail(desk, *arguments))
        return started[-1]

    yield start
    for one in started:
        one.close()


def append(path: Path, data: bytes) -> None:
    with open(path, "ab") as file:
        file.write(data)


def ids(lines: list[str]) -> list[str]:
    return [text.rsplit("id=", 1)[1] for text in lines]


def records(*numbers: int) -> bytes:
    return content(record(number, correlation_id=str(number)) for number in numbers)


def test_follows_across_rotations(desk: Desk, tail) -> None:
    file = desk.file("audit.jsonl", records(*range(1, 15)))
    running = tail(file)
    assert ids(running.wait_for(10)) == [str(number) for number in range(5, 15)]
    append(file, records(15))
    running.wait_for(11)
    rotated = desk.folder / "audit.jsonl-20261122"
    file.rename(rotated)
    append(rotated, records(16))
    append(file, records(17))
    running.wait_for(13)
    append(rotated, records(18))  # of a call that ended during the rotation
    append(file, records(19))
    assert sorted(ids(running.wait_for(15)[10:])) == ["15", "16", "17", "18", "19"]
    file.rename(desk.folder / "audit.jsonl-20261123")
    append(file, records(20))
    assert ids(running.wait_for(16))[-1] == "20"
    assert running.process.poll() is None


def test_a_line_is_shown_when_it_is_whole(desk: Desk, tail) -> None:
    file = desk.file("audit.jsonl", b"")
    running = tail(file)
    whole = line(record(1))
    append(file, records(0) + whole[:50])
    running.wait_for(1)
    append(file, whole[50:] + records(2))
    assert ids(running.wait_for(3)) == ["0", "3", "2"]


def test_a_file_that_is_emptied_in_place(desk: Desk, tail) -> None:
    file = desk.file("audit.jsonl", records(1, 2, 3))
    running = tail("--lines", "1", file)
    assert ids(running.wait_for(1)) == ["3"]
    file.write_bytes(records(4))
    assert ids(running.wait_for(2)) == ["3", "4"]


def test_what_a_line_says(desk: Desk, tail) -> None:
    file = desk.file("audit.jsonl", content([
        record(0), record(1, client="\x1b[31m\u202e", tool="kova_execute", decision="deny",
                          objects="", status="error", rows=0, bytes=0, duration=7)])
        + b"no record \x1b[2J\n" + b"y" * 200000 + b"\n")
    shown = tail(file).wait_for(4)
    assert shown[0] == ("2026-11-21T11:00:00.000Z  ok     allow              kova_query           "
                        "desk  policy-select  rows=3 bytes=119 ms=13 id=3")
    assert shown[1] == ("2026-11-21T11:00:01.000Z  error  deny               kova_execute         "
                        "\\x1B[31m\\u{202E}  -  rows=0 bytes=0 ms=7 id=3")
    assert shown[2] == "not readable: no record \\x1B[2J"
    assert shown[3] == "not readable: " + "y" * 120 + "..."


def test_a_missing_file(desk: Desk) -> None:
    result = desk.run("audit", "tail", desk.folder / "no.jsonl")
    assert (result.code, result.stdout) == (2, b"")
    assert b"no.jsonl: the file cannot be opened" in result.stderr
