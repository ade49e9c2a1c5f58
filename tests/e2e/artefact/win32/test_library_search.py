"""No library is taken from the current directory, which others may be able to write to.

The system looks there after its own folders, so that only what it lacks could come from there. An
old setting of the machine turns that order round; the traps are set under it, so that a load that
leaves the search to the system is caught.
"""

from __future__ import annotations

import re
import shutil
import subprocess
from pathlib import Path
from typing import Iterator

import pytest

from harness import messages
from harness.audit_files import records
from harness.deployments import SECRET, Admin, environment_file, report_of
from harness.targets import Target

# They share a setting of the machine.
pytestmark = pytest.mark.xdist_group("library search")

SESSION_MANAGER = "HKLM\\System\\CurrentControlSet\\Control\\Session Manager"

LOADED_LATE = ["bcrypt.dll", "kovadll.dll", "advapi32.dll", "ws2_32.dll", "mswsock.dll"]
"""What is loaded at run time: the cryptography, the client library, what a record needs, the
sockets, and what a server could load by way of the system's own libraries."""

DIGEST = b"0123456789abcdef" * 4


def imports(program: Path) -> "list[str]":
    headers = subprocess.run(["x86_64-w64-mingw32-objdump", "-p", program], check=True, text=True,
                             stdout=subprocess.PIPE).stdout
    found = re.findall(r"DLL Name: (\S+)", headers)
    assert found
    return found


def as_found(program: Path) -> "dict[str, str]":
    """Wine would take its own library in place of the one that the search has found. What a program
    imports is left out: Windows searches for none of these libraries, which Wine does."""
    imported = [name.lower() for name in imports(program)]
    names = [Path(name).stem for name in LOADED_LATE if name not in imported]
    return {"WINEDLLOVERRIDES": ",".join(names) + "=n,b;mscoree,mshtml="}


def registry(target: Target, command: str, *arguments: str) -> None:
    subprocess.run(target.command(Path("reg"), [command, SESSION_MANAGER, "/v", "SafeDllSearchMode",
                                                *arguments, "/f"]),
                   env=target.environment({}), check=True, timeout=120, stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL)


@pytest.fixture
def current_directory_first(target) -> Iterator[None]:
    """Before the system's own folders, that is, and after the executable's."""
    registry(target, "add", "/t", "REG_DWORD", "/d", "0")
    yield
    registry(target, "delete")


@pytest.fixture
def admin(target, installation) -> Admin:
    """kova-admin beside a server without a client library."""
    return Admin(target, installation.executable(None).parent)


@pytest.fixture
def marker(target) -> Path:
    return target.build / "tests" / "support" / "marker_library.dll"


@pytest.fixture
def trap(target, admin, marker, current_directory_first, tmp_path) -> Path:
    """A folder with libraries of all these names that tell when they are loaded."""
    folder = tmp_path / "trap"
    folder.mkdir()
    for name in [*imports(target.executable), *imports(admin.path), *LOADED_LATE]:
        shutil.copy2(marker, folder / name)
    return folder


@pytest.fixture
def loaded(tmp_path) -> Path:
    """The file that such a library makes."""
    return tmp_path / "loaded"


@pytest.fixture
def env(target, engine, policy, loaded, tmp_path) -> dict:
    """Of a server that has everything but the client library, and may issue approvals."""
    (tmp_path / "state").mkdir()
    return {**engine.env,
            **policy(writes_enabled=True, approval_required=True, write_types=["INSERT"],
                     write_tables=["ORDERS"], approval_state_directory=tmp_path / "state"),
            "KOVA_MCP_APPROVAL_SECRET": SECRET, "KOVA_MCP_AUDIT": tmp_path / "audit",
            "KOVA_TEST_LOADED": loaded, **as_found(target.executable)}


def recorded(env: dict) -> "list[str]":
    """The calls of which there is a record."""
    return [record["correlation_id"] for record in records(env["KOVA_MCP_AUDIT"])]


def test_a_server_takes_none_from_the_current_directory(servers, env, loaded, trap):
    issued = servers.run("--issue-approval", stdin=DIGEST + b"\n", env=env, library=None, cwd=trap)
    assert issued.code == 0, issued
    checked = servers.run("--check-config", env=env, library=None, cwd=trap)
    assert checked.code == 2, checked
    server = servers.start(env=env, library=None, cwd=trap)
    server.initialize()
    server.ask(messages.call("a", "kova_list_databases", {}))
    assert server.finish().code == 0
    assert recorded(env) == ["a"]
    assert not loaded.exists()


def test_a_listener_takes_none_from_the_current_directory(http, env, loaded, trap):
    listener = http(env, library=None, cwd=trap)
    session = listener.open_session()
    listener.post_message(messages.call("h", "kova_list_databases", {}), session)
    assert recorded(env) == ["h"]
    listener.stop()
    assert not loaded.exists()


def test_kova_admin_takes_none_from_the_current_directory(target, admin, env, loaded, trap,
                                                          tmp_path):
    """`doctor` looks at the policy, the secret and the audit file; a seal needs a digest."""
    told = {"KOVA_TEST_LOADED": loaded, **as_found(admin.path)}
    variables = environment_file(target, tmp_path / "kova-mcp.env", env)
    report = report_of(admin.run("doctor", "--json", "--env", variables, env=told, cwd=trap))
    assert report["approval.secret"]["status"] == "ok"
    (tmp_path / "rotated").write_bytes(b"")
    sealed = admin.run("audit", "seal", "--to", tmp_path / "SEALS", tmp_path / "rotated", env=told,
                       cwd=trap)
    assert sealed.code == 0, sealed
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
