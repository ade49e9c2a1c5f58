"""The session's second act: a write that an operator approves, which runs exactly once."""

from __future__ import annotations

import dataclasses
import datetime
import subprocess

from stage import COMMAND_TIMEOUT, Scene, Stage, audit, expect, handshake, listed_tools

WRITE_TOOL = "kova_execute"
UNKNOWN_TOOL = -32602
PACKAGE = "sqlite3"

APPROVAL_REQUIRED = "operator approval is required for this exact normalized operation"
OTHER_STATEMENT = "approval token fields or operation binding are invalid"
USED = "approval token was already used or replay state is unavailable"
OTHER_TABLE = "write type or target table is not allowed by MCP policy"


@dataclasses.dataclass
class Write:
    """The write that the scenes share. The note's text is unique, so that its row can be found."""

    note: str
    sql: str
    digest: str = ""
    token: str = ""


class WritingAct:
    """The scenes in their order, with the write that they share."""

    def __init__(self) -> None:
        note = f"Upgrade after the backup ({datetime.datetime.now()})"
        self.write = Write(
            note, f"INSERT INTO NOTES (PACKAGE, NOTE) VALUES ('{PACKAGE}', '{note}')")
        self.scenes = [
            Scene("A server whose policy lets one table be written", self.open),
            Scene("A write is proposed", self.propose),
            Scene("The operator approves it", self.approve),
            Scene("The approved write, once", self.execute),
            Scene("The kill switch", self.kill_switch),
            Scene("The audit file of the second act", audit),
        ]

    def open(self, stage: Stage) -> None:
        handshake(stage)
        expect(WRITE_TOOL in listed_tools(stage), f"{WRITE_TOOL} is not listed")
        stage.view.note("A table that the policy does not allow to be written.")
        stage.refused(WRITE_TOOL, {"sql": "DELETE FROM PACKAGES WHERE NAME = 'sqlite3'"},
                      OTHER_TABLE)

    def propose(self, stage: Stage) -> None:
        result = stage.refused(WRITE_TOOL, {"sql": self.write.sql}, APPROVAL_REQUIRED)
        wanted = result["structuredContent"]
        expect((wanted["approval_required"], wanted["operation_type"], wanted["table"])
               == (True, "INSERT", "NOTES"), "the reply does not say what is to be approved")
        self.write.digest = wanted["operation_digest"]

    def approve(self, stage: Stage) -> None:
        view, write = stage.view, self.write
        view.note("The operator reads the statement and computes its digest: the client may have"
                  " shown another.")
        view.line(f'$ printf %s "{write.sql};" | sha256sum', "cyan")
        process = stage.processes.start(["sha256sum"], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE)
        output, _ = process.communicate(f"{write.sql};".encode(), COMMAND_TIMEOUT)
        computed = output.decode().strip()
        view.line("  " + computed, "green")
        expect(computed == f"{write.digest}  -", "the digest is not that of the statement")
        view.note("It is the same. The operator has the policy and the secret, and needs no login.")
        token, code = stage.run_mode("--issue-approval", _operator_environment(stage),
                                     f"echo {write.digest} | ", f"{write.digest}\n")
        expect(code == 0 and token.startswith("v1.") and write.digest in token,
               "no token is issued")
        write.token = token

    def execute(self, stage: Stage) -> None:
        view, write = stage.view, self.write
        approved = {"sql": write.sql, "approval_token": write.token}
        view.note("The token is valid for no other statement: here one word differs.")
        altered = write.sql.replace("after", "without")
        stage.refused(WRITE_TOOL, {**approved, "sql": altered}, OTHER_STATEMENT)
        view.note("The statement that was approved.")
        result = stage.call(WRITE_TOOL, approved)
        expect(result["isError"] is False
               and result["structuredContent"]["status"] == "1 row inserted",
               "the approved write is not done")
        stage.tally.written += 1
        view.note("The same again: a token can be used once.")
        stage.refused(WRITE_TOOL, approved, USED)
        view.note("The result: one row.")
        content = stage.rows_of("kova_query", {
            "sql": f"SELECT ID, PACKAGE, NOTE FROM NOTES WHERE NOTE = '{write.note}'"})
        expect([row[1:] for row in content["rows"]] == [[PACKAGE, write.note]],
               "the note is not there once")

    def kill_switch(self, stage: Stage) -> None:
        view = stage.view
        off = {"KOVA_MCP_DISABLE_WRITES": "1"}
        view.note("The same policy, and a server that is started with KOVA_MCP_DISABLE_WRITES=1.")
        switched_off = Stage.open(stage.view, stage.target, stage.engine, stage.processes,
                                  stage.environment | off, stage.tally)
        handshake(switched_off)
        expect(WRITE_TOOL not in listed_tools(switched_off), f"{WRITE_TOOL} is listed")
        view.note("The call gets the error of a tool that does not exist, and is not audited.")
        error = switched_off.error_of("tools/call", {"name": WRITE_TOOL,
                                                     "arguments": {"sql": self.write.sql}})
        expect(error == {"code": UNKNOWN_TOOL, "message": "unknown Vantreo tool"},
               f"{WRITE_TOOL} is not unknown")
        stage.tally.refused += 1
        switched_off.close()
        view.note("No approval is issued either.")
        _, code = stage.run_mode("--issue-approval", _operator_environment(stage) | off,
                                 f"echo {self.write.digest} | KOVA_MCP_DISABLE_WRITES=1 ",
                                 f"{self.write.digest}\n")
        expect(code == 2, "an approval is issued although writes are switched off")


def _operator_environment(stage: Stage) -> dict[str, str]:
    """Without the engine's address and login, which approving does not need."""
    unneeded = {"KOVA_MCP_SERVER", "KOVA_MCP_PORT", "KOVA_MCP_PASSWORD", "KOVA_MCP_AUDIT"}
    return {name: value for name, value in stage.environment.items() if name not in unneeded}
