"""Somebody who has never seen it installs a release on a new Windows by docs/install.md.

The Windows is a Wine prefix of the test's own. PowerShell is in no Debian package: what its blocks
do is done here, with the folders that they name.
"""

from __future__ import annotations

import json
import re
import shutil
import socket
import subprocess
import zipfile
from pathlib import Path
from typing import Any, Iterator

import pytest

import windows_installer
from harness import newcomer
from harness.http_client import CLOSED, HttpListener, free_ports
from harness.messages import call, notification, request
from harness.sales_engine import COUNT_ORDERS, ORDERS
from harness.sample_engine import LOOPBACK, PASSWORD, Engine
from harness.servers import Server
from harness.targets import ROOT, Target
from harness.waiting import TIMEOUT, wait_until

PLACE = "C:\\Program Files\\kova-mcp"
LIMIT = 10 * TIMEOUT
NEXT = "99.0.0"
"""The version of the upgrade."""
SERVICE_GUIDE = ROOT / "docs" / "windows-service.md"
FOLDER = "C:\\ProgramData\\kova-sales"


class Windows:
    """A new prefix, and the console of its user, who is also its administrator."""

    def __init__(self, target: Target, folder: Path) -> None:
        self.target = Target("windows", target.build, folder / "prefix")
        self.disk = folder / "prefix" / "drive_c"
        self.console = self.disk / "console"

    @property
    def place(self) -> Path:
        return self.disk / "Program Files" / "kova-mcp"

    def give(self, *files: Path) -> None:
        self.console.mkdir(exist_ok=True)
        for file in files:
            shutil.copy2(file, self.console)

    def run(self, block: str, codes: "tuple[int, ...]" = (0,)) -> str:
        """Runs each line as it is written, and returns what was printed."""
        printed = ""
        for line in block.splitlines():
            (self.console / "line.bat").write_text(f"@{line}\r\n", encoding="ascii", newline="")
            done = subprocess.run(self.target.command(Path("cmd"), ["/c", "line.bat"]),
                                  cwd=self.console, env=self.target.environment({}),
                                  stdin=subprocess.DEVNULL, capture_output=True, timeout=LIMIT,
                                  check=False)
            assert done.returncode in codes, f"{line}\n{done.stdout!r}{done.stderr!r}"
            printed += done.stdout.decode("utf-8").replace("\r\n", "\n")
        (self.console / "line.bat").unlink()
        return printed

    def files(self) -> set[str]:
        return {str(path.relative_to(self.disk)) for path in self.disk.rglob("*")
                if path.is_file()}


@pytest.fixture
def windows(target: Target, tmp_path: Path) -> Iterator[Windows]:
    made = Windows(target, tmp_path)
    with made.target.ready():
        yield made


def deploy(windows: Windows, block: str, engine: Engine) -> None:
    """Each line as it is written, and each leaves what the guide promises."""
    windows.give()
    (windows.console / "password").write_text(PASSWORD, encoding="utf-8")
    init, doctor, show, delete = newcomer.at_the_engine(block, engine).splitlines()
    windows.run(init)
    healthy(windows.run(doctor, (0, 1)))
    assert json.loads(windows.run(show))
    windows.run(delete)
    assert not (windows.console / "password").exists()


def healthy(printed: str) -> None:
    """Nothing fails but what Wine itself does not tell: who may write to a file."""
    failed = re.findall(r"^FAIL +(\S+)", printed, re.MULTILINE)
    assert set(failed) <= {"permissions"}, printed
    assert re.search(r"^ok +login\.login", printed, re.MULTILINE), printed


def deployment_folder(windows: Windows) -> Path:
    [found] = windows.disk.glob("users/*/kova-sales")
    return found


def assert_session(windows: Windows) -> None:
    """By the entry, as a client starts it."""
    folder = deployment_folder(windows)
    command, arguments = newcomer.entry_of(
        (folder / "clients" / "claude-desktop.json").read_text("utf-8"))
    assert command == PLACE + "\\kova-admin.exe"
    server = Server(windows.target, Path(command), arguments, {}, windows.console)
    newcomer.play_to_the_end(server)
    assert newcomer.last_calls(folder / "audit.jsonl", 2) == ["count", "card"]


def unpack_into_place(windows: Windows, archive: Path, client_library: Path) -> None:
    """As the guide says it for PowerShell."""
    with zipfile.ZipFile(archive) as opened:
        opened.extractall(windows.disk)
    (windows.disk / archive.name.removesuffix(".zip")).rename(windows.place)
    shutil.copy2(client_library, windows.place)


def test_the_archive(windows: Windows, engine: Engine, archive: Path, client_library: Path,
                     version: str) -> None:
    [_, deployment, _] = newcomer.blocks("Windows", "bat", VERSION=version)
    [unpack] = newcomer.blocks("Windows", "powershell", VERSION=version)
    expand, move = unpack.splitlines()
    assert expand == f"Expand-Archive {archive.name} ."
    assert move == f'Move-Item {archive.name.removesuffix(".zip")} "{PLACE}"'
    unpack_into_place(windows, archive, client_library)
    deploy(windows, deployment, engine)
    assert_session(windows)


def test_the_installer(windows: Windows, engine: Engine, archive: Path, client_library: Path,
                       version: str, tmp_path: Path) -> None:
    """Install, deploy, upgrade, remove; what was written stays, and nothing of the program."""
    with zipfile.ZipFile(archive) as opened:
        opened.extractall(tmp_path)
    unpacked = tmp_path / archive.name.removesuffix(".zip")
    windows.give(client_library)
    for number in (version, NEXT):
        windows_installer.write_installer(
            windows.console / f"kova-mcp-{number}-x64.msi", unpacked, number, tmp_path)
    before = windows.files()
    install, deployment, remove = newcomer.blocks("Windows", "bat", VERSION=version)
    windows.run(install)
    deploy(windows, deployment, engine)
    assert_session(windows)
    windows.run(install.splitlines()[0].replace(version, NEXT))
    assert_session(windows)
    windows.run(remove.replace(version, NEXT))
    assert not windows.place.exists()
    new = {name for name in windows.files() - before if "/kova-sales/" not in name}
    assert new == set()
    assert (deployment_folder(windows) / "policy.json").exists()


# The service, by docs/windows-service.md


def change_environment(file: Path, lines: str) -> None:
    """Gives the variables these values, each once."""
    text = file.read_text("utf-8")
    for line in lines.splitlines():
        name = line.partition("=")[0]
        text = re.sub(rf"(?m)^{name}=.*\n", "", text) + line + "\n"
    file.write_text(text, encoding="utf-8")


def count_orders(listener: HttpListener) -> Any:
    """In a session of a client whose requests the proxy has passed on."""
    proxied = {"Host": "mcp.example.com"}

    def post(message: bytes, session: "str | None" = None) -> bytes:
        return listener.post(message.rstrip(), session, headers=proxied)

    session = listener.session_of(post(request("initialize", "init", {})))
    post(notification("notifications/initialized"), session)
    head, _, body = post(call("count", "kova_query", COUNT_ORDERS["args"]),
                         session).partition(b"\r\n\r\n")
    assert head.startswith(b"HTTP/1.1 200 "), head
    assert listener.delete(session, headers=proxied) == CLOSED
    return json.loads(body)["result"]["structuredContent"]["rows"]


def test_the_service(windows: Windows, engine: Engine, archive: Path, client_library: Path,
                     version: str) -> None:
    """Wine keeps no rights for accounts: its icacls does nothing. The paths are looked at here."""
    unpack_into_place(windows, archive, client_library)
    windows.give()
    (windows.console / "password").write_text(PASSWORD, encoding="utf-8")
    deployment = newcomer.blocks("Windows", "bat", VERSION=version)[1]
    init = newcomer.at_the_engine(deployment, engine).splitlines()[0]
    windows.run(init.replace('"%USERPROFILE%\\kova-sales"', FOLDER)
                .replace("--transport stdio", "--transport http"))
    folder = windows.disk / "ProgramData" / "kova-sales"
    (kind, variables), (_, steps) = newcomer.BLOCK.findall(SERVICE_GUIDE.read_text("utf-8"))
    assert kind == "sh"
    change_environment(folder / "kova-mcp.env", variables)
    port = next(free_ports())
    steps = steps.replace("--http 8080", f"--http {port}")
    short = newcomer.blocks("A listener as a Windows service", "bat")[0]
    assert set(short.replace("8080", str(port)).splitlines()) <= set(steps.splitlines())
    try:
        windows.run(steps)
        for path in re.findall(r"(?m)^icacls (\S+) ", steps):
            assert (windows.disk / path.removeprefix("C:\\").replace("\\", "/")).exists(), path
        [token] = re.findall(r"(?m)^KOVA_MCP_HTTP_BEARER_TOKEN='(.*)'$",
                             (folder / "kova-mcp.env").read_text("utf-8"))
        listener = HttpListener(None, port, str(port), token)  # type: ignore
        wait_until(lambda: is_open(port), LIMIT, "the listener's port")
        assert count_orders(listener) == [[str(ORDERS)]]
    finally:
        windows.run(f'"{PLACE}\\kova-admin.exe" service stop', (0, 2))
        windows.run(f'"{PLACE}\\kova-admin.exe" service remove', (0, 2))
    assert newcomer.last_calls(folder / "audit" / "audit.jsonl", 1) == ["count"]


def is_open(port: int) -> bool:
    with socket.socket() as probe:
        return probe.connect_ex((LOOPBACK, port)) == 0
