"""The longest message on its way to a worker, also where a pipe cannot be enlarged for it."""

from __future__ import annotations

import subprocess
from pathlib import Path

import pytest

from harness.messages import call, ping, pong, tool_success_reply
from harness.targets import ROOT
from harness.tool_calls import filtered

SOURCE = ROOT / "tests" / "support" / "posix" / "refused_pipe_size.c"
LIMIT = 1048576
LISTED = filtered(["ORDERS", "ITEMS"])


def padded(message: bytes, length: int) -> bytes:
    """The message with blanks before its last brace, so long without its line feed."""
    return message[:-2] + b" " * (length - len(message) + 1) + message[-2:]


@pytest.fixture
def refused(tmp_path) -> Path:
    """What counts the refusals."""
    made = tmp_path / "refused"
    made.touch()
    return made


@pytest.fixture
def small_pipes(tmp_path, refused) -> "dict[str, Path]":
    """The environment in which every pipe stays as it is."""
    library = tmp_path / "refused_pipe_size.so"
    subprocess.run(["cc", "-std=c17", "-O2", "-Wall", "-Wextra", "-Werror", "-shared", "-fPIC",
                    "-o", str(library), str(SOURCE)], check=True)
    return {"LD_PRELOAD": library, "REFUSED_PIPE_SIZES": refused}


def expect_ordinary_replies(server) -> None:
    server.initialize()
    for number, length in enumerate([LIMIT, 100, LIMIT, 65536], start=1):
        message = padded(call(number, "kova_list_tables"), length)
        assert len(message) == length + 1
        assert server.ask(message) == tool_success_reply(str(number), LISTED)
        assert server.ask(ping(100 + number)) == pong(100 + number)


def test_a_call_of_the_longest_message(start, policy):
    expect_ordinary_replies(start(env=policy()))


@pytest.mark.shipped_build  # sanitizers refuse to be loaded behind the library that injects it
def test_a_call_of_the_longest_message_where_pipes_stay_small(start, policy, small_pipes, refused):
    expect_ordinary_replies(start(env={**policy(), **small_pipes}))
    # Of the two longest, and of 65,536 bytes with their line feed.
    assert refused.read_bytes() == b"xxx"
