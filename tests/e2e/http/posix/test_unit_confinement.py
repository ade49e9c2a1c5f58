"""The listener under what the systemd unit allows of system calls, installed without systemd.

The filter is systemd's own list of calls, with its answers to the calls of the unit's other
restrictions; folders, accounts and control groups are not part of it.
"""

from __future__ import annotations

import ctypes
import errno
import functools
import json
import os
import re
import struct
import subprocess
from pathlib import Path
from typing import Any, Callable

import pytest

from harness.approval_tokens import SECRET, token_for
from harness.http_client import HttpListener
from harness.messages import call, notification
from harness.sample_engine import USER, Engine, read_database
from harness.targets import ROOT
from harness.waiting import TIMEOUT
from harness.write_calls import TOOL, write_arguments

pytestmark = pytest.mark.shipped_build

UNIT = ROOT / "deploy" / "kova-mcp-http@.service"
NUMBERS = Path("/usr/include/x86_64-linux-gnu/asm/unistd_64.h")

# linux/bpf_common.h, linux/seccomp.h, linux/prctl.h
LOAD, EQUAL, ANY_BIT, AND, RETURN = 0x20, 0x15, 0x45, 0x54, 0x06
ALLOW, ERROR = 0x7FFF0000, 0x00050000
NUMBER_PLACE, ARGUMENTS_PLACE = 0, 16
SET_NO_NEW_PRIVILEGES, SET_SECCOMP, FILTER_MODE = 38, 22, 2

WRITE_AND_EXECUTE, EXECUTE = 2 | 4, 4
FAMILIES = {"AF_UNIX": 1, "AF_INET": 2, "AF_INET6": 10}
NEW_NAMESPACES = 0x7E020080


def settings(name: str) -> list[str]:
    return re.findall(rf"^{name}=(.*)$", UNIT.read_text("utf-8"), re.MULTILINE)


@functools.cache
def calls_of(name: str) -> frozenset[str]:
    """The calls of one of systemd's sets, or the call itself."""
    if not name.startswith("@"):
        return frozenset({name})
    shown = subprocess.run(["systemd-analyze", "syscall-filter", name], capture_output=True,
                           text=True, timeout=TIMEOUT, check=True).stdout
    members = [line.strip() for line in shown.splitlines()[1:]]
    return frozenset().union(*(calls_of(one) for one in members if one and one[0] != "#"))


def allowed_calls() -> set[str]:
    allowed: set[str] = set()
    for line in settings("SystemCallFilter"):
        named = set().union(*(calls_of(name) for name in line.lstrip("~").split()))
        allowed = allowed - named if line.startswith("~") else allowed | named
    return allowed


def number_of() -> dict[str, int]:
    found = re.findall(r"^#define __NR_(\w+) (\d+)$", NUMBERS.read_text("ascii"), re.MULTILINE)
    return {name: int(number) for name, number in found}


def step(code: int, value: int, then: int = 0, otherwise: int = 0) -> bytes:
    """`then` and `otherwise` are how many steps are left out."""
    return struct.pack("HBBI", code, then, otherwise, value)


def argument(index: int) -> bytes:
    return step(LOAD, ARGUMENTS_PLACE + 8 * index)


def refused(number: int, error: int, *condition: bytes) -> list[bytes]:
    """One call, always or when the condition's last step goes on to the next one."""
    steps = [*condition, step(RETURN, ERROR | error), step(LOAD, NUMBER_PLACE)]
    return [step(EQUAL, number, 0, len(steps)), *steps]


def program() -> bytes:
    numbers = number_of()
    families = {FAMILIES[name] for line in settings("RestrictAddressFamilies")
                for name in line.split()}
    steps = [step(LOAD, NUMBER_PLACE)]
    # MemoryDenyWriteExecute
    steps += refused(numbers["mmap"], errno.EPERM, argument(2), step(AND, WRITE_AND_EXECUTE),
                     step(EQUAL, WRITE_AND_EXECUTE, 0, 1))
    steps += refused(numbers["mprotect"], errno.EPERM, argument(2), step(ANY_BIT, EXECUTE, 0, 1))
    # RestrictNamespaces: what cannot be looked at is said not to exist.
    steps += refused(numbers["clone3"], errno.ENOSYS)
    steps += refused(numbers["clone"], errno.EPERM, argument(0),
                     step(ANY_BIT, NEW_NAMESPACES, 0, 1))
    # RestrictAddressFamilies
    steps += refused(numbers["socket"], errno.EAFNOSUPPORT, argument(0),
                     *(step(EQUAL, family, len(families) - place)
                       for place, family in enumerate(sorted(families))))
    for name in sorted(allowed_calls() & set(numbers)):
        steps += [step(EQUAL, numbers[name], 0, 1), step(RETURN, ALLOW)]
    return b"".join([*steps, step(RETURN, ERROR | errno.EPERM)])


@pytest.fixture(scope="module")
def confine() -> Callable[[], None]:
    """What a new process calls before it becomes the server."""
    for name, value in (("MemoryDenyWriteExecute", "yes"), ("RestrictNamespaces", "yes"),
                        ("SystemCallErrorNumber", "EPERM")):
        assert settings(name) == [value]
    text = program()
    steps = ctypes.create_string_buffer(text, len(text))
    header = struct.pack("HxxxxxxP", len(text) // 8, ctypes.addressof(steps))
    prctl = ctypes.CDLL(None, use_errno=True).prctl
    prctl.argtypes = [ctypes.c_int, ctypes.c_ulong, ctypes.c_char_p, ctypes.c_ulong,
                      ctypes.c_ulong]

    def install() -> None:
        assert steps is not None  # It lives as long as this function.
        if (prctl(SET_NO_NEW_PRIVILEGES, 1, None, 0, 0)
                or prctl(SET_SECCOMP, FILTER_MODE, header, 0, 0)):
            os._exit(99)

    return install


REFUSED = """
import ctypes, errno, mmap, os, socket
library = ctypes.CDLL(None, use_errno=True)
def fails(error, work):
    try:
        work()
    except OSError as failure:
        assert failure.errno == error, failure
    else:
        raise AssertionError(work)
fails(errno.EPERM, lambda: os.chown("/tmp", -1, -1))
fails(errno.EPERM, lambda: os.setpriority(os.PRIO_PROCESS, 0, 19))
fails(errno.EPERM, lambda: mmap.mmap(-1, 4096, prot=mmap.PROT_WRITE | mmap.PROT_EXEC))
fails(errno.EAFNOSUPPORT, lambda: socket.socket(socket.AF_NETLINK, socket.SOCK_RAW))
for family in (socket.AF_UNIX, socket.AF_INET, socket.AF_INET6):
    socket.socket(family).close()
mmap.mmap(-1, 4096, prot=mmap.PROT_WRITE).close()
assert library.syscall(435, 0, 0) == -1 and ctypes.get_errno() == errno.ENOSYS
"""


def test_the_filter_refuses_what_the_unit_refuses(confine: Callable[[], None]) -> None:
    done = subprocess.run(["/usr/bin/python3", "-c", REFUSED], preexec_fn=confine, text=True,
                          capture_output=True, timeout=TIMEOUT, check=False)
    assert (done.returncode, done.stderr) == (0, "")


def result_of(got: bytes) -> Any:
    head, _, body = got.partition(b"\r\n\r\n")
    assert head.startswith(b"HTTP/1.1 200 "), got
    return json.loads(body)["result"]


def test_the_policy_is_checked_and_sessions_read_and_write(
        confine: Callable[[], None], http: Callable[..., HttpListener], start: Any, policy: Any,
        start_sample_engine: Callable[..., Engine], tmp_path: Path) -> None:
    engine = start_sample_engine()
    (tmp_path / "state").mkdir()
    named = {"database": "shop", "database_user": USER, "writes_enabled": True,
             "approval_required": True, "write_types": ["INSERT"], "write_tables": ["PARTS"],
             "allowed_tables": ["PARTS"], "denied_columns": [],
             "approval_state_directory": tmp_path / "state"}
    env = {**policy(**named), "KOVA_MCP_APPROVAL_SECRET": SECRET, **engine.profile(),
           "KOVA_MCP_AUDIT": tmp_path / "audit.jsonl"}
    checked = start("--check-policy", env=env, library="sample", prepare=confine).finish()
    assert (checked.code, checked.stderr) == (0, b"")
    listener = http(env, library="sample", prepare=confine)
    session = listener.open_session()
    listener.post_message(notification("notifications/initialized"), session)
    insert = "INSERT INTO PARTS VALUES (1, 'a');"
    token = token_for(insert, database="shop").text
    written = result_of(listener.post_message(call(1, TOOL, write_arguments(insert, token)),
                                              session))
    assert written["structuredContent"]["status"] == "1 row inserted", written
    read = result_of(listener.post_message(
        call(2, "kova_query", {"sql": "SELECT NAME FROM PARTS"}), session))
    assert read["structuredContent"]["rows"] == [["a"]], read
    assert read_database(engine.data / "shop.db", "SELECT * FROM PARTS") == [(1, "a")]
    assert len((tmp_path / "audit.jsonl").read_text("utf-8").splitlines()) == 2
    listener.stop()
