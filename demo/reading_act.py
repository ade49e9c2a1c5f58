"""The session's first act: reading, refusals, a cancelled query, the configuration checks.

Each scene also checks that what it shows is what it has to show.
"""

from __future__ import annotations

import time

from engine import Engine
from formats import duration
from outcome import SessionFailure
from stage import Scene, Stage, audit, expect, handshake

SLOW_SECONDS = 2.0
CANCEL_LIMIT = 5.0
ENGINE_LIMIT = 5.0
BUSY = -32000

REFUSED_SECOND = ("sql must be one bounded read-only SELECT; unknown fields are rejected; "
                  "max_rows must be 1..256")


def tools(stage: Stage) -> None:
    listed = stage.ask("tools/list")["tools"]
    stage.view.table(["NAME", "DESCRIPTION"],
                     [[tool["name"], tool["description"]] for tool in listed])
    expect("kova_query" in [tool["name"] for tool in listed], "kova_query is not listed")


def catalogue(stage: Stage) -> None:
    stage.rows_of("kova_list_databases")
    stage.rows_of("kova_list_tables")


def query(stage: Stage) -> None:
    content = stage.rows_of("kova_query", {
        "sql": "SELECT NAME, PACKAGES, INSTALLED_SIZE FROM SECTIONS WHERE PACKAGES > 2500"
               " ORDER BY PACKAGES DESC"})
    expect(content["truncated"] is False, "the result is truncated")
    stage.rows_of("kova_query", {
        "sql": "SELECT D.KIND, P.NAME, P.VERSION, P.SUMMARY FROM DEPENDS D JOIN PACKAGES P"
               " ON P.NAME = D.DEPENDS_ON WHERE D.PACKAGE = 'sqlite3' ORDER BY P.NAME"})


def truncated(stage: Stage) -> None:
    content = stage.rows_of("kova_query", {
        "sql": "SELECT NAME, VERSION, SUMMARY FROM PACKAGES ORDER BY NAME", "max_rows": 5})
    expect(content["truncated"] is True and content["rowCount"] == 5,
           "the result is not truncated at five rows")


def refusals(stage: Stage) -> None:
    stage.view.note("A column that the policy denies: who maintains a package is personal data.")
    stage.refused("kova_query", {"sql": "SELECT NAME, MAINTAINER FROM PACKAGES"},
                  "column is denied by MCP policy")
    stage.view.note("A table that the policy does not name: the engine's own catalogue.")
    stage.refused("kova_query", {"sql": "SELECT NAME, SQL FROM SQLITE_SCHEMA"},
                  "table is not allowed by MCP policy")
    stage.view.note("A description, which would name the denied column.")
    stage.refused("kova_describe_table", {"table": "PACKAGES"},
                  "schema description is disabled when the policy denies columns")
    stage.view.note("A second statement, smuggled in behind the first.")
    stage.refused("kova_query", {"sql": "SELECT NAME FROM SECTIONS; DELETE FROM PACKAGES"},
                  REFUSED_SECOND)


def _expect_busy(stage: Stage) -> None:
    expect(stage.error_of("ping").get("code") == BUSY,
           "a request beside a running call is not refused as busy")


def cancellation(stage: Stage) -> None:
    """A join of every dependency with every other would run for hours."""
    client, view = stage.client, stage.view
    message = client.request("tools/call", {"name": "kova_query", "arguments": {
        "sql": "SELECT COUNT(A.PACKAGE) FROM DEPENDS A, DEPENDS B"
               " WHERE A.DEPENDS_ON < B.PACKAGE"}})
    view.request(message)
    client.send(message)
    with view.step("The query runs") as step:
        end = time.monotonic() + SLOW_SECONDS
        while (left := end - time.monotonic()) > 0:
            step.progress(f"and is cancelled in {left:.1f} s")
            expect(not client.replied_within(min(left, 0.1)), "the slow query ends by itself")
        step.outcome = ": no reply so far"
    view.note("One call at a time: anything else is refused meanwhile.")
    _expect_busy(stage)
    view.note("The client gives up.")
    sent = stage.notify("notifications/cancelled",
                        {"requestId": message["id"], "reason": "taking too long"})
    exchange = client.receive(sent)
    view.reply(exchange.reply, exchange.seconds)
    expect(exchange.reply["result"]["structuredContent"] == {"cancelled": True},
           "the call does not return as cancelled")
    expect(exchange.seconds < CANCEL_LIMIT, "the cancelled call takes too long to end")
    stage.tally.cancelled += 1
    view.line(f"Cancelled: the call ended {duration(exchange.seconds)} after the notification.",
              "bold")
    view.line(f"The engine's log: {_interruption(stage.engine)}", "dim")
    view.note("The next request is served.")
    stage.ask("ping")


def _interruption(engine: Engine) -> str:
    end = time.monotonic() + ENGINE_LIMIT
    while time.monotonic() < end:
        for line in reversed(engine.log()):
            if "interrupted" in line:
                return line
        time.sleep(0.02)
    raise SessionFailure("the engine goes on with the cancelled statement")


def checks(stage: Stage) -> None:
    stage.view.note("--check-policy reads the policy; --check-config also logs in to the engine.")
    _check(stage, "--check-policy", {}, 0, "MCP_CONFIG_OK policy=")
    _check(stage, "--check-policy", {"KOVA_MCP_CLIENT_ID": "someone-else"}, 2,
                "MCP_CONFIG_INVALID: MCP launch identity does not match named policy")
    _check(stage, "--check-config", {}, 0, "MCP_CONFIG_OK policy=")
    _check(stage, "--check-config", {"KOVA_MCP_PASSWORD": "wrong"}, 2,
                "MCP_CONFIG_INVALID: authenticated database profile unavailable")


def _check(stage: Stage, mode: str, wrong: dict[str, str], code: int, begin: str) -> None:
    given = "".join(f"{name}={value} " for name, value in wrong.items())
    output, ended = stage.run_mode(mode, stage.environment | wrong, given)
    expect(ended == code, f"{mode} ends with {ended} instead of {code}")
    expect(output.startswith(begin), f"{mode} does not print \"{begin}\"")


SCENES = [
    Scene("The handshake", handshake),
    Scene("The tools that the policy leaves", tools),
    Scene("Databases and tables", catalogue),
    Scene("Queries", query),
    Scene("A result cut at the rows that were asked for", truncated),
    Scene("What is refused", refusals),
    Scene("A slow query, cancelled half-way", cancellation),
    Scene("The two configuration checks, right and wrong", checks),
    Scene("The audit file", audit),
]
