"""No library is taken from the current directory, which others may be able to write to."""

from __future__ import annotations

import re
import shutil
import subprocess
from pathlib import Path

import pytest

from harness import messages

LOADED_LATE = ["bcrypt.dll", "kovadll.dll", "advapi32.dll", "mswsock.dll"]
"""What is loaded at run time: the cryptography, the client library, and what a server could load
by way of the system's own libraries."""

DIGEST = b"0123456789abcdef" * 4


@pytest.fixture
def imported(target) -> "list[str]":
    headers = subprocess.run(["x86_64-w64-mingw32-objdump", "-p", target.executable], check=True,
                             text=True, stdout=subprocess.PIPE).stdout
    return re.findall(r"DLL Name: (\S+)", headers)


@pytest.fixture
def marker(target) -> Path:
    return target.build / "tests" / "support" / "marker_library.dll"


@pytest.fixture
def trap(imported, marker, tmp_path) -> Path:
    """A folder with libraries of all these names that tell when they are loaded."""
    folder = tmp_path / "trap"
    folder.mkdir()
    assert imported
    for name in [*imported, *LOADED_LATE]:
        shutil.copy2(marker, folder / name)
    return folder


@pytest.fixture
def loaded(tmp_path) -> Path:
    """The file that such a library makes."""
    return tmp_path / "loaded"


@pytest.fixture
def env(engine, policy, loaded, tmp_path) -> dict:
    """Of a server that has everything but the client library, and may issue approvals."""
    (tmp_path / "state").mkdir()
    return {**engine.env,
            **policy(writes_enabled=True, approval_required=True, write_types=["INSERT"],
                     write_tables=["ORDERS"], approval_state_directory=tmp_path / "state"),
            "KOVA_MCP_APPROVAL_SECRET": "s" * 32, "KOVA_TEST_LOADED": loaded}


def test_none_comes_from_the_current_directory(servers, env, loaded, trap):
    issued = servers.run("--issue-approval", stdin=DIGEST + b"\n", env=env, library=None, cwd=trap)
    assert issued.code == 0, issued
    checked = servers.run("--check-config", env=env, library=None, cwd=trap)
    assert checked.code == 2, checked
    server = servers.start(env=env, library=None, cwd=trap)
    server.initialize()
    server.ask(messages.call("a", "kova_list_databases", {}))
    assert server.finish().code == 0
    assert not loaded.exists()


def test_the_trap_works(servers, env, loaded, marker, tmp_path):
    """The same library beside the executable is loaded, and tells so."""
    folder = tmp_path / "own"
    executable = servers.installation.executable(None, folder)
    shutil.copy2(marker, folder / servers.target.library_name)
    subprocess.run(servers.target.command(executable, ["--check-config"]),
                   env=servers.target.environment(env), cwd=tmp_path, stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=120)
    assert loaded.exists()
