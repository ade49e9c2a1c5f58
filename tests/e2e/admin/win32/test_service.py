"""kova-admin service: the listener as a service, through the service manager."""

from __future__ import annotations

import re
import shutil
import socket
import subprocess
from pathlib import Path
from typing import Any, Iterator

import pytest

from harness import processes
from harness.deployments import Admin, environment_file
from harness.http_client import TOKEN, UNAUTHORIZED, HttpListener, free_ports
from harness.listeners import LOOPBACK
from harness.messages import request
from harness.policy_files import PolicyFiles, profile
from harness.servers import Result
from harness.targets import Installation, Target
from harness.waiting import TIMEOUT, wait_until

# One machine has one service of this name: one process runs all of these.
pytestmark = pytest.mark.xdist_group("service")


def remove(admin: Admin) -> None:
    admin.run("service", "stop")
    admin.run("service", "remove")


@pytest.fixture(scope="session")
def target(target: Target, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Target]:
    """With a Wine of its own: where many programs start at the same time there may be several
    service managers, which know nothing of one another's services."""
    own = Target(target.name, target.build, tmp_path_factory.mktemp("wine") / "prefix")
    with own.ready():
        yield own


@pytest.fixture
def admin(target: Target, installation: Installation, tmp_path: Path) -> Iterator[Admin]:
    """In a folder of the test's own, by which its processes are found."""
    made = Admin(target, installation.executable(None, tmp_path / "installed").parent)
    remove(made)  # what a run that was broken off has left
    yield made
    remove(made)
    wait_until(lambda: running(made) == [], TIMEOUT, "the end of the service's processes")


@pytest.fixture
def variables(policy: PolicyFiles) -> "dict[str, Any]":
    return {**policy(), **profile("2300"), "KOVA_MCP_HTTP_BEARER_TOKEN": TOKEN}


@pytest.fixture
def port() -> int:
    return next(free_ports())


@pytest.fixture
def install(admin: Admin, target: Target, variables: Any, tmp_path: Path, port: int):
    """`install(**variables)` installs the service with these changes of its environment file."""

    def run(**changes: Any) -> Result:
        file = environment_file(target, tmp_path / "site.env", {**variables, **changes})
        return admin.run("service", "install", "--env", file, "--http", str(port))

    return run


def running(admin: Admin) -> list[str]:
    """The command lines of the processes that run from the test's folder."""
    return [processes.command_line(pid).decode(errors="replace")
            for pid in processes.naming(admin.target.path(admin.folder))]


def fine(result: Result, said: bytes) -> None:
    assert (result.stdout.replace(b"\r", b""), result.stderr, result.code) == (
        said + b"\n", b"", 0), result


def refused(result: Result, said: str) -> None:
    assert (result.stdout, result.code) == (b"", 2), result
    assert result.stderr.count(b"\n") == 1 and said.encode() in result.stderr, result.stderr


def is_open(port: int) -> bool:
    with socket.socket() as probe:
        return probe.connect_ex((LOOPBACK, port)) == 0


def listener(port: int) -> HttpListener:
    wait_until(lambda: is_open(port), TIMEOUT, "the listener's port")
    return HttpListener(None, port, str(port))  # type: ignore


def test_from_its_installation_to_its_removal(admin: Admin, install: Any, port: int) -> None:
    fine(install(), b"Installed kova-mcp; kova-admin service start starts it.")
    assert not is_open(port) and running(admin) == []
    fine(admin.run("service", "start"), b"Started kova-mcp.")
    http = listener(port)
    assert http.post(headers={"Authorization": None}) == UNAUTHORIZED
    session = http.open_session()
    assert b'"tools"' in http.post_message(request("tools/list", 1), session)
    # This program as the service's process, the listener, and the session's process.
    assert len(running(admin)) == 3, running(admin)
    fine(admin.run("service", "stop"), b"Stopped kova-mcp.")
    wait_until(lambda: running(admin) == [], TIMEOUT, "the end of the whole tree")
    assert not is_open(port)
    fine(admin.run("service", "start"), b"Started kova-mcp.")
    assert listener(port).open_session() != session
    fine(admin.run("service", "stop"), b"Stopped kova-mcp.")
    fine(admin.run("service", "remove"), b"Removed kova-mcp.")
    refused(admin.run("service", "start"), "the service is not installed")


SERVICE = "HKLM\\System\\CurrentControlSet\\Services\\kova-mcp"
EVENT_SOURCE = ("HKLM\\System\\CurrentControlSet\\Services\\EventLog\\Application\\"
                "kova-mcp")


def registered(target: Target, key: str) -> "dict[str, str]":
    """The values of a key of the registry; none when there is no such key."""
    program = target.prefix / "drive_c" / "windows" / "system32" / "reg.exe"
    done = subprocess.run(target.command(program, ["query", key]), env=target.environment({}),
                          capture_output=True, text=True, timeout=TIMEOUT, check=False)
    return dict(re.findall(r"^ +(\S+) +REG_\w+ +(.*?)\s*$", done.stdout, re.MULTILINE))


def test_as_what_it_is_installed(admin: Admin, install: Any, target: Target, tmp_path: Path,
                                 port: int) -> None:
    """Its account, its start with the system, its command line without a secret, its events."""
    assert install().code == 0
    service = registered(target, SERVICE)
    assert service["ObjectName"] == "NT SERVICE\\kova-mcp"
    assert int(service["Start"], 16) == 2
    assert service["ImagePath"] == (f'"{target.path(admin.path)}" service run --env '
                                    f'"{target.path(tmp_path / "site.env")}" --http {port}')
    assert registered(target, EVENT_SOURCE)["EventMessageFile"].endswith("EventCreate.exe")
    remove(admin)
    assert registered(target, SERVICE) == registered(target, EVENT_SOURCE) == {}


def test_without_a_service(admin: Admin) -> None:
    for command in ("start", "stop", "remove"):
        refused(admin.run("service", command), "the service is not installed")


def test_what_is_there_is_not_installed_again(admin: Admin, install: Any) -> None:
    assert install().code == 0
    refused(install(), "the service is installed already; remove it first")
    refused(admin.run("service", "stop"), "the service is not running")


def test_a_running_service_is_not_removed(admin: Admin, install: Any, port: int) -> None:
    assert install().code == 0
    assert admin.run("service", "start").code == 0
    refused(admin.run("service", "start"), "the service is running")
    refused(admin.run("service", "remove"), "the service is running")
    assert listener(port).open_session()


def test_a_listener_that_ends_by_itself_ends_the_service(admin: Admin, install: Any,
                                                         port: int) -> None:
    """The service manager restarts it then, which Wine's does not."""
    assert install().code == 0
    with socket.create_server((LOOPBACK, port)):
        admin.run("service", "start")
        wait_until(lambda: running(admin) == [], TIMEOUT, "the end of the service's process")
        refused(admin.run("service", "stop"), "the service is not running")
    fine(admin.run("service", "start"), b"Started kova-mcp.")
    assert listener(port).open_session()


@pytest.mark.parametrize("changes, said", [
    ({"KOVA_MCP_HTTP_BEARER_TOKEN": None}, "KOVA_MCP_HTTP_BEARER_TOKEN is not set"),
    ({"KOVA_MCP_CLIENT_ID": "somebody"}, "MCP launch identity does not match named policy"),
])
def test_a_deployment_that_does_not_work_is_not_installed(admin: Admin, install: Any, changes: Any,
                                                          said: str) -> None:
    refused(install(**changes), said)
    refused(admin.run("service", "remove"), "the service is not installed")


def test_what_cannot_be_installed(admin: Admin, target: Target, variables: Any,
                                  tmp_path: Path) -> None:
    file = environment_file(target, tmp_path / "site.env", variables)
    refused(admin.run("service", "install", "--env", "site.env", "--http", "8080", cwd=tmp_path),
            "must be absolute and canonical")
    refused(admin.run("service", "install", "--env", file, "--http", "65536"), "--http")
    refused(admin.run("service", "install", "--http", "8080"), "--env")
    alone = tmp_path / "alone"
    alone.mkdir()
    shutil.copy2(admin.path, alone)
    refused(Admin(target, alone).run("service", "install", "--env", file, "--http", "8080"),
            "the server is not there")
    refused(admin.run("service", "remove"), "the service is not installed")


def test_by_hand_its_process_does_nothing(admin: Admin, target: Target, variables: Any,
                                          tmp_path: Path, port: int) -> None:
    file = environment_file(target, tmp_path / "site.env", variables)
    refused(admin.run("service", "run", "--env", file, "--http", str(port)),
            "the service manager did not start this process")
    assert not is_open(port)


def test_secrets_that_all_may_read_are_not_used(admin: Admin, install: Any, port: int,
                                                tmp_path: Path) -> None:
    assert install().code == 0
    (tmp_path / "site.env").chmod(0o644)
    assert admin.run("service", "start").code == 2
    refused(admin.run("service", "run", "--env", tmp_path / "site.env", "--http", str(port)),
            "every account may read or change it")
    assert not is_open(port)
