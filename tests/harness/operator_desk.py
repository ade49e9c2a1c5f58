"""An operator with kova-admin, a deployment and a terminal."""

from __future__ import annotations

import json
import subprocess
from pathlib import Path
from typing import Any, Iterator

from scripted_terminal import ScriptedTerminal

from harness.approval_tokens import SECRET
from harness.policy_files import PolicyFiles
from harness.servers import Result
from harness.targets import Environment, Target
from harness.waiting import TIMEOUT
from harness.write_calls import WRITES

REASON = "Reason:"
CONFIRMATION = "Type yes:"
MEMBERS = ["timestamp", "decision", "operator", "host", "reason", "policy", "client_id", "database",
           "type", "table", "statement", "digest", "nonce", "expires_at"]


class Desk:
    """One deployment in a folder: `env` are its variables, `journal` its journal."""

    def __init__(self, target: Target, folder: Path) -> None:
        self.target = target
        self.folder = folder
        self.executable = target.build / ("kova-admin.exe" if target.windows else "kova-admin")
        self.policies = PolicyFiles(target, folder)
        self.state = folder / "state"
        self.state.mkdir(exist_ok=True)
        self.journal = folder / "journal.jsonl"
        self.audit = folder / "audit.jsonl"
        self.env: dict[str, "str | Path | None"] = {}
        self._terminals: list[ScriptedTerminal] = []
        self.policy()

    def policy(self, **overrides: Any) -> "Desk":
        document = {**WRITES, "approval_required": True, "approval_state_directory": self.state,
                    **overrides}
        self.env = {**self.policies(**document), "KOVA_MCP_APPROVAL_SECRET": SECRET,
                    "KOVA_MCP_AUDIT": self.audit, "KOVA_ADMIN_JOURNAL": self.journal,
                    "NO_COLOR": "1"}
        return self

    def file(self, name: str, content: "str | bytes") -> Path:
        path = self.folder / name
        path.write_bytes(content.encode() if isinstance(content, str) else content)
        return path

    def env_file(self, **overrides: "str | Path | None") -> Path:
        values = {**self.env, **overrides}
        lines = [f"{name}='{self.target.path(value) if isinstance(value, Path) else value}'\n"
                 for name, value in values.items() if value is not None]
        return self.file("deployment.env", "".join(lines))

    def command(self, *arguments: "str | Path") -> list[str]:
        return self.target.command(self.executable, [
            self.target.path(argument) if isinstance(argument, Path) else argument
            for argument in arguments])

    def environment(self, env: "Environment | None" = None) -> dict[str, str]:
        return self.target.environment(self.env if env is None else env)

    def run(self, *arguments: "str | Path", env: "Environment | None" = None,
            stdin: bytes = b"") -> Result:
        """Runs a command without a terminal."""
        done = subprocess.run(self.command(*arguments), env=self.environment(env), input=stdin,
                              capture_output=True, timeout=3 * TIMEOUT, start_new_session=True,
                              check=False)
        return Result(done.stdout, done.stderr, done.returncode)

    def approve(self, *arguments: "str | Path", env: "Environment | None" = None,
                **streams: Any) -> ScriptedTerminal:
        """Starts `approve` on a terminal."""
        terminal = ScriptedTerminal(self.command("approve", *arguments), self.environment(env),
                                    raw=self.target.windows, **streams)
        self._terminals.append(terminal)
        return terminal

    def decide(self, reason: str, answer: str, *arguments: "str | Path",
               **options: Any) -> ScriptedTerminal:
        """Runs `approve` to its end, with these replies to its two prompts."""
        terminal = self.approve(*arguments, **options)
        terminal.wait_for(REASON)
        terminal.type(reason)
        terminal.wait_for(CONFIRMATION)
        terminal.type(answer)
        terminal.finish()
        return terminal

    def token(self, statement: str, *arguments: "str | Path", **options: Any) -> str:
        """Approves a statement and returns the token."""
        place = self.folder / f"token-{len(list(self.folder.glob('token-*')))}"
        source = self.file("statement.sql", statement)
        terminal = self.decide("ticket 7", "yes", "--copy-to", place, *arguments, source, **options)
        assert terminal.process.returncode == 0, terminal.text
        return place.read_text(encoding="ascii").removesuffix("\n")

    def decisions(self) -> list[dict[str, Any]]:
        """The journal's lines, each of which has every member."""
        if not self.journal.exists():
            return []
        text = self.journal.read_bytes()
        assert text.endswith(b"\n") and b"\r" not in text and text.isascii()
        lines = [json.loads(line) for line in text.splitlines()]
        assert all(list(line) == MEMBERS for line in lines), lines
        return lines

    def close(self) -> None:
        for terminal in self._terminals:
            terminal.close()


def desks(target: Target, folder: Path) -> Iterator[Desk]:
    """The body of a fixture: a desk that is closed after its test."""
    made = Desk(target, folder)
    yield made
    made.close()
