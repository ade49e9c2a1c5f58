"""The engine's port: a text for the resolver and the library, a number or a name."""

from __future__ import annotations

import contextlib
import os
import socket
from pathlib import Path
from typing import Iterator

import pytest

from harness.listeners import LOOPBACK, Listener
from harness.sessions import check, connections


def test_a_port_of_6_characters(run, engine, own_listener):
    assert len(own_listener.port) == 5
    assert not check(run, {**engine.env, "KOVA_MCP_PORT": "0" + own_listener.port})
    assert engine.calls() == []
    assert check(run, {**engine.env, "KOVA_MCP_PORT": own_listener.port})
    assert connections(own_listener) == 1


@contextlib.contextmanager
def short_port() -> Iterator[str]:
    """A listening port of four digits, so that a fifth character fits."""
    for port in range(2000 + os.getpid() % 1000, 9999):
        with contextlib.suppress(OSError), socket.create_server((LOOPBACK, port)):
            yield str(port)
            return
    raise AssertionError("no free port")


@pytest.mark.parametrize("form, accepted", [
    ("{}", True), ("0{}", True), ("{}x", False), ("{}.", False), ("?", False)])
def test_a_port_is_what_the_resolver_knows(run, engine, form, accepted):
    with short_port() as port:
        assert check(run, {**engine.env, "KOVA_MCP_PORT": form.format(port)}) == accepted
    assert (len(engine.calls()) > 0) == accepted


@contextlib.contextmanager
def service(length: int) -> Iterator["tuple[str, Listener]"]:
    """A name of so many characters that this machine has for a port, and a listener there."""
    for text in Path("/etc/services").read_text(encoding="utf-8").splitlines():
        name, place = (text.partition("#")[0].split() + ["", ""])[:2]
        port, _, protocol = place.partition("/")
        if len(name) != length or protocol != "tcp" or int(port) < 1024:
            continue
        try:
            listener = Listener(int(port))
        except OSError:
            continue  # somebody else listens there
        with contextlib.closing(listener):
            yield name, listener
            return
    raise AssertionError("no service of this machine can be listened for")


def test_a_port_by_its_name(run, engine):
    """The library gets the name, as it was given."""
    with service(5) as (name, listener):
        assert socket.getservbyname(name, "tcp") == int(listener.port)
        assert check(run, {**engine.env, "KOVA_MCP_PORT": name})
        assert connections(listener) == 1
    assert engine.calls()[2].arguments == (b"instance", b"0", b"127.0.0.1", name.encode())


def test_a_port_by_a_name_of_6_characters(run, engine):
    with service(6) as (name, listener):
        assert socket.getservbyname(name, "tcp") == int(listener.port)
        assert not check(run, {**engine.env, "KOVA_MCP_PORT": name})
        assert connections(listener) == 0
    assert engine.calls() == []
