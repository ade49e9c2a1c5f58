"""What is read of processes."""

from __future__ import annotations

import os
import socket
import subprocess
import sys

from common import measure

CHILD = "import subprocess, sys; subprocess.run([sys.executable, '-c', 'input()'])"
ENDED = 2 ** 22 + 1
"""No process: numbers end at 2 to the power of 22."""


def test_a_family() -> None:
    with subprocess.Popen([sys.executable, "-c", f"print(flush=True); {CHILD}"],
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE) as process:
        assert process.stdin is not None and process.stdout is not None
        process.stdout.readline()
        while len(found := measure.family(process.pid)) < 2 and process.poll() is None:
            pass
        assert found[0] == process.pid and len(found) == 2
        process.stdin.close()
    assert measure.family(process.pid) == [process.pid]


def test_who_listens() -> None:
    with socket.create_server(("127.0.0.1", 0)) as server:
        port = server.getsockname()[1]
        assert measure.listens(os.getpid(), port)
        assert not measure.listens(os.getppid(), port) and not measure.listens(ENDED, port)
        with socket.create_connection(("127.0.0.1", port)) as client:
            server.accept()[0].close()
            assert not measure.listens(os.getpid(), client.getsockname()[1])
    assert not measure.listens(os.getpid(), port)


def test_processor_time() -> None:
    before = measure.processor_seconds(os.getpid())
    while measure.processor_seconds(os.getpid()) == before:
        sum(range(10000))
    assert before < measure.processor_seconds(os.getpid()) < before + 5


def test_an_ended_process_holds_nothing() -> None:
    assert measure.processor_seconds(ENDED) == 0
    assert measure.held([ENDED]) == {"processes": 1, "proportional_set_mib": 0.0,
                                     "private_written_mib": 0.0, "descriptors": 0}
