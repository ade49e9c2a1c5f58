"""The database session: the profile, the probe of the port, the login, and when it is tried again.

An id whose source text is longer than 99 characters makes its call run in the server process
itself, so that several calls share one session there.
"""

from __future__ import annotations

import socket
import time
from pathlib import Path

import pytest

from harness.listeners import LOOPBACK, silent_port
from harness.messages import tool_error_reply, tool_success_reply
from harness.scripted_library import Script
from harness.servers import Server
from harness.sessions import check, connections
from harness.tool_calls import result_json

UNAVAILABLE = "authenticated Vantreo profile is unavailable"
OPEN = ["CreateVantreoInstance", "DisableMessage", "StartVantreo", "NewObject", "Exec", "Exec"]
CLOSE = ["FreeObject", "StopVantreo"]


class OneProcess:
    """Calls that all run in the server process, and therefore in one session."""

    def __init__(self, server: Server) -> None:
        self.server = server
        self.count = 0
        server.initialize()

    def call(self) -> str:
        """Calls kova_list_tables without a policy; returns "ok" or the tool's error."""
        self.count += 1
        raw_id = '"' + "\\u0041" * 17 + str(self.count) + '"'
        echoed = '"' + "A" * 17 + str(self.count) + '"'
        reply = self.server.ask(b'{"jsonrpc":"2.0","id":%s,"method":"tools/call","params":{"name":'
                                b'"kova_list_tables"}}\n' % raw_id.encode())
        if reply == tool_success_reply(echoed, result_json()):
            return "ok"
        assert reply == tool_error_reply(echoed, UNAVAILABLE)
        return UNAVAILABLE


def test_every_call_of_a_session(run, engine):
    assert check(run, engine.env)
    calls = [(call.operation, *call.arguments) for call in engine.calls()]
    port = engine.profile["KOVA_MCP_PORT"].encode()
    assert calls == [
        ("CreateVantreoInstance",),
        ("DisableMessage", b"instance"),
        ("StartVantreo", b"instance", b"0", b"127.0.0.1", port),
        ("NewObject", b"connection"),
        ("Exec", b"object", b"use SALES;"),
        ("Exec", b"object", b"login reader,secret;"),
        ("FreeObject", b"object"),
        ("StopVantreo", b"connection"),
    ]


@pytest.mark.parametrize("database", [None, ""])
def test_the_database_without_a_name(run, engine, database):
    assert check(run, {**engine.env, "KOVA_MCP_DATABASE": database})
    assert engine.statements()[0] == b"use default;"


@pytest.mark.parametrize("changes, statements", [
    ({"KOVA_MCP_DATABASE": "d" * 63}, ["use " + "d" * 63 + ";", "login reader,secret;"]),
    ({"KOVA_MCP_DATABASE": "a,b c"}, ["use a,b c;", "login reader,secret;"]),
    ({"KOVA_MCP_USER": "u" * 63}, ["use SALES;", "login " + "u" * 63 + ",secret;"]),
    ({"KOVA_MCP_USER": "u", "KOVA_MCP_PASSWORD": "p" * 255},
     ["use SALES;", "login u," + "p" * 255 + ";"]),
    ({"KOVA_MCP_USER": "u" * 63, "KOVA_MCP_PASSWORD": "p" * 255},
     ["use SALES;", "login " + "u" * 63 + "," + "p" * 255 + ";"]),
    ({"KOVA_MCP_PASSWORD": "a,b 'c' \"d\" -- é"}, ["use SALES;",
                                                  "login reader,a,b 'c' \"d\" -- é;"]),
], ids=lambda value: str(value)[:40])
def test_profiles_that_are_accepted(run, engine, changes, statements):
    assert check(run, {**engine.env, **changes})
    assert engine.statements() == [statement.encode() for statement in statements]


@pytest.mark.parametrize("changes", [
    {"KOVA_MCP_SERVER": None}, {"KOVA_MCP_SERVER": ""}, {"KOVA_MCP_PORT": None},
    {"KOVA_MCP_PORT": ""}, {"KOVA_MCP_USER": None}, {"KOVA_MCP_USER": ""},
    {"KOVA_MCP_PASSWORD": None}, {"KOVA_MCP_PASSWORD": ""},
    {"KOVA_MCP_DATABASE": "d" * 64}, {"KOVA_MCP_USER": "u" * 64}, {"KOVA_MCP_PASSWORD": "p" * 256},
    {"KOVA_MCP_DATABASE": "a;b"}, {"KOVA_MCP_USER": "a;b"}, {"KOVA_MCP_USER": "a,b"},
    {"KOVA_MCP_PASSWORD": "a;b"}, {"KOVA_MCP_PASSWORD": ";"},
], ids=lambda changes: str(changes)[:40])
def test_profiles_that_are_refused_before_any_connection(run, engine, own_listener, changes):
    env = {**engine.env, "KOVA_MCP_PORT": own_listener.port, **changes}
    assert not check(run, env)
    assert connections(own_listener) == 0
    assert engine.calls() == []


def zeros(length: int) -> str:
    """127.0.0.1 with an octal first part, padded to this number of characters."""
    return "177.0.0.1".rjust(length, "0")


@pytest.mark.parametrize("server, accepted", [(zeros(253), True), (zeros(254), False)],
                         ids=["253", "254"])
def test_the_length_of_the_server_s_name(run, engine, own_listener, server, accepted):
    env = {**engine.env, "KOVA_MCP_PORT": own_listener.port, "KOVA_MCP_SERVER": server}
    assert check(run, env) == accepted
    assert connections(own_listener) == int(accepted)
    assert len(engine.calls()) == (8 if accepted else 0)


@pytest.mark.parametrize("server", ["no-such-host.invalid", "256.0.0.1", " ", "127.0.0.1;"])
def test_a_server_that_has_no_address(run, engine, server):
    assert not check(run, {**engine.env, "KOVA_MCP_SERVER": server})
    assert engine.calls() == []


def test_a_server_by_its_name(run, engine, own_listener):
    """The addresses are tried in turn; the one with a listener may come last."""
    env = {**engine.env, "KOVA_MCP_PORT": own_listener.port, "KOVA_MCP_SERVER": "localhost"}
    assert check(run, env)
    assert connections(own_listener) == 1
    assert engine.calls()[2].arguments[2] == b"localhost"


def test_a_session_is_made_once(start, engine, own_listener):
    process = OneProcess(start(env={**engine.env, "KOVA_MCP_PORT": own_listener.port}))
    assert [process.call() for _ in range(3)] == ["ok"] * 3
    assert connections(own_listener) == 1
    assert engine.statements() == [b"use SALES;", b"login reader,secret;"] + [b"list table;"] * 3
    assert "FreeObject" not in engine.operations()
    assert process.server.finish().code == 0
    assert engine.operations()[-2:] == CLOSE


def test_a_rejected_statement_leaves_the_session(start, engine):
    engine.script(Script().on_exec("list table;", times=1, result=0, status=UNAVAILABLE))
    process = OneProcess(start(env=engine.env))
    assert [process.call(), process.call()] == [UNAVAILABLE, "ok"]
    assert engine.operations().count("CreateVantreoInstance") == 1


@pytest.mark.parametrize("operation, seen, released", [
    ("CreateVantreoInstance", OPEN[:1], []),
    ("StartVantreo", OPEN[:3], []),
    ("NewObject", OPEN[:4], ["StopVantreo"]),
])
def test_a_library_that_cannot_be_started_is_not_tried_again(start, engine, own_listener,
                                                             operation, seen, released):
    """The library's objects are released at the end."""
    engine.script(Script().on(operation, times=1, null=True))
    process = OneProcess(start(env={**engine.env, "KOVA_MCP_PORT": own_listener.port}))
    assert [process.call() for _ in range(3)] == [UNAVAILABLE] * 3
    assert engine.operations() == seen
    assert connections(own_listener) == 1
    assert process.server.finish().code == 0
    assert engine.operations() == seen + released


@pytest.mark.parametrize("library", [None, "broken", "incomplete"])
def test_a_library_that_cannot_be_loaded_is_not_tried_again(start, engine, own_listener, library):
    """The library is loaded after the probe of the port."""
    process = OneProcess(start(env={**engine.env, "KOVA_MCP_PORT": own_listener.port},
                               library=library))
    assert [process.call() for _ in range(3)] == [UNAVAILABLE] * 3
    assert connections(own_listener) == 1
    assert engine.calls() == []


@pytest.mark.parametrize("refused, tried", [("use SALES;", OPEN[:5]),
                                            ("login reader,secret;", OPEN)])
def test_a_refused_login_is_tried_again_from_the_start(start, engine, own_listener, refused, tried):
    engine.script(Script().on_exec(refused, times=2, result=0))
    process = OneProcess(start(env={**engine.env, "KOVA_MCP_PORT": own_listener.port}))
    assert [process.call() for _ in range(3)] == [UNAVAILABLE, UNAVAILABLE, "ok"]
    assert connections(own_listener) == 3
    failed = tried + CLOSE
    assert engine.operations()[:len(failed) * 2 + len(OPEN)] == failed * 2 + OPEN
    assert process.server.finish().code == 0


def test_nothing_is_released_twice(run, engine):
    engine.script(Script().on_exec("login reader,secret;", result=0))
    assert not check(run, engine.env)
    assert engine.operations() == OPEN + CLOSE


def test_an_unreachable_engine_is_not_tried_again(start, engine):
    with socket.socket() as late:
        late.bind((LOOPBACK, 0))
        process = OneProcess(start(env={**engine.env, "KOVA_MCP_PORT": str(late.getsockname()[1])}))
        assert process.call() == UNAVAILABLE
        late.listen()
        assert process.call() == UNAVAILABLE
    assert engine.calls() == []


def test_every_worker_tries_anew(start, engine):
    """A call in a worker does not know of earlier failures."""
    engine.script(Script().on("CreateVantreoInstance", null=True))
    server = start(env=engine.env)
    server.initialize()
    message = (b'{"jsonrpc":"2.0","id":%d,"method":"tools/call",'
               b'"params":{"name":"kova_list_tables"}}\n')
    assert server.ask(message % 1) == tool_error_reply("1", UNAVAILABLE)
    engine.script(Script())
    assert server.ask(message % 2) == tool_success_reply("2", result_json())


def test_a_port_that_never_answers_costs_three_seconds_once(start, engine):
    with silent_port() as port:
        process = OneProcess(start(env={**engine.env, "KOVA_MCP_PORT": port}))
        began = time.monotonic()
        assert process.call() == UNAVAILABLE
        first = time.monotonic() - began
        assert process.call() == UNAVAILABLE
        second = time.monotonic() - began - first
    assert 2.9 <= first < 15
    assert second < 2.9  # a second try would wait as long as the first
    assert engine.calls() == []


@pytest.mark.parametrize("result, accepted", [
    (1, True), (4294967296, True), (0, False), (-1, False), (-4294967295, False)])
@pytest.mark.parametrize("statement", ["use SALES;", "login reader,secret;"])
def test_the_results_of_use_and_login(run, engine, statement, result, accepted):
    engine.script(Script().on_exec(statement, result=result))
    assert check(run, engine.env) == accepted


def test_the_password_is_told_to_nobody(run, engine, tmp_path):
    engine.script(Script().on_exec("login reader,secret;", result=0,
                                   status="wrong password secret"))
    audit = tmp_path / "audit"
    env = {**engine.env, "KOVA_MCP_AUDIT": audit, "KOVA_MCP_DEBUG": "1"}
    result = run(stdin=b'{"jsonrpc":"2.0","id":1,"method":"tools/call",'
                       b'"params":{"name":"kova_list_tables"}}\n', env=env)
    assert result.stdout == tool_error_reply("1", UNAVAILABLE)
    assert b"secret" not in result.stdout + result.stderr + audit.read_bytes()


def search_path(target, folders: "list[str | Path]") -> dict[str, str]:
    """The environment that makes the system look for libraries in these folders."""
    texts = [target.path(folder) if isinstance(folder, Path) else folder for folder in folders]
    return {"WINEPATH": ";".join(texts)} if target.windows else {"LD_LIBRARY_PATH": ":".join(texts)}


@pytest.fixture
def library_folder(servers) -> Path:
    """A folder with the scripted library; the executable in it is not used."""
    return servers.installation.executable("scripted").parent


@pytest.mark.parametrize("place", ["first", "last"])
def test_the_library_of_the_search_path(run, target, engine, library_folder, tmp_path, place):
    folders = [library_folder, tmp_path] if place == "first" else [tmp_path, library_folder]
    result = run("--check-config", env={**engine.env, **search_path(target, folders)},
                 library=None)
    assert result.code == 0
    assert engine.operations() == OPEN + CLOSE


@pytest.mark.parametrize("entry", [".", "", "./"])
def test_relative_entries_of_the_search_path_do_not_count(run, target, engine, library_folder,
                                                          entry):
    result = run("--check-config", env={**engine.env, **search_path(target, [entry])},
                 library=None, cwd=library_folder)
    assert result.code == 2
    assert engine.calls() == []


def test_the_library_beside_the_executable_comes_first(run, target, engine, tmp_path):
    other = tmp_path / "other"
    other.mkdir()
    (other / target.library_name).write_text("no library\n")
    assert check(run, {**engine.env, **search_path(target, [other])})
    assert engine.operations() == OPEN + CLOSE
