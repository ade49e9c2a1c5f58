"""The official client's second line, which asks for a newer revision of the protocol first."""

from __future__ import annotations

import json
import subprocess
from pathlib import Path
from typing import Any, Callable

import pytest

from harness.audit_files import records
from harness.front_ends import FrontEnd, clean_environment
from harness.http_client import TOKEN, HttpListener
from harness.policy_files import PolicyFiles
from harness.sales_engine import COUNT_ORDERS, ORDERS, profile, result, slow
from harness.sample_engine import Engine
from harness.targets import Installation
from harness.waiting import TIMEOUT, wait_until

SCRIPT = Path(__file__).resolve().parent / "second_line.mjs"
SESSION_TIMEOUT = 120.0
OURS = "2025-11-25"
NEWER = "2026-07-28"
OLDER = "2025-06-18"
KINDS = ["nginx", "haproxy"]
MODES = ["auto", "legacy"]

TABLES = {"name": "kova_list_tables", "args": {}}
DENIED = {"name": "kova_query", "args": {"sql": "SELECT CARD FROM ORDERS"}}
CALLS = {"calls": [TABLES, COUNT_ORDERS, DENIED], "quick": COUNT_ORDERS}

Play = Callable[..., dict[str, Any]]


@pytest.fixture
def play(pinned_packages: None, engine: Engine) -> Play:
    """`play(**wishes)` returns what second_line.mjs has found."""
    def run(env: "dict[str, str] | None" = None, **wishes: Any) -> dict[str, Any]:
        given = json.dumps({**CALLS, "slow": slow(engine), **wishes})
        done = subprocess.run(["node", str(SCRIPT)], input=given.encode(), env=env,
                              capture_output=True, timeout=SESSION_TIMEOUT, check=False)
        assert done.returncode == 0, done.stderr.decode(errors="replace")
        return json.loads(done.stdout)

    return run


@pytest.fixture
def server(installation: Installation, policy: PolicyFiles, engine: Engine,
           tmp_path: Path) -> dict[str, Any]:
    """How a client starts the server."""
    target = installation.target
    command = target.command(installation.executable("sample"), [])
    return {"command": command[0], "args": command[1:], "cwd": str(tmp_path),
            "env": target.environment({**profile(policy, engine),
                                       "KOVA_MCP_AUDIT": tmp_path / "audit.jsonl"})}


@pytest.fixture
def listener(listen: Callable[..., HttpListener]) -> HttpListener:
    return listen()


def assert_session(found: dict[str, Any]) -> None:
    """What the client has got from its session, whatever it has asked for first."""
    assert found["connected"] == {} and found["revision"] == OURS, found["connected"]
    assert found["version"]["name"] == "Vantreo MCP"
    assert len(found["tools"]) == 8 and "kova_query" in found["tools"]
    counted = result("OK", ["N"], [[str(ORDERS)]])
    listed = result("policy-filtered", ["NAME"], [["ORDERS"], ["ITEMS"]])
    refused = {"content": [{"type": "text", "text": "column is denied by MCP policy"}],
               "isError": True}
    assert [one["result"] for one in found["calls"]] == [listed, counted, refused]
    assert found["cancelled"]["first"]["error"]["message"].endswith("the user gave up")
    assert found["cancelled"]["next"]["result"] == counted
    assert (found["errorsBeforeCancel"], found["stderr"]) == ([], "")


def methods(found: dict[str, Any]) -> list[str]:
    return [message["method"] for message in found["sent"]]


@pytest.mark.parametrize("mode", MODES)
def test_stdio(play: Play, server: dict[str, Any], tmp_path: Path, mode: str) -> None:
    """By "auto" the client asks another process of the server, which it starts for that alone."""
    found = play(mode=mode, server=server)
    assert_session(found)
    assert methods(found)[:2] == ["initialize", "notifications/initialized"]
    assert found["sent"][0]["params"]["protocolVersion"] == OURS
    assert found["exitCode"] == 0
    calls = [record["tool"] for record in records(tmp_path / "audit.jsonl")]
    assert calls == ["kova_list_tables"] + ["kova_query"] * 3  # A cancelled call leaves no record.


def test_stdio_in_one_process(play: Play, server: dict[str, Any]) -> None:
    found = play(mode="auto", server=server, inPlace=True)
    assert_session(found)
    assert methods(found)[:2] == ["server/discover", "initialize"]
    assert found["received"][0]["error"] == {"code": -32002, "message": "server is not initialized"}
    assert found["exitCode"] == 0


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("mode", MODES)
def test_http(play: Play, listener: HttpListener, front: Callable[..., FrontEnd], kind: str,
              mode: str) -> None:
    end = front(kind, listener)
    found = play(clean_environment(end.certificate), mode=mode, url=end.url, token=TOKEN)
    assert_session(found)
    asked = [["POST", 400]] if mode == "auto" else []
    assert found["statuses"][:len(asked) + 2] == [*asked, ["POST", 200], ["POST", 202]]
    assert found["statuses"][-1] == ["DELETE", 204]
    wait_until(lambda: listener.children() == [], TIMEOUT, "the end of the session's processes")


# Clients that do not speak the server's revision


def assert_refused(found: dict[str, Any], message: str) -> None:
    """Refused by the client itself, which has called nothing."""
    assert message in found["connected"]["error"]["message"]
    assert not {"notifications/initialized", "tools/list", "tools/call"} & set(methods(found))
    assert found["stderr"] == ""


@pytest.mark.parametrize("in_place", [False, True], ids=["two processes", "one process"])
def test_a_client_of_the_newer_revision_alone_over_stdio(play: Play, server: dict[str, Any],
                                                         tmp_path: Path, in_place: bool) -> None:
    found = play(mode={"pin": NEWER}, server=server, inPlace=in_place)
    assert_refused(found, f"the server did not offer pinned protocol version {NEWER}")
    assert "initialize" not in methods(found)
    assert not (tmp_path / "audit.jsonl").exists()


@pytest.mark.parametrize("kind", KINDS)
def test_a_client_of_the_newer_revision_alone_over_http(
        play: Play, listener: HttpListener, front: Callable[..., FrontEnd], kind: str) -> None:
    end = front(kind, listener)
    found = play(clean_environment(end.certificate), mode={"pin": NEWER}, url=end.url, token=TOKEN)
    assert_refused(found, f"the server did not offer pinned protocol version {NEWER}")
    assert found["statuses"] == [["POST", 400]]
    assert listener.children() == []


def test_a_client_of_an_older_revision_alone(play: Play, server: dict[str, Any]) -> None:
    """It is told the server's revision, whichever it has asked for, and refuses."""
    found = play(mode="legacy", supported=[OLDER], server=server)
    assert found["sent"][0]["params"]["protocolVersion"] == OLDER
    assert found["received"][0]["result"]["protocolVersion"] == OURS
    assert_refused(found, OURS)


def test_a_client_that_prefers_an_older_revision(play: Play, server: dict[str, Any]) -> None:
    found = play(mode="legacy", supported=[OLDER, OURS], server=server)
    assert found["sent"][0]["params"]["protocolVersion"] == OLDER
    assert_session(found)
