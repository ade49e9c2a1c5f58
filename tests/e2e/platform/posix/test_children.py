"""Children of a server on Linux: what file they run, and that they end with who started them."""

from __future__ import annotations

import contextlib
import os
import resource
import shutil
import signal
import struct
import subprocess
from pathlib import Path

import pytest

from harness.http_client import HttpListeners, ok_response
from harness.messages import WORKER_FAILED, call, ping, pong, request, tool_success_reply
from harness.scripted_library import Script
from harness.servers import Server, Servers
from harness.targets import Installation
from harness.tool_calls import filtered, result_json
from harness.waiting import TIMEOUT, wait_until

LISTED = filtered(["ORDERS", "ITEMS"])
NOBODY = 65534


# an upgrade


def install_over(executable: Path, content: bytes) -> None:
    """As a package manager does: the new file takes the old one's name in one step."""
    new = executable.with_name("new")
    new.write_bytes(content)
    new.chmod(0o755)
    new.rename(executable)


@pytest.fixture
def own(target, tmp_path) -> "Installation":
    return Installation(target, tmp_path / "own")


def test_calls_go_on_while_the_executable_is_replaced(target, own, engine, tmp_path):
    """With the file that the server was started from, and with the library beside it."""
    engine.script(Script().on_exec("list table;"))
    server = Server(target, executable := own.executable("scripted"), [], engine.env, tmp_path)
    try:
        assert server.ask(call(1, "kova_list_tables")) == tool_success_reply("1", result_json())
        install_over(executable, b"#!/bin/sh\necho replaced\n")
        for number in (2, 3):
            reply = server.ask(call(number, "kova_list_tables"))
            assert reply == tool_success_reply(str(number), result_json())
        executable.unlink()
        assert server.ask(call(4, "kova_list_tables")) == tool_success_reply("4", result_json())
        assert server.finish().code == 0
    finally:
        server.close()


def test_sessions_are_opened_while_the_executable_is_replaced(target, own, policy, tmp_path):
    servers = Servers(target, own, tmp_path)
    listeners = HttpListeners(servers)
    try:
        endpoint = listeners(policy())
        old = endpoint.open_session()
        install_over(own.executable("scripted"), b"#!/bin/sh\necho replaced\n")
        for session in (old, endpoint.open_session()):
            reply = endpoint.post_message(call(2, "kova_list_tables"), session)
            assert reply == ok_response(session, tool_success_reply("2", LISTED))
    finally:
        listeners.close()
        servers.close()


def test_children_are_called_by_the_executable_s_name(start, engine):
    engine.script(Script().on_exec("list table;", hang=True))
    server = start(env=engine.env)
    server.send(call(1, "kova_list_tables"))
    engine.wait_for_statement("list table;")
    [worker] = server.workers()
    assert Path(f"/proc/{worker}/comm").read_text("utf-8") == "kova-mcp\n"
    arguments = Path(f"/proc/{worker}/cmdline").read_bytes().split(b"\0")
    assert Path(os.fsdecode(arguments[0])).name == "kova-mcp" and arguments[1:] == [
        b"--tool-worker", b""]
    server.send(b'{"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":1}}\n')
    server.read_line()


# the end of the parent


def give_capability(executable: Path) -> None:
    """cap_net_bind_service=ep, as setcap writes it."""
    revision_2, effective, bind = 0x02000000, 1, 1 << 10
    data = struct.pack("<5I", revision_2 | effective, bind, 0, 0, 0)
    os.setxattr(executable, "security.capability", data)


def as_nobody() -> None:
    os.setgroups([])
    os.setresgid(NOBODY, NOBODY, NOBODY)
    os.setresuid(NOBODY, NOBODY, NOBODY)


def reachable_folder() -> Path:
    """pytest's own folders are closed to other accounts."""
    folder = Path(subprocess.check_output(["mktemp", "-d"], text=True).strip())
    folder.chmod(0o755)
    return folder


@contextlib.contextmanager
def capable_installation(target):
    """The executable with a capability, or the reason why there can be none."""
    if os.geteuid() != 0:
        pytest.skip("only root can give a file capabilities; PrepareProcess tests the code")
    folder = reachable_folder()
    try:
        installation = Installation(target, folder)
        executable = installation.executable("scripted")
        try:
            give_capability(executable)
        except OSError as error:
            pytest.skip(f"no capabilities in {folder}: {error}; PrepareProcess tests the code")
        yield folder, installation
    finally:
        shutil.rmtree(folder)


def capabilities(pid: int) -> int:
    status = Path(f"/proc/{pid}/status").read_text("utf-8").splitlines()
    [line] = [line for line in status if line.startswith("CapEff:")]
    return int(line.split()[1], 16)


def test_a_worker_ends_with_a_server_that_has_a_capability(target, engine, tmp_path):
    """The kernel forgets the signal of the parent's end when it executes such a file."""
    with capable_installation(target) as (folder, installation):
        script = folder / "script"
        script.write_text(Script().on_exec("list table;", hang=True).text(), "ascii")
        log = folder / "log"
        log.touch()
        log.chmod(0o666)
        env = {**engine.env, "SCRIPTED_LIBRARY_SCRIPT": script, "SCRIPTED_LIBRARY_LOG": log}
        server = Server(target, installation.executable("scripted"), [], env, folder,
                        prepare=as_nobody)
        try:
            server.send(call(1, "kova_list_tables"))
            wait_until(lambda: "list table" in log.read_text("ascii"), TIMEOUT, "the statement")
            [worker] = server.workers()
            assert capabilities(server.process.pid) == capabilities(worker) == 1 << 10
            server.kill()
            server.expect_no_process()
        finally:
            server.close()


def test_a_session_ends_with_a_listener_that_has_a_capability(target):
    with capable_installation(target) as (folder, installation):
        servers = Servers(target, installation, folder)
        listeners = HttpListeners(servers)
        try:
            endpoint = listeners(prepare=as_nobody)
            session = endpoint.open_session()
            assert endpoint.post_message(ping(1), session) == ok_response(session, pong(1))
            [process] = endpoint.session_processes()
            assert capabilities(process) == 1 << 10
            # Stopped, it does not see its input end.
            os.kill(process, signal.SIGSTOP)
            endpoint.server.kill()
            endpoint.server.expect_no_process()
        finally:
            listeners.close()
            servers.close()


def test_a_server_outlives_the_process_that_started_it(target, tmp_path):
    """Only this program's own children end with their parent."""
    executable = Installation(target, tmp_path / "installed").executable("scripted")
    read_end, write_end = os.pipe()
    out_read, out_write = os.pipe()
    parent = subprocess.Popen(
        ["/bin/sh", "-c", 'exec 3<&0; "$0" <&3 3<&- & wait', str(executable)], stdin=read_end,
        stdout=out_write, env=target.environment({}))
    os.close(read_end)
    os.close(out_write)
    try:
        os.write(write_end, request("initialize", "init", {}))
        assert os.read(out_read, 1000).startswith(b'{"jsonrpc":"2.0","id":"init","result"')
        parent.kill()
        parent.wait(TIMEOUT)
        os.write(write_end, ping(2))
        assert os.read(out_read, 1000) == pong(2)
        os.close(write_end)
        assert os.read(out_read, 1000) == b""
    finally:
        parent.kill()
        parent.wait(TIMEOUT)
        os.close(out_read)


# descriptors


def test_a_lack_of_descriptors_fails_a_call_and_passes(start, policy):
    server = start(env=policy())
    server.initialize()
    process = server.process.pid
    held = len(os.listdir(f"/proc/{process}/fd"))
    before = resource.prlimit(process, resource.RLIMIT_NOFILE)
    for room in range(4):  # two pipes take four
        resource.prlimit(process, resource.RLIMIT_NOFILE, (held + room, before[1]))
        assert server.ask(call(room, "kova_list_tables")) == WORKER_FAILED
        assert server.ask(ping(100 + room)) == pong(100 + room)
    resource.prlimit(process, resource.RLIMIT_NOFILE, before)
    assert server.ask(call(9, "kova_list_tables")) == tool_success_reply("9", LISTED)
    assert len(os.listdir(f"/proc/{process}/fd")) == held
    assert server.zombies() == []
