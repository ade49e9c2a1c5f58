"""kova-admin audit report: bounded memory and its rate, whatever the file holds."""

from __future__ import annotations

import os
import subprocess
import time
from pathlib import Path
from typing import Callable, Iterator

import pytest

from harness.audit_logs import line, record
from harness.operator_desk import Desk

MEMORY_LIMIT_KB = 160 * 1024
CHUNK = 1 << 20


def endless_line() -> Iterator[bytes]:
    for _ in range(300):
        yield b"x" * CHUNK


def distinct_everything(count: int = 200000) -> Iterator[bytes]:
    parts = line(record(client="CLIENT", tool="TOOL", objects="OBJECT", decision="DECISION"))
    for number in range(count):
        made = parts
        for word in (b"CLIENT", b"TOOL", b"OBJECT", b"DECISION"):
            made = made.replace(word, b"%s-%d" % (word, number))
        yield made


def long_writes() -> Iterator[bytes]:
    """Every value is as long as a line may be, and every record is a write."""
    for number in range(4000):
        client = f"{number}-" + "c" * 60000
        yield line(record(number * 3600 * 30, tool="kova_execute", client=client,
                          duration=number * 10 ** 12))


def wild_clocks() -> Iterator[bytes]:
    """Every record is a gap or a step back, in another year."""
    stamp = record()["timestamp"].encode()
    text = line(record())
    for number in range(150000):
        yield text.replace(stamp, b"%04d-%02d-11T11:00:00.000Z" % (
            1 + number * 7919 % 9999, 1 + number % 12))


@pytest.mark.shipped_build
@pytest.mark.parametrize("content", [endless_line, distinct_everything, long_writes, wild_clocks])
@pytest.mark.parametrize("form", ["json", "html"])
def test_memory_is_bounded(desk: Desk, content: Callable[[], Iterator[bytes]], form: str) -> None:
    output = desk.folder / "report"
    process = subprocess.Popen(
        desk.command("audit", "report", "--format", form, "--output", output, "-"),
        env=desk.environment(), stdin=subprocess.PIPE)
    assert process.stdin is not None
    for piece in content():
        process.stdin.write(piece)
    process.stdin.close()
    _, status, used = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    assert process.returncode == 0
    assert used.ru_maxrss < MEMORY_LIMIT_KB
    assert output.stat().st_size > 0


def best_of_three(command: list[str], environment: dict[str, str]) -> float:
    seconds = []
    for _ in range(3):
        begin = time.monotonic()
        subprocess.run(command, env=environment, stdout=subprocess.DEVNULL, check=True)
        seconds.append(time.monotonic() - begin)
    return min(seconds)


@pytest.mark.shipped_build
@pytest.mark.endurance
def test_the_rate_is_ten_times_that_of_jq(desk: Desk, tmp_path: Path) -> None:
    file = tmp_path / "audit.jsonl"
    with open(file, "wb") as out:
        for number in range(150000):
            out.write(line(record(number, correlation_id=str(number), duration=number % 997)))
    assert file.stat().st_size >= 40_000_000
    environment = desk.environment()
    ours = best_of_three(desk.command("audit", "report", "--format", "json", file), environment)
    others = best_of_three(["jq", "-c", ".", str(file)], environment)
    assert others >= 10 * ours, (others, ours)
