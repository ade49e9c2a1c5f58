"""kova-admin service: services are a matter of Windows."""

from __future__ import annotations

from pathlib import Path

import pytest

from harness.operator_desk import Desk


@pytest.mark.parametrize("command", ["install", "start", "stop", "remove", "run"])
def test_one_line_names_the_unit(desk: Desk, command: str, tmp_path: Path) -> None:
    options = (["--env", tmp_path / "site.env", "--http", "8080"]
               if command in ("install", "run") else [])
    result = desk.run("service", command, *options)
    assert (result.stdout, result.code) == (b"", 2)
    assert result.stderr == (
        b"kova-admin: services are a matter of Windows; on Linux start an instance of the systemd"
        b" unit kova-mcp-http@.service, see deploy/README.md\n")
