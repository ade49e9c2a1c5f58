"""Every command of docs/operator.md, run in the order of the document.

The shell is the machine's own on both targets; `kova-admin` is the target's. On Windows the guide's
paths are turned into Windows' form for it, and the blocks for Windows' own shell run in that one.
"""

from __future__ import annotations

import re
import subprocess
import sys
from pathlib import Path
from typing import Iterator

import pytest

import wine
from scripted_terminal import ScriptedTerminal

from harness.deployments import Admin
from harness.sample_engine import PASSWORD, Engine, make_database
from harness.sales_engine import SALES
from harness.targets import ROOT, Installation, Target
from harness.waiting import TIMEOUT

GUIDE = ROOT / "docs" / "operator.md"
BLOCK = re.compile(r"^```(sh|bat)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
STATEMENT = "INSERT INTO ORDERS (ID, CUSTOMER) VALUES (1000, 'someone')"
TOKEN = re.compile(r"^v1\.\d+\.[0-9a-f]{32}\.", re.MULTILINE)

TWO_PEOPLE = "Two people"
"""By sudo and the groups of Linux."""

SECTIONS = ["First deployment", "Daily look", "Approving", TWO_PEOPLE,
            "Stopping everything at once", "Rotating secrets", "Moving to a new host", "Restoring",
            "Shapes for machines"]


def section_texts() -> dict[str, str]:
    parts = re.split(r"^## (.+)$", GUIDE.read_text("utf-8"), flags=re.MULTILINE)
    return dict(zip(parts[1::2], parts[2::2]))


def test_the_sections_are_there() -> None:
    assert list(section_texts()) == SECTIONS


ADMIN_FOR_WINDOWS = """#!{python}
# Runs kova-admin.exe, with the paths among its arguments in Windows' form.
import os, sys
sys.path.insert(0, {scripts!r})
import wine
words = [wine.windows_path(word) if word.startswith("/") else word for word in sys.argv[1:]]
line = wine.command({executable!r}, *words)
os.execve(line[0], line, dict(os.environ))
"""

SUDO = """#!/bin/sh
# Stands for sudo: the same account, told as another one.
shift 2
SUDO_USER=alice exec "$@"
"""


class Desk:
    """A shell at the operator's desk: the guide's folder, port, accounts stand for the test's."""

    def __init__(self, folder: Path, admin: Admin, port: int) -> None:
        self.folder = folder
        self.target = admin.target
        self.kova = folder / "kova"
        self.commands = folder / "commands"
        for made in (self.kova, self.commands):
            made.mkdir()
        (folder / "password").write_text(PASSWORD, encoding="utf-8")
        (folder / "password").chmod(0o600)
        (folder / "statement.sql").write_text(STATEMENT, encoding="utf-8")
        self.command("sudo", SUDO)
        if self.target.windows:
            self.command("kova-admin", ADMIN_FOR_WINDOWS.format(
                python=sys.executable, scripts=str(ROOT / "scripts"), executable=str(admin.path)))
        else:
            (self.commands / "kova-admin").symlink_to(admin.path)
        self.env = self.target.environment({
            "PATH": f"{self.commands}:/usr/bin:/bin", "HOME": str(folder), "TERM": "xterm",
            "NO_COLOR": "1"})
        user, group = (subprocess.run(["id", option], capture_output=True, text=True,
                                      check=True).stdout.strip() for option in ("-un", "-gn"))
        self.here = {"/srv/kova": str(self.kova), "--port 2300": f"--port {port}",
                     "/opt/kova/kova-admin": "kova-admin", "-o root": f"-o {user}",
                     "-o kova-approver": f"-o {user}", "-g kova-approvers": f"-g {group}",
                     "chgrp kova-approvers": f"chgrp {group}",
                     "C:\\srv\\kova": wine.windows_path(self.kova)}

    def command(self, name: str, text: str) -> None:
        (self.commands / name).write_text(text, encoding="utf-8")
        (self.commands / name).chmod(0o755)

    def run(self, shell: str, block: str) -> str:
        """Runs a block as a person does, and returns what the terminal has shown."""
        for guides, tests in self.here.items():
            block = block.replace(guides, tests)
        terminal = ScriptedTerminal(
            ["/bin/sh", "-e", "-c", block] if shell == "sh" else self.in_windows_shell(block),
            self.env, columns=200, rows=100, raw=self.target.windows, cwd=self.folder)
        try:
            if "approve " in block:
                terminal.wait_for("Reason: ")
                terminal.type("the customer asked")
                terminal.wait_for("Type yes: ")
                terminal.type("yes")
            code = terminal.finish()
        finally:
            terminal.close()
        assert code == 0, f"{block}\n{terminal.text}"
        return terminal.text

    def in_windows_shell(self, block: str) -> list[str]:
        return wine.command("cmd", "/c", " & ".join(block.splitlines()))


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


def call_server(desk: Desk) -> None:
    """One call of a client, so that there is an audit record."""
    done = subprocess.run(
        ["kova-admin", "serve", "--env", str(desk.kova / "sales" / "kova-mcp.env")],
        env=desk.env, capture_output=True, timeout=TIMEOUT, check=True,
        executable=desk.commands / "kova-admin",
        input=b'{"jsonrpc":"2.0","id":1,"method":"initialize","params":{}}\n'
              b'{"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"kova_list_tables",'
              b'"arguments":{}}}\n')
    assert done.stdout.count(b"\n") == 2


def failures(desk: Desk, shown: str) -> list[str]:
    """The checks that fail. Wine does not tell that files are safe in the folder of temporary
    files."""
    found = re.findall(r"^FAIL +(\S+)", shown, re.MULTILINE)
    return [name for name in found if not (desk.target.windows and name == "permissions")]


def test_every_command_works(desk: Desk) -> None:
    """The sections build on each other, as the days of an operator do."""
    count = 0
    for section, text in section_texts().items():
        for shell, block in BLOCK.findall(text):
            count += 1
            other_systems = section == TWO_PEOPLE if desk.target.windows else shell == "bat"
            if other_systems:
                continue
            if desk.target.windows:
                # What ends with another code because of a check that fails under Wine goes on.
                block = re.sub(r"^(kova-admin doctor .*)$", r"\1 || test $? = 1", block,
                               flags=re.MULTILINE)
            shown = desk.run(shell, block)
            if "doctor" in block:
                assert "login.login" in shown and failures(desk, shown) == [], shown
            if "kova-admin approve " in block:
                assert TOKEN.search(shown), shown
            if "sudo" in block:
                journal = (desk.kova / "approve" / "journal.jsonl").read_text("utf-8")
                assert '"operator":"alice (as ' in journal
        if section == "First deployment":
            call_server(desk)
    written = re.findall(r"^```(?:sh|bat)$", GUIDE.read_text("utf-8"), re.MULTILINE)
    assert count == len(written) >= 18
    if not desk.target.windows:
        look_at_what_the_approvers_have(desk)


def look_at_what_the_approvers_have(desk: Desk) -> None:
    """The policy and its identity, the journal, and the one secret."""
    text = (desk.kova / "approve" / "approve.env").read_text("utf-8")
    assert "KOVA_MCP_POLICY=" in text and "KOVA_ADMIN_JOURNAL=" in text
    assert "PASSWORD" not in text and "SECRET" not in text and PASSWORD not in text
    secret = desk.kova / "approve" / "secret"
    assert len(secret.read_text("ascii").strip()) == 64 and secret.stat().st_mode & 0o777 == 0o640
