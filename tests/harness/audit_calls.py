"""Calls of which a record is written, by a worker and by the server process itself."""

from __future__ import annotations

import subprocess
from pathlib import Path

from harness.messages import call, request
from harness.targets import Environment, Installation, Target
from harness.waiting import TIMEOUT


def in_server(number: int) -> "tuple[bytes, str]":
    """A call whose id has too many escapes for a worker; the server runs it itself."""
    request_id = f"in-server-call-{number:03}"
    escaped = "".join(f"\\u{ord(character):04x}" for character in request_id)
    return (call("ID", "kova_list_tables").replace(b'"ID"', f'"{escaped}"'.encode()),
            f'"{request_id}"')


def in_worker(number: int) -> "tuple[bytes, str]":
    return call(number, "kova_list_tables"), str(number)


class ServerWithOutputFile:
    """A server whose standard output is the file `output` in a folder."""

    def __init__(self, target: Target, folder: Path) -> None:
        self.target = target
        self.executable = Installation(target, folder / "installed").executable(None)
        self.output = folder / "output"
        self.output.touch()

    def replies(self, env: Environment, message: bytes) -> bytes:
        """What the server writes behind its reply to `initialize`. One call each: a second one
        that comes while the first runs is refused as busy."""
        with open(self.output, "wb") as file:
            subprocess.run(self._command(), stdout=file, check=True,
                           input=request("initialize", "init", {}) + message, timeout=TIMEOUT,
                           env=self.target.environment(env), cwd=self.output.parent)
        return self.output.read_bytes().partition(b"\n")[2]

    def _command(self) -> "list[str]":
        """On Windows the file is opened by a program of Windows: under Wine a stream that was
        opened outside has no identity."""
        if not self.target.windows:
            return [str(self.executable)]
        executable, output = self.target.path(self.executable), self.target.path(self.output)
        return self.target.command(Path("cmd"), ["/c", f"{executable} > {output}"])
