"""A client library that the system cannot load: the call gets its reply, and nothing waits for
anybody to look at it."""

from __future__ import annotations

import shutil
from pathlib import Path
from typing import Callable, Iterator

import pytest

from harness.messages import call, tool_error_reply, tool_success_reply
from harness.servers import Servers
from harness.targets import Installation, Target
from harness.tool_calls import result_json

UNAVAILABLE = tool_error_reply("1", "authenticated Vantreo profile is unavailable")

ARM_64 = {True: b"\x64\xaa", False: b"\xb7\x00"}
"""A machine of 64 bits, too: as libraries of Windows number it, and as ELF does."""


def machine_at(target: Target, library: bytes) -> int:
    """Where a library says which machine it is made for."""
    if not target.windows:
        return 18
    signature = int.from_bytes(library[60:64], "little")
    assert library[signature:signature + 4] == b"PE\0\0"
    return signature + 4


def of_another_machine(target: Target, library: bytes) -> bytes:
    at = machine_at(target, library)
    assert library[at:at + 2] in (b"\x64\x86", b"\x3e\x00")
    return library[:at] + ARM_64[target.windows] + library[at + 2:]


def cut_in_its_header(target: Target, library: bytes) -> bytes:
    return library[:machine_at(target, library) + 1]


def without_a_signature(_target: Target, library: bytes) -> bytes:
    return b"\0\0" + library[2:]


@pytest.fixture
def own(target: Target, tmp_path: Path) -> Installation:
    return Installation(target, tmp_path / "own")


@pytest.fixture
def own_servers(target: Target, own: Installation, tmp_path: Path) -> Iterator[Servers]:
    """Servers beside a client library of this test's own."""
    made = Servers(target, own, tmp_path)
    yield made
    made.close()


@pytest.mark.parametrize("damage", [of_another_machine, cut_in_its_header, without_a_signature])
def test_a_call_gets_its_ordinary_reply(target, own, own_servers, engine, damage: Callable):
    place = own.executable("scripted").parent / target.library_name
    whole = place.with_name("whole")
    shutil.copy2(place, whole)
    place.write_bytes(damage(target, whole.read_bytes()))
    server = own_servers.start(env=engine.env)
    server.initialize()
    assert server.ask(call(1, "kova_list_tables")) == UNAVAILABLE
    assert engine.calls() == []
    shutil.copy2(whole, place)
    assert server.ask(call(2, "kova_list_tables")) == tool_success_reply("2", result_json())
