"""Every command of docs/operator.md, run in the order of the document."""

from __future__ import annotations

import os
import pty
import re
import select
import shutil
import subprocess
import time
from pathlib import Path
from typing import Iterator

import pytest

from harness.deployments import Admin
from harness.sample_engine import PASSWORD, Engine, make_database
from harness.sales_engine import SALES
from harness.targets import ROOT, Installation, Target

GUIDE = ROOT / "docs" / "operator.md"
BLOCK = re.compile(r"^```sh\n(.*?)^```$", re.MULTILINE | re.DOTALL)
STATEMENT = "INSERT INTO ORDERS (ID, CUSTOMER) VALUES (1000, 'someone')"
STEP_TIMEOUT = 120.0

SECTIONS = ["First deployment", "Daily look", "Approving", "Stopping everything at once",
            "Rotating secrets", "Moving to a new host", "Restoring"]


def section_texts() -> dict[str, str]:
    parts = re.split(r"^## (.+)$", GUIDE.read_text("utf-8"), flags=re.MULTILINE)
    return dict(zip(parts[1::2], parts[2::2]))


def test_the_sections_are_there() -> None:
    assert list(section_texts()) == SECTIONS


class Desk:
    """A shell at the operator's desk: the guide's folder, port and files stand for the test's."""

    def __init__(self, folder: Path, admin: Admin, port: int) -> None:
        self.folder = folder
        self.port = port
        (folder / "kova").mkdir()
        (folder / "password").write_text(PASSWORD, encoding="utf-8")
        (folder / "password").chmod(0o600)
        (folder / "statement.sql").write_text(STATEMENT, encoding="utf-8")
        self.env = {"PATH": f"{admin.folder}:/usr/bin:/bin", "HOME": str(folder), "TERM": "xterm",
                    "LC_ALL": "C.UTF-8"}

    def here(self, block: str) -> str:
        return block.replace("/srv/kova", str(self.folder / "kova")).replace(
            "--port 2300", f"--port {self.port}")

    def run(self, block: str) -> str:
        """Runs a block as a person does, and returns what the terminal has shown."""
        pid, terminal = pty.fork()
        if pid == 0:
            os.chdir(self.folder)
            os.execve("/bin/sh", ["sh", "-e", "-c", self.here(block)], self.env)
        shown = self._talk(terminal)
        os.close(terminal)
        status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
        assert status == 0, f"{block}\n{shown}"
        return shown

    def _talk(self, terminal: int) -> str:
        """Answers approve's two questions; reads until the end."""
        shown = b""
        answered = 0
        end = time.monotonic() + STEP_TIMEOUT
        while True:
            left = end - time.monotonic()
            assert left > 0 and select.select([terminal], [], [], left)[0], shown
            try:
                piece = os.read(terminal, 4096)
            except OSError:  # the terminal has gone with its last program
                return shown.decode("utf-8", "replace")
            if not piece:
                return shown.decode("utf-8", "replace")
            shown += piece
            tail = shown.rsplit(b"\n", 1)[-1].lower()
            if answered == 0 and tail.strip().endswith(b":") and b"reason" in tail:
                os.write(terminal, b"the customer asked\n")
                answered = 1
            elif answered == 1 and b"yes" in tail and tail.strip().endswith((b":", b"?")):
                os.write(terminal, b"yes\n")
                answered = 2


@pytest.fixture(scope="module")
def desk(target: Target, installation: Installation, engine_executable: Path,
         tmp_path_factory: pytest.TempPathFactory) -> Iterator[Desk]:
    folder = tmp_path_factory.mktemp("operator")
    (folder / "data").mkdir()
    make_database(folder / "data" / "SALES.db", SALES)
    engine = Engine(engine_executable, folder)
    made = Desk(folder, Admin(target, installation.executable("sample").parent), engine.port)
    yield made
    engine.stop()
    shutil.rmtree(folder / "kova")


def call_server(desk: Desk) -> None:
    """One call of a client, so that there is an audit record."""
    done = subprocess.run(
        ["kova-admin", "serve", "--env", str(desk.folder / "kova" / "sales" / "kova-mcp.env")],
        env=desk.env, capture_output=True, timeout=STEP_TIMEOUT, check=True,
        input=b'{"jsonrpc":"2.0","id":1,"method":"initialize","params":{}}\n'
              b'{"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"kova_list_tables",'
              b'"arguments":{}}}\n')
    assert done.stdout.count(b"\n") == 2


def test_every_command_works(desk: Desk) -> None:
    """The sections build on each other, as the days of an operator do."""
    count = 0
    for section, text in section_texts().items():
        for block in BLOCK.findall(text):
            shown = desk.run(block)
            count += 1
            if "doctor" in block:
                assert "FAIL" not in shown, shown
            if "kova-admin approve " in block:
                assert re.search(r"^v1\.\d+\.[0-9a-f]{32}\.", shown, re.MULTILINE), shown
        if section == "First deployment":
            call_server(desk)
    assert count == len(re.findall(r"^```sh$", GUIDE.read_text("utf-8"), re.MULTILINE)) >= 12
