"""The session's fourth act: the operator's desk, from a new deployment to a write that was read and
signed on a terminal."""

from __future__ import annotations

import datetime
import json
import re
import shutil
from pathlib import Path
from typing import Any

from engine import DATABASE, USER, USERS
from outcome import SessionFailure
from stage import Scene, Stage, expect, handshake
from target import Target
from writing_act import APPROVAL_REQUIRED, PACKAGE, USED, WRITE_TOOL, Write

REASON = "Reason:"
CONFIRMATION = "Type yes:"
COLUMNS, ROWS = 100, 60
FAILURE_LIMIT = 200  # characters
DOCTOR_LINE = re.compile(r"(ok|warn|FAIL) +([a-z.-]+) ")


class DeskAct:
    """The scenes in their order, with the deployment and the write that they share."""

    def __init__(self, target: Target) -> None:
        self.folder = target.executable.parent / "desk"
        self.deployment = self.folder / "sample"
        self.environment_file = self.deployment / "kova-mcp.env"
        note = f"Read at the desk ({datetime.datetime.now()})"
        self.write = Write(
            note, f"INSERT INTO NOTES (PACKAGE, NOTE) VALUES ('{PACKAGE}', '{note}')")
        self.server: Stage | None = None
        self.scenes = [
            Scene("A deployment is set up: kova-admin init", self.set_up),
            Scene("Something is wrong with it: kova-admin doctor", self.examine),
            Scene("A client by its entry, and a write", self.propose),
            Scene("The operator reads it and signs it: kova-admin approve", self.approve),
            Scene("The write that was signed", self.execute),
            Scene("What has become of it: kova-admin approvals list", self.list_approvals),
        ]

    def set_up(self, stage: Stage) -> None:
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir(mode=0o700)
        password = self.folder / "password"
        password.touch(mode=0o600)
        password.write_text(USERS.read_text("ascii").strip().partition(":")[2], "ascii")
        output, code = stage.play_admin(
            "init", "--folder", self.deployment, "--server", "127.0.0.1", "--port",
            stage.engine.port, "--database", DATABASE, "--user", USER, "--password-file", password,
            "--client-id", "desk-client", "--name", "sample_desk", "--tables",
            "PACKAGES,SECTIONS,NOTES", "--denied-columns", "MAINTAINER", "--collections", "",
            "--write-tables", "NOTES", "--writes", "approval", "--transport", "stdio")
        expect(code == 0 and self.environment_file.exists(), "no deployment is written")
        expect(len(output.splitlines()) <= 10, "init says more than ten lines")

    def examine(self, stage: Stage) -> None:
        stage.view.note("The client's name in the environment file is not that of the policy.")
        self._rename_client("desk-client", "desk-clent")
        broken = self._doctor(stage)
        expect(broken.get("policy") == "FAIL", "the wrong name is not found")
        stage.view.note("The name is mended.")
        self._rename_client("desk-clent", "desk-client")
        mended = self._doctor(stage)
        expect(mended.get("policy") == mended.get("login.login") == "ok",
               "the mended deployment is not fine")

    def propose(self, stage: Stage) -> None:
        entry = self._entry()
        stage.view.note(f"{self.deployment / 'clients' / 'claude-desktop.json'}")
        stage.view.json(entry)
        command = stage.target.command_of(Path(entry["command"]), *entry["args"])
        self.server = stage.another(command, stage.target.environment({}))
        handshake(self.server)
        result = self.server.refused(WRITE_TOOL, {"sql": self.write.sql}, APPROVAL_REQUIRED)
        self.write.digest = result["structuredContent"]["operation_digest"]

    def approve(self, stage: Stage) -> None:
        proposal = self.folder / "proposal.json"
        proposal.write_text(json.dumps({"sql": self.write.sql}) + "\n", "utf-8")
        place = self.folder / "token"
        stage.view.note("The operator has the client's message in a file. What follows is on the"
                        " operator's terminal; the answers are scripted.")
        self._sign(stage, proposal, place)
        self.write.token = place.read_text("ascii").strip()
        expect(self.write.digest in self.write.token, "the token is not for the write")
        stage.view.line(f"  {place}: {self.write.token}", "green")

    def execute(self, stage: Stage) -> None:
        assert self.server is not None
        approved = {"sql": self.write.sql, "approval_token": self.write.token}
        result = self.server.call(WRITE_TOOL, approved)
        expect(result["isError"] is False
               and result["structuredContent"]["status"] == "1 row inserted",
               "the signed write is not done")
        stage.tally.written += 1
        self.server.refused(WRITE_TOOL, approved, USED)
        self.server.close()

    def list_approvals(self, stage: Stage) -> None:
        output, code = stage.play_admin("approvals", "list", "--env", self.environment_file)
        nonce = self.write.token.split(".")[2]
        expect(code == 0 and output.startswith("used ") and nonce in output,
               "the used token is not listed")

    def _entry(self) -> dict[str, Any]:
        """What is pasted into a client's configuration: a command and its arguments."""
        path = self.deployment / "clients" / "claude-desktop.json"
        [entry] = json.loads(path.read_text("utf-8"))["mcpServers"].values()
        return entry

    def _rename_client(self, old: str, new: str) -> None:
        text = self.environment_file.read_text("utf-8")
        line = "KOVA_MCP_CLIENT_ID='{}'"
        expect(line.format(old) in text, "the environment file does not name the client")
        self.environment_file.write_text(text.replace(line.format(old), line.format(new)), "utf-8")

    def _doctor(self, stage: Stage) -> dict[str, str]:
        """Shows what is not fine, and how many checks are; returns the word of each check."""
        command = ("doctor", "--env", self.environment_file)
        stage.show_admin(*command)
        output, _ = stage.run_admin(*command)
        found = {}
        fine = False
        for line in output.splitlines():
            match = DOCTOR_LINE.match(line)
            if match is not None:
                found[match[2]] = match[1]
                fine = match[1] == "ok"
            if not fine:
                stage.view.line("  " + line, "red" if line.startswith("FAIL") else None)
        count = list(found.values()).count("ok")
        stage.view.line(f"  and {count} of {len(found)} checks are ok", "green")
        return found

    def _sign(self, stage: Stage, proposal: Path, place: Path) -> None:
        arguments = ("approve", "--env", self.environment_file, "--digest", self.write.digest,
                     "--copy-to", place, proposal)
        stage.show_admin(*arguments)
        terminal = stage.processes.start_on_terminal(
            stage.target.admin_command(*arguments),
            stage.target.environment({"NO_COLOR": "1"}), columns=COLUMNS, rows=ROWS,
            raw=stage.target.windows)
        try:
            terminal.wait_for(REASON)
            terminal.type("the package's maintainer asked for it")
            terminal.wait_for(CONFIRMATION)
            terminal.type("yes")
            code = terminal.finish()
        except AssertionError as failure:
            raise SessionFailure(f"approve does not go on: {failure}"[:FAILURE_LIMIT]) from None
        for line in terminal.text.strip("\n").splitlines():
            stage.view.line("  | " + line.rstrip())
        stage.view.line(f"  exit code {code}", "dim")
        expect(code == 0, "the write is not signed")
