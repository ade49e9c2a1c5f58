"""How far kova-admin audit is, on a terminal."""

from __future__ import annotations

import os
import pty
import subprocess
import time

from harness.audit_logs import line, record
from harness.operator_desk import Desk
from harness.waiting import TIMEOUT

CLEARED = b"\r\x1b[K"


def run_until_shown(desk: Desk, *arguments: str, last: bytes = b"") -> bytes:
    """Feeds the command records until the progress is shown. What its standard error got."""
    ours, theirs = pty.openpty()
    environment = {**desk.environment(), "TERM": "xterm"}
    process = subprocess.Popen(desk.command("audit", *arguments, "-"), env=environment,
                               stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=theirs)
    os.close(theirs)
    os.set_blocking(ours, False)
    shown = b""
    end = time.monotonic() + TIMEOUT
    assert process.stdin is not None
    try:
        while b"MB/s" not in shown:
            assert time.monotonic() < end, shown
            process.stdin.write(line(record()) * 1000)
            shown += available(ours)
        process.stdin.write(last)
        process.stdin.close()
        assert process.wait(TIMEOUT) == 0
        return shown + rest(ours)
    finally:
        process.kill()
        process.wait()
        os.close(ours)


def available(terminal: int) -> bytes:
    try:
        return os.read(terminal, 1 << 16)
    except OSError:  # nothing yet, or the other end has gone
        return b""


def rest(terminal: int) -> bytes:
    """Whatever comes until the other end has gone: the system delivers it in its own time."""
    os.set_blocking(terminal, True)
    got = b""
    while piece := available(terminal):
        got += piece
    return got


def test_a_report_shows_how_far_it_is_and_cleans_up(desk: Desk) -> None:
    shown = run_until_shown(desk, "report", "--format", "json")
    assert shown.startswith(CLEARED) and shown.endswith(b" MB/s" + CLEARED), shown


def test_the_message_of_an_export_stands_alone(desk: Desk) -> None:
    shown = run_until_shown(desk, "export", "--to", "ecs", last=b"no record\n")
    text, message = shown.rsplit(CLEARED, 1)
    assert text.endswith(b" MB/s"), shown
    assert message.startswith(b"kova-admin: -: 1 of "), shown
    assert message.endswith(b" lines could not be read\r\n"), shown
