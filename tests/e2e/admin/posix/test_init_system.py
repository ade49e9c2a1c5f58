"""What kova-admin init asks of the system on Linux."""

from __future__ import annotations

import subprocess
from pathlib import Path

from harness.deployments import TIMEOUT, admin_beside
from harness.targets import Installation, Target


def test_what_nobody_reads_is_written_all_the_same(target: Target, installation: Installation,
                                                   tmp_path: Path) -> None:
    """Standard output takes nothing: the exit code still says that a deployment is there."""
    password = tmp_path / "password"
    password.write_text("p", encoding="utf-8")
    folder = tmp_path / "made"
    with open("/dev/full", "wb") as full:
        done = subprocess.run(
            [admin_beside(target, installation, None).path, "init", "--offline",
             "--folder", folder, "--server", "host", "--port", "1", "--database", "SALES",
             "--user", "app", "--password-file", password, "--client-id", "desk",
             "--name", "sales", "--tables", "T", "--denied-columns", "", "--collections", "",
             "--writes", "none", "--transport", "stdio"],
            env=target.environment({}), stdin=subprocess.DEVNULL, stdout=full,
            stderr=subprocess.PIPE, timeout=TIMEOUT, start_new_session=True, check=False)
    assert (done.returncode, done.stderr.decode()) == (
        0, f"kova-admin: {folder} is written, and standard output cannot be written\n")
    assert (folder / "kova-mcp.env").exists() and (folder / "policy.json").exists()
