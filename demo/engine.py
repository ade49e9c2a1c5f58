"""The sample engine of one session, and the servers' settings for it."""

from __future__ import annotations

import re
import subprocess

from outcome import SessionFailure
from processes import Processes
from target import BUILD, ROOT, STATE, Target

EXECUTABLE = BUILD / "linux" / "sample" / "kova-sample-engine"
DATA = STATE / "data"
USERS = STATE / "users"
APPROVAL_SECRET = STATE / "approval-secret"
POLICY = ROOT / "sample" / "data" / "policy.json"

DATABASE = "sample"
USER = "sample"
CLIENT_ID = "sample-client"


class Engine:
    """The sample engine on a free port; `kind` names its log and the audit file."""

    def __init__(self, kind: str, processes: Processes) -> None:
        self.log_file = STATE / f"engine-{kind}.log"
        self.audit_file = STATE / f"audit-{kind}.jsonl"
        with open(self.log_file, "ab") as log:
            self._log_start = log.tell()
            self.process = processes.start(
                [str(EXECUTABLE), "--data", str(DATA), "--users", str(USERS), "--log"],
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=log)
        self.port = self._wait_until_ready()

    def _wait_until_ready(self) -> str:
        assert self.process.stdout is not None
        line = self.process.stdout.readline().decode(errors="replace")
        match = re.search(r"ready on 127\.0\.0\.1:(\d+)$", line.rstrip())
        if match is None:
            lines = self.log()
            raise SessionFailure(lines[-1] if lines else "the sample engine does not start")
        return match[1]

    def log(self) -> list[str]:
        """The log lines of this session."""
        with open(self.log_file, "rb") as log:
            log.seek(self._log_start)
            return log.read().decode(errors="replace").splitlines()

    def profile(self, target: Target) -> dict[str, str]:
        """The server's whole configuration: policy, launch identity, database profile, audit."""
        password = USERS.read_text("ascii").strip().partition(":")[2]
        return {"KOVA_MCP_POLICY": target.path(POLICY), "KOVA_MCP_CLIENT_ID": CLIENT_ID,
                "KOVA_MCP_SERVER": "127.0.0.1", "KOVA_MCP_PORT": self.port,
                "KOVA_MCP_DATABASE": DATABASE, "KOVA_MCP_USER": USER,
                "KOVA_MCP_PASSWORD": password,
                "KOVA_MCP_AUDIT": target.path(self.audit_file)}

    def profile_for_writes(self, target: Target) -> dict[str, str]:
        """The same with the policy for writes and the key of the approvals."""
        secret = APPROVAL_SECRET.read_text("ascii").strip()
        return self.profile(target) | {"KOVA_MCP_POLICY": target.path(target.policy_for_writes),
                                       "KOVA_MCP_APPROVAL_SECRET": secret}
