"""kova-admin init: the questions that it asks on a terminal for what no option says."""

from __future__ import annotations

import json
import re
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

from harness.deployments import Admin
from harness.sample_engine import LOOPBACK, PASSWORD, USER, Engine
from harness.targets import Installation, Target

TABLES = "Tables that may be read"


@pytest.fixture(scope="module")
def admin(target: Target, installation: Installation) -> Admin:
    return Admin(target, installation.executable("sample").parent)


@pytest.fixture
def engine(start_sample_engine: Callable[..., Engine]) -> Engine:
    return start_sample_engine()


class Conversation:
    """`init` on a terminal: `ask(question, answer)` waits for a question and answers it."""

    def __init__(self, admin: Admin, *arguments: "str | Path") -> None:
        # Wine's console draws what its window shows, not what has scrolled out of it meanwhile.
        self.terminal = admin.on_terminal("init", *arguments, columns=160, rows=60)
        self.asked: list[str] = []

    def ask(self, question: str, answer: str) -> str:
        """Returns the open line of the question."""
        self.terminal.wait_for(question)
        line = self.open_line(question)
        self.asked.append(line)
        self.terminal.type(answer)
        return line

    def open_line(self, question: str) -> str:
        """What stands on the question's line when it ends in its blank."""
        self.terminal.wait_until(lambda text: re.search(re.escape(question) + r"[^\n]*: ?$", text))
        return self.terminal.text.rpartition("\n")[2]

    def end(self) -> int:
        return self.terminal.finish()


@pytest.fixture
def converse(admin: Admin) -> "Iterator[Callable[..., Conversation]]":
    started: list[Conversation] = []

    def start(*arguments: "str | Path") -> Conversation:
        started.append(Conversation(admin, *arguments))
        return started[-1]

    yield start
    for conversation in started:
        conversation.terminal.close()


def login(conversation: Conversation, folder: str, engine: Engine) -> None:
    conversation.ask("Folder to write into", folder)
    conversation.ask("Where the engine is: host", "")
    conversation.ask("Its port", str(engine.port))
    conversation.ask("Database", "shop")
    conversation.ask("Login: user", USER)
    conversation.ask("Password (not shown)", PASSWORD)


def test_everything_is_asked(converse: Any, engine: Engine, target: Target,
                             tmp_path: Path) -> None:
    folder = tmp_path / "made"
    talk = converse()
    login(talk, target.path(folder), engine)
    talk.ask("The client's name", "")
    talk.ask("The policy's name", "")
    offer = talk.ask(TABLES, "items, PARTS")
    talk.ask("Columns that may never be read", "PICTURE")
    talk.ask("AI collections that may be searched", "")
    talk.ask("Writes: none, or approval for each one", "approval")
    talk.ask("Transport: stdio or http", "")
    assert talk.end() == 0, talk.terminal.text
    assert "(the engine has CHEAP, ITEMS, PARTS)" in offer
    assert "[127.0.0.1]" in talk.asked[1] and "[shop]" in talk.asked[7]
    policy = json.loads((folder / "policy.json").read_text("utf-8"))
    assert policy["allowed_tables"] == policy["write_tables"] == ["items", "PARTS"]
    assert (policy["client_id"], policy["name"]) == ("desktop", "shop")
    assert policy["denied_columns"] == ["PICTURE"] and policy["approval_required"]
    settings = (folder / "kova-mcp.env").read_text("utf-8")
    assert f"KOVA_MCP_SERVER='{LOOPBACK}'\n" in settings
    assert "KOVA_MCP_APPROVAL_SECRET='" in settings and "HTTP_BEARER" not in settings
    assert "Next: kova-admin doctor" in talk.terminal.text.replace("\n", "")


def test_the_password_is_not_shown(converse: Any, engine: Engine, target: Target,
                                   tmp_path: Path) -> None:
    talk = converse()
    login(talk, target.path(tmp_path / "made"), engine)
    talk.terminal.wait_for("The client's name")
    shown = talk.terminal.transcript.decode("utf-8", "replace")
    for part in (PASSWORD, PASSWORD[:6], PASSWORD[-6:]):
        assert part not in shown
    # What is typed after the password is shown again.
    talk.ask("The client's name", "visible-name")
    talk.terminal.wait_for("visible-name")


def test_only_what_no_option_says_is_asked(converse: Any, engine: Engine, tmp_path: Path) -> None:
    password = tmp_path / "password"
    password.write_text(PASSWORD + "\r\n", encoding="utf-8", newline="")
    folder = tmp_path / "made"
    talk = converse("--folder", folder, "--server", LOOPBACK, "--port", str(engine.port),
                    "--database", "shop", "--user", USER, "--password-file", password,
                    "--name", "shop_desk", "--denied-columns", "", "--collections", "",
                    "--writes", "none", "--transport", "stdio")
    talk.ask("The client's name", "desk")
    talk.ask(TABLES, "ITEMS,GHOSTS")
    assert talk.end() == 0, talk.terminal.text
    assert "The engine does not list: GHOSTS" in talk.terminal.text
    assert json.loads((folder / "policy.json").read_text("utf-8"))["client_id"] == "desk"


def test_without_an_engine_no_table_is_offered(converse: Any, target: Target,
                                               tmp_path: Path) -> None:
    folder = tmp_path / "made"
    talk = converse("--offline", "--folder", folder, "--server", LOOPBACK, "--port", "1",
                    "--database", "shop", "--user", USER, "--client-id", "desk", "--name", "n",
                    "--denied-columns", "", "--collections", "", "--writes", "none",
                    "--transport", "stdio")
    talk.ask("Password (not shown)", "secret-word")
    assert "the engine has" not in talk.ask(TABLES, "")
    assert talk.end() == 0, talk.terminal.text
    assert (folder / "kova-mcp.env").is_file()


def test_a_login_that_fails_ends_the_questions(converse: Any, engine: Engine, target: Target,
                                               tmp_path: Path) -> None:
    engine.stop()
    talk = converse()
    login(talk, target.path(tmp_path / "made"), engine)
    assert talk.end() == 2
    assert "login.connect" in talk.terminal.text and "The client's name" not in talk.terminal.text
    assert not (tmp_path / "made").exists()


def test_an_answer_that_is_wrong_writes_nothing(converse: Any, engine: Engine, target: Target,
                                                tmp_path: Path) -> None:
    talk = converse("--offline")
    login(talk, target.path(tmp_path / "made"), engine)
    for question, answer in (("The client's name", "has blank"), ("The policy's name", ""),
                             (TABLES, ""), ("Columns that may never", ""), ("AI collections", ""),
                             ("Writes:", ""), ("Transport:", "")):
        talk.ask(question, answer)
    assert talk.end() == 2
    assert "--client-id: " in talk.terminal.text
    assert not (tmp_path / "made").exists()


@pytest.mark.parametrize("question", ["Folder to write into", "Its port", "Password (not shown)"])
def test_the_interrupt_key_writes_nothing(converse: Any, target: Target, tmp_path: Path,
                                          question: str) -> None:
    """At the first question and at later ones."""
    talk = converse("--offline")
    for asked in ("Folder to write into", "Where the engine is: host", "Its port", "Database",
                  "Login: user", "Password (not shown)"):
        if asked == question:
            break
        talk.ask(asked, target.path(tmp_path / "made") if asked.startswith("Folder") else "1")
    talk.terminal.wait_for(question)
    talk.terminal.interrupt()
    assert talk.end() == 2, talk.terminal.text
    assert "interrupted; nothing is written" in talk.terminal.text
    assert not (tmp_path / "made").exists()
