"""Standard streams that another process has made non-blocking."""

from __future__ import annotations

import contextlib
import os
import subprocess
import threading
import time

from harness.messages import PARSE_ERROR
from harness.targets import Installation
from harness.waiting import TIMEOUT


def test_non_blocking_streams_are_waited_for(target, tmp_path):
    executable = Installation(target, tmp_path / "installed").executable(None)
    in_read, in_write = os.pipe()
    out_read, out_write = os.pipe()
    for end in (in_read, out_write):
        os.set_blocking(end, False)
    process = subprocess.Popen([str(executable)], stdin=in_read, stdout=out_write,
                               env=target.environment({}))
    os.close(in_read)
    os.close(out_write)
    count = 5000  # more than the pipes hold, so that the output is full and then the input empty
    writer = threading.Thread(target=write_all, args=(in_write, b"no message\n" * count))
    time.sleep(0.05)  # the server finds its input empty
    writer.start()
    time.sleep(0.1)  # and then its output full
    received = bytearray()
    try:
        while chunk := os.read(out_read, 1 << 20):
            received += chunk
        assert process.wait(TIMEOUT) == 0
    finally:
        process.kill()
        process.wait(TIMEOUT)
        writer.join()
        os.close(out_read)
    assert bytes(received) == PARSE_ERROR * count


def write_all(descriptor: int, data: bytes) -> None:
    with contextlib.suppress(BrokenPipeError):
        while data:
            data = data[os.write(descriptor, data):]
    os.close(descriptor)
