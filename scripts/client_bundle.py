"""The plain client bundle (.mcpb): server and tool of both systems. It asks for all the rest."""

from __future__ import annotations

import json
import sys
from pathlib import Path
from typing import Any

sys.path.insert(0, str(Path(__file__).resolve().parent))
import sort_archive  # noqa: E402

ASKED = (
    # (name, variable, type, title, description, required, secret)
    ("policy", "KOVA_MCP_POLICY", "file", "Policy", "The policy file of this client", True, False),
    ("client_id", "KOVA_MCP_CLIENT_ID", "string", "Client", "The policy's client_id", True, False),
    ("database", "KOVA_MCP_DATABASE", "string", "Database", "The policy's database", True, False),
    ("user", "KOVA_MCP_USER", "string", "User", "The policy's database_user", True, False),
    ("password", "KOVA_MCP_PASSWORD", "string", "Password",
     "The login's password. Some clients change a password that holds a dollar sign", True, True),
    ("server", "KOVA_MCP_SERVER", "string", "Server", "The engine's host", True, False),
    ("port", "KOVA_MCP_PORT", "string", "Port", "The engine's port", True, False),
    ("audit", "KOVA_MCP_AUDIT", "string", "Audit file",
     "An absolute path; without one nothing is recorded", False, False))


def manifest(version: str) -> dict[str, Any]:
    asked: dict[str, Any] = {
        "library": {"type": "directory", "title": "Client library",
                    "description": "The folder that holds the engine's client library",
                    "required": True}}
    environment: dict[str, str] = {}
    for name, variable, kind, title, description, required, secret in ASKED:
        environment[variable] = f"${{user_config.{name}}}"
        asked[name] = {"type": kind, "title": title, "description": description,
                       "required": required}
        if secret:
            asked[name]["sensitive"] = True
        if not required:
            # Without it the client hands on the name in the place of a value.
            asked[name]["default"] = ""
    return {
        "manifest_version": "0.3", "name": "kova-mcp", "display_name": "kova-mcp",
        "version": version,
        "description": "Policy-controlled access of an AI client to an SQL database.",
        "author": {"name": "kova-mcp maintainers"},
        "server": {
            "type": "binary", "entry_point": "server/kova-mcp",
            "mcp_config": {
                "command": "${__dirname}/server/kova-mcp", "args": [], "env": environment,
                "platform_overrides": {
                    "win32": {"command": "${__dirname}/server/kova-mcp.exe",
                              "env": {**environment, "PATH": "${user_config.library}"}},
                    # Some clients lose the execute bit.
                    "linux": {"command": "/bin/sh",
                              "args": ["-c", 'chmod u+x "$0" 2>/dev/null; exec "$0"',
                                       "${__dirname}/server/kova-mcp"],
                              "env": {**environment,
                                      "LD_LIBRARY_PATH": "${user_config.library}"}}}}},
        "tools_generated": True,
        "compatibility": {"platforms": ["win32", "linux"]},
        "user_config": asked}


def write_bundle(path: Path, version: str, linux: Path, windows: Path, notices: Path,
                 epoch: int) -> None:
    """`linux` and `windows` are the executables of the server, as the archives hold them."""
    contents = {
        "manifest.json": (json.dumps(manifest(version), indent=2).encode() + b"\n", False),
        "server/kova-mcp": (linux.read_bytes(), True),
        "server/kova-mcp.exe": (windows.read_bytes(), True),
        "THIRD-PARTY-NOTICES": (notices.read_bytes(), False)}
    sort_archive.write_zip(path, contents, epoch)
