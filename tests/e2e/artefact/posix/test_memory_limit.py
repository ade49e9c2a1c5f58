"""A process that is started with too little memory for its line buffer."""

from __future__ import annotations

import resource
import subprocess

import pytest

from harness.http_client import free_ports
from harness.waiting import TIMEOUT

pytestmark = pytest.mark.shipped_build

LINE_BUFFER = 1048578


def limited_to(size: int):
    """Limits the data of the process, and of each process that it starts, to this size."""
    return lambda: resource.setrlimit(resource.RLIMIT_DATA, (size, size))


@pytest.mark.parametrize("arguments", [
    [], ["--check-policy"], ["--check-config"], ["--issue-approval"], ["--tool-worker"],
    ["--http", "PORT"], ["--unknown"], ["--http"],
], ids=" ".join)
def test_without_memory_for_the_line_buffer_every_mode_ends_with_2(start, arguments):
    """The limit is two bytes less than the buffer, which is far more than the rest needs."""
    port = str(next(free_ports()))
    server = start(*[argument.replace("PORT", port) for argument in arguments],
                   prepare=limited_to(LINE_BUFFER - 2))
    assert server.wait() == 2
    assert server.finish().stdout == server.stderr == b""


@pytest.mark.parametrize("arguments", [[], ["--check-policy"]], ids=str)
def test_with_twice_that_memory_there_is_enough(start, arguments):
    assert start(*arguments, prepare=limited_to(2 * LINE_BUFFER)).finish().code == 0


@pytest.mark.parametrize("arguments", [[], ["--check-policy"], ["--issue-approval"]],
                         ids=" ".join)
def test_without_memory_for_its_line_buffer(target, arguments):
    """It ends at once, in each mode, without output."""
    limited = ["prlimit", "--data=1000000", *target.command(target.executable, arguments)]
    done = subprocess.run(limited, env=target.environment({}), capture_output=True,
                          stdin=subprocess.DEVNULL, timeout=TIMEOUT)
    assert (done.stdout, done.stderr, done.returncode) == (b"", b"", 2)
