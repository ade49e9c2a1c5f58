"""kova-admin and the files of one who writes policies."""

from __future__ import annotations

import json
import subprocess
from pathlib import Path
from typing import Any

from harness.policy_files import DEFAULT
from harness.servers import Result
from harness.targets import Environment, Target
from harness.waiting import TIMEOUT
from harness.write_calls import WRITES


class PolicyDesk:
    """A folder of policies and tables of cases."""

    def __init__(self, target: Target, folder: Path) -> None:
        self.target = target
        self.folder = folder
        self.executable = target.build / ("kova-admin.exe" if target.windows else "kova-admin")
        self.state = folder / "state"
        self.state.mkdir(exist_ok=True)

    def file(self, name: str, content: "str | bytes") -> Path:
        path = self.folder / name
        path.write_bytes(content.encode() if isinstance(content, str) else content)
        return path

    def document(self, **overrides: Any) -> dict[str, Any]:
        return {key: self.target.path(value) if isinstance(value, Path) else value
                for key, value in {**DEFAULT, **overrides}.items()}

    def policy(self, file_name: str = "policy.json", /, **overrides: Any) -> Path:
        return self.file(file_name, json.dumps(self.document(**overrides)))

    def writes(self, file_name: str = "policy.json", /, **overrides: Any) -> Path:
        """A policy of writes that need an approval."""
        return self.policy(file_name, **{**WRITES, "approval_required": True,
                                         "approval_state_directory": self.state, **overrides})

    def cases(self, table: Any, name: str = "cases.json") -> Path:
        return self.file(name, table if isinstance(table, (str, bytes)) else json.dumps(table))

    def run(self, command: str, *arguments: "str | Path", env: "Environment | None" = None,
            stdin: bytes = b"") -> Result:
        line = self.target.command(self.executable, ["policy", command, *[
            self.target.path(argument) if isinstance(argument, Path) else argument
            for argument in arguments]])
        done = subprocess.run(line, env=self.target.environment(env or {}), input=stdin,
                              capture_output=True, timeout=3 * TIMEOUT, check=False)
        return Result(done.stdout, done.stderr, done.returncode)

    def json(self, command: str, *arguments: "str | Path", code: int,
             env: "Environment | None" = None, stdin: bytes = b"") -> Any:
        """The object that the command prints with --json, and the exit code that it must have."""
        result = self.run(command, "--json", *arguments, env=env, stdin=stdin)
        assert (result.code, result.stderr) == (code, b""), result
        return json.loads(result.stdout)

    def refusal(self, command: str, *arguments: "str | Path",
                env: "Environment | None" = None) -> str:
        """The one line of a command that cannot do its work."""
        result = self.run(command, *arguments, env=env)
        assert (result.code, result.stdout) == (2, b""), result
        text = result.stderr.decode().replace("\r", "")
        assert text.startswith("kova-admin: ") and text.endswith("\n") and text.count("\n") == 1
        return text.removeprefix("kova-admin: ").removesuffix("\n")
