"""The two servers that ./run can play with, and where everything lies.

Everything that ./run makes lies in build/run/:

    data/           the sample engine's databases
    linux/ windows/ the server with the client library beside it, as an operator installs them,
                    kova-admin, its policy for writes, approvals/ with the markers of used tokens,
                    desk/, the deployment that the last session has set up with kova-admin, and
                    review/, its report
    users           the engine's one user, with a password made for this machine
    approval-secret the key of the operator's approvals, made for this machine
    audit-*.jsonl   the audit files, one per kind of session
    engine-*.log    the engine's logs, one per kind of session
"""

from __future__ import annotations

import os
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
BUILD = ROOT / "build"
STATE = BUILD / "run"
WINE_PREFIX = BUILD / "wineprefix"

sys.path.append(str(ROOT / "scripts"))
import scripted_terminal  # noqa: E402  (found only with the path above)
import wine  # noqa: E402


class Target:
    """The Linux or the Windows server, and how it is started here."""

    def __init__(self, name: str) -> None:
        self.name = name
        self.windows = name == "windows"
        self.built = BUILD / name
        self.executable_name = "kova-mcp.exe" if self.windows else "kova-mcp"
        self.admin_name = "kova-admin.exe" if self.windows else "kova-admin"
        self.library_name = "kovadll.dll" if self.windows else "libkovadll.so"
        self.executable = STATE / name / self.executable_name
        self.admin = STATE / name / self.admin_name
        self.policy_for_writes = STATE / name / "policy-notes.json"

    def path(self, path: Path) -> str:
        """The path in the spelling of the target's system."""
        return wine.windows_path(path) if self.windows else str(path)

    def command(self, *arguments: str) -> list[str]:
        return self.command_of(self.executable, *arguments)

    def admin_command(self, *arguments: "str | Path") -> list[str]:
        return self.command_of(self.admin, *self.words(*arguments))

    def words(self, *arguments: "str | Path") -> list[str]:
        """The arguments with paths in the target's spelling."""
        return [self.path(one) if isinstance(one, Path) else one for one in arguments]

    def command_of(self, executable: Path, *arguments: str) -> list[str]:
        if self.windows:
            return wine.command(executable, *arguments)
        return [str(executable), *arguments]

    def environment(self, variables: "dict[str, str]") -> dict[str, str]:
        """A small environment of its own, with the variables added."""
        env = {"PATH": "/usr/bin:/bin", "HOME": os.environ.get("HOME", "/"), "LC_ALL": "C.UTF-8"}
        if self.windows:
            env |= wine.environment(WINE_PREFIX)
        return env | variables
