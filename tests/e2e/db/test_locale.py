"""A client library that sets the locale of the process: a decimal comma changes no digit of what
is read, sent or replied afterwards."""

from __future__ import annotations

import subprocess
from pathlib import Path

import pytest

from harness.ai_calls import VECTOR_SEARCH
from harness.audit_files import records
from harness.messages import ping, pong, tool_success_reply
from harness.scripted_library import Script
from harness.servers import Server
from harness.targets import Environment, Target
from harness.tool_calls import result_json

QUERY = b'{"name":"kova_query","arguments":{"sql":"SELECT A FROM ORDERS","max_rows":9}}'
ROW = result_json(["A"], [["-2.5"], ["1e-7"]])
VECTOR = (b'{"name":"%s","arguments":{"collection":"MANUALS","vector":[2.5,-0.1,1e-5,'
          b'0.33333333333333333333333333],"top":5}}' % VECTOR_SEARCH.encode())
SEARCH = b"SEARCH AI MANUALS QUERY [2.5,-0.100000001,9.99999975e-06,0.333333343] TOP 5;"
FOUND = result_json(["SCORE"], [["0.75"]])


@pytest.fixture
def comma(target: Target, tmp_path: Path) -> "tuple[str, Environment]":
    """A locale with a decimal comma: its name, and the environment that it needs."""
    if target.name == "windows":
        return "German_Germany.1252", {}
    name = "de_DE.UTF-8"
    # Few systems have it; Debian's package `locales` has the sources.
    subprocess.run(["localedef", "-i", "de_DE", "-f", "UTF-8", str(tmp_path / name)], check=True,
                   capture_output=True)
    return name, {"LOCPATH": tmp_path}


@pytest.fixture
def server(start, policy, engine, comma, tmp_path: Path) -> Server:
    """Its client library sets the locale before it does anything else."""
    locale, environment = comma
    engine.script(Script().on("CreateVantreoInstance", locale=locale)
                  .on_exec("SELECT ", prefix=True, columns=["A"], rows=[["-2.5"], ["1e-7"]])
                  .on_exec("SEARCH ", prefix=True, columns=["SCORE"], rows=[["0.75"]]))
    started = start(env={**engine.env, **policy(), **environment,
                         "KOVA_MCP_AUDIT": tmp_path / "audit"})
    started.initialize()
    return started


def ask(server: Server, raw_id: str, params: bytes) -> bytes:
    return server.ask(b'{"jsonrpc":"2.0","id":%s,"method":"tools/call","params":%s}\n'
                      % (raw_id.encode(), params))


def decimal_points(engine) -> list[bytes]:
    """Those of the processes whose locale was set, as the library saw them."""
    return [point for call in engine.calls() if call.operation == "locale"
            for point in call.arguments]


def test_in_a_worker(server, engine, tmp_path):
    assert ask(server, "1", QUERY) == tool_success_reply("1", ROW)
    assert ask(server, "2", VECTOR) == tool_success_reply("2", FOUND)
    assert decimal_points(engine) == [b",", b","]
    assert engine.queries() == [b"SELECT A FROM ORDERS;", SEARCH]
    assert [(record["rows"], record["bytes"]) for record in records(tmp_path / "audit")] == [
        (2, len(ROW)), (1, len(FOUND))]


def test_in_the_server_process(server, engine, tmp_path):
    """Ids with so many escapes have their calls run there: the second one's numbers are read and
    written under the locale that the first one's session has set."""
    for number, params, result in ((1, QUERY, ROW), (2, VECTOR, FOUND), (3, QUERY, ROW)):
        spelled = '"' + "\\u0041" * 17 + f'{number}"'
        assert ask(server, spelled, params) == tool_success_reply(f'"{"A" * 17}{number}"', result)
    assert server.ask(ping(4)) == pong(4)  # Behind the last record, which follows its reply.
    assert decimal_points(engine) == [b","]
    assert engine.queries() == [b"SELECT A FROM ORDERS;", SEARCH, b"SELECT A FROM ORDERS;"]
    assert [(record["rows"], record["bytes"]) for record in records(tmp_path / "audit")] == [
        (2, len(ROW)), (1, len(FOUND)), (2, len(ROW))]
