"""The plain client bundle (.mcpb): the server of both systems. It asks for all the rest."""

from __future__ import annotations

import json
import sys
from pathlib import Path
from typing import Any

sys.path.insert(0, str(Path(__file__).resolve().parent))
import sort_archive  # noqa: E402

MANIFEST = Path(__file__).resolve().parents[1] / "admin" / "bundle" / "manifest.json"
"""What every bundle says of the server; `kova-admin bundle` uses it too."""

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


def manifest(version: str, publisher: str = "") -> dict[str, Any]:
    asked: dict[str, Any] = {
        "library": {"type": "directory", "title": "Client library",
                    "description": "The folder that holds the engine's client library",
                    "required": True}}
    # Whatever the policy says: a bundle has no operator who approves a write.
    environment = {"KOVA_MCP_DISABLE_WRITES": "1"}
    for name, variable, kind, title, description, required, secret in ASKED:
        environment[variable] = f"${{user_config.{name}}}"
        asked[name] = {"type": kind, "title": title, "description": description,
                       "required": required}
        if secret:
            asked[name]["sensitive"] = True
        if not required:
            # Without it the client hands on the name in the place of a value.
            asked[name]["default"] = ""
    made = json.loads(MANIFEST.read_text("utf-8"))
    if publisher:
        made["author"]["name"] = publisher
    config = made["server"]["mcp_config"]
    config["env"] = environment
    for platform, searched in (("win32", "PATH"), ("linux", "LD_LIBRARY_PATH")):
        config["platform_overrides"][platform]["env"] = {
            **environment, searched: "${user_config.library}"}
    return {**made, "version": version, "user_config": asked}


def write_bundle(path: Path, version: str, linux: Path, windows: Path, notices: Path,
                 epoch: int, publisher: str = "") -> None:
    """`linux` and `windows` are the executables of the server, as the archives hold them. Without a
    publisher the author is the one of every bundle."""
    text = json.dumps(manifest(version, publisher), indent=2) + "\n"
    contents = {
        "manifest.json": (text.encode(), False),
        "server/kova-mcp": (linux.read_bytes(), True),
        "server/kova-mcp.exe": (windows.read_bytes(), True),
        "THIRD-PARTY-NOTICES": (notices.read_bytes(), False)}
    sort_archive.write_zip(path, contents, epoch)
